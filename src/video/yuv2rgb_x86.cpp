// SSE2 and AVX2 routines of the YUV to RGB converter. They compute what the
// clip tables hold instead of reading them: a component of the table method
// is clamp((76309 * t + 32768) >> 16, 0, 255) with t = Y + offset - 16, and
//   (76309 * t + 32768) >> 16 == t + hi16(10773 * t) + (lo16(10773 * t) >> 15)
// exactly, for every t, in 16-bit lanes. The chroma offsets use the formula
// checked against the converter's own tables at creation. The bit layout
// follows whichever format last built the shared table of the depth, as the
// tables themselves do.
#include <travik/frame.h>

#include "video/yuv2rgb_impl.h"

#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

namespace travik_video {

namespace {

enum Pack { kRGB32, kBGR32, kRGB666, kRGB565, kRGB555, kRGB565Swap, kRGB555Swap };

bool usable(const uint8_t *dst, const uint8_t *py, const uint8_t *pu, const uint8_t *pv,
            int32_t width, int32_t height) {
  return dst && py && pu && pv && width > 0 && height > 0;
}

int32_t muladd(const OffsetFormula &f) {
  return static_cast<int32_t>(static_cast<uint16_t>(f.mul) |
                              (static_cast<uint32_t>(static_cast<uint16_t>(f.add)) << 16));
}

// ---------------------------------------------------------------- SSE2

#define SSE2 __attribute__((target("sse2")))

SSE2 inline __m128i offsets_sse2(__m128i d, __m128i coefficients, __m128i shift) {
  const __m128i ones = _mm_set1_epi16(1);
  __m128i lo = _mm_madd_epi16(_mm_unpacklo_epi16(d, ones), coefficients);
  __m128i hi = _mm_madd_epi16(_mm_unpackhi_epi16(d, ones), coefficients);
  return _mm_packs_epi32(_mm_sra_epi32(lo, shift), _mm_sra_epi32(hi, shift));
}

SSE2 inline __m128i component_sse2(__m128i y, __m128i offset) {
  const __m128i k = _mm_set1_epi16(10773);
  const __m128i t = _mm_add_epi16(y, offset);
  const __m128i hi = _mm_mulhi_epi16(t, k);
  const __m128i carry = _mm_srli_epi16(_mm_mullo_epi16(t, k), 15);
  return _mm_add_epi16(_mm_add_epi16(t, hi), carry);
}

SSE2 inline __m128i clamp_sse2(__m128i c) {
  return _mm_min_epi16(_mm_max_epi16(c, _mm_setzero_si128()), _mm_set1_epi16(255));
}

SSE2 inline void store(uint8_t *p, __m128i v) {
  _mm_storeu_si128(reinterpret_cast<__m128i *>(p), v);
}

// Writes 8 pixels (words of clamped or unclamped components) of a 16-bit
// or 32-bit layout; for the byte-interleaved 32-bit layouts see pack32_sse2.
template <int kPack>
SSE2 inline __m128i pack16_sse2(__m128i r, __m128i g, __m128i b) {
  r = clamp_sse2(r);
  g = clamp_sse2(g);
  b = clamp_sse2(b);
  __m128i w;
  if (kPack == kRGB565 || kPack == kRGB565Swap) {
    w = _mm_or_si128(_mm_slli_epi16(_mm_and_si128(r, _mm_set1_epi16(0xF8)), 8),
                     _mm_or_si128(_mm_slli_epi16(_mm_and_si128(g, _mm_set1_epi16(0xFC)), 3),
                                  _mm_srli_epi16(b, 3)));
  } else {
    w = _mm_or_si128(_mm_slli_epi16(_mm_and_si128(r, _mm_set1_epi16(0xF8)), 7),
                     _mm_or_si128(_mm_slli_epi16(_mm_and_si128(g, _mm_set1_epi16(0xF8)), 2),
                                  _mm_srli_epi16(b, 3)));
  }
  if (kPack == kRGB565Swap || kPack == kRGB555Swap)
    w = _mm_or_si128(_mm_slli_epi16(w, 8), _mm_srli_epi16(w, 8));
  return w;
}

// 16 pixels: components as two halves of 8 words each.
template <int kPack>
SSE2 inline void put16_sse2(uint8_t *d, __m128i rl, __m128i rh, __m128i gl, __m128i gh,
                            __m128i bl, __m128i bh) {
  const __m128i zero = _mm_setzero_si128();
  if (kPack == kRGB32 || kPack == kBGR32) {
    const __m128i r8 = _mm_packus_epi16(rl, rh);
    const __m128i g8 = _mm_packus_epi16(gl, gh);
    const __m128i b8 = _mm_packus_epi16(bl, bh);
    const __m128i low = kPack == kRGB32 ? b8 : r8;   // byte 0 of each pixel
    const __m128i high = kPack == kRGB32 ? r8 : b8;  // byte 2
    const __m128i lg_l = _mm_unpacklo_epi8(low, g8), lg_h = _mm_unpackhi_epi8(low, g8);
    const __m128i h0_l = _mm_unpacklo_epi8(high, zero), h0_h = _mm_unpackhi_epi8(high, zero);
    store(d, _mm_unpacklo_epi16(lg_l, h0_l));
    store(d + 16, _mm_unpackhi_epi16(lg_l, h0_l));
    store(d + 32, _mm_unpacklo_epi16(lg_h, h0_h));
    store(d + 48, _mm_unpackhi_epi16(lg_h, h0_h));
  } else if (kPack == kRGB666) {
    const __m128i rs[2] = {clamp_sse2(rl), clamp_sse2(rh)};
    const __m128i gs[2] = {clamp_sse2(gl), clamp_sse2(gh)};
    const __m128i bs[2] = {clamp_sse2(bl), clamp_sse2(bh)};
    for (int half = 0; half < 2; half++) {
      const __m128i r6 = _mm_srli_epi16(rs[half], 2);
      const __m128i g6 = _mm_srli_epi16(gs[half], 2);
      const __m128i b6 = _mm_srli_epi16(bs[half], 2);
      const __m128i lo =
          _mm_or_si128(b6, _mm_or_si128(_mm_slli_epi16(g6, 6), _mm_slli_epi16(r6, 12)));
      const __m128i hi = _mm_srli_epi16(r6, 4);
      store(d + 32 * half, _mm_unpacklo_epi16(lo, hi));
      store(d + 32 * half + 16, _mm_unpackhi_epi16(lo, hi));
    }
  } else {
    store(d, pack16_sse2<kPack>(rl, gl, bl));
    store(d + 16, pack16_sse2<kPack>(rh, gh, bh));
  }
}

struct Coefficients128 {
  __m128i red, green_u, green_v, blue;
  __m128i red_shift, green_u_shift, green_v_shift, blue_shift;
};

SSE2 Coefficients128 coefficients128(const SimdParams *p) {
  return {_mm_set1_epi32(muladd(p->red)),         _mm_set1_epi32(muladd(p->green_u)),
          _mm_set1_epi32(muladd(p->green_v)),     _mm_set1_epi32(muladd(p->blue)),
          _mm_cvtsi32_si128(p->red.shift),        _mm_cvtsi32_si128(p->green_u.shift),
          _mm_cvtsi32_si128(p->green_v.shift),    _mm_cvtsi32_si128(p->blue.shift)};
}

// Offsets (minus 16) of 8 chroma samples, each repeated for its two columns.
struct Offsets128 {
  __m128i rl, rh, gl, gh, bl, bh;
};

SSE2 inline Offsets128 chroma_sse2(const Coefficients128 &k, const uint8_t *pu,
                                   const uint8_t *pv) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i bias = _mm_set1_epi16(128);
  const __m128i sixteen = _mm_set1_epi16(16);
  const __m128i u = _mm_sub_epi16(
      _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i *>(pu)), zero), bias);
  const __m128i v = _mm_sub_epi16(
      _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i *>(pv)), zero), bias);
  const __m128i r = _mm_sub_epi16(offsets_sse2(v, k.red, k.red_shift), sixteen);
  const __m128i g = _mm_sub_epi16(_mm_add_epi16(offsets_sse2(u, k.green_u, k.green_u_shift),
                                                offsets_sse2(v, k.green_v, k.green_v_shift)),
                                  sixteen);
  const __m128i b = _mm_sub_epi16(offsets_sse2(u, k.blue, k.blue_shift), sixteen);
  return {_mm_unpacklo_epi16(r, r), _mm_unpackhi_epi16(r, r), _mm_unpacklo_epi16(g, g),
          _mm_unpackhi_epi16(g, g), _mm_unpacklo_epi16(b, b), _mm_unpackhi_epi16(b, b)};
}

