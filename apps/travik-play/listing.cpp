// The demuxer, decoder, subtitle and font kinds are described by their
// cache files (<base dir>/<kind>.cfg, refreshed by travik_init), so their
// plugins are not loaded here. Audio and video outputs have no cache: each
// of their plugin files is loaded and its driver table read.
#include "listing.h"

#include <stdlib.h>
#include <string.h>
#include <travik/audio.h>
#include <travik/config.h>
#include <travik/plugin.h>
#include <travik/system.h>
#include <travik/video.h>

#include <algorithm>
#include <string>
#include <vector>

namespace play {

namespace {

struct Kind {
  const char *name;
  int32_t kind;
  const char *key;  // what the cache says a driver handles, or null
  const char *what;
};

const Kind kKinds[] = {
    {"demuxer", TRAVIK_PLUGIN_DEMUXER, "Extensions", "extensions"},
    {"decoder", TRAVIK_PLUGIN_DECODER, "Codec", "codec"},
    {"audioout", TRAVIK_PLUGIN_AUDIOOUT, nullptr, nullptr},
    {"videoout", TRAVIK_PLUGIN_VIDEOOUT, nullptr, nullptr},
    {"subtitle", TRAVIK_PLUGIN_SUBTITLE, "Extensions", "extensions"},
    {"font", TRAVIK_PLUGIN_FONT, "Extensions", "extensions"},
};

int32_t collect(const char *path, void *user) {
  static_cast<std::vector<std::string> *>(user)->push_back(path);
  return 0;
}

std::string base_name(const std::string &path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

void list_cached(FILE *out, const Kind &kind, const std::string &file, travik_config *cache) {
  std::string section = base_name(file);
  int count = atoi(travik_config_read(cache, section.c_str(), "Count", "0"));
  if (count <= 0) {
    fprintf(out, "    %s (no drivers in the cache)\n", file.c_str());
    return;
  }
  fprintf(out, "    %s\n", file.c_str());
  for (int i = 0; i < count; i++) {
    char key[64];
    snprintf(key, sizeof key, "Description[%d]", i);
    const char *description = travik_config_read(cache, section.c_str(), key, "?");
    snprintf(key, sizeof key, "%s[%d]", kind.key, i);
    const char *handles = travik_config_read(cache, section.c_str(), key, "?");
    fprintf(out, "      %s (%s %s)\n", description, kind.what, handles);
  }
}

void list_loaded(FILE *out, const Kind &kind, const std::string &file) {
  travik_plugin *plugin = travik_plugin_create(file.c_str(), kind.kind, TRAVIK_PLUGIN_VERSION);
  if (!plugin || !plugin->drivers) {
    fprintf(out, "    %s (does not load)\n", file.c_str());
    if (plugin) travik_plugin_destroy(plugin);
    return;
  }
  fprintf(out, "    %s\n", file.c_str());
  if (kind.kind == TRAVIK_PLUGIN_AUDIOOUT) {
    for (auto *d = static_cast<travik_audio_driver *>(plugin->drivers); d->name; d++)
      fprintf(out, "      %s\n", d->name);
  } else {
    for (auto *d = static_cast<travik_video_driver *>(plugin->drivers); d->name; d++)
      fprintf(out, "      %s\n", d->name);
  }
  travik_plugin_destroy(plugin);
}

}  // namespace

void list_plugins(FILE *out) {
  fprintf(out, "plugin directories: %s (user), %s\n", travik_plugindir(1), travik_plugindir(0));
  for (const Kind &kind : kKinds) {
    std::vector<std::string> files;
    travik_plugin_parsedir(kind.name, collect, &files);
    // With TRAVIK_PLUGINS_DIR set both directories are the same one.
    std::sort(files.begin(), files.end());
    files.erase(std::unique(files.begin(), files.end()), files.end());
    fprintf(out, "%s:\n", kind.name);
    if (files.empty()) fprintf(out, "    (none)\n");
    travik_config *cache = nullptr;
    if (kind.key) {
      std::string path = std::string(travik_basedir()) + kind.name + ".cfg";
      cache = travik_config_create(path.c_str());
    }
    for (const std::string &file : files) {
      if (cache)
        list_cached(out, kind, file, cache);
      else
        list_loaded(out, kind, file);
    }
    if (cache) travik_config_destroy(cache);
  }
}

}  // namespace play
