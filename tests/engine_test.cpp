// End-to-end tests of the playback engine through real plugin files: the
// avtest demuxer (synthetic audio and video, faults on request), the native
// wav/y4m demuxers and pcm/rawvideo decoders, the null, wav and y4m outputs,
// and test drivers handed in as operation tables. They check what reaches
// the outputs, audio/video synchronisation measured on the devices' own
// clocks, the events of faulty inputs, decoders and devices, that close,
// seek and destroy return promptly at every stage, and that many players
// in a row leave no descriptors, threads or memory behind.
#include <dirent.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <travik/travik.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <string>
#include <vector>

#include "avtest_media.h"
#include "measuring_devices.h"
#include "util/testutil.h"

namespace {

using travik_test::now_ms;
using travik_test::read_file;
using travik_test::TempDir;
using travik_test::write_file;
using measuring::ClockedAudio;
using measuring::Flip;
using measuring::MeasuringDevices;
using measuring::RecordingVideo;

::testing::Environment *const environment = ::testing::AddGlobalTestEnvironment(
    new travik_test::LibraryEnvironment(ENGINE_PLUGINS_DIR));

// Generous bounds: the machine may be loaded by parallel builds.
constexpr long long kPrompt = 3000;    // ms for close, seek and destroy
constexpr long long kPatience = 20000;  // ms to wait for an event

std::string avtest_input(const TempDir &dir, const std::string &options,
                         const std::string &name = "in.avt") {
  std::string path = dir.file(name);
  write_file(path, "AVTEST " + options + "\n");
  return path;
}

// One event as read from the pipe, with its payload as a number.
struct Event {
  int code;
  int32_t value;
};

// A player with an event pipe. Every event read is kept in `events`.
class Player {
 public:
  explicit Player(travik_player_description description = defaults()) {
    EXPECT_EQ(pipe(fds_), 0);
    description.event_read_fd = fds_[0];
    description.event_write_fd = fds_[1];
    player_ = travik_player_create(&description);
  }
  ~Player() {
    if (player_) {
      travik_player_close(player_);
      travik_player_destroy(player_);
    }
    close(fds_[0]);
    close(fds_[1]);
  }
  Player(const Player &) = delete;
  Player &operator=(const Player &) = delete;

  static travik_player_description defaults() {
    travik_player_description d;
    travik_player_description_init(&d);
    d.audio_driver = "null";
    d.video_driver = "null";
    // Without a ceiling the prebuffer target is 0 (it is half the ceiling
    // whenever the ceiling is below the bit-rate estimate), and every
    // start-up underrun then re-bases the clock at once.
    d.input_limit = 4 << 20;
    return d;
  }

  travik_player *get() const { return player_; }

  // Reads what is waiting.
  void poll() {
    travik_player_event e;
    while (travik_player_getevent(player_, &e) == 0) {
      int32_t value = 0;
      if (e.size == 1) value = e.data[0];
      if (e.size == 4) memcpy(&value, e.data, 4);
      events.push_back({e.code, value});
    }
  }

  // Waits (a few seconds at most) until the audio front end holds no
  // partly filled buffer: the end event can come before the audio output's
  // last pass has flushed it.
  void wait_for_audio_flush() {
    auto *audio = static_cast<travik_audio *>(travik_player_getobject(player_, 3));
    const long long end = now_ms() + 5000;
    while (audio && now_ms() < end) {
      pthread_mutex_lock(&audio->lock);
      const int32_t held = audio->fill;
      pthread_mutex_unlock(&audio->lock);
      if (held == 0) return;
      usleep(5000);
    }
  }

  // Waits until an event `code` (with `value`, unless -1) has been read.
  bool wait_for(int code, long long ms = kPatience, int32_t value = -1) {
    long long end = now_ms() + ms;
    for (;;) {
      poll();
      if (seen(code, value)) return true;
      if (now_ms() > end) return false;
      fd_set set;
      FD_ZERO(&set);
      FD_SET(fds_[0], &set);
      struct timeval wait = {0, 20000};
      select(fds_[0] + 1, &set, nullptr, nullptr, &wait);
    }
  }

