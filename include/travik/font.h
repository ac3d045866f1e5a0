/*
 * travik - fonts: the driver record of font plugins.
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

/* One glyph: ten 16-bit words, zero-filled before the driver fills them.
 * word[3] + word[6] (signed) is the glyph's height and word[4] its advance;
 * the other words are shared between the driver and the drawing code. */
typedef struct travik_font_glyph {
  int16_t word[10];
} travik_font_glyph;

/* One driver of a font plugin's table; a NULL description ends the table. */
typedef struct travik_font_driver {
  const char *description; /* NULL ends the table */
  const char *extensions;  /* comma-separated lower-case file extensions */
  void *(*open)(struct travik_font *font, const char *path); /* NULL on failure */
  void (*close)(void *state);
  /* Two values whose difference plus 3 is the line height. */
  int32_t (*getmetrics)(void *state, int32_t *first, int32_t *second);
  int32_t (*getglyph)(void *state, uint16_t code, travik_font_glyph *glyph);
  /* Draws `glyph` as 8-bit coverage into `image` (row stride `pitch`) at (x, y). */
  int32_t (*render)(void *state, const travik_font_glyph *glyph, uint8_t *image, int32_t x,
                    int32_t y, int32_t pitch);
} travik_font_driver;

/* Refresh (at travik_init) and release (at travik_destroy) the font cache
 * <base dir>/font.cfg. Both return 0. */
TRAVIK_API int travik_font_plugins_init(void);
TRAVIK_API int travik_font_plugins_destroy(void);

TRAVIK_END_DECLS

#endif /* TRAVIK_FONT_H */
