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

// caches ---------------------------------------------------------------------

// Sets a file's modification time to now + `offset` seconds.
void set_mtime(const std::string &path, long offset) {
  struct timespec times[2];
  clock_gettime(CLOCK_REALTIME, &times[0]);
  times[0].tv_sec += offset;
  times[0].tv_nsec = 0;
  times[1] = times[0];
  utimensat(AT_FDCWD, path.c_str(), times, 0);
}

long mtime_of(const std::string &path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? static_cast<long>(info.st_mtime) : -1;
}

int32_t describe_demuxers(void *drivers, const char *section, travik_config *config) {
  if (!drivers) return 0;
  auto *table = static_cast<travik_demuxer_driver *>(drivers);
  int32_t count = 0;
  for (; table[count].description; ++count) {
    std::string key = "Description[" + std::to_string(count) + "]";
    travik_config_write(config, section, key.c_str(), table[count].description);
  }
  return count;
}

std::string count_sections(const std::string &text, const std::string &name) {
  size_t count = 0;
  for (size_t at = text.find("[" + name + "]\n"); at != std::string::npos;
       at = text.find("[" + name + "]\n", at + 1))
    ++count;
  return std::to_string(count);
}

TEST(PluginCache, InitWritesEachKindsCache) {
  std::string seen = in_child([] {
    World world;
    world.install(world.user(), "demuxer", "libdemuxer_alpha.so");
    world.install(world.system(), "decoder", "libdecoder_two.so");
    world.install(world.user(), "subtitle", "libsubtitle_low.so");
    world.install(world.system(), "font", "libfont_face.so");
    travik_init();
    travik_destroy();
    return read_file(world.cache("demuxer")) + "|" + read_file(world.cache("decoder")) + "|" +
           read_file(world.cache("subtitle")) + "|" + read_file(world.cache("font"));
  });
  EXPECT_EQ(seen,
            "[libdemuxer_alpha.so]\nDescription[0] = Alpha\nExtensions[0] = avi,divx\n"
            "Description[1] = Alpha two\nExtensions[1] = ogg\nCount = 2\n|"
            "[libdecoder_two.so]\nDescription[0] = Decoder two\nCodec[0] = 00000011\n"
            "Description[1] = Decoder two b\nCodec[1] = 00001abc\nCount = 2\n|"
            "[libsubtitle_low.so]\nDescription[0] = Subtitle low\nExtensions[0] = srt\n"
            "Count = 1\n|"
            "[libfont_face.so]\nDescription[0] = Font face\nExtensions[0] = ttf,otf\nCount = 1\n");
}

TEST(PluginCache, InitRefreshesKindsInOrderAndKeepsNothingLoaded) {
  std::string seen = in_child([] {
    World world;
    std::string paths[] = {
        world.install(world.user(), "font", "libfont_face.so"),
        world.install(world.user(), "subtitle", "libsubtitle_low.so"),
        world.install(world.user(), "decoder", "libdecoder_one.so"),
        world.install(world.user(), "demuxer", "libdemuxer_beta.so"),
    };
    travik_init();
    std::string loaded;
    for (auto &path : paths) {
      void *handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
      if (handle) {
        loaded += path + " ";
        dlclose(handle);
      }
    }
    travik_destroy();
    return world.loads() + "|" + loaded;
  });
  EXPECT_EQ(seen,
            "travik_demuxer_beta\ntravik_decoder_one\ntravik_subtitle_low\ntravik_font_face\n|");
}

TEST(PluginCache, InitRunsOnceUntilDestroyed) {
  std::string seen = in_child([] {
    World world;
    std::string alpha = world.install(world.user(), "demuxer", "libdemuxer_alpha.so");
    set_mtime(alpha, -1000);
    travik_init();
    std::string first = world.loads();
    set_mtime(alpha, 1000);  // newer than the cache from now on
    travik_init();
    std::string second = world.loads();
    travik_destroy();
    travik_destroy();  // not initialised: nothing happens
    travik_init();
    std::string third = world.loads();
    travik_destroy();
    return first + "|" + second + "|" + third;
  });
  EXPECT_EQ(seen, "travik_demuxer_alpha\n||travik_demuxer_alpha\n");
}

