// PCM decoder: 16-bit little-endian and 8-bit unsigned PCM, G.711 A-law and
// mu-law, to frames of interleaved signed 16-bit samples.
#include <travik/codec.h>
#include <travik/decoder.h>

#include <cstdlib>

namespace {

// Sample values in one frame at most; a longer packet gives several frames.
constexpr int32_t kMaxValues = 16384;

struct Pcm {
  travik_decoder *decoder;
  int32_t codec;
  int32_t bytes;     // bytes of one coded value
  int32_t channels;
  int16_t table[256];  // 8-bit codes to 16-bit values
};

int16_t alaw_value(uint8_t code) {
  code ^= 0x55;
  int32_t value = (code & 0x0F) << 4;
  const int32_t segment = (code & 0x70) >> 4;
  if (segment == 0)
    value += 8;
  else
    value = (value + 0x108) << (segment - 1);
  return static_cast<int16_t>(code & 0x80 ? value : -value);
}

int16_t mulaw_value(uint8_t code) {
  code = static_cast<uint8_t>(~code);
  int32_t value = (((code & 0x0F) << 3) + 0x84) << ((code & 0x70) >> 4);
  return static_cast<int16_t>(code & 0x80 ? 0x84 - value : value - 0x84);
}

void *pcm_open(travik_decoder *decoder) {
  const travik_codec_info &info = decoder->stream->info;
  if (info.type != TRAVIK_STREAM_AUDIO || info.channels < 1) return nullptr;
  if (!decoder->allocator->alloc) return nullptr;
  auto *pcm = static_cast<Pcm *>(std::calloc(1, sizeof(Pcm)));
  pcm->decoder = decoder;
  pcm->codec = info.codec;
  pcm->bytes = info.codec == TRAVIK_CODEC_PCM_S16LE ? 2 : 1;
  pcm->channels = info.channels;
  for (int32_t code = 0; code < 256; code++) {
    const auto byte = static_cast<uint8_t>(code);
    switch (info.codec) {
      case TRAVIK_CODEC_PCM_U8:
        pcm->table[code] = static_cast<int16_t>((code - 128) * 256);
        break;
      case TRAVIK_CODEC_PCM_ALAW:
        pcm->table[code] = alaw_value(byte);
        break;
      case TRAVIK_CODEC_PCM_MULAW:
        pcm->table[code] = mulaw_value(byte);
        break;
      default:
        break;
    }
  }
  return pcm;
}

void pcm_close(void *state) { std::free(state); }

int32_t pcm_decode(void *state, uint8_t *data, int32_t size, void *, void **frame) {
  auto *pcm = static_cast<Pcm *>(state);
  if (size <= 0) return -1;  // nothing held back: done with the packet
  // Whole sample frames only; a stray partial one at the end is dropped.
  int32_t values = size / pcm->bytes;
  values -= values % pcm->channels;
  if (values > kMaxValues) values = kMaxValues - kMaxValues % pcm->channels;
  if (values == 0) return size;
  travik_audioframe templ;
  travik_audioframe_init(&templ, nullptr);
  templ.count = values;
  travik_decoder_allocator *allocator = pcm->decoder->allocator;
  auto *out = static_cast<travik_audioframe *>(allocator->alloc(allocator->user, &templ));
  if (!out) return -1;  // no frame to be had: the rest of the packet is dropped
  int16_t *samples = out->samples;
  if (pcm->bytes == 2) {
    for (int32_t i = 0; i < values; i++)
      samples[i] = static_cast<int16_t>(data[2 * i] | (data[2 * i + 1] << 8));
  } else {
    for (int32_t i = 0; i < values; i++) samples[i] = pcm->table[data[i]];
  }
  *frame = out;
  return values * pcm->bytes;
}

void pcm_reset(void *) {}

const travik_decoder_driver drivers[] = {
    {"PCM decoder (16-bit little-endian)", TRAVIK_CODEC_PCM_S16LE, 10, pcm_open, pcm_close,
     pcm_decode, pcm_reset},
    {"PCM decoder (8-bit unsigned)", TRAVIK_CODEC_PCM_U8, 10, pcm_open, pcm_close, pcm_decode,
     pcm_reset},
    {"PCM decoder (G.711 A-law)", TRAVIK_CODEC_PCM_ALAW, 10, pcm_open, pcm_close, pcm_decode,
     pcm_reset},
    {"PCM decoder (G.711 mu-law)", TRAVIK_CODEC_PCM_MULAW, 10, pcm_open, pcm_close, pcm_decode,
     pcm_reset},
    {nullptr, 0, 0, nullptr, nullptr, nullptr, nullptr},
};

}  // namespace

TRAVIK_PLUGIN_EXPORT void travik_decoder_pcm(void) {
  travik_plugin_register(TRAVIK_PLUGIN_DECODER, TRAVIK_PLUGIN_VERSION,
                         const_cast<travik_decoder_driver *>(drivers));
}
