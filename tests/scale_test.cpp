#include <gtest/gtest.h>
#include <travik/scale.h>
#include <travik/yuv2rgb.h>

#include <random>
#include <vector>

namespace {

class Scale : public ::testing::Test {
 protected:
  void SetUp() override { saved_ = travik_yuv2rgb_getsimd(); }
  void TearDown() override { travik_yuv2rgb_setsimd(saved_); }
  int32_t saved_ = 0;
};

std::vector<int32_t> levels() {
  const int32_t saved = travik_yuv2rgb_getsimd();
  const int32_t best = travik_yuv2rgb_setsimd(TRAVIK_SIMD_AVX2);
  travik_yuv2rgb_setsimd(saved);
  std::vector<int32_t> all;
  for (int32_t l = 0; l <= best; l++) all.push_back(l);
  return all;
}

struct Plane {
  int width, height, pitch;
  std::vector<uint8_t> bytes;
  Plane(int w, int h, int pad, uint8_t fill) : width(w), height(h), pitch(w + pad),
        bytes(static_cast<size_t>(w + pad) * h, fill) {}
  void randomise(uint32_t seed) {
    std::mt19937 rng(seed);
    for (auto &b : bytes) b = static_cast<uint8_t>(rng());
  }
  uint8_t &at(int x, int y) { return bytes[y * pitch + x]; }
};

TEST_F(Scale, CopyFrameCopiesRowsWithTheirPitches) {
  Plane src(5, 3, 2, 0), dst(5, 3, 4, 0xEE);
  src.randomise(1);
  travik_copy_frame(5, 3, dst.bytes.data(), dst.pitch, src.bytes.data(), src.pitch);
  for (int y = 0; y < 3; y++) {
    for (int x = 0; x < 5; x++) EXPECT_EQ(dst.at(x, y), src.at(x, y));
    for (int x = 5; x < dst.pitch; x++) EXPECT_EQ(dst.at(x, y), 0xEE);
  }
}

TEST_F(Scale, CopyFrameWithZeroRowsCopiesNothing) {
  Plane src(4, 2, 0, 1), dst(4, 2, 0, 0xEE);
  travik_copy_frame(4, 0, dst.bytes.data(), 4, src.bytes.data(), 4);
  travik_copy_frame(0, 2, dst.bytes.data(), 4, src.bytes.data(), 4);
  travik_copy_frame(-3, 2, dst.bytes.data(), 4, src.bytes.data(), 4);
  travik_copy_frame(4, 2, nullptr, 4, src.bytes.data(), 4);
  travik_copy_frame(4, 2, dst.bytes.data(), 4, nullptr, 4);
  for (uint8_t b : dst.bytes) EXPECT_EQ(b, 0xEE);
}

TEST_F(Scale, FourByFourToTwoByTwoTakesEvenColumnsOfEvenRows) {
  for (int32_t level : levels()) {
    travik_yuv2rgb_setsimd(level);
    Plane src(4, 4, 0, 0), dst(2, 2, 0, 0);
    for (int i = 0; i < 16; i++) src.bytes[i] = static_cast<uint8_t>(i);
    travik_scale_frame(4, 4, 2, 2, dst.bytes.data(), 2, src.bytes.data(), 4);
    EXPECT_EQ(dst.bytes, (std::vector<uint8_t>{0, 2, 8, 10}));
  }
}

TEST_F(Scale, TwoByTwoToFourByFourRepeatsEachByte) {
  for (int32_t level : levels()) {
    travik_yuv2rgb_setsimd(level);
    Plane src(2, 2, 0, 0), dst(4, 4, 0, 0);
    src.bytes = {1, 2, 3, 4};
    travik_scale_frame(2, 2, 4, 4, dst.bytes.data(), 4, src.bytes.data(), 2);
    EXPECT_EQ(dst.bytes,
              (std::vector<uint8_t>{1, 1, 2, 2, 1, 1, 2, 2, 3, 3, 4, 4, 3, 3, 4, 4}));
  }
}

TEST_F(Scale, EqualSizesCopyThePlane) {
  for (int32_t level : levels()) {
    travik_yuv2rgb_setsimd(level);
    Plane src(77, 13, 3, 0), dst(77, 13, 5, 0xEE);
    src.randomise(2);
    travik_scale_frame(77, 13, 77, 13, dst.bytes.data(), dst.pitch, src.bytes.data(), src.pitch);
    for (int y = 0; y < 13; y++) {
      for (int x = 0; x < 77; x++) ASSERT_EQ(dst.at(x, y), src.at(x, y));
      for (int x = 77; x < dst.pitch; x++) ASSERT_EQ(dst.at(x, y), 0xEE);
    }
  }
}

TEST_F(Scale, PositionsAreSixteenSixteenSteps) {
  for (int32_t level : levels()) {
    travik_yuv2rgb_setsimd(level);
    Plane src(100, 30, 0, 0), dst(37, 11, 0, 0);
    src.randomise(3);
    travik_scale_frame(100, 30, 37, 11, dst.bytes.data(), 37, src.bytes.data(), 100);
    const int32_t xstep = (100 << 16) / 37, ystep = (30 << 16) / 11;
    for (int y = 0; y < 11; y++)
      for (int x = 0; x < 37; x++)
        ASSERT_EQ(dst.at(x, y), src.at((x * xstep) >> 16, (y * ystep) >> 16)) << x << "," << y;
  }
}

TEST_F(Scale, BadSizesScaleNothing) {
  for (int32_t level : levels()) {
    travik_yuv2rgb_setsimd(level);
    Plane src(8, 8, 0, 1), dst(8, 8, 0, 0xEE);
    uint8_t *d = dst.bytes.data();
    const uint8_t *s = src.bytes.data();
    travik_scale_frame(8, 8, 0, 8, d, 8, s, 8);
    travik_scale_frame(8, 8, 8, 0, d, 8, s, 8);
    travik_scale_frame(0, 8, 8, 8, d, 8, s, 8);
    travik_scale_frame(-8, 8, 8, 8, d, 8, s, 8);
    travik_scale_frame(40000, 8, 8, 8, d, 8, s, 8);
    travik_scale_frame(8, 8, 8, 8, nullptr, 8, s, 8);
    travik_scale_frame(8, 8, 8, 8, d, 8, nullptr, 8);
    for (uint8_t b : dst.bytes) ASSERT_EQ(b, 0xEE);
  }
}

// ----- YUV 4:2:0

struct Yuv {
  Plane y, u, v;
  Yuv(int w, int h, int pad, uint8_t fill)
      : y(w, h, pad, fill), u((w + 1) / 2, (h + 1) / 2, pad, fill),
        v((w + 1) / 2, (h + 1) / 2, pad, fill) {}
  void randomise(uint32_t seed) {
    y.randomise(seed);
    u.randomise(seed + 1);
    v.randomise(seed + 2);
  }
  std::vector<uint8_t *> planes() { return {y.bytes.data(), u.bytes.data(), v.bytes.data()}; }
  std::vector<int32_t> pitches() const { return {y.pitch, u.pitch, v.pitch}; }
};

void scale(int sw, int sh, int dw, int dh, Yuv &dst, Yuv &src) {
  auto dp = dst.planes(), sp = src.planes();
  auto dpi = dst.pitches(), spi = src.pitches();
  travik_scale_yuv_frame(sw, sh, dw, dh, dp.data(), dpi.data(), sp.data(), spi.data());
}

TEST_F(Scale, YuvFourByFourToTwoByTwo) {
  for (int32_t level : levels()) {
    travik_yuv2rgb_setsimd(level);
    Yuv src(4, 4, 0, 0), dst(2, 2, 0, 0xEE);
    src.randomise(4);
    scale(4, 4, 2, 2, dst, src);
    EXPECT_EQ(dst.y.at(0, 0), src.y.at(0, 0));
    EXPECT_EQ(dst.y.at(1, 0), src.y.at(2, 0));
    EXPECT_EQ(dst.y.at(0, 1), src.y.at(0, 2));
    EXPECT_EQ(dst.y.at(1, 1), src.y.at(2, 2));
    // Chroma is written at column 1 (position 2 << 16, chroma column 1),
    // last by row 1, whose source row 2 is chroma row 1.
    EXPECT_EQ(dst.u.at(0, 0), src.u.at(1, 1));
    EXPECT_EQ(dst.v.at(0, 0), src.v.at(1, 1));
  }
}

TEST_F(Scale, YuvTwoByTwoToFourByFour) {
  for (int32_t level : levels()) {
    travik_yuv2rgb_setsimd(level);
    Yuv src(2, 2, 0, 0), dst(4, 4, 0, 0xEE);
    src.y.bytes = {1, 2, 3, 4};
    src.u.bytes = {50};
    src.v.bytes = {60};
    scale(2, 2, 4, 4, dst, src);
    EXPECT_EQ(dst.y.bytes,
              (std::vector<uint8_t>{1, 1, 2, 2, 1, 1, 2, 2, 3, 3, 4, 4, 3, 3, 4, 4}));
    EXPECT_EQ(dst.u.bytes, (std::vector<uint8_t>{50, 50, 50, 50}));
    EXPECT_EQ(dst.v.bytes, (std::vector<uint8_t>{60, 60, 60, 60}));
  }
}

TEST_F(Scale, YuvEqualSizesCopyThePicture) {
  for (int32_t level : levels()) {
    travik_yuv2rgb_setsimd(level);
    Yuv src(16, 8, 3, 0), dst(16, 8, 2, 0xEE);
    src.randomise(5);
    scale(16, 8, 16, 8, dst, src);
    for (int y = 0; y < 8; y++)
      for (int x = 0; x < 16; x++) ASSERT_EQ(dst.y.at(x, y), src.y.at(x, y));
    // At equal sizes chroma column k comes from luma column 2k + 1, that is
    // chroma column k, and each chroma row from the odd luma row below it.
    for (int y = 0; y < 4; y++)
      for (int x = 0; x < 8; x++) {
        ASSERT_EQ(dst.u.at(x, y), src.u.at(x, y));
        ASSERT_EQ(dst.v.at(x, y), src.v.at(x, y));
      }
  }
}

TEST_F(Scale, YuvOddDestinationSizesWriteRoundedUpChroma) {
  for (int32_t level : levels()) {
    travik_yuv2rgb_setsimd(level);
    Yuv src(20, 20, 0, 0), dst(7, 5, 0, 0xEE);
    src.randomise(6);
    scale(20, 20, 7, 5, dst, src);
    // (7 + 1) / 2 = 4 chroma columns, (5 + 1) / 2 = 3 chroma rows.
    for (int y = 0; y < 3; y++)
      for (int x = 0; x < 4; x++) EXPECT_NE(dst.u.at(x, y), 0xEE) << x << "," << y;
    const int32_t xstep = (20 << 16) / 7, ystep = (20 << 16) / 5;
    // Column 3 is written at x = 6: position 6 * step, chroma column >> 17;
    // chroma row 2 last by row 4.
    EXPECT_EQ(dst.u.at(3, 2), src.u.at((6 * xstep) >> 17, ((4 * ystep) >> 16) >> 1));
  }
}

TEST_F(Scale, YuvBadArgumentsScaleNothing) {
  for (int32_t level : levels()) {
    travik_yuv2rgb_setsimd(level);
    Yuv src(8, 8, 0, 1), dst(8, 8, 0, 0xEE);
    scale(8, 8, 0, 8, dst, src);
    scale(8, 8, 8, -2, dst, src);
    scale(0, 8, 8, 8, dst, src);
    scale(8, 33000, 8, 8, dst, src);
    auto dp = dst.planes(), sp = src.planes();
    auto dpi = dst.pitches(), spi = src.pitches();
    sp[1] = nullptr;
    travik_scale_yuv_frame(8, 8, 8, 8, dp.data(), dpi.data(), sp.data(), spi.data());
    sp = src.planes();
    dp[2] = nullptr;
    travik_scale_yuv_frame(8, 8, 8, 8, dp.data(), dpi.data(), sp.data(), spi.data());
    travik_scale_yuv_frame(8, 8, 8, 8, nullptr, dpi.data(), sp.data(), spi.data());
    for (auto *p : {&dst.y, &dst.u, &dst.v})
      for (uint8_t b : p->bytes) ASSERT_EQ(b, 0xEE);
  }
}

// ----- optimised against reference, every byte of the destination

TEST_F(Scale, OptimisedPlaneScalingEqualsTheReference) {
  const std::vector<int32_t> all = levels();
  if (all.size() == 1) GTEST_SKIP() << "no optimised routines on this processor";
  std::mt19937 rng(7);
  for (int trial = 0; trial < 300; trial++) {
    const int sw = 1 + rng() % 400, sh = 1 + rng() % 60;
    const int dw = 1 + rng() % 400, dh = 1 + rng() % 60;
    Plane src(sw, sh, rng() % 9, 0);
    src.randomise(rng());
    Plane expect(dw, dh, 4, 0xEE), got(dw, dh, 4, 0xEE);
    travik_yuv2rgb_setsimd(0);
    travik_scale_frame(sw, sh, dw, dh, expect.bytes.data(), expect.pitch, src.bytes.data(),
                       src.pitch);
    for (size_t l = 1; l < all.size(); l++) {
      travik_yuv2rgb_setsimd(all[l]);
      std::fill(got.bytes.begin(), got.bytes.end(), 0xEE);
      travik_scale_frame(sw, sh, dw, dh, got.bytes.data(), got.pitch, src.bytes.data(),
                         src.pitch);
      ASSERT_TRUE(got.bytes == expect.bytes) << sw << "x" << sh << " -> " << dw << "x" << dh;
    }
  }
}

TEST_F(Scale, OptimisedYuvScalingEqualsTheReference) {
  const std::vector<int32_t> all = levels();
  if (all.size() == 1) GTEST_SKIP() << "no optimised routines on this processor";
  std::mt19937 rng(8);
  const int sizes[][4] = {{1920, 1080, 1280, 720}, {1280, 720, 1920, 1080}, {64, 48, 64, 48}};
  for (int trial = 0; trial < 300 + 3; trial++) {
    int sw, sh, dw, dh;
    if (trial < 3) {
      sw = sizes[trial][0], sh = sizes[trial][1], dw = sizes[trial][2], dh = sizes[trial][3];
    } else {
      sw = 1 + rng() % 300, sh = 1 + rng() % 50, dw = 1 + rng() % 300, dh = 1 + rng() % 50;
    }
    Yuv src(sw, sh, rng() % 9, 0);
    src.randomise(rng());
    Yuv expect(dw, dh, 3, 0xEE), got(dw, dh, 3, 0xEE);
    travik_yuv2rgb_setsimd(0);
    scale(sw, sh, dw, dh, expect, src);
    for (size_t l = 1; l < all.size(); l++) {
      travik_yuv2rgb_setsimd(all[l]);
      got = Yuv(dw, dh, 3, 0xEE);
      scale(sw, sh, dw, dh, got, src);
      ASSERT_TRUE(got.y.bytes == expect.y.bytes) << sw << "x" << sh << " -> " << dw << "x" << dh;
      ASSERT_TRUE(got.u.bytes == expect.u.bytes) << sw << "x" << sh << " -> " << dw << "x" << dh;
      ASSERT_TRUE(got.v.bytes == expect.v.bytes) << sw << "x" << sh << " -> " << dw << "x" << dh;
    }
  }
}

}  // namespace
