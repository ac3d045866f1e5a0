// The presentation clock: clock start against the device delay, the audio
// position counted in samples, frame durations and the re-basing of a
// video-only clock.
#include <gtest/gtest.h>
#include <travik/schedule.h>
#include <util/fake_output.h>
#include <util/testutil.h>

#include <chrono>
#include <thread>

namespace {

using travik_test::FakeAudio;
using travik_test::FakeVideo;

// Bytes a stereo 44100 Hz device holds for `ms` milliseconds.
int32_t stereo_bytes(int32_t ms) { return ms * 44100 / 1000 * 4; }

class Schedule : public ::testing::Test {
 protected:
  void SetUp() override {
    schedule_ = travik_schedule_create();
    audio_ = travik_audio_create("driver", &fake_audio_.table);
    video_ = travik_video_create("driver", &fake_video_.table);
    ASSERT_NE(audio_, nullptr);
    ASSERT_NE(video_, nullptr);
    travik_stream_init(&audio_stream_);
    audio_stream_.info.type = TRAVIK_STREAM_AUDIO;
    audio_stream_.info.sample_rate = 44100;
    audio_stream_.info.channels = 2;
    travik_stream_init(&video_stream_);
    video_stream_.info.type = TRAVIK_STREAM_VIDEO;
    video_stream_.info.framerate = 2500;
  }
  void TearDown() override {
    travik_schedule_destroy(schedule_);
    travik_audio_destroy(audio_);
    travik_video_destroy(video_);
  }
  void use_audio() {
    travik_audio_init(audio_, 44100, 2);
    travik_schedule_initaudio(schedule_, audio_, &audio_stream_);
  }
  int32_t audio_interval(int64_t timestamp, int32_t count, int64_t *rewritten = nullptr) {
    travik_audioframe frame;
    travik_audioframe_init(&frame, nullptr);
    frame.timestamp = timestamp;
    frame.count = count;
    int32_t wait = travik_schedule_getaudiointerval(schedule_, &frame);
    if (rewritten) *rewritten = frame.timestamp;
    return wait;
  }
  int32_t video_interval(int64_t timestamp, int64_t *rewritten = nullptr) {
    travik_videoframe frame;
    travik_videoframe_init(&frame, nullptr);
    frame.timestamp = timestamp;
    int32_t wait = travik_schedule_getvideointerval(schedule_, &frame);
    if (rewritten) *rewritten = frame.timestamp;
    return wait;
  }

