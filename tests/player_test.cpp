// The player driven end to end with a scripted demuxer plugin, decoders
// registered by the test and fake output devices: events, buffering,
// routing, exact seeks, frame pools, skip levels, late frames, the end of
// playback, transport control and prompt close, seek and destroy.
#include <gtest/gtest.h>
#include <travik/travik.h>
#include <sys/resource.h>
#include <unistd.h>
#include <util/fake_output.h>
#include <util/testutil.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "player/player_internal.h"
#include "script.h"

namespace {

::testing::Environment *const environment = ::testing::AddGlobalTestEnvironment(
    new travik_test::LibraryEnvironment(SCRIPT_PLUGINS_DIR));

using travik_test::FakeAudio;
using travik_test::FakeVideo;
using travik_test::now_ms;

const int32_t kAudioCodec = 101;
const int32_t kVideoCodec = 102;

// Counts the workers change, read without their locks.
int32_t relaxed(const int32_t &count) { return __atomic_load_n(&count, __ATOMIC_RELAXED); }

// ---------------------------------------------------------------- decoders

struct DecoderLog {
  std::mutex mutex;
  std::vector<int32_t> video_levels;  // skip level asked for, per decode call with data
  std::atomic<int32_t> video_hold_refs{0};  // video frames the decoder keeps a reference to
  std::atomic<int32_t> audio_opens{0};
  std::atomic<int32_t> video_opens{0};
  std::atomic<bool> refuse_audio{false};
  // The video decoder holds back this many pictures, as a decoder that
  // reorders does, and hands them out only when drained.
  std::atomic<int32_t> video_delay{0};
  std::atomic<int32_t> video_drain_calls{0};  // decode calls with a packet without data
  std::atomic<int32_t> video_resets{0};
  std::vector<std::pair<const void *, int32_t>> audio_buffers;  // (samples, capacity) per frame
  void clear() {
    audio_buffers.clear();
    std::lock_guard<std::mutex> lock(mutex);
    video_levels.clear();
    video_hold_refs = 0;
    audio_opens = 0;
    video_opens = 0;
    refuse_audio = false;
    video_delay = 0;
    video_drain_calls = 0;
    video_resets = 0;
  }
};
DecoderLog g_log;

struct VideoState {
  travik_decoder *decoder;
  std::vector<travik_videoframe *> held;
  std::vector<std::pair<uint8_t, int64_t>> delayed;  // (fill byte, pts) not yet handed out
};

void *audio_open(travik_decoder *decoder) {
  g_log.audio_opens++;
  return g_log.refuse_audio ? nullptr : decoder;
}
void audio_close(void *) {}
// One frame a packet: size / 2 values, each the packet's fill byte.
int32_t audio_decode(void *state, uint8_t *data, int32_t size, void *, void **frame) {
  if (size <= 0) return -1;
  auto *decoder = static_cast<travik_decoder *>(state);
  travik_audioframe templ;
  travik_audioframe_init(&templ, nullptr);
  templ.count = size / 2;
  auto *out = static_cast<travik_audioframe *>(decoder->allocator->alloc(decoder->allocator->user, &templ));
  if (!out) return -1;
  for (int32_t i = 0; i < templ.count; i++) out->samples[i] = data[0];
  {
    std::lock_guard<std::mutex> lock(g_log.mutex);
    g_log.audio_buffers.emplace_back(out->samples, reinterpret_cast<pooled_audioframe *>(out)->capacity);
  }
  *frame = out;
  return size;
}
void audio_reset(void *) {}

void *video_open(travik_decoder *decoder) {
  g_log.video_opens++;
  return new VideoState{decoder, {}, {}};
}
void video_close(void *data) {
  auto *state = static_cast<VideoState *>(data);
  for (auto *frame : state->held) frame->release(frame);
  delete state;
}
// One picture a packet, its first luma byte the packet's fill byte. With
// video_hold_refs above 0 the decoder keeps references to its last frames,
// as a decoder with reference pictures does.
//
// With video_delay N the picture of a packet comes out N packets later; a
// packet without data (the drain at the end of the input) hands out one
// held picture per call, then -1.
int32_t video_decode(void *data, uint8_t *bytes, int32_t size, void *argument, void **frame) {
  auto *state = static_cast<VideoState *>(data);
  uint8_t fill;
  int64_t pts = -1;
  if (!bytes && size == 0) {
    g_log.video_drain_calls++;
    if (state->delayed.empty()) return -1;
    fill = state->delayed.front().first;
    pts = state->delayed.front().second;
    state->delayed.erase(state->delayed.begin());
  } else {
    if (size <= 0) return -1;
    {
      std::lock_guard<std::mutex> lock(g_log.mutex);
      g_log.video_levels.push_back(*static_cast<int32_t *>(argument));
    }
    fill = bytes[0];
    if (g_log.video_delay > 0) {
      state->delayed.emplace_back(fill, state->decoder->packet->pts);
      if (static_cast<int32_t>(state->delayed.size()) <= g_log.video_delay) return size;
      fill = state->delayed.front().first;
      pts = state->delayed.front().second;
      state->delayed.erase(state->delayed.begin());
    }
  }
  travik_videoframe templ;
  travik_videoframe_init(&templ, nullptr);
  templ.format = TRAVIK_PIXEL_YUV420P;
  templ.width = state->decoder->stream->info.width;
  templ.height = state->decoder->stream->info.height;
  if (pts != -1) {  // a held picture: its own time, and a key frame like every test packet
    templ.timestamp = pts;
    templ.info = 1;
  }
  auto *out = static_cast<travik_videoframe *>(state->decoder->allocator->alloc(state->decoder->allocator->user, &templ));
  if (!out) return -1;
  out->planes[0][0] = fill;
  int32_t keep = g_log.video_hold_refs;
  if (keep > 0) {
    out->addref(out);
    state->held.push_back(out);
    while (static_cast<int32_t>(state->held.size()) > keep) {
      state->held.front()->release(state->held.front());
      state->held.erase(state->held.begin());
    }
  }
  *frame = out;
  return size;
}
void video_reset(void *data) {
  g_log.video_resets++;
  static_cast<VideoState *>(data)->delayed.clear();
}

travik_decoder_driver audio_driver = {"test audio", kAudioCodec, 1, audio_open, audio_close,
                                      audio_decode, audio_reset};
travik_decoder_driver video_driver = {"test video", kVideoCodec, 1, video_open, video_close,
                                      video_decode, video_reset};

// ---------------------------------------------------------------- scripts

std::string audio_stream(int32_t duration_ms = 1000, int32_t channels = 2) {
  return "audio " + std::to_string(kAudioCodec) + " 8000 " + std::to_string(channels) + " " +
         std::to_string(duration_ms) + "\n";
}
std::string video_stream(int32_t duration_ms = 1000, int32_t framerate = 2500) {
  return "video " + std::to_string(kVideoCodec) + " 16 16 " + std::to_string(framerate) + " " +
         std::to_string(duration_ms) + "\n";
}
std::string packet(int32_t stream, int64_t pts, int32_t size, int32_t flags = 0, int32_t fill = 1) {
  return "packet " + std::to_string(stream) + " " + std::to_string(pts) + " " +
         std::to_string(size) + " " + std::to_string(flags) + " " + std::to_string(fill) + "\n";
}
// `count` audio packets of 40 ms (8000 Hz stereo: 320 values, 640 bytes)
// from `start` us, each filled with its index + 1.
std::string audio_packets(int32_t slot, int32_t count, int64_t start = 0) {
  std::string s;
  for (int32_t i = 0; i < count; i++) s += packet(slot, start + i * 40000, 1280, 0, i + 1);
  return s;
}
std::string video_packets(int32_t slot, int32_t count, int64_t start = 0) {
  std::string s;
  for (int32_t i = 0; i < count; i++) s += packet(slot, start + i * 40000, 100, TRAVIK_PACKET_KEY, i + 1);
  return s;
}

// ---------------------------------------------------------------- harness

struct Event {
  int32_t code;
  int32_t size;
  int32_t value;  // the payload, as a byte or a 32-bit word
};

class Player : public ::testing::Test {
 protected:
  void SetUp() override {
    g_log.clear();
    travik_decoder_register_driver(kAudioCodec, &audio_driver);
    travik_decoder_register_driver(kVideoCodec, &video_driver);
    ASSERT_EQ(pipe(fds_), 0);
    travik_player_description_init(&desc_);
    desc_.audio_driver = "driver";
    desc_.audio_args = &audio_.table;
    desc_.video_driver = "driver";
    desc_.video_args = &video_.table;
    desc_.event_read_fd = fds_[0];
    desc_.event_write_fd = fds_[1];
    desc_.input_limit = 1000000;
    audio_.drain_after_ms = 100;
  }
  void TearDown() override {
    if (player_) {
      travik_player_close(player_);
      travik_player_destroy(player_);
    }
    close(fds_[0]);
    close(fds_[1]);
    travik_decoder_register_driver(kAudioCodec, nullptr);
    travik_decoder_register_driver(kVideoCodec, nullptr);
  }
  void create() {
    player_ = travik_player_create(&desc_);
    ASSERT_NE(player_, nullptr);
  }
  // Writes the script and opens it; prebuffers 10 % of a 1 MB ceiling
  // unless the script says otherwise.
  void open(const std::string &script, const std::string &header = "bitrate 0\n") {
    if (!player_) create();
    path_ = dir_.file("input.pscript");
    travik_test::write_file(path_, header + script);
    ASSERT_EQ(travik_player_open(player_, path_.c_str()), 0);
  }
  script_demuxer::State *script() {
    auto *demuxer = static_cast<travik_demuxer *>(travik_player_getobject(player_, 0));
    return static_cast<script_demuxer::State *>(demuxer->state);
  }
  void drain_events() {
    travik_player_event event;
    while (travik_player_getevent(player_, &event) == 0) {
      int32_t value = 0;
      if (event.size == 1) value = event.data[0];
      if (event.size == 4) std::memcpy(&value, event.data, 4);
      events_.push_back({event.code, event.size, value});
    }
  }
  int32_t count(int32_t code) {
    drain_events();
    int32_t n = 0;
    for (const Event &e : events_) n += e.code == code;
    return n;
  }
  std::vector<int32_t> payloads(int32_t code) {
    drain_events();
    std::vector<int32_t> values;
    for (const Event &e : events_) {
      if (e.code == code) values.push_back(e.value);
    }
    return values;
  }
  // Waits (generously) until `done` holds; false on timeout.
  bool wait_for(const std::function<bool()> &done, int64_t limit_ms = 10000) {
    int64_t end = now_ms() + limit_ms;
    while (now_ms() < end) {
      drain_events();
      if (done()) return true;
      usleep(2000);
    }
    drain_events();
    return done();
  }
  bool wait_event(int32_t code, int64_t limit_ms = 10000) {
    return wait_for([&] { return count(code) > 0; }, limit_ms);
  }

