// RIFF/WAVE demuxer: 8- and 16-bit PCM, A-law and mu-law at any rate and
// channel count. One audio stream; packets of whole sample frames, each
// stamped with the time of its first sample; sample-accurate seeking.
#include <travik/bytes.h>
#include <travik/codec.h>
#include <travik/demuxer.h>
#include <travik/io.h>

#include <cstdlib>
#include <cstring>

namespace {

// Bounds that a sane header stays within; anything beyond is refused.
constexpr int32_t kMaxFormatSize = 4096;
constexpr int32_t kMaxRate = 768000;
constexpr int32_t kMaxChannels = 64;
// Payload of one packet, rounded down to whole sample frames.
constexpr int32_t kPacketBytes = 4096;
// Data sizes that writers of unfinished or streamed files use for "up to
// the end of the file".
constexpr uint32_t kSizeUnknown = 0xFFFFFFFFu;

struct Wav {
  travik_demuxer *demuxer;
  travik_io *io;
  travik_stream stream;
  int64_t data_start;  // offset of the first sample
  int64_t data_size;   // bytes of samples, clipped to what the file holds
  int64_t position;    // bytes of samples already delivered
  bool truncated;      // the file holds less than the header declares
  bool ended;          // a short read met the end of the input
  bool ready;          // the header was accepted
};

// Positions the input at `offset` from its start. Seeks are made relative
// to the current position, which every seekable back-end handles the same.
bool seek_to(travik_io *io, int64_t offset) {
  int32_t here = travik_io_pos(io);
  if (here < 0 || offset < 0 || offset > INT32_MAX) return false;
  return travik_io_seek(io, static_cast<int32_t>(offset - here), 1) == offset;
}

// Bytes the input holds from `offset` on, or -1 when its length is unknown.
// The reported length is checked by reading at it, since a back-end may
// report one byte less than it holds.
int64_t bytes_from(travik_io *io, int64_t offset) {
  int32_t here = travik_io_pos(io);
  int64_t length = travik_io_length(io);
  if (length >= 0 && seek_to(io, length)) {
    char probe[16];
    int32_t more = travik_io_read(io, probe, sizeof probe);
    if (more > 0) length += more;
  }
  seek_to(io, here);
  if (length < 0) return -1;
  return length > offset ? length - offset : 0;
}

bool read_exact(travik_io *io, void *buffer, int32_t count) {
  return travik_io_read(io, buffer, count) == count;
}

bool is_supported(const travik_codec_info &info) {
  switch (info.codec) {
    case TRAVIK_CODEC_PCM_S16LE:
      return info.bits_per_sample == 16;
    case TRAVIK_CODEC_PCM_U8:
      return true;
    case TRAVIK_CODEC_PCM_ALAW:
    case TRAVIK_CODEC_PCM_MULAW:
      return info.bits_per_sample == 8;
    default:
      return false;
  }
}

uint32_t chunk_size(const uint8_t id[8]) {
  return static_cast<uint32_t>(id[4]) | static_cast<uint32_t>(id[5]) << 8 |
         static_cast<uint32_t>(id[6]) << 16 | static_cast<uint32_t>(id[7]) << 24;
}

// A RIFF/WAVE file is claimed only when its sample format is one this
// demuxer and the native decoder serve, so that other demuxers take the
// rest (24- and 32-bit PCM, float, extensible headers, compressed formats).
// A damaged header of a served format (absurd rate or channel count) is
// still claimed, and refused when parsed.
int32_t wav_probe(travik_io *input, int32_t) {
  char head[12];
  if (!seek_to(input, 0) || !read_exact(input, head, 12)) return 0;
  if (std::memcmp(head, "RIFF", 4) != 0 || std::memcmp(head + 8, "WAVE", 4) != 0) return 0;
  for (;;) {
    uint8_t id[8];
    if (!read_exact(input, id, 8)) return 0;
    const uint32_t size = chunk_size(id);
    const int64_t body = travik_io_pos(input);
    if (body < 0) return 0;
    if (std::memcmp(id, "fmt ", 4) == 0) {
      if (size < 14 || size > static_cast<uint32_t>(kMaxFormatSize)) return 0;
      travik_codec_info info = {};
      travik_read_wav_header(input, &info, static_cast<int32_t>(size));
      std::free(info.extradata);
      return is_supported(info) ? 100 : 0;
    }
    if (std::memcmp(id, "data", 4) == 0) return 0;  // samples before their format
    if (!seek_to(input, body + size + (size & 1))) return 0;
  }
}

void *wav_open(travik_demuxer *demuxer, int32_t) {
  auto *wav = static_cast<Wav *>(std::calloc(1, sizeof(Wav)));
  wav->demuxer = demuxer;
  wav->io = demuxer->input;
  travik_stream_init(&wav->stream);
  return wav;
}

void wav_close(void *state) {
  auto *wav = static_cast<Wav *>(state);
  if (!wav) return;
  std::free(wav->stream.info.extradata);
  std::free(wav);
}

int32_t wav_parseheader(void *state) {
  auto *wav = static_cast<Wav *>(state);
  travik_io *io = wav->io;
  char head[12];
  if (!seek_to(io, 0) || !read_exact(io, head, 12)) return 1;
  if (std::memcmp(head, "RIFF", 4) != 0 || std::memcmp(head + 8, "WAVE", 4) != 0) return 1;
  travik_codec_info &info = wav->stream.info;
  bool have_format = false;
  for (;;) {
    uint8_t id[8];
    if (!read_exact(io, id, 8)) return 1;  // no data chunk
    const uint32_t size = chunk_size(id);
    const int64_t body = travik_io_pos(io);
    if (body < 0) return 1;
    if (std::memcmp(id, "fmt ", 4) == 0) {
      if (have_format || size < 14 || size > static_cast<uint32_t>(kMaxFormatSize)) return 1;
      travik_read_wav_header(io, &info, static_cast<int32_t>(size));
      if (travik_io_pos(io) != body + size) return 1;  // short format chunk
      if ((size & 1) && !seek_to(io, body + size + 1)) return 1;
      have_format = true;
    } else if (std::memcmp(id, "data", 4) == 0) {
      if (!have_format) return 1;
      wav->data_start = body;
      wav->data_size = size;
      const int64_t held = bytes_from(io, body);
      if (size == kSizeUnknown || size == 0) {
        if (held < 0) return 1;
        wav->data_size = held;
      } else if (held >= 0 && held < wav->data_size) {
        wav->data_size = held;
        wav->truncated = true;
      }
      break;
    } else {
      // Any other chunk is skipped, with its pad byte.
      const int64_t next = body + size + (size & 1);
      const int64_t held = bytes_from(io, body);
      if (held >= 0 && next - body > held) return 1;
      if (!seek_to(io, next)) return 1;
    }
  }
  if (!is_supported(info)) return 1;
  if (info.channels < 1 || info.channels > kMaxChannels) return 1;
  if (info.sample_rate < 1 || info.sample_rate > kMaxRate) return 1;
  // The frame size follows from the sample format; the header's own block
  // alignment and byte rate are not trusted.
  info.block_align = info.channels * (info.bits_per_sample / 8);
  info.bitrate = info.sample_rate * info.block_align * 8;
  wav->data_size -= wav->data_size % info.block_align;
  wav->stream.duration = wav->data_size / info.block_align * 1000 / info.sample_rate;
  wav->demuxer->bitrate = info.bitrate;
  travik_demuxer_addstream(wav->demuxer, &wav->stream);
  wav->position = 0;
  wav->ready = true;
  return 0;
}

int32_t wav_parse(void *state, travik_packet **packet) {
  auto *wav = static_cast<Wav *>(state);
  const travik_codec_info &info = wav->stream.info;
  if (!wav->ready) return 1;
  if (wav->ended || wav->position >= wav->data_size)
    return wav->truncated ? 1 : TRAVIK_DEMUXER_END;
  int64_t count = kPacketBytes - kPacketBytes % info.block_align;
  if (count < info.block_align) count = info.block_align;
  if (count > wav->data_size - wav->position) count = wav->data_size - wav->position;
  travik_demuxer_allocator *allocator = wav->demuxer->allocator;
  travik_packet *out = allocator->alloc(allocator->user, static_cast<int32_t>(count));
  if (!out) return 1;
  int32_t got = travik_io_read(wav->io, out->data, static_cast<int32_t>(count));
  if (got < count) {
    // The input ended early: keep the whole sample frames that arrived.
    wav->ended = true;
    wav->truncated = true;
    got = got > 0 ? got - got % info.block_align : 0;
    if (got == 0) {
      out->release(out);
      return 1;
    }
    out->size = got;
  }
  out->stream = wav->stream.index;
  out->pts = wav->position / info.block_align * 1000000 / info.sample_rate;
  wav->position += got;
  *packet = out;
  return 0;
}

int32_t wav_seek(void *state, int64_t position, int32_t) {
  auto *wav = static_cast<Wav *>(state);
  const travik_codec_info &info = wav->stream.info;
  if (!wav->ready) return 1;
  int64_t frame = position > 0 ? position * info.sample_rate / 1000000 : 0;
  int64_t offset = frame * info.block_align;
  if (offset > wav->data_size) offset = wav->data_size;
  if (!seek_to(wav->io, wav->data_start + offset)) return 1;
  wav->position = offset;
  wav->ended = false;
  return 0;
}

const travik_demuxer_driver drivers[] = {
    {"WAV demuxer (RIFF/WAVE: PCM, A-law, mu-law)", "wav", wav_probe, wav_open, wav_close,
     wav_parseheader, wav_parse, wav_seek, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
};

}  // namespace

TRAVIK_PLUGIN_EXPORT void travik_demuxer_wav(void) {
  travik_plugin_register(TRAVIK_PLUGIN_DEMUXER, TRAVIK_PLUGIN_VERSION,
                         const_cast<travik_demuxer_driver *>(drivers));
}
