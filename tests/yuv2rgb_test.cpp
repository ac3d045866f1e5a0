#include <gtest/gtest.h>
#include <travik/frame.h>
#include <travik/yuv2rgb.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

namespace {

// ----- an independent model of the conversion

int32_t div_round(int32_t a, int32_t b) {
  return a > 0 ? (a + b / 2) / b : -((b / 2 - a) / b);
}

int clip(int t) {
  const int v = (76309 * t + 32768) >> 16;
  return v < 0 ? 0 : v > 255 ? 255 : v;
}

struct Rgb {
  int r, g, b;
};

Rgb model(int row, int y, int u, int v) {
  const int32_t *m = Inverse_Table_6_9[row];
  const int offr = div_round(m[0] * (v - 128), 76309);
  const int offb = div_round(m[1] * (u - 128), 76309);
  const int offgu = div_round(-m[2] * (u - 128), 76309);
  const int offgv = div_round(-m[3] * (v - 128), 76309);
  return {clip(y + offr - 16), clip(y + offgu + offgv - 16), clip(y + offb - 16)};
}

uint32_t pack(int32_t format, Rgb c) {
  switch (format) {
    case TRAVIK_PIXEL_RGB32:
      return (c.r << 16) | (c.g << 8) | c.b;
    case TRAVIK_PIXEL_BGR32:
      return (c.b << 16) | (c.g << 8) | c.r;
    case TRAVIK_PIXEL_RGB666:
      return ((c.r >> 2) << 12) | ((c.g >> 2) << 6) | (c.b >> 2);
    case TRAVIK_PIXEL_RGB565:
      return ((c.r >> 3) << 11) | ((c.g >> 2) << 5) | (c.b >> 3);
    case TRAVIK_PIXEL_RGB555:
      return ((c.r >> 3) << 10) | ((c.g >> 3) << 5) | (c.b >> 3);
    default:
      return (c.r << 16) | (c.g << 8) | c.b;
  }
}

int bytes_of(int32_t format) {
  switch (format) {
    case TRAVIK_PIXEL_RGB565:
    case TRAVIK_PIXEL_RGB555:
      return 2;
    case TRAVIK_PIXEL_RGB24:
      return 3;
    default:
      return 4;
  }
}

uint32_t read_pixel(const uint8_t *p, int bytes) {
  if (bytes == 4) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
  }
  if (bytes == 2) {
    uint16_t v;
    std::memcpy(&v, p, 2);
    return v;
  }
  return (p[0] << 16) | (p[1] << 8) | p[2];  // red, green, blue bytes
}

// A 4:2:0 picture with padded pitches.
struct Picture {
  int width, height, y_pitch, uv_pitch;
  std::vector<uint8_t> y, u, v;
  Picture(int w, int h, uint32_t seed, int pad = 5)
      : width(w), height(h), y_pitch(w + pad), uv_pitch((w + 1) / 2 + pad) {
    std::mt19937 rng(seed);
    y.resize(static_cast<size_t>(y_pitch) * h + 64);
    u.resize(static_cast<size_t>(uv_pitch) * ((h + 1) / 2) + 64);
    v.resize(u.size());
    for (auto &b : y) b = static_cast<uint8_t>(rng());
    for (auto &b : u) b = static_cast<uint8_t>(rng());
    for (auto &b : v) b = static_cast<uint8_t>(rng());
  }
  void fill(int yv, int uv, int vv) {
    std::fill(y.begin(), y.end(), yv);
    std::fill(u.begin(), u.end(), uv);
    std::fill(v.begin(), v.end(), vv);
  }
  int Y(int x, int r) const { return y[r * y_pitch + x]; }
  int U(int x, int r) const { return u[(r / 2) * uv_pitch + x / 2]; }
  int V(int x, int r) const { return v[(r / 2) * uv_pitch + x / 2]; }
};

struct Output {
  int pitch;
  std::vector<uint8_t> bytes;
  Output(int width_bytes, int rows, int pad = 12)
      : pitch(width_bytes + pad), bytes(static_cast<size_t>(pitch) * rows, 0xA5) {}
  uint8_t *data() { return bytes.data(); }
  const uint8_t *at(int x, int row, int bpp) const { return &bytes[row * pitch + x * bpp]; }
};

void convert(travik_yuv2rgb *c, int w, int h, Output &out, const Picture &p) {
  travik_yuv2rgb_convert(c, w, h, out.data(), out.pitch, p.y.data(), p.u.data(), p.v.data(),
                         p.y_pitch, p.uv_pitch);
}

const int32_t kFormats[] = {TRAVIK_PIXEL_RGB32,  TRAVIK_PIXEL_BGR32,  TRAVIK_PIXEL_RGB666,
                            TRAVIK_PIXEL_RGB24,  TRAVIK_PIXEL_RGB565, TRAVIK_PIXEL_RGB555};

// Restores the instruction-set level after a test changed it.
class Yuv2Rgb : public ::testing::Test {
 protected:
  void SetUp() override { saved_ = travik_yuv2rgb_getsimd(); }
  void TearDown() override {
    travik_yuv2rgb_setsimd(saved_);
    travik_yuv2rgb_setmatrix(6);
  }
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

// ----- creation and selection

TEST_F(Yuv2Rgb, UnsupportedFormatsGiveNull) {
  for (int32_t format : {0, 1, 2, 5, 8, 11, -1, 1000}) {
    EXPECT_EQ(travik_yuv2rgb_create(format), nullptr) << format;
    EXPECT_EQ(travik_yuv2rgb_create_swap(format), nullptr) << format;
  }
}

TEST_F(Yuv2Rgb, CreateSelectsPlainRotationZero) {
  for (int32_t format : kFormats) {
    travik_yuv2rgb *c = travik_yuv2rgb_create(format);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->scaling, 0);
    EXPECT_EQ(c->rotation, 0);
    EXPECT_EQ(c->convert, c->plain[0]);
    EXPECT_EQ(c->xmap, nullptr);
    EXPECT_EQ(c->ymap, nullptr);
    travik_yuv2rgb_destroy(c);
  }
}

TEST_F(Yuv2Rgb, RoutineAvailabilityPerRotation) {
  for (int32_t format : kFormats) {
    travik_yuv2rgb *c = travik_yuv2rgb_create(format);
    const int bytes = bytes_of(format);
    EXPECT_NE(c->plain[0], nullptr);
    EXPECT_NE(c->scaled[0], nullptr);
    EXPECT_EQ(c->plain[1] != nullptr, bytes == 2) << format;
    EXPECT_EQ(c->plain[2], nullptr);
    EXPECT_EQ(c->scaled[2], nullptr);
    EXPECT_EQ(c->plain[3] != nullptr, bytes != 3) << format;
    // Quarter turns are the same routine with and without scaling.
    EXPECT_EQ(c->plain[1], c->scaled[1]);
    EXPECT_EQ(c->plain[3], c->scaled[3]);
    travik_yuv2rgb_destroy(c);
  }
}

TEST_F(Yuv2Rgb, TwentyFourBitRoutineIsAlsoTheScaledOne) {
  travik_yuv2rgb *c = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB24);
  EXPECT_EQ(c->plain[0], c->scaled[0]);
  travik_yuv2rgb_destroy(c);
}

TEST_F(Yuv2Rgb, SetRotationTwoFailsForEveryFormat) {
  for (int32_t format : kFormats) {
    travik_yuv2rgb *c = travik_yuv2rgb_create(format);
    const travik_yuv2rgb_fn before = c->convert;
    EXPECT_EQ(travik_yuv2rgb_setrotation(c, 2), 0) << format;
    EXPECT_EQ(c->convert, before);
    travik_yuv2rgb_destroy(c);
  }
}

TEST_F(Yuv2Rgb, SetRotationOneOnlyForSixteenBit) {
  for (int32_t format : kFormats) {
    travik_yuv2rgb *c = travik_yuv2rgb_create(format);
    EXPECT_EQ(travik_yuv2rgb_setrotation(c, 1), bytes_of(format) == 2 ? 1 : 0) << format;
    travik_yuv2rgb_destroy(c);
  }
}

