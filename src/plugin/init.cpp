// Library start and stop: the plugin manager and the caches of the plugin
// kinds chosen from a cache (demuxers, decoders, subtitles, fonts).
#include <travik/decoder.h>
#include <travik/demuxer.h>
#include <travik/font.h>
#include <travik/plugin.h>
#include <travik/subtitle.h>

namespace {

// Not locked: the application calls travik_init and travik_destroy once,
// before and after everything else.
bool initialised = false;

}  // namespace

extern "C" {

void travik_init(void) {
  if (initialised) return;
  initialised = true;
  travik_plugin_mgr_init();
  travik_demuxer_plugins_init();
  travik_decoder_plugins_init();
  travik_subtitle_plugins_init();
  travik_font_plugins_init();
}

void travik_destroy(void) {
  if (!initialised) return;
  initialised = false;
  travik_font_plugins_destroy();
  travik_subtitle_plugins_destroy();
  travik_decoder_plugins_destroy();
  travik_demuxer_plugins_destroy();
  travik_plugin_mgr_destroy();
}

}  // extern "C"