  FakeAudio audio_;
  FakeVideo video_;
  int fds_[2] = {-1, -1};
  travik_player_description desc_;
  travik_player *player_ = nullptr;
  travik_test::TempDir dir_;
  std::string path_;
  std::vector<Event> events_;
};

// ---------------------------------------------------------------- creation

TEST(PlayerDescription, InitDefaults) {
  travik_player_description desc;
  std::memset(&desc, 0x5A, sizeof desc);
  travik_player_description_init(&desc);
  EXPECT_EQ(desc.input_limit, 0);
  EXPECT_EQ(desc.video_frames, 0);
  EXPECT_EQ(desc.audio_frames, 0);
  EXPECT_EQ(desc.audio_driver, nullptr);
  EXPECT_EQ(desc.video_driver, nullptr);
  EXPECT_EQ(desc.video_args, nullptr);
  EXPECT_EQ(desc.audio_args, nullptr);
  EXPECT_EQ(desc.event_read_fd, -1);
  EXPECT_EQ(desc.event_write_fd, -1);
  EXPECT_EQ(desc.video_decoder, nullptr);
  EXPECT_EQ(desc.audio_decoder, nullptr);
}

TEST_F(Player, WithoutDescriptorsEventsAreOff) {
  desc_.event_read_fd = -1;
  desc_.event_write_fd = -1;
  create();
  travik_player_event event = {TRAVIK_EVENT_END, 0, {0, 0, 0, 0}};
  EXPECT_EQ(travik_player_postevent(player_, &event), 1);
  EXPECT_EQ(travik_player_getevent(player_, &event), 1);
}

TEST_F(Player, DefaultPoolsAndState) {
  create();
  EXPECT_EQ(player_->audio_decode.frame_limit, 10);
  EXPECT_EQ(player_->video_decode.frame_limit, 15);
  EXPECT_EQ(travik_player_getspeed(player_), 1.0f);
  EXPECT_EQ(travik_player_getinfo(player_, 19), 1);  // subtitles visible
  EXPECT_EQ(travik_player_getobject(player_, 3), player_->audio_device);
  EXPECT_EQ(travik_player_getobject(player_, 4), player_->video_device);
  EXPECT_EQ(travik_player_getobject(player_, 9), nullptr);
  EXPECT_EQ(travik_player_getobject(player_, 8), nullptr);  // no schedule before open
  EXPECT_EQ(travik_player_getobject(player_, 0), nullptr);
  EXPECT_EQ(travik_player_isplaying(player_), 0);
  EXPECT_EQ(travik_player_isscheduled(player_), 0);
  travik_player_close(player_);  // never opened: nothing happens
  EXPECT_EQ(travik_player_play(player_), 1);
  EXPECT_EQ(travik_player_pause(player_), 1);
  EXPECT_EQ(travik_player_elapsed(player_), -1);
  EXPECT_EQ(travik_player_elapsed_pts(player_), -1);
}

TEST_F(Player, PoolSizesFromDescription) {
  desc_.audio_frames = 3;
  desc_.video_frames = 4;
  desc_.audio_decoder = "a";
  desc_.video_decoder = "v";
  create();
  EXPECT_EQ(player_->audio_decode.frame_limit, 3);
  EXPECT_EQ(player_->video_decode.frame_limit, 4);
  EXPECT_STREQ(player_->audio_decoder_name, "a");
  EXPECT_STREQ(player_->video_decoder_name, "v");
}

TEST_F(Player, UnknownAudioDriverOpensNoVideo) {
  desc_.audio_driver = "no-such-audio";
  travik_test::StderrCapture err;
  EXPECT_EQ(travik_player_create(&desc_), nullptr);
  std::string text = err.text();
  EXPECT_NE(text.find("Can't open audio out plugin!!!\n"), std::string::npos);
  EXPECT_EQ(text.find("Can't open video out plugin"), std::string::npos);
  EXPECT_EQ(video_.opens, 0);
}

TEST_F(Player, UnknownVideoDriver) {
  desc_.video_driver = "no-such-video";
  travik_test::StderrCapture err;
  EXPECT_EQ(travik_player_create(&desc_), nullptr);
  EXPECT_NE(err.text().find("Can't open video out plugin!!!\n"), std::string::npos);
}

// ---------------------------------------------------------------- events

TEST_F(Player, EventsThroughPipe) {
  create();
  travik_player_event event = {42, 0, {9, 9, 9, 9}};
  EXPECT_EQ(travik_player_postevent(player_, &event), 0);
  event = {43, 4, {1, 2, 3, 4}};
  EXPECT_EQ(travik_player_postevent(player_, &event), 0);
  travik_player_event got;
  std::memset(&got, 0, sizeof got);
  ASSERT_EQ(travik_player_getevent(player_, &got), 0);  // complete after 4 bytes
  EXPECT_EQ(got.code, 42);
  EXPECT_EQ(got.size, 0);
  ASSERT_EQ(travik_player_getevent(player_, &got), 0);
  EXPECT_EQ(got.code, 43);
  EXPECT_EQ(got.size, 4);
  EXPECT_EQ(got.data[3], 4);
  EXPECT_EQ(travik_player_getevent(player_, &got), 1);  // nothing waiting: no block
  // A payload larger than the record holds is refused.
  event.size = 5;
  EXPECT_EQ(travik_player_postevent(player_, &event), 1);
}

TEST_F(Player, OpenFailureLeavesNoInput) {
  create();
  std::string path = dir_.file("input.unknownext");
  travik_test::write_file(path, "x");
  EXPECT_EQ(travik_player_open(player_, path.c_str()), 1);
  EXPECT_EQ(travik_player_getobject(player_, 8), nullptr);
  EXPECT_EQ(travik_player_play(player_), 1);
  open(audio_stream() + audio_packets(0, 2));  // may be opened again
}

// ---------------------------------------------------------------- playing

TEST_F(Player, PlaysAudioAndVideoToTheEnd) {
  open(audio_stream(100) + video_stream(100) + audio_packets(0, 10) + video_packets(1, 10));
  EXPECT_NE(travik_player_getobject(player_, 8), nullptr);
  EXPECT_EQ(travik_player_play(player_), 0);
  EXPECT_EQ(travik_player_play(player_), 1);  // already playing
  EXPECT_EQ(travik_player_isplaying(player_), 1);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  EXPECT_EQ(count(TRAVIK_EVENT_OPENING), 1);
  EXPECT_EQ(count(TRAVIK_EVENT_OPENED), 1);
  EXPECT_EQ(count(TRAVIK_EVENT_AUDIO_STARTED), 1);
  EXPECT_EQ(count(TRAVIK_EVENT_VIDEO_STARTED), 1);
  EXPECT_EQ(count(TRAVIK_EVENT_ERROR), 0);
  // OPENING comes first, OPENED second.
  ASSERT_GE(events_.size(), 2u);
  EXPECT_EQ(events_[0].code, TRAVIK_EVENT_OPENING);
  EXPECT_EQ(events_[1].code, TRAVIK_EVENT_OPENED);
  // Every sample arrives, in order.
  ASSERT_TRUE(wait_for([&] { return audio_.bytes_written >= 10 * 1280; })) << audio_.bytes_written << " " << travik_thread_getstate(player_->audio_out.thread);
  {
    std::lock_guard<std::mutex> lock(audio_.mutex);
    ASSERT_GE(audio_.samples.size(), 10u * 640);
    for (int32_t i = 0; i < 10; i++) EXPECT_EQ(audio_.samples[i * 640], i + 1) << i;
  }
  EXPECT_EQ(video_.init_width, 16);
  EXPECT_EQ(video_.init_height, 16);
  EXPECT_GT(video_.flips, 0);
  EXPECT_EQ(travik_player_getinfo(player_, 24), 1);  // end of stream
  // The audio output flushed the device (the last partial write) and paused.
  ASSERT_TRUE(wait_for([&] {
    return travik_thread_getstate(player_->audio_out.thread) == TRAVIK_THREAD_STATE_PAUSED;
  }));
  // The end event goes out once.
  usleep(200000);
  EXPECT_EQ(count(TRAVIK_EVENT_END), 1);
  EXPECT_EQ(travik_player_seek(player_, 0), 1);  // no seeking after the end
}

TEST_F(Player, AudioOnlyAndVideoOnlyReachTheEnd) {
  open(audio_stream(100) + audio_packets(0, 5));
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  EXPECT_EQ(count(TRAVIK_EVENT_VIDEO_STARTED), 0);
  travik_player_close(player_);
  events_.clear();
  open(video_stream(100) + video_packets(0, 5));
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  EXPECT_EQ(count(TRAVIK_EVENT_AUDIO_STARTED), 0);
  EXPECT_EQ(count(TRAVIK_EVENT_VIDEO_STARTED), 1);
  EXPECT_EQ(video_.draws, 5);
  EXPECT_EQ(video_.last_drawn, 5);
}

// ---------------------------------------------------------------- end of the input

std::vector<int32_t> fills(int32_t first, int32_t last) {
  std::vector<int32_t> values;
  for (int32_t i = first; i <= last; i++) values.push_back(i);
  return values;
}

TEST_F(Player, HeldPicturesAreDrainedAndShownInOrder) {
  g_log.video_delay = 3;
  video_.delay = 50;  // a picture a little late on a busy machine is not dropped
  open(video_stream(400) + video_packets(0, 10));
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  EXPECT_EQ(video_.draws, 10);  // the last picture before END
  usleep(200000);
  EXPECT_EQ(count(TRAVIK_EVENT_END), 1);
  EXPECT_EQ(g_log.video_drain_calls, 4);  // three pictures, then nothing
  std::lock_guard<std::mutex> lock(video_.drawn_mutex);
  EXPECT_EQ(video_.drawn, fills(1, 10));
}

TEST_F(Player, HeldPicturesWithAudioReachTheLastOne) {
  g_log.video_delay = 2;
  open(audio_stream(400) + video_stream(400) + audio_packets(0, 10) + video_packets(1, 10));
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  usleep(200000);
  EXPECT_EQ(count(TRAVIK_EVENT_END), 1);
  // With audio the clock is not pulled along by video, so a late picture
  // may cost the next one; none is lost at the end.
  std::lock_guard<std::mutex> lock(video_.drawn_mutex);
  ASSERT_FALSE(video_.drawn.empty());
  EXPECT_EQ(video_.drawn.back(), 10);
  EXPECT_TRUE(std::is_sorted(video_.drawn.begin(), video_.drawn.end()));
}

TEST_F(Player, DrainYieldingNothingStillEnds) {
  video_.delay = 50;
  open(video_stream(200) + video_packets(0, 5));
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  usleep(200000);
  EXPECT_EQ(count(TRAVIK_EVENT_END), 1);
  EXPECT_EQ(g_log.video_drain_calls, 1);
  EXPECT_EQ(video_.draws, 5);
}

TEST_F(Player, AudioOnlyInputWithoutDecoderEnds) {
  g_log.refuse_audio = true;
  open(audio_stream(100) + audio_packets(0, 5));
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  usleep(200000);
  EXPECT_EQ(count(TRAVIK_EVENT_END), 1);
  EXPECT_EQ(count(TRAVIK_EVENT_NO_AUDIO_DECODER), 1);
  EXPECT_EQ(count(TRAVIK_EVENT_AUDIO_STARTED), 0);
}

TEST_F(Player, VideoOffInputEnds) {
  open(video_stream(100) + video_packets(0, 5));
  travik_player_setinfo(player_, 23, 1);
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  usleep(200000);
  EXPECT_EQ(count(TRAVIK_EVENT_END), 1);
  EXPECT_EQ(video_.draws, 0);
}

// A drain that lasts: eight held pictures and a pool of two, so the drain
// hands them out at the pace of the video output.
class PlayerDrain : public Player {
 protected:
  void start() {
    video_.delay = 50;  // a picture a little late on a busy machine is not dropped
    desc_.video_frames = 2;
    g_log.video_delay = 8;
    open(video_stream(0) + video_packets(0, 12));
    travik_player_play(player_);
    ASSERT_TRUE(wait_for([&] { return g_log.video_drain_calls > 0; }));
  }
};

TEST_F(PlayerDrain, PauseDuringTheDrain) {
  start();
  travik_player_pause(player_);
  usleep(100000);
  EXPECT_EQ(count(TRAVIK_EVENT_END), 0);
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  usleep(200000);
  EXPECT_EQ(count(TRAVIK_EVENT_END), 1);
  std::lock_guard<std::mutex> lock(video_.drawn_mutex);
  ASSERT_GE(video_.drawn.size(), 12u);
  // Pausing shows the frame on hand once more; otherwise every picture once.
  std::vector<int32_t> distinct = video_.drawn;
  distinct.erase(std::unique(distinct.begin(), distinct.end()), distinct.end());
  EXPECT_EQ(distinct, fills(1, 12));
}

// Paused during the drain, nothing moves: the decode thread waits for a
// free frame and the outputs are paused. The demux thread's end watch then
// sleeps until a decode pass ends instead of looking every few
// milliseconds: the process hardly wakes.
long voluntary_switches() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_nvcsw;
}