  bool seen(int code, int32_t value = -1) const { return count(code, value) > 0; }
  int count(int code, int32_t value = -1) const {
    int n = 0;
    for (const Event &e : events)
      if (e.code == code && (value == -1 || e.value == value)) n++;
    return n;
  }
  // Index of the first event `code` at or after `from`, or -1.
  int find(int code, size_t from = 0) const {
    for (size_t i = from; i < events.size(); i++)
      if (events[i].code == code) return static_cast<int>(i);
    return -1;
  }

  std::vector<Event> events;

 private:
  int fds_[2] = {-1, -1};
  travik_player *player_ = nullptr;
};

// Runs `action` and returns how long it took, in milliseconds.
template <typename F>
long long timed(F action) {
  long long start = now_ms();
  action();
  return now_ms() - start;
}

// ---------------------------------------------------------------------
// Reading back what the file outputs wrote.

uint32_t get16(const std::string &s, size_t at) {
  return static_cast<uint8_t>(s[at]) | static_cast<uint8_t>(s[at + 1]) << 8;
}
uint32_t get32(const std::string &s, size_t at) { return get16(s, at) | get16(s, at + 2) << 16; }

// The sample bytes of a canonical 44-byte-header WAV file.
std::string wav_data(const std::string &file) {
  if (file.size() < 44 || file.compare(0, 4, "RIFF") != 0 || file.compare(36, 4, "data") != 0)
    return std::string();
  return file.substr(44, get32(file, 40));
}

void put16(std::string *s, uint32_t v) {
  s->push_back(static_cast<char>(v & 0xFF));
  s->push_back(static_cast<char>((v >> 8) & 0xFF));
}
void put32(std::string *s, uint32_t v) {
  put16(s, v & 0xFFFF);
  put16(s, v >> 16);
}

std::string wav_file(int rate, int channels, const std::string &data) {
  std::string s = "RIFF";
  put32(&s, static_cast<uint32_t>(36 + data.size()));
  s += "WAVEfmt ";
  put32(&s, 16);
  put16(&s, 1);
  put16(&s, static_cast<uint32_t>(channels));
  put32(&s, static_cast<uint32_t>(rate));
  put32(&s, static_cast<uint32_t>(rate * channels * 2));
  put16(&s, static_cast<uint32_t>(channels * 2));
  put16(&s, 16);
  s += "data";
  put32(&s, static_cast<uint32_t>(data.size()));
  return s + data;
}

// The avtest audio of `frames` sample frames, as little-endian bytes.
std::string avtest_samples(int64_t frames, int channels) {
  std::string s;
  for (int64_t n = 0; n < frames; n++)
    for (int c = 0; c < channels; c++) put16(&s, static_cast<uint16_t>(avtest::sample(n, c)));
  return s;
}

// The avtest picture `frame` of width x height.
std::string avtest_picture(int64_t frame, int w, int h) {
  std::string s;
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++) s.push_back(static_cast<char>(avtest::luma(frame, x, y)));
  for (int plane = 0; plane < 2; plane++)
    for (int y = 0; y < h / 2; y++)
      for (int x = 0; x < w / 2; x++)
        s.push_back(static_cast<char>(avtest::chroma(frame, plane, x, y)));
  return s;
}

// The pictures of a YUV4MPEG2 file with plain "FRAME" lines.
std::vector<std::string> y4m_pictures(const std::string &file, int w, int h) {
  std::vector<std::string> pictures;
  size_t at = file.find('\n');
  const size_t bytes = static_cast<size_t>(w * h * 3 / 2);
  while (at != std::string::npos && at + 1 + 6 + bytes <= file.size()) {
    if (file.compare(at + 1, 6, "FRAME\n") != 0) break;
    pictures.push_back(file.substr(at + 7, bytes));
    at += 6 + bytes;
  }
  return pictures;
}

// The audio played must be the input's, in order, from the start: a prefix
// of `played` equals `expected`, and whatever follows is silence padding.
void expect_samples(const std::string &played, const std::string &expected) {
  ASSERT_GE(played.size(), expected.size());
  EXPECT_TRUE(played.compare(0, expected.size(), expected) == 0)
      << "the samples written differ from the input's";
  std::string rest = played.substr(expected.size());
  EXPECT_EQ(rest, std::string(rest.size(), '\0'));
}

