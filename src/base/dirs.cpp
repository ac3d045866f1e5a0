// The per-user home, base and plugin directories.
#include <travik/system.h>

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t kPathSize = 4096;
char home_dir[kPathSize];
char base_dir[kPathSize];
char plugin_dir[kPathSize];

}  // namespace

extern "C" {

const char *travik_homedir(void) {
  if (!home_dir[0]) {
    const char *home = std::getenv("HOME");
    if (!home) home = "/tmp/";
    size_t length = std::strlen(home);
    bool slash = length > 0 && home[length - 1] == '/';
    std::snprintf(home_dir, kPathSize, "%s%s", home, slash ? "" : "/");
  }
  return home_dir;
}

// The home directory already ends in "/", so the result has a doubled slash
// (/home/user//.travik/); paths with it work as they are.
const char *travik_basedir(void) {
  if (!base_dir[0]) {
    std::snprintf(base_dir, kPathSize, "%s/.travik/", travik_homedir());
    struct stat info;
    if (stat(base_dir, &info) != 0) mkdir(base_dir, 0700);
  }
  return base_dir;
}

const char *travik_plugindir(int32_t user) {
  const char *forced = std::getenv("TRAVIK_PLUGINS_DIR");
  if (forced) return forced;
  if (!user) return TRAVIK_PLUGIN_INSTALL_DIR;
  if (!plugin_dir[0]) std::snprintf(plugin_dir, kPathSize, "%s/plugins/", travik_basedir());
  return plugin_dir;
}

}  // extern "C"
