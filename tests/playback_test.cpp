// Real files played through the frameworks and the build tree's plugins:
// the WAV and YUV4MPEG2 demuxers and the PCM and raw video decoders are
// chosen by the normal probes, every packet is read and decoded, and the
// samples and pixels are compared with what the test wrote.
//
// Plugin directories are computed once per process, so this program points
// the library at <build>/plugins and a temporary HOME before anything else.
#include <gtest/gtest.h>
#include <travik/travik.h>
#include <util/testutil.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

::testing::Environment *const environment = ::testing::AddGlobalTestEnvironment(
    new travik_test::LibraryEnvironment(TRAVIK_TEST_BINARY_DIR "/plugins"));

// ---------------------------------------------------------------- writers

void put16(std::string &s, uint32_t v) {
  s.push_back(static_cast<char>(v & 0xFF));
  s.push_back(static_cast<char>((v >> 8) & 0xFF));
}
void put32(std::string &s, uint32_t v) {
  put16(s, v & 0xFFFF);
  put16(s, v >> 16);
}

struct WavLayout {
  uint32_t tag = 1;
  uint32_t channels = 2;
  uint32_t rate = 44100;
  uint32_t bits = 16;
  uint32_t format_size = 16;
  int64_t declared_data = -1;  // -1: the real size
  bool list_chunk = false;     // an extra chunk before "data"
};

std::string wav_bytes(const WavLayout &layout, const std::string &samples) {
  std::string fmt;
  put16(fmt, layout.tag);
  put16(fmt, layout.channels);
  put32(fmt, layout.rate);
  put32(fmt, layout.rate * layout.channels * layout.bits / 8);
  put16(fmt, layout.channels * layout.bits / 8);
  put16(fmt, layout.bits);
  while (fmt.size() < layout.format_size) fmt.push_back(0);
  std::string body = "WAVE";
  body += "fmt ";
  put32(body, static_cast<uint32_t>(fmt.size()));
  body += fmt;
  if (layout.list_chunk) {
    body += "LIST";
    put32(body, 5);
    body += "abcde";
    body.push_back(0);  // pad byte
  }
  body += "data";
  put32(body, layout.declared_data >= 0 ? static_cast<uint32_t>(layout.declared_data)
                                      : static_cast<uint32_t>(samples.size()));
  body += samples;
  std::string file = "RIFF";
  put32(file, static_cast<uint32_t>(body.size()));
  return file + body;
}

// 16-bit stereo samples with a pattern that differs per sample.
std::vector<int16_t> pattern16(int frames, int channels) {
  std::vector<int16_t> v;
  for (int i = 0; i < frames; i++)
    for (int c = 0; c < channels; c++)
      v.push_back(static_cast<int16_t>((i * 37 + c * 1000) % 65536 - 32768));
  return v;
}

std::string le_bytes(const std::vector<int16_t> &v) {
  std::string s;
  for (int16_t x : v) put16(s, static_cast<uint16_t>(x));
  return s;
}

struct Y4mLayout {
  int width = 64;
  int height = 48;
  int frames = 5;
  std::string params = " F30000:1001 Ip A1:1 C420jpeg XYSCSS=420JPEG";
  std::string frame_line = "FRAME\n";
};

uint8_t pixel(int plane, int x, int y, int frame) {
  return static_cast<uint8_t>(plane * 71 + x * 3 + y * 5 + frame * 11);
}

std::string y4m_bytes(const Y4mLayout &layout) {
  std::string s = "YUV4MPEG2 W" + std::to_string(layout.width) + " H" +
                  std::to_string(layout.height) + layout.params + "\n";
  for (int f = 0; f < layout.frames; f++) {
    s += layout.frame_line;
    for (int plane = 0; plane < 3; plane++) {
      const int w = plane ? layout.width / 2 : layout.width, h = plane ? layout.height / 2 : layout.height;
      for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) s.push_back(static_cast<char>(pixel(plane, x, y, f)));
    }
  }
  return s;
}

// ---------------------------------------------------------------- playing

// An input file opened through a demuxer chosen by the probes.
class Playback {
 public:
  explicit Playback(const std::string &path) {
    io_ = travik_io_create(path.c_str());
    demuxer_ = travik_demuxer_create(io_, nullptr);
  }
  ~Playback() {
    if (decoder_) travik_decoder_destroy(decoder_);
    if (demuxer_) travik_demuxer_destroy(demuxer_);
    travik_io_destroy(io_);
  }
  travik_demuxer *demuxer() { return demuxer_; }
  travik_stream *stream() { return travik_demuxer_getstream(demuxer_, 0); }

  // Parses until the demuxer reports a non-zero status; returns it and
  // stores the packets in order.
  int32_t read_all(std::vector<travik_packet *> &packets, int limit = 100000) {
    for (int i = 0; i < limit; i++) {
      int32_t status = travik_demuxer_parse(demuxer_, nullptr);
      while (travik_packet *p = travik_demuxer_pop(demuxer_)) packets.push_back(p);
      if (status) return status;
    }
    return -1000;
  }

  travik_decoder *decoder(std::string *printed = nullptr) {
    if (!decoder_) {
      travik_test::StdoutCapture capture;
      decoder_ = travik_decoder_create(stream(), nullptr);
      if (printed) *printed = capture.text();
    }
    return decoder_;
  }

