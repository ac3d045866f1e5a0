// Decoders over libavcodec: one driver per codec number of the shared
// codec table (H.264, HEVC, MPEG-1/2, MPEG-4 part 2, VP8, VP9, AV1, Motion
// JPEG, Theora; AAC, MPEG audio, AC-3, E-AC-3, FLAC, Vorbis, Opus, ALAC,
// PCM variants, A-law and mu-law), below the native decoders in priority.
//
// Video comes out as planar 4:2:0 8-bit pictures (format 1) in frames from
// the decoder's allocator: non-reference 4:2:0 pictures are decoded straight
// into them where the allocator's frames suit libavcodec (direct.h), other
// 4:2:0 pictures are copied plane by plane, every other layout is converted
// with libswscale. Odd picture sizes lose their last column or line, since a
// 4:2:0 frame of the allocator holds whole chroma samples only. Full-range 4:2:0 (JPEG) pictures are passed on
// unchanged. `info` is 1 on key frames. The frame argument of
// travik_decoder_decode() is a pointer to the skip level (int32_t): 0
// decodes everything, 1 skips the loop filter on non-reference frames, 2
// also drops non-reference frames. Frame threads follow
// the processor count (or TRAVIK_DECODER_THREADS).
//
// Audio comes out as interleaved signed 16-bit samples at the stream's
// rate and channel count (libswresample converts planar and float
// formats), every frame stamped in microseconds.
//
// Packet conventions shared with the FFmpeg demuxer: `user0` and `user1`
// are audio samples to drop at the start and at the end of the packet.
//
// Draining: the decoders hold pictures back (reordering, frame threads).
// A packet without data (data NULL, size 0) asks for them: each decode call
// then hands out one held frame, and a negative result once none is left,
// after which the decoder takes packets again.
#include "../../ffmpeg/codec_map.h"
#include "direct.h"

#include <travik/decoder.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
#include <libavutil/intreadwrite.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

constexpr AVRational kMicroseconds = {1, 1000000};

struct Dec {
  travik_decoder *decoder;
  AVCodecContext *ctx;
  AVPacket *packet;
  AVFrame *frame;
  uint8_t *buffer;          // padded copy of the current packet
  int32_t capacity;
  SwsContext *sws;          // converter of non-4:2:0 pictures, made on need
  SwrContext *swr;          // converter of non-16-bit audio, made on need
  int swr_format;           // the source format swr was made for
  int swr_rate;
  AVChannelLayout swr_layout;
  int64_t next_pts;         // expected time of the next frame, AV_NOPTS_VALUE when unknown
  int64_t last_pts;         // video: time of the last picture
  int64_t skip_pts;         // audio: time of the packet whose first samples are dropped
  int64_t skip_time;        // and their duration in microseconds, 0 when none
  int32_t level;            // skip level applied
  bool draining;
  ffdirect::Direct direct;  // video: pictures rendered into the allocator's frames
};

// Decoding threads: TRAVIK_DECODER_THREADS when it names a count (1 to 16,
// for devices that need a core free, and for comparing players at equal
// thread counts), otherwise one per processor.
int32_t processors() {
  const char *wanted = std::getenv("TRAVIK_DECODER_THREADS");
  long n = wanted && *wanted ? std::strtol(wanted, nullptr, 10) : 0;
  if (n < 1) n = sysconf(_SC_NPROCESSORS_ONLN);
  return n < 1 ? 1 : n > 16 ? 16 : static_cast<int32_t>(n);
}

// The highest skip level honoured: TRAVIK_DECODER_SKIP when it names one
// (0 to 2; 0 decodes every picture whole whatever the player asks, for
// output compared picture by picture with another decoder's), otherwise 2.
int32_t max_skip_level() {
  const char *wanted = std::getenv("TRAVIK_DECODER_SKIP");
  if (!wanted || *wanted < '0' || *wanted > '2' || wanted[1] != '\0') return 2;
  return *wanted - '0';
}

