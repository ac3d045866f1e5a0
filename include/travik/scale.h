/*
 * travik - frame copy and nearest-neighbour scaling of picture planes.
 *
 * Positions are 16.16 fixed point; there is no filtering. Sizes below 1 (or
 * of 32768 and above, where the 16.16 steps overflow) make the scalers do
 * nothing.
 */
#ifndef TRAVIK_SCALE_H
#define TRAVIK_SCALE_H

#include <travik/common.h>

TRAVIK_BEGIN_DECLS

/* Copies `rows` rows of `bytes` bytes, advancing each side by its pitch. */
TRAVIK_API void travik_copy_frame(int32_t bytes, int32_t rows, uint8_t *dst, int32_t dst_pitch,
                                  const uint8_t *src, int32_t src_pitch);

/* Scales one plane of bytes. */
TRAVIK_API void travik_scale_frame(int32_t src_width, int32_t src_height, int32_t dst_width,
                                   int32_t dst_height, uint8_t *dst, int32_t dst_pitch,
                                   const uint8_t *src, int32_t src_pitch);

/* Scales a planar YUV 4:2:0 picture; planes and pitches are (Y, U, V).
 * Chroma is written at the destination columns x for which
 * dst_width - 1 - x is even, so a row receives (dst_width + 1) / 2 chroma
 * samples; chroma rows likewise number (dst_height + 1) / 2. */
TRAVIK_API void travik_scale_yuv_frame(int32_t src_width, int32_t src_height, int32_t dst_width,
                                       int32_t dst_height, uint8_t *const dst_planes[3],
                                       const int32_t dst_pitches[3],
                                       uint8_t *const src_planes[3],
                                       const int32_t src_pitches[3]);

TRAVIK_END_DECLS

#endif /* TRAVIK_SCALE_H */
