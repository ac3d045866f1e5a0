// The "y4m" video output: writes every drawn 4:2:0 picture to a YUV4MPEG2
// file, so that decoded output can be compared byte for byte with another
// decoder's. Argument: "path=<file>[,fps=<num>:<den>]" (or just the path).
// The stream header takes the size of the first picture drawn; pictures of
// another size are not written (they could not be read back).
#include <travik/system.h>
#include <travik/video.h>

#include <cstdio>
#include <string>

#include "options.h"

namespace {

struct Y4m {
  FILE *file = nullptr;
  std::string rate = "25:1";
  int32_t width = 0;   // of the stream, 0 before the first picture
  int32_t height = 0;
  int32_t draws = 0;   // pictures written
  int32_t flips = 0;
  bool warned = false;
};

int32_t probe(void *, const travik_video_driver *) { return 0; }

void *open(void *argument) {
  if (!argument) return nullptr;
  std::string path;
  if (!videoout::option(argument, "path", &path)) {
    path = static_cast<const char *>(argument);
    path = path.substr(0, path.find(','));
  }
  if (path.empty()) return nullptr;
  FILE *file = std::fopen(path.c_str(), "wb");
  if (!file) return nullptr;
  auto *y = new Y4m;
  y->file = file;
  std::string rate;
  if (videoout::option(argument, "fps", &rate) && !rate.empty()) {
    if (rate.find(':') == std::string::npos) rate += ":1";
    y->rate = rate;
  }
  return y;
}

int32_t init(void *, int32_t, int32_t, int32_t) { return 0; }

void close(void *handle) {
  auto *y = static_cast<Y4m *>(handle);
  std::fclose(y->file);
  delete y;
}

int32_t control(void *handle, int32_t command, void *value) {
  auto *y = static_cast<Y4m *>(handle);
  return videoout::control_counts(command, value, y->draws, y->flips);
}

void write_plane(FILE *f, const uint8_t *p, int32_t pitch, int32_t width, int32_t rows) {
  for (int32_t r = 0; r < rows; r++) std::fwrite(p + static_cast<ptrdiff_t>(r) * pitch, 1, width, f);
}

int32_t draw(void *handle, int32_t, int32_t, int32_t width, int32_t height, uint8_t *planes[3],
             int32_t pitches[3]) {
  auto *y = static_cast<Y4m *>(handle);
  if (!planes || !pitches || !planes[0] || !planes[1] || !planes[2] || width <= 0 || height <= 0)
    return 1;
  if (y->width == 0) {
    y->width = width;
    y->height = height;
    std::fprintf(y->file, "YUV4MPEG2 W%d H%d F%s Ip A1:1 C420jpeg\n", width, height,
                 y->rate.c_str());
  } else if (width != y->width || height != y->height) {
    if (!y->warned)
      travik_warning("y4m: picture of %dx%d in a %dx%d stream not written\n", width, height,
                     y->width, y->height);
    y->warned = true;
    return 1;
  }
  std::fputs("FRAME\n", y->file);
  write_plane(y->file, planes[0], pitches[0], width, height);
  write_plane(y->file, planes[1], pitches[1], (width + 1) / 2, (height + 1) / 2);
  write_plane(y->file, planes[2], pitches[2], (width + 1) / 2, (height + 1) / 2);
  y->draws++;
  return 0;
}

int32_t flip(void *handle) {
  auto *y = static_cast<Y4m *>(handle);
  y->flips++;
  std::fflush(y->file);
  return 0;
}

int32_t getdelay(void *) { return 0; }

travik_video_driver drivers[] = {
    {"y4m", nullptr, probe, open, init, close,
     videoout::allocbuffer, videoout::freebuffer, control, draw, flip, getdelay},
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
     nullptr, nullptr}};

}  // namespace

TRAVIK_PLUGIN_EXPORT void travik_videoout_y4m(void) {
  travik_plugin_register(TRAVIK_PLUGIN_VIDEOOUT, TRAVIK_PLUGIN_VERSION, drivers);
}
