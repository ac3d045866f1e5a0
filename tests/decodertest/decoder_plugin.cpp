// A decoder plugin with one driver for CODEC at PRIORITY, described by its
// name WHO. Its open accepts every stream (or, built with REFUSE, none) and
// notes the name in the environment variable TRAVIK_TEST_DECODER_OPENED of
// the (single, test) process.
#include <travik/decoder.h>

#include <cstdlib>

namespace {

[[maybe_unused]] int state;

void *open(travik_decoder *) {
  setenv("TRAVIK_TEST_DECODER_OPENED", WHO, 1);
#ifdef REFUSE
  return nullptr;
#else
  return &state;
#endif
}
void close(void *) {}
int32_t decode(void *, uint8_t *, int32_t, void *, void **) { return -1; }
void reset(void *) {}

const travik_decoder_driver drivers[] = {
    {WHO, CODEC, PRIORITY, open, close, decode, reset},
    {nullptr, 0, 0, nullptr, nullptr, nullptr, nullptr},
};

}  // namespace

TRAVIK_PLUGIN_EXPORT void ENTRY(void) {
  travik_plugin_register(TRAVIK_PLUGIN_DECODER, TRAVIK_PLUGIN_VERSION,
                         const_cast<travik_decoder_driver *>(drivers));
}
