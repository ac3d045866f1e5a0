// Integer readers over I/O handles, the MSB-first bit reader and base64.
#include <travik/bytes.h>

#include <cstring>

namespace {

// mask[k] = 2^k - 1 for k = 0..32.
constexpr uint32_t kMask[33] = {
    0x00000000u, 0x00000001u, 0x00000003u, 0x00000007u, 0x0000000Fu, 0x0000001Fu, 0x0000003Fu,
    0x0000007Fu, 0x000000FFu, 0x000001FFu, 0x000003FFu, 0x000007FFu, 0x00000FFFu, 0x00001FFFu,
    0x00003FFFu, 0x00007FFFu, 0x0000FFFFu, 0x0001FFFFu, 0x0003FFFFu, 0x0007FFFFu, 0x000FFFFFu,
    0x001FFFFFu, 0x003FFFFFu, 0x007FFFFFu, 0x00FFFFFFu, 0x01FFFFFFu, 0x03FFFFFFu, 0x07FFFFFFu,
    0x0FFFFFFFu, 0x1FFFFFFFu, 0x3FFFFFFFu, 0x7FFFFFFFu, 0xFFFFFFFFu};

// Reads `count` bytes in one read; false on a short read.
bool read_bytes(travik_io *io, uint8_t *bytes, int32_t count) {
  return travik_io_read(io, bytes, count) == count;
}

uint64_t little_endian(const uint8_t *bytes, int count) {
  uint64_t value = 0;
  for (int i = count - 1; i >= 0; i--) value = value << 8 | bytes[i];
  return value;
}

uint64_t big_endian(const uint8_t *bytes, int count) {
  uint64_t value = 0;
  for (int i = 0; i < count; i++) value = value << 8 | bytes[i];
  return value;
}

uint32_t read_le(travik_io *io, int count) {
  uint8_t bytes[4];
  return read_bytes(io, bytes, count) ? static_cast<uint32_t>(little_endian(bytes, count))
                                      : 0xFFFFFFFFu;
}

uint32_t read_be(travik_io *io, int count) {
  uint8_t bytes[4];
  return read_bytes(io, bytes, count) ? static_cast<uint32_t>(big_endian(bytes, count))
                                      : 0xFFFFFFFFu;
}

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// 256 entries: the value of each alphabet character, 64 for every other byte.
struct DecodeTable {
  uint8_t value[256];
  constexpr DecodeTable() : value() {
    for (int i = 0; i < 256; i++) value[i] = 64;
    for (int i = 0; i < 64; i++) value[static_cast<uint8_t>(kAlphabet[i])] = static_cast<uint8_t>(i);
  }
};
constexpr DecodeTable kDecode;

uint8_t decode_char(char c) { return kDecode.value[static_cast<uint8_t>(c)]; }

int32_t count_valid(const char *text) {
  int32_t n = 0;
  while (decode_char(text[n]) < 64) n++;
  return n;
}

}  // namespace

