// The reference video-output plugins, loaded from the build tree's plugin
// directory through the video front end.
#include <gtest/gtest.h>
#include <travik/scale.h>
#include <travik/video.h>
#include <travik/yuv2rgb.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "util/testutil.h"

#ifdef TRAVIK_TEST_HAVE_PNG
#include <png.h>
#endif
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Before anything asks for the plugin directories.
const int kPluginsDir = [] {
  setenv("TRAVIK_PLUGINS_DIR", TRAVIK_TEST_BINARY_DIR "/plugins", 1);
  return 0;
}();

using travik_test::read_file;
using travik_test::TempDir;

// A 4:2:0 frame with rows padded beyond the width, filled with random
// samples.
struct Frame {
  travik_videoframe record;
  travik_videoframe *f = &record;
  std::vector<uint8_t> memory[3];
  Frame(int32_t w, int32_t h, uint32_t seed, int64_t timestamp = 0) {
    travik_videoframe templ;
    std::memset(&templ, 0, sizeof templ);
    templ.format = TRAVIK_PIXEL_YUV420P;
    templ.width = w;
    templ.height = h;
    templ.timestamp = timestamp;
    travik_videoframe_init(f, &templ);
    std::mt19937 rng(seed);
    for (int p = 0; p < 3; p++) {
      const int rows = p ? (h + 1) / 2 : h;
      f->pitches[p] = (p ? (w + 1) / 2 : w) + 6;
      memory[p].resize(static_cast<size_t>(f->pitches[p]) * rows);
      for (auto &b : memory[p]) b = static_cast<uint8_t>(rng());
      f->planes[p] = memory[p].data();
    }
  }
};

int32_t control(travik_video *v, int32_t command) {
  int32_t value = -1;
  travik_video_control(v, command, &value);
  return value;
}

TEST(VideoOut, LoadsADriverByItsName) {
  for (const char *name : {"null", "y4m", "fbdev"}) {
    travik_plugin *p = travik_video_load_driver(name);
    ASSERT_NE(p, nullptr) << name;
    EXPECT_STREQ(static_cast<travik_video_driver *>(p->drivers)->name, name);
    travik_plugin_destroy(p);
  }
}

TEST(VideoOut, UnknownNameFindsNothing) {
  EXPECT_EQ(travik_video_load_driver("nonesuch"), nullptr);
  EXPECT_EQ(travik_video_create("nonesuch", nullptr), nullptr);
}

TEST(VideoOut, AutoTakesTheBestPositiveProbe) {
  int32_t best = 0;
  for (const char *name : {"null", "y4m", "fbdev", "png", "sdl"}) {
    travik_plugin *p = travik_video_load_driver(name);
    if (!p) continue;
    auto *t = static_cast<travik_video_driver *>(p->drivers);
    best = std::max(best, t->probe(nullptr, t));
    travik_plugin_destroy(p);
  }
  travik_plugin *p = travik_video_load_driver("auto");
  ASSERT_NE(p, nullptr);
  auto *t = static_cast<travik_video_driver *>(p->drivers);
  EXPECT_EQ(t->probe(nullptr, t), best);
  EXPECT_GT(best, 0);
  travik_plugin_destroy(p);
}

TEST(VideoOut, AutoNeedsAScoreAboveZero) {
  // y4m and png always score 0, null scores 1.
  TempDir dir;
  const std::string built = std::string(TRAVIK_TEST_BINARY_DIR) + "/plugins/videoout/";
  for (const char *sub : {"zeros", "mixed"}) {
    ASSERT_EQ(mkdir(dir.file(sub).c_str(), 0700), 0);
    ASSERT_EQ(mkdir(dir.file(std::string(sub) + "/videoout").c_str(), 0700), 0);
  }
  for (const char *link : {"zeros/videoout/libvideoout_y4m.so", "zeros/videoout/libvideoout_png.so",
                           "mixed/videoout/libvideoout_y4m.so",
                           "mixed/videoout/libvideoout_null.so"}) {
    const std::string name = link;
    const std::string file = name.substr(name.rfind('/') + 1);
    ASSERT_EQ(symlink((built + file).c_str(), dir.file(link).c_str()), 0) << link;
  }
  auto chosen = [&](const char *sub) {
    const std::string directory = dir.file(sub);
    return travik_test::in_child([&] {
      setenv("TRAVIK_PLUGINS_DIR", directory.c_str(), 1);
      travik_plugin *p = travik_video_load_driver("auto");
      if (!p) return std::string("none");
      std::string name = static_cast<travik_video_driver *>(p->drivers)->name;
      travik_plugin_destroy(p);
      return name;
    });
  };
  EXPECT_EQ(chosen("zeros"), "none");
  EXPECT_EQ(chosen("mixed"), "null");
}

