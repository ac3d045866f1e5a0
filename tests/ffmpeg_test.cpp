// The FFmpeg demuxer and decoder plugins through the frameworks: clips made
// with the `ffmpeg` tool in every container and codec its encoders can make
// are chosen, described, demuxed and decoded, and the pictures and samples
// are compared with the tool's own decode of the same file. Also: seeking,
// files beyond 4 GiB, streams over TCP, UDP and HTTP (progressive MP4 and an
// HLS playlist) from servers on 127.0.0.1, and damaged input.
//
// Clips and the tool's reference decodes are made once and kept in
// <build>/tests/ffmpeg-clips. The whole program skips itself where the
// plugins, libavutil or the tool are missing (the cross builds).
#include <gtest/gtest.h>
#include <travik/travik.h>
#include <util/loopback.h>
#include <util/testutil.h>

#ifdef TRAVIK_TEST_HAVE_LIBAVUTIL
extern "C" {
#include <libavutil/md5.h>
}
#endif

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <cctype>
#include <deque>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#ifdef TRAVIK_TEST_HAVE_LIBAVUTIL
namespace {

::testing::Environment *const environment = ::testing::AddGlobalTestEnvironment(
    new travik_test::LibraryEnvironment(TRAVIK_TEST_BINARY_DIR "/plugins"));

// ---------------------------------------------------------------- tools

bool find_plugins() {
  struct stat st;
  return stat(TRAVIK_TEST_BINARY_DIR "/plugins/demuxer/libdemuxer_ffmpeg.so", &st) == 0 &&
         stat(TRAVIK_TEST_BINARY_DIR "/plugins/decoder/libdecoder_ffmpeg.so", &st) == 0 &&
         std::system("ffmpeg -version >/dev/null 2>&1") == 0;
}

bool have_plugins() {
  static const bool found = find_plugins();
  return found;
}

#define SKIP_WITHOUT_FFMPEG()                                              \
  do {                                                                     \
    if (!have_plugins()) GTEST_SKIP() << "FFmpeg plugins or tool missing"; \
  } while (0)

// Standard output of a shell command.
std::string capture(const std::string &command) {
  std::string out;
  FILE *pipe = popen(command.c_str(), "r");
  if (!pipe) return out;
  char buffer[65536];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
  pclose(pipe);
  return out;
}

// Clips are kept between runs; each is made again when the command that
// makes it changes.
const std::string kClipDir = TRAVIK_TEST_BINARY_DIR "/tests/ffmpeg-clips";

// Scratch files of one run.
const std::string &scratch_dir() {
  static travik_test::TempDir *dir = new travik_test::TempDir();
  return dir->path();
}

// Cached files are written under a name of their own and then renamed, as
// test programs run side by side may make the same file at once.
std::string private_name(const std::string &path) {
  const size_t slash = path.rfind('/');
  return path.substr(0, slash + 1) + ".tmp" + std::to_string(getpid()) + "-" +
         path.substr(slash + 1);
}

void write_cached(const std::string &path, const std::string &content) {
  const std::string temporary = private_name(path);
  travik_test::write_file(temporary, content);
  std::rename(temporary.c_str(), path.c_str());
}

std::string cached(const std::string &path, const std::string &command) {
  const std::string key = path + ".command";
  struct stat st;
  if (stat(path.c_str(), &st) == 0 && stat(key.c_str(), &st) == 0 &&
      travik_test::read_file(key) == command)
    return travik_test::read_file(path);
  std::string out = capture(command);
  write_cached(path, out);
  write_cached(key, command);
  return out;
}

const char *const kVideo = "-f lavfi -i testsrc=size=64x48:rate=25:duration=1";
const char *const kAudio = "-f lavfi -i sine=frequency=440:sample_rate=44100:duration=1";

std::string make_clip(const std::string &name, const std::string &arguments) {
  mkdir(kClipDir.c_str(), 0755);
  const std::string path = kClipDir + "/" + name;
  const std::string command = "ffmpeg -v error -nostdin -y " + arguments + " '" + path + "'";
  const std::string key = path + ".command";
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || stat(key.c_str(), &st) != 0 ||
      travik_test::read_file(key) != command) {
    // The tool writes a name of this program's own (with the extension,
    // which chooses the container), renamed once complete.
    const std::string temporary = private_name(path);
    const std::string run = "ffmpeg -v error -nostdin -y " + arguments + " '" + temporary + "'";
    EXPECT_EQ(std::system(run.c_str()), 0) << run;
    std::rename(temporary.c_str(), path.c_str());
    write_cached(key, command);
  }
  return path;
}

// ---------------------------------------------------------------- playing

struct Result {
  std::string demuxer;       // chosen driver's description
  std::string video_decoder;
  std::string audio_decoder;
  travik_codec_info video = {};
  travik_codec_info audio = {};
  int64_t video_duration = 0;
  int64_t audio_duration = 0;
  uint32_t duration = 0;
  int32_t flags = 0;
  int32_t seekable = 0;
  std::string pictures;  // every picture's planes, tightly packed
  int32_t width = 0, height = 0;
  std::vector<int64_t> picture_times;
  std::vector<uint32_t> picture_info;
  std::string samples;   // every audio frame's bytes
  std::vector<int64_t> audio_times;
  std::map<int32_t, std::string> texts;
  std::string cover;
  int32_t parse_status = 0;
};

void take_video(Result &r, travik_videoframe *f) {
  EXPECT_EQ(f->format, TRAVIK_PIXEL_YUV420P);
  r.width = f->width;
  r.height = f->height;
  for (int p = 0; p < 3; p++) {
    const int32_t w = p ? f->width / 2 : f->width, h = p ? f->height / 2 : f->height;
    for (int32_t y = 0; y < h; y++)
      r.pictures.append(reinterpret_cast<const char *>(f->planes[p] + y * f->pitches[p]), w);
  }
  r.picture_times.push_back(f->timestamp);
  r.picture_info.push_back(f->info);
  f->release(f);
}

void take_audio(Result &r, travik_audioframe *f) {
  r.samples.append(reinterpret_cast<const char *>(f->samples), f->count * 2);
  r.audio_times.push_back(f->timestamp);
  f->release(f);
}

// Feeds one packet (or, with null, the drain request) and keeps the frames.
void feed(Result &r, travik_decoder *decoder, travik_packet *packet) {
  travik_packet drain;
  if (!packet) {
    travik_packet_init(&drain);
    packet = &drain;
  }
  travik_decoder_setsource(decoder, packet);
  for (int guard = 0; guard < 10000; guard++) {
    void *frame = nullptr;
    int32_t level = 0;
    int32_t done = travik_decoder_decode(decoder, &level, &frame);
    if (frame) {
      if (static_cast<travik_videoframe *>(frame)->kind == TRAVIK_FRAME_VIDEO)
        take_video(r, static_cast<travik_videoframe *>(frame));
      else
        take_audio(r, static_cast<travik_audioframe *>(frame));
      continue;
    }
    if (done || travik_decoder_empty(decoder)) break;
  }
}

struct Player {
  travik_io *io = nullptr;
  travik_demuxer *demuxer = nullptr;
  travik_decoder *video = nullptr;
  travik_decoder *audio = nullptr;
  travik_stream *video_stream = nullptr;
  travik_stream *audio_stream = nullptr;

  ~Player() {
    if (video) travik_decoder_destroy(video);
    if (audio) travik_decoder_destroy(audio);
    if (demuxer) travik_demuxer_destroy(demuxer);
    if (io) travik_io_destroy(io);
  }

  // Creates the demuxer and parses the header; false when either fails.
  bool open(const std::string &url, Result &r, int32_t timeout = 0, bool open_first = false) {
    io = travik_io_create(url.c_str());
    if (timeout) travik_io_settimeout(io, timeout);
    if (open_first && travik_io_open(io, -1) != 0) return false;
    demuxer = travik_demuxer_create(io, nullptr);
    if (!demuxer) return false;
    r.demuxer = demuxer->driver->description;
    if (travik_demuxer_parseheader(demuxer) != 0) return false;
    for (int32_t i = 0; i < demuxer->stream_count; i++) {
      travik_stream *s = travik_demuxer_getstream(demuxer, i);
      if (s->info.type == TRAVIK_STREAM_VIDEO && !video_stream) video_stream = s;
      if (s->info.type == TRAVIK_STREAM_AUDIO && !audio_stream) audio_stream = s;
    }
    r.duration = travik_demuxer_getduration(demuxer);
    r.flags = static_cast<int32_t>(demuxer->flags);
    r.seekable = travik_demuxer_seekable(demuxer);
    for (int32_t slot = 0; slot < 13; slot++)
      if (const char *text = travik_metadata_gettext(&demuxer->metadata, slot))
        if (slot != 11) r.texts[slot] = text;
    void *data = nullptr;
    int size = 0;
    if (travik_metadata_getdata(&demuxer->metadata, 11, &data, &size) && data)
      r.cover.assign(static_cast<const char *>(data), size);
    travik_test::StdoutCapture quiet;
    if (video_stream) {
      r.video = video_stream->info;
      r.video_duration = video_stream->duration;
      video = travik_decoder_create(video_stream, nullptr);
      if (video) r.video_decoder = video->driver->description;
    }
    if (audio_stream) {
      r.audio = audio_stream->info;
      r.audio_duration = audio_stream->duration;
      audio = travik_decoder_create(audio_stream, nullptr);
      if (audio) r.audio_decoder = audio->driver->description;
    }
    return true;
  }

