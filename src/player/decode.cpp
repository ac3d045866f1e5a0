// The decode threads: one packet per pass through the stream's decoder into
// pooled frames, appended to the ready lists of the output threads. A full
// pool blocks decoding until an output releases a frame.
#include <cstdio>
#include <cstdlib>
#include <initializer_list>

#include "base/relaxed.h"
#include "player/player_internal.h"

namespace {

// The packet's opaque word handed on to the frames decoded from it.
int32_t packet_tag(const travik_packet *packet) { return packet->extra; }

int32_t count_of(travik_list *list) { return relaxed_load(list->count); }

// Pooled frames change hands between threads: their counts are atomic.
template <typename Frame>
int32_t pooled_addref(Frame *frame) {
  return __atomic_add_fetch(&frame->refcount, 1, __ATOMIC_ACQ_REL);
}

int32_t audio_recycle(travik_audioframe *frame) {
  int32_t count = __atomic_sub_fetch(&frame->refcount, 1, __ATOMIC_ACQ_REL);
  if (count == 0) {
    travik_list_append_lock(&reinterpret_cast<pooled_audioframe *>(frame)->owner->free_frames,
                            frame);
  }
  return count;
}

int32_t video_recycle(travik_videoframe *frame) {
  int32_t count = __atomic_sub_fetch(&frame->refcount, 1, __ATOMIC_ACQ_REL);
  if (count == 0) {
    travik_list_append_lock(
        &reinterpret_cast<pooled_videoframe *>(frame)->owner->video_decode.free_frames, frame);
  }
  return count;
}

void *audio_allocate(void *user, void *templ_data) {
  auto *block = static_cast<player_decode_block *>(user);
  auto *templ = static_cast<travik_audioframe *>(templ_data);
  int32_t size = 2 * templ->count;
  pooled_audioframe *pooled;
  if (block->frame_count < block->frame_limit) {
    pooled = static_cast<pooled_audioframe *>(travik_listitem_alloc(sizeof(pooled_audioframe)));
    travik_audioframe_init(&pooled->frame, templ);
    pooled->capacity = size;
    pooled->frame.samples = static_cast<int16_t *>(std::malloc(static_cast<size_t>(size)));
    pooled->owner = block;
    block->frame_count += 1;
  } else {
    pooled = static_cast<pooled_audioframe *>(travik_list_pop_lock(&block->free_frames));
    if (!pooled) return nullptr;
    // A buffer is replaced only when a larger frame arrives.
    if (pooled->capacity < size) {
      std::free(pooled->frame.samples);
      pooled->frame.samples = static_cast<int16_t *>(std::malloc(static_cast<size_t>(size)));
      pooled->capacity = size;
    }
    pooled->frame.refcount = 1;
  }
  pooled->frame.timestamp = templ->timestamp;
  pooled->frame.count = templ->count;
  pooled->frame.addref = pooled_addref<travik_audioframe>;
  pooled->frame.release = audio_recycle;
  return &pooled->frame;
}

// Two frames beyond the pool size stay available for those the decoder
// keeps itself; the decode pass waits for room at the pool size.
void *video_allocate(void *user, void *templ_data) {
  auto *player = static_cast<travik_player *>(user);
  auto *templ = static_cast<travik_videoframe *>(templ_data);
  player_decode_block *block = &player->video_decode;
  pooled_videoframe *pooled;
  if (block->frame_count < block->frame_limit + 2) {
    pooled = static_cast<pooled_videoframe *>(travik_listitem_alloc(sizeof(pooled_videoframe)));
    travik_videoframe_init(&pooled->frame, templ);
    travik_video_allocbuffer(player->video_device, pooled->frame.planes, pooled->frame.pitches,
                             templ->width, templ->height);
    pooled->owner = player;
    block->frame_count += 1;
  } else {
    pooled = static_cast<pooled_videoframe *>(travik_list_pop_lock(&block->free_frames));
    if (!pooled) return nullptr;
    if (pooled->frame.width != templ->width || pooled->frame.height != templ->height) {
      travik_video_freebuffer(player->video_device, pooled->frame.planes);
      travik_video_allocbuffer(player->video_device, pooled->frame.planes, pooled->frame.pitches,
                               templ->width, templ->height);
      pooled->frame.width = templ->width;
      pooled->frame.height = templ->height;
    }
    pooled->frame.timestamp = templ->timestamp;
    pooled->frame.info = templ->info;
    pooled->frame.format = templ->format;
    pooled->frame.refcount = 1;
  }
  pooled->frame.addref = pooled_addref<travik_videoframe>;
  pooled->frame.release = video_recycle;
  return &pooled->frame;
}

travik_decoder_allocator *allocator_create(void *user, void *(*alloc)(void *, void *)) {
  auto *allocator =
      static_cast<travik_decoder_allocator *>(std::malloc(sizeof(travik_decoder_allocator)));
  allocator->user = user;
  allocator->alloc = alloc;
  allocator->destroy = [](travik_decoder_allocator *self) { std::free(self); };
  return allocator;
}

// Makes the decoder on the first pass that knows the stream. Called with
// the block's mutex held.
void create_decoder(travik_player *player, player_decode_block *block, travik_stream *stream,
                    travik_decoder_allocator *allocator, const char *name, const char *kind,
                    int32_t failure_event) {
  block->create_pending = 0;
  block->decoder = travik_decoder_create_by_name(stream, allocator, name);
  if (block->decoder) {
    std::fprintf(stderr, "%s decoder: %s\n", kind, block->decoder.load()->driver->description);
  } else {
    player_post(player, failure_event);
  }
}

// Drops frames after a reset until one output may restart at. Returns the
// frame to keep, or null when it was released.
template <typename Frame>
Frame *discard_filter(player_decode_block *block, Frame *frame, bool acceptable) {
  if (!acceptable) {
    frame->release(frame);
    return nullptr;
  }
  block->discard_pending = 0;
  return frame;
}

// Takes the next packet to decode, waiting at most once for one; after
// the last packet of the input, the block's drain packet. The pass is
// `busy` from here until it has queued what the packet gave.
travik_packet *take_packet(player_decode_block *block, travik_list *packets) {
  pthread_mutex_lock(&packets->mutex);
  if (packets->count == 0 && block->drain_pending == 0) {
    pthread_cond_wait(&packets->cond, &packets->mutex);
  }
  auto *packet = static_cast<travik_packet *>(travik_list_pop(packets));
  if (!packet && block->drain_pending) {
    block->drain_pending = 0;
    packet = &block->drain;
  }
  if (packet) block->busy = 1;
  pthread_mutex_unlock(&packets->mutex);
  return packet;
}

// The pass is done with its packet. After the end of the input this may be
// the last work there was: the output threads waiting for frames are told,
// under their lists' mutexes, so that none of them misses it. So is the
// demux thread's end watch once this thread has nothing left to decode
// (without the demux mutex, which a demux pass may hold while it resets
// this thread; the watch's own time limit covers a signal sent just before
// it waits).
void pass_done(travik_player *player, player_decode_block *block, travik_list *packets) {
  block->busy = 0;
  if (player->end_of_stream != 1) return;
  if (decode_done(block, packets)) pthread_cond_signal(&player->end_watch_cond);
  for (travik_list *ready : {&player->audio_ready, &player->video_ready}) {
    pthread_mutex_lock(&ready->mutex);
    pthread_cond_signal(&ready->cond);
    pthread_mutex_unlock(&ready->mutex);
  }
}

// The drain packet belongs to its block and is never freed.
void keep_drain_packet(travik_packet *) {}

// Frames drained after the last packet carry that packet's tag.
void note_packet(player_decode_block *block, const travik_packet *packet) {
  if (packet != &block->drain) block->drain.extra = packet_tag(packet);
}

void decode_reset(player_decode_block *block, travik_list *packets) {
  pthread_mutex_lock(&packets->mutex);
  while (auto *packet = static_cast<travik_packet *>(travik_list_pop(packets))) {
    packet->release(packet);
  }
  // A drain not yet begun is dropped; one under way ends with the decoder's
  // reset below, which forgets what the decoder held.
  block->drain_pending = 0;
  pthread_cond_signal(&packets->cond);
  pthread_mutex_unlock(&packets->mutex);
  travik_list_cancel_lock(&block->free_frames);
  block->discard_pending = 1;
}

// Takes the block's mutex for a create-only pass, which a seek runs from the
// application's thread; false when there is nothing left for it to do. The
// decode thread holds that mutex for a whole pass, and a pass may wait for
// good: for a packet once the whole input has been demuxed, or for a free
// frame while paused with a full pool. So while the mutex is taken, a pass
// waiting for a packet is woken (it finds none and lets go); and once the
// decode thread's own pass has tried the decoder, the create-only pass is
// not needed and is skipped instead of waiting behind a full pool.
bool lock_for_create(player_decode_block *block, travik_list *packets) {
  while (pthread_mutex_trylock(&block->mutex) != 0) {
    if (block->create_pending == 0) return false;
    travik_list_cancel_lock(packets);
    travik_sleep(1);
  }
  return true;
}

}  // namespace

