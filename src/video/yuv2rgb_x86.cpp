// SSSE3 and AVX2 routines of the YUV to RGB converter. They compute what
// the clip tables hold instead of reading them. A component of the table
// method is clamp((76309 * t + 32768) >> 16, 0, 255) with t = Y + offset - 16,
// and for every t the tables can reach (-248..471)
//   (76309 * t + 32768) >> 16 == t + ((t * 5387 + 16384) >> 15),
// a rounding high multiply (pmulhrsw) in 16-bit lanes; the clamp comes from
// the unsigned saturation of the byte packing. The chroma offsets use the
// rounding-multiply formulas checked against the converter's own tables at
// creation. The bit layout follows whichever format last built the shared
// table of the depth, as the tables themselves do. The exhaustive test
// compares these routines with the reference ones for all 2^24 inputs.
#include <travik/frame.h>

#include "video/yuv2rgb_impl.h"

#include <cstring>

#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

namespace travik_video {

namespace {

enum Pack { kRGB32, kBGR32, kRGB666, kRGB565, kRGB555, kRGB565Swap, kRGB555Swap };

constexpr int bytes_of(int pack) {
  return (pack == kRGB32 || pack == kBGR32 || pack == kRGB666) ? 4 : 2;
}

bool usable(const uint8_t *dst, const uint8_t *py, const uint8_t *pu, const uint8_t *pv,
            int32_t width, int32_t height) {
  return dst && py && pu && pv && width > 0 && height > 0;
}

// ---------------------------------------------------------------- SSSE3
//
// 16 pixels of a row at a time, as two halves of 8 words.

#define SSSE3 __attribute__((target("ssse3")))

SSSE3 inline void store(uint8_t *p, __m128i v) {
  _mm_storeu_si128(reinterpret_cast<__m128i *>(p), v);
}

SSSE3 inline __m128i component(__m128i y, __m128i offset) {
  const __m128i t = _mm_add_epi16(y, offset);
  return _mm_add_epi16(t, _mm_mulhrs_epi16(t, _mm_set1_epi16(5387)));
}

SSSE3 inline __m128i clamp(__m128i c) {
  return _mm_min_epi16(_mm_max_epi16(c, _mm_setzero_si128()), _mm_set1_epi16(255));
}

// 8 pixels from unclamped component words: (low, high) pixels 0-3 and 4-7
// for the 32-bit layouts, one vector of 8 for the 16-bit ones.
template <int kPack>
SSSE3 inline void pack8(uint8_t *d, __m128i r, __m128i g, __m128i b) {
  if (kPack == kRGB32 || kPack == kBGR32) {
    // Byte 0 of a pixel is blue (RGB32) or red (BGR32), byte 2 the other.
    const __m128i first_third = kPack == kRGB32 ? _mm_packus_epi16(b, r) : _mm_packus_epi16(r, b);
    const __m128i g0 = _mm_packus_epi16(g, _mm_setzero_si128());
    const __m128i lo = _mm_unpacklo_epi8(first_third, g0);  // byte 0, green
    const __m128i hi = _mm_unpackhi_epi8(first_third, g0);  // byte 2, 0
    store(d, _mm_unpacklo_epi16(lo, hi));
    store(d + 16, _mm_unpackhi_epi16(lo, hi));
  } else if (kPack == kRGB666) {
    const __m128i r6 = _mm_srli_epi16(clamp(r), 2);
    const __m128i g6 = _mm_srli_epi16(clamp(g), 2);
    const __m128i b6 = _mm_srli_epi16(clamp(b), 2);
    const __m128i lo = _mm_or_si128(b6, _mm_or_si128(_mm_slli_epi16(g6, 6), _mm_slli_epi16(r6, 12)));
    const __m128i hi = _mm_srli_epi16(r6, 4);
    store(d, _mm_unpacklo_epi16(lo, hi));
    store(d + 16, _mm_unpackhi_epi16(lo, hi));
  } else {
    r = clamp(r);
    g = clamp(g);
    b = clamp(b);
    __m128i w;
    if (kPack == kRGB565 || kPack == kRGB565Swap)
      w = _mm_or_si128(_mm_slli_epi16(_mm_and_si128(r, _mm_set1_epi16(0xF8)), 8),
                       _mm_or_si128(_mm_slli_epi16(_mm_and_si128(g, _mm_set1_epi16(0xFC)), 3),
                                    _mm_srli_epi16(b, 3)));
    else
      w = _mm_or_si128(_mm_slli_epi16(_mm_and_si128(r, _mm_set1_epi16(0xF8)), 7),
                       _mm_or_si128(_mm_slli_epi16(_mm_and_si128(g, _mm_set1_epi16(0xF8)), 2),
                                    _mm_srli_epi16(b, 3)));
    if (kPack == kRGB565Swap || kPack == kRGB555Swap)
      w = _mm_or_si128(_mm_slli_epi16(w, 8), _mm_srli_epi16(w, 8));
    store(d, w);
  }
}

struct Offsets128 {
  __m128i r, g, b;  // per chroma sample, minus 16
};

SSSE3 inline __m128i offset(__m128i d, const OffsetFormula &f) {
  return _mm_mulhrs_epi16(_mm_sll_epi16(d, _mm_cvtsi32_si128(f.shift)), _mm_set1_epi16(f.mul));
}

SSSE3 inline Offsets128 chroma8(const SimdParams *p, const uint8_t *pu, const uint8_t *pv) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i bias = _mm_set1_epi16(128);
  const __m128i sixteen = _mm_set1_epi16(16);
  const __m128i u = _mm_sub_epi16(
      _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i *>(pu)), zero), bias);
  const __m128i v = _mm_sub_epi16(
      _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i *>(pv)), zero), bias);
  return {_mm_sub_epi16(offset(v, p->red), sixteen),
          _mm_sub_epi16(_mm_add_epi16(offset(u, p->green_u), offset(v, p->green_v)), sixteen),
          _mm_sub_epi16(offset(u, p->blue), sixteen)};
}

