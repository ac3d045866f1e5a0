/*
 * travik - fonts: font objects and the driver record of font plugins.
 *
 * A font plugin is a shared object <plugin dir>/font/libfont_<name>.so whose
 * only exported symbol is its entry function travik_font_<name>(), which
 * registers its table with
 *   travik_plugin_register(TRAVIK_PLUGIN_FONT, TRAVIK_PLUGIN_VERSION, drivers);
 *
 * A font driver is chosen by the font file's extension: the first plugin in
 * the cache <base dir>/font.cfg whose driver lists it wins.
 * See README.md, "Writing plugins".
 */
#ifndef TRAVIK_FONT_H
#define TRAVIK_FONT_H

#include <travik/common.h>
#include <travik/plugin.h>

TRAVIK_BEGIN_DECLS

struct travik_font;

/*
 * One glyph: ten 16-bit words, zero-filled before the driver fills them.
 * Positions are in pixels, relative to the top of the text line (y) and to
 * the pen (x), y growing downwards:
 *
 *   word[0]  the character code
 *   word[1]  x offset: columns from the pen to the bitmap's left edge
 *   word[2]  y offset: rows from the line top to the bitmap's top edge
 *   word[3]  ascent: rows from the line top to the baseline
 *   word[4]  advance: how far the pen moves after this glyph (a driver
 *            includes the font's `spacing` here)
 *   word[5]  bitmap width
 *   word[6]  depth: rows from the baseline to the bitmap's bottom edge, so
 *            that word[3] + word[6] = word[2] + word[7] is the glyph's height
 *   word[7]  bitmap rows
 *   word[8], word[9]  the driver's own (such as its glyph index)
 *
 * travik_draw_drawtext renders each glyph at (pen + word[1], word[2]) of an
 * image as high as the tallest glyph and as wide as the sum of advances; it
 * keeps the bitmap box words[1,2,5,7] inside that image.
 */
typedef struct travik_font_glyph {
  int16_t word[10];
} travik_font_glyph;

/* Size of a text: `x` and `y` are 0, `width` the sum of the advances and
 * `height` the taller of the line height and the tallest glyph. */
typedef struct travik_font_extents {
  int16_t x;
  int16_t y;
  int16_t width;
  int16_t height;
} travik_font_extents;

/* One driver of a font plugin's table; a NULL description ends the table. */
typedef struct travik_font_driver {
  const char *description; /* NULL ends the table */
  const char *extensions;  /* comma-separated lower-case file extensions */
  /* Reads the font's `size` (pixel height) and `spacing`; NULL on failure. */
  void *(*open)(struct travik_font *font, const char *path);
  void (*close)(void *state);
  /* Two values whose difference plus 3 is the line height (ascender and
   * descender, the descender negative). */
  int32_t (*getmetrics)(void *state, int32_t *first, int32_t *second);
  /* Fills `glyph` for a character code; a character the font lacks gets
   * the font's missing glyph. */
  int32_t (*getglyph)(void *state, uint16_t code, travik_font_glyph *glyph);
  /* Draws `glyph`'s bitmap as 8-bit coverage (0 to 255, the larger of the
   * old and the new value) into `image`, row stride `pitch`, with the
   * bitmap's top left corner at (x, y). */
  int32_t (*render)(void *state, const travik_font_glyph *glyph, uint8_t *image, int32_t x,
                    int32_t y, int32_t pitch);
} travik_font_driver;

/* A font: the driver chosen for its file and what it was asked for. */
typedef struct travik_font travik_font;
struct travik_font {
  char path[4096];
  travik_plugin *plugin;  /* NULL when the driver was handed in */
  const travik_font_driver *driver;
  void *state;
  int16_t size;           /* pixel height, 8 or more */
  int16_t spacing;        /* extra pixels between characters, 0 at creation */
  int32_t outline;        /* outline width, 0 at creation */
};

/* Refresh (at travik_init) and release (at travik_destroy) the font cache
 * <base dir>/font.cfg. Both return 0. */
TRAVIK_API int travik_font_plugins_init(void);
TRAVIK_API int travik_font_plugins_destroy(void);

/* Opens the font file `path` at `size` pixels (8 or more) with `driver`, or
 * with the first font plugin listing the path's extension when `driver` is
 * NULL. NULL on failure (no extension, no plugin, unreadable font). */
TRAVIK_API travik_font *travik_font_create(const char *path, int32_t size,
                                           const travik_font_driver *driver);
/* Closes the driver, unloads its plugin and frees the record. */
TRAVIK_API void travik_font_destroy(travik_font *font);
TRAVIK_API int32_t travik_font_setspacing(travik_font *font, int32_t spacing);
TRAVIK_API int32_t travik_font_setoutline(travik_font *font, int32_t outline);
/* The line height: ascender - descender + 3. */
TRAVIK_API int32_t travik_font_getheight(travik_font *font);
/* The driver's getglyph and render, called with its state. */
TRAVIK_API int32_t travik_font_getglyph(travik_font *font, uint16_t code,
                                        travik_font_glyph *glyph);
TRAVIK_API int32_t travik_font_render(travik_font *font, const travik_font_glyph *glyph,
                                      uint8_t *image, int32_t x, int32_t y, int32_t pitch);
/*
 * Decodes `length` bytes of UTF-8 into one glyph per character (codes kept
 * in 16 bits; an invalid sequence gives 0xFFFF, a sequence cut by the end
 * is dropped). Stores a new array in *glyphs (free() it; NULL when there
 * are no characters) and the count in *count (may be NULL). Returns 0, or
 * 10 when memory runs out (then nothing is allocated).
 */
TRAVIK_API int32_t travik_font_string2glyph(travik_font *font, const char *text, int32_t length,
                                            travik_font_glyph **glyphs, int32_t *count);
/* Measures glyphs (see travik_font_extents). Returns 0. */
TRAVIK_API int32_t travik_font_getglyphextents(travik_font *font, const travik_font_glyph *glyphs,
                                               int32_t count, travik_font_extents *extents);
/* Measures `length` bytes of UTF-8 text. Returns 0. */
TRAVIK_API int32_t travik_font_getstringextents(travik_font *font, const char *text,
                                                int32_t length, travik_font_extents *extents);

TRAVIK_END_DECLS

#endif /* TRAVIK_FONT_H */
