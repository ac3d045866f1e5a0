// What the video-output plugins share: their argument text (comma-separated
// items, each a bare word or key=value, such as "path=/tmp/out.y4m,fps=30"),
// heap picture memory and the draw/flip count queries.
#pragma once

#include <travik/video.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace videoout {

// True when `key` is present; its value (empty for a bare word) in `value`.
inline bool option(const void *argument, const char *key, std::string *value = nullptr) {
  if (!argument) return false;
  std::string text(static_cast<const char *>(argument));
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find(',', start);
    if (end == std::string::npos) end = text.size();
    std::string item = text.substr(start, end - start);
    size_t equals = item.find('=');
    std::string name = item.substr(0, equals);
    if (name == key) {
      if (value) *value = equals == std::string::npos ? "" : item.substr(equals + 1);
      return true;
    }
    start = end + 1;
  }
  return false;
}

inline int32_t option_int(const void *argument, const char *key, int32_t fallback) {
  std::string value;
  if (!option(argument, key, &value) || value.empty()) return fallback;
  return static_cast<int32_t>(std::strtol(value.c_str(), nullptr, 10));
}

// Heap picture memory for allocbuffer: one block, planar 4:2:0.
inline int32_t alloc_yuv(uint8_t *planes[3], int32_t pitches[3], int32_t width, int32_t height) {
  if (width <= 0 || height <= 0) {
    planes[0] = planes[1] = planes[2] = nullptr;
    pitches[0] = pitches[1] = pitches[2] = 0;
    return 1;
  }
  const int32_t cw = (width + 1) / 2, ch = (height + 1) / 2;
  // Rows padded to 64 bytes and planes starting on 64 bytes, so that vector
  // routines may read whole blocks; chroma rows half the luma rows. That is
  // the layout decoders write, so they may render straight into it.
  const int32_t cp = (cw + 63) & ~63, yp = 2 * cp;
  void *memory = nullptr;
  if (posix_memalign(&memory, 64,
                     static_cast<size_t>(yp) * height + 2 * static_cast<size_t>(cp) * ch + 64) != 0)
    memory = nullptr;
  auto *block = static_cast<uint8_t *>(memory);
  planes[0] = block;
  planes[1] = block + static_cast<size_t>(yp) * height;
  planes[2] = planes[1] + static_cast<size_t>(cp) * ch;
  pitches[0] = yp;
  pitches[1] = pitches[2] = cp;
  return 0;
}

inline void free_yuv(uint8_t *planes[3]) {
  if (planes) std::free(planes[0]);
}

// The allocbuffer and freebuffer operations of plugins whose pictures live
// in heap memory.
inline int32_t allocbuffer(void *, uint8_t *planes[3], int32_t pitches[3], int32_t width,
                           int32_t height) {
  return alloc_yuv(planes, pitches, width, height);
}

inline void freebuffer(void *, uint8_t *planes[3]) { free_yuv(planes); }

// Answers TRAVIK_VIDEO_CONTROL_DRAWS and _FLIPS; 1 for any other command.
inline int32_t control_counts(int32_t command, void *value, int32_t draws, int32_t flips) {
  if (!value) return 1;
  if (command == TRAVIK_VIDEO_CONTROL_DRAWS) {
    *static_cast<int32_t *>(value) = draws;
    return 0;
  }
  if (command == TRAVIK_VIDEO_CONTROL_FLIPS) {
    *static_cast<int32_t *>(value) = flips;
    return 0;
  }
  return 1;
}

}  // namespace videoout
