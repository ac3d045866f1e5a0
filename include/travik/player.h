/*
 * travik - the player: one media input played through one audio and one
 * video output, with five worker threads and an event pipe.
 *
 * Typical use:
 *
 *   travik_player_description desc;
 *   travik_player_description_init(&desc);
 *   desc.audio_driver = "auto";
 *   desc.video_driver = "auto";
 *   desc.event_read_fd = fds[0];      (a pipe made by the application)
 *   desc.event_write_fd = fds[1];
 *   travik_player *player = travik_player_create(&desc);
 *   travik_player_open(player, "movie.y4m");
 *   travik_player_play(player);
 *   ... travik_player_getevent() until TRAVIK_EVENT_END ...
 *   travik_player_close(player);
 *   travik_player_destroy(player);
 *
 * Every travik_player_* function is meant for the application's one thread.
 * The worker threads report back through the event pipe: each event is one
 * write() of a travik_player_event record (4 header bytes, then 0, 1 or 4
 * payload bytes), so records never interleave.
 *
 * Positions and durations are milliseconds; speed is a float factor.
 */
#ifndef TRAVIK_PLAYER_H
#define TRAVIK_PLAYER_H

#include <travik/common.h>

TRAVIK_BEGIN_DECLS

/* What the application configures; filled after
 * travik_player_description_init(). The player copies what it needs. */
typedef struct travik_player_description {
  /* Ceiling, in bytes, on the payload of demuxed packets held at once; it
   * also bounds the prebuffer size. 0 or less: no ceiling. */
  int32_t input_limit;
  /* Video frame pool size; 0 selects 15, less than 2 is taken as 2 (the
   * picture on screen and the next one). Two more frames may be made for
   * pictures the decoder keeps. */
  int32_t video_frames;
  int32_t audio_frames;      /* audio frame pool size; 0 selects 10, less than 1 is 1 */
  const char *audio_driver;  /* audio output driver name ("auto", "driver", a name) */
  const char *video_driver;  /* video output driver name */
  void *video_args;          /* handed to the video output's open */
  void *audio_args;          /* handed to the audio output's open */
  int32_t event_read_fd;     /* read end of the event pipe; -1: no events read */
  int32_t event_write_fd;    /* write end of the event pipe; -1: no events posted */
  const char *video_decoder; /* decoder driver for video; NULL lets the framework choose */
  const char *audio_decoder; /* the same for audio */
} travik_player_description;

/* Event codes. Code 6 is not used. */
enum {
  TRAVIK_EVENT_OPENED = 0,           /* the demuxer parsed the input's header */
  TRAVIK_EVENT_VIDEO_STARTED = 1,    /* the first video frame set the video device up */
  TRAVIK_EVENT_AUDIO_STARTED = 2,    /* the first audio frame set the audio device up */
  TRAVIK_EVENT_OPENING = 3,          /* the header is about to be parsed */
  TRAVIK_EVENT_BUFFERING = 4,        /* payload: 1 byte, percent; 100 when buffering ends */
  TRAVIK_EVENT_END = 5,              /* playback reached the end (once per open input) */
  TRAVIK_EVENT_ERROR = 7,            /* payload: 4 bytes, the demuxer's non-zero result */
  TRAVIK_EVENT_NO_VIDEO_DECODER = 8, /* no decoder for the video stream */
  TRAVIK_EVENT_NO_AUDIO_DECODER = 9  /* no decoder for the audio stream */
};

/* One event as carried by the pipe, in native byte order. */
typedef struct travik_player_event {
  uint16_t code;   /* TRAVIK_EVENT_* (or an application's own code) */
  uint16_t size;   /* payload bytes that follow: 0, 1 or 4 */
  uint8_t data[4]; /* payload */
} travik_player_event;

typedef struct travik_player travik_player;

/* Zeroes every field and sets both event descriptors to -1. */
TRAVIK_API void travik_player_description_init(travik_player_description *description);
/*
 * Opens the audio and the video output and starts the five workers, all
 * paused. NULL when a device cannot be opened ("Can't open audio out
 * plugin!!!" or "Can't open video out plugin!!!" on standard error).
 */
TRAVIK_API travik_player *travik_player_create(const travik_player_description *description);
/* Ends the workers and closes the devices. Close an open input first. */
TRAVIK_API void travik_player_destroy(travik_player *player);
/*
 * Opens `url` (a file name or a URL) and creates its demuxer and clock;
 * nothing is read until travik_player_play(). For a file, a subtitle beside
 * it is attached when none is. 0 on success, 1 when no demuxer claims the
 * input.
 */
TRAVIK_API int travik_player_open(travik_player *player, const char *url);
/* Stops and flushes the workers and frees everything of the open input.
 * Does nothing when no input is open. */
TRAVIK_API void travik_player_close(travik_player *player);
/* Reads one event without blocking: 0 when `event` (8 bytes) was filled,
 * 1 when none was waiting or the read end is -1. */
TRAVIK_API int travik_player_getevent(travik_player *player, travik_player_event *event);
/* Writes `event` (4 + size bytes) in one write(): 0 when written whole,
 * 1 otherwise. Applications may post their own events. */
