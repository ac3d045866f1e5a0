// Optimised quarter-turn routines of the YUV to RGB converter.
//
// The reference quarter turns convert the same 2 x 2 groups as the plain
// routine (pairs of rows, whole blocks of 8 columns) and write every pixel
// to its turned place one by one. These routines convert a tile of the
// source (a few row pairs of up to kTileColumns columns) with the optimised
// rotation-0 routine into the converter's tile buffer, then transpose the
// tile into the destination in blocks of 8 x 8 pixels with vector shuffles.
// Both turns are one transpose with signed pitches:
//   clockwise: source (x, y) goes to row x, column H - 1 - y; reading the
//     tile from its last row upwards makes tile row r' destination column
//     H - y0 - n + r' of destination row x;
//   counter-clockwise: source (x, y) goes to row W - 1 - x, column y; the
//     destination rows are walked upwards.
// The tile buffer is made at creation, never per frame.
#include <cstdlib>
#include <cstring>

#include "video/yuv2rgb_impl.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define TRAVIK_TURN_X86 1
#endif

namespace travik_video {

namespace {

// A tile is one cache line of destination bytes high (16 rows of 32-bit or
// 32 rows of 16-bit pixels, whole row pairs) and kTileColumns wide.
constexpr int32_t kTileBytes = 64;
constexpr int32_t kTileColumns = 128;  // a multiple of 8 and of every vector chunk
constexpr int32_t tile_rows(int32_t bytes) { return kTileBytes / bytes; }

// Transposes 8 rows of 8 pixels at `src` (rows `src_pitch` bytes apart) into
// 8 rows of 8 pixels at `dst` (rows `dst_pitch` bytes apart): destination
// row k, pixel r = source row r, pixel k.
using Block8 = void (*)(const uint8_t *src, ptrdiff_t src_pitch, uint8_t *dst,
                        ptrdiff_t dst_pitch);

// The same for 16 rows of 8 pixels into 8 rows of 16 pixels (where a
// vector holds 16 pixels).
using Block16 = Block8;

bool usable(const uint8_t *dst, const uint8_t *py, const uint8_t *pu, const uint8_t *pv,
            int32_t width, int32_t height) {
  return dst && py && pu && pv && width > 0 && height > 0;
}

#ifdef TRAVIK_TURN_X86

// SSE2 is part of every x86-64 processor, not of every 32-bit one.
#define SSE2 __attribute__((target("sse2")))

SSE2 inline __m128i load(const uint8_t *p) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
}
SSE2 inline void store(uint8_t *p, __m128i v) {
  _mm_storeu_si128(reinterpret_cast<__m128i *>(p), v);
}

// 4 x 4 words of 32 bits.
SSE2 inline void transpose4x4_32(const uint8_t *src, ptrdiff_t sp, uint8_t *dst,
                                 ptrdiff_t dp) {
  const __m128i a = load(src), b = load(src + sp), c = load(src + 2 * sp),
                d = load(src + 3 * sp);
  const __m128i t0 = _mm_unpacklo_epi32(a, b), t1 = _mm_unpacklo_epi32(c, d);
  const __m128i t2 = _mm_unpackhi_epi32(a, b), t3 = _mm_unpackhi_epi32(c, d);
  store(dst, _mm_unpacklo_epi64(t0, t1));
  store(dst + dp, _mm_unpackhi_epi64(t0, t1));
  store(dst + 2 * dp, _mm_unpacklo_epi64(t2, t3));
  store(dst + 3 * dp, _mm_unpackhi_epi64(t2, t3));
}

SSE2 void block32_sse2(const uint8_t *src, ptrdiff_t sp, uint8_t *dst, ptrdiff_t dp) {
  transpose4x4_32(src, sp, dst, dp);
  transpose4x4_32(src + 4 * sp, sp, dst + 16, dp);
  transpose4x4_32(src + 16, sp, dst + 4 * dp, dp);
  transpose4x4_32(src + 4 * sp + 16, sp, dst + 4 * dp + 16, dp);
}

SSE2 void block16_sse2(const uint8_t *src, ptrdiff_t sp, uint8_t *dst, ptrdiff_t dp) {
  __m128i r[8];
  for (int i = 0; i < 8; i++) r[i] = load(src + i * sp);
  const __m128i s0 = _mm_unpacklo_epi16(r[0], r[1]), s1 = _mm_unpacklo_epi16(r[2], r[3]);
  const __m128i s2 = _mm_unpacklo_epi16(r[4], r[5]), s3 = _mm_unpacklo_epi16(r[6], r[7]);
  const __m128i s4 = _mm_unpackhi_epi16(r[0], r[1]), s5 = _mm_unpackhi_epi16(r[2], r[3]);
  const __m128i s6 = _mm_unpackhi_epi16(r[4], r[5]), s7 = _mm_unpackhi_epi16(r[6], r[7]);
  // Pixels 0-3 of the rows from s0..s3, pixels 4-7 from s4..s7.
  const __m128i t0 = _mm_unpacklo_epi32(s0, s1), t1 = _mm_unpackhi_epi32(s0, s1);
  const __m128i t2 = _mm_unpacklo_epi32(s2, s3), t3 = _mm_unpackhi_epi32(s2, s3);
  const __m128i t4 = _mm_unpacklo_epi32(s4, s5), t5 = _mm_unpackhi_epi32(s4, s5);
  const __m128i t6 = _mm_unpacklo_epi32(s6, s7), t7 = _mm_unpackhi_epi32(s6, s7);
  store(dst, _mm_unpacklo_epi64(t0, t2));
  store(dst + dp, _mm_unpackhi_epi64(t0, t2));
  store(dst + 2 * dp, _mm_unpacklo_epi64(t1, t3));
  store(dst + 3 * dp, _mm_unpackhi_epi64(t1, t3));
  store(dst + 4 * dp, _mm_unpacklo_epi64(t4, t6));
  store(dst + 5 * dp, _mm_unpackhi_epi64(t4, t6));
  store(dst + 6 * dp, _mm_unpacklo_epi64(t5, t7));
  store(dst + 7 * dp, _mm_unpackhi_epi64(t5, t7));
}

#define AVX2 __attribute__((target("avx2")))

AVX2 inline __m256i load256(const uint8_t *p) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p));
}

