// End-to-end tests of the travik-play executable: real input files are
// played through the file-writing outputs of the build tree's plugins, and
// what those outputs wrote is compared with the input.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
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

// Whether `text` holds `line` as a whole line.
bool has_line(const std::string &text, const std::string &line) {
  return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
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

TEST(Play, RelativePluginDirectoryIsTakenFromTheWorkingDirectory) {
  TempDir dir;
  std::string samples = noise(4000, 4);
  write_file(dir.file("in.wav"), wav_file(16000, 1, 16, samples));
  const std::string relative =
      std::filesystem::relative(kPlugins, std::filesystem::current_path()).string();
  ASSERT_NE(relative.front(), '/');
  Result r = play(dir, {"-q", "-a", "wav:" + dir.file("out.wav"), dir.file("in.wav")},
                  relative.c_str());
  ASSERT_EQ(r.status, 0) << r.err;
  expect_played(read_wav(dir.file("out.wav")).data, samples);
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
  EXPECT_TRUE(has_line(r.out, dir.file("in.wav") +
                                  ": WAV demuxer (RIFF/WAVE: PCM, A-law, mu-law), 0:00.250; "
                                  "audio: PCM 16-bit, 8000 Hz, 2 channels"))
      << r.out;
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
  // What was written is the start of the file's samples. The player may
  // end before playing them all: the end event can go out while the last
  // frame is between two of its threads (then nothing is written).
  std::string played = read_wav(dir.file("out.wav")).data;
  std::string common = played.substr(0, std::min(played.size(), samples.size()));
  EXPECT_EQ(common, samples.substr(0, common.size()));
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
  // The outputs are looked for first, in the same directory.
  EXPECT_NE(r.err.find("travik-play: no audio output called \"null\""), std::string::npos)
      << r.err;
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
  EXPECT_EQ(r.out.rfind("usage: travik-play [OPTION]... FILE_OR_URL\n", 0), 0u) << r.out;
  for (const char *option : {"-a AUDIO", "-v VIDEO", "--start MS", "--speed X", "--exact",
                             "--sub FILE", "--font FILE", "--font-size N", "--commands TEXT",
                             "--info", "--plugins", "-q", "Keys", "Exit status"})
    EXPECT_NE(r.out.find(option), std::string::npos) << option;
}

// The player opens both outputs when it starts, before it knows what the
// input holds: a video output that does not exist is an error even for
// sound alone.
TEST(Play, BothOutputsAreOpenedAtTheStart) {
  TempDir dir;
  write_file(dir.file("in.wav"), wav_file(8000, 1, 16, noise(100, 15)));
  Result r = play(dir, {"-q", "-a", "null", "-v", "no-such-display", dir.file("in.wav")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("travik-play: no video output called \"no-such-display\""),
            std::string::npos)
      << r.err;
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
  EXPECT_TRUE(has_line(r.out, dir.file("in.y4m") + ": YUV4MPEG2 demuxer (4:2:0), 0:00.240; "
                                                 "video: raw YUV 4:2:0, 32x16, 25.00 fps"))
      << r.out;
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

// ---------------------------------------------------------------------
// The player on the playback engine: both streams, scripted control,
// --info, exit statuses, --plugins and the quiet fallback of "auto".

const std::string kAvPlugins = AVTEST_PLUGINS_DIR;

// An input of the tests' avtest demuxer (synthetic sound and picture).
std::string avtest(const TempDir &dir, const std::string &options) {
  std::string path = dir.file("in.avt");
  write_file(path, "AVTEST " + options + "\n");
  return path;
}

TEST(Play, BothStreamsGoToTheirOutputs) {
  TempDir dir;
  std::string input = avtest(dir, "seconds=500 rate=8000 channels=1 width=16 height=16");
  Result r = play(dir,
                  {"-q", "-a", "wav:" + dir.file("out.wav"), "-v", "y4m:" + dir.file("out.y4m"),
                   input},
                  kAvPlugins.c_str());
  ASSERT_EQ(r.status, 0) << r.err;
  Wav wav = read_wav(dir.file("out.wav"));
  EXPECT_EQ(wav.rate, 8000u);
  // Half a second of 8 kHz mono, padded to the output's write size.
  EXPECT_GE(wav.data.size(), 8000u);
  EXPECT_LT(wav.data.size(), 8000u + 4096u);
  std::string header;
  std::vector<std::string> pictures = read_y4m(dir.file("out.y4m"), 16, 16, &header);
  EXPECT_EQ(header.rfind("YUV4MPEG2 W16 H16 ", 0), 0u) << header;
  // 12 or 13 pictures; a late one makes the player drop the next.
  EXPECT_GE(pictures.size(), 6u);
  EXPECT_LE(pictures.size(), 13u);
}

TEST(Play, ShowsTheEventsAsTheyCome) {
  TempDir dir;
  Result r = play(dir, {"-a", "null", "-v", "null", avtest(dir, "seconds=300")},
                  kAvPlugins.c_str());
  ASSERT_EQ(r.status, 0) << r.err;
  size_t opening = r.out.find("travik-play: opening ");
  size_t audio = r.out.find("travik-play: audio started");
  size_t video = r.out.find("travik-play: video started");
  size_t end = r.out.find("travik-play: end\n");
  ASSERT_NE(opening, std::string::npos) << r.out;
  ASSERT_NE(audio, std::string::npos) << r.out;
  ASSERT_NE(video, std::string::npos) << r.out;
  ASSERT_NE(end, std::string::npos) << r.out;
  EXPECT_LT(opening, audio);
  EXPECT_LT(audio, end);
  EXPECT_LT(video, end);
  EXPECT_NE(r.out.find("travik-play: buffering 100%"), std::string::npos) << r.out;
}

TEST(Play, ScriptedCommandsSteerThePlayer) {
  TempDir dir;
  // A 20-second input: seeking to 18.5 s leaves 1.5 s to play. Without the
  // seek the run would take 20 seconds.
  std::string input = avtest(dir, "seconds=20000 width=16 height=16");
  Result r = play(dir,
                  {"-a", "null", "-v", "null", "--commands",
                   "pause; seek 18500; sleep 200; play; mute; exact", input},
                  kAvPlugins.c_str());
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_LT(r.elapsed_ms, 15000);
  EXPECT_GE(r.elapsed_ms, 1000);
  EXPECT_NE(r.out.find("travik-play: mute on"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("travik-play: exact seeking on"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("travik-play: end"), std::string::npos) << r.out;
}

TEST(Play, QuitCommandEndsPlaybackAtOnce) {
  TempDir dir;
  Result r = play(dir,
                  {"-q", "-a", "null", "-v", "null", "--commands", "sleep 300; quit",
                   avtest(dir, "seconds=20000 width=16 height=16")},
                  kAvPlugins.c_str());
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_GE(r.elapsed_ms, 300);
  EXPECT_LT(r.elapsed_ms, 10000);
}

TEST(Play, StartAndSpeedOptions) {
  TempDir dir;
  Result r = play(dir,
                  {"-a", "null", "-v", "null", "--start", "1000", "--speed", "2",
                   avtest(dir, "seconds=2000 width=16 height=16")},
                  kAvPlugins.c_str());
  ASSERT_EQ(r.status, 0) << r.err;
  // The status line shows the speed, and the position after the start.
  EXPECT_NE(r.out.find("speed 2.00"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("00:00.0 / 00:02.0"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("travik-play: end"), std::string::npos) << r.out;
}

TEST(Play, MalformedCommandsAreAUsageError) {
  TempDir dir;
  Result r = play(dir, {"--commands", "seek; jump 4", avtest(dir, "seconds=300")},
                  kAvPlugins.c_str());
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("travik-play: unknown or malformed command \"seek\""), std::string::npos)
      << r.err;
}

TEST(Play, BadOptionValuesAreUsageErrors) {
  TempDir dir;
  for (const std::vector<std::string> &args :
       {std::vector<std::string>{"--speed", "0", "x.wav"},
        std::vector<std::string>{"--start", "-5", "x.wav"},
        std::vector<std::string>{"--font-size", "big", "x.wav"},
        std::vector<std::string>{"x.wav", "--sub"}}) {
    Result r = play(dir, args);
    EXPECT_EQ(r.status, 2) << args[0];
  }
}

TEST(Play, InfoPrintsJson) {
  TempDir dir;
  Result r = play(dir, {"--info", avtest(dir, "seconds=1500 rate=8000 channels=2 width=32 "
                                              "height=16 fps=25")},
                  kAvPlugins.c_str());
  ASSERT_EQ(r.status, 0) << r.err;
  // The JSON alone on standard output.
  EXPECT_EQ(r.out.rfind("{\n", 0), 0u) << r.out;
  EXPECT_EQ(r.out.substr(r.out.size() - 2), "}\n") << r.out;
  for (const char *item :
       {"\"input\": \"", "\"seekable\": 1", "\"duration_ms\": 1500", "\"has_video\": 1",
        "\"has_audio\": 1", "\"audio_channels\": 2", "\"audio_bits_per_sample\": 16",
        "\"audio_sample_rate\": 8000", "\"video_width\": 32", "\"video_height\": 16",
        "\"video_frame_rate\": 2500", "\"live\": 0", "\"audio_mute\": 0",
        "\"metadata\": {", "\"title\": \"in\""})
    EXPECT_NE(r.out.find(item), std::string::npos) << item << "\n" << r.out;
}

TEST(Play, InfoOfAWav) {
  TempDir dir;
  write_file(dir.file("tone.wav"), wav_file(16000, 1, 16, noise(16000, 30)));
  Result r = play(dir, {"-q", "--info", dir.file("tone.wav")});
  ASSERT_EQ(r.status, 0) << r.err;
  for (const char *item : {"\"duration_ms\": 500", "\"has_video\": 0", "\"has_audio\": 1",
                           "\"audio_channels\": 1", "\"audio_sample_rate\": 16000",
                           "\"video_width\": -1", "\"title\": \"tone\""})
    EXPECT_NE(r.out.find(item), std::string::npos) << item << "\n" << r.out;
}

TEST(Play, InfoOfAnUnreadableHeaderFails) {
  TempDir dir;
  Result r = play(dir, {"--info", avtest(dir, "header_error=3")}, kAvPlugins.c_str());
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("its header cannot be read; status 3"), std::string::npos) << r.err;
}

TEST(Play, ErrorEventGivesStatusOne) {
  TempDir dir;
  Result r = play(dir,
                  {"-q", "-a", "null", "-v", "null",
                   avtest(dir, "seconds=2000 error_at=300 error_code=12 width=16 height=16")},
                  kAvPlugins.c_str());
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("ended early: the file is truncated or damaged (status 12)"),
            std::string::npos)
      << r.err;
}

TEST(Play, MissingDecoderGivesStatusThree) {
  TempDir dir;
  // The avtest plugins without the PCM decoder: the audio stream has none,
  // the picture plays.
  for (const char *file : {"demuxer/libdemuxer_avtest.so", "decoder/libdecoder_rawvideo.so",
                           "audioout/libaudioout_null.so", "videoout/libvideoout_null.so"}) {
    std::string to = dir.file("plugins/") + file;
    mkdir(dir.file("plugins").c_str(), 0755);
    mkdir(to.substr(0, to.rfind('/')).c_str(), 0755);
    ASSERT_EQ(symlink((kAvPlugins + "/" + file).c_str(), to.c_str()), 0) << to;
  }
  Result r = play(dir, {"-a", "null", "-v", "null", avtest(dir, "seconds=400 width=16 height=16")},
                  dir.file("plugins").c_str());
  EXPECT_EQ(r.status, 3) << r.err;
  EXPECT_NE(r.err.find("travik-play: no decoder for the audio stream"), std::string::npos)
      << r.err;
  EXPECT_NE(r.out.find("travik-play: video started"), std::string::npos) << r.out;
}

TEST(Play, PluginsListsEveryKind) {
  TempDir dir;
  Result r = play(dir, {"--plugins"}, kAvPlugins.c_str());
  ASSERT_EQ(r.status, 0) << r.err;
  for (const char *item :
       {"demuxer:\n", "decoder:\n", "audioout:\n", "videoout:\n", "subtitle:\n", "font:\n",
        "libdemuxer_avtest.so\n      Synthetic audio and video for tests (extensions avt)",
        "libdecoder_pcm.so", "PCM decoder (16-bit little-endian)", "libaudioout_null.so\n      null",
        "libvideoout_y4m.so\n      y4m", "libdecoder_refuse.so"})
    EXPECT_NE(r.out.find(item), std::string::npos) << item << "\n" << r.out;
}

TEST(Play, AutoFallsBackQuietlyWithoutSoundCardOrDisplay) {
  if (exists("/dev/snd")) GTEST_SKIP() << "this machine has a sound device";
  TempDir dir;
  write_file(dir.file("in.wav"), wav_file(8000, 1, 16, noise(800, 32)));
  // No display for the window output either.
  unsetenv("DISPLAY");
  unsetenv("WAYLAND_DISPLAY");
  Result r = play(dir, {dir.file("in.wav")});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err.find("ALSA"), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find("Can't open"), std::string::npos) << r.err;
  // One line says what was chosen.
  size_t at = r.err.find("travik-play: audio to \"null\" (no sound device found)");
  ASSERT_NE(at, std::string::npos) << r.err;
  EXPECT_EQ(r.err.find("travik-play: audio to", at + 1), std::string::npos) << r.err;
}

// Pictures of black (luma 16, chroma 128) for the subtitle tests.
std::string black_y4m(int width, int height, int frames) {
  std::string s = "YUV4MPEG2 W" + std::to_string(width) + " H" + std::to_string(height) +
                  " F25:1 Ip C420jpeg\n";
  for (int f = 0; f < frames; f++)
    s += "FRAME\n" + std::string(static_cast<size_t>(width * height), '\x10') +
         std::string(static_cast<size_t>(width * height / 2), '\x80');
  return s;
}

// Luma samples of each picture that are not black.
std::vector<int> lit_pixels(const std::vector<std::string> &pictures, int width, int height) {
  std::vector<int> lit;
  for (const std::string &picture : pictures)
    lit.push_back(static_cast<int>(std::count_if(picture.begin(), picture.begin() + width * height,
                                                 [](char c) { return c != '\x10'; })));
  return lit;
}

bool have_subtitle_plugins() {
  return exists(kPlugins + "/subtitle/libsubtitle_text.so") &&
         exists(kPlugins + "/font/libfont_freetype.so") &&
         exists("/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf");
}

TEST(Play, SubtitlesAreDrawnOntoThePictures) {
  if (!have_subtitle_plugins()) GTEST_SKIP() << "no subtitle or font plugin, or no default font";
  TempDir dir;
  write_file(dir.file("in.y4m"), black_y4m(64, 32, 15));
  // Shown from 0.1 s: the pictures from 0.16 s on carry it.
  write_file(dir.file("in.srt"), "1\n00:00:00,100 --> 00:00:09,000\nHi\n\n");
  Result r = play(dir, {"-q", "-a", "null", "-v", "y4m:" + dir.file("out.y4m"), "--sub",
                        dir.file("in.srt"), "--font-size", "14", dir.file("in.y4m")});
  ASSERT_EQ(r.status, 0) << r.err;
  std::string header;
  std::vector<int> lit = lit_pixels(read_y4m(dir.file("out.y4m"), 64, 32, &header), 64, 32);
  ASSERT_GE(lit.size(), 8u);
  EXPECT_EQ(lit[0], 0);
  EXPECT_GT(lit.back(), 0) << "no subtitle on the last picture";
}

TEST(Play, SubtitlesCanBeSwitchedOff) {
  if (!have_subtitle_plugins()) GTEST_SKIP() << "no subtitle or font plugin, or no default font";
  TempDir dir;
  write_file(dir.file("in.y4m"), black_y4m(64, 32, 15));
  write_file(dir.file("in.srt"), "1\n00:00:00,100 --> 00:00:09,000\nHi\n\n");
  Result r = play(dir, {"-q", "-a", "null", "-v", "y4m:" + dir.file("out.y4m"), "--sub",
                        dir.file("in.srt"), "--commands", "subtitles", dir.file("in.y4m")});
  ASSERT_EQ(r.status, 0) << r.err;
  std::string header;
  std::vector<int> lit = lit_pixels(read_y4m(dir.file("out.y4m"), 64, 32, &header), 64, 32);
  ASSERT_GE(lit.size(), 8u);
  EXPECT_EQ(lit.back(), 0);
}

TEST(Play, UnusableFontIsReportedAndPlaybackGoesOn) {
  TempDir dir;
  write_file(dir.file("in.y4m"), black_y4m(16, 16, 3));
  Result r = play(dir, {"-a", "null", "-v", "null", "--font", dir.file("none.ttf"),
                        dir.file("in.y4m")});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("travik-play: cannot use the font \"" + dir.file("none.ttf") + "\""),
            std::string::npos)
      << r.err;
}

TEST(Play, UnreadableSubtitleFileIsAnError) {
  TempDir dir;
  write_file(dir.file("in.y4m"), black_y4m(16, 16, 3));
  Result r = play(dir, {"-a", "null", "-v", "null", "--sub", dir.file("none.srt"),
                        dir.file("in.y4m")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("travik-play: cannot read subtitles from"), std::string::npos) << r.err;
}

// Real media through the FFmpeg plugins, end to end. A clip with both
// streams, made by the ffmpeg tool, plays into the wav and y4m outputs: the
// sound is the tool's own decode sample for sample; every picture written
// is one of the tool's pictures, in order, and nearly all of them arrive.
// With sound the picture after a late one is dropped by design, and the
// first picture is usually late: the video output waits 100 ms when it
// finds the clock not yet started. Every picture of clips without sound,
// the last ones drained from the decoder, is required by the FFmpeg tests'
// end-to-end runs.
bool have_ffmpeg_plugins() {
  struct stat st;
  return stat((kPlugins + "/demuxer/libdemuxer_ffmpeg.so").c_str(), &st) == 0 &&
         stat((kPlugins + "/decoder/libdecoder_ffmpeg.so").c_str(), &st) == 0 &&
         std::system("ffmpeg -version >/dev/null 2>&1") == 0;
}

std::vector<std::string> y4m_pictures(const std::string &y4m) {
  std::vector<std::string> pictures;
  size_t at = y4m.find("FRAME\n");
  while (at != std::string::npos) {
    size_t next = y4m.find("FRAME\n", at + 6);
    pictures.push_back(y4m.substr(at + 6, (next == std::string::npos ? y4m.size() : next) - at - 6));
    at = next;
  }
  return pictures;
}

TEST(Play, FFmpegClipPlaysIntoTheFileOutputs) {
  if (!have_ffmpeg_plugins()) GTEST_SKIP() << "no ffmpeg tool or FFmpeg plugins";
  TempDir dir;
  const std::string clip = dir.file("clip.mp4");
  const std::string tool = "ffmpeg -v error -nostdin -y ";
  ASSERT_EQ(std::system((tool + "-f lavfi -i testsrc2=size=160x120:rate=25:duration=2 "
                                "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=2 "
                                "-ac 2 -c:v libx264 -bf 0 -pix_fmt yuv420p -c:a aac -shortest "
                                "-metadata title=Clip '" + clip + "'").c_str()),
            0);
  ASSERT_EQ(std::system((tool + "-i '" + clip + "' -f yuv4mpegpipe '" + dir.file("ref.y4m") +
                         "' -f s16le '" + dir.file("ref.s16") + "'").c_str()),
            0);

  Result r = play(dir, {"-q", "-a", "wav:" + dir.file("out.wav"), "-v",
                        "y4m:" + dir.file("out.y4m"), clip});
  ASSERT_EQ(r.status, 0) << r.err;
  const std::string sound = read_file(dir.file("out.wav"));
  const std::string expected_sound = read_file(dir.file("ref.s16"));
  ASSERT_EQ(sound.size(), expected_sound.size() + 44);
  EXPECT_TRUE(sound.compare(44, std::string::npos, expected_sound) == 0);

  const std::vector<std::string> shown = y4m_pictures(read_file(dir.file("out.y4m")));
  const std::vector<std::string> decoded = y4m_pictures(read_file(dir.file("ref.y4m")));
  ASSERT_EQ(decoded.size(), 50u);
  size_t next = 0;
  for (const std::string &picture : shown) {
    while (next < decoded.size() && decoded[next] != picture) next++;
    ASSERT_LT(next, decoded.size()) << "a picture the tool does not decode, or out of order";
    next++;
  }
  EXPECT_GE(shown.size(), decoded.size() * 8 / 10);

  Result info = play(dir, {"--info", clip});
  ASSERT_EQ(info.status, 0) << info.err;
  for (const char *item : {"\"duration_ms\": 2000", "\"video_width\": 160",
                           "\"video_height\": 120", "\"video_frame_rate\": 2500",
                           "\"audio_sample_rate\": 48000", "\"audio_channels\": 2",
                           "\"title\": \"Clip\""})
    EXPECT_NE(info.out.find(item), std::string::npos) << item << "\n" << info.out;
}

// Through the player's frame pool into the y4m output's picture buffers:
// the decoder renders the pictures nothing is predicted from straight into
// the output's buffers, copies the others, and every picture written is
// still one of the tool's, in order.
TEST(Play, FFmpegPicturesRenderedStraightIntoTheOutputsBuffers) {
  if (!have_ffmpeg_plugins()) GTEST_SKIP() << "no ffmpeg tool or FFmpeg plugins";
  TempDir dir;
  const std::string clip = dir.file("bframes.mp4");
  const std::string tool = "ffmpeg -v error -nostdin -y ";
  // Without a B-pyramid no B-picture is a reference.
  ASSERT_EQ(std::system((tool + "-f lavfi -i testsrc2=size=160x120:rate=25:duration=2 "
                                "-c:v libx264 -preset medium -bf 2 -x264-params b-pyramid=none "
                                "-pix_fmt yuv420p '" + clip + "'").c_str()),
            0);
  ASSERT_EQ(std::system((tool + "-i '" + clip + "' -f yuv4mpegpipe '" + dir.file("ref.y4m") +
                         "'").c_str()),
            0);
  const std::string types = [&] {
    std::string out;
    FILE *pipe = popen(("ffprobe -v error -select_streams v:0 -show_entries frame=pict_type "
                        "-of csv=p=0 '" + clip + "'").c_str(), "r");
    char buffer[4096];
    size_t n;
    while (pipe && (n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
    if (pipe) pclose(pipe);
    return out;
  }();
  const int b_pictures = static_cast<int>(std::count(types.begin(), types.end(), 'B'));
  ASSERT_GE(b_pictures, 20);

  setenv("TRAVIK_DEBUG", "1", 1);
  setenv("TRAVIK_DECODER_THREADS", "1", 1);
  Result r = play(dir, {"-a", "null", "-v", "y4m:" + dir.file("out.y4m"), clip});
  unsetenv("TRAVIK_DEBUG");
  unsetenv("TRAVIK_DECODER_THREADS");
  ASSERT_EQ(r.status, 0) << r.err;
  int pictures = -1, direct = -1, copied = -1;
  const size_t line = r.err.find("FFmpeg decoder: ");
  ASSERT_NE(line, std::string::npos) << r.err;
  ASSERT_EQ(std::sscanf(r.err.c_str() + line,
                        "FFmpeg decoder: %d pictures, %d rendered directly (%*d%%), %d copied",
                        &pictures, &direct, &copied),
            3);
  EXPECT_EQ(direct + copied, pictures);
  // B-pictures go straight into the output's buffers (on a loaded machine
  // the player may have some of them skipped), the reference pictures are
  // copied.
  EXPECT_GT(direct, 0);
  EXPECT_LE(direct, b_pictures);
  EXPECT_LE(copied, 50 - b_pictures);

  const std::vector<std::string> shown = y4m_pictures(read_file(dir.file("out.y4m")));
  const std::vector<std::string> decoded = y4m_pictures(read_file(dir.file("ref.y4m")));
  ASSERT_EQ(decoded.size(), 50u);
  size_t next = 0;
  for (const std::string &picture : shown) {
    while (next < decoded.size() && decoded[next] != picture) next++;
    ASSERT_LT(next, decoded.size()) << "a picture the tool does not decode, or out of order";
    next++;
  }
  EXPECT_GE(shown.size(), decoded.size() * 8 / 10);
}

}  // namespace
