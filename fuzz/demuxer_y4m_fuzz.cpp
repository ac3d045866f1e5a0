// The YUV4MPEG2 demuxer plugin over arbitrary bytes.
#include "../plugins/demuxer/y4m/y4m.cpp"
#include "demux_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz_demuxer(&drivers[0], "fuzz.y4m", data, size);
  return 0;
}