  // Routes packets to the decoders until the end (or `limit` packets).
  void run(Result &r, int limit = 1000000) {
    for (int n = 0; n < limit;) {
      int32_t status = travik_demuxer_parse(demuxer, nullptr);
      while (travik_packet *p = travik_demuxer_pop(demuxer)) {
        n++;
        if (video && p->stream == video_stream->index) feed(r, video, p);
        if (audio && p->stream == audio_stream->index) feed(r, audio, p);
        p->release(p);
      }
      if (status) {
        r.parse_status = status;
        break;
      }
    }
  }

  void drain(Result &r) {
    if (video) feed(r, video, nullptr);
    if (audio) feed(r, audio, nullptr);
  }
};

Result play(const std::string &url) {
  Result r;
  Player p;
  EXPECT_TRUE(p.open(url, r)) << url;
  if (p.demuxer) {
    p.run(r);
    p.drain(r);
  }
  return r;
}

// The hash column of the tool's framemd5 lines.
std::vector<std::string> hashes(const std::string &framemd5) {
  std::vector<std::string> out;
  std::istringstream in(framemd5);
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    out.push_back(line.substr(line.rfind(',') + 1));
  }
  for (std::string &h : out) h.erase(0, h.find_first_not_of(' '));
  return out;
}

std::vector<std::string> reference_video(const std::string &path) {
  return hashes(cached(path + ".framemd5", "ffmpeg -v error -nostdin -i '" + path +
                                               "' -map 0:v:0 -fps_mode passthrough -f framemd5 -"));
}

// The same hashes over our pictures (each picture's planes, tightly packed).
std::vector<std::string> our_video(const Result &r) {
  std::vector<std::string> out;
  const size_t picture = static_cast<size_t>(r.width) * r.height * 3 / 2;
  for (size_t at = 0; picture && at + picture <= r.pictures.size(); at += picture) {
    uint8_t digest[16];
    av_md5_sum(digest, reinterpret_cast<const uint8_t *>(r.pictures.data() + at),
               static_cast<int>(picture));
    char hex[33];
    for (int i = 0; i < 16; i++) std::snprintf(hex + 2 * i, 3, "%02x", digest[i]);
    out.push_back(hex);
  }
  return out;
}

std::string reference_audio(const std::string &path) {
  return cached(path + ".s16", "ffmpeg -v error -nostdin -i '" + path +
                                   "' -map 0:a:0 -f s16le -c:a pcm_s16le -");
}

// ---------------------------------------------------------------- clips

struct ClipCase {
  const char *name;
  const char *arguments;  // after the inputs
  int32_t video_codec;    // 0: no video
  int32_t audio_codec;    // 0: no audio
  int32_t sample_rate;
  int32_t channels;
};


const ClipCase kClips[] = {
    {"h264_aac.mp4", "-c:v libx264 -preset ultrafast -g 5 -c:a aac", TRAVIK_CODEC_H264,
     TRAVIK_CODEC_AAC, 44100, 1},
    {"h264_bframes.mov", "-c:v libx264 -preset medium -bf 2 -g 10 -an", TRAVIK_CODEC_H264, 0, 0, 0},
    {"hevc_flac.mkv", "-c:v libx265 -preset ultrafast -x265-params log-level=none -c:a flac",
     TRAVIK_CODEC_HEVC, TRAVIK_CODEC_FLAC, 44100, 1},
    {"vp9_opus.webm", "-c:v libvpx-vp9 -deadline realtime -cpu-used 8 -c:a libopus",
     TRAVIK_CODEC_VP9, TRAVIK_CODEC_OPUS, 48000, 1},
    {"vp8_vorbis.webm", "-c:v libvpx -deadline realtime -cpu-used 8 -c:a libvorbis",
     TRAVIK_CODEC_VP8, TRAVIK_CODEC_VORBIS, 44100, 1},
    {"mpeg4_mp3.avi", "-c:v mpeg4 -c:a libmp3lame", TRAVIK_CODEC_MPEG4, TRAVIK_CODEC_MPEG_AUDIO,
     44100, 1},
    {"mpeg2_mp2.ts", "-c:v mpeg2video -c:a mp2", TRAVIK_CODEC_MPEG2VIDEO, TRAVIK_CODEC_MP2, 44100,
     1},
    {"mpeg1_mp2.mpg", "-c:v mpeg1video -c:a mp2 -f mpeg", TRAVIK_CODEC_MPEG_VIDEO, TRAVIK_CODEC_MP2,
     44100, 1},
    {"h264_aac.flv", "-c:v libx264 -preset ultrafast -c:a aac", TRAVIK_CODEC_H264, TRAVIK_CODEC_AAC,
     44100, 1},
    {"mjpeg_s16be.mov", "-c:v mjpeg -pix_fmt yuvj420p -c:a pcm_s16be", TRAVIK_CODEC_MJPEG,
     TRAVIK_CODEC_PCM_S16BE, 44100, 1},
    {"theora_vorbis.ogv", "-c:v libtheora -c:a libvorbis", TRAVIK_CODEC_THEORA,
     TRAVIK_CODEC_VORBIS, 44100, 1},
    {"av1_eac3.mkv", "-c:v libaom-av1 -cpu-used 8 -c:a eac3", TRAVIK_CODEC_AV1, TRAVIK_CODEC_EAC3,
     44100, 1},
    {"h264_ac3.m2ts", "-c:v libx264 -preset ultrafast -c:a ac3 -f mpegts", TRAVIK_CODEC_H264,
     TRAVIK_CODEC_AC3, 44100, 1},
    {"mpeg4.3gp", "-c:v mpeg4 -an", TRAVIK_CODEC_MPEG4, 0, 0, 0},
    {"tone.mp3", "-vn -c:a libmp3lame -ac 2", 0, TRAVIK_CODEC_MPEG_AUDIO, 44100, 2},
    {"tone.aac", "-vn -c:a aac -f adts", 0, TRAVIK_CODEC_AAC, 44100, 1},
    {"tone.ac3", "-vn -c:a ac3 -ac 2", 0, TRAVIK_CODEC_AC3, 44100, 2},
    {"tone.flac", "-vn -c:a flac", 0, TRAVIK_CODEC_FLAC, 44100, 1},
    {"tone.oga", "-vn -c:a libvorbis", 0, TRAVIK_CODEC_VORBIS, 44100, 1},
    {"tone.opus", "-vn -c:a libopus", 0, TRAVIK_CODEC_OPUS, 48000, 1},
    {"alac.m4a", "-vn -c:a alac", 0, TRAVIK_CODEC_ALAC, 44100, 1},
    {"s24.mka", "-vn -c:a pcm_s24le", 0, TRAVIK_CODEC_PCM_S24LE, 44100, 1},
    {"f32.mka", "-vn -c:a pcm_f32le -ac 2", 0, TRAVIK_CODEC_PCM_F32LE, 44100, 2},
    {"alaw.mka", "-vn -c:a pcm_alaw -ar 8000", 0, TRAVIK_CODEC_PCM_ALAW, 8000, 1},
    {"mulaw.mov", "-vn -c:a pcm_mulaw -ar 8000", 0, TRAVIK_CODEC_PCM_MULAW, 8000, 1},
};

std::string clip(const ClipCase &c) {
  return make_clip(c.name, std::string(kVideo) + " " + kAudio + " -pix_fmt yuv420p " + c.arguments);
}

