// Audio and video output drivers handed to the front ends by the name
// "driver", so that tests set the delays and free space and see what was
// played. The front end hands the table to open, and the table is the
// first member, so the table's address is the device's.
#pragma once

#include <travik/audio.h>
#include <travik/video.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <vector>

namespace travik_test {

struct FakeAudio {
  travik_audio_driver table;
  std::atomic<int32_t> rate{0};          // what getformat reports; 0: the wanted format
  std::atomic<int32_t> channels{0};
  std::atomic<int32_t> delay_bytes{0};   // getdelay
  std::atomic<int32_t> space_bytes{4096};  // getspace
  std::atomic<int32_t> writes{0};
  std::atomic<int64_t> bytes_written{0};
  std::atomic<int32_t> resets{0};
  std::atomic<int32_t> inits{0};
  // When 0 or more: this long after the last write the device has played
  // everything (its delay reads as its space, which the front end takes
  // for "empty"). -1: getdelay is delay_bytes, always.
  std::atomic<int32_t> drain_after_ms{-1};
  std::atomic<int64_t> last_write_ms{0};
  std::mutex mutex;
  std::vector<int16_t> samples;          // every value written, in order

  explicit FakeAudio(int32_t bufsize = 4096) {
    table = {"fake", nullptr, bufsize, probe, open, init, close, write,
             getformat, nullptr, reset, getdelay, getspace};
  }
  static FakeAudio *of(void *handle) { return static_cast<FakeAudio *>(handle); }
  static int32_t probe(void *, const travik_audio_driver *) { return 1; }
  static void *open(void *argument) { return argument; }
  static int32_t init(void *h, int32_t, int32_t) {
    of(h)->inits++;
    return 0;
  }
  static void close(void *) {}
  static int32_t write(void *h, const void *data, int32_t bytes) {
    FakeAudio *a = of(h);
    std::lock_guard<std::mutex> lock(a->mutex);
    const auto *values = static_cast<const int16_t *>(data);
    a->samples.insert(a->samples.end(), values, values + bytes / 2);
    a->writes++;
    a->bytes_written += bytes;
    a->last_write_ms = now();
    return bytes;
  }
  static int32_t getformat(void *h, int32_t *rate, int32_t *channels) {
    if (of(h)->rate > 0) *rate = of(h)->rate;
    if (of(h)->channels > 0) *channels = of(h)->channels;
    return 0;
  }
  static int32_t reset(void *h) {
    of(h)->resets++;
    return 0;
  }
  static int64_t now() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
  }
  static int32_t getdelay(void *h) {
    FakeAudio *a = of(h);
    if (a->drain_after_ms >= 0 && a->writes > 0 && now() - a->last_write_ms > a->drain_after_ms) {
      return a->space_bytes;
    }
    return a->delay_bytes;
  }
  static int32_t getspace(void *h) { return of(h)->space_bytes; }
};

struct FakeVideo {
  travik_video_driver table;
  std::atomic<int32_t> delay{0};         // getdelay, handed back unchanged
  std::atomic<int32_t> opens{0};
  std::atomic<int32_t> draws{0};
  std::atomic<int32_t> flips{0};
  std::atomic<int32_t> allocs{0};
  std::atomic<int32_t> frees{0};
  std::atomic<int32_t> init_width{0};
  std::atomic<int32_t> init_height{0};
  std::atomic<int64_t> last_drawn{-1};   // first luma byte of the last picture drawn
  std::mutex drawn_mutex;
  std::vector<int32_t> drawn;            // first luma byte of every picture drawn, in order

  FakeVideo() {
    table = {"fake", nullptr, probe, open, init, close, allocbuffer,
             freebuffer, control, draw, flip, getdelay};
  }
  static FakeVideo *of(void *handle) { return static_cast<FakeVideo *>(handle); }
  static int32_t probe(void *, const travik_video_driver *) { return 1; }
  static void *open(void *argument) {
    of(argument)->opens++;
    return argument;
  }
  static int32_t init(void *h, int32_t width, int32_t height, int32_t) {
    of(h)->init_width = width;
    of(h)->init_height = height;
    return 0;
  }
  static void close(void *) {}
  static int32_t allocbuffer(void *h, uint8_t *planes[3], int32_t pitches[3], int32_t width,
                             int32_t height) {
    of(h)->allocs++;
    size_t luma = static_cast<size_t>(width) * static_cast<size_t>(height);
    auto *block = static_cast<uint8_t *>(std::calloc(1, luma + luma / 2 + 1));
    planes[0] = block;
    planes[1] = block + luma;
    planes[2] = block + luma + luma / 4;
    pitches[0] = width;
    pitches[1] = width / 2;
    pitches[2] = width / 2;
    return 0;
  }
  static void freebuffer(void *h, uint8_t *planes[3]) {
    of(h)->frees++;
    std::free(planes[0]);
  }
  static int32_t control(void *, int32_t, void *) { return 0; }
  static int32_t draw(void *h, int32_t, int32_t, int32_t, int32_t, uint8_t *planes[3],
                      int32_t[3]) {
    of(h)->draws++;
    of(h)->last_drawn = planes[0] ? planes[0][0] : -1;
    std::lock_guard<std::mutex> lock(of(h)->drawn_mutex);
    of(h)->drawn.push_back(planes[0] ? planes[0][0] : -1);
    return 0;
  }
  static int32_t flip(void *h) {
    of(h)->flips++;
    return 0;
  }
  static int32_t getdelay(void *h) { return of(h)->delay; }
};

}  // namespace travik_test