TEST(PluginCache, UnchangedPluginsLoadNothingAndKeepTheCacheFile) {
  std::string seen = in_child([] {
    World world;
    set_mtime(world.install(world.user(), "demuxer", "libdemuxer_alpha.so"), -1000);
    set_mtime(world.install(world.system(), "demuxer", "libdemuxer_beta.so"), -1000);
    travik_config_destroy(travik_plugin_loadconfig("demuxer", 1, 1, describe_demuxers));
    std::string first = world.loads();
    std::string cache = world.cache("demuxer");
    set_mtime(cache, -500);
    std::string before = read_file(cache);
    long before_time = mtime_of(cache);
    travik_config *config = travik_plugin_loadconfig("demuxer", 1, 1, describe_demuxers);
    std::string result = std::to_string(first.size() > 0) + "|" + world.loads() + "|" +
                         (mtime_of(cache) == before_time && read_file(cache) == before
                              ? "same"
                              : "changed") +
                         "|" + travik_config_read(config, "libdemuxer_beta.so", "Description[0]", "?");
    travik_config_destroy(config);
    return result;
  });
  EXPECT_EQ(seen, "1||same|Beta");
}

TEST(PluginCache, TouchingOnePluginReloadsOnlyIt) {
  std::string seen = in_child([] {
    World world;
    std::string alpha = world.install(world.user(), "demuxer", "libdemuxer_alpha.so");
    std::string beta = world.install(world.system(), "demuxer", "libdemuxer_beta.so");
    set_mtime(alpha, -1000);
    set_mtime(beta, -1000);
    travik_config_destroy(travik_plugin_loadconfig("demuxer", 1, 1, describe_demuxers));
    world.loads();
    // Spoil both sections by hand; only the touched plugin's is rewritten.
    std::string cache = world.cache("demuxer");
    write_file(cache,
               "[libdemuxer_alpha.so]\nDescription[0] = Stale\nCount = 1\n"
               "[libdemuxer_beta.so]\nDescription[0] = Also stale\nCount = 1\n");
    set_mtime(cache, -500);
    set_mtime(alpha, -100);
    travik_config *config = travik_plugin_loadconfig("demuxer", 1, 1, describe_demuxers);
    std::string result = world.loads() + "|" +
                         travik_config_read(config, "libdemuxer_alpha.so", "Description[0]", "?") +
                         "," + travik_config_read(config, "libdemuxer_alpha.so", "Count", "?") +
                         "|" +
                         travik_config_read(config, "libdemuxer_beta.so", "Description[0]", "?") +
                         "|" + read_file(cache);
    travik_config_destroy(config);
    return result;
  });
  EXPECT_EQ(seen,
            "travik_demuxer_alpha\n|Alpha,2|Also stale|"
            "[libdemuxer_alpha.so]\nDescription[0] = Alpha\nCount = 2\nDescription[1] = Alpha two\n"
            "[libdemuxer_beta.so]\nDescription[0] = Also stale\nCount = 1\n");
}

TEST(PluginCache, PluginInBothDirectoriesHasOneSectionAndUserCopyIsProbed) {
  std::string seen = in_child([] {
    World world;
    std::string variants = TEST_VARIANT_DIR;
    world.install_from(variants + "/variant-user/demuxer/libdemuxer_both.so", world.user(),
                       "demuxer", "libdemuxer_both.so");
    world.install_from(variants + "/variant-system/demuxer/libdemuxer_both.so", world.system(),
                       "demuxer", "libdemuxer_both.so");
    travik_init();
    std::string sections = count_sections(read_file(world.cache("demuxer")), "libdemuxer_both.so");
    travik_destroy();
    travik_config *config = travik_config_create(world.cache("demuxer").c_str());
    travik_plugin_probe probe = {"demuxer", 1, 1, config, "Extensions", "both",
                                 [](void *, int32_t, void *) -> int32_t { return 1; }, nullptr};
    travik_plugin *plugin = nullptr;
    travik_plugin_probeconfig(&probe, &plugin, nullptr);
    std::string result = sections + "|" + description(plugin);
    travik_plugin_destroy(plugin);
    travik_config_destroy(config);
    return result;
  });
  EXPECT_EQ(seen, "1|Both user copy");
}