  FakeAudio fake_audio_;
  FakeVideo fake_video_;
  travik_audio *audio_ = nullptr;
  travik_video *video_ = nullptr;
  travik_stream audio_stream_;
  travik_stream video_stream_;
  travik_schedule *schedule_ = nullptr;
};

TEST_F(Schedule, NewAndResetScheduleIsStopped) {
  EXPECT_EQ(travik_schedule_elapsed(schedule_), 0);
  EXPECT_EQ(travik_schedule_isplaying(schedule_), 0);
  use_audio();
  audio_interval(1000000, 100);
  travik_schedule_reset(schedule_);
  EXPECT_EQ(travik_schedule_elapsed(schedule_), 0);
  EXPECT_EQ(travik_schedule_isplaying(schedule_), 0);
}

TEST_F(Schedule, FirstAudioFrameStartsClockBehindDeviceDelay) {
  use_audio();
  fake_audio_.delay_bytes = stereo_bytes(300);
  ASSERT_EQ(travik_audio_getdelay(audio_), 300);
  travik_test::StdoutCapture out;
  EXPECT_EQ(audio_interval(2000000, 100), 0);
  int32_t elapsed = travik_schedule_elapsed(schedule_);
  std::string printed = out.text();
  EXPECT_EQ(printed, "TRAVIK SCHEDULE START = -1700\n");
  EXPECT_GE(elapsed, 1700);
  EXPECT_LT(elapsed, 1700 + 1000);
  EXPECT_EQ(fake_audio_.resets, 1);  // the device is reset with the base
}

TEST_F(Schedule, FirstAudioFrameWithoutTimeIsDropped) {
  use_audio();
  EXPECT_EQ(audio_interval(-1, 100), -1);
  EXPECT_EQ(travik_schedule_isplaying(schedule_), 0);
}

TEST_F(Schedule, AudioPositionCountsSamplesWritten) {
  use_audio();
  audio_interval(5000000, 88200);  // one second of stereo at 44100 Hz
  int64_t stamp = 0;
  audio_interval(123, 100, &stamp);
  EXPECT_EQ(stamp, 5000000 + 1000000);
}

TEST_F(Schedule, SixChannelsCountAsTwo) {
  audio_stream_.info.channels = 6;
  use_audio();
  audio_interval(5000000, 88200);
  int64_t stamp = 0;
  audio_interval(-1, 100, &stamp);
  EXPECT_EQ(stamp, 5000000 + 1000000);
}

TEST_F(Schedule, AudioPacedByDeviceSpace) {
  use_audio();
  audio_interval(0, 100);
  fake_audio_.space_bytes = 1;
  EXPECT_EQ(audio_interval(-1, 100), 0);
  fake_audio_.space_bytes = 0;
  // No room: wait one write of the staging buffer (4096 bytes at 44100 Hz
  // stereo is 23 ms).
  EXPECT_EQ(audio_interval(-1, 100), travik_audio_getinterval(audio_));
  EXPECT_EQ(travik_audio_getinterval(audio_), 23);
}

TEST_F(Schedule, StreamWithoutRateKeepsAudioAtItsBase) {
  audio_stream_.info.sample_rate = 0;
  use_audio();
  audio_interval(3000000, 100);
  int64_t stamp = 0;
  audio_interval(-1, 100, &stamp);
  EXPECT_EQ(stamp, 3000000);
}

TEST_F(Schedule, FrameDurationFollowsFrameRate) {
  travik_schedule_initvideo(schedule_, video_, &video_stream_);
  int64_t stamp = 0;
  video_interval(1000000);
  video_interval(-1, &stamp);
  EXPECT_EQ(stamp, 1000000 + 40);  // added to the microseconds as it stands
  video_stream_.info.framerate = 0;
  travik_schedule_initvideo(schedule_, video_, &video_stream_);
  video_interval(-1, &stamp);
  EXPECT_EQ(stamp, 1000000 + 40 + 41);
  travik_schedule_initvideo(schedule_, video_, nullptr);
  video_interval(-1, &stamp);
  EXPECT_EQ(stamp, 1000000 + 40 + 41 + 41);
}

TEST_F(Schedule, FirstVideoFrameWithoutTimeWaitsNothing) {
  travik_schedule_initvideo(schedule_, video_, &video_stream_);
  EXPECT_EQ(video_interval(-1), 0);
  EXPECT_EQ(travik_schedule_isplaying(schedule_), 0);
}

TEST_F(Schedule, VideoStartsClockBehindItsDelay) {
  travik_schedule_initvideo(schedule_, video_, &video_stream_);
  fake_video_.delay = 30;
  int32_t wait = video_interval(10000000);
  // The clock reads 10000 - 30 now: the frame is due after the delay,
  // which the interval leaves out.
  EXPECT_GE(wait, -200);
  EXPECT_LE(wait, 0);
  int32_t elapsed = travik_schedule_elapsed(schedule_);
  EXPECT_GE(elapsed, 9970);
  EXPECT_LT(elapsed, 9970 + 1000);
}

// Nothing started the clock: video gives audio a head start of 100 ms.
TEST_F(Schedule, IdleVideoWaitsForAudioHeadStart) {
  travik_schedule_initvideo(schedule_, video_, &video_stream_);
  auto before = std::chrono::steady_clock::now();
  video_interval(10000000);
  auto waited = std::chrono::steady_clock::now() - before;
  EXPECT_GE(waited, std::chrono::milliseconds(99));
}

// Audio starting the clock ends that head start: the first picture is then
// due with the first sound, not 100 ms late (which would also drop the
// picture after it).
TEST_F(Schedule, IdleVideoWaitEndsWhenAudioStartsClock) {
  use_audio();
  travik_schedule_initvideo(schedule_, video_, &video_stream_);
  std::thread audio([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    audio_interval(10000000, 100);
  });
  int32_t wait = video_interval(10000000);
  audio.join();
  // Waiting the whole 100 ms out would give about -90.
  EXPECT_GT(wait, -60);
  EXPECT_LE(wait, 0);
}

TEST_F(Schedule, LateVideoWithoutAudioRebasesClock) {
  travik_schedule_initvideo(schedule_, video_, &video_stream_);
  video_interval(10000000);  // the clock now reads 10000
  // 500 ms behind the clock: the clock jumps back to the frame.
  int32_t wait = video_interval(9500000);
  EXPECT_LE(wait, 0);
  EXPECT_GT(wait, -200);
  int32_t elapsed = travik_schedule_elapsed(schedule_);
  EXPECT_GE(elapsed, 9500);
  EXPECT_LT(elapsed, 9500 + 1000);
  // The next frame is timed from the new base: 40 ms ahead, not 460 behind.
  wait = video_interval(9540000);
  EXPECT_GT(wait, -200);
  EXPECT_LE(wait, 40);
}

TEST_F(Schedule, LateVideoWithAudioKeepsClock) {
  use_audio();
  travik_schedule_initvideo(schedule_, video_, &video_stream_);
  audio_interval(10000000, 100);
  video_interval(10000000);
  int32_t wait = video_interval(9500000);
  EXPECT_LE(wait, -400);
}

TEST_F(Schedule, AudioRestartsClockVideoStarted) {
  use_audio();
  travik_schedule_initvideo(schedule_, video_, &video_stream_);
  video_interval(50000000);
  EXPECT_GE(travik_schedule_elapsed(schedule_), 50000);
  audio_interval(2000000, 100);
  int32_t elapsed = travik_schedule_elapsed(schedule_);
  EXPECT_GE(elapsed, 2000);
  EXPECT_LT(elapsed, 3000);
}

TEST_F(Schedule, ElapsedPtsComparesAudioLowWord) {
  use_audio();
  travik_schedule_initvideo(schedule_, video_, &video_stream_);
  EXPECT_EQ(travik_schedule_elapsed_pts(schedule_), 0);
  // 0x100000005 us of audio compares as its low word, 5.
  audio_interval(0x100000005LL, 100);
  video_interval(100);
  EXPECT_EQ(travik_schedule_elapsed_pts(schedule_), 100);
  video_interval(3);
  EXPECT_EQ(travik_schedule_elapsed_pts(schedule_), 5);
}

TEST_F(Schedule, ResetKeepsLastTimesAndDuration) {
  travik_schedule_initvideo(schedule_, video_, &video_stream_);
  video_interval(7000000);
  travik_schedule_reset(schedule_);
  EXPECT_EQ(travik_schedule_elapsed_pts(schedule_), 7000000);
  // The base is gone: the next frame starts the clock again.
  video_interval(8000000);
  EXPECT_GE(travik_schedule_elapsed(schedule_), 8000);
}

}  // namespace
