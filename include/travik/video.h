/*
 * travik - the video output: a locked front end over a video-output driver.
 *
 * A driver is a "videoout" plugin chosen by the name of its driver (or by
 * probe score with "auto"), or an operation table handed in directly by the
 * application with the name "driver". Every driver call is made under the
 * front end's lock. Before a frame is drawn, the installed filters run over
 * it in installation order, with the front end's lock and then the filter
 * list's lock held; a filter may draw into the frame's planes but must not
 * call back into the video output.
 */
#ifndef TRAVIK_VIDEO_H
#define TRAVIK_VIDEO_H

#include <pthread.h>

#include <travik/common.h>
#include <travik/frame.h>
#include <travik/list.h>
#include <travik/plugin.h>

TRAVIK_BEGIN_DECLS

typedef struct travik_video_driver travik_video_driver;

/* The operation table a video-output plugin registers (an array ended by a
 * record whose name is NULL; the front end uses the first record). A driver
 * provides every operation: the front end does not test for NULL. */
struct travik_video_driver {
  const char *name; /* matched (exactly) against a requested driver name */
  void *reserved;
  /* Suitability for this machine (first argument NULL); above 0 can show. */
  int32_t (*probe)(void *unused, const travik_video_driver *table);
  /* Opens the display with the argument given to travik_video_create;
   * returns the handle, NULL on failure. */
  void *(*open)(void *argument);
  /* Three integers passed through from travik_video_init (the player gives
   * the picture width, height and 1). */
  int32_t (*init)(void *handle, int32_t a, int32_t b, int32_t c);
  void (*close)(void *handle);
  /* Fills three plane pointers and pitches of a width x height picture in
   * the driver's memory (YUV 4:2:0 for the player's decoders); returns a
   * status, 0 for success. */
  int32_t (*allocbuffer)(void *handle, uint8_t *planes[3], int32_t pitches[3], int32_t width,
                         int32_t height);
  /* Gives back a picture obtained from allocbuffer. */
  void (*freebuffer)(void *handle, uint8_t *planes[3]);
  /* Driver-specific commands. */
  int32_t (*control)(void *handle, int32_t command, void *value);
  /* Shows the picture (planes, pitches) of width x height at (x, y). */
  int32_t (*draw)(void *handle, int32_t x, int32_t y, int32_t width, int32_t height,
                  uint8_t *planes[3], int32_t pitches[3]);
  /* Makes what was drawn visible. */
  int32_t (*flip)(void *handle);
  /* The driver's delay, handed back unchanged. */
  int32_t (*getdelay)(void *handle);
};

/* Control commands the reference drivers answer; `value` points to an
 * int32_t that receives the count of draws or flips so far. */
enum { TRAVIK_VIDEO_CONTROL_DRAWS = 1, TRAVIK_VIDEO_CONTROL_FLIPS = 2 };

/* Runs over every frame drawn; may draw into its planes. */
typedef int32_t (*travik_video_filter_fn)(void *argument, travik_videoframe *frame);

typedef struct travik_video travik_video;
struct travik_video {
  travik_plugin *plugin;        /* NULL for an application's table */
  travik_video_driver *driver;  /* the operation table in use */
  void *handle;                 /* what the driver's open returned */
  pthread_mutex_t lock;         /* taken around every driver call */
  travik_list filters;          /* entries (function, argument), in order */
};

/* Finds a "videoout" plugin whose driver is called `name`, or with "auto"
 * the one whose probe scores highest (above 0; the first of equals wins).
 * Returns the loaded plugin (the caller's), or NULL. */
TRAVIK_API travik_plugin *travik_video_load_driver(const char *name);
/* With name "driver", `argument` is the travik_video_driver table itself
 * and the plugin directories are not looked at; otherwise the driver is
 * loaded by name and `argument` goes to its open. NULL when no driver is
 * found or its open fails. */
TRAVIK_API travik_video *travik_video_create(const char *name, void *argument);
TRAVIK_API void travik_video_destroy(travik_video *video);

/* Each calls the driver's operation of the same name under the lock. */
TRAVIK_API int travik_video_init(travik_video *video, int32_t a, int32_t b, int32_t c);
/* Returns the driver's status. */
TRAVIK_API int32_t travik_video_allocbuffer(travik_video *video, uint8_t *planes[3],
                                            int32_t pitches[3], int32_t width, int32_t height);
TRAVIK_API int travik_video_freebuffer(travik_video *video, uint8_t *planes[3]);
TRAVIK_API int travik_video_flip(travik_video *video);
/* Returns the driver's delay unchanged. */
TRAVIK_API int32_t travik_video_getdelay(travik_video *video);
TRAVIK_API int travik_video_control(travik_video *video, int32_t command, void *value);
/* Does nothing. */
TRAVIK_API int travik_video_reset(travik_video *video);

/* Runs the filters over the frame, then draws its planes at (x, y); a width
 * or height of -1 means the frame's own. */
TRAVIK_API int travik_video_draw(travik_video *video, int32_t x, int32_t y, int32_t width,
                                 int32_t height, travik_videoframe *frame);

/* Filters run in installation order; remove drops every matching entry. */
TRAVIK_API int travik_video_install_filter(travik_video *video, travik_video_filter_fn function,
                                           void *argument);
TRAVIK_API int travik_video_remove_filter(travik_video *video, travik_video_filter_fn function,
                                          void *argument);

TRAVIK_END_DECLS

#endif /* TRAVIK_VIDEO_H */
