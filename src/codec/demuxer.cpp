// The demuxer framework: driver choice, the serialised driver calls, the
// packet list, streams, title and duration.
#include <travik/demuxer.h>
#include <travik/io.h>
#include <travik/system.h>

#include <cstdlib>
#include <cstring>

#include "base/relaxed.h"
#include "codec/demuxer_cache.h"

namespace {

// Probes driver `index`; an open input is put back at its first byte so
// that every driver probes from the start.
int32_t score_driver(void *drivers, int32_t index, void *user) {
  auto *table = static_cast<const travik_demuxer_driver *>(drivers);
  auto *input = static_cast<travik_io *>(user);
  int32_t score = table[index].probe(input, index);
  if (input->backend_data) travik_io_seek(input, 0, 0);
  return score;
}

void release_packet(travik_packet *packet) { travik_listitem_free_lock(packet); }

travik_packet *default_alloc(void *, int32_t size) {
  if (size < 1) return nullptr;
  auto *packet = static_cast<travik_packet *>(
      travik_listitem_alloc(static_cast<uint32_t>(sizeof(travik_packet)) +
                            static_cast<uint32_t>(size)));
  travik_packet_init(packet);
  packet->data = reinterpret_cast<uint8_t *>(packet + 1);
  packet->size = size;
  packet->release = release_packet;
  return packet;
}

void default_destroy(travik_demuxer_allocator *allocator) { std::free(allocator); }

// Slots that can hold a stream: stream_count, which a 33rd addstream pushes
// past the 32 slots, bounded by the slots themselves.
int32_t used_slots(const travik_demuxer *demuxer) {
  int32_t count = demuxer->stream_count;
  if (count > TRAVIK_DEMUXER_MAX_STREAMS) count = TRAVIK_DEMUXER_MAX_STREAMS;
  return count < 0 ? 0 : count;
}

int32_t has_type(travik_demuxer *demuxer, int32_t type) {
  for (int32_t i = 0; i < used_slots(demuxer); i++)
    if (demuxer->streams[i] && demuxer->streams[i]->info.type == type) return 1;
  return 0;
}

// The title from the input's file name: the base name without its
// extension, converted from the local character set to UTF-8 (or kept as it
// is when that fails).
void title_from_path(travik_demuxer *demuxer) {
  const char *path = demuxer->input ? demuxer->input->url.path : nullptr;
  if (!path || travik_metadata_gettext(&demuxer->metadata, TRAVIK_META_TITLE)) return;
  const char *slash = std::strrchr(path, '/');
  const char *name = slash ? slash + 1 : path;
  const char *dot = std::strrchr(name, '.');
  const int32_t length = static_cast<int32_t>(dot ? dot - name : std::strlen(name));
  char *converted = nullptr;
  int32_t converted_length = 0;
  if (travik_utf8_encode(travik_local_charset(), name, length, &converted, &converted_length)) {
    travik_metadata_settext(&demuxer->metadata, TRAVIK_META_TITLE, converted);
    std::free(converted);
  } else {
    char *copy = static_cast<char *>(std::malloc(static_cast<size_t>(length) + 1));
    std::memcpy(copy, name, static_cast<size_t>(length));
    copy[length] = '\0';
    travik_metadata_settext(&demuxer->metadata, TRAVIK_META_TITLE, copy);
    std::free(copy);
  }
}

}  // namespace