TEST_F(PlayerDrain, PausedDrainLeavesTheProcessAsleep) {
  start();
  travik_player_pause(player_);
  usleep(200000);
  const long before = voluntary_switches();
  usleep(1000000);
  EXPECT_LT(voluntary_switches() - before, 40);
  EXPECT_EQ(count(TRAVIK_EVENT_END), 0);
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
}

TEST_F(PlayerDrain, SeekDuringTheDrainDiscardsIt) {
  start();
  int32_t resets = g_log.video_resets;
  int64_t begin = now_ms();
  ASSERT_EQ(travik_player_seek(player_, 0), 0);
  EXPECT_LT(now_ms() - begin, 3000);
  EXPECT_GT(g_log.video_resets, resets);
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  usleep(200000);
  EXPECT_EQ(count(TRAVIK_EVENT_END), 1);
  // The input plays again from its start, to its last picture.
  std::lock_guard<std::mutex> lock(video_.drawn_mutex);
  ASSERT_GE(video_.drawn.size(), 12u);
  std::vector<int32_t> tail(video_.drawn.end() - 12, video_.drawn.end());
  EXPECT_EQ(tail, fills(1, 12));
}

TEST_F(PlayerDrain, CloseAndDestroyDuringTheDrain) {
  start();
  int64_t begin = now_ms();
  travik_player_close(player_);
  travik_player_destroy(player_);
  player_ = nullptr;
  EXPECT_LT(now_ms() - begin, 3000);
  EXPECT_EQ(video_.allocs, video_.frees);
}

TEST_F(Player, HeaderFailurePostsErrorAndEnd) {
  open(audio_stream() + "header 5\n");
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  EXPECT_EQ(payloads(TRAVIK_EVENT_ERROR), std::vector<int32_t>{5});
  EXPECT_EQ(count(TRAVIK_EVENT_OPENED), 0);
}

TEST_F(Player, HeaderEndPostsOnlyEnd) {
  open(audio_stream() + "header 4\n");
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  EXPECT_EQ(count(TRAVIK_EVENT_ERROR), 0);
}

TEST_F(Player, ParseErrorPostsItsResult) {
  open(audio_stream(120) + audio_packets(0, 3) + "end 9\n");
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  EXPECT_EQ(payloads(TRAVIK_EVENT_ERROR), std::vector<int32_t>{9});
  EXPECT_EQ(count(TRAVIK_EVENT_END), 1);
}

TEST_F(Player, PlainEndPostsNoError) {
  open(audio_stream(120) + audio_packets(0, 3));
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  EXPECT_EQ(count(TRAVIK_EVENT_ERROR), 0);
}

// ---------------------------------------------------------------- buffering

TEST_F(Player, PrebufferSizeFromBitRateAndPreroll) {
  desc_.input_limit = 200000;
  travik_test::StdoutCapture out;
  open(audio_stream() + audio_packets(0, 2), "bitrate 800000\npreroll 3000\n");
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_OPENED));
  ASSERT_TRUE(wait_for([&] { return player_->prebuffer_normal != 0; }));
  EXPECT_EQ(player_->prebuffer_normal, 100000);  // 300000 is above the ceiling: half of it
  travik_player_close(player_);
  EXPECT_NE(out.text().find("Bitrate = 800000, Preroll = 3000, Size = 100000\n"), std::string::npos);
}

TEST_F(Player, FixedPrerollWinsAndSizeWithinCeiling) {
  open(audio_stream() + audio_packets(0, 2), "bitrate 800000\npreroll 3000\nfixedpreroll 1000\n");
  travik_player_play(player_);
  ASSERT_TRUE(wait_for([&] { return player_->prebuffer_normal != 0; }));
  EXPECT_EQ(player_->prebuffer_normal, 100000);  // 100000 bytes a second, one second
}

