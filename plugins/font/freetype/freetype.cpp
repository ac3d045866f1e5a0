// Font driver over FreeType: TrueType, OpenType, Type 1 and WOFF files at a
// pixel size, with rendered glyph bitmaps cached so that text drawn again
// is not rasterised again.
#include <travik/font.h>

#include <ft2build.h>
#include FT_FREETYPE_H

#include <algorithm>
#include <cstring>
#include <unordered_map>
#include <vector>

namespace {

// Bitmaps beyond this many pixels a side come only from broken fonts.
constexpr int32_t kMaxBitmapSide = 4096;

struct Bitmap {
  int32_t left;     // columns from the pen to the bitmap
  int32_t top;      // rows from the baseline up to the bitmap's top
  int32_t advance;  // pixels, before the font's spacing
  int32_t width;
  int32_t rows;
  std::vector<uint8_t> coverage;  // width x rows
};

struct Face {
  travik_font *font;
  FT_Library library;
  FT_Face face;
  int32_t ascender;   // pixels above the baseline
  int32_t descender;  // pixels below it, negative
  std::unordered_map<uint32_t, Bitmap> cache;  // by glyph index
};

int16_t clamp16(int32_t v) { return static_cast<int16_t>(std::max(-32768, std::min(32767, v))); }

// The rendered glyph `index`, rasterised on first use.
const Bitmap &bitmap(Face *f, uint32_t index) {
  auto found = f->cache.find(index);
  if (found != f->cache.end()) return found->second;
  Bitmap b{0, 0, 0, 0, 0, {}};
  if (FT_Load_Glyph(f->face, index, FT_LOAD_RENDER) == 0) {
    const FT_GlyphSlot slot = f->face->glyph;
    const FT_Bitmap &source = slot->bitmap;
    b.advance = static_cast<int32_t>((slot->advance.x + 32) >> 6);
    if (source.pixel_mode == FT_PIXEL_MODE_GRAY && source.num_grays == 256 &&
        source.width <= kMaxBitmapSide && source.rows <= kMaxBitmapSide && source.buffer) {
      b.left = slot->bitmap_left;
      b.top = slot->bitmap_top;
      b.width = static_cast<int32_t>(source.width);
      b.rows = static_cast<int32_t>(source.rows);
      b.coverage.resize(static_cast<size_t>(b.width) * static_cast<size_t>(b.rows));
      for (int32_t y = 0; y < b.rows; ++y) {
        std::memcpy(&b.coverage[static_cast<size_t>(y * b.width)], source.buffer + y * source.pitch,
                    static_cast<size_t>(b.width));
      }
    }
  }
  return f->cache.emplace(index, std::move(b)).first->second;
}

void *ft_open(travik_font *font, const char *path) {
  auto *f = new Face{font, nullptr, nullptr, 0, 0, {}};
  if (FT_Init_FreeType(&f->library) != 0) {
    delete f;
    return nullptr;
  }
  // The size is the em height in pixels.
  if (FT_New_Face(f->library, path, 0, &f->face) != 0 ||
      FT_Set_Pixel_Sizes(f->face, 0, static_cast<FT_UInt>(font->size)) != 0) {
    if (f->face) FT_Done_Face(f->face);
    FT_Done_FreeType(f->library);
    delete f;
    return nullptr;
  }
  const FT_Size_Metrics &m = f->face->size->metrics;
  f->ascender = static_cast<int32_t>((m.ascender + 63) >> 6);
  f->descender = static_cast<int32_t>(m.descender >> 6);
  return f;
}

void ft_close(void *state) {
  auto *f = static_cast<Face *>(state);
  FT_Done_Face(f->face);
  FT_Done_FreeType(f->library);
  delete f;
}

int32_t ft_getmetrics(void *state, int32_t *first, int32_t *second) {
  auto *f = static_cast<Face *>(state);
  *first = f->ascender;
  *second = f->descender;
  return 0;
}

// Glyph index 0, a character the font lacks, is the font's missing glyph.
int32_t ft_getglyph(void *state, uint16_t code, travik_font_glyph *glyph) {
  auto *f = static_cast<Face *>(state);
  const uint32_t index = FT_Get_Char_Index(f->face, code);
  const Bitmap &b = bitmap(f, index);
  const int32_t y = f->ascender - b.top;
  glyph->word[0] = static_cast<int16_t>(code);
  glyph->word[1] = clamp16(b.left);
  glyph->word[2] = clamp16(y);
  glyph->word[3] = clamp16(f->ascender);
  glyph->word[4] = clamp16(b.advance + f->font->spacing);
  glyph->word[5] = clamp16(b.width);
  glyph->word[6] = clamp16(y + b.rows - f->ascender);
  glyph->word[7] = clamp16(b.rows);
  glyph->word[8] = static_cast<int16_t>(index & 0xFFFF);
  glyph->word[9] = static_cast<int16_t>(index >> 16);
  return 0;
}

int32_t ft_render(void *state, const travik_font_glyph *glyph, uint8_t *image, int32_t x,
                  int32_t y, int32_t pitch) {
  auto *f = static_cast<Face *>(state);
  const uint32_t index = static_cast<uint16_t>(glyph->word[8]) |
                         static_cast<uint32_t>(static_cast<uint16_t>(glyph->word[9])) << 16;
  const Bitmap &b = bitmap(f, index);
  for (int32_t row = 0; row < b.rows; ++row) {
    const uint8_t *from = &b.coverage[static_cast<size_t>(row * b.width)];
    uint8_t *to = image + (y + row) * pitch + x;
    for (int32_t i = 0; i < b.width; ++i) to[i] = std::max(to[i], from[i]);
  }
  return 0;
}

const travik_font_driver drivers[] = {
    {"FreeType fonts", "ttf,otf,ttc,pfb,pfa,woff", ft_open, ft_close, ft_getmetrics,
     ft_getglyph, ft_render},
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
};

}  // namespace

TRAVIK_PLUGIN_EXPORT void travik_font_freetype(void) {
  travik_plugin_register(TRAVIK_PLUGIN_FONT, TRAVIK_PLUGIN_VERSION,
                         const_cast<travik_font_driver *>(drivers));
}
