// The "freetype" font plugin with DejaVu Sans, and subtitle text drawn onto
// video frames the way the player's overlay does it: a two-line entry from
// the "text" plugin onto a 4:2:0 frame, and a line onto a 32-bit frame.
// Both frames are written as PNG files into the build tree for a look.
#include <gtest/gtest.h>
#include <travik/travik.h>
#include <util/testutil.h>

#ifdef TRAVIK_TEST_HAVE_PNG
#include <png.h>
#endif
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

::testing::Environment *const environment = ::testing::AddGlobalTestEnvironment(
    new travik_test::LibraryEnvironment(TRAVIK_TEST_BINARY_DIR "/plugins"));

const char kFont[] = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";

bool have_font() {
  struct stat info;
  return stat(kFont, &info) == 0;
}

#define SKIP_WITHOUT_FONT() \
  if (!have_font()) GTEST_SKIP() << kFont << " is not installed"

// Coverage of one glyph rendered alone: (width, rows, sum of coverage).
struct Rendered {
  int width, rows;
  long sum;
};
Rendered render(travik_font *font, uint16_t code) {
  travik_font_glyph g = {};
  EXPECT_EQ(travik_font_getglyph(font, code, &g), 0);
  const int w = g.word[5], h = g.word[7];
  std::vector<uint8_t> image(static_cast<size_t>(std::max(1, w * h)), 0);
  if (w > 0 && h > 0) travik_font_render(font, &g, image.data(), 0, 0, w);
  long sum = 0;
  for (uint8_t v : image) sum += v;
  return {w, h, sum};
}

TEST(FreeType, ChosenByExtension) {
  SKIP_WITHOUT_FONT();
  travik_font *font = travik_font_create(kFont, 24, nullptr);
  ASSERT_NE(font, nullptr);
  EXPECT_NE(font->plugin, nullptr);
  EXPECT_STREQ(font->driver->description, "FreeType fonts");
  travik_font_destroy(font);
}

TEST(FreeType, SizesTwelveTwentyFourAndFortyEight) {
  SKIP_WITHOUT_FONT();
  for (int size : {12, 24, 48}) {
    travik_font *font = travik_font_create(kFont, size, nullptr);
    ASSERT_NE(font, nullptr) << size;
    int32_t ascender = 0, descender = 0;
    font->driver->getmetrics(font->state, &ascender, &descender);
    EXPECT_GT(ascender, size * 3 / 4) << size;
    EXPECT_LE(ascender, size * 5 / 4) << size;
    EXPECT_LT(descender, 0) << size;
    EXPECT_GE(descender, -size / 2) << size;
    const int32_t height = travik_font_getheight(font);
    EXPECT_EQ(height, ascender - descender + 3);
    EXPECT_GE(height, size) << size;
    EXPECT_LE(height, size * 3 / 2 + 3) << size;

    travik_font_glyph m = {}, i = {}, space = {};
    travik_font_getglyph(font, 'M', &m);
    travik_font_getglyph(font, 'i', &i);
    travik_font_getglyph(font, ' ', &space);
    EXPECT_EQ(m.word[0], 'M');
    // Advances: 'M' about 0.86 em, 'i' about 0.28 em, a space about 0.32 em.
    EXPECT_GE(m.word[4], size * 7 / 10) << size;
    EXPECT_LE(m.word[4], size) << size;
    EXPECT_LT(i.word[4], m.word[4]) << size;
    EXPECT_GT(space.word[4], 0) << size;
    EXPECT_EQ(space.word[5] * space.word[7], 0) << size;  // nothing to draw
    // 'M' stands on the baseline, cap height about 0.73 em.
    EXPECT_EQ(m.word[3], ascender);
    EXPECT_EQ(m.word[2] + m.word[7], ascender) << size;
    EXPECT_EQ(m.word[6], 0) << size;
    EXPECT_GE(m.word[7], size * 6 / 10) << size;
    EXPECT_LE(m.word[7], size * 8 / 10 + 1) << size;
    // 'g' descends below the baseline.
    travik_font_glyph g = {};
    travik_font_getglyph(font, 'g', &g);
    EXPECT_GT(g.word[6], 0) << size;
    EXPECT_EQ(g.word[3] + g.word[6], g.word[2] + g.word[7]);

    Rendered r = render(font, 'M');
    EXPECT_GT(r.sum, 255L * r.width * r.rows / 5) << size;  // well inked
    travik_font_destroy(font);
  }
}

