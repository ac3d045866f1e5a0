// The font plugins' cache: refreshed by travik_init, released by
// travik_destroy, read by the font framework's probes.
#include "overlay/font_cache.h"

#include <travik/font.h>

#include <cstdio>

#include "plugin/plugin_internal.h"

namespace {

travik_config *cache = nullptr;

int32_t describe(void *drivers, const char *section, travik_config *config) {
  return travik_plugin_describe_table<travik_font_driver>(
      drivers, section, config, [&](const travik_font_driver &driver, int32_t i) {
        char key[48];
        std::snprintf(key, sizeof key, "Extensions[%d]", static_cast<int>(i));
        travik_config_write(config, section, key, driver.extensions);
      });
}

}  // namespace

travik_config *travik_font_cache(void) { return cache; }

extern "C" {

int travik_font_plugins_init(void) {
  if (cache) travik_config_destroy(cache);
  cache = travik_plugin_loadconfig("font", TRAVIK_PLUGIN_FONT, TRAVIK_PLUGIN_VERSION, describe);
  return 0;
}

int travik_font_plugins_destroy(void) {
  // Not saved: travik_plugin_loadconfig saved what it changed.
  travik_config_destroy(cache);
  cache = nullptr;
  return 0;
}

}  // extern "C"
