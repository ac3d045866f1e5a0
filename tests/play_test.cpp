// End-to-end tests of the travik-play executable: real input files are
// played through the file-writing outputs of the build tree's plugins, and
// what those outputs wrote is compared with the input.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "util/testutil.h"

namespace {

using travik_test::now_ms;
using travik_test::read_file;
using travik_test::TempDir;
using travik_test::write_file;

const char kPlayer[] = TRAVIK_PLAY_EXE;
const std::string kPlugins = std::string(TRAVIK_TEST_BINARY_DIR) + "/plugins";

struct Result {
  int status = -1;  // exit code, or 128 + signal
  std::string out;
  std::string err;
  long long elapsed_ms = 0;
};

// Runs the player with `args` and HOME in `dir`. Without `plugins` the
// player finds the build tree's plugin directory itself.
Result play(const TempDir &dir, const std::vector<std::string> &args,
            const char *plugins = nullptr) {
  Result result;
  std::string out_path = dir.file("stdout.txt"), err_path = dir.file("stderr.txt");
  std::vector<char *> argv;
  argv.push_back(const_cast<char *>(kPlayer));
  for (const std::string &arg : args) argv.push_back(const_cast<char *>(arg.c_str()));
  argv.push_back(nullptr);
  long long start = now_ms();
  pid_t pid = fork();
  if (pid == 0) {
    setenv("HOME", dir.path().c_str(), 1);
    if (plugins)
      setenv("TRAVIK_PLUGINS_DIR", plugins, 1);
    else
      unsetenv("TRAVIK_PLUGINS_DIR");
    int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(out, 1);
    dup2(err, 2);
    execv(kPlayer, argv.data());
    _exit(127);
  }
  int status = 0;
  // Bounded: a player that hangs is killed after a minute.
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (now_ms() - start > 60000) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      break;
    }
    usleep(5000);
  }
  result.elapsed_ms = now_ms() - start;
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.out = read_file(out_path);
  result.err = read_file(err_path);
  return result;
}

void put16(std::string *s, uint32_t v) {
  s->push_back(static_cast<char>(v & 0xFF));
  s->push_back(static_cast<char>((v >> 8) & 0xFF));
}

void put32(std::string *s, uint32_t v) {
  put16(s, v & 0xFFFF);
  put16(s, v >> 16);
}

// A canonical PCM WAV file holding `data`; `data_size` is what the header
// announces (the length of `data` unless a truncated file is wanted).
std::string wav_file(int rate, int channels, int bits, const std::string &data,
                     int64_t data_size = -1) {
  uint32_t size = static_cast<uint32_t>(data_size < 0 ? data.size() : data_size);
  std::string s = "RIFF";
  put32(&s, 36 + size);
  s += "WAVEfmt ";
  put32(&s, 16);
  put16(&s, 1);
  put16(&s, static_cast<uint32_t>(channels));
  put32(&s, static_cast<uint32_t>(rate));
  put32(&s, static_cast<uint32_t>(rate * channels * bits / 8));
  put16(&s, static_cast<uint32_t>(channels * bits / 8));
  put16(&s, static_cast<uint32_t>(bits));
  s += "data";
  put32(&s, size);
  return s + data;
}

// Deterministic noise: every byte value turns up, so that a dropped,
// repeated or reordered sample shows.
std::string noise(size_t bytes, uint32_t seed) {
  std::string s(bytes, '\0');
  for (size_t i = 0; i < bytes; i++) {
    seed = seed * 1103515245u + 12345u;
    s[i] = static_cast<char>(seed >> 16);
  }
  return s;
}

uint32_t get16(const std::string &s, size_t at) {
  return static_cast<uint8_t>(s[at]) | static_cast<uint8_t>(s[at + 1]) << 8;
}

uint32_t get32(const std::string &s, size_t at) { return get16(s, at) | get16(s, at + 2) << 16; }

struct Wav {
  uint32_t rate = 0, channels = 0, bits = 0;
  std::string data;
};