TEST(FreeType, RenderedCoverageIsTheGlyphsShape) {
  SKIP_WITHOUT_FONT();
  travik_font *font = travik_font_create(kFont, 48, nullptr);
  ASSERT_NE(font, nullptr);
  travik_font_glyph l = {};
  travik_font_getglyph(font, 'l', &l);
  const int w = l.word[5], h = l.word[7];
  ASSERT_GT(w, 2);
  ASSERT_GT(h, 20);
  // Rendered at an offset into a larger image, with its pitch.
  const int pitch = w + 10;
  std::vector<uint8_t> image(static_cast<size_t>(pitch * (h + 10)), 0);
  travik_font_render(font, &l, image.data(), 5, 5, pitch);
  // 'l' is a solid vertical bar: full coverage down its middle column.
  for (int y = 2; y < h - 2; ++y) EXPECT_EQ(image[(5 + y) * pitch + 5 + w / 2], 255) << y;
  // Nothing outside its box.
  for (int y = 0; y < h + 10; ++y) {
    for (int x = 0; x < pitch; ++x) {
      if (x >= 5 && x < 5 + w && y >= 5 && y < 5 + h) continue;
      ASSERT_EQ(image[y * pitch + x], 0) << x << "," << y;
    }
  }
  travik_font_destroy(font);
}

TEST(FreeType, MissingCharactersGetTheMissingGlyph) {
  SKIP_WITHOUT_FONT();
  travik_font *font = travik_font_create(kFont, 24, nullptr);
  ASSERT_NE(font, nullptr);
  // U+0378 is unassigned; 0xFFFF is what invalid UTF-8 decodes to.
  for (uint16_t code : {static_cast<uint16_t>(0x0378), static_cast<uint16_t>(0xFFFF)}) {
    travik_font_glyph g = {};
    travik_font_getglyph(font, code, &g);
    EXPECT_EQ(g.word[8], 0) << code;  // glyph index 0
    EXPECT_EQ(g.word[9], 0) << code;
    EXPECT_GT(g.word[4], 0) << code;
    EXPECT_GT(render(font, code).sum, 0) << code;  // a visible box
  }
  travik_font_extents e;
  travik_font_getstringextents(font, "a\xFF\xFE\xC3", 4, &e);
  EXPECT_GT(e.width, 0);
  travik_font_destroy(font);
}

TEST(FreeType, SpacingWidensTheAdvance) {
  SKIP_WITHOUT_FONT();
  travik_font *font = travik_font_create(kFont, 24, nullptr);
  ASSERT_NE(font, nullptr);
  travik_font_glyph a = {}, b = {};
  travik_font_getglyph(font, 'a', &a);
  travik_font_setspacing(font, 3);
  travik_font_getglyph(font, 'a', &b);
  EXPECT_EQ(b.word[4], a.word[4] + 3);
  travik_font_destroy(font);
}

TEST(FreeType, BadFontFilesFailCleanly) {
  travik_test::TempDir dir;
  travik_test::write_file(dir.file("corrupt.ttf"), std::string("\0\1\0\0garbage that is not a font", 30));
  travik_test::write_file(dir.file("empty.otf"), "");
  travik_test::write_file(dir.file("noextension"), "whatever");
  std::string truncated;
  if (have_font()) truncated = travik_test::read_file(kFont).substr(0, 2000);
  travik_test::write_file(dir.file("truncated.ttf"), truncated);
  travik_test::StderrCapture errors;
  for (const char *name : {"corrupt.ttf", "empty.otf", "noextension", "missing.ttf", "truncated.ttf"}) {
    EXPECT_EQ(travik_font_create(dir.file(name).c_str(), 24, nullptr), nullptr) << name;
  }
  EXPECT_EQ(errors.text(), "");
}

