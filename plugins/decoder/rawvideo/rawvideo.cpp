// Raw video decoder: planar YUV 4:2:0 pictures (Y, then U, then V, each
// plane tightly packed) to format 1 frames made by the frame allocator.
#include <travik/codec.h>
#include <travik/decoder.h>

#include <cstdlib>
#include <cstring>

namespace {

struct Raw {
  travik_decoder *decoder;
  int32_t width;
  int32_t height;
  int32_t picture_bytes;
};

void copy_plane(uint8_t *to, int32_t pitch, const uint8_t *from, int32_t width, int32_t height) {
  for (int32_t y = 0; y < height; y++) std::memcpy(to + y * pitch, from + y * width, width);
}

void *raw_open(travik_decoder *decoder) {
  const travik_codec_info &info = decoder->stream->info;
  if (info.type != TRAVIK_STREAM_VIDEO || !decoder->allocator->alloc) return nullptr;
  // Whole chroma samples, and a picture whose size fits a packet.
  if (info.width < 2 || info.height < 2 || (info.width | info.height) & 1) return nullptr;
  if (static_cast<int64_t>(info.width) * info.height > (1 << 26)) return nullptr;
  auto *raw = static_cast<Raw *>(std::calloc(1, sizeof(Raw)));
  raw->decoder = decoder;
  raw->width = info.width;
  raw->height = info.height;
  raw->picture_bytes = info.width * info.height * 3 / 2;
  return raw;
}

void raw_close(void *state) { std::free(state); }

int32_t raw_decode(void *state, uint8_t *data, int32_t size, void *, void **frame) {
  auto *raw = static_cast<Raw *>(state);
  if (size < raw->picture_bytes) return -1;  // done, or a short picture
  travik_videoframe templ;
  travik_videoframe_init(&templ, nullptr);
  templ.format = TRAVIK_PIXEL_YUV420P;
  templ.width = raw->width;
  templ.height = raw->height;
  travik_decoder_allocator *allocator = raw->decoder->allocator;
  auto *out = static_cast<travik_videoframe *>(allocator->alloc(allocator->user, &templ));
  if (!out) return -1;
  const int32_t luma = raw->width * raw->height;
  const int32_t cw = raw->width / 2, ch = raw->height / 2;
  copy_plane(out->planes[0], out->pitches[0], data, raw->width, raw->height);
  copy_plane(out->planes[1], out->pitches[1], data + luma, cw, ch);
  copy_plane(out->planes[2], out->pitches[2], data + luma + cw * ch, cw, ch);
  *frame = out;
  return raw->picture_bytes;
}

void raw_reset(void *) {}

const travik_decoder_driver drivers[] = {
    {"Raw video decoder (planar YUV 4:2:0)", TRAVIK_CODEC_RAWVIDEO, 10, raw_open, raw_close,
     raw_decode, raw_reset},
    {nullptr, 0, 0, nullptr, nullptr, nullptr, nullptr},
};

}  // namespace

TRAVIK_PLUGIN_EXPORT void travik_decoder_rawvideo(void) {
  travik_plugin_register(TRAVIK_PLUGIN_DECODER, TRAVIK_PLUGIN_VERSION,
                         const_cast<travik_decoder_driver *>(drivers));
}