// Reads the canonical 44-byte-header files the wav audio output writes.
Wav read_wav(const std::string &path) {
  std::string s = read_file(path);
  Wav wav;
  if (s.size() < 44 || s.compare(0, 4, "RIFF") != 0 || s.compare(8, 8, "WAVEfmt ") != 0 ||
      s.compare(36, 4, "data") != 0)
    return wav;
  wav.channels = get16(s, 22);
  wav.rate = get32(s, 24);
  wav.bits = get16(s, 34);
  wav.data = s.substr(44, get32(s, 40));
  return wav;
}

// The output holds the input's samples, then at most one write (4096 bytes)
// of silence: the last write is padded to the device's write size.
void expect_played(const std::string &played, const std::string &expected) {
  ASSERT_GE(played.size(), expected.size());
  EXPECT_TRUE(played.compare(0, expected.size(), expected) == 0)
      << "the samples written differ from the file's";
  std::string padding = played.substr(expected.size());
  EXPECT_LT(padding.size(), 4096u);
  EXPECT_EQ(padding, std::string(padding.size(), '\0'));
}

bool exists(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

TEST(Play, WavThroughTheWavOutputSampleForSample) {
  TempDir dir;
  std::string samples = noise(8000 * 4 / 4, 1);  // 0.25 s of 8 kHz stereo
  write_file(dir.file("in.wav"), wav_file(8000, 2, 16, samples));
  Result r = play(dir, {"-q", "-a", "wav:" + dir.file("out.wav"), dir.file("in.wav")});
  ASSERT_EQ(r.status, 0) << r.err;
  Wav out = read_wav(dir.file("out.wav"));
  EXPECT_EQ(out.rate, 8000u);
  EXPECT_EQ(out.channels, 2u);
  EXPECT_EQ(out.bits, 16u);
  expect_played(out.data, samples);
}

TEST(Play, MonoEightBitWavIsWidenedToSixteenBits) {
  TempDir dir;
  std::string bytes = noise(2000, 2);
  write_file(dir.file("in.wav"), wav_file(8000, 1, 8, bytes));
  Result r = play(dir, {"-q", "-a", "wav:" + dir.file("out.wav"), dir.file("in.wav")});
  ASSERT_EQ(r.status, 0) << r.err;
  std::string expected;
  for (char c : bytes) put16(&expected, static_cast<uint32_t>((static_cast<uint8_t>(c) - 128) * 256));
  Wav out = read_wav(dir.file("out.wav"));
  EXPECT_EQ(out.rate, 8000u);
  EXPECT_EQ(out.channels, 1u);
  expect_played(out.data, expected);
}

TEST(Play, OptionsMayFollowTheFile) {
  TempDir dir;
  std::string samples = noise(4000, 3);
  write_file(dir.file("in.wav"), wav_file(16000, 1, 16, samples));
  Result r = play(dir, {dir.file("in.wav"), "-q", "-a", "wav:" + dir.file("out.wav")});
  ASSERT_EQ(r.status, 0) << r.err;
  expect_played(read_wav(dir.file("out.wav")).data, samples);
}

TEST(Play, AudioIsPacedByTheDevice) {
  TempDir dir;
  // 0.6 s of audio through a device that drains in real time.
  write_file(dir.file("in.wav"), wav_file(8000, 1, 16, noise(9600, 4)));
  Result r = play(dir, {"-q", "-a", "null", dir.file("in.wav")});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_GE(r.elapsed_ms, 400);
}

TEST(Play, PrintsAOneLineSummary) {
  TempDir dir;
  write_file(dir.file("in.wav"), wav_file(8000, 2, 16, noise(8000, 5)));
  Result r = play(dir, {"-a", "null", dir.file("in.wav")});
  ASSERT_EQ(r.status, 0) << r.err;
  std::string first = r.out.substr(0, r.out.find('\n'));
  EXPECT_EQ(first, dir.file("in.wav") +
                       ": WAV demuxer (RIFF/WAVE: PCM, A-law, mu-law), 0:00.250; audio: PCM "
                       "16-bit, 8000 Hz, 2 channels");
}

TEST(Play, QuietPrintsNothing) {
  TempDir dir;
  write_file(dir.file("in.wav"), wav_file(8000, 2, 16, noise(800, 6)));
  Result r = play(dir, {"-q", "-a", "null", dir.file("in.wav")});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "");
}

