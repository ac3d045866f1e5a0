// The player record shared by the five playback threads and transport
// control, and the internal calls by which they hand work to each other:
//
//   demux thread  --audio_packets-->  audio decode  --audio_ready-->  audio output
//                 --video_packets-->  video decode  --video_ready-->  video output
//
// Frames go back to their decode block's free_frames pool through their own
// release functions; packets return their bytes to the input accounting.
#pragma once

#include <travik/audio.h>
#include <travik/decoder.h>
#include <travik/demuxer.h>
#include <travik/io.h>
#include <travik/list.h>
#include <travik/pitch.h>
#include <travik/player.h>
#include <travik/schedule.h>
#include <travik/thread.h>
#include <travik/video.h>

#include <pthread.h>

#include <atomic>

struct travik_subtitle;
struct travik_font;

// Flags written by one thread and read by others without a lock.
using flag_t = std::atomic<int32_t>;

// Source control states of a pausable input.
enum {
  SOURCE_NONE = 0,
  SOURCE_PAUSE_REQUESTED = 1,
  SOURCE_RESUME_REQUESTED = 2,
  SOURCE_PAUSED = 3
};

struct player_decode_block {
  travik_thread *thread;
  std::atomic<travik_decoder *> decoder;
  pthread_mutex_t mutex;       // held for a whole decode pass
  flag_t create_pending;       // no decoder tried yet for this input
  flag_t discard_pending;      // after a reset: drop frames until a usable one
  flag_t create_only;          // the next pass only tries to create the decoder
  int32_t frame_limit;
  flag_t frame_count;          // frames ever allocated; written by the decoding thread
  flag_t skip_changed;         // video: the decoder changed the last skip level
  flag_t no_skip;              // video: levels above 0 wait for a low pool
  travik_list free_frames;     // recycled frames
  // The end of the input: `drain_pending` asks the thread to hand the
  // decoder `drain`, a packet without data, after its last packet, so that
  // the frames it holds back come out. Both are set and taken under the
  // packet list's mutex, together with `busy`, which is 1 while a pass
  // works on a packet: the end-of-playback test reads all three at once.
  flag_t drain_pending;
  flag_t busy;
  travik_packet drain;
};

// An output worker's block. `interrupt` cuts a pass's waits short: the
// thread's own state only changes between passes, so a pass polling for
// frames would otherwise never notice a pause, reset or end posted for it.
struct player_output_block {
  travik_thread *thread;
  travik_thread_body body;     // for the last sweep after a reset
  pthread_mutex_t mutex;       // device set-up, `late` and `current`
  flag_t interrupt;
};

// Frames of the decode pools: list items holding the frame record first.
struct pooled_audioframe {
  travik_audioframe frame;
  int32_t capacity;  // bytes in the sample buffer, a heap block of its own
  player_decode_block *owner;
};

struct pooled_videoframe {
  travik_videoframe frame;  // its picture buffer comes from the video device
  travik_player *owner;
};

struct travik_player {
  // Input side.
  travik_io *io;
  travik_thread *demux_thread;
  travik_demuxer *demuxer;
  pthread_mutex_t input_mutex;
  pthread_cond_t input_cond;
  pthread_mutex_t demux_mutex;  // one demux pass at a time
  // Held while the demuxer parses the header, which writes the streams,
  // flags, duration and metadata that the application's thread reads.
  pthread_mutex_t header_mutex;
  flag_t header_pending;
  flag_t restart_pending;
  int32_t source_state;         // SOURCE_*, under state_mutex
  flag_t input_held;            // bytes of packet payload allocated now
  int32_t input_limit;          // 0 or less: no ceiling
  flag_t prebuffered;
  flag_t prebuffer_target;
  flag_t prebuffer_normal;
  flag_t repush_pending;
  flag_t demux_wakeups;         // reset wake-ups so far; cuts the demux thread's waits short
  flag_t end_watch;             // the demux thread runs the end test once the decoders are done
  pthread_cond_t end_watch_cond;  // with demux_mutex: a decode pass ended, or a reset came