TRAVIK_API int travik_player_postevent(travik_player *player, const travik_player_event *event);
/*
 * An internal object for direct use: 0 the demuxer, 1 the audio decoder,
 * 2 the video decoder, 3 the audio device (travik_audio), 4 the video device
 * (travik_video), 5 the subtitle, 6 the subtitle drawing, 7 the font,
 * 8 the schedule (travik_schedule). NULL for 9 or more and where absent.
 */
TRAVIK_API void *travik_player_getobject(travik_player *player, int32_t which);
/* 1 between play and pause while an input is open. */
TRAVIK_API int travik_player_isplaying(travik_player *player);
/* 1 while an input is open and its clock runs. */
TRAVIK_API int travik_player_isscheduled(travik_player *player);

/* Transport control. */

/* Starts (or resumes) playback after open, pause or seek. 1 when no input
 * is open or already playing. Output begins once buffering has ended. */
TRAVIK_API int travik_player_play(travik_player *player);
/* Pauses the outputs and stops the clock. 1 when not playing. */
TRAVIK_API int travik_player_pause(travik_player *player);
/*
 * Changes the speed (greater than 0; equal or non-positive values are
 * ignored): pauses, flushes the decoded frames and waits half a second.
 * The player stays paused: call travik_player_play() to go on. Returns 0.
 */
TRAVIK_API int travik_player_setspeed(travik_player *player, float speed);
TRAVIK_API float travik_player_getspeed(travik_player *player);
/* The position in milliseconds: the clock while it runs (scaled by the
 * speed), else the earliest timestamp waiting in the pipeline; -1 when
 * unknown. */
TRAVIK_API int32_t travik_player_elapsed(travik_player *player);
/* The later of the last audio and video timestamps (microseconds, 32
 * bits), or -1 without an input. */
TRAVIK_API int32_t travik_player_elapsed_pts(travik_player *player);
/*
 * Seeks to `position` milliseconds. `direction` 0 seeks forward, 1
 * backward, any other value chooses by the current position. Positions
 * beyond the end are pulled back to one second before it. The player is
 * left paused, showing the new picture. 0 on success; 1 when refused
 * (negative position, no input, buffering, not seekable, or after the end
 * event); otherwise the demuxer's non-zero seek result.
 */
TRAVIK_API int travik_player_seek_with_direction(travik_player *player, int32_t position,
                                                 int32_t direction);
/* travik_player_seek_with_direction() with the direction chosen for you. */
TRAVIK_API int travik_player_seek(travik_player *player, int32_t position);
/* With 1, output before a seek's target is decoded but not presented. 0. */
TRAVIK_API int travik_player_setseekexactly(travik_player *player, int32_t flag);
/* Sets one of the flags 17 (audio mute), 18 (video hold), 19 (subtitles
 * visible), 22 (audio off), 23 (video off); other keys are ignored. 0. */
TRAVIK_API int travik_player_setinfo(travik_player *player, int32_t key, int32_t value);
/*
 * Information keys: 0 seekable, 1 duration (ms), 2 has video, 3 has audio,
 * 4 audio channels, 5 audio bits per sample, 6 audio sample rate, 7 audio
 * bit rate, 8 video width, 9 video height, 10 and 12 video frame rate
 * (hundredths of a frame per second), 11 video bit rate, 15 fill
 * percentage of the buffering or of the input ceiling, 16 live input,
 * 17 audio mute, 18 video hold, 19 subtitles visible, 22 audio off, 23
 * video off, 24 end of stream. Stream values are -1 until the stream has
 * been chosen; keys 13, 14, 20, 21 and 25 or more give -1.
 */
TRAVIK_API int32_t travik_player_getinfo(travik_player *player, int32_t key);
/* The text of metadata slot `key` of the demuxer (travik/metadata.h), or
 * NULL without an input. */
TRAVIK_API const char *travik_player_getmeta(travik_player *player, int32_t key);
/* The text of slot 12 and, through `data` and `size`, the embedded picture
 * of slot 11; NULL without an input. */
TRAVIK_API const char *travik_player_getmeta_image(travik_player *player, void **data,
                                                   int32_t *size);
/* Replaces the subtitle font (the old one is gone even when the new one
 * fails): 0, or 1 when the font cannot be made. */
TRAVIK_API int travik_player_setfont(travik_player *player, const char *name, int32_t size);
/* Replaces the subtitle source (the old one is gone even on failure): 0,
 * or 1 when it cannot be opened. */
TRAVIK_API int travik_player_setsubtitle(travik_player *player, const char *url);
/* Redraws the frame last shown (or the next one ready) while not playing:
 * 0 when a frame was drawn, else 1. */
TRAVIK_API int travik_player_update(travik_player *player);
/* Starts an audio fade (travik_audio_fade() arguments). Returns 0. */
TRAVIK_API int travik_player_fade(travik_player *player, int32_t mode, int32_t milliseconds);
/* Waits, at most one second, for a running fade to finish. Returns 0. */
TRAVIK_API int travik_player_fadewait(travik_player *player);
/* Re-bases the clock on the next frame presented; 0 when not playing. */
TRAVIK_API int travik_player_schedule_reset(travik_player *player);
/* Makes the next buffering gather `factor` times the normal prebuffer
 * size. Returns the new target, or -1 while playing or without a normal
 * target. */
TRAVIK_API int32_t travik_player_setnextmaxprebuffer(travik_player *player, float factor);

TRAVIK_END_DECLS

#endif /* TRAVIK_PLAYER_H */