template <int kPack>
SSSE3 void rows_ssse3(const SimdParams *params, int32_t chunks, int32_t height, uint8_t *dst,
                      int32_t dst_pitch, const uint8_t *py, const uint8_t *pu, const uint8_t *pv,
                      int32_t y_pitch, int32_t uv_pitch) {
  constexpr int kBytes = bytes_of(kPack);
  const __m128i zero = _mm_setzero_si128();
  for (int32_t pair = 0; pair < height / 2; pair++) {
    for (int32_t i = 0; i < chunks; i++) {
      const Offsets128 o = chroma8(params, pu + 8 * i, pv + 8 * i);
      const __m128i y0 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(py + 16 * i));
      const __m128i y1 =
          _mm_loadu_si128(reinterpret_cast<const __m128i *>(py + y_pitch + 16 * i));
      uint8_t *d0 = dst + 16 * i * kBytes;
      uint8_t *d1 = d0 + dst_pitch;
      {
        const __m128i r = _mm_unpacklo_epi16(o.r, o.r), g = _mm_unpacklo_epi16(o.g, o.g),
                      b = _mm_unpacklo_epi16(o.b, o.b);
        const __m128i ya = _mm_unpacklo_epi8(y0, zero), yb = _mm_unpacklo_epi8(y1, zero);
        pack8<kPack>(d0, component(ya, r), component(ya, g), component(ya, b));
        pack8<kPack>(d1, component(yb, r), component(yb, g), component(yb, b));
      }
      {
        const __m128i r = _mm_unpackhi_epi16(o.r, o.r), g = _mm_unpackhi_epi16(o.g, o.g),
                      b = _mm_unpackhi_epi16(o.b, o.b);
        const __m128i ya = _mm_unpackhi_epi8(y0, zero), yb = _mm_unpackhi_epi8(y1, zero);
        pack8<kPack>(d0 + 8 * kBytes, component(ya, r), component(ya, g), component(ya, b));
        pack8<kPack>(d1 + 8 * kBytes, component(yb, r), component(yb, g), component(yb, b));
      }
    }
    dst += 2 * dst_pitch;
    py += 2 * y_pitch;
    pu += uv_pitch;
    pv += uv_pitch;
  }
}