  // Decodes one packet completely; returns its frames.
  std::vector<void *> decode(travik_packet *packet) {
    std::vector<void *> frames;
    travik_decoder_setsource(decoder_, packet);
    for (int guard = 0; guard < 1000; guard++) {
      void *frame = nullptr;
      int32_t result = travik_decoder_decode(decoder_, nullptr, &frame);
      if (frame) frames.push_back(frame);
      if (!frame && (result || travik_decoder_empty(decoder_))) break;
    }
    return frames;
  }

 private:
  travik_io *io_;
  travik_demuxer *demuxer_;
  travik_decoder *decoder_ = nullptr;
};

void release_all(std::vector<travik_packet *> &packets) {
  for (travik_packet *p : packets) p->release(p);
  packets.clear();
}

std::vector<int16_t> decode_audio(Playback &play, std::vector<travik_packet *> &packets,
                                  std::vector<int64_t> *first_times = nullptr) {
  std::vector<int16_t> out;
  for (travik_packet *p : packets) {
    for (void *f : play.decode(p)) {
      auto *a = static_cast<travik_audioframe *>(f);
      EXPECT_EQ(a->kind, TRAVIK_FRAME_AUDIO);
      if (first_times) first_times->push_back(a->timestamp);
      out.insert(out.end(), a->samples, a->samples + a->count);
      a->release(a);
    }
  }
  return out;
}

class Files : public ::testing::Test {
 protected:
  std::string write(const std::string &name, const std::string &bytes) {
    std::string path = dir_.file(name);
    travik_test::write_file(path, bytes);
    return path;
  }
  travik_test::TempDir dir_;
};

// ---------------------------------------------------------------- WAV

TEST_F(Files, WavSixteenBitStereoPlays) {
  const int frames = 10000;
  std::vector<int16_t> samples = pattern16(frames, 2);
  std::string path = write("tone.wav", wav_bytes(WavLayout(), le_bytes(samples)));
  Playback play(path);
  ASSERT_NE(play.demuxer(), nullptr);
  EXPECT_STREQ(play.demuxer()->driver->description,
               "WAV demuxer (RIFF/WAVE: PCM, A-law, mu-law)");
  ASSERT_EQ(travik_demuxer_parseheader(play.demuxer()), 0);
  travik_stream *s = play.stream();
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->info.type, TRAVIK_STREAM_AUDIO);
  EXPECT_EQ(s->info.codec, TRAVIK_CODEC_PCM_S16LE);
  EXPECT_EQ(s->info.channels, 2);
  EXPECT_EQ(s->info.sample_rate, 44100);
  EXPECT_EQ(s->info.block_align, 4);
  EXPECT_EQ(play.demuxer()->bitrate, 44100 * 4 * 8);
  EXPECT_EQ(travik_demuxer_getduration(play.demuxer()), 226u);  // 10000 / 44100 s
  EXPECT_EQ(travik_demuxer_seekable(play.demuxer()), 1);
  EXPECT_STREQ(travik_metadata_gettext(&play.demuxer()->metadata, TRAVIK_META_TITLE), "tone");

  std::vector<travik_packet *> packets;
  EXPECT_EQ(play.read_all(packets), TRAVIK_DEMUXER_END);
  int64_t position = 0;
  for (travik_packet *p : packets) {
    EXPECT_EQ(p->stream, 0);
    EXPECT_EQ(p->pts, position * 1000000 / 44100);
    EXPECT_EQ(p->size % 4, 0);
    position += p->size / 4;
  }
  EXPECT_EQ(position, frames);

  std::string printed;
  ASSERT_NE(play.decoder(&printed), nullptr);
  EXPECT_EQ(printed, "Decoder driver name = PCM decoder (16-bit little-endian)\n");
  std::vector<int64_t> times;
  std::vector<int16_t> decoded = decode_audio(play, packets, &times);
  EXPECT_EQ(decoded, samples);
  ASSERT_EQ(times.size(), packets.size());
  for (size_t i = 0; i < times.size(); i++) EXPECT_EQ(times[i], packets[i]->pts);
  release_all(packets);
  // The end stays the end.
  EXPECT_EQ(travik_demuxer_parse(play.demuxer(), nullptr), TRAVIK_DEMUXER_END);
}

TEST_F(Files, WavSeekIsSampleAccurate) {
  const int frames = 44100;
  std::vector<int16_t> samples = pattern16(frames, 2);
  Playback play(write("seek.wav", wav_bytes(WavLayout(), le_bytes(samples))));
  ASSERT_NE(play.demuxer(), nullptr);
  ASSERT_EQ(travik_demuxer_parseheader(play.demuxer()), 0);
  ASSERT_NE(play.decoder(), nullptr);
  for (int32_t ms : {500, 1, 123, 0, 999}) {
    SCOPED_TRACE(ms);
    ASSERT_EQ(travik_demuxer_seek(play.demuxer(), ms, 0), 0);
    travik_demuxer_clear_packets(play.demuxer());
    travik_decoder_reset(play.decoder());
    ASSERT_EQ(travik_demuxer_parse(play.demuxer(), nullptr), 0);
    travik_packet *p = travik_demuxer_pop(play.demuxer());
    ASSERT_NE(p, nullptr);
    const int64_t frame = static_cast<int64_t>(ms) * 44100 / 1000;
    EXPECT_EQ(p->pts, frame * 1000000 / 44100);
    std::vector<travik_packet *> one = {p};
    std::vector<int16_t> decoded = decode_audio(play, one);
    ASSERT_GE(decoded.size(), 2u);
    EXPECT_EQ(decoded[0], samples[frame * 2]);
    EXPECT_EQ(decoded[1], samples[frame * 2 + 1]);
    release_all(one);
  }
}

