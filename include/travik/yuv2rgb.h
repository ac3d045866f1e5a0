/*
 * travik - YUV 4:2:0 to RGB conversion for video-output drivers.
 *
 * A converter is made for one output pixel format (TRAVIK_PIXEL_RGB32,
 * _BGR32, _RGB666, _RGB24, _RGB565 or _RGB555). All colour arithmetic is done
 * at creation into lookup tables; each output pixel then costs three table
 * reads and two additions. The per-component clip tables are shared by all
 * converters of one output depth (32-bit words, 16-bit words, bytes) and are
 * rebuilt by every create of that depth: converters of different formats of
 * the same depth must not be used at the same time.
 *
 * Plain routines (no scaling) convert pairs of rows in blocks of 8 columns:
 * columns beyond a multiple of 8 and a last odd row are left alone. The
 * 24-bit routine takes its width as a count of 8-pixel blocks. Scaled
 * routines take the destination size and sample the source through the maps
 * built by travik_yuv2rgb_setscale (nearest neighbour). The optimised scaled
 * routines convert through row buffers of the converter, made by setscale,
 * and the optimised quarter turns through a tile buffer made by create:
 * one converter converts in one thread at a time.
 *
 * Rotations: 0 none, 1 quarter turn counter-clockwise (16-bit formats only),
 * 2 none available, 3 quarter turn clockwise (32- and 16-bit formats). The
 * quarter-turn routines never scale.
 */
#ifndef TRAVIK_YUV2RGB_H
#define TRAVIK_YUV2RGB_H

#include <travik/common.h>
#include <travik/frame.h> /* the TRAVIK_PIXEL_* format codes */

TRAVIK_BEGIN_DECLS

typedef struct travik_yuv2rgb travik_yuv2rgb;

/* (converter, width, height, destination, destination pitch, Y, U, V,
 * Y pitch, U/V pitch); pitches in bytes. */
typedef void (*travik_yuv2rgb_fn)(travik_yuv2rgb *converter, int32_t width, int32_t height,
                                  uint8_t *dst, int32_t dst_pitch, const uint8_t *py,
                                  const uint8_t *pu, const uint8_t *pv, int32_t y_pitch,
                                  int32_t uv_pitch);

struct travik_yuv2rgb {
  void *table_rV[256];      /* per V: red clip table + red part of V */
  void *table_gU[256];      /* per U: green clip table + U part of green */
  int32_t table_gV[256];    /* per V: V part of green, in table entries */
  void *table_bU[256];      /* per U: blue clip table + blue part of U */
  travik_yuv2rgb_fn convert;   /* the routine now selected */
  travik_yuv2rgb_fn plain[4];  /* per rotation, without scaling (NULL: none) */
  travik_yuv2rgb_fn scaled[4]; /* per rotation, with scaling (NULL: none) */
  int32_t *xmap;            /* source column per destination column */
  int32_t *ymap;            /* source row per destination row */
  uint8_t scaling;
  uint8_t rotation;
  /* The library's own bookkeeping from here on. */
  uint8_t format;
  uint8_t simd;             /* instruction-set level the routines were chosen for */
  int32_t map_width;        /* entries of xmap and ymap */
  int32_t map_height;
  int32_t source_width;     /* source size the maps were made for */
  int32_t source_height;
  void *priv;               /* parameters of the optimised routines */
};

/* Colour matrix rows (crv, cbu, cgu, cgv) x 65536, indexed by the MPEG-2
 * matrix_coefficients code. */
TRAVIK_API extern const int32_t Inverse_Table_6_9[8][4];

/* Chooses the matrix row used by converters created afterwards (initially
 * 6, ITU-R BT.601). Returns the previous row, or -1 (and changes nothing)
 * for a row outside 0..7. */
TRAVIK_API int32_t travik_yuv2rgb_setmatrix(int32_t row);

/* NULL for an unsupported format. */
TRAVIK_API travik_yuv2rgb *travik_yuv2rgb_create(int32_t format);
/* As create; for 16-bit formats the rotation-0 routines write every pixel
 * with its two bytes exchanged. */
TRAVIK_API travik_yuv2rgb *travik_yuv2rgb_create_swap(int32_t format);
/* 1 when a routine exists for this rotation (0..3) and the scaling state,
 * else 0 and the previous routine stays selected. */
TRAVIK_API int32_t travik_yuv2rgb_setrotation(travik_yuv2rgb *converter, int32_t rotation);
/* Builds the scaling maps (or switches scaling off for equal sizes) and
 * selects as setrotation does. Sizes below 1 are refused (0). */
TRAVIK_API int32_t travik_yuv2rgb_setscale(travik_yuv2rgb *converter, int32_t src_width,
                                           int32_t src_height, int32_t dst_width,
                                           int32_t dst_height);
/* Runs the selected routine. */
TRAVIK_API void travik_yuv2rgb_convert(travik_yuv2rgb *converter, int32_t width, int32_t height,
                                       uint8_t *dst, int32_t dst_pitch, const uint8_t *py,
                                       const uint8_t *pu, const uint8_t *pv, int32_t y_pitch,
                                       int32_t uv_pitch);
TRAVIK_API void travik_yuv2rgb_destroy(travik_yuv2rgb *converter);

/* Instruction-set levels of the optimised pixel routines. */
enum {
  TRAVIK_SIMD_NONE = 0, /* the plain reference routines */
  TRAVIK_SIMD_SSE2 = 1, /* SSE2 (SSSE3 where a routine needs it) */
  TRAVIK_SIMD_AVX2 = 2,
  TRAVIK_SIMD_NEON = 1  /* ARM NEON (32-bit ARM processors) */
};
/* Limits the level used by converters created afterwards and by the frame
 * scalers; the result is the level now in effect (at most what the processor
 * offers). Initially the best level available. */
TRAVIK_API int32_t travik_yuv2rgb_setsimd(int32_t level);
TRAVIK_API int32_t travik_yuv2rgb_getsimd(void);

TRAVIK_END_DECLS

#endif /* TRAVIK_YUV2RGB_H */
