// Optimised scaled routines of the YUV to RGB converter (rotation 0).
//
// The reference scaled routine forms destination pixel (i, j) from
//   Y at (xmap[i], ymap[j]) and U, V at (xmap[i] >> 1, ymap[j] >> 1),
// so every destination pixel may have its own chroma pair: unlike the plain
// routines, two neighbouring pixels need not share one. Each destination row
// therefore gathers its luma and its chroma through the column map into
// three full-width row buffers, and a row routine converts them sample by
// sample. Rows that repeat the previous source row (enlarging) are copied
// from the row just written, and the chroma buffers are kept while the
// chroma row stays the same. The buffers and gather plans are made by
// setscale, never per frame.
#include <cstdlib>
#include <cstring>

#include "video/scale_impl.h"
#include "video/yuv2rgb_impl.h"

namespace travik_video {

struct ScaleState {
  int32_t width = 0;          // map entries the plans and buffers are made for
  GatherPlan luma, chroma;    // xmap[i] and xmap[i] >> 1
  uint8_t *y = nullptr;       // row buffers of width + kRowPad bytes
  uint8_t *u = nullptr;
  uint8_t *v = nullptr;
  Gather8 *luma8 = nullptr;   // the same gathers in blocks of 8 (ARM)
  Gather8 *chroma8 = nullptr;
  ~ScaleState() {
    std::free(y);  // one block holds all three
    std::free(luma8);
    std::free(chroma8);
  }
};

namespace {

bool usable(const uint8_t *dst, const uint8_t *py, const uint8_t *pu, const uint8_t *pv,
            int32_t width, int32_t height) {
  return dst && py && pu && pv && width > 0 && height > 0;
}

// The first `count` samples of a row: all of them through the plan (which
// may read up to the row's width given to setscale), or byte by byte when
// only part of the map is used, reading no column the reference would not.
inline void gather(const GatherPlan &plan, const Gather8 *blocks, int32_t count, uint8_t *out,
                   const uint8_t *row, bool whole) {
  if (whole) {
#ifdef TRAVIK_VIDEO_NEON
    gather8_neon(blocks, plan.columns.data(), count, out, row);
#else
    (void)blocks;
    gather_row(&plan, out, row);
#endif
    return;
  }
  const int32_t *columns = plan.columns.data();
  for (int32_t i = 0; i < count; i++) out[i] = row[columns[i]];
}

template <int kBytes>
void scaled(travik_yuv2rgb *c, int32_t width, int32_t height, uint8_t *dst, int32_t dst_pitch,
            const uint8_t *py, const uint8_t *pu, const uint8_t *pv, int32_t y_pitch,
            int32_t uv_pitch, travik_yuv2rgb_fn reference) {
  if (!usable(dst, py, pu, pv, width, height)) return;
  if (!c->xmap || !c->ymap || width > c->map_width || height > c->map_height) return;
  const SimdParams *params = static_cast<const SimdParams *>(c->priv);
  ScaleState *s = params ? params->scale : nullptr;
  const Row444 row = s && s->width == c->map_width ? simd_scaled_row(8 * kBytes, c->simd) : nullptr;
  if (!row) {
    reference(c, width, height, dst, dst_pitch, py, pu, pv, y_pitch, uv_pitch);
    return;
  }
  const bool whole = width == s->width;
  const ptrdiff_t row_bytes = static_cast<ptrdiff_t>(width) * kBytes;
  // A repeated row is copied from the one above it when the two cannot
  // overlap.
  const bool may_copy = dst_pitch >= row_bytes || dst_pitch <= -row_bytes;
  int32_t last_row = -1, last_chroma = -1;
  for (int32_t j = 0; j < height; j++, dst += dst_pitch) {
    const int32_t sy = c->ymap[j];
    if (sy == last_row && may_copy) {
      std::memcpy(dst, dst - dst_pitch, static_cast<size_t>(row_bytes));
      continue;
    }
    gather(s->luma, s->luma8, width, s->y, py + static_cast<ptrdiff_t>(sy) * y_pitch, whole);
    if ((sy >> 1) != last_chroma) {
      const ptrdiff_t at = static_cast<ptrdiff_t>(sy >> 1) * uv_pitch;
      gather(s->chroma, s->chroma8, width, s->u, pu + at, whole);
      gather(s->chroma, s->chroma8, width, s->v, pv + at, whole);
      last_chroma = sy >> 1;
    }
    row(params, width, dst, s->y, s->u, s->v);
    last_row = sy;
  }
}

}  // namespace

void convert32_scaled_simd(travik_yuv2rgb *c, int32_t w, int32_t h, uint8_t *d, int32_t dp,
                           const uint8_t *y, const uint8_t *u, const uint8_t *v, int32_t yp,
                           int32_t uvp) {
  scaled<4>(c, w, h, d, dp, y, u, v, yp, uvp, convert32_scaled);
}

void convert16_scaled_simd(travik_yuv2rgb *c, int32_t w, int32_t h, uint8_t *d, int32_t dp,
                           const uint8_t *y, const uint8_t *u, const uint8_t *v, int32_t yp,
                           int32_t uvp) {
  scaled<2>(c, w, h, d, dp, y, u, v, yp, uvp, convert16_scaled);
}

void scale_state_build(travik_yuv2rgb *c) {
  auto *params = static_cast<SimdParams *>(c->priv);
  if (!params || !c->xmap) return;
  if (!params->scale) params->scale = new ScaleState;
  ScaleState *s = params->scale;
  const int32_t n = c->map_width;
  const size_t row = static_cast<size_t>(n) + kRowPad;
  // Zero padding: the row routines read whole vectors past the last sample.
  std::free(s->y);
  s->y = static_cast<uint8_t *>(std::calloc(3, row));
  s->u = s->y + row;
  s->v = s->u + row;
  auto *halves = static_cast<int32_t *>(std::malloc(sizeof(int32_t) * n));
  for (int32_t i = 0; i < n; i++) halves[i] = c->xmap[i] >> 1;
  plan_gather(&s->luma, c->xmap, n, c->source_width);
  plan_gather(&s->chroma, halves, n, (c->source_width + 1) / 2);
#ifdef TRAVIK_VIDEO_NEON
  const size_t blocks = sizeof(Gather8) * static_cast<size_t>((n + 7) / 8);
  std::free(s->luma8);
  std::free(s->chroma8);
  s->luma8 = static_cast<Gather8 *>(std::malloc(blocks));
  s->chroma8 = static_cast<Gather8 *>(std::malloc(blocks));
  plan_gather8(s->luma8, c->xmap, n, c->source_width);
  plan_gather8(s->chroma8, halves, n, (c->source_width + 1) / 2);
#endif
  std::free(halves);
  s->width = n;
}

#ifdef TRAVIK_VIDEO_NEON
void plan_gather8(Gather8 *blocks, const int32_t *columns, int32_t count, int32_t limit) {
  for (int32_t first = 0, b = 0; first < count; first += 8, b++) {
    Gather8 &g = blocks[b];
    g.base = -1;
    if (first + 8 > count) continue;
    const int32_t base = columns[first];
    bool fits = base >= 0 && base + 32 <= limit;
    for (int k = 0; k < 8 && fits; k++) {
      const int32_t d = columns[first + k] - base;
      fits = d >= 0 && d < 32;
    }
    if (!fits) continue;
    g.base = base;
    for (int k = 0; k < 8; k++) g.index[k] = static_cast<uint8_t>(columns[first + k] - base);
  }
}
#endif

void scale_state_free(SimdParams *params) {
  delete params->scale;
  params->scale = nullptr;
}

}  // namespace travik_video