TEST(VideoOut, NullCountsDrawsAndFlips) {
  travik_video *v = travik_video_create("null", nullptr);
  ASSERT_NE(v, nullptr);
  ASSERT_NE(v->plugin, nullptr);
  Frame frame(32, 16, 1);
  for (int i = 0; i < 3; i++) {
    travik_video_draw(v, 0, 0, -1, -1, frame.f);
    travik_video_flip(v);
  }
  travik_video_draw(v, 0, 0, -1, -1, frame.f);
  EXPECT_EQ(control(v, TRAVIK_VIDEO_CONTROL_DRAWS), 4);
  EXPECT_EQ(control(v, TRAVIK_VIDEO_CONTROL_FLIPS), 3);
  EXPECT_EQ(travik_video_getdelay(v), 0);
  travik_video_destroy(v);
}

TEST(VideoOut, NullLogsTimestampsAndWallClock) {
  TempDir dir;
  const std::string log = dir.file("sync.log");
  const std::string argument = "log=" + log;
  travik_video *v = travik_video_create("null", const_cast<char *>(argument.c_str()));
  ASSERT_NE(v, nullptr);
  Frame a(16, 16, 2, 40000), b(16, 16, 3, 80000);
  travik_video_draw(v, 0, 0, -1, -1, a.f);
  travik_video_flip(v);
  travik_video_draw(v, 0, 0, -1, -1, b.f);
  travik_video_flip(v);
  travik_video_destroy(v);
  const std::string text = read_file(log);
  std::vector<std::string> lines;
  for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
    lines.push_back(text.substr(start, end - start));
  ASSERT_EQ(lines.size(), 4u) << text;
  long long ts = 0, sec = 0;
  long usec = 0;
  int n = 0;
  ASSERT_EQ(std::sscanf(lines[0].c_str(), "null: draw %d timestamp %lld wall %lld.%ld", &n, &ts,
                        &sec, &usec), 4) << lines[0];
  EXPECT_EQ(n, 1);
  EXPECT_EQ(ts, 40000);
  EXPECT_GT(sec, 1600000000);
  ASSERT_EQ(std::sscanf(lines[2].c_str(), "null: draw %d timestamp %lld", &n, &ts), 2);
  EXPECT_EQ(ts, 80000);
  ASSERT_EQ(std::sscanf(lines[3].c_str(), "null: flip %d wall %lld.%ld", &n, &sec, &usec), 3);
  EXPECT_EQ(n, 2);
}

TEST(VideoOut, NullLogsToStandardErrorWithABareLog) {
  travik_video *v = travik_video_create("null", const_cast<char *>("log"));
  ASSERT_NE(v, nullptr);
  Frame a(16, 16, 2, 120000);
  std::string text;
  {
    travik_test::StderrCapture capture;
    travik_video_draw(v, 0, 0, -1, -1, a.f);
    travik_video_flip(v);
    text = capture.text();
  }
  travik_video_destroy(v);
  long long ts = 0, sec = 0;
  long usec = 0;
  int n = 0, m = 0;
  ASSERT_EQ(std::sscanf(text.c_str(), "null: draw %d timestamp %lld wall %lld.%ld\nnull: flip %d",
                        &n, &ts, &sec, &usec, &m), 5) << text;
  EXPECT_EQ(n, 1);
  EXPECT_EQ(ts, 120000);
  EXPECT_EQ(m, 1);
}

TEST(VideoOut, NullWithoutLogWritesNothing) {
  travik_video *v = travik_video_create("null", nullptr);
  ASSERT_NE(v, nullptr);
  Frame a(16, 16, 2, 120000);
  travik_test::StderrCapture capture;
  travik_video_draw(v, 0, 0, -1, -1, a.f);
  travik_video_flip(v);
  travik_video_destroy(v);
  EXPECT_EQ(capture.text(), "");
}

