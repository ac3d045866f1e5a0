#include <gtest/gtest.h>
#include <travik/bytes.h>
#include <travik/codec.h>
#include <travik/io.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

#define FCC(s) TRAVIK_FOURCC((s)[0], (s)[1], (s)[2], (s)[3])

// An I/O handle over a caller's bytes ("mem" back-end), opened.
class MemInput {
 public:
  explicit MemInput(const std::vector<uint8_t> &bytes) : bytes_(bytes) {
    if (bytes_.empty()) bytes_.push_back(0);
    char url[64];
    std::snprintf(url, sizeof url, "mem://%llx:%u",
                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(bytes_.data())),
                  static_cast<unsigned>(bytes.size()));
    io_ = travik_io_create(url);
    EXPECT_EQ(travik_io_open(io_, -1), 0);
  }
  ~MemInput() { travik_io_destroy(io_); }
  travik_io *io() { return io_; }
  int32_t pos() { return travik_io_pos(io_); }

 private:
  std::vector<uint8_t> bytes_;
  travik_io *io_;
};

void le16(std::vector<uint8_t> &v, uint32_t x) {
  v.push_back(x & 0xFF);
  v.push_back((x >> 8) & 0xFF);
}
void le32(std::vector<uint8_t> &v, uint32_t x) {
  le16(v, x & 0xFFFF);
  le16(v, x >> 16);
}

// A WAVE format header of the classic 16 bytes, then `extra` (with its
// size field when `with_extra_size`).
std::vector<uint8_t> wave_format(uint32_t tag, uint32_t channels, uint32_t rate, uint32_t bits) {
  std::vector<uint8_t> v;
  le16(v, tag);
  le16(v, channels);
  le32(v, rate);
  le32(v, rate * channels * (bits / 8));
  le16(v, channels * (bits / 8));
  le16(v, bits);
  return v;
}

travik_codec_info blank_info() {
  travik_codec_info info;
  std::memset(&info, 0, sizeof info);
  return info;
}

TEST(CodecTags, VideoTableHasItsRowsInOrder) {
  const char *tags[] = {"H264", "H263", "H263", "I263", "U263", "viv1", "DIVX", "DX50",
                        "XVID", "MP4S", "M4S2", nullptr, "DIV1", "BLZ0", "mp4v", "UMP4",
                        "DIV3", "FMP4", "MP43", "MPG3", "DIV5", "DIV6", "DIV4", "AP41",
                        "COL1", "COL0", "MP42", "DIV2", "MPG4", "WMV1", "WMV2", "WMV3",
                        "mpg1", "mpg2", "PIM1", "VCR2", "VP6F"};
  const int32_t ids[] = {41, 34, 35, 36, 35, 35, 37, 37, 37, 37, 37, 37, 37, 37, 37, 37, 38, 37, 38,
                         38, 38, 38, 38, 38, 38, 38, 39, 39, 40, 42, 43, 44, 33, 33, 33, 33, 58};
  for (int i = 0; i < 37; i++) {
    SCOPED_TRACE(i);
    EXPECT_EQ(travik_codec_video_tags[i].id, ids[i]);
    EXPECT_EQ(travik_codec_video_tags[i].tag, tags[i] ? FCC(tags[i]) : 4u);
    const bool flagged = i == 6 || i == 7 || i == 8 || i == 16;
    EXPECT_EQ(travik_codec_video_tags[i].flag, flagged ? 1 : 0);
  }
  EXPECT_EQ(travik_codec_video_tags[37].id, 0);
  EXPECT_EQ(travik_codec_video_tags[37].tag, 0u);
  EXPECT_EQ(travik_codec_video_tags[37].flag, 0);
}

TEST(CodecTags, WaveTableHasItsRowsInOrder) {
  const int32_t ids[] = {1, 1, 2, 4, 9, 10, 11, 18, 13, 15, 14, 26, 27, 28, 32, 29, 0};
  const uint32_t tags[] = {0x50,  0x55,  0x2000, 0x1,   0x1,   0x6,   0x7,    0x2, 0x11,
                           0x61,  0x62,  0x160,  0x161, 0x162, 0x000A, 0x566F, 0};
  for (int i = 0; i < 17; i++) {
    SCOPED_TRACE(i);
    EXPECT_EQ(travik_codec_wav_tags[i].id, ids[i]);
    EXPECT_EQ(travik_codec_wav_tags[i].tag, tags[i]);
    EXPECT_EQ(travik_codec_wav_tags[i].flag, 0);
  }
}

