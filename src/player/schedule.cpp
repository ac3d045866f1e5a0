// The presentation clock of one open input: a wall-clock start plus the
// first audio and video timestamps, asked frame by frame how long to wait.
#include <travik/schedule.h>
#include <travik/timeval.h>

#include <pthread.h>

#include <cstdio>
#include <cstdlib>

#include "base/timed_wait.h"

struct travik_schedule {
  int64_t audio_base;      // ms of the first audio frame, -1 until then
  int64_t video_base;      // ms of the first video frame, -1 until then
  int64_t audio_last;      // us, as the stream last gave it
  int64_t video_last;      // us
  uint32_t audio_written;  // 16-bit values handed to the device since the base
  int32_t frame_duration;  // ms
  travik_time start;       // when the clock read 0; (0, 0) while stopped
  travik_video *video;
  travik_audio *audio;
  travik_stream *video_stream;
  travik_stream *audio_stream;
  pthread_mutex_t mutex;
  pthread_cond_t based;    // signalled when a first frame sets a base
};

namespace {

const int32_t kDefaultFrameDuration = 41;
const int32_t kIdleWaitMs = 100;

bool started(const travik_time &start) { return start.tv_sec != 0 && start.tv_usec != 0; }

// The reading of a clock that started at `start`, in 32-bit milliseconds.
int32_t reading(const travik_time &start) {
  if (start.tv_sec == 0) return 0;
  travik_time now;
  travik_time_setcurrent(&now);
  travik_time_sub(&now, &now, &start);
  return static_cast<int32_t>(static_cast<uint32_t>(now.tv_sec) * 1000u +
                              static_cast<uint32_t>(now.tv_usec / 1000));
}

// Starts the clock so that it reads -offset now. Called with the mutex held.
void start_clock(travik_schedule *s, int32_t offset) {
  std::printf("TRAVIK SCHEDULE START = %d\n", offset);
  std::fflush(stdout);
  travik_time_setcurrent(&s->start);
  int32_t magnitude = offset >= 0 ? offset : -offset;
  travik_time shift;
  shift.tv_sec = magnitude / 1000;
  shift.tv_usec = (magnitude % 1000) * 1000;
  if (offset >= 0) {
    travik_time_add(&s->start, &s->start, &shift);
  } else {
    travik_time_sub(&s->start, &s->start, &shift);
  }
}

// The head start video gives audio when nothing has started the clock:
// up to 100 ms, ended early as soon as a first frame sets a base. Sitting
// the whole 100 ms out after audio has started would show the first
// picture that much late, and the late-frame rule would then drop the
// next one.
void wait_for_base(travik_schedule *s) {
  const struct timespec until = monotonic_deadline(kIdleWaitMs);
  pthread_mutex_lock(&s->mutex);
  while (s->audio_base == -1 && s->video_base == -1) {
    if (pthread_cond_timedwait(&s->based, &s->mutex, &until) != 0) break;
  }
  pthread_mutex_unlock(&s->mutex);
}

}  // namespace

