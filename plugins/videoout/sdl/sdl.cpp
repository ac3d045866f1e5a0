// The "sdl" video output: a window through SDL2. Each picture's 4:2:0 planes
// are uploaded to a streaming texture and drawn into the window at the
// largest size that keeps its aspect ratio, centred on black. Argument items:
//   size=WxH     the window size (default 640x480)
//   software     use SDL's software renderer
//   title=<text> the window title (default "travik")
#include <SDL.h>
#include <travik/video.h>

#include <cstdio>
#include <string>

#include "options.h"

namespace {

struct Sdl {
  SDL_Window *window = nullptr;
  SDL_Renderer *renderer = nullptr;
  SDL_Texture *texture = nullptr;
  int32_t texture_w = 0, texture_h = 0;
  int32_t draws = 0, flips = 0;
};

int32_t probe(void *, const travik_video_driver *) {
  return (SDL_getenv("DISPLAY") || SDL_getenv("WAYLAND_DISPLAY")) ? 3 : 0;
}

void close(void *handle);

void *open(void *argument) {
  int w = 640, h = 480;
  std::string value;
  if (videoout::option(argument, "size", &value) &&
      (std::sscanf(value.c_str(), "%dx%d", &w, &h) != 2 || w <= 0 || h <= 0))
    return nullptr;
  std::string title = "travik";
  videoout::option(argument, "title", &title);
  if (SDL_InitSubSystem(SDL_INIT_VIDEO) != 0) return nullptr;
  auto *s = new Sdl;
  s->window = SDL_CreateWindow(title.c_str(), 0, 0, w, h, SDL_WINDOW_SHOWN);
  if (!s->window) {
    close(s);
    return nullptr;
  }
  const Uint32 flags = videoout::option(argument, "software") ? SDL_RENDERER_SOFTWARE : 0;
  s->renderer = SDL_CreateRenderer(s->window, -1, flags);
  if (!s->renderer) {
    close(s);
    return nullptr;
  }
  SDL_SetRenderDrawColor(s->renderer, 0, 0, 0, 255);
  SDL_RenderClear(s->renderer);
  SDL_RenderPresent(s->renderer);
  return s;
}

bool make_texture(Sdl *s, int32_t w, int32_t h) {
  if (s->texture && s->texture_w == w && s->texture_h == h) return true;
  if (s->texture) SDL_DestroyTexture(s->texture);
  s->texture = SDL_CreateTexture(s->renderer, SDL_PIXELFORMAT_IYUV, SDL_TEXTUREACCESS_STREAMING,
                                 w, h);
  s->texture_w = s->texture ? w : 0;
  s->texture_h = s->texture ? h : 0;
  return s->texture != nullptr;
}

int32_t init(void *handle, int32_t width, int32_t height, int32_t) {
  auto *s = static_cast<Sdl *>(handle);
  if (width <= 0 || height <= 0) return 1;
  return make_texture(s, width, height) ? 0 : 1;
}

void close(void *handle) {
  auto *s = static_cast<Sdl *>(handle);
  if (s->texture) SDL_DestroyTexture(s->texture);
  if (s->renderer) SDL_DestroyRenderer(s->renderer);
  if (s->window) SDL_DestroyWindow(s->window);
  SDL_QuitSubSystem(SDL_INIT_VIDEO);
  delete s;
}

int32_t allocbuffer(void *, uint8_t *planes[3], int32_t pitches[3], int32_t width,
                    int32_t height) {
  return videoout::alloc_yuv(planes, pitches, width, height);
}

void freebuffer(void *, uint8_t *planes[3]) { videoout::free_yuv(planes); }

int32_t control(void *handle, int32_t command, void *value) {
  auto *s = static_cast<Sdl *>(handle);
  if (!value) return 1;
  if (command == TRAVIK_VIDEO_CONTROL_DRAWS) {
    *static_cast<int32_t *>(value) = s->draws;
    return 0;
  }
  if (command == TRAVIK_VIDEO_CONTROL_FLIPS) {
    *static_cast<int32_t *>(value) = s->flips;
    return 0;
  }
  return 1;
}

int32_t draw(void *handle, int32_t, int32_t, int32_t width, int32_t height, uint8_t *planes[3],
             int32_t pitches[3]) {
  auto *s = static_cast<Sdl *>(handle);
  if (!planes || !pitches || !planes[0] || !planes[1] || !planes[2] || width <= 0 ||
      height <= 0 || !make_texture(s, width, height))
    return 1;
  if (SDL_UpdateYUVTexture(s->texture, nullptr, planes[0], pitches[0], planes[1], pitches[1],
                           planes[2], pitches[2]) != 0)
    return 1;
  int ow = 0, oh = 0;
  SDL_GetRendererOutputSize(s->renderer, &ow, &oh);
  // The largest rectangle of the picture's aspect that fits, centred.
  SDL_Rect rect;
  if (static_cast<int64_t>(ow) * height <= static_cast<int64_t>(oh) * width) {
    rect.w = ow;
    rect.h = static_cast<int>(static_cast<int64_t>(ow) * height / width);
  } else {
    rect.h = oh;
    rect.w = static_cast<int>(static_cast<int64_t>(oh) * width / height);
  }
  rect.x = (ow - rect.w) / 2;
  rect.y = (oh - rect.h) / 2;
  SDL_SetRenderDrawColor(s->renderer, 0, 0, 0, 255);
  SDL_RenderClear(s->renderer);
  SDL_RenderCopy(s->renderer, s->texture, nullptr, &rect);
  s->draws++;
  return 0;
}

int32_t flip(void *handle) {
  auto *s = static_cast<Sdl *>(handle);
  SDL_RenderPresent(s->renderer);
  SDL_PumpEvents();
  s->flips++;
  return 0;
}

int32_t getdelay(void *) { return 0; }

travik_video_driver drivers[] = {
    {"sdl", nullptr, probe, open, init, close, allocbuffer, freebuffer, control, draw, flip,
     getdelay},
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
     nullptr, nullptr}};

}  // namespace

TRAVIK_PLUGIN_EXPORT void travik_videoout_sdl(void) {
  travik_plugin_register(TRAVIK_PLUGIN_VIDEOOUT, TRAVIK_PLUGIN_VERSION, drivers);
}
