/*
 * travik - worker threads and sleeping.
 *
 * A worker loops over a body function supplied by its owner. The owner
 * posts a requested state (pause, play, reset, end); the loop adopts it at
 * the top of its next pass and calls the body with a code:
 *
 *   TRAVIK_THREAD_START   once, in the worker, before the loop
 *   TRAVIK_THREAD_PAUSE   once in the worker each time it passes through pause
 *   TRAVIK_THREAD_RUN     in the worker, once per pass while playing
 *   TRAVIK_THREAD_RESET   in the owner's thread, from reset and destroy, to
 *                         wake a body blocked in a list wait or a sleep
 *   TRAVIK_THREAD_DESTROY once, in the destroying thread, after the loop ended
 *
 * A worker is created paused. A playing worker calls its body back to back,
 * so the body must block when it has nothing to do.
 */
#ifndef TRAVIK_THREAD_H
#define TRAVIK_THREAD_H

#include <travik/common.h>

TRAVIK_BEGIN_DECLS

enum {
  TRAVIK_THREAD_START = 1,
  TRAVIK_THREAD_PAUSE = 2,
  TRAVIK_THREAD_RUN = 3,
  TRAVIK_THREAD_RESET = 4,
  TRAVIK_THREAD_DESTROY = 5
};

/* Thread states, as reported by travik_thread_getstate(). */
enum {
  TRAVIK_THREAD_STATE_NEW = 0,
  TRAVIK_THREAD_STATE_PAUSED = 2,
  TRAVIK_THREAD_STATE_PLAYING = 3,
  TRAVIK_THREAD_STATE_RESET = 4,
  TRAVIK_THREAD_STATE_ENDING = 5
};

typedef struct travik_thread travik_thread;
/* The body's result is ignored. */
typedef int32_t (*travik_thread_body)(void *arg, int32_t code);
/* A sleep check: return 0 to end the sleep. */
typedef int32_t (*travik_sleep_check_fn)(void *arg);

TRAVIK_API travik_thread *travik_thread_create(travik_thread_body body, void *arg);
/* Posts pause without waiting. Returns 0. */
TRAVIK_API int travik_thread_pause(travik_thread *thread);
/* Posts play; waits for the worker's acknowledgement only when it is
 * neither paused nor playing (new, or in reset). Returns 0. */
TRAVIK_API int travik_thread_play(travik_thread *thread);
/* Returns once the worker is in the reset state, calling the body with
 * TRAVIK_THREAD_RESET (in this thread) until then. Once the worker's end
 * has been requested it returns after one such call. Returns 0. */
TRAVIK_API int travik_thread_reset(travik_thread *thread);
/* Ends the worker, calls the body with TRAVIK_THREAD_DESTROY, joins, frees. */
TRAVIK_API void travik_thread_destroy(travik_thread *thread);
/* The state the worker is in (read without a lock). */
TRAVIK_API int32_t travik_thread_getstate(const travik_thread *thread);

/* Sleeps `ms` milliseconds with select(); returns select()'s result. */
TRAVIK_API int travik_sleep(uint32_t ms);
/*
 * Sleeps up to `ms` milliseconds in slices of at most 100 ms, calling
 * `check` before every slice and returning as soon as it gives 0. The
 * slices are timed against the clock; a remainder of 10 ms or less is not
 * slept. Without a check function (or with ms 0) it returns at once.
 */
TRAVIK_API void travik_sleep_check(int32_t ms, travik_sleep_check_fn check, void *arg);

TRAVIK_END_DECLS

#endif /* TRAVIK_THREAD_H */