extern "C" {

travik_schedule *travik_schedule_create(void) {
  auto *s = static_cast<travik_schedule *>(std::calloc(1, sizeof(travik_schedule)));
  pthread_mutex_init(&s->mutex, nullptr);
  monotonic_cond_init(&s->based);
  s->audio_base = -1;
  s->video_base = -1;
  s->frame_duration = kDefaultFrameDuration;
  s->start = travik_time_zero;
  return s;
}

void travik_schedule_destroy(travik_schedule *schedule) {
  pthread_cond_destroy(&schedule->based);
  pthread_mutex_destroy(&schedule->mutex);
  std::free(schedule);
}

void travik_schedule_reset(travik_schedule *schedule) {
  pthread_mutex_lock(&schedule->mutex);
  schedule->audio_base = -1;
  schedule->video_base = -1;
  schedule->start = travik_time_zero;
  schedule->audio_written = 0;
  pthread_mutex_unlock(&schedule->mutex);
}

int32_t travik_schedule_isplaying(travik_schedule *schedule) {
  pthread_mutex_lock(&schedule->mutex);
  int32_t result = started(schedule->start) ? 1 : 0;
  pthread_mutex_unlock(&schedule->mutex);
  return result;
}

int32_t travik_schedule_elapsed(travik_schedule *schedule) {
  pthread_mutex_lock(&schedule->mutex);
  int32_t result = reading(schedule->start);
  pthread_mutex_unlock(&schedule->mutex);
  return result;
}

// The audio side takes part as its low word sign-extended, the video side
// whole; the low word of the later one is the result.
int32_t travik_schedule_elapsed_pts(travik_schedule *schedule) {
  pthread_mutex_lock(&schedule->mutex);
  int64_t audio = static_cast<int32_t>(schedule->audio_last);
  int64_t video = schedule->video_last;
  pthread_mutex_unlock(&schedule->mutex);
  return static_cast<int32_t>(audio > video ? audio : video);
}

void travik_schedule_initvideo(travik_schedule *schedule, travik_video *video,
                               travik_stream *stream) {
  pthread_mutex_lock(&schedule->mutex);
  schedule->video = video;
  schedule->video_stream = stream;
  // The frame-rate field counts hundredths of a frame per second.
  int32_t rate = stream ? stream->info.framerate : 0;
  schedule->frame_duration = rate != 0 ? 100000 / rate : kDefaultFrameDuration;
  pthread_mutex_unlock(&schedule->mutex);
}

void travik_schedule_initaudio(travik_schedule *schedule, travik_audio *audio,
                               travik_stream *stream) {
  pthread_mutex_lock(&schedule->mutex);
  schedule->audio = audio;
  schedule->audio_stream = stream;
  pthread_mutex_unlock(&schedule->mutex);
}

int32_t travik_schedule_getaudiointerval(travik_schedule *schedule, travik_audioframe *frame) {
  travik_stream *stream = schedule->audio_stream;
  int32_t rate = stream ? stream->info.sample_rate : 0;
  int32_t channels = stream ? stream->info.channels : 0;
  pthread_mutex_lock(&schedule->mutex);
  if (schedule->audio_base == -1) {
    if (frame->timestamp == -1) {
      pthread_mutex_unlock(&schedule->mutex);
      return -1;
    }
    int64_t t = frame->timestamp / 1000;
    int32_t delay = travik_audio_getdelay(schedule->audio);
    // Audio always (re)starts the clock: it reads t - delay from now on.
    start_clock(schedule, static_cast<int32_t>(delay - t));
    int64_t wait = t - reading(schedule->start);
    schedule->audio_base = t;
    travik_audio_reset(schedule->audio);
    schedule->audio_last = frame->timestamp;
    schedule->audio_written += static_cast<uint32_t>(frame->count);
    pthread_cond_signal(&schedule->based);
    pthread_mutex_unlock(&schedule->mutex);
    return wait - delay < 0 ? 0 : static_cast<int32_t>(wait - delay);
  }
  // The position counts at most two channels, as the output plays at most
  // stereo. A stream without a rate or channels leaves the position at the
  // base rather than dividing by zero.
  int64_t per_second = static_cast<int64_t>(rate) * (channels < 2 ? channels : 2);
  int64_t position = schedule->audio_base * 1000;
  if (per_second > 0) {
    position += static_cast<int64_t>(schedule->audio_written) * 1000000 / per_second;
  }
  // The stream record has no timestamp-tracking flag: it counts as 0.
  if (frame->timestamp != -1 && frame->timestamp != schedule->audio_last) {
    schedule->audio_last = frame->timestamp;
  }
  frame->timestamp = position;
  int32_t wait = travik_audio_getspace(schedule->audio) != 0
                     ? 0
                     : travik_audio_getinterval(schedule->audio);
  schedule->audio_written += static_cast<uint32_t>(frame->count);
  pthread_mutex_unlock(&schedule->mutex);
  return wait;
}

int32_t travik_schedule_getvideointerval(travik_schedule *schedule, travik_videoframe *frame) {
  pthread_mutex_lock(&schedule->mutex);
  travik_video *video = schedule->video;
  bool idle = schedule->audio_base == -1 && schedule->video_base == -1;
  pthread_mutex_unlock(&schedule->mutex);
  int32_t delay = video ? travik_video_getdelay(video) : 0;
  // Nothing has started the clock yet: give audio a head start.
  if (idle) wait_for_base(schedule);
  pthread_mutex_lock(&schedule->mutex);
  if (schedule->video_base == -1) {
    if (frame->timestamp == -1) {
      pthread_mutex_unlock(&schedule->mutex);
      return 0;
    }
    if (!started(schedule->start)) {
      start_clock(schedule, static_cast<int32_t>(delay - frame->timestamp / 1000));
    }
    schedule->video_base = frame->timestamp / 1000;
    schedule->video_last = frame->timestamp;
    pthread_cond_signal(&schedule->based);
  } else {
    // A frame without a time follows the last one by the frame duration,
    // added to the microsecond value as it stands.
    if (frame->timestamp == -1) frame->timestamp = schedule->video_last + schedule->frame_duration;
    schedule->video_last = frame->timestamp;
    if (schedule->audio_base == -1) {
      int32_t now_ms = reading(schedule->start);
      int64_t now_us = static_cast<int32_t>(static_cast<uint32_t>(now_ms) * 1000u);
      // Without audio a late frame drags the clock along with it.
      if (frame->timestamp <= now_us) {
        start_clock(schedule, static_cast<int32_t>(-(frame->timestamp / 1000)));
      }
    }
  }
  travik_time start = schedule->start;
  pthread_mutex_unlock(&schedule->mutex);
  return static_cast<int32_t>(frame->timestamp / 1000 - reading(start) - delay);
}

}  // extern "C"