// Every picture written is one of the input's, in increasing order, with
// the first and most of the others present (a late picture makes the
// player drop the next one).
void expect_pictures(const std::vector<std::string> &written, int total, int w, int h) {
  ASSERT_FALSE(written.empty());
  EXPECT_GE(static_cast<int>(written.size()), total / 2);
  EXPECT_LE(static_cast<int>(written.size()), total);
  int next = 0;
  for (size_t i = 0; i < written.size(); i++) {
    int index = avtest::frame_of(static_cast<uint8_t>(written[i][0]));
    ASSERT_GE(index, next) << "picture " << i << " out of order";
    ASSERT_LT(index, total);
    EXPECT_EQ(written[i], avtest_picture(index, w, h)) << "picture " << i << " (frame " << index
                                                       << ") differs";
    if (i == 0) {
      EXPECT_EQ(index, 0);
    }
    next = index + 1;
  }
}

// ---------------------------------------------------------------------
// Plays to the end through real plugins.

TEST(EnginePlay, AvInputPlaysBothStreamsToTheEnd) {
  TempDir dir;
  std::string input = avtest_input(dir, "seconds=600");
  Player p;
  ASSERT_NE(p.get(), nullptr);
  ASSERT_EQ(travik_player_open(p.get(), input.c_str()), 0);
  ASSERT_EQ(travik_player_play(p.get()), 0);
  ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_END));
  EXPECT_TRUE(p.seen(TRAVIK_EVENT_OPENING));
  EXPECT_TRUE(p.seen(TRAVIK_EVENT_OPENED));
  EXPECT_TRUE(p.seen(TRAVIK_EVENT_AUDIO_STARTED));
  EXPECT_TRUE(p.seen(TRAVIK_EVENT_VIDEO_STARTED));
  EXPECT_FALSE(p.seen(TRAVIK_EVENT_ERROR));
  EXPECT_LT(p.find(TRAVIK_EVENT_OPENING), p.find(TRAVIK_EVENT_OPENED));
  EXPECT_LT(p.find(TRAVIK_EVENT_OPENED), p.find(TRAVIK_EVENT_AUDIO_STARTED));
  EXPECT_EQ(travik_player_getinfo(p.get(), 1), 600);
  EXPECT_EQ(travik_player_getinfo(p.get(), 4), 2);
  EXPECT_EQ(travik_player_getinfo(p.get(), 6), 8000);
  EXPECT_EQ(travik_player_getinfo(p.get(), 8), 64);
  EXPECT_EQ(travik_player_getinfo(p.get(), 9), 48);
  EXPECT_EQ(travik_player_getinfo(p.get(), 24), 1);
  // The end event goes out once per input.
  usleep(200000);
  p.poll();
  EXPECT_EQ(p.count(TRAVIK_EVENT_END), 1);
}

TEST(EnginePlay, WavThroughTheWavOutputSampleForSample) {
  TempDir dir;
  std::string samples = avtest_samples(8000 * 4 / 10, 2);  // 0.4 s of 8 kHz stereo
  write_file(dir.file("in.wav"), wav_file(8000, 2, samples));
  std::string out = dir.file("out.wav");
  {
    travik_player_description d = Player::defaults();
    d.audio_driver = "wav";
    d.audio_args = const_cast<char *>(out.c_str());
    Player p(d);
    ASSERT_NE(p.get(), nullptr);
    ASSERT_EQ(travik_player_open(p.get(), dir.file("in.wav").c_str()), 0);
    ASSERT_EQ(travik_player_play(p.get()), 0);
    ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_END));
    p.wait_for_audio_flush();
    EXPECT_TRUE(p.seen(TRAVIK_EVENT_AUDIO_STARTED));
    EXPECT_FALSE(p.seen(TRAVIK_EVENT_VIDEO_STARTED));
  }
  std::string file = read_file(out);
  EXPECT_EQ(get32(file, 24), 8000u);
  EXPECT_EQ(get16(file, 22), 2u);
  expect_samples(wav_data(file), samples);
}