TEST_F(Player, NoBitRateAndNoCeilingEndsBufferingAtOnce) {
  desc_.input_limit = 0;
  open(audio_stream(120) + audio_packets(0, 3));
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  EXPECT_EQ(player_->prebuffer_normal, 0);
  EXPECT_EQ(payloads(TRAVIK_EVENT_BUFFERING), std::vector<int32_t>{100});
}

// Without a ceiling a size from the bit rate is still "above" the ceiling
// of 0: half of 0 is gathered, so output starts on the first packet.
TEST_F(Player, NoCeilingGathersNothingWhateverTheBitRate) {
  desc_.input_limit = 0;
  travik_test::StdoutCapture out;
  open(audio_stream() + audio_packets(0, 2) + "hold\n", "bitrate 800000\npreroll 3000\n");
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_AUDIO_STARTED));
  EXPECT_EQ(player_->prebuffer_normal, 0);
  EXPECT_EQ(payloads(TRAVIK_EVENT_BUFFERING), std::vector<int32_t>{100});
  travik_player_close(player_);
  EXPECT_NE(out.text().find("Bitrate = 800000, Preroll = 3000, Size = 0\n"), std::string::npos);
}

TEST_F(Player, BufferingAnnouncedInStepsOfThree) {
  // 10000 bytes to gather, 100-byte video packets: 1 % each.
  std::string text = video_stream(8000);
  for (int32_t i = 0; i < 200; i++) text += packet(0, i * 40000, 100, TRAVIK_PACKET_KEY, 1);
  open(text, "bitrate 80000\npreroll 1000\n");
  travik_player_play(player_);
  ASSERT_TRUE(wait_for([&] {
    std::vector<int32_t> p = payloads(TRAVIK_EVENT_BUFFERING);
    return !p.empty() && p.back() == 100;
  }));
  std::vector<int32_t> steps = payloads(TRAVIK_EVENT_BUFFERING);
  ASSERT_GE(steps.size(), 2u);
  EXPECT_EQ(steps[0], 4);  // from 1 %, 3 % is not announced
  for (size_t i = 1; i + 1 < steps.size(); i++) EXPECT_GE(steps[i], steps[i - 1] + 3);
  EXPECT_EQ(steps.back(), 100);
}

TEST_F(Player, FillPercentage) {
  desc_.input_limit = 0;
  create();
  EXPECT_EQ(travik_player_getinfo(player_, 15), 100);  // no ceiling, not buffering
  std::string text = audio_stream(8000) + audio_packets(0, 10) + "hold\n";
  desc_.input_limit = 1000000;
  travik_player_destroy(player_);
  player_ = nullptr;
  // Buffering towards a target that cannot be reached: 10 % of it held.
  open(text, "bitrate 1024000\npreroll 1000\n");  // 128000 bytes
  travik_player_play(player_);
  ASSERT_TRUE(wait_for([&] { return player_->prebuffered == 12800; }));
  EXPECT_EQ(travik_player_getinfo(player_, 15), 10);
  EXPECT_EQ(travik_player_setnextmaxprebuffer(player_, 2.0f), -1);  // playing
  travik_player_pause(player_);
  EXPECT_EQ(travik_player_setnextmaxprebuffer(player_, 0.5f), 64000);
  EXPECT_EQ(player_->prebuffer_target, 64000);
  EXPECT_EQ(travik_player_setnextmaxprebuffer(player_, 100.0f), 1000000);  // bounded by the ceiling
}

// ---------------------------------------------------------------- routing

TEST_F(Player, FirstStreamOfEachKindIsPlayed) {
  std::string text = audio_stream(100) + audio_stream(100) + video_stream(100) + video_stream(100);
  for (int32_t i = 0; i < 5; i++) {
    text += packet(1, i * 40000, 1280, 0, 50);  // the second audio stream comes first
    text += packet(0, i * 40000, 1280, 0, 60);
    text += packet(3, i * 40000, 100, TRAVIK_PACKET_KEY, 70);
    text += packet(2, i * 40000, 100, TRAVIK_PACKET_KEY, 80);
  }
  open(text);
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  EXPECT_EQ(player_->audio_stream.load(), &script()->streams[1]);
  EXPECT_EQ(player_->video_stream.load(), &script()->streams[3]);
  std::lock_guard<std::mutex> lock(audio_.mutex);
  for (int16_t value : audio_.samples) ASSERT_TRUE(value == 50 || value == 0) << value;
  EXPECT_EQ(video_.last_drawn, 70);
  EXPECT_EQ(travik_player_getinfo(player_, 4), 2);
  EXPECT_EQ(travik_player_getinfo(player_, 5), 16);
  EXPECT_EQ(travik_player_getinfo(player_, 6), 8000);
  EXPECT_EQ(travik_player_getinfo(player_, 7), 8000 * 2 * 16);
  EXPECT_EQ(travik_player_getinfo(player_, 8), 16);
  EXPECT_EQ(travik_player_getinfo(player_, 9), 16);
  EXPECT_EQ(travik_player_getinfo(player_, 10), 2500);
  EXPECT_EQ(travik_player_getinfo(player_, 11), 1234);
  EXPECT_EQ(travik_player_getinfo(player_, 12), 2500);
}

TEST_F(Player, UnknownStreamIndexWarns) {
  travik_test::StderrCapture err;
  open(audio_stream(120) + packet(7, 0, 100) + audio_packets(0, 3));
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  travik_player_close(player_);
  EXPECT_NE(err.text().find("demuxer stream is NULL, packet->stream_index = 7"), std::string::npos);
}

TEST_F(Player, NoDecoderPostsEventOnce) {
  g_log.refuse_audio = true;
  open(audio_stream(100) + video_stream(100) + audio_packets(0, 5) + video_packets(1, 5));
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  EXPECT_EQ(count(TRAVIK_EVENT_NO_AUDIO_DECODER), 1);
  EXPECT_EQ(g_log.audio_opens, 1);
  EXPECT_EQ(count(TRAVIK_EVENT_AUDIO_STARTED), 0);
  EXPECT_EQ(count(TRAVIK_EVENT_VIDEO_STARTED), 1);
}

// ---------------------------------------------------------------- pools

TEST_F(Player, FullAudioPoolBlocksDecoding) {
  desc_.audio_frames = 2;
  // A prebuffer that is never reached keeps the outputs paused.
  open(audio_stream(8000) + audio_packets(0, 20) + "hold\n", "bitrate 8000000\npreroll 1000\n");
  travik_player_play(player_);
  ASSERT_TRUE(wait_for([&] { return relaxed(player_->audio_ready.count) == 2; }));
  usleep(100000);
  EXPECT_EQ(relaxed(player_->audio_ready.count), 2);  // the third frame waits
  EXPECT_EQ(player_->audio_decode.frame_count, 2);
  EXPECT_GT(relaxed(player_->audio_packets.count), 0);
  EXPECT_EQ(audio_.writes, 0);
}

TEST_F(Player, AudioBuffersGrowOnlyForLargerFrames) {
  desc_.audio_frames = 1;  // one frame, reused for every packet
  open(audio_stream(100) + packet(0, 0, 4096) + packet(0, 10000, 2048) + packet(0, 20000, 6000));
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  std::lock_guard<std::mutex> lock(g_log.mutex);
  ASSERT_EQ(g_log.audio_buffers.size(), 3u);
  EXPECT_EQ(g_log.audio_buffers[0].second, 4096);
  // 1024 values fit the 4096-byte buffer: kept.
  EXPECT_EQ(g_log.audio_buffers[1].second, 4096);
  EXPECT_EQ(g_log.audio_buffers[1].first, g_log.audio_buffers[0].first);
  // 3000 values do not: a new 6000-byte buffer.
  EXPECT_EQ(g_log.audio_buffers[2].second, 6000);
  EXPECT_EQ(player_->audio_decode.frame_count, 1);
}

TEST_F(Player, VideoPoolKeepsTwoSpareFrames) {
  desc_.video_frames = 3;
  open(video_stream(800) + video_packets(0, 20));
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  // Decoding waits for room at 3 frames, yet the allocator makes new
  // frames rather than reuse returned ones up to 3 + 2, never more.
  EXPECT_EQ(player_->video_decode.frame_count, 5);
  EXPECT_EQ(video_.allocs, 5);
  travik_player_close(player_);
  EXPECT_EQ(video_.frees, 5);  // every picture buffer handed back
}

// One video frame would be the picture on screen with none to decode the
// next into; no audio frames would be none to decode into at all. Both are
// raised to the least pool that plays, and the input plays to its end.
TEST_F(Player, PoolsTooSmallToPlayAreRaised) {
  desc_.video_frames = 1;
  desc_.audio_frames = -3;
  open(audio_stream(400) + video_stream(400) + audio_packets(0, 10) + video_packets(1, 10));
  EXPECT_EQ(player_->video_decode.frame_limit, 2);
  EXPECT_EQ(player_->audio_decode.frame_limit, 1);
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  EXPECT_LE(player_->video_decode.frame_count, 4);
  EXPECT_EQ(player_->audio_decode.frame_count, 1);
}

TEST_F(Player, CloseHandsBackEveryPictureBuffer) {
  open(video_stream(100) + video_packets(0, 10));
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  travik_player_close(player_);
  EXPECT_GT(video_.allocs, 0);
  EXPECT_EQ(video_.frees, video_.allocs);
  EXPECT_EQ(player_->video_decode.frame_count, 0);
}

