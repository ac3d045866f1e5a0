// The decoder framework with drivers registered by codec number. Choosing
// decoder plugins is covered by test_playback.
#include <gtest/gtest.h>
#include <travik/decoder.h>

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

namespace {

// A scripted driver: each decode call takes the next step.
struct Step {
  int32_t consume;  // result of the call
  int frame;        // 0 none, 1 audio frame, 2 video frame
  int64_t timestamp;
};

struct Script {
  std::vector<Step> steps;
  size_t next = 0;
  std::vector<int32_t> sizes;  // size argument of each call
  std::vector<void *> arguments;
  int opens = 0, closes = 0, resets = 0;
  bool refuse_open = false;
  int32_t width = 64, height = 48;
  travik_decoder *decoder = nullptr;
  int lock_busy_in_decode = -1, lock_busy_in_reset = -1;
};
Script script;

// 1 when the decoder's lock is held (by the framework around the call).
int lock_busy(travik_decoder *decoder) {
  if (pthread_mutex_trylock(&decoder->lock) == EBUSY) return 1;
  pthread_mutex_unlock(&decoder->lock);
  return 0;
}

void *s_open(travik_decoder *decoder) {
  script.decoder = decoder;
  script.opens++;
  return script.refuse_open ? nullptr : &script;
}
void s_close(void *) { script.closes++; }
void s_reset(void *) {
  script.resets++;
  script.lock_busy_in_reset = lock_busy(script.decoder);
}
int32_t s_decode(void *, uint8_t *, int32_t size, void *argument, void **frame) {
  script.lock_busy_in_decode = lock_busy(script.decoder);
  script.sizes.push_back(size);
  script.arguments.push_back(argument);
  if (script.next >= script.steps.size()) return -1;
  const Step &step = script.steps[script.next++];
  if (step.frame == 1) {
    travik_audioframe t;
    travik_audioframe_init(&t, nullptr);
    t.count = 4;
    t.timestamp = step.timestamp;
    *frame = travik_audioframe_alloc(&t);
  } else if (step.frame == 2) {
    travik_videoframe t;
    travik_videoframe_init(&t, nullptr);
    t.format = TRAVIK_PIXEL_YUV420P;
    t.width = script.width;
    t.height = script.height;
    t.timestamp = step.timestamp;
    *frame = travik_videoframe_alloc(&t);
  }
  return step.consume;
}

const int32_t kCodec = 100;
travik_decoder_driver driver = {"scripted", kCodec, 1, s_open, s_close, s_decode, s_reset};

void release_frame(void *frame) {
  if (*static_cast<int32_t *>(frame) == TRAVIK_FRAME_VIDEO)
    static_cast<travik_videoframe *>(frame)->release(static_cast<travik_videoframe *>(frame));
  else
    static_cast<travik_audioframe *>(frame)->release(static_cast<travik_audioframe *>(frame));
}

class Decoder : public ::testing::Test {
 protected:
  void SetUp() override {
    script = Script();
    travik_decoder_register_driver(kCodec, &driver);
    travik_stream_init(&stream_);
    stream_.info.type = TRAVIK_STREAM_AUDIO;
    stream_.info.codec = kCodec;
    std::memset(payload_, 0, sizeof payload_);
    travik_packet_init(&packet_);
    packet_.data = payload_;
    packet_.size = 100;
    packet_.pts = 5000000;
  }
  void TearDown() override {
    if (decoder_) travik_decoder_destroy(decoder_);
    travik_decoder_register_driver(kCodec, nullptr);
  }
  void create() {
    decoder_ = travik_decoder_create(&stream_, nullptr);
    ASSERT_NE(decoder_, nullptr);
  }
  travik_stream stream_;
  travik_packet packet_;
  uint8_t payload_[100];
  travik_decoder *decoder_ = nullptr;
};

TEST_F(Decoder, RegisteredDriverIsUsed) {
  create();
  EXPECT_EQ(decoder_->driver, &driver);
  EXPECT_EQ(decoder_->plugin, nullptr);
  EXPECT_EQ(decoder_->state, &script);
  EXPECT_EQ(decoder_->stream, &stream_);
  EXPECT_EQ(decoder_->remaining, -1);
  EXPECT_EQ(script.opens, 1);
}

TEST_F(Decoder, RegisteredDriverIsUsedWhateverTheName) {
  decoder_ = travik_decoder_create_by_name(&stream_, nullptr, "pcm");
  ASSERT_NE(decoder_, nullptr);
  EXPECT_EQ(decoder_->driver, &driver);
}

TEST_F(Decoder, CodecNumbersFrom128AreNotRegistered) {
  travik_decoder_register_driver(128, &driver);
  stream_.info.codec = 128;
  EXPECT_EQ(travik_decoder_create(&stream_, nullptr), nullptr);
  EXPECT_EQ(script.opens, 0);
}

TEST_F(Decoder, NegativeCodecNumbersAreNotRegistered) {
  travik_decoder_register_driver(-1, &driver);
  stream_.info.codec = -1;
  EXPECT_EQ(travik_decoder_create(&stream_, nullptr), nullptr);
  EXPECT_EQ(script.opens, 0);
}

TEST_F(Decoder, RefusingDriverAndNoPluginGiveNull) {
  script.refuse_open = true;
  EXPECT_EQ(travik_decoder_create(&stream_, nullptr), nullptr);
  EXPECT_EQ(script.opens, 1);
}

int allocator_destroys = 0;
void counting_destroy(travik_decoder_allocator *a) {
  allocator_destroys++;
  std::free(a);
}

TEST_F(Decoder, FailedCreationDestroysTheAllocator) {
  script.refuse_open = true;
  allocator_destroys = 0;
  travik_decoder_allocator *a = travik_decoder_allocator_create(1);
  a->destroy = counting_destroy;
  EXPECT_EQ(travik_decoder_create(&stream_, a), nullptr);
  EXPECT_EQ(allocator_destroys, 1);
}

TEST_F(Decoder, DestroyClosesAndDestroysTheAllocator) {
  allocator_destroys = 0;
  travik_decoder_allocator *a = travik_decoder_allocator_create(1);
  a->destroy = counting_destroy;
  travik_decoder *d = travik_decoder_create(&stream_, a);
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(d->allocator, a);
  travik_decoder_destroy(d);
  EXPECT_EQ(script.closes, 1);
  EXPECT_EQ(allocator_destroys, 1);
}

TEST(DecoderAllocator, MakesFramesOfTheStreamType) {
  travik_decoder_allocator *video = travik_decoder_allocator_create(2);
  travik_decoder_allocator *audio = travik_decoder_allocator_create(1);
  travik_decoder_allocator *other = travik_decoder_allocator_create(0);
  EXPECT_EQ(video->user, nullptr);
  EXPECT_EQ(other->alloc, nullptr);
  travik_videoframe vt;
  travik_videoframe_init(&vt, nullptr);
  vt.format = TRAVIK_PIXEL_YUV420P;
  vt.width = 16;
  vt.height = 16;
  auto *v = static_cast<travik_videoframe *>(video->alloc(video->user, &vt));
  EXPECT_EQ(v->kind, TRAVIK_FRAME_VIDEO);
  EXPECT_EQ(v->pitches[0], 16);
  v->release(v);
  travik_audioframe at;
  travik_audioframe_init(&at, nullptr);
  at.count = 10;
  auto *a = static_cast<travik_audioframe *>(audio->alloc(audio->user, &at));
  EXPECT_EQ(a->kind, TRAVIK_FRAME_AUDIO);
  EXPECT_EQ(a->count, 10);
  a->samples[9] = 1;
  a->release(a);
  video->destroy(video);
  audio->destroy(audio);
  other->destroy(other);
}

TEST_F(Decoder, ConsumedPacketWithoutFrame) {
  create();
  script.steps = {{60, 0, -1}, {40, 0, -1}};  // then -1
  travik_decoder_setsource(decoder_, &packet_);
  EXPECT_EQ(travik_decoder_empty(decoder_), 0);
  void *frame = reinterpret_cast<void *>(1);
  EXPECT_EQ(travik_decoder_decode(decoder_, nullptr, &frame), 0);
  EXPECT_EQ(frame, nullptr);
  EXPECT_EQ(travik_decoder_empty(decoder_), 1);
  // 100, 40, then the deliberate call with nothing remaining.
  EXPECT_EQ(script.sizes, (std::vector<int32_t>{100, 40, 0}));
}

// A packet without data asks the driver for what it holds back: one frame
// per call, then nothing once the driver answers with a negative value.
TEST_F(Decoder, PacketWithoutDataDrainsOneFramePerCall) {
  create();
  script.steps = {{0, 2, 40000}, {0, 2, 80000}};  // then -1
  travik_packet drain;
  travik_packet_init(&drain);
  drain.data = nullptr;
  drain.size = 0;
  travik_decoder_setsource(decoder_, &drain);
  std::vector<int64_t> times;
  for (;;) {
    void *frame = nullptr;
    int32_t r = travik_decoder_decode(decoder_, nullptr, &frame);
    if (!frame) {
      EXPECT_EQ(r, 1);
      break;
    }
    EXPECT_EQ(r, 0);
    auto *video = static_cast<travik_videoframe *>(frame);
    times.push_back(video->timestamp);
    video->release(video);
  }
  EXPECT_EQ(times, (std::vector<int64_t>{40000, 80000}));
  EXPECT_EQ(script.sizes, (std::vector<int32_t>{0, 0, 0}));
  EXPECT_EQ(travik_decoder_empty(decoder_), 1);
}

// A driver that answers the call with nothing remaining by 0 and no frame
// ends the packet instead of being asked again forever.
TEST_F(Decoder, EmptyAnswerToTheFlushCallEndsThePacket) {
  create();
  script.steps = {{100, 0, -1}, {0, 0, -1}, {0, 2, 1}};
  travik_decoder_setsource(decoder_, &packet_);
  void *frame = nullptr;
  EXPECT_EQ(travik_decoder_decode(decoder_, nullptr, &frame), 0);
  EXPECT_EQ(frame, nullptr);
  EXPECT_EQ(decoder_->remaining, -1);
  EXPECT_EQ(script.sizes, (std::vector<int32_t>{100, 0}));
}

TEST_F(Decoder, NothingConsumedGivesOne) {
  create();
  travik_decoder_setsource(decoder_, &packet_);
  void *frame;
  EXPECT_EQ(travik_decoder_decode(decoder_, nullptr, &frame), 1);
  EXPECT_EQ(decoder_->remaining, -1);
}

TEST_F(Decoder, WithoutAPacketTheDriverIsNotCalled) {
  create();
  void *frame;
  EXPECT_EQ(travik_decoder_decode(decoder_, nullptr, &frame), 1);
  EXPECT_TRUE(script.sizes.empty());
  EXPECT_EQ(travik_decoder_empty(decoder_), 1);
}

TEST_F(Decoder, ArgumentIsPassedThrough) {
  create();
  script.steps = {{100, 0, -1}};
  int32_t level = 2;
  travik_decoder_setsource(decoder_, &packet_);
  void *frame;
  travik_decoder_decode(decoder_, &level, &frame);
  ASSERT_FALSE(script.arguments.empty());
  EXPECT_EQ(script.arguments[0], &level);
}

TEST_F(Decoder, OnlyTheFirstFrameOfAPacketGetsItsTime) {
  create();
  script.steps = {{50, 1, -1}, {50, 1, -1}};
  travik_decoder_setsource(decoder_, &packet_);
  void *first, *second;
  EXPECT_EQ(travik_decoder_decode(decoder_, nullptr, &first), 0);
  EXPECT_EQ(travik_decoder_decode(decoder_, nullptr, &second), 0);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(static_cast<travik_audioframe *>(first)->timestamp, 5000000);
  EXPECT_EQ(static_cast<travik_audioframe *>(second)->timestamp, -1);
  release_frame(first);
  release_frame(second);
}

TEST_F(Decoder, DriverTimestampIsKept) {
  create();
  script.steps = {{100, 1, 777}};
  travik_decoder_setsource(decoder_, &packet_);
  void *frame;
  travik_decoder_decode(decoder_, nullptr, &frame);
  EXPECT_EQ(static_cast<travik_audioframe *>(frame)->timestamp, 777);
  EXPECT_EQ(decoder_->pts, -1);  // used up all the same
  release_frame(frame);
}

TEST_F(Decoder, FrameStopsTheLoopEarly) {
  create();
  script.steps = {{30, 1, -1}, {70, 0, -1}};
  travik_decoder_setsource(decoder_, &packet_);
  void *frame;
  travik_decoder_decode(decoder_, nullptr, &frame);
  EXPECT_EQ(script.sizes.size(), 1u);
  EXPECT_EQ(decoder_->remaining, 70);
  EXPECT_EQ(travik_decoder_empty(decoder_), 0);
  release_frame(frame);
}

TEST_F(Decoder, VideoFrameTakesTimeSizeAndKeyFlag) {
  stream_.info.type = TRAVIK_STREAM_VIDEO;
  create();
  script.steps = {{100, 2, -1}};
  packet_.flags = TRAVIK_PACKET_KEY;
  travik_decoder_setsource(decoder_, &packet_);
  void *frame;
  travik_decoder_decode(decoder_, nullptr, &frame);
  auto *v = static_cast<travik_videoframe *>(frame);
  EXPECT_EQ(v->timestamp, 5000000);
  EXPECT_EQ(v->info, 1u);
  EXPECT_EQ(stream_.info.width, 64);
  EXPECT_EQ(stream_.info.height, 48);
  EXPECT_EQ(decoder_->flags, 0u);
  release_frame(frame);
}

TEST_F(Decoder, KnownStreamSizeIsKept) {
  stream_.info.type = TRAVIK_STREAM_VIDEO;
  stream_.info.width = 320;
  stream_.info.height = 200;
  create();
  script.steps = {{100, 2, -1}};
  travik_decoder_setsource(decoder_, &packet_);
  void *frame;
  travik_decoder_decode(decoder_, nullptr, &frame);
  EXPECT_EQ(stream_.info.width, 320);
  EXPECT_EQ(stream_.info.height, 200);
  EXPECT_EQ(static_cast<travik_videoframe *>(frame)->info, 0u);  // no key flag
  release_frame(frame);
}

TEST_F(Decoder, UnusedFlagsAreKeptForTheNextPacket) {
  stream_.info.type = TRAVIK_STREAM_VIDEO;
  create();
  script.steps = {{100, 0, -1}, {-1, 0, -1}, {100, 2, -1}};
  packet_.flags = TRAVIK_PACKET_KEY;
  travik_decoder_setsource(decoder_, &packet_);
  void *frame;
  travik_decoder_decode(decoder_, nullptr, &frame);
  EXPECT_EQ(frame, nullptr);
  travik_packet second = packet_;
  second.flags = 0;
  second.pts = 6000000;
  travik_decoder_setsource(decoder_, &second);
  EXPECT_EQ(decoder_->flags, static_cast<uint32_t>(TRAVIK_PACKET_KEY));
  travik_decoder_decode(decoder_, nullptr, &frame);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(static_cast<travik_videoframe *>(frame)->info, 1u);
  EXPECT_EQ(static_cast<travik_videoframe *>(frame)->timestamp, 6000000);
  release_frame(frame);
}

TEST_F(Decoder, PacketWithoutTimeLeavesFramesAlone) {
  stream_.info.type = TRAVIK_STREAM_VIDEO;
  create();
  script.steps = {{100, 2, -1}};
  packet_.pts = -1;
  packet_.flags = TRAVIK_PACKET_KEY;
  travik_decoder_setsource(decoder_, &packet_);
  void *frame;
  travik_decoder_decode(decoder_, nullptr, &frame);
  auto *v = static_cast<travik_videoframe *>(frame);
  EXPECT_EQ(v->timestamp, -1);
  EXPECT_EQ(v->info, 0u);
  EXPECT_EQ(stream_.info.width, 0);
  release_frame(frame);
}

TEST_F(Decoder, ResetForgetsThePacket) {
  create();
  travik_decoder_setsource(decoder_, &packet_);
  travik_decoder_reset(decoder_);
  EXPECT_EQ(decoder_->remaining, -1);
  EXPECT_EQ(decoder_->data, nullptr);
  EXPECT_EQ(script.resets, 1);
  EXPECT_EQ(travik_decoder_empty(decoder_), 1);
}

TEST_F(Decoder, SetsourceTakesThePacket) {
  create();
  travik_decoder_setsource(decoder_, &packet_);
  EXPECT_EQ(decoder_->packet, &packet_);
  EXPECT_EQ(decoder_->data, payload_);
  EXPECT_EQ(decoder_->remaining, 100);
  EXPECT_EQ(decoder_->pts, 5000000);
}

TEST_F(Decoder, FlushCallMayProduceAFrame) {
  create();
  script.steps = {{100, 0, -1}, {0, 1, -1}};  // then -1
  travik_decoder_setsource(decoder_, &packet_);
  void *frame = nullptr;
  EXPECT_EQ(travik_decoder_decode(decoder_, nullptr, &frame), 0);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(static_cast<travik_audioframe *>(frame)->timestamp, 5000000);
  EXPECT_EQ(decoder_->remaining, 0);
  EXPECT_EQ(travik_decoder_empty(decoder_), 1);
  release_frame(frame);
  // The driver has nothing more: another flush call ends the packet.
  void *none = reinterpret_cast<void *>(1);
  EXPECT_EQ(travik_decoder_decode(decoder_, nullptr, &none), 1);
  EXPECT_EQ(none, nullptr);
  EXPECT_EQ(decoder_->remaining, -1);
  EXPECT_EQ(script.sizes, (std::vector<int32_t>{100, 0, 0}));
}

TEST_F(Decoder, AudioFramesLeaveThePacketFlags) {
  create();
  script.steps = {{100, 1, -1}};
  packet_.flags = TRAVIK_PACKET_KEY;
  travik_decoder_setsource(decoder_, &packet_);
  void *frame;
  travik_decoder_decode(decoder_, nullptr, &frame);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(decoder_->flags, static_cast<uint32_t>(TRAVIK_PACKET_KEY));
  EXPECT_EQ(decoder_->pts, -1);
  release_frame(frame);
}

TEST_F(Decoder, OtherPacketFlagsAreClearedWithoutMarkingTheFrame) {
  stream_.info.type = TRAVIK_STREAM_VIDEO;
  create();
  script.steps = {{100, 2, -1}};
  packet_.flags = TRAVIK_PACKET_DECODE_ONLY;
  travik_decoder_setsource(decoder_, &packet_);
  void *frame;
  travik_decoder_decode(decoder_, nullptr, &frame);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(static_cast<travik_videoframe *>(frame)->info, 0u);
  EXPECT_EQ(decoder_->flags, 0u);
  release_frame(frame);
}

TEST_F(Decoder, DecodeAndResetCallTheDriverUnderTheLock) {
  create();
  script.steps = {{100, 0, -1}};
  travik_decoder_setsource(decoder_, &packet_);
  void *frame;
  travik_decoder_decode(decoder_, nullptr, &frame);
  EXPECT_EQ(script.lock_busy_in_decode, 1);
  travik_decoder_reset(decoder_);
  EXPECT_EQ(script.lock_busy_in_reset, 1);
  EXPECT_EQ(lock_busy(decoder_), 0);  // released afterwards
}

TEST_F(Decoder, SetsourceWaitsForTheLock) {
  create();
  pthread_mutex_lock(&decoder_->lock);
  std::atomic<bool> done{false};
  std::thread other([&] {
    travik_decoder_setsource(decoder_, &packet_);
    done = true;
  });
  // While the lock is held elsewhere the packet cannot be taken.
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(done.load());
  pthread_mutex_unlock(&decoder_->lock);
  other.join();
  EXPECT_TRUE(done.load());
  EXPECT_EQ(decoder_->remaining, 100);
}

}  // namespace