// A 4:2:0 frame of its own planes.
struct Yuv {
  int w, h;
  std::vector<uint8_t> y, u, v;
  Yuv(int width, int height, uint8_t luma)
      : w(width), h(height), y(static_cast<size_t>(width * height), luma),
        u(static_cast<size_t>(width * height / 4), 128), v(u) {}
  uint8_t at(int x, int row) const { return y[static_cast<size_t>(row * w + x)]; }
};

#ifdef TRAVIK_TEST_HAVE_PNG
// Writes rgb (3 bytes a pixel) as a PNG file.
void write_png(const std::string &path, int w, int h, const std::vector<uint8_t> &rgb) {
  FILE *file = std::fopen(path.c_str(), "wb");
  ASSERT_NE(file, nullptr);
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  png_init_io(png, file);
  png_set_IHDR(png, info, static_cast<png_uint_32>(w), static_cast<png_uint_32>(h), 8,
               PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  for (int row = 0; row < h; ++row)
    png_write_row(png, const_cast<uint8_t *>(&rgb[static_cast<size_t>(row * w * 3)]));
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  std::fclose(file);
}
#endif

class Overlay : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!have_font()) GTEST_SKIP() << kFont << " is not installed";
    font_ = travik_font_create(kFont, 20, nullptr);
    ASSERT_NE(font_, nullptr);
  }
  void TearDown() override {
    if (font_) travik_font_destroy(font_);
  }
  travik_font *font_ = nullptr;
};

// The subtitle overlay's steps: render the entry once into an image of the
// frame's width and format, then blit it centred onto the frame's bottom.
TEST_F(Overlay, TwoLineEntryOntoA420Frame) {
  travik_test::TempDir dir;
  travik_test::write_file(dir.file("clip.srt"),
                          "1\r\n00:00:00,500 --> 00:00:03,000\r\n<i>Two lines of text,</i>\r\n"
                          "drawn \xC3\xA0 la bottom!\r\n\r\n");
  travik_subtitle *subtitle = travik_subtitle_create(dir.file("clip.mp4").c_str(), nullptr);
  ASSERT_NE(subtitle, nullptr);
  void *item = nullptr;
  travik_subtitle_parse(subtitle, &item);
  ASSERT_NE(item, nullptr);
  auto *entry = static_cast<travik_subtitle_entry *>(item);
  ASSERT_EQ(entry->count, 2);
  EXPECT_EQ(entry->time, 500000);

  const int W = 320, H = 180;
  const int h = travik_font_getheight(font_);
  travik_draw *image =
      travik_draw_create(W, entry->count * h + h / 4, nullptr, nullptr, TRAVIK_PIXEL_YUV420P);
  travik_draw_setcolor(image, 0xFFFFFFFFu);
  travik_draw_setfont(image, font_);
  struct Box {
    int x, y, w, h;
  };
  std::vector<Box> boxes;
  int y = 0;
  for (int32_t i = 0; i < entry->count; ++i) {
    travik_font_extents e;
    travik_font_getstringextents(font_, entry->lines[i].text, entry->lines[i].length, &e);
    travik_draw_rect box = {static_cast<int16_t>((W - e.width) / 2), static_cast<int16_t>(y),
                            e.width, e.height};
    EXPECT_EQ(travik_draw_drawtext(image, &box, entry->lines[i].text, entry->lines[i].length,
                                   TRAVIK_DRAW_HCENTER | TRAVIK_DRAW_VCENTER),
              0);
    boxes.push_back({box.x, box.y, box.w, box.h});
    y += e.height;
  }
  entry->release(entry);
  travik_subtitle_destroy(subtitle);
  EXPECT_GT(boxes[0].w, boxes[1].w / 2);

  Yuv frame(W, H, 60);
  uint8_t *planes[3] = {frame.y.data(), frame.u.data(), frame.v.data()};
  int32_t pitches[3] = {W, W / 2, W / 2};
  travik_draw *target = travik_draw_create(W, H, planes, pitches, TRAVIK_PIXEL_YUV420P);
  const int top = H - image->height;
  travik_draw_blit(target, (W - image->width) / 2, top, image->width, image->height, image, 0, 0);
  travik_draw_destroy(target);
  travik_draw_destroy(image);

  // Where the text must not be: above the image, and outside each line's box.
  int white[2] = {0, 0}, black[2] = {0, 0};
  for (int row = 0; row < H; ++row) {
    for (int x = 0; x < W; ++x) {
      int line = -1;
      for (int i = 0; i < 2; ++i) {
        const Box &b = boxes[static_cast<size_t>(i)];
        if (x >= b.x && x < b.x + b.w && row >= top + b.y && row < top + b.y + b.h) line = i;
      }
      const uint8_t luma = frame.at(x, row);
      if (line < 0) {
        ASSERT_EQ(luma, 60) << x << "," << row;
        continue;
      }
      // Within a box: background, outline (luma 16 at full coverage),
      // text (234 at full coverage) or partial blends between them.
      if (luma >= 230) white[line]++;
      if (luma <= 20) black[line]++;
    }
  }
  for (int i = 0; i < 2; ++i) {
    EXPECT_GT(white[i], 100) << "line " << i;
    EXPECT_GT(black[i], 100) << "line " << i;
  }
  // Chroma is left as it was.
  for (uint8_t c : frame.u) ASSERT_EQ(c, 128);
  for (uint8_t c : frame.v) ASSERT_EQ(c, 128);

#ifdef TRAVIK_TEST_HAVE_PNG
  std::vector<uint8_t> rgb;
  for (uint8_t luma : frame.y) rgb.insert(rgb.end(), 3, luma);
  write_png(TRAVIK_TEST_BINARY_DIR "/overlay_yuv420.png", W, H, rgb);
#endif
}

