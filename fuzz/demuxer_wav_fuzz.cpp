// The WAV demuxer plugin over arbitrary bytes.
#include "../plugins/demuxer/wav/wav.cpp"
#include "demux_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz_demuxer(&drivers[0], "fuzz.wav", data, size);
  return 0;
}
