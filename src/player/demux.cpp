// The demux thread: asks the demuxer for packets and routes those of the
// first audio and the first video stream to the decode threads, keeping the
// payload held within the input ceiling, and runs (re)buffering.
#include <sched.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <utility>

#include <travik/system.h>

#include "base/timed_wait.h"
#include "player/player_internal.h"

namespace {

// A packet from the player's allocator: the record, what it counts against
// the input ceiling and its player, then the payload and 8 spare bytes.
struct player_packet {
  travik_packet packet;
  int32_t accounted;
  travik_player *owner;
};

const int32_t kSpareBytes = 8;
// After the end of the input the demux thread looks at the decode threads
// whenever one runs out of work, and at least this often (ms): a thread
// that runs out just before the watch starts waiting goes unnoticed until
// then.
const int32_t kEndWatchStep = 100;

int32_t accounted_size(travik_packet *packet) {
  return reinterpret_cast<player_packet *>(packet)->accounted;
}

void packet_release(travik_packet *packet) {
  auto *item = reinterpret_cast<player_packet *>(packet);
  travik_player *player = item->owner;
  pthread_mutex_lock(&player->input_mutex);
  player->input_held -= item->accounted;
  if (player->input_held < player->input_limit) pthread_cond_signal(&player->input_cond);
  pthread_mutex_unlock(&player->input_mutex);
  travik_listitem_free_lock(packet);
}

// Only the demux thread allocates, so the addition takes no lock; the
// count is atomic because releases in other threads subtract from it.
travik_packet *packet_alloc(void *user, int32_t size) {
  auto *player = static_cast<travik_player *>(user);
  auto *item = static_cast<player_packet *>(
      travik_listitem_alloc(static_cast<uint32_t>(sizeof(player_packet) + size + kSpareBytes)));
  travik_packet_init(&item->packet);
  item->packet.data = reinterpret_cast<uint8_t *>(item + 1);
  item->packet.size = size;
  item->packet.release = packet_release;
  item->accounted = size;
  item->owner = player;
  player->input_held += size;
  return &item->packet;
}

void allocator_destroy(travik_demuxer_allocator *allocator) {
  auto *player = static_cast<travik_player *>(allocator->user);
  int32_t held = player->input_held;
  if (held != 0) travik_warning("Remain input buffer size: %d\n", held);
  std::free(allocator);
}

void seek_filter(travik_player *player, int64_t *target, travik_packet *packet) {
  pthread_mutex_lock(&player->target_mutex);
  if (*target != -1) {
    if (player->seek_exactly == 1) {
      if (packet->pts == -1 || packet->pts < *target) {
        packet->flags |= TRAVIK_PACKET_DECODE_ONLY;
      } else {
        *target = -1;
      }
    } else {
      *target = -1;
    }
  }
  pthread_mutex_unlock(&player->target_mutex);
}

}  // namespace

bool before_target(travik_player *player, int64_t *target, int64_t timestamp) {
  bool before = false;
  pthread_mutex_lock(&player->target_mutex);
  if (*target != -1 && player->seek_exactly == 1) {
    if (timestamp < *target) {
      before = true;
    } else {
      *target = -1;
    }
  }
  pthread_mutex_unlock(&player->target_mutex);
  return before;
}

namespace {

void push_or_release(travik_player *player, travik_packet *packet) {
  if (!push_decoder_packet(player, packet)) packet->release(packet);
}

// Prebuffer size from the input's bit rate and preroll, in 32-bit
// arithmetic. Without a size, or with one above the ceiling, half the
// ceiling is gathered. The comparison is with the ceiling as it stands: an
// input_limit of 0 (no ceiling) is below any size, so without a ceiling
// the target is always 0 and output starts on the first packet. Players
// that want a prebuffer set a ceiling (travik-play does).
int32_t prebuffer_size(travik_player *player, int32_t *preroll_out) {
  travik_demuxer *demuxer = player->demuxer;
  int32_t preroll = demuxer->fixed_preroll >= 1 ? demuxer->fixed_preroll : demuxer->preroll;
  int32_t size = static_cast<int32_t>(static_cast<uint32_t>(demuxer->bitrate / 8) *
                                      static_cast<uint32_t>(preroll)) /
                 1000;
  if (size == 0 || player->input_limit < size) size = player->input_limit / 2;
  *preroll_out = preroll;
  return size;
}

// The demux thread's waits end early once a reset has been posted: its
// wake-up count moves on.
struct demux_waiter {
  travik_player *player;
  int32_t wakeups;
};

int32_t demux_running(void *data) {
  auto *waiter = static_cast<demux_waiter *>(data);
  return waiter->player->demux_wakeups == waiter->wakeups;
}

}  // namespace