void apply_level(Dec *d, int32_t level) {
  static const int32_t highest = max_skip_level();
  if (level > highest) level = highest;
  if (level == d->level) return;
  d->level = level;
  // Only pictures that nothing is predicted from are degraded or dropped:
  // skipping the loop filter of a reference picture would carry its
  // artefacts into every picture up to the next key frame.
  d->ctx->skip_loop_filter = level >= 1 ? AVDISCARD_NONREF : AVDISCARD_DEFAULT;
  d->ctx->skip_frame = level >= 2 ? AVDISCARD_NONREF : AVDISCARD_DEFAULT;
}

void *ff_open(travik_decoder *decoder) {
  const travik_codec_info &info = decoder->stream->info;
  if (!decoder->allocator || !decoder->allocator->alloc) return nullptr;
  const AVCodecID id = travik_ffmpeg::codec_id(info.codec);
  const AVCodec *codec = avcodec_find_decoder(id);
  if (!codec) return nullptr;
  const bool video = codec->type == AVMEDIA_TYPE_VIDEO;
  if (info.type != (video ? TRAVIK_STREAM_VIDEO : TRAVIK_STREAM_AUDIO)) return nullptr;
  auto *d = new Dec();
  d->decoder = decoder;
  d->direct.decoder = decoder;
  AVCodecContext *ctx = avcodec_alloc_context3(codec);
  ctx->pkt_timebase = kMicroseconds;
  ctx->codec_tag = info.tag;
  ctx->bit_rate = info.bitrate > 0 ? info.bitrate : 0;
  ctx->block_align = info.block_align;
  ctx->bits_per_coded_sample = info.bits_per_sample;
  if (video) {
    ctx->width = info.width;
    ctx->height = info.height;
    ctx->thread_count = processors();
    ctx->thread_type = FF_THREAD_FRAME | FF_THREAD_SLICE;
    ffdirect::install(&d->direct, ctx);
  } else {
    ctx->sample_rate = info.sample_rate;
    if (info.channels > 0) av_channel_layout_default(&ctx->ch_layout, info.channels);
  }
  if (info.extradata && info.extradata_size > 0) {
    ctx->extradata =
        static_cast<uint8_t *>(av_mallocz(info.extradata_size + AV_INPUT_BUFFER_PADDING_SIZE));
    std::memcpy(ctx->extradata, info.extradata, info.extradata_size);
    ctx->extradata_size = info.extradata_size;
  }
  if (avcodec_open2(ctx, codec, nullptr) < 0) {
    avcodec_free_context(&ctx);
    delete d;
    return nullptr;
  }
  d->ctx = ctx;
  d->packet = av_packet_alloc();
  d->frame = av_frame_alloc();
  d->next_pts = AV_NOPTS_VALUE;
  d->last_pts = AV_NOPTS_VALUE;
  return d;
}

void ff_close(void *state) {
  auto *d = static_cast<Dec *>(state);
  if (!d) return;
  const bool video = d->ctx->codec_type == AVMEDIA_TYPE_VIDEO;
  avcodec_free_context(&d->ctx);  // lets go of every lent picture
  if (video) ffdirect::finish(&d->direct);
  av_packet_free(&d->packet);
  av_frame_free(&d->frame);
  av_free(d->buffer);
  sws_freeContext(d->sws);
  swr_free(&d->swr);
  av_channel_layout_uninit(&d->swr_layout);
  delete d;
}

// ---------------------------------------------------------------- video

void copy_plane(uint8_t *to, int32_t to_pitch, const uint8_t *from, int from_pitch, int32_t width,
                int32_t height) {
  for (int32_t y = 0; y < height; y++)
    std::memcpy(to + static_cast<ptrdiff_t>(y) * to_pitch,
                from + static_cast<ptrdiff_t>(y) * from_pitch, width);
}

