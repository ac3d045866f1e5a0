// Output drivers that measure, handed to a player as operation tables (the
// driver name "driver"); shared by the engine's end-to-end tests and its
// benchmark.
//
// The audio device plays nothing but keeps real time on the same clock
// model as the "null" output (device_clock.h), and counts the bytes it
// accepted, so that the position it is playing can be read at any moment.
// It can also be told to stop accepting bytes. The video device shows
// nothing; at every flip it records the timestamp of the picture last drawn
// (read from the picture itself: avtest pictures carry their frame index)
// next to the audio position at that moment.
//
// One pair is active at a time: the tables are process-wide, and open()
// hands out the objects installed with MeasuringDevices::install().
#pragma once

#include <stdint.h>
#include <stdlib.h>
#include <time.h>
#include <travik/audio.h>
#include <travik/frame.h>
#include <travik/video.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <vector>

#include "avtest_media.h"
#include "device_clock.h"

namespace measuring {

inline long long wall_us() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<long long>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

struct ClockedAudio {
  travik_audioout::DeviceClock clock;
  std::atomic<int64_t> accepted{0};  // bytes written since init
  std::atomic<int32_t> rate{48000}, channels{2};
  // 0 or more: the device stops taking bytes once it has this many, and
  // from then on holds a little and never drains.
  std::atomic<int64_t> stop_after{-1};

  // Media time of the first sample written since init, for inputs whose
  // sound does not start at 0 (set through base_filter).
  std::atomic<int64_t> base_us{0};
  std::atomic<bool> based{false};

  bool stopped() const { return stop_after >= 0 && accepted >= stop_after; }

  // Media time of the sound being played: microseconds played since init,
  // after the time of the first sample.
  int64_t position_us() {
    const int64_t held = clock.delay();
    const int64_t played = accepted - (held > 0 ? held : 0);
    return base_us + played * 1000000 / (2 * channels * rate);
  }

  // An audio filter (travik_audio_install_filter, argument: this object)
  // that takes the time of the first frame played as the base.
  static void base_filter(void *argument, travik_audioframe *frame) {
    auto *a = static_cast<ClockedAudio *>(argument);
    if (!a->based && frame->timestamp >= 0) {
      a->base_us = frame->timestamp;
      a->based = true;
    }
  }
};

struct Flip {
  int64_t video_us;   // timestamp of the picture shown
  int64_t audio_us;   // audio position at that moment, -1 without audio
  long long wall_us;  // when
};

struct RecordingVideo {
  // Microseconds between two pictures of the avtest input played.
  int64_t frame_us = 40000;
  // Record the frames' own timestamps instead of the avtest frame index
  // (for real media).
  bool frame_timestamps = false;
  std::mutex lock;
  std::condition_variable flipped;  // notified at every flip recorded
  int64_t drawn = -1;  // timestamp of the last picture drawn
  std::vector<Flip> flips;
};

class MeasuringDevices {
 public:
  static void install(ClockedAudio *audio, RecordingVideo *video) {
    audio_ = audio;
    video_ = video;
  }
  static travik_audio_driver *audio_table() { return &audio_driver_; }
  static travik_video_driver *video_table() { return &video_driver_; }

 private:
  static void *audio_open(void *) { return audio_; }
  static int32_t audio_probe(void *, const travik_audio_driver *) { return 1; }
  static int32_t audio_init(void *handle, int32_t rate, int32_t channels) {
    auto *a = static_cast<ClockedAudio *>(handle);
    a->rate = rate;
    a->channels = channels;
    a->accepted = 0;
    a->based = false;
    a->base_us = 0;
    a->clock.configure(rate, channels, 16384);
    return 0;
  }
  static void audio_close(void *) {}
  static int32_t audio_write(void *handle, const void *data, int32_t bytes) {
    auto *a = static_cast<ClockedAudio *>(handle);
    if (a->stopped()) return 0;
    // Counted piece by piece as the device takes them: a write blocks until
    // the device has room for all of it, and bytes already queued must not
    // be missing from the position while it waits for the rest.
    return a->clock.write(static_cast<const uint8_t *>(data), bytes,
                          [a](const uint8_t *, int32_t piece) { a->accepted += piece; });
  }
  static int32_t audio_getformat(void *handle, int32_t *rate, int32_t *channels) {
    auto *a = static_cast<ClockedAudio *>(handle);
    *rate = a->rate;
    *channels = a->channels;
    return 0;
  }
  static int32_t audio_reset(void *handle) {
    static_cast<ClockedAudio *>(handle)->clock.reset();
    return 0;
  }
  static int32_t audio_getdelay(void *handle) {
    auto *a = static_cast<ClockedAudio *>(handle);
    return a->stopped() ? 4096 : a->clock.delay();
  }
  static int32_t audio_getspace(void *handle) {
    auto *a = static_cast<ClockedAudio *>(handle);
    return a->stopped() ? 0 : a->clock.space();
  }

