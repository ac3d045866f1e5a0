// Font objects: the choice of a driver by file extension, UTF-8 decoding
// into glyph records, and text extents.
#include <travik/font.h>
#include <travik/system.h>

#include <cstdlib>
#include <cstring>

#include "overlay/font_cache.h"

namespace {

// Every plugin listing the extension is as good as another: the first one
// in the cache wins.
int32_t score_any(void *, int32_t, void *) { return 100; }

// Decodes `length` bytes of UTF-8 into 16-bit codes; returns their number.
// A sequence cut by the end is dropped; a lead byte 0xFE/0xFF or a bad
// continuation byte gives 0xFFFF (the walk still skips the whole sequence).
int32_t decode_utf8(const uint8_t *text, int32_t length, uint16_t *codes) {
  int32_t count = 0;
  int32_t i = 0;
  while (i < length) {
    uint8_t lead = text[i];
    if (lead < 0xC0) {
      codes[count++] = lead;
      ++i;
      continue;
    }
    int32_t size = UTF8_SKIP_TABLE[lead & 0x3F];
    if (size > length - i) break;
    uint16_t code = static_cast<uint16_t>(lead & (0x7C >> size));
    bool valid = lead < 0xFE;
    for (int32_t k = 1; k < size; ++k) {
      uint8_t next = text[i + k];
      if ((next & 0xC0) != 0x80) valid = false;
      code = static_cast<uint16_t>((code << 6) | (next & 0x3F));
    }
    codes[count++] = valid ? code : 0xFFFF;
    i += size;
  }
  return count;
}

}  // namespace

extern "C" {

travik_font *travik_font_create(const char *path, int32_t size, const travik_font_driver *driver) {
  if (!path || size < 8) return nullptr;
  // The path is copied into a fixed buffer; a longer one cannot be kept.
  if (std::strlen(path) >= sizeof(travik_font::path)) return nullptr;
  auto *font = static_cast<travik_font *>(std::calloc(1, sizeof(travik_font)));
  if (!driver) {
    // The extension is the probe's match string: a path without one has
    // nothing to match and is refused.
    const char *dot = std::strrchr(path, '.');
    const char *slash = std::strrchr(path, '/');
    if (!dot || (slash && slash > dot) || dot[1] == '\0') {
      std::free(font);
      return nullptr;
    }
    travik_plugin_probe probe;
    probe.kind_name = "font";
    probe.kind = TRAVIK_PLUGIN_FONT;
    probe.version = TRAVIK_PLUGIN_VERSION;
    probe.config = travik_font_cache();
    probe.key = "Extensions";
    probe.match = dot + 1;
    probe.score = score_any;
    probe.user = nullptr;
    int32_t index = 0;
    auto *drivers = static_cast<const travik_font_driver *>(
        travik_plugin_probeconfig(&probe, &font->plugin, &index));
    if (!drivers) {
      if (font->plugin) travik_plugin_destroy(font->plugin);
      std::free(font);
      return nullptr;
    }
    driver = &drivers[index];
  }
  std::strcpy(font->path, path);
  font->size = static_cast<int16_t>(size);
  font->driver = driver;
  font->state = driver->open(font, path);
  if (!font->state) {
    if (font->plugin) travik_plugin_destroy(font->plugin);
    std::free(font);
    return nullptr;
  }
  return font;
}

void travik_font_destroy(travik_font *font) {
  if (font->driver) font->driver->close(font->state);
  if (font->plugin) travik_plugin_destroy(font->plugin);
  std::free(font);
}

int32_t travik_font_setspacing(travik_font *font, int32_t spacing) {
  font->spacing = static_cast<int16_t>(spacing);
  return 0;
}

int32_t travik_font_setoutline(travik_font *font, int32_t outline) {
  font->outline = outline;
  return 0;
}

int32_t travik_font_getheight(travik_font *font) {
  int32_t first = 0;
  int32_t second = 0;
  font->driver->getmetrics(font->state, &first, &second);
  return first - second + 3;
}

int32_t travik_font_getglyph(travik_font *font, uint16_t code, travik_font_glyph *glyph) {
  return font->driver->getglyph(font->state, code, glyph);
}

int32_t travik_font_render(travik_font *font, const travik_font_glyph *glyph, uint8_t *image,
                           int32_t x, int32_t y, int32_t pitch) {
  return font->driver->render(font->state, glyph, image, x, y, pitch);
}

int32_t travik_font_string2glyph(travik_font *font, const char *text, int32_t length,
                                 travik_font_glyph **glyphs, int32_t *count) {
  *glyphs = nullptr;
  if (length <= 0) {
    if (count) *count = 0;
    return 0;
  }
  auto *codes = static_cast<uint16_t *>(std::malloc(sizeof(uint16_t) * static_cast<size_t>(length)));
  if (!codes) return 10;
  int32_t n = decode_utf8(reinterpret_cast<const uint8_t *>(text), length, codes);
  if (count) *count = n;
  if (n > 0) {
    auto *array =
        static_cast<travik_font_glyph *>(std::calloc(static_cast<size_t>(n), sizeof(travik_font_glyph)));
    if (!array) {
      std::free(codes);
      return 10;
    }
    for (int32_t i = n - 1; i >= 0; --i) font->driver->getglyph(font->state, codes[i], &array[i]);
    *glyphs = array;
  }
  std::free(codes);
  return 0;
}

int32_t travik_font_getglyphextents(travik_font *font, const travik_font_glyph *glyphs,
                                    int32_t count, travik_font_extents *extents) {
  extents->x = 0;
  extents->y = 0;
  extents->width = 0;
  extents->height = static_cast<int16_t>(travik_font_getheight(font));
  for (int32_t i = count - 1; i >= 0; --i) {
    extents->width = static_cast<int16_t>(extents->width + glyphs[i].word[4]);
    auto height = static_cast<int16_t>(glyphs[i].word[6] + glyphs[i].word[3]);
    if (height > extents->height) extents->height = height;
  }
  return 0;
}

int32_t travik_font_getstringextents(travik_font *font, const char *text, int32_t length,
                                     travik_font_extents *extents) {
  travik_font_glyph *glyphs = nullptr;
  int32_t count = 0;
  travik_font_string2glyph(font, text, length, &glyphs, &count);
  travik_font_getglyphextents(font, glyphs, count, extents);
  std::free(glyphs);
  return 0;
}

}  // extern "C"
