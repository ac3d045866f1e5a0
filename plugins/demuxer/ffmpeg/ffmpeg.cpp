// Demuxer over libavformat: MP4/MOV, Matroska/WebM, AVI, MPEG-TS, MPEG-PS,
// FLV, raw MP3/AAC/AC-3/FLAC, Ogg and WAV, read through the travik I/O
// handle it is given, and HTTP(S), RTSP and RTMP URLs through libavformat's
// own protocols.
//
// Inputs are read three ways:
//  - "file" inputs through the plugin's own descriptor on the same path, so
//    that files beyond the handle's 32-bit offsets play and seek;
//  - other inputs with an I/O back-end ("mem", "tcp", "udp", "vpn") through
//    the handle's read, and its seek where the back-end has one;
//  - URLs whose scheme no back-end serves (http, https, rtsp, rtmp) through
//    libavformat's protocols.
//
// What the streams and packets carry:
//  - audio and video streams only (at most 32); other streams and cover
//    pictures are not declared and their packets are dropped;
//  - packet times in microseconds from the start of the input (the
//    container's start time subtracted, -1 when unknown), the decode time
//    in `time2`. Packets before the start (encoder delay that the decoder
//    drops, reordering) have negative times;
//  - TRAVIK_PACKET_KEY on key frames, TRAVIK_PACKET_DECODE_ONLY on packets
//    the container marks to be decoded but not shown;
//  - `user0` and `user1`: audio samples the decoder drops at the start and
//    at the end of the packet (encoder delay and padding), 0 for none.
//
// Metadata slots: 0 title, 1 artist, 2 album, 3 date, 4 genre, 5 comment,
// 11 cover picture bytes, 12 its MIME type ("image/jpeg", "image/png").
//
// Control codes: 0 resume, 1 pause (libavformat's read_play/read_pause, for
// sources that can pause), 2 stop (interrupts any wait, may come from
// another thread), 5 keep-alive (nothing to do for libavformat's sources).
#include "../../ffmpeg/codec_map.h"

#include <travik/demuxer.h>
#include <travik/io.h>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/avstring.h>
#include <libavutil/intreadwrite.h>
}

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

// Bytes read for the content probe.
constexpr int kProbeBytes = 8192;
// Size of the buffer between libavformat and the input.
constexpr int kIoBuffer = 32768;
// Largest read asked of a byte-stream socket ("tcp", "vpn"). Their reads
// wait until every byte asked for has come, so a sender that pauses would
// hold back whatever part of a large read had already arrived: keep that
// part small, a few hundredths of a second of a typical stream.
constexpr int kStreamRead = 2048;
// Probe score of libavformat's guess is capped here so that the native
// demuxers (which answer 100 for their own files) keep them.
constexpr int32_t kMaxScore = 50;
// Score for inputs that are claimed by extension or scheme but cannot be
// read before opening (streams that a read would consume).
constexpr int32_t kBlindScore = 1;

constexpr AVRational kMicroseconds = {1, 1000000};

struct Demux {
  travik_demuxer *demuxer;
  travik_io *io;
  AVFormatContext *format;
  AVIOContext *avio;
  AVPacket *packet;
  int fd;                        // own descriptor of a "file" input, or -1
  int64_t start;                 // start time of the input in microseconds
  std::atomic<bool> stop;        // set by control 2
  bool network;                  // libavformat's network layer was started for it
  bool filtering;                // our wait filter is installed on the handle
  bool stream_socket;            // reads of the handle wait for the whole count
  travik_io_filter outer;        // the filter it replaced (called too), or NULL
  void *outer_arg;
  int32_t slot_of[TRAVIK_DEMUXER_MAX_STREAMS];  // libavformat index -> slot, -1
  travik_stream streams[TRAVIK_DEMUXER_MAX_STREAMS];
  int32_t stream_count;
};

bool is_protocol_scheme(const char *scheme) {
  static const char *const schemes[] = {"http", "https", "rtsp", "rtmp"};
  if (!scheme) return false;
  for (const char *s : schemes)
    if (av_strcasecmp(scheme, s) == 0) return true;
  return false;
}

bool is_open(const travik_io *io) { return io->backend && io->backend_data; }

// ---------------------------------------------------------------- probing

