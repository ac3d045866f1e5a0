#include <gtest/gtest.h>
#include <travik/resample.h>

#include <cstring>
#include <random>
#include <vector>

namespace {

struct Resampler {
  travik_resample r;
  Resampler(int32_t source_rate, int32_t channels, int32_t target_rate, int32_t target_channels = 2) {
    travik_resample_init(&r, source_rate, channels, 16, target_rate, target_channels);
  }
  ~Resampler() { travik_resample_destroy(&r); }
  // Converts everything available into chunks of at most `chunk` values.
  std::vector<int16_t> drain(int32_t chunk = 4096) {
    std::vector<int16_t> all, out(static_cast<size_t>(chunk) + 8, 0x5555);
    for (int guard = 0; guard < 1000000; guard++) {
      int32_t n = travik_resample_convert(&r, out.data(), chunk);
      if (n == 0) break;
      all.insert(all.end(), out.begin(), out.begin() + n);
    }
    return all;
  }
};

std::vector<int16_t> noise(size_t n, uint32_t seed) {
  std::mt19937 gen(seed);
  std::uniform_int_distribution<int> d(-32768, 32767);
  std::vector<int16_t> v(n);
  for (auto &x : v) x = static_cast<int16_t>(d(gen));
  return v;
}

TEST(Resample, StepsOfCommonRates) {
  Resampler a(44100, 2, 48000), b(48000, 2, 44100), c(22050, 1, 44100);
  EXPECT_EQ(a.r.step, 60211u);
  EXPECT_EQ(b.r.step, 71332u);
  EXPECT_EQ(c.r.step, 32768u);
}

TEST(Resample, InitState) {
  Resampler a(44100, 2, 48000, 6);
  EXPECT_EQ(a.r.ended, 1);
  EXPECT_EQ(a.r.position, 0u);
  EXPECT_EQ(a.r.available, 0);
  EXPECT_EQ(a.r.carry, nullptr);
  EXPECT_EQ(a.r.carry_size, 0);
  EXPECT_EQ(a.r.source, nullptr);
  EXPECT_EQ(a.r.bits, 16);
  EXPECT_EQ(a.r.source_rate, 44100);
  EXPECT_EQ(a.r.source_channels, 2);
  EXPECT_EQ(a.r.target_rate, 48000);
  EXPECT_EQ(a.r.target_channels, 2);  // six asked, stereo given
}

TEST(Resample, TargetRateZeroOrLessMeans44100) {
  Resampler a(22050, 2, 0), b(22050, 2, -5);
  EXPECT_EQ(a.r.target_rate, 44100);
  EXPECT_EQ(b.r.target_rate, 44100);
  EXPECT_EQ(a.r.step, 32768u);
}

TEST(Resample, ConvertBeforeSetsourceGivesNothing) {
  Resampler a(44100, 2, 48000), b(44100, 2, 44100);
  int16_t out[16];
  EXPECT_EQ(travik_resample_convert(&a.r, out, 16), 0);
  EXPECT_EQ(travik_resample_convert(&b.r, out, 16), 0);
}

TEST(Resample, StereoAtEqualRatesPassesThrough) {
  Resampler a(44100, 2, 44100);
  auto in = noise(1000, 1);
  travik_resample_setsource(&a.r, in.data(), 1000);
  EXPECT_EQ(a.r.carry, nullptr);  // read in place
  auto out = a.drain(300);
  EXPECT_EQ(out, in);
}

TEST(Resample, MonoAtEqualRatesDuplicates) {
  Resampler a(8000, 1, 8000);
  int16_t in[5] = {1, -2, 300, -32768, 32767};
  travik_resample_setsource(&a.r, in, 5);
  auto out = a.drain(4);  // two values at a time: exercises count / 2
  ASSERT_EQ(out.size(), 10u);
  for (int k = 0; k < 5; k++) {
    EXPECT_EQ(out[2 * k], in[k]);
    EXPECT_EQ(out[2 * k + 1], in[k]);
  }
}

TEST(Resample, SixChannelsAtEqualRatesClip) {
  Resampler a(48000, 6, 48000);
  std::vector<int16_t> in(12, 20000);
  in[6] = in[7] = in[8] = -20000;
  in[9] = 1;
  in[10] = 2;
  in[11] = -4;
  travik_resample_setsource(&a.r, in.data(), 12);
  auto out = a.drain();
  ASSERT_EQ(out.size(), 4u);
  EXPECT_EQ(out[0], 32767);
  EXPECT_EQ(out[1], 32767);
  EXPECT_EQ(out[2], -32768);
  EXPECT_EQ(out[3], -1);
}

TEST(Resample, SixChannelsIncompleteGroupIsDropped) {
  Resampler a(48000, 6, 48000);
  std::vector<int16_t> in(9, 100);
  travik_resample_setsource(&a.r, in.data(), 9);
  int16_t out[8] = {7, 7, 7, 7, 7, 7, 7, 7};
  EXPECT_EQ(travik_resample_convert(&a.r, out, 8), 3);  // t / 3 with t = 9
  EXPECT_EQ(out[0], 300);
  EXPECT_EQ(out[1], 300);
  EXPECT_EQ(out[2], 0);
  EXPECT_EQ(a.r.available, 0);
  EXPECT_EQ(travik_resample_convert(&a.r, out, 8), 0);
  EXPECT_EQ(a.r.ended, 1);
}

TEST(Resample, SixChannelsAtDifferentRatesWrap) {
  Resampler a(48000, 6, 44100);
  std::vector<int16_t> in(6 * 40, 20000);
  travik_resample_setsource(&a.r, in.data(), static_cast<int32_t>(in.size()));
  auto out = a.drain();
  ASSERT_FALSE(out.empty());
  // 60000 does not fit 16 bits: it wraps to 60000 - 65536.
  for (int16_t v : out) EXPECT_EQ(v, static_cast<int16_t>(60000 - 65536));
}

// Channels 1-3 make the left output and 4-6 the right, interpolated with
// an arithmetic shift (rounding toward minus infinity).
TEST(Resample, SixChannelInterpolationValues) {
  int16_t in[18] = {1, 2, 3, 1, 1, 1, 4, 5, 6, -1, -1, -2, 0, 0, 0, 0, 0, 0};
  std::vector<int16_t> want = {6, 3, 10, -1};  // i = 0 and 0.5; stops at 6i + 12 >= 18
  for (bool reference : {false, true}) {
    Resampler a(22050, 6, 44100);
    if (reference) travik_resample_use_reference(&a.r);
    travik_resample_setsource(&a.r, in, 18);
    EXPECT_EQ(a.drain(), want) << reference;
  }
}

TEST(Resample, StereoCopyTakesAnOddCountAsItIs) {
  Resampler a(44100, 2, 44100);
  int16_t in[6] = {1, 2, 3, 4, 5, 6};
  travik_resample_setsource(&a.r, in, 6);
  int16_t out[6] = {0};
  EXPECT_EQ(travik_resample_convert(&a.r, out, 3), 3);
  EXPECT_EQ(out[2], 3);
  EXPECT_EQ(a.r.available, 3);
  EXPECT_EQ(travik_resample_convert(&a.r, out, 6), 3);
  EXPECT_EQ(out[0], 4);
}

TEST(Resample, StereoInterpolationValues) {
  // 1 -> 2 frames per input frame: step 0x8000.
  Resampler a(22050, 2, 44100);
  int16_t in[8] = {0, 1000, 100, -1000, 200, 3000, 300, 0};
  travik_resample_setsource(&a.r, in, 8);
  auto out = a.drain();
  // Stops when 2i + 4 >= 8, i.e. for i >= 2: frames at i = 0, 0.5, 1, 1.5.
  std::vector<int16_t> want = {0, 1000, 50, 0, 100, -1000, 150, 1000};
  EXPECT_EQ(out, want);
  EXPECT_EQ(a.r.position, 0x20000u);
  EXPECT_EQ(a.r.ended, 1);
}

TEST(Resample, MonoInterpolationDuplicates) {
  Resampler a(22050, 1, 44100);
  int16_t in[3] = {0, 100, -100};
  travik_resample_setsource(&a.r, in, 3);
  auto out = a.drain();
  std::vector<int16_t> want = {0, 0, 50, 50, 100, 100, 0, 0};
  EXPECT_EQ(out, want);
}

TEST(Resample, OtherChannelCountsInterpolateTheFirstChannel) {
  Resampler a(22050, 8, 44100);
  std::vector<int16_t> in(24, 999);
  in[0] = 0;
  in[8] = 100;
  in[16] = 200;
  travik_resample_setsource(&a.r, in.data(), 24);
  auto out = a.drain();
  std::vector<int16_t> want = {0, 0, 50, 50, 100, 100, 150, 150};
  EXPECT_EQ(out, want);
}

TEST(Resample, CarryJoinsConsecutiveInputs) {
  Resampler a(22050, 1, 44100);
  int16_t first[3] = {0, 100, 200};
  int16_t second[2] = {400, 600};
  travik_resample_setsource(&a.r, first, 3);
  auto out1 = a.drain();
  travik_resample_setsource(&a.r, second, 2);
  EXPECT_EQ(a.r.source, a.r.carry);
  EXPECT_EQ(a.r.available, 3);  // the frame not yet passed, then the new ones
  auto out2 = a.drain();
  std::vector<int16_t> all = out1;
  all.insert(all.end(), out2.begin(), out2.end());
  std::vector<int16_t> want = {0, 0, 50, 50, 100, 100, 150, 150, 200, 200, 300, 300, 400, 400, 500, 500};
  EXPECT_EQ(all, want);
}

TEST(Resample, SplitInputMatchesWholeInput) {
  auto in = noise(2 * 3000, 7);
  Resampler whole(44100, 2, 48000), split(44100, 2, 48000);
  travik_resample_setsource(&whole.r, in.data(), static_cast<int32_t>(in.size()));
  auto a = whole.drain();
  std::vector<int16_t> b;
  for (size_t at = 0; at < in.size(); at += 500) {
    travik_resample_setsource(&split.r, in.data() + at, 500);
    auto part = split.drain(333 * 2);
    b.insert(b.end(), part.begin(), part.end());
  }
  ASSERT_LE(a.size(), b.size());
  EXPECT_TRUE(std::equal(a.begin(), a.end(), b.begin()));
}

TEST(Resample, ConvertAfterExhaustionStaysZeroUntilSetsource) {
  Resampler a(44100, 2, 48000);
  auto in = noise(100, 3);
  travik_resample_setsource(&a.r, in.data(), 100);
  a.drain();
  int16_t out[64];
  EXPECT_EQ(travik_resample_convert(&a.r, out, 64), 0);
  EXPECT_EQ(travik_resample_convert(&a.r, out, 64), 0);
  EXPECT_EQ(a.r.ended, 1);
  travik_resample_setsource(&a.r, in.data(), 100);
  EXPECT_EQ(a.r.ended, 0);
  EXPECT_GT(travik_resample_convert(&a.r, out, 64), 0);
}

TEST(Resample, SetsourceKeepsTheFraction) {
  Resampler a(44100, 2, 48000);
  auto in = noise(200, 4);
  travik_resample_setsource(&a.r, in.data(), 200);
  a.drain();
  uint32_t fraction = a.r.position & 0xFFFF;
  travik_resample_setsource(&a.r, in.data(), 200);
  EXPECT_EQ(a.r.position, fraction);
}

TEST(Resample, CarryGrowsOnly) {
  Resampler a(44100, 2, 48000);
  auto in = noise(1000, 5);
  travik_resample_setsource(&a.r, in.data(), 1000);
  a.drain();
  int32_t size = a.r.carry_size;
  int16_t *carry = a.r.carry;
  travik_resample_setsource(&a.r, in.data(), 100);
  EXPECT_EQ(a.r.carry_size, size);
  EXPECT_EQ(a.r.carry, carry);
}

TEST(Resample, ResetReturnsToInitState) {
  Resampler a(44100, 2, 48000);
  auto in = noise(1000, 6);
  travik_resample_setsource(&a.r, in.data(), 1000);
  int16_t out[64];
  travik_resample_convert(&a.r, out, 64);
  travik_resample_reset(&a.r);
  EXPECT_EQ(a.r.ended, 1);
  EXPECT_EQ(a.r.position, 0u);
  EXPECT_EQ(a.r.available, 0);
  EXPECT_EQ(a.r.carry_size, 0);
  EXPECT_EQ(a.r.carry, nullptr);
  EXPECT_EQ(a.r.source, nullptr);
  EXPECT_EQ(travik_resample_convert(&a.r, out, 64), 0);
}

TEST(Resample, CopyWithNullOutputEnds) {
  Resampler a(44100, 2, 44100);
  int16_t in[4] = {1, 2, 3, 4};
  travik_resample_setsource(&a.r, in, 4);
  EXPECT_EQ(travik_resample_convert(&a.r, nullptr, 4), 0);
  EXPECT_EQ(a.r.ended, 1);
}

TEST(Resample, OutputIsAlwaysStereoFrames) {
  Resampler a(44100, 2, 48000);
  auto in = noise(2000, 8);
  travik_resample_setsource(&a.r, in.data(), 2000);
  int16_t out[7];
  EXPECT_EQ(travik_resample_convert(&a.r, out, 7), 6);
  EXPECT_EQ(travik_resample_convert(&a.r, out, 1), 0);  // no whole frame fits
}

TEST(Resample, ZeroCountSourceGivesNothing) {
  Resampler a(44100, 2, 48000), b(44100, 2, 44100);
  int16_t in[2] = {1, 2};
  int16_t out[8];
  travik_resample_setsource(&a.r, in, 0);
  travik_resample_setsource(&b.r, in, 0);
  EXPECT_EQ(travik_resample_convert(&a.r, out, 8), 0);
  EXPECT_EQ(travik_resample_convert(&b.r, out, 8), 0);
}

TEST(Resample, UnusableSourceFormatsProduceNothing) {
  for (int32_t rate : {0, -44100}) {
    Resampler a(rate, 2, 48000);
    auto in = noise(100, 9);
    travik_resample_setsource(&a.r, in.data(), 100);
    int16_t out[64];
    EXPECT_EQ(travik_resample_convert(&a.r, out, 64), 0) << rate;
  }
  Resampler c(44100, 0, 48000);
  auto in = noise(100, 10);
  travik_resample_setsource(&c.r, in.data(), 100);
  int16_t out[64];
  EXPECT_EQ(travik_resample_convert(&c.r, out, 64), 0);
}

TEST(Resample, ZeroChannelsAtEqualRatesActAsMono) {
  Resampler a(44100, 0, 44100);
  int16_t in[2] = {5, 6};
  travik_resample_setsource(&a.r, in, 2);
  std::vector<int16_t> want = {5, 5, 6, 6};
  EXPECT_EQ(a.drain(), want);
}

TEST(Resample, AbsurdRatesStayBounded) {
  // A step below 1/65536 is raised to it; a huge ratio is capped.
  Resampler slow(1, 2, 2000000000), fast(2000000000, 2, 1);
  EXPECT_EQ(slow.r.step, 1u);
  EXPECT_EQ(fast.r.step, 0x40000000u);
  auto in = noise(2 * 100, 11);
  travik_resample_setsource(&fast.r, in.data(), 200);
  auto out = fast.drain();
  EXPECT_EQ(out.size(), 2u);  // only the first frame lies before the end
  travik_resample_setsource(&fast.r, in.data(), 200);
  out = fast.drain();
  EXPECT_TRUE(out.empty());  // the position runs on past the new input
  travik_resample_setsource(&slow.r, in.data(), 8);
  out = slow.drain(65536);
  EXPECT_EQ(out.size(), 2u * 65536u * 2u);  // two input frames of 65536 outputs
}

// Long inputs move the read position forward instead of overflowing the
// 16-bit integer part; the output is the same as for split inputs.
TEST(Resample, LongInputsDoNotOverflowThePosition) {
  auto in = noise(2 * 200000, 12);
  Resampler whole(48000, 2, 44100), split(48000, 2, 44100);
  travik_resample_setsource(&whole.r, in.data(), static_cast<int32_t>(in.size()));
  auto a = whole.drain(1 << 20);
  std::vector<int16_t> b;
  for (size_t at = 0; at < in.size(); at += 4000) {
    travik_resample_setsource(&split.r, in.data() + at, 4000);
    auto part = split.drain(4096);
    b.insert(b.end(), part.begin(), part.end());
  }
  // 200000 frames at 48000 -> 44100: about 183750 frames.
  EXPECT_GT(a.size(), 2u * 183000u);
  ASSERT_LE(a.size(), b.size());
  EXPECT_TRUE(std::equal(a.begin(), a.end(), b.begin()));
}

TEST(Resample, OddCountsAreSafe) {
  Resampler a(44100, 2, 48000), b(44100, 2, 44100), c(48000, 6, 44100);
  auto in = noise(1001, 13);
  for (auto *r : {&a, &b, &c}) {
    for (int k = 0; k < 5; k++) {
      travik_resample_setsource(&r->r, in.data(), 1001 - 2 * k);
      auto out = r->drain(333);
      // At most 48000 / 44100 output frames per input value, plus one.
      EXPECT_LE(out.size(), 2u * (1001u * 48000u / 44100u + 1u));
    }
  }
}

// ---- optimised routines against the reference, byte for byte ------------

struct Case {
  int32_t from, channels, to;
};

void compare(const Case &c, uint32_t seed, int32_t chunk_values, int32_t out_chunk,
             size_t total = 20000) {
  auto in = noise(total, seed);
  Resampler fast(c.from, c.channels, c.to), ref(c.from, c.channels, c.to);
  travik_resample_use_reference(&ref.r);
  ASSERT_NE(fast.r.convert, ref.r.convert) << "no reference routine for this mode";
  std::vector<int16_t> out_fast(static_cast<size_t>(out_chunk) + 2),
      out_ref(static_cast<size_t>(out_chunk) + 2);
  size_t at = 0;
  while (at < in.size()) {
    int32_t n = static_cast<int32_t>(std::min<size_t>(chunk_values, in.size() - at));
    travik_resample_setsource(&fast.r, in.data() + at, n);
    travik_resample_setsource(&ref.r, in.data() + at, n);
    at += static_cast<size_t>(n);
    for (int guard = 0; guard < 100000; guard++) {
      int32_t a = travik_resample_convert(&fast.r, out_fast.data(), out_chunk);
      int32_t b = travik_resample_convert(&ref.r, out_ref.data(), out_chunk);
      ASSERT_EQ(a, b);
      ASSERT_EQ(0, memcmp(out_fast.data(), out_ref.data(), static_cast<size_t>(a) * 2));
      ASSERT_EQ(fast.r.position, ref.r.position);
      ASSERT_EQ(fast.r.available, ref.r.available);
      if (ref.r.carry)
        ASSERT_EQ(fast.r.source - fast.r.carry, ref.r.source - ref.r.carry);
      else
        ASSERT_EQ(fast.r.source, ref.r.source);
      if (a == 0) break;
    }
  }
}

TEST(ResampleReference, OptimisedRoutinesMatchByteForByte) {
  const Case cases[] = {{44100, 2, 48000}, {48000, 2, 44100}, {22050, 1, 44100}, {48000, 6, 44100},
                        {44100, 6, 48000}, {8000, 1, 48000},  {96000, 2, 8000},  {11025, 8, 48000},
                        {48000, 3, 32000}, {44100, 1, 22050}, {700, 2, 48000},   {48000, 2, 7},
                        {48000, 6, 48000}};
  uint32_t seed = 100;
  for (const Case &c : cases) {
    for (int32_t chunk : {1, 2, 6, 12, 1000, 4096, 70001}) {
      for (int32_t out : {2, 7, 512, 4096}) {
        SCOPED_TRACE(testing::Message() << c.from << "/" << c.channels << " -> " << c.to << " in "
                                        << chunk << " out " << out);
        compare(c, seed++, chunk, out);
        if (HasFatalFailure()) return;
      }
    }
  }
}

TEST(ResampleReference, LongInputsMatchAcrossTheRebase) {
  for (const Case &c : {Case{48000, 2, 44100}, Case{22050, 1, 44100}, Case{48000, 6, 44100}}) {
    SCOPED_TRACE(c.channels);
    compare(c, 77, 6 * 50000, 1 << 20, 6 * 120000);
    if (HasFatalFailure()) return;
  }
}

TEST(ResampleReference, ExtremeSamplesMatch) {
  // Full-scale steps between neighbours exercise the modular arithmetic
  // and, at equal rates, the clipping.
  for (const Case &c : {Case{44100, 2, 48000}, Case{44100, 6, 48000}, Case{22050, 1, 44100},
                        Case{48000, 6, 48000}}) {
    std::vector<int16_t> in(6 * 2000);
    for (size_t k = 0; k < in.size(); k++) in[k] = (k / 6) % 2 ? 32767 : -32768;
    Resampler fast(c.from, c.channels, c.to), ref(c.from, c.channels, c.to);
    travik_resample_use_reference(&ref.r);
    travik_resample_setsource(&fast.r, in.data(), static_cast<int32_t>(in.size()));
    travik_resample_setsource(&ref.r, in.data(), static_cast<int32_t>(in.size()));
    EXPECT_EQ(fast.drain(), ref.drain()) << c.channels;
  }
}

}  // namespace