// 8 x 8 words of 32 bits: in-lane 4 x 4 transposes of the rows paired
// (0, 4), (1, 5), (2, 6), (3, 7), whose lanes are the four quarters.
AVX2 void block32_avx2(const uint8_t *src, ptrdiff_t sp, uint8_t *dst, ptrdiff_t dp) {
  __m256i r[8];
  for (int i = 0; i < 4; i++)
    r[i] = _mm256_permute2x128_si256(load256(src + i * sp), load256(src + (i + 4) * sp), 0x20);
  for (int i = 0; i < 4; i++)
    r[i + 4] =
        _mm256_permute2x128_si256(load256(src + i * sp), load256(src + (i + 4) * sp), 0x31);
  // r[i]: row i pixels 0-3 | row i + 4 pixels 0-3; r[i + 4]: the same, pixels 4-7.
  for (int h = 0; h < 2; h++) {
    const __m256i *q = r + 4 * h;
    const __m256i t0 = _mm256_unpacklo_epi32(q[0], q[1]), t1 = _mm256_unpacklo_epi32(q[2], q[3]);
    const __m256i t2 = _mm256_unpackhi_epi32(q[0], q[1]), t3 = _mm256_unpackhi_epi32(q[2], q[3]);
    // Each: pixel k of rows 0-3 | pixel k of rows 4-7, i.e. a whole
    // destination row.
    uint8_t *d = dst + 4 * h * dp;
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(d), _mm256_unpacklo_epi64(t0, t1));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(d + dp), _mm256_unpackhi_epi64(t0, t1));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(d + 2 * dp), _mm256_unpacklo_epi64(t2, t3));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(d + 3 * dp), _mm256_unpackhi_epi64(t2, t3));
  }
}