TEST(EnginePlay, Y4mThroughTheY4mOutput) {
  TempDir dir;
  const int w = 32, h = 16, frames = 10;
  std::string file = "YUV4MPEG2 W32 H16 F25:1 Ip A1:1 C420jpeg\n";
  for (int f = 0; f < frames; f++) file += "FRAME\n" + avtest_picture(f, w, h);
  write_file(dir.file("in.y4m"), file);
  std::string out = dir.file("out.y4m");
  {
    travik_player_description d = Player::defaults();
    d.video_driver = "y4m";
    d.video_args = const_cast<char *>(out.c_str());
    Player p(d);
    ASSERT_NE(p.get(), nullptr);
    ASSERT_EQ(travik_player_open(p.get(), dir.file("in.y4m").c_str()), 0);
    ASSERT_EQ(travik_player_play(p.get()), 0);
    ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_END));
    EXPECT_TRUE(p.seen(TRAVIK_EVENT_VIDEO_STARTED));
    EXPECT_FALSE(p.seen(TRAVIK_EVENT_AUDIO_STARTED));
  }
  expect_pictures(y4m_pictures(read_file(out), w, h), frames, w, h);
}

TEST(EnginePlay, BothStreamsToTheWavAndY4mOutputs) {
  TempDir dir;
  std::string input = avtest_input(dir, "seconds=800 rate=8000 channels=2 width=32 height=16");
  std::string wav = dir.file("out.wav"), y4m = dir.file("out.y4m");
  {
    travik_player_description d = Player::defaults();
    d.audio_driver = "wav";
    d.audio_args = const_cast<char *>(wav.c_str());
    d.video_driver = "y4m";
    d.video_args = const_cast<char *>(y4m.c_str());
    Player p(d);
    ASSERT_NE(p.get(), nullptr);
    ASSERT_EQ(travik_player_open(p.get(), input.c_str()), 0);
    ASSERT_EQ(travik_player_play(p.get()), 0);
    ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_END));
    p.wait_for_audio_flush();
  }
  expect_samples(wav_data(read_file(wav)), avtest_samples(8000 * 8 / 10, 2));
  expect_pictures(y4m_pictures(read_file(y4m), 32, 16), 20, 32, 16);
}

TEST(EnginePlay, AudioOnlyAndVideoOnlyInputs) {
  TempDir dir;
  {
    Player p;
    ASSERT_EQ(travik_player_open(p.get(), avtest_input(dir, "seconds=300 video=0").c_str()), 0);
    ASSERT_EQ(travik_player_play(p.get()), 0);
    ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_END));
    EXPECT_TRUE(p.seen(TRAVIK_EVENT_AUDIO_STARTED));
    EXPECT_FALSE(p.seen(TRAVIK_EVENT_VIDEO_STARTED));
    EXPECT_EQ(travik_player_getinfo(p.get(), 2), 0);
  }
  {
    Player p;
    ASSERT_EQ(travik_player_open(p.get(), avtest_input(dir, "seconds=300 audio=0", "v.avt").c_str()),
              0);
    ASSERT_EQ(travik_player_play(p.get()), 0);
    ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_END));
    EXPECT_TRUE(p.seen(TRAVIK_EVENT_VIDEO_STARTED));
    EXPECT_FALSE(p.seen(TRAVIK_EVENT_AUDIO_STARTED));
    EXPECT_EQ(travik_player_getinfo(p.get(), 3), 0);
  }
}

// ---------------------------------------------------------------------
// Synchronisation, measured on the devices' own clocks.

TEST(EngineSync, EveryFlippedPictureIsNearTheAudioPosition) {
  TempDir dir;
  // 25 pictures a second (40 ms apart, as the recording driver assumes).
  std::string input = avtest_input(dir, "seconds=2000 rate=16000 channels=2 fps=25");
  ClockedAudio audio;
  RecordingVideo video;
  MeasuringDevices::install(&audio, &video);
  {
    travik_player_description d = Player::defaults();
    d.audio_driver = "driver";
    d.audio_args = MeasuringDevices::audio_table();
    d.video_driver = "driver";
    d.video_args = MeasuringDevices::video_table();
    Player p(d);
    ASSERT_NE(p.get(), nullptr);
    ASSERT_EQ(travik_player_open(p.get(), input.c_str()), 0);
    ASSERT_EQ(travik_player_play(p.get()), 0);
    ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_END));
  }
  MeasuringDevices::install(nullptr, nullptr);
  std::vector<int64_t> offsets;
  for (const Flip &f : video.flips)
    if (f.audio_us > 0) offsets.push_back(f.video_us - f.audio_us);
  ASSERT_GE(offsets.size(), 25u) << "too few pictures shown while the audio played";
  std::vector<int64_t> magnitude;
  for (int64_t o : offsets) magnitude.push_back(o < 0 ? -o : o);
  std::sort(magnitude.begin(), magnitude.end());
  const int64_t median = magnitude[magnitude.size() / 2];
  const int64_t p90 = magnitude[magnitude.size() * 9 / 10];
  // Within a couple of frame periods; the device clocks themselves are
  // exact, so a larger distance is the engine's.
  EXPECT_LT(median, 60000) << "median A/V distance " << median << " us";
  EXPECT_LT(p90, 120000) << "90th percentile A/V distance " << p90 << " us";
}