// Every clip: the frameworks choose the plugins, the streams are described
// right, and the pictures and samples are those of the tool's own decode.
void check_clip(const ClipCase &c) {
  const std::string path = clip(c);
  Result r = play(path);
  EXPECT_EQ(r.demuxer, "FFmpeg demuxer (libavformat)");
  EXPECT_EQ(r.parse_status, TRAVIK_DEMUXER_END);
  EXPECT_NEAR(static_cast<double>(r.duration), 1000, 150);
  if (c.video_codec) {
    EXPECT_EQ(r.video.type, TRAVIK_STREAM_VIDEO);
    EXPECT_EQ(r.video.codec, c.video_codec);
    EXPECT_EQ(r.video.width, 64);
    EXPECT_EQ(r.video.height, 48);
    EXPECT_EQ(r.video.framerate, 2500);
    // libavformat's own estimate; short for MPEG program streams.
    EXPECT_GT(r.video_duration, 500);
    EXPECT_LT(r.video_duration, 1150);
    EXPECT_EQ(r.video_decoder.rfind("FFmpeg decoder (", 0), 0u) << r.video_decoder;
    std::vector<std::string> ours = our_video(r);
    EXPECT_EQ(ours.size(), 25u);
    EXPECT_EQ(ours, reference_video(path));
    ASSERT_FALSE(r.picture_info.empty());
    EXPECT_EQ(r.picture_info[0], 1u);  // the first picture is a key frame
    // Microseconds from the start of the input, 25 pictures a second (AVI
    // marks a repeated picture with an empty chunk: a gap of two steps).
    EXPECT_NEAR(static_cast<double>(r.picture_times[0]), 0, 100000);
    for (size_t i = 1; i < r.picture_times.size(); i++) {
      const int64_t step = r.picture_times[i] - r.picture_times[i - 1];
      EXPECT_GT(step, 39000);
      EXPECT_LE((step + 1000) % 40000, 2000) << step;
    }
  } else {
    EXPECT_EQ(r.video.type, 0);
  }
  if (c.audio_codec) {
    EXPECT_EQ(r.audio.type, TRAVIK_STREAM_AUDIO);
    EXPECT_EQ(r.audio.codec, c.audio_codec);
    EXPECT_EQ(r.audio.sample_rate, c.sample_rate);
    EXPECT_EQ(r.audio.channels, c.channels);
    // The native PCM decoder keeps its codecs.
    const bool native = c.audio_codec == TRAVIK_CODEC_PCM_ALAW ||
                        c.audio_codec == TRAVIK_CODEC_PCM_MULAW ||
                        c.audio_codec == TRAVIK_CODEC_PCM_S16LE || c.audio_codec == TRAVIK_CODEC_PCM_U8;
    EXPECT_EQ(r.audio_decoder.rfind(native ? "PCM decoder (" : "FFmpeg decoder (", 0), 0u)
        << r.audio_decoder;
    const std::string reference = reference_audio(path);
    EXPECT_GT(reference.size(), 10000u);
    EXPECT_TRUE(r.samples == reference)
        << "ours " << r.samples.size() << " bytes, the tool's " << reference.size();
    for (int64_t t : r.audio_times) EXPECT_GE(t, 0);
    ASSERT_FALSE(r.audio_times.empty());
    EXPECT_NEAR(static_cast<double>(r.audio_times[0]), 0, 100000);
    for (size_t i = 1; i < r.audio_times.size(); i++)
      EXPECT_GT(r.audio_times[i], r.audio_times[i - 1]);
  }
}

// One program run per test under ctest: the clips share one test to keep
// the start-up (library, plugin cache, FFmpeg's libraries) to one.
TEST(FFmpegClips, ChosenDescribedAndDecodedLikeTheTool) {
  SKIP_WITHOUT_FFMPEG();
  for (const ClipCase &c : kClips) {
    SCOPED_TRACE(c.name);
    check_clip(c);
  }
}

// ---------------------------------------------------------------- travik-play

#ifdef TRAVIK_PLAY_EXE
// Every clip also plays end to end through travik-play, in real time, into
// the wav and y4m outputs, and what they wrote is the tool's own decode:
// every sample, and the pictures bit for bit. TRAVIK_DECODER_SKIP=0 keeps
// the decoder from skipping work when the player asks it to catch up.
// Without sound every picture arrives, the last ones drained from the
// decoder at the end of the input. With sound the clock is the audio's, and
// the picture after a late one is dropped by design: the first picture
// usually is late, as the video output waits 100 ms when it finds the clock
// not yet started, so a few pictures may be missing, and on a busy machine
// any picture may be late.
struct PlayRun {
  const ClipCase *clip;
  std::string path;   // the clip
  std::string home;   // HOME of the run: a plugin cache of its own
  pid_t pid = -1;
  int status = -1;
};

// The environment of a run: ours with HOME replaced, the plugin directory
// left for travik-play to find in the build tree, and skipping off.
std::vector<std::string> run_environment(const std::string &home) {
  std::vector<std::string> env;
  for (char **e = environ; *e; e++) {
    const std::string item = *e;
    if (item.rfind("HOME=", 0) == 0 || item.rfind("TRAVIK_PLUGINS_DIR=", 0) == 0 ||
        item.rfind("TRAVIK_DECODER_SKIP=", 0) == 0)
      continue;
    env.push_back(item);
  }
  env.push_back("HOME=" + home);
  env.push_back("TRAVIK_DECODER_SKIP=0");
  return env;
}