// Full-resolution rows for the scaled routines: every pixel its own chroma
// pair, 16 pixels at a time.
template <int kPack>
SSSE3 inline void block444_ssse3(const SimdParams *p, uint8_t *d, const uint8_t *py,
                                 const uint8_t *pu, const uint8_t *pv) {
  constexpr int kBytes = bytes_of(kPack);
  const __m128i zero = _mm_setzero_si128();
  const __m128i bias = _mm_set1_epi16(128);
  const __m128i sixteen = _mm_set1_epi16(16);
  const __m128i u8 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(pu));
  const __m128i v8 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(pv));
  const __m128i y = _mm_loadu_si128(reinterpret_cast<const __m128i *>(py));
  for (int half = 0; half < 2; half++) {
    const __m128i u = _mm_sub_epi16(half ? _mm_unpackhi_epi8(u8, zero) : _mm_unpacklo_epi8(u8, zero), bias);
    const __m128i v = _mm_sub_epi16(half ? _mm_unpackhi_epi8(v8, zero) : _mm_unpacklo_epi8(v8, zero), bias);
    const __m128i yw = half ? _mm_unpackhi_epi8(y, zero) : _mm_unpacklo_epi8(y, zero);
    const __m128i r = _mm_sub_epi16(offset(v, p->red), sixteen);
    const __m128i g =
        _mm_sub_epi16(_mm_add_epi16(offset(u, p->green_u), offset(v, p->green_v)), sixteen);
    const __m128i b = _mm_sub_epi16(offset(u, p->blue), sixteen);
    pack8<kPack>(d + 8 * half * kBytes, component(yw, r), component(yw, g), component(yw, b));
  }
}

template <int kPack>
SSSE3 void row444_ssse3(const SimdParams *p, int32_t n, uint8_t *dst, const uint8_t *py,
                        const uint8_t *pu, const uint8_t *pv) {
  constexpr int kBytes = bytes_of(kPack);
  int32_t i = 0;
  for (; i + 16 <= n; i += 16) block444_ssse3<kPack>(p, dst + i * kBytes, py + i, pu + i, pv + i);
  if (i < n) {
    uint8_t last[16 * kBytes];
    block444_ssse3<kPack>(p, last, py + i, pu + i, pv + i);
    std::memcpy(dst + i * kBytes, last, static_cast<size_t>(n - i) * kBytes);
  }
}

// 24-bit: (red, green, blue, 0) quads squeezed by byte shuffles.
SSSE3 inline void put24(uint8_t *d, __m128i r, __m128i g, __m128i b, __m128i squeeze) {
  const __m128i rb = _mm_packus_epi16(r, b);
  const __m128i g0 = _mm_packus_epi16(g, _mm_setzero_si128());
  const __m128i lo = _mm_unpacklo_epi8(rb, g0);
  const __m128i hi = _mm_unpackhi_epi8(rb, g0);
  const __m128i q0 = _mm_shuffle_epi8(_mm_unpacklo_epi16(lo, hi), squeeze);
  const __m128i q1 = _mm_shuffle_epi8(_mm_unpackhi_epi16(lo, hi), squeeze);
  // 24 bytes: q0's 12 then q1's 12.
  store(d, _mm_or_si128(q0, _mm_slli_si128(q1, 12)));
  _mm_storel_epi64(reinterpret_cast<__m128i *>(d + 16), _mm_srli_si128(q1, 4));
}

SSSE3 void rows24_ssse3(const SimdParams *params, int32_t chunks, int32_t height, uint8_t *dst,
                        int32_t dst_pitch, const uint8_t *py, const uint8_t *pu,
                        const uint8_t *pv, int32_t y_pitch, int32_t uv_pitch) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i squeeze =
      _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -128, -128, -128, -128);
  for (int32_t pair = 0; pair < height / 2; pair++) {
    for (int32_t i = 0; i < chunks; i++) {
      const Offsets128 o = chroma8(params, pu + 8 * i, pv + 8 * i);
      for (int row = 0; row < 2; row++) {
        const __m128i y =
            _mm_loadu_si128(reinterpret_cast<const __m128i *>(py + row * y_pitch + 16 * i));
        uint8_t *d = dst + row * dst_pitch + 48 * i;
        const __m128i yl = _mm_unpacklo_epi8(y, zero), yh = _mm_unpackhi_epi8(y, zero);
        const __m128i rl = _mm_unpacklo_epi16(o.r, o.r), gl = _mm_unpacklo_epi16(o.g, o.g),
                      bl = _mm_unpacklo_epi16(o.b, o.b);
        put24(d, component(yl, rl), component(yl, gl), component(yl, bl), squeeze);
        const __m128i rh = _mm_unpackhi_epi16(o.r, o.r), gh = _mm_unpackhi_epi16(o.g, o.g),
                      bh = _mm_unpackhi_epi16(o.b, o.b);
        put24(d + 24, component(yh, rh), component(yh, gh), component(yh, bh), squeeze);
      }
    }
    dst += 2 * dst_pitch;
    py += 2 * y_pitch;
    pu += uv_pitch;
    pv += uv_pitch;
  }
}

