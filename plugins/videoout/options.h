// Argument text of the video-output plugins: comma-separated items, each a
// bare word or key=value, such as "path=/tmp/out.y4m,fps=30".
#pragma once

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
  // Rows padded to 32 bytes, so that vector routines may read whole blocks.
  const int32_t yp = (width + 31) & ~31, cp = (cw + 31) & ~31;
  auto *block = static_cast<uint8_t *>(std::malloc(static_cast<size_t>(yp) * height +
                                                   2 * static_cast<size_t>(cp) * ch + 64));
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

}  // namespace videoout