TEST(Play, ThroughTheAlsaOutput) {
  if (!exists(kPlugins + "/audioout/libaudioout_alsa.so")) GTEST_SKIP() << "no alsa plugin built";
  TempDir dir;
  write_file(dir.file("in.wav"), wav_file(8000, 2, 16, noise(3200, 7)));
  // ALSA's "null" PCM needs no sound card.
  Result r = play(dir, {"-q", "-a", "alsa:null", dir.file("in.wav")});
  EXPECT_EQ(r.status, 0) << r.err;
}

TEST(Play, TruncatedWavPlaysWhatItHoldsAndFails) {
  TempDir dir;
  std::string samples = noise(1000, 8);
  write_file(dir.file("in.wav"), wav_file(8000, 1, 16, samples, 4000));
  Result r = play(dir, {"-q", "-a", "wav:" + dir.file("out.wav"), dir.file("in.wav")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("travik-play: \"" + dir.file("in.wav") +
                       "\" ended early: the file is truncated or damaged"),
            std::string::npos)
      << r.err;
  expect_played(read_wav(dir.file("out.wav")).data, samples);
}

TEST(Play, MissingFile) {
  TempDir dir;
  Result r = play(dir, {"-a", "null", dir.file("nothing.wav")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("travik-play: cannot open \"" + dir.file("nothing.wav") +
                       "\": No such file or directory"),
            std::string::npos)
      << r.err;
  EXPECT_EQ(r.out, "");
}

TEST(Play, UnsupportedExtension) {
  TempDir dir;
  write_file(dir.file("song.mp3"), noise(1000, 9));
  Result r = play(dir, {"-a", "null", dir.file("song.mp3")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("travik-play: no demuxer plugin accepts \"" + dir.file("song.mp3") +
                       "\" (extension .mp3"),
            std::string::npos)
      << r.err;
}

TEST(Play, NameWithoutExtension) {
  TempDir dir;
  write_file(dir.file("song"), wav_file(8000, 1, 16, noise(100, 10)));
  Result r = play(dir, {"-a", "null", dir.file("song")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("the name has no extension"), std::string::npos) << r.err;
}

TEST(Play, WavWithoutAValidHeader) {
  TempDir dir;
  write_file(dir.file("bad.wav"), "RIFF junk that is no WAVE header at all");
  Result r = play(dir, {"-a", "null", dir.file("bad.wav")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("travik-play: "), std::string::npos) << r.err;
  EXPECT_NE(r.err.find(dir.file("bad.wav")), std::string::npos) << r.err;
}

TEST(Play, UnknownAudioDriver) {
  TempDir dir;
  write_file(dir.file("in.wav"), wav_file(8000, 1, 16, noise(100, 11)));
  Result r = play(dir, {"-q", "-a", "speaker", dir.file("in.wav")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("travik-play: no audio output called \"speaker\""), std::string::npos)
      << r.err;
}

TEST(Play, ApplicationTableNameIsNotADriver) {
  TempDir dir;
  write_file(dir.file("in.wav"), wav_file(8000, 1, 16, noise(100, 12)));
  Result r = play(dir, {"-q", "-a", "driver", dir.file("in.wav")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("travik-play: no audio output called \"driver\""), std::string::npos)
      << r.err;
}

TEST(Play, WavOutputNeedsAFileName) {
  TempDir dir;
  write_file(dir.file("in.wav"), wav_file(8000, 1, 16, noise(100, 13)));
  Result r = play(dir, {"-q", "-a", "wav", dir.file("in.wav")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("travik-play: cannot open audio output \"wav\" (it needs a file name: "
                       "-a wav:out.wav)"),
            std::string::npos)
      << r.err;
}

TEST(Play, PluginDirectoryFromTheEnvironmentIsRespected) {
  TempDir dir;
  mkdir(dir.file("empty").c_str(), 0755);
  write_file(dir.file("in.wav"), wav_file(8000, 1, 16, noise(100, 14)));
  Result r = play(dir, {"-q", "-a", "null", dir.file("in.wav")}, dir.file("empty").c_str());
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("travik-play: no demuxer plugin accepts"), std::string::npos) << r.err;
}

TEST(Play, NoInputIsAUsageError) {
  TempDir dir;
  Result r = play(dir, {"-q"});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("travik-play: no file or URL to play"), std::string::npos) << r.err;
}

TEST(Play, UnknownOptionIsAUsageError) {
  TempDir dir;
  Result r = play(dir, {"-x", "in.wav"});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("travik-play: unknown option \"-x\""), std::string::npos) << r.err;
}

TEST(Play, OneInputAtATime) {
  TempDir dir;
  Result r = play(dir, {"a.wav", "b.wav"});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("travik-play: one file or URL at a time (\"b.wav\" is one too many)"),
            std::string::npos)
      << r.err;
}

TEST(Play, HelpListsTheOptions) {
  TempDir dir;
  Result r = play(dir, {"-h"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.rfind("usage: travik-play [-a AUDIO[:ARGUMENT]] [-v VIDEO[:ARGUMENT]] [-q] "
                        "FILE_OR_URL\n",
                        0),
            0u)
      << r.out;
}

TEST(Play, VideoOutputIsNotOpenedForAudio) {
  TempDir dir;
  write_file(dir.file("in.wav"), wav_file(8000, 1, 16, noise(100, 15)));
  Result r = play(dir, {"-q", "-a", "null", "-v", "no-such-display", dir.file("in.wav")});
  EXPECT_EQ(r.status, 0) << r.err;
}

// A YUV4MPEG2 file of `frames` 4:2:0 pictures of noise; the pictures'
// bytes (Y, U, V of each, without the FRAME lines) go to `pictures`.
std::string y4m_file(int width, int height, const char *rate, int frames,
                     std::vector<std::string> *pictures) {
  std::string s = "YUV4MPEG2 W" + std::to_string(width) + " H" + std::to_string(height) + " F" +
                  rate + " Ip A1:1 C420jpeg\n";
  size_t bytes = static_cast<size_t>(width * height + 2 * ((width + 1) / 2) * ((height + 1) / 2));
  for (int i = 0; i < frames; i++) {
    std::string picture = noise(bytes, 100 + static_cast<uint32_t>(i));
    pictures->push_back(picture);
    s += "FRAME\n" + picture;
  }
  return s;
}

// The pictures of a YUV4MPEG2 file whose frame lines are plain "FRAME".
std::vector<std::string> read_y4m(const std::string &path, int width, int height,
                                  std::string *header) {
  std::string s = read_file(path);
  std::vector<std::string> pictures;
  size_t at = s.find('\n');
  if (at == std::string::npos) return pictures;
  *header = s.substr(0, at);
  at++;
  size_t bytes = static_cast<size_t>(width * height + 2 * ((width + 1) / 2) * ((height + 1) / 2));
  while (at + 6 + bytes <= s.size() && s.compare(at, 6, "FRAME\n") == 0) {
    pictures.push_back(s.substr(at + 6, bytes));
    at += 6 + bytes;
  }
  EXPECT_EQ(at, s.size()) << "bytes after the last whole picture";
  return pictures;
}

TEST(Play, Y4mThroughTheY4mOutputPictureForPicture) {
  TempDir dir;
  std::vector<std::string> pictures;
  write_file(dir.file("in.y4m"), y4m_file(32, 16, "25:1", 6, &pictures));
  Result r = play(dir, {"-q", "-v", "y4m:" + dir.file("out.y4m"), dir.file("in.y4m")});
  ASSERT_EQ(r.status, 0) << r.err;
  std::string header;
  std::vector<std::string> out = read_y4m(dir.file("out.y4m"), 32, 16, &header);
  EXPECT_EQ(header.rfind("YUV4MPEG2 W32 H16 ", 0), 0u) << header;
  ASSERT_EQ(out.size(), pictures.size());
  for (size_t i = 0; i < out.size(); i++) EXPECT_TRUE(out[i] == pictures[i]) << "picture " << i;
}

TEST(Play, Y4mOfOddSizeKeepsEveryPixel) {
  TempDir dir;
  std::vector<std::string> pictures;
  write_file(dir.file("in.y4m"), y4m_file(18, 10, "50:1", 3, &pictures));
  Result r = play(dir, {"-q", "-v", "y4m:path=" + dir.file("out.y4m"), dir.file("in.y4m")});
  ASSERT_EQ(r.status, 0) << r.err;
  std::string header;
  std::vector<std::string> out = read_y4m(dir.file("out.y4m"), 18, 10, &header);
  EXPECT_EQ(header.rfind("YUV4MPEG2 W18 H10 ", 0), 0u) << header;
  ASSERT_EQ(out.size(), pictures.size());
  for (size_t i = 0; i < out.size(); i++) EXPECT_TRUE(out[i] == pictures[i]) << "picture " << i;
}

TEST(Play, VideoIsPacedByTheTimestamps) {
  TempDir dir;
  std::vector<std::string> pictures;
  // Six pictures at 10 per second: the last is due 0.5 s after the first.
  write_file(dir.file("in.y4m"), y4m_file(16, 16, "10:1", 6, &pictures));
  Result r = play(dir, {"-q", "-v", "null", dir.file("in.y4m")});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_GE(r.elapsed_ms, 450);
}

TEST(Play, Y4mThroughThePngOutputOneFilePerPicture) {
  TempDir dir;
  std::vector<std::string> pictures;
  write_file(dir.file("in.y4m"), y4m_file(16, 8, "50:1", 4, &pictures));
  mkdir(dir.file("frames").c_str(), 0755);
  Result r = play(dir, {"-q", "-v", "png:dir=" + dir.file("frames"), dir.file("in.y4m")});
  ASSERT_EQ(r.status, 0) << r.err;
  for (int i = 1; i <= 4; i++) {
    char name[32];
    snprintf(name, sizeof name, "frame%06d.png", i);
    std::string png = read_file(dir.file("frames") + "/" + name);
    EXPECT_EQ(png.substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8)) << name;
  }
  EXPECT_FALSE(exists(dir.file("frames") + "/frame000005.png"));
}

TEST(Play, Y4mSummary) {
  TempDir dir;
  std::vector<std::string> pictures;
  write_file(dir.file("in.y4m"), y4m_file(32, 16, "25:1", 6, &pictures));
  Result r = play(dir, {"-v", "null", dir.file("in.y4m")});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.substr(0, r.out.find('\n')),
            dir.file("in.y4m") +
                ": YUV4MPEG2 demuxer (4:2:0), 0:00.240; video: raw YUV 4:2:0, 32x16, 25.00 fps");
}

TEST(Play, UnknownVideoDriver) {
  TempDir dir;
  std::vector<std::string> pictures;
  write_file(dir.file("in.y4m"), y4m_file(16, 16, "25:1", 1, &pictures));
  Result r = play(dir, {"-q", "-v", "hologram", dir.file("in.y4m")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("travik-play: no video output called \"hologram\""), std::string::npos)
      << r.err;
}

TEST(Play, Y4mOutputNeedsAFileName) {
  TempDir dir;
  std::vector<std::string> pictures;
  write_file(dir.file("in.y4m"), y4m_file(16, 16, "25:1", 1, &pictures));
  Result r = play(dir, {"-q", "-v", "y4m", dir.file("in.y4m")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("travik-play: cannot open video output \"y4m\" (it needs a file name: "
                       "-v y4m:out.y4m)"),
            std::string::npos)
      << r.err;
}

TEST(Play, Y4mWithoutAValidHeader) {
  TempDir dir;
  write_file(dir.file("bad.y4m"), "YUV4MPEG2 W0 H0\nFRAME\n");
  Result r = play(dir, {"-q", "-v", "null", dir.file("bad.y4m")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find(dir.file("bad.y4m")), std::string::npos) << r.err;
}

TEST(Play, TruncatedY4mShowsTheWholePicturesAndFails) {
  TempDir dir;
  std::vector<std::string> pictures;
  std::string file = y4m_file(16, 16, "50:1", 3, &pictures);
  write_file(dir.file("in.y4m"), file.substr(0, file.size() - 10));
  Result r = play(dir, {"-q", "-v", "y4m:" + dir.file("out.y4m"), dir.file("in.y4m")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("ended early"), std::string::npos) << r.err;
  std::string header;
  std::vector<std::string> out = read_y4m(dir.file("out.y4m"), 16, 16, &header);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_TRUE(out[0] == pictures[0]);
  EXPECT_TRUE(out[1] == pictures[1]);
}

}  // namespace
