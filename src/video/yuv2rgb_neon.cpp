// NEON routines of the YUV to RGB converter for 32-bit ARM. Like the x86
// ones they compute what the clip tables hold instead of reading them: a
// component is t + ((t * 5387 + 16384) >> 15) with t = Y + offset - 16 (a
// rounding doubling high multiply, vqrdmulh, in 16-bit lanes; t stays within
// -248..471, so it never saturates), clamped to 0..255 by the saturating
// narrowing to bytes. The chroma offsets use the rounding-multiply formulas
// checked against the converter's own tables at creation. The bit layout
// follows whichever format last built the shared table of the depth, as the
// tables themselves do. Only these routines are compiled for NEON; they are
// chosen at run time when the processor reports it (AT_HWCAP).
#include <travik/frame.h>

#include "video/yuv2rgb_impl.h"

#ifdef TRAVIK_VIDEO_NEON

#include <cstring>

#include <sys/auxv.h>

#pragma GCC push_options
#pragma GCC target("fpu=neon")
#include <arm_neon.h>

namespace travik_video {

namespace {

enum Pack { kRGB32, kBGR32, kRGB666, kRGB565, kRGB555, kRGB565Swap, kRGB555Swap, kRGB24 };

constexpr int bytes_of(int pack) {
  return pack == kRGB24 ? 3 : (pack == kRGB32 || pack == kBGR32 || pack == kRGB666) ? 4 : 2;
}

inline int16x8_t component(int16x8_t y, int16x8_t offset) {
  const int16x8_t t = vaddq_s16(y, offset);
  return vaddq_s16(t, vqrdmulhq_s16(t, vdupq_n_s16(5387)));
}

inline uint16x8_t clamp16(int16x8_t c) { return vmovl_u8(vqmovun_s16(c)); }

// 8 pixels of one row from unclamped component words.
template <int kPack>
inline void pack8(uint8_t *d, int16x8_t r, int16x8_t g, int16x8_t b) {
  if (kPack == kRGB32 || kPack == kBGR32 || kPack == kRGB24) {
    const uint8x8_t r8 = vqmovun_s16(r), g8 = vqmovun_s16(g), b8 = vqmovun_s16(b);
    if (kPack == kRGB24) {
      uint8x8x3_t out = {{r8, g8, b8}};
      vst3_u8(d, out);
    } else {
      // Little-endian words: byte 0 is blue (RGB32) or red (BGR32).
      uint8x8x4_t out = {{kPack == kRGB32 ? b8 : r8, g8, kPack == kRGB32 ? r8 : b8, vdup_n_u8(0)}};
      vst4_u8(d, out);
    }
  } else if (kPack == kRGB666) {
    const uint16x8_t r6 = vshrq_n_u16(clamp16(r), 2);
    const uint16x8_t g6 = vshrq_n_u16(clamp16(g), 2);
    const uint16x8_t b6 = vshrq_n_u16(clamp16(b), 2);
    uint16x8x2_t out;
    out.val[0] = vorrq_u16(b6, vorrq_u16(vshlq_n_u16(g6, 6), vshlq_n_u16(r6, 12)));
    out.val[1] = vshrq_n_u16(r6, 4);
    vst2q_u16(reinterpret_cast<uint16_t *>(d), out);
  } else {
    const uint16x8_t rc = clamp16(r), gc = clamp16(g), bc = clamp16(b);
    uint16x8_t w;
    if (kPack == kRGB565 || kPack == kRGB565Swap)
      w = vorrq_u16(vshlq_n_u16(vandq_u16(rc, vdupq_n_u16(0xF8)), 8),
                    vorrq_u16(vshlq_n_u16(vandq_u16(gc, vdupq_n_u16(0xFC)), 3),
                              vshrq_n_u16(bc, 3)));
    else
      w = vorrq_u16(vshlq_n_u16(vandq_u16(rc, vdupq_n_u16(0xF8)), 7),
                    vorrq_u16(vshlq_n_u16(vandq_u16(gc, vdupq_n_u16(0xF8)), 2),
                              vshrq_n_u16(bc, 3)));
    if (kPack == kRGB565Swap || kPack == kRGB555Swap)
      w = vreinterpretq_u16_u8(vrev16q_u8(vreinterpretq_u8_u16(w)));
    vst1q_u8(d, vreinterpretq_u8_u16(w));
  }
}

inline int16x8_t offset(int16x8_t d, const OffsetFormula &f) {
  return vqrdmulhq_s16(vshlq_s16(d, vdupq_n_s16(static_cast<int16_t>(f.shift))),
                       vdupq_n_s16(f.mul));
}

inline int16x8_t widen(const uint8_t *p) {
  return vsubq_s16(vreinterpretq_s16_u16(vmovl_u8(vld1_u8(p))), vdupq_n_s16(128));
}

#define ROWS_ARGS                                                                      \
  const SimdParams *, int32_t, int32_t, uint8_t *, int32_t, const uint8_t *, const uint8_t *, \
      const uint8_t *, int32_t, int32_t

// Whole chunks of 16 columns (8 chroma samples) over pairs of rows.
template <int kPack>
void rows_neon(const SimdParams *params, int32_t chunks, int32_t height, uint8_t *dst,
               int32_t dst_pitch, const uint8_t *py, const uint8_t *pu, const uint8_t *pv,
               int32_t y_pitch, int32_t uv_pitch) {
  constexpr int kBytes = bytes_of(kPack);
  const SimdParams p = *params;
  const int16x8_t sixteen = vdupq_n_s16(16);
  for (int32_t pair = 0; pair < height / 2; pair++) {
    for (int32_t i = 0; i < chunks; i++) {
      const int16x8_t u = widen(pu + 8 * i), v = widen(pv + 8 * i);
      const int16x8_t r = vsubq_s16(offset(v, p.red), sixteen);
      const int16x8_t g =
          vsubq_s16(vaddq_s16(offset(u, p.green_u), offset(v, p.green_v)), sixteen);
      const int16x8_t b = vsubq_s16(offset(u, p.blue), sixteen);
      // Each chroma offset serves two neighbouring columns.
      const int16x8x2_t rr = vzipq_s16(r, r), gg = vzipq_s16(g, g), bb = vzipq_s16(b, b);
      for (int row = 0; row < 2; row++) {
        const uint8x16_t y = vld1q_u8(py + row * y_pitch + 16 * i);
        const int16x8_t ylo = vreinterpretq_s16_u16(vmovl_u8(vget_low_u8(y)));
        const int16x8_t yhi = vreinterpretq_s16_u16(vmovl_u8(vget_high_u8(y)));
        uint8_t *d = dst + row * dst_pitch + 16 * i * kBytes;
        pack8<kPack>(d, component(ylo, rr.val[0]), component(ylo, gg.val[0]),
                     component(ylo, bb.val[0]));
        pack8<kPack>(d + 8 * kBytes, component(yhi, rr.val[1]), component(yhi, gg.val[1]),
                     component(yhi, bb.val[1]));
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
inline void block444(const SimdParams &p, uint8_t *d, const uint8_t *py, const uint8_t *pu,
                     const uint8_t *pv) {
  constexpr int kBytes = bytes_of(kPack);
  const int16x8_t sixteen = vdupq_n_s16(16);
  const uint8x16_t y = vld1q_u8(py);
  for (int half = 0; half < 2; half++) {
    const int16x8_t u = widen(pu + 8 * half), v = widen(pv + 8 * half);
    const int16x8_t r = vsubq_s16(offset(v, p.red), sixteen);
    const int16x8_t g = vsubq_s16(vaddq_s16(offset(u, p.green_u), offset(v, p.green_v)), sixteen);
    const int16x8_t b = vsubq_s16(offset(u, p.blue), sixteen);
    const int16x8_t yw =
        vreinterpretq_s16_u16(vmovl_u8(half ? vget_high_u8(y) : vget_low_u8(y)));
    pack8<kPack>(d + 8 * half * kBytes, component(yw, r), component(yw, g), component(yw, b));
  }
}

template <int kPack>
void row444_neon(const SimdParams *params, int32_t n, uint8_t *dst, const uint8_t *py,
                 const uint8_t *pu, const uint8_t *pv) {
  constexpr int kBytes = bytes_of(kPack);
  const SimdParams p = *params;
  int32_t i = 0;
  for (; i + 16 <= n; i += 16) block444<kPack>(p, dst + i * kBytes, py + i, pu + i, pv + i);
  if (i < n) {
    uint8_t last[16 * kBytes];
    block444<kPack>(p, last, py + i, pu + i, pv + i);
    std::memcpy(dst + i * kBytes, last, static_cast<size_t>(n - i) * kBytes);
  }
}

#define ROW444_ARGS \
  const SimdParams *, int32_t, uint8_t *, const uint8_t *, const uint8_t *, const uint8_t *

template void row444_neon<kRGB32>(ROW444_ARGS);
template void row444_neon<kBGR32>(ROW444_ARGS);
template void row444_neon<kRGB666>(ROW444_ARGS);
template void row444_neon<kRGB565>(ROW444_ARGS);
template void row444_neon<kRGB555>(ROW444_ARGS);

#undef ROW444_ARGS

template void rows_neon<kRGB32>(ROWS_ARGS);
template void rows_neon<kBGR32>(ROWS_ARGS);
template void rows_neon<kRGB666>(ROWS_ARGS);
template void rows_neon<kRGB565>(ROWS_ARGS);
template void rows_neon<kRGB555>(ROWS_ARGS);
template void rows_neon<kRGB565Swap>(ROWS_ARGS);
template void rows_neon<kRGB555Swap>(ROWS_ARGS);
template void rows_neon<kRGB24>(ROWS_ARGS);

}  // namespace

void gather8_neon(const Gather8 *blocks, const int32_t *columns, int32_t count, uint8_t *out,
                  const uint8_t *row) {
  for (int32_t first = 0, b = 0; first < count; first += 8, b++) {
    const Gather8 &g = blocks[b];
    if (g.base >= 0) {
      const uint8_t *s = row + g.base;
      const uint8x8x4_t window = {{vld1_u8(s), vld1_u8(s + 8), vld1_u8(s + 16), vld1_u8(s + 24)}};
      vst1_u8(out + first, vtbl4_u8(window, vld1_u8(g.index)));
    } else {
      const int32_t last = first + 8 < count ? first + 8 : count;
      for (int32_t i = first; i < last; i++) out[i] = row[columns[i]];
    }
  }
}

}  // namespace travik_video

#pragma GCC pop_options

namespace travik_video {

namespace {

using Rows = void (*)(const SimdParams *, int32_t, int32_t, uint8_t *, int32_t, const uint8_t *,
                      const uint8_t *, const uint8_t *, int32_t, int32_t);

bool usable(const uint8_t *dst, const uint8_t *py, const uint8_t *pu, const uint8_t *pv,
            int32_t width, int32_t height) {
  return dst && py && pu && pv && width > 0 && height > 0;
}

// Converts whole chunks of 16 columns with `rows`, then hands a remaining
// 8-column block to the reference routine.
void run(travik_yuv2rgb *c, Rows rows, int32_t bytes, travik_yuv2rgb_fn rest, int32_t width,
         int32_t height, uint8_t *dst, int32_t dst_pitch, const uint8_t *py, const uint8_t *pu,
         const uint8_t *pv, int32_t y_pitch, int32_t uv_pitch) {
  if (!usable(dst, py, pu, pv, width, height)) return;
  const int32_t columns = (width / 8) * 8;
  const int32_t chunks = columns / 16;
  const int32_t done = chunks * 16;
  if (chunks > 0)
    rows(static_cast<const SimdParams *>(c->priv), chunks, height, dst, dst_pitch, py, pu, pv,
         y_pitch, uv_pitch);
  if (columns > done)
    rest(c, columns - done, height, dst + done * bytes, dst_pitch, py + done, pu + done / 2,
         pv + done / 2, y_pitch, uv_pitch);
}

Rows rows32() {
  switch (layout32()) {
    case TRAVIK_PIXEL_BGR32:
      return rows_neon<kBGR32>;
    case TRAVIK_PIXEL_RGB666:
      return rows_neon<kRGB666>;
    default:
      return rows_neon<kRGB32>;
  }
}

Rows rows16(bool swap) {
  if (layout16() == TRAVIK_PIXEL_RGB555) return swap ? rows_neon<kRGB555Swap> : rows_neon<kRGB555>;
  return swap ? rows_neon<kRGB565Swap> : rows_neon<kRGB565>;
}

#define ARGS                                                                                 \
  travik_yuv2rgb *c, int32_t w, int32_t h, uint8_t *d, int32_t dp, const uint8_t *y,         \
      const uint8_t *u, const uint8_t *v, int32_t yp, int32_t uvp

void convert32_neon(ARGS) { run(c, rows32(), 4, convert32_plain, w, h, d, dp, y, u, v, yp, uvp); }
void convert16_neon(ARGS) { run(c, rows16(false), 2, convert16_plain, w, h, d, dp, y, u, v, yp, uvp); }
void convert16s_neon(ARGS) { run(c, rows16(true), 2, convert16_plain_swap, w, h, d, dp, y, u, v, yp, uvp); }

#undef ARGS
#undef ROWS_ARGS

// The 24-bit routine's width counts 8-pixel blocks.
void convert24_neon(travik_yuv2rgb *c, int32_t blocks, int32_t h, uint8_t *d, int32_t dp,
                    const uint8_t *y, const uint8_t *u, const uint8_t *v, int32_t yp,
                    int32_t uvp) {
  if (!usable(d, y, u, v, blocks, h)) return;
  const int32_t chunks = blocks / 2;
  if (chunks > 0)
    rows_neon<kRGB24>(static_cast<const SimdParams *>(c->priv), chunks, h, d, dp, y, u, v, yp,
                      uvp);
  if (blocks > 2 * chunks)
    convert24(c, blocks - 2 * chunks, h, d + 48 * chunks, dp, y + 16 * chunks, u + 8 * chunks,
              v + 8 * chunks, yp, uvp);
}

bool have_neon() {
  static const bool present = (getauxval(AT_HWCAP) & HWCAP_ARM_NEON) != 0;
  return present;
}

Row444 row444_32() {
  switch (layout32()) {
    case TRAVIK_PIXEL_BGR32:
      return row444_neon<kBGR32>;
    case TRAVIK_PIXEL_RGB666:
      return row444_neon<kRGB666>;
    default:
      return row444_neon<kRGB32>;
  }
}

Row444 row444_16() {
  return layout16() == TRAVIK_PIXEL_RGB555 ? row444_neon<kRGB555> : row444_neon<kRGB565>;
}

}  // namespace

travik_yuv2rgb_fn simd_plain_routine(int32_t format, bool swap, int32_t level) {
  if (level < TRAVIK_SIMD_NEON || !have_neon()) return nullptr;
  switch (format) {
    case TRAVIK_PIXEL_RGB32:
    case TRAVIK_PIXEL_BGR32:
    case TRAVIK_PIXEL_RGB666:
      return convert32_neon;
    case TRAVIK_PIXEL_RGB565:
    case TRAVIK_PIXEL_RGB555:
      return swap ? convert16s_neon : convert16_neon;
    case TRAVIK_PIXEL_RGB24:
      return convert24_neon;
    default:
      return nullptr;
  }
}

Row444 simd_scaled_row(int32_t depth, int32_t level) {
  if (level < TRAVIK_SIMD_NEON || !have_neon()) return nullptr;
  if (depth == 32) return row444_32();
  if (depth == 16) return row444_16();
  return nullptr;
}

}  // namespace travik_video

#endif  // TRAVIK_VIDEO_NEON
