// The FFmpeg demuxer plugin over arbitrary bytes. The plugin is loaded as a
// plugin file (it links FFmpeg's libraries, which this target does not):
// from $TRAVIK_PLUGINS_DIR when set, otherwise from the build tree's plugin
// directory beside this program's own directory (<build>/plugins).
#include "demux_harness.h"

#include <travik/plugin.h>

#include <climits>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace {

// Loaded once for the whole run and kept reachable.
travik_plugin *plugin;

const travik_demuxer_driver *load_driver() {
  if (!std::getenv("TRAVIK_PLUGINS_DIR")) {
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n > 0) {
      std::string dir(self, static_cast<size_t>(n));
      dir = dir.substr(0, dir.rfind('/'));
      dir = dir.substr(0, dir.rfind('/')) + "/plugins";
      setenv("TRAVIK_PLUGINS_DIR", dir.c_str(), 1);
    }
  }
  plugin = travik_plugin_create("demuxer/libdemuxer_ffmpeg.so", TRAVIK_PLUGIN_DEMUXER, TRAVIK_PLUGIN_VERSION);
  if (!plugin || !plugin->drivers) {
    std::fprintf(stderr, "the FFmpeg demuxer plugin (libdemuxer_ffmpeg.so) was not found\n");
    std::abort();
  }
  return static_cast<const travik_demuxer_driver *>(plugin->drivers);
}

const travik_demuxer_driver *driver;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  driver = load_driver();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz_demuxer(driver, "fuzz.mp4", data, size);
  return 0;
}
