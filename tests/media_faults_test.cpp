// The playback engine under faults, on real media played through the FFmpeg
// demuxer and decoder plugins into the null outputs:
//   - a transport stream over TCP whose server closes the connection half
//     way, or stalls for two seconds; over UDP with 5 % of datagrams lost;
//   - clips (MP4, MPEG-TS, Matroska, MP3) cut short and with bytes flipped,
//     each played to its end by several players at once;
//   - many open/play/seek/close cycles, from one and from four application
//     threads, leaving descriptors, threads and heap where they were;
//   - peak memory of a long 1080p input against a short one (on request).
//
// Every run must end with END or ERROR, and close in bounded time. The
// counts of the long runs are chosen by environment variables (see the
// README's test section); without them a seeded subset runs.
//
// Clips are made once with the `ffmpeg` tool and kept in
// <build>/tests/media-faults-clips. The program skips itself where the
// plugins or the tool are missing (the cross builds).
#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <signal.h>
#include <travik/travik.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "util/loopback.h"
#include "util/testutil.h"

namespace {

using travik_test::now_ms;

::testing::Environment *const environment = ::testing::AddGlobalTestEnvironment(
    new travik_test::LibraryEnvironment(TRAVIK_TEST_BINARY_DIR "/plugins"));

#if defined(__SANITIZE_THREAD__)
// libavcodec's frame threads hand pictures over in uninstrumented code that
// ThreadSanitizer cannot follow: decode on the player's own threads only.
const int one_decoding_thread = setenv("TRAVIK_DECODER_THREADS", "1", 1);
#endif

// Generous bounds: the machine may be loaded by parallel builds.
constexpr long long kPrompt = 3000;     // ms for close and destroy
constexpr long long kPatience = 30000;  // ms for a run to end

bool find_ffmpeg() {
  struct stat st;
  return stat(TRAVIK_TEST_BINARY_DIR "/plugins/demuxer/libdemuxer_ffmpeg.so", &st) == 0 &&
         stat(TRAVIK_TEST_BINARY_DIR "/plugins/decoder/libdecoder_ffmpeg.so", &st) == 0 &&
         std::system("ffmpeg -version >/dev/null 2>&1") == 0;
}

bool have_ffmpeg() {
  static const bool found = find_ffmpeg();
  return found;
}

#define SKIP_WITHOUT_FFMPEG()                                              \
  do {                                                                     \
    if (!have_ffmpeg()) GTEST_SKIP() << "FFmpeg plugins or tool missing"; \
  } while (0)

// A count from the environment, or `fallback` when unset or not positive.
int env_count(const char *name, int fallback) {
  const char *text = std::getenv(name);
  const int value = text ? std::atoi(text) : 0;
  return value > 0 ? value : fallback;
}

// ---------------------------------------------------------------- clips

const std::string kClipDir = TRAVIK_TEST_BINARY_DIR "/tests/media-faults-clips";

// Made again when the command that makes it changes.
std::string make_clip(const std::string &name, const std::string &arguments) {
  mkdir(kClipDir.c_str(), 0755);
  const std::string path = kClipDir + "/" + name;
  const std::string command = "ffmpeg -v error -nostdin -y " + arguments + " '" + path + "'";
  const std::string key = path + ".command";
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || stat(key.c_str(), &st) != 0 ||
      travik_test::read_file(key) != command) {
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    travik_test::write_file(key, command);
  }
  return path;
}

// A test picture and a tone, `seconds` long, 320x240 at 25 pictures a second.
std::string sources(int seconds) {
  const std::string d = std::to_string(seconds);
  return "-f lavfi -i testsrc=size=320x240:rate=25:duration=" + d +
         " -f lavfi -i sine=frequency=440:sample_rate=44100:duration=" + d;
}

// H.264 with a key frame every 10 pictures (0.4 s), so that a decoder
// recovers soon after a loss, and AAC.
const char *const kAvCodecs =
    " -c:v libx264 -preset ultrafast -g 10 -pix_fmt yuv420p -b:v 250k -c:a aac -b:a 48k";

