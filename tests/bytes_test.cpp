#include <gtest/gtest.h>
#include <travik/bytes.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

// A "mem" handle over a copy of the given bytes.
class Reader {
 public:
  explicit Reader(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {
    char url[64];
    std::snprintf(url, sizeof url, "mem://%" PRIxPTR ":%d",
                  reinterpret_cast<uintptr_t>(bytes_.data()), static_cast<int>(bytes_.size()));
    io_ = travik_io_create(url);
    travik_io_open(io_, -1);
  }
  ~Reader() { travik_io_destroy(io_); }
  travik_io *io() { return io_; }

 private:
  std::vector<uint8_t> bytes_;
  travik_io *io_;
};

// ---- integer readers ----

TEST(GetInt, Byte) {
  Reader r({0x00, 0x7F});
  EXPECT_EQ(travik_get_byte(r.io()), 0x00);
  EXPECT_EQ(travik_get_byte(r.io()), 0x7F);
  EXPECT_EQ(travik_get_byte(r.io()), 255);  // at the end
}

TEST(GetInt, TwentyFourBitBothOrders) {
  Reader be({0x01, 0x02, 0x03});
  EXPECT_EQ(travik_get_be24(be.io()), 0x010203u);
  Reader le({0x01, 0x02, 0x03});
  EXPECT_EQ(travik_get_le24(le.io()), 0x030201u);
}

TEST(GetInt, SixteenAndThirtyTwoBit) {
  Reader r({0x12, 0x34, 0x12, 0x34, 0x01, 0x02, 0x03, 0x04, 0x01, 0x02, 0x03, 0x04});
  EXPECT_EQ(travik_get_le16(r.io()), 0x3412u);
  EXPECT_EQ(travik_get_be16(r.io()), 0x1234u);
  EXPECT_EQ(travik_get_le32(r.io()), 0x04030201u);
  EXPECT_EQ(travik_get_be32(r.io()), 0x01020304u);
}

TEST(GetInt, SixtyFourBit) {
  std::vector<uint8_t> bytes = {1, 2, 3, 4, 5, 6, 7, 0x88, 1, 2, 3, 4, 5, 6, 7, 0x88};
  Reader r(bytes);
  EXPECT_EQ(travik_get_le64(r.io()), 0x8807060504030201ull);
  EXPECT_EQ(travik_get_be64(r.io()), 0x0102030405060788ull);
}

TEST(GetInt, ShortReadsGiveAllOnes) {
  Reader r({0x01, 0x02, 0x03});
  // A 32-bit read of three bytes fails; the bytes are consumed.
  EXPECT_EQ(travik_get_le32(r.io()), 0xFFFFFFFFu);
  Reader r16({0x01});
  EXPECT_EQ(travik_get_be16(r16.io()), 0xFFFFFFFFu);
  Reader r64({1, 2, 3, 4, 5, 6, 7});
  EXPECT_EQ(travik_get_be64(r64.io()), ~uint64_t{0});
}

TEST(GetInt, AtTheEndOfInput) {
  Reader r({0xAA, 0xBB, 0xCC, 0xDD});
  EXPECT_EQ(travik_get_le32(r.io()), 0xDDCCBBAAu);
  EXPECT_EQ(travik_get_le32(r.io()), 0xFFFFFFFFu);
  EXPECT_EQ(travik_get_le16(r.io()), 0xFFFFFFFFu);
  EXPECT_EQ(travik_get_le24(r.io()), 0xFFFFFFFFu);
  EXPECT_EQ(travik_get_be24(r.io()), 0xFFFFFFFFu);
  EXPECT_EQ(travik_get_le64(r.io()), ~uint64_t{0});
}

TEST(GetInt, RealAllOnesLooksLikeFailure) {
  Reader r({0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
  EXPECT_EQ(travik_get_byte(r.io()), 255);
  EXPECT_EQ(travik_get_be32(r.io()), 0xFFFFFFFFu);
}

TEST(GetInt, ClosedHandle) {
  travik_io *io = travik_io_create("mem://NULL:16");
  EXPECT_EQ(travik_get_byte(io), 255);
  EXPECT_EQ(travik_get_be32(io), 0xFFFFFFFFu);
  travik_io_destroy(io);
}

// ---- bit reader ----

TEST(Bitstream, InitClearsTheCache) {
  const uint8_t data[8] = {};
  travik_bitstream bs;
  bs.cache = 123;
  bs.bits = 9;
  travik_bitstream_init(&bs, data);
  EXPECT_EQ(bs.data, data);
  EXPECT_EQ(bs.cache, 0u);
  EXPECT_EQ(bs.bits, 0u);
}

TEST(Bitstream, SingleBitsThenAByte) {
  const uint8_t data[] = {0xA5, 0xFF, 0, 0, 0};
  travik_bitstream bs;
  travik_bitstream_init(&bs, data);
  EXPECT_EQ(travik_bitstream_getbits(&bs, 1), 1u);
  EXPECT_EQ(travik_bitstream_getbits(&bs, 1), 0u);
  EXPECT_EQ(travik_bitstream_getbits(&bs, 1), 1u);
  EXPECT_EQ(travik_bitstream_getbits(&bs, 8), 0x2Fu);
}

TEST(Bitstream, RefillLoadsThreeBytes) {
  const uint8_t data[] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0, 0, 0};
  travik_bitstream bs;
  travik_bitstream_init(&bs, data);
  EXPECT_EQ(travik_bitstream_peekbits(&bs, 4), 0x1u);
  EXPECT_EQ(bs.bits, 24u);
  EXPECT_EQ(bs.data, data + 3);
}

TEST(Bitstream, PeekDoesNotConsume) {
  const uint8_t data[] = {0xF0, 0x0F, 0, 0, 0, 0};
  travik_bitstream bs;
  travik_bitstream_init(&bs, data);
  EXPECT_EQ(travik_bitstream_peekbits(&bs, 8), 0xF0u);
  EXPECT_EQ(travik_bitstream_peekbits(&bs, 8), 0xF0u);
  EXPECT_EQ(travik_bitstream_getbits(&bs, 12), 0xF00u);
  EXPECT_EQ(travik_bitstream_getbits(&bs, 4), 0xFu);
}

TEST(Bitstream, ThirtyTwoBitsFromAFreshReader) {
  const uint8_t data[] = {0xDE, 0xAD, 0xBE, 0xEF, 0x01, 0x02, 0x03, 0x04, 0, 0, 0, 0};
  travik_bitstream bs;
  travik_bitstream_init(&bs, data);
  EXPECT_EQ(travik_bitstream_peekbits(&bs, 32), 0xDEADBEEFu);
  EXPECT_EQ(travik_bitstream_getbits(&bs, 32), 0xDEADBEEFu);
  EXPECT_EQ(travik_bitstream_getbits(&bs, 32), 0x01020304u);
}

TEST(Bitstream, LongReadsAcrossUnalignedPositions) {
  // Every width from 1 to 32 read in turn matches a straightforward reader.
  std::vector<uint8_t> data(200);
  for (size_t i = 0; i < data.size(); i++) data[i] = static_cast<uint8_t>(i * 37 + 11);
  travik_bitstream bs;
  travik_bitstream_init(&bs, data.data());
  uint64_t position = 0;
  for (uint32_t n = 1; n <= 32; n++) {
    uint32_t expected = 0;
    for (uint32_t k = 0; k < n; k++, position++) {
      uint32_t bit = (data[position / 8] >> (7 - position % 8)) & 1;
      expected = expected << 1 | bit;
    }
    ASSERT_EQ(travik_bitstream_getbits(&bs, n), expected) << "width " << n;
  }
}

TEST(Bitstream, ZeroBitsIsZero) {
  const uint8_t data[] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  travik_bitstream bs;
  travik_bitstream_init(&bs, data);
  EXPECT_EQ(travik_bitstream_getbits(&bs, 0), 0u);
  EXPECT_EQ(travik_bitstream_getbits(&bs, 3), 7u);
}

TEST(Bitstream, MoreThanThirtyTwoBitsReadsNothing) {
  const uint8_t data[] = {0xAB, 0, 0, 0, 0};
  travik_bitstream bs;
  travik_bitstream_init(&bs, data);
  EXPECT_EQ(travik_bitstream_getbits(&bs, 33), 0u);
  EXPECT_EQ(travik_bitstream_getbits(&bs, 8), 0xABu);
}

TEST(Bitstream, GetBitsDataLeftAlignsTheRemainder) {
  const uint8_t data[] = {0x12, 0x34, 0xFF, 0, 0, 0, 0};
  travik_bitstream bs;
  travik_bitstream_init(&bs, data);
  uint8_t out[3] = {0xEE, 0xEE, 0xEE};
  EXPECT_EQ(travik_bitstream_getbits_data(&bs, 19, out), 7u);
  EXPECT_EQ(out[0], 0x12);
  EXPECT_EQ(out[1], 0x34);
  EXPECT_EQ(out[2], 0xE0);
  EXPECT_EQ(travik_bitstream_getbits(&bs, 5), 0x1Fu);
}

TEST(Bitstream, GetBitsDataWholeBytes) {
  const uint8_t data[] = {0x01, 0x80, 0, 0, 0, 0};
  travik_bitstream bs;
  travik_bitstream_init(&bs, data);
  uint8_t out[2] = {};
  EXPECT_EQ(travik_bitstream_getbits_data(&bs, 16, out), 0x80u);
  EXPECT_EQ(out[0], 0x01);
  EXPECT_EQ(out[1], 0x80);
}

TEST(Bitstream, FlushDoesNothing) {
  const uint8_t data[] = {0xC3, 0, 0, 0, 0};
  travik_bitstream bs;
  travik_bitstream_init(&bs, data);
  travik_bitstream_getbits(&bs, 2);
  travik_bitstream before = bs;
  travik_bitstream_flushbits(&bs);
  EXPECT_EQ(bs.data, before.data);
  EXPECT_EQ(bs.cache, before.cache);
  EXPECT_EQ(bs.bits, before.bits);
}

// ---- base64 ----

std::string encode(const std::string &bytes) {
  std::vector<char> out(static_cast<size_t>(travik_base64_encode_len(static_cast<int32_t>(bytes.size()))));
  int32_t written = travik_base64_encode(out.data(), bytes.data(), static_cast<int32_t>(bytes.size()));
  EXPECT_EQ(written, static_cast<int32_t>(out.size()));
  return std::string(out.data());
}

TEST(Base64, EncodeLengths) {
  EXPECT_EQ(travik_base64_encode_len(0), 1);
  EXPECT_EQ(travik_base64_encode_len(1), 5);
  EXPECT_EQ(travik_base64_encode_len(3), 5);
  EXPECT_EQ(travik_base64_encode_len(4), 9);
}

TEST(Base64, EncodePadding) {
  char out[8];
  EXPECT_EQ(travik_base64_encode(out, "M", 1), 5);
  EXPECT_STREQ(out, "TQ==");
  EXPECT_EQ(travik_base64_encode(out, "Ma", 2), 5);
  EXPECT_STREQ(out, "TWE=");
  EXPECT_EQ(travik_base64_encode(out, "Man", 3), 5);
  EXPECT_STREQ(out, "TWFu");
}

TEST(Base64, EncodeEmpty) {
  char out[1] = {'Z'};
  EXPECT_EQ(travik_base64_encode(out, "", 0), 1);
  EXPECT_EQ(out[0], '\0');
}

TEST(Base64, EncodeRfcVectors) {
  EXPECT_EQ(encode("foobar"), "Zm9vYmFy");
  EXPECT_EQ(encode("fooba"), "Zm9vYmE=");
  EXPECT_EQ(encode(std::string("\xFB\xFF\xBF", 3)), "+/+/");
}

TEST(Base64, DecodeTwoBytes) {
  uint8_t out[8];
  std::memset(out, 0xEE, sizeof out);
  EXPECT_EQ(travik_base64_decode_len("TWE="), 4);
  EXPECT_EQ(travik_base64_decode(out, "TWE="), 2);
  EXPECT_EQ(out[0], 0x4D);
  EXPECT_EQ(out[1], 0x61);
  EXPECT_EQ(out[2], 0x00);
  EXPECT_EQ(out[3], 0xEE);
}

TEST(Base64, DecodeFullGroups) {
  char out[16];
  EXPECT_EQ(travik_base64_decode(out, "Zm9vYmFy"), 6);
  EXPECT_STREQ(out, "foobar");
  EXPECT_EQ(travik_base64_decode_len("Zm9vYmFy"), 7);
}

TEST(Base64, InvalidCharacterEndsTheText) {
  char out[16];
  EXPECT_EQ(travik_base64_decode(out, "Zm9v YmFy"), 3);
  EXPECT_STREQ(out, "foo");
  EXPECT_EQ(travik_base64_decode_len("Zm9v YmFy"), 4);
}

TEST(Base64, DecodeLengthsForEveryRemainder) {
  // n valid characters give n * 3 / 4 bytes; one character alone gives none.
  const char *text = "QUJDREVGR0hJ";  // "ABCDEFGHI"
  for (int n = 0; n <= 12; n++) {
    std::string part(text, static_cast<size_t>(n));
    std::vector<char> out(static_cast<size_t>(travik_base64_decode_len(part.c_str())));
    int32_t length = travik_base64_decode(out.data(), part.c_str());
    EXPECT_EQ(length, n * 3 / 4) << n;
    EXPECT_EQ(std::string(out.data(), static_cast<size_t>(n * 3 / 4)),
              std::string("ABCDEFGHI", static_cast<size_t>(n * 3 / 4)))
        << n;
  }
}

TEST(Base64, EmptyAndAllInvalid) {
  char out[4] = {'Z', 'Z', 'Z', 'Z'};
  EXPECT_EQ(travik_base64_decode_len(""), 1);
  EXPECT_EQ(travik_base64_decode(out, ""), 0);
  EXPECT_EQ(out[0], '\0');
  EXPECT_EQ(travik_base64_decode(out, "=abc"), 0);
}

TEST(Base64, RoundTripOfAllByteValues) {
  std::string bytes(256, '\0');
  for (int i = 0; i < 256; i++) bytes[static_cast<size_t>(i)] = static_cast<char>(i);
  for (size_t length = 0; length <= bytes.size(); length += 37) {
    std::string encoded = encode(bytes.substr(0, length));
    std::vector<char> out(static_cast<size_t>(travik_base64_decode_len(encoded.c_str())));
    ASSERT_EQ(travik_base64_decode(out.data(), encoded.c_str()), static_cast<int32_t>(length));
    EXPECT_EQ(std::string(out.data(), length), bytes.substr(0, length));
  }
}

}  // namespace