TEST(CodecTags, LookupIgnoresCase) {
  EXPECT_EQ(travik_codec_get_id(travik_codec_video_tags, FCC("xvid")), 37);
  EXPECT_EQ(travik_codec_get_id(travik_codec_video_tags, FCC("MP4V")), 37);
  EXPECT_EQ(travik_codec_get_id(travik_codec_video_tags, FCC("h264")), 41);
}

TEST(CodecTags, UnknownTagGivesZero) {
  EXPECT_EQ(travik_codec_get_id(travik_codec_video_tags, FCC("ABCD")), 0);
  EXPECT_EQ(travik_codec_get_id(travik_codec_wav_tags, 0x1234), 0);
}

TEST(CodecTags, FirstMatchingRowWins) {
  EXPECT_EQ(travik_codec_get_id(travik_codec_video_tags, FCC("H263")), 34);
  EXPECT_EQ(travik_codec_get_id(travik_codec_wav_tags, 0x0001), TRAVIK_CODEC_PCM_S16LE);
  EXPECT_EQ(travik_codec_get_id(travik_codec_video_tags, 4), TRAVIK_CODEC_MPEG4);
}

TEST(CodecTags, WaveTagsDifferingInALetterCaseByteMatch) {
  EXPECT_EQ(travik_codec_get_id(travik_codec_wav_tags, 0x0041), 15);  // the 0x0061 row
  EXPECT_EQ(travik_codec_get_id(travik_codec_wav_tags, 0x0075), 1);   // the 0x0055 row
}

TEST(CodecTags, NumbersOutsideTheTablesDoNotMeetThem) {
  const int32_t extra[] = {TRAVIK_CODEC_RAWVIDEO, TRAVIK_CODEC_AAC,    TRAVIK_CODEC_FLAC,
                           TRAVIK_CODEC_OPUS,     TRAVIK_CODEC_HEVC,   TRAVIK_CODEC_VP8,
                           TRAVIK_CODEC_VP9,      TRAVIK_CODEC_AV1,    TRAVIK_CODEC_THEORA,
                           TRAVIK_CODEC_MJPEG,    TRAVIK_CODEC_VC1,    TRAVIK_CODEC_VP6,
                           TRAVIK_CODEC_PCM_S16BE, TRAVIK_CODEC_PCM_S24LE, TRAVIK_CODEC_PCM_S32LE,
                           TRAVIK_CODEC_PCM_F32LE, TRAVIK_CODEC_SPEEX,  TRAVIK_CODEC_EAC3,
                           TRAVIK_CODEC_DTS,      TRAVIK_CODEC_AMR_NB, TRAVIK_CODEC_AMR_WB,
                           TRAVIK_CODEC_ALAC,     TRAVIK_CODEC_MPEG2VIDEO};
  for (int32_t id : extra) {
    EXPECT_LT(id, 128);
    for (const travik_codec_tag *t = travik_codec_video_tags; t->id; t++) EXPECT_NE(t->id, id);
    for (const travik_codec_tag *t = travik_codec_wav_tags; t->id; t++) EXPECT_NE(t->id, id);
    EXPECT_NE(id, TRAVIK_CODEC_PCM_U8);
  }
}

TEST(WaveHeader, ReadsTheClassicSixteenBytes) {
  std::vector<uint8_t> bytes = wave_format(1, 2, 44100, 16);
  bytes.push_back(0xEE);  // the position is then below the region's end
  MemInput in(bytes);
  travik_codec_info info = blank_info();
  EXPECT_EQ(travik_read_wav_header(in.io(), &info, 16), 1);
  EXPECT_EQ(info.type, TRAVIK_STREAM_AUDIO);
  EXPECT_EQ(info.codec, TRAVIK_CODEC_PCM_S16LE);
  EXPECT_EQ(info.tag, 1u);
  EXPECT_EQ(info.channels, 2);
  EXPECT_EQ(info.sample_rate, 44100);
  EXPECT_EQ(info.bitrate, 44100 * 4 * 8);
  EXPECT_EQ(info.block_align, 4);
  EXPECT_EQ(info.bits_per_sample, 16);
  EXPECT_EQ(info.extradata, nullptr);
  EXPECT_EQ(in.pos(), 16);
}

TEST(WaveHeader, FourteenBytesMeanEightBitsAndCodecNine) {
  std::vector<uint8_t> bytes = wave_format(1, 1, 8000, 16);
  bytes[14] = 0x77;  // would-be bits per sample: not read
  bytes.push_back(0xEE);
  MemInput in(bytes);
  travik_codec_info info = blank_info();
  travik_read_wav_header(in.io(), &info, 14);
  EXPECT_EQ(info.bits_per_sample, 8);
  EXPECT_EQ(info.codec, TRAVIK_CODEC_PCM_U8);
  EXPECT_EQ(in.pos(), 14);
}

