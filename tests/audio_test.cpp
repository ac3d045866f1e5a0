// The audio output front end over application driver tables ("driver").
#include <gtest/gtest.h>
#include <travik/audio.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

namespace {

// An application driver that records what the front end does with it.
struct Mock {
  travik_audio_driver table;  // first: the front end hands it to open
  // configuration
  int32_t device_rate = 44100, device_channels = 2;
  bool fail_open = false;
  bool keep_format = false;   // getformat leaves the wanted values as they are
  bool keep_writes = true;    // record what is written
  int32_t accept_limit = -1;  // bytes accepted per write, -1 for all
  std::atomic<int32_t> delay{0}, space{0};
  int32_t control_result = 7;
  // records
  void *open_argument = nullptr;
  std::vector<std::pair<int32_t, int32_t>> inits;
  std::vector<int32_t> write_sizes;
  std::vector<int16_t> written;
  int closes = 0, resets = 0;
  std::atomic<int> getformats{0};
  std::vector<std::pair<int32_t, void *>> controls;

  explicit Mock(int32_t bufsize = 64, bool with_control = false) {
    table = {"mock",        nullptr,     bufsize,  probe,    open,     init,   close,
             write,         getformat,   nullptr,  reset,    getdelay, getspace};
    if (with_control) table.control = control;
  }
  static Mock *of(void *handle) { return static_cast<Mock *>(handle); }
  static int32_t probe(void *, const travik_audio_driver *) { return 1; }
  static void *open(void *argument) {
    Mock *m = static_cast<Mock *>(argument);
    m->open_argument = argument;
    return m->fail_open ? nullptr : m;
  }
  static int32_t init(void *h, int32_t rate, int32_t channels) {
    of(h)->inits.emplace_back(rate, channels);
    return 0;
  }
  static void close(void *h) { of(h)->closes++; }
  static int32_t write(void *h, const void *data, int32_t bytes) {
    Mock *m = of(h);
    int32_t n = m->accept_limit >= 0 && m->accept_limit < bytes ? m->accept_limit : bytes;
    if (!m->keep_writes) return n;
    m->write_sizes.push_back(bytes);
    const int16_t *s = static_cast<const int16_t *>(data);
    m->written.insert(m->written.end(), s, s + bytes / 2);
    return n;
  }
  static int32_t getformat(void *h, int32_t *rate, int32_t *channels) {
    Mock *m = of(h);
    m->getformats++;
    if (m->keep_format) return 0;
    *rate = m->device_rate;
    *channels = m->device_channels;
    return 0;
  }
  static int32_t control(void *h, int32_t command, void *value) {
    of(h)->controls.emplace_back(command, value);
    return of(h)->control_result;
  }
  static int32_t reset(void *h) {
    of(h)->resets++;
    return 0;
  }
  static int32_t getdelay(void *h) { return of(h)->delay; }
  static int32_t getspace(void *h) { return of(h)->space; }
};

struct Front {
  Mock mock;
  travik_audio *audio;
  explicit Front(int32_t bufsize = 64, bool with_control = false) : mock(bufsize, with_control) {
    audio = travik_audio_create("driver", &mock.table);
  }
  ~Front() {
    if (audio) travik_audio_destroy(audio);
  }
};

struct Frame {
  std::vector<int16_t> samples;
  travik_audioframe f;
  Frame(std::vector<int16_t> values, int64_t timestamp = 0, int32_t tag = -1)
      : samples(std::move(values)) {
    travik_audioframe_init(&f, nullptr);
    f.samples = samples.data();
    f.count = static_cast<int32_t>(samples.size());
    f.timestamp = timestamp;
    f.tag = tag;
  }
};

std::vector<int16_t> ramp(size_t n, int16_t start = 100) {
  std::vector<int16_t> v(n);
  for (size_t k = 0; k < n; k++) v[k] = static_cast<int16_t>(start + 7 * k);
  return v;
}

// Records what every filter call saw.
struct Seen {
  int64_t timestamp;
  int32_t count, tag, kind, refcount;
  std::vector<int16_t> samples;
  int id;
};
struct FilterLog {
  std::vector<Seen> calls;
};
struct FilterArg {
  FilterLog *log;
  int id;
};
void record_filter(void *argument, travik_audioframe *frame) {
  auto *arg = static_cast<FilterArg *>(argument);
  arg->log->calls.push_back({frame->timestamp, frame->count, frame->tag, frame->kind,
                             frame->refcount,
                             std::vector<int16_t>(frame->samples, frame->samples + frame->count),
                             arg->id});
}
void double_filter(void *, travik_audioframe *frame) {
  for (int32_t k = 0; k < frame->count; k++) frame->samples[k] = static_cast<int16_t>(frame->samples[k] * 2);
}

// ---- creation -------------------------------------------------------------

TEST(Audio, CreateWithApplicationTable) {
  Front a;
  ASSERT_NE(a.audio, nullptr);
  EXPECT_EQ(a.mock.open_argument, &a.mock.table);  // the table is the argument
  EXPECT_EQ(a.audio->plugin, nullptr);
  EXPECT_EQ(a.audio->driver, &a.mock.table);
  EXPECT_EQ(a.audio->handle, &a.mock);
  EXPECT_EQ(a.audio->volume, 100);
  EXPECT_EQ(a.audio->fill, 0);
  EXPECT_EQ(a.audio->fade_mode, 0);
  EXPECT_EQ(a.audio->resampler, nullptr);
  EXPECT_EQ(a.audio->rate, -1);
  EXPECT_EQ(a.audio->channels, -1);
  EXPECT_NE(a.audio->buffer, nullptr);
}

TEST(Audio, CreateFailsWhenOpenFails) {
  Mock m;
  m.fail_open = true;
  EXPECT_EQ(travik_audio_create("driver", &m.table), nullptr);
  EXPECT_EQ(m.closes, 0);
}

TEST(Audio, CreateWithoutNameOrTableFails) {
  Mock m;
  EXPECT_EQ(travik_audio_create(nullptr, &m.table), nullptr);
  EXPECT_EQ(travik_audio_create("driver", nullptr), nullptr);
  EXPECT_EQ(m.open_argument, nullptr);
}

TEST(Audio, CreateRefusesWriteSizesBelowFour) {
  Mock m(2);
  EXPECT_EQ(travik_audio_create("driver", &m.table), nullptr);
  EXPECT_EQ(m.closes, 1);  // opened, then closed again
}

TEST(Audio, DestroyClosesTheDevice) {
  Mock m;
  travik_audio *audio = travik_audio_create("driver", &m.table);
  travik_audio_init(audio, 22050, 1);  // with a resampler
  ASSERT_NE(audio->resampler, nullptr);
  travik_audio_destroy(audio);
  EXPECT_EQ(m.closes, 1);
}

// ---- format and speed -------------------------------------------------------

TEST(Audio, InitWithTheDeviceFormatMakesNoResampler) {
  Front a;
  EXPECT_EQ(travik_audio_init(a.audio, 44100, 2), 0);
  ASSERT_EQ(a.mock.inits.size(), 1u);
  EXPECT_EQ(a.mock.inits[0], std::make_pair(44100, 2));
  EXPECT_EQ(a.audio->rate, 44100);
  EXPECT_EQ(a.audio->channels, 2);
  EXPECT_EQ(a.audio->resampler, nullptr);
}

TEST(Audio, InitWithAnotherRateMakesAResampler) {
  Front a;
  travik_audio_init(a.audio, 48000, 2);
  ASSERT_NE(a.audio->resampler, nullptr);
  EXPECT_EQ(a.audio->resampler->source_rate, 48000);
  EXPECT_EQ(a.audio->resampler->target_rate, 44100);
  EXPECT_EQ(a.audio->resampler->bits, 16);
}

TEST(Audio, InitWithAnotherChannelCountMakesAResampler) {
  Front a;
  travik_audio_init(a.audio, 44100, 6);
  ASSERT_NE(a.audio->resampler, nullptr);
  EXPECT_EQ(a.audio->resampler->source_channels, 6);
  EXPECT_EQ(a.audio->resampler->step, 65536u);
}

TEST(Audio, SpeedTwoResamplesToHalfTheDeviceRate) {
  Front a;
  travik_audio_init(a.audio, 44100, 2);
  travik_audio_setspeed(a.audio, 2.0f);
  ASSERT_NE(a.audio->resampler, nullptr);
  EXPECT_EQ(a.audio->resampler->target_rate, 22050);
  travik_audio_setspeed(a.audio, 1.0f);
  EXPECT_EQ(a.audio->resampler, nullptr);
  travik_audio_setspeed(a.audio, 0.75f);
  ASSERT_NE(a.audio->resampler, nullptr);
  EXPECT_EQ(a.audio->resampler->target_rate, 58800);
}

TEST(Audio, SpeedZeroOrNegativeLeavesTheDeviceRate) {
  Front a;
  travik_audio_init(a.audio, 44100, 2);
  for (float speed : {0.0f, -1.0f, -2.5f}) {
    travik_audio_setspeed(a.audio, speed);
    EXPECT_EQ(a.audio->resampler, nullptr) << speed;
  }
  a.mock.device_rate = 48000;
  travik_audio_setspeed(a.audio, -1.0f);
  ASSERT_NE(a.audio->resampler, nullptr);
  EXPECT_EQ(a.audio->resampler->target_rate, 48000);
}

TEST(Audio, SpeedDividesTheDeviceRateAndTruncates) {
  Front a;
  travik_audio_init(a.audio, 44100, 2);
  travik_audio_setspeed(a.audio, 1.9f);  // 44100 / 1.9 = 23210.53
  ASSERT_NE(a.audio->resampler, nullptr);
  EXPECT_EQ(a.audio->resampler->target_rate, 23210);
}

// The device format query starts from the source format, so a device that
// plays whatever it is given needs no resampler at speed 1.0.
TEST(Audio, DeviceFormatQueryStartsFromTheSourceFormat) {
  Front a;
  a.mock.keep_format = true;
  travik_audio_init(a.audio, 22050, 1);
  EXPECT_EQ(a.audio->resampler, nullptr);
  travik_audio_setspeed(a.audio, 2.0f);
  ASSERT_NE(a.audio->resampler, nullptr);
  EXPECT_EQ(a.audio->resampler->source_rate, 22050);
  EXPECT_EQ(a.audio->resampler->source_channels, 1);
  EXPECT_EQ(a.audio->resampler->target_rate, 11025);
}

TEST(Audio, SpeedBeforeInitDoesNothing) {
  Front a;
  travik_audio_setspeed(a.audio, 2.0f);
  EXPECT_EQ(a.audio->resampler, nullptr);
  EXPECT_EQ(a.mock.getformats, 0);
}

// ---- playing ----------------------------------------------------------------

TEST(Audio, ShortFramesAreStagedUntilTheBufferIsFull) {
  Front a(64);
  travik_audio_init(a.audio, 44100, 2);
  FilterLog log;
  FilterArg arg{&log, 1};
  travik_audio_install_filter(a.audio, record_filter, &arg);
  Frame first(ramp(20), 1000, 11), second(ramp(20, -500), 5000, 22);
  EXPECT_EQ(travik_audio_play(a.audio, &first.f), 0);
  EXPECT_EQ(a.audio->fill, 40);
  EXPECT_TRUE(a.mock.write_sizes.empty());
  EXPECT_TRUE(log.calls.empty());
  EXPECT_EQ(travik_audio_play(a.audio, &second.f), 32);  // 64 bytes written
  EXPECT_EQ(a.audio->fill, 16);
  ASSERT_EQ(log.calls.size(), 1u);
  EXPECT_EQ(log.calls[0].timestamp, 5000);  // the frame that completed it
  EXPECT_EQ(log.calls[0].tag, 22);
  EXPECT_EQ(log.calls[0].count, 32);
  EXPECT_EQ(log.calls[0].kind, 1);
  EXPECT_EQ(log.calls[0].refcount, 0);
  std::vector<int16_t> want(first.samples);
  want.insert(want.end(), second.samples.begin(), second.samples.begin() + 12);
  EXPECT_EQ(log.calls[0].samples, want);
  EXPECT_EQ(a.mock.written, want);
}

TEST(Audio, RunningTimestampAdvancesPerBuffer) {
  Front a(400);  // 100 stereo frames of 44100 Hz: 2267 us
  travik_audio_init(a.audio, 44100, 2);
  FilterLog log;
  FilterArg arg{&log, 1};
  travik_audio_install_filter(a.audio, record_filter, &arg);
  Frame frame(ramp(600), 1000000, 5);
  EXPECT_EQ(travik_audio_play(a.audio, &frame.f), 600);
  ASSERT_EQ(log.calls.size(), 3u);
  EXPECT_EQ(log.calls[0].timestamp, 1000000);
  EXPECT_EQ(log.calls[1].timestamp, 1000000 + 200 * 1000000 / 44100 / 2);
  EXPECT_EQ(log.calls[2].timestamp, 1000000 + 2 * (200 * 1000000 / 44100 / 2));
}

TEST(Audio, ResultCountsWhatTheDriverAccepted) {
  Front a(64);
  a.mock.accept_limit = 24;
  travik_audio_init(a.audio, 44100, 2);
  Frame frame(ramp(96));
  EXPECT_EQ(travik_audio_play(a.audio, &frame.f), 36);  // three writes of 24 bytes
  EXPECT_EQ(a.mock.write_sizes, (std::vector<int32_t>{64, 64, 64}));
}

// The accepted bytes are summed over the call's writes and halved once.
TEST(Audio, ResultHalvesTheSumOfAcceptedBytes) {
  Front a(64);
  a.mock.accept_limit = 25;
  travik_audio_init(a.audio, 44100, 2);
  Frame frame(ramp(96));
  EXPECT_EQ(travik_audio_play(a.audio, &frame.f), 37);  // 75 / 2, not 3 x 12
}

TEST(Audio, FiltersSeeTheStagingBuffer) {
  Front a(16);
  travik_audio_init(a.audio, 44100, 2);
  struct Record {
    const int16_t *samples = nullptr;
    bool addref = true, release = true;
    int64_t timestamp = 0;
  } record;
  travik_audio_install_filter(
      a.audio,
      [](void *argument, travik_audioframe *frame) {
        auto *r = static_cast<Record *>(argument);
        r->samples = frame->samples;
        r->addref = frame->addref != nullptr;
        r->release = frame->release != nullptr;
        r->timestamp = frame->timestamp;
      },
      &record);
  Frame frame(ramp(8), 777);
  travik_audio_play(a.audio, &frame.f);
  EXPECT_EQ(record.samples, reinterpret_cast<int16_t *>(a.audio->buffer));
  EXPECT_FALSE(record.addref);
  EXPECT_FALSE(record.release);
  EXPECT_EQ(record.timestamp, 777);
}

TEST(Audio, ConversionThroughTheResampler) {
  Front a(64);
  travik_audio_init(a.audio, 22050, 1);
  Frame frame(ramp(40));
  int32_t got = travik_audio_play(a.audio, &frame.f);
  // The same conversion done directly.
  travik_resample r;
  travik_resample_init(&r, 22050, 1, 16, 44100, 2);
  travik_resample_setsource(&r, frame.samples.data(), 40);
  std::vector<int16_t> all(512);
  int32_t n = 0, k;
  while ((k = travik_resample_convert(&r, all.data() + n, 32)) > 0) n += k;
  travik_resample_destroy(&r);
  all.resize(static_cast<size_t>(n));
  ASSERT_EQ(n, 156);  // positions 0 to 38.5 by halves: 78 stereo frames
  EXPECT_EQ(got, 128);  // four buffers of 32 values
  std::vector<int16_t> written_want(all.begin(), all.begin() + 128);
  EXPECT_EQ(a.mock.written, written_want);
  EXPECT_EQ(a.audio->fill, 56);
}

TEST(Audio, WriteSizeNotAMultipleOfFourWithResampler) {
  Front a(66);
  travik_audio_init(a.audio, 22050, 1);
  Frame frame(ramp(100));
  EXPECT_GT(travik_audio_play(a.audio, &frame.f), 0);
  ASSERT_FALSE(a.mock.write_sizes.empty());
  for (int32_t size : a.mock.write_sizes) EXPECT_EQ(size, 64);
}

TEST(Audio, OddAndZeroCountsAndNullFrames) {
  Front a(64);
  travik_audio_init(a.audio, 44100, 2);
  Frame empty(std::vector<int16_t>{});
  EXPECT_EQ(travik_audio_play(a.audio, &empty.f), 0);
  EXPECT_EQ(travik_audio_play(a.audio, nullptr), 0);
  EXPECT_EQ(travik_audio_play(nullptr, &empty.f), 0);
  Frame odd(ramp(33));
  EXPECT_EQ(travik_audio_play(a.audio, &odd.f), 32);
  EXPECT_EQ(a.audio->fill, 2);
  Frame negative(ramp(4));
  negative.f.count = -5;
  EXPECT_EQ(travik_audio_play(a.audio, &negative.f), 0);
  EXPECT_EQ(a.audio->fill, 2);
}

TEST(Audio, ChannelCountsAndRatesOfAllKinds) {
  for (int32_t channels : {0, 1, 2, 6, 8}) {
    for (int32_t rate : {0, 8000, 44100, 48000, 1000000000}) {
      Front a(64);
      travik_audio_init(a.audio, rate, channels);
      Frame frame(ramp(480));
      int32_t got = travik_audio_play(a.audio, &frame.f);
      EXPECT_GE(got, 0);
      EXPECT_EQ(static_cast<size_t>(got) * 2, a.mock.write_sizes.size() * 64) << rate << "/" << channels;
      travik_audio_flush(a.audio);
      EXPECT_EQ(a.audio->fill, 0);
      EXPECT_GE(travik_audio_getdelay(a.audio), 0);
    }
  }
}

TEST(Audio, UnusableSourceRateProducesNothing) {
  Front a(64);
  travik_audio_init(a.audio, 0, 2);
  ASSERT_NE(a.audio->resampler, nullptr);
  Frame frame(ramp(400));
  EXPECT_EQ(travik_audio_play(a.audio, &frame.f), 0);
  EXPECT_TRUE(a.mock.write_sizes.empty());
}

// ---- volume -----------------------------------------------------------------

std::vector<int16_t> play_one_buffer(Front &a, const std::vector<int16_t> &values) {
  travik_audio_init(a.audio, 44100, 2);
  Frame frame(values);
  travik_audio_play(a.audio, &frame.f);
  return a.mock.written;
}

TEST(Audio, VolumeFiftyHalvesOutsideTheDeadZone) {
  Front a(32);
  travik_audio_setvolume(a.audio, 50);
  // Factor (50 x 1024) / 100 = 512: 1000 -> (1000 x 512) >> 10 = 500.
  auto out = play_one_buffer(a, {1000, -1000, 4, -4, 5, -5, 3, 0, 32767, -32768, 1, -1, 100, 9, -9, 2});
  std::vector<int16_t> want = {500, -500, 4, -4, 2, -3, 3, 0, 16383, -16384, 1, -1, 50, 4, -5, 2};
  EXPECT_EQ(out, want);
}

TEST(Audio, VolumeZeroWritesSilence) {
  Front a(16);
  travik_audio_setvolume(a.audio, 0);
  auto out = play_one_buffer(a, {1000, -1000, 4, -4, 5, -5, 3, 1});
  EXPECT_EQ(out, std::vector<int16_t>(8, 0));
}

TEST(Audio, VolumeOneUsesFactorTen) {
  Front a(8);
  travik_audio_setvolume(a.audio, 1);
  auto out = play_one_buffer(a, {10240, -10240, 5, 200});
  EXPECT_EQ(out, (std::vector<int16_t>{100, -100, 0, 1}));
}

TEST(Audio, VolumeIsClamped) {
  Front a;
  travik_audio_setvolume(a.audio, 250);
  EXPECT_EQ(a.audio->volume, 100);
  travik_audio_setvolume(a.audio, -3);
  EXPECT_EQ(a.audio->volume, 0);
  travik_audio_setvolume(a.audio, 37);
  EXPECT_EQ(a.audio->volume, 37);
}

TEST(Audio, VolumeHundredLeavesSamples) {
  Front a(8);
  auto in = std::vector<int16_t>{1, -32768, 32767, 4};
  EXPECT_EQ(play_one_buffer(a, in), in);
}

// ---- fades ------------------------------------------------------------------

TEST(Audio, FadeOutOfOneSecondAt44100StepsByOne) {
  Front a;
  travik_audio_fade(a.audio, TRAVIK_AUDIO_FADE_OUT, 1000);
  EXPECT_EQ(a.audio->fade_mode, 1);
  EXPECT_EQ(a.audio->fade_step, -1);
  EXPECT_EQ(a.audio->fade_gain, 0x10000);
}

TEST(Audio, FadeStepsAreRoundedInSinglePrecision) {
  struct {
    int32_t rate, ms, step;
  } cases[] = {{48000, 10, 137},  // 65536 / 480 = 136.53
               {8000, 1, 8192},   // 8192.5 truncates to 8192
               {44100, 3, 495},   // 65536 / 132.3 = 495.36
               {48000, 500, 3},   // 2.73 + 0.5
               {22050, 1000, 3},  // 2.97 + 0.5
               {44100, 5000, 1}}; // treated as 1000 ms
  for (auto &c : cases) {
    Front a;
    a.mock.device_rate = c.rate;
    travik_audio_fade(a.audio, TRAVIK_AUDIO_FADE_IN, c.ms);
    EXPECT_EQ(a.audio->fade_step, c.step) << c.rate << " " << c.ms;
    EXPECT_EQ(a.audio->fade_gain, 0);
    EXPECT_EQ(a.audio->fade_mode, 2);
  }
}

TEST(Audio, FadeInStepsOncePerPairWithTheGainBeforeTheUpdate) {
  Front a(4 * 10);
  a.mock.device_rate = 8000;
  travik_audio_init(a.audio, 8000, 2);
  travik_audio_fade(a.audio, TRAVIK_AUDIO_FADE_IN, 1);  // step 8192
  Frame frame(std::vector<int16_t>(20, 16384));
  travik_audio_play(a.audio, &frame.f);
  ASSERT_EQ(a.mock.written.size(), 20u);
  for (int k = 0; k < 10; k++) {
    int32_t gain = std::min(8192 * k, 0x10000);
    int16_t want = static_cast<int16_t>((16384 * gain) >> 16);
    EXPECT_EQ(a.mock.written[2 * k], want) << k;
    EXPECT_EQ(a.mock.written[2 * k + 1], want) << k;
  }
  EXPECT_EQ(a.audio->fade_mode, 0);  // completed on the ninth pair
  EXPECT_EQ(a.audio->fade_gain, 0x10000);
}

TEST(Audio, FadeOutEndsInLastingSilence) {
  Front a(4 * 12);
  a.mock.device_rate = 8000;
  travik_audio_init(a.audio, 8000, 2);
  travik_audio_fade(a.audio, TRAVIK_AUDIO_FADE_OUT, 1);
  Frame frame(std::vector<int16_t>(24, -16384));
  travik_audio_play(a.audio, &frame.f);
  for (int k = 0; k < 12; k++) {
    int32_t gain = std::max(0x10000 - 8192 * k, 0);
    EXPECT_EQ(a.mock.written[2 * k], static_cast<int16_t>((-16384 * gain) >> 16)) << k;
  }
  EXPECT_EQ(a.audio->fade_mode, 1);
  EXPECT_EQ(a.audio->fade_gain, 0);
  a.mock.written.clear();
  travik_audio_play(a.audio, &frame.f);
  EXPECT_EQ(a.mock.written, std::vector<int16_t>(24, 0));
}

TEST(Audio, FadeOfZeroMillisecondsJumpsToItsEnd) {
  Front a(16);
  travik_audio_init(a.audio, 44100, 2);
  travik_audio_fade(a.audio, TRAVIK_AUDIO_FADE_OUT, 0);
  EXPECT_EQ(a.audio->fade_mode, 1);
  EXPECT_EQ(a.audio->fade_gain, 0);
  Frame frame(std::vector<int16_t>(8, 1234));
  travik_audio_play(a.audio, &frame.f);
  EXPECT_EQ(a.mock.written, std::vector<int16_t>(8, 0));
  travik_audio_fade(a.audio, TRAVIK_AUDIO_FADE_IN, 0);
  EXPECT_EQ(a.audio->fade_mode, 0);
  EXPECT_EQ(a.audio->fade_gain, 0x10000);
  a.mock.written.clear();
  travik_audio_play(a.audio, &frame.f);
  EXPECT_EQ(a.mock.written, std::vector<int16_t>(8, 1234));
}

// A negative duration is not clamped: 65536 / -44.1 + 0.5 truncates to
// -1485, so a fade-out steps upwards and ends at once at unity gain, and a
// fade-in stays silent.
TEST(Audio, FadeOfNegativeMillisecondsFollowsTheArithmetic) {
  Front a(16);
  travik_audio_init(a.audio, 44100, 2);
  travik_audio_fade(a.audio, TRAVIK_AUDIO_FADE_OUT, -1);
  EXPECT_EQ(a.audio->fade_mode, 1);
  EXPECT_EQ(a.audio->fade_step, 1485);
  EXPECT_EQ(a.audio->fade_gain, 0x10000);
  Frame frame(std::vector<int16_t>(8, 1234));
  travik_audio_play(a.audio, &frame.f);
  EXPECT_EQ(a.mock.written, std::vector<int16_t>(8, 1234));
  EXPECT_EQ(a.audio->fade_mode, 0);
  travik_audio_fade(a.audio, TRAVIK_AUDIO_FADE_IN, -1);
  EXPECT_EQ(a.audio->fade_mode, 2);
  EXPECT_EQ(a.audio->fade_step, -1485);
  EXPECT_EQ(a.audio->fade_gain, 0);
  a.mock.written.clear();
  travik_audio_play(a.audio, &frame.f);
  EXPECT_EQ(a.mock.written, std::vector<int16_t>(8, 0));
  EXPECT_EQ(a.audio->fade_mode, 2);
  EXPECT_EQ(a.audio->fade_gain, 0);
}

TEST(Audio, FadeOnADeviceWithoutRateJumps) {
  Front a;
  a.mock.device_rate = 0;
  travik_audio_fade(a.audio, TRAVIK_AUDIO_FADE_IN, 200);
  EXPECT_EQ(a.audio->fade_mode, 0);
  EXPECT_EQ(a.audio->fade_gain, 0x10000);
}

TEST(Audio, OtherFadeModesKeepStepAndGain) {
  Front a;
  travik_audio_fade(a.audio, TRAVIK_AUDIO_FADE_OUT, 1000);
  travik_audio_fade(a.audio, 3, 200);
  EXPECT_EQ(a.audio->fade_mode, 3);
  EXPECT_EQ(a.audio->fade_step, -1);
  EXPECT_EQ(a.audio->fade_gain, 0x10000);
  travik_audio_fade(a.audio, TRAVIK_AUDIO_FADE_NONE, 200);
  EXPECT_EQ(a.audio->fade_mode, 0);
  EXPECT_EQ(a.audio->fade_step, -1);
  EXPECT_EQ(travik_audio_fade(nullptr, 1, 100), 0);
}

// ---- flush and reset --------------------------------------------------------

TEST(Audio, FlushPadsToAWholeBuffer) {
  Front a(64);
  travik_audio_init(a.audio, 44100, 2);
  FilterLog log;
  FilterArg arg{&log, 1};
  travik_audio_install_filter(a.audio, record_filter, &arg);
  Frame frame(ramp(10));
  travik_audio_play(a.audio, &frame.f);
  EXPECT_EQ(travik_audio_flush(a.audio), 0);
  EXPECT_EQ(a.mock.write_sizes, (std::vector<int32_t>{20, 44}));
  std::vector<int16_t> want(frame.samples);
  want.resize(32, 0);
  EXPECT_EQ(a.mock.written, want);
  EXPECT_EQ(a.audio->fill, 0);
  EXPECT_TRUE(log.calls.empty());  // no filters for flushed data
  travik_audio_flush(a.audio);
  EXPECT_EQ(a.mock.write_sizes.size(), 2u);  // nothing staged: nothing written
}

TEST(Audio, FlushSettlesARunningFade) {
  Front a(64);
  travik_audio_init(a.audio, 44100, 2);
  travik_audio_fade(a.audio, TRAVIK_AUDIO_FADE_IN, 1000);
  travik_audio_flush(a.audio);
  EXPECT_EQ(a.audio->fade_gain, 0x10000);
  travik_audio_fade(a.audio, TRAVIK_AUDIO_FADE_OUT, 1000);
  Frame frame(ramp(10));
  travik_audio_play(a.audio, &frame.f);
  travik_audio_flush(a.audio);
  EXPECT_EQ(a.audio->fade_gain, 0);
  EXPECT_EQ(a.audio->fade_mode, 1);
}

TEST(Audio, FlushedDataGoesThroughVolumeAndFade) {
  Front a(16);
  travik_audio_init(a.audio, 44100, 2);
  travik_audio_setvolume(a.audio, 50);
  Frame frame({1000, 1000});
  travik_audio_play(a.audio, &frame.f);
  travik_audio_flush(a.audio);
  EXPECT_EQ(a.mock.written, (std::vector<int16_t>{500, 500, 0, 0, 0, 0, 0, 0}));
}

TEST(Audio, ResetDropsStagedDataAndResetsTheDevice) {
  Front a(64);
  travik_audio_init(a.audio, 22050, 2);
  travik_audio_fade(a.audio, TRAVIK_AUDIO_FADE_OUT, 500);
  travik_resample *resampler = a.audio->resampler;
  Frame frame(ramp(10));
  travik_audio_play(a.audio, &frame.f);
  EXPECT_GT(a.audio->fill, 0);
  EXPECT_EQ(travik_audio_reset(a.audio), 0);
  EXPECT_EQ(a.audio->fill, 0);
  EXPECT_EQ(a.mock.resets, 1);
  EXPECT_EQ(a.audio->resampler, resampler);
  EXPECT_EQ(a.audio->fade_mode, 1);
}

// ---- delay, interval, space, emptiness ----------------------------------------

TEST(Audio, DelayInMilliseconds) {
  Front a;
  a.mock.delay = 17640;  // 100 ms of 44100 Hz stereo
  EXPECT_EQ(travik_audio_getdelay(a.audio), 100);
  a.mock.delay = 4;
  EXPECT_EQ(travik_audio_getdelay(a.audio), 0);
  a.mock.device_rate = 48000;
  a.mock.delay = 19199;  // ((19199000 / 48000) / 2) / 2 = (399 / 2) / 2 = 99
  EXPECT_EQ(travik_audio_getdelay(a.audio), 99);
}

TEST(Audio, DelayOfNegativeBytesIsHalvedUnsigned) {
  Front a;
  a.mock.delay = -1;
  EXPECT_EQ(travik_audio_getdelay(a.audio), 0);
  a.mock.delay = -100000;  // -2267 / 2 = -1133, halved as unsigned
  EXPECT_EQ(travik_audio_getdelay(a.audio), static_cast<int32_t>(static_cast<uint32_t>(-1133) / 2));
}

TEST(Audio, DelayWithoutDeviceRateIsZero) {
  Front a;
  a.mock.delay = 1000;
  a.mock.device_rate = 0;
  EXPECT_EQ(travik_audio_getdelay(a.audio), 0);
  a.mock.device_rate = 44100;
  a.mock.device_channels = 0;
  EXPECT_EQ(travik_audio_getdelay(a.audio), 0);
  EXPECT_EQ(travik_audio_getinterval(a.audio), 0);
}

TEST(Audio, IntervalOfOneWrite) {
  Front a(4096);
  a.mock.device_rate = 48000;
  EXPECT_EQ(travik_audio_getinterval(a.audio), 21);  // ((4096000 / 48000) / 2) / 2
  a.audio->fill = 100;  // what is staged does not count
  EXPECT_EQ(travik_audio_getinterval(a.audio), 21);
}

TEST(Audio, SpaceIsTheDriversAnswer) {
  Front a;
  a.mock.space = 12345;
  EXPECT_EQ(travik_audio_getspace(a.audio), 12345);
  a.mock.space = -7;
  EXPECT_EQ(travik_audio_getspace(a.audio), -7);
}

TEST(Audio, EmptyExactlyWhenDelayEqualsSpace) {
  Front a;
  a.mock.delay = 100;
  a.mock.space = 200;
  EXPECT_EQ(travik_audio_isempty(a.audio), 0);
  a.mock.space = 100;
  EXPECT_EQ(travik_audio_isempty(a.audio), 1);
  a.mock.delay = a.mock.space = -1;
  EXPECT_EQ(travik_audio_isempty(a.audio), 1);
  EXPECT_EQ(travik_audio_isempty(nullptr), 1);
  travik_audio_driver *table = a.audio->driver;
  a.audio->driver = nullptr;  // a missing table counts as empty
  EXPECT_EQ(travik_audio_isempty(a.audio), 1);
  a.audio->driver = table;
}

TEST(Audio, CapabilitiesAreTheDeviceFormat) {
  Front a;
  a.mock.device_rate = 32000;
  a.mock.device_channels = 1;
  int32_t rate = 0, channels = 0;
  EXPECT_EQ(travik_audio_capabilities(a.audio, &rate, &channels), 0);
  EXPECT_EQ(rate, 32000);
  EXPECT_EQ(channels, 1);
}

TEST(Audio, ControlWithoutDriverControlIsANoOp) {
  Front a;
  int value = 0;
  EXPECT_EQ(travik_audio_control(a.audio, 5, &value), 0);
}

TEST(Audio, ControlIsPassedOnAndItsResultDropped) {
  Front a(64, true);
  int value = 0;
  EXPECT_EQ(travik_audio_control(a.audio, 5, &value), 0);
  ASSERT_EQ(a.mock.controls.size(), 1u);
  EXPECT_EQ(a.mock.controls[0].first, 5);
  EXPECT_EQ(a.mock.controls[0].second, &value);
}

// ---- filters ----------------------------------------------------------------

TEST(Audio, FiltersRunInOrderAndMayChangeSamples) {
  Front a(16);
  travik_audio_init(a.audio, 44100, 2);
  FilterLog log;
  FilterArg first{&log, 1}, second{&log, 2};
  travik_audio_install_filter(a.audio, record_filter, &first);
  travik_audio_install_filter(a.audio, double_filter, nullptr);
  travik_audio_install_filter(a.audio, record_filter, &second);
  Frame frame({1, 2, 3, 4, 5, 6, 7, 8});
  travik_audio_play(a.audio, &frame.f);
  ASSERT_EQ(log.calls.size(), 2u);
  EXPECT_EQ(log.calls[0].id, 1);
  EXPECT_EQ(log.calls[0].samples, frame.samples);
  EXPECT_EQ(log.calls[1].id, 2);
  EXPECT_EQ(log.calls[1].samples, (std::vector<int16_t>{2, 4, 6, 8, 10, 12, 14, 16}));
  EXPECT_EQ(a.mock.written, log.calls[1].samples);
  EXPECT_EQ(frame.samples[0], 1);  // the frame itself is not touched
}

TEST(Audio, RemoveFilterRemovesEveryMatchingEntry) {
  Front a(16);
  travik_audio_init(a.audio, 44100, 2);
  FilterLog log;
  FilterArg one{&log, 1}, two{&log, 2};
  travik_audio_install_filter(a.audio, record_filter, &one);
  travik_audio_install_filter(a.audio, record_filter, &two);
  travik_audio_install_filter(a.audio, record_filter, &one);
  EXPECT_EQ(a.audio->filters.count, 3);
  travik_audio_remove_filter(a.audio, record_filter, &one);
  EXPECT_EQ(a.audio->filters.count, 1);
  travik_audio_remove_filter(a.audio, double_filter, &two);  // function differs
  EXPECT_EQ(a.audio->filters.count, 1);
  Frame frame(ramp(8));
  travik_audio_play(a.audio, &frame.f);
  ASSERT_EQ(log.calls.size(), 1u);
  EXPECT_EQ(log.calls[0].id, 2);
}

// ---- threads ----------------------------------------------------------------

// Play and flush in one thread while another changes volume, fade, speed and
// filters and asks for delay, space and emptiness, as the player does.
TEST(AudioThreads, ControlsRunBesideThePlayingThread) {
  Front a(256);
  a.mock.delay = 10;
  a.mock.space = 20;
  travik_audio_init(a.audio, 44100, 2);
  std::atomic<bool> stop{false};
  std::atomic<int> plays{0};
  std::thread player([&] {
    Frame frame(ramp(300));
    for (int k = 0; k < 2000 && !stop; k++) {
      travik_audio_play(a.audio, &frame.f);
      if (k % 50 == 0) travik_audio_flush(a.audio);
      plays++;
    }
  });
  FilterLog log;
  FilterArg arg{&log, 1};
  for (int wait = 0; wait < 5000 && plays.load() == 0; wait++)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  for (int k = 0; k < 300; k++) {
    travik_audio_setvolume(a.audio, k % 101);
    travik_audio_fade(a.audio, 1 + k % 2, 50);
    travik_audio_setspeed(a.audio, k % 3 == 0 ? 1.0f : 1.5f);
    travik_audio_getdelay(a.audio);
    travik_audio_getspace(a.audio);
    travik_audio_isempty(a.audio);
    travik_audio_install_filter(a.audio, double_filter, &arg);
    travik_audio_remove_filter(a.audio, double_filter, &arg);
  }
  stop = true;
  player.join();
  EXPECT_GT(plays.load(), 0);
  // Every write was of a whole buffer, or a flush's two parts that make one.
  int64_t total = 0;
  for (int32_t size : a.mock.write_sizes) total += size;
  EXPECT_GT(total, 0);
  EXPECT_EQ(total % 256, 0);
  EXPECT_EQ(a.audio->filters.count, 0);
}

// A fade started by another thread while a buffer is being faded must not
// be undone when that buffer is done. At 1000000 Hz a fade of one second
// has step 0: a fade-in stays silent, a fade-out stays at unity, neither
// ever completes, so the mode only changes when a fade is started.
TEST(AudioThreads, AFadeStartedDuringAWriteIsKept) {
  Front a(1 << 16);
  a.mock.keep_writes = false;
  a.mock.device_rate = 1000000;
  travik_audio_init(a.audio, 1000000, 2);
  ASSERT_EQ(a.audio->resampler, nullptr);
  std::atomic<bool> stop{false};
  std::atomic<int> plays{0};
  std::thread player([&] {
    Frame frame(ramp(1 << 15));  // one whole buffer per play
    auto start = std::chrono::steady_clock::now();
    while (!stop && std::chrono::steady_clock::now() - start < std::chrono::seconds(30)) {
      travik_audio_play(a.audio, &frame.f);
      plays++;
    }
  });
  auto wait_plays = [&](int more) {
    int target = plays.load() + more;
    for (int k = 0; k < 20000 && plays.load() < target; k++)
      std::this_thread::sleep_for(std::chrono::microseconds(100));
  };
  int lost = 0, attempts = 0;
  auto start = std::chrono::steady_clock::now();
  for (; attempts < 200 && std::chrono::steady_clock::now() - start < std::chrono::seconds(5); attempts++) {
    travik_audio_fade(a.audio, TRAVIK_AUDIO_FADE_IN, 1000);
    wait_plays(1);
    travik_audio_fade(a.audio, TRAVIK_AUDIO_FADE_OUT, 1000);
    wait_plays(2);
    if (__atomic_load_n(&a.audio->fade_mode, __ATOMIC_RELAXED) != TRAVIK_AUDIO_FADE_OUT) lost++;
  }
  stop = true;
  player.join();
  EXPECT_GT(attempts, 0);
  EXPECT_GT(plays.load(), 0);
  EXPECT_EQ(lost, 0) << "of " << attempts;
}

}  // namespace
