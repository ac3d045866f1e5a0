// The decoder framework: driver choice (registered drivers, then plugins by
// codec number), the decode loop and the frame allocators.
#include <travik/decoder.h>
#include <travik/system.h>

#include <cstdio>
#include <cstdlib>

#include "codec/decoder_cache.h"

namespace {

// Drivers compiled into the application, by codec number. Written only
// during the application's start-up.
const travik_decoder_driver *registered[TRAVIK_DECODER_REGISTERED_MAX];

int32_t driver_priority(void *drivers, int32_t index, void *) {
  return static_cast<const travik_decoder_driver *>(drivers)[index].priority;
}

void *video_alloc(void *, void *templ) {
  return travik_videoframe_alloc(static_cast<const travik_videoframe *>(templ));
}

void *audio_alloc(void *, void *templ) {
  return travik_audioframe_alloc(static_cast<const travik_audioframe *>(templ));
}

void allocator_destroy(travik_decoder_allocator *allocator) { std::free(allocator); }

// Frees a decoder whose creation failed, with its allocator and mutex: the
// decoder took ownership of the allocator, and nobody else would free it.
void discard(travik_decoder *decoder, travik_plugin *plugin) {
  if (plugin) travik_plugin_destroy(plugin);
  decoder->allocator->destroy(decoder->allocator);
  pthread_mutex_destroy(&decoder->lock);
  std::free(decoder);
}

}  // namespace