travik_demuxer_allocator *demux_allocator_create(travik_player *player) {
  auto *allocator =
      static_cast<travik_demuxer_allocator *>(std::malloc(sizeof(travik_demuxer_allocator)));
  allocator->user = player;
  allocator->alloc = packet_alloc;
  allocator->destroy = allocator_destroy;
  return allocator;
}

int push_decoder_packet(travik_player *player, travik_packet *packet) {
  if (player->buffering != 0) player->prebuffered += accounted_size(packet);
  travik_stream *stream = travik_demuxer_getstream(player->demuxer, packet->stream);
  if (!stream) {
    travik_warning_detail("push_decoder_packet", "player", 1245,
                          "demuxer stream is NULL, packet->stream_index = %d\n", packet->stream);
    return 0;
  }
  if (stream->info.type == TRAVIK_STREAM_AUDIO) {
    travik_stream *expected = nullptr;
    player->audio_stream.compare_exchange_strong(expected, stream);
    if (player->audio_stream != stream) return 0;
    seek_filter(player, &player->audio_target, packet);
    travik_list_append_lock(&player->audio_packets, packet);
    return 1;
  }
  if (stream->info.type == TRAVIK_STREAM_VIDEO) {
    travik_stream *expected = nullptr;
    player->video_stream.compare_exchange_strong(expected, stream);
    if (player->video_stream != stream) return 0;
    seek_filter(player, &player->video_target, packet);
    travik_list_append_lock(&player->video_packets, packet);
    return 1;
  }
  return 0;
}

void source_state_set(travik_player *player, int32_t state, int32_t expected) {
  pthread_mutex_lock(&player->state_mutex);
  if (player->source_state == expected || expected == -1) player->source_state = state;
  pthread_mutex_unlock(&player->state_mutex);
}

void buffering_start(travik_player *player) {
  if (player->buffering != 0) return;
  int32_t held = player->input_held;
  if (player->end_of_stream == 0 && (held == 0 || held < player->prebuffer_target)) {
    player->buffering = 1;
    player->prebuffered = held;
    if (player->playing) {
      output_pause(&player->audio_out);
      output_pause(&player->video_out);
      travik_schedule_reset(player->schedule);
    }
  } else {
    player->prebuffer_target = player->prebuffer_normal.load();
    if (player->playing) {
      output_play(&player->audio_out);
      output_play(&player->video_out);
    }
  }
}

void buffering_progress(travik_player *player) {
  if (player->buffering == 0) return;
  int32_t prebuffered = player->prebuffered;
  int32_t target = player->prebuffer_target;
  // A target of 0 or less (no ceiling, or a negative one) ends buffering
  // at once, before it could reach the division.
  if (player->end_of_stream == 0 && prebuffered < target && target > 0) {
    auto percent = static_cast<int32_t>(static_cast<int64_t>(prebuffered) * 100 / target);
    // Announced in steps of at least 3 percent.
    if (percent > player->buffering + 2 && percent < 100) {
      player->buffering = percent;
      player_post_buffering(player, percent);
    }
    return;
  }
  player->prebuffer_target = player->prebuffer_normal.load();
  player_post_buffering(player, 100);
  player->buffering = 0;
  player->prebuffered = 0;
  if (player->playing) {
    output_play(&player->audio_out);
    output_play(&player->video_out);
  }
}

void buffering_end(travik_player *player) {
  if (player->buffering == 0) return;
  player->prebuffered = 0;
  player_post_buffering(player, 100);
  player->buffering = 0;
}