TEST(VideoOut, NullGivesPictureMemory) {
  travik_video *v = travik_video_create("null", nullptr);
  uint8_t *planes[3];
  int32_t pitches[3];
  ASSERT_EQ(travik_video_allocbuffer(v, planes, pitches, 100, 30), 0);
  EXPECT_GE(pitches[0], 100);
  EXPECT_GE(pitches[1], 50);
  // The layout decoders write, so that they may render into it: planes and
  // chroma lines on 64 bytes, luma lines twice the chroma lines.
  EXPECT_EQ(pitches[1], 64);
  EXPECT_EQ(pitches[2], 64);
  EXPECT_EQ(pitches[0], 128);
  for (uint8_t *plane : planes) EXPECT_EQ(reinterpret_cast<uintptr_t>(plane) % 64, 0u);
  std::memset(planes[0], 1, static_cast<size_t>(pitches[0]) * 30);
  std::memset(planes[1], 2, static_cast<size_t>(pitches[1]) * 15);
  std::memset(planes[2], 3, static_cast<size_t>(pitches[2]) * 15);
  travik_video_freebuffer(v, planes);
  EXPECT_NE(travik_video_allocbuffer(v, planes, pitches, 0, 30), 0);
  EXPECT_EQ(planes[0], nullptr);
  travik_video_destroy(v);
}

std::string plane_bytes(const uint8_t *p, int32_t pitch, int32_t w, int32_t h) {
  std::string s;
  for (int r = 0; r < h; r++) s.append(reinterpret_cast<const char *>(p + r * pitch), w);
  return s;
}

std::string y4m_frame(const travik_videoframe *f) {
  const int32_t cw = (f->width + 1) / 2, ch = (f->height + 1) / 2;
  return "FRAME\n" + plane_bytes(f->planes[0], f->pitches[0], f->width, f->height) +
         plane_bytes(f->planes[1], f->pitches[1], cw, ch) +
         plane_bytes(f->planes[2], f->pitches[2], cw, ch);
}

TEST(VideoOut, Y4mWritesEveryDrawnPicture) {
  TempDir dir;
  const std::string path = dir.file("out.y4m");
  const std::string argument = "path=" + path + ",fps=30000:1001";
  travik_video *v = travik_video_create("y4m", const_cast<char *>(argument.c_str()));
  ASSERT_NE(v, nullptr);
  Frame a(100, 3, 4), b(100, 3, 5);  // odd sizes, pitch above the width
  travik_video_draw(v, 0, 0, -1, -1, a.f);
  travik_video_flip(v);
  travik_video_draw(v, 0, 0, -1, -1, b.f);
  travik_video_flip(v);
  EXPECT_EQ(control(v, TRAVIK_VIDEO_CONTROL_DRAWS), 2);
  travik_video_destroy(v);
  const std::string expect =
      "YUV4MPEG2 W100 H3 F30000:1001 Ip A1:1 C420jpeg\n" + y4m_frame(a.f) + y4m_frame(b.f);
  EXPECT_TRUE(read_file(path) == expect);
}

TEST(VideoOut, Y4mSkipsPicturesOfAnotherSize) {
  TempDir dir;
  const std::string path = dir.file("out.y4m");
  travik_video *v = travik_video_create("y4m", const_cast<char *>(path.c_str()));
  ASSERT_NE(v, nullptr);
  Frame a(16, 8, 6), b(32, 8, 7);
  travik_video_draw(v, 0, 0, -1, -1, a.f);
  {
    travik_test::StderrCapture capture;
    travik_video_draw(v, 0, 0, -1, -1, b.f);
    EXPECT_NE(capture.text().find("y4m: picture of 32x8 in a 16x8 stream not written"),
              std::string::npos);
  }
  travik_video_destroy(v);
  EXPECT_TRUE(read_file(path) ==
              "YUV4MPEG2 W16 H8 F25:1 Ip A1:1 C420jpeg\n" + y4m_frame(a.f));
}

TEST(VideoOut, Y4mNeedsAPath) {
  EXPECT_EQ(travik_video_create("y4m", nullptr), nullptr);
  EXPECT_EQ(travik_video_create("y4m", const_cast<char *>("path=/nonexistent/dir/x.y4m")),
            nullptr);
}

