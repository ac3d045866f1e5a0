// The "fbdev" video output: a Linux framebuffer device in 32-bit (RGB32) or
// 16-bit (RGB565) pixels, the picture converted straight into the mapped
// screen memory, scaled to the screen size and optionally turned.
//
// Argument items (all optional):
//   device=<path>     the device, default /dev/fb0 (a leading bare path too)
//   geometry=WxHxBPP  the screen instead of asking the device (for a regular
//                     file standing in for it); pitch=<bytes> its line length
//   rotate=1|3        quarter turn counter-clockwise (16-bit only) or clockwise
//   swap              16-bit pixels with their two bytes exchanged
//
// With rotation the picture is first scaled (nearest neighbour) to the turned
// screen size and then converted with the quarter-turn routine; without, the
// converter scales (or, at the screen's own size, converts in one pass);
// with swap, whose routine cannot scale, the picture is scaled first.
#include <fcntl.h>
#include <linux/fb.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <travik/scale.h>
#include <travik/video.h>
#include <travik/yuv2rgb.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "options.h"

namespace {

struct Fbdev {
  int fd = -1;
  uint8_t *map = nullptr;
  size_t size = 0;
  int32_t width = 0, height = 0, bpp = 0, pitch = 0;
  int32_t rotation = 0;
  travik_yuv2rgb *converter = nullptr;
  int32_t scaled_from_w = -1, scaled_from_h = -1;  // the converter's scaling source
  // The picture scaled for a turn, or to the screen for the swapped routine.
  uint8_t *turned[3] = {nullptr, nullptr, nullptr};
  int32_t turned_pitches[3] = {0, 0, 0};
  int32_t draws = 0, flips = 0;
};

bool parse_geometry(const std::string &text, int32_t *w, int32_t *h, int32_t *bpp) {
  return std::sscanf(text.c_str(), "%dx%dx%d", w, h, bpp) == 3 && *w > 0 && *h > 0;
}

int32_t probe(void *, const travik_video_driver *) {
  return access("/dev/fb0", R_OK | W_OK) == 0 ? 2 : 0;
}

void close(void *handle);

void *open(void *argument) {
  std::string device = "/dev/fb0";
  std::string value;
  if (videoout::option(argument, "device", &value) && !value.empty()) {
    device = value;
  } else if (argument && static_cast<const char *>(argument)[0] == '/') {
    device = static_cast<const char *>(argument);
    device = device.substr(0, device.find(','));
  }
  auto *fb = new Fbdev;
  fb->fd = ::open(device.c_str(), O_RDWR | O_CLOEXEC);
  if (fb->fd < 0) {
    close(fb);
    return nullptr;
  }
  if (videoout::option(argument, "geometry", &value)) {
    if (!parse_geometry(value, &fb->width, &fb->height, &fb->bpp)) {
      close(fb);
      return nullptr;
    }
    fb->pitch = videoout::option_int(argument, "pitch", fb->width * fb->bpp / 8);
  } else {
    fb_var_screeninfo var;
    fb_fix_screeninfo fix;
    if (ioctl(fb->fd, FBIOGET_VSCREENINFO, &var) != 0 ||
        ioctl(fb->fd, FBIOGET_FSCREENINFO, &fix) != 0) {
      close(fb);
      return nullptr;
    }
    fb->width = static_cast<int32_t>(var.xres);
    fb->height = static_cast<int32_t>(var.yres);
    fb->bpp = static_cast<int32_t>(var.bits_per_pixel);
    fb->pitch = static_cast<int32_t>(fix.line_length);
  }
  if ((fb->bpp != 32 && fb->bpp != 16) || fb->pitch < fb->width * fb->bpp / 8) {
    close(fb);
    return nullptr;
  }
  fb->size = static_cast<size_t>(fb->pitch) * fb->height;
  struct stat st;
  if (fstat(fb->fd, &st) == 0 && S_ISREG(st.st_mode) &&
      static_cast<size_t>(st.st_size) < fb->size &&
      ftruncate(fb->fd, static_cast<off_t>(fb->size)) != 0) {
    close(fb);
    return nullptr;
  }
  void *map = mmap(nullptr, fb->size, PROT_READ | PROT_WRITE, MAP_SHARED, fb->fd, 0);
  if (map == MAP_FAILED) {
    close(fb);
    return nullptr;
  }
  fb->map = static_cast<uint8_t *>(map);
  const int32_t format = fb->bpp == 32 ? TRAVIK_PIXEL_RGB32 : TRAVIK_PIXEL_RGB565;
  fb->converter = videoout::option(argument, "swap") ? travik_yuv2rgb_create_swap(format)
                                                    : travik_yuv2rgb_create(format);
  fb->rotation = videoout::option_int(argument, "rotate", 0);
  if (fb->rotation != 0 && !travik_yuv2rgb_setrotation(fb->converter, fb->rotation)) {
    close(fb);
    return nullptr;
  }
  return fb;
}

int32_t init(void *, int32_t, int32_t, int32_t) { return 0; }

void close(void *handle) {
  auto *fb = static_cast<Fbdev *>(handle);
  if (fb->map) munmap(fb->map, fb->size);
  if (fb->fd >= 0) ::close(fb->fd);
  travik_yuv2rgb_destroy(fb->converter);
  videoout::free_yuv(fb->turned);
  delete fb;
}

int32_t control(void *handle, int32_t command, void *value) {
  auto *fb = static_cast<Fbdev *>(handle);
  return videoout::control_counts(command, value, fb->draws, fb->flips);
}

void convert(Fbdev *fb, int32_t width, int32_t height, uint8_t *const planes[3],
             const int32_t pitches[3]) {
  travik_yuv2rgb_convert(fb->converter, width, height, fb->map, fb->pitch, planes[0], planes[1],
                         planes[2], pitches[0], pitches[1]);
}

int32_t draw(void *handle, int32_t, int32_t, int32_t width, int32_t height, uint8_t *planes[3],
             int32_t pitches[3]) {
  auto *fb = static_cast<Fbdev *>(handle);
  if (!planes || !pitches || !planes[0] || !planes[1] || !planes[2] || width <= 0 ||
      height <= 0 || width >= 32768 || height >= 32768)
    return 1;
  if (fb->rotation == 0) {
    // The converter maps the picture onto the whole screen.
    if (width != fb->scaled_from_w || height != fb->scaled_from_h) {
      travik_yuv2rgb_setscale(fb->converter, width, height, fb->width, fb->height);
      fb->scaled_from_w = width;
      fb->scaled_from_h = height;
    }
    if (!fb->converter->scaling) {
      convert(fb, width, height, planes, pitches);
    } else if (fb->converter->scaled[0] != fb->converter->plain[0]) {
      convert(fb, fb->width, fb->height, planes, pitches);
    } else {
      // The byte-swapped routine also serves scaling but ignores the maps
      // (it would read a screen-sized area of the smaller picture): scale
      // the picture to the screen first, then convert it unscaled.
      if (!fb->turned[0])
        videoout::alloc_yuv(fb->turned, fb->turned_pitches, fb->width, fb->height);
      travik_scale_yuv_frame(width, height, fb->width, fb->height, fb->turned,
                             fb->turned_pitches, planes, pitches);
      convert(fb, fb->width, fb->height, fb->turned, fb->turned_pitches);
    }
  } else {
    // A turned picture is screen-height pixels wide and screen-width tall.
    const int32_t tw = fb->height, th = fb->width;
    if (width == tw && height == th) {
      convert(fb, tw, th, planes, pitches);
    } else {
      if (!fb->turned[0]) videoout::alloc_yuv(fb->turned, fb->turned_pitches, tw, th);
      travik_scale_yuv_frame(width, height, tw, th, fb->turned, fb->turned_pitches, planes,
                             pitches);
      convert(fb, tw, th, fb->turned, fb->turned_pitches);
    }
  }
  fb->draws++;
  return 0;
}

int32_t flip(void *handle) {
  auto *fb = static_cast<Fbdev *>(handle);
  fb->flips++;
  return 0;
}

int32_t getdelay(void *) { return 0; }

travik_video_driver drivers[] = {
    {"fbdev", nullptr, probe, open, init, close,
     videoout::allocbuffer, videoout::freebuffer, control, draw, flip, getdelay},
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
     nullptr, nullptr}};

}  // namespace

TRAVIK_PLUGIN_EXPORT void travik_videoout_fbdev(void) {
  travik_plugin_register(TRAVIK_PLUGIN_VIDEOOUT, TRAVIK_PLUGIN_VERSION, drivers);
}