TEST_F(Yuv2Rgb, SetRotationThreeForThirtyTwoAndSixteenBit) {
  for (int32_t format : kFormats) {
    travik_yuv2rgb *c = travik_yuv2rgb_create(format);
    EXPECT_EQ(travik_yuv2rgb_setrotation(c, 3), bytes_of(format) == 3 ? 0 : 1) << format;
    if (bytes_of(format) != 3) { EXPECT_EQ(c->convert, c->plain[3]); }
    travik_yuv2rgb_destroy(c);
  }
}

TEST_F(Yuv2Rgb, FailedRotationIsStillStored) {
  travik_yuv2rgb *c = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB32);
  EXPECT_EQ(travik_yuv2rgb_setrotation(c, 2), 0);
  EXPECT_EQ(c->rotation, 2);
  EXPECT_EQ(c->convert, c->plain[0]);
  travik_yuv2rgb_destroy(c);
}

TEST_F(Yuv2Rgb, RotationOutsideRangeIsRefused) {
  travik_yuv2rgb *c = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB565);
  EXPECT_EQ(travik_yuv2rgb_setrotation(c, 4), 0);
  EXPECT_EQ(travik_yuv2rgb_setrotation(c, -1), 0);
  EXPECT_EQ(c->rotation, 0);
  EXPECT_EQ(travik_yuv2rgb_setrotation(nullptr, 0), 0);
  travik_yuv2rgb_destroy(c);
}

TEST_F(Yuv2Rgb, SetScaleWithEqualSizesTurnsScalingOff) {
  travik_yuv2rgb *c = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB32);
  EXPECT_EQ(travik_yuv2rgb_setscale(c, 64, 32, 32, 16), 1);
  EXPECT_EQ(c->scaling, 1);
  EXPECT_EQ(c->convert, c->scaled[0]);
  EXPECT_EQ(travik_yuv2rgb_setscale(c, 64, 32, 64, 32), 1);
  EXPECT_EQ(c->scaling, 0);
  EXPECT_EQ(c->convert, c->plain[0]);
  // With rotation 2 stored there is no plain routine: 0, routine kept.
  travik_yuv2rgb_setrotation(c, 2);
  EXPECT_EQ(travik_yuv2rgb_setscale(c, 64, 32, 64, 32), 0);
  EXPECT_EQ(c->convert, c->plain[0]);
  travik_yuv2rgb_destroy(c);
}

TEST_F(Yuv2Rgb, SetScaleBuildsSinglePrecisionMaps) {
  travik_yuv2rgb *c = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB565);
  ASSERT_EQ(travik_yuv2rgb_setscale(c, 10, 7, 4, 3), 1);
  // xs = 2.5: 0, 2.5 + 0.5, 5, 7.5 + 0.5; ys = 7/3 in single precision.
  EXPECT_EQ(std::vector<int32_t>(c->xmap, c->xmap + 4), (std::vector<int32_t>{0, 3, 5, 8}));
  const float ys = 7.0f / 3.0f;
  for (int j = 0; j < 3; j++)
    EXPECT_EQ(c->ymap[j], static_cast<int32_t>(static_cast<double>(j * ys) + 0.5));
  EXPECT_EQ(c->ymap[1], 2);
  EXPECT_EQ(c->ymap[2], 5);
  travik_yuv2rgb_destroy(c);
}

TEST_F(Yuv2Rgb, SetScaleHoldsLargeEnlargementsInsideTheSource) {
  travik_yuv2rgb *c = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB32);
  // 1 -> 4: the last entry would round to 1, past the only column.
  ASSERT_EQ(travik_yuv2rgb_setscale(c, 1, 2, 4, 8), 1);
  for (int i = 0; i < 4; i++) EXPECT_EQ(c->xmap[i], 0);
  for (int j = 0; j < 8; j++) EXPECT_LE(c->ymap[j], 1);
  travik_yuv2rgb_destroy(c);
}

TEST_F(Yuv2Rgb, SetScaleRefusesEmptySizes) {
  travik_yuv2rgb *c = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB32);
  EXPECT_EQ(travik_yuv2rgb_setscale(c, 0, 10, 10, 10), 0);
  EXPECT_EQ(travik_yuv2rgb_setscale(c, 10, 10, 0, 10), 0);
  EXPECT_EQ(travik_yuv2rgb_setscale(c, 10, 10, 10, -1), 0);
  EXPECT_EQ(c->scaling, 0);
  EXPECT_EQ(c->xmap, nullptr);
  EXPECT_EQ(travik_yuv2rgb_setscale(nullptr, 1, 1, 2, 2), 0);
  travik_yuv2rgb_destroy(c);
}

TEST_F(Yuv2Rgb, SetScaleWithQuarterTurnKeepsTheTurn) {
  travik_yuv2rgb *c = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB565);
  travik_yuv2rgb_setrotation(c, 3);
  EXPECT_EQ(travik_yuv2rgb_setscale(c, 32, 32, 16, 16), 1);
  EXPECT_EQ(c->convert, c->plain[3]);
  travik_yuv2rgb_destroy(c);
}

TEST_F(Yuv2Rgb, MatrixSelector) {
  EXPECT_EQ(travik_yuv2rgb_setmatrix(1), 6);
  EXPECT_EQ(travik_yuv2rgb_setmatrix(8), -1);
  EXPECT_EQ(travik_yuv2rgb_setmatrix(-1), -1);
  EXPECT_EQ(travik_yuv2rgb_setmatrix(6), 1);
}

TEST_F(Yuv2Rgb, InverseTableRows) {
  const int32_t expect[8][4] = {{117504, 138453, 13954, 34903}, {117504, 138453, 13954, 34903},
                                {104597, 132201, 25675, 53279}, {104597, 132201, 25675, 53279},
                                {104448, 132798, 24759, 53109}, {104597, 132201, 25675, 53279},
                                {104597, 132201, 25675, 53279}, {117579, 136230, 16907, 35559}};
  EXPECT_EQ(std::memcmp(expect, Inverse_Table_6_9, sizeof expect), 0);
}

TEST_F(Yuv2Rgb, TableFieldsFollowTheMatrix) {
  travik_yuv2rgb *c = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB32);
  // Green's V part: div_round(-53279 * (v - 128), 76309).
  EXPECT_EQ(c->table_gV[128], 0);
  EXPECT_EQ(c->table_gV[255], -89);
  EXPECT_EQ(c->table_gV[0], 89);
  // Red at V = 255 is the red table advanced by 175 entries.
  EXPECT_EQ(static_cast<uint32_t *>(c->table_rV[255]) - static_cast<uint32_t *>(c->table_rV[128]),
            174);
  EXPECT_EQ(static_cast<uint32_t *>(c->table_bU[0]) - static_cast<uint32_t *>(c->table_bU[128]),
            -222);
  travik_yuv2rgb_destroy(c);
}

// ----- what is drawn

TEST_F(Yuv2Rgb, BlackAndWhite) {
  for (int32_t level : levels()) {
    travik_yuv2rgb_setsimd(level);
    travik_yuv2rgb *c = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB32);
    Picture p(32, 2, 1);
    Output out(32 * 4, 2);
    p.fill(16, 128, 128);
    convert(c, 32, 2, out, p);
    EXPECT_EQ(read_pixel(out.at(0, 0, 4), 4), 0u);
    EXPECT_EQ(read_pixel(out.at(31, 1, 4), 4), 0u);
    p.fill(235, 128, 128);
    convert(c, 32, 2, out, p);
    EXPECT_EQ(read_pixel(out.at(0, 0, 4), 4), 0x00FFFFFFu);
    EXPECT_EQ(read_pixel(out.at(31, 1, 4), 4), 0x00FFFFFFu);
    travik_yuv2rgb_destroy(c);
  }
}

