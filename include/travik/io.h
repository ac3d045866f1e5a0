/*
 * travik - byte-stream handles over files, memory and the network.
 *
 * A handle is created from a URL; its scheme picks the back-end:
 *   "file"  a plain name or file://...; note that file:///a/b opens the
 *           relative path "a/b" (the path never keeps its leading slash).
 *   "mem"   mem://ADDRESS:SIZE, ADDRESS in hexadecimal, or mem://NULL:SIZE
 *           for a private zero-filled region of SIZE bytes.
 *   "tcp"   tcp://host:port/...; becomes "vpn" while travik_io_vpn_cmd > 0.
 *   "udp"   udp://host:port/?multicast=1&localport=N
 *   "vpn"   a stream carried by an application-side tunnel process.
 *
 * Results: byte counts, 0 when nothing could be done, -1 when the back-end
 * lacks the operation. A handle belongs to one thread at a time.
 */
#ifndef TRAVIK_IO_H
#define TRAVIK_IO_H

#include <travik/common.h>
#include <travik/timeval.h>
#include <travik/url.h>

TRAVIK_BEGIN_DECLS

typedef struct travik_io travik_io;

/* Polled while a network back-end waits; non-zero stops the wait. */
typedef int32_t (*travik_io_filter)(void *arg, travik_io *io);

/* One back-end: the scheme it serves and its operations (NULL if absent). */
typedef struct travik_io_backend {
  const char *name;
  int32_t (*open)(travik_io *io, int32_t flags);
  int32_t (*read)(travik_io *io, void *buffer, int32_t count);
  int32_t (*write)(travik_io *io, const void *buffer, int32_t count);
  int32_t (*seek)(travik_io *io, int32_t offset, int32_t whence);
  int32_t (*close)(travik_io *io);
  int32_t (*handle)(travik_io *io);
  int32_t (*pos)(travik_io *io);
} travik_io_backend;

struct travik_io {
  travik_url url;                  /* the parsed URL */
  int32_t timeout;                 /* network wait limit in ms: 30000 at creation,
                                      0 waits without limit, < 0 fails at once */
  int32_t eof;                     /* 1 when the last read/write moved less than asked */
  int32_t length;                  /* cached length; 0 = not yet known */
  const travik_io_backend *backend;/* NULL for an unknown scheme */
  void *backend_data;              /* back-end state; NULL while closed */
  uint32_t bitrate;                /* measured input rate, bits per second */
  uint32_t rate_bytes;             /* bytes read in the current measurement period */
  travik_time rate_stamp;          /* start of that period; zero before the first read */
  int32_t error;                   /* 18 after a network wait failed; sticky */
  travik_io_filter filter;         /* polled during network waits, or NULL */
  void *filter_arg;                /* first argument of `filter` */
};

/* Creates a closed handle for `url`; never NULL (an unknown scheme fails to open). */
TRAVIK_API travik_io *travik_io_create(const char *url);
/*
 * Opens the handle: 0 on success or when already open, 1 without a
 * back-end, else the back-end's result. `flags` are the open(2) flags for
 * "file" (-1 means read-only).
 */
TRAVIK_API int32_t travik_io_open(travik_io *io, int32_t flags);
/*
 * Reads up to `count` bytes. A NULL buffer skips `count` bytes (by seeking
 * when possible, else by reads of at most 1024 bytes). 0 when closed, after
 * a network error, or for count < 1; the network stream back-ends give -1
 * when a read fails.
 */
TRAVIK_API int32_t travik_io_read(travik_io *io, void *buffer, int32_t count);
/*
 * Reads one line, byte by byte, into `buffer`, which must have room for
 * size + 1 bytes. A newline (and a carriage return before it) is replaced by
 * a terminator and the line's length returned. At the end of the input the
 * bytes stored so far are returned without a terminator. When size bytes
 * come without a newline the result is size, or size - 1 when the last one
 * was a carriage return (then made a terminator); the byte at buffer[size]
 * is made a terminator if it holds a newline.
 */
TRAVIK_API int32_t travik_io_readline(travik_io *io, char *buffer, int32_t size);
/* Writes `count` bytes; the back-end's result, or 0 when not possible. */
TRAVIK_API int32_t travik_io_write(travik_io *io, const void *buffer, int32_t count);
/* whence 0 start, 1 current, 2 end. The new position, or -1 without seeking. */
TRAVIK_API int32_t travik_io_seek(travik_io *io, int32_t offset, int32_t whence);
/* The stream length (cached after the first call), or -1 when unknown. */
TRAVIK_API int32_t travik_io_length(travik_io *io);
TRAVIK_API int32_t travik_io_pos(travik_io *io);
/* The operating-system descriptor, or -1. */
TRAVIK_API int32_t travik_io_handle(travik_io *io);
TRAVIK_API int32_t travik_io_settimeout(travik_io *io, int32_t milliseconds);
/* Sets the wait filter and its argument; returns the previous filter. */
TRAVIK_API travik_io_filter travik_io_setfilter(travik_io *io, travik_io_filter filter,
                                                void *arg);
/* Closes the handle; it can be opened again. */
TRAVIK_API void travik_io_close(travik_io *io);
TRAVIK_API void travik_io_destroy(travik_io *io);

/*
 * Sockets lent by the application: 10 (key, value) slots, all -1 at load;
 * a key of -1 marks a free slot. The key is a port: the local port for
 * "udp" (0 for URLs without "localport"), the remote port for "tcp". For
 * "udp" the value is the descriptor; for "tcp" it is the address of a
 * 32-bit descriptor kept by the application (which must therefore lie in the
 * low 4 GiB on a 64-bit host). The library uses these sockets and never
 * closes them; closing the handle empties the slot. The table is not
 * guarded: fill it before handles are opened.
 */
TRAVIK_API extern int32_t travik_io_sockets[10][2];
/* Stores (key, value) in the first slot that is free or holds `key`;
 * returns the key that was there before (nothing is stored when no slot
 * qualifies, and -1 is returned). */
TRAVIK_API int32_t travik_io_socket_add(int32_t key, int32_t value);
/* The first slot whose key is `key` (not tested for -1 and -2) or whose
 * value is `value` (not tested for -1); -1 when none. */
TRAVIK_API int32_t travik_io_socket_find(int32_t key, int32_t value);

/*
 * The tunnel: descriptors of the command and data channels (connected
 * stream sockets) of an application-side tunnel process, 0 at load. While
 * travik_io_vpn_cmd > 0, "tcp" URLs use the "vpn" back-end. Commands are a
 * 32-bit host-order length followed by that many bytes of text including
 * its terminator ("open:HOST:PORT", "close:"); each reply is a 32-bit
 * status, 0 for success.
 */
TRAVIK_API extern int32_t travik_io_vpn_cmd;
TRAVIK_API extern int32_t travik_io_vpn_data;

TRAVIK_END_DECLS

#endif /* TRAVIK_IO_H */
