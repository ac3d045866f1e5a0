// Per-kind cache configurations: <base dir>/<kind>.cfg holds, for every
// plugin file of the kind, what its drivers offer, so that start-up loads
// only the plugin files that are newer than the cache.
#include <travik/plugin.h>
#include <travik/system.h>

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "plugin/config_internal.h"
#include "plugin/plugin_internal.h"

namespace {

struct Refresh {
  travik_config *config;
  int32_t kind;
  int32_t version;
  travik_plugin_describe_fn describe;
  bool have_cache;
  struct timespec cache_time;
};

// Compared with the file system's full precision, not whole seconds: a
// plugin file replaced within the same second as the cache was written is
// still seen as newer and described again.
bool later(const struct timespec &a, const struct timespec &b) {
  return a.tv_sec > b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec > b.tv_nsec);
}

int32_t refresh_one(const char *path, void *user) {
  auto *refresh = static_cast<Refresh *>(user);
  struct stat info;
  if (stat(path, &info) != 0 || !S_ISREG(info.st_mode)) return 0;
  if (refresh->have_cache && !later(info.st_mtim, refresh->cache_time)) return 0;
  travik_plugin *plugin = travik_plugin_create(path, refresh->kind, refresh->version);
  if (!plugin) return 0;  // its old section, if any, stays
  const char *slash = std::strrchr(path, '/');
  const char *section = slash ? slash + 1 : path;
  int32_t count = refresh->describe ? refresh->describe(plugin->drivers, section, refresh->config)
                                    : 0;
  char text[16];
  std::snprintf(text, sizeof text, "%d", static_cast<int>(count));
  travik_config_write(refresh->config, section, "Count", text);
  travik_plugin_destroy(plugin);
  return 0;
}

}  // namespace

extern "C" {

travik_config *travik_plugin_loadconfig(const char *kind_name, int32_t kind, int32_t version,
                                        travik_plugin_describe_fn describe) {
  if (!kind_name) return nullptr;
  std::string path = std::string(travik_basedir()) + "/" + kind_name + ".cfg";
  travik_config *config = travik_config_create(path.c_str());

  Refresh refresh = {config, kind, version, describe, false, {0, 0}};
  struct stat info;
  if (stat(path.c_str(), &info) == 0) {
    refresh.cache_time = info.st_mtim;
    refresh.have_cache = info.st_mtim.tv_sec != 0 || info.st_mtim.tv_nsec != 0;
  }
  travik_plugin_parsedir(kind_name, refresh_one, &refresh);
  // A cache that cannot be written stays valid in memory and is rebuilt at
  // the next start.
  if (config->modified) travik_config_save(config, nullptr);
  return config;
}

}  // extern "C"