  // The frame whose `planes` and `pitches` fields these are (the video
  // front end passes a frame's own arrays), or null.
  static const travik_videoframe *frame_of(uint8_t **planes, int32_t *pitches) {
    const ptrdiff_t gap =
        offsetof(travik_videoframe, pitches) - offsetof(travik_videoframe, planes);
    if (!planes || reinterpret_cast<char *>(pitches) - reinterpret_cast<char *>(planes) != gap)
      return nullptr;
    auto *frame = reinterpret_cast<const travik_videoframe *>(
        reinterpret_cast<char *>(planes) - offsetof(travik_videoframe, planes));
    return frame->kind == TRAVIK_FRAME_VIDEO ? frame : nullptr;
  }

  static void *video_open(void *) { return video_; }
  static int32_t video_probe(void *, const travik_video_driver *) { return 1; }
  static int32_t video_init(void *, int32_t, int32_t, int32_t) { return 0; }
  static void video_close(void *) {}
  static int32_t video_allocbuffer(void *, uint8_t *planes[3], int32_t pitches[3], int32_t width,
                                   int32_t height) {
    const int32_t luma = width * height, chroma = (width / 2) * (height / 2);
    auto *memory = static_cast<uint8_t *>(malloc(static_cast<size_t>(luma + 2 * chroma)));
    if (!memory) return 1;
    planes[0] = memory;
    planes[1] = memory + luma;
    planes[2] = memory + luma + chroma;
    pitches[0] = width;
    pitches[1] = pitches[2] = width / 2;
    return 0;
  }
  static void video_freebuffer(void *, uint8_t *planes[3]) { free(planes[0]); }
  static int32_t video_control(void *, int32_t, void *) { return 0; }
  static int32_t video_draw(void *handle, int32_t, int32_t, int32_t, int32_t, uint8_t *planes[3],
                            int32_t pitches[3]) {
    auto *v = static_cast<RecordingVideo *>(handle);
    const travik_videoframe *frame = frame_of(planes, pitches);
    std::lock_guard<std::mutex> hold(v->lock);
    if (frame)
      v->drawn = v->frame_timestamps ? frame->timestamp
                                     : avtest::frame_of(frame->planes[0][0]) * v->frame_us;
    return 0;
  }
  static int32_t video_flip(void *handle) {
    auto *v = static_cast<RecordingVideo *>(handle);
    const int64_t audio = audio_ ? audio_->position_us() : -1;
    const long long now = wall_us();
    {
      std::lock_guard<std::mutex> hold(v->lock);
      if (v->drawn >= 0) v->flips.push_back({v->drawn, audio, now});
    }
    v->flipped.notify_one();
    return 0;
  }
  static int32_t video_getdelay(void *) { return 0; }

  static inline ClockedAudio *audio_ = nullptr;
  static inline RecordingVideo *video_ = nullptr;
  static inline travik_audio_driver audio_driver_ = {
      "measuring", nullptr,         4096,           audio_probe,     audio_open,
      audio_init,  audio_close,     audio_write,    audio_getformat, nullptr,
      audio_reset, audio_getdelay,  audio_getspace};
  static inline travik_video_driver video_driver_ = {
      "measuring",       nullptr,          video_probe,  video_open,
      video_init,        video_close,      video_allocbuffer, video_freebuffer,
      video_control,     video_draw,       video_flip,   video_getdelay};
};

}  // namespace measuring
