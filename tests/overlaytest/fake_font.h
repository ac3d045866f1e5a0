// A font driver with fixed, easily predicted glyphs, for the font and
// drawing tests and the fake font plugin. Metrics 12 and -4 (line height
// 19). A glyph is a solid box of coverage FAKE_FONT_INK: 4 columns wide
// at x offset 1, rows 2 to 11 below the line top (ascent 10, depth 1),
// advance 6 (plus the font's spacing). The code 0x7E ('~') has a box that
// reaches outside its line: x offset -2, y offset -3, 8 x 20.
#pragma once

#include <travik/font.h>

#include <cstdlib>
#include <cstring>

namespace fake_font {

constexpr uint8_t kInk = 200;

struct State {
  travik_font *font;
  int32_t renders;
};

inline void *open(travik_font *font, const char *path) {
  if (std::strstr(path, "fail")) return nullptr;
  auto *state = static_cast<State *>(std::calloc(1, sizeof(State)));
  state->font = font;
  return state;
}

inline void close(void *state) { std::free(state); }

inline int32_t getmetrics(void *, int32_t *first, int32_t *second) {
  *first = 12;
  *second = -4;
  return 0;
}

inline int32_t getglyph(void *state, uint16_t code, travik_font_glyph *glyph) {
  auto *s = static_cast<State *>(state);
  const bool wide = code == 0x7E;
  glyph->word[0] = static_cast<int16_t>(code);
  glyph->word[1] = wide ? -2 : 1;
  glyph->word[2] = wide ? -3 : 2;
  glyph->word[3] = 10;
  glyph->word[4] = static_cast<int16_t>(6 + (s->font ? s->font->spacing : 0));
  glyph->word[5] = wide ? 8 : 4;
  glyph->word[6] = wide ? 7 : 1;  // word[2] + word[7] - word[3]
  glyph->word[7] = wide ? 20 : 9;
  return 0;
}

inline int32_t render(void *state, const travik_font_glyph *glyph, uint8_t *image, int32_t x,
                      int32_t y, int32_t pitch) {
  static_cast<State *>(state)->renders++;
  for (int32_t j = 0; j < glyph->word[7]; ++j) {
    for (int32_t i = 0; i < glyph->word[5]; ++i) image[(y + j) * pitch + x + i] = kInk;
  }
  return 0;
}

inline const travik_font_driver *driver() {
  static const travik_font_driver table[] = {
      {"fake font", "fnt,fake", open, close, getmetrics, getglyph, render},
      {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
  };
  return table;
}

}  // namespace fake_font
