// The subtitle plugins' cache: refreshed by travik_init, released by
// travik_destroy, read by the subtitle framework's probes.
#include "overlay/subtitle_cache.h"

#include <travik/subtitle.h>

#include "plugin/plugin_internal.h"

namespace {

travik_config *cache = nullptr;

}  // namespace

travik_config *travik_subtitle_cache(void) { return cache; }

extern "C" {

int travik_subtitle_plugins_init(void) {
  if (cache) travik_config_destroy(cache);
  cache = travik_plugin_loadconfig("subtitle", TRAVIK_PLUGIN_SUBTITLE, TRAVIK_PLUGIN_VERSION,
                                   travik_plugin_describe_extensions<travik_subtitle_driver>);
  return 0;
}

int travik_subtitle_plugins_destroy(void) {
  // Not saved: travik_plugin_loadconfig saved what it changed.
  travik_config_destroy(cache);
  cache = nullptr;
  return 0;
}

}  // extern "C"
