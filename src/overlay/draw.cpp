// Drawing surfaces: coverage blits onto YUV 4:2:0 and 32-bit pictures,
// outlined text, and the colour-name look-up.
#include <travik/draw.h>
#include <travik/frame.h>
#include <travik/system.h>

#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

#include "overlay/colors.h"

namespace {

// Full-range level to studio-range luma: 16 + floor(v * 219 / 255).
constexpr std::array<uint8_t, 256> make_luma_table() {
  std::array<uint8_t, 256> table{};
  for (int v = 0; v < 256; ++v) table[static_cast<size_t>(v)] = static_cast<uint8_t>(16 + v * 219 / 255);
  return table;
}
constexpr std::array<uint8_t, 256> luma_table = make_luma_table();

// The colour's bytes in memory order: (ignored, red, green, blue).
struct Rgb {
  uint32_t red, green, blue;
};
Rgb color_bytes(uint32_t color) {
  uint8_t bytes[4];
  std::memcpy(bytes, &color, sizeof bytes);
  return {bytes[1], bytes[2], bytes[3]};
}
uint32_t make_color(uint8_t ignored, uint8_t red, uint8_t green, uint8_t blue) {
  const uint8_t bytes[4] = {ignored, red, green, blue};
  uint32_t color;
  std::memcpy(&color, bytes, sizeof color);
  return color;
}

// A clipped blit: w x h pixels from the source's (sx, sy) to the target's (x, y).
struct Span {
  int32_t x, y, w, h, sx, sy;
};

// Coverage onto luma; 2x2 blocks, so an odd last row or column is left.
void coverage_onto_yuv(travik_draw *t, const travik_draw *s, const Span &b) {
  const Rgb c = color_bytes(s->color);
  const uint8_t luma = luma_table[(c.red * 19595 + c.green * 38469 + c.blue * 7471) >> 16];
  const int32_t rows = b.h & ~1;
  const int32_t columns = b.w & ~1;
  for (int32_t j = 0; j < rows; ++j) {
    const uint8_t *a = s->mask + (b.sy + j) * s->width + b.sx;
    uint8_t *mask = t->mask + (b.y + j) * t->width + b.x;
    uint8_t *y = t->planes[0] + (b.y + j) * t->pitches[0] + b.x;
    for (int32_t i = 0; i < columns; ++i) {
      if (!a[i]) continue;
      mask[i] = a[i];
      y[i] = luma;
    }
  }
}

// Luma over luma, blended by the source's coverage; 2x2 blocks as above.
void yuv_over_yuv(travik_draw *t, const travik_draw *s, const Span &b) {
  const int32_t rows = b.h & ~1;
  const int32_t columns = b.w & ~1;
  for (int32_t j = 0; j < rows; ++j) {
    const uint8_t *a = s->mask + (b.sy + j) * s->width + b.sx;
    const uint8_t *from = s->planes[0] + (b.sy + j) * s->pitches[0] + b.sx;
    uint8_t *mask = t->mask + (b.y + j) * t->width + b.x;
    uint8_t *y = t->planes[0] + (b.y + j) * t->pitches[0] + b.x;
    for (int32_t i = 0; i < columns; ++i) {
      const uint32_t alpha = a[i];
      if (!alpha) continue;
      mask[i] = a[i];
      y[i] = alpha == 255 ? from[i]
                          : static_cast<uint8_t>((from[i] * alpha + (255 - alpha) * y[i]) >> 8);
    }
  }
}

// Coverage onto 32-bit pixels. The blend is taken on the whole word, not
// per channel: channels bleed into each other at partial coverage, and the
// products wrap modulo 2^32. Pictures rely on that exact result, so it is
// kept on every byte order.
void coverage_onto_32bit(travik_draw *t, const travik_draw *s, const Span &b) {
  const Rgb c = color_bytes(s->color);
  const uint32_t pixel = 0xFF000000u | c.red << 16 | c.green << 8 | c.blue;
  for (int32_t j = 0; j < b.h; ++j) {
    const uint8_t *a = s->mask + (b.sy + j) * s->width + b.sx;
    uint8_t *row = t->planes[0] + (b.y + j) * t->pitches[0] + 4 * b.x;
    for (int32_t i = 0; i < b.w; ++i) {
      const uint32_t alpha = a[i];
      if (!alpha) continue;
      uint32_t value = pixel;
      if (alpha != 255) {
        uint32_t old;
        std::memcpy(&old, row + 4 * i, sizeof old);
        value = (old * (255 - alpha) + pixel * alpha) >> 8;
      }
      std::memcpy(row + 4 * i, &value, sizeof value);
    }
  }
}

// Limits [start, start + length) to [low, high) and moves `source` along.
// Returns false when nothing is left.
bool clip_axis(int32_t &start, int32_t &length, int32_t &source, int32_t low, int32_t high) {
  if (start < low) {
    length = std::min(high - low, start + length - low);
    source += low - start;
    start = low;
  } else if (start + length > high) {
    length = high - start;
  }
  return length > 0;
}

// Renders one glyph into the w x h image. A glyph whose bitmap box reaches
// outside the image (a negative bearing, an overhang past the last advance,
// a bitmap above the line) is rendered into `scratch` and only its visible
// part is copied: the driver writes without bounds.
void render_glyph(travik_font *font, const travik_font_glyph &glyph, uint8_t *image, int32_t w,
                  int32_t h, int32_t x, int32_t y, uint8_t *scratch) {
  const int32_t gw = glyph.word[5];
  const int32_t gh = glyph.word[7];
  if (gw <= 0 || gh <= 0) return;
  if (x >= 0 && y >= 0 && x + gw <= w && y + gh <= h) {
    travik_font_render(font, &glyph, image, x, y, w);
    return;
  }
  std::memset(scratch, 0, static_cast<size_t>(gw) * static_cast<size_t>(gh));
  travik_font_render(font, &glyph, scratch, 0, 0, gw);
  for (int32_t j = std::max(0, -y); j < gh && y + j < h; ++j) {
    for (int32_t i = std::max(0, -x); i < gw && x + i < w; ++i) {
      uint8_t &to = image[(y + j) * w + x + i];
      to = std::max(to, scratch[j * gw + i]);
    }
  }
}

// The outline: each inner pixel gathers its four neighbours and half its
// four diagonal ones; the border rows and columns are copied.
void thicken(const uint8_t *in, uint8_t *out, int32_t w, int32_t h) {
  for (int32_t j = 0; j < h; ++j) {
    const uint8_t *row = in + j * w;
    uint8_t *to = out + j * w;
    if (j == 0 || j == h - 1 || w < 3) {
      std::memcpy(to, row, static_cast<size_t>(w));
      continue;
    }
    const uint8_t *up = row - w;
    const uint8_t *down = row + w;
    to[0] = row[0];
    for (int32_t i = 1; i < w - 1; ++i) {
      int32_t sum = row[i] + row[i - 1] + row[i + 1] + up[i] + down[i] +
                    (up[i - 1] + up[i + 1] + down[i - 1] + down[i + 1]) / 2;
      to[i] = static_cast<uint8_t>(std::min(255, sum));
    }
    to[w - 1] = row[w - 1];
  }
}

}  // namespace