void start_run(PlayRun &run) {
  mkdir(run.home.c_str(), 0755);
  std::vector<std::string> args = {TRAVIK_PLAY_EXE, "-q", "-a", "wav:" + run.home + "/out.wav",
                                   "-v", "y4m:" + run.home + "/out.y4m",
                                   run.path};
  std::vector<std::string> env = run_environment(run.home);
  std::vector<char *> argv, envp;
  for (std::string &a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  for (std::string &e : env) envp.push_back(&e[0]);
  envp.push_back(nullptr);
  const std::string err = run.home + "/stderr.txt";
  // Only async-signal-safe calls between fork and exec.
  run.pid = fork();
  if (run.pid == 0) {
    int out = open("/dev/null", O_WRONLY);
    int fd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(out, 1);
    dup2(fd, 2);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
}

// The pictures of a y4m file written by the y4m output, hashed like the
// tool's framemd5 (each picture's planes, tightly packed).
std::vector<std::string> y4m_hashes(const std::string &y4m) {
  std::vector<std::string> out;
  const size_t header_end = y4m.find('\n');
  if (header_end == std::string::npos) return out;
  const std::string header = y4m.substr(0, header_end);
  int width = 0, height = 0;
  std::istringstream words(header);
  std::string word;
  while (words >> word) {
    if (word[0] == 'W') width = std::atoi(word.c_str() + 1);
    if (word[0] == 'H') height = std::atoi(word.c_str() + 1);
  }
  const size_t picture = static_cast<size_t>(width) * height +
                         2 * static_cast<size_t>((width + 1) / 2) * ((height + 1) / 2);
  for (size_t at = header_end + 1; at + 6 + picture <= y4m.size(); at += 6 + picture) {
    EXPECT_EQ(y4m.compare(at, 6, "FRAME\n"), 0);
    uint8_t digest[16];
    av_md5_sum(digest, reinterpret_cast<const uint8_t *>(y4m.data() + at + 6),
               static_cast<int>(picture));
    char hex[33];
    for (int i = 0; i < 16; i++) std::snprintf(hex + 2 * i, 3, "%02x", digest[i]);
    out.push_back(hex);
  }
  return out;
}

uint32_t le(const std::string &s, size_t at, int bytes) {
  uint32_t v = 0;
  for (int i = bytes - 1; i >= 0; i--) v = v << 8 | static_cast<uint8_t>(s[at + i]);
  return v;
}

void check_run(const PlayRun &run) {
  const ClipCase &c = *run.clip;
  SCOPED_TRACE(c.name);
  ASSERT_EQ(run.status, 0) << travik_test::read_file(run.home + "/stderr.txt");
  if (c.video_codec) {
    const std::vector<std::string> shown = y4m_hashes(travik_test::read_file(run.home + "/out.y4m"));
    const std::vector<std::string> decoded = reference_video(run.path);
    EXPECT_EQ(decoded.size(), 25u);
    if (!c.audio_codec) {
      EXPECT_EQ(shown, decoded);
    } else {
      // The tool's pictures, in order, with at most a few dropped. Any
      // picture may be the one after a late one, the last too: the drain
      // itself is checked on the clips without sound.
      size_t next = 0;
      for (const std::string &picture : shown) {
        while (next < decoded.size() && decoded[next] != picture) next++;
        ASSERT_LT(next, decoded.size()) << "a picture the tool does not decode, or out of order";
        next++;
      }
      EXPECT_GE(shown.size(), decoded.size() * 8 / 10);
    }
  }
  if (c.audio_codec) {
    // The wav output's canonical 44-byte header, then the samples; the
    // last write is padded with silence to the device's write size.
    const std::string wav = travik_test::read_file(run.home + "/out.wav");
    ASSERT_GE(wav.size(), 44u);
    EXPECT_EQ(le(wav, 22, 2), static_cast<uint32_t>(c.channels));
    EXPECT_EQ(le(wav, 24, 4), static_cast<uint32_t>(c.sample_rate));
    EXPECT_EQ(le(wav, 34, 2), 16u);
    const std::string played = wav.substr(44, le(wav, 40, 4));
    const std::string reference = reference_audio(run.path);
    ASSERT_GE(played.size(), reference.size());
    EXPECT_TRUE(played.compare(0, reference.size(), reference) == 0)
        << "the samples written differ from the tool's decode";
    const std::string padding = played.substr(reference.size());
    EXPECT_LT(padding.size(), 4096u);
    EXPECT_EQ(padding, std::string(padding.size(), '\0'));
  }
}

TEST(FFmpegClips, PlayEndToEndThroughTravikPlayLikeTheTool) {
  SKIP_WITHOUT_FFMPEG();
  travik_test::TempDir homes;  // the outputs go when the test ends
  std::vector<PlayRun> runs;
  for (const ClipCase &c : kClips) {
    PlayRun run;
    run.clip = &c;
    run.path = clip(c);
    run.home = homes.file(std::string("play-") + c.name);
    // The references are made before the runs, not while they play.
    if (c.video_codec) reference_video(run.path);
    if (c.audio_codec) reference_audio(run.path);
    runs.push_back(run);
  }
  // Several players at a time: each plays its clip in real time (about a
  // second, and as much again to start and end) and needs little processor.
  const size_t kAtOnce = 9;
  const int64_t deadline = travik_test::now_ms() + 100000;
  size_t started = 0, finished = 0;
  while (finished < runs.size()) {
    while (started < runs.size() && started - finished < kAtOnce) start_run(runs[started++]);
    int status = 0;
    pid_t pid = waitpid(-1, &status, WNOHANG);
    if (pid <= 0) {
      if (travik_test::now_ms() > deadline) break;
      usleep(5000);
      continue;
    }
    for (PlayRun &run : runs) {
      if (run.pid != pid) continue;
      run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      finished++;
    }
  }
  // A player that hangs is stopped, and fails its clip.
  for (PlayRun &run : runs) {
    if (run.pid > 0 && run.status == -1) {
      kill(run.pid, SIGKILL);
      waitpid(run.pid, nullptr, 0);
      ADD_FAILURE() << run.clip->name << ": travik-play did not finish";
    }
  }
  for (const PlayRun &run : runs) {
    if (run.status != -1) check_run(run);
  }
}
#endif

// ---------------------------------------------------------------- files

TEST(FFmpegDemuxer, NativeWavPluginKeepsItsFiles) {
  SKIP_WITHOUT_FFMPEG();
  const std::string path = make_clip("pcm.wav", std::string(kAudio) + " -c:a pcm_s16le");
  Result r = play(path);
  EXPECT_EQ(r.demuxer.rfind("WAV demuxer", 0), 0u) << r.demuxer;
  EXPECT_EQ(r.audio_decoder.rfind("PCM decoder", 0), 0u) << r.audio_decoder;
}

// A WAVE file in a format the native plugins cannot serve is left to the
// FFmpeg plugins, and plays.
TEST(FFmpegDemuxer, WavFormatsBeyondTheNativePluginsPlay) {
  SKIP_WITHOUT_FFMPEG();
  for (const char *codec : {"pcm_s24le", "pcm_s32le", "pcm_f32le"}) {
    SCOPED_TRACE(codec);
    const std::string path =
        make_clip(std::string(codec) + ".wav", std::string(kAudio) + " -ac 2 -c:a " + codec);
    Result r = play(path);
    EXPECT_EQ(r.demuxer, "FFmpeg demuxer (libavformat)");
    EXPECT_EQ(r.audio_decoder.rfind("FFmpeg decoder (", 0), 0u) << r.audio_decoder;
    EXPECT_EQ(r.audio.channels, 2);
    EXPECT_EQ(r.audio.sample_rate, 44100);
    const std::string reference = reference_audio(path);
    EXPECT_EQ(reference.size(), 44100u * 2 * 2);
    EXPECT_TRUE(r.samples == reference)
        << "ours " << r.samples.size() << " bytes, the tool's " << reference.size();
  }
}

TEST(FFmpegDemuxer, ContentIsProbedWhateverTheExtension) {
  SKIP_WITHOUT_FFMPEG();
  // The extension only picks the candidates; libavformat reads the content.
  const std::string path = make_clip("wave.ts", std::string(kAudio) + " -c:a pcm_s16le -f wav");
  Result r = play(path);
  EXPECT_EQ(r.demuxer, "FFmpeg demuxer (libavformat)");
  EXPECT_EQ(r.audio.codec, TRAVIK_CODEC_PCM_S16LE);
}

TEST(FFmpegDemuxer, MetadataAndCoverArt) {
  SKIP_WITHOUT_FFMPEG();
  const std::string cover =
      make_clip("cover.png", "-f lavfi -i color=c=red:size=16x16 -frames:v 1 -c:v png");
  const std::string path = make_clip(
      "tagged.mp3", std::string(kAudio) + " -i '" + cover +
                        "' -map 0 -map 1 -c:a libmp3lame -c:v png -disposition:v attached_pic "
                        "-id3v2_version 3 -metadata title='A Title' -metadata artist=Someone "
                        "-metadata album=Album -metadata date=2024 -metadata genre=Jazz "
                        "-metadata comment=Remark");
  Result r = play(path);
  EXPECT_EQ(r.texts[0], "A Title");
  EXPECT_EQ(r.texts[1], "Someone");
  EXPECT_EQ(r.texts[2], "Album");
  EXPECT_EQ(r.texts[3], "2024");
  EXPECT_EQ(r.texts[4], "Jazz");
  EXPECT_EQ(r.texts[5], "Remark");
  EXPECT_EQ(r.texts[12], "image/png");
  EXPECT_EQ(r.cover, travik_test::read_file(cover));
  // The picture is metadata, not a video stream.
  EXPECT_EQ(r.video.type, 0);
  EXPECT_EQ(r.video_decoder, "");
}

TEST(FFmpegDemuxer, TitleFallsBackToTheFileName) {
  SKIP_WITHOUT_FFMPEG();
  Result r = play(clip(kClips[15]));  // tone.aac carries no tags
  EXPECT_EQ(r.texts[0], "tone");
}

TEST(FFmpegDemuxer, OggAndFlacTagsComeFromTheStream) {
  SKIP_WITHOUT_FFMPEG();
  const std::string path = make_clip(
      "tagged.oga", std::string(kAudio) + " -c:a libvorbis -metadata title=Ogg -metadata artist=X");
  Result r = play(path);
  EXPECT_EQ(r.texts[0], "Ogg");
  EXPECT_EQ(r.texts[1], "X");
}

// An MP4's header is taken as it stands, without libavformat's probe: the
// start (the audio's, primed ahead of the pictures) and the bit rate are still
// those the tool reports after probing, from a file and from memory alike.
TEST(FFmpegDemuxer, Mp4HeaderGivesWhatTheProbeWould) {
  SKIP_WITHOUT_FFMPEG();
  const std::string path =
      make_clip("offset.mp4", std::string(kVideo) + " " + kAudio +
                                  " -pix_fmt yuv420p -c:v libx264 -preset ultrafast -c:a aac"
                                  " -output_ts_offset 1.5");
  std::istringstream probe(capture("ffprobe -v error -show_entries format=start_time,bit_rate"
                                   " -of default=nw=1:nk=1 '" + path + "'"));
  double start = 0;
  int64_t bit_rate = 0;
  probe >> start >> bit_rate;
  ASSERT_GT(start, 1.4);
  const std::string bytes = travik_test::read_file(path);
  char memory[128];
  std::snprintf(memory, sizeof memory, "mem://%llx:%u/clip.mp4",
                static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(bytes.data())),
                static_cast<unsigned>(bytes.size()));
  for (const std::string &url : {path, std::string(memory)}) {
    SCOPED_TRACE(url);
    Result r;
    Player p;
    ASSERT_TRUE(p.open(url, r));
    EXPECT_EQ(p.demuxer->bitrate, bit_rate);
    p.run(r);
    // Times count from the start of the input: the first samples at 0, the
    // first picture where the video track begins after them.
    ASSERT_FALSE(r.audio_times.empty());
    ASSERT_FALSE(r.picture_times.empty());
    EXPECT_NEAR(static_cast<double>(r.audio_times[0]), 0, 1000);
    EXPECT_NEAR(static_cast<double>(r.picture_times[0]), (1.5 - start) * 1e6, 1000);
  }
}

TEST(FFmpegDemuxer, MemoryInputPlaysAndSeeks) {
  SKIP_WITHOUT_FFMPEG();
  const std::string path = clip(kClips[0]);  // h264_aac.mp4
  const std::string bytes = travik_test::read_file(path);
  char url[128];
  std::snprintf(url, sizeof url, "mem://%llx:%u/clip.mp4",
                static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(bytes.data())),
                static_cast<unsigned>(bytes.size()));
  Result r = play(url);
  EXPECT_EQ(r.demuxer, "FFmpeg demuxer (libavformat)");
  EXPECT_EQ(r.seekable, 1);
  EXPECT_EQ(our_video(r), reference_video(path));
  EXPECT_TRUE(r.samples == reference_audio(path));
}