TEST_F(Files, WavSeekPastTheEndEndsTheInput) {
  Playback play(write("short.wav", wav_bytes(WavLayout(), le_bytes(pattern16(100, 2)))));
  ASSERT_NE(play.demuxer(), nullptr);
  ASSERT_EQ(travik_demuxer_parseheader(play.demuxer()), 0);
  EXPECT_EQ(travik_demuxer_seek(play.demuxer(), 60000, 0), 0);
  EXPECT_EQ(travik_demuxer_parse(play.demuxer(), nullptr), TRAVIK_DEMUXER_END);
  EXPECT_EQ(travik_demuxer_pop(play.demuxer()), nullptr);
}

TEST_F(Files, WavEightBitMonoPlays) {
  WavLayout layout;
  layout.channels = 1;
  layout.rate = 8000;
  layout.bits = 8;
  std::string data;
  for (int i = 0; i < 3000; i++) data.push_back(static_cast<char>(i * 7));
  Playback play(write("eight.wav", wav_bytes(layout, data)));
  ASSERT_NE(play.demuxer(), nullptr);
  ASSERT_EQ(travik_demuxer_parseheader(play.demuxer()), 0);
  EXPECT_EQ(play.stream()->info.codec, TRAVIK_CODEC_PCM_U8);
  std::vector<travik_packet *> packets;
  EXPECT_EQ(play.read_all(packets), TRAVIK_DEMUXER_END);
  ASSERT_NE(play.decoder(), nullptr);
  std::vector<int16_t> decoded = decode_audio(play, packets);
  ASSERT_EQ(decoded.size(), data.size());
  for (size_t i = 0; i < data.size(); i++)
    ASSERT_EQ(decoded[i], (static_cast<uint8_t>(data[i]) - 128) * 256) << i;
  release_all(packets);
}

// Known G.711 code points and their 16-bit values.
TEST_F(Files, WavALawPlays) {
  WavLayout layout;
  layout.tag = 6;
  layout.channels = 1;
  layout.rate = 8000;
  layout.bits = 8;
  const std::string data = {'\xD5', '\x55', '\xAA', '\x2A', '\xD4'};
  Playback play(write("alaw.wav", wav_bytes(layout, data)));
  ASSERT_NE(play.demuxer(), nullptr);
  ASSERT_EQ(travik_demuxer_parseheader(play.demuxer()), 0);
  EXPECT_EQ(play.stream()->info.codec, TRAVIK_CODEC_PCM_ALAW);
  std::vector<travik_packet *> packets;
  play.read_all(packets);
  ASSERT_NE(play.decoder(), nullptr);
  EXPECT_EQ(decode_audio(play, packets), (std::vector<int16_t>{8, -8, 32256, -32256, 24}));
  release_all(packets);
}

TEST_F(Files, WavMuLawPlays) {
  WavLayout layout;
  layout.tag = 7;
  layout.channels = 1;
  layout.rate = 8000;
  layout.bits = 8;
  const std::string data = {'\xFF', '\x7F', '\x80', '\x00', '\xFE'};
  Playback play(write("ulaw.wav", wav_bytes(layout, data)));
  ASSERT_NE(play.demuxer(), nullptr);
  ASSERT_EQ(travik_demuxer_parseheader(play.demuxer()), 0);
  EXPECT_EQ(play.stream()->info.codec, TRAVIK_CODEC_PCM_MULAW);
  std::vector<travik_packet *> packets;
  play.read_all(packets);
  ASSERT_NE(play.decoder(), nullptr);
  EXPECT_EQ(decode_audio(play, packets), (std::vector<int16_t>{0, 0, 32124, -32124, 8}));
  release_all(packets);
}

TEST_F(Files, WavSixChannelsAtAnOddRatePlay) {
  WavLayout layout;
  layout.channels = 6;
  layout.rate = 11025;
  layout.list_chunk = true;
  layout.format_size = 18;  // with a zero extra-size field
  std::vector<int16_t> samples = pattern16(2000, 6);
  Playback play(write("surround.wav", wav_bytes(layout, le_bytes(samples))));
  ASSERT_NE(play.demuxer(), nullptr);
  ASSERT_EQ(travik_demuxer_parseheader(play.demuxer()), 0);
  EXPECT_EQ(play.stream()->info.channels, 6);
  std::vector<travik_packet *> packets;
  EXPECT_EQ(play.read_all(packets), TRAVIK_DEMUXER_END);
  for (travik_packet *p : packets) EXPECT_EQ(p->size % 12, 0);
  ASSERT_NE(play.decoder(), nullptr);
  EXPECT_EQ(decode_audio(play, packets), samples);
  release_all(packets);
}