TEST(WaveHeader, EightBitPcmBecomesCodecNine) {
  MemInput in(wave_format(1, 1, 8000, 8));
  travik_codec_info info = blank_info();
  travik_read_wav_header(in.io(), &info, 16);
  EXPECT_EQ(info.codec, 9);
}

TEST(WaveHeader, EightBitALawKeepsItsCodec) {
  MemInput in(wave_format(6, 1, 8000, 8));
  travik_codec_info info = blank_info();
  travik_read_wav_header(in.io(), &info, 16);
  EXPECT_EQ(info.codec, TRAVIK_CODEC_PCM_ALAW);
}

TEST(WaveHeader, EighteenBytesWithNoExtraReadsEighteen) {
  std::vector<uint8_t> bytes = wave_format(0x55, 2, 48000, 0);
  le16(bytes, 0);
  bytes.resize(40, 0xEE);
  MemInput in(bytes);
  travik_codec_info info = blank_info();
  travik_read_wav_header(in.io(), &info, 18);
  EXPECT_EQ(info.codec, TRAVIK_CODEC_MPEG_AUDIO);
  EXPECT_EQ(info.extradata_size, 0);
  EXPECT_EQ(info.extradata, nullptr);
  EXPECT_EQ(in.pos(), 18);
}

TEST(WaveHeader, ExtraBytesAreReadIntoExtradata) {
  std::vector<uint8_t> bytes = wave_format(0x2, 1, 22050, 4);
  le16(bytes, 12);
  for (int i = 0; i < 12; i++) bytes.push_back(static_cast<uint8_t>(i + 1));
  bytes.push_back(0xEE);
  MemInput in(bytes);
  travik_codec_info info = blank_info();
  travik_read_wav_header(in.io(), &info, 30);
  ASSERT_EQ(info.extradata_size, 12);
  ASSERT_NE(info.extradata, nullptr);
  for (int i = 0; i < 12; i++) EXPECT_EQ(info.extradata[i], i + 1);
  EXPECT_EQ(in.pos(), 30);
  std::free(info.extradata);
}

TEST(WaveHeader, FewerExtraBytesThanTheHeaderHoldsSkipsTheRest) {
  std::vector<uint8_t> bytes = wave_format(0x2, 1, 22050, 4);
  le16(bytes, 4);
  for (int i = 0; i < 12; i++) bytes.push_back(static_cast<uint8_t>(0x10 + i));
  bytes.push_back(0xEE);
  MemInput in(bytes);
  travik_codec_info info = blank_info();
  travik_read_wav_header(in.io(), &info, 30);
  ASSERT_EQ(info.extradata_size, 4);
  EXPECT_EQ(info.extradata[0], 0x10);
  EXPECT_EQ(info.extradata[3], 0x13);
  EXPECT_EQ(in.pos(), 30);  // 4 read, 8 skipped
  std::free(info.extradata);
}

TEST(WaveHeader, ExtraSizeBeyondTheHeaderIsCutToIt) {
  std::vector<uint8_t> bytes = wave_format(0x2, 1, 22050, 4);
  le16(bytes, 100);
  for (int i = 0; i < 8; i++) bytes.push_back(static_cast<uint8_t>(i));
  bytes.push_back(0xEE);
  MemInput in(bytes);
  travik_codec_info info = blank_info();
  travik_read_wav_header(in.io(), &info, 26);
  EXPECT_EQ(info.extradata_size, 8);
  EXPECT_EQ(in.pos(), 26);
  std::free(info.extradata);
}

TEST(WaveHeader, EighteenBytesWithAnExtraSizeStillReadEighteen) {
  std::vector<uint8_t> bytes = wave_format(0x2, 1, 22050, 4);
  le16(bytes, 6);
  bytes.resize(40, 0xEE);
  MemInput in(bytes);
  travik_codec_info info = blank_info();
  travik_read_wav_header(in.io(), &info, 18);
  EXPECT_EQ(info.extradata_size, 0);
  EXPECT_EQ(in.pos(), 18);
}

TEST(WaveHeader, FourteenBytesOfALawKeepItsCodec) {
  std::vector<uint8_t> bytes = wave_format(7, 1, 8000, 8);
  bytes.push_back(0xEE);
  MemInput in(bytes);
  travik_codec_info info = blank_info();
  travik_read_wav_header(in.io(), &info, 14);
  EXPECT_EQ(info.codec, TRAVIK_CODEC_PCM_MULAW);
  EXPECT_EQ(info.bits_per_sample, 8);
  EXPECT_EQ(in.pos(), 14);
}