TEST(FFmpegDemuxer, FilesCannotPause) {
  SKIP_WITHOUT_FFMPEG();
  Result r;
  Player p;
  ASSERT_TRUE(p.open(clip(kClips[0]), r));
  EXPECT_EQ(r.flags & TRAVIK_DEMUXER_PAUSABLE, 0);
  EXPECT_EQ(r.flags & TRAVIK_DEMUXER_NOSEEK, 0);
  EXPECT_NE(travik_demuxer_control(p.demuxer, 1, nullptr), 0);  // pause refused
  EXPECT_EQ(travik_demuxer_control(p.demuxer, 5, nullptr), 0);  // keep-alive is harmless
  EXPECT_EQ(travik_demuxer_control(p.demuxer, 7, nullptr), 1);  // unknown code
  p.run(r);
  EXPECT_EQ(r.parse_status, TRAVIK_DEMUXER_END);
}

// Packet times of the first video packets after seeking to `ms`.
std::vector<travik_packet *> after_seek(Player &p, int32_t ms, int32_t direction, int32_t *result) {
  travik_demuxer_clear_packets(p.demuxer);
  *result = travik_demuxer_seek(p.demuxer, ms, direction);
  std::vector<travik_packet *> out;
  for (int i = 0; i < 200 && out.empty(); i++) {
    int32_t status = travik_demuxer_parse(p.demuxer, nullptr);
    while (travik_packet *pk = travik_demuxer_pop(p.demuxer)) {
      if (pk->stream == p.video_stream->index && out.empty())
        out.push_back(pk);
      else
        pk->release(pk);
    }
    if (status) break;
  }
  return out;
}

void check_seek(const std::string &url, int32_t keyframe_ms) {
  Result r;
  Player p;
  ASSERT_TRUE(p.open(url, r));
  ASSERT_TRUE(p.video_stream);
  EXPECT_EQ(travik_demuxer_seekable(p.demuxer), 1);
  int32_t result = -1;
  // Backward: the key frame at or before the position.
  std::vector<travik_packet *> got = after_seek(p, 1250, 1, &result);
  EXPECT_EQ(result, 0);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_TRUE(got[0]->flags & TRAVIK_PACKET_KEY);
  EXPECT_LE(got[0]->pts, 1250000);
  EXPECT_GT(got[0]->pts, 1250000 - keyframe_ms * 1000);
  got[0]->release(got[0]);
  // Forward: the key frame at or after it.
  got = after_seek(p, 1250, 0, &result);
  EXPECT_EQ(result, 0);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_TRUE(got[0]->flags & TRAVIK_PACKET_KEY);
  EXPECT_GE(got[0]->pts, 1250000);
  EXPECT_LT(got[0]->pts, 1250000 + keyframe_ms * 1000);
  got[0]->release(got[0]);
  // The decoder restarts cleanly from the key frame after a reset.
  travik_decoder_reset(p.video);
  got = after_seek(p, 0, 1, &result);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0]->pts, 0);
  Result frames;
  feed(frames, p.video, got[0]);
  got[0]->release(got[0]);
  feed(frames, p.video, nullptr);
  ASSERT_FALSE(frames.picture_info.empty());
  EXPECT_EQ(frames.picture_info[0], 1u);
  EXPECT_EQ(frames.picture_times[0], 0);
}

const char *const kLongVideo = "-f lavfi -i testsrc=size=64x48:rate=25:duration=3";

TEST(FFmpegDemuxer, SeekFollowsTheDirection) {
  SKIP_WITHOUT_FFMPEG();
  const std::string path =
      make_clip("seek.mp4", std::string(kLongVideo) + " -pix_fmt yuv420p -c:v libx264 -preset ultrafast -g 5");
  check_seek(path, 500);
}

TEST(FFmpegDemuxer, FileBeyondFourGigabytesPlaysAndSeeks) {
  SKIP_WITHOUT_FFMPEG();
  // An MP4 with its index in front and a sparse tail up to 4.5 GiB that the
  // container ignores: the input's length does not fit 32 bits.
  const std::string small = make_clip(
      "big-source.mp4",
      std::string(kLongVideo) + " -pix_fmt yuv420p -c:v libx264 -preset ultrafast -g 5 -movflags +faststart");
  const std::string path = scratch_dir() + "/big.mp4";
  ASSERT_EQ(std::system(("cp '" + small + "' '" + path + "'").c_str()), 0);
  ASSERT_EQ(truncate(path.c_str(), 4608LL * 1024 * 1024), 0);
  Result r = play(path);
  EXPECT_EQ(r.demuxer, "FFmpeg demuxer (libavformat)");
  EXPECT_EQ(r.picture_times.size(), 75u);
  EXPECT_NEAR(static_cast<double>(r.duration), 3000, 150);
  check_seek(path, 500);
  unlink(path.c_str());
}

TEST(FFmpegDecoder, SkipLevelsDropNonReferencePictures) {
  SKIP_WITHOUT_FFMPEG();
  const std::string path = clip(kClips[1]);  // H.264 with B-frames
  Result r;
  Player p;
  ASSERT_TRUE(p.open(path, r));
  int32_t level = 2;
  std::vector<travik_videoframe *> frames;
  for (;;) {
    int32_t status = travik_demuxer_parse(p.demuxer, nullptr);
    while (travik_packet *pk = travik_demuxer_pop(p.demuxer)) {
      travik_decoder_setsource(p.video, pk);
      while (!travik_decoder_empty(p.video)) {
        void *frame = nullptr;
        int32_t done = travik_decoder_decode(p.video, &level, &frame);
        if (frame) frames.push_back(static_cast<travik_videoframe *>(frame));
        if (done && !frame) break;
      }
      pk->release(pk);
    }
    if (status) break;
  }
  feed(r, p.video, nullptr);
  const size_t total = frames.size() + r.picture_times.size();
  for (travik_videoframe *f : frames) f->release(f);
  EXPECT_GT(total, 0u);
  EXPECT_LT(total, 25u);  // non-reference B-frames were not decoded
}

TEST(FFmpegDecoder, OddSizesAndOtherLayoutsBecome420) {
  SKIP_WITHOUT_FFMPEG();
  const std::string path = make_clip(
      "odd444.mkv", "-f lavfi -i testsrc=size=65x49:rate=25:duration=0.2 -c:v libx264 -preset "
                    "ultrafast -pix_fmt yuv444p");
  Result r = play(path);
  EXPECT_EQ(r.width, 64);
  EXPECT_EQ(r.height, 48);
  EXPECT_EQ(r.picture_times.size(), 5u);
  EXPECT_EQ(r.pictures.size(), 5u * 64 * 48 * 3 / 2);
  // The test pattern is not grey: the chroma planes carry colour.
  bool coloured = false;
  for (size_t i = 64 * 48; i < 64 * 48 * 3 / 2; i++)
    coloured = coloured || static_cast<uint8_t>(r.pictures[i]) != 128;
  EXPECT_TRUE(coloured);
}

// ---------------------------------------------------------------- direct rendering

// A recycling frame pool in the manner of the player's, whose frames suit
// libavcodec (planes and chroma lines on 64 bytes, luma lines twice the
// chroma lines) unless `misaligned`, which moves every plane and pitch 8
// bytes off. A frame handed out again is first scribbled
// over, so that a frame given back while libavcodec still used it, or while
// a holder still held it, would show in the pictures.
class FramePool {
 public:
  explicit FramePool(bool misaligned) : misaligned_(misaligned) {}
  ~FramePool() {
    for (Slot *slot : slots_) {
      std::free(slot->block);
      delete slot;
    }
  }

  travik_decoder_allocator *allocator() {
    auto *a = static_cast<travik_decoder_allocator *>(std::malloc(sizeof(travik_decoder_allocator)));
    a->user = this;
    a->alloc = alloc;
    a->destroy = [](travik_decoder_allocator *self) { std::free(self); };
    return a;
  }

  int32_t made() {
    std::lock_guard<std::mutex> hold(lock_);
    return static_cast<int32_t>(slots_.size());
  }
  int32_t busy() {
    std::lock_guard<std::mutex> hold(lock_);
    int32_t n = 0;
    for (Slot *slot : slots_) n += slot->busy ? 1 : 0;
    return n;
  }
  // Frames given back with another size than they were made at.
  int32_t resized() {
    std::lock_guard<std::mutex> hold(lock_);
    return resized_;
  }

 private:
  struct Slot {
    travik_videoframe frame;  // first: the frame's address is the slot's
    FramePool *pool;
    uint8_t *block;
    size_t size;
    uint8_t *planes[3];
    int32_t pitches[3];
    int32_t width, height;
    bool busy;
  };