// ---------------------------------------------------------------------
// Faults of the input, the decoders and the devices.

TEST(EngineFaults, HeaderFailurePostsErrorThenEnd) {
  TempDir dir;
  Player p;
  ASSERT_EQ(travik_player_open(p.get(), avtest_input(dir, "header_error=9").c_str()), 0);
  ASSERT_EQ(travik_player_play(p.get()), 0);
  ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_END));
  ASSERT_TRUE(p.seen(TRAVIK_EVENT_ERROR, 9));
  EXPECT_LT(p.find(TRAVIK_EVENT_ERROR), p.find(TRAVIK_EVENT_END));
  EXPECT_FALSE(p.seen(TRAVIK_EVENT_OPENED));
  EXPECT_FALSE(p.seen(TRAVIK_EVENT_AUDIO_STARTED));
}

TEST(EngineFaults, HeaderEndingCleanlyPostsEndWithoutError) {
  TempDir dir;
  Player p;
  ASSERT_EQ(travik_player_open(p.get(), avtest_input(dir, "header_error=4").c_str()), 0);
  ASSERT_EQ(travik_player_play(p.get()), 0);
  ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_END));
  EXPECT_FALSE(p.seen(TRAVIK_EVENT_ERROR));
}

TEST(EngineFaults, FailureMidStreamPostsErrorAndEnds) {
  TempDir dir;
  Player p;
  ASSERT_EQ(travik_player_open(p.get(),
                               avtest_input(dir, "seconds=2000 error_at=400 error_code=6").c_str()),
            0);
  ASSERT_EQ(travik_player_play(p.get()), 0);
  ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_END));
  EXPECT_TRUE(p.seen(TRAVIK_EVENT_ERROR, 6));
  EXPECT_TRUE(p.seen(TRAVIK_EVENT_OPENED));
  EXPECT_EQ(travik_player_getinfo(p.get(), 24), 1);
}

TEST(EngineFaults, EndlessEmptyInputCanBeClosed) {
  TempDir dir;
  Player p;
  ASSERT_EQ(travik_player_open(p.get(), avtest_input(dir, "empty=1").c_str()), 0);
  ASSERT_EQ(travik_player_play(p.get()), 0);
  ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_OPENED));
  usleep(300000);
  p.poll();
  EXPECT_FALSE(p.seen(TRAVIK_EVENT_END));
  EXPECT_FALSE(p.seen(TRAVIK_EVENT_AUDIO_STARTED));
  EXPECT_LT(timed([&] { travik_player_close(p.get()); }), kPrompt);
}

TEST(EngineFaults, SlowInputRebuffersThenRecovers) {
  TempDir dir;
  Player p;
  std::string input = avtest_input(dir, "seconds=1500 stall_at=500 stall_for=1200");
  ASSERT_EQ(travik_player_open(p.get(), input.c_str()), 0);
  ASSERT_EQ(travik_player_play(p.get()), 0);
  ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_END));
  // Buffering starts again after the audio had started, announces its
  // progress below 100 and ends with 100; the input then plays to its end.
  int started = p.find(TRAVIK_EVENT_AUDIO_STARTED);
  ASSERT_GE(started, 0);
  bool rebuffered = false, recovered = false;
  for (size_t i = static_cast<size_t>(started); i < p.events.size(); i++) {
    const Event &e = p.events[i];
    if (e.code != TRAVIK_EVENT_BUFFERING) continue;
    if (e.value < 100) rebuffered = true;
    if (rebuffered && e.value == 100) recovered = true;
  }
  EXPECT_TRUE(rebuffered);
  EXPECT_TRUE(recovered);
  EXPECT_FALSE(p.seen(TRAVIK_EVENT_ERROR));
}