TEST_F(Files, UpperCaseExtensionIsMatched) {
  Playback play(write("LOUD.WAV", wav_bytes(WavLayout(), le_bytes(pattern16(10, 2)))));
  ASSERT_NE(play.demuxer(), nullptr);
  EXPECT_EQ(travik_demuxer_parseheader(play.demuxer()), 0);
}

TEST_F(Files, UnclaimedExtensionGivesNoDemuxer) {
  Playback play(write("tone.xyz", wav_bytes(WavLayout(), le_bytes(pattern16(10, 2)))));
  EXPECT_EQ(play.demuxer(), nullptr);
}

TEST_F(Files, WavFromMemoryPlays) {
  std::vector<int16_t> samples = pattern16(3000, 2);
  std::string bytes = wav_bytes(WavLayout(), le_bytes(samples));
  char url[128];
  std::snprintf(url, sizeof url, "mem://%llx:%u/clip.wav",
                static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(bytes.data())),
                static_cast<unsigned>(bytes.size()));
  Playback play(url);
  ASSERT_NE(play.demuxer(), nullptr);
  ASSERT_EQ(travik_demuxer_parseheader(play.demuxer()), 0);
  std::vector<travik_packet *> packets;
  EXPECT_EQ(play.read_all(packets), TRAVIK_DEMUXER_END);
  ASSERT_NE(play.decoder(), nullptr);
  EXPECT_EQ(decode_audio(play, packets), samples);
  release_all(packets);
}

// ---------------------------------------------------------------- bad WAV


class BadWav : public Files {
 protected:
  int32_t header(const std::string &bytes) {
    Playback play(write("bad.wav", bytes));
    if (!play.demuxer()) return -100;
    return travik_demuxer_parseheader(play.demuxer());
  }

  bool claimed_by_wav(const std::string &bytes) {
    Playback play(write("any.wav", bytes));
    return play.demuxer() &&
           std::string(play.demuxer()->driver->description).rfind("WAV demuxer", 0) == 0;
  }
};

TEST_F(BadWav, EmptyFileIsNotClaimed) { EXPECT_EQ(header(""), -100); }

TEST_F(BadWav, GarbageIsNotClaimed) { EXPECT_EQ(header(std::string(300, 'x')), -100); }

TEST_F(BadWav, TruncatedHeaderIsRefused) {
  std::string full = wav_bytes(WavLayout(), le_bytes(pattern16(10, 2)));
  for (size_t cut : {12u, 16u, 20u, 30u, 40u}) {
    SCOPED_TRACE(cut);
    EXPECT_NE(header(full.substr(0, cut)), 0);
  }
}

TEST_F(BadWav, AbsurdRatesAreRefused) {
  for (uint32_t rate : {0u, 100000000u, 0xFFFFFFFFu}) {
    WavLayout layout;
    layout.rate = rate;
    EXPECT_NE(header(wav_bytes(layout, std::string(16, 0))), 0) << rate;
  }
}

TEST_F(BadWav, NoChannelsOrTooManyAreRefused) {
  for (uint32_t channels : {0u, 65535u}) {
    WavLayout layout;
    layout.channels = channels;
    EXPECT_NE(header(wav_bytes(layout, std::string(16, 0))), 0) << channels;
  }
}

// Formats the native decoder cannot serve are not claimed by the WAV
// demuxer, so that another demuxer (where one is installed) may take them.
TEST_F(BadWav, UnsupportedFormatsAreNotClaimed) {
  WavLayout mp3;
  mp3.tag = 0x55;
  WavLayout deep;
  deep.bits = 24;
  WavLayout wide;
  wide.bits = 32;
  WavLayout extensible;
  extensible.tag = 0xFFFE;
  for (const WavLayout &layout : {mp3, deep, wide, extensible}) {
    SCOPED_TRACE(layout.tag * 100 + layout.bits);
    EXPECT_FALSE(claimed_by_wav(wav_bytes(layout, std::string(24, 0))));
  }
  // The same header with 8- or 16-bit samples is the WAV demuxer's.
  EXPECT_TRUE(claimed_by_wav(wav_bytes(WavLayout(), std::string(24, 0))));
  WavLayout eight;
  eight.bits = 8;
  EXPECT_TRUE(claimed_by_wav(wav_bytes(eight, std::string(24, 0))));
}

TEST_F(BadWav, FormatAfterTheSamplesIsNotClaimed) {
  std::string bytes = wav_bytes(WavLayout(), le_bytes(pattern16(10, 2)));
  // Swap the two chunks: "data" now comes first.
  const size_t fmt = bytes.find("fmt "), data = bytes.find("data");
  bytes = bytes.substr(0, fmt) + bytes.substr(data) + bytes.substr(fmt, data - fmt);
  EXPECT_FALSE(claimed_by_wav(bytes));
}

TEST_F(BadWav, AbsurdFormatChunkSizeIsRefused) {
  std::string bytes = wav_bytes(WavLayout(), le_bytes(pattern16(10, 2)));
  bytes[16] = '\xF0';
  bytes[17] = '\xFF';
  bytes[18] = '\xFF';
  bytes[19] = '\x7F';
  EXPECT_NE(header(bytes), 0);
}