  static void *alloc(void *user, void *templ_data) {
    auto *pool = static_cast<FramePool *>(user);
    auto *templ = static_cast<travik_videoframe *>(templ_data);
    std::lock_guard<std::mutex> hold(pool->lock_);
    Slot *found = nullptr;
    for (Slot *slot : pool->slots_)
      if (!slot->busy && slot->width == templ->width && slot->height == templ->height) found = slot;
    if (found) {
      std::memset(found->block, 0x5A, found->size);
    } else {
      found = new Slot();
      found->pool = pool;
      found->width = templ->width;
      found->height = templ->height;
      const int32_t off = pool->misaligned_ ? 8 : 0;
      const int32_t cw = (templ->width + 1) / 2, ch = (templ->height + 1) / 2;
      found->pitches[1] = found->pitches[2] = ((cw + 63) & ~63) + off;
      found->pitches[0] = 2 * found->pitches[1];
      const size_t luma = static_cast<size_t>(found->pitches[0]) * templ->height + 64;
      const size_t chroma = static_cast<size_t>(found->pitches[1]) * ch + 64;
      found->size = luma + 2 * chroma + 64;
      void *memory = nullptr;
      EXPECT_EQ(posix_memalign(&memory, 64, found->size), 0);
      found->block = static_cast<uint8_t *>(memory);
      found->planes[0] = found->block + off;
      found->planes[1] = found->block + luma + off;
      found->planes[2] = found->block + luma + chroma + off;
      pool->slots_.push_back(found);
    }
    found->busy = true;
    travik_videoframe *f = &found->frame;
    travik_videoframe_init(f, templ);
    for (int p = 0; p < 3; p++) {
      f->planes[p] = found->planes[p];
      f->pitches[p] = found->pitches[p];
    }
    f->addref = [](travik_videoframe *frame) {
      return __atomic_add_fetch(&frame->refcount, 1, __ATOMIC_ACQ_REL);
    };
    f->release = release;
    return f;
  }

  static int32_t release(travik_videoframe *frame) {
    const int32_t count = __atomic_sub_fetch(&frame->refcount, 1, __ATOMIC_ACQ_REL);
    if (count == 0) {
      auto *slot = reinterpret_cast<Slot *>(frame);
      std::lock_guard<std::mutex> hold(slot->pool->lock_);
      if (frame->width != slot->width || frame->height != slot->height) slot->pool->resized_++;
      slot->busy = false;
    }
    return count;
  }

  bool misaligned_;
  std::mutex lock_;
  std::vector<Slot *> slots_;
  int32_t resized_ = 0;
};

struct DirectCounts {
  int pictures = -1, direct = -1, copied = -1;
};

// Decodes a clip's video with the decoder on `allocator`, holding the last
// few pictures (as an output's queue does) and reading each only when it
// lets it go. Returns the decoder's own counts, printed at its close.
DirectCounts decode_held(const std::string &path, travik_decoder_allocator *allocator,
                         const char *threads, Result &r) {
  DirectCounts counts;
  Player p;
  if (!p.open(path, r)) {
    allocator->destroy(allocator);
    return counts;
  }
  travik_decoder_destroy(p.video);
  setenv("TRAVIK_DECODER_THREADS", threads, 1);
  {
    travik_test::StdoutCapture quiet;
    p.video = travik_decoder_create(p.video_stream, allocator);
  }
  unsetenv("TRAVIK_DECODER_THREADS");
  if (!p.video) return counts;
  std::deque<travik_videoframe *> held;
  auto keep = [&](void *frame) {
    held.push_back(static_cast<travik_videoframe *>(frame));
    if (held.size() > 4) {
      take_video(r, held.front());
      held.pop_front();
    }
  };
  auto decode = [&](travik_packet *packet) {
    travik_decoder_setsource(p.video, packet);
    for (int guard = 0; guard < 10000; guard++) {
      void *frame = nullptr;
      int32_t level = 0;
      int32_t done = travik_decoder_decode(p.video, &level, &frame);
      if (frame) {
        keep(frame);
        continue;
      }
      if (done || travik_decoder_empty(p.video)) break;
    }
  };
  for (;;) {
    int32_t status = travik_demuxer_parse(p.demuxer, nullptr);
    while (travik_packet *packet = travik_demuxer_pop(p.demuxer)) {
      if (packet->stream == p.video_stream->index) decode(packet);
      packet->release(packet);
    }
    if (status) break;
  }
  travik_packet drain;
  travik_packet_init(&drain);
  decode(&drain);
  setenv("TRAVIK_DEBUG", "1", 1);
  std::string report;
  {
    travik_test::StderrCapture capture;
    travik_decoder_destroy(p.video);
    report = capture.text();
  }
  unsetenv("TRAVIK_DEBUG");
  p.video = nullptr;
  // Pictures held past the decoder's end stay whole.
  while (!held.empty()) {
    take_video(r, held.front());
    held.pop_front();
  }
  const char *line = std::strstr(report.c_str(), "FFmpeg decoder: ");
  if (line && std::sscanf(line, "FFmpeg decoder: %d pictures, %d rendered directly (%*d%%), %d copied",
                          &counts.pictures, &counts.direct, &counts.copied) != 3)
    counts = DirectCounts();
  return counts;
}

// Non-reference B-pictures: the pictures the decoder may render directly.
int count_b_pictures(const std::string &path) {
  const std::string types = capture("ffprobe -v error -select_streams v:0 -show_entries "
                                    "frame=pict_type -of csv=p=0 '" + path + "'");
  return static_cast<int>(std::count(types.begin(), types.end(), 'B'));
}

std::string nonref_clip() {
  // Without a B-pyramid no B-picture is a reference.
  return make_clip("h264_nonref.mp4",
                   std::string(kVideo) + " -pix_fmt yuv420p -c:v libx264 -preset medium -bf 2 "
                   "-x264-params b-pyramid=none -g 10 -an");
}

TEST(FFmpegDirect, NonReferencePicturesGoStraightIntoFittingFrames) {
  SKIP_WITHOUT_FFMPEG();
  const std::string path = nonref_clip();
  const int b_pictures = count_b_pictures(path);
  ASSERT_GE(b_pictures, 10);  // 25 pictures, two B-pictures in three
  FramePool pool(false);
  Result r;
  DirectCounts counts = decode_held(path, pool.allocator(), "1", r);
  EXPECT_EQ(counts.pictures, 25);
  EXPECT_EQ(counts.direct, b_pictures);
  EXPECT_EQ(counts.copied, 25 - b_pictures);
  EXPECT_EQ(our_video(r), reference_video(path));
  EXPECT_EQ(r.width, 64);
  EXPECT_EQ(r.height, 48);
  EXPECT_EQ(pool.busy(), 0);      // every frame came back
  EXPECT_EQ(pool.resized(), 0);   // at the size it was made at
  EXPECT_LE(pool.made(), 10);     // and was reused
}

TEST(FFmpegDirect, FrameThreadsRenderDirectlyToo) {
  SKIP_WITHOUT_FFMPEG();
  const std::string path = nonref_clip();
  const int b_pictures = count_b_pictures(path);
  FramePool pool(false);
  Result r;
  DirectCounts counts = decode_held(path, pool.allocator(), "4", r);
  EXPECT_EQ(counts.pictures, 25);
  // Which pictures find a frame in reserve depends on the threads' timing.
  EXPECT_GT(counts.direct, 0);
  EXPECT_LE(counts.direct, b_pictures);
  EXPECT_EQ(counts.direct + counts.copied, 25);
  EXPECT_EQ(our_video(r), reference_video(path));
  EXPECT_EQ(pool.busy(), 0);
  EXPECT_EQ(pool.resized(), 0);
}

TEST(FFmpegDirect, FramesThatDoNotFitAreCopiedInto) {
  SKIP_WITHOUT_FFMPEG();
  const std::string path = nonref_clip();
  FramePool pool(true);
  Result r;
  DirectCounts counts = decode_held(path, pool.allocator(), "1", r);
  EXPECT_EQ(counts.pictures, 25);
  EXPECT_EQ(counts.direct, 0);
  EXPECT_EQ(counts.copied, 25);
  EXPECT_EQ(our_video(r), reference_video(path));
  EXPECT_EQ(pool.busy(), 0);
  // The library's default frames have no room for the lines libavcodec
  // writes beyond the picture: copied too.
  Result plain;
  DirectCounts defaults =
      decode_held(path, travik_decoder_allocator_create(TRAVIK_STREAM_VIDEO), "1", plain);
  EXPECT_EQ(defaults.direct, 0);
  EXPECT_EQ(defaults.copied, 25);
  EXPECT_EQ(our_video(plain), reference_video(path));
}

// Applications whose frame pool is too small to lend frames turn lending off.
TEST(FFmpegDirect, LendingCanBeTurnedOff) {
  SKIP_WITHOUT_FFMPEG();
  const std::string path = nonref_clip();
  FramePool pool(false);
  Result r;
  setenv("TRAVIK_DECODER_DIRECT", "0", 1);
  DirectCounts counts = decode_held(path, pool.allocator(), "1", r);
  unsetenv("TRAVIK_DECODER_DIRECT");
  EXPECT_EQ(counts.direct, 0);
  EXPECT_EQ(counts.copied, 25);
  EXPECT_EQ(our_video(r), reference_video(path));
}