std::string clip_mp4() { return make_clip("av.mp4", sources(1) + kAvCodecs); }
std::string clip_ts() { return make_clip("av.ts", sources(1) + kAvCodecs); }
std::string clip_mkv() { return make_clip("av.mkv", sources(1) + kAvCodecs); }
std::string clip_mp3() {
  return make_clip("tone.mp3",
                   "-f lavfi -i sine=frequency=440:sample_rate=44100:duration=1 -c:a libmp3lame");
}
// The stream sent over the network.
constexpr int kNetSeconds = 4;
std::string clip_net() { return make_clip("net.ts", sources(kNetSeconds) + kAvCodecs); }

std::vector<std::string> real_clips() { return {clip_mp4(), clip_ts(), clip_mkv(), clip_mp3()}; }

// ---------------------------------------------------------------- player

struct Event {
  int code;
  int32_t value;
  long long at;  // now_ms() when read
};

// A player over the null outputs with an event pipe; every event read is
// kept in `events`.
class Player {
 public:
  explicit Player(travik_player_description description = defaults()) {
    EXPECT_EQ(pipe(fds_), 0);
    description.event_read_fd = fds_[0];
    description.event_write_fd = fds_[1];
    player_ = travik_player_create(&description);
    EXPECT_NE(player_, nullptr);
  }
  ~Player() {
    if (player_) {
      travik_player_close(player_);
      travik_player_destroy(player_);
    }
    close(fds_[0]);
    close(fds_[1]);
  }
  Player(const Player &) = delete;
  Player &operator=(const Player &) = delete;

  static travik_player_description defaults() {
    travik_player_description d;
    travik_player_description_init(&d);
    d.audio_driver = "null";
    d.video_driver = "null";
    d.input_limit = 2 << 20;
    return d;
  }

  travik_player *get() const { return player_; }

  void poll() {
    travik_player_event e;
    while (travik_player_getevent(player_, &e) == 0) {
      int32_t value = 0;
      if (e.size == 1) value = e.data[0];
      if (e.size == 4) memcpy(&value, e.data, 4);
      events.push_back({e.code, value, now_ms()});
    }
  }

  // Waits until one of `codes` has been read; returns it, or -1 after `ms`.
  int wait_for_any(std::initializer_list<int> codes, long long ms = kPatience) {
    const long long end = now_ms() + ms;
    for (;;) {
      poll();
      for (const Event &e : events)
        for (int code : codes)
          if (e.code == code) return code;
      if (now_ms() > end) return -1;
      wait_readable(20);
    }
  }
  bool wait_for(int code, long long ms = kPatience) { return wait_for_any({code}, ms) == code; }

  int count(int code) const {
    int n = 0;
    for (const Event &e : events) n += e.code == code;
    return n;
  }
  // Index of the first event `code` at or after `from`, or -1.
  int find(int code, size_t from = 0) const {
    for (size_t i = from; i < events.size(); i++)
      if (events[i].code == code) return static_cast<int>(i);
    return -1;
  }

  // Pictures the video device has flipped since it was made.
  int32_t flips() const {
    int32_t n = -1;
    auto *video = static_cast<travik_video *>(travik_player_getobject(player_, 4));
    travik_video_control(video, TRAVIK_VIDEO_CONTROL_FLIPS, &n);
    return n;
  }

  // Closes the input; returns how long it took.
  long long close_input() {
    const long long start = now_ms();
    travik_player_close(player_);
    const long long took = now_ms() - start;
    poll();
    return took;
  }

  std::vector<Event> events;

 private:
  void wait_readable(int ms) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fds_[0], &set);
    struct timeval wait = {0, ms * 1000};
    select(fds_[0] + 1, &set, nullptr, nullptr, &wait);
  }

  int fds_[2] = {-1, -1};
  travik_player *player_ = nullptr;
};

int count_entries(const char *path) {
  DIR *dir = opendir(path);
  if (!dir) return -1;
  int n = 0;
  while (struct dirent *entry = readdir(dir))
    if (entry->d_name[0] != '.') n++;
  closedir(dir);
  return n;
}

size_t heap_in_use() { return mallinfo2().uordblks; }

// Waits (a few seconds at most) for the task count to come back to
// `threads`: a joined thread's entry can linger for a moment.
int settled_threads(int threads) {
  const long long end = now_ms() + 5000;
  int n = count_entries("/proc/self/task");
  while (n != threads && now_ms() < end) {
    usleep(10000);
    n = count_entries("/proc/self/task");
  }
  return n;
}

