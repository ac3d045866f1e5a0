// The video output thread: takes decoded frames, draws them, waits until
// the clock says they are due and flips them; drops the frame after a late
// one; keeps the frame last shown for redraws.
#include <cstdio>

#include "player/player_internal.h"

namespace {

// Sets the device up on the first frame of the input. Called under the
// block's mutex.
void video_setup(travik_player *player, travik_videoframe *frame) {
  player->first_frame = 0;
  travik_stream *stream = player->video_stream;
  std::fprintf(stderr, "width: %d, height: %d, fps: %d\n", stream ? stream->info.width : 0,
               stream ? stream->info.height : 0, stream ? stream->info.framerate : 0);
  travik_video_init(player->video_device, frame->width, frame->height, 1);
  travik_schedule_initvideo(player->schedule, player->video_device, stream);
  player_post(player, TRAVIK_EVENT_VIDEO_STARTED);
}

// Waits until the frame is due, or marks the next frame to be dropped when
// this one is later than the device's delay.
void video_wait(travik_player *player, travik_videoframe *frame) {
  float speed = player->speed;
  if (speed != 1.0f) frame->timestamp = speed_timestamp(frame->timestamp, speed);
  int32_t wait = travik_schedule_getvideointerval(player->schedule, frame);
  int32_t delay = wait <= 0 ? travik_video_getdelay(player->video_device) : 0;
  int32_t sleep = video_late_rules(player, wait, delay);
  if (sleep > 0) travik_sleep_check(sleep, output_running, &player->video_out);
}

void video_out_pass(travik_player *player) {
  player_output_block *block = &player->video_out;
  if (player->first_frame != 1 && player_end_test(player, output_running, block)) {
    travik_thread_pause(block->thread);
    return;
  }
  // Once the device is set up, a finished input ends the wait for a frame:
  // the next pass runs the end test.
  auto *frame = static_cast<travik_videoframe *>(
      output_pop(player, &player->video_ready, player->first_frame != 1));
  if (!frame) return;
  if (!player->video_device) {
    frame->release(frame);
    return;
  }
  pthread_mutex_lock(&block->mutex);
  if (player->late == 1) {
    frame->release(frame);
    player->late = 0;
    pthread_mutex_unlock(&block->mutex);
    return;
  }
  if (player->first_frame == 1) video_setup(player, frame);
  pthread_mutex_unlock(&block->mutex);

  bool timed = player->buffering == 0 && player->playing == 1;
  // Frames before an exact seek's target are timed and flipped, not drawn.
  if (before_target(player, &player->video_target, frame->timestamp)) {
    video_wait(player, frame);
  } else {
    if (player->video_hold != 1) {
      travik_video_draw(player->video_device, 0, 0, -1, -1, frame);
    }
    if (timed) video_wait(player, frame);
  }
  if (player->video_hold != 1) travik_video_flip(player->video_device);

  pthread_mutex_lock(&block->mutex);
  if (player->current) player->current->release(player->current);
  player->current = frame;
  pthread_mutex_unlock(&block->mutex);
  // While paused or buffering one frame is shown, then the thread pauses.
  if (player->buffering != 0 || player->playing == 0) travik_thread_pause(block->thread);
}

}  // namespace

int32_t video_out_body(void *data, int32_t code) {
  auto *player = static_cast<travik_player *>(data);
  player_output_block *block = &player->video_out;
  if (code == TRAVIK_THREAD_RUN) {
    video_out_pass(player);
  } else if (code == TRAVIK_THREAD_PAUSE) {
    pthread_mutex_lock(&block->mutex);
    player->late = 0;
    pthread_mutex_unlock(&block->mutex);
    player->late_average = 0;
  } else if (code == TRAVIK_THREAD_RESET) {
    travik_list *ready = &player->video_ready;
    pthread_mutex_lock(&ready->mutex);
    while (auto *frame = static_cast<travik_videoframe *>(travik_list_pop(ready))) {
      frame->release(frame);
    }
    pthread_cond_signal(&ready->cond);
    pthread_mutex_unlock(&ready->mutex);
    // The frame on screen goes back to its pool too. It is released after
    // the list's lock, as redraws take the block's mutex first.
    pthread_mutex_lock(&block->mutex);
    if (player->current) player->current->release(player->current);
    player->current = nullptr;
    pthread_mutex_unlock(&block->mutex);
    if (player->video_device) travik_video_reset(player->video_device);
  }
  return 0;
}