// Reference pictures stay in libavcodec's buffers: H.264 without B-pictures
// renders nothing directly.
TEST(FFmpegDirect, ReferencePicturesAreCopied) {
  SKIP_WITHOUT_FFMPEG();
  const std::string path = clip(kClips[0]);  // ultrafast: no B-pictures
  ASSERT_EQ(count_b_pictures(path), 0);
  FramePool pool(false);
  Result r;
  DirectCounts counts = decode_held(path, pool.allocator(), "1", r);
  EXPECT_EQ(counts.direct, 0);
  EXPECT_EQ(counts.copied, 25);
  EXPECT_EQ(our_video(r), reference_video(path));
}

// ---------------------------------------------------------------- bad input

// Plays whatever the demuxer accepts, counting frames; never crashes.
int play_damaged(const std::string &path) {
  Result r;
  Player p;
  if (!p.open(path, r)) return -1;
  p.run(r, 5000);
  p.drain(r);
  return static_cast<int>(r.picture_times.size() + r.audio_times.size());
}

TEST(FFmpegBadInput, TruncatedAtManyOffsets) {
  SKIP_WITHOUT_FFMPEG();
  for (const char *name : {"h264_aac.mp4", "vp9_opus.webm", "mpeg2_mp2.ts", "tone.mp3"}) {
    const ClipCase *c = nullptr;
    for (const ClipCase &k : kClips)
      if (std::strcmp(k.name, name) == 0) c = &k;
    ASSERT_TRUE(c);
    const std::string whole = travik_test::read_file(clip(*c));
    const std::string cut = scratch_dir() + "/cut-" + name;
    for (int i = 1; i <= 12; i++) {
      const size_t at = whole.size() * i / 13;
      travik_test::write_file(cut, whole.substr(0, at));
      play_damaged(cut);
    }
    travik_test::write_file(cut, whole.substr(0, 10));
    EXPECT_EQ(play_damaged(cut), -1) << name;  // ten bytes make no header
  }
}

TEST(FFmpegBadInput, FlippedBytes) {
  SKIP_WITHOUT_FFMPEG();
  for (const char *name : {"h264_aac.mp4", "hevc_flac.mkv", "mpeg4_mp3.avi", "mpeg2_mp2.ts"}) {
    const ClipCase *c = nullptr;
    for (const ClipCase &k : kClips)
      if (std::strcmp(k.name, name) == 0) c = &k;
    ASSERT_TRUE(c);
    const std::string whole = travik_test::read_file(clip(*c));
    const std::string bad = scratch_dir() + "/flipped-" + name;
    for (int round = 0; round < 4; round++) {
      std::string bytes = whole;
      unsigned seed = 1234u + round;
      for (size_t i = 0; i < bytes.size() / 200; i++) {
        seed = seed * 1103515245u + 12345u;
        bytes[(seed >> 8) % bytes.size()] ^= static_cast<char>(0x5A);
      }
      travik_test::write_file(bad, bytes);
      play_damaged(bad);
    }
  }
}

TEST(FFmpegBadInput, EmptyAndNonMediaFilesAreRefused) {
  SKIP_WITHOUT_FFMPEG();
  const std::string empty = scratch_dir() + "/empty.mp4";
  travik_test::write_file(empty, "");
  EXPECT_EQ(play_damaged(empty), -1);
  const std::string text = scratch_dir() + "/text.mkv";
  std::string words;
  for (int i = 0; i < 400; i++) words += "not a media file at all, line " + std::to_string(i) + "\n";
  travik_test::write_file(text, words);
  EXPECT_EQ(play_damaged(text), -1);
}

TEST(FFmpegBadInput, CodecWithoutDecoderGivesNoDecoder) {
  SKIP_WITHOUT_FFMPEG();
  // MS-MPEG-4 v2 has a codec number but no driver in the plugin.
  const std::string path = make_clip("msmpeg4.avi", std::string(kVideo) + " -c:v msmpeg4v2");
  Result r;
  Player p;
  ASSERT_TRUE(p.open(path, r));
  ASSERT_TRUE(p.video_stream);
  EXPECT_EQ(p.video_stream->info.codec, 0);
  EXPECT_EQ(p.video, nullptr);
  p.run(r);
  EXPECT_EQ(r.parse_status, TRAVIK_DEMUXER_END);
}

// ---------------------------------------------------------------- network

using travik_test::Listener;
using travik_test::send_all;

TEST(FFmpegNetwork, TransportStreamOverTcp) {
  SKIP_WITHOUT_FFMPEG();
  const std::string path = clip(kClips[6]);  // mpeg2_mp2.ts
  const std::string bytes = travik_test::read_file(path);
  Listener server(SOCK_STREAM);
  std::thread serve([&] {
    int client = accept(server.fd(), nullptr, nullptr);
    if (client < 0) return;
    send_all(client, bytes.data(), bytes.size());
    close(client);
  });
  Result r;
  {
    Player p;
    EXPECT_TRUE(p.open("tcp://127.0.0.1:" + std::to_string(server.port()) + "/live.ts", r, 5000));
    if (p.demuxer) {
      p.run(r);
      p.drain(r);
    }
  }
  serve.join();
  EXPECT_EQ(r.demuxer, "FFmpeg demuxer (libavformat)");
  EXPECT_EQ(r.seekable, 0);
  EXPECT_EQ(our_video(r), reference_video(path));
  EXPECT_TRUE(r.samples == reference_audio(path));
}

TEST(FFmpegNetwork, StopEndsAWaitForData) {
  SKIP_WITHOUT_FFMPEG();
  const std::string bytes = travik_test::read_file(clip(kClips[6]));
  Listener server(SOCK_STREAM);
  std::atomic<bool> done{false};
  // The stream, then silence with the connection kept open.
  std::thread serve([&] {
    int client = accept(server.fd(), nullptr, nullptr);
    if (client < 0) return;
    send_all(client, bytes.data(), bytes.size());
    while (!done.load()) usleep(10000);
    close(client);
  });
  const std::string url = "tcp://127.0.0.1:" + std::to_string(server.port()) + "/live.ts";
  travik_io *io = travik_io_create(url.c_str());
  travik_io_settimeout(io, 60000);
  travik_demuxer *demuxer = travik_demuxer_create(io, nullptr);
  ASSERT_TRUE(demuxer);
  // Wherever the demuxer waits (header or packets), the stop ends it.
  std::atomic<long long> stopped_at{0};
  std::thread stopper([&] {
    usleep(500000);
    stopped_at.store(travik_test::now_ms());
    travik_demuxer_control(demuxer, 2, nullptr);
  });
  int32_t status = travik_demuxer_parseheader(demuxer);
  for (int i = 0; i < 100000 && status == 0; i++) {
    status = travik_demuxer_parse(demuxer, nullptr);
    travik_demuxer_clear_packets(demuxer);
  }
  stopper.join();
  const long long waited = travik_test::now_ms() - stopped_at.load();
  done.store(true);
  serve.join();
  travik_demuxer_destroy(demuxer);
  travik_io_destroy(io);
  EXPECT_NE(status, 0);
  EXPECT_NE(status, TRAVIK_DEMUXER_END);  // stopped, not a clean end
  EXPECT_LT(waited, 10000);                // far from the 60-second timeout
}