TEST_F(Yuv2Rgb, PlainRoutinesMatchTheModelInEveryFormat) {
  for (int32_t level : levels()) {
    travik_yuv2rgb_setsimd(level);
    for (int32_t format : kFormats) {
      travik_yuv2rgb *c = travik_yuv2rgb_create(format);
      const int w = 48, h = 6, bpp = bytes_of(format);
      Picture p(w, h, 7 + format);
      Output out(w * bpp, h);
      convert(c, format == TRAVIK_PIXEL_RGB24 ? w / 8 : w, h, out, p);
      for (int r = 0; r < h; r++)
        for (int x = 0; x < w; x++)
          ASSERT_EQ(read_pixel(out.at(x, r, bpp), bpp),
                    pack(format, model(6, p.Y(x, r), p.U(x, r), p.V(x, r))))
              << "format " << format << " level " << level << " at " << x << "," << r;
      travik_yuv2rgb_destroy(c);
    }
  }
}

TEST_F(Yuv2Rgb, OnlyWholeBlocksOfEightColumnsAreConverted) {
  for (int32_t level : levels()) {
    travik_yuv2rgb_setsimd(level);
    travik_yuv2rgb *c = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB32);
    Picture p(100, 50, 3);
    Output out(100 * 4, 50);
    convert(c, 100, 50, out, p);
    for (int r = 0; r < 50; r++) {
      EXPECT_EQ(read_pixel(out.at(95, r, 4), 4), pack(3, model(6, p.Y(95, r), p.U(95, r), p.V(95, r))));
      for (int x = 96; x < 100; x++) EXPECT_EQ(read_pixel(out.at(x, r, 4), 4), 0xA5A5A5A5u);
    }
    travik_yuv2rgb_destroy(c);
  }
}

TEST_F(Yuv2Rgb, LastOddRowIsNotConverted) {
  for (int32_t level : levels()) {
    travik_yuv2rgb_setsimd(level);
    travik_yuv2rgb *c = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB565);
    Picture p(64, 5, 4);
    Output out(64 * 2, 5);
    convert(c, 64, 5, out, p);
    EXPECT_EQ(read_pixel(out.at(0, 3, 2), 2), pack(6, model(6, p.Y(0, 3), p.U(0, 3), p.V(0, 3))));
    for (int x = 0; x < 64; x++) EXPECT_EQ(read_pixel(out.at(x, 4, 2), 2), 0xA5A5u);
    travik_yuv2rgb_destroy(c);
  }
}

TEST_F(Yuv2Rgb, TwentyFourBitWidthCountsBlocks) {
  for (int32_t level : levels()) {
    travik_yuv2rgb_setsimd(level);
    travik_yuv2rgb *c = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB24);
    Picture p(64, 2, 5);
    Output out(64 * 3, 2);
    convert(c, 3, 2, out, p);  // three blocks: 24 pixels
    EXPECT_EQ(read_pixel(out.at(23, 1, 3), 3), pack(4, model(6, p.Y(23, 1), p.U(23, 1), p.V(23, 1))));
    EXPECT_EQ(out.at(24, 0, 3)[0], 0xA5);
    EXPECT_EQ(out.at(24, 1, 3)[2], 0xA5);
    travik_yuv2rgb_destroy(c);
  }
}

TEST_F(Yuv2Rgb, TwentyFourBitScaledIgnoresTheMaps) {
  travik_yuv2rgb *c = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB24);
  ASSERT_EQ(travik_yuv2rgb_setscale(c, 32, 4, 16, 2), 1);
  Picture p(32, 4, 6);
  Output out(32 * 3, 4);
  convert(c, 2, 2, out, p);
  // Source pixel 15 lands in column 15, unscaled.
  EXPECT_EQ(read_pixel(out.at(15, 1, 3), 3), pack(4, model(6, p.Y(15, 1), p.U(15, 1), p.V(15, 1))));
  travik_yuv2rgb_destroy(c);
}

TEST_F(Yuv2Rgb, SwappedSixteenBitWritesBytesExchanged) {
  for (int32_t level : levels()) {
    travik_yuv2rgb_setsimd(level);
    for (int32_t format : {TRAVIK_PIXEL_RGB565, TRAVIK_PIXEL_RGB555}) {
      travik_yuv2rgb *c = travik_yuv2rgb_create_swap(format);
      EXPECT_EQ(c->convert, c->plain[0]);
      EXPECT_EQ(c->scaled[0], c->plain[0]);
      Picture p(40, 4, 8);
      Output out(40 * 2, 4);
      convert(c, 40, 4, out, p);
      for (int r = 0; r < 4; r++)
        for (int x = 0; x < 40; x++) {
          const uint32_t v = pack(format, model(6, p.Y(x, r), p.U(x, r), p.V(x, r)));
          ASSERT_EQ(read_pixel(out.at(x, r, 2), 2), ((v & 0xFF) << 8) | (v >> 8));
        }
      travik_yuv2rgb_destroy(c);
    }
  }
}

TEST_F(Yuv2Rgb, SwapDoesNothingForOtherDepths) {
  travik_yuv2rgb *c = travik_yuv2rgb_create_swap(TRAVIK_PIXEL_RGB32);
  Picture p(16, 2, 9);
  Output out(16 * 4, 2);
  convert(c, 16, 2, out, p);
  EXPECT_EQ(read_pixel(out.at(3, 1, 4), 4), pack(3, model(6, p.Y(3, 1), p.U(3, 1), p.V(3, 1))));
  travik_yuv2rgb_destroy(c);
}

TEST_F(Yuv2Rgb, LastCreateOfADepthDecidesTheLayout) {
  for (int32_t level : levels()) {
    travik_yuv2rgb_setsimd(level);
    travik_yuv2rgb *rgb = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB32);
    travik_yuv2rgb *bgr = travik_yuv2rgb_create(TRAVIK_PIXEL_BGR32);
    Picture p(32, 2, 10);
    Output out(32 * 4, 2);
    convert(rgb, 32, 2, out, p);
    EXPECT_EQ(read_pixel(out.at(5, 0, 4), 4), pack(TRAVIK_PIXEL_BGR32, model(6, p.Y(5, 0), p.U(5, 0), p.V(5, 0))));
    travik_yuv2rgb *s555 = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB555);
    travik_yuv2rgb *s565 = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB565);
    Output out16(32 * 2, 2);
    convert(s555, 32, 2, out16, p);
    EXPECT_EQ(read_pixel(out16.at(5, 0, 2), 2), pack(TRAVIK_PIXEL_RGB565, model(6, p.Y(5, 0), p.U(5, 0), p.V(5, 0))));
    for (auto *c : {rgb, bgr, s555, s565}) travik_yuv2rgb_destroy(c);
  }
}

TEST_F(Yuv2Rgb, ScaledRoutinesSampleThroughTheMaps) {
  for (int32_t format : {TRAVIK_PIXEL_RGB32, TRAVIK_PIXEL_RGB565}) {
    travik_yuv2rgb *c = travik_yuv2rgb_create(format);
    const int bpp = bytes_of(format);
    ASSERT_EQ(travik_yuv2rgb_setscale(c, 30, 20, 13, 9), 1);
    Picture p(30, 20, 11);
    Output out(13 * bpp, 9);
    convert(c, 13, 9, out, p);
    for (int j = 0; j < 9; j++)
      for (int i = 0; i < 13; i++) {
        const int sx = c->xmap[i], sy = c->ymap[j];
        ASSERT_EQ(read_pixel(out.at(i, j, bpp), bpp),
                  pack(format, model(6, p.Y(sx, sy), p.U(sx, sy), p.V(sx, sy))));
      }
    travik_yuv2rgb_destroy(c);
  }
}

TEST_F(Yuv2Rgb, ScaledRoutineDrawsNothingBeyondTheMaps) {
  travik_yuv2rgb *c = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB32);
  ASSERT_EQ(travik_yuv2rgb_setscale(c, 16, 16, 8, 8), 1);
  Picture p(16, 16, 12);
  Output out(16 * 4, 16);
  convert(c, 9, 8, out, p);
  convert(c, 8, 9, out, p);
  for (uint8_t b : out.bytes) ASSERT_EQ(b, 0xA5);
  travik_yuv2rgb_destroy(c);
}

