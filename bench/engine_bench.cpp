// The playback engine at work: a 10-second 1280x720 25 fps + 48 kHz stereo
// input (raw video and 16-bit PCM, made by the avtest demuxer plugin) played
// at real time through null-like outputs that measure (measuring_devices.h).
// Prints one table:
//   - CPU time of the whole process as a share of one core, during playback;
//   - the same for demuxing and decoding alone (the input read and decoded
//     as fast as possible without a player, scaled to real time), once
//     decoding each packet at once and once holding as many packets and
//     frames as the player does, and the difference between the latter and
//     playback: what the engine adds;
//   - CPU time and sleeps (voluntary context switches) of each thread;
//   - peak resident memory;
//   - the distance between each picture flipped and the audio position at
//     that moment (p50, p99, max, ms);
//   - the time from travik_player_play to the first flip;
//   - the seek latency: from travik_player_seek to the next flip.
// The figures come from one run on a machine that may be busy; run it a few
// times.
//
//   bench_engine [SEEKS]                 the raw input above
//   bench_engine --clip FILE [SEEKS]     a real clip through the plugins of
//                                        TRAVIK_PLUGINS_DIR (bench/playback)
// With a clip the player is set up as travik-play sets it up (4 MiB input
// ceiling, 4 + 2 pictures) and the table has the process's CPU time, peak
// RSS, the A/V offset at each flip, the first flip, the latency of SEEKS
// seeks (default 10) to random places, and the pictures dropped (gaps in the
// timestamps flipped).
#include <dirent.h>
#include <limits.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <travik/travik.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <string>
#include <vector>

#include "measuring_devices.h"

namespace {

using measuring::ClockedAudio;
using measuring::MeasuringDevices;
using measuring::RecordingVideo;
using measuring::wall_us;

const char kInput[] =
    "AVTEST seconds=10000 rate=48000 channels=2 chunk=40 width=1280 height=720 fps=25 "
    "preroll=300\n";
constexpr int kSeconds = 10;
// Two seconds of input held at most (about 70 MB of pictures).
constexpr int32_t kInputLimit = 2 * (1280 * 720 * 3 / 2 * 25 + 48000 * 4);
// Frames the player's pools hold at most with the default sizes: 15 + 2
// pictures and 10 audio frames.
constexpr size_t kPooledFrames = 15 + 2 + 10;

double cpu_seconds() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Peak resident memory since the last reset_peak_rss(), in KiB.
long peak_rss_kib() {
  FILE *f = fopen("/proc/self/status", "r");
  if (!f) return -1;
  long kib = -1;
  char line[256];
  while (fgets(line, sizeof line, f))
    if (sscanf(line, "VmHWM: %ld", &kib) == 1) break;
  fclose(f);
  return kib;
}

// Hands the memory the decoding runs freed back to the system and starts
// the peak anew, so that playback starts from a small heap, as it would
// without those runs, and the peak is its own.
void reset_peak_rss() {
  malloc_trim(0);
  FILE *f = fopen("/proc/self/clear_refs", "w");
  if (!f) return;
  fputs("5", f);
  fclose(f);
}

// Demuxed packets and decoded frames held back, as the player holds them:
// packets up to a number of payload bytes, frames up to a count.
class Holding {
 public:
  Holding(int64_t packet_bytes, size_t frames) : packet_bytes_(packet_bytes), frames_(frames) {}
  ~Holding() {
    while (!packets_.empty()) decode_front();
    while (!held_.empty()) release_front();
  }
  void set_decoders(travik_decoder *audio, travik_decoder *video) {
    decoders_[0] = audio;
    decoders_[1] = video;
  }
  void add(travik_packet *packet) {
    packets_.push_back(packet);
    bytes_ += packet->size;
    while (bytes_ > packet_bytes_ && !packets_.empty()) decode_front();
  }

 private:
  void decode_front() {
    travik_packet *packet = packets_.front();
    packets_.pop_front();
    bytes_ -= packet->size;
    travik_decoder *decoder = packet->stream < 2 ? decoders_[packet->stream] : nullptr;
    if (decoder) {
      travik_decoder_setsource(decoder, packet);
      for (;;) {
        void *frame = nullptr;
        int32_t level = 0;
        int32_t done = travik_decoder_decode(decoder, &level, &frame);
        if (frame) {
          held_.push_back(frame);
          while (held_.size() > frames_) release_front();
        }
        if (done) break;
      }
    }
    packet->release(packet);
  }
  void release_front() {
    void *frame = held_.front();
    held_.pop_front();
    if (*static_cast<int32_t *>(frame) == TRAVIK_FRAME_AUDIO)
      static_cast<travik_audioframe *>(frame)->release(static_cast<travik_audioframe *>(frame));
    else
      static_cast<travik_videoframe *>(frame)->release(static_cast<travik_videoframe *>(frame));
  }