// ---------------------------------------------------------------- AVX2
//
// 32 pixels of a row at a time. In-lane unpacking puts pixels 0-7 and 16-23
// in the "low" half and 8-15 and 24-31 in the "high" one; the chroma
// offsets are duplicated the same way, and each half's results are put back
// in pixel order as they are stored.

#define AVX2 __attribute__((target("avx2")))

AVX2 inline void store(uint8_t *p, __m256i v) {
  _mm256_storeu_si256(reinterpret_cast<__m256i *>(p), v);
}

AVX2 inline __m256i component(__m256i y, __m256i offset) {
  const __m256i t = _mm256_add_epi16(y, offset);
  return _mm256_add_epi16(t, _mm256_mulhrs_epi16(t, _mm256_set1_epi16(5387)));
}

AVX2 inline __m256i clamp(__m256i c) {
  return _mm256_min_epi16(_mm256_max_epi16(c, _mm256_setzero_si256()), _mm256_set1_epi16(255));
}

// One half: pixels 0-7 | 16-23 of the chunk (or 8-15 | 24-31), written at
// d (pixel 0 or 8) and d + 16 pixels.
template <int kPack>
AVX2 inline void pack_half(uint8_t *d, __m256i r, __m256i g, __m256i b) {
  constexpr int kBytes = bytes_of(kPack);
  if (kPack == kRGB32 || kPack == kBGR32) {
    const __m256i first_third =
        kPack == kRGB32 ? _mm256_packus_epi16(b, r) : _mm256_packus_epi16(r, b);
    const __m256i g0 = _mm256_packus_epi16(g, _mm256_setzero_si256());
    const __m256i lo = _mm256_unpacklo_epi8(first_third, g0);
    const __m256i hi = _mm256_unpackhi_epi8(first_third, g0);
    const __m256i q0 = _mm256_unpacklo_epi16(lo, hi);  // pixels 0-3 | 16-19
    const __m256i q1 = _mm256_unpackhi_epi16(lo, hi);  // pixels 4-7 | 20-23
    store(d, _mm256_permute2x128_si256(q0, q1, 0x20));
    store(d + 16 * kBytes, _mm256_permute2x128_si256(q0, q1, 0x31));
  } else if (kPack == kRGB666) {
    const __m256i r6 = _mm256_srli_epi16(clamp(r), 2);
    const __m256i g6 = _mm256_srli_epi16(clamp(g), 2);
    const __m256i b6 = _mm256_srli_epi16(clamp(b), 2);
    const __m256i lo = _mm256_or_si256(
        b6, _mm256_or_si256(_mm256_slli_epi16(g6, 6), _mm256_slli_epi16(r6, 12)));
    const __m256i hi = _mm256_srli_epi16(r6, 4);
    const __m256i q0 = _mm256_unpacklo_epi16(lo, hi);
    const __m256i q1 = _mm256_unpackhi_epi16(lo, hi);
    store(d, _mm256_permute2x128_si256(q0, q1, 0x20));
    store(d + 16 * kBytes, _mm256_permute2x128_si256(q0, q1, 0x31));
  } else {
    r = clamp(r);
    g = clamp(g);
    b = clamp(b);
    __m256i w;
    if (kPack == kRGB565 || kPack == kRGB565Swap)
      w = _mm256_or_si256(
          _mm256_slli_epi16(_mm256_and_si256(r, _mm256_set1_epi16(0xF8)), 8),
          _mm256_or_si256(_mm256_slli_epi16(_mm256_and_si256(g, _mm256_set1_epi16(0xFC)), 3),
                          _mm256_srli_epi16(b, 3)));
    else
      w = _mm256_or_si256(
          _mm256_slli_epi16(_mm256_and_si256(r, _mm256_set1_epi16(0xF8)), 7),
          _mm256_or_si256(_mm256_slli_epi16(_mm256_and_si256(g, _mm256_set1_epi16(0xF8)), 2),
                          _mm256_srli_epi16(b, 3)));
    if (kPack == kRGB565Swap || kPack == kRGB555Swap)
      w = _mm256_or_si256(_mm256_slli_epi16(w, 8), _mm256_srli_epi16(w, 8));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(d), _mm256_castsi256_si128(w));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(d + 16 * kBytes), _mm256_extracti128_si256(w, 1));
  }
}