void pipeline_flush(travik_player *player) {
  buffering_end(player);
  travik_demuxer_clear_packets(player->demuxer);
  travik_thread_reset(player->audio_decode.thread);
  travik_thread_reset(player->video_decode.thread);
  if (player->audio_out.thread) output_reset(player, &player->audio_out);
  if (player->video_out.thread) output_reset(player, &player->video_out);
}

void demux_pass(travik_player *player) {
  pthread_mutex_lock(&player->demux_mutex);
  travik_demuxer *demuxer = player->demuxer;
  if (player->end_of_stream == 1) {
    buffering_progress(player);
    // The watch belongs to the demux thread (end_watch_pass): a pass run
    // by a seek leaves it, and the thread, alone.
    if (player->end_watch == 0) travik_thread_pause(player->demux_thread);
    pthread_mutex_unlock(&player->demux_mutex);
    return;
  }
  if (player->repush_pending) {
    player->repush_pending = 0;
    while (travik_packet *packet = travik_demuxer_pop(demuxer)) {
      if (packet->flags & TRAVIK_PACKET_DECODE_ONLY) {
        push_or_release(player, packet);
      } else {
        packet->release(packet);
      }
    }
  }
  if (player->header_pending) {
    player->header_pending = 0;
    player_post(player, TRAVIK_EVENT_OPENING);
    pthread_mutex_lock(&player->header_mutex);
    int32_t r = travik_demuxer_parseheader(demuxer);
    // The duration is worked out here, between two driver calls, once: when
    // it comes from the input's length, finding that length seeks the input,
    // which must not happen in another thread while this one reads it.
    if (r == 0) travik_demuxer_getduration(demuxer);
    pthread_mutex_unlock(&player->header_mutex);
    if (r != 0) {
      if (r != TRAVIK_DEMUXER_END) player_post_error(player, r);
      player->end_of_stream = 1;
      player_post(player, TRAVIK_EVENT_END);
      pthread_mutex_unlock(&player->demux_mutex);
      return;
    }
    player_post(player, TRAVIK_EVENT_OPENED);
    int32_t preroll = 0;
    int32_t size = prebuffer_size(player, &preroll);
    std::printf("Bitrate = %d, Preroll = %d, Size = %d\n", demuxer->bitrate, preroll, size);
    std::fflush(stdout);
    player->prebuffer_target = size;
    player->prebuffer_normal = size;
  }

  bool have_result = false;
  int32_t r = 0;
  if (demuxer->flags & TRAVIK_DEMUXER_PAUSABLE) {
    pthread_mutex_lock(&player->state_mutex);
    int32_t state = player->source_state;
    pthread_mutex_unlock(&player->state_mutex);
    if (state == SOURCE_PAUSE_REQUESTED) {
      int32_t result = travik_demuxer_control(demuxer, 1, nullptr);
      if (demuxer->flags & TRAVIK_DEMUXER_NOSEEK) {
        player->restart_pending = 1;
        pipeline_flush(player);
        travik_schedule_reset(player->schedule);
      }
      source_state_set(player, result == 0 ? SOURCE_PAUSED : SOURCE_NONE, SOURCE_PAUSE_REQUESTED);
      pthread_mutex_unlock(&player->demux_mutex);
      return;
    }
    if (state == SOURCE_PAUSED) {
      travik_demuxer_control(demuxer, 5, nullptr);  // keep-alive
      travik_sleep(100);
      pthread_mutex_unlock(&player->demux_mutex);
      return;
    }
    if (state == SOURCE_RESUME_REQUESTED) {
      r = travik_demuxer_control(demuxer, 0, nullptr);
      have_result = true;
      source_state_set(player, SOURCE_NONE, SOURCE_RESUME_REQUESTED);
      if (player->restart_pending) {
        buffering_start(player);
        travik_thread_play(player->audio_decode.thread);
        travik_thread_play(player->video_decode.thread);
        player->restart_pending = 0;
      }
    }
  }

  buffering_progress(player);
  if (player->input_limit > 0) {
    pthread_mutex_lock(&player->input_mutex);
    if (player->input_held > player->input_limit) {
      pthread_cond_wait(&player->input_cond, &player->input_mutex);
    }
    if (player->input_held > player->input_limit) {
      pthread_mutex_unlock(&player->input_mutex);
      pthread_mutex_unlock(&player->demux_mutex);
      return;
    }
    pthread_mutex_unlock(&player->input_mutex);
  }
  if (!have_result) r = travik_demuxer_parse(demuxer, nullptr);
  travik_packet *packet = travik_demuxer_pop(demuxer);
  if (r != 0 && !packet && r != TRAVIK_DEMUXER_END) player_post_error(player, r);
  if (r == 0 && !packet) {
    pthread_mutex_unlock(&player->demux_mutex);
    return;
  }
  for (; packet; packet = travik_demuxer_pop(demuxer)) push_or_release(player, packet);
  // The end is marked after the last packets are queued, so that no decode
  // thread drains its decoder before them. The end test waits until the
  // decoders are done (end_watch_pass).
  if (r != 0) input_ended(player);
  pthread_mutex_unlock(&player->demux_mutex);
}

