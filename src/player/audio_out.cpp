// The audio output thread: takes decoded frames, waits until the clock says
// they are due and writes them to the audio device; at other speeds the
// samples go through the pitch scaler first.
#include <unistd.h>

#include "base/relaxed.h"
#include "player/player_internal.h"

namespace {

bool ready_empty(travik_player *player) { return relaxed_load(player->audio_ready.count) == 0; }

// Sets the device up for the open input's audio stream, once per input.
void audio_setup(travik_player *player) {
  pthread_mutex_lock(&player->audio_out.mutex);
  if (player->init_pending) {
    player->init_pending = 0;
    travik_stream *stream = player->audio_stream;
    int32_t rate = stream ? stream->info.sample_rate : 0;
    int32_t channels = stream ? stream->info.channels : 0;
    travik_audio_init(player->audio_device, rate, channels);
    if (player->speed != 1.0f) travik_audio_setspeed(player->audio_device, player->speed);
    travik_schedule_initaudio(player->schedule, player->audio_device, stream);
    travik_pitch_scaling_init(player->pitch, rate, channels);
    player_post(player, TRAVIK_EVENT_AUDIO_STARTED);
  }
  pthread_mutex_unlock(&player->audio_out.mutex);
}

void audio_out_pass(travik_player *player) {
  player_output_block *block = &player->audio_out;
  if (player->init_pending == 0 && player_end_test(player, output_running, block)) {
    travik_audio_flush(player->audio_device);
    travik_thread_pause(block->thread);
    return;
  }
  while (ready_empty(player) && output_running(block)) {
    if (player->init_pending == 0 && travik_audio_isempty(player->audio_device) &&
        player->buffering == 0) {
      buffering_start(player);
      return;
    }
    // Nothing more can come and the video output is done too (a muted
    // device, say, may never report empty): the next pass runs the end
    // test. Before the device is set up that test is not run, and while
    // pictures remain the video output ends the input, so polling goes on.
    if (player->init_pending == 0 && player_all_done(player)) return;
    usleep(10000);
  }
  // Stopped while polling: a pop would wait for a frame that may never come.
  if (ready_empty(player)) return;
  auto *frame = static_cast<travik_audioframe *>(travik_list_pop_lock(&player->audio_ready));
  if (!frame) return;
  if (!player->audio_device) {
    frame->release(frame);
    return;
  }
  audio_setup(player);
  bool mute = player->audio_mute == 1;
  if (before_target(player, &player->audio_target, frame->timestamp)) {
    frame->release(frame);
    return;
  }
  if (player->speed == 1.0f) {
    int32_t wait = travik_schedule_getaudiointerval(player->schedule, frame);
    if (wait < 0) {
      frame->release(frame);
      return;
    }
    travik_sleep_check(wait, output_running, block);
    if (!mute) travik_audio_play(player->audio_device, frame);
  } else {
    audio_play_scaled(player, frame);
  }
  frame->release(frame);
}

}  // namespace

int32_t audio_out_body(void *data, int32_t code) {
  auto *player = static_cast<travik_player *>(data);
  if (code == TRAVIK_THREAD_RUN) {
    audio_out_pass(player);
  } else if (code == TRAVIK_THREAD_RESET) {
    travik_list *ready = &player->audio_ready;
    pthread_mutex_lock(&ready->mutex);
    while (auto *frame = static_cast<travik_audioframe *>(travik_list_pop(ready))) {
      frame->release(frame);
    }
    pthread_cond_signal(&ready->cond);
    pthread_mutex_unlock(&ready->mutex);
  }
  return 0;
}