AVX2 inline __m256i offset(__m256i d, const OffsetFormula &f) {
  return _mm256_mulhrs_epi16(_mm256_sll_epi16(d, _mm_cvtsi32_si128(f.shift)),
                             _mm256_set1_epi16(f.mul));
}

template <int kPack>
AVX2 void rows_avx2(const SimdParams *params, int32_t chunks, int32_t height, uint8_t *dst,
                    int32_t dst_pitch, const uint8_t *py, const uint8_t *pu, const uint8_t *pv,
                    int32_t y_pitch, int32_t uv_pitch) {
  constexpr int kBytes = bytes_of(kPack);
  const SimdParams p = *params;
  const __m256i zero = _mm256_setzero_si256();
  const __m256i bias = _mm256_set1_epi16(128);
  const __m256i sixteen = _mm256_set1_epi16(16);
  for (int32_t pair = 0; pair < height / 2; pair++) {
    for (int32_t i = 0; i < chunks; i++) {
      const __m256i u = _mm256_sub_epi16(
          _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i *>(pu + 16 * i))),
          bias);
      const __m256i v = _mm256_sub_epi16(
          _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i *>(pv + 16 * i))),
          bias);
      const __m256i r = _mm256_sub_epi16(offset(v, p.red), sixteen);
      const __m256i g = _mm256_sub_epi16(
          _mm256_add_epi16(offset(u, p.green_u), offset(v, p.green_v)), sixteen);
      const __m256i b = _mm256_sub_epi16(offset(u, p.blue), sixteen);
      const __m256i y0 = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(py + 32 * i));
      const __m256i y1 =
          _mm256_loadu_si256(reinterpret_cast<const __m256i *>(py + y_pitch + 32 * i));
      uint8_t *d0 = dst + 32 * i * kBytes;
      uint8_t *d1 = d0 + dst_pitch;
      {
        const __m256i rl = _mm256_unpacklo_epi16(r, r), gl = _mm256_unpacklo_epi16(g, g),
                      bl = _mm256_unpacklo_epi16(b, b);
        const __m256i ya = _mm256_unpacklo_epi8(y0, zero), yb = _mm256_unpacklo_epi8(y1, zero);
        pack_half<kPack>(d0, component(ya, rl), component(ya, gl), component(ya, bl));
        pack_half<kPack>(d1, component(yb, rl), component(yb, gl), component(yb, bl));
      }
      {
        const __m256i rh = _mm256_unpackhi_epi16(r, r), gh = _mm256_unpackhi_epi16(g, g),
                      bh = _mm256_unpackhi_epi16(b, b);
        const __m256i ya = _mm256_unpackhi_epi8(y0, zero), yb = _mm256_unpackhi_epi8(y1, zero);
        pack_half<kPack>(d0 + 8 * kBytes, component(ya, rh), component(ya, gh),
                         component(ya, bh));
        pack_half<kPack>(d1 + 8 * kBytes, component(yb, rh), component(yb, gh),
                         component(yb, bh));
      }
    }
    dst += 2 * dst_pitch;
    py += 2 * y_pitch;
    pu += uv_pitch;
    pv += uv_pitch;
  }
}