TEST_F(Player, SkipLevels) {
  desc_.video_frames = 3;  // always fewer than 3 free: skipping allowed
  open(video_stream(100) + video_packets(0, 10));
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  std::lock_guard<std::mutex> lock(g_log.mutex);
  ASSERT_FALSE(g_log.video_levels.empty());
  EXPECT_EQ(g_log.video_levels[0], 2);  // nothing free, fewer than 2 ready
  for (int32_t level : g_log.video_levels) EXPECT_TRUE(level == 0 || level == 2) << level;
}

// ---------------------------------------------------------------- late frames

TEST_F(Player, LateVideoFramesAreDropped) {
  // Audio starts the clock at 2 s; the pictures are a second behind it.
  std::string text = audio_stream(2400) + video_stream(2400);
  for (int32_t i = 0; i < 10; i++) text += packet(0, 2000000 + i * 40000, 1280, 0, 1);
  for (int32_t i = 0; i < 10; i++) text += packet(1, 1000000 + i * 40000, 100, TRAVIK_PACKET_KEY, i + 1);
  open(text);
  video_.delay = 30;
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  // Each late frame drops the one after it.
  EXPECT_LT(video_.flips, 10);
  EXPECT_GE(video_.flips, 5);
}

TEST_F(Player, WaitsAverageTheFrameSpacing) {
  // Video alone, a picture every 40 ms: each wait is about 40 ms, and the
  // running average of 40-ms waits stays at 40.
  open(video_stream(8000) + video_packets(0, 100) + "hold\n", "bitrate 80000\npreroll 1000\n");
  travik_player_play(player_);
  ASSERT_TRUE(wait_for([&] { return video_.flips >= 10; }));
  int32_t average = player_->late_average;
  EXPECT_GT(average, 10);
  EXPECT_LE(average, 40);
  travik_player_pause(player_);
  // A pause starts the average again.
  EXPECT_TRUE(wait_for([&] {
    return travik_thread_getstate(player_->video_out.thread) == TRAVIK_THREAD_STATE_PAUSED &&
           player_->late_average == 0;
  }));
}

TEST_F(Player, VideoHoldTimesWithoutDrawing) {
  open(video_stream(100) + video_packets(0, 10));
  travik_player_setinfo(player_, 18, 1);
  EXPECT_EQ(travik_player_getinfo(player_, 18), 1);
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  EXPECT_EQ(video_.draws, 0);
  EXPECT_EQ(video_.flips, 0);
  pthread_mutex_lock(&player_->video_out.mutex);
  int32_t shown = player_->current ? player_->current->planes[0][0] : -1;
  pthread_mutex_unlock(&player_->video_out.mutex);
  EXPECT_EQ(shown, 10);  // current still advanced
}

TEST_F(Player, AudioMuteTimesAndDrops) {
  open(audio_stream(100) + audio_packets(0, 10));
  travik_player_setinfo(player_, 17, 1);
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  EXPECT_EQ(count(TRAVIK_EVENT_AUDIO_STARTED), 1);
  std::lock_guard<std::mutex> lock(audio_.mutex);
  for (int16_t value : audio_.samples) ASSERT_EQ(value, 0);  // only the flush's silence
}

// The late-frame rules and the speed rewrite of the output threads.

// A 16 x 16 picture owned by a test, its first luma byte `value`.
struct TestPicture {
  uint8_t pixels[16 * 16 * 3 / 2] = {};
  travik_videoframe frame;
  explicit TestPicture(int64_t timestamp, uint8_t value = 1) {
    travik_videoframe_init(&frame, nullptr);
    frame.width = 16;
    frame.height = 16;
    frame.format = TRAVIK_PIXEL_YUV420P;
    frame.planes[0] = pixels;
    frame.planes[1] = pixels + 256;
    frame.planes[2] = pixels + 256 + 64;
    frame.pitches[0] = 16;
    frame.pitches[1] = frame.pitches[2] = 8;
    frame.timestamp = timestamp;
    frame.info = 1;
    pixels[0] = value;
  }
};

// The rules alone, on a player record without threads.
struct RulesPlayer {
  travik_player player{};
  RulesPlayer() { pthread_mutex_init(&player.video_out.mutex, nullptr); }
  ~RulesPlayer() { pthread_mutex_destroy(&player.video_out.mutex); }
};

TEST(PlayerRules, FrameLaterThanTheDelayMarksTheNextLate) {
  RulesPlayer rules;
  travik_player *player = &rules.player;
  // The device delay is 30 ms: 20 ms late is within it, 50 ms is not.
  EXPECT_EQ(video_late_rules(player, -20, 30), 0);
  EXPECT_EQ(player->late, 0);
  EXPECT_EQ(video_late_rules(player, -30, 30), 0);
  EXPECT_EQ(player->late, 0);
  EXPECT_EQ(video_late_rules(player, 0, 30), 0);
  EXPECT_EQ(player->late, 0);
  EXPECT_EQ(video_late_rules(player, -50, 30), 0);
  EXPECT_EQ(player->late, 1);
}

std::atomic<int32_t> g_pictures_released{0};
int32_t count_release(travik_videoframe *) {
  g_pictures_released++;
  return 0;
}

TEST_F(Player, FrameAfterALateOneIsDropped) {
  g_pictures_released = 0;
  // One picture, more than the 10000 bytes to prebuffer, then nothing.
  open(video_stream(1000) + packet(0, 0, 20000, TRAVIK_PACKET_KEY, 1) + "hold\n",
       "bitrate 80000\npreroll 1000\n");
  travik_player_play(player_);
  ASSERT_TRUE(wait_for([&] { return video_.flips == 1; }));
  // The thread now waits for frames. Marked late, it drops the next one
  // it takes, and only that one.
  pthread_mutex_lock(&player_->video_out.mutex);
  player_->late = 1;
  pthread_mutex_unlock(&player_->video_out.mutex);
  TestPicture dropped(40000, 7), shown(80000, 8);
  dropped.frame.release = count_release;
  shown.frame.release = count_release;
  travik_list_append_lock(&player_->video_ready, &dropped.frame);
  travik_list_append_lock(&player_->video_ready, &shown.frame);
  ASSERT_TRUE(wait_for([&] { return video_.flips == 2; }));
  EXPECT_EQ(video_.draws, 2);
  EXPECT_EQ(video_.last_drawn, 8);
  EXPECT_EQ(g_pictures_released, 1);
  travik_player_close(player_);  // hands back the picture on screen
  EXPECT_EQ(g_pictures_released, 2);
}

TEST(PlayerRules, LateAverageOfTheWaits) {
  RulesPlayer rules;
  travik_player *player = &rules.player;
  // 40, 40, 40: the average stays 40 and each wait is slept whole.
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(video_late_rules(player, 40, 0), 40);
    EXPECT_EQ(player->late_average, 40);
  }
  // A wait of 100 after an average of 40: (40 + 100) / 2 = 70 is slept.
  EXPECT_EQ(video_late_rules(player, 100, 0), 70);
  EXPECT_EQ(player->late_average, 70);
  // A shorter wait is slept whole; the average still halves.
  EXPECT_EQ(video_late_rules(player, 10, 0), 10);
  EXPECT_EQ(player->late_average, 40);
  // Late frames leave the average alone.
  EXPECT_EQ(video_late_rules(player, -5, 0), 0);
  EXPECT_EQ(player->late_average, 40);
}

TEST(PlayerRules, SpeedTimestampIsSinglePrecision) {
  EXPECT_EQ(speed_timestamp(4000000, 2.0f), 2000000);
  EXPECT_EQ(speed_timestamp(1000000, 0.5f), 2000000);
  // 2^25 + 3 is 2^25 + 4 as a float: halved, 16777218, where an exact
  // division would truncate to 16777217.
  EXPECT_EQ(speed_timestamp(33554435, 2.0f), 16777218);
}

TEST_F(Player, VideoAtSpeedTwoIsTimedAtHalfItsTimestamp) {
  open(video_stream(1000) + packet(0, 4000000, 100, TRAVIK_PACKET_KEY, 1));
  EXPECT_EQ(travik_player_setspeed(player_, 2.0f), 0);
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  pthread_mutex_lock(&player_->video_out.mutex);
  int64_t shown = player_->current ? player_->current->timestamp : -1;
  pthread_mutex_unlock(&player_->video_out.mutex);
  EXPECT_EQ(shown, 2000000);
  // The picture started the clock at its rewritten time, not at 4000. The
  // end test may have begun its wait for the clock (up to duration + 100 ms)
  // before the picture was shown, so the clock may have run on by a second.
  int32_t elapsed = travik_schedule_elapsed(player_->schedule);
  EXPECT_GE(elapsed, 2000);
  EXPECT_LT(elapsed, 3900);
}

std::mutex g_filter_mutex;
std::vector<int64_t> g_filter_times;
void record_time(void *, travik_audioframe *frame) {
  std::lock_guard<std::mutex> lock(g_filter_mutex);
  g_filter_times.push_back(frame->timestamp);
}