  const int64_t packet_bytes_;
  const size_t frames_;
  travik_decoder *decoders_[2] = {nullptr, nullptr};
  std::deque<travik_packet *> packets_;
  std::deque<void *> held_;
  int64_t bytes_ = 0;
};

// Demuxes and decodes the whole input without a player, as fast as it goes:
// the CPU seconds this takes are the work of the plugins alone. With
// nothing held, each packet is decoded while its bytes are still in the
// processor's caches; holding as much as the player does, the plugins pay
// the same cache misses and page faults as in playback.
double decode_alone(const std::string &path, int64_t packet_bytes, size_t frames) {
  travik_io *io = travik_io_create(path.c_str());
  travik_demuxer *demuxer = travik_demuxer_create(io, nullptr);
  if (!demuxer || travik_demuxer_parseheader(demuxer) != 0) {
    fprintf(stderr, "engine_bench: the avtest demuxer is not found\n");
    exit(1);
  }
  travik_decoder *decoders[2] = {nullptr, nullptr};
  const double start = cpu_seconds();
  for (int32_t i = 0; i < demuxer->stream_count && i < 2; i++)
    decoders[i] = travik_decoder_create(travik_demuxer_getstream(demuxer, i), nullptr);
  {
    Holding holding(packet_bytes, frames);
    holding.set_decoders(decoders[0], decoders[1]);
    for (;;) {
      int32_t status = travik_demuxer_parse(demuxer, nullptr);
      while (travik_packet *packet = travik_demuxer_pop(demuxer)) holding.add(packet);
      if (status != 0) break;
    }
  }
  const double used = cpu_seconds() - start;
  for (travik_decoder *decoder : decoders)
    if (decoder) travik_decoder_destroy(decoder);
  travik_demuxer_destroy(demuxer);
  travik_io_destroy(io);
  return used;
}

// One thread of the process: its id, CPU milliseconds and the times it
// went to sleep (voluntary context switches).
struct ThreadUse {
  int id;
  double cpu_ms;
  long sleeps;
  bool operator<(const ThreadUse &other) const { return id < other.id; }
};

long thread_sleeps(const std::string &task) {
  FILE *f = fopen((task + "/status").c_str(), "r");
  if (!f) return -1;
  long sleeps = -1;
  char line[256];
  while (fgets(line, sizeof line, f))
    if (sscanf(line, "voluntary_ctxt_switches: %ld", &sleeps) == 1) break;
  fclose(f);
  return sleeps;
}

// Each thread of the process, in thread-id order (the player's workers are
// made in the order audio output, video output, demux, audio decode, video
// decode).
std::vector<ThreadUse> thread_use() {
  std::vector<ThreadUse> threads;
  DIR *dir = opendir("/proc/self/task");
  if (!dir) return threads;
  const double tick_ms = 1000.0 / static_cast<double>(sysconf(_SC_CLK_TCK));
  while (struct dirent *entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    const std::string task = std::string("/proc/self/task/") + entry->d_name;
    FILE *f = fopen((task + "/stat").c_str(), "r");
    if (!f) continue;
    char line[1024];
    if (fgets(line, sizeof line, f)) {
      // Fields after the command name (which ends with the last ')'):
      // state is field 3, utime 14 and stime 15.
      const char *rest = strrchr(line, ')');
      unsigned long utime = 0, stime = 0;
      if (rest && sscanf(rest + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &utime,
                         &stime) == 2)
        threads.push_back({atoi(entry->d_name), static_cast<double>(utime + stime) * tick_ms,
                           thread_sleeps(task)});
    }
    fclose(f);
  }
  closedir(dir);
  std::sort(threads.begin(), threads.end());
  return threads;
}

// Reads events until `code` arrives or `ms` pass; true when it arrived.
bool wait_event(travik_player *player, int fd, int code, int ms) {
  const long long end = wall_us() + ms * 1000LL;
  while (wall_us() < end) {
    travik_player_event event;
    while (travik_player_getevent(player, &event) == 0)
      if (event.code == code) return true;
    // Asleep until an event comes: a polling application would add its
    // own wake-ups to the CPU measured.
    const long long left = end - wall_us();
    if (left <= 0) break;
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    struct timeval wait = {static_cast<time_t>(left / 1000000),
                           static_cast<suseconds_t>(left % 1000000)};
    select(fd + 1, &set, nullptr, nullptr, &wait);
  }
  return false;
}

// Waits for a flip after index `count` that happened after `after_us`;
// returns its wall time, or -1.
long long next_flip(RecordingVideo *video, size_t count, long long after_us, int ms) {
  std::unique_lock<std::mutex> hold(video->lock);
  long long found = -1;
  video->flipped.wait_for(hold, std::chrono::milliseconds(ms), [&] {
    for (size_t i = count; i < video->flips.size(); i++)
      if (video->flips[i].wall_us >= after_us) {
        found = video->flips[i].wall_us;
        return true;
      }
    return false;
  });
  return found;
}

double percentile(std::vector<double> values, double share) {
  if (values.empty()) return -1;
  std::sort(values.begin(), values.end());
  size_t at = static_cast<size_t>(share * static_cast<double>(values.size() - 1) + 0.5);
  return values[std::min(at, values.size() - 1)];
}

// Pictures missing between the flips: each gap longer than one and a half
// frame intervals (the median step) counts the pictures it skips, and the
// media time (ms) where it begins goes to `where`.
long dropped_pictures(const std::vector<int64_t> &shown, std::vector<int64_t> *where) {
  std::vector<double> steps;
  for (size_t i = 1; i < shown.size(); i++)
    if (shown[i] > shown[i - 1]) steps.push_back(static_cast<double>(shown[i] - shown[i - 1]));
  const double step = percentile(steps, 0.5);
  if (step <= 0) return 0;
  long dropped = 0;
  for (size_t i = 1; i < shown.size(); i++) {
    const double gap = static_cast<double>(shown[i] - shown[i - 1]);
    if (gap > 1.5 * step) {
      dropped += static_cast<long>(gap / step + 0.5) - 1;
      where->push_back(shown[i - 1] / 1000);
    }
  }
  return dropped;
}

// A player on the measuring devices, its events through a pipe.
struct Measured {
  ClockedAudio audio;
  RecordingVideo video;
  int fds[2] = {-1, -1};
  travik_player *player = nullptr;

