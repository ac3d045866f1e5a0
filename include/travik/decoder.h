/*
 * travik - decoders: the driver record of decoder plugins.
 *
 * A decoder plugin is a shared object <plugin dir>/decoder/libdecoder_<name>.so
 * whose only exported symbol is its entry function travik_decoder_<name>().
 * The entry function registers a table of driver records:
 *
 *   static const travik_decoder_driver drivers[] = {
 *     {"Example decoder", EXAMPLE_CODEC, 10, example_open, example_close,
 *      example_decode, example_reset},
 *     {NULL}
 *   };
 *   TRAVIK_PLUGIN_EXPORT void travik_decoder_example(void) {
 *     travik_plugin_register(TRAVIK_PLUGIN_DECODER, TRAVIK_PLUGIN_VERSION,
 *                            (void *)drivers);
 *   }
 *
 * What each driver offers (description and codec number) is kept in the
 * decoder cache <base dir>/decoder.cfg; a decoder is chosen by the stream's
 * codec number and the drivers' priorities. A decoder can also be asked for
 * by name: "<name>" selects the file libdecoder_<name>.so.
 * See README.md, "Writing plugins".
 */
#ifndef TRAVIK_DECODER_H
#define TRAVIK_DECODER_H

#include <travik/common.h>
#include <travik/plugin.h>

TRAVIK_BEGIN_DECLS

struct travik_decoder;

/* One driver of a decoder plugin's table; a NULL description ends the table. */
typedef struct travik_decoder_driver {
  /* Names the driver (printed when it is chosen); NULL ends the table. */
  const char *description;
  /* The codec number handled; kept in the cache as "%08x". */
  int32_t codec;
  /* Constant score among drivers of one codec: above 0 to be eligible,
   * higher wins, ties go to the plugin listed first in the cache. */
  int32_t priority;
  /* Returns the private state, or NULL when this stream cannot be decoded. */
  void *(*open)(struct travik_decoder *decoder);
  void (*close)(void *state);
  /* Consumes at most `size` bytes of `data` and may store one frame (a
   * travik_videoframe or travik_audioframe) in *frame. Returns the bytes
   * consumed (0 or more), or a negative value on error or when nothing is
   * left to do with this packet. It is also called with size 0 so that a
   * driver can flush; it must then answer with a frame or a negative value. */
  int32_t (*decode)(void *state, uint8_t *data, int32_t size, void *argument, void **frame);
  /* Forgets buffered data (after a seek). */
  void (*reset)(void *state);
} travik_decoder_driver;

/* Refresh (at travik_init) and release (at travik_destroy) the decoder
 * cache <base dir>/decoder.cfg: one section per plugin file with "Count",
 * "Description[i]" and "Codec[i]". Both return 0. */
TRAVIK_API int travik_decoder_plugins_init(void);
TRAVIK_API int travik_decoder_plugins_destroy(void);

/*
 * The decoder framework.
 *
 * travik_decoder_create_by_name() chooses a driver for a stream: one
 * registered by the application for the stream's codec number first, then
 * the decoder plugin with the highest priority for that codec (or, given a
 * name, the plugin file libdecoder_<name>.so). The caller feeds one packet
 * at a time with travik_decoder_setsource() and calls travik_decoder_decode()
 * until travik_decoder_empty(); frames are made through the decoder's frame
 * allocator and the first frame of a packet gets the packet's time.
 */
#include <pthread.h>
#include <travik/demuxer.h>
#include <travik/frame.h>

/* Codec numbers below this may have a registered driver. */
#define TRAVIK_DECODER_REGISTERED_MAX 128

/* Frame allocator. `alloc` is called with the allocator's `user` and a
 * template frame (a travik_videoframe or travik_audioframe describing what
 * is wanted) and returns a new frame or NULL; `destroy` frees the record. */
typedef struct travik_decoder_allocator travik_decoder_allocator;
struct travik_decoder_allocator {
  void *user;
  void *(*alloc)(void *user, void *templ);
  void (*destroy)(travik_decoder_allocator *allocator);
};

typedef struct travik_decoder travik_decoder;
struct travik_decoder {
  travik_stream *stream;      /* what is decoded; drivers read its info in open */
  travik_plugin *plugin;      /* NULL for a registered driver */
  const travik_decoder_driver *driver;
  void *state;                /* the driver's private state */
  travik_decoder_allocator *allocator;  /* owned */
  travik_packet *packet;      /* the packet being decoded (not owned) */
  int64_t pts;                /* the packet's time still to be given, -1 when used */
  uint8_t *data;              /* read position in the payload */
  int32_t remaining;          /* bytes left; -1 when there is no packet */
  uint32_t flags;             /* packet flags still to be passed on */
  pthread_mutex_t lock;
};

/* Makes `driver` the one used for `codec` (below 128) in preference to any
 * plugin. Meant for application start-up. */
TRAVIK_API void travik_decoder_register_driver(int32_t codec, const travik_decoder_driver *driver);
/* The default frame allocator of a stream type: video frames for 2, audio
 * frames for 1 (travik_videoframe_alloc, travik_audioframe_alloc), no
 * `alloc` for any other type. */
TRAVIK_API travik_decoder_allocator *travik_decoder_allocator_create(int32_t type);
/* Takes ownership of `allocator` (NULL: the default for the stream's type),
 * also when it fails: NULL when no driver can decode the stream, and then
 * the allocator has been destroyed. Prints "Decoder driver name = <driver
 * description>" when a plugin's driver is chosen. */
TRAVIK_API travik_decoder *travik_decoder_create(travik_stream *stream,
                                                 travik_decoder_allocator *allocator);
TRAVIK_API travik_decoder *travik_decoder_create_by_name(travik_stream *stream,
                                                         travik_decoder_allocator *allocator,
                                                         const char *name);
/* Makes `packet` current; unconsumed packet flags are kept. */
TRAVIK_API void travik_decoder_setsource(travik_decoder *decoder, travik_packet *packet);
/* Feeds the driver until it produces a frame (stored in *frame, else NULL)
 * or is done with the packet; 0 when it consumed input, 1 otherwise. */
TRAVIK_API int32_t travik_decoder_decode(travik_decoder *decoder, void *argument, void **frame);
/* 1 when the current packet is used up. */
TRAVIK_API int32_t travik_decoder_empty(travik_decoder *decoder);
/* Forgets the packet and the driver's buffered data (after a seek). */
TRAVIK_API void travik_decoder_reset(travik_decoder *decoder);
/* Closes the driver and frees the decoder; the current packet is the caller's. */
TRAVIK_API void travik_decoder_destroy(travik_decoder *decoder);

TRAVIK_END_DECLS

#endif /* TRAVIK_DECODER_H */