// ---------------------------------------------------------------- servers

using travik_test::Listener;
using travik_test::send_all;

// Accepts one client (giving up after a few seconds, so that a failed test
// does not hang) and serves it with `serve`.
class TcpServer {
 public:
  template <typename F>
  explicit TcpServer(F serve) : listener_(SOCK_STREAM) {
    thread_ = std::thread([this, serve] {
      fd_set set;
      FD_ZERO(&set);
      FD_SET(listener_.fd(), &set);
      struct timeval wait = {10, 0};
      if (select(listener_.fd() + 1, &set, nullptr, nullptr, &wait) != 1) return;
      const int client = accept(listener_.fd(), nullptr, nullptr);
      if (client < 0) return;
      serve(client);
      close(client);
    });
  }
  ~TcpServer() { thread_.join(); }
  std::string url(const char *name) const {
    return "tcp://127.0.0.1:" + std::to_string(listener_.port()) + "/" + name;
  }

 private:
  Listener listener_;
  std::thread thread_;
};

// ---------------------------------------------------------------- network

// The prebuffer target is half the input ceiling (the ceiling lies below
// the bit-rate estimate of ten seconds): a ceiling of a sixth of the
// stream starts playing after about a quarter second of it.
travik_player_description network_description(size_t stream_bytes) {
  travik_player_description d = Player::defaults();
  d.input_limit = static_cast<int32_t>(stream_bytes / 6);
  return d;
}

TEST(MediaNetwork, TcpServerClosingMidStreamEndsThePlayback) {
  SKIP_WITHOUT_FFMPEG();
  const std::string bytes = travik_test::read_file(clip_net());
  TcpServer server([&](int client) { send_all(client, bytes.data(), bytes.size() / 2); });
  Player p(network_description(bytes.size()));
  ASSERT_EQ(travik_player_open(p.get(), server.url("live.ts").c_str()), 0);
  ASSERT_EQ(travik_player_play(p.get()), 0);
  const int last = p.wait_for_any({TRAVIK_EVENT_END, TRAVIK_EVENT_ERROR});
  EXPECT_NE(last, -1) << "neither END nor ERROR after the connection closed";
  EXPECT_TRUE(p.count(TRAVIK_EVENT_AUDIO_STARTED) == 1 && p.flips() > 0)
      << "the half that came was not played";
  EXPECT_LT(p.close_input(), kPrompt);
}

TEST(MediaNetwork, TcpStallRebuffersThenPlaysToTheEnd) {
  SKIP_WITHOUT_FFMPEG();
  const std::string bytes = travik_test::read_file(clip_net());
  std::atomic<bool> started{false};
  std::atomic<size_t> sent_at_start{0};
  std::atomic<long long> resumed_at{0};
  // A live source: the stream at its own pace, in 25 pieces a second. Once
  // playback has started (or, should it not start, once half the stream
  // is out), two seconds of silence on the open connection; then the rest.
  TcpServer server([&](int client) {
    const size_t piece = bytes.size() / (kNetSeconds * 25) + 1;
    bool stalled = false;
    for (size_t at = 0; at < bytes.size(); at += piece) {
      if (!stalled && (started.load() || at > bytes.size() / 2)) {
        stalled = true;
        sent_at_start.store(at);
        usleep(2000000);
        resumed_at.store(now_ms());
      }
      send_all(client, bytes.data() + at, std::min(piece, bytes.size() - at));
      usleep(40000);
    }
  });
  Player p(network_description(bytes.size()));
  ASSERT_EQ(travik_player_open(p.get(), server.url("live.ts").c_str()), 0);
  ASSERT_EQ(travik_player_play(p.get()), 0);
  ASSERT_TRUE(p.wait_for(TRAVIK_EVENT_AUDIO_STARTED, 10000));
  started.store(true);
  EXPECT_TRUE(p.wait_for(TRAVIK_EVENT_END));
  const int32_t flips_at_end = p.flips();
  EXPECT_EQ(p.count(TRAVIK_EVENT_ERROR), 0);
  EXPECT_LE(sent_at_start.load(), bytes.size() / 2) << "playback started late";
  // After playback had started, the stall made it buffer again (progress
  // events), and buffering ended (100) once the data came back.
  const int start = p.find(TRAVIK_EVENT_AUDIO_STARTED);
  const int rebuffer = p.find(TRAVIK_EVENT_BUFFERING, start);
  ASSERT_NE(rebuffer, -1) << "no rebuffering after the stall";
  bool ended = false;
  for (size_t i = rebuffer; i < p.events.size(); i++)
    if (p.events[i].code == TRAVIK_EVENT_BUFFERING && p.events[i].value == 100 &&
        p.events[i].at >= resumed_at.load())
      ended = true;
  EXPECT_TRUE(ended) << "buffering did not end after the data came back";
  // Playing went on after the stall: most of the second half was shown.
  EXPECT_GE(flips_at_end, kNetSeconds * 25 * 3 / 4);
  EXPECT_LT(p.close_input(), kPrompt);
}

