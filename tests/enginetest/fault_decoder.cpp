// Decoders that fail, for the player's fault tests. Built twice:
//   refuse  (REFUSE defined) its open refuses every stream;
//   silent  it accepts every stream and turns every packet into nothing.
// Both serve the codecs of the avtest demuxer at a priority below the
// native decoders', so they are used only when the player asks for them
// by name.
#include <travik/codec.h>
#include <travik/decoder.h>

namespace {

[[maybe_unused]] int state;

void *open(travik_decoder *) {
#ifdef REFUSE
  return nullptr;
#else
  return &state;
#endif
}

void close(void *) {}

// Consumes nothing and yields nothing: done with the packet at once.
int32_t decode(void *, uint8_t *, int32_t, void *, void **) { return -1; }

void reset(void *) {}

const travik_decoder_driver drivers[] = {
    {WHO " audio", TRAVIK_CODEC_PCM_S16LE, 1, open, close, decode, reset},
    {WHO " video", TRAVIK_CODEC_RAWVIDEO, 1, open, close, decode, reset},
    {nullptr, 0, 0, nullptr, nullptr, nullptr, nullptr},
};

}  // namespace

TRAVIK_PLUGIN_EXPORT void ENTRY(void) {
  travik_plugin_register(TRAVIK_PLUGIN_DECODER, TRAVIK_PLUGIN_VERSION,
                         const_cast<travik_decoder_driver *>(drivers));
}
