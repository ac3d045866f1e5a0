// Internals shared by the reference converter and its optimised routines.
#pragma once

#include <travik/yuv2rgb.h>

// NEON routines need the floating-point register file; a software
// floating-point build (for processors without an FPU) runs the reference
// routines only.
#if defined(__arm__) && !defined(__SOFTFP__)
#define TRAVIK_VIDEO_NEON 1
#endif

namespace travik_video {

// Shared clip tables, one per output depth, and the format that last built
// each one (it decides the bit layout every converter of that depth gets).
constexpr int kTable32Size = 1949;
constexpr int kRedZero = 197;
constexpr int kBlueZero = 197 + 685;
constexpr int kGreenZero = 197 + 1364;
constexpr int kTable8Size = 720;
constexpr int kTable8Zero = 232;

int32_t layout32();
int32_t layout16();

// The plain reference routine for rotation 0 of each output depth; the
// optimised routines hand the columns they leave over to these.
void convert32_plain(travik_yuv2rgb *c, int32_t width, int32_t height, uint8_t *dst,
                     int32_t dst_pitch, const uint8_t *py, const uint8_t *pu, const uint8_t *pv,
                     int32_t y_pitch, int32_t uv_pitch);
void convert16_plain(travik_yuv2rgb *c, int32_t width, int32_t height, uint8_t *dst,
                     int32_t dst_pitch, const uint8_t *py, const uint8_t *pu, const uint8_t *pv,
                     int32_t y_pitch, int32_t uv_pitch);
void convert16_plain_swap(travik_yuv2rgb *c, int32_t width, int32_t height, uint8_t *dst,
                          int32_t dst_pitch, const uint8_t *py, const uint8_t *pu,
                          const uint8_t *pv, int32_t y_pitch, int32_t uv_pitch);
void convert24(travik_yuv2rgb *c, int32_t blocks, int32_t height, uint8_t *dst,
               int32_t dst_pitch, const uint8_t *py, const uint8_t *pu, const uint8_t *pv,
               int32_t y_pitch, int32_t uv_pitch);

// Parameters of the vector routines: each chroma contribution of the tables,
// off(d) for d = sample - 128, reproduced as a rounding high multiply
// ((d << shift) * mul + 16384) >> 15; found and checked against all 256
// table entries at creation.
struct OffsetFormula {
  int16_t mul;
  int32_t shift;
};
struct ScaleState;
struct TurnState;
struct SimdParams {
  OffsetFormula red;    // from V
  OffsetFormula green_u;
  OffsetFormula green_v;
  OffsetFormula blue;   // from U
  ScaleState *scale;    // row buffers of the optimised scaled routines
  TurnState *turn;      // tile buffer of the optimised quarter turns
};

// The reference quarter turns: clockwise (32- and 16-bit) and
// counter-clockwise (16-bit).
void convert32_cw(travik_yuv2rgb *c, int32_t width, int32_t height, uint8_t *dst,
                  int32_t dst_pitch, const uint8_t *py, const uint8_t *pu, const uint8_t *pv,
                  int32_t y_pitch, int32_t uv_pitch);
void convert16_cw(travik_yuv2rgb *c, int32_t width, int32_t height, uint8_t *dst,
                  int32_t dst_pitch, const uint8_t *py, const uint8_t *pu, const uint8_t *pv,
                  int32_t y_pitch, int32_t uv_pitch);
void convert16_ccw(travik_yuv2rgb *c, int32_t width, int32_t height, uint8_t *dst,
                   int32_t dst_pitch, const uint8_t *py, const uint8_t *pu, const uint8_t *pv,
                   int32_t y_pitch, int32_t uv_pitch);

// Optimised quarter turns: tiles of the source converted by the optimised
// rotation-0 routine into the converter's tile buffer, then transposed into
// the destination.
void convert32_cw_simd(travik_yuv2rgb *c, int32_t width, int32_t height, uint8_t *dst,
                       int32_t dst_pitch, const uint8_t *py, const uint8_t *pu,
                       const uint8_t *pv, int32_t y_pitch, int32_t uv_pitch);
void convert16_cw_simd(travik_yuv2rgb *c, int32_t width, int32_t height, uint8_t *dst,
                       int32_t dst_pitch, const uint8_t *py, const uint8_t *pu,
                       const uint8_t *pv, int32_t y_pitch, int32_t uv_pitch);
void convert16_ccw_simd(travik_yuv2rgb *c, int32_t width, int32_t height, uint8_t *dst,
                        int32_t dst_pitch, const uint8_t *py, const uint8_t *pu,
                        const uint8_t *pv, int32_t y_pitch, int32_t uv_pitch);
// Makes the tile buffer for pixels of `bytes` bytes converted by `rows` (the
// optimised rotation-0 routine without byte exchange) at `level`; false
// (nothing made) when there is no transpose for this level.
bool turn_state_build(SimdParams *params, int32_t bytes, travik_yuv2rgb_fn rows, int32_t level);
void turn_state_free(SimdParams *params);

// The scaled reference routines for rotation 0.
void convert32_scaled(travik_yuv2rgb *c, int32_t width, int32_t height, uint8_t *dst,
                      int32_t dst_pitch, const uint8_t *py, const uint8_t *pu, const uint8_t *pv,
                      int32_t y_pitch, int32_t uv_pitch);
void convert16_scaled(travik_yuv2rgb *c, int32_t width, int32_t height, uint8_t *dst,
                      int32_t dst_pitch, const uint8_t *py, const uint8_t *pu, const uint8_t *pv,
                      int32_t y_pitch, int32_t uv_pitch);

// One row of full-resolution samples: pixel i of `dst` from y[i], u[i] and
// v[i], i < n. The sample rows are read up to n rounded up to kRowPad.
using Row444 = void (*)(const SimdParams *params, int32_t n, uint8_t *dst, const uint8_t *y,
                        const uint8_t *u, const uint8_t *v);
constexpr int32_t kRowPad = 32;

// The optimised row routine of a depth (32 or 16) for the bit layout its
// shared table has now, at a level; NULL when there is none.
Row444 simd_scaled_row(int32_t depth, int32_t level);

// Optimised scaled routines for rotation 0: each destination row gathers its
// samples through the maps into the converter's row buffers, then converts
// them with the depth's row routine.
void convert32_scaled_simd(travik_yuv2rgb *c, int32_t width, int32_t height, uint8_t *dst,
                           int32_t dst_pitch, const uint8_t *py, const uint8_t *pu,
                           const uint8_t *pv, int32_t y_pitch, int32_t uv_pitch);
void convert16_scaled_simd(travik_yuv2rgb *c, int32_t width, int32_t height, uint8_t *dst,
                           int32_t dst_pitch, const uint8_t *py, const uint8_t *pu,
                           const uint8_t *pv, int32_t y_pitch, int32_t uv_pitch);
// Gathering 8 samples of a row from a window of 32 bytes with table lookups
// (NEON on ARM): out[k] = row[base + index[k]]; base -1: byte by byte.
struct Gather8 {
  int32_t base;
  uint8_t index[8];
};
#ifdef TRAVIK_VIDEO_NEON
// Blocks for the `count` columns (a last partial block goes byte by byte);
// `limit`: bytes of a source row that may be read.
void plan_gather8(Gather8 *blocks, const int32_t *columns, int32_t count, int32_t limit);
void gather8_neon(const Gather8 *blocks, const int32_t *columns, int32_t count, uint8_t *out,
                  const uint8_t *row);
#endif

// (Re)builds the row buffers and gather plans for the converter's maps;
// called by setscale. Frees them.
void scale_state_build(travik_yuv2rgb *c);
void scale_state_free(SimdParams *params);

// The level the processor offers and the level now allowed.
int32_t simd_available();
int32_t simd_level();

// Picks the optimised rotation-0 plain routine for a converter at a level,
// or NULL when there is none (the reference routine then stays).
travik_yuv2rgb_fn simd_plain_routine(int32_t format, bool swap, int32_t level);

}  // namespace travik_video
