/*
 * travik - the presentation clock of one open input.
 *
 * A schedule is a wall-clock start time plus the first audio and video
 * timestamps seen. The output threads ask it, frame by frame, how many
 * milliseconds to wait before presenting a frame. The first frame that
 * arrives starts the clock so that the frame is due after the output
 * device's own delay; audio keeps its own position by counting the samples
 * written, video follows the clock and, without audio, pulls it along.
 *
 * Every function takes the schedule's own mutex, so the output threads and
 * the application's thread may share one schedule.
 */
#ifndef TRAVIK_SCHEDULE_H
#define TRAVIK_SCHEDULE_H

#include <travik/audio.h>
#include <travik/common.h>
#include <travik/demuxer.h>
#include <travik/frame.h>
#include <travik/video.h>

TRAVIK_BEGIN_DECLS

typedef struct travik_schedule travik_schedule;

/* A stopped schedule: no bases, a frame duration of 41 ms. */
TRAVIK_API travik_schedule *travik_schedule_create(void);
TRAVIK_API void travik_schedule_destroy(travik_schedule *schedule);
/* Stops the clock and forgets both bases and the samples written; the
 * last timestamps, the frame duration, the devices and streams stay. */
TRAVIK_API void travik_schedule_reset(travik_schedule *schedule);
/* 1 when the clock runs. A start time falling exactly on a whole second
 * reads as stopped. */
TRAVIK_API int32_t travik_schedule_isplaying(travik_schedule *schedule);
/* The clock reading in milliseconds; 0 while stopped. */
TRAVIK_API int32_t travik_schedule_elapsed(travik_schedule *schedule);
/* The later of the last audio and video timestamps, microseconds, in 32 bits. */
TRAVIK_API int32_t travik_schedule_elapsed_pts(travik_schedule *schedule);
/* Stores the video device and stream; the frame duration becomes
 * 100000 / the stream's frame-rate field (hundredths of a frame per
 * second), or 41 ms without a stream or a frame rate. */
TRAVIK_API void travik_schedule_initvideo(travik_schedule *schedule, travik_video *video,
                                          travik_stream *stream);
/* Stores the audio device and stream. */
TRAVIK_API void travik_schedule_initaudio(travik_schedule *schedule, travik_audio *audio,
                                          travik_stream *stream);
/*
 * Milliseconds to wait before writing `frame` to the audio device. The
 * first frame (re)starts the clock so that it is due after the device's
 * delay; -1 when that first frame has no timestamp (drop it). Later frames
 * get the position the samples written give them as their timestamp, and
 * are paced by the device's free space.
 */
TRAVIK_API int32_t travik_schedule_getaudiointerval(travik_schedule *schedule,
                                                    travik_audioframe *frame);
/*
 * Milliseconds to wait before flipping `frame`; negative when it is late.
 * The first video frame starts the clock unless audio already did; frames
 * without a timestamp are given one. Without audio a late frame re-bases
 * the clock on itself.
 */
TRAVIK_API int32_t travik_schedule_getvideointerval(travik_schedule *schedule,
                                                    travik_videoframe *frame);

TRAVIK_END_DECLS

#endif /* TRAVIK_SCHEDULE_H */
