// Video and audio frame records and their default allocators.
#include <travik/frame.h>

#include <cstdlib>
#include <cstring>

namespace {

// Bytes a pixel of the packed formats that get storage; 0 for none.
int32_t packed_bytes(int32_t format) {
  switch (format) {
    case TRAVIK_PIXEL_RGB32:
    case TRAVIK_PIXEL_ARGB32:
      return 4;
    case TRAVIK_PIXEL_RGB565:
    case TRAVIK_PIXEL_RGB555:
      return 2;
    default:
      return 0;
  }
}

}  // namespace

extern "C" {

void travik_videoframe_init(travik_videoframe *frame, const travik_videoframe *templ) {
  frame->kind = TRAVIK_FRAME_VIDEO;
  frame->refcount = 1;
  frame->addref = travik_videoframe_addref;
  frame->release = nullptr;
  frame->tag = -1;
  for (int i = 0; i < 3; i++) {
    frame->planes[i] = nullptr;
    frame->pitches[i] = 0;
  }
  frame->timestamp = templ ? templ->timestamp : -1;
  frame->info = templ ? templ->info : 0;
  frame->format = templ ? templ->format : 0;
  frame->width = templ ? templ->width : 0;
  frame->height = templ ? templ->height : 0;
}

void travik_audioframe_init(travik_audioframe *frame, const travik_audioframe *templ) {
  frame->kind = TRAVIK_FRAME_AUDIO;
  frame->samples = nullptr;
  frame->refcount = 1;
  frame->addref = travik_audioframe_addref;
  frame->release = nullptr;
  frame->tag = -1;
  frame->timestamp = templ ? templ->timestamp : -1;
  frame->count = templ ? templ->count : 0;
}

}  // extern "C"

namespace {
// Pitches are the plane size divided by the height; an empty picture (a
// size below 1) gets no pixels and pitches of 0 rather than a division by 0.
int32_t per_line(int32_t bytes, int32_t height) { return height > 0 ? bytes / height : 0; }
}  // namespace

extern "C" {

travik_videoframe *travik_videoframe_alloc(const travik_videoframe *templ) {
  const int32_t format = templ ? templ->format : 0;
  // A negative size in the template gets no pixels (the frame still
  // carries the template's values).
  const int32_t width = templ && templ->width > 0 ? templ->width : 0;
  const int32_t height = templ && templ->height > 0 ? templ->height : 0;
  const size_t record = sizeof(travik_videoframe);
  travik_videoframe *frame;
  if (format == TRAVIK_PIXEL_YUV420P) {
    // The luma area rounded up to 32 bytes; the pitch derives from it, so it
    // can exceed the width. Plane 2 lies before plane 1, as in YV12.
    const int32_t size = (width * height + 31) & ~31;
    frame = static_cast<travik_videoframe *>(std::malloc(record + size + 2 * (size / 4)));
    travik_videoframe_init(frame, templ);
    uint8_t *pixels = reinterpret_cast<uint8_t *>(frame + 1);
    frame->planes[0] = pixels;
    frame->planes[2] = pixels + size;
    frame->planes[1] = pixels + (5 * size) / 4;
    frame->pitches[0] = per_line(size, height);
    frame->pitches[1] = frame->pitches[2] = per_line(size, 2 * height);
  } else if (int32_t bytes = packed_bytes(format)) {
    const int32_t total = bytes * width * height;
    frame = static_cast<travik_videoframe *>(std::malloc(record + total));
    travik_videoframe_init(frame, templ);
    frame->planes[0] = reinterpret_cast<uint8_t *>(frame + 1);
    frame->pitches[0] = per_line(total, height);
  } else {
    frame = static_cast<travik_videoframe *>(std::calloc(1, record));
    travik_videoframe_init(frame, templ);
  }
  frame->release = travik_videoframe_release;
  return frame;
}

travik_audioframe *travik_audioframe_alloc(const travik_audioframe *templ) {
  const int32_t count = templ ? templ->count : 0;
  auto *frame = static_cast<travik_audioframe *>(
      std::malloc(sizeof(travik_audioframe) + 2 * static_cast<size_t>(count > 0 ? count : 0)));
  travik_audioframe_init(frame, templ);
  frame->samples = reinterpret_cast<int16_t *>(frame + 1);
  frame->release = travik_audioframe_release;
  return frame;
}

int32_t travik_videoframe_addref(travik_videoframe *frame) { return ++frame->refcount; }

int32_t travik_videoframe_release(travik_videoframe *frame) {
  int32_t count = --frame->refcount;
  if (count == 0) std::free(frame);
  return count;
}

int32_t travik_audioframe_addref(travik_audioframe *frame) { return ++frame->refcount; }

int32_t travik_audioframe_release(travik_audioframe *frame) {
  int32_t count = --frame->refcount;
  if (count == 0) std::free(frame);
  return count;
}

}  // extern "C"
