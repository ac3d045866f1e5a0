/*
 * travik - integer readers over I/O handles, an MSB-first bit reader and
 * base64.
 */
#ifndef TRAVIK_BYTES_H
#define TRAVIK_BYTES_H

#include <travik/common.h>
#include <travik/io.h>

TRAVIK_BEGIN_DECLS

/*
 * Integer readers: each does one travik_io_read of its width. A short read
 * gives all ones (255 for a byte, 0xFFFFFFFF for 16 to 32 bits, all 64 bits
 * for 64), which cannot be told from a real all-ones value.
 */
TRAVIK_API uint8_t travik_get_byte(travik_io *io);
TRAVIK_API uint32_t travik_get_le16(travik_io *io);
TRAVIK_API uint32_t travik_get_le24(travik_io *io);
TRAVIK_API uint32_t travik_get_le32(travik_io *io);
TRAVIK_API uint64_t travik_get_le64(travik_io *io);
TRAVIK_API uint32_t travik_get_be16(travik_io *io);
TRAVIK_API uint32_t travik_get_be24(travik_io *io);
TRAVIK_API uint32_t travik_get_be32(travik_io *io);
TRAVIK_API uint64_t travik_get_be64(travik_io *io);

/*
 * Most-significant-bit-first reader over a caller's buffer. It does not know
 * the buffer's end and reads up to four bytes ahead of the last bit
 * consumed: pad the buffer with at least four readable bytes.
 */
typedef struct travik_bitstream {
  const uint8_t *data; /* next byte to load */
  uint32_t cache;      /* loaded, unconsumed bits, right-aligned */
  uint32_t bits;       /* number of valid bits in cache */
} travik_bitstream;

TRAVIK_API void travik_bitstream_init(travik_bitstream *bs, const void *data);
/* The next n bits (1 to 32; 0 gives 0, more than 32 gives 0 and reads nothing). */
TRAVIK_API uint32_t travik_bitstream_peekbits(travik_bitstream *bs, uint32_t n);
TRAVIK_API uint32_t travik_bitstream_getbits(travik_bitstream *bs, uint32_t n);
/* Copies the next n bits into bytes at `out`, a last partial byte
 * left-aligned with zero low bits; returns the last value read. */
TRAVIK_API uint32_t travik_bitstream_getbits_data(travik_bitstream *bs, uint32_t n, void *out);
/* Does nothing. */
TRAVIK_API void travik_bitstream_flushbits(travik_bitstream *bs);

/* Standard alphabet with "=" padding. Sizes include the terminator. */
TRAVIK_API int32_t travik_base64_encode_len(int32_t length);
/* Writes the encoding and a terminator; returns the bytes written including it. */
TRAVIK_API int32_t travik_base64_encode(char *out, const void *data, int32_t length);
/* (n + 3) / 4 * 3 + 1 for the n leading valid characters of `text`. */
TRAVIK_API int32_t travik_base64_decode_len(const char *text);
/*
 * Decodes the leading valid characters of `text` (the first "=" or other
 * invalid byte ends it) into `out`, which needs travik_base64_decode_len
 * bytes; writes a terminator and returns the decoded length without it.
 */
TRAVIK_API int32_t travik_base64_decode(void *out, const char *text);

TRAVIK_END_DECLS

#endif /* TRAVIK_BYTES_H */
