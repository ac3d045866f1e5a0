// The audio-output plugins ("null", "wav", "alsa") through the audio front
// end, loaded from the build tree's plugin directory. The plugin directory
// is fixed on first use in a process, so every test runs in a forked child
// that reports what it saw as text.
#include <gtest/gtest.h>
#include <travik/audio.h>
#include <travik/system.h>
#include <dirent.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "util/testutil.h"

namespace fs = std::filesystem;
using travik_test::in_child;
using travik_test::now_ms;
using travik_test::read_file;
using travik_test::TempDir;

namespace {

const std::string kPlugins = std::string(TRAVIK_TEST_BINARY_DIR) + "/plugins";

std::string plugin_file(const char *name) {
  return kPlugins + "/audioout/libaudioout_" + name + ".so";
}

// Runs `body` in a child whose plugin directory is `directory`.
std::string with_plugins(const std::string &directory, const std::function<std::string()> &body) {
  return in_child([&] {
    setenv("TRAVIK_PLUGINS_DIR", directory.c_str(), 1);
    return body();
  });
}

std::string driver_name(travik_plugin *plugin) {
  if (!plugin) return "none";
  std::string name = static_cast<travik_audio_driver *>(plugin->drivers)->name;
  travik_plugin_destroy(plugin);
  return name;
}

struct Frame {
  std::vector<int16_t> samples;
  travik_audioframe f;
  explicit Frame(std::vector<int16_t> values) : samples(std::move(values)) {
    travik_audioframe_init(&f, nullptr);
    f.samples = samples.data();
    f.count = static_cast<int32_t>(samples.size());
    f.timestamp = 0;
  }
};

std::vector<int16_t> pattern(size_t n) {
  std::vector<int16_t> v(n);
  for (size_t k = 0; k < n; k++) v[k] = static_cast<int16_t>((k * 2654435761u) >> 16);
  return v;
}

uint32_t le32(const std::string &s, size_t at) {
  return static_cast<uint8_t>(s[at]) | static_cast<uint8_t>(s[at + 1]) << 8 |
         static_cast<uint8_t>(s[at + 2]) << 16 | static_cast<uint32_t>(static_cast<uint8_t>(s[at + 3])) << 24;
}

uint16_t le16(const std::string &s, size_t at) {
  return static_cast<uint16_t>(static_cast<uint8_t>(s[at]) | static_cast<uint8_t>(s[at + 1]) << 8);
}

// ---- choosing a driver ------------------------------------------------------

TEST(AudioOut, PluginsAreFoundByDriverName) {
  std::string seen = with_plugins(kPlugins, [] {
    return driver_name(travik_audio_load_driver("null")) + " " +
           driver_name(travik_audio_load_driver("wav"));
  });
  EXPECT_EQ(seen, "null wav");
}

TEST(AudioOut, UnknownOrMissingNamesFindNothing) {
  std::string seen = with_plugins(kPlugins, [] {
    std::string result = driver_name(travik_audio_load_driver("nosuch")) + " " +
                         driver_name(travik_audio_load_driver(nullptr)) + " " +
                         driver_name(travik_audio_load_driver("Null"));
    travik_audio *audio = travik_audio_create("nosuch", nullptr);
    return result + (audio ? " created" : " refused");
  });
  EXPECT_EQ(seen, "none none none refused");
}

TEST(AudioOut, AutoChoosesTheHighestProbeScore) {
  TempDir dir;
  fs::create_directories(dir.file("both/audioout"));
  fs::create_directories(dir.file("wavonly/audioout"));
  fs::create_directories(dir.file("empty/audioout"));
  fs::create_symlink(plugin_file("wav"), dir.file("both/audioout/libaudioout_wav.so"));
  fs::create_symlink(plugin_file("null"), dir.file("both/audioout/libaudioout_null.so"));
  fs::create_symlink(plugin_file("wav"), dir.file("wavonly/audioout/libaudioout_wav.so"));
  auto chosen = [&](const char *sub) {
    return with_plugins(dir.file(sub), [] { return driver_name(travik_audio_load_driver("auto")); });
  };
  EXPECT_EQ(chosen("both"), "null");  // 10 beats 1
  EXPECT_EQ(chosen("wavonly"), "wav");
  EXPECT_EQ(chosen("empty"), "none");
}

// Two files of the same driver score the same: the first one the walk
// meets wins a tie of probe scores, and a name search stops at the first
// match. (A plugin's entry function is named after the file name up to its
// first dot, so "libaudioout_null.so.2" is a second copy of "null".)
TEST(AudioOut, TheFirstCandidateWinsEqualScores) {
  TempDir dir;
  fs::create_directories(dir.file("audioout"));
  fs::create_symlink(plugin_file("null"), dir.file("audioout/libaudioout_null.so"));
  fs::create_symlink(plugin_file("null"), dir.file("audioout/libaudioout_null.so.2"));
  // The order in which the directory lists them.
  std::string first;
  if (DIR *listing = opendir(dir.file("audioout").c_str())) {
    while (struct dirent *entry = readdir(listing)) {
      if (std::strstr(entry->d_name, ".so")) {
        first = entry->d_name;
        break;
      }
    }
    closedir(listing);
  }
  ASSERT_FALSE(first.empty());
  std::string seen = with_plugins(dir.path(), [] {
    std::string result;
    for (const char *name : {"auto", "null"}) {
      travik_plugin *plugin = travik_audio_load_driver(name);
      if (!plugin) return result + " none";
      result += " " + fs::path(plugin->name).filename().string();
      travik_plugin_destroy(plugin);
    }
    return result;
  });
  EXPECT_EQ(seen, " " + first + " " + first);
}

TEST(AudioOut, CreateByNameKeepsThePlugin) {
  std::string seen = with_plugins(kPlugins, [] {
    travik_audio *audio = travik_audio_create("null", const_cast<char *>("rate=8000,channels=1"));
    if (!audio) return std::string("refused");
    std::ostringstream out;
    int32_t rate = 0, channels = 0;
    travik_audio_capabilities(audio, &rate, &channels);
    out << (audio->plugin ? "plugin " : "no plugin ") << audio->driver->name << " " << rate << "/"
        << channels;
    travik_audio_init(audio, 44100, 2);
    out << (audio->resampler ? " resampled to " : " direct ")
        << (audio->resampler ? audio->resampler->target_rate : 0);
    travik_audio_destroy(audio);
    return out.str();
  });
  EXPECT_EQ(seen, "plugin null 8000/1 resampled to 8000");
}

// ---- null -------------------------------------------------------------------

TEST(AudioOutNull, FollowsTheSourceFormat) {
  std::string seen = with_plugins(kPlugins, [] {
    travik_audio *audio = travik_audio_create("null", nullptr);
    travik_audio_init(audio, 22050, 1);
    int32_t rate = 0, channels = 0;
    travik_audio_capabilities(audio, &rate, &channels);
    std::ostringstream out;
    out << rate << "/" << channels << (audio->resampler ? " resampler" : " direct");
    travik_audio_destroy(audio);
    return out.str();
  });
  EXPECT_EQ(seen, "22050/1 direct");
}

TEST(AudioOutNull, PlaysInRealTime) {
  // 8000 Hz stereo: 32000 bytes a second; a device buffer of 3200 bytes
  // (100 ms). Half a second of audio cannot be taken in much faster than
  // 0.4 s.
  std::string seen = with_plugins(kPlugins, [] {
    travik_audio *audio = travik_audio_create("null", const_cast<char *>("rate=8000,channels=2,buffer=3200"));
    travik_audio_init(audio, 8000, 2);
    std::ostringstream out;
    out << "empty before " << travik_audio_isempty(audio) << "\n";
    Frame frame(pattern(800));  // 50 ms
    long long start = now_ms();
    int32_t accepted = 0;
    for (int k = 0; k < 10; k++) accepted += travik_audio_play(audio, &frame.f);
    travik_audio_flush(audio);
    long long elapsed = now_ms() - start;
    int32_t delay = audio->driver->getdelay(audio->handle);
    int32_t space = audio->driver->getspace(audio->handle);
    out << "accepted " << accepted << "\n";
    out << "elapsed " << elapsed << "\n";
    out << "delay " << delay << " space " << space << " sum " << delay + space << "\n";
    out << "empty after play " << travik_audio_isempty(audio) << "\n";
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    out << "empty later " << travik_audio_isempty(audio) << " delay ms " << travik_audio_getdelay(audio)
        << "\n";
    travik_audio_destroy(audio);
    return out.str();
  });
  std::istringstream in(seen);
  std::string line;
  std::vector<std::string> lines;
  while (std::getline(in, line)) lines.push_back(line);
  ASSERT_EQ(lines.size(), 6u) << seen;
  EXPECT_EQ(lines[0], "empty before 1");
  // 8000 values in writes of 4096 bytes: 3 whole writes plus the flush.
  EXPECT_EQ(lines[1], "accepted 6144");
  long long elapsed = std::stoll(lines[2].substr(8));
  EXPECT_GE(elapsed, 300) << seen;
  EXPECT_LE(elapsed, 5000) << seen;
  int delay = 0, space = 0, sum = 0;
  ASSERT_EQ(sscanf(lines[3].c_str(), "delay %d space %d sum %d", &delay, &space, &sum), 3) << seen;
  EXPECT_GT(delay, 0);
  EXPECT_LE(delay, 3200);
  // Space is the buffer less the delay, one byte short; the clock moves on
  // between the two questions, so the sum may exceed the buffer by what
  // drained meanwhile.
  EXPECT_GE(sum, 3199);
  EXPECT_LE(sum, 6400);
  EXPECT_EQ(lines[4], "empty after play 0");
  EXPECT_EQ(lines[5], "empty later 1 delay ms 0");
}

TEST(AudioOutNull, DelayFallsWithTheClock) {
  std::string seen = with_plugins(kPlugins, [] {
    travik_audio *audio = travik_audio_create("null", const_cast<char *>("rate=8000,channels=2,buffer=32000"));
    travik_audio_init(audio, 8000, 2);
    Frame frame(pattern(8192));  // four writes, 16384 bytes, about 0.5 s
    travik_audio_play(audio, &frame.f);
    int32_t first = audio->driver->getdelay(audio->handle);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    int32_t second = audio->driver->getdelay(audio->handle);
    std::ostringstream out;
    out << first << " " << second;
    travik_audio_reset(audio);
    out << " " << audio->driver->getdelay(audio->handle) << " " << audio->driver->getspace(audio->handle);
    travik_audio_destroy(audio);
    return out.str();
  });
  int first = 0, second = 0, after_delay = 0, after_space = 0;
  ASSERT_EQ(sscanf(seen.c_str(), "%d %d %d %d", &first, &second, &after_delay, &after_space), 4) << seen;
  EXPECT_LE(first, 16384);
  EXPECT_GT(first, 16384 - 3200) << "more than 100 ms passed during a non-blocking play";
  EXPECT_LT(second, first - 1600) << "100 ms should drain about 3200 bytes";
  EXPECT_GT(second, 0);
  EXPECT_EQ(after_delay, -1);  // reset empties the device
  EXPECT_EQ(after_space, -1);
}

// A device half full would answer the same delay and space, which is the
// front end's test for an empty device. 48 bytes at 1000 Hz mono drain a
// frame a millisecond through 32 bytes, half the 64-byte buffer: the device
// may look empty only once it has drained.
TEST(AudioOutNull, HalfFullIsNotEmpty) {
  std::string seen = with_plugins(kPlugins, [] {
    travik_audio *audio = travik_audio_create("null", const_cast<char *>("rate=1000,channels=1,buffer=64"));
    if (!audio) return std::string("refused");
    travik_audio_init(audio, 1000, 1);
    std::vector<int16_t> data(24, 0);
    std::ostringstream out;
    out << "accepted " << audio->driver->write(audio->handle, data.data(), 48);
    int false_empty = 0;
    bool drained = false;
    long long start = now_ms();
    while (!drained && now_ms() - start < 2000) {
      if (!travik_audio_isempty(audio)) continue;
      if (audio->driver->getdelay(audio->handle) == -1)
        drained = true;
      else
        false_empty++;
    }
    out << " false empty " << false_empty << (drained ? " drained" : " still playing");
    travik_audio_destroy(audio);
    return out.str();
  });
  EXPECT_EQ(seen, "accepted 48 false empty 0 drained");
}

// ---- wav --------------------------------------------------------------------

TEST(AudioOutWav, WritesWhatItPlaysSampleExact) {
  TempDir dir;
  std::string path = dir.file("out.wav");
  std::vector<int16_t> samples = pattern(3000);
  std::string during = with_plugins(kPlugins, [&] {
    travik_audio *audio = travik_audio_create("wav", const_cast<char *>(path.c_str()));
    if (!audio) return std::string("refused");
    travik_audio_init(audio, 8000, 2);
    Frame frame(samples);
    int32_t accepted = travik_audio_play(audio, &frame.f);
    std::string file = read_file(path);  // while still open
    travik_audio_flush(audio);
    travik_audio_destroy(audio);
    return std::to_string(accepted) + "\n" + file;
  });
  ASSERT_EQ(during.substr(0, 5), "2048\n") << during.substr(0, 20);
  std::string open_file = during.substr(5);
  // Valid while open: the sizes cover the one buffer written so far.
  ASSERT_EQ(open_file.size(), 44u + 4096u);
  EXPECT_EQ(le32(open_file, 4), 36u + 4096u);
  EXPECT_EQ(le32(open_file, 40), 4096u);

  std::string file = read_file(path);
  ASSERT_EQ(file.size(), 44u + 8192u);
  EXPECT_EQ(file.substr(0, 4), "RIFF");
  EXPECT_EQ(le32(file, 4), 36u + 8192u);
  EXPECT_EQ(file.substr(8, 8), "WAVEfmt ");
  EXPECT_EQ(le32(file, 16), 16u);
  EXPECT_EQ(le16(file, 20), 1u);
  EXPECT_EQ(le16(file, 22), 2u);
  EXPECT_EQ(le32(file, 24), 8000u);
  EXPECT_EQ(le32(file, 28), 32000u);
  EXPECT_EQ(le16(file, 32), 4u);
  EXPECT_EQ(le16(file, 34), 16u);
  EXPECT_EQ(file.substr(36, 4), "data");
  EXPECT_EQ(le32(file, 40), 8192u);
  std::vector<int16_t> content(4096);
  memcpy(content.data(), file.data() + 44, 8192);
  std::vector<int16_t> want(samples);
  want.resize(4096, 0);  // the flush pads with silence
  EXPECT_EQ(content, want);
}

// The file is written at the device rate: one second of 48 kHz stereo
// (192000 bytes) through the 32768-byte device buffer cannot be taken in
// much faster than the 0.83 s that do not fit the buffer.
TEST(AudioOutWav, PacedInRealTime) {
  TempDir dir;
  std::string path = dir.file("paced.wav");
  std::string seen = with_plugins(kPlugins, [&] {
    travik_audio *audio = travik_audio_create("wav", const_cast<char *>(path.c_str()));
    if (!audio) return std::string("refused");
    travik_audio_init(audio, 48000, 2);
    Frame frame(pattern(9600));  // 100 ms
    long long start = now_ms();
    int32_t accepted = 0;
    for (int k = 0; k < 10; k++) accepted += travik_audio_play(audio, &frame.f);
    long long elapsed = now_ms() - start;
    std::ostringstream out;
    out << accepted << " " << elapsed << " " << travik_audio_isempty(audio);
    travik_audio_destroy(audio);
    return out.str();
  });
  long long accepted = 0, elapsed = 0, empty = -1;
  ASSERT_EQ(sscanf(seen.c_str(), "%lld %lld %lld", &accepted, &elapsed, &empty), 3) << seen;
  EXPECT_EQ(accepted, 46 * 4096 / 2);  // whole writes; the rest stays staged
  EXPECT_GE(elapsed, 500) << seen;
  EXPECT_LE(elapsed, 10000) << seen;
  EXPECT_EQ(empty, 0);  // the device still holds what it has not played
  std::string file = read_file(path);
  ASSERT_EQ(file.size(), 44u + 46u * 4096u);
  EXPECT_EQ(le32(file, 40), 46u * 4096u);
}

TEST(AudioOutWav, KeepsTheFirstFormat) {
  TempDir dir;
  std::string path = dir.file("two.wav");
  std::string seen = with_plugins(kPlugins, [&] {
    travik_audio *audio = travik_audio_create("wav", const_cast<char *>(path.c_str()));
    travik_audio_init(audio, 11025, 1);
    travik_audio_init(audio, 8000, 2);
    int32_t rate = 0, channels = 0;
    travik_audio_capabilities(audio, &rate, &channels);
    std::string result = std::to_string(rate) + "/" + std::to_string(channels) +
                         (audio->resampler ? " resampler" : " direct");
    travik_audio_destroy(audio);
    return result;
  });
  EXPECT_EQ(seen, "11025/1 resampler");
  std::string file = read_file(path);
  ASSERT_EQ(file.size(), 44u);
  EXPECT_EQ(le32(file, 24), 11025u);
  EXPECT_EQ(le16(file, 22), 1u);
  EXPECT_EQ(le32(file, 40), 0u);
}

TEST(AudioOutWav, NeedsAWritablePath) {
  std::string seen = with_plugins(kPlugins, [] {
    travik_audio *a = travik_audio_create("wav", nullptr);
    travik_audio *b = travik_audio_create("wav", const_cast<char *>("/nonexistent-dir/x.wav"));
    return std::string(a ? "a" : "-") + (b ? "b" : "-");
  });
  EXPECT_EQ(seen, "--");
}

// ---- alsa -------------------------------------------------------------------

TEST(AudioOutAlsa, PlaysIntoTheNullDevice) {
  if (!fs::exists(plugin_file("alsa"))) GTEST_SKIP() << "built without libasound";
  std::string seen = with_plugins(kPlugins, [] {
    travik_audio *audio = travik_audio_create("alsa", const_cast<char *>("null"));
    if (!audio) return std::string("refused");
    std::ostringstream out;
    int32_t rate = -5, channels = -5;
    travik_audio_capabilities(audio, &rate, &channels);
    out << "before init " << rate << "/" << channels << "\n";
    travik_audio_init(audio, 44100, 2);
    travik_audio_capabilities(audio, &rate, &channels);
    out << "format " << rate << "/" << channels << (audio->resampler ? " resampler" : " direct") << "\n";
    Frame frame(pattern(44100 * 2 / 10));
    int32_t accepted = 0;
    for (int k = 0; k < 10; k++) accepted += travik_audio_play(audio, &frame.f);
    out << "accepted " << accepted << "\n";
    // The null PCM plays everything at once: nothing is left to hear.
    out << "delay " << audio->driver->getdelay(audio->handle) << " space "
        << audio->driver->getspace(audio->handle) << " empty " << travik_audio_isempty(audio)
        << " ms " << travik_audio_getdelay(audio) << "\n";
    travik_audio_reset(audio);
    accepted = travik_audio_play(audio, &frame.f);
    out << "after reset " << accepted << "\n";
    travik_audio_destroy(audio);
    return out.str();
  });
  EXPECT_EQ(seen,
            "before init -5/-5\n"
            "format 44100/2 direct\n"
            "accepted 88064\n"  // 43 writes of 4096 bytes; the rest is staged
            "delay -1 space -1 empty 1 ms 0\n"
            "after reset 8192\n");
}

// Without an argument the driver opens the "default" PCM, and the probe
// scores 50 when that PCM opens. A user configuration (~/.asoundrc under a
// temporary HOME) makes "default" the null PCM, so no sound card is needed.
TEST(AudioOutAlsa, DefaultDeviceWithoutArgumentAndProbe) {
  if (!fs::exists(plugin_file("alsa"))) GTEST_SKIP() << "built without libasound";
  TempDir home;
  travik_test::write_file(home.file(".asoundrc"), "pcm.!default { type null }\n");
  const std::string home_path = home.path();
  std::string seen = with_plugins(kPlugins, [&] {
    setenv("HOME", home_path.c_str(), 1);
    unsetenv("XDG_CONFIG_HOME");
    std::ostringstream out;
    out << driver_name(travik_audio_load_driver("auto"));
    travik_audio *audio = travik_audio_create("alsa", nullptr);
    if (!audio) return out.str() + " refused";
    travik_audio_init(audio, 48000, 2);
    Frame frame(pattern(4096));
    out << " accepted " << travik_audio_play(audio, &frame.f);
    travik_audio_destroy(audio);
    return out.str();
  });
  EXPECT_EQ(seen, "alsa accepted 4096");
}

TEST(AudioOutAlsa, UnusableFormatIsRefused) {
  if (!fs::exists(plugin_file("alsa"))) GTEST_SKIP() << "built without libasound";
  std::string seen = with_plugins(kPlugins, [] {
    travik_audio *audio = travik_audio_create("alsa", const_cast<char *>("null"));
    if (!audio) return std::string("refused");
    travik_audio_init(audio, 0, 0);
    Frame frame(pattern(8192));
    int32_t accepted = travik_audio_play(audio, &frame.f);
    travik_audio_destroy(audio);
    return std::to_string(accepted);
  });
  EXPECT_EQ(seen, "0");
}

TEST(AudioOutAlsa, UnknownDeviceIsRefused) {
  if (!fs::exists(plugin_file("alsa"))) GTEST_SKIP() << "built without libasound";
  std::string seen = with_plugins(kPlugins, [] {
    travik_audio *audio = travik_audio_create("alsa", const_cast<char *>("no_such_pcm_device"));
    return std::string(audio ? "created" : "refused");
  });
  EXPECT_EQ(seen, "refused");
}

}  // namespace