void audio_decode_pass(travik_player *player, bool create_only) {
  player_decode_block *block = &player->audio_decode;
  if (create_only) {
    if (!lock_for_create(block, &player->audio_packets)) {
      block->create_only = 0;
      return;
    }
  } else {
    pthread_mutex_lock(&block->mutex);
  }
  travik_packet *packet = nullptr;
  if (!create_only) {
    packet = take_packet(block, &player->audio_packets);
    if (!packet) {
      pthread_mutex_unlock(&block->mutex);
      return;
    }
  }
  travik_stream *stream = player->audio_stream;
  if (block->create_pending && stream) {
    create_decoder(player, block, stream, allocator_create(block, audio_allocate),
                   player->audio_decoder_name, "Audio", TRAVIK_EVENT_NO_AUDIO_DECODER);
  }
  if (create_only) {
    block->create_only = 0;
    pthread_mutex_unlock(&block->mutex);
    return;
  }
  note_packet(block, packet);
  if (block->decoder && player->audio_off == 0) {
    travik_decoder_setsource(block->decoder, packet);
    int32_t level = 0;
    while (block->frame_count < block->frame_limit || count_of(&block->free_frames) != 0 ||
           travik_list_wait_lock(&block->free_frames)) {
      void *out = nullptr;
      bool done = travik_decoder_decode(block->decoder, &level, &out) != 0;
      auto *frame = static_cast<travik_audioframe *>(out);
      // A pass that is done must end even while discarding: the decoder
      // has nothing more for this packet.
      if (frame && block->discard_pending) {
        frame = discard_filter(block, frame, frame->timestamp != -1);
      }
      if (frame) {
        if (packet->flags & TRAVIK_PACKET_DECODE_ONLY) {
          frame->release(frame);
        } else {
          frame->tag = packet_tag(packet);
          travik_list_append_lock(&player->audio_ready, frame);
        }
      }
      if (done) break;
    }
  }
  pthread_mutex_unlock(&block->mutex);
  packet->release(packet);
  pass_done(player, block, &player->audio_packets);
}