template <int kPack>
SSE2 void rows_sse2(const SimdParams *params, int32_t chunks, int32_t height, uint8_t *dst,
                    int32_t dst_pitch, const uint8_t *py, const uint8_t *pu, const uint8_t *pv,
                    int32_t y_pitch, int32_t uv_pitch) {
  constexpr int kBytes = (kPack == kRGB32 || kPack == kBGR32 || kPack == kRGB666) ? 4 : 2;
  const Coefficients128 k = coefficients128(params);
  const __m128i zero = _mm_setzero_si128();
  for (int32_t pair = 0; pair < height / 2; pair++) {
    for (int32_t i = 0; i < chunks; i++) {
      const Offsets128 o = chroma_sse2(k, pu + 8 * i, pv + 8 * i);
      for (int row = 0; row < 2; row++) {
        const __m128i y =
            _mm_loadu_si128(reinterpret_cast<const __m128i *>(py + row * y_pitch + 16 * i));
        const __m128i yl = _mm_unpacklo_epi8(y, zero), yh = _mm_unpackhi_epi8(y, zero);
        put16_sse2<kPack>(dst + row * dst_pitch + 16 * i * kBytes, component_sse2(yl, o.rl),
                          component_sse2(yh, o.rh), component_sse2(yl, o.gl),
                          component_sse2(yh, o.gh), component_sse2(yl, o.bl),
                          component_sse2(yh, o.bh));
      }
    }
    dst += 2 * dst_pitch;
    py += 2 * y_pitch;
    pu += uv_pitch;
    pv += uv_pitch;
  }
}

