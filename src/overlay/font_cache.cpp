// The font plugins' cache: refreshed by travik_init, released by
// travik_destroy, read by the font framework's probes.
#include "overlay/font_cache.h"

#include <travik/font.h>

#include "plugin/plugin_internal.h"

namespace {

travik_config *cache = nullptr;

}  // namespace

travik_config *travik_font_cache(void) { return cache; }

extern "C" {

int travik_font_plugins_init(void) {
  if (cache) travik_config_destroy(cache);
  cache = travik_plugin_loadconfig("font", TRAVIK_PLUGIN_FONT, TRAVIK_PLUGIN_VERSION,
                                   travik_plugin_describe_extensions<travik_font_driver>);
  return 0;
}

int travik_font_plugins_destroy(void) {
  // Not saved: travik_plugin_loadconfig saved what it changed.
  travik_config_destroy(cache);
  cache = nullptr;
  return 0;
}

}  // extern "C"