TEST(EngineFaults, RealTimeInputPlaysToTheEnd) {
  TempDir dir;
  Player p;
  ASSERT_EQ(travik_player_open(p.get(), avtest_input(dir, "seconds=600 realtime=100").c_str()), 0);
  ASSERT_EQ(travik_player_play(p.get()), 0);
  ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_END));
  EXPECT_TRUE(p.seen(TRAVIK_EVENT_AUDIO_STARTED));
  EXPECT_TRUE(p.seen(TRAVIK_EVENT_VIDEO_STARTED));
}

TEST(EngineFaults, RefusingAudioDecoderPostsNoAudioDecoder) {
  TempDir dir;
  travik_player_description d = Player::defaults();
  d.audio_decoder = "refuse";
  Player p(d);
  ASSERT_EQ(travik_player_open(p.get(), avtest_input(dir, "seconds=400").c_str()), 0);
  ASSERT_EQ(travik_player_play(p.get()), 0);
  ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_NO_AUDIO_DECODER));
  ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_VIDEO_STARTED));
  EXPECT_FALSE(p.seen(TRAVIK_EVENT_AUDIO_STARTED));
  EXPECT_FALSE(p.seen(TRAVIK_EVENT_NO_VIDEO_DECODER));
  EXPECT_LT(timed([&] { travik_player_close(p.get()); }), kPrompt);
}

TEST(EngineFaults, RefusingVideoDecoderPostsNoVideoDecoder) {
  TempDir dir;
  travik_player_description d = Player::defaults();
  d.video_decoder = "refuse";
  Player p(d);
  ASSERT_EQ(travik_player_open(p.get(), avtest_input(dir, "seconds=400").c_str()), 0);
  ASSERT_EQ(travik_player_play(p.get()), 0);
  ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_NO_VIDEO_DECODER));
  ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_AUDIO_STARTED));
  EXPECT_FALSE(p.seen(TRAVIK_EVENT_VIDEO_STARTED));
  EXPECT_LT(timed([&] { travik_player_close(p.get()); }), kPrompt);
}

TEST(EngineFaults, DecoderThatProducesNothingStartsNoOutput) {
  TempDir dir;
  travik_player_description d = Player::defaults();
  d.audio_decoder = "silent";
  d.video_decoder = "silent";
  Player p(d);
  ASSERT_EQ(travik_player_open(p.get(), avtest_input(dir, "seconds=300").c_str()), 0);
  ASSERT_EQ(travik_player_play(p.get()), 0);
  ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_OPENED));
  usleep(500000);
  p.poll();
  EXPECT_FALSE(p.seen(TRAVIK_EVENT_AUDIO_STARTED));
  EXPECT_FALSE(p.seen(TRAVIK_EVENT_VIDEO_STARTED));
  EXPECT_FALSE(p.seen(TRAVIK_EVENT_NO_AUDIO_DECODER));
  EXPECT_FALSE(p.seen(TRAVIK_EVENT_NO_VIDEO_DECODER));
  EXPECT_LT(timed([&] { travik_player_close(p.get()); }), kPrompt);
}

// Decoders that hold nothing back (pcm and rawvideo, and one that makes
// nothing at all) answer the drain at the end of the input with nothing:
// the input still ends, once, and promptly.
TEST(EngineFaults, DecoderThatProducesNothingStillEndsOnce) {
  TempDir dir;
  travik_player_description d = Player::defaults();
  d.audio_decoder = "silent";
  d.video_decoder = "silent";
  Player p(d);
  ASSERT_EQ(travik_player_open(p.get(), avtest_input(dir, "seconds=300").c_str()), 0);
  ASSERT_EQ(travik_player_play(p.get()), 0);
  ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_END));
  usleep(200000);
  p.poll();
  EXPECT_EQ(p.count(TRAVIK_EVENT_END), 1);
  EXPECT_FALSE(p.seen(TRAVIK_EVENT_AUDIO_STARTED));
  EXPECT_LT(timed([&] { travik_player_close(p.get()); }), kPrompt);
}