// 16 rows of 8 words of 16 bits: the SSE2 transpose in both lanes, rows
// 0-7 in the low lane and rows 8-15 in the high one, so that each result
// is a whole destination row of 16 pixels.
AVX2 void wide16_avx2(const uint8_t *src, ptrdiff_t sp, uint8_t *dst, ptrdiff_t dp) {
  __m256i r[8];
  for (int i = 0; i < 8; i++)
    r[i] = _mm256_inserti128_si256(_mm256_castsi128_si256(load(src + i * sp)),
                                   load(src + (i + 8) * sp), 1);
  const __m256i s0 = _mm256_unpacklo_epi16(r[0], r[1]), s1 = _mm256_unpacklo_epi16(r[2], r[3]);
  const __m256i s2 = _mm256_unpacklo_epi16(r[4], r[5]), s3 = _mm256_unpacklo_epi16(r[6], r[7]);
  const __m256i s4 = _mm256_unpackhi_epi16(r[0], r[1]), s5 = _mm256_unpackhi_epi16(r[2], r[3]);
  const __m256i s6 = _mm256_unpackhi_epi16(r[4], r[5]), s7 = _mm256_unpackhi_epi16(r[6], r[7]);
  const __m256i t0 = _mm256_unpacklo_epi32(s0, s1), t1 = _mm256_unpackhi_epi32(s0, s1);
  const __m256i t2 = _mm256_unpacklo_epi32(s2, s3), t3 = _mm256_unpackhi_epi32(s2, s3);
  const __m256i t4 = _mm256_unpacklo_epi32(s4, s5), t5 = _mm256_unpackhi_epi32(s4, s5);
  const __m256i t6 = _mm256_unpacklo_epi32(s6, s7), t7 = _mm256_unpackhi_epi32(s6, s7);
  const __m256i out[8] = {_mm256_unpacklo_epi64(t0, t2), _mm256_unpackhi_epi64(t0, t2),
                          _mm256_unpacklo_epi64(t1, t3), _mm256_unpackhi_epi64(t1, t3),
                          _mm256_unpacklo_epi64(t4, t6), _mm256_unpackhi_epi64(t4, t6),
                          _mm256_unpacklo_epi64(t5, t7), _mm256_unpackhi_epi64(t5, t7)};
  for (int i = 0; i < 8; i++)
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i * dp), out[i]);
}

#undef AVX2
#undef SSE2

Block8 block_for(int32_t bytes, int32_t level) {
  if (bytes == 4) return level >= TRAVIK_SIMD_AVX2 ? block32_avx2 : block32_sse2;
  return block16_sse2;
}

Block16 wide_for(int32_t bytes, int32_t level) {
  return bytes == 2 && level >= TRAVIK_SIMD_AVX2 ? wide16_avx2 : nullptr;
}

#elif defined(TRAVIK_VIDEO_NEON)

}  // namespace
}  // namespace travik_video

#pragma GCC push_options
#pragma GCC target("fpu=neon")
#include <arm_neon.h>

namespace travik_video {
namespace {

inline void transpose4x4_32(const uint8_t *src, ptrdiff_t sp, uint8_t *dst, ptrdiff_t dp) {
  const uint32x4_t a = vreinterpretq_u32_u8(vld1q_u8(src));
  const uint32x4_t b = vreinterpretq_u32_u8(vld1q_u8(src + sp));
  const uint32x4_t c = vreinterpretq_u32_u8(vld1q_u8(src + 2 * sp));
  const uint32x4_t d = vreinterpretq_u32_u8(vld1q_u8(src + 3 * sp));
  const uint32x4x2_t ab = vtrnq_u32(a, b);  // a0 b0 a2 b2 | a1 b1 a3 b3
  const uint32x4x2_t cd = vtrnq_u32(c, d);
  vst1q_u8(dst,
           vreinterpretq_u8_u32(vcombine_u32(vget_low_u32(ab.val[0]), vget_low_u32(cd.val[0]))));
  vst1q_u8(dst + dp,
           vreinterpretq_u8_u32(vcombine_u32(vget_low_u32(ab.val[1]), vget_low_u32(cd.val[1]))));
  vst1q_u8(dst + 2 * dp,
           vreinterpretq_u8_u32(vcombine_u32(vget_high_u32(ab.val[0]), vget_high_u32(cd.val[0]))));
  vst1q_u8(dst + 3 * dp,
           vreinterpretq_u8_u32(vcombine_u32(vget_high_u32(ab.val[1]), vget_high_u32(cd.val[1]))));
}

void block32_neon(const uint8_t *src, ptrdiff_t sp, uint8_t *dst, ptrdiff_t dp) {
  transpose4x4_32(src, sp, dst, dp);
  transpose4x4_32(src + 4 * sp, sp, dst + 16, dp);
  transpose4x4_32(src + 16, sp, dst + 4 * dp, dp);
  transpose4x4_32(src + 4 * sp + 16, sp, dst + 4 * dp + 16, dp);
}

inline uint16x8_t join(uint32x2_t lo, uint32x2_t hi) {
  return vreinterpretq_u16_u32(vcombine_u32(lo, hi));
}

void block16_neon(const uint8_t *src, ptrdiff_t sp, uint8_t *dst, ptrdiff_t dp) {
  uint16x8_t r[8];
  for (int i = 0; i < 8; i++) r[i] = vreinterpretq_u16_u8(vld1q_u8(src + i * sp));
  // Pairs of rows interleaved: a0 b0 a2 b2 ... | a1 b1 a3 b3 ...
  const uint16x8x2_t p0 = vtrnq_u16(r[0], r[1]), p1 = vtrnq_u16(r[2], r[3]);
  const uint16x8x2_t p2 = vtrnq_u16(r[4], r[5]), p3 = vtrnq_u16(r[6], r[7]);
  // Quads: q0 = pixels 0 | 4 and 2 | 6 of rows 0-3, q1 = 1 | 5 and 3 | 7;
  // q2, q3 the same of rows 4-7.
  const uint32x4x2_t q0 =
      vtrnq_u32(vreinterpretq_u32_u16(p0.val[0]), vreinterpretq_u32_u16(p1.val[0]));
  const uint32x4x2_t q1 =
      vtrnq_u32(vreinterpretq_u32_u16(p0.val[1]), vreinterpretq_u32_u16(p1.val[1]));
  const uint32x4x2_t q2 =
      vtrnq_u32(vreinterpretq_u32_u16(p2.val[0]), vreinterpretq_u32_u16(p3.val[0]));
  const uint32x4x2_t q3 =
      vtrnq_u32(vreinterpretq_u32_u16(p2.val[1]), vreinterpretq_u32_u16(p3.val[1]));
  const uint16x8_t out[8] = {
      join(vget_low_u32(q0.val[0]), vget_low_u32(q2.val[0])),
      join(vget_low_u32(q1.val[0]), vget_low_u32(q3.val[0])),
      join(vget_low_u32(q0.val[1]), vget_low_u32(q2.val[1])),
      join(vget_low_u32(q1.val[1]), vget_low_u32(q3.val[1])),
      join(vget_high_u32(q0.val[0]), vget_high_u32(q2.val[0])),
      join(vget_high_u32(q1.val[0]), vget_high_u32(q3.val[0])),
      join(vget_high_u32(q0.val[1]), vget_high_u32(q2.val[1])),
      join(vget_high_u32(q1.val[1]), vget_high_u32(q3.val[1])),
  };
  for (int i = 0; i < 8; i++) vst1q_u8(dst + i * dp, vreinterpretq_u8_u16(out[i]));
}

}  // namespace
}  // namespace travik_video

