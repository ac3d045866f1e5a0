// The "avtest" demuxer: synthetic audio (16-bit PCM, for the native pcm
// decoder) and video (raw 4:2:0, for the native rawvideo decoder) with
// exact timestamps, described by a one-line text file (avtest_media.h), and
// faults on request: a failing header, a failure part-way, endless empty
// passes, a stall in delivery, delivery slower than real time.
#include <time.h>
#include <travik/codec.h>
#include <travik/demuxer.h>
#include <travik/io.h>

#include <cstdlib>
#include <cstring>

#include "avtest_media.h"

namespace {

struct Options {
  int64_t length_ms = 2000;
  int32_t audio = 1, video = 1;
  int32_t rate = 8000, channels = 2, chunk_ms = 40;
  int32_t width = 64, height = 48, fps = 25;
  int32_t preroll = 200;
  int32_t header_error = 0;
  int64_t error_at = -1;
  int32_t error_code = 5;
  int32_t empty = 0;
  int64_t stall_at = -1, stall_for = 0;
  int32_t realtime = 0;
};

struct AvTest {
  travik_demuxer *demuxer;
  Options options;
  travik_stream audio, video;
  int64_t audio_chunks;       // chunks in the whole input
  int64_t video_frames;       // pictures in the whole input
  int64_t next_chunk = 0;     // index of the next audio chunk
  int64_t next_frame = 0;     // index of the next picture
  bool stalled = false;       // the stall has happened
  int64_t stall_until = 0;    // wall clock (ms) at which a stall ends
  int64_t first_wall = -1;    // wall clock of the first packet (for realtime)
  int64_t first_media = 0;    // media time (us) of that packet
};

int64_t wall_ms() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

void nap_ms(long ms) {
  struct timespec pause = {0, ms * 1000000L};
  nanosleep(&pause, nullptr);
}

// Reads "key=value" words; unknown keys are ignored.
void parse_options(char *line, Options *o) {
  char *save = nullptr;
  for (char *word = strtok_r(line, " \t\r", &save); word; word = strtok_r(nullptr, " \t\r", &save)) {
    char *eq = std::strchr(word, '=');
    if (!eq) continue;
    *eq = '\0';
    const long long v = std::strtoll(eq + 1, nullptr, 10);
    const int32_t i = static_cast<int32_t>(v);
    if (!std::strcmp(word, "seconds")) o->length_ms = v;
    else if (!std::strcmp(word, "audio")) o->audio = i;
    else if (!std::strcmp(word, "video")) o->video = i;
    else if (!std::strcmp(word, "rate")) o->rate = i;
    else if (!std::strcmp(word, "channels")) o->channels = i;
    else if (!std::strcmp(word, "chunk")) o->chunk_ms = i;
    else if (!std::strcmp(word, "width")) o->width = i;
    else if (!std::strcmp(word, "height")) o->height = i;
    else if (!std::strcmp(word, "fps")) o->fps = i;
    else if (!std::strcmp(word, "preroll")) o->preroll = i;
    else if (!std::strcmp(word, "header_error")) o->header_error = i;
    else if (!std::strcmp(word, "error_at")) o->error_at = v;
    else if (!std::strcmp(word, "error_code")) o->error_code = i;
    else if (!std::strcmp(word, "empty")) o->empty = i;
    else if (!std::strcmp(word, "stall_at")) o->stall_at = v;
    else if (!std::strcmp(word, "stall_for")) o->stall_for = v;
    else if (!std::strcmp(word, "realtime")) o->realtime = i;
  }
}

bool sane(const Options &o) {
  if (o.length_ms < 1 || (!o.audio && !o.video)) return false;
  if (o.audio && (o.rate < 1000 || o.rate > 192000 || o.channels < 1 || o.channels > 8 ||
                  o.chunk_ms < 1 || o.chunk_ms > 1000))
    return false;
  if (o.video && (o.width < 2 || o.height < 2 || (o.width | o.height) & 1 ||
                  o.width > 4096 || o.height > 4096 || o.fps < 1 || o.fps > 240))
    return false;
  return true;
}

int64_t chunk_samples(const AvTest *t) {
  return static_cast<int64_t>(t->options.rate) * t->options.chunk_ms / 1000;
}

int64_t chunk_time(const AvTest *t, int64_t chunk) {
  return chunk * chunk_samples(t) * 1000000 / t->options.rate;
}

int64_t frame_time(const AvTest *t, int64_t frame) { return frame * 1000000 / t->options.fps; }

int32_t avtest_probe(travik_io *input, int32_t) {
  char head[7];
  if (travik_io_seek(input, 0, 0) != 0 || travik_io_read(input, head, 7) != 7) return 0;
  return std::memcmp(head, "AVTEST ", 7) == 0 ? 100 : 0;
}

void *avtest_open(travik_demuxer *demuxer, int32_t) {
  auto *t = new AvTest;
  t->demuxer = demuxer;
  return t;
}

void avtest_close(void *state) { delete static_cast<AvTest *>(state); }

int32_t avtest_parseheader(void *state) {
  auto *t = static_cast<AvTest *>(state);
  travik_io *io = t->demuxer->input;
  char line[1024];
  if (travik_io_seek(io, 0, 0) != 0) return 1;
  int32_t got = travik_io_read(io, line, sizeof line - 1);
  if (got < 7) return 1;
  line[got] = '\0';
  char *end = std::strchr(line, '\n');
  if (end) *end = '\0';
  parse_options(line + 7, &t->options);
  const Options &o = t->options;
  if (o.header_error) return o.header_error;
  if (!sane(o)) return 1;

  int32_t bitrate = 0;
  if (o.audio) {
    travik_stream_init(&t->audio);
    travik_codec_info &info = t->audio.info;
    info.type = TRAVIK_STREAM_AUDIO;
    info.codec = TRAVIK_CODEC_PCM_S16LE;
    info.tag = 1;
    info.sample_rate = o.rate;
    info.channels = o.channels;
    info.bits_per_sample = 16;
    info.block_align = 2 * o.channels;
    info.bitrate = o.rate * o.channels * 16;
    t->audio.duration = o.length_ms;
    t->audio_chunks = (o.length_ms * o.rate / 1000 + chunk_samples(t) - 1) / chunk_samples(t);
    bitrate += info.bitrate;
    travik_demuxer_addstream(t->demuxer, &t->audio);
  }
  if (o.video) {
    travik_stream_init(&t->video);
    travik_codec_info &info = t->video.info;
    info.type = TRAVIK_STREAM_VIDEO;
    info.codec = TRAVIK_CODEC_RAWVIDEO;
    info.tag = TRAVIK_FOURCC('I', '4', '2', '0');
    info.width = o.width;
    info.height = o.height;
    info.bits_per_sample = 12;
    info.framerate = o.fps * 100;
    const int64_t rate = static_cast<int64_t>(o.width) * o.height * 12 * o.fps;
    info.bitrate = rate > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int32_t>(rate);
    t->video.duration = o.length_ms;
    t->video_frames = (o.length_ms * o.fps + 999) / 1000;
    bitrate = static_cast<int32_t>(
        bitrate + static_cast<int64_t>(info.bitrate) > 0x7FFFFFFF ? 0x7FFFFFFF
                                                                  : bitrate + info.bitrate);
    travik_demuxer_addstream(t->demuxer, &t->video);
  }
  t->demuxer->bitrate = bitrate;
  travik_demuxer_setfixedpreroll(t->demuxer, o.preroll);
  return 0;
}

travik_packet *audio_packet(AvTest *t) {
  const int64_t first = t->next_chunk * chunk_samples(t);
  int64_t last = first + chunk_samples(t);
  const int64_t total = t->options.length_ms * t->options.rate / 1000;
  if (last > total) last = total;
  const int32_t channels = t->options.channels;
  const int32_t bytes = static_cast<int32_t>((last - first) * channels * 2);
  travik_demuxer_allocator *allocator = t->demuxer->allocator;
  travik_packet *p = allocator->alloc(allocator->user, bytes);
  if (!p) return nullptr;
  uint8_t *out = p->data;
  for (int64_t n = first; n < last; n++)
    for (int32_t c = 0; c < channels; c++) {
      const uint16_t v = static_cast<uint16_t>(avtest::sample(n, c));
      *out++ = static_cast<uint8_t>(v);
      *out++ = static_cast<uint8_t>(v >> 8);
    }
  p->stream = t->audio.index;
  p->pts = first * 1000000 / t->options.rate;
  p->flags = TRAVIK_PACKET_KEY;
  t->next_chunk++;
  return p;
}

travik_packet *video_packet(AvTest *t) {
  const int32_t w = t->options.width, h = t->options.height;
  travik_demuxer_allocator *allocator = t->demuxer->allocator;
  travik_packet *p = allocator->alloc(allocator->user, w * h * 3 / 2);
  if (!p) return nullptr;
  const int64_t f = t->next_frame;
  uint8_t *out = p->data;
  for (int32_t y = 0; y < h; y++)
    for (int32_t x = 0; x < w; x++) *out++ = avtest::luma(f, x, y);
  for (int32_t plane = 0; plane < 2; plane++)
    for (int32_t y = 0; y < h / 2; y++)
      for (int32_t x = 0; x < w / 2; x++) *out++ = avtest::chroma(f, plane, x, y);
  p->stream = t->video.index;
  p->pts = frame_time(t, f);
  p->flags = TRAVIK_PACKET_KEY;
  t->next_frame++;
  return p;
}

int32_t avtest_parse(void *state, travik_packet **packet) {
  auto *t = static_cast<AvTest *>(state);
  const Options &o = t->options;
  if (!o.audio && !o.video) return 1;  // no header parsed
  if (o.empty) {
    // A source that never has anything: a short nap stands for the wait a
    // real source would make for its data.
    nap_ms(1);
    return 0;
  }
  const bool audio_left = o.audio && t->next_chunk < t->audio_chunks;
  const bool video_left = o.video && t->next_frame < t->video_frames;
  if (!audio_left && !video_left) return TRAVIK_DEMUXER_END;
  // The stream whose next packet comes first goes next.
  const int64_t audio_at = audio_left ? chunk_time(t, t->next_chunk) : INT64_MAX;
  const int64_t video_at = video_left ? frame_time(t, t->next_frame) : INT64_MAX;
  const int64_t at = audio_at <= video_at ? audio_at : video_at;
  if (o.error_at >= 0 && at >= o.error_at * 1000) return o.error_code;
  if (o.stall_at >= 0 && !t->stalled && at >= o.stall_at * 1000) {
    t->stalled = true;
    t->stall_until = wall_ms() + o.stall_for;
  }
  if (t->stall_until) {
    if (wall_ms() < t->stall_until) {
      nap_ms(2);
      return 0;
    }
    t->stall_until = 0;
  }
  if (o.realtime > 0) {
    if (t->first_wall < 0) {
      t->first_wall = wall_ms();
      t->first_media = at;
    }
    const int64_t due = t->first_wall + (at - t->first_media) / 10 / o.realtime;
    if (wall_ms() < due) {
      nap_ms(2);
      return 0;
    }
  }
  travik_packet *p = audio_at <= video_at ? audio_packet(t) : video_packet(t);
  if (!p) return 1;
  *packet = p;
  return 0;
}

int32_t avtest_seek(void *state, int64_t position, int32_t) {
  auto *t = static_cast<AvTest *>(state);
  if (!t->options.audio && !t->options.video) return 1;
  if (position < 0) position = 0;
  if (t->options.audio) {
    const int64_t samples = position * t->options.rate / 1000000;
    t->next_chunk = samples / chunk_samples(t);
  }
  if (t->options.video) t->next_frame = position * t->options.fps / 1000000;
  t->first_wall = -1;
  return 0;
}

const travik_demuxer_driver drivers[] = {
    {"Synthetic audio and video for tests", "avt", avtest_probe, avtest_open, avtest_close,
     avtest_parseheader, avtest_parse, avtest_seek, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
};

}  // namespace

TRAVIK_PLUGIN_EXPORT void travik_demuxer_avtest(void) {
  travik_plugin_register(TRAVIK_PLUGIN_DEMUXER, TRAVIK_PLUGIN_VERSION,
                         const_cast<travik_demuxer_driver *>(drivers));
}