TEST(EnginePlay, MutedAudioOnlyInputEndsOnce) {
  TempDir dir;
  for (int round = 0; round < 3; round++) {
    Player p;
    ASSERT_EQ(travik_player_open(p.get(), avtest_input(dir, "seconds=300 video=0").c_str()), 0);
    travik_player_setinfo(p.get(), 17, 1);
    ASSERT_EQ(travik_player_play(p.get()), 0);
    ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_END)) << round;
    usleep(200000);
    p.poll();
    EXPECT_EQ(p.count(TRAVIK_EVENT_END), 1);
    EXPECT_TRUE(p.seen(TRAVIK_EVENT_AUDIO_STARTED));
  }
}

TEST(EngineFaults, AudioDeviceThatStopsAcceptingCanBeClosedAndDestroyed) {
  TempDir dir;
  ClockedAudio audio;
  audio.stop_after = 8192;
  MeasuringDevices::install(&audio, nullptr);
  travik_player_description d = Player::defaults();
  d.audio_driver = "driver";
  d.audio_args = MeasuringDevices::audio_table();
  auto *p = new Player(d);
  ASSERT_NE(p->get(), nullptr);
  ASSERT_EQ(travik_player_open(p->get(), avtest_input(dir, "seconds=3000").c_str()), 0);
  ASSERT_EQ(travik_player_play(p->get()), 0);
  ASSERT_TRUE(p->wait_for(TRAVIK_EVENT_AUDIO_STARTED));
  // Long enough for the device to have filled up and refused.
  const long long until = now_ms() + 5000;
  while (audio.accepted < audio.stop_after && now_ms() < until) usleep(10000);
  EXPECT_GE(audio.accepted, audio.stop_after);
  usleep(200000);
  EXPECT_LT(timed([&] { travik_player_close(p->get()); }), kPrompt);
  EXPECT_LT(timed([&] { delete p; }), kPrompt);
  MeasuringDevices::install(nullptr, nullptr);
}

// ---------------------------------------------------------------------
// close, seek and destroy return promptly at every stage.

enum class Stage { kBeforePlay, kBuffering, kPaused, kPlaying, kEnded };

class EngineStages : public ::testing::TestWithParam<Stage> {};

// Brings a fresh player to `stage`.
void reach(Player &p, const TempDir &dir, Stage stage) {
  std::string options = "seconds=1500";
  // A stall at the start keeps the player buffering.
  if (stage == Stage::kBuffering) options += " stall_at=0 stall_for=8000";
  if (stage == Stage::kEnded) options = "seconds=300";
  ASSERT_EQ(travik_player_open(p.get(), avtest_input(dir, options).c_str()), 0);
  if (stage == Stage::kBeforePlay) return;
  ASSERT_EQ(travik_player_play(p.get()), 0);
  switch (stage) {
    case Stage::kBuffering:
      ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_OPENED));
      usleep(100000);
      p.poll();
      EXPECT_FALSE(p.seen(TRAVIK_EVENT_AUDIO_STARTED));
      break;
    case Stage::kPaused:
      ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_AUDIO_STARTED));
      ASSERT_EQ(travik_player_pause(p.get()), 0);
      break;
    case Stage::kPlaying:
      ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_VIDEO_STARTED));
      break;
    case Stage::kEnded:
      ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_END));
      break;
    default:
      break;
  }
}

TEST_P(EngineStages, CloseIsPrompt) {
  TempDir dir;
  auto *p = new Player;
  reach(*p, dir, GetParam());
  EXPECT_LT(timed([&] { travik_player_close(p->get()); }), kPrompt);
  EXPECT_EQ(travik_player_getobject(p->get(), 8), nullptr);
  EXPECT_LT(timed([&] { delete p; }), kPrompt);
}

TEST_P(EngineStages, SeekIsPromptThenCloseAndDestroy) {
  TempDir dir;
  auto *p = new Player;
  reach(*p, dir, GetParam());
  int result = -1;
  EXPECT_LT(timed([&] { result = travik_player_seek(p->get(), 200); }), kPrompt);
  // After the end event the player refuses to seek.
  if (GetParam() == Stage::kEnded) {
    EXPECT_EQ(result, 1);
  }
  EXPECT_LT(timed([&] { travik_player_close(p->get()); }), kPrompt);
  EXPECT_LT(timed([&] { delete p; }), kPrompt);
}

TEST_P(EngineStages, DestroyRightAfterCloseIsPrompt) {
  TempDir dir;
  auto *p = new Player;
  reach(*p, dir, GetParam());
  EXPECT_LT(timed([&] { delete p; }), 2 * kPrompt);
}

