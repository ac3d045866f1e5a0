// travik_font_string2glyph and the extents over arbitrary bytes, with a
// handed-in driver that checks each code it is asked for.
#include <travik/font.h>

#include <cstdlib>

namespace {

void *open(travik_font *font, const char *) { return font; }
void close(void *) {}
int32_t getmetrics(void *, int32_t *first, int32_t *second) {
  *first = 10;
  *second = -3;
  return 0;
}
int32_t getglyph(void *, uint16_t code, travik_font_glyph *glyph) {
  // Records arrive zero-filled.
  for (int16_t word : glyph->word) {
    if (word) __builtin_trap();
  }
  glyph->word[0] = static_cast<int16_t>(code);
  glyph->word[3] = static_cast<int16_t>(code & 15);
  glyph->word[4] = static_cast<int16_t>(code >> 12);
  glyph->word[6] = static_cast<int16_t>(code >> 8);
  return 0;
}
int32_t render(void *, const travik_font_glyph *, uint8_t *, int32_t, int32_t, int32_t) { return 0; }

const travik_font_driver driver = {"fuzz", "", open, close, getmetrics, getglyph, render};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static travik_font *font = travik_font_create("fuzz", 16, &driver);
  travik_font_glyph *glyphs = nullptr;
  int32_t count = 0;
  const char *text = reinterpret_cast<const char *>(data);
  const auto length = static_cast<int32_t>(size);
  if (travik_font_string2glyph(font, text, length, &glyphs, &count) != 0) return 0;
  // At most one character a byte; no array without characters.
  if (count < 0 || count > length || (count == 0) != (glyphs == nullptr)) __builtin_trap();
  travik_font_extents extents;
  travik_font_getglyphextents(font, glyphs, count, &extents);
  std::free(glyphs);
  travik_font_getstringextents(font, text, length, &extents);
  return 0;
}