// Full-resolution rows for the scaled routines, 32 pixels at a time: the
// in-lane unpacking of the samples gives the same halves as pack_half takes.
template <int kPack>
AVX2 inline void block444_avx2(const SimdParams &p, uint8_t *d, const uint8_t *py,
                               const uint8_t *pu, const uint8_t *pv) {
  constexpr int kBytes = bytes_of(kPack);
  const __m256i zero = _mm256_setzero_si256();
  const __m256i bias = _mm256_set1_epi16(128);
  const __m256i sixteen = _mm256_set1_epi16(16);
  const __m256i u8 = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(pu));
  const __m256i v8 = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(pv));
  const __m256i y = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(py));
  for (int half = 0; half < 2; half++) {
    const __m256i u = _mm256_sub_epi16(
        half ? _mm256_unpackhi_epi8(u8, zero) : _mm256_unpacklo_epi8(u8, zero), bias);
    const __m256i v = _mm256_sub_epi16(
        half ? _mm256_unpackhi_epi8(v8, zero) : _mm256_unpacklo_epi8(v8, zero), bias);
    const __m256i yw = half ? _mm256_unpackhi_epi8(y, zero) : _mm256_unpacklo_epi8(y, zero);
    const __m256i r = _mm256_sub_epi16(offset(v, p.red), sixteen);
    const __m256i g = _mm256_sub_epi16(
        _mm256_add_epi16(offset(u, p.green_u), offset(v, p.green_v)), sixteen);
    const __m256i b = _mm256_sub_epi16(offset(u, p.blue), sixteen);
    pack_half<kPack>(d + 8 * half * kBytes, component(yw, r), component(yw, g),
                     component(yw, b));
  }
}

template <int kPack>
AVX2 void row444_avx2(const SimdParams *params, int32_t n, uint8_t *dst, const uint8_t *py,
                      const uint8_t *pu, const uint8_t *pv) {
  constexpr int kBytes = bytes_of(kPack);
  const SimdParams p = *params;
  int32_t i = 0;
  for (; i + 32 <= n; i += 32) block444_avx2<kPack>(p, dst + i * kBytes, py + i, pu + i, pv + i);
  if (i < n) {
    uint8_t last[32 * kBytes];
    block444_avx2<kPack>(p, last, py + i, pu + i, pv + i);
    std::memcpy(dst + i * kBytes, last, static_cast<size_t>(n - i) * kBytes);
  }
}

// ---------------------------------------------------------------- entries

using Rows = void (*)(const SimdParams *, int32_t, int32_t, uint8_t *, int32_t, const uint8_t *,
                      const uint8_t *, const uint8_t *, int32_t, int32_t);

// Converts whole chunks of `step` columns with `rows`, then hands the
// remaining 8-column blocks to the reference routine.
inline void run(travik_yuv2rgb *c, Rows rows, int32_t step, int32_t bytes, travik_yuv2rgb_fn rest,
                int32_t width, int32_t height, uint8_t *dst, int32_t dst_pitch,
                const uint8_t *py, const uint8_t *pu, const uint8_t *pv, int32_t y_pitch,
                int32_t uv_pitch) {
  if (!usable(dst, py, pu, pv, width, height)) return;
  const int32_t columns = (width / 8) * 8;
  const int32_t chunks = columns / step;
  const int32_t done = chunks * step;
  if (chunks > 0)
    rows(static_cast<const SimdParams *>(c->priv), chunks, height, dst, dst_pitch, py, pu, pv,
         y_pitch, uv_pitch);
  if (columns > done)
    rest(c, columns - done, height, dst + done * bytes, dst_pitch, py + done, pu + done / 2,
         pv + done / 2, y_pitch, uv_pitch);
}

Rows rows32(bool avx2) {
  switch (layout32()) {
    case TRAVIK_PIXEL_BGR32:
      return avx2 ? rows_avx2<kBGR32> : rows_ssse3<kBGR32>;
    case TRAVIK_PIXEL_RGB666:
      return avx2 ? rows_avx2<kRGB666> : rows_ssse3<kRGB666>;
    default:
      return avx2 ? rows_avx2<kRGB32> : rows_ssse3<kRGB32>;
  }
}

Rows rows16(bool avx2, bool swap) {
  if (layout16() == TRAVIK_PIXEL_RGB555) {
    if (swap) return avx2 ? rows_avx2<kRGB555Swap> : rows_ssse3<kRGB555Swap>;
    return avx2 ? rows_avx2<kRGB555> : rows_ssse3<kRGB555>;
  }
  if (swap) return avx2 ? rows_avx2<kRGB565Swap> : rows_ssse3<kRGB565Swap>;
  return avx2 ? rows_avx2<kRGB565> : rows_ssse3<kRGB565>;
}

#define ARGS                                                                                 \
  travik_yuv2rgb *c, int32_t w, int32_t h, uint8_t *d, int32_t dp, const uint8_t *y,         \
      const uint8_t *u, const uint8_t *v, int32_t yp, int32_t uvp