TEST(PluginCache, BadPluginFilesLeaveTheRestOfTheCache) {
  std::string seen = in_child([] {
    World world;
    world.install(world.user(), "demuxer", "libdemuxer_alpha.so");
    world.install(world.user(), "demuxer", "libdemuxer_wrongkind.so");
    world.install(world.user(), "demuxer", "libdemuxer_silent.so");
    world.install(world.user(), "demuxer", "libdemuxer_nosymbol.so");
    world.install(world.user(), "demuxer", "libdemuxer_beta.so", "demuxer_beta.so");
    write_file(world.user() + "/demuxer/libdemuxer_junk.so", "not a shared object\n");
    fs::create_directories(world.user() + "/demuxer/libdemuxer_dir.so");
    StderrCapture capture;
    travik_config *config = travik_plugin_loadconfig("demuxer", 1, 1, describe_demuxers);
    std::string warnings = capture.text();
    std::string result;
    for (const char *section : {"libdemuxer_alpha.so", "libdemuxer_wrongkind.so",
                                "libdemuxer_silent.so", "libdemuxer_nosymbol.so",
                                "demuxer_beta.so", "libdemuxer_junk.so", "libdemuxer_dir.so"})
      result += std::string(section) + "=" + travik_config_read(config, section, "Count", "-") + ";";
    travik_config_destroy(config);
    size_t lines = std::count(warnings.begin(), warnings.end(), '\n');
    return result + "|" + std::to_string(lines) + "|" +
           (warnings.find("Can't open plugin : " + std::string(travik_plugindir(1)) +
                          "/demuxer/libdemuxer_junk.so, ") == 0
                ? "junk"
                : warnings);
  });
  EXPECT_EQ(seen,
            "libdemuxer_alpha.so=2;libdemuxer_wrongkind.so=0;libdemuxer_silent.so=0;"
            "libdemuxer_nosymbol.so=-;demuxer_beta.so=-;libdemuxer_junk.so=-;"
            "libdemuxer_dir.so=-;|2|junk");
}

TEST(PluginCache, MissingPluginDirectoriesGiveAnEmptyCache) {
  std::string seen = in_child([] {
    World world;
    travik_config *config = travik_plugin_loadconfig("demuxer", 1, 1, describe_demuxers);
    std::string result = std::string(config ? "config" : "null") + "|" +
                         (access(world.cache("demuxer").c_str(), F_OK) == 0 ? "file" : "no file");
    travik_config_destroy(config);
    return result;
  });
  EXPECT_EQ(seen, "config|no file");
}

TEST(PluginCache, UnwritableCacheStaysValidInMemory) {
  std::string seen = in_child([] {
    World world;
    world.install(world.user(), "demuxer", "libdemuxer_beta.so");
    // A directory where the temporary file would go makes the save fail,
    // whoever runs the test.
    fs::create_directories(world.cache("demuxer") + ".new");
    travik_config *config = travik_plugin_loadconfig("demuxer", 1, 1, describe_demuxers);
    std::string result = std::string(travik_config_read(config, "libdemuxer_beta.so", "Count", "-")) +
                         "|" + (access(world.cache("demuxer").c_str(), F_OK) == 0 ? "file" : "no file");
    travik_config_destroy(config);
    return result;
  });
  EXPECT_EQ(seen, "1|no file");
}