// Containers such as MPEG program streams time only some pictures: a
// picture without a time of its own, or repeating the last one, gets the
// last time plus one frame's duration.
int64_t picture_time(Dec *d, const AVFrame *f) {
  int64_t at = f->best_effort_timestamp;
  const bool usable = at != AV_NOPTS_VALUE && (d->last_pts == AV_NOPTS_VALUE || at > d->last_pts);
  if (!usable) at = d->next_pts;
  if (at == AV_NOPTS_VALUE) return -1;
  AVRational rate = d->ctx->framerate;
  if (rate.num <= 0 || rate.den <= 0) {
    const int32_t hundredths = d->decoder->stream->info.framerate;
    rate = hundredths > 0 ? AVRational{hundredths, 100} : AVRational{25, 1};
  }
  d->last_pts = at;
  d->next_pts = at + av_rescale(1000000, rate.den, rate.num);
  return at;
}

void *video_frame(Dec *d, const AVFrame *f) {
  const int32_t width = f->width & ~1, height = f->height & ~1;
  if (width < 2 || height < 2) return nullptr;
  const int64_t at = picture_time(d, f);
  travik_videoframe templ;
  travik_videoframe_init(&templ, nullptr);
  templ.format = TRAVIK_PIXEL_YUV420P;
  templ.width = width;
  templ.height = height;
  templ.info = f->key_frame ? 1 : 0;
  templ.timestamp = at;
  if (travik_videoframe *lent = ffdirect::take(f, width, height, at, templ.info)) {
    d->direct.direct++;
    return lent;
  }
  travik_videoframe *out = ffdirect::allocate(&d->direct, d->ctx, &templ);
  if (!out) return nullptr;
  out->info = templ.info;
  out->timestamp = templ.timestamp;
  const int format = f->format;
  if (format == AV_PIX_FMT_YUV420P || format == AV_PIX_FMT_YUVJ420P) {
    copy_plane(out->planes[0], out->pitches[0], f->data[0], f->linesize[0], width, height);
    copy_plane(out->planes[1], out->pitches[1], f->data[1], f->linesize[1], width / 2, height / 2);
    copy_plane(out->planes[2], out->pitches[2], f->data[2], f->linesize[2], width / 2, height / 2);
  } else {
    d->sws = sws_getCachedContext(d->sws, width, height, static_cast<AVPixelFormat>(format), width,
                                  height, AV_PIX_FMT_YUV420P, SWS_BICUBIC, nullptr, nullptr,
                                  nullptr);
    if (!d->sws) {
      out->release(out);
      return nullptr;
    }
    uint8_t *planes[4] = {out->planes[0], out->planes[1], out->planes[2], nullptr};
    int pitches[4] = {out->pitches[0], out->pitches[1], out->pitches[2], 0};
    sws_scale(d->sws, f->data, f->linesize, 0, height, planes, pitches);
  }
  d->direct.copied++;
  return out;
}

// ---------------------------------------------------------------- audio