  bool create(int32_t input_limit, int32_t video_frames) {
    MeasuringDevices::install(&audio, &video);
    if (pipe(fds) != 0) return false;
    travik_player_description description;
    travik_player_description_init(&description);
    description.audio_driver = "driver";
    description.audio_args = MeasuringDevices::audio_table();
    description.video_driver = "driver";
    description.video_args = MeasuringDevices::video_table();
    description.event_read_fd = fds[0];
    description.event_write_fd = fds[1];
    description.input_limit = input_limit;
    description.video_frames = video_frames;
    player = travik_player_create(&description);
    return player != nullptr;
  }
  ~Measured() {
    if (player) travik_player_destroy(player);
    MeasuringDevices::install(nullptr, nullptr);
    if (fds[0] >= 0) close(fds[0]);
    if (fds[1] >= 0) close(fds[1]);
  }
  size_t flips() {
    std::lock_guard<std::mutex> hold(video.lock);
    return video.flips.size();
  }
  // Video minus audio at each flip with sound playing, in ms.
  std::vector<double> offsets() {
    std::vector<double> out;
    std::lock_guard<std::mutex> hold(video.lock);
    for (const measuring::Flip &f : video.flips)
      if (f.audio_us > 0) out.push_back(static_cast<double>(f.video_us - f.audio_us) / 1000);
    return out;
  }
  // Plays `path` anew and seeks `count` times while playing, to the
  // positions `where` gives; each timed from the call to the next flip.
  template <typename Where>
  std::vector<double> seeks(const char *path, int count, Where where) {
    std::vector<double> ms;
    if (travik_player_open(player, path) != 0) return ms;
    travik_player_play(player);
    wait_event(player, fds[0], TRAVIK_EVENT_VIDEO_STARTED, 10000);
    for (int i = 0; i < count; i++) {
      usleep(300000);
      const size_t before = flips();
      const long long at = wall_us();
      if (travik_player_seek(player, where(i)) != 0) continue;
      const long long flip = next_flip(&video, before, at, 5000);
      if (flip >= 0) ms.push_back(static_cast<double>(flip - at) / 1000);
      travik_player_play(player);
    }
    travik_player_close(player);
    return ms;
  }
};

// The rows both tables share: A/V offsets, first flip and seeks.
void print_timing(const std::vector<double> &offsets, double first_flip_ms,
                  const std::vector<double> &seek_ms) {
  std::vector<double> distance;
  for (double o : offsets) distance.push_back(o < 0 ? -o : o);
  printf("%-44s %8.2f ms\n", "A/V offset |video - audio| p50", percentile(distance, 0.5));
  printf("%-44s %8.2f ms\n", "A/V offset |video - audio| p99", percentile(distance, 0.99));
  printf("%-44s %8.2f ms\n", "A/V offset |video - audio| max", percentile(distance, 1.0));
  printf("%-44s %8.2f ms\n", "A/V offset (signed) p50", percentile(offsets, 0.5));
  printf("%-44s %8.2f ms\n", "play to first flip", first_flip_ms);
  printf("%-44s %8.2f ms\n", "seek to next flip, p50", percentile(seek_ms, 0.5));
  printf("%-44s %8.2f ms\n", "seek to next flip, max", percentile(seek_ms, 1.0));
}

int play_clip(const char *clip, int seeks) {
  char home[] = "/tmp/travik-engine-bench-XXXXXX";
  if (!mkdtemp(home)) return 1;
  setenv("HOME", home, 1);
  travik_init();
  double play_cpu, wall, first_flip_ms;
  int32_t duration;
  bool ended;
  std::vector<double> offsets, seek_ms;
  std::vector<int64_t> shown;
  {
    Measured m;
    m.video.frame_timestamps = true;
    // travik-play's defaults: a 4 MiB ceiling, 4 + 2 pictures.
    if (!m.create(4 << 20, 4) || travik_player_open(m.player, clip) != 0) {
      fprintf(stderr, "engine_bench: cannot play %s\n", clip);
      return 1;
    }
    auto *device = static_cast<travik_audio *>(travik_player_getobject(m.player, 3));
    if (device) travik_audio_install_filter(device, ClockedAudio::base_filter, &m.audio);
    const double cpu_start = cpu_seconds();
    const long long play_at = wall_us();
    travik_player_play(m.player);
    const long long first_flip = next_flip(&m.video, 0, play_at, 10000);
    ended = wait_event(m.player, m.fds[0], TRAVIK_EVENT_END, 600 * 1000);
    wall = static_cast<double>(wall_us() - play_at) / 1e6;
    play_cpu = cpu_seconds() - cpu_start;
    first_flip_ms = first_flip >= 0 ? static_cast<double>(first_flip - play_at) / 1000 : -1.0;
    duration = travik_player_getinfo(m.player, 1);
    offsets = m.offsets();
    {
      std::lock_guard<std::mutex> hold(m.video.lock);
      for (const measuring::Flip &f : m.video.flips) shown.push_back(f.video_us);
    }
    travik_player_close(m.player);
    // Random places (a fixed sequence) in the clip.
    srand(1);
    if (duration > 2000)
      seek_ms = m.seeks(clip, seeks, [&](int) { return rand() % (duration - 2000); });
  }
  travik_destroy();
  rmdir(home);

  printf("engine benchmark: %s (%d ms)\n", clip, duration);
  printf("%-44s %10s\n", "measure", "value");
  printf("%-44s %9.2f%%\n", "process CPU, share of one core", 100.0 * play_cpu / wall);
  printf("%-44s %8.3f s\n", "CPU time of the playback", play_cpu);
  printf("%-44s %7ld MiB\n", "peak RSS", peak_rss_kib() / 1024);
  printf("%-44s %10zu\n", "pictures flipped", shown.size());
  std::vector<int64_t> gaps;
  printf("%-44s %10ld\n", "pictures dropped", dropped_pictures(shown, &gaps));
  if (!gaps.empty()) {
    printf("%-44s", "  after the pictures at (ms)");
    for (size_t i = 0; i < gaps.size() && i < 8; i++) printf(" %lld", static_cast<long long>(gaps[i]));
    printf("%s\n", gaps.size() > 8 ? " ..." : "");
  }
  print_timing(offsets, first_flip_ms, seek_ms);
  printf("%-44s %8.2f s\n", "wall time of the playback", wall);
  if (!ended) printf("the end event did not come\n");
  return ended ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc > 2 && strcmp(argv[1], "--clip") == 0)
    return play_clip(argv[2], argc > 3 ? atoi(argv[3]) : 10);
  // The plugins built beside this program, and a private HOME for their
  // caches.
  char exe[PATH_MAX];
  ssize_t length = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (length <= 0) return 1;
  exe[length] = '\0';
  std::string dir(exe);
  dir.erase(dir.rfind('/'));
  setenv("TRAVIK_PLUGINS_DIR", (dir + "/plugins").c_str(), 1);
  char home[] = "/tmp/travik-engine-bench-XXXXXX";
  if (!mkdtemp(home)) return 1;
  setenv("HOME", home, 1);
  const std::string path = std::string(home) + "/input.avt";
  FILE *input = fopen(path.c_str(), "w");
  if (!input) return 1;
  fputs(kInput, input);
  fclose(input);
  const int seeks = argc > 1 ? atoi(argv[1]) : 5;
  // Pictures and packets of 1.4 MB are above glibc's mmap threshold: every
  // allocation would map fresh pages and fault them in. Kept on the heap,
  // memory is reused in both measurements alike.
  mallopt(M_MMAP_THRESHOLD, 64 << 20);
  mallopt(M_TRIM_THRESHOLD, 256 << 20);

