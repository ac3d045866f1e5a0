// Real files played through the player with the build tree's plugins: a
// WAV file into the "wav" audio output and a YUV4MPEG2 file into the "y4m"
// video output, and what they wrote compared with the input.
#include <gtest/gtest.h>
#include <travik/travik.h>
#include <unistd.h>
#include <util/testutil.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

::testing::Environment *const environment = ::testing::AddGlobalTestEnvironment(
    new travik_test::LibraryEnvironment(TRAVIK_TEST_BINARY_DIR "/plugins"));

using travik_test::now_ms;

void put16(std::string &s, uint32_t v) {
  s.push_back(static_cast<char>(v & 0xFF));
  s.push_back(static_cast<char>((v >> 8) & 0xFF));
}
void put32(std::string &s, uint32_t v) {
  put16(s, v & 0xFFFF);
  put16(s, v >> 16);
}

std::string wav_file(const std::string &samples, uint32_t rate, uint32_t channels) {
  std::string s = "RIFF";
  put32(s, static_cast<uint32_t>(36 + samples.size()));
  s += "WAVEfmt ";
  put32(s, 16);
  put16(s, 1);
  put16(s, channels);
  put32(s, rate);
  put32(s, rate * channels * 2);
  put16(s, channels * 2);
  put16(s, 16);
  s += "data";
  put32(s, static_cast<uint32_t>(samples.size()));
  return s + samples;
}

class PlayerFiles : public ::testing::Test {
 protected:
  void TearDown() override {
    if (player_) {
      travik_player_close(player_);
      travik_player_destroy(player_);
    }
    if (fds_[0] >= 0) {
      close(fds_[0]);
      close(fds_[1]);
    }
  }
  void create(const char *audio, const char *audio_args, const char *video, const char *video_args) {
    ASSERT_EQ(pipe(fds_), 0);
    travik_player_description desc;
    travik_player_description_init(&desc);
    desc.audio_driver = audio;
    desc.audio_args = const_cast<char *>(audio_args);
    desc.video_driver = video;
    desc.video_args = const_cast<char *>(video_args);
    desc.event_read_fd = fds_[0];
    desc.event_write_fd = fds_[1];
    desc.input_limit = 1 << 20;
    player_ = travik_player_create(&desc);
    ASSERT_NE(player_, nullptr);
  }
  // Plays `path` to its end event; false when it does not come.
  bool play_to_end(const std::string &path) {
    if (travik_player_open(player_, path.c_str()) != 0) return false;
    travik_player_play(player_);
    int64_t end = now_ms() + 10000;
    travik_player_event event;
    while (now_ms() < end) {
      while (travik_player_getevent(player_, &event) == 0) {
        if (event.code == TRAVIK_EVENT_END) return true;
      }
      usleep(5000);
    }
    return false;
  }

  int fds_[2] = {-1, -1};
  travik_player *player_ = nullptr;
  travik_test::TempDir dir_;
};

TEST_F(PlayerFiles, WavPlaysIntoWavOutput) {
  std::string samples;
  for (int i = 0; i < 2400 * 2; i++) put16(samples, static_cast<uint32_t>(i * 37) & 0xFFFF);
  std::string input = dir_.file("in.wav");
  std::string output = dir_.file("out.wav");
  travik_test::write_file(input, wav_file(samples, 8000, 2));
  create("wav", output.c_str(), "null", nullptr);
  ASSERT_TRUE(play_to_end(input));
  travik_player_close(player_);
  travik_player_destroy(player_);
  player_ = nullptr;
  std::string written = travik_test::read_file(output);
  ASSERT_GE(written.size(), 44 + samples.size());
  // The samples come out unchanged; the flush pads the last write with silence.
  EXPECT_EQ(written.compare(44, samples.size(), samples), 0);
  for (size_t i = 44 + samples.size(); i < written.size(); i++) ASSERT_EQ(written[i], 0) << i;
}

TEST_F(PlayerFiles, Y4mPlaysIntoY4mOutput) {
  const int width = 32, height = 16, frames = 5;
  std::string pictures;
  std::string input_text = "YUV4MPEG2 W32 H16 F25:1 Ip A1:1 C420jpeg\n";
  for (int f = 0; f < frames; f++) {
    std::string picture;
    for (int i = 0; i < width * height * 3 / 2; i++) picture.push_back(static_cast<char>(i * 7 + f * 13));
    input_text += "FRAME\n" + picture;
    pictures += picture;
  }
  std::string input = dir_.file("in.y4m");
  std::string output = dir_.file("out.y4m");
  travik_test::write_file(input, input_text);
  create("null", nullptr, "y4m", output.c_str());
  ASSERT_TRUE(play_to_end(input));
  travik_player_close(player_);
  travik_player_destroy(player_);
  player_ = nullptr;
  std::string written = travik_test::read_file(output);
  // Strip the stream header and the frame headers: the pictures remain.
  size_t at = written.find('\n');
  ASSERT_NE(at, std::string::npos);
  EXPECT_EQ(written.compare(0, 13, "YUV4MPEG2 W32"), 0);
  std::string got;
  at += 1;
  while (at < written.size()) {
    size_t line = written.find('\n', at);
    ASSERT_NE(line, std::string::npos);
    ASSERT_EQ(written.compare(at, 5, "FRAME"), 0);
    at = line + 1;
    got += written.substr(at, width * height * 3 / 2);
    at += width * height * 3 / 2;
  }
  EXPECT_EQ(got.size(), pictures.size());
  EXPECT_TRUE(got == pictures);
}

#ifdef TRAVIK_PLAY_FILE_EXAMPLE
// The README's example plays a file to its end and reports the events.
TEST_F(PlayerFiles, ExampleProgramPlaysToTheEnd) {
  std::string samples;
  for (int i = 0; i < 800 * 2; i++) put16(samples, static_cast<uint32_t>(i));
  std::string input = dir_.file("example.wav");
  std::string log = dir_.file("example.log");
  travik_test::write_file(input, wav_file(samples, 8000, 2));
  std::string command = std::string(TRAVIK_PLAY_FILE_EXAMPLE) + " " + input + " null null > " + log + " 2>/dev/null";
  ASSERT_EQ(std::system(command.c_str()), 0);
  std::string printed = travik_test::read_file(log);
  EXPECT_NE(printed.find("event 3\nevent 0\n"), std::string::npos) << printed;  // OPENING, OPENED
  EXPECT_NE(printed.find("buffering 100%"), std::string::npos) << printed;
  EXPECT_NE(printed.find("end at "), std::string::npos) << printed;
}
#endif

}  // namespace