TEST_F(Player, AudioAtSpeedTwoIsTimedAtHalfItsTimestamp) {
  open(audio_stream(1000) + audio_packets(0, 1));
  travik_stream stream;
  travik_stream_init(&stream);
  stream.info.type = TRAVIK_STREAM_AUDIO;
  stream.info.sample_rate = 8000;
  stream.info.channels = 2;
  player_->speed = 2.0f;
  travik_audio_init(player_->audio_device, 8000, 2);
  travik_pitch_scaling_init(player_->pitch, 8000, 2);
  travik_pitch_scaling_setspeed(player_->pitch, 2.0f);
  travik_schedule_initaudio(player_->schedule, player_->audio_device, &stream);
  {
    std::lock_guard<std::mutex> lock(g_filter_mutex);
    g_filter_times.clear();
  }
  travik_audio_install_filter(player_->audio_device, record_time, nullptr);
  // 8192 values: the scaler gives back at least two device buffers' worth.
  std::vector<int16_t> samples(8192, 100);
  travik_audioframe frame;
  travik_audioframe_init(&frame, nullptr);
  frame.samples = samples.data();
  frame.count = 8192;
  frame.timestamp = 4000000;
  audio_play_scaled(player_, &frame);
  travik_audio_remove_filter(player_->audio_device, record_time, nullptr);
  // The schedule saw 2 s: audio started the clock there.
  int32_t elapsed = travik_schedule_elapsed(player_->schedule);
  EXPECT_GE(elapsed, 2000);
  EXPECT_LT(elapsed, 2000 + 1000);
  EXPECT_EQ(frame.timestamp, -1);
  std::lock_guard<std::mutex> lock(g_filter_mutex);
  // Every buffer handed to the device began in a write stamped -1: the
  // running time starts there and only counts on.
  ASSERT_FALSE(g_filter_times.empty());
  EXPECT_EQ(g_filter_times[0], -1);
  for (int64_t t : g_filter_times) EXPECT_LT(t, 1000000);
}

// ---------------------------------------------------------------- transport

TEST_F(Player, SeekClampsToOneSecondBeforeTheEnd) {
  open(audio_stream(120000) + audio_packets(0, 50) + "hold\n", "bitrate 80000\npreroll 1000\n");
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_AUDIO_STARTED));
  EXPECT_EQ(travik_player_seek_with_direction(player_, 125000, 0), 0);
  EXPECT_EQ(script()->last_seek, 119000000);
  EXPECT_EQ(travik_player_isplaying(player_), 0);  // paused after a seek
  EXPECT_EQ(travik_player_seek(player_, -1), 1);
}

TEST_F(Player, SeekDirectionFollowsPosition) {
  open(audio_stream(120000) + audio_packets(0, 50) + "hold\n", "bitrate 80000\npreroll 1000\n");
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_AUDIO_STARTED));
  ASSERT_EQ(travik_player_seek(player_, 1500), 0);
  EXPECT_EQ(script()->last_seek_flags, 0);  // forward
  travik_player_play(player_);
  ASSERT_TRUE(wait_for([&] { return travik_player_elapsed(player_) >= 1500; }));
  ASSERT_EQ(travik_player_seek(player_, 500), 0);
  EXPECT_EQ(script()->last_seek_flags, 1);  // backward
  EXPECT_EQ(script()->last_seek, 500000);
}

TEST_F(Player, SeekRefusedWhenNotSeekable) {
  open(audio_stream(120000) + audio_packets(0, 50) + "seekable 0\n");
  EXPECT_EQ(travik_player_getinfo(player_, 0), 1);  // until the header says otherwise
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_OPENED));
  EXPECT_EQ(travik_player_getinfo(player_, 0), 0);
  EXPECT_EQ(travik_player_seek(player_, 1000), 1);
}

// While the demux thread parses the header, the application's thread sees
// the player as without a demuxer rather than its streams half made, and a
// seek waits for the parse and then goes by what the header said.
TEST_F(Player, HeaderBeingParsedIsNotReadHalfMade) {
  open(audio_stream(5000) + audio_packets(0, 50) + "gate\n", "bitrate 80000\n");
  travik_player_play(player_);
  ASSERT_TRUE(wait_for([&] { return script()->at_gate.load(); }));
  EXPECT_EQ(travik_player_getinfo(player_, 0), 0);
  EXPECT_EQ(travik_player_getinfo(player_, 1), 0);
  EXPECT_EQ(travik_player_getinfo(player_, 3), -1);
  EXPECT_EQ(travik_player_getmeta(player_, TRAVIK_META_TITLE), nullptr);
  std::atomic<int> result{-2};
  std::thread seeker([&] { result = travik_player_seek(player_, 4800); });
  usleep(100000);
  EXPECT_EQ(result.load(), -2);
  script()->gate_open = true;
  seeker.join();
  EXPECT_EQ(result.load(), 0);
  EXPECT_EQ(script()->last_seek, 4000000);  // the 5 s duration less a second
  EXPECT_EQ(travik_player_getinfo(player_, 1), 5000);
  EXPECT_EQ(travik_player_getinfo(player_, 3), 1);
  EXPECT_STREQ(travik_player_getmeta(player_, TRAVIK_META_TITLE), "input");
}

TEST_F(Player, ExactSeekDropsOutputBeforeTarget) {
  // Packets every 20 ms from 9.90 s; a seek to 10 s lands on the packet at
  // 9.90 s, so 9.90..9.98 s are decoded and not played.
  std::string text = audio_stream(10200) + video_stream(10200) + "seekback 100000\n";
  for (int32_t i = 0; i < 20; i++) text += packet(0, 9900000 + i * 20000, 1280, 0, i + 1);
  for (int32_t i = 0; i < 20; i++) text += packet(1, 9900000 + i * 20000, 100, TRAVIK_PACKET_KEY, i + 1);
  open(text);
  travik_player_setseekexactly(player_, 1);
  ASSERT_EQ(travik_player_seek(player_, 10000), 0);
  EXPECT_EQ(script()->last_seek, 10000000);
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  std::lock_guard<std::mutex> lock(audio_.mutex);
  ASSERT_FALSE(audio_.samples.empty());
  // Packets 1..5 (9.90..9.98 s) were decode-only: the first value heard is
  // packet 6's, at 10.0 s.
  EXPECT_EQ(audio_.samples[0], 6);
  pthread_mutex_lock(&player_->target_mutex);
  int64_t audio_target = player_->audio_target;
  int64_t video_target = player_->video_target;
  pthread_mutex_unlock(&player_->target_mutex);
  EXPECT_EQ(audio_target, -1);
  EXPECT_EQ(video_target, -1);
}

TEST_F(Player, SpeedChanges) {
  open(audio_stream(100) + audio_packets(0, 10));
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_AUDIO_STARTED));
  EXPECT_EQ(travik_player_setspeed(player_, 0.0f), 0);
  EXPECT_EQ(travik_player_setspeed(player_, -1.0f), 0);
  EXPECT_EQ(travik_player_getspeed(player_), 1.0f);
  EXPECT_EQ(travik_player_isplaying(player_), 1);
  EXPECT_EQ(travik_player_setspeed(player_, 2.0f), 0);
  EXPECT_EQ(travik_player_getspeed(player_), 2.0f);
  EXPECT_EQ(travik_player_isplaying(player_), 0);  // left paused
  EXPECT_EQ(travik_player_play(player_), 0);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
}

TEST_F(Player, InformationKeys) {
  open(audio_stream(5000) + video_stream(6000) + audio_packets(0, 2) + "flags 2\n");
  EXPECT_EQ(travik_player_getinfo(player_, 4), -1);  // no stream chosen yet
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_OPENED));
  EXPECT_EQ(travik_player_getinfo(player_, 1), 6000);
  EXPECT_EQ(travik_player_getinfo(player_, 2), 1);
  EXPECT_EQ(travik_player_getinfo(player_, 3), 1);
  EXPECT_EQ(travik_player_getinfo(player_, 16), 1);
  for (int32_t key : {13, 14, 20, 21, 25, 100, -1}) EXPECT_EQ(travik_player_getinfo(player_, key), -1);
  for (int32_t key : {17, 18, 19, 22, 23}) {
    EXPECT_EQ(travik_player_setinfo(player_, key, 1), 0);
    EXPECT_EQ(travik_player_getinfo(player_, key), 1);
    travik_player_setinfo(player_, key, 0);
  }
  EXPECT_EQ(travik_player_setinfo(player_, 20, 1), 0);
  EXPECT_EQ(travik_player_getinfo(player_, 20), -1);
  EXPECT_EQ(travik_player_getinfo(player_, 24), player_->end_of_stream.load());
}

TEST_F(Player, MetadataFromTheDemuxer) {
  create();
  EXPECT_EQ(travik_player_getmeta(player_, 0), nullptr);
  void *data = nullptr;
  int32_t size = 0;
  EXPECT_EQ(travik_player_getmeta_image(player_, &data, &size), nullptr);
  open(audio_stream() + audio_packets(0, 2));
  auto *demuxer = static_cast<travik_demuxer *>(travik_player_getobject(player_, 0));
  travik_metadata_settext(&demuxer->metadata, 3, "artist");
  travik_metadata_settext(&demuxer->metadata, 12, "image/png");
  travik_metadata_setdata(&demuxer->metadata, 11, "\x89PNG", 4);
  EXPECT_STREQ(travik_player_getmeta(player_, 3), "artist");
  EXPECT_STREQ(travik_player_getmeta_image(player_, &data, &size), "image/png");
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(std::memcmp(data, "\x89PNG", 4), 0);
}