TEST_F(Yuv2Rgb, ClockwiseQuarterTurn) {
  for (int32_t format : {TRAVIK_PIXEL_RGB32, TRAVIK_PIXEL_RGB555}) {
    travik_yuv2rgb *c = travik_yuv2rgb_create(format);
    const int bpp = bytes_of(format);
    ASSERT_EQ(travik_yuv2rgb_setrotation(c, 3), 1);
    const int w = 16, h = 6;
    Picture p(w, h, 13);
    Output out(h * bpp, w);  // rows are source-height pixels wide
    convert(c, w, h, out, p);
    for (int y = 0; y < h; y++)
      for (int x = 0; x < w; x++)
        ASSERT_EQ(read_pixel(out.at(h - 1 - y, x, bpp), bpp),
                  pack(format, model(6, p.Y(x, y), p.U(x, y), p.V(x, y))));
    travik_yuv2rgb_destroy(c);
  }
}

TEST_F(Yuv2Rgb, CounterClockwiseQuarterTurn) {
  travik_yuv2rgb *c = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB565);
  ASSERT_EQ(travik_yuv2rgb_setrotation(c, 1), 1);
  const int w = 24, h = 4;
  Picture p(w, h, 14);
  Output out(h * 2, w);
  convert(c, w, h, out, p);
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++)
      ASSERT_EQ(read_pixel(out.at(y, w - 1 - x, 2), 2),
                pack(6, model(6, p.Y(x, y), p.U(x, y), p.V(x, y))));
  travik_yuv2rgb_destroy(c);
}

TEST_F(Yuv2Rgb, QuarterTurnWithScalingConvertsAtTheGivenSize) {
  travik_yuv2rgb *c = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB565);
  ASSERT_EQ(travik_yuv2rgb_setscale(c, 64, 64, 8, 8), 1);
  ASSERT_EQ(travik_yuv2rgb_setrotation(c, 3), 1);
  Picture p(16, 4, 15);
  Output out(4 * 2, 16);
  convert(c, 16, 4, out, p);
  EXPECT_EQ(read_pixel(out.at(3, 15, 2), 2), pack(6, model(6, p.Y(15, 0), p.U(15, 0), p.V(15, 0))));
  travik_yuv2rgb_destroy(c);
}

TEST_F(Yuv2Rgb, QuarterTurnsConvertOnlyWholeBlocksAndRowPairs) {
  for (int32_t rotation : {1, 3}) {
    travik_yuv2rgb *c = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB565);
    ASSERT_EQ(travik_yuv2rgb_setrotation(c, rotation), 1);
    const int w = 13, h = 5;  // one block of 8 columns, two row pairs
    Picture p(w, h, 17);
    Output out(h * 2, w);
    convert(c, w, h, out, p);
    for (int y = 0; y < h; y++)
      for (int x = 0; x < w; x++) {
        const int row = rotation == 3 ? x : w - 1 - x;
        const int column = rotation == 3 ? h - 1 - y : y;
        const uint32_t got = read_pixel(out.at(column, row, 2), 2);
        if (x < 8 && y < 4)
          ASSERT_EQ(got, pack(6, model(6, p.Y(x, y), p.U(x, y), p.V(x, y))))
              << "rotation " << rotation << " at " << x << "," << y;
        else
          ASSERT_EQ(got, 0xA5A5u) << "rotation " << rotation << " at " << x << "," << y;
      }
    travik_yuv2rgb_destroy(c);
  }
}

TEST_F(Yuv2Rgb, CreateTakesTheMatrixRowSelectedBefore) {
  for (int32_t level : levels()) {
    travik_yuv2rgb_setsimd(level);
    for (int32_t row : {0, 4, 7}) {
      travik_yuv2rgb_setmatrix(row);
      travik_yuv2rgb *c = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB32);
      travik_yuv2rgb_setmatrix(6);  // a later change leaves this converter alone
      Picture p(64, 4, 20 + row);
      Output out(64 * 4, 4);
      convert(c, 64, 4, out, p);
      for (int r = 0; r < 4; r++)
        for (int x = 0; x < 64; x++)
          ASSERT_EQ(read_pixel(out.at(x, r, 4), 4),
                    pack(3, model(row, p.Y(x, r), p.U(x, r), p.V(x, r))))
              << "matrix row " << row << " level " << level << " at " << x << "," << r;
      travik_yuv2rgb_destroy(c);
    }
  }
}

TEST_F(Yuv2Rgb, SetScaleAgainReplacesTheMaps) {
  travik_yuv2rgb *c = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB32);
  ASSERT_EQ(travik_yuv2rgb_setscale(c, 64, 64, 16, 16), 1);
  ASSERT_EQ(travik_yuv2rgb_setscale(c, 8, 6, 16, 12), 1);
  // xs = 0.5: i * 0.5 + 0.5 truncated; ys likewise. Doubling rounds the
  // last entry to the source size itself, held at the last column and row.
  for (int i = 0; i < 16; i++) EXPECT_EQ(c->xmap[i], std::min((i + 1) / 2, 7)) << i;
  for (int j = 0; j < 12; j++) EXPECT_EQ(c->ymap[j], std::min((j + 1) / 2, 5)) << j;
  // The scaled routine now covers a 16 x 12 destination.
  Picture p(8, 6, 21);
  Output out(16 * 4, 12);
  convert(c, 16, 12, out, p);
  EXPECT_EQ(read_pixel(out.at(15, 11, 4), 4), pack(3, model(6, p.Y(7, 5), p.U(7, 5), p.V(7, 5))));
  travik_yuv2rgb_destroy(c);
}

TEST_F(Yuv2Rgb, BadArgumentsDrawNothing) {
  for (int32_t level : levels()) {
    travik_yuv2rgb_setsimd(level);
    for (int32_t format : kFormats) {
      travik_yuv2rgb *c = travik_yuv2rgb_create(format);
      Picture p(32, 4, 16);
      Output out(32 * 4, 4);
      travik_yuv2rgb_convert(c, 32, 4, out.data(), out.pitch, nullptr, p.u.data(), p.v.data(), p.y_pitch, p.uv_pitch);
      travik_yuv2rgb_convert(c, 32, 4, out.data(), out.pitch, p.y.data(), nullptr, p.v.data(), p.y_pitch, p.uv_pitch);
      travik_yuv2rgb_convert(c, 32, 4, out.data(), out.pitch, p.y.data(), p.u.data(), nullptr, p.y_pitch, p.uv_pitch);
      travik_yuv2rgb_convert(c, 32, 4, nullptr, out.pitch, p.y.data(), p.u.data(), p.v.data(), p.y_pitch, p.uv_pitch);
      convert(c, 0, 4, out, p);
      convert(c, 32, 0, out, p);
      convert(c, -8, 4, out, p);
      convert(c, 32, -2, out, p);
      if (format == TRAVIK_PIXEL_RGB24) {
        convert(c, 4, 1, out, p);  // (the width counts blocks) less than one row pair
      } else {
        convert(c, 7, 4, out, p);   // less than one block
        convert(c, 32, 1, out, p);  // less than one row pair
      }
      for (uint8_t b : out.bytes) ASSERT_EQ(b, 0xA5) << format;
      travik_yuv2rgb_destroy(c);
    }
  }
  travik_yuv2rgb_convert(nullptr, 8, 2, nullptr, 0, nullptr, nullptr, nullptr, 0, 0);
  travik_yuv2rgb_destroy(nullptr);
}

// ----- the optimised routines against the reference ones

struct Variant {
  int32_t format;
  bool swap;
};
const Variant kVariants[] = {{3, false}, {10, false}, {9, false}, {4, false},
                             {6, false}, {7, false},  {6, true},  {7, true}};

travik_yuv2rgb *make(const Variant &v) {
  return v.swap ? travik_yuv2rgb_create_swap(v.format) : travik_yuv2rgb_create(v.format);
}