void convert32_ssse3(ARGS) { run(c, rows32(false), 16, 4, convert32_plain, w, h, d, dp, y, u, v, yp, uvp); }
void convert32_avx2(ARGS) { run(c, rows32(true), 32, 4, convert32_plain, w, h, d, dp, y, u, v, yp, uvp); }
void convert16_ssse3(ARGS) { run(c, rows16(false, false), 16, 2, convert16_plain, w, h, d, dp, y, u, v, yp, uvp); }
void convert16_avx2(ARGS) { run(c, rows16(true, false), 32, 2, convert16_plain, w, h, d, dp, y, u, v, yp, uvp); }
void convert16s_ssse3(ARGS) { run(c, rows16(false, true), 16, 2, convert16_plain_swap, w, h, d, dp, y, u, v, yp, uvp); }
void convert16s_avx2(ARGS) { run(c, rows16(true, true), 32, 2, convert16_plain_swap, w, h, d, dp, y, u, v, yp, uvp); }

#undef ARGS

// The 24-bit routine's width counts 8-pixel blocks.
void convert24_ssse3(travik_yuv2rgb *c, int32_t blocks, int32_t h, uint8_t *d, int32_t dp,
                     const uint8_t *y, const uint8_t *u, const uint8_t *v, int32_t yp,
                     int32_t uvp) {
  if (!usable(d, y, u, v, blocks, h)) return;
  const int32_t chunks = blocks / 2;
  if (chunks > 0)
    rows24_ssse3(static_cast<const SimdParams *>(c->priv), chunks, h, d, dp, y, u, v, yp, uvp);
  if (blocks > 2 * chunks)
    convert24(c, blocks - 2 * chunks, h, d + 48 * chunks, dp, y + 16 * chunks, u + 8 * chunks,
              v + 8 * chunks, yp, uvp);
}

Row444 row444_32(bool avx2) {
  switch (layout32()) {
    case TRAVIK_PIXEL_BGR32:
      return avx2 ? row444_avx2<kBGR32> : row444_ssse3<kBGR32>;
    case TRAVIK_PIXEL_RGB666:
      return avx2 ? row444_avx2<kRGB666> : row444_ssse3<kRGB666>;
    default:
      return avx2 ? row444_avx2<kRGB32> : row444_ssse3<kRGB32>;
  }
}

Row444 row444_16(bool avx2) {
  if (layout16() == TRAVIK_PIXEL_RGB555) return avx2 ? row444_avx2<kRGB555> : row444_ssse3<kRGB555>;
  return avx2 ? row444_avx2<kRGB565> : row444_ssse3<kRGB565>;
}

bool have_ssse3() {
  static const bool present = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("ssse3") != 0;
  }();
  return present;
}

}  // namespace

travik_yuv2rgb_fn simd_plain_routine(int32_t format, bool swap, int32_t level) {
  const bool avx2 = level >= TRAVIK_SIMD_AVX2;
  if (!avx2 && !have_ssse3()) return nullptr;
  switch (format) {
    case TRAVIK_PIXEL_RGB32:
    case TRAVIK_PIXEL_BGR32:
    case TRAVIK_PIXEL_RGB666:
      return avx2 ? convert32_avx2 : convert32_ssse3;
    case TRAVIK_PIXEL_RGB565:
    case TRAVIK_PIXEL_RGB555:
      if (swap) return avx2 ? convert16s_avx2 : convert16s_ssse3;
      return avx2 ? convert16_avx2 : convert16_ssse3;
    case TRAVIK_PIXEL_RGB24:
      return convert24_ssse3;
    default:
      return nullptr;
  }
}

Row444 simd_scaled_row(int32_t depth, int32_t level) {
  const bool avx2 = level >= TRAVIK_SIMD_AVX2;
  if (level < TRAVIK_SIMD_SSE2 || (!avx2 && !have_ssse3())) return nullptr;
  if (depth == 32) return row444_32(avx2);
  if (depth == 16) return row444_16(avx2);
  return nullptr;
}

}  // namespace travik_video

#elif !defined(TRAVIK_VIDEO_NEON)  // neither x86 nor NEON (see yuv2rgb_neon.cpp)

namespace travik_video {
travik_yuv2rgb_fn simd_plain_routine(int32_t, bool, int32_t) { return nullptr; }
Row444 simd_scaled_row(int32_t, int32_t) { return nullptr; }
}  // namespace travik_video

#endif
