// Strided frame copy and nearest-neighbour scaling of picture planes, with
// a plain reference routine and an optimised one that gives the same bytes.
#include <travik/scale.h>
#include <travik/yuv2rgb.h>

#include <cstring>
#include <vector>

#include "video/scale_impl.h"
#include "video/yuv2rgb_impl.h"

namespace travik_video {

namespace {

bool sizes_ok(int32_t sw, int32_t sh, int32_t dw, int32_t dh) {
  // The 16.16 steps need (size << 16) to fit a signed 32-bit word.
  return sw > 0 && sh > 0 && dw > 0 && dh > 0 && sw < 32768 && sh < 32768 && dw < 32768 &&
         dh < 32768;
}

}  // namespace

void scale_plane_reference(int32_t sw, int32_t sh, int32_t dw, int32_t dh, uint8_t *dst,
                           int32_t dst_pitch, const uint8_t *src, int32_t src_pitch) {
  const int32_t xstep = (sw << 16) / dw;
  const int32_t ystep = (sh << 16) / dh;
  int32_t acc = 0;
  ptrdiff_t row = 0;
  for (int32_t j = 0; j < dh; j++) {
    const uint8_t *s = src + row;
    int32_t p = 0;
    for (int32_t x = 0; x < dw; x++) {
      dst[x] = s[p >> 16];
      p += xstep;
    }
    dst += dst_pitch;
    acc += ystep;
    while (acc > 65535) {
      acc -= 65536;
      row += src_pitch;
    }
  }
}

void scale_yuv_reference(int32_t sw, int32_t sh, int32_t dw, int32_t dh, uint8_t *const dst[3],
                         const int32_t dst_pitches[3], uint8_t *const src[3],
                         const int32_t src_pitches[3]) {
  const int32_t xstep = (sw << 16) / dw;
  const int32_t ystep = (sh << 16) / dh;
  int32_t acc = 0;
  int32_t rows_advanced = 0;
  ptrdiff_t ysrc = 0, csrc_u = 0, csrc_v = 0;
  uint8_t *yd = dst[0];
  uint8_t *ud = dst[1];
  uint8_t *vd = dst[2];
  for (int32_t j = 0; j < dh; j++) {
    const uint8_t *ys = src[0] + ysrc;
    const uint8_t *us = src[1] + csrc_u;
    const uint8_t *vs = src[2] + csrc_v;
    uint8_t *uo = ud;
    uint8_t *vo = vd;
    int32_t p = 0;
    for (int32_t x = 0; x < dw; x++) {
      yd[x] = ys[p >> 16];
      if (((dw - 1 - x) & 1) == 0) {
        *uo++ = us[p >> 17];
        *vo++ = vs[p >> 17];
      }
      p += xstep;
    }
    yd += dst_pitches[0];
    if (((dh - 1 - j) & 1) == 0) {
      ud += dst_pitches[1];
      vd += dst_pitches[2];
    }
    acc += ystep;
    while (acc > 65535) {
      acc -= 65536;
      ysrc += src_pitches[0];
      if (++rows_advanced % 2 == 0) {
        csrc_u += src_pitches[1];
        csrc_v += src_pitches[2];
      }
    }
  }
}

// The optimised scalers: the source column of every destination column is
// the same on every row, so it is computed once per call; rows that repeat
// the previous source row are copied from the previous destination row, and
// chroma rows that a later row overwrites are not written at all.
void scale_plane_fast(int32_t sw, int32_t sh, int32_t dw, int32_t dh, uint8_t *dst,
                      int32_t dst_pitch, const uint8_t *src, int32_t src_pitch) {
  const int32_t xstep = (sw << 16) / dw;
  const int32_t ystep = (sh << 16) / dh;
  std::vector<int32_t> columns(dw);
  for (int32_t x = 0; x < dw; x++) columns[x] = (x * xstep) >> 16;
  GatherPlan plan;
  plan_gather(&plan, columns.data(), dw, sw);
  int32_t acc = 0;
  ptrdiff_t row = 0;
  ptrdiff_t previous = -1;
  uint8_t *previous_dst = nullptr;
  for (int32_t j = 0; j < dh; j++) {
    if (row == previous)
      std::memcpy(dst, previous_dst, dw);
    else
      gather_row(&plan, dst, src + row);
    previous = row;
    previous_dst = dst;
    dst += dst_pitch;
    acc += ystep;
    while (acc > 65535) {
      acc -= 65536;
      row += src_pitch;
    }
  }
}

void scale_yuv_fast(int32_t sw, int32_t sh, int32_t dw, int32_t dh, uint8_t *const dst[3],
                    const int32_t dst_pitches[3], uint8_t *const src[3],
                    const int32_t src_pitches[3]) {
  const int32_t xstep = (sw << 16) / dw;
  const int32_t ystep = (sh << 16) / dh;
  std::vector<int32_t> columns(dw);
  // Chroma is written at the columns x with dw - 1 - x even.
  const int32_t chroma_count = (dw + 1) / 2;
  std::vector<int32_t> chroma_columns(chroma_count);
  for (int32_t x = 0, k = 0; x < dw; x++) {
    columns[x] = (x * xstep) >> 16;
    if (((dw - 1 - x) & 1) == 0) chroma_columns[k++] = (x * xstep) >> 17;
  }
  GatherPlan luma, chroma;
  plan_gather(&luma, columns.data(), dw, sw);
  plan_gather(&chroma, chroma_columns.data(), chroma_count, (sw - 1) / 2 + 1);
  int32_t acc = 0;
  int32_t source_row = 0;
  int32_t previous_row = -1;
  uint8_t *yd = dst[0];
  uint8_t *previous_yd = nullptr;
  uint8_t *ud = dst[1];
  uint8_t *vd = dst[2];
  for (int32_t j = 0; j < dh; j++) {
    if (source_row == previous_row)
      std::memcpy(yd, previous_yd, dw);
    else
      gather_row(&luma, yd, src[0] + static_cast<ptrdiff_t>(source_row) * src_pitches[0]);
    previous_row = source_row;
    previous_yd = yd;
    yd += dst_pitches[0];
    if (((dh - 1 - j) & 1) == 0) {
      // The last row to write this chroma row; earlier ones are overwritten.
      const int32_t chroma_row = source_row >> 1;
      gather_row(&chroma, ud, src[1] + static_cast<ptrdiff_t>(chroma_row) * src_pitches[1]);
      gather_row(&chroma, vd, src[2] + static_cast<ptrdiff_t>(chroma_row) * src_pitches[2]);
      ud += dst_pitches[1];
      vd += dst_pitches[2];
    }
    acc += ystep;
    while (acc > 65535) {
      acc -= 65536;
      source_row++;
    }
  }
}

}  // namespace travik_video

