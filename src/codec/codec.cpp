// Codec tag tables and the WAVE format / bitmap information header readers.
#include <travik/bytes.h>
#include <travik/codec.h>
#include <travik/io.h>

#include <cstdlib>
#include <cstring>

#define FCC(s) TRAVIK_FOURCC((s)[0], (s)[1], (s)[2], (s)[3])

extern "C" {

const travik_codec_tag travik_codec_video_tags[38] = {
    {41, FCC("H264"), 0}, {34, FCC("H263"), 0}, {35, FCC("H263"), 0}, {36, FCC("I263"), 0},
    {35, FCC("U263"), 0}, {35, FCC("viv1"), 0}, {37, FCC("DIVX"), 1}, {37, FCC("DX50"), 1},
    {37, FCC("XVID"), 1}, {37, FCC("MP4S"), 0}, {37, FCC("M4S2"), 0}, {37, 4, 0},
    {37, FCC("DIV1"), 0}, {37, FCC("BLZ0"), 0}, {37, FCC("mp4v"), 0}, {37, FCC("UMP4"), 0},
    {38, FCC("DIV3"), 1}, {37, FCC("FMP4"), 0}, {38, FCC("MP43"), 0}, {38, FCC("MPG3"), 0},
    {38, FCC("DIV5"), 0}, {38, FCC("DIV6"), 0}, {38, FCC("DIV4"), 0}, {38, FCC("AP41"), 0},
    {38, FCC("COL1"), 0}, {38, FCC("COL0"), 0}, {39, FCC("MP42"), 0}, {39, FCC("DIV2"), 0},
    {40, FCC("MPG4"), 0}, {42, FCC("WMV1"), 0}, {43, FCC("WMV2"), 0}, {44, FCC("WMV3"), 0},
    {33, FCC("mpg1"), 0}, {33, FCC("mpg2"), 0}, {33, FCC("PIM1"), 0}, {33, FCC("VCR2"), 0},
    {58, FCC("VP6F"), 0}, {0, 0, 0},
};

const travik_codec_tag travik_codec_wav_tags[17] = {
    {1, 0x0050, 0},  {1, 0x0055, 0},  {2, 0x2000, 0},  {4, 0x0001, 0},  {9, 0x0001, 0},
    {10, 0x0006, 0}, {11, 0x0007, 0}, {18, 0x0002, 0}, {13, 0x0011, 0}, {15, 0x0061, 0},
    {14, 0x0062, 0}, {26, 0x0160, 0}, {27, 0x0161, 0}, {28, 0x0162, 0}, {32, 0x000A, 0},
    {29, 0x566F, 0}, {0, 0, 0},
};

}  // extern "C"

namespace {

uint32_t upper_bytes(uint32_t tag) {
  uint32_t result = 0;
  for (int shift = 0; shift < 32; shift += 8) {
    uint32_t byte = (tag >> shift) & 0xFF;
    if (byte >= 'a' && byte <= 'z') byte -= 'a' - 'A';
    result |= byte << shift;
  }
  return result;
}

// Reads `count` extra header bytes into a new buffer. The buffer grows with
// what actually arrives, so a header that declares far more bytes than the
// input holds costs no more memory than the input; the count stored is the
// number of bytes read.
void read_extradata(travik_io *input, travik_codec_info *info, int32_t count) {
  const int32_t chunk_limit = 1 << 16;
  int32_t capacity = count < chunk_limit ? count : chunk_limit;
  auto *buffer = static_cast<uint8_t *>(std::malloc(static_cast<size_t>(capacity)));
  int32_t have = 0;
  while (have < count) {
    if (have == capacity) {
      capacity = count - capacity > capacity ? 2 * capacity : count;
      buffer = static_cast<uint8_t *>(std::realloc(buffer, static_cast<size_t>(capacity)));
    }
    int32_t got = travik_io_read(input, buffer + have, capacity - have);
    if (got <= 0) break;
    have += got;
  }
  info->extradata = buffer;
  info->extradata_size = have;
}

}  // namespace

extern "C" {

int32_t travik_codec_get_id(const travik_codec_tag *table, uint32_t tag) {
  const uint32_t wanted = upper_bytes(tag);
  for (; table->id != 0; table++)
    if (upper_bytes(table->tag) == wanted) return table->id;
  return 0;
}

int32_t travik_read_wav_header(travik_io *input, travik_codec_info *info, int32_t size) {
  const uint32_t format = travik_get_le16(input);
  info->type = TRAVIK_STREAM_AUDIO;
  info->codec = travik_codec_get_id(travik_codec_wav_tags, format);
  info->tag = format;
  info->channels = static_cast<int32_t>(travik_get_le16(input));
  info->sample_rate = static_cast<int32_t>(travik_get_le32(input));
  info->bitrate = static_cast<int32_t>(travik_get_le32(input) * 8);
  info->block_align = static_cast<int32_t>(travik_get_le16(input));
  info->bits_per_sample = size == 14 ? 8 : static_cast<int32_t>(travik_get_le16(input));
  if (info->bits_per_sample == 8 && info->codec == TRAVIK_CODEC_PCM_S16LE)
    info->codec = TRAVIK_CODEC_PCM_U8;
  if (size < 17) return 1;
  const int32_t extra = static_cast<int32_t>(travik_get_le16(input));
  info->extradata_size = 0;
  if (extra >= 1) {
    // A header of 17 or 18 bytes has no room for extra bytes. For 17 the
    // smaller of the two counts would be -1; it is taken as 0 (nothing to
    // allocate or read) so that no negative size reaches the stream.
    const int32_t count = extra < size - 18 ? extra : size - 18;
    if (count > 0) read_extradata(input, info, count);
  }
  const int64_t rest = static_cast<int64_t>(size) - info->extradata_size - 18;
  if (rest > 0) travik_io_read(input, nullptr, static_cast<int32_t>(rest));
  return 1;
}

int32_t travik_read_bmi_header(travik_io *input, travik_codec_info *info, int32_t size) {
  travik_get_le32(input);  // structure size
  info->width = static_cast<int32_t>(travik_get_le32(input));
  info->height = static_cast<int32_t>(travik_get_le32(input));
  travik_get_le16(input);  // planes
  info->bits_per_sample = static_cast<int32_t>(travik_get_le16(input));
  const uint32_t compression = travik_get_le32(input);
  for (int i = 0; i < 5; i++) travik_get_le32(input);
  info->extradata = nullptr;
  // A header shorter than the 40 bytes just read carries nothing more: its
  // negative remainder is taken as 0 rather than used as a size.
  info->extradata_size = size > 40 ? size - 40 : 0;
  if (info->extradata_size > 0) read_extradata(input, info, info->extradata_size);
  info->type = TRAVIK_STREAM_VIDEO;
  info->codec = travik_codec_get_id(travik_codec_video_tags, compression);
  info->tag = compression;
  return 1;
}

}  // extern "C"