TEST(VideoOut, Y4mIgnoresNullPlanes) {
  TempDir dir;
  const std::string path = dir.file("out.y4m");
  travik_video *v = travik_video_create("y4m", const_cast<char *>(path.c_str()));
  Frame a(16, 8, 8);
  uint8_t *saved = a.f->planes[1];
  a.f->planes[1] = nullptr;
  travik_video_draw(v, 0, 0, -1, -1, a.f);
  a.f->planes[1] = saved;
  EXPECT_EQ(control(v, TRAVIK_VIDEO_CONTROL_DRAWS), 0);
  travik_video_destroy(v);
  EXPECT_EQ(read_file(path), "");
}

// ----- fbdev against a regular file

struct Screen {
  TempDir dir;
  std::string path = dir.file("fb");
  std::string argument;
  Screen(const std::string &options) {
    travik_test::write_file(path, "");
    argument = "device=" + path + "," + options;
  }
  char *arg() { return const_cast<char *>(argument.c_str()); }
  std::string bytes() { return read_file(path); }
};

std::string expected_screen(int32_t format, int rotation, int32_t sw, int32_t sh, int32_t dw,
                            int32_t dh, int32_t pitch, const travik_videoframe *f) {
  std::string out(static_cast<size_t>(pitch) * dh, '\0');
  travik_yuv2rgb *c = travik_yuv2rgb_create(format);
  uint8_t *d = reinterpret_cast<uint8_t *>(&out[0]);
  if (rotation) {
    travik_yuv2rgb_setrotation(c, rotation);
    travik_yuv2rgb_convert(c, sw, sh, d, pitch, f->planes[0], f->planes[1], f->planes[2],
                           f->pitches[0], f->pitches[1]);
  } else if (sw == dw && sh == dh) {
    travik_yuv2rgb_convert(c, sw, sh, d, pitch, f->planes[0], f->planes[1], f->planes[2],
                           f->pitches[0], f->pitches[1]);
  } else {
    travik_yuv2rgb_setscale(c, sw, sh, dw, dh);
    travik_yuv2rgb_convert(c, dw, dh, d, pitch, f->planes[0], f->planes[1], f->planes[2],
                           f->pitches[0], f->pitches[1]);
  }
  travik_yuv2rgb_destroy(c);
  return out;
}

TEST(VideoOut, FbdevConvertsAtTheScreenSize) {
  Screen screen("geometry=64x48x32");
  travik_video *v = travik_video_create("fbdev", screen.arg());
  ASSERT_NE(v, nullptr);
  EXPECT_EQ(screen.bytes().size(), 64u * 48 * 4);
  Frame a(64, 48, 9);
  travik_video_draw(v, 0, 0, -1, -1, a.f);
  travik_video_flip(v);
  EXPECT_TRUE(screen.bytes() == expected_screen(TRAVIK_PIXEL_RGB32, 0, 64, 48, 64, 48, 256, a.f));
  EXPECT_EQ(control(v, TRAVIK_VIDEO_CONTROL_FLIPS), 1);
  travik_video_destroy(v);
}

TEST(VideoOut, FbdevScalesToTheScreen) {
  Screen screen("geometry=64x48x16,pitch=140");
  travik_video *v = travik_video_create("fbdev", screen.arg());
  ASSERT_NE(v, nullptr);
  Frame a(40, 30, 10);
  travik_video_draw(v, 0, 0, -1, -1, a.f);
  EXPECT_TRUE(screen.bytes() == expected_screen(TRAVIK_PIXEL_RGB565, 0, 40, 30, 64, 48, 140, a.f));
  // Back at the screen's own size: one plain pass.
  Frame b(64, 48, 11);
  travik_video_draw(v, 0, 0, -1, -1, b.f);
  EXPECT_TRUE(screen.bytes() == expected_screen(TRAVIK_PIXEL_RGB565, 0, 64, 48, 64, 48, 140, b.f));
  travik_video_destroy(v);
}