TEST_F(Player, ElapsedBeforeTheClockIsTheEarliestQueuedTime) {
  // Outputs stay paused (unreachable prebuffer): the position comes from
  // the queues.
  open(audio_stream(8000) + video_stream(8000) + packet(1, 3000000, 100, 1) +
           packet(0, 5000000, 1280) + "hold\n",
       "bitrate 8000000\npreroll 1000\n");
  EXPECT_EQ(travik_player_elapsed(player_), -1);
  travik_player_play(player_);
  ASSERT_TRUE(wait_for([&] { return travik_player_elapsed(player_) == 3000; }));
}

TEST_F(Player, UpdateRedrawsTheCurrentFrame) {
  open(video_stream(100) + video_packets(0, 10));
  EXPECT_EQ(travik_player_update(player_), 1);  // nothing to show
  travik_player_play(player_);
  EXPECT_EQ(travik_player_update(player_), 1);  // playing
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  travik_player_pause(player_);
  int32_t draws = video_.draws;
  EXPECT_EQ(travik_player_update(player_), 0);
  EXPECT_EQ(video_.draws, draws + 1);
  EXPECT_EQ(video_.last_drawn, 10);
}

TEST_F(Player, PauseAndScheduleReset) {
  open(audio_stream(8000) + audio_packets(0, 200));
  EXPECT_EQ(travik_player_schedule_reset(player_), 0);  // not playing
  travik_player_play(player_);
  ASSERT_TRUE(wait_for([&] { return travik_player_isscheduled(player_) == 1; }));
  EXPECT_EQ(travik_player_schedule_reset(player_), 0);
  EXPECT_EQ(travik_player_pause(player_), 0);
  EXPECT_EQ(travik_player_pause(player_), 1);
  EXPECT_EQ(travik_player_isscheduled(player_), 0);  // the clock stops
  EXPECT_EQ(script()->controls[0].load(), 0);  // not pausable: no control sent
  EXPECT_EQ(travik_player_play(player_), 0);
  ASSERT_TRUE(wait_for([&] { return travik_player_isscheduled(player_) == 1; }));
}

TEST_F(Player, PausableSourceGetsControls) {
  open(audio_stream(8000) + audio_packets(0, 200) + "flags 4\nhold\n", "bitrate 80000\npreroll 1000\n");
  auto controls = [&] {
    std::vector<int32_t> sent;
    auto *s = script();
    for (int32_t i = 0; i < s->control_count; i++) sent.push_back(s->controls[i]);
    return sent;
  };
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_AUDIO_STARTED));
  // Play resumes the source (0).
  ASSERT_EQ(controls(), std::vector<int32_t>{0});
  travik_player_pause(player_);
  // Pause (1), then keep-alives (5) while paused.
  ASSERT_TRUE(wait_for([&] { return controls().size() >= 3; }));
  std::vector<int32_t> sent = controls();
  EXPECT_EQ(sent[1], 1);
  EXPECT_EQ(sent[2], 5);
  travik_player_play(player_);
  ASSERT_TRUE(wait_for([&] { return controls().back() == 0; }));
}

TEST_F(Player, FadeAndFadeWait) {
  create();
  EXPECT_EQ(travik_player_fadewait(player_), 0);  // nothing open: at once
  open(audio_stream(8000) + audio_packets(0, 200));
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_AUDIO_STARTED));
  EXPECT_EQ(travik_player_fade(player_, TRAVIK_AUDIO_FADE_OUT, 100), 0);
  int64_t start = now_ms();
  EXPECT_EQ(travik_player_fadewait(player_), 0);
  EXPECT_LT(now_ms() - start, 3000);
}

// ---------------------------------------------------------------- overlay

// A font whose line height is 20 (metrics 17 and 0) and whose glyphs are
// 4 x 10 boxes advancing 6, handed in as a driver.
int32_t font_metrics(void *, int32_t *first, int32_t *second) {
  *first = 17;
  *second = 0;
  return 0;
}
int32_t font_glyph(void *, uint16_t code, travik_font_glyph *glyph) {
  glyph->word[0] = static_cast<int16_t>(code);
  glyph->word[1] = 1;
  glyph->word[2] = 2;
  glyph->word[3] = 10;
  glyph->word[4] = 6;
  glyph->word[5] = 4;
  glyph->word[6] = 1;
  glyph->word[7] = 9;
  return 0;
}
int32_t font_render(void *, const travik_font_glyph *glyph, uint8_t *image, int32_t x, int32_t y,
                    int32_t pitch) {
  for (int32_t j = 0; j < glyph->word[7]; ++j) {
    for (int32_t i = 0; i < glyph->word[5]; ++i) image[(y + j) * pitch + x + i] = 255;
  }
  return 0;
}
const travik_font_driver font_driver[] = {
    {"twenty", "twenty", [](travik_font *f, const char *) -> void * { return f; },
     [](void *) {}, font_metrics, font_glyph, font_render},
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
};

// One two-line entry at 10 ms, then nothing.
std::atomic<int32_t> g_entries_given{0};
std::atomic<int32_t> g_entries_released{0};
travik_subtitle_line g_lines[2] = {{"ab", 2}, {"cdef", 4}};
void entry_release(travik_subtitle_entry *entry) {
  g_entries_released++;
  delete entry;
}
int32_t subtitle_parse(void *, void **item) {
  if (g_entries_given++ == 0) {
    auto *entry = new travik_subtitle_entry();
    entry->time = 10000;
    entry->count = 2;
    entry->lines = g_lines;
    entry->release = entry_release;
    *item = entry;
  }
  return 0;
}
const travik_subtitle_driver subtitle_driver = {
    "one entry", "tst", [](const char *) { return 1; },
    [](travik_subtitle *s, const char *) -> void * { return s; }, [](void *) {},
    [](void *) { return 1; }, [](void *, int32_t) -> const char * { return "x"; },
    [](void *, int32_t) { return 0; }, subtitle_parse, [](void *, int64_t) { return 0; },
    [](void *) { return 0; }};

TEST_F(Player, SubtitleOverlayRendersTheEntry) {
  g_entries_given = 0;
  g_entries_released = 0;
  create();
  // No subtitle or font plugin in this plugin directory.
  EXPECT_EQ(travik_player_setfont(player_, "/fonts/none.ttf", 20), 1);
  EXPECT_EQ(travik_player_getobject(player_, 7), nullptr);
  EXPECT_EQ(travik_player_setsubtitle(player_, "/subs/none.srt"), 1);
  EXPECT_EQ(travik_player_getobject(player_, 5), nullptr);
  player_->font = travik_font_create("/fonts/font.twenty", 20, font_driver);
  ASSERT_NE(player_->font, nullptr);
  ASSERT_EQ(travik_font_getheight(player_->font), 20);
  player_->subtitle = travik_subtitle_create("subs", &subtitle_driver);
  ASSERT_NE(player_->subtitle, nullptr);
  open(video_stream(100) + video_packets(0, 10));
  EXPECT_EQ(travik_player_getobject(player_, 5), player_->subtitle);  // kept at open
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  auto *image = static_cast<travik_draw *>(travik_player_getobject(player_, 6));
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(image->height, 2 * 20 + 20 / 4);  // 45
  EXPECT_EQ(image->width, 16);
  // Asked on the first frame (at 0, before the entry's time: kept), shown
  // and dropped on the second, then asked again on each later frame.
  EXPECT_EQ(g_entries_given, 1 + 8);
  EXPECT_EQ(g_entries_released, 1);
  travik_player_close(player_);
  EXPECT_EQ(travik_player_getobject(player_, 6), nullptr);
  EXPECT_EQ(travik_player_getobject(player_, 5), nullptr);
}

// The drawing over the pictures is made once per picture size and blits
// into each frame's own planes.
TEST_F(Player, OverlayBlitsIntoEveryFrameWithOneDrawingPerSize) {
  g_entries_given = 1;  // the source has nothing more to give
  create();
  player_->font = travik_font_create("/fonts/font.twenty", 20, font_driver);
  player_->subtitle = travik_subtitle_create("subs", &subtitle_driver);
  // A rendered entry: 4 x 2 pixels of luma 200, fully covered.
  travik_draw *image = travik_draw_create(4, 2, nullptr, nullptr, TRAVIK_PIXEL_YUV420P);
  std::memset(image->mask, 255, 4 * 2);
  for (int32_t y = 0; y < 2; y++) std::memset(image->planes[0] + y * image->pitches[0], 200, 4);
  player_->subtitle_image = image;
  // Through the device's draw, which runs its filters.
  TestPicture first(0), second(40000);
  travik_video_draw(player_->video_device, 0, 0, -1, -1, &first.frame);
  void *target = player_->overlay_target;
  ASSERT_NE(target, nullptr);
  travik_video_draw(player_->video_device, 0, 0, -1, -1, &second.frame);
  EXPECT_EQ(player_->overlay_target, target);
  for (TestPicture *picture : {&first, &second}) {
    // Centred on the bottom edge: columns 6 to 9 of rows 14 and 15.
    for (int32_t y = 0; y < 16; y++) {
      for (int32_t x = 0; x < 16; x++) {
        bool inside = y >= 14 && x >= 6 && x < 10;
        uint8_t expected = inside ? 200 : (x == 0 && y == 0 ? 1 : 0);
        ASSERT_EQ(picture->pixels[y * 16 + x], expected) << x << "," << y;
      }
    }
  }
  // Another picture size gets a drawing of its own.
  std::vector<uint8_t> wide(32 * 16 * 3 / 2, 0);
  travik_videoframe frame = second.frame;
  frame.width = 32;
  frame.planes[0] = wide.data();
  frame.planes[1] = wide.data() + 512;
  frame.planes[2] = wide.data() + 512 + 128;
  frame.pitches[0] = 32;
  frame.pitches[1] = frame.pitches[2] = 16;
  travik_video_draw(player_->video_device, 0, 0, -1, -1, &frame);
  auto *resized = static_cast<travik_draw *>(player_->overlay_target);
  ASSERT_NE(resized, nullptr);
  EXPECT_EQ(resized->width, 32);
  EXPECT_EQ(wide[15 * 32 + 14], 200);
  player_->subtitle_image = nullptr;
  travik_draw_destroy(image);
  // Never opened: close would not take the subtitle source away.
  travik_subtitle_destroy(player_->subtitle);
  player_->subtitle = nullptr;
}

