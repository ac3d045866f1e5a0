// travik-play: a small command-line player.
//
// It plays one input from start to end on the calling thread: demux a
// packet, decode it, hand the frames to the output. Audio is paced by the
// audio device (the player waits while the device has no room); video
// without audio is paced by the frame timestamps against the wall clock.
// An input with both audio and video plays its audio only: keeping the two
// in step needs the threaded playback engine, which this player does not
// use.
#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <travik/travik.h>
#include <travik/video.h>
#include <unistd.h>

#include <string>

namespace {

const char kName[] = "travik-play";

volatile sig_atomic_t interrupted = 0;

void on_signal(int) { interrupted = 1; }

void usage(FILE *out) {
  fprintf(out,
          "usage: %s [-a AUDIO[:ARGUMENT]] [-v VIDEO[:ARGUMENT]] [-q] FILE_OR_URL\n"
          "\n"
          "Plays a media file (today: WAV and YUV4MPEG2) from start to end.\n"
          "  -a AUDIO   audio output: auto (default: the best device found), alsa,\n"
          "             wav, null; an argument follows a colon:\n"
          "               -a alsa:hw:0,0   an ALSA PCM (default \"default\")\n"
          "               -a wav:out.wav   write what is played into out.wav\n"
          "               -a null          play silently in real time\n"
          "  -v VIDEO   video output: auto (default), sdl, fbdev, png, y4m, null;\n"
          "             an argument follows a colon (-v y4m:out.y4m, -v png:...)\n"
          "  -q         print nothing but errors\n"
          "  -h         this help\n"
          "\n"
          "An input with both audio and video plays its audio only.\n",
          kName);
}

[[gnu::format(printf, 1, 2)]] void error(const char *format, ...) {
  va_list args;
  va_start(args, format);
  fprintf(stderr, "%s: ", kName);
  vfprintf(stderr, format, args);
  fputc('\n', stderr);
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

  void set(const char *text) {
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
  std::string shown() const { return has_argument ? name + ":" + argument : name; }
};

struct Options {
  OutputChoice audio;
  OutputChoice video;
  bool quiet = false;
  const char *input = nullptr;
};

// Options may come before or after the input; "--" ends them.
// 0 on success, 2 after printing a usage error, -1 after printing help.
int parse_options(int argc, char **argv, Options *options) {
  bool more_options = true;
  for (int i = 1; i < argc; i++) {
    const char *arg = argv[i];
    if (more_options && strcmp(arg, "--") == 0) {
      more_options = false;
      continue;
    }
    if (!more_options || arg[0] != '-' || arg[1] == '\0') {
      if (options->input) {
        error("one file or URL at a time (\"%s\" is one too many)", arg);
        return 2;
      }
      options->input = arg;
      continue;
    }
    if (strcmp(arg, "-h") == 0 || strcmp(arg, "--help") == 0) {
      usage(stdout);
      return -1;
    }
    if (strcmp(arg, "-q") == 0) {
      options->quiet = true;
      continue;
    }
    if (strcmp(arg, "-a") == 0 || strcmp(arg, "-v") == 0) {
      if (i + 1 >= argc || argv[i + 1][0] == '\0') {
        error("option %s needs a driver name", arg);
        return 2;
      }
      (arg[1] == 'a' ? options->audio : options->video).set(argv[++i]);
      continue;
    }
    error("unknown option \"%s\" (see %s -h)", arg, kName);
    return 2;
  }
  if (!options->input) {
    error("no file or URL to play (see %s -h)", kName);
    return 2;
  }
  return 0;
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
  if (getenv("TRAVIK_PLUGINS_DIR")) return;
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

// The decoder framework announces the chosen driver on standard output;
// with -q that line is held back like everything else.
travik_decoder *create_decoder(travik_stream *stream, bool quiet) {
  int saved = -1;
  if (quiet) {
    fflush(stdout);
    saved = dup(1);
    FILE *null = fopen("/dev/null", "w");
    if (null) {
      dup2(fileno(null), 1);
      fclose(null);
    }
  }
  travik_decoder *decoder = travik_decoder_create(stream, nullptr);
  if (saved >= 0) {
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
  }
  return decoder;
}

// What a driver that needs an argument expects, for the error message.
const char *argument_hint(const std::string &name) {
  if (name == "wav") return " (it needs a file name: -a wav:out.wav)";
  if (name == "y4m") return " (it needs a file name: -v y4m:out.y4m)";
  if (name == "png") return " (it needs a directory: -v png:dir=frames or -v png:/tmp/frames)";
  return "";
}

travik_audio *open_audio(const OutputChoice &choice) {
  // "driver" is how an application hands in its own operation table; a
  // command line cannot.
  if (choice.name != "auto") {
    travik_plugin *plugin =
        choice.name == "driver" ? nullptr : travik_audio_load_driver(choice.name.c_str());
    if (!plugin) {
      error("no audio output called \"%s\" (audio outputs: auto, alsa, wav, null)",
            choice.name.c_str());
      return nullptr;
    }
    travik_plugin_destroy(plugin);
  }
  travik_audio *audio = travik_audio_create(choice.name.c_str(), choice.open_argument());
  if (!audio) {
    if (choice.name == "auto")
      error("no audio output available (no audio-output plugin found a device; try -a wav:out.wav)");
    else
      error("cannot open audio output \"%s\"%s", choice.shown().c_str(),
            choice.has_argument ? "" : argument_hint(choice.name));
  }
  return audio;
}

travik_video *open_video(const OutputChoice &choice) {
  if (choice.name != "auto") {
    travik_plugin *plugin =
        choice.name == "driver" ? nullptr : travik_video_load_driver(choice.name.c_str());
    if (!plugin) {
      error("no video output called \"%s\" (video outputs: auto, sdl, fbdev, png, y4m, null)",
            choice.name.c_str());
      return nullptr;
    }
    travik_plugin_destroy(plugin);
  }
  travik_video *video = travik_video_create(choice.name.c_str(), choice.open_argument());
  if (!video) {
    if (choice.name == "auto")
      error("no video output available (no video-output plugin found a display; try -v "
            "y4m:out.y4m)");
    else
      error("cannot open video output \"%s\"%s", choice.shown().c_str(),
            choice.has_argument ? "" : argument_hint(choice.name));
  }
  return video;
}

// Everything one run holds; released in reverse order by close().
struct Session {
  travik_io *io = nullptr;
  travik_demuxer *demuxer = nullptr;
  travik_stream *stream = nullptr;  // the one stream played
  travik_decoder *decoder = nullptr;
  travik_audio *audio = nullptr;
  travik_video *video = nullptr;
  bool video_ready = false;    // travik_video_init done
  long long start_ms = 0;      // wall clock of the first picture
  int64_t first_pts = -1;      // its timestamp
  long long last_due_ms = 0;   // when the previous picture was due
  int32_t write_bytes = 0;     // the audio device's write size

  void close() {
    if (decoder) travik_decoder_destroy(decoder);
    if (demuxer) {
      travik_demuxer_clear_packets(demuxer);
      travik_demuxer_destroy(demuxer);
    }
    if (io) travik_io_destroy(io);
    if (audio) travik_audio_destroy(audio);
    if (video) travik_video_destroy(video);
  }
};

// Waits while the audio device has no room for one more write, in steps of
// half a write's duration. A device that reports no space (-1: it holds
// nothing) can take a write at once. Bounded, so that a device whose space
// never grows cannot stall the player: the write itself then blocks.
void wait_for_room(travik_audio *audio, int32_t wanted) {
  long long deadline = now_ms() + 2000;
  while (!interrupted) {
    int32_t space = travik_audio_getspace(audio);
    if (space < 0 || space >= wanted) return;
    if (now_ms() >= deadline) return;
    int32_t step = travik_audio_getinterval(audio) / 2;
    if (step < 1) step = 1;
    if (step > 50) step = 50;
    travik_sleep(static_cast<uint32_t>(step));
  }
}

// After the last write: waits until the device has played what it holds.
void drain_audio(travik_audio *audio) {
  int32_t held = travik_audio_getdelay(audio);
  long long deadline = now_ms() + (held > 0 ? held : 0) + 1000;
  while (!interrupted && !travik_audio_isempty(audio) && now_ms() < deadline) travik_sleep(10);
}

void play_audio_frame(Session *session, travik_audioframe *frame) {
  wait_for_room(session->audio, session->write_bytes);
  if (!interrupted) travik_audio_play(session->audio, frame);
}

// Sleeps `ms` milliseconds in short steps, ending early on a signal.
void sleep_ms(long long ms) {
  while (ms > 0 && !interrupted) {
    long long step = ms < 50 ? ms : 50;
    travik_sleep(static_cast<uint32_t>(step));
    ms -= step;
  }
}

// Draws the picture, waits until it is due (its timestamp after the first
// one's, on the wall clock) and shows it.
bool play_video_frame(Session *session, travik_videoframe *frame) {
  if (!session->video_ready) {
    if (travik_video_init(session->video, frame->width, frame->height, 1) != 0) {
      error("the video output refused a %dx%d picture", static_cast<int>(frame->width),
            static_cast<int>(frame->height));
      return false;
    }
    session->video_ready = true;
  }
  travik_video_draw(session->video, 0, 0, -1, -1, frame);
  long long now = now_ms();
  long long due;
  if (session->first_pts < 0) {
    session->first_pts = frame->timestamp >= 0 ? frame->timestamp : 0;
    session->start_ms = now;
    due = now;
  } else if (frame->timestamp >= 0) {
    due = session->start_ms + (frame->timestamp - session->first_pts) / 1000;
  } else {
    // No time: one frame period after the previous picture.
    int32_t rate = session->stream->info.framerate;
    due = session->last_due_ms + (rate > 0 ? 100000 / rate : 40);
  }
  // A jump in the timestamps (more than five seconds ahead, or back before
  // the previous picture) starts the clock again at this picture.
  if (due - now > 5000 || due < session->last_due_ms) {
    session->first_pts = frame->timestamp >= 0 ? frame->timestamp : session->first_pts;
    session->start_ms = now;
    due = now;
  }
  session->last_due_ms = due;
  sleep_ms(due - now);
  travik_video_flip(session->video);
  return true;
}

// Keeps the last picture on screen for one frame period.
void hold_last_picture(Session *session) {
  int32_t rate = session->stream->info.framerate;
  if (session->video_ready) sleep_ms(rate > 0 ? 100000 / rate : 40);
}

// Decodes one packet of the played stream and plays its frames.
bool decode_packet(Session *session, travik_packet *packet) {
  travik_decoder_setsource(session->decoder, packet);
  bool ok = true;
  for (;;) {
    void *frame = nullptr;
    int32_t level = 0;  // skip nothing
    int32_t done = travik_decoder_decode(session->decoder, &level, &frame);
    if (frame) {
      int32_t kind = *static_cast<int32_t *>(frame);
      if (kind == TRAVIK_FRAME_AUDIO) {
        auto *audio = static_cast<travik_audioframe *>(frame);
        if (ok && session->audio) play_audio_frame(session, audio);
        audio->release(audio);
      } else if (kind == TRAVIK_FRAME_VIDEO) {
        auto *video = static_cast<travik_videoframe *>(frame);
        if (ok && session->video) ok = play_video_frame(session, video);
        video->release(video);
      }
    }
    if (done || interrupted) break;
  }
  return ok;
}

int run(const Options &options) {
  Session session;
  const char *input = options.input;

  session.io = travik_io_create(input);
  if (!session.io->backend && !session.io->url.scheme) {
    error("\"%s\" is not a file name or URL", input);
    session.close();
    return 1;
  }
  if (session.io->backend) {
    errno = 0;
    if (travik_io_open(session.io, -1) != 0) {
      if (errno)
        error("cannot open \"%s\": %s", input, strerror(errno));
      else
        error("cannot open \"%s\"", input);
      session.close();
      return 1;
    }
  }

  session.demuxer = travik_demuxer_create(session.io, nullptr);
  if (!session.demuxer) {
    const char *extension = session.io->url.extension;
    if (!session.io->backend)
      error("nothing reads \"%s\": no I/O back-end or demuxer plugin serves the scheme \"%s\"",
            input, session.io->url.scheme);
    else if (!extension)
      error("cannot tell the format of \"%s\": the name has no extension (supported today: "
            "WAV .wav, YUV4MPEG2 .y4m)",
            input);
    else
      error("no demuxer plugin accepts \"%s\" (extension .%s; supported today: WAV .wav, "
            "YUV4MPEG2 .y4m)",
            input, extension);
    session.close();
    return 1;
  }
  if (travik_demuxer_parseheader(session.demuxer) != 0) {
    error("\"%s\" is not a valid %s file (its header cannot be read)", input,
          session.demuxer->driver->description);
    session.close();
    return 1;
  }

  travik_stream *audio_stream = nullptr, *video_stream = nullptr;
  for (int32_t i = 0; i < session.demuxer->stream_count && i < TRAVIK_DEMUXER_MAX_STREAMS; i++) {
    travik_stream *stream = travik_demuxer_getstream(session.demuxer, i);
    if (!stream) continue;
    if (stream->info.type == TRAVIK_STREAM_AUDIO && !audio_stream) audio_stream = stream;
    if (stream->info.type == TRAVIK_STREAM_VIDEO && !video_stream) video_stream = stream;
  }

  if (!options.quiet) {
    std::string line = std::string(input) + ": " + session.demuxer->driver->description + ", " +
                       describe_duration(travik_demuxer_getduration(session.demuxer));
    for (int32_t i = 0; i < session.demuxer->stream_count && i < TRAVIK_DEMUXER_MAX_STREAMS; i++) {
      travik_stream *stream = travik_demuxer_getstream(session.demuxer, i);
      if (stream) line += "; " + describe_stream(stream);
    }
    printf("%s\n", line.c_str());
    fflush(stdout);
  }

  if (!audio_stream && !video_stream) {
    error("\"%s\" holds no audio or video stream", input);
    session.close();
    return 1;
  }
  if (audio_stream && video_stream) {
    if (!options.quiet)
      fprintf(stderr,
              "%s: \"%s\" has audio and video; this player plays one kind at a time: "
              "playing the audio only\n",
              kName, input);
    video_stream = nullptr;
  }
  session.stream = audio_stream ? audio_stream : video_stream;

  session.decoder = create_decoder(session.stream, options.quiet);
  if (!session.decoder) {
    const char *codec = codec_name(session.stream->info.codec);
    error("no decoder plugin for the %s stream (codec %d%s%s)", audio_stream ? "audio" : "video",
          static_cast<int>(session.stream->info.codec), codec ? ", " : "", codec ? codec : "");
    session.close();
    return 1;
  }

  if (audio_stream) {
    session.audio = open_audio(options.audio);
    if (!session.audio) {
      session.close();
      return 1;
    }
    if (travik_audio_init(session.audio, audio_stream->info.sample_rate,
                          audio_stream->info.channels) != 0) {
      error("the audio output \"%s\" cannot play %d Hz with %d channel(s)",
            options.audio.shown().c_str(), static_cast<int>(audio_stream->info.sample_rate),
            static_cast<int>(audio_stream->info.channels));
      session.close();
      return 1;
    }
    session.write_bytes = session.audio->driver->bufsize;
    // "auto" falls back on the silent output when no sound device opens.
    if (options.audio.name == "auto" && strcmp(session.audio->driver->name, "null") == 0 &&
        !options.quiet)
      fprintf(stderr, "%s: no sound device found: playing silently (\"null\" audio output)\n",
              kName);
  }
  if (video_stream) {
    session.video = open_video(options.video);
    if (!session.video) {
      session.close();
      return 1;
    }
    if (options.video.name == "auto" && strcmp(session.video->driver->name, "null") == 0 &&
        !options.quiet)
      fprintf(stderr, "%s: no display found: showing nothing (\"null\" video output)\n", kName);
  }

  int32_t status = 0;
  bool ok = true;
  while (ok && !interrupted) {
    status = travik_demuxer_parse(session.demuxer, nullptr);
    while (travik_packet *packet = travik_demuxer_pop(session.demuxer)) {
      if (ok && !interrupted && packet->stream == session.stream->index)
        ok = decode_packet(&session, packet);
      packet->release(packet);
    }
    if (status != 0) break;
  }

  if (session.audio) {
    if (interrupted) {
      travik_audio_reset(session.audio);
    } else {
      travik_audio_flush(session.audio);
      drain_audio(session.audio);
    }
  }
  if (session.video && !interrupted && ok) hold_last_picture(&session);

  int result = 0;
  if (interrupted) {
    result = 130;
  } else if (!ok) {
    result = 1;
  } else if (status != TRAVIK_DEMUXER_END) {
    error("\"%s\" ended early: the file is truncated or damaged (status %d)", input,
          static_cast<int>(status));
    result = 1;
  }
  session.close();
  return result;
}

}  // namespace

int main(int argc, char **argv) {
  Options options;
  int parsed = parse_options(argc, argv, &options);
  if (parsed < 0) return 0;
  if (parsed > 0) return parsed;

  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = on_signal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);

  use_build_tree_plugins();
  travik_init();
  int result = run(options);
  travik_destroy();
  return result;
}