int32_t ff_probe(travik_io *input, int32_t) {
  if (!input->backend) return is_protocol_scheme(input->url.scheme) ? kMaxScore : 0;
  // A file the handle could not open (too large for its 32-bit offsets)
  // is still ours to try when it exists; a missing one is nobody's.
  if (!is_open(input) && std::strcmp(input->backend->name, "file") == 0) {
    struct stat st;
    return ::stat(input->url.path, &st) == 0 && S_ISREG(st.st_mode) ? kBlindScore : 0;
  }
  // A stream that cannot seek back would lose what the probe reads.
  if (!is_open(input) || !input->backend->seek) return kBlindScore;
  auto *buffer = static_cast<uint8_t *>(av_mallocz(kProbeBytes + AVPROBE_PADDING_SIZE));
  int32_t got = 0;
  while (got < kProbeBytes) {
    int32_t n = travik_io_read(input, buffer + got, kProbeBytes - got);
    if (n <= 0) break;
    got += n;
  }
  int32_t result = 0;
  if (got > 0) {
    AVProbeData data = {};
    data.buf = buffer;
    data.buf_size = got;
    data.filename = "";
    int score = 0;
    if (av_probe_input_format3(&data, 1, &score) && score > 0)
      result = score < kMaxScore ? score : kMaxScore;
  }
  av_free(buffer);
  return result;
}

// ---------------------------------------------------------------- input

int interrupted(void *opaque) { return static_cast<Demux *>(opaque)->stop.load() ? 1 : 0; }

// Polled by the network back-ends while they wait, so that a stop ends a
// wait at once; a filter the application had set keeps working.
int32_t wait_filter(void *arg, travik_io *io) {
  auto *d = static_cast<Demux *>(arg);
  if (d->stop.load()) return 1;
  return d->outer ? d->outer(d->outer_arg, io) : 0;
}

int fd_read(void *opaque, uint8_t *buffer, int size) {
  auto *d = static_cast<Demux *>(opaque);
  ssize_t n = ::read(d->fd, buffer, static_cast<size_t>(size));
  if (n < 0) return AVERROR(EIO);
  return n == 0 ? AVERROR_EOF : static_cast<int>(n);
}