TEST(VideoOut, FbdevSwappedScalesThePictureFirst) {
  // The byte-swapped routine also serves scaling but ignores the converter's
  // maps, so the picture is scaled to the screen before it is converted.
  Screen screen("geometry=64x48x16,swap");
  travik_video *v = travik_video_create("fbdev", screen.arg());
  ASSERT_NE(v, nullptr);
  Frame a(32, 24, 18);
  travik_video_draw(v, 0, 0, -1, -1, a.f);
  Frame scaled(64, 48, 19);
  travik_scale_yuv_frame(32, 24, 64, 48, scaled.f->planes, scaled.f->pitches, a.f->planes,
                         a.f->pitches);
  std::string expect(64u * 48 * 2, '\0');
  travik_yuv2rgb *c = travik_yuv2rgb_create_swap(TRAVIK_PIXEL_RGB565);
  travik_yuv2rgb_convert(c, 64, 48, reinterpret_cast<uint8_t *>(&expect[0]), 128,
                         scaled.f->planes[0], scaled.f->planes[1], scaled.f->planes[2],
                         scaled.f->pitches[0], scaled.f->pitches[1]);
  travik_yuv2rgb_destroy(c);
  EXPECT_TRUE(screen.bytes() == expect);
  // At the screen's own size the picture is converted directly.
  Frame b(64, 48, 20);
  travik_video_draw(v, 0, 0, -1, -1, b.f);
  c = travik_yuv2rgb_create_swap(TRAVIK_PIXEL_RGB565);
  travik_yuv2rgb_convert(c, 64, 48, reinterpret_cast<uint8_t *>(&expect[0]), 128,
                         b.f->planes[0], b.f->planes[1], b.f->planes[2], b.f->pitches[0],
                         b.f->pitches[1]);
  travik_yuv2rgb_destroy(c);
  EXPECT_TRUE(screen.bytes() == expect);
  travik_video_destroy(v);
}

TEST(VideoOut, FbdevTurnsClockwise) {
  Screen screen("geometry=48x64x16,rotate=3");
  travik_video *v = travik_video_create("fbdev", screen.arg());
  ASSERT_NE(v, nullptr);
  Frame a(64, 48, 12);
  travik_video_draw(v, 0, 0, -1, -1, a.f);
  EXPECT_TRUE(screen.bytes() == expected_screen(TRAVIK_PIXEL_RGB565, 3, 64, 48, 48, 64, 96, a.f));
  travik_video_destroy(v);
}

TEST(VideoOut, FbdevScalesBeforeTurning) {
  Screen screen("geometry=48x64x32,rotate=3");
  travik_video *v = travik_video_create("fbdev", screen.arg());
  ASSERT_NE(v, nullptr);
  Frame a(32, 24, 13);
  travik_video_draw(v, 0, 0, -1, -1, a.f);
  // The picture scaled to 64 x 48, then turned.
  Frame scaled(64, 48, 14);
  travik_scale_yuv_frame(32, 24, 64, 48, scaled.f->planes, scaled.f->pitches, a.f->planes,
                         a.f->pitches);
  EXPECT_TRUE(screen.bytes() ==
              expected_screen(TRAVIK_PIXEL_RGB32, 3, 64, 48, 48, 64, 192, scaled.f));
  travik_video_destroy(v);
}

TEST(VideoOut, FbdevTurnsCounterClockwiseInSixteenBitsOnly) {
  Screen s16("geometry=48x64x16,rotate=1");
  travik_video *v = travik_video_create("fbdev", s16.arg());
  ASSERT_NE(v, nullptr);
  Frame a(64, 48, 15);
  travik_video_draw(v, 0, 0, -1, -1, a.f);
  EXPECT_TRUE(s16.bytes() == expected_screen(TRAVIK_PIXEL_RGB565, 1, 64, 48, 48, 64, 96, a.f));
  travik_video_destroy(v);
  Screen s32("geometry=48x64x32,rotate=1");
  EXPECT_EQ(travik_video_create("fbdev", s32.arg()), nullptr);
  Screen half("geometry=48x64x32,rotate=2");
  EXPECT_EQ(travik_video_create("fbdev", half.arg()), nullptr);
}

TEST(VideoOut, FbdevRefusesWhatItCannotShow) {
  Screen depth("geometry=64x48x24");
  EXPECT_EQ(travik_video_create("fbdev", depth.arg()), nullptr);
  Screen bad("geometry=64x");
  EXPECT_EQ(travik_video_create("fbdev", bad.arg()), nullptr);
  EXPECT_EQ(travik_video_create("fbdev", const_cast<char *>("device=/nonexistent/fb")), nullptr);
  // A regular file without geometry is no framebuffer.
  Screen plain("");
  EXPECT_EQ(travik_video_create("fbdev", plain.arg()), nullptr);
}

