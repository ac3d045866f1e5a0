// The text subtitle plugin's SubRip parsing over arbitrary bytes.
#include "../plugins/subtitle/text/cues.cpp"
#include "subtitle_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz_subtitle(travik_text::Format::kSubRip, data, size);
  return 0;
}
