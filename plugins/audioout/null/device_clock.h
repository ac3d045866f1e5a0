// A model of an audio device's buffer driven by the wall clock, shared by
// the "null" and "wav" audio outputs: bytes go in through write() and drain
// at the device rate in real time, so that a player paced by the device runs
// at real speed. Writes block until the device has room for all they carry.
//
// A device that holds nothing to play (before the first write, after a
// reset, or once everything written has drained) answers -1 to both
// delay() and space(): that equality is how the audio front end recognises
// an empty device. A device that holds something must therefore never give
// the same answer to both, not even half full: delays are whole frames, an
// even number of bytes, and a space that is not 0 is reported one byte
// short, an odd number (the front end only asks whether it is 0).
#pragma once

#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

namespace travik_audioout {

constexpr int32_t kDrained = -1;

class DeviceClock {
 public:
  DeviceClock() { pthread_mutex_init(&lock_, nullptr); }
  ~DeviceClock() { pthread_mutex_destroy(&lock_); }
  DeviceClock(const DeviceClock &) = delete;
  DeviceClock &operator=(const DeviceClock &) = delete;

  // Sets the format and the buffer size (bytes, rounded to whole frames and
  // at least 16 frames) and empties the device.
  void configure(int32_t rate, int32_t channels, int32_t buffer) {
    pthread_mutex_lock(&lock_);
    rate_ = rate;
    frame_bytes_ = 2 * channels;
    buffer_ = buffer - buffer % frame_bytes_;
    if (buffer_ < 16 * frame_bytes_) buffer_ = 16 * frame_bytes_;
    queued_ = 0;
    pthread_mutex_unlock(&lock_);
  }

  void reset() {
    pthread_mutex_lock(&lock_);
    queued_ = 0;
    pthread_mutex_unlock(&lock_);
  }

  int32_t delay() {
    pthread_mutex_lock(&lock_);
    int64_t held = held_locked();
    pthread_mutex_unlock(&lock_);
    return held > 0 ? static_cast<int32_t>(held) : kDrained;
  }

  int32_t space() {
    pthread_mutex_lock(&lock_);
    int64_t held = held_locked();
    pthread_mutex_unlock(&lock_);
    if (held <= 0) return kDrained;
    int64_t room = buffer_ - held;
    return static_cast<int32_t>(room > 0 ? room - 1 : 0);
  }

  int32_t buffer() const { return buffer_; }

  // Accepts whole frames of `bytes`, waiting for room in the device as it
  // drains; `sink` (data, bytes) is called for each accepted piece, in
  // order. Returns the bytes accepted.
  template <typename Sink>
  int32_t write(const uint8_t *data, int32_t bytes, Sink sink) {
    if (bytes <= 0) return 0;
    pthread_mutex_lock(&lock_);
    int32_t frame = frame_bytes_;
    pthread_mutex_unlock(&lock_);
    int32_t left = bytes - bytes % frame, done = 0;
    while (left > 0) {
      pthread_mutex_lock(&lock_);
      int64_t held = held_locked();
      if (held <= 0) {
        // Empty: the clock starts again with this write.
        clock_gettime(CLOCK_MONOTONIC, &start_);
        queued_ = 0;
        held = 0;
      }
      int64_t room = buffer_ - held;
      int32_t take = static_cast<int32_t>(room < left ? room : left);
      take -= take % frame;
      if (take > 0) queued_ += take;
      int32_t rate = rate_;
      int32_t wanted = left < buffer_ ? left : buffer_;
      int64_t short_by = wanted - (room - take);
      pthread_mutex_unlock(&lock_);
      if (take > 0) {
        sink(data + done, take);
        done += take;
        left -= take;
        continue;
      }
      // Wait until the device has drained enough for the rest, in one
      // sleep where that is short enough (as a device that wakes its
      // writer once a period), else 25 ms at a time so that a reset from
      // another thread is seen soon.
      int64_t wait_ns = short_by / frame * 1000000000LL / rate;
      if (wait_ns > 25000000) wait_ns = 25000000;
      if (wait_ns < 200000) wait_ns = 200000;
      struct timespec pause = {0, static_cast<long>(wait_ns)};
      nanosleep(&pause, nullptr);
    }
    return done;
  }

 private:
  // Bytes written and not yet played; 0 or less when empty.
  int64_t held_locked() {
    if (queued_ <= 0) return 0;
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    int64_t seconds = now.tv_sec - start_.tv_sec;
    int64_t nanos = now.tv_nsec - start_.tv_nsec;
    int64_t frames = seconds * rate_ + nanos * rate_ / 1000000000LL;
    int64_t held = queued_ - frames * frame_bytes_;
    if (held <= 0) queued_ = 0;
    return held;
  }

  pthread_mutex_t lock_;
  int32_t rate_ = 48000;
  int32_t frame_bytes_ = 4;
  int32_t buffer_ = 32768;
  int64_t queued_ = 0;  // bytes written since start_
  struct timespec start_ = {0, 0};
};

// "key=value,key=value" arguments: the value of `key` as a number, or
// `fallback` when absent or not a number.
inline int32_t argument_number(const char *text, const char *key, int32_t fallback) {
  if (!text) return fallback;
  size_t length = strlen(key);
  for (const char *at = text; *at;) {
    if (strncmp(at, key, length) == 0 && at[length] == '=') {
      char *end = nullptr;
      long value = strtol(at + length + 1, &end, 10);
      if (end != at + length + 1 && (*end == '\0' || *end == ',') && value > 0 && value <= 0x7FFFFFFF)
        return static_cast<int32_t>(value);
      return fallback;
    }
    const char *comma = strchr(at, ',');
    if (!comma) break;
    at = comma + 1;
  }
  return fallback;
}

// Device formats the models accept.
inline bool usable_rate(int32_t rate) { return rate >= 1000 && rate <= 768000; }
inline bool usable_channels(int32_t channels) { return channels >= 1 && channels <= 8; }

}  // namespace travik_audioout