  travik_init();
  const double decode_hot_cpu = decode_alone(path, 0, 0);
  const double decode_cpu = decode_alone(path, kInputLimit, kPooledFrames);
  reset_peak_rss();

  double play_cpu, wall, first_flip_ms;
  bool ended;
  std::vector<ThreadUse> threads;
  std::vector<double> offsets, seek_ms;
  {
    Measured m;
    if (!m.create(kInputLimit, 0) || travik_player_open(m.player, path.c_str()) != 0) {
      fprintf(stderr, "engine_bench: cannot play %s\n", path.c_str());
      return 1;
    }
    // Playback from the start to the end, at real time.
    const double cpu_start = cpu_seconds();
    const long long play_at = wall_us();
    travik_player_play(m.player);
    const long long first_flip = next_flip(&m.video, 0, play_at, 10000);
    ended = wait_event(m.player, m.fds[0], TRAVIK_EVENT_END, (kSeconds + 20) * 1000);
    wall = static_cast<double>(wall_us() - play_at) / 1e6;
    play_cpu = cpu_seconds() - cpu_start;
    first_flip_ms = first_flip >= 0 ? static_cast<double>(first_flip - play_at) / 1000 : -1.0;
    threads = thread_use();
    offsets = m.offsets();
    travik_player_close(m.player);
    seek_ms = m.seeks(path.c_str(), seeks, [](int i) { return 1000 + 1500 * (i % 5); });
  }
  travik_destroy();
  unlink(path.c_str());
  rmdir(home);

