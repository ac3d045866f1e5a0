// YUV4MPEG2 demuxer for 4:2:0 video: one video stream of raw planar
// pictures (codec TRAVIK_CODEC_RAWVIDEO), one packet a frame, timestamps from
// the frame rate, frame-accurate seeking.
//
// The stream's user0 holds the interlacing (0 progressive, 1 top field
// first, 2 bottom field first, 3 mixed, -1 unknown) and user1 the pixel
// aspect ratio in 16.16 fixed point (0 when unknown).
#include <travik/codec.h>
#include <travik/demuxer.h>
#include <travik/io.h>

#include <cstdlib>
#include <cstring>

namespace {

constexpr int32_t kMaxHeaderLine = 4096;
constexpr int32_t kMaxFrameLine = 1024;
constexpr int32_t kMaxSide = 16384;
constexpr int64_t kMaxArea = 1 << 26;
constexpr int64_t kMaxFramesPerSecond = 1000;
// Frame-rate terms, after reduction, stay below this; with it every time
// computation below fits 64 bits.
constexpr int64_t kMaxRateTerm = 1000000;
const char kSignature[] = "YUV4MPEG2 ";
const char kFrame[] = "FRAME";

struct Y4m {
  travik_demuxer *demuxer;
  travik_io *io;
  travik_stream stream;
  int64_t rate_num;     // frames per second = rate_num / rate_den
  int64_t rate_den;
  int64_t frame_bytes;  // payload of one frame
  int64_t data_start;   // offset of the first "FRAME"
  int64_t frame;        // index of the next frame parse delivers
};

int64_t gcd(int64_t a, int64_t b) {
  while (b) {
    int64_t t = a % b;
    a = b;
    b = t;
  }
  return a;
}

// The start of frame `frames` in units of 1/`unit` second, rounded down:
// frames * den * unit / num without overflowing.
int64_t frame_time(const Y4m *y4m, int64_t frames, int64_t unit) {
  const int64_t t = frames * y4m->rate_den;
  return t / y4m->rate_num * unit + t % y4m->rate_num * unit / y4m->rate_num;
}

// The frame shown at `microseconds`: the last one whose time (as parse
// stamps it, rounded down) is not later. Times are at most 10^13 us, so
// the product stays within 64 bits.
int64_t frame_at(const Y4m *y4m, int64_t microseconds) {
  return ((microseconds + 1) * y4m->rate_num - 1) / (y4m->rate_den * 1000000);
}

bool seek_to(travik_io *io, int64_t offset) {
  int32_t here = travik_io_pos(io);
  if (here < 0 || offset < 0 || offset > INT32_MAX) return false;
  return travik_io_seek(io, static_cast<int32_t>(offset - here), 1) == offset;
}

// Bytes the input holds in all, or -1 when unknown. The reported length is
// checked by reading at it, since a back-end may report one byte less.
int64_t input_length(travik_io *io) {
  int32_t here = travik_io_pos(io);
  int64_t length = travik_io_length(io);
  if (length >= 0 && seek_to(io, length)) {
    char probe[16];
    int32_t more = travik_io_read(io, probe, sizeof probe);
    if (more > 0) length += more;
  }
  seek_to(io, here);
  return length;
}

// Reads up to a newline (not stored) into `line`, at most `size` - 1 bytes;
// false when the input ends first or the line is longer.
bool read_line(travik_io *io, char *line, int32_t size) {
  for (int32_t n = 0; n < size - 1; n++) {
    if (travik_io_read(io, line + n, 1) != 1) return false;
    if (line[n] == '\n') {
      line[n] = '\0';
      return true;
    }
  }
  return false;
}

// A positive decimal number of at most nine digits at `text`.
bool parse_number(const char *&text, int64_t &value) {
  value = 0;
  int digits = 0;
  while (*text >= '0' && *text <= '9') {
    if (++digits > 9) return false;
    value = value * 10 + (*text++ - '0');
  }
  return digits > 0;
}

bool parse_ratio(const char *text, int64_t &num, int64_t &den) {
  if (!parse_number(text, num) || *text++ != ':' || !parse_number(text, den)) return false;
  return *text == '\0';
}

bool supported_colourspace(const char *value) {
  return std::strcmp(value, "420") == 0 || std::strcmp(value, "420jpeg") == 0 ||
         std::strcmp(value, "420mpeg2") == 0 || std::strcmp(value, "420paldv") == 0;
}

// Reads one "FRAME[ parameters]" line; 0 read, TRAVIK_DEMUXER_END when the
// input ends cleanly before it, 1 for anything else.
int32_t read_frame_header(travik_io *io) {
  char line[kMaxFrameLine];
  int32_t got = travik_io_read(io, line, 5);
  if (got == 0) return TRAVIK_DEMUXER_END;
  if (got != 5 || std::memcmp(line, kFrame, 5) != 0) return 1;
  char next;
  if (travik_io_read(io, &next, 1) != 1) return 1;
  if (next == '\n') return 0;
  if (next != ' ') return 1;
  return read_line(io, line, sizeof line) ? 0 : 1;
}

int32_t y4m_probe(travik_io *input, int32_t) {
  char head[sizeof kSignature - 1];
  if (!seek_to(input, 0) || travik_io_read(input, head, sizeof head) != sizeof head) return 0;
  return std::memcmp(head, kSignature, sizeof head) == 0 ? 100 : 0;
}

void *y4m_open(travik_demuxer *demuxer, int32_t) {
  auto *y4m = static_cast<Y4m *>(std::calloc(1, sizeof(Y4m)));
  y4m->demuxer = demuxer;
  y4m->io = demuxer->input;
  travik_stream_init(&y4m->stream);
  return y4m;
}

void y4m_close(void *state) { std::free(state); }

int32_t y4m_parseheader(void *state) {
  auto *y4m = static_cast<Y4m *>(state);
  travik_io *io = y4m->io;
  char line[kMaxHeaderLine];
  if (!seek_to(io, 0) || !read_line(io, line, sizeof line)) return 1;
  if (std::strncmp(line, kSignature, sizeof kSignature - 1) != 0) return 1;
  int64_t width = 0, height = 0, num = 25, den = 1;
  int64_t aspect_num = 0, aspect_den = 0;
  int32_t interlacing = 0;
  char *save = nullptr;
  for (char *token = strtok_r(line + sizeof kSignature - 1, " ", &save); token;
       token = strtok_r(nullptr, " ", &save)) {
    const char *value = token + 1;
    switch (token[0]) {
      case 'W':
        if (!parse_number(value, width) || *value) return 1;
        break;
      case 'H':
        if (!parse_number(value, height) || *value) return 1;
        break;
      case 'F':
        if (!parse_ratio(value, num, den)) return 1;
        break;
      case 'A':
        if (!parse_ratio(value, aspect_num, aspect_den)) return 1;
        break;
      case 'I':
        if (std::strcmp(value, "p") == 0) interlacing = 0;
        else if (std::strcmp(value, "t") == 0) interlacing = 1;
        else if (std::strcmp(value, "b") == 0) interlacing = 2;
        else if (std::strcmp(value, "m") == 0) interlacing = 3;
        else if (std::strcmp(value, "?") == 0) interlacing = -1;
        else return 1;
        break;
      case 'C':
        if (!supported_colourspace(value)) return 1;
        break;
      default:  // X comments and unknown parameters
        break;
    }
  }
  // 4:2:0 with whole chroma samples: even sizes only.
  if (width < 2 || height < 2 || width > kMaxSide || height > kMaxSide) return 1;
  if ((width | height) & 1 || width * height > kMaxArea) return 1;
  if (num < 1 || den < 1 || num > kMaxFramesPerSecond * den || num * 100 < den) return 1;
  const int64_t common = gcd(num, den);
  num /= common;
  den /= common;
  if (num > kMaxRateTerm || den > kMaxRateTerm) return 1;

  y4m->rate_num = num;
  y4m->rate_den = den;
  y4m->frame_bytes = width * height * 3 / 2;
  y4m->data_start = travik_io_pos(io);
  y4m->frame = 0;
  travik_codec_info &info = y4m->stream.info;
  info.type = TRAVIK_STREAM_VIDEO;
  info.codec = TRAVIK_CODEC_RAWVIDEO;
  info.tag = TRAVIK_FOURCC('I', '4', '2', '0');
  info.width = static_cast<int32_t>(width);
  info.height = static_cast<int32_t>(height);
  info.bits_per_sample = 12;
  info.framerate = static_cast<int32_t>(num * 100 / den);
  const int64_t bitrate = y4m->frame_bytes * 8 * num / den;
  info.bitrate = bitrate > INT32_MAX ? INT32_MAX : static_cast<int32_t>(bitrate);
  y4m->stream.user0 = interlacing;
  y4m->stream.user1 =
      aspect_num > 0 && aspect_den > 0 ? static_cast<int32_t>((aspect_num << 16) / aspect_den) : 0;
  // The duration counts the frames the file holds, assuming plain "FRAME"
  // lines; 0 when the input's length is unknown.
  const int64_t length = input_length(io);
  if (length > y4m->data_start) {
    const int64_t frames = (length - y4m->data_start) / (y4m->frame_bytes + 6);
    y4m->stream.duration = frame_time(y4m, frames, 1000);
  }
  y4m->demuxer->bitrate = info.bitrate;
  travik_demuxer_addstream(y4m->demuxer, &y4m->stream);
  return 0;
}

int32_t y4m_parse(void *state, travik_packet **packet) {
  auto *y4m = static_cast<Y4m *>(state);
  if (y4m->frame_bytes == 0) return 1;  // no header parsed
  int32_t status = read_frame_header(y4m->io);
  if (status) return status;
  travik_demuxer_allocator *allocator = y4m->demuxer->allocator;
  travik_packet *out = allocator->alloc(allocator->user, static_cast<int32_t>(y4m->frame_bytes));
  if (!out) return 1;
  if (travik_io_read(y4m->io, out->data, out->size) != out->size) {
    out->release(out);  // a truncated frame
    return 1;
  }
  out->stream = y4m->stream.index;
  out->pts = frame_time(y4m, y4m->frame, 1000000);
  out->flags = TRAVIK_PACKET_KEY;  // every picture stands alone
  y4m->frame++;
  *packet = out;
  return 0;
}

// Goes to frame `target`: straight to where it lies when every frame line
// is a plain "FRAME", else by walking the frames from the first.
int32_t y4m_seek(void *state, int64_t position, int32_t) {
  auto *y4m = static_cast<Y4m *>(state);
  if (y4m->frame_bytes == 0) return 1;
  if (position < 0) position = 0;
  if (position > 10000000000000LL) position = 10000000000000LL;
  const int64_t target = frame_at(y4m, position);
  const int64_t offset = y4m->data_start + target * (y4m->frame_bytes + 6);
  char marker[6];
  if (offset <= INT32_MAX && seek_to(y4m->io, offset)) {
    int32_t got = travik_io_read(y4m->io, marker, 6);
    if ((got == 0 || (got == 6 && std::memcmp(marker, "FRAME\n", 6) == 0)) &&
        seek_to(y4m->io, offset)) {
      y4m->frame = target;
      return 0;
    }
  }
  if (!seek_to(y4m->io, y4m->data_start)) return 1;
  y4m->frame = 0;
  while (y4m->frame < target) {
    int32_t status = read_frame_header(y4m->io);
    if (status == TRAVIK_DEMUXER_END) return 0;  // past the end: parse reports it
    if (status) return 1;
    if (travik_io_read(y4m->io, nullptr, static_cast<int32_t>(y4m->frame_bytes)) !=
        y4m->frame_bytes)
      return 1;
    y4m->frame++;
  }
  return 0;
}

const travik_demuxer_driver drivers[] = {
    {"YUV4MPEG2 demuxer (4:2:0)", "y4m", y4m_probe, y4m_open, y4m_close, y4m_parseheader,
     y4m_parse, y4m_seek, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
};

}  // namespace

TRAVIK_PLUGIN_EXPORT void travik_demuxer_y4m(void) {
  travik_plugin_register(TRAVIK_PLUGIN_DEMUXER, TRAVIK_PLUGIN_VERSION,
                         const_cast<travik_demuxer_driver *>(drivers));
}