void input_ended(travik_player *player) {
  for (auto [block, packets] : {std::pair{&player->audio_decode, &player->audio_packets},
                                std::pair{&player->video_decode, &player->video_packets}}) {
    pthread_mutex_lock(&packets->mutex);
    block->drain_pending = 1;
    pthread_cond_signal(&packets->cond);
    pthread_mutex_unlock(&packets->mutex);
  }
  player->end_of_stream = 1;
  player->end_watch = 1;
  // An output thread that found the input unfinished just now waits for
  // frames; it looks again, and waits for the decode threads' own word.
  for (travik_list *ready : {&player->audio_ready, &player->video_ready}) {
    pthread_mutex_lock(&ready->mutex);
    pthread_cond_signal(&ready->cond);
    pthread_mutex_unlock(&ready->mutex);
  }
}

namespace {

// After the end of the input the demux thread watches the decode threads
// drain their decoders, then runs the end-of-playback test once: when
// nothing reached the output threads, or they are not running, END still
// comes from here. The watch waits on `end_watch_cond`, which a decode
// thread signals once it has nothing left to decode, and a reset too (the
// decode threads do not play or pause the demux thread, which would race a
// seek's reset of it). The wait lets go of the demux mutex, so a seek's own
// demux passes need not wait for it. Returns false when there is no watch
// and the pass is an ordinary one.
bool end_watch_pass(travik_player *player) {
  if (player->end_watch == 0) return false;
  demux_waiter waiter = {player, player->demux_wakeups};
  pthread_mutex_lock(&player->demux_mutex);
  bool watching = player->end_watch == 1 && player->end_of_stream == 1;
  bool done = false;
  if (watching) {
    buffering_progress(player);
    done = player_input_finished(player);
    if (done) {
      player->end_watch = 0;
    } else if (demux_running(&waiter)) {
      const struct timespec until = monotonic_deadline(kEndWatchStep);
      pthread_cond_timedwait(&player->end_watch_cond, &player->demux_mutex, &until);
    }
  }
  pthread_mutex_unlock(&player->demux_mutex);
  // The test may wait seconds for the clock: not under the demux mutex,
  // which a seek takes before it resets this thread.
  if (done) {
    player_end_test(player, demux_running, &waiter);
    travik_thread_pause(player->demux_thread);
  }
  return watching;
}

}  // namespace

int32_t demux_body(void *data, int32_t code) {
  auto *player = static_cast<travik_player *>(data);
  if (code == TRAVIK_THREAD_RUN) {
    if (!end_watch_pass(player)) demux_pass(player);
  } else if (code == TRAVIK_THREAD_RESET) {
    player->demux_wakeups += 1;
    player->end_watch = 0;
    pthread_cond_signal(&player->end_watch_cond);
    if (player->demuxer) travik_demuxer_clear_packets(player->demuxer);
    player->repush_pending = 0;
    pthread_mutex_lock(&player->input_mutex);
    player->end_of_stream = 0;
    pthread_cond_signal(&player->input_cond);
    pthread_mutex_unlock(&player->input_mutex);
    sched_yield();
  }
  return 0;
}
