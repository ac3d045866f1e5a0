/*
 * travik - demuxers: the driver record of demuxer plugins.
 *
 * A demuxer plugin is a shared object <plugin dir>/demuxer/libdemuxer_<name>.so
 * whose only exported symbol is its entry function travik_demuxer_<name>().
 * The entry function registers a table of driver records:
 *
 *   static const travik_demuxer_driver drivers[] = {
 *     {"Example demuxer", "exa,exb", example_probe, example_open, example_close,
 *      example_parseheader, example_parse, example_seek, NULL},
 *     {NULL}
 *   };
 *   TRAVIK_PLUGIN_EXPORT void travik_demuxer_example(void) {
 *     travik_plugin_register(TRAVIK_PLUGIN_DEMUXER, TRAVIK_PLUGIN_VERSION,
 *                            (void *)drivers);
 *   }
 *
 * What each driver offers (description and extensions) is kept in the
 * demuxer cache <base dir>/demuxer.cfg, so a plugin is loaded only when an
 * input it claims by extension is opened. See README.md, "Writing plugins".
 */
#ifndef TRAVIK_DEMUXER_H
#define TRAVIK_DEMUXER_H

#include <travik/common.h>
#include <travik/plugin.h>

TRAVIK_BEGIN_DECLS

struct travik_io;
struct travik_demuxer;
struct travik_packet;

/* One driver of a demuxer plugin's table; a NULL description ends the table. */
typedef struct travik_demuxer_driver {
  /* Names the driver; NULL ends the table. */
  const char *description;
  /* Comma-separated lower-case extensions (or URL schemes) handled,
   * such as "avi,divx". Matching is on whole list elements. */
  const char *extensions;
  /* Scores the input: above 0 when the driver can read it; higher wins.
   * `index` is the driver's position in its table. */
  int32_t (*probe)(struct travik_io *input, int32_t index);
  /* Returns the driver's private state for `demuxer` (NULL is accepted;
   * report failure from parseheader). */
  void *(*open)(struct travik_demuxer *demuxer, int32_t index);
  void (*close)(void *state);
  /* Reads the container header and declares the streams; 0 on success. */
  int32_t (*parseheader)(void *state);
  /* Produces at most one packet in *packet (left NULL when none); the
   * status is handed back to the caller unchanged. */
  int32_t (*parse)(void *state, struct travik_packet **packet);
  /* Seeks to `position` microseconds. */
  int32_t (*seek)(void *state, int64_t position, int32_t flags);
  /* Optional (NULL when absent): private commands from the player. */
  int32_t (*control)(void *state, int32_t command, void *argument);
} travik_demuxer_driver;

/* Refresh (at travik_init) and release (at travik_destroy) the demuxer
 * cache <base dir>/demuxer.cfg: one section per plugin file with "Count",
 * "Description[i]" and "Extensions[i]". Both return 0. */
TRAVIK_API int travik_demuxer_plugins_init(void);
TRAVIK_API int travik_demuxer_plugins_destroy(void);

/*
 * The demuxer framework: streams, packets and the demuxer record.
 *
 * travik_demuxer_create() chooses a driver for an input by its extension
 * (or, for a scheme no I/O back-end serves, by its scheme) and the drivers'
 * probe scores. Every call into the driver is serialised by the demuxer's
 * mutex, except control command 2, which may be issued while another thread
 * is inside the driver. Packets the driver produces are queued on the
 * demuxer's own locked list, from which callers take them with
 * travik_demuxer_pop().
 */
#include <pthread.h>
#include <travik/codec.h>
#include <travik/list.h>
#include <travik/metadata.h>

/* The most streams one demuxer holds. */
#define TRAVIK_DEMUXER_MAX_STREAMS 32

/* Demuxer flag: the input cannot be sought (live input). */
#define TRAVIK_DEMUXER_NOSEEK 2
/* Demuxer flag: the source can be paused and resumed through control. */
#define TRAVIK_DEMUXER_PAUSABLE 4

/* Packet flag passed on to the first video frame decoded from the packet
 * (its info becomes 1: a frame output may restart at). */
#define TRAVIK_PACKET_KEY 1
/* Packet flag: decode only, discard what it produces. */
#define TRAVIK_PACKET_DECODE_ONLY 2

/* Parse result at a clean end of the input. */
#define TRAVIK_DEMUXER_END 4

/* One stream, declared by a driver from its parseheader. */
typedef struct travik_stream {
  int32_t id;              /* the container's identifier of the stream */
  int32_t index;           /* slot given by travik_demuxer_addstream */
  int32_t user0;           /* for drivers and decoders */
  int32_t user1;           /* for drivers and decoders */
  int64_t duration;        /* milliseconds, 0 when unknown */
  travik_codec_info info;  /* what the decoders read */
} travik_stream;

/* A packet: a list item (see travik/list.h) whose payload usually follows
 * the record in the same allocation. Always release it through `release`. */
typedef struct travik_packet travik_packet;
struct travik_packet {
  int32_t stream;          /* slot index of its stream, -1 after init */
  int32_t reserved;        /* not touched by init */
  int32_t user0;           /* 0 after init; for drivers */
  int32_t user1;           /* 0 after init; for drivers */
  int64_t pts;             /* presentation time in microseconds, -1 when unknown */
  int64_t time2;           /* a second time for the drivers' own use, -1 after init */
  uint32_t flags;          /* TRAVIK_PACKET_* */
  uint8_t *data;           /* payload */
  int32_t size;            /* payload bytes */
  void (*release)(travik_packet *packet);
  int32_t extra;           /* -1 after init */
};

