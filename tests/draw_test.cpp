// Drawing surfaces, blits in every format pair, outlined text placement
// (with the fake font of overlaytest/fake_font.h) and colour names.
#include <gtest/gtest.h>
#include <strings.h>
#include <travik/travik.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>
#include <vector>

#include "fake_font.h"
#include "overlay/colors.h"

namespace {

// Bytes of a colour in memory order (ignored, red, green, blue).
uint32_t color(uint8_t red, uint8_t green, uint8_t blue) {
  const uint8_t bytes[4] = {0xFF, red, green, blue};
  uint32_t value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

uint32_t pixel32(const travik_draw *d, int x, int y = 0) {
  uint32_t value;
  std::memcpy(&value, d->planes[0] + y * d->pitches[0] + 4 * x, sizeof value);
  return value;
}

// A coverage surface of w x h with every mask value `a`.
travik_draw *coverage(int w, int h, uint8_t a, uint32_t c = 0xFFFFFFFFu) {
  travik_draw *s = travik_draw_create(w, h, nullptr, nullptr, TRAVIK_PIXEL_GRAY8);
  std::memset(s->mask, a, static_cast<size_t>(w * h));
  s->color = c;
  return s;
}

// The bounding box of the non-zero mask values: x0, y0, x1, y1 (inclusive).
std::vector<int> mask_box(const travik_draw *d) {
  std::vector<int> box = {d->width, d->height, -1, -1};
  for (int y = 0; y < d->height; ++y) {
    for (int x = 0; x < d->width; ++x) {
      if (!d->mask[y * d->width + x]) continue;
      box[0] = std::min(box[0], x);
      box[1] = std::min(box[1], y);
      box[2] = std::max(box[2], x);
      box[3] = std::max(box[3], y);
    }
  }
  return box;
}

TEST(DrawCreate, OwnYuvPlanesShareOneBlock) {
  travik_draw *d = travik_draw_create(10, 10, nullptr, nullptr, TRAVIK_PIXEL_YUV420P);
  // 100 pixels round up to a 128-byte luma plane.
  EXPECT_EQ(d->owned, 1);
  EXPECT_EQ(d->pitches[0], 12);
  EXPECT_EQ(d->pitches[1], 6);
  EXPECT_EQ(d->pitches[2], 6);
  EXPECT_EQ(d->planes[2], d->planes[0] + 128);
  EXPECT_EQ(d->planes[1], d->planes[0] + 160);
  for (int i = 0; i < 192; ++i) ASSERT_EQ(d->planes[0][i], 0);
  EXPECT_EQ(d->clip.x, 0);
  EXPECT_EQ(d->clip.y, 0);
  EXPECT_EQ(d->clip.w, 10);
  EXPECT_EQ(d->clip.h, 10);
  for (int i = 0; i < 100; ++i) ASSERT_EQ(d->mask[i], 0);
  EXPECT_EQ(d->font, nullptr);
  EXPECT_EQ(d->color, 0u);
  travik_draw_destroy(d);
}

TEST(DrawCreate, OwnPackedPlanes) {
  const struct {
    int32_t format;
    int32_t pitch;
  } cases[] = {{3, 28}, {5, 28}, {6, 14}, {7, 14}, {8, 7}};
  for (const auto &c : cases) {
    travik_draw *d = travik_draw_create(7, 3, nullptr, nullptr, c.format);
    EXPECT_EQ(d->owned, 1) << c.format;
    EXPECT_EQ(d->pitches[0], c.pitch) << c.format;
    ASSERT_NE(d->planes[0], nullptr);
    for (int i = 0; i < c.pitch * 3; ++i) ASSERT_EQ(d->planes[0][i], 0);
    travik_draw_destroy(d);
  }
  for (int32_t format : {0, 2, 4, 9, 10}) {
    travik_draw *d = travik_draw_create(7, 3, nullptr, nullptr, format);
    EXPECT_EQ(d->owned, 0) << format;
    EXPECT_EQ(d->planes[0], nullptr) << format;
    travik_draw_destroy(d);
  }
}

TEST(DrawCreate, CallersPlanesAreTakenAsTheFormatNeeds) {
  uint8_t a[64], b[16], c[16];
  uint8_t *planes[3] = {a, b, c};
  int32_t pitches[3] = {8, 4, 4};
  travik_draw *d = travik_draw_create(8, 8, planes, pitches, TRAVIK_PIXEL_YUV420P);
  EXPECT_EQ(d->owned, 0);
  EXPECT_EQ(d->planes[0], a);
  EXPECT_EQ(d->planes[1], b);
  EXPECT_EQ(d->planes[2], c);
  EXPECT_EQ(d->pitches[1], 4);
  travik_draw_destroy(d);
  d = travik_draw_create(4, 4, planes, pitches, TRAVIK_PIXEL_ARGB32);
  EXPECT_EQ(d->planes[0], a);
  EXPECT_EQ(d->planes[1], nullptr);
  EXPECT_EQ(d->pitches[0], 8);
  travik_draw_destroy(d);
  // A coverage surface never takes planes.
  d = travik_draw_create(4, 4, planes, pitches, TRAVIK_PIXEL_GRAY8);
  EXPECT_EQ(d->planes[0], nullptr);
  EXPECT_EQ(d->owned, 0);
  travik_draw_destroy(d);
}

TEST(DrawCreate, EmptyAndNegativeSizesMakeEmptySurfaces) {
  travik_draw *d = travik_draw_create(0, 0, nullptr, nullptr, TRAVIK_PIXEL_YUV420P);
  travik_draw *s = coverage(4, 4, 255);
  EXPECT_EQ(travik_draw_blit(d, 0, 0, 4, 4, s, 0, 0), 0);
  travik_draw_destroy(d);
  d = travik_draw_create(-5, 3, nullptr, nullptr, TRAVIK_PIXEL_ARGB32);
  EXPECT_EQ(d->width, 0);
  EXPECT_EQ(travik_draw_blit(d, 0, 0, 4, 4, s, 0, 0), 0);
  travik_draw_destroy(d);
  travik_draw_destroy(s);
}

TEST(Draw, SetclipChangesOnlyTheSize) {
  travik_draw *d = travik_draw_create(200, 100, nullptr, nullptr, TRAVIK_PIXEL_ARGB32);
  travik_draw_rect rect = {10, 10, 100, 50};
  EXPECT_EQ(travik_draw_setclip(d, &rect), 0);
  EXPECT_EQ(d->clip.x, 0);
  EXPECT_EQ(d->clip.y, 0);
  EXPECT_EQ(d->clip.w, 100);
  EXPECT_EQ(d->clip.h, 50);
  rect = {0, 0, 500, 500};
  travik_draw_setclip(d, &rect);
  EXPECT_EQ(d->clip.w, 200);
  EXPECT_EQ(d->clip.h, 100);
  travik_draw_destroy(d);
}

TEST(Draw, SetcolorClearAndSetfont) {
  travik_draw *d = travik_draw_create(4, 4, nullptr, nullptr, TRAVIK_PIXEL_GRAY8);
  EXPECT_EQ(travik_draw_setcolor(d, 0x12345678u), 0);
  EXPECT_EQ(d->color, 0x12345678u);
  std::memset(d->mask, 7, 16);
  EXPECT_EQ(travik_draw_clear(d), 0);
  for (int i = 0; i < 16; ++i) ASSERT_EQ(d->mask[i], 0);
  travik_font *font = travik_font_create("f", 12, fake_font::driver());
  EXPECT_EQ(travik_draw_setfont(d, font), 0);
  EXPECT_EQ(d->font, font);
  travik_font_destroy(font);
  travik_draw_destroy(d);
}

TEST(DrawDeathTest, NullFontAborts) {
  travik_draw *d = travik_draw_create(4, 4, nullptr, nullptr, TRAVIK_PIXEL_GRAY8);
  EXPECT_DEATH(travik_draw_setfont(d, nullptr),
               "CRITICAL \\[font\\] \\*\\*\\* \\[draw:138 in travik_draw_setfont \\(\\)\\]");
  travik_draw_destroy(d);
}

TEST(Blit, CoverageOntoYuvDrawsWholeTwoByTwoBlocksOnly) {
  travik_draw *t = travik_draw_create(8, 8, nullptr, nullptr, TRAVIK_PIXEL_YUV420P);
  std::memset(t->planes[0], 100, static_cast<size_t>(t->pitches[0] * 8));
  travik_draw *s = coverage(3, 3, 90);
  EXPECT_EQ(travik_draw_blit(t, 1, 1, 3, 3, s, 0, 0), 0);
  for (int y = 0; y < 8; ++y) {
    for (int x = 0; x < 8; ++x) {
      const bool drawn = x >= 1 && x <= 2 && y >= 1 && y <= 2;
      EXPECT_EQ(t->mask[y * 8 + x], drawn ? 90 : 0) << x << "," << y;
      // No blending: white's studio luma wherever there is coverage (the
      // weights sum to 65535, so white is level 254, luma 234).
      EXPECT_EQ(t->planes[0][y * t->pitches[0] + x], drawn ? 234 : 100) << x << "," << y;
    }
  }
  // Chroma is never written.
  for (int i = 0; i < 16; ++i) {
    ASSERT_EQ(t->planes[1][i], 0);
    ASSERT_EQ(t->planes[2][i], 0);
  }
  travik_draw_destroy(t);
  travik_draw_destroy(s);
}

TEST(Blit, YuvLumaComesFromTheColourThroughTheStudioRange) {
  const struct {
    uint32_t color;
    uint8_t luma;
  } cases[] = {{color(0, 0, 0), 16},    {color(255, 255, 255), 234}, {color(255, 0, 0), 81},
               {color(0, 255, 0), 143}, {color(0, 0, 255), 40}};
  for (const auto &c : cases) {
    travik_draw *t = travik_draw_create(2, 2, nullptr, nullptr, TRAVIK_PIXEL_YUV420P);
    travik_draw *s = coverage(2, 2, 255, c.color);
    travik_draw_blit(t, 0, 0, 2, 2, s, 0, 0);
    EXPECT_EQ(t->planes[0][0], c.luma);
    travik_draw_destroy(t);
    travik_draw_destroy(s);
  }
}

TEST(Blit, ZeroCoverageLeavesThePixel) {
  travik_draw *t = travik_draw_create(2, 2, nullptr, nullptr, TRAVIK_PIXEL_YUV420P);
  t->planes[0][0] = 50;
  t->mask[0] = 9;
  travik_draw *s = coverage(2, 2, 0);
  travik_draw_blit(t, 0, 0, 2, 2, s, 0, 0);
  EXPECT_EQ(t->planes[0][0], 50);
  EXPECT_EQ(t->mask[0], 9);
  travik_draw_destroy(t);
  travik_draw_destroy(s);
}

TEST(Blit, YuvOverYuvBlendsLumaByCoverage) {
  travik_draw *t = travik_draw_create(4, 2, nullptr, nullptr, TRAVIK_PIXEL_YUV420P);
  travik_draw *s = travik_draw_create(4, 2, nullptr, nullptr, TRAVIK_PIXEL_YUV420P);
  const uint8_t alpha[4] = {255, 128, 0, 1};
  for (int y = 0; y < 2; ++y) {
    for (int x = 0; x < 4; ++x) {
      t->planes[0][y * t->pitches[0] + x] = 100;
      s->planes[0][y * s->pitches[0] + x] = 200;
      s->mask[y * 4 + x] = alpha[x];
    }
  }
  travik_draw_blit(t, 0, 0, 4, 2, s, 0, 0);
  EXPECT_EQ(t->planes[0][0], 200);
  EXPECT_EQ(t->planes[0][1], (200 * 128 + 127 * 100) >> 8);
  EXPECT_EQ(t->planes[0][2], 100);
  EXPECT_EQ(t->planes[0][3], (200 * 1 + 254 * 100) >> 8);
  EXPECT_EQ(t->mask[1], 128);
  EXPECT_EQ(t->mask[2], 0);
  travik_draw_destroy(t);
  travik_draw_destroy(s);
}

TEST(Blit, CoverageOnto32BitBlendsTheWholeWord) {
  travik_draw *t = travik_draw_create(4, 1, nullptr, nullptr, TRAVIK_PIXEL_ARGB32);
  travik_draw *s = coverage(4, 1, 0);
  const uint8_t alpha[4] = {128, 255, 0, 3};
  for (int x = 0; x < 4; ++x) s->mask[x] = alpha[x];
  const uint32_t start = 0x00204060u;
  for (int x = 1; x < 4; ++x) std::memcpy(t->planes[0] + 4 * x, &start, 4);
  travik_draw_blit(t, 0, 0, 4, 1, s, 0, 0);
  // 0xFFFFFFFF * 128 wraps to 0xFFFFFF80 before the shift.
  EXPECT_EQ(pixel32(t, 0), 0x00FFFFFFu);
  EXPECT_EQ(pixel32(t, 1), 0xFFFFFFFFu);
  EXPECT_EQ(pixel32(t, 2), start);
  EXPECT_EQ(pixel32(t, 3), static_cast<uint32_t>(start * 252u + 0xFFFFFFFFu * 3u) >> 8);
  // The mask of a 32-bit target is not written.
  for (int x = 0; x < 4; ++x) EXPECT_EQ(t->mask[x], 0);
  travik_draw_destroy(t);
  travik_draw_destroy(s);
}

TEST(Blit, ThirtyTwoBitColourIsTakenFromItsBytes) {
  travik_draw *t = travik_draw_create(1, 1, nullptr, nullptr, TRAVIK_PIXEL_ARGB32);
  travik_draw *s = coverage(1, 1, 255, color(0x12, 0x34, 0x56));
  travik_draw_blit(t, 0, 0, 1, 1, s, 0, 0);
  EXPECT_EQ(pixel32(t, 0), 0xFF123456u);
  travik_draw_destroy(t);
  travik_draw_destroy(s);
}

// Runs a blit of a full 6 x 6 coverage of 255 onto a 10 x 10 target of
// `format` and returns which target pixels changed, as rows of '#' and '.'.
std::string blit_pattern(int32_t format, int x, int y, int w, int h, int sx, int sy,
                         const travik_draw_rect *clip = nullptr) {
  travik_draw *t = travik_draw_create(10, 10, nullptr, nullptr, format);
  if (clip) travik_draw_setclip(t, clip);
  travik_draw *s = coverage(6, 6, 255);
  travik_draw_blit(t, x, y, w, h, s, sx, sy);
  std::string out;
  for (int j = 0; j < 10; ++j) {
    for (int i = 0; i < 10; ++i) {
      bool changed = format == TRAVIK_PIXEL_ARGB32 ? pixel32(t, i, j) != 0
                                                   : t->planes[0][j * t->pitches[0] + i] != 0;
      out += changed ? '#' : '.';
    }
    out += '\n';
  }
  travik_draw_destroy(t);
  travik_draw_destroy(s);
  return out;
}

int count(const std::string &pattern) {
  return static_cast<int>(std::count(pattern.begin(), pattern.end(), '#'));
}

TEST(Blit, ClippingInEachDrawnPair) {
  for (int32_t format : {TRAVIK_PIXEL_YUV420P, TRAVIK_PIXEL_ARGB32}) {
    // Left and top edges: the source is advanced by what is cut.
    std::string p = blit_pattern(format, -2, -3, 6, 6, 0, 0);
    EXPECT_EQ(count(p), format == TRAVIK_PIXEL_YUV420P ? 4 * 2 : 4 * 3) << p;
    EXPECT_EQ(p[0], '#');
    // Right and bottom edges.
    p = blit_pattern(format, 7, 8, 6, 6, 0, 0);
    EXPECT_EQ(count(p), format == TRAVIK_PIXEL_YUV420P ? 2 * 2 : 3 * 2) << p;
    EXPECT_EQ(p[8 * 11 + 7], '#');
    // Wholly outside, and empty rectangles.
    EXPECT_EQ(count(blit_pattern(format, 10, 0, 6, 6, 0, 0)), 0);
    EXPECT_EQ(count(blit_pattern(format, -6, 0, 6, 6, 0, 0)), 0);
    EXPECT_EQ(count(blit_pattern(format, 0, 10, 6, 6, 0, 0)), 0);
    EXPECT_EQ(count(blit_pattern(format, 0, 0, 0, 6, 0, 0)), 0);
    EXPECT_EQ(count(blit_pattern(format, 0, 0, 6, -1, 0, 0)), 0);
    // A smaller clip rectangle.
    travik_draw_rect clip = {0, 0, 4, 4};
    EXPECT_EQ(count(blit_pattern(format, 0, 0, 6, 6, 0, 0, &clip)), 16);
    EXPECT_EQ(count(blit_pattern(format, 4, 0, 6, 6, 0, 0, &clip)), 0);
    // A source rectangle reaching past the source is cut to it.
    EXPECT_EQ(count(blit_pattern(format, 0, 0, 10, 10, 2, 2)), 16);
    // Source columns -2 and -1 do not exist: drawing starts 2 columns in.
    p = blit_pattern(format, 0, 0, 10, 10, -2, 0);
    EXPECT_EQ(count(p), 36) << p;
    EXPECT_EQ(p[2], '#');
  }
}

TEST(Blit, SourceOffsetReadsFromThere) {
  travik_draw *t = travik_draw_create(4, 4, nullptr, nullptr, TRAVIK_PIXEL_ARGB32);
  travik_draw *s = coverage(4, 4, 0);
  s->mask[2 * 4 + 3] = 255;
  travik_draw_blit(t, 0, 0, 2, 2, s, 2, 1);
  EXPECT_EQ(pixel32(t, 1, 1), 0xFFFFFFFFu);
  EXPECT_EQ(pixel32(t, 0, 0), 0u);
  travik_draw_destroy(t);
  travik_draw_destroy(s);
}

TEST(Blit, OtherFormatPairsDrawNothing) {
  const int32_t pairs[][2] = {{3, 8}, {6, 8}, {7, 8}, {8, 8}, {5, 1}, {5, 5}, {1, 5}, {1, 3}};
  for (const auto &pair : pairs) {
    travik_draw *t = travik_draw_create(4, 4, nullptr, nullptr, pair[0]);
    travik_draw *s = travik_draw_create(4, 4, nullptr, nullptr, pair[1]);
    std::memset(s->mask, 255, 16);
    if (s->planes[0]) std::memset(s->planes[0], 255, static_cast<size_t>(s->pitches[0] * 4));
    s->color = 0xFFFFFFFFu;
    EXPECT_EQ(travik_draw_blit(t, 0, 0, 4, 4, s, 0, 0), 0);
    for (int i = 0; i < 16; ++i) ASSERT_EQ(t->mask[i], 0) << pair[0] << "," << pair[1];
    if (t->planes[0]) {
      for (int i = 0; i < t->pitches[0] * 4; ++i)
        ASSERT_EQ(t->planes[0][i], 0) << pair[0] << "," << pair[1];
    }
    travik_draw_destroy(t);
    travik_draw_destroy(s);
  }
}

class DrawText : public ::testing::Test {
 protected:
  void SetUp() override { font_ = travik_font_create("f", 12, fake_font::driver()); }
  void TearDown() override { travik_font_destroy(font_); }
  travik_draw *yuv(int w, int h) {
    travik_draw *d = travik_draw_create(w, h, nullptr, nullptr, TRAVIK_PIXEL_YUV420P);
    travik_draw_setfont(d, font_);
    travik_draw_setcolor(d, 0xFFFFFFFFu);
    return d;
  }
  int renders() const { return static_cast<fake_font::State *>(font_->state)->renders; }
  travik_font *font_ = nullptr;
};

TEST_F(DrawText, WithoutFontReturnsTwo) {
  travik_draw *d = travik_draw_create(64, 48, nullptr, nullptr, TRAVIK_PIXEL_YUV420P);
  travik_draw_rect rect = {0, 0, 64, 48};
  EXPECT_EQ(travik_draw_drawtext(d, &rect, "ab", 2, 0), 2);
  travik_draw_destroy(d);
}

// "ab" is 12 x 19; its glyph boxes are columns 1-4 and 7-10, rows 2-10.
// The outline reaches rows 1 and 11, but the image's first and last
// columns are copied unchanged (empty), so coverage spans columns 1-10.
TEST_F(DrawText, PlacementFlags) {
  const travik_draw_rect rect = {10, 6, 40, 31};
  const struct {
    int32_t flags;
    int left;
    int top;
  } cases[] = {
      {0, 10, 6},
      {TRAVIK_DRAW_RIGHT, 10 + 40 - 12, 6},
      {TRAVIK_DRAW_HCENTER, 10 + 14, 6},
      {TRAVIK_DRAW_RIGHT | TRAVIK_DRAW_HCENTER, 10 + 40 - 12, 6},
      {TRAVIK_DRAW_BOTTOM, 10, 6 + 31 - 19},
      {TRAVIK_DRAW_VCENTER, 10, 6 + 6},
      {TRAVIK_DRAW_BOTTOM | TRAVIK_DRAW_VCENTER, 10, 6 + 31 - 19},
      {TRAVIK_DRAW_HCENTER | TRAVIK_DRAW_VCENTER, 10 + 14, 6 + 6},
  };
  for (const auto &c : cases) {
    travik_draw *d = yuv(64, 48);
    EXPECT_EQ(travik_draw_drawtext(d, &rect, "ab", 2, c.flags), 0);
    EXPECT_EQ(mask_box(d), (std::vector<int>{c.left + 1, c.top + 1, c.left + 10, c.top + 11}))
        << "flags " << c.flags;
    travik_draw_destroy(d);
  }
}

TEST_F(DrawText, CentringRoundsTowardsMinusInfinity) {
  // (3 - 12) >> 1 = -5: the text starts at 15, its coverage at 16.
  travik_draw *d = yuv(64, 48);
  travik_draw_rect rect = {20, 0, 3, 19};
  travik_draw_drawtext(d, &rect, "ab", 2, TRAVIK_DRAW_HCENTER);
  EXPECT_EQ(mask_box(d)[0], 16);
  travik_draw_destroy(d);
}

TEST_F(DrawText, TextWiderThanTheRectangleIsClippedOnlyByTheClip) {
  travik_draw *d = yuv(64, 48);
  travik_draw_rect rect = {0, 0, 4, 19};
  // left = 0 + (4 - 12) / 2 = -4: columns -4..7, of which 0..7 are on the
  // surface; coverage ends at relative column 10, that is 6.
  travik_draw_drawtext(d, &rect, "ab", 2, TRAVIK_DRAW_HCENTER);
  EXPECT_EQ(mask_box(d), (std::vector<int>{0, 1, 6, 11}));
  travik_draw_destroy(d);
  // Centred at 10, it starts left of the rectangle at 6.
  d = yuv(64, 48);
  rect = {10, 0, 4, 19};
  travik_draw_drawtext(d, &rect, "ab", 2, TRAVIK_DRAW_HCENTER);
  EXPECT_EQ(mask_box(d), (std::vector<int>{7, 1, 16, 11}));
  travik_draw_destroy(d);
}

TEST_F(DrawText, OutlineAndTextValues) {
  travik_draw *d = yuv(64, 48);
  travik_draw_rect rect = {10, 10, 40, 19};
  travik_draw_drawtext(d, &rect, "ab", 2, 0);
  auto mask = [&](int x, int y) { return d->mask[(10 + y) * 64 + 10 + x]; };
  auto luma = [&](int x, int y) { return d->planes[0][(10 + y) * d->pitches[0] + 10 + x]; };
  // Inside a glyph box: the text's coverage and white's luma.
  EXPECT_EQ(mask(1, 2), fake_font::kInk);
  EXPECT_EQ(luma(1, 2), 234);
  EXPECT_EQ(mask(10, 10), fake_font::kInk);
  // Between the boxes: left 200 + diagonals (200 + 200) / 2 = 400 -> 255, black.
  EXPECT_EQ(mask(5, 5), 255);
  EXPECT_EQ(luma(5, 5), 16);
  EXPECT_EQ(mask(6, 5), 255);
  // Diagonal corners: only one diagonal neighbour, halved.
  EXPECT_EQ(mask(5, 1), 100);
  EXPECT_EQ(luma(5, 1), 16);
  EXPECT_EQ(mask(5, 11), 100);
  // Above a box: down 200 + two diagonals 200 / 2 -> 255.
  EXPECT_EQ(mask(2, 1), 255);
  // First row, first and last columns copied unchanged; nothing further out.
  EXPECT_EQ(mask(2, 0), 0);
  EXPECT_EQ(mask(0, 5), 0);
  EXPECT_EQ(mask(11, 5), 0);
  EXPECT_EQ(luma(11, 5), 0);
  EXPECT_EQ(mask(5, 12), 0);
  travik_draw_destroy(d);
}

TEST_F(DrawText, OnA32BitSurface) {
  travik_draw *d = travik_draw_create(32, 24, nullptr, nullptr, TRAVIK_PIXEL_ARGB32);
  travik_draw_setfont(d, font_);
  travik_draw_setcolor(d, color(255, 255, 0));  // yellow
  travik_draw_rect rect = {0, 0, 32, 24};
  EXPECT_EQ(travik_draw_drawtext(d, &rect, "ab", 2, 0), 0);
  // Outline 255 gives opaque black, then the text at 200 over it, each
  // blended as one 32-bit word.
  const uint32_t yellow = 0xFFFFFF00u;
  EXPECT_EQ(pixel32(d, 2, 5), static_cast<uint32_t>(0xFF000000u * 55u + yellow * 200u) >> 8);
  EXPECT_EQ(pixel32(d, 5, 5), 0xFF000000u);
  EXPECT_EQ(pixel32(d, 5, 1), static_cast<uint32_t>(0xFF000000u * 100u) >> 8);
  EXPECT_EQ(pixel32(d, 2, 0), 0u);
  EXPECT_EQ(pixel32(d, 20, 20), 0u);
  travik_draw_destroy(d);
}

TEST_F(DrawText, NothingToDraw) {
  travik_draw *d = yuv(64, 48);
  travik_draw_rect rect = {0, 0, 64, 48};
  EXPECT_EQ(travik_draw_drawtext(d, &rect, "", 0, 0), 0);
  // Wholly outside the clip rectangle: not even rendered.
  rect = {64, 0, 64, 48};
  EXPECT_EQ(travik_draw_drawtext(d, &rect, "ab", 2, 0), 0);
  rect = {0, -19, 64, 19};
  EXPECT_EQ(travik_draw_drawtext(d, &rect, "ab", 2, 0), 0);
  travik_draw_rect clip = {0, 0, 10, 10};
  travik_draw_setclip(d, &clip);
  rect = {10, 0, 64, 48};
  EXPECT_EQ(travik_draw_drawtext(d, &rect, "ab", 2, 0), 0);
  EXPECT_EQ(renders(), 0);
  EXPECT_EQ(mask_box(d)[2], -1);
  travik_draw_destroy(d);
}

TEST_F(DrawText, GlyphsReachingOutsideTheImageAreCut) {
  // '~' is drawn 8 x 20 at (-2, -3) in a 6 x 19 image: only its visible
  // part lands, and nothing is written outside the image.
  travik_draw *d = yuv(64, 48);
  travik_draw_rect rect = {8, 8, 40, 30};
  EXPECT_EQ(travik_draw_drawtext(d, &rect, "~~", 2, 0), 0);
  EXPECT_EQ(renders(), 2);
  EXPECT_EQ(d->mask[8 * 64 + 8], fake_font::kInk);
  EXPECT_EQ(mask_box(d), (std::vector<int>{8, 8, 19, 25}));
  travik_draw_destroy(d);
}

TEST(ColorNames, AnyCase) {
  EXPECT_EQ(travik_string2rgb("white"), 0xFFFFFFFFu);
  EXPECT_EQ(travik_string2rgb("WHITE"), 0xFFFFFFFFu);
  EXPECT_EQ(travik_string2rgb("WhItE"), 0xFFFFFFFFu);
  EXPECT_EQ(travik_string2rgb("GhostWhite"), 0xFFF8F8FFu);
  EXPECT_EQ(travik_string2rgb("ghost white"), 0xFFF8F8FFu);
  EXPECT_EQ(travik_string2rgb("GHOST WHITE"), 0xFFF8F8FFu);
  EXPECT_EQ(travik_string2rgb("snow"), 0xFFFFFAFAu);
  EXPECT_EQ(travik_string2rgb("SkyBlue1"), 0xFF87CEFFu);
  EXPECT_EQ(travik_string2rgb("goldenrod1"), 0xFFFFC125u);
  EXPECT_EQ(travik_string2rgb("gray32"), 0xFF525252u);
  EXPECT_EQ(travik_string2rgb("gray82"), 0xFFD1D1D1u);
  EXPECT_EQ(travik_string2rgb("black"), 0xFF000000u);
  EXPECT_EQ(travik_string2rgb("LightGreen"), 0xFF90EE90u);
}

TEST(ColorNames, UnknownNamesGiveZero) {
  EXPECT_EQ(travik_string2rgb("no such colour"), 0u);
  EXPECT_EQ(travik_string2rgb(""), 0u);
  EXPECT_EQ(travik_string2rgb("#FFFFFF"), 0u);
  EXPECT_EQ(travik_string2rgb("whitey"), 0u);
  EXPECT_EQ(travik_string2rgb("DebianRed"), 0u);
}

TEST(ColorNames, TheStandardListInItsOrder) {
  int n = 0;
  while (travik_color_names[n].name) ++n;
  EXPECT_EQ(n, 752);
  EXPECT_STREQ(travik_color_names[0].name, "snow");
  EXPECT_EQ(travik_color_names[0].value, 0xFFFAFAu);
  EXPECT_STREQ(travik_color_names[1].name, "ghost white");
  EXPECT_STREQ(travik_color_names[2].name, "GhostWhite");
  EXPECT_STREQ(travik_color_names[n - 2].name, "light green");
  EXPECT_STREQ(travik_color_names[n - 1].name, "LightGreen");
  EXPECT_EQ(travik_color_names[n - 1].value, 0x90EE90u);
  // Every name with spaces is followed by its joined, capitalised form.
  for (int i = 0; i < n; ++i) {
    const std::string name = travik_color_names[i].name;
    if (name.find(' ') == std::string::npos) continue;
    std::string joined;
    bool upper = true;
    for (char c : name) {
      if (c == ' ') {
        upper = true;
        continue;
      }
      joined += upper ? static_cast<char>(std::toupper(static_cast<unsigned char>(c))) : c;
      upper = false;
    }
    ASSERT_LT(i + 1, n);
    EXPECT_EQ(travik_color_names[i + 1].value, travik_color_names[i].value) << name;
    EXPECT_EQ(strcasecmp(travik_color_names[i + 1].name, joined.c_str()), 0) << name;
  }
}

}  // namespace