TEST_F(BadWav, ChunkLargerThanTheFileIsRefused) {
  WavLayout layout;
  layout.list_chunk = true;
  std::string bytes = wav_bytes(layout, le_bytes(pattern16(10, 2)));
  const size_t list = bytes.find("LIST");
  bytes[list + 7] = '\x40';  // 0x40000005 bytes
  EXPECT_NE(header(bytes), 0);
}

TEST_F(BadWav, DataLargerThanTheFileEndsWithAnError) {
  WavLayout layout;
  layout.declared_data = 1000000;
  std::vector<int16_t> samples = pattern16(1000, 2);
  Playback play(write("long.wav", wav_bytes(layout, le_bytes(samples))));
  ASSERT_NE(play.demuxer(), nullptr);
  ASSERT_EQ(travik_demuxer_parseheader(play.demuxer()), 0);
  std::vector<travik_packet *> packets;
  int32_t status = play.read_all(packets);
  EXPECT_NE(status, 0);
  EXPECT_NE(status, TRAVIK_DEMUXER_END);
  size_t bytes = 0;
  for (travik_packet *p : packets) bytes += static_cast<size_t>(p->size);
  EXPECT_EQ(bytes, samples.size() * 2);  // everything that is there
  release_all(packets);
}

TEST_F(BadWav, UnknownDataSizeRunsToTheEnd) {
  WavLayout layout;
  layout.declared_data = 0xFFFFFFFF;
  std::vector<int16_t> samples = pattern16(1000, 2);
  Playback play(write("stream.wav", wav_bytes(layout, le_bytes(samples))));
  ASSERT_NE(play.demuxer(), nullptr);
  ASSERT_EQ(travik_demuxer_parseheader(play.demuxer()), 0);
  std::vector<travik_packet *> packets;
  EXPECT_EQ(play.read_all(packets), TRAVIK_DEMUXER_END);
  ASSERT_NE(play.decoder(), nullptr);
  EXPECT_EQ(decode_audio(play, packets), samples);
  release_all(packets);
}

TEST_F(BadWav, PartialLastSampleFrameIsDropped) {
  std::vector<int16_t> samples = pattern16(100, 2);
  std::string data = le_bytes(samples) + "\x01\x02\x03";
  Playback play(write("odd.wav", wav_bytes(WavLayout(), data)));
  ASSERT_NE(play.demuxer(), nullptr);
  ASSERT_EQ(travik_demuxer_parseheader(play.demuxer()), 0);
  std::vector<travik_packet *> packets;
  EXPECT_EQ(play.read_all(packets), TRAVIK_DEMUXER_END);
  ASSERT_NE(play.decoder(), nullptr);
  EXPECT_EQ(decode_audio(play, packets), samples);
  release_all(packets);
}

// ---------------------------------------------------------------- Y4M

void expect_picture(travik_videoframe *f, const Y4mLayout &layout, int frame) {
  ASSERT_EQ(f->kind, TRAVIK_FRAME_VIDEO);
  ASSERT_EQ(f->format, TRAVIK_PIXEL_YUV420P);
  ASSERT_EQ(f->width, layout.width);
  ASSERT_EQ(f->height, layout.height);
  for (int plane = 0; plane < 3; plane++) {
    const int w = plane ? layout.width / 2 : layout.width, h = plane ? layout.height / 2 : layout.height;
    for (int y = 0; y < h; y++)
      for (int x = 0; x < w; x++)
        ASSERT_EQ(f->planes[plane][y * f->pitches[plane] + x], pixel(plane, x, y, frame))
            << "plane " << plane << " x " << x << " y " << y << " frame " << frame;
  }
}

TEST_F(Files, Y4mPlays) {
  Y4mLayout layout;
  Playback play(write("clip.y4m", y4m_bytes(layout)));
  ASSERT_NE(play.demuxer(), nullptr);
  EXPECT_STREQ(play.demuxer()->driver->description, "YUV4MPEG2 demuxer (4:2:0)");
  ASSERT_EQ(travik_demuxer_parseheader(play.demuxer()), 0);
  travik_stream *s = play.stream();
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->info.type, TRAVIK_STREAM_VIDEO);
  EXPECT_EQ(s->info.codec, TRAVIK_CODEC_RAWVIDEO);
  EXPECT_EQ(s->info.width, 64);
  EXPECT_EQ(s->info.height, 48);
  EXPECT_EQ(s->info.framerate, 2997);
  EXPECT_EQ(s->user0, 0);        // progressive
  EXPECT_EQ(s->user1, 1 << 16);  // square pixels
  EXPECT_EQ(travik_demuxer_hasvideo(play.demuxer()), 1);
  EXPECT_EQ(travik_demuxer_hasaudio(play.demuxer()), 0);
  EXPECT_EQ(travik_demuxer_getduration(play.demuxer()), 166u);  // 5 * 1001 / 30 ms

  std::vector<travik_packet *> packets;
  EXPECT_EQ(play.read_all(packets), TRAVIK_DEMUXER_END);
  ASSERT_EQ(packets.size(), 5u);
  const int64_t times[] = {0, 33366, 66733, 100100, 133466};
  std::string printed;
  ASSERT_NE(play.decoder(&printed), nullptr);
  EXPECT_EQ(printed, "Decoder driver name = Raw video decoder (planar YUV 4:2:0)\n");
  for (int i = 0; i < 5; i++) {
    SCOPED_TRACE(i);
    EXPECT_EQ(packets[i]->pts, times[i]);
    EXPECT_EQ(packets[i]->size, 64 * 48 * 3 / 2);
    std::vector<void *> frames = play.decode(packets[i]);
    ASSERT_EQ(frames.size(), 1u);
    auto *f = static_cast<travik_videoframe *>(frames[0]);
    EXPECT_EQ(f->timestamp, times[i]);
    EXPECT_EQ(f->info, 1u);
    expect_picture(f, layout, i);
    f->release(f);
  }
  release_all(packets);
}