// While a TCP sender pauses, the demuxer has handed out nearly everything
// that came before the pause: its reads of the socket are small, since each
// waits for every byte it asks for. The pause falls just short of a 32 KB
// boundary, where reads of the demuxer's whole 32 KB buffer would hold back
// some 30 KB, a dozen pictures.
TEST(MediaNetwork, TcpPauseHoldsBackLittle) {
  SKIP_WITHOUT_FFMPEG();
  const std::string path = clip_net();
  const std::string bytes = travik_test::read_file(path);
  const size_t pause_at = 3 * 32768 + 30000;
  ASSERT_LT(pause_at, bytes.size());
  // Video packets complete before the pause: a transport-stream packet is
  // complete once the next one of its stream has begun.
  std::vector<long> starts;
  {
    FILE *probe = popen(("ffprobe -v error -select_streams v:0 -show_entries packet=pos "
                         "-of csv=p=0 '" + path + "'").c_str(), "r");
    ASSERT_TRUE(probe);
    // One "POS," line a packet (with blank lines between).
    char line[64];
    while (std::fgets(line, sizeof line, probe))
      if (line[0] >= '0' && line[0] <= '9') starts.push_back(std::atol(line));
    pclose(probe);
  }
  int complete = 0;
  for (size_t i = 0; i + 1 < starts.size(); i++)
    if (static_cast<size_t>(starts[i + 1]) + 188 <= pause_at) complete++;
  ASSERT_GT(complete, 30);

  std::atomic<bool> paused{false}, resume{false};
  TcpServer server([&](int client) {
    send_all(client, bytes.data(), pause_at);
    paused.store(true);
    const long long end = now_ms() + 20000;
    while (!resume.load() && now_ms() < end) usleep(5000);
    send_all(client, bytes.data() + pause_at, bytes.size() - pause_at);
  });
  travik_io *io = travik_io_create(server.url("live.ts").c_str());
  travik_demuxer *demuxer = travik_demuxer_create(io, nullptr);
  ASSERT_TRUE(demuxer);
  std::atomic<int> video{0};
  std::thread reader([&] {
    if (travik_demuxer_parseheader(demuxer) != 0) return;
    for (int32_t status = 0; status == 0;) {
      status = travik_demuxer_parse(demuxer, nullptr);
      while (travik_packet *packet = travik_demuxer_pop(demuxer)) {
        travik_stream *stream = travik_demuxer_getstream(demuxer, packet->stream);
        if (stream && stream->info.type == TRAVIK_STREAM_VIDEO) video++;
        packet->release(packet);
      }
    }
  });
  // Once the reader has had ample time for what came before the pause.
  const long long end = now_ms() + 10000;
  while (!paused.load() && now_ms() < end) usleep(5000);
  usleep(1500000);
  const int delivered = video.load();
  resume.store(true);
  reader.join();
  travik_demuxer_destroy(demuxer);
  travik_io_destroy(io);
  EXPECT_GE(delivered, complete - 3) << "video packets before the pause: " << complete;
}