using namespace travik_video;

extern "C" {

void travik_copy_frame(int32_t bytes, int32_t rows, uint8_t *dst, int32_t dst_pitch,
                       const uint8_t *src, int32_t src_pitch) {
  if (!dst || !src || bytes <= 0) return;
  for (int32_t i = 0; i < rows; i++) {
    std::memcpy(dst, src, bytes);
    dst += dst_pitch;
    src += src_pitch;
  }
}

void travik_scale_frame(int32_t src_width, int32_t src_height, int32_t dst_width,
                        int32_t dst_height, uint8_t *dst, int32_t dst_pitch, const uint8_t *src,
                        int32_t src_pitch) {
  if (!dst || !src || !sizes_ok(src_width, src_height, dst_width, dst_height)) return;
  if (simd_level() > TRAVIK_SIMD_NONE)
    scale_plane_fast(src_width, src_height, dst_width, dst_height, dst, dst_pitch, src,
                     src_pitch);
  else
    scale_plane_reference(src_width, src_height, dst_width, dst_height, dst, dst_pitch, src,
                          src_pitch);
}

void travik_scale_yuv_frame(int32_t src_width, int32_t src_height, int32_t dst_width,
                            int32_t dst_height, uint8_t *const dst_planes[3],
                            const int32_t dst_pitches[3], uint8_t *const src_planes[3],
                            const int32_t src_pitches[3]) {
  if (!dst_planes || !dst_pitches || !src_planes || !src_pitches) return;
  for (int i = 0; i < 3; i++)
    if (!dst_planes[i] || !src_planes[i]) return;
  if (!sizes_ok(src_width, src_height, dst_width, dst_height)) return;
  if (simd_level() > TRAVIK_SIMD_NONE)
    scale_yuv_fast(src_width, src_height, dst_width, dst_height, dst_planes, dst_pitches,
                   src_planes, src_pitches);
  else
    scale_yuv_reference(src_width, src_height, dst_width, dst_height, dst_planes, dst_pitches,
                        src_planes, src_pitches);
}

}  // extern "C"