TEST_F(Files, Y4mSeekIsFrameAccurate) {
  Y4mLayout layout;
  layout.frames = 30;
  layout.params = " F25:1";
  Playback play(write("seek.y4m", y4m_bytes(layout)));
  ASSERT_NE(play.demuxer(), nullptr);
  ASSERT_EQ(travik_demuxer_parseheader(play.demuxer()), 0);
  ASSERT_NE(play.decoder(), nullptr);
  // 40 ms a frame: a time inside a frame gives that frame.
  for (auto [ms, frame] : std::vector<std::pair<int32_t, int>>{{400, 10}, {439, 10}, {0, 0},
                                                               {1160, 29}, {81, 2}}) {
    SCOPED_TRACE(ms);
    ASSERT_EQ(travik_demuxer_seek(play.demuxer(), ms, 0), 0);
    ASSERT_EQ(travik_demuxer_parse(play.demuxer(), nullptr), 0);
    travik_packet *p = travik_demuxer_pop(play.demuxer());
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->pts, frame * 40000);
    std::vector<void *> frames = play.decode(p);
    ASSERT_EQ(frames.size(), 1u);
    expect_picture(static_cast<travik_videoframe *>(frames[0]), layout, frame);
    static_cast<travik_videoframe *>(frames[0])->release(
        static_cast<travik_videoframe *>(frames[0]));
    p->release(p);
  }
  EXPECT_EQ(travik_demuxer_seek(play.demuxer(), 5000, 0), 0);
  EXPECT_EQ(travik_demuxer_parse(play.demuxer(), nullptr), TRAVIK_DEMUXER_END);
}

TEST_F(Files, Y4mSeeksThroughFrameParameters) {
  Y4mLayout layout;
  layout.frames = 8;
  layout.params = " F10:1 It";
  layout.frame_line = "FRAME Ib XYZ=1\n";
  Playback play(write("params.y4m", y4m_bytes(layout)));
  ASSERT_NE(play.demuxer(), nullptr);
  ASSERT_EQ(travik_demuxer_parseheader(play.demuxer()), 0);
  EXPECT_EQ(play.stream()->user0, 1);  // top field first
  EXPECT_EQ(play.stream()->info.framerate, 1000);
  ASSERT_EQ(travik_demuxer_seek(play.demuxer(), 500, 0), 0);
  ASSERT_EQ(travik_demuxer_parse(play.demuxer(), nullptr), 0);
  travik_packet *p = travik_demuxer_pop(play.demuxer());
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p->pts, 500000);
  ASSERT_NE(play.decoder(), nullptr);
  std::vector<void *> frames = play.decode(p);
  ASSERT_EQ(frames.size(), 1u);
  expect_picture(static_cast<travik_videoframe *>(frames[0]), layout, 5);
  static_cast<travik_videoframe *>(frames[0])->release(static_cast<travik_videoframe *>(frames[0]));
  p->release(p);
}

// user0 holds the interlacing, user1 the pixel aspect in 16.16 (0 unknown).
TEST_F(Files, Y4mReadsInterlacingAndAspect) {
  struct Case {
    const char *params;
    int32_t interlacing;
    int32_t aspect;
  };
  const Case cases[] = {
      {" F25:1 Ib A128:117", 2, (128 << 16) / 117},
      {" F25:1 Im A12:11", 3, (12 << 16) / 11},
      {" F25:1 I? A0:0", -1, 0},
      {" F25:1", 0, 0},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.params);
    Y4mLayout layout;
    layout.frames = 1;
    layout.params = c.params;
    Playback play(write("fields.y4m", y4m_bytes(layout)));
    ASSERT_NE(play.demuxer(), nullptr);
    ASSERT_EQ(travik_demuxer_parseheader(play.demuxer()), 0);
    EXPECT_EQ(play.stream()->user0, c.interlacing);
    EXPECT_EQ(play.stream()->user1, c.aspect);
  }
}

TEST_F(Files, Y4mWithoutFramesEndsAtOnce) {
  Y4mLayout layout;
  layout.frames = 0;
  Playback play(write("empty.y4m", y4m_bytes(layout)));
  ASSERT_NE(play.demuxer(), nullptr);
  ASSERT_EQ(travik_demuxer_parseheader(play.demuxer()), 0);
  EXPECT_EQ(travik_demuxer_parse(play.demuxer(), nullptr), TRAVIK_DEMUXER_END);
}