TEST(VideoOut, FbdevRefusesShortPitchesAndUnknownTurns) {
  Screen narrow("geometry=64x48x32,pitch=255");
  EXPECT_EQ(travik_video_create("fbdev", narrow.arg()), nullptr);
  Screen turn("geometry=64x48x16,rotate=5");
  EXPECT_EQ(travik_video_create("fbdev", turn.arg()), nullptr);
  // The same screens with a whole row and a quarter turn are accepted.
  Screen wide("geometry=64x48x32,pitch=256");
  travik_video *v = travik_video_create("fbdev", wide.arg());
  EXPECT_NE(v, nullptr);
  if (v) travik_video_destroy(v);
  Screen quarter("geometry=64x48x16,rotate=3");
  v = travik_video_create("fbdev", quarter.arg());
  EXPECT_NE(v, nullptr);
  if (v) travik_video_destroy(v);
}

TEST(VideoOut, FbdevDrawsNothingForNullPlanes) {
  Screen screen("geometry=32x16x32");
  travik_video *v = travik_video_create("fbdev", screen.arg());
  ASSERT_NE(v, nullptr);
  Frame a(32, 16, 16);
  a.f->planes[2] = nullptr;
  travik_video_draw(v, 0, 0, -1, -1, a.f);
  a.f->planes[2] = a.f->planes[1];
  travik_video_draw(v, 0, 0, 0, 16, a.f);
  EXPECT_EQ(control(v, TRAVIK_VIDEO_CONTROL_DRAWS), 0);
  EXPECT_EQ(screen.bytes(), std::string(32 * 16 * 4, '\0'));
  travik_video_destroy(v);
}

TEST(VideoOut, FbdevShowsDecoderMemoryWithoutACopy) {
  Screen screen("geometry=64x32x32");
  travik_video *v = travik_video_create("fbdev", screen.arg());
  ASSERT_NE(v, nullptr);
  Frame a(64, 32, 17);
  travik_videoframe shown = *a.f;
  ASSERT_EQ(travik_video_allocbuffer(v, shown.planes, shown.pitches, 64, 32), 0);
  travik_copy_frame(64, 32, shown.planes[0], shown.pitches[0], a.f->planes[0], a.f->pitches[0]);
  travik_copy_frame(32, 16, shown.planes[1], shown.pitches[1], a.f->planes[1], a.f->pitches[1]);
  travik_copy_frame(32, 16, shown.planes[2], shown.pitches[2], a.f->planes[2], a.f->pitches[2]);
  travik_video_draw(v, 0, 0, -1, -1, &shown);
  EXPECT_TRUE(screen.bytes() == expected_screen(TRAVIK_PIXEL_RGB32, 0, 64, 32, 64, 32, 256, a.f));
  travik_video_freebuffer(v, shown.planes);
  travik_video_destroy(v);
}

// ----- png

#ifdef TRAVIK_TEST_HAVE_PNG
struct Image {
  int32_t width = 0, height = 0;
  std::vector<uint8_t> rgb;
};

Image read_png(const std::string &path) {
  Image image;
  png_image png;
  std::memset(&png, 0, sizeof png);
  png.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&png, path.c_str())) return image;
  png.format = PNG_FORMAT_RGB;
  image.rgb.resize(PNG_IMAGE_SIZE(png));
  if (png_image_finish_read(&png, nullptr, image.rgb.data(), 0, nullptr)) {
    image.width = static_cast<int32_t>(png.width);
    image.height = static_cast<int32_t>(png.height);
  }
  return image;
}

