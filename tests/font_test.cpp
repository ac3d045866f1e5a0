// The font framework: driver choice by extension, UTF-8 walking into glyph
// records, heights and extents. The fake font (overlaytest/fake_font.h) is
// both a plugin for ".fnt" and ".fake" files and a handed-in driver.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <travik/travik.h>
#include <util/testutil.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "fake_font.h"

namespace {

::testing::Environment *const environment = ::testing::AddGlobalTestEnvironment(
    new travik_test::LibraryEnvironment(OVERLAY_PLUGINS_DIR));

bool plugin_loaded() {
  const std::string path = std::string(OVERLAY_PLUGINS_DIR) + "/font/libfont_fake.so";
  void *handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (handle) dlclose(handle);
  return handle != nullptr;
}

TEST(FontCreate, PluginIsChosenByExtensionWhateverItsCase) {
  travik_font *font = travik_font_create("/fonts/Some.Font.FNT", 16, nullptr);
  ASSERT_NE(font, nullptr);
  EXPECT_NE(font->plugin, nullptr);
  EXPECT_STREQ(font->driver->description, "fake font");
  EXPECT_STREQ(font->path, "/fonts/Some.Font.FNT");
  EXPECT_EQ(font->size, 16);
  EXPECT_EQ(font->spacing, 0);
  EXPECT_EQ(font->outline, 0);
  EXPECT_TRUE(plugin_loaded());
  travik_font_destroy(font);
  EXPECT_FALSE(plugin_loaded());
}

TEST(FontCreate, RefusedPaths) {
  travik_test::StderrCapture errors;
  EXPECT_EQ(travik_font_create(nullptr, 16, nullptr), nullptr);
  EXPECT_EQ(travik_font_create("/fonts/noextension", 16, nullptr), nullptr);
  EXPECT_EQ(travik_font_create("/fonts.d/noextension", 16, nullptr), nullptr);
  EXPECT_EQ(travik_font_create("/fonts/trailing.", 16, nullptr), nullptr);
  EXPECT_EQ(travik_font_create("/fonts/unknown.xyz", 16, nullptr), nullptr);
  EXPECT_EQ(travik_font_create(std::string(5000, 'a').append(".fnt").c_str(), 16, nullptr),
            nullptr);
  // The plugin's open fails: the plugin is unloaded again.
  EXPECT_EQ(travik_font_create("/fonts/fail.fnt", 16, nullptr), nullptr);
  EXPECT_FALSE(plugin_loaded());
  EXPECT_EQ(errors.text(), "");
}

TEST(FontCreate, SizeSevenIsRefusedAndEightAccepted) {
  EXPECT_EQ(travik_font_create("a.fnt", 7, nullptr), nullptr);
  EXPECT_EQ(travik_font_create("a.fnt", 7, fake_font::driver()), nullptr);
  travik_font *font = travik_font_create("a.fnt", 8, nullptr);
  ASSERT_NE(font, nullptr);
  travik_font_destroy(font);
}

TEST(FontCreate, HandedInDriverNeedsNoExtension) {
  travik_font *font = travik_font_create("builtin", 12, fake_font::driver());
  ASSERT_NE(font, nullptr);
  EXPECT_EQ(font->plugin, nullptr);
  EXPECT_EQ(font->driver, fake_font::driver());
  EXPECT_EQ(travik_font_create("builtin-fail", 12, fake_font::driver()), nullptr);
  travik_font_destroy(font);
}

class Font : public ::testing::Test {
 protected:
  void SetUp() override { font_ = travik_font_create("f", 12, fake_font::driver()); }
  void TearDown() override { travik_font_destroy(font_); }
  std::vector<uint16_t> codes(const std::string &text, int32_t length = -1) {
    travik_font_glyph *glyphs = reinterpret_cast<travik_font_glyph *>(1);
    int32_t count = -1;
    EXPECT_EQ(travik_font_string2glyph(font_, text.data(),
                                       length < 0 ? static_cast<int32_t>(text.size()) : length,
                                       &glyphs, &count),
              0);
    std::vector<uint16_t> out;
    for (int32_t i = 0; i < count; ++i) out.push_back(static_cast<uint16_t>(glyphs[i].word[0]));
    if (count == 0) {
      EXPECT_EQ(glyphs, nullptr);
    }
    std::free(glyphs);
    return out;
  }
  travik_font *font_ = nullptr;
};

TEST_F(Font, HeightIsFirstMinusSecondPlusThree) { EXPECT_EQ(travik_font_getheight(font_), 19); }

TEST_F(Font, TwoByteSequenceGivesItsCode) {
  EXPECT_EQ(codes("A\xC3\xA9"), (std::vector<uint16_t>{0x41, 0xE9}));
}

TEST_F(Font, SequenceCutByTheLengthIsDropped) {
  EXPECT_EQ(codes("A\xC3\xA9", 2), (std::vector<uint16_t>{0x41}));
  EXPECT_EQ(codes("\xE2\x82", 2), (std::vector<uint16_t>{}));
}

TEST_F(Font, ThreeAndFourByteSequences) {
  EXPECT_EQ(codes("\xE2\x82\xAC"), (std::vector<uint16_t>{0x20AC}));  // euro sign
  // U+1F600 kept in 16 bits.
  EXPECT_EQ(codes("\xF0\x9F\x98\x80z"), (std::vector<uint16_t>{0xF600, 'z'}));
}

TEST_F(Font, InvalidSequencesGiveFFFF) {
  // A bad continuation byte: the walk still skips the whole sequence.
  EXPECT_EQ(codes("\xC3(x"), (std::vector<uint16_t>{0xFFFF, 'x'}));
  EXPECT_EQ(codes("\xE2\x28\xA1y"), (std::vector<uint16_t>{0xFFFF, 'y'}));
  // 0xFE and 0xFF are one-byte sequences of their own.
  EXPECT_EQ(codes("\xFE\xFF"), (std::vector<uint16_t>{0xFFFF, 0xFFFF}));
  // A stray continuation byte is a character of its own value.
  EXPECT_EQ(codes("\x80\xBF"), (std::vector<uint16_t>{0x80, 0xBF}));
}

TEST_F(Font, EmptyTextGivesNoGlyphs) {
  travik_font_glyph *glyphs = reinterpret_cast<travik_font_glyph *>(1);
  int32_t count = -1;
  EXPECT_EQ(travik_font_string2glyph(font_, "abc", 0, &glyphs, &count), 0);
  EXPECT_EQ(glyphs, nullptr);
  EXPECT_EQ(count, 0);
  // The count may be left out.
  EXPECT_EQ(travik_font_string2glyph(font_, "abc", 0, &glyphs, nullptr), 0);
  EXPECT_EQ(travik_font_string2glyph(font_, "abc", 3, &glyphs, nullptr), 0);
  ASSERT_NE(glyphs, nullptr);
  EXPECT_EQ(glyphs[2].word[0], 'c');
  std::free(glyphs);
}

TEST_F(Font, GetglyphAndRenderForwardToTheDriver) {
  travik_font_glyph glyph = {};
  EXPECT_EQ(travik_font_getglyph(font_, 'Q', &glyph), 0);
  EXPECT_EQ(glyph.word[0], 'Q');
  EXPECT_EQ(glyph.word[4], 6);
  std::vector<uint8_t> image(20 * 20, 0);
  EXPECT_EQ(travik_font_render(font_, &glyph, image.data(), 3, 4, 20), 0);
  EXPECT_EQ(image[4 * 20 + 3], fake_font::kInk);
  EXPECT_EQ(image[(4 + 8) * 20 + 3 + 3], fake_font::kInk);
  EXPECT_EQ(image[(4 + 9) * 20 + 3], 0);
  EXPECT_EQ(image[4 * 20 + 7], 0);
  EXPECT_EQ(static_cast<fake_font::State *>(font_->state)->renders, 1);
}

TEST_F(Font, ExtentsSumAdvancesAndTakeTheTallerHeight) {
  travik_font_extents e = {9, 9, 9, 9};
  EXPECT_EQ(travik_font_getstringextents(font_, "abc", 3, &e), 0);
  EXPECT_EQ(e.x, 0);
  EXPECT_EQ(e.y, 0);
  EXPECT_EQ(e.width, 18);
  EXPECT_EQ(e.height, 19);  // glyphs 11 high: the line height wins
  // '~' reaches 10 + 7 = 17 below the top: still the line height.
  travik_font_getstringextents(font_, "a~", 2, &e);
  EXPECT_EQ(e.width, 12);
  EXPECT_EQ(e.height, 19);
  travik_font_getstringextents(font_, "", 0, &e);
  EXPECT_EQ(e.width, 0);
  EXPECT_EQ(e.height, 19);
}

TEST_F(Font, GlyphTallerThanTheLineSetsTheHeight) {
  std::vector<travik_font_glyph> glyphs(3);
  for (auto &g : glyphs) g = travik_font_glyph{};
  glyphs[0].word[3] = 10;
  glyphs[0].word[6] = 15;  // 25 > 19
  glyphs[0].word[4] = 7;
  glyphs[1].word[3] = 30;
  glyphs[1].word[6] = -2;  // 28, the tallest
  glyphs[1].word[4] = 3;
  glyphs[2].word[4] = -1;
  travik_font_extents e;
  EXPECT_EQ(travik_font_getglyphextents(font_, glyphs.data(), 3, &e), 0);
  EXPECT_EQ(e.width, 9);
  EXPECT_EQ(e.height, 28);
}

TEST_F(Font, SpacingAndOutlineAreStored) {
  EXPECT_EQ(travik_font_setspacing(font_, 2), 0);
  EXPECT_EQ(travik_font_setoutline(font_, 3), 0);
  EXPECT_EQ(font_->spacing, 2);
  EXPECT_EQ(font_->outline, 3);
  // The fake driver adds the spacing to the advance; extents add nothing more.
  travik_font_extents e;
  travik_font_getstringextents(font_, "ab", 2, &e);
  EXPECT_EQ(e.width, 16);
}

}  // namespace