  player_decode_block audio_decode;
  char *audio_decoder_name;
  player_decode_block video_decode;
  char *video_decoder_name;

  player_output_block audio_out;
  travik_audio *audio_device;
  flag_t init_pending;          // audio device not yet set up for this input
  travik_pitch_scaling *pitch;

  player_output_block video_out;
  travik_video *video_device;
  flag_t first_frame;           // video device not yet set up for this input
  flag_t restart;               // set by open and seek for the video device's use
  flag_t late_average;          // ms
  int32_t late;                 // drop the next frame; under video_out.mutex
  travik_videoframe *current;   // frame last shown; under video_out.mutex

  std::atomic<travik_stream *> audio_stream;
  std::atomic<travik_stream *> video_stream;

  travik_list video_packets;
  travik_list audio_packets;
  travik_list audio_ready;
  travik_list video_ready;

  std::atomic<travik_schedule *> schedule;  // non-null exactly while an input is open
  flag_t subtitle_visible;
  travik_subtitle *subtitle;
  void *subtitle_item;
  void *subtitle_image;
  void *overlay_target;         // the drawing over the frames' pictures, kept per size
  travik_font *font;

  int32_t event_read_fd;
  int32_t event_write_fd;

  flag_t buffering;             // 0, or the percentage last announced
  flag_t end_of_stream;
  flag_t playing;
  flag_t video_hold;
  flag_t audio_mute;
  flag_t video_off;
  flag_t audio_off;
  flag_t seek_exactly;

  // Exact-seek targets (us, -1 unset). The demux thread and both output
  // threads clear them, so they live under their own leaf lock.
  pthread_mutex_t target_mutex;
  int64_t audio_target;
  int64_t video_target;

  flag_t end_pending;
  std::atomic<float> speed;
  pthread_mutex_t state_mutex;  // source_state and the end-of-playback test
};

// Events (player.cpp).
void player_post(travik_player *player, int32_t code);
void player_post_error(travik_player *player, int32_t result);
void player_post_buffering(travik_player *player, int32_t percent);
// 1 when the input is finished; posts the end event once per input.
// `check` and `arg` cut the wait for the clock short (travik_sleep_check).
int player_end_test(travik_player *player, travik_sleep_check_fn check, void *arg);
// 1 once the input has ended and both decode threads are done with it:
// no packet queued or being decoded, no drain pending. Nothing more can
// reach the ready lists then.
int player_input_finished(travik_player *player);
// 1 when the input is finished and both ready lists are empty: what the
// end-of-playback test waits for.
int player_all_done(travik_player *player);

// Output thread control (player.cpp): these keep `interrupt` in step with
// the requests posted.
void output_play(player_output_block *block);
void output_pause(player_output_block *block);
void output_reset(travik_player *player, player_output_block *block);
// The running check of the output threads' interruptible waits.
int32_t output_running(void *block);
// Pops a frame from a ready list, waiting at most once for one. With
// `may_end` the wait is skipped, or cut short, once everything is done
// (player_all_done), so that the caller's next pass runs the end test.
// While the other output still has frames the wait stands: that output
// ends the input.
void *output_pop(travik_player *player, travik_list *ready, bool may_end);

// Demux thread (demux.cpp).
int32_t demux_body(void *player, int32_t code);
void demux_pass(travik_player *player);
travik_demuxer_allocator *demux_allocator_create(travik_player *player);
int push_decoder_packet(travik_player *player, travik_packet *packet);
void buffering_start(travik_player *player);
void buffering_progress(travik_player *player);
void buffering_end(travik_player *player);
void pipeline_flush(travik_player *player);
void source_state_set(travik_player *player, int32_t state, int32_t expected);
// Marks the end of the input: asks both decode threads to drain their
// decoders, then sets end_of_stream.
void input_ended(travik_player *player);
// The output side of an exact seek: true when a frame stamped `timestamp`
// lies before `target` and must not be presented; the first frame at or
// after it clears the target. Without seek_exactly nothing is filtered.
bool before_target(travik_player *player, int64_t *target, int64_t timestamp);