class BadY4m : public Files {
 protected:
  int32_t header(const std::string &bytes) {
    Playback play(write("bad.y4m", bytes));
    if (!play.demuxer()) return -100;
    return travik_demuxer_parseheader(play.demuxer());
  }
};

TEST_F(BadY4m, EmptyAndGarbageAreNotClaimed) {
  EXPECT_EQ(header(""), -100);
  EXPECT_EQ(header(std::string(100, '\0')), -100);
}

TEST_F(BadY4m, UnsupportedColourSpacesAreRefused) {
  for (const char *c : {"C422", "C444", "Cmono", "C420p10", "C411"}) {
    EXPECT_NE(header(std::string("YUV4MPEG2 W16 H16 F25:1 ") + c + "\n"), 0) << c;
  }
  EXPECT_EQ(header("YUV4MPEG2 W16 H16 F25:1 C420mpeg2\n"), 0);
  EXPECT_EQ(header("YUV4MPEG2 W16 H16 F25:1 C420paldv\n"), 0);
}

TEST_F(BadY4m, AbsurdSizesAreRefused) {
  for (const char *size : {"W0 H16", "W16 H0", "W100000 H16", "W16 H999999999", "W15 H16",
                           "W16 H17", "W16384 H16384", "H16", "W16", "W-16 H16", "W1x H16"}) {
    EXPECT_NE(header(std::string("YUV4MPEG2 ") + size + " F25:1\n"), 0) << size;
  }
}

TEST_F(BadY4m, AbsurdRatesAreRefused) {
  for (const char *rate : {"F0:1", "F1:0", "F100000:1", "F1:1000", "F25", "F:1", "F25:1x",
                           "F1000000000:1"}) {
    EXPECT_NE(header(std::string("YUV4MPEG2 W16 H16 ") + rate + "\n"), 0) << rate;
  }
}

TEST_F(BadY4m, MalformedInterlacingOrAspectIsRefused) {
  for (const char *p : {"Ix", "Ipp", "A1", "A1:", "A:1", "A1:1x"}) {
    EXPECT_NE(header(std::string("YUV4MPEG2 W16 H16 F25:1 ") + p + "\n"), 0) << p;
  }
}

TEST_F(BadY4m, HeaderWithoutNewlineIsRefused) {
  EXPECT_NE(header("YUV4MPEG2 W16 H16 F25:1"), 0);
  EXPECT_NE(header("YUV4MPEG2 W16 H16 F25:1 X" + std::string(10000, 'a') + "\n"), 0);
}

TEST_F(BadY4m, TruncatedFrameIsAnError) {
  Y4mLayout layout;
  layout.frames = 2;
  std::string bytes = y4m_bytes(layout);
  bytes.resize(bytes.size() - 10);
  Playback play(write("cut.y4m", bytes));
  ASSERT_NE(play.demuxer(), nullptr);
  ASSERT_EQ(travik_demuxer_parseheader(play.demuxer()), 0);
  std::vector<travik_packet *> packets;
  int32_t status = play.read_all(packets);
  EXPECT_EQ(packets.size(), 1u);
  EXPECT_NE(status, 0);
  EXPECT_NE(status, TRAVIK_DEMUXER_END);
  release_all(packets);
}

TEST_F(BadY4m, GarbageInsteadOfAFrameIsAnError) {
  Y4mLayout layout;
  layout.frames = 1;
  std::string bytes = y4m_bytes(layout) + "FRAMX\n" + std::string(64 * 48 * 3 / 2, 'a');
  Playback play(write("junk.y4m", bytes));
  ASSERT_NE(play.demuxer(), nullptr);
  ASSERT_EQ(travik_demuxer_parseheader(play.demuxer()), 0);
  std::vector<travik_packet *> packets;
  int32_t status = play.read_all(packets);
  EXPECT_EQ(packets.size(), 1u);
  EXPECT_NE(status, 0);
  EXPECT_NE(status, TRAVIK_DEMUXER_END);
  release_all(packets);
}

// ---------------------------------------------------------------- to an output

// A frame allocator that takes picture memory from a video output, so that
// decoded pictures are shown from where the decoder wrote them.
struct OutputFrame {
  travik_videoframe frame;
  travik_video *video;
};

std::vector<uint8_t *> output_memory;  // planes[0] of every picture handed out

int32_t release_output_frame(travik_videoframe *f) {
  if (--f->refcount > 0) return f->refcount;
  auto *o = reinterpret_cast<OutputFrame *>(f);
  travik_video_freebuffer(o->video, f->planes);
  delete o;
  return 0;
}

void *alloc_output_frame(void *user, void *templ) {
  auto *o = new OutputFrame;
  travik_videoframe_init(&o->frame, static_cast<travik_videoframe *>(templ));
  o->video = static_cast<travik_video *>(user);
  if (travik_video_allocbuffer(o->video, o->frame.planes, o->frame.pitches, o->frame.width,
                               o->frame.height) != 0) {
    delete o;
    return nullptr;
  }
  o->frame.refcount = 1;
  o->frame.release = release_output_frame;
  output_memory.push_back(o->frame.planes[0]);
  return o;
}

