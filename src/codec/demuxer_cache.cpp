// The demuxer plugins' cache: refreshed by travik_init, released by
// travik_destroy, read by the demuxer framework's probes.
#include "codec/demuxer_cache.h"

#include <travik/demuxer.h>

#include "plugin/plugin_internal.h"

namespace {

travik_config *cache = nullptr;

}  // namespace

travik_config *travik_demuxer_cache(void) { return cache; }

extern "C" {

int travik_demuxer_plugins_init(void) {
  if (cache) travik_config_destroy(cache);
  cache = travik_plugin_loadconfig("demuxer", TRAVIK_PLUGIN_DEMUXER, TRAVIK_PLUGIN_VERSION,
                                   travik_plugin_describe_extensions<travik_demuxer_driver>);
  return 0;
}

int travik_demuxer_plugins_destroy(void) {
  // Not saved: travik_plugin_loadconfig saved what it changed.
  travik_config_destroy(cache);
  cache = nullptr;
  return 0;
}

}  // extern "C"