INSTANTIATE_TEST_SUITE_P(AtEveryStage, EngineStages,
                         ::testing::Values(Stage::kBeforePlay, Stage::kBuffering, Stage::kPaused,
                                           Stage::kPlaying, Stage::kEnded));

TEST(EngineSeek, SeekWhilePlayingGoesOnFromTheNewPosition) {
  TempDir dir;
  Player p;
  ASSERT_EQ(travik_player_open(p.get(), avtest_input(dir, "seconds=3000").c_str()), 0);
  ASSERT_EQ(travik_player_play(p.get()), 0);
  ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_AUDIO_STARTED));
  ASSERT_EQ(travik_player_seek(p.get(), 2000), 0);
  EXPECT_EQ(travik_player_isplaying(p.get()), 0);
  ASSERT_EQ(travik_player_play(p.get()), 0);
  // The rest (a second) plays and the input ends.
  const long long start = now_ms();
  ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_END));
  EXPECT_LT(now_ms() - start, 2800) << "the end came as if the seek had not happened";
  EXPECT_GE(travik_player_elapsed(p.get()), 1900);
}

// ---------------------------------------------------------------------
// Many players in a row leave nothing behind.

int count_entries(const char *path) {
  DIR *dir = opendir(path);
  if (!dir) return -1;
  int n = 0;
  while (struct dirent *entry = readdir(dir))
    if (entry->d_name[0] != '.') n++;
  closedir(dir);
  return n;
}

// Reads and drops whatever waits in the event pipe.
void drain(int fd) {
  fd_set set;
  char buffer[256];
  for (;;) {
    FD_ZERO(&set);
    FD_SET(fd, &set);
    struct timeval none = {0, 0};
    if (select(fd + 1, &set, nullptr, nullptr, &none) <= 0) return;
    if (read(fd, buffer, sizeof buffer) <= 0) return;
  }
}

size_t heap_in_use() { return mallinfo2().uordblks; }

TEST(EngineSoak, TwoHundredCyclesLeaveNoDescriptorsThreadsOrHeap) {
  TempDir dir;
  std::string input = avtest_input(dir, "seconds=1000 width=16 height=16 rate=8000");
  // One cycle: create, open, play, seek, play, pause, close, destroy.
  auto cycle = [&](int fd_read, int fd_write, int i) {
    travik_player_description d = Player::defaults();
    d.event_read_fd = fd_read;
    d.event_write_fd = fd_write;
    travik_player *player = travik_player_create(&d);
    if (!player) return false;
    bool ok = travik_player_open(player, input.c_str()) == 0;
    ok = ok && travik_player_play(player) == 0;
    // Every few cycles the outputs get going before the seek.
    if (i % 4 == 0) usleep(20000);
    travik_player_seek(player, 300);
    travik_player_play(player);
    travik_player_pause(player);
    travik_player_close(player);
    travik_player_destroy(player);
    drain(fd_read);
    return ok;
  };
  // The first cycle loads the plugins and makes what lives for the whole
  // process (caches, the loader's own memory): count from after it. The
  // 199 others follow.
  int fds[4][2];
  for (auto &pair : fds) ASSERT_EQ(pipe(pair), 0);
  ASSERT_TRUE(cycle(fds[0][0], fds[0][1], 1));
  const int fds_before = count_entries("/proc/self/fd");
  const int threads_before = count_entries("/proc/self/task");
  const size_t heap_before = heap_in_use();
  // One after the other, on this one application thread as the player
  // wants. Each close and seek resets five workers (some tens of
  // milliseconds), so this takes a good many seconds.
  int failures = 0;
  for (int i = 2; i <= 200; i++)
    if (!cycle(fds[i % 4][0], fds[i % 4][1], i)) failures++;
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(count_entries("/proc/self/fd"), fds_before);
  EXPECT_EQ(count_entries("/proc/self/task"), threads_before);
  // A few kilobytes of allocator bookkeeping may move; a leak of one
  // player a cycle would be hundreds of kilobytes.
  const size_t heap_after = heap_in_use();
  EXPECT_LT(heap_after, heap_before + 64 * 1024)
      << "heap grew from " << heap_before << " to " << heap_after << " bytes";
  for (auto &pair : fds) {
    close(pair[0]);
    close(pair[1]);
  }
}

}  // namespace
