// The plugin manager against real plugin files. Every test runs in a forked
// child with its own temporary HOME (user plugin directory
// $HOME/.travik/plugins/) and its own working directory, whose sysplugins/
// is the compiled-in plugin directory of the library this test links (see
// CMakeLists.txt). The child reports what it saw as text; the parent checks it.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <travik/config.h>
#include <travik/decoder.h>
#include <travik/demuxer.h>
#include <travik/font.h>
#include <travik/plugin.h>
#include <travik/subtitle.h>
#include <travik/system.h>

#include "util/testutil.h"

namespace fs = std::filesystem;
using travik_test::in_child;
using travik_test::read_file;
using travik_test::StderrCapture;
using travik_test::write_file;

namespace {

// A private world for one child: HOME, the user and compiled-in plugin
// directories, and the log the test plugins append their names to.
class World {
 public:
  World() {
    home_ = root_.file("home");
    cwd_ = root_.file("cwd");
    fs::create_directories(home_);
    fs::create_directories(cwd_);
    setenv("HOME", home_.c_str(), 1);
    unsetenv("TRAVIK_PLUGINS_DIR");
    setenv("TRAVIK_TEST_LOAD_LOG", root_.file("loads").c_str(), 1);
    if (chdir(cwd_.c_str()) != 0) std::abort();
  }
  ~World() {
    if (chdir("/") != 0) std::abort();
  }

  std::string user() const { return home_ + "/.travik/plugins"; }
  std::string system() const { return cwd_ + "/sysplugins"; }
  std::string home() const { return home_; }
  std::string cache(const char *kind) const { return home_ + "/.travik/" + kind + ".cfg"; }

  // Copies a built test plugin into `directory`/<kind>/, as `as` if given.
  // The copy is a new file, never an overwrite of one that may be mapped.
  std::string install(const std::string &directory, const std::string &kind,
                      const std::string &file, const std::string &as = "") const {
    return install_from(std::string(TEST_PLUGIN_DIR) + "/" + kind + "/" + file, directory, kind,
                        as.empty() ? file : as);
  }
  std::string install_from(const std::string &source, const std::string &directory,
                           const std::string &kind, const std::string &as) const {
    fs::create_directories(directory + "/" + kind);
    std::string target = directory + "/" + kind + "/" + as;
    fs::remove(target);
    fs::copy_file(source, target);
    return target;
  }

  // Names of the entry functions run since the last call, one per line.
  std::string loads() {
    std::string path = root_.file("loads");
    std::string text = read_file(path);
    fs::remove(path);
    return text;
  }