TEST(MediaNetwork, UdpWithLostDatagramsKeepsShowingPictures) {
  SKIP_WITHOUT_FFMPEG();
  const std::string bytes = travik_test::read_file(clip_net());
  // The receiving socket is made here and registered for the URL's local
  // port, so that nothing sent before the player opens it is lost.
  Listener receiver(SOCK_DGRAM);
  int buffer = 1 << 20;
  setsockopt(receiver.fd(), SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
  travik_io_socket_add(receiver.port(), receiver.fd());
  const std::string url =
      "udp://127.0.0.1:9/live.ts?localport=" + std::to_string(receiver.port());

  // Datagrams of 1316 bytes (seven transport packets) at the stream's own
  // pace; one in twenty, chosen by a seeded generator,
  // is not sent.
  const size_t datagrams = (bytes.size() + 1315) / 1316;
  std::vector<bool> lost(datagrams, false);
  unsigned seed = 20261124u;
  size_t lost_count = 0, first_lost = datagrams;
  for (size_t i = 0; i < datagrams; i++) {
    seed = seed * 1103515245u + 12345u;
    if ((seed >> 16) % 20 == 0) {
      lost[i] = true;
      lost_count++;
      first_lost = std::min(first_lost, i);
    }
  }
  ASSERT_GT(lost_count, datagrams / 40);
  ASSERT_LT(first_lost, datagrams / 4) << "the seed loses nothing early";
  std::thread sender([&] {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(static_cast<uint16_t>(receiver.port()));
    const useconds_t gap = static_cast<useconds_t>(kNetSeconds * 1000000 / datagrams);
    for (size_t i = 0; i < datagrams; i++) {
      const size_t at = i * 1316, n = std::min<size_t>(1316, bytes.size() - at);
      if (!lost[i]) sendto(fd, bytes.data() + at, n, 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
      usleep(gap);
    }
    close(fd);
  });
  struct Joiner {
    std::thread &thread;
    ~Joiner() { thread.join(); }
  } joiner{sender};

  Player p(network_description(bytes.size()));
  ASSERT_EQ(travik_player_open(p.get(), url.c_str()), 0);
  // The stream's end is silence: stop waiting for it after 1.5 s.
  auto *demuxer = static_cast<travik_demuxer *>(travik_player_getobject(p.get(), 0));
  travik_io_settimeout(demuxer->input, 1500);
  ASSERT_EQ(travik_player_play(p.get()), 0);
  EXPECT_NE(p.wait_for_any({TRAVIK_EVENT_END, TRAVIK_EVENT_ERROR}), -1);
  // The first loss lies in the first quarter of the stream, so a decoder
  // that did not recover from it would show fewer than a quarter of the
  // pictures; it shows most of them.
  const int32_t flips = p.flips();
  EXPECT_GE(flips, kNetSeconds * 25 * 3 / 5) << lost_count << " of " << datagrams << " datagrams lost";
  EXPECT_LT(p.close_input(), kPrompt);
}

// ---------------------------------------------------------------- damaged files

struct Job {
  std::string path;
  std::string label;
};

struct Outcome {
  bool opened = false;
  int last = -1;  // END, ERROR, or -1 when neither came
  long long close_ms = 0;
};

// Plays one input to its end (END or ERROR) and closes it.
Outcome play_to_end(Player &p, const std::string &path) {
  Outcome o;
  p.events.clear();
  // A file that no demuxer accepts is refused here, playing nothing.
  o.opened = travik_player_open(p.get(), path.c_str()) == 0;
  if (!o.opened) return o;
  travik_player_play(p.get());
  o.last = p.wait_for_any({TRAVIK_EVENT_END, TRAVIK_EVENT_ERROR});
  o.close_ms = p.close_input();
  return o;
}

// Runs the jobs on `players` players at once, each driven from its own
// thread; returns the outcome of each job.
std::vector<Outcome> run_jobs(const std::vector<Job> &jobs, int players) {
  std::vector<Outcome> outcomes(jobs.size());
  std::atomic<size_t> next{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < players; t++)
    threads.emplace_back([&] {
      Player p;
      for (size_t i; (i = next.fetch_add(1)) < jobs.size();) outcomes[i] = play_to_end(p, jobs[i].path);
    });
  for (std::thread &t : threads) t.join();
  return outcomes;
}

// A seeded generator (the same everywhere, unlike std::rand).
struct Random {
  explicit Random(uint32_t seed) : state(seed) {}
  uint32_t next() {
    state = state * 1103515245u + 12345u;
    return state >> 8;
  }
  uint32_t state;
};

// `count` cut and `count` flipped copies of each clip, written under `dir`:
// cut at a seeded offset, and with a seeded handful of bytes flipped. Of
// each kind only `keep` per clip are kept, evenly spread from a seeded
// start, so that a subset changes with the seed and not the copies.
std::vector<Job> damaged_jobs(const travik_test::TempDir &dir, int count, int keep) {
  std::vector<Job> jobs;
  const uint32_t seed = static_cast<uint32_t>(env_count("TRAVIK_MEDIA_FAULTS_SEED", 1));
  const int stride = count / keep;
  for (const std::string &path : real_clips()) {
    const std::string whole = travik_test::read_file(path);
    const std::string name = path.substr(path.rfind('/') + 1);
    Random random(seed);
    for (int i = 0; i < count; i++) {
      // Cut: anywhere from the first byte to the last.
      const size_t at = random.next() % whole.size();
      // Flipped: 1 to 16 bytes XORed with a non-zero value.
      std::string bytes = whole;
      const int flips = 1 + static_cast<int>(random.next() % 16);
      for (int f = 0; f < flips; f++)
        bytes[random.next() % bytes.size()] ^= static_cast<char>(1 + random.next() % 255);
      if (i % stride != static_cast<int>(seed % static_cast<uint32_t>(stride))) continue;
      const std::string cut = dir.file("cut" + std::to_string(i) + "-" + name);
      travik_test::write_file(cut, whole.substr(0, at));
      jobs.push_back({cut, name + " cut at " + std::to_string(at)});
      const std::string flipped = dir.file("flip" + std::to_string(i) + "-" + name);
      travik_test::write_file(flipped, bytes);
      jobs.push_back({flipped, name + " flip set " + std::to_string(i) + " (seed " +
                                   std::to_string(seed) + ")"});
    }
  }
  return jobs;
}

TEST(MediaDamaged, CutAndFlippedClipsEndWithEndOrErrorAndCloseCleanly) {
  SKIP_WITHOUT_FFMPEG();
#if defined(__SANITIZE_THREAD__)
  // What this checks (the end of every run, leaks, descriptors) is checked
  // in the plain and AddressSanitizer builds; the threads these runs drive
  // are the soak's, which runs here.
  GTEST_SKIP() << "run in the plain and AddressSanitizer builds";
#endif
  travik_test::TempDir dir;
  // 50 cuts and 50 flip sets of each clip; in CI a seeded tenth of them.
  const bool full = std::getenv("TRAVIK_MEDIA_FAULTS_FULL") != nullptr;
  const std::vector<Job> jobs = damaged_jobs(dir, 50, full ? 50 : 5);
  ASSERT_EQ(jobs.size(), full ? 400u : 40u);
  // Warm up (plugins loaded, FFmpeg's tables made) before counting.
  {
    Player p;
    EXPECT_NE(play_to_end(p, clip_mp4()).last, -1);
  }
  const int fds_before = count_entries("/proc/self/fd");
  const int threads_before = count_entries("/proc/self/task");
  const std::vector<Outcome> outcomes = run_jobs(jobs, env_count("TRAVIK_MEDIA_FAULTS_PLAYERS", 4));
  int refused = 0, ended = 0, failed = 0;
  for (size_t i = 0; i < jobs.size(); i++) {
    const Outcome &o = outcomes[i];
    if (!o.opened) {
      refused++;
      continue;
    }
    ended += o.last == TRAVIK_EVENT_END;
    failed += o.last == TRAVIK_EVENT_ERROR;
    EXPECT_NE(o.last, -1) << jobs[i].label << ": neither END nor ERROR";
    EXPECT_LT(o.close_ms, kPrompt) << jobs[i].label << ": close took " << o.close_ms << " ms";
  }
  std::printf("%zu damaged files: %d refused at open, %d ended, %d failed\n", jobs.size(),
              refused, ended, failed);
  // Most damaged files still open (cuts past the header, flips in the
  // payload); refusing them all would mean nothing was played.
  EXPECT_LT(refused, static_cast<int>(jobs.size()) / 2);
  EXPECT_EQ(count_entries("/proc/self/fd"), fds_before);
  EXPECT_EQ(settled_threads(threads_before), threads_before);
}

// ---------------------------------------------------------------- soak

// One cycle over `clip`: open, play, (sometimes let the outputs start),
// seek, play, (sometimes play to the end), close. False when open failed.
bool cycle(Player &p, const std::string &clip, int i) {
  if (travik_player_open(p.get(), clip.c_str()) != 0) return false;
  travik_player_play(p.get());
  if (i % 3 == 0) p.wait_for_any({TRAVIK_EVENT_AUDIO_STARTED, TRAVIK_EVENT_END}, 5000);
  travik_player_seek(p.get(), 300);
  travik_player_play(p.get());
  if (i % 10 == 0) p.wait_for_any({TRAVIK_EVENT_END, TRAVIK_EVENT_ERROR}, kPatience);
  travik_player_close(p.get());
  p.poll();
  p.events.clear();
  return true;
}

// `cycles` cycles in all over the real clips, split over `players` players
// each driven from its own thread; a player is made anew every 25 cycles.
void soak(int cycles, int players) {
  const std::vector<std::string> clips = real_clips();
  // Warm up: every clip once (plugins loaded, FFmpeg's tables made).
  {
    Player p;
    for (size_t c = 0; c < clips.size(); c++) ASSERT_TRUE(cycle(p, clips[c], 0));
  }
  const int fds_before = count_entries("/proc/self/fd");
  const int threads_before = count_entries("/proc/self/task");
  const size_t heap_before = heap_in_use();
  std::atomic<int> failures{0}, next{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < players; t++)
    threads.emplace_back([&] {
      std::unique_ptr<Player> p;
      for (int i, done = 0; (i = next.fetch_add(1)) < cycles; done++) {
        if (done % 25 == 0) p.reset(new Player());
        if (!cycle(*p, clips[i % clips.size()], i)) failures++;
      }
    });
  for (std::thread &t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(count_entries("/proc/self/fd"), fds_before);
  EXPECT_EQ(settled_threads(threads_before), threads_before);
  // A few tens of kilobytes of allocator bookkeeping may move; a frame
  // pool or a demuxer leaked a cycle would be megabytes.
  const size_t heap_after = heap_in_use();
  EXPECT_LT(heap_after, heap_before + 256 * 1024)
      << "heap grew from " << heap_before << " to " << heap_after << " bytes";
}

TEST(MediaSoak, CyclesOnOneThreadLeaveNothingBehind) {
  SKIP_WITHOUT_FFMPEG();
  soak(env_count("TRAVIK_MEDIA_SOAK_CYCLES", 16), 1);
}

TEST(MediaSoak, CyclesOnFourThreadsLeaveNothingBehind) {
  SKIP_WITHOUT_FFMPEG();
  soak(env_count("TRAVIK_MEDIA_SOAK_CYCLES", 16), 4);
}

// A seek right after play, on a clip small enough to be demuxed whole at
// once: the seek makes the decoders itself when packets wait and a decoder
// is missing, under the decode block's mutex, while the decode thread may
// already be waiting for a packet that will never come. That wait must not
// hold the mutex (it once did, and the seek then hung for good). Run in a
// child process, so that a hang fails the test instead of stopping it.
TEST(MediaSoak, SeekRightAfterPlayDoesNotHang) {
  SKIP_WITHOUT_FFMPEG();
  const std::vector<std::string> clips = {clip_ts(), clip_mp4()};
  const pid_t child = fork();
  if (child == 0) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
      threads.emplace_back([&, t] {
        Player p;
        for (int i = 0; i < 16; i++) {
          if (travik_player_open(p.get(), clips[(t + i) % 2].c_str()) != 0) _exit(2);
          travik_player_play(p.get());
          travik_player_seek(p.get(), 300);
          travik_player_close(p.get());
          p.poll();
          p.events.clear();
        }
      });
    for (std::thread &t : threads) t.join();
    _exit(0);
  }
  int status = -1;
  const long long end = now_ms() + 60000;
  while (waitpid(child, &status, WNOHANG) == 0 && now_ms() < end) usleep(20000);
  if (now_ms() >= end && waitpid(child, &status, WNOHANG) == 0) {
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    FAIL() << "64 open/play/seek/close cycles did not finish within 60 s";
  }
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

// ---------------------------------------------------------------- memory

// A 1080p stream of `seconds`: the same pictures and tone whatever the
// length, so that two lengths differ in nothing but how long they play.
std::string clip_1080p(int seconds) {
  const std::string d = std::to_string(seconds);
  return make_clip("hd" + d + ".mp4",
                   "-f lavfi -i testsrc=size=1920x1080:rate=25:duration=" + d +
                       " -f lavfi -i sine=frequency=440:sample_rate=44100:duration=" + d +
                       " -c:v libx264 -preset ultrafast -g 50 -pix_fmt yuv420p -b:v 4M"
                       " -c:a aac -b:a 96k");
}

// A /proc/self/status field in kilobytes, or -1.
long status_kb(const char *field) {
  const std::string status = travik_test::read_file("/proc/self/status");
  const size_t at = status.find(std::string(field) + ":");
  return at == std::string::npos ? -1 : std::atol(status.c_str() + at + std::strlen(field) + 1);
}

struct Peak {
  long start_kb = -1;  // resident set before the player was made
  long peak_kb = -1;   // highest resident set while it played
  int last = -1;       // END or ERROR
};

// Plays `path` to its end in a child process, with a ceiling of 2 MB on
// the input and the default frame pools, and returns the child's figures:
// its high-water mark does not include whatever this process used before.
Peak peak_rss(const std::string &path, float speed) {
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  const pid_t child = fork();
  if (child == 0) {
    close(fds[0]);
    Peak peak;
    peak.start_kb = status_kb("VmRSS");
    {
      Player p;
      if (speed != 1.0f) travik_player_setspeed(p.get(), speed);
      if (travik_player_open(p.get(), path.c_str()) == 0) {
        travik_player_play(p.get());
        peak.last = p.wait_for_any({TRAVIK_EVENT_END, TRAVIK_EVENT_ERROR}, 300000);
        travik_player_close(p.get());
      }
    }
    peak.peak_kb = status_kb("VmHWM");
    if (write(fds[1], &peak, sizeof peak) != sizeof peak) _exit(1);
    _exit(0);
  }
  close(fds[1]);
  Peak peak;
  EXPECT_EQ(read(fds[0], &peak, sizeof peak), static_cast<ssize_t>(sizeof peak));
  close(fds[0]);
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  return peak;
}

// On request (TRAVIK_MEDIA_MEMORY=1): plays a 5-second and a 60-second
// 1080p clip in real time (TRAVIK_MEDIA_MEMORY_SPEED for another speed),
// so it takes over a minute, plus making the clips once.
TEST(MediaMemory, PeakRssDoesNotGrowWithTheInputsLength) {
  SKIP_WITHOUT_FFMPEG();
  if (!std::getenv("TRAVIK_MEDIA_MEMORY")) GTEST_SKIP() << "set TRAVIK_MEDIA_MEMORY=1 to run";
  const char *speed_text = std::getenv("TRAVIK_MEDIA_MEMORY_SPEED");
  const float speed = speed_text ? static_cast<float>(std::atof(speed_text)) : 1.0f;
  const std::string short_clip = clip_1080p(5), long_clip = clip_1080p(60);
  const Peak short_peak = peak_rss(short_clip, speed);
  const Peak long_peak = peak_rss(long_clip, speed);
  std::printf("peak RSS, 1080p, input_limit 2 MB, default pools: 5 s %ld kB, 60 s %ld kB "
              "(%ld kB and %ld kB before the player)\n",
              short_peak.peak_kb, long_peak.peak_kb, short_peak.start_kb, long_peak.start_kb);
  EXPECT_EQ(short_peak.last, TRAVIK_EVENT_END);
  EXPECT_EQ(long_peak.last, TRAVIK_EVENT_END);
  ASSERT_GT(short_peak.peak_kb, 0);
  EXPECT_LT(std::labs(long_peak.peak_kb - short_peak.peak_kb), short_peak.peak_kb / 10);
  // 17 pooled pictures of 1920x1080 (3 MB each), the 2 MB ceiling, the
  // decoder's own reference pictures and the libraries: see the README.
  EXPECT_LT(long_peak.peak_kb, 160 * 1024);
}

}  // namespace
