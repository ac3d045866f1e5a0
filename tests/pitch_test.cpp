#include <gtest/gtest.h>
#include <travik/pitch.h>

#include <cstring>
#include <vector>

namespace {

struct Scaler {
  travik_pitch_scaling *s = travik_pitch_scaling_create();
  ~Scaler() { travik_pitch_scaling_destroy(s); }
  // Drains everything owed in gets of at most `max` bytes; returns the total.
  long drain(int32_t max) {
    std::vector<uint8_t> out(static_cast<size_t>(max), 0xAA);
    long total = 0;
    for (int guard = 0; guard < 100000; guard++) {
      int32_t got = -99;
      EXPECT_EQ(travik_pitch_scaling_get(s, out.data(), max, &got), 0);
      if (got <= 0) break;
      for (int32_t k = 0; k < got; k++) EXPECT_EQ(out[k], 0) << k;
      total += got;
    }
    return total;
  }
};

TEST(PitchScaling, CreateState) {
  Scaler a;
  EXPECT_EQ(a.s->speed, 1.0f);
  EXPECT_EQ(a.s->pending, 0.0f);
  EXPECT_EQ(a.s->rate, 0);
  EXPECT_EQ(a.s->channels, 0);
}

TEST(PitchScaling, InitStoresTheFormat) {
  Scaler a;
  EXPECT_EQ(travik_pitch_scaling_init(a.s, 44100, 2), 0);
  EXPECT_EQ(a.s->rate, 44100);
  EXPECT_EQ(a.s->channels, 2);
}

TEST(PitchScaling, GetAfterCreateYieldsNothingAndLeavesOutputAlone) {
  Scaler a;
  uint8_t out[16];
  memset(out, 0xAA, sizeof out);
  int32_t got = -99;
  EXPECT_EQ(travik_pitch_scaling_get(a.s, out, 16, &got), 0);
  EXPECT_EQ(got, 0);
  for (uint8_t b : out) EXPECT_EQ(b, 0xAA);
}

TEST(PitchScaling, DoubleSpeedOwesHalf) {
  Scaler a;
  travik_pitch_scaling_setspeed(a.s, 2.0f);
  uint8_t data[4096] = {1};
  travik_pitch_scaling_setsource(a.s, data, 4096);
  EXPECT_EQ(a.s->pending, 2048.0f);
  EXPECT_EQ(a.drain(4096), 2048);
}

TEST(PitchScaling, HalfSpeedIsDrainedInPieces) {
  Scaler a;
  travik_pitch_scaling_setspeed(a.s, 0.5f);
  uint8_t data[4096] = {1};
  travik_pitch_scaling_setsource(a.s, data, 4096);
  std::vector<uint8_t> out(4096, 0xAA);
  int32_t got = 0;
  travik_pitch_scaling_get(a.s, out.data(), 4096, &got);
  EXPECT_EQ(got, 4096);
  EXPECT_EQ(a.drain(4096), 4096);
}

TEST(PitchScaling, FractionsAreCarried) {
  Scaler a;
  travik_pitch_scaling_setspeed(a.s, 2.0f);
  uint8_t data[3] = {9, 9, 9};
  travik_pitch_scaling_setsource(a.s, data, 3);
  uint8_t out[8];
  memset(out, 0xAA, sizeof out);
  int32_t got = 0;
  travik_pitch_scaling_get(a.s, out, 8, &got);
  EXPECT_EQ(got, 1);
  EXPECT_EQ(out[0], 0);
  EXPECT_EQ(out[1], 0xAA);
  EXPECT_EQ(a.s->pending, 0.5f);
  travik_pitch_scaling_get(a.s, out, 8, &got);
  EXPECT_EQ(got, 0);
  travik_pitch_scaling_setsource(a.s, data, 3);  // 0.5 + 1.5 = 2
  travik_pitch_scaling_get(a.s, out, 8, &got);
  EXPECT_EQ(got, 2);
}

TEST(PitchScaling, TotalOutputFollowsTheSpeedWithinOneByte) {
  Scaler a;
  travik_pitch_scaling_setspeed(a.s, 1.5f);
  uint8_t data[1000] = {0};
  long total = 0;
  for (int k = 0; k < 300; k++) {
    travik_pitch_scaling_setsource(a.s, data, 1000);
    total += a.drain(512);
  }
  EXPECT_NEAR(static_cast<double>(total), 300000.0 / 1.5, 1.0);
}

TEST(PitchScaling, GotMayBeNull) {
  Scaler a;
  uint8_t data[10] = {0}, out[10];
  travik_pitch_scaling_setsource(a.s, data, 10);
  EXPECT_EQ(travik_pitch_scaling_get(a.s, out, 4, nullptr), 0);
  EXPECT_EQ(a.s->pending, 6.0f);
}

TEST(PitchScaling, ClearAndFlushDropWhatIsOwed) {
  Scaler a;
  uint8_t data[100] = {0};
  travik_pitch_scaling_setsource(a.s, data, 100);
  EXPECT_EQ(travik_pitch_scaling_clear(a.s), 0);
  EXPECT_EQ(a.drain(64), 0);
  travik_pitch_scaling_setsource(a.s, data, 100);
  EXPECT_EQ(travik_pitch_scaling_flush(a.s), 0);
  EXPECT_EQ(a.drain(64), 0);
}

// A speed of 0 cannot divide: it counts as 1.0.
TEST(PitchScaling, ZeroSpeedOwesTheInputLength) {
  Scaler a;
  travik_pitch_scaling_setspeed(a.s, 0.0f);
  EXPECT_EQ(a.s->speed, 0.0f);
  uint8_t data[100] = {0};
  travik_pitch_scaling_setsource(a.s, data, 100);
  EXPECT_EQ(a.drain(64), 100);
}

// A negative speed divides like any other: 100 / -2 owes -50, and get
// writes nothing while the amount owed is negative.
TEST(PitchScaling, NegativeSpeedOwesANegativeAmount) {
  Scaler a;
  travik_pitch_scaling_setspeed(a.s, -2.0f);
  uint8_t data[100] = {0}, out[64];
  memset(out, 0xAA, sizeof out);
  travik_pitch_scaling_setsource(a.s, data, 100);
  EXPECT_EQ(a.s->pending, -50.0f);
  int32_t got = 0;
  travik_pitch_scaling_get(a.s, out, 64, &got);
  EXPECT_EQ(got, -50);
  EXPECT_EQ(out[0], 0xAA);
  EXPECT_EQ(a.s->pending, -50.0f);
}

TEST(PitchScaling, TinySpeedIsBoundedByTheCaller) {
  Scaler a;
  travik_pitch_scaling_setspeed(a.s, 1e-30f);
  uint8_t data[100] = {0}, out[64];
  travik_pitch_scaling_setsource(a.s, data, 100);
  int32_t got = 0;
  travik_pitch_scaling_get(a.s, out, 64, &got);
  EXPECT_EQ(got, 64);
}

TEST(PitchScaling, NegativeOwedYieldsNegative) {
  Scaler a;
  uint8_t out[8];
  memset(out, 0xAA, sizeof out);
  travik_pitch_scaling_setsource(a.s, nullptr, -5);
  int32_t got = 0;
  travik_pitch_scaling_get(a.s, out, 8, &got);
  EXPECT_EQ(got, -5);
  EXPECT_EQ(out[0], 0xAA);
}

}  // namespace