TEST_F(Player, HiddenSubtitlesAreNotRendered) {
  g_entries_given = 0;
  create();
  player_->font = travik_font_create("/fonts/font.twenty", 20, font_driver);
  player_->subtitle = travik_subtitle_create("subs", &subtitle_driver);
  travik_player_setinfo(player_, 19, 0);
  open(video_stream(100) + video_packets(0, 5));
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  EXPECT_EQ(travik_player_getobject(player_, 6), nullptr);
  EXPECT_EQ(g_entries_given, 0);
}

// ---------------------------------------------------------------- prompt stops

class PlayerStops : public Player {
 protected:
  // Runs `stop` and expects it to return within a generous bound.
  void prompt(const std::function<void()> &stop) {
    int64_t start = now_ms();
    stop();
    EXPECT_LT(now_ms() - start, 3000);
  }
};

TEST_F(PlayerStops, CloseBeforePlay) {
  open(audio_stream() + video_stream() + audio_packets(0, 5) + video_packets(1, 5));
  prompt([&] { travik_player_close(player_); });
  EXPECT_EQ(travik_player_getobject(player_, 8), nullptr);
}

TEST_F(PlayerStops, CloseWhileBuffering) {
  open(audio_stream(8000) + audio_packets(0, 20) + "hold\n", "bitrate 8000000\npreroll 1000\n");
  travik_player_play(player_);
  ASSERT_TRUE(wait_for([&] { return player_->buffering != 0 && relaxed(player_->audio_ready.count) > 0; }));
  prompt([&] { travik_player_close(player_); });
}

TEST_F(PlayerStops, CloseWhilePaused) {
  open(audio_stream(8000) + video_stream(8000) + audio_packets(0, 200) + video_packets(1, 200));
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_VIDEO_STARTED));
  travik_player_pause(player_);
  prompt([&] { travik_player_close(player_); });
}

TEST_F(PlayerStops, CloseAtTheEnd) {
  open(audio_stream(100) + audio_packets(0, 5));
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_END));
  prompt([&] { travik_player_close(player_); });
}

TEST_F(PlayerStops, CloseWhileWaitingForTheEnd) {
  // The clock is far from the declared duration: the end waits up to 5 s.
  open(audio_stream(4000) + audio_packets(0, 2));
  travik_player_play(player_);
  ASSERT_TRUE(wait_for([&] { return player_->end_of_stream == 1 && relaxed(player_->audio_ready.count) == 0; }));
  usleep(100000);
  prompt([&] { travik_player_close(player_); });
}

TEST_F(PlayerStops, VideoOnlyInputWithAudioOutputPolling) {
  open(video_stream(8000) + video_packets(0, 200));
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_VIDEO_STARTED));
  prompt([&] { EXPECT_EQ(travik_player_seek(player_, 2000), 0); });
  travik_player_play(player_);
  prompt([&] { travik_player_close(player_); });
  prompt([&] {
    travik_player_destroy(player_);
    player_ = nullptr;
  });
}

TEST_F(PlayerStops, AudioOnlyInput) {
  // The fake device takes samples as fast as they come: without "hold" the
  // input could end, and refuse the seek, before the seek is made.
  open(audio_stream(8000) + audio_packets(0, 200) + "hold\n", "bitrate 80000\npreroll 1000\n");
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_AUDIO_STARTED));
  prompt([&] { EXPECT_EQ(travik_player_seek(player_, 2000), 0); });
  travik_player_play(player_);
  prompt([&] {
    travik_player_close(player_);
    travik_player_destroy(player_);
    player_ = nullptr;
  });
}

TEST_F(PlayerStops, FailedAudioDecoderStillStops) {
  g_log.refuse_audio = true;
  open(audio_stream(8000) + video_stream(8000) + audio_packets(0, 200) + video_packets(1, 200));
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_NO_AUDIO_DECODER));
  prompt([&] { travik_player_seek(player_, 1000); });
  prompt([&] { travik_player_close(player_); });
}

TEST_F(PlayerStops, SeekWhilePausedShowsOneFrame) {
  open(video_stream(8000) + video_packets(0, 200));
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_VIDEO_STARTED));
  travik_player_pause(player_);
  ASSERT_TRUE(wait_for([&] {
    return travik_thread_getstate(player_->video_out.thread) == TRAVIK_THREAD_STATE_PAUSED;
  }));
  int32_t flips = video_.flips;
  ASSERT_EQ(travik_player_seek(player_, 4000), 0);
  // The new picture is drawn and flipped without waiting; then the video
  // thread pauses itself.
  ASSERT_TRUE(wait_for([&] { return video_.flips == flips + 1; }));
  usleep(200000);
  EXPECT_EQ(video_.flips, flips + 1);
  EXPECT_EQ(video_.last_drawn, 101);
}

TEST_F(PlayerStops, OutputResumesAtKeyFramesAfterSeek) {
  // From 4 s on, two pictures without the key flag come before a key one;
  // audio packets from 4 s on carry no time until the third.
  std::string text = audio_stream(8000) + video_stream(8000) + video_packets(1, 20) + audio_packets(0, 20);
  text += packet(1, 4000000, 100, 0, 201) + packet(1, 4040000, 100, 0, 202) +
          packet(1, 4080000, 100, TRAVIK_PACKET_KEY, 203) + video_packets(1, 20, 4120000);
  text += packet(0, -1, 1280, 0, 101) + packet(0, -1, 1280, 0, 102) + packet(0, 4000000, 1280, 0, 103) +
          audio_packets(0, 20, 4040000);
  open(text + "hold\n", "bitrate 80000\npreroll 1000\n");
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_AUDIO_STARTED));
  travik_player_pause(player_);
  ASSERT_TRUE(wait_for([&] {
    return travik_thread_getstate(player_->video_out.thread) == TRAVIK_THREAD_STATE_PAUSED;
  }));
  size_t heard = 0;
  {
    std::lock_guard<std::mutex> lock(audio_.mutex);
    heard = audio_.samples.size();
  }
  ASSERT_EQ(travik_player_seek(player_, 4000), 0);
  ASSERT_TRUE(wait_for([&] { return video_.last_drawn == 203; }));
  travik_player_play(player_);
  ASSERT_TRUE(wait_for([&] {
    std::lock_guard<std::mutex> lock(audio_.mutex);
    return audio_.samples.size() > heard + 640;
  }));
  std::lock_guard<std::mutex> lock(audio_.mutex);
  // The staging buffer may still hold values from before the seek; the
  // first new value is the timed packet's.
  bool found = false;
  for (size_t i = heard; i < audio_.samples.size() && !found; i++) {
    int16_t v = audio_.samples[i];
    ASSERT_NE(v, 101);
    ASSERT_NE(v, 102);
    found = v == 103;
  }
  EXPECT_TRUE(found);
}

TEST_F(PlayerStops, SeekBeforePlay) {
  open(audio_stream(8000) + video_stream(8000) + audio_packets(0, 100) + video_packets(1, 100));
  // Before the header is parsed the demuxer declares no stream, so the seek
  // finds nothing to prepare and goes straight to the demuxer.
  prompt([&] { EXPECT_EQ(travik_player_seek(player_, 2000), 0); });
  EXPECT_EQ(script()->seeks, 2);
  EXPECT_EQ(script()->last_seek, 2000000);
  travik_player_play(player_);
  ASSERT_TRUE(wait_event(TRAVIK_EVENT_AUDIO_STARTED));
  prompt([&] { travik_player_close(player_); });
}

TEST_F(PlayerStops, SeekWhileBuffering) {
  open(audio_stream(8000) + audio_packets(0, 100) + "hold\n", "bitrate 8000000\npreroll 1000\n");
  travik_player_play(player_);
  ASSERT_TRUE(wait_for([&] { return player_->buffering != 0 && relaxed(player_->audio_ready.count) > 0; }));
  // The seek ends the buffering under way (100 %) and starts a new one.
  prompt([&] { EXPECT_EQ(travik_player_seek(player_, 1000), 0); });
  std::vector<int32_t> steps = payloads(TRAVIK_EVENT_BUFFERING);
  EXPECT_NE(std::find(steps.begin(), steps.end(), 100), steps.end());
  prompt([&] {
    travik_player_close(player_);
    travik_player_destroy(player_);
    player_ = nullptr;
  });
}

TEST_F(PlayerStops, DestroyWithoutClose) {
  create();
  prompt([&] {
    travik_player_destroy(player_);
    player_ = nullptr;
  });
}

}  // namespace