// Y4M in, raw video decoded into the y4m output's own picture memory, drawn
// from there: the written file holds the same frames byte for byte.
TEST_F(Files, Y4mDecodesIntoOutputMemoryAndWritesItBack) {
  Y4mLayout layout;
  layout.width = 40;  // output rows are padded beyond the width
  layout.height = 30;
  layout.frames = 4;
  const std::string input = y4m_bytes(layout);
  const std::string output = dir_.file("copy.y4m");
  const std::string argument = "path=" + output + ",fps=30000:1001";
  travik_video *video = travik_video_create("y4m", const_cast<char *>(argument.c_str()));
  ASSERT_NE(video, nullptr);
  output_memory.clear();
  {
    Playback play(write("source.y4m", input));
    ASSERT_NE(play.demuxer(), nullptr);
    ASSERT_EQ(travik_demuxer_parseheader(play.demuxer()), 0);
    auto *allocator = new travik_decoder_allocator{
        video, alloc_output_frame, [](travik_decoder_allocator *a) { delete a; }};
    travik_decoder *decoder = travik_decoder_create(play.stream(), allocator);
    ASSERT_NE(decoder, nullptr);
    std::vector<travik_packet *> packets;
    EXPECT_EQ(play.read_all(packets), TRAVIK_DEMUXER_END);
    ASSERT_EQ(packets.size(), 4u);
    int shown = 0;
    for (travik_packet *p : packets) {
      travik_decoder_setsource(decoder, p);
      for (int guard = 0; guard < 10; guard++) {
        void *out = nullptr;
        int32_t result = travik_decoder_decode(decoder, nullptr, &out);
        if (out) {
          auto *f = static_cast<travik_videoframe *>(out);
          EXPECT_EQ(f->planes[0], output_memory.back());
          EXPECT_GT(f->pitches[0], f->width);
          EXPECT_EQ(travik_video_draw(video, 0, 0, -1, -1, f), 0);
          travik_video_flip(video);
          f->release(f);
          shown++;
        }
        if (!out && (result || travik_decoder_empty(decoder))) break;
      }
    }
    EXPECT_EQ(shown, 4);
    EXPECT_EQ(output_memory.size(), 4u);
    travik_decoder_destroy(decoder);
    release_all(packets);
  }
  travik_video_destroy(video);
  const std::string written = travik_test::read_file(output);
  ASSERT_EQ(written.substr(0, written.find('\n')), "YUV4MPEG2 W40 H30 F30000:1001 Ip A1:1 C420jpeg");
  EXPECT_TRUE(written.substr(written.find('\n')) == input.substr(input.find('\n')));
}

// ---------------------------------------------------------------- decoders

TEST_F(Files, DecoderIsChosenByName) {
  Playback play(write("named.wav", wav_bytes(WavLayout(), le_bytes(pattern16(10, 2)))));
  ASSERT_NE(play.demuxer(), nullptr);
  ASSERT_EQ(travik_demuxer_parseheader(play.demuxer()), 0);
  travik_decoder *d = travik_decoder_create_by_name(play.stream(), nullptr, "PCM");
  ASSERT_NE(d, nullptr);
  EXPECT_NE(d->plugin, nullptr);
  travik_decoder_destroy(d);
  EXPECT_EQ(travik_decoder_create_by_name(play.stream(), nullptr, "rawvideo"), nullptr);
}

TEST_F(Files, NoDecoderForAnUnknownCodec) {
  travik_stream s;
  travik_stream_init(&s);
  s.info.type = TRAVIK_STREAM_AUDIO;
  s.info.codec = TRAVIK_CODEC_SPEEX;  // no plugin decodes it
  EXPECT_EQ(travik_decoder_create(&s, nullptr), nullptr);
  s.info.type = TRAVIK_STREAM_OTHER;
  s.info.codec = TRAVIK_CODEC_PCM_S16LE;  // type 0: empty match string
  EXPECT_EQ(travik_decoder_create(&s, nullptr), nullptr);
}

TEST_F(Files, RawVideoDecoderRefusesOddSizes) {
  travik_stream s;
  travik_stream_init(&s);
  s.info.type = TRAVIK_STREAM_VIDEO;
  s.info.codec = TRAVIK_CODEC_RAWVIDEO;
  s.info.width = 15;
  s.info.height = 16;
  EXPECT_EQ(travik_decoder_create(&s, nullptr), nullptr);
}

TEST_F(Files, RawVideoDecoderDropsShortPictures) {
  travik_stream s;
  travik_stream_init(&s);
  s.info.type = TRAVIK_STREAM_VIDEO;
  s.info.codec = TRAVIK_CODEC_RAWVIDEO;
  s.info.width = 16;
  s.info.height = 16;
  travik_decoder *d = travik_decoder_create(&s, nullptr);
  ASSERT_NE(d, nullptr);
  std::vector<uint8_t> payload(100, 1);
  travik_packet p;
  travik_packet_init(&p);
  p.data = payload.data();
  p.size = 100;
  travik_decoder_setsource(d, &p);
  void *frame;
  EXPECT_EQ(travik_decoder_decode(d, nullptr, &frame), 1);
  EXPECT_EQ(frame, nullptr);
  EXPECT_EQ(travik_decoder_empty(d), 1);
  travik_decoder_destroy(d);
}

}  // namespace