extern "C" {

travik_draw *travik_draw_create(int32_t width, int32_t height, uint8_t *const *planes,
                                const int32_t *pitches, int32_t format) {
  auto *draw = static_cast<travik_draw *>(std::calloc(1, sizeof(travik_draw)));
  // A negative size would make the mask and plane sizes wrap: it is an
  // empty surface.
  width = std::max(width, 0);
  height = std::max(height, 0);
  draw->width = width;
  draw->height = height;
  draw->format = format;
  draw->clip = {0, 0, static_cast<int16_t>(width), static_cast<int16_t>(height)};
  const size_t area = static_cast<size_t>(width) * static_cast<size_t>(height);
  draw->mask = static_cast<uint8_t *>(std::calloc(area ? area : 1, 1));
  int32_t bytes_per_pixel = 0;
  if (format == TRAVIK_PIXEL_RGB32 || format == TRAVIK_PIXEL_ARGB32) bytes_per_pixel = 4;
  if (format == TRAVIK_PIXEL_RGB565 || format == TRAVIK_PIXEL_RGB555) bytes_per_pixel = 2;
  if (format == TRAVIK_PIXEL_GRAY8) bytes_per_pixel = 1;
  if (planes) {
    if (format == TRAVIK_PIXEL_YUV420P) {
      for (int k = 0; k < 3; ++k) {
        draw->planes[k] = planes[k];
        draw->pitches[k] = pitches[k];
      }
    } else if (bytes_per_pixel > 1) {
      draw->planes[0] = planes[0];
      draw->pitches[0] = pitches[0];
    }
  } else if (format == TRAVIK_PIXEL_YUV420P) {
    // One block: luma of `luma` bytes, then V and U of luma / 4 each.
    const size_t luma = (area + 31) & ~static_cast<size_t>(31);
    auto *block = static_cast<uint8_t *>(std::calloc(luma + luma / 2 ? luma + luma / 2 : 1, 1));
    draw->planes[0] = block;
    draw->planes[2] = block + luma;
    draw->planes[1] = block + luma + luma / 4;
    if (height > 0) {
      draw->pitches[0] = static_cast<int32_t>(luma / static_cast<size_t>(height));
      draw->pitches[1] = draw->pitches[2] = static_cast<int32_t>(luma / (2 * static_cast<size_t>(height)));
    }
    draw->owned = 1;
  } else if (bytes_per_pixel) {
    draw->planes[0] = static_cast<uint8_t *>(std::calloc(area ? area * static_cast<size_t>(bytes_per_pixel) : 1, 1));
    draw->pitches[0] = bytes_per_pixel * width;
    draw->owned = 1;
  }
  return draw;
}

void travik_draw_destroy(travik_draw *draw) {
  if (draw->owned) std::free(draw->planes[0]);
  std::free(draw->mask);
  std::free(draw);
}

int32_t travik_draw_clear(travik_draw *draw) {
  std::memset(draw->mask, 0, static_cast<size_t>(draw->width) * static_cast<size_t>(draw->height));
  return 0;
}

int32_t travik_draw_setfont(travik_draw *draw, travik_font *font) {
  if (!font) travik_critical_detail("travik_draw_setfont", "draw", 138, "font");
  draw->font = font;
  return 0;
}

int32_t travik_draw_setclip(travik_draw *draw, const travik_draw_rect *rect) {
  // Only the size: the origin stays where it was.
  draw->clip.w = static_cast<int16_t>(std::min<int32_t>(rect->w, draw->width));
  draw->clip.h = static_cast<int16_t>(std::min<int32_t>(rect->h, draw->height));
  return 0;
}

int32_t travik_draw_setcolor(travik_draw *draw, uint32_t color) {
  draw->color = color;
  return 0;
}

int32_t travik_draw_blit(travik_draw *target, int32_t x, int32_t y, int32_t w, int32_t h,
                         travik_draw *source, int32_t sx, int32_t sy) {
  const travik_draw_rect &clip = target->clip;
  if (w <= 0 || h <= 0) return 0;
  if (x + w <= clip.x || x >= clip.x + clip.w || y + h <= clip.y || y >= clip.y + clip.h) return 0;
  Span b{x, y, w, h, sx, sy};
  if (!clip_axis(b.x, b.w, b.sx, clip.x, clip.x + clip.w)) return 0;
  if (!clip_axis(b.y, b.h, b.sy, clip.y, clip.y + clip.h)) return 0;
  // The clip rectangle only ever shrinks inside the target, but the source
  // rectangle is the caller's: keep both inside their surfaces so that no
  // pixel is read or written outside them.
  if (!clip_axis(b.sx, b.w, b.x, 0, source->width)) return 0;
  if (!clip_axis(b.sy, b.h, b.y, 0, source->height)) return 0;
  if (!clip_axis(b.x, b.w, b.sx, 0, target->width)) return 0;
  if (!clip_axis(b.y, b.h, b.sy, 0, target->height)) return 0;
  if (target->format == TRAVIK_PIXEL_YUV420P && source->format == TRAVIK_PIXEL_YUV420P) {
    yuv_over_yuv(target, source, b);
  } else if (target->format == TRAVIK_PIXEL_YUV420P && source->format == TRAVIK_PIXEL_GRAY8) {
    coverage_onto_yuv(target, source, b);
  } else if (target->format == TRAVIK_PIXEL_ARGB32 && source->format == TRAVIK_PIXEL_GRAY8) {
    coverage_onto_32bit(target, source, b);
  }
  return 0;
}

int32_t travik_draw_drawtext(travik_draw *draw, const travik_draw_rect *rect, const char *text,
                             int32_t length, int32_t flags) {
  travik_font *font = draw->font;
  if (!font) return 2;
  travik_font_glyph *glyphs = nullptr;
  int32_t count = 0;
  travik_font_string2glyph(font, text, length, &glyphs, &count);
  travik_font_extents extents;
  travik_font_getglyphextents(font, glyphs, count, &extents);
  const int32_t tw = extents.width;
  const int32_t th = extents.height;

  int32_t top = rect->y;
  if (flags & TRAVIK_DRAW_BOTTOM) {
    top = rect->y + rect->h - th;
  } else if (flags & TRAVIK_DRAW_VCENTER) {
    top = rect->y + ((rect->h - th) >> 1);
  }
  int32_t left = rect->x;
  if (flags & TRAVIK_DRAW_RIGHT) {
    left = rect->x + rect->w - tw;
  } else if (flags & TRAVIK_DRAW_HCENTER) {
    left = rect->x + ((rect->w - tw) >> 1);
  }
  const travik_draw_rect &clip = draw->clip;
  if (tw < 1 || th < 1 || left + tw <= clip.x || left >= clip.x + clip.w || top + th <= clip.y ||
      top >= clip.y + clip.h) {
    std::free(glyphs);
    return 0;
  }

  travik_draw *surface = travik_draw_create(tw, th, nullptr, nullptr, TRAVIK_PIXEL_GRAY8);
  const size_t area = static_cast<size_t>(tw) * static_cast<size_t>(th);
  auto *image = static_cast<uint8_t *>(std::calloc(area, 1));
  size_t largest = 0;
  for (int32_t i = 0; i < count; ++i) {
    largest = std::max(largest, static_cast<size_t>(std::max<int16_t>(glyphs[i].word[5], 0)) *
                                    static_cast<size_t>(std::max<int16_t>(glyphs[i].word[7], 0)));
  }
  auto *scratch = static_cast<uint8_t *>(std::malloc(largest ? largest : 1));
  int32_t pen = 0;
  for (int32_t i = 0; i < count; ++i) {
    render_glyph(font, glyphs[i], image, tw, th, pen + glyphs[i].word[1], glyphs[i].word[2],
                 scratch);
    pen += glyphs[i].word[4];
  }
  std::free(scratch);

  // The black outline first, then the text itself over it.
  thicken(image, surface->planes[0], tw, th);
  std::memcpy(surface->mask, surface->planes[0], area);
  surface->color = make_color(255, 0, 0, 0);
  travik_draw_blit(draw, left, top, tw, th, surface, 0, 0);
  std::memcpy(surface->planes[0], image, area);
  std::memcpy(surface->mask, image, area);
  surface->color = draw->color;
  travik_draw_blit(draw, left, top, tw, th, surface, 0, 0);

  std::free(image);
  travik_draw_destroy(surface);
  std::free(glyphs);
  return 0;
}

uint32_t travik_string2rgb(const char *name) {
  for (const travik_color_name *entry = travik_color_names; entry->name; ++entry) {
    if (strcasecmp(name, entry->name) == 0) return 0xFF000000u | entry->value;
  }
  return 0;
}

}  // extern "C"