void video_decode_pass(travik_player *player, bool create_only) {
  player_decode_block *block = &player->video_decode;
  if (create_only) {
    if (!lock_for_create(block, &player->video_packets)) {
      block->create_only = 0;
      return;
    }
  } else {
    pthread_mutex_lock(&block->mutex);
  }
  travik_packet *packet = nullptr;
  if (!create_only) {
    packet = take_packet(block, &player->video_packets);
    if (!packet) {
      pthread_mutex_unlock(&block->mutex);
      return;
    }
  }
  travik_stream *stream = player->video_stream;
  if (block->create_pending && stream) {
    create_decoder(player, block, stream, allocator_create(player, video_allocate),
                   player->video_decoder_name, "Video", TRAVIK_EVENT_NO_VIDEO_DECODER);
  }
  if (create_only) {
    block->create_only = 0;
    pthread_mutex_unlock(&block->mutex);
    return;
  }
  note_packet(block, packet);
  if (block->decoder && player->video_off == 0) {
    travik_decoder_setsource(block->decoder, packet);
    int32_t r;
    do {
      int32_t free = count_of(&block->free_frames);
      if (block->frame_count >= block->frame_limit && free == 0) {
        if (!travik_list_wait_lock(&block->free_frames)) break;
        free = count_of(&block->free_frames);
      }
      int32_t ready = count_of(&player->video_ready);
      if (free < 3) block->no_skip = 0;
      int32_t requested = 0;
      if (block->no_skip != 1) {
        if (ready < 2) {
          requested = 2;
        } else if (free >= 6 && block->skip_changed == 0) {
          requested = 1;
        }
      }
      int32_t level = requested;
      void *out = nullptr;
      r = travik_decoder_decode(block->decoder, &level, &out);
      auto *frame = static_cast<travik_videoframe *>(out);
      if (level != requested) {
        block->skip_changed = 1;
      } else if (frame) {
        block->skip_changed = 0;
      }
      // Only a frame with a time and info 1 restarts output after a reset.
      if (frame && block->discard_pending) {
        frame = discard_filter(block, frame, frame->timestamp != -1 && frame->info == 1);
      }
      if (frame) {
        if (packet->flags & TRAVIK_PACKET_DECODE_ONLY) {
          frame->release(frame);
        } else {
          frame->tag = packet_tag(packet);
          travik_list_append_lock(&player->video_ready, frame);
        }
      }
    } while (r == 0);
  }
  pthread_mutex_unlock(&block->mutex);
  packet->release(packet);
  pass_done(player, block, &player->video_packets);
}