int64_t fd_seek(void *opaque, int64_t offset, int whence) {
  auto *d = static_cast<Demux *>(opaque);
  if (whence & AVSEEK_SIZE) {
    struct stat st;
    return fstat(d->fd, &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
  }
  off_t at = lseek(d->fd, static_cast<off_t>(offset), whence & ~AVSEEK_FORCE);
  return at < 0 ? AVERROR(EIO) : static_cast<int64_t>(at);
}

int io_read(void *opaque, uint8_t *buffer, int size) {
  auto *d = static_cast<Demux *>(opaque);
  if (d->stop.load()) return AVERROR_EXIT;
  if (d->stream_socket && size > kStreamRead) size = kStreamRead;
  int32_t n = travik_io_read(d->io, buffer, size);
  if (n < 0) return AVERROR(EIO);
  return n == 0 ? AVERROR_EOF : n;
}

// Bytes the input holds, or -1 when unknown; the position is kept at
// `here`. The handle's length may move the position and may be one byte
// short ("mem"), so what lies beyond it is read too.
int64_t input_size(travik_io *io, int32_t here) {
  int64_t length = travik_io_length(io);
  if (length >= 0) {
    int32_t at = travik_io_pos(io);
    if (at >= 0 && travik_io_seek(io, static_cast<int32_t>(length - at), 1) == length) {
      char probe[16];
      const int32_t more = travik_io_read(io, probe, sizeof probe);
      if (more > 0) length += more;
    }
  }
  const int32_t at = travik_io_pos(io);
  if (at < 0 || travik_io_seek(io, here - at, 1) != here) return -1;
  return length;
}

// The handle's offsets are 32-bit: positions beyond are refused. Seeks are
// made relative to the current position, the one whence that every
// seekable back-end handles alike.
int64_t io_seek(void *opaque, int64_t offset, int whence) {
  auto *d = static_cast<Demux *>(opaque);
  const int32_t here = travik_io_pos(d->io);
  if (here < 0) return AVERROR(EIO);
  if (whence & AVSEEK_SIZE) return input_size(d->io, here);
  int64_t target = offset;
  switch (whence & ~AVSEEK_FORCE) {
    case SEEK_SET: break;
    case SEEK_CUR: target = here + offset; break;
    case SEEK_END: {
      const int64_t size = input_size(d->io, here);
      if (size < 0) return AVERROR(EINVAL);
      target = size + offset;
      break;
    }
    default: return AVERROR(EINVAL);
  }
  if (target < 0 || target > INT32_MAX) return AVERROR(EINVAL);
  const int32_t at = travik_io_seek(d->io, static_cast<int32_t>(target - here), 1);
  return at == target ? at : AVERROR(EIO);
}

bool handle_can_seek(const travik_io *io) { return io->backend && io->backend->seek; }

// Whether the container's header alone describes every stream the player
// takes, so that libavformat's probe can be left out. The probe reads the
// first packets and decodes pictures to learn what such a header already
// states, and at 1080p that costs some 35 ms before the first picture; what
// it would add besides (the pixel layout) the decoder finds out itself.
// Only MP4/QuickTime qualifies: its index states codec, size, rate, start
// and duration of every track and a time for every packet. Other
// containers, and MP4 headers that leave any of it out, are probed.
bool header_is_complete(const AVFormatContext *format) {
  if (std::strncmp(format->iformat->name, "mov,", 4) != 0) return false;
  if (format->duration == AV_NOPTS_VALUE || format->duration <= 0) return false;
  for (unsigned i = 0; i < format->nb_streams; i++) {
    const AVStream *st = format->streams[i];
    const AVCodecParameters *par = st->codecpar;
    bool described;
    if (par->codec_type == AVMEDIA_TYPE_VIDEO && !(st->disposition & AV_DISPOSITION_ATTACHED_PIC))
      described = par->width > 0 && par->height > 0 &&
                  (st->avg_frame_rate.num > 0 || st->r_frame_rate.num > 0);
    else if (par->codec_type == AVMEDIA_TYPE_AUDIO)
      described = par->sample_rate > 0 && par->ch_layout.nb_channels > 0;
    else
      continue;  // not declared
    if (!described || par->codec_id == AV_CODEC_ID_NONE || st->start_time == AV_NOPTS_VALUE)
      return false;
  }
  return true;
}

// What the probe works out from a complete header: the input's start (the
// earliest track's) and, when the container gives none, its bit rate: the
// input's size over its duration, as the probe has it, or the tracks' rates
// together when the size is unknown.
void take_header_timings(AVFormatContext *format) {
  int64_t tracks = 0;
  for (unsigned i = 0; i < format->nb_streams; i++) {
    const AVStream *st = format->streams[i];
    if (st->codecpar->bit_rate > 0) tracks += st->codecpar->bit_rate;
    if (st->start_time == AV_NOPTS_VALUE) continue;  // a track the player does not take
    const int64_t start = av_rescale_q(st->start_time, st->time_base, AV_TIME_BASE_Q);
    if (format->start_time == AV_NOPTS_VALUE || start < format->start_time)
      format->start_time = start;
  }
  if (format->bit_rate > 0) return;
  const int64_t size = format->pb ? avio_size(format->pb) : -1;
  format->bit_rate = size > 0 ? av_rescale(size, 8 * AV_TIME_BASE, format->duration) : tracks;
}

// Opens the input and libavformat's context on it; false on failure.
bool open_input(Demux *d) {
  d->format = avformat_alloc_context();
  d->format->interrupt_callback.callback = interrupted;
  d->format->interrupt_callback.opaque = d;
  AVDictionary *options = nullptr;
  const char *url = d->io->url.full;
  if (!d->io->backend) {
    if (!is_protocol_scheme(d->io->url.scheme)) return false;
    avformat_network_init();
    d->network = true;
    av_dict_set(&options, "rw_timeout", "30000000", 0);
  } else {
    const bool file = std::strcmp(d->io->backend->name, "file") == 0;
    if (file) {
      d->fd = ::open(d->io->url.path, O_RDONLY | O_CLOEXEC);
      if (d->fd < 0) return false;
    } else {
      d->outer_arg = d->io->filter_arg;
      d->outer = travik_io_setfilter(d->io, wait_filter, d);
      d->filtering = true;
      d->stream_socket = std::strcmp(d->io->backend->name, "tcp") == 0 ||
                         std::strcmp(d->io->backend->name, "vpn") == 0;
      if (travik_io_open(d->io, -1) != 0) return false;
      // The framework leaves a probed input at no particular place.
      const int32_t here = travik_io_pos(d->io);
      if (handle_can_seek(d->io) && here > 0 && travik_io_seek(d->io, -here, 1) != 0) return false;
    }
    auto *buffer = static_cast<uint8_t *>(av_malloc(kIoBuffer));
    const bool seekable = file || handle_can_seek(d->io);
    d->avio = avio_alloc_context(buffer, kIoBuffer, 0, d, file ? fd_read : io_read, nullptr,
                                 seekable ? (file ? fd_seek : io_seek) : nullptr);
    d->avio->seekable = seekable ? AVIO_SEEKABLE_NORMAL : 0;
    d->format->pb = d->avio;
    d->format->flags |= AVFMT_FLAG_CUSTOM_IO;
    url = "";
  }
  int r = avformat_open_input(&d->format, url, nullptr, &options);
  av_dict_free(&options);
  if (r < 0) return false;  // the context is freed on failure
  if (header_is_complete(d->format)) {
    take_header_timings(d->format);
    return true;
  }
  return avformat_find_stream_info(d->format, nullptr) >= 0;
}

// ---------------------------------------------------------------- header

int64_t to_microseconds(int64_t value, AVRational base) {
  return av_rescale_q(value, base, kMicroseconds);
}

int32_t clamp32(int64_t value) {
  return value > INT32_MAX ? INT32_MAX : value < INT32_MIN ? INT32_MIN : static_cast<int32_t>(value);
}

void declare_stream(Demux *d, AVStream *st) {
  const AVCodecParameters *par = st->codecpar;
  int32_t type;
  if (par->codec_type == AVMEDIA_TYPE_AUDIO)
    type = TRAVIK_STREAM_AUDIO;
  else if (par->codec_type == AVMEDIA_TYPE_VIDEO && !(st->disposition & AV_DISPOSITION_ATTACHED_PIC))
    type = TRAVIK_STREAM_VIDEO;
  else
    return;
  if (d->stream_count >= TRAVIK_DEMUXER_MAX_STREAMS) return;
  travik_stream *s = &d->streams[d->stream_count++];
  travik_stream_init(s);
  s->id = st->id;
  s->user0 = st->index;
  if (st->duration != AV_NOPTS_VALUE && st->duration > 0)
    s->duration = to_microseconds(st->duration, st->time_base) / 1000;
  else if (d->format->duration != AV_NOPTS_VALUE && d->format->duration > 0)
    s->duration = d->format->duration / 1000;
  travik_codec_info &info = s->info;
  info.type = type;
  info.codec = travik_ffmpeg::codec_number(par->codec_id);
  info.tag = par->codec_tag;
  info.bitrate = clamp32(par->bit_rate);
  info.block_align = par->block_align;
  if (type == TRAVIK_STREAM_AUDIO) {
    info.sample_rate = par->sample_rate;
    info.channels = par->ch_layout.nb_channels;
    info.bits_per_sample =
        par->bits_per_coded_sample ? par->bits_per_coded_sample : par->bits_per_raw_sample;
  } else {
    info.width = par->width;
    info.height = par->height;
    info.bits_per_sample = par->bits_per_coded_sample;
    AVRational rate = st->avg_frame_rate.num > 0 ? st->avg_frame_rate : st->r_frame_rate;
    if (rate.num > 0 && rate.den > 0) info.framerate = clamp32(av_rescale(rate.num, 100, rate.den));
  }
  if (par->extradata_size > 0) {
    info.extradata = static_cast<uint8_t *>(std::malloc(par->extradata_size));
    std::memcpy(info.extradata, par->extradata, par->extradata_size);
    info.extradata_size = par->extradata_size;
  }
  d->slot_of[st->index] = travik_demuxer_addstream(d->demuxer, s);
}

// The first value of any of `keys` in the container's tags, then in each
// stream's (Ogg and FLAC keep theirs with the audio stream).
const char *find_tag(AVFormatContext *format, const char *const *keys) {
  for (const char *const *key = keys; *key; key++) {
    if (AVDictionaryEntry *e = av_dict_get(format->metadata, *key, nullptr, 0)) return e->value;
  }
  for (unsigned i = 0; i < format->nb_streams; i++) {
    for (const char *const *key = keys; *key; key++) {
      if (AVDictionaryEntry *e = av_dict_get(format->streams[i]->metadata, *key, nullptr, 0))
        return e->value;
    }
  }
  return nullptr;
}

void read_metadata(Demux *d) {
  static const char *const title[] = {"title", nullptr};
  static const char *const artist[] = {"artist", "author", "album_artist", nullptr};
  static const char *const album[] = {"album", nullptr};
  static const char *const date[] = {"date", "year", nullptr};
  static const char *const genre[] = {"genre", nullptr};
  static const char *const comment[] = {"comment", "description", nullptr};
  static const char *const *const slots[] = {title, artist, album, date, genre, comment};
  for (int32_t slot = 0; slot < 6; slot++) {
    const char *value = find_tag(d->format, slots[slot]);
    if (value && *value) travik_metadata_settext(&d->demuxer->metadata, slot, value);
  }
  for (unsigned i = 0; i < d->format->nb_streams; i++) {
    AVStream *st = d->format->streams[i];
    if (!(st->disposition & AV_DISPOSITION_ATTACHED_PIC) || st->attached_pic.size <= 0) continue;
    const char *mime = nullptr;
    switch (st->codecpar->codec_id) {
      case AV_CODEC_ID_MJPEG: mime = "image/jpeg"; break;
      case AV_CODEC_ID_PNG: mime = "image/png"; break;
      case AV_CODEC_ID_BMP: mime = "image/bmp"; break;
      case AV_CODEC_ID_GIF: mime = "image/gif"; break;
      default: break;
    }
    if (AVDictionaryEntry *e = av_dict_get(st->metadata, "mimetype", nullptr, 0)) mime = e->value;
    travik_metadata_setdata(&d->demuxer->metadata, 11, st->attached_pic.data,
                            st->attached_pic.size);
    travik_metadata_settext(&d->demuxer->metadata, 12, mime ? mime : "application/octet-stream");
    break;
  }
}

// ---------------------------------------------------------------- driver

void *ff_open(travik_demuxer *demuxer, int32_t) {
  auto *d = new Demux();
  d->demuxer = demuxer;
  d->io = demuxer->input;
  d->fd = -1;
  d->start = 0;
  for (int32_t &slot : d->slot_of) slot = -1;
  return d;
}

void ff_close(void *state) {
  auto *d = static_cast<Demux *>(state);
  if (!d) return;
  av_packet_free(&d->packet);
  avformat_close_input(&d->format);
  if (d->avio) {
    av_freep(&d->avio->buffer);
    avio_context_free(&d->avio);
  }
  if (d->fd >= 0) ::close(d->fd);
  if (d->filtering) travik_io_setfilter(d->io, d->outer, d->outer_arg);
  if (d->network) avformat_network_deinit();
  for (int32_t i = 0; i < d->stream_count; i++) std::free(d->streams[i].info.extradata);
  delete d;
}

int32_t ff_parseheader(void *state) {
  auto *d = static_cast<Demux *>(state);
  if (!d || d->format) return 1;
  if (!open_input(d)) return 1;
  AVFormatContext *format = d->format;
  if (format->start_time != AV_NOPTS_VALUE) d->start = format->start_time;
  for (unsigned i = 0; i < format->nb_streams && i < TRAVIK_DEMUXER_MAX_STREAMS; i++)
    declare_stream(d, format->streams[i]);
  if (d->stream_count == 0) return 1;
  read_metadata(d);
  d->demuxer->bitrate = format->bit_rate > 0 ? clamp32(format->bit_rate) : 0;
  const bool can_seek = d->avio ? d->avio->seekable != 0
                                : format->pb ? (format->pb->seekable & AVIO_SEEKABLE_NORMAL) != 0
                                             : format->iformat->read_seek != nullptr;
  const bool known_duration = format->duration != AV_NOPTS_VALUE && format->duration > 0;
  if (!can_seek) d->demuxer->seekable = 0;
  if (!can_seek && !known_duration) d->demuxer->flags |= TRAVIK_DEMUXER_NOSEEK;
  if (!d->avio && format->iformat->read_pause) d->demuxer->flags |= TRAVIK_DEMUXER_PAUSABLE;
  d->packet = av_packet_alloc();
  return 0;
}

int32_t ff_parse(void *state, travik_packet **packet) {
  auto *d = static_cast<Demux *>(state);
  if (!d || !d->packet) return 1;
  int r = av_read_frame(d->format, d->packet);
  if (r == AVERROR(EAGAIN)) return 0;
  if (r == AVERROR_EOF) return TRAVIK_DEMUXER_END;
  if (r < 0) return 1;
  AVPacket *pkt = d->packet;
  const int32_t slot = pkt->stream_index >= 0 && pkt->stream_index < TRAVIK_DEMUXER_MAX_STREAMS
                           ? d->slot_of[pkt->stream_index]
                           : -1;
  if (slot < 0 || pkt->size <= 0) {
    av_packet_unref(pkt);
    return 0;
  }
  travik_demuxer_allocator *allocator = d->demuxer->allocator;
  travik_packet *out = allocator->alloc(allocator->user, pkt->size);
  if (!out) {
    av_packet_unref(pkt);
    return 1;
  }
  std::memcpy(out->data, pkt->data, pkt->size);
  const AVRational base = d->format->streams[pkt->stream_index]->time_base;
  out->stream = slot;
  if (pkt->pts != AV_NOPTS_VALUE) out->pts = to_microseconds(pkt->pts, base) - d->start;
  if (pkt->dts != AV_NOPTS_VALUE) out->time2 = to_microseconds(pkt->dts, base) - d->start;
  if (pkt->flags & AV_PKT_FLAG_KEY) out->flags |= TRAVIK_PACKET_KEY;
  if (pkt->flags & AV_PKT_FLAG_DISCARD) out->flags |= TRAVIK_PACKET_DECODE_ONLY;
  size_t skip_size = 0;
  if (const uint8_t *skip = av_packet_get_side_data(pkt, AV_PKT_DATA_SKIP_SAMPLES, &skip_size)) {
    if (skip_size >= 8) {
      out->user0 = clamp32(AV_RL32(skip));
      out->user1 = clamp32(AV_RL32(skip + 4));
    }
  }
  av_packet_unref(pkt);
  *packet = out;
  return 0;
}

// Direction 1 lands on the key frame at or before the position, 0 on the
// one at or after it; when there is none that way the other way is taken.
int32_t ff_seek(void *state, int64_t position, int32_t flags) {
  auto *d = static_cast<Demux *>(state);
  if (!d || !d->packet || !d->demuxer->seekable) return 1;
  const int64_t target = (position > 0 ? position : 0) + d->start;
  const bool backward = flags == 1;
  int r = backward ? avformat_seek_file(d->format, -1, INT64_MIN, target, target, 0)
                   : avformat_seek_file(d->format, -1, target, target, INT64_MAX, 0);
  if (r < 0)
    r = backward ? avformat_seek_file(d->format, -1, target, target, INT64_MAX, 0)
                 : avformat_seek_file(d->format, -1, INT64_MIN, target, target, 0);
  return r < 0 ? 1 : 0;
}

int32_t ff_control(void *state, int32_t command, void *) {
  auto *d = static_cast<Demux *>(state);
  if (!d) return 1;
  switch (command) {
    case 0:
      return d->format && av_read_play(d->format) >= 0 ? 0 : 1;
    case 1:
      return d->format && av_read_pause(d->format) >= 0 ? 0 : 1;
    case 2:
      // Called without the demuxer's lock: only the flag is touched.
      d->stop.store(true);
      return 0;
    case 5:
      return 0;
    default:
      return 1;
  }
}

const travik_demuxer_driver drivers[] = {
    {"FFmpeg demuxer (libavformat)",
     "mp4,m4a,m4v,mov,3gp,mkv,mka,webm,avi,ts,m2ts,mts,mpg,mpeg,vob,flv,mp3,aac,ac3,flac,ogg,oga,"
     "ogv,opus,wav,http,https,rtsp,rtmp",
     ff_probe, ff_open, ff_close, ff_parseheader, ff_parse, ff_seek, ff_control},
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
};

}  // namespace

TRAVIK_PLUGIN_EXPORT void travik_demuxer_ffmpeg(void) {
  // libavformat describes damaged input on stderr at length; the driver
  // reports failures through its results instead.
  av_log_set_level(AV_LOG_QUIET);
  travik_plugin_register(TRAVIK_PLUGIN_DEMUXER, TRAVIK_PLUGIN_VERSION,
                         const_cast<travik_demuxer_driver *>(drivers));
}