TEST_F(Yuv2Rgb, OptimisedRoutinesAreChosenWhenAvailable) {
  const std::vector<int32_t> all = levels();
  for (int32_t level : all) {
    travik_yuv2rgb_setsimd(level);
    for (int row = 0; row < 8; row++) {
      travik_yuv2rgb_setmatrix(row);
      for (const Variant &v : kVariants) {
        travik_yuv2rgb *c = make(v);
        EXPECT_EQ(c->simd, level) << "matrix row " << row << " format " << v.format;
        travik_yuv2rgb_destroy(c);
      }
    }
  }
  if (all.size() == 1) GTEST_SKIP() << "no optimised routines on this processor";
}

// Every (Y, U, V) triple once: 4096 x 4096 pixels, each 2 x 2 group one
// (U, V) pair, each run of 64 groups of a pair the 256 luma values.
TEST_F(Yuv2Rgb, OptimisedRoutinesEqualTheReferenceForAllInputs) {
  const std::vector<int32_t> all = levels();
  if (all.size() == 1) GTEST_SKIP() << "no optimised routines on this processor";
  const int size = 4096;
  std::vector<uint8_t> y(static_cast<size_t>(size) * size), u(size / 2 * size / 2), v(u.size());
  for (int cy = 0; cy < size / 2; cy++)
    for (int cx = 0; cx < size / 2; cx++) {
      const int group = cy * (size / 2) + cx;
      const int pair = group / 64, part = group % 64;
      u[group] = static_cast<uint8_t>(pair & 0xFF);
      v[group] = static_cast<uint8_t>(pair >> 8);
      y[(2 * cy) * size + 2 * cx] = static_cast<uint8_t>(4 * part);
      y[(2 * cy) * size + 2 * cx + 1] = static_cast<uint8_t>(4 * part + 1);
      y[(2 * cy + 1) * size + 2 * cx] = static_cast<uint8_t>(4 * part + 2);
      y[(2 * cy + 1) * size + 2 * cx + 1] = static_cast<uint8_t>(4 * part + 3);
    }
  for (const Variant &var : kVariants) {
    const int bpp = bytes_of(var.format);
    const int w = var.format == TRAVIK_PIXEL_RGB24 ? size / 8 : size;
    travik_yuv2rgb_setsimd(0);
    travik_yuv2rgb *ref = make(var);
    std::vector<uint8_t> expect(static_cast<size_t>(size) * size * bpp);
    travik_yuv2rgb_convert(ref, w, size, expect.data(), size * bpp, y.data(), u.data(), v.data(),
                           size, size / 2);
    for (size_t l = 1; l < all.size(); l++) {
      travik_yuv2rgb_setsimd(all[l]);
      travik_yuv2rgb *fast = make(var);
      ASSERT_EQ(fast->simd, all[l]);
      std::vector<uint8_t> got(expect.size(), 0);
      travik_yuv2rgb_convert(fast, w, size, got.data(), size * bpp, y.data(), u.data(), v.data(),
                             size, size / 2);
      ASSERT_TRUE(got == expect) << "format " << var.format << " swap " << var.swap << " level "
                                 << all[l];
      travik_yuv2rgb_destroy(fast);
    }
    travik_yuv2rgb_destroy(ref);
  }
}

TEST_F(Yuv2Rgb, OptimisedRoutinesEqualTheReferenceOnRandomPictures) {
  const std::vector<int32_t> all = levels();
  if (all.size() == 1) GTEST_SKIP() << "no optimised routines on this processor";
  std::mt19937 rng(99);
  for (int trial = 0; trial < 40; trial++) {
    const int w = 8 + static_cast<int>(rng() % 300);
    const int h = 1 + static_cast<int>(rng() % 40);
    const int row = static_cast<int>(rng() % 8);
    Picture p(w, h, rng(), static_cast<int>(rng() % 17));
    travik_yuv2rgb_setmatrix(row);
    for (const Variant &var : kVariants) {
      const int bpp = bytes_of(var.format);
      const int arg = var.format == TRAVIK_PIXEL_RGB24 ? w / 8 : w;
      travik_yuv2rgb_setsimd(0);
      travik_yuv2rgb *ref = make(var);
      Output expect(w * bpp, h, 3);
      convert(ref, arg, h, expect, p);
      for (size_t l = 1; l < all.size(); l++) {
        travik_yuv2rgb_setsimd(all[l]);
        travik_yuv2rgb *fast = make(var);
        Output got(w * bpp, h, 3);
        convert(fast, arg, h, got, p);
        ASSERT_TRUE(got.bytes == expect.bytes)
            << "format " << var.format << " swap " << var.swap << " level " << all[l] << " size "
            << w << "x" << h << " matrix " << row;
        travik_yuv2rgb_destroy(fast);
      }
      travik_yuv2rgb_destroy(ref);
    }
  }
}

// ----- optimised scaled routines against the reference

// A 4:2:0 picture whose planes end exactly at the last sample, so that the
// address sanitizer sees any read past the source.
struct TightPicture {
  int width, height, y_pitch, uv_pitch;
  std::vector<uint8_t> y, u, v;
  TightPicture(int w, int h, uint32_t seed, int pad)
      : width(w), height(h), y_pitch(w + pad), uv_pitch((w + 1) / 2 + pad) {
    std::mt19937 rng(seed);
    const int cw = (w + 1) / 2, ch = (h + 1) / 2;
    y.resize(static_cast<size_t>(y_pitch) * (h - 1) + w);
    u.resize(static_cast<size_t>(uv_pitch) * (ch - 1) + cw);
    v.resize(u.size());
    for (auto &b : y) b = static_cast<uint8_t>(rng());
    for (auto &b : u) b = static_cast<uint8_t>(rng());
    for (auto &b : v) b = static_cast<uint8_t>(rng());
  }
};

struct ScaleCase {
  int sw, sh, dw, dh;
};

// Converts `p` scaled to (dw, dh) (or a part of that) with the reference
// routines and with every optimised level, and compares the bytes.
void expect_scaled_equal(const std::vector<int32_t> &all, const TightPicture &p, int dw, int dh,
                         int cw, int ch, int dst_pad, int matrix) {
  travik_yuv2rgb_setmatrix(matrix);
  for (const Variant &var : kVariants) {
    const int bpp = bytes_of(var.format);
    // The 24-bit routine (and the swapped 16-bit one) is also the scaled
    // routine and converts at the source size in 8-pixel blocks, so it gets
    // a size inside the source.
    const bool plain = var.format == TRAVIK_PIXEL_RGB24 || var.swap;
    const int w = plain ? std::min(cw, p.width) : cw;
    const int h = plain ? std::min(ch, p.height) : ch;
    const int arg = var.format == TRAVIK_PIXEL_RGB24 ? w / 8 : w;
    travik_yuv2rgb_setsimd(0);
    travik_yuv2rgb *ref = make(var);
    ASSERT_EQ(travik_yuv2rgb_setscale(ref, p.width, p.height, dw, dh), 1);
    Output expect(w * bpp, h, dst_pad);
    travik_yuv2rgb_convert(ref, arg, h, expect.data(), expect.pitch, p.y.data(), p.u.data(),
                           p.v.data(), p.y_pitch, p.uv_pitch);
    for (size_t l = 1; l < all.size(); l++) {
      travik_yuv2rgb_setsimd(all[l]);
      travik_yuv2rgb *fast = make(var);
      ASSERT_EQ(travik_yuv2rgb_setscale(fast, p.width, p.height, dw, dh), 1);
      Output got(w * bpp, h, dst_pad);
      travik_yuv2rgb_convert(fast, arg, h, got.data(), got.pitch, p.y.data(), p.u.data(),
                             p.v.data(), p.y_pitch, p.uv_pitch);
      ASSERT_TRUE(got.bytes == expect.bytes)
          << "format " << var.format << " swap " << var.swap << " level " << all[l] << " source "
          << p.width << "x" << p.height << " maps " << dw << "x" << dh << " converted " << w
          << "x" << h << " matrix " << matrix;
      travik_yuv2rgb_destroy(fast);
    }
    travik_yuv2rgb_destroy(ref);
  }
}