// 24-bit: byte shuffles (SSSE3) squeeze (red, green, blue, 0) quads.
__attribute__((target("ssse3"))) void rows24_ssse3(const SimdParams *params, int32_t chunks,
                                                   int32_t height, uint8_t *dst,
                                                   int32_t dst_pitch, const uint8_t *py,
                                                   const uint8_t *pu, const uint8_t *pv,
                                                   int32_t y_pitch, int32_t uv_pitch) {
  const Coefficients128 k = coefficients128(params);
  const __m128i zero = _mm_setzero_si128();
  const __m128i squeeze = _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -128, -128,
                                        -128, -128);
  for (int32_t pair = 0; pair < height / 2; pair++) {
    for (int32_t i = 0; i < chunks; i++) {
      const Offsets128 o = chroma_sse2(k, pu + 8 * i, pv + 8 * i);
      for (int row = 0; row < 2; row++) {
        const __m128i y =
            _mm_loadu_si128(reinterpret_cast<const __m128i *>(py + row * y_pitch + 16 * i));
        const __m128i yl = _mm_unpacklo_epi8(y, zero), yh = _mm_unpackhi_epi8(y, zero);
        const __m128i r8 =
            _mm_packus_epi16(component_sse2(yl, o.rl), component_sse2(yh, o.rh));
        const __m128i g8 =
            _mm_packus_epi16(component_sse2(yl, o.gl), component_sse2(yh, o.gh));
        const __m128i b8 =
            _mm_packus_epi16(component_sse2(yl, o.bl), component_sse2(yh, o.bh));
        const __m128i rg_l = _mm_unpacklo_epi8(r8, g8), rg_h = _mm_unpackhi_epi8(r8, g8);
        const __m128i b0_l = _mm_unpacklo_epi8(b8, zero), b0_h = _mm_unpackhi_epi8(b8, zero);
        const __m128i s0 = _mm_shuffle_epi8(_mm_unpacklo_epi16(rg_l, b0_l), squeeze);
        const __m128i s1 = _mm_shuffle_epi8(_mm_unpackhi_epi16(rg_l, b0_l), squeeze);
        const __m128i s2 = _mm_shuffle_epi8(_mm_unpacklo_epi16(rg_h, b0_h), squeeze);
        const __m128i s3 = _mm_shuffle_epi8(_mm_unpackhi_epi16(rg_h, b0_h), squeeze);
        uint8_t *d = dst + row * dst_pitch + 48 * i;
        store(d, _mm_or_si128(s0, _mm_slli_si128(s1, 12)));
        store(d + 16, _mm_or_si128(_mm_srli_si128(s1, 4), _mm_slli_si128(s2, 8)));
        store(d + 32, _mm_or_si128(_mm_srli_si128(s2, 8), _mm_slli_si128(s3, 4)));
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
// 32 pixels a row at a time. In-lane unpacking puts pixels 0-7 and 16-23 in
// the "low" vectors and 8-15 and 24-31 in the "high" ones; the chroma
// offsets are duplicated the same way, and the lanes are put back in order
// when stored.

#define AVX2 __attribute__((target("avx2")))

AVX2 inline __m256i offsets_avx2(__m256i d, __m256i coefficients, __m128i shift) {
  const __m256i ones = _mm256_set1_epi16(1);
  __m256i lo = _mm256_madd_epi16(_mm256_unpacklo_epi16(d, ones), coefficients);
  __m256i hi = _mm256_madd_epi16(_mm256_unpackhi_epi16(d, ones), coefficients);
  return _mm256_packs_epi32(_mm256_sra_epi32(lo, shift), _mm256_sra_epi32(hi, shift));
}

AVX2 inline __m256i component_avx2(__m256i y, __m256i offset) {
  const __m256i k = _mm256_set1_epi16(10773);
  const __m256i t = _mm256_add_epi16(y, offset);
  const __m256i hi = _mm256_mulhi_epi16(t, k);
  const __m256i carry = _mm256_srli_epi16(_mm256_mullo_epi16(t, k), 15);
  return _mm256_add_epi16(_mm256_add_epi16(t, hi), carry);
}

AVX2 inline __m256i clamp_avx2(__m256i c) {
  return _mm256_min_epi16(_mm256_max_epi16(c, _mm256_setzero_si256()),
                          _mm256_set1_epi16(255));
}

AVX2 inline void store(uint8_t *p, __m256i v) {
  _mm256_storeu_si256(reinterpret_cast<__m256i *>(p), v);
}

// Stores four vectors of 32-bit pixels q0 (0-3 | 16-19), q1 (4-7 | 20-23),
// q2 (8-11 | 24-27), q3 (12-15 | 28-31) in pixel order.
AVX2 inline void store32_avx2(uint8_t *d, __m256i q0, __m256i q1, __m256i q2, __m256i q3) {
  store(d, _mm256_permute2x128_si256(q0, q1, 0x20));
  store(d + 32, _mm256_permute2x128_si256(q2, q3, 0x20));
  store(d + 64, _mm256_permute2x128_si256(q0, q1, 0x31));
  store(d + 96, _mm256_permute2x128_si256(q2, q3, 0x31));
}

template <int kPack>
AVX2 inline __m256i pack16_avx2(__m256i r, __m256i g, __m256i b) {
  r = clamp_avx2(r);
  g = clamp_avx2(g);
  b = clamp_avx2(b);
  __m256i w;
  if (kPack == kRGB565 || kPack == kRGB565Swap) {
    w = _mm256_or_si256(
        _mm256_slli_epi16(_mm256_and_si256(r, _mm256_set1_epi16(0xF8)), 8),
        _mm256_or_si256(_mm256_slli_epi16(_mm256_and_si256(g, _mm256_set1_epi16(0xFC)), 3),
                        _mm256_srli_epi16(b, 3)));
  } else {
    w = _mm256_or_si256(
        _mm256_slli_epi16(_mm256_and_si256(r, _mm256_set1_epi16(0xF8)), 7),
        _mm256_or_si256(_mm256_slli_epi16(_mm256_and_si256(g, _mm256_set1_epi16(0xF8)), 2),
                        _mm256_srli_epi16(b, 3)));
  }
  if (kPack == kRGB565Swap || kPack == kRGB555Swap)
    w = _mm256_or_si256(_mm256_slli_epi16(w, 8), _mm256_srli_epi16(w, 8));
  return w;
}

template <int kPack>
AVX2 inline void put32_avx2(uint8_t *d, __m256i rl, __m256i rh, __m256i gl, __m256i gh,
                            __m256i bl, __m256i bh) {
  const __m256i zero = _mm256_setzero_si256();
  if (kPack == kRGB32 || kPack == kBGR32) {
    const __m256i r8 = _mm256_packus_epi16(rl, rh);
    const __m256i g8 = _mm256_packus_epi16(gl, gh);
    const __m256i b8 = _mm256_packus_epi16(bl, bh);
    const __m256i low = kPack == kRGB32 ? b8 : r8;
    const __m256i high = kPack == kRGB32 ? r8 : b8;
    const __m256i lg_l = _mm256_unpacklo_epi8(low, g8), lg_h = _mm256_unpackhi_epi8(low, g8);
    const __m256i h0_l = _mm256_unpacklo_epi8(high, zero);
    const __m256i h0_h = _mm256_unpackhi_epi8(high, zero);
    store32_avx2(d, _mm256_unpacklo_epi16(lg_l, h0_l), _mm256_unpackhi_epi16(lg_l, h0_l),
                 _mm256_unpacklo_epi16(lg_h, h0_h), _mm256_unpackhi_epi16(lg_h, h0_h));
  } else if (kPack == kRGB666) {
    __m256i lo[2], hi[2];
    const __m256i rs[2] = {rl, rh}, gs[2] = {gl, gh}, bs[2] = {bl, bh};
    for (int half = 0; half < 2; half++) {
      const __m256i r6 = _mm256_srli_epi16(clamp_avx2(rs[half]), 2);
      const __m256i g6 = _mm256_srli_epi16(clamp_avx2(gs[half]), 2);
      const __m256i b6 = _mm256_srli_epi16(clamp_avx2(bs[half]), 2);
      lo[half] = _mm256_or_si256(
          b6, _mm256_or_si256(_mm256_slli_epi16(g6, 6), _mm256_slli_epi16(r6, 12)));
      hi[half] = _mm256_srli_epi16(r6, 4);
    }
    store32_avx2(d, _mm256_unpacklo_epi16(lo[0], hi[0]), _mm256_unpackhi_epi16(lo[0], hi[0]),
                 _mm256_unpacklo_epi16(lo[1], hi[1]), _mm256_unpackhi_epi16(lo[1], hi[1]));
  } else {
    const __m256i wl = pack16_avx2<kPack>(rl, gl, bl);
    const __m256i wh = pack16_avx2<kPack>(rh, gh, bh);
    store(d, _mm256_permute2x128_si256(wl, wh, 0x20));
    store(d + 32, _mm256_permute2x128_si256(wl, wh, 0x31));
  }
}

template <int kPack>
AVX2 void rows_avx2(const SimdParams *params, int32_t chunks, int32_t height, uint8_t *dst,
                    int32_t dst_pitch, const uint8_t *py, const uint8_t *pu, const uint8_t *pv,
                    int32_t y_pitch, int32_t uv_pitch) {
  constexpr int kBytes = (kPack == kRGB32 || kPack == kBGR32 || kPack == kRGB666) ? 4 : 2;
  const __m256i red = _mm256_set1_epi32(muladd(params->red));
  const __m256i green_u = _mm256_set1_epi32(muladd(params->green_u));
  const __m256i green_v = _mm256_set1_epi32(muladd(params->green_v));
  const __m256i blue = _mm256_set1_epi32(muladd(params->blue));
  const __m128i red_shift = _mm_cvtsi32_si128(params->red.shift);
  const __m128i green_u_shift = _mm_cvtsi32_si128(params->green_u.shift);
  const __m128i green_v_shift = _mm_cvtsi32_si128(params->green_v.shift);
  const __m128i blue_shift = _mm_cvtsi32_si128(params->blue.shift);
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
      const __m256i r = _mm256_sub_epi16(offsets_avx2(v, red, red_shift), sixteen);
      const __m256i g = _mm256_sub_epi16(
          _mm256_add_epi16(offsets_avx2(u, green_u, green_u_shift),
                           offsets_avx2(v, green_v, green_v_shift)),
          sixteen);
      const __m256i b = _mm256_sub_epi16(offsets_avx2(u, blue, blue_shift), sixteen);
      const __m256i rl = _mm256_unpacklo_epi16(r, r), rh = _mm256_unpackhi_epi16(r, r);
      const __m256i gl = _mm256_unpacklo_epi16(g, g), gh = _mm256_unpackhi_epi16(g, g);
      const __m256i bl = _mm256_unpacklo_epi16(b, b), bh = _mm256_unpackhi_epi16(b, b);
      for (int row = 0; row < 2; row++) {
        const __m256i y =
            _mm256_loadu_si256(reinterpret_cast<const __m256i *>(py + row * y_pitch + 32 * i));
        const __m256i yl = _mm256_unpacklo_epi8(y, zero), yh = _mm256_unpackhi_epi8(y, zero);
        put32_avx2<kPack>(dst + row * dst_pitch + 32 * i * kBytes, component_avx2(yl, rl),
                          component_avx2(yh, rh), component_avx2(yl, gl),
                          component_avx2(yh, gh), component_avx2(yl, bl),
                          component_avx2(yh, bh));
      }
    }
    dst += 2 * dst_pitch;
    py += 2 * y_pitch;
    pu += uv_pitch;
    pv += uv_pitch;
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
      return avx2 ? rows_avx2<kBGR32> : rows_sse2<kBGR32>;
    case TRAVIK_PIXEL_RGB666:
      return avx2 ? rows_avx2<kRGB666> : rows_sse2<kRGB666>;
    default:
      return avx2 ? rows_avx2<kRGB32> : rows_sse2<kRGB32>;
  }
}

Rows rows16(bool avx2, bool swap) {
  if (layout16() == TRAVIK_PIXEL_RGB555) {
    if (swap) return avx2 ? rows_avx2<kRGB555Swap> : rows_sse2<kRGB555Swap>;
    return avx2 ? rows_avx2<kRGB555> : rows_sse2<kRGB555>;
  }
  if (swap) return avx2 ? rows_avx2<kRGB565Swap> : rows_sse2<kRGB565Swap>;
  return avx2 ? rows_avx2<kRGB565> : rows_sse2<kRGB565>;
}

#define ARGS                                                                                 \
  travik_yuv2rgb *c, int32_t w, int32_t h, uint8_t *d, int32_t dp, const uint8_t *y,         \
      const uint8_t *u, const uint8_t *v, int32_t yp, int32_t uvp

void convert32_sse2(ARGS) { run(c, rows32(false), 16, 4, convert32_plain, w, h, d, dp, y, u, v, yp, uvp); }
void convert32_avx2(ARGS) { run(c, rows32(true), 32, 4, convert32_plain, w, h, d, dp, y, u, v, yp, uvp); }
void convert16_sse2(ARGS) { run(c, rows16(false, false), 16, 2, convert16_plain, w, h, d, dp, y, u, v, yp, uvp); }
void convert16_avx2(ARGS) { run(c, rows16(true, false), 32, 2, convert16_plain, w, h, d, dp, y, u, v, yp, uvp); }
void convert16s_sse2(ARGS) { run(c, rows16(false, true), 16, 2, convert16_plain_swap, w, h, d, dp, y, u, v, yp, uvp); }
void convert16s_avx2(ARGS) { run(c, rows16(true, true), 32, 2, convert16_plain_swap, w, h, d, dp, y, u, v, yp, uvp); }

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

#undef ARGS

bool have_ssse3() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("ssse3") != 0;
}

}  // namespace

travik_yuv2rgb_fn simd_plain_routine(int32_t format, bool swap, int32_t level) {
  const bool avx2 = level >= TRAVIK_SIMD_AVX2;
  switch (format) {
    case TRAVIK_PIXEL_RGB32:
    case TRAVIK_PIXEL_BGR32:
    case TRAVIK_PIXEL_RGB666:
      return avx2 ? convert32_avx2 : convert32_sse2;
    case TRAVIK_PIXEL_RGB565:
    case TRAVIK_PIXEL_RGB555:
      if (swap) return avx2 ? convert16s_avx2 : convert16s_sse2;
      return avx2 ? convert16_avx2 : convert16_sse2;
    case TRAVIK_PIXEL_RGB24:
      return have_ssse3() ? convert24_ssse3 : nullptr;
    default:
      return nullptr;
  }
}

}  // namespace travik_video

#else  // not x86

namespace travik_video {
travik_yuv2rgb_fn simd_plain_routine(int32_t, bool, int32_t) { return nullptr; }
}  // namespace travik_video

#endif