extern "C" {

uint8_t travik_get_byte(travik_io *io) {
  uint8_t byte = 255;
  travik_io_read(io, &byte, 1);
  return byte;
}

uint32_t travik_get_le16(travik_io *io) { return read_le(io, 2); }
uint32_t travik_get_le24(travik_io *io) { return read_le(io, 3); }
uint32_t travik_get_le32(travik_io *io) { return read_le(io, 4); }
uint32_t travik_get_be16(travik_io *io) { return read_be(io, 2); }
uint32_t travik_get_be24(travik_io *io) { return read_be(io, 3); }
uint32_t travik_get_be32(travik_io *io) { return read_be(io, 4); }

uint64_t travik_get_le64(travik_io *io) {
  uint8_t bytes[8];
  return read_bytes(io, bytes, 8) ? little_endian(bytes, 8) : ~uint64_t{0};
}

uint64_t travik_get_be64(travik_io *io) {
  uint8_t bytes[8];
  return read_bytes(io, bytes, 8) ? big_endian(bytes, 8) : ~uint64_t{0};
}

void travik_bitstream_init(travik_bitstream *bs, const void *data) {
  bs->data = static_cast<const uint8_t *>(data);
  bs->cache = 0;
  bs->bits = 0;
}

uint32_t travik_bitstream_peekbits(travik_bitstream *bs, uint32_t n) {
  if (n > 32) return 0;
  while (bs->bits < 24) {
    bs->cache = bs->cache << 8 | *bs->data++;
    bs->bits += 8;
  }
  if (n <= bs->bits) return (bs->cache >> (bs->bits - n)) & kMask[n];
  // More than the cache holds: the missing low bits are the top bits of the
  // next byte, looked at but not loaded.
  uint32_t missing = n - bs->bits;
  return (bs->cache & kMask[bs->bits]) << missing | ((*bs->data >> (8 - missing)) & kMask[missing]);
}

uint32_t travik_bitstream_getbits(travik_bitstream *bs, uint32_t n) {
  if (n > 32) return 0;
  uint32_t value = travik_bitstream_peekbits(bs, n);
  if (n > bs->bits) {
    bs->cache = *bs->data++;
    bs->bits = bs->bits - n + 8;
  } else {
    bs->bits -= n;
  }
  return value;
}

uint32_t travik_bitstream_getbits_data(travik_bitstream *bs, uint32_t n, void *out) {
  auto *bytes = static_cast<uint8_t *>(out);
  uint32_t value = 0;
  while (n >= 8) {
    value = travik_bitstream_getbits(bs, 8);
    *bytes++ = static_cast<uint8_t>(value);
    n -= 8;
  }
  if (n > 0) {
    value = travik_bitstream_getbits(bs, n);
    *bytes = static_cast<uint8_t>(value << (8 - n));
  }
  return value;
}

void travik_bitstream_flushbits(travik_bitstream *) {}

int32_t travik_base64_encode_len(int32_t length) {
  if (length < 0) length = 0;
  return (length + 2) / 3 * 4 + 1;
}

int32_t travik_base64_encode(char *out, const void *data, int32_t length) {
  const auto *in = static_cast<const uint8_t *>(data);
  char *p = out;
  int32_t i = 0;
  for (; length - i >= 3; i += 3) {
    uint32_t group = static_cast<uint32_t>(in[i]) << 16 | in[i + 1] << 8 | in[i + 2];
    *p++ = kAlphabet[group >> 18];
    *p++ = kAlphabet[(group >> 12) & 63];
    *p++ = kAlphabet[(group >> 6) & 63];
    *p++ = kAlphabet[group & 63];
  }
  int32_t left = length - i;
  if (left == 1) {
    *p++ = kAlphabet[in[i] >> 2];
    *p++ = kAlphabet[(in[i] & 3) << 4];
    *p++ = '=';
    *p++ = '=';
  } else if (left == 2) {
    *p++ = kAlphabet[in[i] >> 2];
    *p++ = kAlphabet[(in[i] & 3) << 4 | in[i + 1] >> 4];
    *p++ = kAlphabet[(in[i + 1] & 15) << 2];
    *p++ = '=';
  }
  *p++ = '\0';
  return static_cast<int32_t>(p - out);
}

int32_t travik_base64_decode_len(const char *text) { return (count_valid(text) + 3) / 4 * 3 + 1; }

int32_t travik_base64_decode(void *out, const char *text) {
  auto *p = static_cast<uint8_t *>(out);
  const int32_t n = count_valid(text);
  const auto *in = reinterpret_cast<const char *>(text);
  int32_t left = n;
  for (; left > 4; left -= 4, in += 4) {
    uint8_t a = decode_char(in[0]), b = decode_char(in[1]), c = decode_char(in[2]),
            d = decode_char(in[3]);
    *p++ = static_cast<uint8_t>(a << 2 | b >> 4);
    *p++ = static_cast<uint8_t>(b << 4 | c >> 2);
    *p++ = static_cast<uint8_t>(c << 6 | d);
  }
  if (left > 1) *p++ = static_cast<uint8_t>(decode_char(in[0]) << 2 | decode_char(in[1]) >> 4);
  if (left > 2) *p++ = static_cast<uint8_t>(decode_char(in[1]) << 4 | decode_char(in[2]) >> 2);
  if (left > 3) *p++ = static_cast<uint8_t>(decode_char(in[2]) << 6 | decode_char(in[3]));
  *p = 0;
  return (n + 3) / 4 * 3 - (4 - n % 4) % 4;
}

}  // extern "C"