#pragma GCC pop_options

namespace travik_video {
namespace {

Block8 block_for(int32_t bytes, int32_t) { return bytes == 4 ? block32_neon : block16_neon; }
Block16 wide_for(int32_t, int32_t) { return nullptr; }

#else

Block8 block_for(int32_t, int32_t) { return nullptr; }
Block16 wide_for(int32_t, int32_t) { return nullptr; }

#endif

}  // namespace

struct TurnState {
  travik_yuv2rgb_fn rows;  // the optimised rotation-0 routine, bytes not exchanged
  Block8 block;
  Block16 wide;            // NULL: 8 rows at a time
  uint8_t *tile;           // tile_rows(bytes) x kTileColumns pixels
};

namespace {

// Moves the n x m pixels of the tile (n rows of m pixels, m a multiple of
// 8) to the destination: pixel k of tile row r to pixel r of the row
// dst + k * dst_pitch. Groups of 16 rows (where a vector holds 16 pixels)
// and of 8 rows go through the transposes.
template <int kBytes>
void place(const TurnState *t, const uint8_t *tile, ptrdiff_t tile_pitch, int32_t n, int32_t m,
           uint8_t *dst, ptrdiff_t dst_pitch) {
  const int32_t wide = t->wide ? n & ~15 : 0;
  const int32_t whole = n & ~7;
  for (int32_t k = 0; k < m; k += 8) {
    const uint8_t *s = tile + k * kBytes;
    uint8_t *d = dst + k * dst_pitch;
    int32_t r = 0;
    for (; r < wide; r += 16) t->wide(s + r * tile_pitch, tile_pitch, d + r * kBytes, dst_pitch);
    for (; r < whole; r += 8) t->block(s + r * tile_pitch, tile_pitch, d + r * kBytes, dst_pitch);
  }
  if (whole == n) return;
  for (int32_t k = 0; k < m; k++) {
    uint8_t *d = dst + k * dst_pitch;
    for (int32_t r = whole; r < n; r++)
      std::memcpy(d + r * kBytes, tile + r * tile_pitch + k * kBytes, kBytes);
  }
}

template <int kBytes, bool kClockwise>
void turned(travik_yuv2rgb *c, int32_t width, int32_t height, uint8_t *dst, int32_t dst_pitch,
            const uint8_t *py, const uint8_t *pu, const uint8_t *pv, int32_t y_pitch,
            int32_t uv_pitch, travik_yuv2rgb_fn reference) {
  if (!usable(dst, py, pu, pv, width, height)) return;
  const auto *params = static_cast<const SimdParams *>(c->priv);
  const TurnState *t = params ? params->turn : nullptr;
  // Destination rows narrower than a turned source column overlap; only the
  // reference's pixel order gives the reference's result there.
  const ptrdiff_t row_bytes = static_cast<ptrdiff_t>(height) * kBytes;
  if (!t || (dst_pitch < row_bytes && dst_pitch > -row_bytes)) {
    reference(c, width, height, dst, dst_pitch, py, pu, pv, y_pitch, uv_pitch);
    return;
  }
  const int32_t columns = (width / 8) * 8;
  const int32_t rows = (height / 2) * 2;
  const ptrdiff_t tile_pitch = static_cast<ptrdiff_t>(kTileColumns) * kBytes;
  const ptrdiff_t dp = dst_pitch;
  constexpr int32_t kRows = tile_rows(kBytes);
  for (int32_t y0 = 0; y0 < rows; y0 += kRows) {
    const int32_t n = rows - y0 < kRows ? rows - y0 : kRows;
    const uint8_t *ys = py + static_cast<ptrdiff_t>(y0) * y_pitch;
    const ptrdiff_t uv_at = static_cast<ptrdiff_t>(y0 / 2) * uv_pitch;
    for (int32_t x0 = 0; x0 < columns; x0 += kTileColumns) {
      const int32_t m = columns - x0 < kTileColumns ? columns - x0 : kTileColumns;
      t->rows(c, m, n, t->tile, static_cast<int32_t>(tile_pitch), ys + x0, pu + uv_at + x0 / 2,
              pv + uv_at + x0 / 2, y_pitch, uv_pitch);
      if (kClockwise) {
        // Tile row n - 1 - r' (source row y0 + n - 1 - r') lands in column
        // height - y0 - n + r' of destination row x0 + k.
        place<kBytes>(t, t->tile + (n - 1) * tile_pitch, -tile_pitch, n, m,
                      dst + x0 * dp + static_cast<ptrdiff_t>(height - y0 - n) * kBytes, dp);
      } else {
        // Tile row r lands in column y0 + r of destination row
        // width - 1 - x0 - k.
        place<kBytes>(t, t->tile, tile_pitch, n, m,
                      dst + static_cast<ptrdiff_t>(width - 1 - x0) * dp + y0 * kBytes, -dp);
      }
    }
  }
}

}  // namespace

void convert32_cw_simd(travik_yuv2rgb *c, int32_t w, int32_t h, uint8_t *d, int32_t dp,
                       const uint8_t *y, const uint8_t *u, const uint8_t *v, int32_t yp,
                       int32_t uvp) {
  turned<4, true>(c, w, h, d, dp, y, u, v, yp, uvp, convert32_cw);
}
void convert16_cw_simd(travik_yuv2rgb *c, int32_t w, int32_t h, uint8_t *d, int32_t dp,
                       const uint8_t *y, const uint8_t *u, const uint8_t *v, int32_t yp,
                       int32_t uvp) {
  turned<2, true>(c, w, h, d, dp, y, u, v, yp, uvp, convert16_cw);
}
void convert16_ccw_simd(travik_yuv2rgb *c, int32_t w, int32_t h, uint8_t *d, int32_t dp,
                        const uint8_t *y, const uint8_t *u, const uint8_t *v, int32_t yp,
                        int32_t uvp) {
  turned<2, false>(c, w, h, d, dp, y, u, v, yp, uvp, convert16_ccw);
}

bool turn_state_build(SimdParams *params, int32_t bytes, travik_yuv2rgb_fn rows, int32_t level) {
  const Block8 block = block_for(bytes, level);
  if (!block || !rows) return false;
  auto *t = static_cast<TurnState *>(std::malloc(sizeof(TurnState)));
  t->rows = rows;
  t->block = block;
  t->wide = wide_for(bytes, level);
  const size_t size = static_cast<size_t>(tile_rows(bytes)) * kTileColumns * bytes;
  t->tile = static_cast<uint8_t *>(std::malloc(size));
  params->turn = t;
  return true;
}

void turn_state_free(SimdParams *params) {
  if (!params->turn) return;
  std::free(params->turn->tile);
  std::free(params->turn);
  params->turn = nullptr;
}

}  // namespace travik_video