TEST(PluginCache, MalformedAndTruncatedCacheFilesAreRead) {
  std::string seen = in_child([] {
    World world;
    set_mtime(world.install(world.user(), "demuxer", "libdemuxer_beta.so"), -1000);
    fs::create_directories(world.home() + "/.travik");
    std::string cache = world.cache("demuxer");
    using namespace std::string_literals;
    write_file(cache, "garbage before any section\n[libdemuxer_beta.so\n"s +
                          "[libdemuxer_beta.so]\nCount = many\nExtensions[0] = avi\n[\n]\n"s +
                          std::string(3000, '[') + "\n\0\0[x]\nk\0 = v\n"s + "[half"s);
    set_mtime(cache, -500);
    travik_config *config = travik_plugin_loadconfig("demuxer", 1, 1, describe_demuxers);
    std::string result =
        world.loads() + "|" + travik_config_read(config, "libdemuxer_beta.so", "Count", "?");
    travik_config_destroy(config);
    return result;
  });
  EXPECT_EQ(seen, "|many");
}

// probes ---------------------------------------------------------------------

int32_t demuxer_score(void *drivers, int32_t index, void *) {
  auto *table = static_cast<travik_demuxer_driver *>(drivers);
  return table[index].probe(nullptr, index);
}

int32_t decoder_score(void *drivers, int32_t index, void *) {
  return static_cast<travik_decoder_driver *>(drivers)[index].priority;
}

int32_t subtitle_score(void *drivers, int32_t index, void *user) {
  return static_cast<travik_subtitle_driver *>(drivers)[index].probe(static_cast<const char *>(user));
}

int32_t font_score(void *, int32_t, void *) { return 100; }

// Writes one cache section by hand.
void section(travik_config *config, const char *name, const char *key,
             std::vector<std::string> values, const char *count = nullptr) {
  for (size_t i = 0; i < values.size(); ++i)
    travik_config_write(config, name, (std::string(key) + "[" + std::to_string(i) + "]").c_str(),
                        values[i].c_str());
  std::string n = count ? count : std::to_string(values.size());
  travik_config_write(config, name, "Count", n.c_str());
}

// Probes "demuxer" with `match` over `config`; describes the outcome.
std::string probe_demuxer(travik_config *config, const char *match, const char *only = nullptr) {
  travik_plugin_probe probe = {"demuxer", 1, 1, config, "Extensions", match, demuxer_score,
                               nullptr};
  travik_plugin *plugin = reinterpret_cast<travik_plugin *>(0x1);
  int32_t index = -7;
  void *table = travik_plugin_probeconfig_by_section_name(&probe, &plugin, &index, only);
  if (!table) {
    return std::string("none") + (plugin == reinterpret_cast<travik_plugin *>(0x1) && index == -7
                                      ? ""
                                      : " (out arguments touched)");
  }
  std::string result = std::string(static_cast<travik_demuxer_driver *>(table)[index].description) +
                       "#" + std::to_string(index) + (table == plugin->drivers ? "" : " (table?)");
  travik_plugin_destroy(plugin);
  return result;
}

// A world with the demuxer test plugins in the user directory.
void install_demuxers(World &world) {
  for (const char *name : {"alpha", "beta", "gamma", "zero", "wrongkind"})
    world.install(world.user(), "demuxer", std::string("libdemuxer_") + name + ".so");
}

TEST(PluginProbe, MatchIsLoweredAndMustBeAWholeListElement) {
  std::string seen = in_child([] {
    World world;
    install_demuxers(world);
    travik_config *config = travik_config_create(nullptr);
    section(config, "libdemuxer_alpha.so", "Extensions", {"avi,divx", "ogg"});
    std::string result = probe_demuxer(config, "AVI") + "|" + probe_demuxer(config, "div") + "|" +
                         probe_demuxer(config, "divx") + "|" + probe_demuxer(config, "Ogg") + "|" +
                         probe_demuxer(config, "vi") + "|" + probe_demuxer(config, "avi,divx");
    travik_config_destroy(config);
    return result;
  });
  EXPECT_EQ(seen, "Alpha#0|none|Alpha#0|Alpha two#1|none|Alpha#0");
}

TEST(PluginProbe, OnlyTheFirstOccurrenceIsTested) {
  std::string seen = in_child([] {
    World world;
    install_demuxers(world);
    travik_config *config = travik_config_create(nullptr);
    section(config, "libdemuxer_alpha.so", "Extensions", {"xavi,avi"});
    std::string result = probe_demuxer(config, "avi");
    result += "|" + world.loads();
    travik_config_destroy(config);
    return result;
  });
  EXPECT_EQ(seen, "none|");
}

