// The subtitle plugins' cache: refreshed by travik_init, released by
// travik_destroy, read by the subtitle framework's probes.
#include "overlay/subtitle_cache.h"

#include <travik/subtitle.h>

#include <cstdio>

#include "plugin/plugin_internal.h"

namespace {

travik_config *cache = nullptr;

int32_t describe(void *drivers, const char *section, travik_config *config) {
  return travik_plugin_describe_table<travik_subtitle_driver>(
      drivers, section, config, [&](const travik_subtitle_driver &driver, int32_t i) {
        char key[48];
        std::snprintf(key, sizeof key, "Extensions[%d]", static_cast<int>(i));
        travik_config_write(config, section, key, driver.extensions);
      });
}

}  // namespace

travik_config *travik_subtitle_cache(void) { return cache; }

extern "C" {

int travik_subtitle_plugins_init(void) {
  if (cache) travik_config_destroy(cache);
  cache = travik_plugin_loadconfig("subtitle", TRAVIK_PLUGIN_SUBTITLE, TRAVIK_PLUGIN_VERSION, describe);
  return 0;
}

int travik_subtitle_plugins_destroy(void) {
  // Not saved: travik_plugin_loadconfig saved what it changed.
  travik_config_destroy(cache);
  cache = nullptr;
  return 0;
}

}  // extern "C"
