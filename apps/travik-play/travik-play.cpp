// travik-play: a command-line player on the playback engine.
//
// It creates a player, opens the input, plays it and reads the player's
// events until the end; transport control comes from the keyboard (on a
// terminal) or from a script of commands (--commands). The engine's own
// threads do the demuxing, decoding and output, with sound and picture in
// step.
#include <errno.h>
#include <limits.h>
#include <math.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <time.h>
#include <travik/travik.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "listing.h"
#include "terminal.h"

namespace {

const char kName[] = "travik-play";
const char kDefaultFont[] = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";

// The ceiling on demuxed data held in memory, in KiB. It also sets the
// prebuffer: the input's bit rate times its preroll, or half the ceiling
// when that is more (without a ceiling there would be no prebuffering).
constexpr long kInputLimitKiB = 4096;
// Decoded pictures queued ahead of the screen. The library's default of 15
// (+2 spare) costs 53 MB at 1080p; 4 (+2) pictures are 133 ms of lead at
// 30 fps, plenty for a decoder that keeps up, at a third of the memory.
constexpr long kVideoFrames = 4;

// Exit statuses.
constexpr int kExitOk = 0;
constexpr int kExitError = 1;        // an error event, or the input cannot be opened
constexpr int kExitUsage = 2;
constexpr int kExitNoDecoder = 3;    // a stream without a decoder
constexpr int kExitInterrupted = 130;

volatile sig_atomic_t interrupted = 0;

void on_signal(int) { interrupted = 1; }

void usage(FILE *out) {
  fprintf(out,
          "usage: %s [OPTION]... FILE_OR_URL\n"
          "       %s --plugins\n"
          "\n"
          "Plays a media file or URL with sound and picture in step.\n"
          "\n"
          "Outputs:\n"
          "  -a AUDIO        audio output: auto (default: the best device found, else\n"
          "                  silence), alsa, wav, null; an argument follows a colon:\n"
          "                    -a alsa:hw:0,0   an ALSA PCM (default \"default\")\n"
          "                    -a wav:out.wav   write what is played into out.wav\n"
          "  -v VIDEO        video output: auto (default: a window or the frame buffer,\n"
          "                  else nothing), sdl, fbdev, png, y4m, null; an argument\n"
          "                  follows a colon (-v y4m:out.y4m, -v png:DIR)\n"
          "Playback:\n"
          "  --start MS      start MS milliseconds into the input\n"
          "  --speed X       play at X times the normal speed (0.25 to 4)\n"
          "  --exact         seek exactly: nothing before the position sought is shown\n"
          "  --sub FILE      subtitles from FILE (default: a subtitle file beside the input)\n"
          "  --font FILE     subtitle font (default %s)\n"
          "  --font-size N   subtitle font size in pixels (default 24)\n"
          "  --buffer KB     keep at most KB KiB of demuxed data in memory (default %ld)\n"
          "  --frames N      decoded pictures queued ahead of the screen (default %ld)\n"
          "  --commands TEXT scripted control, commands separated by \";\":\n"
          "                    play, pause, seek MS, forward MS, back MS, speed X, mute,\n"
          "                    hold, subtitles, exact, update, sleep MS, quit\n"
          "                  e.g. --commands \"seek 5000; pause; sleep 200; play; quit\".\n"
          "                  Playback goes on after the last command until the end.\n"
          "Information:\n"
          "  --info          print the input's properties and metadata as JSON, then exit\n"
          "  --plugins       list every installed plugin and the drivers it offers\n"
          "  -q              print nothing but errors\n"
          "  -h, --help      this help\n"
          "\n"
          "Keys (on a terminal): space pause/resume, left/right seek 10 s, up/down seek\n"
          "60 s, [ and ] slower/faster, m mute, v hold the picture, s subtitles on/off,\n"
          "e exact seeking on/off, q quit.\n"
          "\n"
          "Exit status: 0 played to the end (or quit), 1 the input could not be opened\n"
          "or playing it failed (an error event), 2 usage error, 3 no decoder for a\n"
          "stream, 130 interrupted.\n",
          kName, kName, kDefaultFont, kInputLimitKiB, kVideoFrames);
}

FILE *out_stream = stdout;  // where the player's own messages go
FILE *err_stream = stderr;

[[gnu::format(printf, 1, 2)]] void error(const char *format, ...) {
  va_list args;
  va_start(args, format);
  fprintf(err_stream, "%s: ", kName);
  vfprintf(err_stream, format, args);
  fputc('\n', err_stream);
  fflush(err_stream);
  va_end(args);
}

long long now_ms() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// An output named on the command line: "name" or "name:argument".
struct OutputChoice {
  std::string name = "auto";
  std::string argument;
  bool has_argument = false;
  bool given = false;