TEST(PluginProbe, NewlineEndsAnElement) {
  std::string seen = in_child([] {
    World world;
    install_demuxers(world);
    travik_config *config = travik_config_create(nullptr);
    section(config, "libdemuxer_alpha.so", "Extensions", {"avi\nmkv"});
    std::string result = probe_demuxer(config, "avi") + "|" + probe_demuxer(config, "mkv");
    travik_config_destroy(config);
    return result;
  });
  EXPECT_EQ(seen, "Alpha#0|none");
}

TEST(PluginProbe, ASectionOffersOnlyItsFirstMatchingDriver) {
  std::string seen = in_child([] {
    World world;
    install_demuxers(world);
    travik_config *config = travik_config_create(nullptr);
    // Driver 1 would score 6, but driver 0 already matches (score 5).
    section(config, "libdemuxer_alpha.so", "Extensions", {"avi", "avi"});
    std::string result = probe_demuxer(config, "avi");
    result += "|" + world.loads();
    travik_config_destroy(config);
    return result;
  });
  EXPECT_EQ(seen, "Alpha#0|travik_demuxer_alpha\n");
}

TEST(PluginProbe, HigherScoreWinsAndLosersAreUnloaded) {
  std::string seen = in_child([] {
    World world;
    install_demuxers(world);
    travik_config *config = travik_config_create(nullptr);
    section(config, "libdemuxer_alpha.so", "Extensions", {"avi,divx", "ogg"});
    section(config, "libdemuxer_gamma.so", "Extensions", {"mkv", "avi"});
    section(config, "libdemuxer_beta.so", "Extensions", {"avi"});
    travik_plugin_probe probe = {"demuxer", 1, 1, config, "Extensions", "avi", demuxer_score,
                                 nullptr};
    travik_plugin *plugin = nullptr;
    int32_t index = -1;
    void *table = travik_plugin_probeconfig(&probe, &plugin, &index);
    std::string result = std::string(table ? description(plugin) : "none") + "#" +
                         std::to_string(index) + "|" + world.loads() + "|";
    for (const char *name : {"alpha", "beta", "gamma"}) {
      std::string path = world.user() + "/demuxer/libdemuxer_" + name + ".so";
      void *handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
      result += std::string(name) + (handle ? "+" : "-");
      if (handle) dlclose(handle);
    }
    travik_plugin_destroy(plugin);
    travik_config_destroy(config);
    return result;
  });
  // Gamma's second driver (score 7) beats Alpha and Beta (5 each).
  EXPECT_EQ(seen,
            "Gamma#1|travik_demuxer_alpha\ntravik_demuxer_gamma\ntravik_demuxer_beta\n|"
            "alpha-beta-gamma+");
}

TEST(PluginProbe, TiesGoToTheEarlierSection) {
  std::string seen = in_child([] {
    World world;
    install_demuxers(world);
    travik_config *first = travik_config_create(nullptr);
    section(first, "libdemuxer_beta.so", "Extensions", {"avi"});
    section(first, "libdemuxer_alpha.so", "Extensions", {"avi,divx"});
    travik_config *second = travik_config_create(nullptr);
    section(second, "libdemuxer_alpha.so", "Extensions", {"avi,divx"});
    section(second, "libdemuxer_beta.so", "Extensions", {"avi"});
    std::string result = probe_demuxer(first, "avi") + "|" + probe_demuxer(second, "avi");
    travik_config_destroy(first);
    travik_config_destroy(second);
    return result;
  });
  EXPECT_EQ(seen, "Beta#0|Alpha#0");
}

TEST(PluginProbe, NoPositiveScoreReturnsNullAndLeavesOutArguments) {
  std::string seen = in_child([] {
    World world;
    install_demuxers(world);
    travik_config *config = travik_config_create(nullptr);
    section(config, "libdemuxer_zero.so", "Extensions", {"avi"});
    std::string result = probe_demuxer(config, "avi") + "|" + probe_demuxer(config, "mp4");
    travik_config_destroy(config);
    return result;
  });
  EXPECT_EQ(seen, "none|none");
}