void *audio_frame(Dec *d, const AVFrame *f) {
  const int channels = f->ch_layout.nb_channels;
  if (channels < 1 || f->nb_samples < 1 || f->sample_rate < 1) return nullptr;
  // The frame's own time includes the samples dropped at its start; the
  // best-effort guess does not.
  int64_t at = f->pts != AV_NOPTS_VALUE                    ? f->pts
               : f->best_effort_timestamp != AV_NOPTS_VALUE ? f->best_effort_timestamp
                                                            : d->next_pts;
  // When libavcodec drops samples at the start of a packet it leaves the
  // frame at the packet's time, or without a time: move it past them.
  if (d->skip_time) {
    if (at == AV_NOPTS_VALUE || at == d->skip_pts) at = d->skip_pts + d->skip_time;
    d->skip_time = 0;
  }
  if (at == AV_NOPTS_VALUE) at = -1;
  if (at >= 0) d->next_pts = at + av_rescale(f->nb_samples, 1000000, f->sample_rate);
  travik_audioframe templ;
  travik_audioframe_init(&templ, nullptr);
  templ.count = f->nb_samples * channels;
  templ.timestamp = at;
  travik_decoder_allocator *allocator = d->decoder->allocator;
  auto *out = static_cast<travik_audioframe *>(allocator->alloc(allocator->user, &templ));
  if (!out) return nullptr;
  out->timestamp = at;
  if (f->format == AV_SAMPLE_FMT_S16) {
    std::memcpy(out->samples, f->data[0], static_cast<size_t>(templ.count) * 2);
    return out;
  }
  if (!d->swr || d->swr_format != f->format || d->swr_rate != f->sample_rate ||
      av_channel_layout_compare(&d->swr_layout, &f->ch_layout) != 0) {
    swr_free(&d->swr);
    av_channel_layout_uninit(&d->swr_layout);
    // libswresample of this release takes the layouts without const.
    auto *layout = const_cast<AVChannelLayout *>(&f->ch_layout);
    if (swr_alloc_set_opts2(&d->swr, layout, AV_SAMPLE_FMT_S16, f->sample_rate, layout,
                            static_cast<AVSampleFormat>(f->format), f->sample_rate,
                            0, nullptr) < 0 ||
        swr_init(d->swr) < 0) {
      swr_free(&d->swr);
      out->release(out);
      return nullptr;
    }
    av_channel_layout_copy(&d->swr_layout, &f->ch_layout);
    d->swr_format = f->format;
    d->swr_rate = f->sample_rate;
  }
  uint8_t *to[1] = {reinterpret_cast<uint8_t *>(out->samples)};
  int made = swr_convert(d->swr, to, f->nb_samples, const_cast<const uint8_t **>(f->extended_data),
                         f->nb_samples);
  if (made < 0) {
    out->release(out);
    return nullptr;
  }
  out->count = made * channels;
  return out;
}

// ---------------------------------------------------------------- driver

// Takes one decoded frame if libavcodec has one: 1 with a frame in *frame,
// 0 when it needs input, -1 at the end of a drain or on an error.
int receive(Dec *d, void **frame) {
  for (;;) {
    int r = avcodec_receive_frame(d->ctx, d->frame);
    if (r == AVERROR(EAGAIN)) return 0;
    if (r == AVERROR_EOF) {
      avcodec_flush_buffers(d->ctx);
      d->draining = false;
      return -1;
    }
    if (r < 0) return -1;
    void *out = d->ctx->codec_type == AVMEDIA_TYPE_VIDEO ? video_frame(d, d->frame)
                                                          : audio_frame(d, d->frame);
    av_frame_unref(d->frame);
    if (out) {
      *frame = out;
      return 1;
    }
    // An unusable picture or no room in the allocator: try the next one.
  }
}

// Fills the reusable packet with a padded copy of the payload and the
// current packet's time, key flag and sample trimming.
bool fill_packet(Dec *d, const uint8_t *data, int32_t size) {
  if (size + AV_INPUT_BUFFER_PADDING_SIZE > d->capacity) {
    av_free(d->buffer);
    d->capacity = size + AV_INPUT_BUFFER_PADDING_SIZE;
    d->buffer = static_cast<uint8_t *>(av_malloc(d->capacity));
  }
  std::memcpy(d->buffer, data, size);
  std::memset(d->buffer + size, 0, AV_INPUT_BUFFER_PADDING_SIZE);
  av_packet_unref(d->packet);
  d->packet->data = d->buffer;
  d->packet->size = size;
  const travik_packet *source = d->decoder->packet;
  // The packet's time belongs to its first byte only.
  const bool whole = source && source->data == data;
  d->packet->pts = whole && source->pts >= 0 ? source->pts : AV_NOPTS_VALUE;
  if (whole && (source->flags & TRAVIK_PACKET_KEY)) d->packet->flags |= AV_PKT_FLAG_KEY;
  if (whole && source->user0 > 0 && d->ctx->sample_rate > 0 && source->pts != -1) {
    d->skip_pts = source->pts;
    d->skip_time = av_rescale(source->user0, 1000000, d->ctx->sample_rate);
  }
  if (whole && (source->user0 > 0 || source->user1 > 0)) {
    uint8_t *skip = av_packet_new_side_data(d->packet, AV_PKT_DATA_SKIP_SAMPLES, 10);
    if (!skip) return false;
    AV_WL32(skip, static_cast<uint32_t>(source->user0 > 0 ? source->user0 : 0));
    AV_WL32(skip + 4, static_cast<uint32_t>(source->user1 > 0 ? source->user1 : 0));
    skip[8] = skip[9] = 0;
  }
  return true;
}

