#include "direct.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

namespace ffdirect {

// A frame of the allocator made at the padded size: what it needs to go back
// to its allocator. Meanwhile the frame's release is lent_release, and its
// reference count holds those of its holders plus, while libavcodec renders
// into it or keeps it, one for libavcodec's buffer.
struct Lent {
  travik_videoframe *frame;  // null: slot free
  int32_t (*release)(travik_videoframe *);  // the allocator's own
  int32_t width, height;     // size the frame was made at
  int32_t coded_width, coded_height;  // picture size it serves
  Direct *owner;
};

namespace {

// Lent frames of every decoder of the process: frames handed out may be
// released after their decoder is gone. A full table lends nothing more.
constexpr int32_t kSlots = 256;
Lent table[kSlots];
std::mutex table_lock;

// Frames in reserve or held by libavcodec, per decoder.
constexpr int32_t kLimit = 2;

bool is_420(int format) { return format == AV_PIX_FMT_YUV420P || format == AV_PIX_FMT_YUVJ420P; }

Lent *lent_of(const void *opaque) {
  const std::less<const void *> before;
  if (before(opaque, table) || !before(opaque, table + kSlots)) return nullptr;
  return static_cast<Lent *>(const_cast<void *>(opaque));
}

// The last reference went: the frame goes back to its allocator at the size
// it was made at, with the allocator's own release.
void give_back(Lent *lent) {
  travik_videoframe *frame = lent->frame;
  int32_t (*release)(travik_videoframe *) = lent->release;
  frame->width = lent->width;
  frame->height = lent->height;
  frame->release = release;
  frame->refcount = 1;
  {
    std::lock_guard<std::mutex> hold(table_lock);
    lent->frame = nullptr;
  }
  release(frame);
}

int32_t drop(Lent *lent) {
  const int32_t count = __atomic_sub_fetch(&lent->frame->refcount, 1, __ATOMIC_ACQ_REL);
  if (count == 0) give_back(lent);
  return count;
}

int32_t lent_release(travik_videoframe *frame) {
  Lent *lent = nullptr;
  {
    std::lock_guard<std::mutex> hold(table_lock);
    for (Lent &slot : table) {
      if (slot.frame == frame) lent = &slot;
    }
  }
  // Only lent frames carry this release, and a slot stays taken while its
  // frame has references.
  return drop(lent);
}

// libavcodec let go of the picture.
void buffer_free(void *opaque, uint8_t *) {
  auto *lent = static_cast<Lent *>(opaque);
  lent->owner->held.fetch_sub(1);
  drop(lent);
}

Lent *lend(travik_videoframe *frame, Direct *owner, int32_t coded_width, int32_t coded_height) {
  std::lock_guard<std::mutex> hold(table_lock);
  for (Lent &slot : table) {
    if (slot.frame) continue;
    slot = {frame, frame->release, frame->width, frame->height, coded_width, coded_height, owner};
    frame->release = lent_release;
    return &slot;
  }
  return nullptr;
}

Geometry geometry_of(AVCodecContext *ctx, int32_t coded_width, int32_t coded_height) {
  Geometry g;
  g.coded_width = coded_width;
  g.coded_height = coded_height;
  g.width = coded_width;
  g.height = coded_height;
  int align[AV_NUM_DATA_POINTERS];
  avcodec_align_dimensions2(ctx, &g.width, &g.height, align);
  g.align = 16;
  for (int p = 0; p < 3; p++) g.align = FFMAX(g.align, align[p]);
  const int32_t chroma = FFALIGN((g.width + 1) / 2, g.align);
  g.pitches[0] = 2 * chroma;
  g.pitches[1] = g.pitches[2] = chroma;
  return g;
}

// Bytes of the decoder's own buffer for a geometry, with room for the
// reads libavcodec's vector routines make past the end.
int32_t buffer_size(const Geometry &g) {
  return g.pitches[0] * g.height + 2 * g.pitches[1] * ((g.height + 1) / 2) + 128;
}

// The allocator's frame holds a picture of the padded size with exactly
// the pitches libavcodec is given for that size, its planes aligned as
// libavcodec asks.
bool fits(const travik_videoframe *frame, const Geometry &g) {
  if (frame->format != TRAVIK_PIXEL_YUV420P || frame->width != g.width ||
      frame->height != g.height)
    return false;
  for (int p = 0; p < 3; p++) {
    if (!frame->planes[p] || frame->pitches[p] != g.pitches[p] ||
        reinterpret_cast<uintptr_t>(frame->planes[p]) % static_cast<uintptr_t>(g.align) != 0)
      return false;
  }
  return true;
}

int get_buffer(AVCodecContext *ctx, AVFrame *picture, int flags) {
  auto *direct = static_cast<Direct *>(ctx->opaque);
  if (!is_420(picture->format)) return avcodec_default_get_buffer2(ctx, picture, flags);
  const Geometry g = geometry_of(ctx, picture->width, picture->height);
  Lent *lent = nullptr;
  uint8_t *planes[3];
  {
    std::lock_guard<std::mutex> hold(direct->lock);
    Lent *reserve = direct->reserve;
    if (!(flags & AV_GET_BUFFER_FLAG_REF) && reserve && reserve->coded_width == g.coded_width &&
        reserve->coded_height == g.coded_height) {
      lent = reserve;
      direct->reserve = nullptr;
    }
    if (lent) {
      // One buffer stands for the three planes: its release is the frame's.
      picture->buf[0] = av_buffer_create(lent->frame->planes[0], g.pitches[0] * g.height,
                                         buffer_free, lent, 0);
      for (int p = 0; p < 3; p++) planes[p] = lent->frame->planes[p];
    } else {
      if (!direct->pool || !(direct->pool_geometry.same_size(g))) {
        av_buffer_pool_uninit(&direct->pool);  // its buffers stay until let go
        direct->pool = av_buffer_pool_init(buffer_size(g), av_buffer_allocz);
        direct->pool_geometry = g;
      }
      picture->buf[0] = av_buffer_pool_get(direct->pool);
      if (picture->buf[0]) {
        planes[0] = picture->buf[0]->data;
        planes[1] = planes[0] + static_cast<ptrdiff_t>(g.pitches[0]) * g.height;
        planes[2] = planes[1] + static_cast<ptrdiff_t>(g.pitches[1]) * ((g.height + 1) / 2);
      }
    }
  }
  if (!picture->buf[0]) {
    if (lent) {
      direct->held.fetch_sub(1);
      drop(lent);
    }
    return AVERROR(ENOMEM);
  }
  for (int p = 0; p < AV_NUM_DATA_POINTERS; p++) {
    picture->data[p] = p < 3 ? planes[p] : nullptr;
    picture->linesize[p] = p < 3 ? g.pitches[p] : 0;
  }
  picture->extended_data = picture->data;
  return 0;
}

bool debug() {
  const char *value = std::getenv("TRAVIK_DEBUG");
  return value && *value && !(value[0] == '0' && value[1] == 0);
}

}  // namespace

void install(Direct *direct, AVCodecContext *ctx) {
  if (!(ctx->codec->capabilities & AV_CODEC_CAP_DR1)) return;
  const char *wanted = std::getenv("TRAVIK_DECODER_DIRECT");
  if (wanted && std::strcmp(wanted, "0") == 0) return;
  ctx->opaque = direct;
  ctx->get_buffer2 = get_buffer;
}

// The size libavcodec gives get_buffer2 for the stream's pictures: the
// larger of the picture's and the coded size; 0 when pictures are not
// rendered through get_buffer, and for sizes whose frames did not fit.
bool lending_size(const Direct *direct, const AVCodecContext *ctx, int32_t *width,
                  int32_t *height) {
  if (ctx->get_buffer2 != get_buffer || !is_420(ctx->pix_fmt)) return false;
  *width = FFMAX(ctx->width, ctx->coded_width);
  *height = FFMAX(ctx->height, ctx->coded_height);
  if (*width < 2 || *height < 2) return false;
  return *width != direct->unfit_width || *height != direct->unfit_height;
}

// A frame of the allocator at the padded size, lent: null when the
// allocator has none or its frames do not fit (then not asked again for
// that size).
Lent *padded_frame(Direct *direct, AVCodecContext *ctx, int32_t coded_width,
                   int32_t coded_height) {
  const Geometry g = geometry_of(ctx, coded_width, coded_height);
  travik_videoframe templ;
  travik_videoframe_init(&templ, nullptr);
  templ.format = TRAVIK_PIXEL_YUV420P;
  templ.width = g.width;
  templ.height = g.height;
  travik_decoder_allocator *allocator = direct->decoder->allocator;
  auto *frame = static_cast<travik_videoframe *>(allocator->alloc(allocator->user, &templ));
  if (!frame) return nullptr;
  if (!fits(frame, g)) {
    frame->release(frame);
    direct->unfit_width = coded_width;
    direct->unfit_height = coded_height;
    return nullptr;
  }
  Lent *lent = lend(frame, direct, coded_width, coded_height);
  if (!lent) frame->release(frame);
  return lent;
}

void prepare(Direct *direct, AVCodecContext *ctx) {
  int32_t coded_width, coded_height;
  if (!lending_size(direct, ctx, &coded_width, &coded_height)) return;
  Lent *stale = nullptr;
  {
    std::lock_guard<std::mutex> hold(direct->lock);
    Lent *reserve = direct->reserve;
    if (reserve && reserve->coded_width == coded_width && reserve->coded_height == coded_height)
      return;
    stale = reserve;  // made for another size
    direct->reserve = nullptr;
  }
  if (stale) {
    direct->held.fetch_sub(1);
    drop(stale);
  }
  if (direct->held.load() >= kLimit) return;
  Lent *lent = padded_frame(direct, ctx, coded_width, coded_height);
  if (!lent) return;
  direct->held.fetch_add(1);
  std::lock_guard<std::mutex> hold(direct->lock);
  direct->reserve = lent;
}

travik_videoframe *allocate(Direct *direct, AVCodecContext *ctx, travik_videoframe *templ) {
  int32_t coded_width, coded_height;
  if (lending_size(direct, ctx, &coded_width, &coded_height)) {
    if (Lent *lent = padded_frame(direct, ctx, coded_width, coded_height)) {
      travik_videoframe *frame = lent->frame;
      frame->width = templ->width;
      frame->height = templ->height;
      frame->timestamp = templ->timestamp;
      frame->info = templ->info;
      return frame;
    }
  }
  travik_decoder_allocator *allocator = direct->decoder->allocator;
  return static_cast<travik_videoframe *>(allocator->alloc(allocator->user, templ));
}

travik_videoframe *take(const AVFrame *picture, int32_t width, int32_t height, int64_t timestamp,
                        uint32_t info) {
  if (!picture->buf[0]) return nullptr;
  Lent *lent = lent_of(av_buffer_get_opaque(picture->buf[0]));
  if (!lent) return nullptr;
  // The caller's reference to the picture keeps the frame lent meanwhile.
  travik_videoframe *frame = lent->frame;
  for (int p = 0; p < 3; p++) {
    if (picture->data[p] != frame->planes[p]) return nullptr;
  }
  frame->addref(frame);  // the receiver's reference
  frame->width = width;
  frame->height = height;
  frame->timestamp = timestamp;
  frame->info = info;
  frame->format = TRAVIK_PIXEL_YUV420P;
  return frame;
}

void finish(Direct *direct) {
  av_buffer_pool_uninit(&direct->pool);
  Lent *reserve = direct->reserve;
  direct->reserve = nullptr;
  if (reserve) {
    direct->held.fetch_sub(1);
    drop(reserve);
  }
  const int32_t total = direct->direct + direct->copied;
  if (total > 0 && debug()) {
    std::fprintf(stderr, "FFmpeg decoder: %d pictures, %d rendered directly (%d%%), %d copied\n",
                 total, direct->direct, direct->direct * 100 / total, direct->copied);
  }
}

}  // namespace ffdirect