  const double process_share = 100.0 * play_cpu / wall;
  const double decode_share = 100.0 * decode_cpu / kSeconds;
  printf("engine benchmark: 10 s of 1280x720 25 fps raw 4:2:0 + 48 kHz stereo 16-bit PCM\n");
  printf("%-44s %10s\n", "measure", "value");
  printf("%-44s %9.2f%%\n", "process CPU, share of one core", process_share);
  printf("%-44s %9.2f%%\n", "demux + decode alone, nothing held",
         100.0 * decode_hot_cpu / kSeconds);
  printf("%-44s %9.2f%%\n", "demux + decode alone, holding as the player",
         decode_share);
  printf("%-44s %9.2f%%\n", "engine on top of the latter", process_share - decode_share);
  printf("%-44s %8.3f s\n", "CPU time of the playback", play_cpu);
  printf("%-44s %8.3f s\n", "CPU time of demux + decode alone, holding", decode_cpu);
  printf("%-44s %7ld MiB\n", "peak RSS of the playback and seeks", peak_rss_kib() / 1024);
  printf("%-44s %10zu\n", "pictures flipped with audio playing", offsets.size());
  print_timing(offsets, first_flip_ms, seek_ms);
  printf("%-44s %8.2f s\n", "wall time of the playback", wall);
  static const char *const kThreadNames[] = {"application (and decode alone)", "audio output",
                                             "video output", "demux", "audio decode",
                                             "video decode"};
  if (threads.size() == 6) {
    printf("by thread over the whole run:              CPU ms     sleeps\n");
    for (size_t i = 0; i < threads.size(); i++)
      printf("  %-38s %9.0f %10ld\n", kThreadNames[i], threads[i].cpu_ms, threads[i].sleeps);
  }
  if (!ended) printf("the end event did not come\n");
  return ended ? 0 : 1;
}