TEST_F(Yuv2Rgb, OptimisedScaledRoutinesAreChosenWhenAvailable) {
  const std::vector<int32_t> all = levels();
  if (all.size() == 1) GTEST_SKIP() << "no optimised routines on this processor";
  for (const Variant &var : kVariants) {
    travik_yuv2rgb_setsimd(0);
    travik_yuv2rgb *ref = make(var);
    for (size_t l = 1; l < all.size(); l++) {
      travik_yuv2rgb_setsimd(all[l]);
      travik_yuv2rgb *fast = make(var);
      EXPECT_NE(fast->scaled[0], ref->scaled[0]) << "format " << var.format << " swap " << var.swap;
      ASSERT_EQ(travik_yuv2rgb_setscale(fast, 64, 48, 40, 30), 1);
      EXPECT_EQ(fast->convert, fast->scaled[0]);
      travik_yuv2rgb_destroy(fast);
    }
    travik_yuv2rgb_destroy(ref);
  }
}

TEST_F(Yuv2Rgb, OptimisedScaledRoutinesEqualTheReferenceOnChosenSizes) {
  const std::vector<int32_t> all = levels();
  if (all.size() == 1) GTEST_SKIP() << "no optimised routines on this processor";
  const ScaleCase cases[] = {
      {1280, 720, 800, 480},  // the usual display case
      {320, 240, 800, 480},   // enlarging
      {64, 48, 200, 150},     // enlarging by more than two
      {1, 1, 37, 5},          // a single source pixel
      {3, 3, 1, 1},           // a single destination pixel
      {33, 17, 31, 15},       // odd sizes on both sides
      {31, 15, 33, 17},
      {47, 29, 16, 16},       // whole vectors out of odd sources
      {17, 9, 65, 7},         // one more than a vector
      {100, 50, 15, 63},      // shrinking one way, enlarging the other
      {640, 360, 639, 359},   // nearly the identity
      {48, 40, 48, 41},       // equal widths, rows differ
      {40, 48, 41, 48},       // equal heights, columns differ
      {2, 2, 97, 3},
      {255, 3, 31, 2},
  };
  int index = 0;
  for (const ScaleCase &k : cases) {
    const TightPicture p(k.sw, k.sh, 1000 + index, index % 7);
    expect_scaled_equal(all, p, k.dw, k.dh, k.dw, k.dh, index % 3 ? 5 : 0, index % 8);
    if (HasFatalFailure()) return;
    index++;
  }
}

TEST_F(Yuv2Rgb, OptimisedScaledRoutinesEqualTheReferenceOnRandomSizes) {
  const std::vector<int32_t> all = levels();
  if (all.size() == 1) GTEST_SKIP() << "no optimised routines on this processor";
  std::mt19937 rng(2024);
  for (int trial = 0; trial < 48; trial++) {
    const int sw = 1 + static_cast<int>(rng() % 260), sh = 1 + static_cast<int>(rng() % 60);
    int dw = 1 + static_cast<int>(rng() % 260), dh = 1 + static_cast<int>(rng() % 60);
    if (dw == sw && dh == sh) dw++;
    const TightPicture p(sw, sh, rng(), static_cast<int>(rng() % 19));
    expect_scaled_equal(all, p, dw, dh, dw, dh, static_cast<int>(rng() % 9), trial % 8);
    if (HasFatalFailure()) return;
  }
}

// Converting fewer columns or rows than the maps have uses their first
// entries only.
TEST_F(Yuv2Rgb, OptimisedScaledRoutinesEqualTheReferenceOnPartsOfTheMaps) {
  const std::vector<int32_t> all = levels();
  if (all.size() == 1) GTEST_SKIP() << "no optimised routines on this processor";
  std::mt19937 rng(77);
  for (int trial = 0; trial < 24; trial++) {
    const int sw = 2 + static_cast<int>(rng() % 200), sh = 2 + static_cast<int>(rng() % 50);
    const int dw = 2 + static_cast<int>(rng() % 200), dh = 2 + static_cast<int>(rng() % 50);
    const int cw = 1 + static_cast<int>(rng() % dw), ch = 1 + static_cast<int>(rng() % dh);
    const TightPicture p(sw, sh, rng(), static_cast<int>(rng() % 5));
    expect_scaled_equal(all, p, dw == sw && dh == sh ? dw + 1 : dw, dh, cw, ch, 3, trial % 8);
    if (HasFatalFailure()) return;
  }
}

// A 512 x 512 source holds every (U, V) pair once; converted nearly at its
// own size, every pair meets the row routines.
TEST_F(Yuv2Rgb, OptimisedScaledRoutinesEqualTheReferenceForEveryChromaPair) {
  const std::vector<int32_t> all = levels();
  if (all.size() == 1) GTEST_SKIP() << "no optimised routines on this processor";
  TightPicture p(512, 512, 5, 0);
  for (int i = 0; i < 256 * 256; i++) {
    p.u[i] = static_cast<uint8_t>(i & 0xFF);
    p.v[i] = static_cast<uint8_t>(i >> 8);
  }
  for (int matrix = 0; matrix < 8; matrix++) {
    expect_scaled_equal(all, p, 512, 511, 512, 511, 0, matrix);
    if (HasFatalFailure()) return;
  }
}

// Converters of one depth share the table that decides the bit layout; the
// optimised scaled routine follows the last create as the reference does.
TEST_F(Yuv2Rgb, OptimisedScaledRoutinesFollowTheLastCreateOfTheDepth) {
  const std::vector<int32_t> all = levels();
  if (all.size() == 1) GTEST_SKIP() << "no optimised routines on this processor";
  const TightPicture p(70, 30, 9, 2);
  const int32_t pairs[][2] = {{TRAVIK_PIXEL_RGB32, TRAVIK_PIXEL_BGR32},
                              {TRAVIK_PIXEL_BGR32, TRAVIK_PIXEL_RGB666},
                              {TRAVIK_PIXEL_RGB565, TRAVIK_PIXEL_RGB555},
                              {TRAVIK_PIXEL_RGB555, TRAVIK_PIXEL_RGB565}};
  for (const auto &pair : pairs) {
    const int bpp = bytes_of(pair[0]);
    travik_yuv2rgb_setsimd(0);
    travik_yuv2rgb *ref = travik_yuv2rgb_create(pair[0]);
    travik_yuv2rgb *other = travik_yuv2rgb_create(pair[1]);
    ASSERT_EQ(travik_yuv2rgb_setscale(ref, 70, 30, 45, 41), 1);
    Output expect(45 * bpp, 41);
    travik_yuv2rgb_convert(ref, 45, 41, expect.data(), expect.pitch, p.y.data(), p.u.data(),
                           p.v.data(), p.y_pitch, p.uv_pitch);
    for (size_t l = 1; l < all.size(); l++) {
      travik_yuv2rgb_setsimd(all[l]);
      travik_yuv2rgb *fast = travik_yuv2rgb_create(pair[0]);
      travik_yuv2rgb *later = travik_yuv2rgb_create(pair[1]);
      ASSERT_EQ(travik_yuv2rgb_setscale(fast, 70, 30, 45, 41), 1);
      Output got(45 * bpp, 41);
      travik_yuv2rgb_convert(fast, 45, 41, got.data(), got.pitch, p.y.data(), p.u.data(),
                             p.v.data(), p.y_pitch, p.uv_pitch);
      ASSERT_TRUE(got.bytes == expect.bytes) << pair[0] << " then " << pair[1];
      travik_yuv2rgb_destroy(later);
      travik_yuv2rgb_destroy(fast);
    }
    travik_yuv2rgb_destroy(other);
    travik_yuv2rgb_destroy(ref);
  }
}

