/*
 * travik - the audio output front end over audio-output drivers.
 *
 * A driver is an operation table published by an "audioout" plugin (chosen
 * by its name, or with the name "auto" by the highest probe score), or a
 * table the application passes itself with the name "driver". The front end
 * stages interleaved 16-bit samples in a buffer of the driver's `bufsize`,
 * converts them to the device's rate and channel count through a resampler
 * (which also carries the speed change), runs the installed filters over
 * each full buffer, applies volume and fade, and writes it to the driver.
 *
 * An audio-output plugin lib<kind>_<name>.so registers, from its entry
 * function, an array of travik_audio_driver records ending with a record
 * whose `name` is NULL; the front end uses the first record.
 *
 * The emptiness test of a device is getdelay() == getspace(): a driver
 * reports a device that holds nothing to play by returning the same value
 * from both (the drivers shipped with travik return -1 from both).
 */
#ifndef TRAVIK_AUDIO_H
#define TRAVIK_AUDIO_H

#include <pthread.h>
#include <travik/common.h>
#include <travik/frame.h>
#include <travik/list.h>
#include <travik/plugin.h>
#include <travik/resample.h>

TRAVIK_BEGIN_DECLS

typedef struct travik_audio_driver travik_audio_driver;

struct travik_audio_driver {
  const char *name; /* matched (exactly) against a requested driver name */
  void *reserved;
  int32_t bufsize;  /* bytes of one write: the size of the staging buffer */
  /* Suitability for this machine (first argument NULL); above 0 can play. */
  int32_t (*probe)(void *unused, const travik_audio_driver *table);
  /* Opens the device with the argument given to travik_audio_create;
   * returns the handle, NULL on failure. */
  void *(*open)(void *argument);
  /* Prepares the device for this source format. */
  int32_t (*init)(void *handle, int32_t rate, int32_t channels);
  void (*close)(void *handle);
  /* Plays interleaved signed 16-bit samples; returns the bytes accepted. */
  int32_t (*write)(void *handle, const void *data, int32_t bytes);
  /* Stores the rate and channel count the device really plays; on entry
   * both hold the wanted (source) values. */
  int32_t (*getformat)(void *handle, int32_t *rate, int32_t *channels);
  /* Optional (may be NULL): driver-specific commands. */
  int32_t (*control)(void *handle, int32_t command, void *value);
  /* Discards what the device still holds. */
  int32_t (*reset)(void *handle);
  /* Bytes written but not yet heard. */
  int32_t (*getdelay)(void *handle);
  /* Bytes the device can accept now. */
  int32_t (*getspace)(void *handle);
};

/* Called with each full buffer before it is written; may change the
 * samples in place but must not keep the pointer, nor call back into the
 * audio output. The frame's timestamp is the running time of the buffer's
 * start and its tag that of the frame being played. */
typedef void (*travik_audio_filter_fn)(void *argument, travik_audioframe *frame);

/* Fade modes. */
enum { TRAVIK_AUDIO_FADE_NONE = 0, TRAVIK_AUDIO_FADE_OUT = 1, TRAVIK_AUDIO_FADE_IN = 2 };

typedef struct travik_audio {
  travik_plugin *plugin;        /* NULL for an application's table */
  travik_audio_driver *driver;  /* the operation table in use */
  void *handle;                 /* what the driver's open returned */
  travik_resample *resampler;   /* owned; NULL when no conversion is needed */
  pthread_mutex_t lock;         /* guards what follows and the driver calls */
  uint8_t *buffer;              /* staging buffer of driver->bufsize bytes */
  int32_t fill;                 /* bytes held in buffer */
  int32_t volume;               /* 0..100 */
  travik_list filters;          /* entries (function, argument), in order */
  int32_t fade_mode;            /* TRAVIK_AUDIO_FADE_* */
  int32_t fade_step;            /* 16.16 gain change per sample pair */
  int32_t fade_gain;            /* 16.16 gain, 0x10000 is unity */
  int32_t rate;                 /* source format, -1 before init */
  int32_t channels;
} travik_audio;

/* Finds an "audioout" plugin whose driver is called `name`, or with "auto"
 * the one whose probe scores highest (above 0; the first of equals wins).
 * Returns the loaded plugin (the caller's), or NULL. */
TRAVIK_API travik_plugin *travik_audio_load_driver(const char *name);
/* With name "driver", `argument` is the travik_audio_driver table itself;
 * otherwise the driver is loaded by name. NULL when no driver is found, its
 * open fails, or its bufsize is below 4. */
TRAVIK_API travik_audio *travik_audio_create(const char *name, void *argument);
TRAVIK_API void travik_audio_destroy(travik_audio *audio);

/* Sets the source format; the device is prepared and a resampler made when
 * the device plays another format. */
TRAVIK_API int travik_audio_init(travik_audio *audio, int32_t rate, int32_t channels);
/* Speed factor (1.0 normal) made by resampling to device rate / speed;
 * 0 or less leaves the device rate unchanged. No effect before init. */
TRAVIK_API int travik_audio_setspeed(travik_audio *audio, float speed);
/* Plays one frame; returns the 16-bit values the driver accepted during
 * this call, which is 0 while data is only staged. */
TRAVIK_API int32_t travik_audio_play(travik_audio *audio, travik_audioframe *frame);
/* Writes out what is staged, padded with silence to a whole bufsize, and
 * ends a running fade at its end gain. */
TRAVIK_API int travik_audio_flush(travik_audio *audio);
/* Drops what is staged and resets the device. */
TRAVIK_API int travik_audio_reset(travik_audio *audio);

/* Milliseconds the device still holds / one write lasts, computed as
 * ((bytes * 1000 / rate) / channels) / 2 in 32 bits (0 for a device without
 * a rate or channel count). */
TRAVIK_API int32_t travik_audio_getdelay(travik_audio *audio);
TRAVIK_API int32_t travik_audio_getinterval(travik_audio *audio);
/* Bytes the device can accept now, as the driver reports it. */
TRAVIK_API int32_t travik_audio_getspace(travik_audio *audio);
/* 1 when the device has run dry (its delay equals its space), or for a NULL
 * audio or driver; else 0. Takes no lock. */
TRAVIK_API int travik_audio_isempty(travik_audio *audio);
/* The format the device plays. */
TRAVIK_API int travik_audio_capabilities(travik_audio *audio, int32_t *rate, int32_t *channels);
/* Passes a command to the driver; always 0. */
TRAVIK_API int travik_audio_control(travik_audio *audio, int32_t command, void *value);
/* 0..100 (clamped); 100 leaves samples unchanged. */
TRAVIK_API int travik_audio_setvolume(travik_audio *audio, int32_t volume);
/* Starts a fade over `milliseconds` (at most 1000; 0 jumps to the end):
 * TRAVIK_AUDIO_FADE_OUT ends in lasting silence, TRAVIK_AUDIO_FADE_IN ends
 * at unity gain, TRAVIK_AUDIO_FADE_NONE switches the fade off. */
TRAVIK_API int travik_audio_fade(travik_audio *audio, int32_t mode, int32_t milliseconds);

/* Filters run in installation order; remove drops every matching entry. */
TRAVIK_API int travik_audio_install_filter(travik_audio *audio, travik_audio_filter_fn function,
                                           void *argument);
TRAVIK_API int travik_audio_remove_filter(travik_audio *audio, travik_audio_filter_fn function,
                                          void *argument);

TRAVIK_END_DECLS

#endif /* TRAVIK_AUDIO_H */