TEST(PluginProbe, SectionsWithoutPositiveCountAreSkipped) {
  std::string seen = in_child([] {
    World world;
    install_demuxers(world);
    travik_config *config = travik_config_create(nullptr);
    section(config, "libdemuxer_alpha.so", "Extensions", {"avi"}, "0");
    section(config, "libdemuxer_beta.so", "Extensions", {"avi"}, "-3");
    section(config, "libdemuxer_gamma.so", "Extensions", {"avi"}, "lots");
    travik_config_write(config, "libdemuxer_zero.so", "Extensions[0]", "avi");
    std::string result = probe_demuxer(config, "avi");
    result += "|" + world.loads();
    travik_config_destroy(config);
    return result;
  });
  EXPECT_EQ(seen, "none|");
}

TEST(PluginProbe, CountLimitsTheDriversLookedAt) {
  std::string seen = in_child([] {
    World world;
    install_demuxers(world);
    travik_config *config = travik_config_create(nullptr);
    section(config, "libdemuxer_alpha.so", "Extensions", {"mkv", "avi"}, "1");
    std::string result = probe_demuxer(config, "avi");
    travik_config_destroy(config);
    return result;
  });
  EXPECT_EQ(seen, "none");
}

TEST(PluginProbe, SectionNameRestrictionIgnoresCase) {
  std::string seen = in_child([] {
    World world;
    install_demuxers(world);
    travik_config *config = travik_config_create(nullptr);
    section(config, "libdemuxer_gamma.so", "Extensions", {"mkv", "avi"});
    section(config, "libdemuxer_beta.so", "Extensions", {"avi"});
    std::string result = probe_demuxer(config, "avi", "LIBDEMUXER_BETA.SO");
    result += "|" + world.loads();
    result += "|" + probe_demuxer(config, "avi", "libdemuxer_none.so");
    travik_config_destroy(config);
    return result;
  });
  EXPECT_EQ(seen, "Beta#0|travik_demuxer_beta\n|none");
}

TEST(PluginProbe, UnloadableAndTablelessCandidatesArePassedOver) {
  std::string seen = in_child([] {
    World world;
    install_demuxers(world);
    travik_config *config = travik_config_create(nullptr);
    section(config, "libdemuxer_deleted.so", "Extensions", {"avi"});
    section(config, "libdemuxer_wrongkind.so", "Extensions", {"avi"});
    section(config, "libdemuxer_beta.so", "Extensions", {"avi"});
    StderrCapture capture;
    std::string result = probe_demuxer(config, "avi");
    std::string warnings = capture.text();
    travik_config_destroy(config);
    return result + "|" +
           (warnings.find("Can't open plugin : demuxer/libdemuxer_deleted.so, ") == 0 ? "warned"
                                                                                      : warnings);
  });
  EXPECT_EQ(seen, "Beta#0|warned");
}

TEST(PluginProbe, HandWrittenCountBeyondTheTableIsSafe) {
  std::string seen = in_child([] {
    World world;
    install_demuxers(world);
    travik_config *config = travik_config_create(nullptr);
    // Beta has one driver; the cache claims the match at index 3.
    section(config, "libdemuxer_beta.so", "Extensions", {"x", "y", "z", "avi"});
    // A huge Count with few keys must not take long.
    section(config, "libdemuxer_alpha.so", "Extensions", {"mkv"}, "2147483647");
    long long start = travik_test::now_ms();
    std::string result = probe_demuxer(config, "avi") + "|" + probe_demuxer(config, "flv");
    travik_config_destroy(config);
    return result + "|" + (travik_test::now_ms() - start < 20000 ? "quick" : "slow");
  });
  EXPECT_EQ(seen, "none|none|quick");
}