// New maps for another size replace the row buffers: the converter keeps
// matching the reference across size changes, and back to no scaling.
TEST_F(Yuv2Rgb, OptimisedScaledRoutinesFollowNewMaps) {
  const std::vector<int32_t> all = levels();
  if (all.size() == 1) GTEST_SKIP() << "no optimised routines on this processor";
  const TightPicture p(96, 64, 21, 4);
  const int sizes[][2] = {{200, 100}, {17, 9}, {96, 64}, {150, 70}, {33, 65}};
  for (int32_t format : {TRAVIK_PIXEL_RGB32, TRAVIK_PIXEL_RGB565}) {
    const int bpp = bytes_of(format);
    travik_yuv2rgb_setsimd(0);
    travik_yuv2rgb *ref = travik_yuv2rgb_create(format);
    travik_yuv2rgb_setsimd(all.back());
    travik_yuv2rgb *fast = travik_yuv2rgb_create(format);
    for (const auto &size : sizes) {
      ASSERT_EQ(travik_yuv2rgb_setscale(ref, 96, 64, size[0], size[1]), 1);
      ASSERT_EQ(travik_yuv2rgb_setscale(fast, 96, 64, size[0], size[1]), 1);
      Output expect(size[0] * bpp, size[1]), got(size[0] * bpp, size[1]);
      travik_yuv2rgb_convert(ref, size[0], size[1], expect.data(), expect.pitch, p.y.data(),
                             p.u.data(), p.v.data(), p.y_pitch, p.uv_pitch);
      travik_yuv2rgb_convert(fast, size[0], size[1], got.data(), got.pitch, p.y.data(),
                             p.u.data(), p.v.data(), p.y_pitch, p.uv_pitch);
      ASSERT_TRUE(got.bytes == expect.bytes) << format << " at " << size[0] << "x" << size[1];
    }
    travik_yuv2rgb_destroy(fast);
    travik_yuv2rgb_destroy(ref);
  }
}

// Rows drawn twice (enlarging) into a destination whose pitch is smaller
// than a row: the rows overlap, and the result is still the reference's.
TEST_F(Yuv2Rgb, OptimisedScaledRoutinesWithOverlappingDestinationRows) {
  const std::vector<int32_t> all = levels();
  if (all.size() == 1) GTEST_SKIP() << "no optimised routines on this processor";
  const TightPicture p(40, 10, 31, 0);
  for (int32_t format : {TRAVIK_PIXEL_RGB32, TRAVIK_PIXEL_RGB565}) {
    const int bpp = bytes_of(format);
    for (int pitch : {0, 8 * bpp}) {
      std::vector<uint8_t> expect(static_cast<size_t>(80 * bpp + 40 * pitch), 0x5A);
      std::vector<uint8_t> got(expect.size(), 0x5A);
      travik_yuv2rgb_setsimd(0);
      travik_yuv2rgb *ref = travik_yuv2rgb_create(format);
      ASSERT_EQ(travik_yuv2rgb_setscale(ref, 40, 10, 80, 40), 1);
      travik_yuv2rgb_convert(ref, 80, 40, expect.data(), pitch, p.y.data(), p.u.data(),
                             p.v.data(), p.y_pitch, p.uv_pitch);
      for (size_t l = 1; l < all.size(); l++) {
        travik_yuv2rgb_setsimd(all[l]);
        travik_yuv2rgb *fast = travik_yuv2rgb_create(format);
        ASSERT_EQ(travik_yuv2rgb_setscale(fast, 40, 10, 80, 40), 1);
        std::fill(got.begin(), got.end(), 0x5A);
        travik_yuv2rgb_convert(fast, 80, 40, got.data(), pitch, p.y.data(), p.u.data(),
                               p.v.data(), p.y_pitch, p.uv_pitch);
        ASSERT_TRUE(got == expect) << format << " pitch " << pitch << " level " << all[l];
        travik_yuv2rgb_destroy(fast);
      }
      travik_yuv2rgb_destroy(ref);
    }
  }
}


// ----- optimised quarter turns against the reference

// The variants with quarter turns and the rotations each has.
std::vector<int32_t> turns_of(int32_t format) {
  if (bytes_of(format) == 2) return {1, 3};
  if (bytes_of(format) == 4) return {3};
  return {};
}

// A turned destination (source-width rows of source-height pixels) with
// guard bytes before the first row, after the last one and at the end of
// every row; `flipped` gives it a negative pitch (last row first in memory).
struct TurnedOutput {
  static constexpr int kGuard = 64;
  int pitch, rows;
  bool flipped;
  std::vector<uint8_t> bytes;
  TurnedOutput(int row_bytes, int row_count, int pad, bool flip)
      : pitch(row_bytes + pad), rows(row_count), flipped(flip),
        bytes(static_cast<size_t>(pitch) * row_count + 2 * kGuard, 0xA5) {}
  uint8_t *first_row() {
    return bytes.data() + kGuard + (flipped ? static_cast<ptrdiff_t>(pitch) * (rows - 1) : 0);
  }
  int32_t signed_pitch() const { return flipped ? -pitch : pitch; }
  bool guards_intact(int row_bytes) const {
    for (int i = 0; i < kGuard; i++)
      if (bytes[i] != 0xA5 || bytes[bytes.size() - 1 - i] != 0xA5) return false;
    for (int r = 0; r < rows; r++)
      for (int i = row_bytes; i < pitch; i++)
        if (bytes[kGuard + static_cast<size_t>(r) * pitch + i] != 0xA5) return false;
    return true;
  }
};

// Converts `p` turned with the reference routines and with every optimised
// level, every variant and every rotation it has, and compares the bytes.
void expect_turns_equal(const std::vector<int32_t> &all, const TightPicture &p, int matrix,
                        int pad, bool flip) {
  travik_yuv2rgb_setmatrix(matrix);
  for (const Variant &var : kVariants) {
    const int bpp = bytes_of(var.format);
    for (int32_t rotation : turns_of(var.format)) {
      travik_yuv2rgb_setsimd(0);
      travik_yuv2rgb *ref = make(var);
      ASSERT_EQ(travik_yuv2rgb_setrotation(ref, rotation), 1);
      TurnedOutput expect(p.height * bpp, p.width, pad, flip);
      travik_yuv2rgb_convert(ref, p.width, p.height, expect.first_row(), expect.signed_pitch(),
                             p.y.data(), p.u.data(), p.v.data(), p.y_pitch, p.uv_pitch);
      for (size_t l = 1; l < all.size(); l++) {
        travik_yuv2rgb_setsimd(all[l]);
        travik_yuv2rgb *fast = make(var);
        ASSERT_EQ(travik_yuv2rgb_setrotation(fast, rotation), 1);
        TurnedOutput got(p.height * bpp, p.width, pad, flip);
        travik_yuv2rgb_convert(fast, p.width, p.height, got.first_row(), got.signed_pitch(),
                               p.y.data(), p.u.data(), p.v.data(), p.y_pitch, p.uv_pitch);
        ASSERT_TRUE(got.guards_intact(p.height * bpp))
            << "format " << var.format << " swap " << var.swap << " rotation " << rotation
            << " level " << all[l] << " size " << p.width << "x" << p.height;
        ASSERT_TRUE(got.bytes == expect.bytes)
            << "format " << var.format << " swap " << var.swap << " rotation " << rotation
            << " level " << all[l] << " size " << p.width << "x" << p.height << " matrix "
            << matrix << (flip ? " negative pitch" : "");
        travik_yuv2rgb_destroy(fast);
      }
      travik_yuv2rgb_destroy(ref);
    }
  }
}