int32_t ff_decode(void *state, uint8_t *data, int32_t size, void *argument, void **frame) {
  auto *d = static_cast<Dec *>(state);
  if (d->ctx->codec_type == AVMEDIA_TYPE_VIDEO && argument) {
    const int32_t level = *static_cast<int32_t *>(argument);
    apply_level(d, level < 0 ? 0 : level > 2 ? 2 : level);
  }
  if (!data && size == 0) {
    if (!d->draining) {
      if (avcodec_send_packet(d->ctx, nullptr) < 0) return -1;
      d->draining = true;
    }
    return receive(d, frame) > 0 ? 0 : -1;
  }
  if (size <= 0) return receive(d, frame) > 0 ? 0 : -1;
  if (d->draining) {
    // A drain was left unfinished: forget what it still held.
    avcodec_flush_buffers(d->ctx);
    d->draining = false;
  }
  if (!fill_packet(d, data, size)) return -1;
  if (d->ctx->codec_type == AVMEDIA_TYPE_VIDEO) ffdirect::prepare(&d->direct, d->ctx);
  int r = avcodec_send_packet(d->ctx, d->packet);
  if (r == AVERROR(EAGAIN)) {
    // Output must be taken first; the packet is offered again next call.
    const int got = receive(d, frame);
    return got > 0 ? 0 : -1;
  }
  if (r < 0) return -1;
  receive(d, frame);
  return size;
}

void ff_reset(void *state) {
  auto *d = static_cast<Dec *>(state);
  if (!d) return;
  avcodec_flush_buffers(d->ctx);
  d->draining = false;
  d->next_pts = AV_NOPTS_VALUE;
  d->last_pts = AV_NOPTS_VALUE;
  d->skip_time = 0;
  if (d->swr) swr_init(d->swr);  // drops samples it still holds
}

// One driver per codec number, built from the shared table at the first
// registration.
constexpr size_t kRows = sizeof travik_ffmpeg::kCodecs / sizeof travik_ffmpeg::kCodecs[0];
// Below the native pcm and rawvideo decoders (10).
constexpr int32_t kPriority = 5;
travik_decoder_driver drivers[kRows + 1];
char descriptions[kRows][64];
std::once_flag drivers_built;

void build_drivers() {
  size_t n = 0;
  for (size_t i = 0; i < kRows; i++) {
    const travik_ffmpeg::CodecMapping &m = travik_ffmpeg::kCodecs[i];
    bool seen = false;
    for (size_t j = 0; j < n; j++) seen = seen || drivers[j].codec == m.codec;
    if (seen) continue;
    std::snprintf(descriptions[n], sizeof descriptions[n], "FFmpeg decoder (%s)", m.name);
    drivers[n] = {descriptions[n], m.codec, kPriority, ff_open, ff_close, ff_decode, ff_reset};
    n++;
  }
  drivers[n] = {nullptr, 0, 0, nullptr, nullptr, nullptr, nullptr};
}

}  // namespace

TRAVIK_PLUGIN_EXPORT void travik_decoder_ffmpeg(void) {
  std::call_once(drivers_built, build_drivers);
  // libavcodec describes damaged input on stderr at length; the drivers
  // report failures through their results instead.
  av_log_set_level(AV_LOG_QUIET);
  travik_plugin_register(TRAVIK_PLUGIN_DECODER, TRAVIK_PLUGIN_VERSION, drivers);
}
