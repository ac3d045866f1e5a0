/*
 * travik - video and audio frames.
 *
 * Frames are reference-counted records that carry their own add-reference
 * and release functions; always release a frame through frame->release.
 * Timestamps are signed microseconds, -1 when unknown.
 */
#ifndef TRAVIK_FRAME_H
#define TRAVIK_FRAME_H

#include <travik/common.h>

TRAVIK_BEGIN_DECLS

/* Frame kinds. */
enum { TRAVIK_FRAME_AUDIO = 1, TRAVIK_FRAME_VIDEO = 2 };

/* Pixel formats. */
enum {
  TRAVIK_PIXEL_YUV420P = 1,  /* planar 4:2:0, three planes */
  TRAVIK_PIXEL_RGB32 = 3,    /* 32-bit word: red << 16 | green << 8 | blue */
  TRAVIK_PIXEL_RGB24 = 4,    /* 3 bytes: red, green, blue */
  TRAVIK_PIXEL_ARGB32 = 5,   /* 32-bit word with alpha in the top byte */
  TRAVIK_PIXEL_RGB565 = 6,   /* 16-bit word, 5-6-5 */
  TRAVIK_PIXEL_RGB555 = 7,   /* 16-bit word, 5-5-5 */
  TRAVIK_PIXEL_GRAY8 = 8,    /* 8-bit coverage */
  TRAVIK_PIXEL_RGB666 = 9,   /* 32-bit word, 6 bits a component */
  TRAVIK_PIXEL_BGR32 = 10    /* 32-bit word: blue << 16 | green << 8 | red */
};

typedef struct travik_videoframe travik_videoframe;
struct travik_videoframe {
  int32_t kind;        /* TRAVIK_FRAME_VIDEO */
  uint32_t reserved;
  int64_t timestamp;   /* microseconds, -1 when unknown */
  uint32_t info;       /* set by the decoder; 1 marks a frame output may restart at */
  int32_t format;      /* TRAVIK_PIXEL_* */
  int32_t width;
  int32_t height;
  uint8_t *planes[3];  /* Y, U, V for planar formats; planes[0] only for packed */
  int32_t pitches[3];  /* bytes from one line of a plane to the next */
  int32_t refcount;
  int32_t (*addref)(travik_videoframe *frame);
  int32_t (*release)(travik_videoframe *frame);
  int32_t tag;         /* opaque per-frame value */
};

typedef struct travik_audioframe travik_audioframe;
struct travik_audioframe {
  int32_t kind;        /* TRAVIK_FRAME_AUDIO */
  uint32_t reserved;
  int64_t timestamp;   /* of the first sample, microseconds, -1 when unknown */
  int16_t *samples;    /* interleaved signed 16-bit, native byte order */
  int32_t count;       /* 16-bit values, all channels together */
  int32_t refcount;
  int32_t (*addref)(travik_audioframe *frame);
  int32_t (*release)(travik_audioframe *frame);
  int32_t tag;         /* opaque per-frame value, passed on to audio filters */
};

/* Initialise a record; with a template, its timestamp, info, format, width
 * and height (audio: timestamp and count) are copied. */
TRAVIK_API void travik_videoframe_init(travik_videoframe *frame, const travik_videoframe *templ);
TRAVIK_API void travik_audioframe_init(travik_audioframe *frame, const travik_audioframe *templ);

/* Default allocators: one block holding the record and its pixels/samples,
 * freed by the default release when the last reference goes. Format 1 is
 * laid out as Y, then plane 2, then plane 1 (YV12 order) with pitches
 * derived from the luma area rounded up to 32 bytes. */
TRAVIK_API travik_videoframe *travik_videoframe_alloc(const travik_videoframe *templ);
TRAVIK_API travik_audioframe *travik_audioframe_alloc(const travik_audioframe *templ);

/* The default add-reference and release functions. */
TRAVIK_API int32_t travik_videoframe_addref(travik_videoframe *frame);
TRAVIK_API int32_t travik_videoframe_release(travik_videoframe *frame);
TRAVIK_API int32_t travik_audioframe_addref(travik_audioframe *frame);
TRAVIK_API int32_t travik_audioframe_release(travik_audioframe *frame);

TRAVIK_END_DECLS

#endif /* TRAVIK_FRAME_H */
