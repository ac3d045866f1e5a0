// The "png" video output: writes every Nth flipped picture as a PNG file,
// for people who want to look at what was played. Argument items:
//   dir=<directory>   where the files go (required; a leading bare path too)
//   every=<N>         which flips are written: N, 2N, ... (default 1)
// Files are named frame%06d.png after the number of the flip that showed
// them. Pictures go through the YUV to RGB converter (24-bit output).
#include <png.h>
#include <travik/video.h>
#include <travik/yuv2rgb.h>

#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "options.h"

namespace {

struct Png {
  std::string dir;
  int32_t every = 1;
  int32_t draws = 0, flips = 0;
  travik_yuv2rgb *converter = nullptr;
  // The picture to write at the next flip, converted to RGB bytes.
  std::vector<uint8_t> rgb;
  int32_t width = 0, height = 0;
  bool pending = false;
  // A copy of the picture padded to whole 8 x 2 blocks for the converter.
  std::vector<uint8_t> padded;
};

int32_t probe(void *, const travik_video_driver *) { return 0; }

void *open(void *argument) {
  std::string dir;
  if (!videoout::option(argument, "dir", &dir) && argument &&
      static_cast<const char *>(argument)[0] == '/') {
    dir = static_cast<const char *>(argument);
    dir = dir.substr(0, dir.find(','));
  }
  if (dir.empty()) return nullptr;
  auto *p = new Png;
  p->dir = dir;
  p->every = videoout::option_int(argument, "every", 1);
  if (p->every < 1) p->every = 1;
  p->converter = travik_yuv2rgb_create(TRAVIK_PIXEL_RGB24);
  return p;
}

int32_t init(void *, int32_t, int32_t, int32_t) { return 0; }

void close(void *handle) {
  auto *p = static_cast<Png *>(handle);
  travik_yuv2rgb_destroy(p->converter);
  delete p;
}

int32_t allocbuffer(void *, uint8_t *planes[3], int32_t pitches[3], int32_t width,
                    int32_t height) {
  return videoout::alloc_yuv(planes, pitches, width, height);
}

void freebuffer(void *, uint8_t *planes[3]) { videoout::free_yuv(planes); }

int32_t control(void *handle, int32_t command, void *value) {
  auto *p = static_cast<Png *>(handle);
  if (!value) return 1;
  if (command == TRAVIK_VIDEO_CONTROL_DRAWS) {
    *static_cast<int32_t *>(value) = p->draws;
    return 0;
  }
  if (command == TRAVIK_VIDEO_CONTROL_FLIPS) {
    *static_cast<int32_t *>(value) = p->flips;
    return 0;
  }
  return 1;
}

// Copies a plane into `out` (pw x ph), repeating its last column and row.
void pad_plane(uint8_t *out, int32_t pw, int32_t ph, const uint8_t *in, int32_t pitch, int32_t w,
               int32_t h) {
  for (int32_t r = 0; r < ph; r++) {
    const uint8_t *src = in + static_cast<ptrdiff_t>(r < h ? r : h - 1) * pitch;
    uint8_t *dst = out + static_cast<ptrdiff_t>(r) * pw;
    std::memcpy(dst, src, w);
    for (int32_t x = w; x < pw; x++) dst[x] = src[w - 1];
  }
}

int32_t draw(void *handle, int32_t, int32_t, int32_t width, int32_t height, uint8_t *planes[3],
             int32_t pitches[3]) {
  auto *p = static_cast<Png *>(handle);
  if (!planes || !pitches || !planes[0] || !planes[1] || !planes[2] || width <= 0 ||
      height <= 0 || width >= 32768 || height >= 32768)
    return 1;
  p->draws++;
  // Only the picture that the next flip shows is converted, when that flip
  // is one to write.
  if ((p->flips + 1) % p->every != 0) return 0;
  const int32_t pw = (width + 7) & ~7, ph = (height + 1) & ~1;
  const int32_t cw = (width + 1) / 2, ch = (height + 1) / 2;
  p->padded.resize(static_cast<size_t>(pw) * ph * 3 / 2);
  uint8_t *y = p->padded.data();
  uint8_t *u = y + static_cast<size_t>(pw) * ph;
  uint8_t *v = u + static_cast<size_t>(pw / 2) * (ph / 2);
  pad_plane(y, pw, ph, planes[0], pitches[0], width, height);
  pad_plane(u, pw / 2, ph / 2, planes[1], pitches[1], cw, ch);
  pad_plane(v, pw / 2, ph / 2, planes[2], pitches[2], cw, ch);
  p->rgb.resize(static_cast<size_t>(pw) * 3 * ph);
  travik_yuv2rgb_convert(p->converter, pw / 8, ph, p->rgb.data(), pw * 3, y, u, v, pw, pw / 2);
  p->width = width;
  p->height = height;
  p->pending = true;
  return 0;
}

bool write_png(const std::string &path, const Png *p) {
  FILE *file = std::fopen(path.c_str(), "wb");
  if (!file) return false;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png ? png_create_info_struct(png) : nullptr;
  if (!info || setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, info ? &info : nullptr);
    std::fclose(file);
    return false;
  }
  png_init_io(png, file);
  png_set_IHDR(png, info, static_cast<png_uint_32>(p->width), static_cast<png_uint_32>(p->height),
               8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  const size_t stride = static_cast<size_t>((p->width + 7) & ~7) * 3;
  for (int32_t r = 0; r < p->height; r++)
    png_write_row(png, const_cast<png_bytep>(p->rgb.data() + stride * r));
  png_write_end(png, info);
  png_destroy_write_struct(&png, &info);
  return std::fclose(file) == 0;
}

int32_t flip(void *handle) {
  auto *p = static_cast<Png *>(handle);
  p->flips++;
  if (p->flips % p->every != 0 || !p->pending) return 0;
  p->pending = false;
  char name[32];
  std::snprintf(name, sizeof name, "/frame%06d.png", p->flips);
  return write_png(p->dir + name, p) ? 0 : 1;
}

int32_t getdelay(void *) { return 0; }

travik_video_driver drivers[] = {
    {"png", nullptr, probe, open, init, close, allocbuffer, freebuffer, control, draw, flip,
     getdelay},
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
     nullptr, nullptr}};

}  // namespace

TRAVIK_PLUGIN_EXPORT void travik_videoout_png(void) {
  travik_plugin_register(TRAVIK_PLUGIN_VIDEOOUT, TRAVIK_PLUGIN_VERSION, drivers);
}