  void set(const char *text) {
    given = true;
    const char *colon = strchr(text, ':');
    if (colon) {
      name.assign(text, static_cast<size_t>(colon - text));
      argument = colon + 1;
      has_argument = true;
    } else {
      name = text;
      argument.clear();
      has_argument = false;
    }
  }
  void *open_argument() const {
    return has_argument ? const_cast<char *>(argument.c_str()) : nullptr;
  }
};

struct Options {
  OutputChoice audio;
  OutputChoice video;
  bool quiet = false;
  bool info = false;
  bool plugins = false;
  bool exact = false;
  long start_ms = -1;
  float speed = 1.0f;
  const char *subtitle = nullptr;
  const char *font = kDefaultFont;
  long font_size = 24;
  long buffer_kib = kInputLimitKiB;
  long video_frames = kVideoFrames;
  const char *commands = nullptr;
  const char *input = nullptr;
};

bool parse_long(const char *text, long low, long high, long *value) {
  char *end = nullptr;
  errno = 0;
  long v = strtol(text, &end, 10);
  if (errno || end == text || *end || v < low || v > high) return false;
  *value = v;
  return true;
}

bool parse_speed(const char *text, float *value) {
  char *end = nullptr;
  float v = strtof(text, &end);
  if (end == text || *end || !(v >= 0.25f && v <= 4.0f)) return false;
  *value = v;
  return true;
}

// Options may come before or after the input; "--" ends them.
// 0 on success, 2 after printing a usage error, -1 after printing help.
int parse_options(int argc, char **argv, Options *o) {
  bool more_options = true;
  for (int i = 1; i < argc; i++) {
    const char *arg = argv[i];
    if (more_options && strcmp(arg, "--") == 0) {
      more_options = false;
      continue;
    }
    if (!more_options || arg[0] != '-' || arg[1] == '\0') {
      if (o->input) {
        error("one file or URL at a time (\"%s\" is one too many)", arg);
        return kExitUsage;
      }
      o->input = arg;
      continue;
    }
    if (strcmp(arg, "-h") == 0 || strcmp(arg, "--help") == 0) {
      usage(stdout);
      return -1;
    }
    if (strcmp(arg, "-q") == 0) {
      o->quiet = true;
      continue;
    }
    if (strcmp(arg, "--info") == 0) {
      o->info = true;
      continue;
    }
    if (strcmp(arg, "--plugins") == 0) {
      o->plugins = true;
      continue;
    }
    if (strcmp(arg, "--exact") == 0) {
      o->exact = true;
      continue;
    }
    // The options below take a value.
    static const char *const kWithValue[] = {"-a",   "-v",     "--start",     "--speed", "--sub",
                                             "--font", "--font-size", "--buffer",  "--frames",
                                             "--commands"};
    bool known = false;
    for (const char *name : kWithValue) known = known || strcmp(arg, name) == 0;
    if (!known) {
      error("unknown option \"%s\" (see %s -h)", arg, kName);
      return kExitUsage;
    }
    if (i + 1 >= argc || argv[i + 1][0] == '\0') {
      error("option %s needs a value (see %s -h)", arg, kName);
      return kExitUsage;
    }
    const char *value = argv[++i];
    if (strcmp(arg, "-a") == 0) {
      o->audio.set(value);
    } else if (strcmp(arg, "-v") == 0) {
      o->video.set(value);
    } else if (strcmp(arg, "--start") == 0) {
      if (!parse_long(value, 0, INT32_MAX, &o->start_ms)) {
        error("--start takes milliseconds, not \"%s\"", value);
        return kExitUsage;
      }
    } else if (strcmp(arg, "--speed") == 0) {
      if (!parse_speed(value, &o->speed)) {
        error("--speed takes a factor from 0.25 to 4, not \"%s\"", value);
        return kExitUsage;
      }
    } else if (strcmp(arg, "--sub") == 0) {
      o->subtitle = value;
    } else if (strcmp(arg, "--font") == 0) {
      o->font = value;
    } else if (strcmp(arg, "--font-size") == 0) {
      if (!parse_long(value, 4, 512, &o->font_size)) {
        error("--font-size takes pixels from 4 to 512, not \"%s\"", value);
        return kExitUsage;
      }
    } else if (strcmp(arg, "--buffer") == 0) {
      if (!parse_long(value, 64, 1 << 20, &o->buffer_kib)) {
        error("--buffer takes KiB from 64 to 1048576, not \"%s\"", value);
        return kExitUsage;
      }
    } else if (strcmp(arg, "--frames") == 0) {
      if (!parse_long(value, 2, 64, &o->video_frames)) {
        error("--frames takes a count from 2 to 64 (the picture on screen and the next), "
              "not \"%s\"",
              value);
        return kExitUsage;
      }
    } else {
      o->commands = value;
    }
  }
  if (o->plugins) return 0;
  if (!o->input) {
    error("no file or URL to play (see %s -h)", kName);
    return kExitUsage;
  }
  return 0;
}

// One scripted command: a word and an optional number.
struct Command {
  std::string word;
  double value = 0;
  bool has_value = false;
};

bool parse_commands(const char *text, std::vector<Command> *commands) {
  std::string all(text);
  size_t at = 0;
  while (at <= all.size()) {
    size_t end = all.find(';', at);
    if (end == std::string::npos) end = all.size();
    std::string piece = all.substr(at, end - at);
    at = end + 1;
    char word[32], extra[2];
    double value = 0;
    int n = sscanf(piece.c_str(), " %31s %lf %1s", word, &value, extra);
    if (n <= 0) continue;  // an empty piece
    if (n > 2) {
      error("command \"%s\": one word and at most one number", piece.c_str());
      return false;
    }
    static const char *const kWords[] = {"play",  "pause", "seek",      "forward", "back",
                                         "speed", "mute",  "hold",      "subtitles", "exact",
                                         "update", "sleep", "quit"};
    bool known = false;
    for (const char *w : kWords) known = known || strcmp(word, w) == 0;
    const bool needs_value = !strcmp(word, "seek") || !strcmp(word, "forward") ||
                             !strcmp(word, "back") || !strcmp(word, "speed") ||
                             !strcmp(word, "sleep");
    if (!known || needs_value != (n == 2)) {
      error("unknown or malformed command \"%s\" (see %s -h)", piece.c_str(), kName);
      return false;
    }
    Command command;
    command.word = word;
    command.value = value;
    command.has_value = n == 2;
    commands->push_back(command);
  }
  return true;
}

bool is_directory(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// A player run from a build tree (<build>/apps/travik-play/travik-play)
// takes its plugins from <build>/plugins, so that a freshly built tree plays
// without installing. An installed player, or TRAVIK_PLUGINS_DIR set by the
// user, keeps the library's own plugin directories.
void use_build_tree_plugins() {
  if (const char *given = getenv("TRAVIK_PLUGINS_DIR")) {
    // The library takes the variable as it stands and names plugins by
    // paths relative to it, so a relative directory would be applied twice.
    char resolved[PATH_MAX];
    if (given[0] != '/' && realpath(given, resolved)) setenv("TRAVIK_PLUGINS_DIR", resolved, 1);
    return;
  }
  char exe[PATH_MAX];
  ssize_t length = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (length <= 0) return;
  exe[length] = '\0';
  std::string dir(exe);
  dir.erase(dir.rfind('/'));
  std::string root = dir + "/../..";
  struct stat st;
  if (stat((root + "/CMakeCache.txt").c_str(), &st) != 0) return;
  if (!is_directory(root + "/plugins")) return;
  char resolved[PATH_MAX];
  if (!realpath((root + "/plugins").c_str(), resolved)) return;
  setenv("TRAVIK_PLUGINS_DIR", resolved, 1);
}

std::string clock_text(long ms) {
  if (ms < 0) return "--:--";
  char text[32];
  long seconds = ms / 1000;
  if (seconds >= 3600)
    snprintf(text, sizeof text, "%ld:%02ld:%02ld", seconds / 3600, seconds / 60 % 60,
             seconds % 60);
  else
    snprintf(text, sizeof text, "%02ld:%02ld.%ld", seconds / 60, seconds % 60, ms % 1000 / 100);
  return text;
}

const char *codec_name(int32_t codec) {
  switch (codec) {
    case TRAVIK_CODEC_PCM_S16LE: return "PCM 16-bit";
    case TRAVIK_CODEC_PCM_U8: return "PCM 8-bit";
    case TRAVIK_CODEC_PCM_ALAW: return "A-law";
    case TRAVIK_CODEC_PCM_MULAW: return "mu-law";
    case TRAVIK_CODEC_RAWVIDEO: return "raw YUV 4:2:0";
    case TRAVIK_CODEC_NONE: return "unknown codec";
    default: return nullptr;
  }
}

std::string describe_stream(const travik_stream *stream) {
  const travik_codec_info &info = stream->info;
  char text[160];
  const char *codec = codec_name(info.codec);
  char number[32];
  if (!codec) {
    snprintf(number, sizeof number, "codec %d", static_cast<int>(info.codec));
    codec = number;
  }
  if (info.type == TRAVIK_STREAM_AUDIO) {
    snprintf(text, sizeof text, "audio: %s, %d Hz, %d channel%s", codec,
             static_cast<int>(info.sample_rate), static_cast<int>(info.channels),
             info.channels == 1 ? "" : "s");
  } else if (info.type == TRAVIK_STREAM_VIDEO) {
    int n = snprintf(text, sizeof text, "video: %s, %dx%d", codec, static_cast<int>(info.width),
                     static_cast<int>(info.height));
    if (info.framerate > 0)
      snprintf(text + n, sizeof text - static_cast<size_t>(n), ", %d.%02d fps",
               static_cast<int>(info.framerate / 100), static_cast<int>(info.framerate % 100));
  } else {
    snprintf(text, sizeof text, "other: %s", codec);
  }
  return text;
}

std::string describe_duration(uint32_t ms) {
  if (ms == 0) return "duration unknown";
  char text[48];
  unsigned seconds = ms / 1000;
  if (seconds >= 3600)
    snprintf(text, sizeof text, "%u:%02u:%02u.%03u", seconds / 3600, seconds / 60 % 60,
             seconds % 60, ms % 1000);
  else
    snprintf(text, sizeof text, "%u:%02u.%03u", seconds / 60, seconds % 60, ms % 1000);
  return text;
}

// What a driver that needs an argument expects, for the error message.
const char *argument_hint(const std::string &name) {
  if (name == "wav") return " (it needs a file name: -a wav:out.wav)";
  if (name == "y4m") return " (it needs a file name: -v y4m:out.y4m)";
  if (name == "png") return " (it needs a directory: -v png:dir=frames or -v png:/tmp/frames)";
  return "";
}


// Checks a driver named on the command line before the player opens it, so
// that a misspelt name is reported as such. "driver" is how an application
// hands in its own operation table; a command line cannot.
bool output_exists(const OutputChoice &choice, bool audio) {
  if (choice.name == "auto") return true;
  travik_plugin *plugin = nullptr;
  if (choice.name != "driver")
    plugin = audio ? travik_audio_load_driver(choice.name.c_str())
                   : travik_video_load_driver(choice.name.c_str());
  if (!plugin) {
    error("no %s output called \"%s\" (%s outputs: %s)", audio ? "audio" : "video",
          choice.name.c_str(), audio ? "audio" : "video",
          audio ? "auto, alsa, wav, null" : "auto, sdl, fbdev, png, y4m, null");
    return false;
  }
  travik_plugin_destroy(plugin);
  return true;
}

// Tells which output could not be opened when the player could not be made.
void explain_outputs(const OutputChoice &audio, const OutputChoice &video) {
  if (travik_audio *device = travik_audio_create(audio.name.c_str(), audio.open_argument())) {
    travik_audio_destroy(device);
    if (video.name == "auto")
      error("no video output available (no video-output plugin found a display; try -v "
            "y4m:out.y4m)");
    else
      error("cannot open video output \"%s\"%s", video.name.c_str(),
            video.has_argument ? "" : argument_hint(video.name));
  } else if (audio.name == "auto") {
    error("no audio output available (no audio-output plugin found a device; try -a wav:out.wav)");
  } else {
    error("cannot open audio output \"%s\"%s", audio.name.c_str(),
          audio.has_argument ? "" : argument_hint(audio.name));
  }
}

// Why no demuxer took the input, from its name.
void explain_open_failure(const char *input) {
  struct stat st;
  const bool url = strstr(input, "://") != nullptr;
  if (!url && stat(input, &st) != 0) {
    error("cannot open \"%s\": %s", input, strerror(errno));
    return;
  }
  const char *name = strrchr(input, '/');
  name = name ? name + 1 : input;
  const char *dot = strrchr(name, '.');
  if (url)
    error("nothing reads \"%s\": no I/O back-end or demuxer plugin serves it", input);
  else if (!dot || !dot[1])
    error("cannot tell the format of \"%s\": the name has no extension (see %s --plugins)",
          input, kName);
  else
    error("no demuxer plugin accepts \"%s\" (extension %s; see %s --plugins)", input, dot,
          kName);
}

// JSON string literal of `text`.
std::string json_string(const char *text) {
  std::string s = "\"";
  for (const unsigned char *p = reinterpret_cast<const unsigned char *>(text); *p; p++) {
    if (*p == '"' || *p == '\\') {
      s += '\\';
      s += static_cast<char>(*p);
    } else if (*p < 0x20) {
      char escape[8];
      snprintf(escape, sizeof escape, "\\u%04x", *p);
      s += escape;
    } else {
      s += static_cast<char>(*p);
    }
  }
  return s + "\"";
}

// The information keys of travik_player_getinfo, by name.
struct InfoKey {
  int key;
  const char *name;
};
const InfoKey kInfoKeys[] = {
    {0, "seekable"},          {1, "duration_ms"},      {2, "has_video"},
    {3, "has_audio"},         {4, "audio_channels"},   {5, "audio_bits_per_sample"},
    {6, "audio_sample_rate"}, {7, "audio_bitrate"},    {8, "video_width"},
    {9, "video_height"},      {10, "video_rate_field"}, {11, "video_bitrate"},
    {12, "video_frame_rate"}, {15, "fill_percent"},    {16, "live"},
    {17, "audio_mute"},       {18, "video_hold"},      {19, "subtitles_visible"},
    {22, "audio_off"},        {23, "video_off"},       {24, "end_of_stream"},
};

// Metadata slots with a name of their own; the others are shown by number.
const char *meta_name(int slot) {
  switch (slot) {
    case TRAVIK_META_TITLE: return "title";
    case TRAVIK_META_IMAGE_INFO: return "image_info";
    default: return nullptr;
  }
}

class App {
 public:
  explicit App(const Options &options) : o_(options) {}
  int run();

 private:
  bool create_player();
  void report_outputs();
  void handle_event(const travik_player_event &event);
  void drain_events();
  void wait_for_input(int ms);
  void handle_key(int key);
  bool run_commands();
  void run_command(const Command &command);
  void seek_to(long ms);
  void change_speed(float speed);
  void toggle(int key, const char *what);
  void show_status(bool force);
  void clear_status();
  void message(const char *format, ...) __attribute__((format(printf, 2, 3)));
  void print_summary();
  int print_info();
  void wait_for_audio_flush();
  int finish(int status);

  const Options &o_;
  int pipe_[2] = {-1, -1};
  travik_player *player_ = nullptr;
  bool raw_ = false;          // keys from a terminal
  bool tty_status_ = false;   // status line refreshed in place
  bool status_shown_ = false;
  long long status_at_ = 0;
  bool exact_ = false;
  bool opened_ = false;
  bool ended_ = false;
  bool quit_ = false;
  bool error_event_ = false;
  bool no_audio_decoder_ = false;
  bool no_video_decoder_ = false;
  int buffering_ = -1;        // last percentage announced, -1 when not buffering
  std::vector<Command> commands_;
  size_t next_command_ = 0;
  long long sleep_until_ = 0;
};

void App::message(const char *format, ...) {
  // --info prints its JSON alone.
  if (o_.quiet || o_.info) return;
  clear_status();
  va_list args;
  va_start(args, format);
  fprintf(out_stream, "%s: ", kName);
  vfprintf(out_stream, format, args);
  fputc('\n', out_stream);
  fflush(out_stream);
  va_end(args);
}

// The input in one line: format, duration and streams.
void App::print_summary() {
  if (o_.quiet) return;
  auto *demuxer = static_cast<travik_demuxer *>(travik_player_getobject(player_, 0));
  if (!demuxer) return;
  std::string line = std::string(o_.input) + ": " + demuxer->driver->description + ", " +
                     describe_duration(travik_demuxer_getduration(demuxer));
  for (int32_t i = 0; i < demuxer->stream_count && i < TRAVIK_DEMUXER_MAX_STREAMS; i++) {
    travik_stream *stream = travik_demuxer_getstream(demuxer, i);
    if (stream) line += "; " + describe_stream(stream);
  }
  clear_status();
  fprintf(out_stream, "%s\n", line.c_str());
  fflush(out_stream);
}

void App::clear_status() {
  if (tty_status_ && status_shown_) {
    fputs("\r\033[K", out_stream);
    status_shown_ = false;
  }
}

// The status line: on a terminal rewritten in place five times a second;
// otherwise one plain line a second.
void App::show_status(bool force) {
  if (o_.quiet || o_.info || !opened_) return;
  long long now = now_ms();
  if (!force && now - status_at_ < (tty_status_ ? 200 : 1000)) return;
  status_at_ = now;
  const bool playing = travik_player_isplaying(player_) != 0;
  std::string line = playing ? "playing " : "paused  ";
  line += clock_text(travik_player_elapsed(player_)) + " / " +
          clock_text(travik_player_getinfo(player_, 1) > 0 ? travik_player_getinfo(player_, 1)
                                                           : -1);
  char extra[64];
  if (buffering_ >= 0) {
    snprintf(extra, sizeof extra, "  buffering %d%%", buffering_);
    line += extra;
  }
  snprintf(extra, sizeof extra, "  speed %.2f", static_cast<double>(travik_player_getspeed(player_)));
  line += extra;
  if (travik_player_getinfo(player_, 17) == 1) line += "  muted";
  if (travik_player_getinfo(player_, 18) == 1) line += "  picture held";
  if (exact_) line += "  exact";
  if (tty_status_) {
    fprintf(out_stream, "\r\033[K%s", line.c_str());
    status_shown_ = true;
  } else {
    fprintf(out_stream, "%s\n", line.c_str());
  }
  fflush(out_stream);
}

void App::handle_event(const travik_player_event &event) {
  switch (event.code) {
    case TRAVIK_EVENT_OPENING:
      message("opening %s", o_.input);
      break;
    case TRAVIK_EVENT_OPENED:
      opened_ = true;
      if (!o_.info) {
        print_summary();
        show_status(true);
      }
      break;
    case TRAVIK_EVENT_BUFFERING: {
      const int percent = event.size >= 1 ? event.data[0] : 100;
      buffering_ = percent >= 100 ? -1 : percent;
      // On a terminal the status line shows it; otherwise one line each.
      if (tty_status_)
        show_status(true);
      else
        message("buffering %d%%", percent);
      break;
    }
    case TRAVIK_EVENT_AUDIO_STARTED:
      message("audio started");
      break;
    case TRAVIK_EVENT_VIDEO_STARTED:
      message("video started");
      break;
    case TRAVIK_EVENT_END:
      ended_ = true;
      message("end");
      break;
    case TRAVIK_EVENT_ERROR: {
      int32_t status = 0;
      if (event.size >= 4) memcpy(&status, event.data, 4);
      error_event_ = true;
      clear_status();
      auto *demuxer = static_cast<travik_demuxer *>(travik_player_getobject(player_, 0));
      if (!opened_)
        error("\"%s\" is not a valid %s file (its header cannot be read; status %d)", o_.input,
              demuxer ? demuxer->driver->description : "media", static_cast<int>(status));
      else
        error("\"%s\" ended early: the file is truncated or damaged (status %d)", o_.input,
              static_cast<int>(status));
      break;
    }
    case TRAVIK_EVENT_NO_VIDEO_DECODER:
      no_video_decoder_ = true;
      clear_status();
      error("no decoder for the video stream of \"%s\": playing without picture", o_.input);
      break;
    case TRAVIK_EVENT_NO_AUDIO_DECODER:
      no_audio_decoder_ = true;
      clear_status();
      error("no decoder for the audio stream of \"%s\": playing without sound", o_.input);
      break;
    default:
      break;
  }
}

void App::drain_events() {
  travik_player_event event;
  while (travik_player_getevent(player_, &event) == 0) handle_event(event);
}

// Sleeps until an event or a key arrives, or `ms` pass.
void App::wait_for_input(int ms) {
  fd_set set;
  FD_ZERO(&set);
  FD_SET(pipe_[0], &set);
  int top = pipe_[0];
  if (raw_) FD_SET(0, &set);
  struct timeval wait = {0, ms * 1000};
  select(top + 1, &set, nullptr, nullptr, &wait);
}

// Seeks to `ms` (clamped at 0) and goes on playing if it was playing: a
// seek leaves the player paused.
void App::seek_to(long ms) {
  if (ms < 0) ms = 0;
  const bool playing = travik_player_isplaying(player_) != 0;
  int result = travik_player_seek(player_, static_cast<int32_t>(ms > INT32_MAX ? INT32_MAX : ms));
  if (result != 0) {
    message("cannot seek to %s now", clock_text(ms).c_str());
    return;
  }
  if (playing) travik_player_play(player_);
  show_status(true);
}

// A speed change leaves the player paused too.
void App::change_speed(float speed) {
  if (speed < 0.25f) speed = 0.25f;
  if (speed > 4.0f) speed = 4.0f;
  const bool playing = travik_player_isplaying(player_) != 0;
  travik_player_setspeed(player_, speed);
  if (playing) travik_player_play(player_);
  show_status(true);
}

void App::toggle(int key, const char *what) {
  const int value = travik_player_getinfo(player_, key) == 1 ? 0 : 1;
  travik_player_setinfo(player_, key, value);
  message("%s %s", what, value ? "on" : "off");
}

// Speeds the [ and ] keys step through.
const float kSpeeds[] = {0.25f, 0.5f, 0.75f, 1.0f, 1.25f, 1.5f, 2.0f, 3.0f, 4.0f};

void App::handle_key(int key) {
  const long position = travik_player_elapsed(player_);
  const float speed = travik_player_getspeed(player_);
  switch (key) {
    case ' ':
      if (travik_player_isplaying(player_))
        travik_player_pause(player_);
      else
        travik_player_play(player_);
      show_status(true);
      break;
    case play::kKeyLeft: seek_to(position - 10000); break;
    case play::kKeyRight: seek_to(position + 10000); break;
    case play::kKeyDown: seek_to(position - 60000); break;
    case play::kKeyUp: seek_to(position + 60000); break;
    case '[':
      for (int i = static_cast<int>(sizeof kSpeeds / sizeof kSpeeds[0]) - 1; i >= 0; i--)
        if (kSpeeds[i] < speed) {
          change_speed(kSpeeds[i]);
          break;
        }
      break;
    case ']':
      for (float s : kSpeeds)
        if (s > speed) {
          change_speed(s);
          break;
        }
      break;
    case 'm': toggle(17, "mute"); break;
    case 'v': toggle(18, "picture hold"); break;
    case 's': toggle(19, "subtitles"); break;
    case 'e':
      exact_ = !exact_;
      travik_player_setseekexactly(player_, exact_ ? 1 : 0);
      message("exact seeking %s", exact_ ? "on" : "off");
      break;
    case 'q':
    case -1:  // end of the keyboard
      quit_ = true;
      break;
    default:
      break;
  }
}

void App::run_command(const Command &c) {
  const long position = travik_player_elapsed(player_);
  if (c.word == "play") {
    travik_player_play(player_);
  } else if (c.word == "pause") {
    travik_player_pause(player_);
  } else if (c.word == "seek") {
    seek_to(lround(c.value));
  } else if (c.word == "forward") {
    seek_to(position + lround(c.value));
  } else if (c.word == "back") {
    seek_to(position - lround(c.value));
  } else if (c.word == "speed") {
    change_speed(static_cast<float>(c.value));
  } else if (c.word == "mute") {
    toggle(17, "mute");
  } else if (c.word == "hold") {
    toggle(18, "picture hold");
  } else if (c.word == "subtitles") {
    toggle(19, "subtitles");
  } else if (c.word == "exact") {
    handle_key('e');
  } else if (c.word == "update") {
    travik_player_update(player_);
  } else if (c.word == "sleep") {
    sleep_until_ = now_ms() + llround(c.value);
  } else if (c.word == "quit") {
    quit_ = true;
  }
}

// Runs commands until a sleep, the last one or quit.
bool App::run_commands() {
  while (next_command_ < commands_.size() && !quit_) {
    if (sleep_until_) {
      if (now_ms() < sleep_until_) return true;
      sleep_until_ = 0;
    }
    run_command(commands_[next_command_++]);
  }
  return false;
}

bool App::create_player() {
  if (pipe(pipe_) != 0) {
    error("cannot make the event pipe: %s", strerror(errno));
    return false;
  }
  // --info needs no sound or picture: silent outputs unless asked for.
  OutputChoice audio = o_.audio, video = o_.video;
  if (o_.info && !audio.given) audio.set("null");
  if (o_.info && !video.given) video.set("null");
  if (!output_exists(audio, true) || !output_exists(video, false)) return false;
  travik_player_description description;
  travik_player_description_init(&description);
  description.audio_driver = audio.name.c_str();
  description.audio_args = audio.open_argument();
  description.video_driver = video.name.c_str();
  description.video_args = video.open_argument();
  description.event_read_fd = pipe_[0];
  description.event_write_fd = pipe_[1];
  description.input_limit = static_cast<int32_t>(o_.buffer_kib * 1024);
  description.video_frames = static_cast<int32_t>(o_.video_frames);
  // The FFmpeg decoder lends up to two frames of the pool to libavcodec,
  // which a pool of fewer than 4 (+2) pictures cannot spare.
  if (o_.video_frames < 4) setenv("TRAVIK_DECODER_DIRECT", "0", 1);
  player_ = travik_player_create(&description);
  if (!player_) {
    explain_outputs(audio, video);
    return false;
  }
  return true;
}

// One line naming the outputs "auto" chose.
void App::report_outputs() {
  if (o_.info) return;
  std::string line;
  if (o_.audio.name == "auto") {
    auto *audio = static_cast<travik_audio *>(travik_player_getobject(player_, 3));
    const char *name = audio && audio->driver ? audio->driver->name : "none";
    line += std::string("audio to \"") + name + "\"" +
            (strcmp(name, "null") == 0 ? " (no sound device found)" : "");
  }
  if (o_.video.name == "auto") {
    auto *video = static_cast<travik_video *>(travik_player_getobject(player_, 4));
    const char *name = video && video->driver ? video->driver->name : "none";
    if (!line.empty()) line += ", ";
    line += std::string("video to \"") + name + "\"" +
            (strcmp(name, "null") == 0 ? " (no display found)" : "");
  }
  if (!line.empty() && !o_.quiet) fprintf(err_stream, "%s: %s\n", kName, line.c_str());
}

// --info: the header is parsed by the engine's demux thread once playing;
// the stream properties are known once each stream has delivered a packet.
int App::print_info() {
  travik_player_play(player_);
  const long long deadline = now_ms() + 5000;
  while (!opened_ && !ended_ && !interrupted && now_ms() < deadline) {
    wait_for_input(20);
    drain_events();
  }
  if (!opened_) {
    if (!error_event_) error("cannot read the header of \"%s\"", o_.input);
    return kExitError;
  }
  while (!ended_ && !interrupted && now_ms() < deadline &&
         ((travik_player_getinfo(player_, 3) == 1 && travik_player_getinfo(player_, 6) < 0) ||
          (travik_player_getinfo(player_, 2) == 1 && travik_player_getinfo(player_, 8) < 0))) {
    wait_for_input(10);
    drain_events();
  }
  travik_player_pause(player_);
  std::string json = "{\n  \"input\": " + json_string(o_.input) + ",\n  \"info\": {";
  bool first = true;
  for (const InfoKey &k : kInfoKeys) {
    char item[96];
    snprintf(item, sizeof item, "%s\n    \"%s\": %d", first ? "" : ",", k.name,
             static_cast<int>(travik_player_getinfo(player_, k.key)));
    json += item;
    first = false;
  }
  json += "\n  },\n  \"metadata\": {";
  first = true;
  for (int slot = 0; slot < TRAVIK_META_SLOTS; slot++) {
    if (slot == TRAVIK_META_IMAGE) continue;  // binary
    const char *text = travik_player_getmeta(player_, slot);
    if (!text || !*text) continue;
    const char *name = meta_name(slot);
    std::string key = name ? name : std::to_string(slot);
    json += std::string(first ? "" : ",") + "\n    \"" + key + "\": " + json_string(text);
    first = false;
  }
  json += first ? "}\n}\n" : "\n  }\n}\n";
  fputs(json.c_str(), out_stream);
  fflush(out_stream);
  return kExitOk;
}

// The end event can come before the audio output has written the last,
// partly filled buffer of the front end (it flushes on its next pass):
// wait for that, a second at most, so that a file output gets every sample.
void App::wait_for_audio_flush() {
  auto *audio = static_cast<travik_audio *>(travik_player_getobject(player_, 3));
  if (!audio) return;
  const long long end = now_ms() + 1000;
  for (;;) {
    pthread_mutex_lock(&audio->lock);
    const int32_t held = audio->fill;
    pthread_mutex_unlock(&audio->lock);
    if (held == 0 || now_ms() > end) return;
    travik_sleep(5);
  }
}

int App::finish(int status) {
  if (player_) {
    travik_player_close(player_);
    travik_player_destroy(player_);
  }
  if (pipe_[0] >= 0) close(pipe_[0]);
  if (pipe_[1] >= 0) close(pipe_[1]);
  clear_status();
  play::restore_terminal();
  return status;
}

int App::run() {
  if (o_.commands && !parse_commands(o_.commands, &commands_)) return kExitUsage;
  if (!create_player()) return finish(kExitError);
  report_outputs();
  if (o_.font && travik_player_setfont(player_, o_.font, static_cast<int32_t>(o_.font_size)) != 0 &&
      o_.font != kDefaultFont)
    error("cannot use the font \"%s\": no subtitles", o_.font);
  if (o_.subtitle && travik_player_setsubtitle(player_, o_.subtitle) != 0) {
    error("cannot read subtitles from \"%s\"", o_.subtitle);
    return finish(kExitError);
  }
  if (travik_player_open(player_, o_.input) != 0) {
    explain_open_failure(o_.input);
    return finish(kExitError);
  }
  if (o_.info) return finish(print_info());

  exact_ = o_.exact;
  travik_player_setseekexactly(player_, exact_ ? 1 : 0);
  if (o_.speed != 1.0f) travik_player_setspeed(player_, o_.speed);
  if (o_.start_ms > 0 && travik_player_seek(player_, static_cast<int32_t>(o_.start_ms)) != 0)
    message("cannot start at %s: playing from the start", clock_text(o_.start_ms).c_str());
  raw_ = !o_.quiet && play::enter_raw_mode();
  tty_status_ = isatty(fileno(out_stream)) != 0;
  travik_player_play(player_);

  while (!quit_ && !interrupted) {
    drain_events();
    // An error event is followed by the end event once what was read has
    // played out.
    if (ended_) break;
    // Without a decoder for any stream the input it has, nothing will play.
    const bool audio = travik_player_getinfo(player_, 3) == 1;
    const bool video = travik_player_getinfo(player_, 2) == 1;
    if (opened_ && (no_audio_decoder_ || !audio) && (no_video_decoder_ || !video)) break;
    if (raw_) {
      for (int key; (key = play::read_key()) != play::kKeyNone && !quit_;) handle_key(key);
    }
    run_commands();
    if (quit_) break;
    show_status(false);
    // Events and keys end the wait at once; the timeout only paces scripted
    // commands and the status line, so an idle player wakes rarely.
    wait_for_input(next_command_ < commands_.size() ? 20 : 100);
  }
  drain_events();
  if (ended_) wait_for_audio_flush();
  int status = kExitOk;
  if (interrupted)
    status = kExitInterrupted;
  else if (error_event_)
    status = kExitError;
  else if (no_audio_decoder_ || no_video_decoder_)
    status = kExitNoDecoder;
  return finish(status);
}

// The library prints progress lines of its own on standard output (the
// chosen decoder, the prebuffer size, the clock's start): they would break
// the player's own output (the status line, --info's JSON), so they go
// nowhere. With -q its lines on standard error are silenced too. The
// player keeps private copies of the two streams for itself.
void keep_library_quiet(bool quiet) {
  fflush(stdout);
  fflush(stderr);
  FILE *null = fopen("/dev/null", "w");
  if (!null) return;
  int out = dup(1), err = quiet ? dup(2) : -1;
  FILE *out_copy = out >= 0 ? fdopen(out, "w") : nullptr;
  FILE *err_copy = err >= 0 ? fdopen(err, "w") : nullptr;
  if (out_copy) {
    out_stream = out_copy;
    dup2(fileno(null), 1);
  }
  if (err_copy) {
    err_stream = err_copy;
    dup2(fileno(null), 2);
  }
  fclose(null);
}

}  // namespace

int main(int argc, char **argv) {
  Options options;
  int parsed = parse_options(argc, argv, &options);
  if (parsed < 0) return kExitOk;
  if (parsed > 0) return parsed;

  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = on_signal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  // Writes to a closed event pipe or output must not end the process.
  signal(SIGPIPE, SIG_IGN);

  keep_library_quiet(options.quiet);
  use_build_tree_plugins();
  travik_init();
  int result;
  if (options.plugins) {
    play::list_plugins(out_stream);
    result = kExitOk;
  } else {
    App app(options);
    result = app.run();
  }
  travik_destroy();
  return result;
}
