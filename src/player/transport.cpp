// Transport control: play, pause, seek, speed, position, information keys,
// metadata, overlay replacement, redraw, fades and clock re-basing. All of
// it runs in the application's thread.
#include <travik/timeval.h>

#include <unistd.h>

#include "base/relaxed.h"
#include "player/player_internal.h"

namespace {

const int32_t kSeekAttempts = 50;
const int32_t kFadeWaitLimit = 1000;  // ms
const int32_t kUnityGain = 0x10000;

// The demuxer's streams, flags, duration and metadata as the application's
// thread may read them. While the demux thread parses the header (and
// writes them) the player answers as if it had no demuxer yet, rather than
// block the caller for as long as the input takes to answer.
class HeaderView {
 public:
  explicit HeaderView(travik_player *player) : player_(player) {
    if (player->demuxer && pthread_mutex_trylock(&player->header_mutex) == 0)
      demuxer_ = player->demuxer;
  }
  ~HeaderView() {
    if (demuxer_) pthread_mutex_unlock(&player_->header_mutex);
  }
  HeaderView(const HeaderView &) = delete;
  HeaderView &operator=(const HeaderView &) = delete;
  travik_demuxer *demuxer() const { return demuxer_; }

 private:
  travik_player *player_;
  travik_demuxer *demuxer_ = nullptr;
};

bool pausable(travik_player *player) {
  HeaderView header(player);
  return header.demuxer() && (header.demuxer()->flags & TRAVIK_DEMUXER_PAUSABLE);
}

bool live(travik_player *player) {
  HeaderView header(player);
  return header.demuxer() && (header.demuxer()->flags & TRAVIK_DEMUXER_NOSEEK);
}

void wake_demux(travik_player *player) {
  pthread_mutex_lock(&player->input_mutex);
  pthread_cond_signal(&player->input_cond);
  pthread_mutex_unlock(&player->input_mutex);
}

int32_t count_of(travik_list *list) { return relaxed_load(list->count); }

// The earliest timestamp (ms) among the heads of the lists. The audio
// packets' head counts as it is, even without a time.
int32_t pipeline_position(travik_player *player) {
  bool known = false;
  int64_t value = -1;
  pthread_mutex_lock(&player->audio_packets.mutex);
  if (auto *packet = static_cast<travik_packet *>(player->audio_packets.first)) {
    value = packet->pts / 1000;
    known = true;
  }
  pthread_mutex_unlock(&player->audio_packets.mutex);
  auto consider = [&](int64_t timestamp) {
    if (timestamp == -1) return;
    if (!known || timestamp / 1000 < value) {
      value = timestamp / 1000;
      known = true;
    }
  };
  pthread_mutex_lock(&player->video_packets.mutex);
  if (auto *packet = static_cast<travik_packet *>(player->video_packets.first)) consider(packet->pts);
  pthread_mutex_unlock(&player->video_packets.mutex);
  pthread_mutex_lock(&player->audio_ready.mutex);
  if (auto *frame = static_cast<travik_audioframe *>(player->audio_ready.first)) {
    consider(frame->timestamp);
  }
  pthread_mutex_unlock(&player->audio_ready.mutex);
  pthread_mutex_lock(&player->video_ready.mutex);
  if (auto *frame = static_cast<travik_videoframe *>(player->video_ready.first)) {
    consider(frame->timestamp);
  }
  pthread_mutex_unlock(&player->video_ready.mutex);
  return known ? static_cast<int32_t>(value) : -1;
}

// Whether every stream kind the demuxer declares has its decoder.
bool decoders_ready(travik_player *player, bool *audio_missing, bool *video_missing) {
  travik_demuxer *demuxer = player->demuxer;
  *audio_missing = false;
  *video_missing = false;
  int32_t count = demuxer->stream_count;
  if (count < 0) return true;
  if (count > TRAVIK_DEMUXER_MAX_STREAMS) count = TRAVIK_DEMUXER_MAX_STREAMS;
  for (int32_t i = 0; i < count; i++) {
    travik_stream *stream = demuxer->streams[i];
    if (!stream) continue;
    if (stream->info.type == TRAVIK_STREAM_AUDIO && !player->audio_decode.decoder) {
      *audio_missing = true;
    }
    if (stream->info.type == TRAVIK_STREAM_VIDEO && !player->video_decode.decoder) {
      *video_missing = true;
    }
  }
  return !*audio_missing && !*video_missing;
}

// Before a seek the decoders must exist, so that they can be reset and fed
// the packets that follow the new position. This runs pipeline steps in
// the application's thread, at most 50 of them.
void prepare_decoders(travik_player *player) {
  for (int32_t attempt = 0; attempt < kSeekAttempts; attempt++) {
    bool audio_missing;
    bool video_missing;
    // The demux thread may be declaring the streams (parsing the header)
    // right now: the streams are read under the demux mutex.
    pthread_mutex_lock(&player->demux_mutex);
    bool ready = decoders_ready(player, &audio_missing, &video_missing);
    pthread_mutex_unlock(&player->demux_mutex);
    if (ready) return;
    if (player->end_of_stream == 1) return;
    // Without a ceiling the input is never full.
    bool full = player->input_limit > 0 && player->input_held >= player->input_limit;
    if (full && ((audio_missing && count_of(&player->audio_packets) == 0) ||
                 (video_missing && count_of(&player->video_packets) == 0))) {
      return;
    }
    if (!full) demux_pass(player);
    if (count_of(&player->audio_packets) != 0 && !player->audio_decode.decoder) {
      player->audio_decode.create_only = 1;
      audio_decode_pass(player, true);
    }
    if (count_of(&player->video_packets) != 0 && !player->video_decode.decoder) {
      player->video_decode.create_only = 1;
      video_decode_pass(player, true);
    }
  }
}

int32_t stream_value(travik_stream *stream, int32_t travik_codec_info::*field) {
  return stream ? stream->info.*field : -1;
}

// Fill percentage of the buffering, or of the input ceiling.
int32_t fill_percentage(travik_player *player) {
  int64_t numerator;
  int64_t denominator;
  if (player->buffering != 0) {
    numerator = player->prebuffered;
    denominator = player->prebuffer_target;
  } else {
    numerator = player->input_held;
    denominator = player->input_limit;
  }
  if (denominator == 0) return 100;
  int64_t percent = numerator * 100 / denominator;
  return percent > 100 ? 100 : static_cast<int32_t>(percent);
}

}  // namespace