// Read under the packet list's mutex, where the pass takes its packet and
// becomes busy in one step.
bool decode_done(player_decode_block *block, travik_list *packets) {
  pthread_mutex_lock(&packets->mutex);
  bool done = packets->count == 0 && block->busy == 0 && block->drain_pending == 0;
  pthread_mutex_unlock(&packets->mutex);
  return done;
}

void drain_packet_init(player_decode_block *block) {
  travik_packet_init(&block->drain);
  block->drain.data = nullptr;
  block->drain.size = 0;
  block->drain.release = keep_drain_packet;
}

void audio_pool_clear(travik_player *player) {
  player_decode_block *block = &player->audio_decode;
  pthread_mutex_lock(&block->free_frames.mutex);
  for (void *item = block->free_frames.first; item; item = travik_listitem_getnext(item)) {
    std::free(static_cast<pooled_audioframe *>(item)->frame.samples);
  }
  travik_list_clear(&block->free_frames);
  pthread_mutex_unlock(&block->free_frames.mutex);
  block->frame_count = 0;
}

void video_pool_clear(travik_player *player) {
  player_decode_block *block = &player->video_decode;
  pthread_mutex_lock(&block->free_frames.mutex);
  for (void *item = block->free_frames.first; item; item = travik_listitem_getnext(item)) {
    travik_video_freebuffer(player->video_device, static_cast<pooled_videoframe *>(item)->frame.planes);
  }
  travik_list_clear(&block->free_frames);
  pthread_mutex_unlock(&block->free_frames.mutex);
  block->frame_count = 0;
}

int32_t audio_decode_body(void *data, int32_t code) {
  auto *player = static_cast<travik_player *>(data);
  if (code == TRAVIK_THREAD_RUN) {
    audio_decode_pass(player, player->audio_decode.create_only != 0);
  } else if (code == TRAVIK_THREAD_RESET) {
    decode_reset(&player->audio_decode, &player->audio_packets);
    if (travik_decoder *decoder = player->audio_decode.decoder) travik_decoder_reset(decoder);
  }
  return 0;
}

int32_t video_decode_body(void *data, int32_t code) {
  auto *player = static_cast<travik_player *>(data);
  player_decode_block *block = &player->video_decode;
  if (code == TRAVIK_THREAD_START || code == TRAVIK_THREAD_PAUSE) {
    block->no_skip = 1;
    block->skip_changed = 0;
  } else if (code == TRAVIK_THREAD_RUN) {
    video_decode_pass(player, block->create_only != 0);
  } else if (code == TRAVIK_THREAD_RESET) {
    decode_reset(block, &player->video_packets);
    block->no_skip = 1;
    if (travik_decoder *decoder = block->decoder) travik_decoder_reset(decoder);
  }
  return 0;
}
