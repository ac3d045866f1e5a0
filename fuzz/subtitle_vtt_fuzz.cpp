// The text subtitle plugin's WebVTT parsing over arbitrary bytes.
#include "../plugins/subtitle/text/cues.cpp"
#include "subtitle_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz_subtitle(travik_text::Format::kWebVtt, data, size);
  return 0;
}
