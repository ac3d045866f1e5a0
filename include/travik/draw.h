/*
 * travik - drawing: outlined text on pictures, and colour names.
 *
 * A drawing surface wraps a caller's picture planes (such as a video
 * frame's) or planes of its own, and carries a coverage mask, a clip
 * rectangle, a font and a colour. travik_draw_drawtext() lays one line of
 * UTF-8 text out in a rectangle, draws it with a black outline about one
 * pixel wide in the surface's colour, and leaves the coverage it drew in the
 * surface's mask. travik_draw_blit() puts one surface's coverage onto
 * another; a subtitle image rendered once is blitted onto every frame.
 *
 * Pixel formats are the TRAVIK_PIXEL_* numbers of travik/frame.h. Surfaces
 * of format 1 (YUV 4:2:0) and 5 (32-bit) can be drawn on; blits draw from
 * format 1 onto format 1, and from format 8 (coverage) onto 1 and 5. Any
 * other pair draws nothing.
 */
#ifndef TRAVIK_DRAW_H
#define TRAVIK_DRAW_H

#include <travik/common.h>
#include <travik/font.h>

TRAVIK_BEGIN_DECLS

/* A rectangle of 16-bit signed values. */
typedef struct travik_draw_rect {
  int16_t x;
  int16_t y;
  int16_t w;
  int16_t h;
} travik_draw_rect;

/* Text placement flags of travik_draw_drawtext (default: top left). */
enum {
  TRAVIK_DRAW_RIGHT = 2,    /* right-aligned in the rectangle */
  TRAVIK_DRAW_HCENTER = 4,  /* centred horizontally (RIGHT wins) */
  TRAVIK_DRAW_BOTTOM = 16,  /* at the rectangle's bottom */
  TRAVIK_DRAW_VCENTER = 32  /* centred vertically (BOTTOM wins) */
};

typedef struct travik_draw travik_draw;
struct travik_draw {
  int32_t width;
  int32_t height;
  int32_t format;          /* TRAVIK_PIXEL_* */
  travik_font *font;       /* not owned */
  travik_draw_rect clip;   /* (0, 0, width, height) at creation */
  uint8_t *mask;           /* width x height coverage written by blits, owned */
  uint8_t *planes[3];
  int32_t pitches[3];
  int32_t owned;           /* 1 when the surface allocated its planes */
  /* Drawing colour; in memory order its bytes are (ignored, red, green,
   * blue). White is all four bytes 0xFF. */
  uint32_t color;
};

/*
 * Makes a surface. With `planes` NULL the surface allocates zero-filled
 * planes of its own for formats 1 (one block: luma, then V, then U), 3 and 5
 * (4 bytes a pixel), 6 and 7 (2 bytes) and 8 (1 byte); otherwise it draws on
 * the caller's planes 0-2 with `pitches` 0-2 (format 1) or on plane 0 with
 * pitch 0 (formats 3, 5, 6, 7). The mask starts at 0.
 */
TRAVIK_API travik_draw *travik_draw_create(int32_t width, int32_t height, uint8_t *const *planes,
                                           const int32_t *pitches, int32_t format);
/* Frees own planes, the mask and the record. */
TRAVIK_API void travik_draw_destroy(travik_draw *draw);
/* Zeroes the mask. Returns 0. */
TRAVIK_API int32_t travik_draw_clear(travik_draw *draw);
/* Sets the font (not NULL: that aborts). Returns 0. */
TRAVIK_API int32_t travik_draw_setfont(travik_draw *draw, travik_font *font);
/* Sets only the clip width and height, to min(rect w, width) and
 * min(rect h, height); the clip origin keeps its value. Returns 0. */
TRAVIK_API int32_t travik_draw_setclip(travik_draw *draw, const travik_draw_rect *rect);
/* Sets the colour (memory order: ignored, red, green, blue). Returns 0. */
TRAVIK_API int32_t travik_draw_setcolor(travik_draw *draw, uint32_t color);
/*
 * Draws `source`'s coverage (its mask, from (sx, sy)) onto the w x h
 * rectangle at (x, y) of `target`, clipped to the target's clip rectangle:
 * - format 8 onto 1: luma set to the source colour's, in 2x2 blocks (an odd
 *   last row or column is left), target mask = coverage, chroma untouched;
 * - format 1 onto 1: luma blended with the source's luma by coverage, in
 *   2x2 blocks, target mask = coverage, chroma untouched;
 * - format 8 onto 5: the pixel blended with the source colour as one 32-bit
 *   word, (pixel * (255 - a) + colour * a) >> 8 modulo 2^32.
 * Returns 0.
 */
TRAVIK_API int32_t travik_draw_blit(travik_draw *target, int32_t x, int32_t y, int32_t w,
                                    int32_t h, travik_draw *source, int32_t sx, int32_t sy);
/*
 * Draws `length` bytes of UTF-8 `text` as one line placed in `rect` by
 * `flags` (TRAVIK_DRAW_*), in the surface's colour over a black outline.
 * Returns 2 without a font, else 0.
 */
TRAVIK_API int32_t travik_draw_drawtext(travik_draw *draw, const travik_draw_rect *rect,
                                        const char *text, int32_t length, int32_t flags);

/* A colour name of the standard X11 list, any case ("white", "GhostWhite",
 * "ghost white"), as 0xFFRRGGBB; 0 for an unknown name. */
TRAVIK_API uint32_t travik_string2rgb(const char *name);

TRAVIK_END_DECLS

#endif /* TRAVIK_DRAW_H */