TEST_F(Yuv2Rgb, OptimisedQuarterTurnsAreChosenWhenAvailable) {
  const std::vector<int32_t> all = levels();
  if (all.size() == 1) GTEST_SKIP() << "no optimised routines on this processor";
  for (const Variant &var : kVariants) {
    travik_yuv2rgb_setsimd(0);
    travik_yuv2rgb *ref = make(var);
    for (size_t l = 1; l < all.size(); l++) {
      travik_yuv2rgb_setsimd(all[l]);
      travik_yuv2rgb *fast = make(var);
      for (int32_t rotation = 0; rotation < 4; rotation++) {
        const std::vector<int32_t> turns = turns_of(var.format);
        const bool turn = std::find(turns.begin(), turns.end(), rotation) != turns.end();
        if (rotation == 0) continue;
        if (!turn) {
          EXPECT_EQ(fast->plain[rotation], nullptr);
          EXPECT_EQ(travik_yuv2rgb_setrotation(fast, rotation), 0);
          continue;
        }
        EXPECT_NE(fast->plain[rotation], ref->plain[rotation])
            << "format " << var.format << " swap " << var.swap << " rotation " << rotation;
        EXPECT_EQ(fast->scaled[rotation], fast->plain[rotation]);
        ASSERT_EQ(travik_yuv2rgb_setrotation(fast, rotation), 1);
        EXPECT_EQ(fast->convert, fast->plain[rotation]);
        ASSERT_EQ(travik_yuv2rgb_setscale(fast, 64, 48, 40, 30), 1);
        EXPECT_EQ(fast->convert, fast->plain[rotation]);
        ASSERT_EQ(travik_yuv2rgb_setscale(fast, 64, 48, 64, 48), 1);
      }
      travik_yuv2rgb_destroy(fast);
    }
    travik_yuv2rgb_destroy(ref);
  }
}

TEST_F(Yuv2Rgb, OptimisedQuarterTurnsEqualTheReferenceOnChosenSizes) {
  const std::vector<int32_t> all = levels();
  if (all.size() == 1) GTEST_SKIP() << "no optimised routines on this processor";
  // Single blocks, less than a block or a row pair, partial tiles of rows
  // and columns, sizes off the vector widths, several tiles in both ways.
  const int sizes[][2] = {{8, 2},   {7, 9},    {16, 8},   {24, 10},  {40, 16}, {8, 1},
                          {1, 1},   {33, 17},  {255, 7},  {256, 8},  {264, 9}, {520, 22},
                          {100, 50}, {31, 65}, {600, 36}, {72, 130}};
  int matrix = 0;
  for (const auto &size : sizes) {
    const TightPicture p(size[0], size[1], static_cast<uint32_t>(size[0] * 1000 + size[1]), 3);
    expect_turns_equal(all, p, matrix++ % 8, 6, false);
  }
}

TEST_F(Yuv2Rgb, OptimisedQuarterTurnsEqualTheReferenceOnRandomPictures) {
  const std::vector<int32_t> all = levels();
  if (all.size() == 1) GTEST_SKIP() << "no optimised routines on this processor";
  std::mt19937 rng(2024);
  for (int trial = 0; trial < 32; trial++) {
    const int w = 1 + static_cast<int>(rng() % 300);
    const int h = 1 + static_cast<int>(rng() % 40);
    const TightPicture p(w, h, rng(), static_cast<int>(rng() % 9));
    expect_turns_equal(all, p, trial % 8, static_cast<int>(rng() % 13), false);
  }
}

TEST_F(Yuv2Rgb, OptimisedQuarterTurnsEqualTheReferenceWithNegativePitch) {
  const std::vector<int32_t> all = levels();
  if (all.size() == 1) GTEST_SKIP() << "no optimised routines on this processor";
  const TightPicture p(88, 22, 5, 2);
  expect_turns_equal(all, p, 6, 4, true);
}

TEST_F(Yuv2Rgb, OptimisedQuarterTurnsEqualTheReferenceOnAWholeFrame) {
  const std::vector<int32_t> all = levels();
  if (all.size() == 1) GTEST_SKIP() << "no optimised routines on this processor";
  const TightPicture p(1280, 720, 77, 0);
  expect_turns_equal(all, p, 1, 0, false);
}

// Destination rows closer together than a turned source column overlap:
// the result still equals the reference's.
TEST_F(Yuv2Rgb, OptimisedQuarterTurnsWithOverlappingDestinationRows) {
  const std::vector<int32_t> all = levels();
  if (all.size() == 1) GTEST_SKIP() << "no optimised routines on this processor";
  const TightPicture p(48, 20, 9, 0);
  for (int32_t format : {TRAVIK_PIXEL_RGB32, TRAVIK_PIXEL_RGB565}) {
    const int bpp = bytes_of(format);
    for (int32_t rotation : turns_of(format))
      for (int pitch : {0, 4 * bpp, 19 * bpp}) {
        std::vector<uint8_t> expect(static_cast<size_t>(20 * bpp + 48 * pitch), 0x5A);
        travik_yuv2rgb_setsimd(0);
        travik_yuv2rgb *ref = travik_yuv2rgb_create(format);
        ASSERT_EQ(travik_yuv2rgb_setrotation(ref, rotation), 1);
        travik_yuv2rgb_convert(ref, 48, 20, expect.data(), pitch, p.y.data(), p.u.data(),
                               p.v.data(), p.y_pitch, p.uv_pitch);
        for (size_t l = 1; l < all.size(); l++) {
          travik_yuv2rgb_setsimd(all[l]);
          travik_yuv2rgb *fast = travik_yuv2rgb_create(format);
          ASSERT_EQ(travik_yuv2rgb_setrotation(fast, rotation), 1);
          std::vector<uint8_t> got(expect.size(), 0x5A);
          travik_yuv2rgb_convert(fast, 48, 20, got.data(), pitch, p.y.data(), p.u.data(),
                                 p.v.data(), p.y_pitch, p.uv_pitch);
          ASSERT_TRUE(got == expect)
              << format << " rotation " << rotation << " pitch " << pitch << " level " << all[l];
          travik_yuv2rgb_destroy(fast);
        }
        travik_yuv2rgb_destroy(ref);
      }
  }
}

// A later create of another format of the same depth changes the bit layout
// of the turned output exactly as it does the reference's.
TEST_F(Yuv2Rgb, OptimisedQuarterTurnsFollowTheLastCreateOfTheDepth) {
  const std::vector<int32_t> all = levels();
  if (all.size() == 1) GTEST_SKIP() << "no optimised routines on this processor";
  const TightPicture p(64, 16, 12, 1);
  const int32_t pairs[][2] = {{TRAVIK_PIXEL_RGB565, TRAVIK_PIXEL_RGB555},
                              {TRAVIK_PIXEL_RGB32, TRAVIK_PIXEL_RGB666}};
  for (const auto &pair : pairs) {
    const int bpp = bytes_of(pair[0]);
    travik_yuv2rgb_setsimd(0);
    travik_yuv2rgb *ref = travik_yuv2rgb_create(pair[0]);
    travik_yuv2rgb_setsimd(all.back());
    travik_yuv2rgb *fast = travik_yuv2rgb_create(pair[0]);
    travik_yuv2rgb *later = travik_yuv2rgb_create(pair[1]);
    ASSERT_EQ(travik_yuv2rgb_setrotation(ref, 3), 1);
    ASSERT_EQ(travik_yuv2rgb_setrotation(fast, 3), 1);
    Output expect(16 * bpp, 64), got(16 * bpp, 64);
    travik_yuv2rgb_convert(ref, 64, 16, expect.data(), expect.pitch, p.y.data(), p.u.data(),
                           p.v.data(), p.y_pitch, p.uv_pitch);
    travik_yuv2rgb_convert(fast, 64, 16, got.data(), got.pitch, p.y.data(), p.u.data(),
                           p.v.data(), p.y_pitch, p.uv_pitch);
    EXPECT_TRUE(got.bytes == expect.bytes) << pair[0] << " then " << pair[1];
    // The reference itself changed: the first pixel is in the later layout.
    const uint32_t first = read_pixel(expect.at(15, 0, bpp), bpp);
    const Rgb rgb = model(6, p.y[0], p.u[0], p.v[0]);
    EXPECT_EQ(first, pack(pair[1], rgb));
    travik_yuv2rgb_destroy(later);
    travik_yuv2rgb_destroy(fast);
    travik_yuv2rgb_destroy(ref);
  }
}

}  // namespace
