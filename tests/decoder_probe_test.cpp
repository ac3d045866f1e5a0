// Choosing a decoder from plugin files (see tests/decodertest): by codec
// number and priority, after any driver the application registered, and
// restricted to one plugin file by name.
#include <gtest/gtest.h>
#include <travik/travik.h>
#include <util/testutil.h>

#include <cstdlib>
#include <string>

namespace {

::testing::Environment *const environment = ::testing::AddGlobalTestEnvironment(
    new travik_test::LibraryEnvironment(PROBE_PLUGINS_DIR));

std::string opened() {
  const char *value = std::getenv("TRAVIK_TEST_DECODER_OPENED");
  return value ? value : "";
}

int app_state;
int app_opens = 0;
void *app_open(travik_decoder *) {
  app_opens++;
  return &app_state;
}
void app_close(void *) {}
int32_t app_decode(void *, uint8_t *, int32_t, void *, void **) { return -1; }
const travik_decoder_driver app_driver = {"application's own", TRAVIK_CODEC_MPEG4, 1,
                                          app_open,           app_close,          app_decode,
                                          nullptr};

class DecoderProbe : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("TRAVIK_TEST_DECODER_OPENED");
    travik_stream_init(&stream_);
    stream_.info.type = TRAVIK_STREAM_VIDEO;
  }
  void TearDown() override {
    if (decoder_) travik_decoder_destroy(decoder_);
    travik_decoder_register_driver(TRAVIK_CODEC_MPEG4, nullptr);
  }
  // Creates the decoder (by `name` when given) and returns what it printed.
  std::string create(int32_t codec, const char *name = nullptr) {
    stream_.info.codec = codec;
    travik_test::StdoutCapture capture;
    decoder_ = name ? travik_decoder_create_by_name(&stream_, nullptr, name)
                    : travik_decoder_create(&stream_, nullptr);
    return capture.text();
  }
  travik_stream stream_;
  travik_decoder *decoder_ = nullptr;
};

TEST_F(DecoderProbe, HighestPriorityPluginIsChosenAndNamed) {
  EXPECT_EQ(create(37), "Decoder driver name = high37\n");
  ASSERT_NE(decoder_, nullptr);
  EXPECT_STREQ(decoder_->driver->description, "high37");
  EXPECT_NE(decoder_->plugin, nullptr);
  EXPECT_NE(decoder_->state, nullptr);
  EXPECT_EQ(opened(), "high37");
}

TEST_F(DecoderProbe, RegisteredDriverBeatsAHigherPriorityPlugin) {
  travik_decoder_register_driver(TRAVIK_CODEC_MPEG4, &app_driver);
  app_opens = 0;
  EXPECT_EQ(create(37), "");
  ASSERT_NE(decoder_, nullptr);
  EXPECT_EQ(decoder_->driver, &app_driver);
  EXPECT_EQ(decoder_->plugin, nullptr);
  EXPECT_EQ(app_opens, 1);
  EXPECT_EQ(opened(), "");  // no plugin was even opened
}

TEST_F(DecoderProbe, EqualPrioritiesGoToTheSectionFirstInTheCache) {
  const std::string cache = travik_test::read_file(travik_test::LibraryEnvironment::home() + "/.travik/decoder.cfg");
  const size_t a = cache.find("[libdecoder_tie_a.so]");
  const size_t b = cache.find("[libdecoder_tie_b.so]");
  ASSERT_NE(a, std::string::npos);
  ASSERT_NE(b, std::string::npos);
  create(38);
  ASSERT_NE(decoder_, nullptr);
  EXPECT_STREQ(decoder_->driver->description, a < b ? "tie_a" : "tie_b");
}

TEST_F(DecoderProbe, NameRestrictsTheChoiceToThatPluginWhateverItsCase) {
  EXPECT_EQ(create(37, "LOW37"), "Decoder driver name = low37\n");
  ASSERT_NE(decoder_, nullptr);
  EXPECT_STREQ(decoder_->driver->description, "low37");
}

TEST_F(DecoderProbe, NamedPluginWithoutTheCodecGivesNull) {
  EXPECT_EQ(create(37, "tie_a"), "");
  EXPECT_EQ(decoder_, nullptr);
  EXPECT_EQ(opened(), "");
}

TEST_F(DecoderProbe, StreamOfAnotherTypeMatchesNoPlugin) {
  stream_.info.type = TRAVIK_STREAM_OTHER;
  EXPECT_EQ(create(37), "");
  EXPECT_EQ(decoder_, nullptr);
  EXPECT_EQ(opened(), "");
}

TEST_F(DecoderProbe, AudioStreamsAreMatchedByCodecToo) {
  stream_.info.type = TRAVIK_STREAM_AUDIO;
  create(37);
  ASSERT_NE(decoder_, nullptr);
  EXPECT_STREQ(decoder_->driver->description, "high37");
}

TEST_F(DecoderProbe, RefusingPluginDriverGivesNullAfterItsName) {
  // The chosen driver is named before its open is tried.
  EXPECT_EQ(create(39), "Decoder driver name = refuse39\n");
  EXPECT_EQ(decoder_, nullptr);
  EXPECT_EQ(opened(), "refuse39");
}

TEST_F(DecoderProbe, UnknownCodecGivesNull) {
  EXPECT_EQ(create(40), "");
  EXPECT_EQ(decoder_, nullptr);
}

TEST_F(DecoderProbe, CacheHoldsTheCodecNumbersInHex) {
  const std::string cache = travik_test::read_file(travik_test::LibraryEnvironment::home() + "/.travik/decoder.cfg");
  EXPECT_NE(cache.find("Codec[0] = 00000025"), std::string::npos);  // 37
  EXPECT_NE(cache.find("Codec[0] = 00000026"), std::string::npos);  // 38
  EXPECT_NE(cache.find("Codec[0] = 00000027"), std::string::npos);  // 39
}

}  // namespace