bool exists(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

// Colour bars over a luma ramp, with chroma from the bar.
void colour_bars(travik_videoframe *f) {
  static const uint8_t bars[8][3] = {{235, 128, 128}, {210, 16, 146}, {170, 166, 16},
                                     {145, 54, 34},   {106, 202, 222}, {81, 90, 240},
                                     {41, 240, 110},  {16, 128, 128}};
  for (int r = 0; r < f->height; r++)
    for (int x = 0; x < f->width; x++) {
      const int bar = x * 8 / f->width;
      const int fade = r * 40 / f->height;
      f->planes[0][r * f->pitches[0] + x] = static_cast<uint8_t>(bars[bar][0] > 56 ? bars[bar][0] - fade : bars[bar][0]);
      f->planes[1][(r / 2) * f->pitches[1] + x / 2] = bars[bar][1];
      f->planes[2][(r / 2) * f->pitches[2] + x / 2] = bars[bar][2];
    }
}

TEST(VideoOut, PngWritesEveryNthFlip) {
  TempDir dir;
  const std::string argument = "dir=" + dir.path() + ",every=2";
  travik_video *v = travik_video_create("png", const_cast<char *>(argument.c_str()));
  ASSERT_NE(v, nullptr);
  std::vector<Frame *> frames;
  for (int i = 0; i < 5; i++) {
    frames.push_back(new Frame(64, 32, 20 + i));
    travik_video_draw(v, 0, 0, -1, -1, frames.back()->f);
    travik_video_flip(v);
  }
  travik_video_destroy(v);
  EXPECT_FALSE(exists(dir.file("frame000001.png")));
  EXPECT_TRUE(exists(dir.file("frame000002.png")));
  EXPECT_FALSE(exists(dir.file("frame000003.png")));
  EXPECT_TRUE(exists(dir.file("frame000004.png")));
  EXPECT_FALSE(exists(dir.file("frame000005.png")));
  // The file holds the converter's picture of the second frame.
  Image image = read_png(dir.file("frame000002.png"));
  ASSERT_EQ(image.width, 64);
  ASSERT_EQ(image.height, 32);
  const std::string rgb32 = expected_screen(TRAVIK_PIXEL_RGB32, 0, 64, 32, 64, 32, 256, frames[1]->f);
  for (int r = 0; r < 32; r++)
    for (int x = 0; x < 64; x++) {
      uint32_t pixel;
      std::memcpy(&pixel, rgb32.data() + r * 256 + x * 4, 4);
      const uint8_t *got = &image.rgb[(r * 64 + x) * 3];
      ASSERT_EQ(got[0], (pixel >> 16) & 0xFF) << x << "," << r;
      ASSERT_EQ(got[1], (pixel >> 8) & 0xFF);
      ASSERT_EQ(got[2], pixel & 0xFF);
    }
  for (Frame *f : frames) delete f;
}

TEST(VideoOut, PngKeepsOddSizesWhole) {
  TempDir dir;
  travik_video *v = travik_video_create("png", const_cast<char *>(dir.path().c_str()));
  ASSERT_NE(v, nullptr);
  Frame a(21, 7, 30);
  colour_bars(a.f);
  travik_video_draw(v, 0, 0, -1, -1, a.f);
  travik_video_flip(v);
  travik_video_destroy(v);
  Image image = read_png(dir.file("frame000001.png"));
  ASSERT_EQ(image.width, 21);
  ASSERT_EQ(image.height, 7);
  // The last column and row are converted like their neighbours (one bar).
  for (int c = 0; c < 3; c++) {
    EXPECT_EQ(image.rgb[(6 * 21 + 20) * 3 + c], image.rgb[(6 * 21 + 19) * 3 + c]);
    EXPECT_NE(image.rgb[(0 * 21 + 20) * 3 + c], 0xA5);
  }
}

TEST(VideoOut, PngShowsColourBars) {
  // Written where a person can look at it after the test has run.
  const std::string dir = TRAVIK_TEST_BINARY_DIR "/videoout-png";
  mkdir(dir.c_str(), 0755);
  const std::string argument = "dir=" + dir;
  travik_video *v = travik_video_create("png", const_cast<char *>(argument.c_str()));
  ASSERT_NE(v, nullptr);
  Frame a(320, 240, 31);
  colour_bars(a.f);
  travik_video_draw(v, 0, 0, -1, -1, a.f);
  travik_video_flip(v);
  travik_video_destroy(v);
  Image image = read_png(dir + "/frame000001.png");
  ASSERT_EQ(image.width, 320);
  auto at = [&](int x, int y) { return &image.rgb[(y * 320 + x) * 3]; };
  // White, yellow, ..., black bars at the top row.
  EXPECT_EQ(at(20, 0)[0], 255);
  EXPECT_EQ(at(20, 0)[2], 255);
  EXPECT_GT(at(60, 0)[0], 200);   // yellow: red and green, no blue
  EXPECT_LT(at(60, 0)[2], 40);
  EXPECT_GT(at(220, 0)[0], 200);  // red
  EXPECT_LT(at(220, 0)[1], 40);
  EXPECT_LT(at(300, 0)[0], 5);    // black
}

TEST(VideoOut, PngNeedsADirectory) {
  EXPECT_EQ(travik_video_create("png", nullptr), nullptr);
  EXPECT_EQ(travik_video_create("png", const_cast<char *>("every=3")), nullptr);
}
#endif

}  // namespace
