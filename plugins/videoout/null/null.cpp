// The "null" video output: accepts every picture and shows none, counting
// draws and flips. With the argument "log" (standard error) or
// "log=<path>" it writes one line per draw and flip:
//   null: draw <n> timestamp <frame timestamp, us> wall <seconds>.<us>
//   null: flip <n> wall <seconds>.<us>
// for synchronisation measurements. The frame's timestamp is known when the
// picture comes through travik_video_draw, which passes the frame's own
// plane and pitch arrays; otherwise it is logged as -1.
#include <sys/time.h>
#include <travik/video.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "options.h"

namespace {

struct Null {
  int32_t draws = 0;
  int32_t flips = 0;
  FILE *log = nullptr;
  bool own_log = false;
};

void wall(FILE *f) {
  timeval now;
  gettimeofday(&now, nullptr);
  std::fprintf(f, " wall %lld.%06ld\n", static_cast<long long>(now.tv_sec),
               static_cast<long>(now.tv_usec));
  std::fflush(f);
}

// The frame whose `planes` and `pitches` fields these are, if they are.
int64_t timestamp_of(uint8_t **planes, int32_t *pitches) {
  const ptrdiff_t gap = offsetof(travik_videoframe, pitches) - offsetof(travik_videoframe, planes);
  if (!planes || reinterpret_cast<char *>(pitches) - reinterpret_cast<char *>(planes) != gap)
    return -1;
  auto *frame = reinterpret_cast<travik_videoframe *>(reinterpret_cast<char *>(planes) -
                                                      offsetof(travik_videoframe, planes));
  return frame->kind == TRAVIK_FRAME_VIDEO ? frame->timestamp : -1;
}

int32_t probe(void *, const travik_video_driver *) { return 1; }

void *open(void *argument) {
  auto *n = new Null;
  std::string path;
  if (videoout::option(argument, "log", &path)) {
    if (path.empty()) {
      n->log = stderr;
    } else {
      n->log = std::fopen(path.c_str(), "a");
      n->own_log = n->log != nullptr;
    }
  }
  return n;
}

int32_t init(void *, int32_t, int32_t, int32_t) { return 0; }

void close(void *handle) {
  auto *n = static_cast<Null *>(handle);
  if (n->own_log) std::fclose(n->log);
  delete n;
}

int32_t allocbuffer(void *, uint8_t *planes[3], int32_t pitches[3], int32_t width,
                    int32_t height) {
  return videoout::alloc_yuv(planes, pitches, width, height);
}

void freebuffer(void *, uint8_t *planes[3]) { videoout::free_yuv(planes); }

int32_t control(void *handle, int32_t command, void *value) {
  auto *n = static_cast<Null *>(handle);
  if (!value) return 1;
  switch (command) {
    case TRAVIK_VIDEO_CONTROL_DRAWS:
      *static_cast<int32_t *>(value) = n->draws;
      return 0;
    case TRAVIK_VIDEO_CONTROL_FLIPS:
      *static_cast<int32_t *>(value) = n->flips;
      return 0;
    default:
      return 1;
  }
}

int32_t draw(void *handle, int32_t, int32_t, int32_t, int32_t, uint8_t *planes[3],
             int32_t pitches[3]) {
  auto *n = static_cast<Null *>(handle);
  n->draws++;
  if (n->log) {
    std::fprintf(n->log, "null: draw %d timestamp %lld", n->draws,
                 static_cast<long long>(timestamp_of(planes, pitches)));
    wall(n->log);
  }
  return 0;
}

int32_t flip(void *handle) {
  auto *n = static_cast<Null *>(handle);
  n->flips++;
  if (n->log) {
    std::fprintf(n->log, "null: flip %d", n->flips);
    wall(n->log);
  }
  return 0;
}

int32_t getdelay(void *) { return 0; }

travik_video_driver drivers[] = {
    {"null", nullptr, probe, open, init, close, allocbuffer, freebuffer, control, draw, flip,
     getdelay},
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
     nullptr, nullptr}};

}  // namespace

TRAVIK_PLUGIN_EXPORT void travik_videoout_null(void) {
  travik_plugin_register(TRAVIK_PLUGIN_VIDEOOUT, TRAVIK_PLUGIN_VERSION, drivers);
}
