// The player object: create, destroy, open, close, the event pipe, the
// internal objects and the end-of-playback test.
#include <sys/select.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/relaxed.h"
#include "base/timed_wait.h"
#include "player/player_internal.h"

namespace {

const int32_t kDefaultAudioFrames = 10;
const int32_t kDefaultVideoFrames = 15;
const int32_t kEventHeader = 4;
const int32_t kEventPayloadMax = 4;

void write_event(travik_player *player, uint16_t code, const void *payload, uint16_t size) {
  travik_player_event event;
  event.code = code;
  event.size = size;
  if (size) std::memcpy(event.data, payload, size);
  travik_player_postevent(player, &event);
}

int32_t count_of(travik_list *list) { return relaxed_load(list->count); }

// A pool smaller than `least_frames` would stop playback for good: the
// decode pass waits for room once `frame_limit` frames exist, and a video
// output holds the picture on screen until the next one comes, so a video
// pool of one frame (or an audio pool of none) waits for a frame that
// nothing will give back. Such sizes are raised to the least that plays.
void decode_block_init(player_decode_block *block, travik_thread_body body, travik_player *player,
                       int32_t frames, int32_t default_frames, int32_t least_frames) {
  drain_packet_init(block);
  block->thread = travik_thread_create(body, player);
  pthread_mutex_init(&block->mutex, nullptr);
  travik_list_init(&block->free_frames);
  block->frame_limit = frames == 0 ? default_frames : frames < least_frames ? least_frames : frames;
}

}  // namespace

// ---- events -----------------------------------------------------------------

void player_post(travik_player *player, int32_t code) {
  write_event(player, static_cast<uint16_t>(code % 256), nullptr, 0);
}

void player_post_error(travik_player *player, int32_t result) {
  write_event(player, TRAVIK_EVENT_ERROR, &result, sizeof result);
}

void player_post_buffering(travik_player *player, int32_t percent) {
  uint8_t value = static_cast<uint8_t>(percent);
  write_event(player, TRAVIK_EVENT_BUFFERING, &value, 1);
}

// ---- output thread control ----------------------------------------------------

void output_play(player_output_block *block) {
  block->interrupt = 0;
  travik_thread_play(block->thread);
}

void output_pause(player_output_block *block) {
  block->interrupt = 1;
  travik_thread_pause(block->thread);
}

// The reset returns once the worker is parked; a frame its last pass
// kept (the video frame on screen) is handed back by one more sweep.
void output_reset(travik_player *player, player_output_block *block) {
  block->interrupt = 1;
  travik_thread_reset(block->thread);
  block->body(player, TRAVIK_THREAD_RESET);
}

// Running while the worker is new or playing, and no pause, reset or end
// has been posted since the last play.
int32_t output_running(void *data) {
  auto *block = static_cast<player_output_block *>(data);
  int32_t state = travik_thread_getstate(block->thread);
  return (state == TRAVIK_THREAD_STATE_NEW || state == TRAVIK_THREAD_STATE_PLAYING) &&
         block->interrupt == 0;
}

// The wait and its condition share the list's mutex, and the decode passes
// and the end of the input signal the list under it once they are done, so
// the last of them cannot slip in between the test and the wait.
void *output_pop(travik_player *player, travik_list *ready, bool may_end) {
  pthread_mutex_lock(&ready->mutex);
  if (ready->count == 0 && !(may_end && player_all_done(player))) {
    pthread_cond_wait(&ready->cond, &ready->mutex);
  }
  void *item = travik_list_pop(ready);
  pthread_mutex_unlock(&ready->mutex);
  return item;
}

// ---- end of playback ------------------------------------------------------------

int player_input_finished(travik_player *player) {
  return player->end_of_stream == 1 &&
         decode_done(&player->audio_decode, &player->audio_packets) &&
         decode_done(&player->video_decode, &player->video_packets);
}

// Besides the four lists, the decode threads must be done: a packet in
// hand, or a drain under way, may still yield frames. Their state is read
// before the ready lists, as a pass queues its frames before it is done.
int player_all_done(travik_player *player) {
  return player_input_finished(player) && count_of(&player->audio_ready) == 0 &&
         count_of(&player->video_ready) == 0;
}

int player_end_test(travik_player *player, travik_sleep_check_fn check, void *arg) {
  pthread_mutex_lock(&player->state_mutex);
  bool finished = player_all_done(player);
  if (!finished) {
    pthread_mutex_unlock(&player->state_mutex);
    return 0;
  }
  if (player->end_pending == 1) {
    player->end_pending = 0;
    pthread_mutex_unlock(&player->state_mutex);
    // Let the clock pass the input's duration first. The wait is cut short
    // when the waiting thread is paused, reset or ended, so that close and
    // destroy need not wait out up to five seconds.
    int32_t d = static_cast<int32_t>(travik_demuxer_getduration(player->demuxer)) -
                travik_schedule_elapsed(player->schedule) + 100;
    if (d >= 1 && d <= 4999) travik_sleep_check(d, check, arg);
    player_post(player, TRAVIK_EVENT_END);
    pthread_mutex_lock(&player->state_mutex);
  }
  pthread_mutex_unlock(&player->state_mutex);
  return 1;
}