/* Packet allocator. `alloc` is called with the allocator's `user` and a
 * payload size and returns an initialised packet whose `data` holds `size`
 * bytes (or NULL); `destroy` frees the allocator record itself. */
typedef struct travik_demuxer_allocator travik_demuxer_allocator;
struct travik_demuxer_allocator {
  void *user;
  travik_packet *(*alloc)(void *user, int32_t size);
  void (*destroy)(travik_demuxer_allocator *allocator);
};

typedef struct travik_demuxer travik_demuxer;
struct travik_demuxer {
  travik_metadata metadata;  /* first: a demuxer is also a metadata handle */
  int32_t stream_count;
  travik_stream *streams[TRAVIK_DEMUXER_MAX_STREAMS];
  struct travik_io *input;   /* not owned */
  travik_plugin *plugin;     /* the chosen driver's plugin, owned */
  const travik_demuxer_driver *driver;
  void *state;               /* the driver's private state */
  travik_demuxer_allocator *allocator;  /* owned */
  uint32_t duration;         /* milliseconds, 0 when not yet computed */
  int32_t bitrate;           /* bits per second of the whole input, 0 when unknown */
  int32_t reserved;          /* for drivers */
  int32_t preroll;           /* milliseconds to buffer before playing, 10000 */
  uint32_t flags;            /* TRAVIK_DEMUXER_NOSEEK, TRAVIK_DEMUXER_PAUSABLE */
  int32_t seekable;          /* 1 at creation; drivers set 0 */
  pthread_mutex_t lock;
  int32_t fixed_preroll;     /* milliseconds; when 1 or more it replaces preroll */
  travik_list packets;       /* produced, not yet taken */
};

/* Chooses and opens a driver for `input` (opened here when its back-end can
 * seek); takes ownership of `allocator`, or installs the default one when
 * it is NULL. NULL when no driver claims the input. */
TRAVIK_API travik_demuxer *travik_demuxer_create(struct travik_io *input,
                                                 travik_demuxer_allocator *allocator);
/* The default allocator: one allocation holding the packet and its payload. */
TRAVIK_API travik_demuxer_allocator *travik_demuxer_allocator_create(void);
/* The driver's parseheader; on success a missing title is taken from the
 * input's file name. */
TRAVIK_API int32_t travik_demuxer_parseheader(travik_demuxer *demuxer);
/* Lets the driver produce at most one packet, which is queued (never handed
 * out through `packet`, which is only cleared); returns the driver's
 * status: 0, or non-zero at the end of the input (TRAVIK_DEMUXER_END) or on
 * an error. */
TRAVIK_API int32_t travik_demuxer_parse(travik_demuxer *demuxer, travik_packet **packet);
TRAVIK_API void travik_demuxer_push(travik_demuxer *demuxer, travik_packet *packet);
TRAVIK_API travik_packet *travik_demuxer_pop(travik_demuxer *demuxer);
TRAVIK_API void travik_demuxer_clear_packets(travik_demuxer *demuxer);
/* Seeks to `position` milliseconds; queued packets are left for the caller
 * to clear. */
TRAVIK_API int32_t travik_demuxer_seek(travik_demuxer *demuxer, int32_t position, int32_t flags);
/* 0 when the driver has no control. Command 2 is passed without the lock. */
TRAVIK_API int32_t travik_demuxer_control(travik_demuxer *demuxer, int32_t command,
                                          void *argument);
TRAVIK_API travik_stream *travik_demuxer_getstream(travik_demuxer *demuxer, int32_t index);
TRAVIK_API travik_stream *travik_demuxer_getstream_id(travik_demuxer *demuxer, int32_t id);
/* For drivers: stores the stream in the first free slot and returns the
 * slot. A 33rd stream is not stored (the result is 32), yet stream_count is
 * incremented all the same: never declare more than 32 streams. */
TRAVIK_API int32_t travik_demuxer_addstream(travik_demuxer *demuxer, travik_stream *stream);
TRAVIK_API int32_t travik_demuxer_hasaudio(travik_demuxer *demuxer);
TRAVIK_API int32_t travik_demuxer_hasvideo(travik_demuxer *demuxer);
TRAVIK_API void travik_demuxer_setpreroll(travik_demuxer *demuxer, int32_t milliseconds);
TRAVIK_API void travik_demuxer_setfixedpreroll(travik_demuxer *demuxer, int32_t milliseconds);
/* Milliseconds, computed once from the streams: the longest of the best
 * audio stream's duration (or the input length over its bit rate) and the
 * best video stream's duration; 0 when unknown. */
TRAVIK_API uint32_t travik_demuxer_getduration(travik_demuxer *demuxer);
TRAVIK_API int32_t travik_demuxer_seekable(travik_demuxer *demuxer);
/* Closes the driver and frees everything but the input and the streams. */
TRAVIK_API void travik_demuxer_destroy(travik_demuxer *demuxer);

TRAVIK_API void travik_stream_init(travik_stream *stream);
TRAVIK_API void travik_packet_init(travik_packet *packet);

TRAVIK_END_DECLS

#endif /* TRAVIK_DEMUXER_H */