TEST(FFmpegNetwork, TransportStreamOverUdp) {
  SKIP_WITHOUT_FFMPEG();
  const std::string path = clip(kClips[6]);
  const std::string bytes = travik_test::read_file(path);
  int port;
  {
    Listener probe(SOCK_DGRAM);  // a free port, given back at once
    port = probe.port();
  }
  Result r;
  Player p;
  std::atomic<bool> go{false};
  std::thread sender([&] {
    while (!go.load()) usleep(1000);
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(static_cast<uint16_t>(port));
    for (size_t at = 0; at < bytes.size(); at += 1316) {
      const size_t n = std::min<size_t>(1316, bytes.size() - at);
      sendto(fd, bytes.data() + at, n, 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
      if ((at / 1316) % 8 == 7) usleep(2000);  // stay within the socket buffer
    }
    close(fd);
  });
  // The receiving socket is bound by opening; the sender starts after.
  const std::string url = "udp://127.0.0.1:9/live.ts?localport=" + std::to_string(port);
  p.io = travik_io_create(url.c_str());
  travik_io_settimeout(p.io, 1500);
  const bool opened = travik_io_open(p.io, -1) == 0;
  go.store(true);
  struct Joiner {
    std::thread &thread;
    ~Joiner() { thread.join(); }
  } joiner{sender};
  ASSERT_TRUE(opened);
  p.demuxer = travik_demuxer_create(p.io, nullptr);
  ASSERT_TRUE(p.demuxer);
  r.demuxer = p.demuxer->driver->description;
  ASSERT_EQ(travik_demuxer_parseheader(p.demuxer), 0);
  for (int32_t i = 0; i < p.demuxer->stream_count; i++) {
    travik_stream *s = travik_demuxer_getstream(p.demuxer, i);
    if (s->info.type == TRAVIK_STREAM_VIDEO && !p.video_stream) p.video_stream = s;
    if (s->info.type == TRAVIK_STREAM_AUDIO && !p.audio_stream) p.audio_stream = s;
  }
  EXPECT_TRUE(p.demuxer->flags & TRAVIK_DEMUXER_NOSEEK);  // live: no duration, no seeking
  ASSERT_TRUE(p.video_stream && p.audio_stream);
  {
    travik_test::StdoutCapture quiet;
    p.video = travik_decoder_create(p.video_stream, nullptr);
    p.audio = travik_decoder_create(p.audio_stream, nullptr);
  }
  p.run(r);
  p.drain(r);
  EXPECT_EQ(r.demuxer, "FFmpeg demuxer (libavformat)");
  EXPECT_EQ(our_video(r), reference_video(path));
  EXPECT_TRUE(r.samples == reference_audio(path));
}

// A small HTTP/1.1 server: GET with byte ranges over a table of files.
class HttpServer {
 public:
  explicit HttpServer(std::map<std::string, std::string> files)
      : files_(std::move(files)), listener_(SOCK_STREAM) {
    thread_ = std::thread([this] { serve(); });
  }
  ~HttpServer() {
    stop_.store(true);
    shutdown(listener_.fd(), SHUT_RDWR);
    thread_.join();
  }
  std::string url(const std::string &name) const {
    return "http://127.0.0.1:" + std::to_string(listener_.port()) + "/" + name;
  }

 private:
  void serve() {
    while (!stop_.load()) {
      int client = accept(listener_.fd(), nullptr, nullptr);
      if (client < 0) return;
      answer(client);
      close(client);
    }
  }
  // One request per connection (the answer says "Connection: close").
  void answer(int client) {
    std::string request;
    char buffer[4096];
    while (request.find("\r\n\r\n") == std::string::npos) {
      ssize_t n = recv(client, buffer, sizeof buffer, 0);
      if (n <= 0) return;
      request.append(buffer, static_cast<size_t>(n));
    }
    const size_t space = request.find(' ');
    const std::string target = request.substr(space + 2, request.find(' ', space + 1) - space - 2);
    auto file = files_.find(target);
    if (file == files_.end()) {
      const std::string missing = "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
      send_all(client, missing.data(), missing.size());
      return;
    }
    const std::string &body = file->second;
    size_t from = 0, to = body.size();
    std::string status = "200 OK";
    const size_t range = request.find("Range: bytes=");
    if (range != std::string::npos) {
      from = std::strtoull(request.c_str() + range + 13, nullptr, 10);
      const size_t dash = request.find('-', range + 13);
      if (dash != std::string::npos && std::isdigit(static_cast<unsigned char>(request[dash + 1])))
        to = std::strtoull(request.c_str() + dash + 1, nullptr, 10) + 1;
      if (from > body.size()) from = body.size();
      if (to > body.size()) to = body.size();
      status = "206 Partial Content";
    }
    std::string head = "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(to - from) +
                       "\r\nAccept-Ranges: bytes\r\nConnection: close\r\n";
    if (range != std::string::npos)
      head += "Content-Range: bytes " + std::to_string(from) + "-" + std::to_string(to - 1) + "/" +
              std::to_string(body.size()) + "\r\n";
    head += "\r\n";
    send_all(client, head.data(), head.size());
    send_all(client, body.data() + from, to - from);
  }

  std::map<std::string, std::string> files_;
  Listener listener_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

TEST(FFmpegNetwork, Mp4OverHttpPlaysAndSeeks) {
  SKIP_WITHOUT_FFMPEG();
  const std::string path =
      make_clip("seek.mp4", std::string(kLongVideo) + " -pix_fmt yuv420p -c:v libx264 -preset ultrafast -g 5");
  HttpServer server({{"clip.mp4", travik_test::read_file(path)}});
  Result r = play(server.url("clip.mp4"));
  EXPECT_EQ(r.demuxer, "FFmpeg demuxer (libavformat)");
  EXPECT_EQ(r.seekable, 1);
  EXPECT_NEAR(static_cast<double>(r.duration), 3000, 150);
  EXPECT_EQ(our_video(r), reference_video(path));
  check_seek(server.url("clip.mp4"), 500);
}

TEST(FFmpegNetwork, HlsPlaylistOverHttpPlaysAndSeeks) {
  SKIP_WITHOUT_FFMPEG();
  const std::string dir = kClipDir + "/hls";
  mkdir(kClipDir.c_str(), 0755);
  mkdir(dir.c_str(), 0755);
  const std::string list = dir + "/list.m3u8";
  const std::string command =
      "ffmpeg -v error -nostdin -y " + std::string(kLongVideo) +
      " -pix_fmt yuv420p -c:v libx264 -preset ultrafast -g 5 -f hls -hls_time 1 -hls_list_size 0 "
      "-hls_segment_filename '" + dir + "/seg%d.ts' '" + list + "'";
  struct stat st;
  if (stat(list.c_str(), &st) != 0 || travik_test::read_file(list + ".command") != command) {
    ASSERT_EQ(std::system(command.c_str()), 0);
    travik_test::write_file(list + ".command", command);
  }
  std::map<std::string, std::string> files;
  files["list.m3u8"] = travik_test::read_file(list);
  for (int i = 0; i < 10; i++) {
    const std::string segment = dir + "/seg" + std::to_string(i) + ".ts";
    if (stat(segment.c_str(), &st) == 0)
      files["seg" + std::to_string(i) + ".ts"] = travik_test::read_file(segment);
  }
  ASSERT_GE(files.size(), 3u);
  HttpServer server(files);
  Result r = play(server.url("list.m3u8"));
  EXPECT_EQ(r.demuxer, "FFmpeg demuxer (libavformat)");
  EXPECT_EQ(r.video.codec, TRAVIK_CODEC_H264);
  EXPECT_EQ(r.picture_times.size(), 75u);
  EXPECT_NEAR(static_cast<double>(r.duration), 3000, 200);
  check_seek(server.url("list.m3u8"), 1000);
}

// True once something listens on 127.0.0.1:port (from /proc/net/tcp, so
// that looking does not take the server's one connection).
bool listening(int port) {
  char wanted[32];
  std::snprintf(wanted, sizeof wanted, "0100007F:%04X", port);
  std::istringstream table(travik_test::read_file("/proc/net/tcp"));
  std::string line;
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string slot, local, remote, state;
    fields >> slot >> local >> remote >> state;
    if (local == wanted && state == "0A") return true;
  }
  return false;
}

// An RTMP stream served by the ffmpeg tool in listen mode: libavformat's
// own protocol behind the demuxer's "rtmp" scheme.
TEST(FFmpegNetwork, RtmpStreamPlaysLive) {
  SKIP_WITHOUT_FFMPEG();
  const std::string path =
      make_clip("seek.mp4", std::string(kLongVideo) + " -pix_fmt yuv420p -c:v libx264 -preset ultrafast -g 5");
  int probe = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(probe, reinterpret_cast<sockaddr *>(&address), length), 0);
  ASSERT_EQ(getsockname(probe, reinterpret_cast<sockaddr *>(&address), &length), 0);
  close(probe);
  const int port = ntohs(address.sin_port);
  const std::string url = "rtmp://127.0.0.1:" + std::to_string(port) + "/live/clip";
  pid_t server = fork();
  if (server == 0) {
    execlp("ffmpeg", "ffmpeg", "-v", "quiet", "-nostdin", "-i", path.c_str(), "-c", "copy", "-f",
           "flv", "-listen", "1", url.c_str(), static_cast<char *>(nullptr));
    _exit(127);
  }
  ASSERT_GT(server, 0);
  for (int i = 0; i < 500 && !listening(port); i++) usleep(10000);
  ASSERT_TRUE(listening(port)) << "the ffmpeg tool did not listen on " << url;
  Result r = play(url);
  kill(server, SIGTERM);
  waitpid(server, nullptr, 0);
  EXPECT_EQ(r.demuxer, "FFmpeg demuxer (libavformat)");
  EXPECT_EQ(r.video.codec, TRAVIK_CODEC_H264);
  EXPECT_EQ(r.seekable, 0);
  // A live input: no known duration and no seeking.
  EXPECT_NE(r.flags & TRAVIK_DEMUXER_NOSEEK, 0);
  EXPECT_EQ(our_video(r), reference_video(path));
}

}  // namespace
#else
TEST(FFmpeg, NeedsLibavutil) { GTEST_SKIP() << "built without libavutil"; }
#endif
