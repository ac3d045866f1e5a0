// The decoder plugins' cache: refreshed by travik_init, released by
// travik_destroy, read by the decoder framework's probes.
#include "codec/decoder_cache.h"

#include <travik/decoder.h>

#include <cstdio>

#include "plugin/plugin_internal.h"

namespace {

travik_config *cache = nullptr;

int32_t describe(void *drivers, const char *section, travik_config *config) {
  return travik_plugin_describe_table<travik_decoder_driver>(
      drivers, section, config, [&](const travik_decoder_driver &driver, int32_t i) {
        char key[48];
        std::snprintf(key, sizeof key, "Codec[%d]", static_cast<int>(i));
        char codec[16];
        std::snprintf(codec, sizeof codec, "%08x", static_cast<unsigned>(driver.codec));
        travik_config_write(config, section, key, codec);
      });
}

}  // namespace

travik_config *travik_decoder_cache(void) { return cache; }

extern "C" {

int travik_decoder_plugins_init(void) {
  if (cache) travik_config_destroy(cache);
  cache = travik_plugin_loadconfig("decoder", TRAVIK_PLUGIN_DECODER, TRAVIK_PLUGIN_VERSION, describe);
  return 0;
}

int travik_decoder_plugins_destroy(void) {
  // Not saved: travik_plugin_loadconfig saved what it changed.
  travik_config_destroy(cache);
  cache = nullptr;
  return 0;
}

}  // extern "C"