extern "C" {

void travik_player_description_init(travik_player_description *description) {
  std::memset(description, 0, sizeof *description);
  description->event_read_fd = -1;
  description->event_write_fd = -1;
}

travik_player *travik_player_create(const travik_player_description *description) {
  auto *player = new travik_player();  // value-initialised: zero-filled
  pthread_mutex_init(&player->state_mutex, nullptr);
  pthread_mutex_init(&player->target_mutex, nullptr);
  travik_list_init(&player->video_packets);
  travik_list_init(&player->audio_packets);
  travik_list_init(&player->audio_ready);
  travik_list_init(&player->video_ready);

  player->event_read_fd = description->event_read_fd;
  player->event_write_fd = description->event_write_fd;
  player->speed = 1.0f;
  player->audio_target = -1;
  player->video_target = -1;
  player->pitch = travik_pitch_scaling_create();

  pthread_mutex_init(&player->audio_out.mutex, nullptr);
  player->audio_out.body = audio_out_body;
  player->audio_out.thread = travik_thread_create(audio_out_body, player);
  player->audio_device = travik_audio_create(description->audio_driver, description->audio_args);
  if (player->audio_device) {
    pthread_mutex_init(&player->video_out.mutex, nullptr);
    player->video_out.body = video_out_body;
    player->video_out.thread = travik_thread_create(video_out_body, player);
    player->video_device =
        travik_video_create(description->video_driver, description->video_args);
  }
  if (!player->audio_device || !player->video_device) {
    std::fputs(player->audio_device ? "Can't open video out plugin!!!\n"
                                    : "Can't open audio out plugin!!!\n",
               stderr);
    if (player->audio_device) travik_audio_destroy(player->audio_device);
    if (player->video_out.thread) {
      travik_thread_destroy(player->video_out.thread);
      pthread_mutex_destroy(&player->video_out.mutex);
    }
    travik_thread_destroy(player->audio_out.thread);
    pthread_mutex_destroy(&player->audio_out.mutex);
    travik_pitch_scaling_destroy(player->pitch);
    travik_list_destroy(&player->video_ready);
    travik_list_destroy(&player->audio_ready);
    travik_list_destroy(&player->audio_packets);
    travik_list_destroy(&player->video_packets);
    pthread_mutex_destroy(&player->target_mutex);
    pthread_mutex_destroy(&player->state_mutex);
    delete player;
    return nullptr;
  }
  travik_video_install_filter(player->video_device, subtitle_overlay, player);
  player->subtitle_visible = 1;

  if (description->video_decoder) player->video_decoder_name = strdup(description->video_decoder);
  if (description->audio_decoder) player->audio_decoder_name = strdup(description->audio_decoder);

  player->input_limit = description->input_limit;
  pthread_mutex_init(&player->input_mutex, nullptr);
  pthread_cond_init(&player->input_cond, nullptr);
  pthread_mutex_init(&player->demux_mutex, nullptr);
  monotonic_cond_init(&player->end_watch_cond);
  pthread_mutex_init(&player->header_mutex, nullptr);
  player->demux_thread = travik_thread_create(demux_body, player);

  decode_block_init(&player->audio_decode, audio_decode_body, player, description->audio_frames,
                    kDefaultAudioFrames, 1);
  decode_block_init(&player->video_decode, video_decode_body, player, description->video_frames,
                    kDefaultVideoFrames, 2);
  return player;
}

void travik_player_destroy(travik_player *player) {
  // Each decode thread ends before its mutex goes: a pass still running
  // holds it.
  travik_thread_destroy(player->demux_thread);
  travik_thread_destroy(player->audio_decode.thread);
  pthread_mutex_destroy(&player->audio_decode.mutex);
  travik_thread_destroy(player->video_decode.thread);
  pthread_mutex_destroy(&player->video_decode.mutex);
  player->video_out.interrupt = 1;
  travik_thread_destroy(player->video_out.thread);
  pthread_mutex_destroy(&player->video_out.mutex);
  travik_video_destroy(player->video_device);
  player->audio_out.interrupt = 1;
  travik_thread_destroy(player->audio_out.thread);
  pthread_mutex_destroy(&player->audio_out.mutex);
  travik_audio_destroy(player->audio_device);
  travik_list_destroy(&player->audio_decode.free_frames);
  travik_list_destroy(&player->video_decode.free_frames);
  travik_pitch_scaling_destroy(player->pitch);
  overlay_destroy(player);
  travik_list_destroy(&player->video_ready);
  travik_list_destroy(&player->audio_ready);
  travik_list_destroy(&player->audio_packets);
  travik_list_destroy(&player->video_packets);
  pthread_mutex_destroy(&player->demux_mutex);
  pthread_cond_destroy(&player->end_watch_cond);
  pthread_mutex_destroy(&player->header_mutex);
  pthread_mutex_destroy(&player->input_mutex);
  pthread_cond_destroy(&player->input_cond);
  pthread_mutex_destroy(&player->target_mutex);
  pthread_mutex_destroy(&player->state_mutex);
  std::free(player->audio_decoder_name);
  std::free(player->video_decoder_name);
  delete player;
}

int travik_player_open(travik_player *player, const char *url) {
  player->io = travik_io_create(url);
  // A URL no back-end can hold is refused here rather than handed on.
  if (!player->io) return 1;
  if (player->io->url.scheme && std::strcmp(player->io->url.scheme, "file") == 0) {
    overlay_attach_beside(player, url);
  }
  travik_demuxer_allocator *allocator = demux_allocator_create(player);
  player->demuxer = travik_demuxer_create(player->io, allocator);
  if (!player->demuxer) {
    // A demuxer that was not made did not take the allocator.
    allocator->destroy(allocator);
    travik_io_destroy(player->io);
    player->io = nullptr;
    return 1;
  }
  pthread_mutex_lock(&player->target_mutex);
  player->audio_target = -1;
  player->video_target = -1;
  pthread_mutex_unlock(&player->target_mutex);
  player->end_pending = 1;
  player->playing = 0;
  player->end_of_stream = 0;
  player->schedule = travik_schedule_create();
  player->restart = 1;
  player->header_pending = 1;
  player->audio_decode.create_pending = 1;
  player->audio_decode.create_only = 0;
  player->video_decode.create_pending = 1;
  player->video_decode.create_only = 0;
  player->init_pending = 1;
  player->first_frame = 1;
  player->late_average = 0;
  player->audio_stream = nullptr;
  player->video_stream = nullptr;
  player->prebuffer_target = player->prebuffer_normal.load();
  player->repush_pending = 0;
  player->restart_pending = 0;
  player->prebuffered = 0;
  player->buffering = 0;
  return 0;
}

void travik_player_close(travik_player *player) {
  if (!player->schedule) return;
  travik_demuxer_control(player->demuxer, 2, nullptr);
  travik_thread_reset(player->demux_thread);
  travik_thread_reset(player->audio_decode.thread);
  travik_thread_reset(player->video_decode.thread);
  if (player->audio_out.thread) output_reset(player, &player->audio_out);
  if (player->video_out.thread) output_reset(player, &player->video_out);

  // The video reset handed the frame on screen back to its pool, so every
  // picture buffer not held by the decoder is on free_frames now.
  if (travik_decoder *decoder = player->video_decode.decoder) travik_decoder_destroy(decoder);
  player->video_decode.decoder = nullptr;
  video_pool_clear(player);
  if (travik_decoder *decoder = player->audio_decode.decoder) travik_decoder_destroy(decoder);
  player->audio_decode.decoder = nullptr;
  audio_pool_clear(player);

  travik_demuxer_destroy(player->demuxer);
  player->demuxer = nullptr;
  travik_schedule_destroy(player->schedule);
  player->schedule = nullptr;
  player->audio_stream = nullptr;
  player->video_stream = nullptr;

  overlay_close(player);
  travik_io_destroy(player->io);
  player->io = nullptr;
}

int travik_player_getevent(travik_player *player, travik_player_event *event) {
  int fd = player->event_read_fd;
  if (fd < 0) return 1;
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(fd, &readable);
  struct timeval timeout = {0, 0};
  if (select(fd + 1, &readable, nullptr, nullptr, &timeout) <= 0) return 1;
  if (read(fd, event, kEventHeader) != kEventHeader) return 1;
  if (event->size == 0) return 0;
  // The record holds at most 4 payload bytes; a larger size cannot be ours.
  if (event->size > kEventPayloadMax) return 1;
  return read(fd, event->data, event->size) == event->size ? 0 : 1;
}

int travik_player_postevent(travik_player *player, const travik_player_event *event) {
  if (player->event_write_fd < 0) return 1;
  // The record holds at most 4 payload bytes: never read past it.
  if (event->size > kEventPayloadMax) return 1;
  ssize_t length = kEventHeader + event->size;
  return write(player->event_write_fd, event, static_cast<size_t>(length)) == length ? 0 : 1;
}

void *travik_player_getobject(travik_player *player, int32_t which) {
  switch (which) {
    case 0: return player->demuxer;
    case 1: return player->audio_decode.decoder.load();
    case 2: return player->video_decode.decoder.load();
    case 3: return player->audio_device;
    case 4: return player->video_device;
    case 5: return player->subtitle;
    case 6: return player->subtitle_image;
    case 7: return player->font;
    case 8: return player->schedule.load();
    default: return nullptr;
  }
}

int travik_player_isplaying(travik_player *player) {
  return player->schedule ? player->playing.load() : 0;
}

int travik_player_isscheduled(travik_player *player) {
  travik_schedule *schedule = player->schedule;
  return schedule ? travik_schedule_isplaying(schedule) : 0;
}

}  // extern "C"