TEST(WaveHeader, SeventeenBytesLeaveNoRoomForExtraBytes) {
  std::vector<uint8_t> bytes = wave_format(0x2, 1, 22050, 4);
  le16(bytes, 5);
  bytes.resize(40, 0);
  MemInput in(bytes);
  travik_codec_info info = blank_info();
  travik_read_wav_header(in.io(), &info, 17);
  EXPECT_EQ(info.extradata_size, 0);
  EXPECT_EQ(info.extradata, nullptr);
}

TEST(WaveHeader, ShortInputShowsAsAllOnes) {
  std::vector<uint8_t> bytes = {0x01, 0x00, 0x02, 0x00};
  MemInput in(bytes);
  travik_codec_info info = blank_info();
  EXPECT_EQ(travik_read_wav_header(in.io(), &info, 16), 1);
  EXPECT_EQ(info.channels, 2);
  EXPECT_EQ(info.sample_rate, -1);
  EXPECT_EQ(info.bits_per_sample, static_cast<int32_t>(0xFFFFFFFF));
}

TEST(WaveHeader, AbsurdExtraOnShortInputAllocatesOnlyWhatArrives) {
  std::vector<uint8_t> bytes = wave_format(0x2, 1, 22050, 4);
  le16(bytes, 0xFFFF);
  bytes.push_back(1);
  bytes.push_back(2);
  MemInput in(bytes);
  travik_codec_info info = blank_info();
  travik_read_wav_header(in.io(), &info, 0x7FFFFFFF);
  EXPECT_EQ(info.extradata_size, 2);
  EXPECT_EQ(info.extradata[1], 2);
  std::free(info.extradata);
}

std::vector<uint8_t> bitmap_info(uint32_t width, uint32_t height, uint32_t bits,
                                 uint32_t compression) {
  std::vector<uint8_t> v;
  le32(v, 40);
  le32(v, width);
  le32(v, height);
  le16(v, 1);
  le16(v, bits);
  le32(v, compression);
  for (int i = 0; i < 5; i++) le32(v, 0x11111111);
  return v;
}

TEST(BitmapHeader, FortyBytesGiveNoExtradata) {
  std::vector<uint8_t> bytes = bitmap_info(320, 240, 24, FCC("XVID"));
  bytes.push_back(0xEE);
  MemInput in(bytes);
  travik_codec_info info = blank_info();
  info.extradata = reinterpret_cast<uint8_t *>(&info);  // overwritten with NULL
  EXPECT_EQ(travik_read_bmi_header(in.io(), &info, 40), 1);
  EXPECT_EQ(info.type, TRAVIK_STREAM_VIDEO);
  EXPECT_EQ(info.codec, TRAVIK_CODEC_MPEG4);
  EXPECT_EQ(info.tag, FCC("XVID"));
  EXPECT_EQ(info.width, 320);
  EXPECT_EQ(info.height, 240);
  EXPECT_EQ(info.bits_per_sample, 24);
  EXPECT_EQ(info.extradata, nullptr);
  EXPECT_EQ(info.extradata_size, 0);
  EXPECT_EQ(in.pos(), 40);
}

TEST(BitmapHeader, LongerHeaderCarriesExtradata) {
  std::vector<uint8_t> bytes = bitmap_info(16, 16, 12, FCC("avc1"));
  for (int i = 0; i < 6; i++) bytes.push_back(static_cast<uint8_t>(0xA0 + i));
  MemInput in(bytes);
  travik_codec_info info = blank_info();
  travik_read_bmi_header(in.io(), &info, 46);
  EXPECT_EQ(info.codec, 0);  // not in the table
  ASSERT_EQ(info.extradata_size, 6);
  EXPECT_EQ(info.extradata[0], 0xA0);
  EXPECT_EQ(info.extradata[5], 0xA5);
  std::free(info.extradata);
}

TEST(BitmapHeader, ShorterHeaderThanFortyCarriesNothing) {
  MemInput in(bitmap_info(16, 16, 12, FCC("WMV3")));
  travik_codec_info info = blank_info();
  travik_read_bmi_header(in.io(), &info, 20);
  EXPECT_EQ(info.extradata, nullptr);
  EXPECT_EQ(info.extradata_size, 0);
  EXPECT_EQ(info.codec, TRAVIK_CODEC_WMV3);
}

}  // namespace