extern "C" {

void travik_stream_init(travik_stream *stream) { std::memset(stream, 0, sizeof *stream); }

void travik_packet_init(travik_packet *packet) {
  packet->stream = -1;
  packet->user0 = 0;
  packet->user1 = 0;
  packet->pts = -1;
  packet->time2 = -1;
  packet->flags = 0;
  packet->data = nullptr;
  packet->size = 0;
  packet->extra = -1;
}

travik_demuxer_allocator *travik_demuxer_allocator_create(void) {
  auto *allocator =
      static_cast<travik_demuxer_allocator *>(std::calloc(1, sizeof(travik_demuxer_allocator)));
  allocator->alloc = default_alloc;
  allocator->destroy = default_destroy;
  return allocator;
}

travik_demuxer *travik_demuxer_create(travik_io *input, travik_demuxer_allocator *allocator) {
  auto *demuxer = static_cast<travik_demuxer *>(std::calloc(1, sizeof(travik_demuxer)));
  demuxer->input = input;
  // Inputs served by a back-end are matched by extension; a scheme that no
  // back-end serves may be claimed by a demuxer that does its own input.
  const char *match = input->backend ? input->url.extension : input->url.scheme;
  if (!match) {
    std::free(demuxer);
    return nullptr;
  }
  travik_plugin_probe probe;
  probe.kind_name = "demuxer";
  probe.kind = TRAVIK_PLUGIN_DEMUXER;
  probe.version = TRAVIK_PLUGIN_VERSION;
  probe.config = travik_demuxer_cache();
  probe.key = "Extensions";
  probe.match = match;
  probe.score = score_driver;
  probe.user = input;
  if (input->backend && input->backend->seek) travik_io_open(input, -1);
  travik_plugin *plugin = nullptr;
  int32_t index = 0;
  auto *drivers =
      static_cast<const travik_demuxer_driver *>(travik_plugin_probeconfig(&probe, &plugin, &index));
  if (!drivers) {
    if (plugin) travik_plugin_destroy(plugin);
    std::free(demuxer);
    return nullptr;
  }
  travik_io_seek(input, 0, 0);
  demuxer->plugin = plugin;
  demuxer->driver = &drivers[index];
  // The store, the lock, the list and the allocator exist before the
  // driver sees the demuxer, so that its open may already use them (set up
  // after it, the metadata would lose what open stored).
  travik_metadata_init(&demuxer->metadata);
  pthread_mutex_init(&demuxer->lock, nullptr);
  travik_list_init(&demuxer->packets);
  demuxer->allocator = allocator ? allocator : travik_demuxer_allocator_create();
  demuxer->state = demuxer->driver->open(demuxer, index);
  demuxer->seekable = 1;
  demuxer->preroll = 10000;
  return demuxer;
}

int32_t travik_demuxer_parseheader(travik_demuxer *demuxer) {
  pthread_mutex_lock(&demuxer->lock);
  int32_t result = demuxer->driver->parseheader(demuxer->state);
  pthread_mutex_unlock(&demuxer->lock);
  if (result == 0) title_from_path(demuxer);
  return result;
}

int32_t travik_demuxer_parse(travik_demuxer *demuxer, travik_packet **packet) {
  if (packet) *packet = nullptr;
  travik_packet *produced = nullptr;
  pthread_mutex_lock(&demuxer->lock);
  int32_t result = demuxer->driver->parse(demuxer->state, &produced);
  pthread_mutex_unlock(&demuxer->lock);
  if (produced) travik_list_append_lock(&demuxer->packets, produced);
  return result;
}

void travik_demuxer_push(travik_demuxer *demuxer, travik_packet *packet) {
  travik_list_append_lock(&demuxer->packets, packet);
}

travik_packet *travik_demuxer_pop(travik_demuxer *demuxer) {
  pthread_mutex_lock(&demuxer->packets.mutex);
  auto *packet = static_cast<travik_packet *>(travik_list_pop(&demuxer->packets));
  pthread_mutex_unlock(&demuxer->packets.mutex);
  return packet;
}

void travik_demuxer_clear_packets(travik_demuxer *demuxer) {
  pthread_mutex_lock(&demuxer->packets.mutex);
  while (auto *packet = static_cast<travik_packet *>(travik_list_pop(&demuxer->packets)))
    packet->release(packet);
  pthread_cond_signal(&demuxer->packets.cond);
  pthread_mutex_unlock(&demuxer->packets.mutex);
}

int32_t travik_demuxer_seek(travik_demuxer *demuxer, int32_t position, int32_t flags) {
  pthread_mutex_lock(&demuxer->lock);
  int32_t result =
      demuxer->driver->seek(demuxer->state, static_cast<int64_t>(position) * 1000, flags);
  pthread_mutex_unlock(&demuxer->lock);
  return result;
}

int32_t travik_demuxer_control(travik_demuxer *demuxer, int32_t command, void *argument) {
  if (!demuxer->driver->control) return 0;
  // Command 2 (stop) must reach a driver that another thread is inside.
  if (command == 2) return demuxer->driver->control(demuxer->state, command, argument);
  pthread_mutex_lock(&demuxer->lock);
  int32_t result = demuxer->driver->control(demuxer->state, command, argument);
  pthread_mutex_unlock(&demuxer->lock);
  return result;
}

// A negative index, or the slot a 33rd stream would have had, is no slot:
// null rather than a read outside the table.
travik_stream *travik_demuxer_getstream(travik_demuxer *demuxer, int32_t index) {
  pthread_mutex_lock(&demuxer->lock);
  travik_stream *stream =
      index >= 0 && index < used_slots(demuxer) ? demuxer->streams[index] : nullptr;
  pthread_mutex_unlock(&demuxer->lock);
  return stream;
}

travik_stream *travik_demuxer_getstream_id(travik_demuxer *demuxer, int32_t id) {
  travik_stream *found = nullptr;
  pthread_mutex_lock(&demuxer->lock);
  for (int32_t i = 0; i < used_slots(demuxer) && !found; i++)
    if (demuxer->streams[i] && demuxer->streams[i]->id == id) found = demuxer->streams[i];
  pthread_mutex_unlock(&demuxer->lock);
  return found;
}

int32_t travik_demuxer_addstream(travik_demuxer *demuxer, travik_stream *stream) {
  demuxer->stream_count++;
  for (int32_t slot = 0; slot < TRAVIK_DEMUXER_MAX_STREAMS; slot++) {
    if (!demuxer->streams[slot]) {
      demuxer->streams[slot] = stream;
      stream->index = slot;
      return slot;
    }
  }
  return TRAVIK_DEMUXER_MAX_STREAMS;
}

int32_t travik_demuxer_hasaudio(travik_demuxer *demuxer) {
  return has_type(demuxer, TRAVIK_STREAM_AUDIO);
}

int32_t travik_demuxer_hasvideo(travik_demuxer *demuxer) {
  return has_type(demuxer, TRAVIK_STREAM_VIDEO);
}

void travik_demuxer_setpreroll(travik_demuxer *demuxer, int32_t milliseconds) {
  demuxer->preroll = milliseconds;
}

void travik_demuxer_setfixedpreroll(travik_demuxer *demuxer, int32_t milliseconds) {
  demuxer->fixed_preroll = milliseconds;
}

// The player asks from several threads at once (its end test, the
// application's position and seek): once the header is parsed they all
// compute the same value, and the cached word is read and stored whole.
uint32_t travik_demuxer_getduration(travik_demuxer *demuxer) {
  if (uint32_t known = relaxed_load(demuxer->duration)) return known;
  travik_stream *audio = nullptr;
  travik_stream *video = nullptr;
  // From the last slot down: a stream replaces the candidate only with a
  // strictly greater bit rate, so the higher slot wins a tie.
  for (int32_t i = used_slots(demuxer) - 1; i >= 0; i--) {
    travik_stream *stream = demuxer->streams[i];
    if (!stream) continue;
    if (stream->info.type == TRAVIK_STREAM_AUDIO &&
        (!audio || stream->info.bitrate > audio->info.bitrate))
      audio = stream;
    if (stream->info.type == TRAVIK_STREAM_VIDEO &&
        (!video || stream->info.bitrate > video->info.bitrate))
      video = stream;
  }
  uint32_t duration = 0;
  if (audio) {
    if (audio->duration == 0 && audio->info.bitrate > 0)
      duration = static_cast<uint32_t>(static_cast<int64_t>(travik_io_length(demuxer->input)) *
                                       8000 / audio->info.bitrate);
    else
      duration = static_cast<uint32_t>(audio->duration);
  }
  if (video && video->duration > static_cast<int64_t>(duration))
    duration = static_cast<uint32_t>(video->duration);
  relaxed_store(demuxer->duration, duration);
  return duration;
}

int32_t travik_demuxer_seekable(travik_demuxer *demuxer) {
  if (demuxer->flags & TRAVIK_DEMUXER_NOSEEK) return 0;
  return demuxer->seekable > 0 ? 1 : 0;
}

void travik_demuxer_destroy(travik_demuxer *demuxer) {
  demuxer->driver->close(demuxer->state);
  if (demuxer->plugin) travik_plugin_destroy(demuxer->plugin);
  demuxer->allocator->destroy(demuxer->allocator);
  travik_metadata_destroy(&demuxer->metadata);
  pthread_mutex_destroy(&demuxer->lock);
  while (auto *packet = static_cast<travik_packet *>(travik_list_pop(&demuxer->packets)))
    packet->release(packet);
  travik_list_destroy(&demuxer->packets);
  std::free(demuxer);
}

}  // extern "C"