TEST(PluginProbe, DecoderByCodecAndByName) {
  std::string seen = in_child([] {
    World world;
    world.install(world.system(), "decoder", "libdecoder_one.so");
    world.install(world.system(), "decoder", "libdecoder_two.so");
    travik_init();
    travik_destroy();
    // The cache's section order is the directory's; fix it by hand.
    travik_config *config = travik_config_create(nullptr);
    section(config, "libdecoder_one.so", "Codec", {"00000011"});
    section(config, "libdecoder_two.so", "Codec", {"00000011", "00001abc"});
    auto run = [&](const char *match, const char *only) {
      travik_plugin_probe probe = {"decoder", 2, 1, config, "Codec", match, decoder_score,
                                   nullptr};
      travik_plugin *plugin = nullptr;
      int32_t index = -1;
      auto *table = static_cast<travik_decoder_driver *>(
          travik_plugin_probeconfig_by_section_name(&probe, &plugin, &index, only));
      std::string text = table ? std::string(table[index].description) : "none";
      travik_plugin_destroy(plugin);
      return text;
    };
    char name[64];
    std::snprintf(name, sizeof name, "libdecoder_%s.so", "TWO");
    std::string result = run("00000011", nullptr) + "|" + run("00000011", name) + "|" +
                         run("00001ABC", nullptr) + "|" + run("00000012", nullptr);
    travik_config_destroy(config);
    return result;
  });
  EXPECT_EQ(seen, "Decoder one|Decoder two|Decoder two b|none");
}

TEST(PluginProbe, EmptyKeyAndMatchMakeEveryFirstDriverACandidate) {
  std::string seen = in_child([] {
    World world;
    world.install(world.user(), "subtitle", "libsubtitle_low.so");
    world.install(world.user(), "subtitle", "libsubtitle_high.so");
    travik_config *config = travik_config_create(nullptr);
    section(config, "libsubtitle_low.so", "Extensions", {"srt"});
    section(config, "libsubtitle_high.so", "Extensions", {"sub"});
    travik_config_write(config, "libsubtitle_none.so", "Count", "0");
    travik_plugin_probe probe = {"subtitle", 5, 1, config, "", "", subtitle_score,
                                 const_cast<char *>("/movies/film.avi")};
    travik_plugin *plugin = nullptr;
    int32_t index = -1;
    auto *table = static_cast<travik_subtitle_driver *>(
        travik_plugin_probeconfig(&probe, &plugin, &index));
    std::string result = std::string(table ? table[index].description : "none") + "#" +
                         std::to_string(index) + "|" + world.loads() + "|";
    std::string low = world.user() + "/subtitle/libsubtitle_low.so";
    void *handle = dlopen(low.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    result += handle ? "low loaded" : "low unloaded";
    if (handle) dlclose(handle);
    travik_plugin_destroy(plugin);
    travik_config_destroy(config);
    return result;
  });
  EXPECT_EQ(seen, "Subtitle high#0|travik_subtitle_low\ntravik_subtitle_high\n|low unloaded");
}

TEST(PluginProbe, FontsGoToTheFirstSectionListingTheExtension) {
  std::string seen = in_child([] {
    World world;
    world.install(world.user(), "font", "libfont_face.so");
    world.install(world.user(), "font", "libfont_face.so", "libfont_copy.so");
    travik_config *config = travik_config_create(nullptr);
    section(config, "libfont_face.so", "Extensions", {"ttf,otf"});
    travik_plugin_probe probe = {"font", 6, 1, config, "Extensions", "OTF", font_score, nullptr};
    travik_plugin *plugin = nullptr;
    void *table = travik_plugin_probeconfig(&probe, &plugin, nullptr);
    std::string result = table ? static_cast<travik_font_driver *>(table)[0].description : "none";
    travik_plugin_destroy(plugin);
    travik_config_destroy(config);
    return result;
  });
  EXPECT_EQ(seen, "Font face");
}

TEST(PluginProbe, NullRequestsAreRefused) {
  travik_plugin_probe probe = {"demuxer", 1, 1, nullptr, "Extensions", "avi", demuxer_score,
                               nullptr};
  EXPECT_EQ(travik_plugin_probeconfig(&probe, nullptr, nullptr), nullptr);
  EXPECT_EQ(travik_plugin_probeconfig(nullptr, nullptr, nullptr), nullptr);
}

}  // namespace
