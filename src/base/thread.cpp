// Worker threads driven by posted state requests, and sleeping.
#include <travik/thread.h>
#include <travik/timeval.h>

#include <pthread.h>
#include <sched.h>
#include <sys/select.h>

#include <cstdlib>

#include "base/relaxed.h"

struct travik_thread {
  void *arg;
  travik_thread_body body;
  int32_t request;  // posted by the owner, not yet adopted; 0 = none
  int32_t state;    // adopted by the loop
  pthread_t thread;
  pthread_mutex_t mutex;  // guards request and state changes
  pthread_cond_t cond;    // owner wakes the loop; the loop acknowledges requests
};

namespace {

int32_t state_of(const travik_thread *t) { return relaxed_load(t->state); }
int32_t request_of(const travik_thread *t) { return relaxed_load(t->request); }

// True once the end has been requested, and also once the loop has adopted
// it (the request is then cleared): nothing leaves the ending state, and a
// play that waited for an acknowledgement, or a reset that waited for the
// reset state, would wait for a loop that has already returned.
bool ending(const travik_thread *t) {
  return request_of(t) == TRAVIK_THREAD_STATE_ENDING ||
         state_of(t) == TRAVIK_THREAD_STATE_ENDING;
}

bool post_refused(const travik_thread *t, int32_t state) {
  return (state_of(t) == state && request_of(t) == state) || ending(t);
}

// A request for the state the thread is already in is still posted when
// none is pending, so the loop re-adopts it. An end request is never
// overridden.
void post(travik_thread *t, int32_t state, bool wait) {
  if (post_refused(t, state)) return;
  pthread_mutex_lock(&t->mutex);
  if (!post_refused(t, state)) {
    relaxed_store(t->request, state);
    pthread_cond_signal(&t->cond);
    if (wait) pthread_cond_wait(&t->cond, &t->mutex);
  }
  pthread_mutex_unlock(&t->mutex);
}

void *worker(void *data) {
  auto *t = static_cast<travik_thread *>(data);
  t->body(t->arg, TRAVIK_THREAD_START);
  if (state_of(t) == TRAVIK_THREAD_STATE_ENDING) return nullptr;
  for (;;) {
    pthread_mutex_lock(&t->mutex);
    if (request_of(t) != 0) {
      relaxed_store(t->state, request_of(t));
      relaxed_store(t->request, 0);
      pthread_cond_signal(&t->cond);  // the acknowledgement
    }
    switch (state_of(t)) {
      case TRAVIK_THREAD_STATE_PLAYING:
        pthread_mutex_unlock(&t->mutex);
        t->body(t->arg, TRAVIK_THREAD_RUN);
        pthread_mutex_lock(&t->mutex);
        break;
      case TRAVIK_THREAD_STATE_PAUSED:
        pthread_mutex_unlock(&t->mutex);
        t->body(t->arg, TRAVIK_THREAD_PAUSE);
        pthread_mutex_lock(&t->mutex);
        if (request_of(t) == 0) pthread_cond_wait(&t->cond, &t->mutex);
        break;
      case TRAVIK_THREAD_STATE_RESET:
        if (request_of(t) == 0) pthread_cond_wait(&t->cond, &t->mutex);
        break;
      default:
        break;
    }
    pthread_mutex_unlock(&t->mutex);
    sched_yield();
    if (state_of(t) == TRAVIK_THREAD_STATE_ENDING) return nullptr;
  }
}

}  // namespace

extern "C" {

travik_thread *travik_thread_create(travik_thread_body body, void *arg) {
  auto *t = static_cast<travik_thread *>(std::malloc(sizeof(travik_thread)));
  t->arg = arg;
  t->body = body;
  t->request = TRAVIK_THREAD_STATE_PAUSED;
  t->state = TRAVIK_THREAD_STATE_NEW;
  pthread_mutex_init(&t->mutex, nullptr);
  pthread_cond_init(&t->cond, nullptr);
  pthread_create(&t->thread, nullptr, worker, t);
  return t;
}

int travik_thread_pause(travik_thread *thread) {
  post(thread, TRAVIK_THREAD_STATE_PAUSED, false);
  return 0;
}

int travik_thread_play(travik_thread *thread) {
  int32_t state = state_of(thread);
  bool settled = state == TRAVIK_THREAD_STATE_PAUSED || state == TRAVIK_THREAD_STATE_PLAYING;
  post(thread, TRAVIK_THREAD_STATE_PLAYING, !settled);
  return 0;
}

int travik_thread_reset(travik_thread *thread) {
  do {
    post(thread, TRAVIK_THREAD_STATE_RESET, false);
    thread->body(thread->arg, TRAVIK_THREAD_RESET);
    travik_sleep(10);
  } while (state_of(thread) != TRAVIK_THREAD_STATE_RESET && !ending(thread));
  // The worker adopted the reset under its mutex after its last pass: taking
  // the mutex once makes everything that pass wrote visible here, before
  // the caller frees what the pass used.
  pthread_mutex_lock(&thread->mutex);
  pthread_mutex_unlock(&thread->mutex);
  return 0;
}

void travik_thread_destroy(travik_thread *thread) {
  while (state_of(thread) == TRAVIK_THREAD_STATE_NEW) travik_sleep(1);
  // The repeated wake-up lets a body blocked in a wait notice the end.
  while (state_of(thread) != TRAVIK_THREAD_STATE_ENDING) {
    pthread_mutex_lock(&thread->mutex);
    relaxed_store(thread->request, static_cast<int32_t>(TRAVIK_THREAD_STATE_ENDING));
    pthread_cond_signal(&thread->cond);
    pthread_mutex_unlock(&thread->mutex);
    thread->body(thread->arg, TRAVIK_THREAD_RESET);
    travik_sleep(1);
  }
  thread->body(thread->arg, TRAVIK_THREAD_DESTROY);
  pthread_join(thread->thread, nullptr);
  pthread_cond_destroy(&thread->cond);
  pthread_mutex_destroy(&thread->mutex);
  std::free(thread);
}

int32_t travik_thread_getstate(const travik_thread *thread) { return state_of(thread); }

int travik_sleep(uint32_t ms) {
  struct timeval timeout;
  timeout.tv_sec = ms / 1000;
  timeout.tv_usec = (ms % 1000) * 1000;
  return select(0, nullptr, nullptr, nullptr, &timeout);
}

// Without a check nothing is slept at all. A negative duration is treated
// like 0: slicing it would ask select() for an (unsigned) eternity.
void travik_sleep_check(int32_t ms, travik_sleep_check_fn check, void *arg) {
  if (!check || ms <= 0) return;
  travik_time start;
  travik_time_setcurrent(&start);
  int32_t remaining = ms;
  do {
    if (check(arg) == 0) return;
    travik_sleep(static_cast<uint32_t>(remaining < 101 ? remaining : 100));
    travik_time now;
    travik_time_setcurrent(&now);
    travik_time_sub(&now, &now, &start);
    int32_t elapsed = static_cast<int32_t>(now.tv_sec * 1000 + now.tv_usec / 1000);
    remaining = ms - elapsed;
  } while (remaining >= 11);
}

}  // extern "C"