TEST_F(Overlay, LineOntoA32BitFrame) {
  const int W = 240, H = 80;
  const uint32_t background = 0xFF203040u;
  std::vector<uint32_t> pixels(static_cast<size_t>(W * H), background);
  uint8_t *planes[3] = {reinterpret_cast<uint8_t *>(pixels.data()), nullptr, nullptr};
  int32_t pitches[3] = {W * 4, 0, 0};
  travik_draw *target = travik_draw_create(W, H, planes, pitches, TRAVIK_PIXEL_ARGB32);
  travik_draw_setfont(target, font_);
  travik_draw_setcolor(target, 0xFFFFFFFFu);
  const char text[] = "Hamburgefonstiv";
  travik_font_extents e;
  travik_font_getstringextents(font_, text, sizeof text - 1, &e);
  travik_draw_rect rect = {0, 0, W, H};
  EXPECT_EQ(travik_draw_drawtext(target, &rect, text, sizeof text - 1,
                                 TRAVIK_DRAW_BOTTOM | TRAVIK_DRAW_HCENTER),
            0);
  travik_draw_destroy(target);
  const int left = (W - e.width) / 2, top = H - e.height;
  int white = 0, black = 0;
  for (int row = 0; row < H; ++row) {
    for (int x = 0; x < W; ++x) {
      const uint32_t p = pixels[static_cast<size_t>(row * W + x)];
      if (x < left || x >= left + e.width || row < top) {
        ASSERT_EQ(p, background) << x << "," << row;
        continue;
      }
      white += p == 0xFFFFFFFFu;
      black += p == 0xFF000000u;
    }
  }
  EXPECT_GT(white, 50);
  EXPECT_GT(black, 50);
  // The 'l' of "Hamburgefonstiv" is not the first glyph; the first glyph's
  // left edge ('H', a vertical stem) is full white a few pixels in.
  bool stem = false;
  for (int x = left; x < left + 6; ++x) stem |= pixels[static_cast<size_t>((top + e.height / 2) * W + x)] == 0xFFFFFFFFu;
  EXPECT_TRUE(stem);

#ifdef TRAVIK_TEST_HAVE_PNG
  std::vector<uint8_t> rgb;
  for (uint32_t p : pixels) {
    rgb.push_back(static_cast<uint8_t>(p >> 16));
    rgb.push_back(static_cast<uint8_t>(p >> 8));
    rgb.push_back(static_cast<uint8_t>(p));
  }
  write_png(TRAVIK_TEST_BINARY_DIR "/overlay_argb32.png", W, H, rgb);
#endif
}

}  // namespace
