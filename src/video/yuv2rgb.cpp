// Table-driven YUV 4:2:0 to RGB conversion: the reference routines, table
// construction, rotation and scaling selection.
#include <travik/frame.h>
#include <travik/yuv2rgb.h>

#include <cstdlib>
#include <cstring>

#include "base/relaxed.h"
#include "video/yuv2rgb_impl.h"

extern "C" {

const int32_t Inverse_Table_6_9[8][4] = {
    {117504, 138453, 13954, 34903},  // 0: no sequence display extension
    {117504, 138453, 13954, 34903},  // 1: ITU-R BT.709
    {104597, 132201, 25675, 53279},  // 2: unspecified
    {104597, 132201, 25675, 53279},  // 3: reserved
    {104448, 132798, 24759, 53109},  // 4: FCC
    {104597, 132201, 25675, 53279},  // 5: ITU-R BT.470-2 System B, G
    {104597, 132201, 25675, 53279},  // 6: SMPTE 170M / ITU-R BT.601
    {117579, 136230, 16907, 35559},  // 7: SMPTE 240M
};

}  // extern "C"

namespace travik_video {

namespace {

// The shared clip tables. They live as long as the process; every create of
// a depth rebuilds its table for the new format's bit layout.
uint32_t g_table32[kTable32Size];
uint16_t g_table16[kTable32Size];
uint8_t g_table8[kTable8Size];
int32_t g_layout32 = 0;
int32_t g_layout16 = 0;
int32_t g_matrix = 6;

// Bit positions of the components: (right shift, left shift) per component.
struct Layout {
  int rshift, rpos, gshift, gpos, bshift, bpos;
};

bool layout_of(int32_t format, Layout *layout) {
  switch (format) {
    case TRAVIK_PIXEL_RGB32:
      *layout = {0, 16, 0, 8, 0, 0};
      return true;
    case TRAVIK_PIXEL_BGR32:
      *layout = {0, 0, 0, 8, 0, 16};
      return true;
    case TRAVIK_PIXEL_RGB666:
      *layout = {2, 12, 2, 6, 2, 0};
      return true;
    case TRAVIK_PIXEL_RGB565:
      *layout = {3, 11, 2, 5, 3, 0};
      return true;
    case TRAVIK_PIXEL_RGB555:
      *layout = {3, 10, 3, 5, 3, 0};
      return true;
    case TRAVIK_PIXEL_RGB24:
      *layout = {0, 0, 0, 0, 0, 0};
      return true;
    default:
      return false;
  }
}

int depth_of(int32_t format) {
  switch (format) {
    case TRAVIK_PIXEL_RGB32:
    case TRAVIK_PIXEL_BGR32:
    case TRAVIK_PIXEL_RGB666:
      return 32;
    case TRAVIK_PIXEL_RGB565:
    case TRAVIK_PIXEL_RGB555:
      return 16;
    default:
      return 24;
  }
}

// Rounds a / b to the nearest integer, halves away from zero.
int32_t div_round(int32_t a, int32_t b) {
  return a > 0 ? (a + (b >> 1)) / b : -(((b >> 1) - a) / b);
}

inline void store32(uint8_t *p, uint32_t v) { std::memcpy(p, &v, 4); }
inline void store16(uint8_t *p, uint16_t v) { std::memcpy(p, &v, 2); }

bool usable(const uint8_t *dst, const uint8_t *py, const uint8_t *pu, const uint8_t *pv,
            int32_t width, int32_t height) {
  return dst && py && pu && pv && width > 0 && height > 0;
}

// One output pixel from the converter's tables for a (Y, U, V) triple.
template <typename Pixel>
struct Pointers {
  const Pixel *r, *g, *b;
  Pointers(const travik_yuv2rgb *c, int u, int v)
      : r(static_cast<const Pixel *>(c->table_rV[v])),
        g(static_cast<const Pixel *>(c->table_gU[u]) + c->table_gV[v]),
        b(static_cast<const Pixel *>(c->table_bU[u])) {}
  Pixel at(int y) const { return static_cast<Pixel>(r[y] + g[y] + b[y]); }
};

template <typename Pixel>
inline void put(uint8_t *p, Pixel v);
template <>
inline void put<uint32_t>(uint8_t *p, uint32_t v) {
  store32(p, v);
}
template <>
inline void put<uint16_t>(uint8_t *p, uint16_t v) {
  store16(p, v);
}

inline uint16_t swap16(uint16_t v) { return static_cast<uint16_t>((v << 8) | (v >> 8)); }

// Pairs of rows, blocks of 8 columns; each 2 x 2 group shares U and V.
template <typename Pixel, bool kSwap>
void plain_rows(travik_yuv2rgb *c, int32_t width, int32_t height, uint8_t *dst,
                int32_t dst_pitch, const uint8_t *py, const uint8_t *pu, const uint8_t *pv,
                int32_t y_pitch, int32_t uv_pitch) {
  if (!usable(dst, py, pu, pv, width, height)) return;
  const int32_t groups = (width / 8) * 4;
  const int bytes = sizeof(Pixel);
  for (int32_t pair = 0; pair < height / 2; pair++) {
    uint8_t *d1 = dst;
    uint8_t *d2 = dst + dst_pitch;
    const uint8_t *y1 = py;
    const uint8_t *y2 = py + y_pitch;
    for (int32_t i = 0; i < groups; i++) {
      const Pointers<Pixel> t(c, pu[i], pv[i]);
      Pixel p[4] = {t.at(y1[2 * i]), t.at(y1[2 * i + 1]), t.at(y2[2 * i]), t.at(y2[2 * i + 1])};
      if (kSwap) {
        for (auto &v : p) v = static_cast<Pixel>(swap16(static_cast<uint16_t>(v)));
      }
      put<Pixel>(d1 + (2 * i) * bytes, p[0]);
      put<Pixel>(d1 + (2 * i + 1) * bytes, p[1]);
      put<Pixel>(d2 + (2 * i) * bytes, p[2]);
      put<Pixel>(d2 + (2 * i + 1) * bytes, p[3]);
    }
    dst += 2 * dst_pitch;
    py += 2 * y_pitch;
    pu += uv_pitch;
    pv += uv_pitch;
  }
}

// Pixel by pixel through the maps; width and height are the destination's.
template <typename Pixel>
void scaled_rows(travik_yuv2rgb *c, int32_t width, int32_t height, uint8_t *dst,
                 int32_t dst_pitch, const uint8_t *py, const uint8_t *pu, const uint8_t *pv,
                 int32_t y_pitch, int32_t uv_pitch) {
  if (!usable(dst, py, pu, pv, width, height)) return;
  // The maps have entries for the destination size given to setscale only;
  // a larger request would read past them, so nothing is drawn.
  if (!c->xmap || !c->ymap || width > c->map_width || height > c->map_height) return;
  for (int32_t j = 0; j < height; j++) {
    const int32_t sy = c->ymap[j];
    const uint8_t *yrow = py + static_cast<ptrdiff_t>(sy) * y_pitch;
    const uint8_t *urow = pu + static_cast<ptrdiff_t>(sy >> 1) * uv_pitch;
    const uint8_t *vrow = pv + static_cast<ptrdiff_t>(sy >> 1) * uv_pitch;
    for (int32_t i = 0; i < width; i++) {
      const int32_t sx = c->xmap[i];
      const Pointers<Pixel> t(c, urow[sx >> 1], vrow[sx >> 1]);
      put<Pixel>(dst + i * static_cast<int>(sizeof(Pixel)), t.at(yrow[sx]));
    }
    dst += dst_pitch;
  }
}

// Quarter turns: the same groups as the plain routine; source pixel (x, y)
// goes to row x, column H - 1 - y (clockwise) or to row W - 1 - x, column y
// (counter-clockwise). Width and height are the source's.
template <typename Pixel, bool kClockwise>
void turned_rows(travik_yuv2rgb *c, int32_t width, int32_t height, uint8_t *dst,
                 int32_t dst_pitch, const uint8_t *py, const uint8_t *pu, const uint8_t *pv,
                 int32_t y_pitch, int32_t uv_pitch) {
  if (!usable(dst, py, pu, pv, width, height)) return;
  const int32_t columns = (width / 8) * 8;
  const int bytes = sizeof(Pixel);
  for (int32_t y = 0; y + 1 < height; y += 2) {
    const uint8_t *y1 = py + static_cast<ptrdiff_t>(y) * y_pitch;
    const uint8_t *y2 = y1 + y_pitch;
    const uint8_t *urow = pu + static_cast<ptrdiff_t>(y / 2) * uv_pitch;
    const uint8_t *vrow = pv + static_cast<ptrdiff_t>(y / 2) * uv_pitch;
    for (int32_t x = 0; x < columns; x += 2) {
      const Pointers<Pixel> t(c, urow[x / 2], vrow[x / 2]);
      for (int dy = 0; dy < 2; dy++) {
        const uint8_t *row = dy ? y2 : y1;
        for (int dx = 0; dx < 2; dx++) {
          const int32_t sx = x + dx;
          const int32_t sy = y + dy;
          int32_t drow, dcol;
          if (kClockwise) {
            drow = sx;
            dcol = height - 1 - sy;
          } else {
            drow = width - 1 - sx;
            dcol = sy;
          }
          put<Pixel>(dst + static_cast<ptrdiff_t>(drow) * dst_pitch + dcol * bytes,
                     t.at(row[sx]));
        }
      }
    }
  }
}

// Builds the clip table of `format`'s depth for its bit layout.
void build_tables(int32_t format) {
  uint8_t clip[1024];
  for (int i = 0; i < 1024; i++) {
    int value = (76309 * (i - 400) + 32768) >> 16;
    clip[i] = static_cast<uint8_t>(value < 0 ? 0 : value > 255 ? 255 : value);
  }
  Layout l;
  layout_of(format, &l);
  const int depth = depth_of(format);
  if (depth == 24) {
    for (int k = -kTable8Zero; k < kTable8Size - kTable8Zero; k++)
      g_table8[k + kTable8Zero] = clip[k + 384];
    return;
  }
  uint32_t table[kTable32Size] = {};
  for (int k = -197; k <= 255 + 197; k++)
    table[kRedZero + k] = static_cast<uint32_t>(clip[k + 384] >> l.rshift) << l.rpos;
  for (int k = -232; k <= 255 + 232; k++)
    table[kBlueZero + k] = static_cast<uint32_t>(clip[k + 384] >> l.bshift) << l.bpos;
  for (int k = -132; k <= 255 + 132; k++)
    table[kGreenZero + k] = static_cast<uint32_t>(clip[k + 384] >> l.gshift) << l.gpos;
  if (depth == 32) {
    std::memcpy(g_table32, table, sizeof table);
    relaxed_store(g_layout32, format);
  } else {
    for (int i = 0; i < kTable32Size; i++) g_table16[i] = static_cast<uint16_t>(table[i]);
    relaxed_store(g_layout16, format);
  }
}

// Finds (mul, shift) with ((d << shift) * mul + 16384) >> 15 equal to
// `target` for every d in -128..127, the form the vector routines compute.
bool find_formula(const int32_t target[256], int32_t coefficient, OffsetFormula *out) {
  for (int32_t shift = 0; shift <= 7; shift++) {
    const int64_t ideal = static_cast<int64_t>(coefficient) * (int64_t{1} << (15 - shift)) / 76309;
    for (int64_t mul = ideal - 3; mul <= ideal + 3; mul++) {
      if (mul < -32768 || mul > 32767) continue;
      bool all = true;
      for (int d = -128; d < 128 && all; d++) {
        const int32_t x = d * (1 << shift);
        all = x >= -32768 && x <= 32767 &&
              ((x * static_cast<int32_t>(mul) + 16384) >> 15) == target[d + 128];
      }
      if (all) {
        *out = {static_cast<int16_t>(mul), shift};
        return true;
      }
    }
  }
  return false;
}

travik_yuv2rgb *create(int32_t format, bool swap) {
  Layout unused;
  if (!layout_of(format, &unused)) return nullptr;
  const int depth = depth_of(format);
  build_tables(format);
  auto *c = static_cast<travik_yuv2rgb *>(std::calloc(1, sizeof(travik_yuv2rgb)));
  c->format = static_cast<uint8_t>(format);
  const int32_t *m = Inverse_Table_6_9[relaxed_load(g_matrix)];
  const int32_t crv = m[0], cbu = m[1], cgu = m[2], cgv = m[3];
  int32_t off_r[256], off_gu[256], off_gv[256], off_b[256];
  for (int i = 0; i < 256; i++) {
    off_r[i] = div_round(crv * (i - 128), 76309);
    off_gv[i] = div_round(-cgv * (i - 128), 76309);
    off_gu[i] = div_round(-cgu * (i - 128), 76309);
    off_b[i] = div_round(cbu * (i - 128), 76309);
  }
  for (int i = 0; i < 256; i++) {
    c->table_gV[i] = off_gv[i];
    if (depth == 32) {
      c->table_rV[i] = g_table32 + kRedZero + off_r[i];
      c->table_gU[i] = g_table32 + kGreenZero + off_gu[i];
      c->table_bU[i] = g_table32 + kBlueZero + off_b[i];
    } else if (depth == 16) {
      c->table_rV[i] = g_table16 + kRedZero + off_r[i];
      c->table_gU[i] = g_table16 + kGreenZero + off_gu[i];
      c->table_bU[i] = g_table16 + kBlueZero + off_b[i];
    } else {
      c->table_rV[i] = g_table8 + kTable8Zero + off_r[i];
      c->table_gU[i] = g_table8 + kTable8Zero + off_gu[i];
      c->table_bU[i] = g_table8 + kTable8Zero + off_b[i];
    }
  }
  if (depth == 32) {
    c->plain[0] = convert32_plain;
    c->scaled[0] = convert32_scaled;
    c->plain[3] = c->scaled[3] = convert32_cw;
  } else if (depth == 16) {
    c->plain[0] = convert16_plain;
    c->scaled[0] = convert16_scaled;
    c->plain[1] = c->scaled[1] = convert16_ccw;
    c->plain[3] = c->scaled[3] = convert16_cw;
    if (swap) c->plain[0] = c->scaled[0] = convert16_plain_swap;
  } else {
    c->plain[0] = c->scaled[0] = convert24;
  }
  // The optimised plain routine replaces the reference one when the
  // chroma contributions can be reproduced exactly.
  const int32_t level = simd_level();
  auto *params = static_cast<SimdParams *>(std::calloc(1, sizeof(SimdParams)));
  c->priv = params;
  if (level > TRAVIK_SIMD_NONE && find_formula(off_r, crv, &params->red) &&
      find_formula(off_gu, -cgu, &params->green_u) &&
      find_formula(off_gv, -cgv, &params->green_v) && find_formula(off_b, cbu, &params->blue)) {
    if (travik_yuv2rgb_fn fast = simd_plain_routine(format, swap && depth == 16, level)) {
      if (c->scaled[0] == c->plain[0])
        c->scaled[0] = fast;
      else if (simd_scaled_row(depth, level))
        c->scaled[0] = depth == 32 ? convert32_scaled_simd : convert16_scaled_simd;
      c->plain[0] = fast;
      c->simd = static_cast<uint8_t>(level);
      // The quarter turns convert tiles with the same routine (bytes never
      // exchanged: a turned picture is written in the native order).
      const travik_yuv2rgb_fn rows = swap ? simd_plain_routine(format, false, level) : fast;
      if (depth != 24 && turn_state_build(params, depth / 8, rows, level)) {
        if (depth == 32) {
          c->plain[3] = c->scaled[3] = convert32_cw_simd;
        } else {
          c->plain[1] = c->scaled[1] = convert16_ccw_simd;
          c->plain[3] = c->scaled[3] = convert16_cw_simd;
        }
      }
    }
  }
  c->convert = c->plain[0];
  return c;
}

int32_t select_routine(travik_yuv2rgb *c) {
  travik_yuv2rgb_fn fn = c->scaling ? c->scaled[c->rotation] : c->plain[c->rotation];
  if (!fn) return 0;
  c->convert = fn;
  return 1;
}

}  // namespace

int32_t layout32() { return relaxed_load(g_layout32); }
int32_t layout16() { return relaxed_load(g_layout16); }

void convert32_plain(travik_yuv2rgb *c, int32_t w, int32_t h, uint8_t *d, int32_t dp,
                     const uint8_t *y, const uint8_t *u, const uint8_t *v, int32_t yp,
                     int32_t uvp) {
  plain_rows<uint32_t, false>(c, w, h, d, dp, y, u, v, yp, uvp);
}
void convert16_plain(travik_yuv2rgb *c, int32_t w, int32_t h, uint8_t *d, int32_t dp,
                     const uint8_t *y, const uint8_t *u, const uint8_t *v, int32_t yp,
                     int32_t uvp) {
  plain_rows<uint16_t, false>(c, w, h, d, dp, y, u, v, yp, uvp);
}
void convert16_plain_swap(travik_yuv2rgb *c, int32_t w, int32_t h, uint8_t *d, int32_t dp,
                          const uint8_t *y, const uint8_t *u, const uint8_t *v, int32_t yp,
                          int32_t uvp) {
  plain_rows<uint16_t, true>(c, w, h, d, dp, y, u, v, yp, uvp);
}

void convert32_cw(travik_yuv2rgb *c, int32_t w, int32_t h, uint8_t *d, int32_t dp,
                  const uint8_t *y, const uint8_t *u, const uint8_t *v, int32_t yp, int32_t uvp) {
  turned_rows<uint32_t, true>(c, w, h, d, dp, y, u, v, yp, uvp);
}
void convert16_cw(travik_yuv2rgb *c, int32_t w, int32_t h, uint8_t *d, int32_t dp,
                  const uint8_t *y, const uint8_t *u, const uint8_t *v, int32_t yp, int32_t uvp) {
  turned_rows<uint16_t, true>(c, w, h, d, dp, y, u, v, yp, uvp);
}
void convert16_ccw(travik_yuv2rgb *c, int32_t w, int32_t h, uint8_t *d, int32_t dp,
                   const uint8_t *y, const uint8_t *u, const uint8_t *v, int32_t yp,
                   int32_t uvp) {
  turned_rows<uint16_t, false>(c, w, h, d, dp, y, u, v, yp, uvp);
}

void convert32_scaled(travik_yuv2rgb *c, int32_t w, int32_t h, uint8_t *d, int32_t dp,
                      const uint8_t *y, const uint8_t *u, const uint8_t *v, int32_t yp,
                      int32_t uvp) {
  scaled_rows<uint32_t>(c, w, h, d, dp, y, u, v, yp, uvp);
}
void convert16_scaled(travik_yuv2rgb *c, int32_t w, int32_t h, uint8_t *d, int32_t dp,
                      const uint8_t *y, const uint8_t *u, const uint8_t *v, int32_t yp,
                      int32_t uvp) {
  scaled_rows<uint16_t>(c, w, h, d, dp, y, u, v, yp, uvp);
}
// Three bytes a pixel (red, green, blue); `blocks` counts 8-pixel blocks.
void convert24(travik_yuv2rgb *c, int32_t blocks, int32_t height, uint8_t *dst,
               int32_t dst_pitch, const uint8_t *py, const uint8_t *pu, const uint8_t *pv,
               int32_t y_pitch, int32_t uv_pitch) {
  if (!usable(dst, py, pu, pv, blocks, height)) return;
  for (int32_t pair = 0; pair < height / 2; pair++) {
    for (int32_t i = 0; i < blocks * 4; i++) {
      const Pointers<uint8_t> t(c, pu[i], pv[i]);
      for (int row = 0; row < 2; row++) {
        const uint8_t *ys = py + row * y_pitch;
        uint8_t *d = dst + row * dst_pitch;
        for (int k = 0; k < 2; k++) {
          const int y = ys[2 * i + k];
          uint8_t *p = d + 3 * (2 * i + k);
          p[0] = t.r[y];
          p[1] = t.g[y];
          p[2] = t.b[y];
        }
      }
    }
    dst += 2 * dst_pitch;
    py += 2 * y_pitch;
    pu += uv_pitch;
    pv += uv_pitch;
  }
}

}  // namespace travik_video