extern "C" {

int travik_player_play(travik_player *player) {
  if (!player->schedule || player->playing) return 1;
  player->playing = 1;
  source_state_set(player, SOURCE_RESUME_REQUESTED, -1);
  if (pausable(player)) wake_demux(player);
  buffering_start(player);
  travik_thread_play(player->demux_thread);
  travik_thread_play(player->audio_decode.thread);
  travik_thread_play(player->video_decode.thread);
  return 0;
}

int travik_player_pause(travik_player *player) {
  if (!player->playing) return 1;
  source_state_set(player, SOURCE_PAUSE_REQUESTED, -1);
  if (pausable(player)) wake_demux(player);
  output_pause(&player->video_out);
  output_pause(&player->audio_out);
  // A live input that cannot pause resumes at its live edge.
  if (live(player) && !pausable(player)) pipeline_flush(player);
  player->playing = 0;
  travik_schedule_reset(player->schedule);
  return 0;
}

int travik_player_setspeed(travik_player *player, float speed) {
  if (!(speed > 0.0f) || speed == player->speed) return 0;
  travik_player_pause(player);
  output_reset(player, &player->video_out);
  output_reset(player, &player->audio_out);
  player->speed = speed;
  travik_pitch_scaling_clear(player->pitch);
  travik_pitch_scaling_setspeed(player->pitch, speed);
  travik_audio_setspeed(player->audio_device, speed);
  usleep(500000);
  return 0;
}

float travik_player_getspeed(travik_player *player) { return player->speed; }

int32_t travik_player_elapsed(travik_player *player) {
  travik_schedule *schedule = player->schedule;
  if (schedule && travik_schedule_isplaying(schedule)) {
    int32_t elapsed = travik_schedule_elapsed(schedule);
    float speed = player->speed;
    if (speed != 1.0f) elapsed = static_cast<int32_t>(static_cast<float>(elapsed) * speed);
    if (elapsed != -1) return elapsed;
  }
  return pipeline_position(player);
}

int32_t travik_player_elapsed_pts(travik_player *player) {
  travik_schedule *schedule = player->schedule;
  return schedule ? travik_schedule_elapsed_pts(schedule) : -1;
}

int travik_player_seek_with_direction(travik_player *player, int32_t position,
                                      int32_t direction) {
  if (player->demuxer) prepare_decoders(player);
  buffering_end(player);
  travik_demuxer *demuxer = player->demuxer;
  if (!demuxer) return 1;
  // A seek may wait: it reads what the header says once a parse under way
  // has finished.
  pthread_mutex_lock(&player->header_mutex);
  int32_t seekable = travik_demuxer_seekable(demuxer);
  auto duration = static_cast<int32_t>(travik_demuxer_getduration(demuxer));
  pthread_mutex_unlock(&player->header_mutex);
  if (position < 0 || player->buffering != 0 || seekable == 0 || player->end_pending == 0) return 1;
  int32_t current = travik_player_elapsed(player);
  if (duration > 0 && position > duration - 1000) position = duration - 1000;
  if (direction != 0 && direction != 1) direction = position < current ? 1 : 0;

  // The first seek tests the position while the pipeline still runs.
  int32_t r = travik_demuxer_seek(demuxer, position, direction);
  if (r != 0) {
    travik_thread_play(player->demux_thread);
    return r;
  }
  travik_thread_reset(player->demux_thread);
  player->playing = 0;
  player->end_of_stream = 0;
  travik_thread_reset(player->audio_decode.thread);
  travik_thread_reset(player->video_decode.thread);
  output_reset(player, &player->audio_out);
  output_reset(player, &player->video_out);
  travik_schedule_reset(player->schedule);
  // The second one is made on the flushed pipeline.
  r = travik_demuxer_seek(demuxer, position, direction);
  if (r != 0) return r;
  if (count_of(&demuxer->packets) != 0) player->repush_pending = 1;
  pthread_mutex_lock(&player->target_mutex);
  player->audio_target = static_cast<int64_t>(position) * 1000;
  player->video_target = static_cast<int64_t>(position) * 1000;
  pthread_mutex_unlock(&player->target_mutex);
  overlay_seek(player, position);
  buffering_start(player);
  travik_thread_play(player->demux_thread);
  travik_thread_play(player->audio_decode.thread);
  travik_thread_play(player->video_decode.thread);
  // The video output shows one frame of the new position and pauses.
  player->restart = 1;
  output_play(&player->video_out);
  output_pause(&player->audio_out);
  return 0;
}

int travik_player_seek(travik_player *player, int32_t position) {
  return travik_player_seek_with_direction(player, position, -1);
}

int travik_player_setseekexactly(travik_player *player, int32_t flag) {
  player->seek_exactly = flag;
  return 0;
}

int travik_player_setinfo(travik_player *player, int32_t key, int32_t value) {
  switch (key) {
    case 17: player->audio_mute = value; break;
    case 18: player->video_hold = value; break;
    case 19: player->subtitle_visible = value; break;
    case 22: player->audio_off = value; break;
    case 23: player->video_off = value; break;
    default: break;
  }
  return 0;
}

int32_t travik_player_getinfo(travik_player *player, int32_t key) {
  travik_stream *audio = player->audio_stream;
  travik_stream *video = player->video_stream;
  if (key >= 0 && key <= 3) {
    HeaderView header(player);
    travik_demuxer *demuxer = header.demuxer();
    switch (key) {
      case 0: return demuxer && travik_demuxer_seekable(demuxer) > 0 ? 1 : 0;
      case 1: return demuxer ? static_cast<int32_t>(travik_demuxer_getduration(demuxer)) : 0;
      case 2: return demuxer ? travik_demuxer_hasvideo(demuxer) : -1;
      default: return demuxer ? travik_demuxer_hasaudio(demuxer) : -1;
    }
  }
  switch (key) {
    case 4: return stream_value(audio, &travik_codec_info::channels);
    case 5: return stream_value(audio, &travik_codec_info::bits_per_sample);
    case 6: return stream_value(audio, &travik_codec_info::sample_rate);
    case 7: return stream_value(audio, &travik_codec_info::bitrate);
    case 8: return stream_value(video, &travik_codec_info::width);
    case 9: return stream_value(video, &travik_codec_info::height);
    // The field that follows the height in the stream record is the frame rate.
    case 10: return stream_value(video, &travik_codec_info::framerate);
    case 11: return stream_value(video, &travik_codec_info::bitrate);
    case 12: return stream_value(video, &travik_codec_info::framerate);
    case 15: return fill_percentage(player);
    case 16: return live(player) ? 1 : 0;
    case 17: return player->audio_mute;
    case 18: return player->video_hold;
    case 19: return player->subtitle_visible;
    case 22: return player->audio_off;
    case 23: return player->video_off;
    case 24: return player->end_of_stream;
    default: return -1;
  }
}

const char *travik_player_getmeta(travik_player *player, int32_t key) {
  HeaderView header(player);
  if (!header.demuxer()) return nullptr;
  return travik_metadata_gettext(&header.demuxer()->metadata, key);
}

const char *travik_player_getmeta_image(travik_player *player, void **data, int32_t *size) {
  HeaderView header(player);
  if (!header.demuxer()) return nullptr;
  travik_metadata_getdata(&header.demuxer()->metadata, 11, data, size);
  return travik_metadata_gettext(&header.demuxer()->metadata, 12);
}

int travik_player_update(travik_player *player) {
  if (!player->video_device || player->playing) return 1;
  int result = 1;
  pthread_mutex_lock(&player->video_out.mutex);
  travik_videoframe *frame = player->current;
  if (frame) {
    travik_video_draw(player->video_device, 0, 0, -1, -1, frame);
    travik_video_flip(player->video_device);
    result = 0;
  } else {
    // The head of the ready list stays on it: drawn under the list's lock.
    pthread_mutex_lock(&player->video_ready.mutex);
    if (auto *head = static_cast<travik_videoframe *>(player->video_ready.first)) {
      travik_video_draw(player->video_device, 0, 0, -1, -1, head);
      travik_video_flip(player->video_device);
      result = 0;
    }
    pthread_mutex_unlock(&player->video_ready.mutex);
  }
  pthread_mutex_unlock(&player->video_out.mutex);
  return result;
}

int travik_player_fade(travik_player *player, int32_t mode, int32_t milliseconds) {
  if (player->audio_device) travik_audio_fade(player->audio_device, mode, milliseconds);
  return 0;
}

// A fade-out has run its length once its gain has come down by unity.
int travik_player_fadewait(travik_player *player) {
  travik_audio *audio = player->audio_device;
  if (!audio || player->init_pending) return 0;
  if (__atomic_load_n(&audio->fade_mode, __ATOMIC_RELAXED) != TRAVIK_AUDIO_FADE_OUT) return 0;
  travik_time start;
  travik_time_setcurrent(&start);
  for (;;) {
    int32_t position = kUnityGain - __atomic_load_n(&audio->fade_gain, __ATOMIC_RELAXED);
    if ((position < 0 ? -position : position) >= kUnityGain) break;
    if (!player->playing || player->end_of_stream) break;
    travik_time now;
    travik_time_setcurrent(&now);
    travik_time_sub(&now, &now, &start);
    if (now.tv_sec * 1000 + now.tv_usec / 1000 > kFadeWaitLimit) break;
    usleep(1);
  }
  return 0;
}

int travik_player_schedule_reset(travik_player *player) {
  if (!player->playing) return 0;
  output_pause(&player->video_out);
  output_pause(&player->audio_out);
  travik_schedule_reset(player->schedule);
  player->late_average = 0;
  output_play(&player->video_out);
  output_play(&player->audio_out);
  return 0;
}

// The target is bounded by the input ceiling: the demux thread stops at
// the ceiling, so a larger target would never be reached.
int32_t travik_player_setnextmaxprebuffer(travik_player *player, float factor) {
  if (player->playing || player->prebuffer_normal < 1) return -1;
  auto target = static_cast<int32_t>(static_cast<float>(player->prebuffer_normal) * factor);
  if (player->input_limit > 0 && target > player->input_limit) target = player->input_limit;
  if (target > 0) player->prebuffer_target = target;
  return target;
}

}  // extern "C"