 private:
  travik_test::TempDir root_;
  std::string home_;
  std::string cwd_;
};

const char *description(travik_plugin *plugin) {
  if (!plugin || !plugin->drivers) return "(none)";
  return static_cast<travik_demuxer_driver *>(plugin->drivers)[0].description;
}

std::string demuxer_path(const char *file) { return std::string(TEST_PLUGIN_DIR) + "/demuxer/" + file; }

TEST(PluginCreate, LoadsFromUserDirectory) {
  std::string seen = in_child([] {
    World world;
    world.install(world.user(), "demuxer", "libdemuxer_alpha.so");
    travik_plugin *plugin =
        travik_plugin_create("demuxer/libdemuxer_alpha.so", TRAVIK_PLUGIN_DEMUXER, 1);
    if (!plugin) return std::string("null");
    std::ostringstream out;
    out << description(plugin) << "|" << plugin->name << "|" << plugin->kind << "|"
        << plugin->version << "|" << plugin->refcount << "|" << (plugin->handle != nullptr) << "|"
        << world.loads();
    travik_plugin_destroy(plugin);
    return out.str();
  });
  EXPECT_EQ(seen, "Alpha|demuxer/libdemuxer_alpha.so|1|1|1|1|travik_demuxer_alpha\n");
}

TEST(PluginCreate, FallsBackToCompiledInDirectoryWithoutWarning) {
  std::string seen = in_child([] {
    World world;
    world.install(world.system(), "demuxer", "libdemuxer_alpha.so");
    StderrCapture capture;
    travik_plugin *plugin =
        travik_plugin_create("demuxer/libdemuxer_alpha.so", TRAVIK_PLUGIN_DEMUXER, 1);
    std::string result = std::string(description(plugin)) + "|" + capture.text();
    travik_plugin_destroy(plugin);
    return result;
  });
  EXPECT_EQ(seen, "Alpha|");
}

TEST(PluginCreate, UserCopyWinsOverCompiledInCopy) {
  std::string seen = in_child([] {
    World world;
    std::string variants = TEST_VARIANT_DIR;
    world.install_from(variants + "/variant-user/demuxer/libdemuxer_both.so", world.user(),
                       "demuxer", "libdemuxer_both.so");
    world.install_from(variants + "/variant-system/demuxer/libdemuxer_both.so", world.system(),
                       "demuxer", "libdemuxer_both.so");
    travik_plugin *plugin =
        travik_plugin_create("demuxer/libdemuxer_both.so", TRAVIK_PLUGIN_DEMUXER, 1);
    std::string result = description(plugin);
    travik_plugin_destroy(plugin);
    return result;
  });
  EXPECT_EQ(seen, "Both user copy");
}

TEST(PluginCreate, AbsolutePathIsOpenedAsItIs) {
  std::string seen = in_child([] {
    World world;
    std::string path = demuxer_path("libdemuxer_beta.so");
    travik_plugin *plugin = travik_plugin_create(path.c_str(), TRAVIK_PLUGIN_DEMUXER, 1);
    std::string result =
        std::string(description(plugin)) + "|" + (plugin && path == plugin->name ? "name" : "");
    travik_plugin_destroy(plugin);
    return result;
  });
  EXPECT_EQ(seen, "Beta|name");
}

TEST(PluginCreate, MissingFileGivesOneWarningWithTheLoaderError) {
  std::string seen = in_child([] {
    World world;
    StderrCapture capture;
    travik_plugin *plugin =
        travik_plugin_create("demuxer/libdemuxer_none.so", TRAVIK_PLUGIN_DEMUXER, 1);
    return std::string(plugin ? "plugin" : "null") + "|" + capture.text();
  });
  EXPECT_EQ(seen,
            "null|Can't open plugin : demuxer/libdemuxer_none.so, "
            "/proc/self/cwd/sysplugins/demuxer/libdemuxer_none.so: cannot open shared object "
            "file: No such file or directory\n\n");
}

TEST(PluginCreate, FileThatIsNotASharedObjectWarns) {
  std::string seen = in_child([] {
    World world;
    fs::create_directories(world.user() + "/demuxer");
    std::string path = world.user() + "/demuxer/libdemuxer_junk.so";
    write_file(path, "this is not an ELF file\n");
    StderrCapture capture;
    travik_plugin *plugin = travik_plugin_create(path.c_str(), TRAVIK_PLUGIN_DEMUXER, 1);
    std::string text = capture.text();
    std::string prefix = "Can't open plugin : " + path + ", " + path + ": ";
    return std::string(plugin ? "plugin" : "null") + "|" +
           (text.compare(0, prefix.size(), prefix) == 0 ? "prefix" : text) + "|" +
           (text.size() > 2 && text.substr(text.size() - 2) == "\n\n" ? "end" : text);
  });
  EXPECT_EQ(seen, "null|prefix|end");
}

TEST(PluginCreate, FileWithoutLibPrefixFailsSilently) {
  std::string seen = in_child([] {
    World world;
    world.install(world.user(), "demuxer", "libdemuxer_alpha.so", "demuxer_alpha.so");
    StderrCapture capture;
    travik_plugin *plugin =
        travik_plugin_create("demuxer/demuxer_alpha.so", TRAVIK_PLUGIN_DEMUXER, 1);
    return std::string(plugin ? "plugin" : "null") + "|" + capture.text() + "|" + world.loads();
  });
  EXPECT_EQ(seen, "null||");
}

TEST(PluginCreate, FileWithoutEntrySymbolFailsSilently) {
  std::string seen = in_child([] {
    World world;
    world.install(world.user(), "demuxer", "libdemuxer_nosymbol.so");
    StderrCapture capture;
    travik_plugin *plugin =
        travik_plugin_create("demuxer/libdemuxer_nosymbol.so", TRAVIK_PLUGIN_DEMUXER, 1);
    return std::string(plugin ? "plugin" : "null") + "|" + capture.text() + "|" + world.loads();
  });
  EXPECT_EQ(seen, "null||");
}

TEST(PluginCreate, FailedCreateUnloadsTheObject) {
  std::string seen = in_child([] {
    World world;
    std::string path = world.install(world.user(), "demuxer", "libdemuxer_nosymbol.so");
    travik_plugin *plugin = travik_plugin_create(path.c_str(), TRAVIK_PLUGIN_DEMUXER, 1);
    void *still = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    return std::string(plugin ? "plugin" : "null") + "|" + (still ? "loaded" : "unloaded");
  });
  EXPECT_EQ(seen, "null|unloaded");
}

TEST(PluginCreate, EntrySymbolStopsAtFirstDot) {
  std::string seen = in_child([] {
    World world;
    world.install(world.user(), "demuxer", "libdemuxer_alpha.so", "libdemuxer_alpha.so.1");
    travik_plugin *plugin =
        travik_plugin_create("demuxer/libdemuxer_alpha.so.1", TRAVIK_PLUGIN_DEMUXER, 1);
    std::string result = description(plugin);
    travik_plugin_destroy(plugin);
    return result;
  });
  EXPECT_EQ(seen, "Alpha");
}

TEST(PluginCreate, WrongKindRegistrationLeavesNoTable) {
  std::string seen = in_child([] {
    World world;
    world.install(world.user(), "demuxer", "libdemuxer_wrongkind.so");
    travik_plugin *plugin =
        travik_plugin_create("demuxer/libdemuxer_wrongkind.so", TRAVIK_PLUGIN_DEMUXER, 1);
    std::string result = std::string(plugin ? "plugin" : "null") + "|" +
                         (plugin && plugin->drivers ? "table" : "no table") + "|" + world.loads();
    travik_plugin_destroy(plugin);
    return result;
  });
  EXPECT_EQ(seen, "plugin|no table|travik_demuxer_wrongkind\n");
}

TEST(PluginCreate, WrongVersionRegistrationLeavesNoTable) {
  std::string seen = in_child([] {
    World world;
    world.install(world.user(), "demuxer", "libdemuxer_alpha.so");
    travik_plugin *plugin =
        travik_plugin_create("demuxer/libdemuxer_alpha.so", TRAVIK_PLUGIN_DEMUXER, 2);
    std::string result = std::string(plugin ? "plugin" : "null") + "|" +
                         (plugin && plugin->drivers ? "table" : "no table");
    travik_plugin_destroy(plugin);
    return result;
  });
  EXPECT_EQ(seen, "plugin|no table");
}

TEST(PluginCreate, PluginThatNeverRegistersIsReturnedWithoutTable) {
  std::string seen = in_child([] {
    World world;
    world.install(world.user(), "demuxer", "libdemuxer_silent.so");
    travik_plugin *plugin =
        travik_plugin_create("demuxer/libdemuxer_silent.so", TRAVIK_PLUGIN_DEMUXER, 1);
    std::string result = std::string(plugin ? "plugin" : "null") + "|" +
                         (plugin && plugin->drivers ? "table" : "no table") + "|" + world.loads();
    travik_plugin_destroy(plugin);
    return result;
  });
  EXPECT_EQ(seen, "plugin|no table|travik_demuxer_silent\n");
}

TEST(PluginRegister, OutsideCreationIsIgnored) {
  static int table[1];
  travik_plugin_register(TRAVIK_PLUGIN_DEMUXER, 1, table);  // must not crash
  std::string seen = in_child([] {
    World world;
    world.install(world.user(), "demuxer", "libdemuxer_silent.so");
    travik_plugin *plugin =
        travik_plugin_create("demuxer/libdemuxer_silent.so", TRAVIK_PLUGIN_DEMUXER, 1);
    travik_plugin_register(TRAVIK_PLUGIN_DEMUXER, 1, table);
    std::string result = plugin && plugin->drivers ? "table" : "no table";
    travik_plugin_destroy(plugin);
    return result;
  });
  EXPECT_EQ(seen, "no table");
}

TEST(PluginDestroy, LastReferenceUnloads) {
  std::string seen = in_child([] {
    World world;
    std::string path = world.install(world.user(), "demuxer", "libdemuxer_alpha.so");
    travik_plugin *plugin = travik_plugin_create(path.c_str(), TRAVIK_PLUGIN_DEMUXER, 1);
    if (!plugin) return std::string("null");
    plugin->refcount = 2;
    travik_plugin_destroy(plugin);
    std::string result = std::to_string(plugin->refcount) + "|" + description(plugin) + "|";
    void *loaded = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    result += loaded ? "loaded|" : "unloaded|";
    if (loaded) dlclose(loaded);
    travik_plugin_destroy(plugin);
    loaded = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    result += loaded ? "loaded" : "unloaded";
    return result;
  });
  EXPECT_EQ(seen, "1|Alpha|loaded|unloaded");
}

TEST(PluginDestroy, NullIsIgnored) { travik_plugin_destroy(nullptr); }

TEST(PluginCreate, ConcurrentCreationsEachGetTheirOwnTable) {
  std::string seen = in_child([] {
    World world;
    world.install(world.user(), "demuxer", "libdemuxer_alpha.so");
    world.install(world.user(), "demuxer", "libdemuxer_beta.so");
    std::string results[2];
    auto run = [](const char *name, const char *expected, std::string *result) {
      for (int i = 0; i < 50; ++i) {
        travik_plugin *plugin = travik_plugin_create(name, TRAVIK_PLUGIN_DEMUXER, 1);
        if (std::string(description(plugin)) != expected) *result += "mismatch ";
        travik_plugin_destroy(plugin);
      }
    };
    std::thread a(run, "demuxer/libdemuxer_alpha.so", "Alpha", &results[0]);
    std::thread b(run, "demuxer/libdemuxer_beta.so", "Beta", &results[1]);
    a.join();
    b.join();
    return results[0] + results[1] + "done";
  });
  EXPECT_EQ(seen, "done");
}

// parsedir -------------------------------------------------------------------

struct Visits {
  std::vector<std::string> paths;
  std::string stop_at;  // base name whose visit answers 1
};

int32_t record_visit(const char *path, void *user) {
  auto *visits = static_cast<Visits *>(user);
  visits->paths.push_back(path);
  std::string base = fs::path(path).filename().string();
  return base == visits->stop_at ? 1 : 0;
}

std::string sorted(std::vector<std::string> items) {
  std::sort(items.begin(), items.end());
  std::string text;
  for (auto &item : items) text += item + ";";
  return text;
}

TEST(PluginParsedir, UserDirectoryThenCompiledInOnlySoNames) {
  std::string seen = in_child([] {
    World world;
    fs::create_directories(world.user() + "/demuxer");
    fs::create_directories(world.system() + "/demuxer");
    for (const char *name : {"liba.so", "libb.so.1", "notes.so.txt", "readme.txt", "libc.os"})
      write_file(world.user() + "/demuxer/" + name, "x");
    write_file(world.system() + "/demuxer/libs.so", "x");
    Visits visits;
    travik_plugin_parsedir("demuxer", record_visit, &visits);
    std::string user_prefix = std::string(travik_plugindir(1)) + "/demuxer/";
    std::string system_prefix = std::string(travik_plugindir(0)) + "/demuxer/";
    std::vector<std::string> user(visits.paths.begin(),
                                  visits.paths.begin() + std::min<size_t>(3, visits.paths.size()));
    std::vector<std::string> rest(visits.paths.begin() + user.size(), visits.paths.end());
    for (auto &path : user) path = path.compare(0, user_prefix.size(), user_prefix) == 0
                                       ? "U:" + path.substr(user_prefix.size())
                                       : "?" + path;
    for (auto &path : rest) path = path.compare(0, system_prefix.size(), system_prefix) == 0
                                       ? "S:" + path.substr(system_prefix.size())
                                       : "?" + path;
    return sorted(user) + "|" + sorted(rest);
  });
  EXPECT_EQ(seen, "U:liba.so;U:libb.so.1;U:notes.so.txt;|S:libs.so;");
}

TEST(PluginParsedir, PathsJoinDirectoryAndEntryWithASlash) {
  std::string seen = in_child([] {
    World world;
    fs::create_directories(world.system() + "/font");
    write_file(world.system() + "/font/libfont_x.so", "x");
    Visits visits;
    travik_plugin_parsedir("font", record_visit, &visits);
    return sorted(visits.paths);
  });
  EXPECT_EQ(seen, "/proc/self/cwd/sysplugins/font/libfont_x.so;");
}

TEST(PluginParsedir, StopStopsOnlyTheCurrentDirectory) {
  std::string seen = in_child([] {
    World world;
    fs::create_directories(world.user() + "/demuxer");
    fs::create_directories(world.system() + "/demuxer");
    write_file(world.user() + "/demuxer/liba.so", "x");
    write_file(world.user() + "/demuxer/libb.so", "x");
    write_file(world.system() + "/demuxer/libs.so", "x");
    write_file(world.system() + "/demuxer/libt.so", "x");
    Visits visits;
    visits.stop_at = "liba.so";
    travik_plugin_parsedir("demuxer", record_visit, &visits);
    // liba.so stops the user directory (libb.so is seen only if the listing
    // gave it first); the system directory is scanned all the same.
    std::string system_prefix = std::string(travik_plugindir(0)) + "/demuxer/";
    std::vector<std::string> user, system;
    for (auto &path : visits.paths) {
      std::string name = fs::path(path).filename().string();
      (path.compare(0, system_prefix.size(), system_prefix) == 0 ? system : user).push_back(name);
    }
    bool stopped = !user.empty() && user.back() == "liba.so";
    return std::string(stopped ? "stopped" : "continued") + "|" + sorted(system);
  });
  EXPECT_EQ(seen, "stopped|libs.so;libt.so;");
}

TEST(PluginParsedir, MissingAndUnreadableDirectoriesAreSkipped) {
  std::string seen = in_child([] {
    World world;
    Visits visits;
    travik_plugin_parsedir("demuxer", record_visit, &visits);  // neither exists
    fs::create_directories(world.user() + "/demuxer");
    write_file(world.user() + "/demuxer/liba.so", "x");
    fs::create_directories(world.system());
    write_file(world.system() + "/demuxer", "a file, not a directory");
    travik_plugin_parsedir("demuxer", record_visit, &visits);
    std::vector<std::string> names;
    for (auto &path : visits.paths) names.push_back(fs::path(path).filename().string());
    return sorted(names);
  });
  EXPECT_EQ(seen, "liba.so;");
}

TEST(PluginParsedir, ForcedDirectoryIsScannedTwice) {
  std::string seen = in_child([] {
    World world;
    std::string forced = world.home() + "/forced";
    fs::create_directories(forced + "/decoder");
    write_file(forced + "/decoder/libdecoder_x.so", "x");
    setenv("TRAVIK_PLUGINS_DIR", forced.c_str(), 1);
    Visits visits;
    travik_plugin_parsedir("decoder", record_visit, &visits);
    std::string result;
    for (auto &path : visits.paths) result += (path == forced + "/decoder/libdecoder_x.so" ? "hit;" : path + ";");
    return result;
  });
  EXPECT_EQ(seen, "hit;hit;");
}

TEST(PluginDirectories, BuildTreeIsAPluginDirectory) {
  std::string seen = in_child([] {
    World world;
    setenv("TRAVIK_PLUGINS_DIR", TEST_PLUGIN_DIR, 1);
    travik_plugin *plugin =
        travik_plugin_create("decoder/libdecoder_one.so", TRAVIK_PLUGIN_DECODER, 1);
    std::string result = plugin && plugin->drivers
                             ? static_cast<travik_decoder_driver *>(plugin->drivers)[0].description
                             : "null";
    travik_plugin_destroy(plugin);
    return result;
  });
  EXPECT_EQ(seen, "Decoder one");
}

}  // namespace