using namespace travik_video;

extern "C" {

int32_t travik_yuv2rgb_setmatrix(int32_t row) {
  if (row < 0 || row > 7) return -1;
  const int32_t previous = relaxed_load(g_matrix);
  relaxed_store(g_matrix, row);
  return previous;
}

travik_yuv2rgb *travik_yuv2rgb_create(int32_t format) { return create(format, false); }

travik_yuv2rgb *travik_yuv2rgb_create_swap(int32_t format) { return create(format, true); }

int32_t travik_yuv2rgb_setrotation(travik_yuv2rgb *c, int32_t rotation) {
  if (!c || rotation < 0 || rotation > 3) return 0;
  c->rotation = static_cast<uint8_t>(rotation);
  return select_routine(c);
}

int32_t travik_yuv2rgb_setscale(travik_yuv2rgb *c, int32_t src_width, int32_t src_height,
                                int32_t dst_width, int32_t dst_height) {
  if (!c) return 0;
  // An empty destination would divide by zero and an empty source has no
  // pixel to sample: refused, with the converter left as it was.
  if (src_width < 1 || src_height < 1 || dst_width < 1 || dst_height < 1) return 0;
  if (src_width == dst_width && src_height == dst_height) {
    c->scaling = 0;
    return select_routine(c);
  }
  const float xs = static_cast<float>(src_width) / static_cast<float>(dst_width);
  const float ys = static_cast<float>(src_height) / static_cast<float>(dst_height);
  std::free(c->xmap);
  std::free(c->ymap);
  c->xmap = static_cast<int32_t *>(std::malloc(sizeof(int32_t) * dst_width));
  c->ymap = static_cast<int32_t *>(std::malloc(sizeof(int32_t) * dst_height));
  // Enlarging by two or more rounds the last entries to the source size
  // itself, one past the last column or row; those entries are held at the
  // last column and row so that the scaled routines stay inside the source.
  for (int32_t i = 0; i < dst_width; i++) {
    const float at = static_cast<float>(i) * xs;
    const int32_t sx = static_cast<int32_t>(static_cast<double>(at) + 0.5);
    c->xmap[i] = sx < src_width ? sx : src_width - 1;
  }
  for (int32_t j = 0; j < dst_height; j++) {
    const float at = static_cast<float>(j) * ys;
    const int32_t sy = static_cast<int32_t>(static_cast<double>(at) + 0.5);
    c->ymap[j] = sy < src_height ? sy : src_height - 1;
  }
  c->map_width = dst_width;
  c->map_height = dst_height;
  c->source_width = src_width;
  c->source_height = src_height;
  c->scaling = 1;
  if (c->scaled[0] == convert32_scaled_simd || c->scaled[0] == convert16_scaled_simd)
    scale_state_build(c);
  return select_routine(c);
}

void travik_yuv2rgb_convert(travik_yuv2rgb *c, int32_t width, int32_t height, uint8_t *dst,
                            int32_t dst_pitch, const uint8_t *py, const uint8_t *pu,
                            const uint8_t *pv, int32_t y_pitch, int32_t uv_pitch) {
  if (!c || !c->convert) return;
  c->convert(c, width, height, dst, dst_pitch, py, pu, pv, y_pitch, uv_pitch);
}

void travik_yuv2rgb_destroy(travik_yuv2rgb *c) {
  if (!c) return;
  std::free(c->xmap);
  std::free(c->ymap);
  if (c->priv) {
    scale_state_free(static_cast<SimdParams *>(c->priv));
    turn_state_free(static_cast<SimdParams *>(c->priv));
  }
  std::free(c->priv);
  std::free(c);
}

}  // extern "C"