extern "C" {

void travik_decoder_register_driver(int32_t codec, const travik_decoder_driver *driver) {
  // Codec numbers are signed: a negative one is ignored like one of 128 or
  // more, since it would land before the table.
  if (codec >= 0 && codec < TRAVIK_DECODER_REGISTERED_MAX) registered[codec] = driver;
}

travik_decoder_allocator *travik_decoder_allocator_create(int32_t type) {
  auto *allocator =
      static_cast<travik_decoder_allocator *>(std::calloc(1, sizeof(travik_decoder_allocator)));
  if (type == TRAVIK_STREAM_VIDEO) allocator->alloc = video_alloc;
  if (type == TRAVIK_STREAM_AUDIO) allocator->alloc = audio_alloc;
  allocator->destroy = allocator_destroy;
  return allocator;
}

travik_decoder *travik_decoder_create(travik_stream *stream, travik_decoder_allocator *allocator) {
  return travik_decoder_create_by_name(stream, allocator, nullptr);
}

travik_decoder *travik_decoder_create_by_name(travik_stream *stream,
                                              travik_decoder_allocator *allocator,
                                              const char *name) {
  auto *decoder = static_cast<travik_decoder *>(std::calloc(1, sizeof(travik_decoder)));
  decoder->remaining = -1;
  decoder->pts = -1;
  decoder->stream = stream;
  decoder->allocator = allocator ? allocator : travik_decoder_allocator_create(stream->info.type);
  pthread_mutex_init(&decoder->lock, nullptr);

  // A driver registered for the codec comes first, whatever the name
  // (negative codec numbers have no slot).
  const int32_t codec = stream->info.codec;
  if (codec >= 0 && codec < TRAVIK_DECODER_REGISTERED_MAX && registered[codec]) {
    decoder->driver = registered[codec];
    decoder->state = decoder->driver->open(decoder);
    if (decoder->state) return decoder;
    decoder->driver = nullptr;
  }

  char match[16] = "";
  if (stream->info.type == TRAVIK_STREAM_AUDIO || stream->info.type == TRAVIK_STREAM_VIDEO)
    std::snprintf(match, sizeof match, "%08x", static_cast<uint32_t>(codec));
  travik_plugin_probe probe;
  probe.kind_name = "decoder";
  probe.kind = TRAVIK_PLUGIN_DECODER;
  probe.version = TRAVIK_PLUGIN_VERSION;
  probe.config = travik_decoder_cache();
  probe.key = "Codec";
  probe.match = match;
  probe.score = driver_priority;
  probe.user = nullptr;
  travik_plugin *plugin = nullptr;
  int32_t index = 0;
  const travik_decoder_driver *drivers;
  if (name) {
    char section[256];
    std::snprintf(section, sizeof section, "libdecoder_%s.so", name);
    drivers = static_cast<const travik_decoder_driver *>(
        travik_plugin_probeconfig_by_section_name(&probe, &plugin, &index, section));
  } else {
    drivers = static_cast<const travik_decoder_driver *>(
        travik_plugin_probeconfig(&probe, &plugin, &index));
  }
  if (!drivers) {
    discard(decoder, plugin);
    return nullptr;
  }
  std::printf("Decoder driver name = %s\n", drivers[index].description);
  std::fflush(stdout);
  decoder->plugin = plugin;
  decoder->driver = &drivers[index];
  decoder->state = decoder->driver->open(decoder);
  if (decoder->state) return decoder;
  discard(decoder, plugin);
  return nullptr;
}

void travik_decoder_setsource(travik_decoder *decoder, travik_packet *packet) {
  pthread_mutex_lock(&decoder->lock);
  decoder->packet = packet;
  decoder->data = packet->data;
  decoder->remaining = packet->size;
  decoder->pts = packet->pts;
  // Flags a previous packet could not pass on yet are kept.
  if (decoder->flags == 0) decoder->flags = packet->flags;
  pthread_mutex_unlock(&decoder->lock);
}

int32_t travik_decoder_decode(travik_decoder *decoder, void *argument, void **frame) {
  *frame = nullptr;
  pthread_mutex_lock(&decoder->lock);
  int32_t result = 1;
  // The call with nothing remaining is made on purpose: it lets a driver
  // flush what it holds (a packet without data asks for everything held
  // back at the end of the input). It must then answer with a frame or a
  // negative value; a driver answering 0 without a frame would be asked
  // again forever, so that answer also ends the packet.
  while (decoder->remaining >= 0 && !*frame) {
    const bool flushing = decoder->remaining == 0;
    int32_t used =
        decoder->driver->decode(decoder->state, decoder->data, decoder->remaining, argument, frame);
    if (used >= 0) {
      decoder->data += used;
      decoder->remaining -= used;
      result = 0;
      if (flushing && !*frame) decoder->remaining = -1;
    } else {
      decoder->remaining = -1;
    }
  }
  if (*frame && decoder->pts != -1) {
    if (*static_cast<int32_t *>(*frame) == TRAVIK_FRAME_VIDEO) {
      auto *video = static_cast<travik_videoframe *>(*frame);
      if (video->timestamp == -1) video->timestamp = decoder->pts;
      if (decoder->stream->info.width == 0) {
        decoder->stream->info.width = video->width;
        decoder->stream->info.height = video->height;
      }
      if (decoder->flags & TRAVIK_PACKET_KEY) video->info = 1;
      decoder->flags = 0;
    } else if (*static_cast<int32_t *>(*frame) == TRAVIK_FRAME_AUDIO) {
      auto *audio = static_cast<travik_audioframe *>(*frame);
      if (audio->timestamp == -1) audio->timestamp = decoder->pts;
    }
    // Only the first frame of a packet gets the packet's time.
    decoder->pts = -1;
  }
  pthread_mutex_unlock(&decoder->lock);
  return result;
}

int32_t travik_decoder_empty(travik_decoder *decoder) { return decoder->remaining < 1 ? 1 : 0; }

void travik_decoder_reset(travik_decoder *decoder) {
  pthread_mutex_lock(&decoder->lock);
  decoder->remaining = -1;
  decoder->data = nullptr;
  // Drivers with nothing buffered may leave reset out.
  if (decoder->driver->reset) decoder->driver->reset(decoder->state);
  pthread_mutex_unlock(&decoder->lock);
}

void travik_decoder_destroy(travik_decoder *decoder) {
  decoder->driver->close(decoder->state);
  if (decoder->plugin) travik_plugin_destroy(decoder->plugin);
  decoder->allocator->destroy(decoder->allocator);
  pthread_mutex_destroy(&decoder->lock);
  std::free(decoder);
}

}  // extern "C"