// Decode threads (decode.cpp).
int32_t audio_decode_body(void *player, int32_t code);
int32_t video_decode_body(void *player, int32_t code);
// With `create_only` the pass only tries to make the decoder.
void audio_decode_pass(travik_player *player, bool create_only);
void video_decode_pass(travik_player *player, bool create_only);
// Makes the block's drain packet: no data, no time, no flags.
void drain_packet_init(player_decode_block *block);
// Whether the decode thread of `packets` has nothing queued, nothing in
// hand and no drain to make.
bool decode_done(player_decode_block *block, travik_list *packets);
// Empties a pool, handing picture buffers back to the device.
void audio_pool_clear(travik_player *player);
void video_pool_clear(travik_player *player);

// Output threads (audio_out.cpp, video_out.cpp).
int32_t audio_out_body(void *player, int32_t code);
int32_t video_out_body(void *player, int32_t code);
// The subtitle overlay (overlay.cpp): a video filter blending the current
// subtitle entry, rendered with the player's font, into each frame drawn.
int32_t subtitle_overlay(void *player, travik_videoframe *frame);
// For a file input without a subtitle: one found beside it is attached.
void overlay_attach_beside(travik_player *player, const char *url);
// Forgets the entry shown and its drawing, then seeks the subtitle source.
void overlay_seek(travik_player *player, int32_t position);
// Releases the entry shown and destroys the subtitle source (close).
void overlay_close(travik_player *player);
// Destroys the font and the drawing over the pictures (destroy).
void overlay_destroy(travik_player *player);

// ---- output timing rules -------------------------------------------------------
// Inline, as they are the rules the tests check one by one; the library
// hides its internal functions from them.

// An output timestamp at a speed other than 1.0: timestamp / speed in
// single precision (speeds are floats), truncated back.
inline int64_t speed_timestamp(int64_t timestamp, float speed) {
  return static_cast<int64_t>(static_cast<float>(timestamp) / speed);
}

// The late-frame rules for a wait (ms) the schedule gave a video frame, with
// the device's delay (ms, only read when the wait is 0 or less). Returns the
// milliseconds to sleep. A frame later than the delay marks the next frame
// to be dropped (`late`). A positive wait is added to `late_average`, which
// halves whenever the old average was positive, and the smaller of the
// average and the wait is slept.
inline int32_t video_late_rules(travik_player *player, int32_t wait, int32_t delay) {
  if (wait <= 0) {
    if (wait < -delay) {
      pthread_mutex_lock(&player->video_out.mutex);
      player->late = 1;
      pthread_mutex_unlock(&player->video_out.mutex);
    }
    return 0;
  }
  int32_t average = player->late_average + wait;
  if (average > wait) average /= 2;
  player->late_average = average;
  return average < wait ? average : wait;
}

// Plays an audio frame at a speed other than 1.0 through the pitch scaler.
// Its timestamp is divided by the speed before the schedule sees it; the
// frame's own buffer receives the scaler's output, so one frame can become
// several writes, and each of them carries timestamp -1. The schedule is
// asked for its effect on the clock only: nothing waits.
inline void audio_play_scaled(travik_player *player, travik_audioframe *frame) {
  frame->timestamp = speed_timestamp(frame->timestamp, player->speed);
  int32_t room = 2 * frame->count;
  travik_pitch_scaling_setsource(player->pitch, frame->samples, room);
  for (;;) {
    int32_t received = 0;
    travik_pitch_scaling_get(player->pitch, frame->samples, room, &received);
    if (received <= 0) break;
    frame->count = received / 2;
    travik_schedule_getaudiointerval(player->schedule, frame);
    frame->timestamp = -1;
    travik_audio_play(player->audio_device, frame);
  }
}
