// Condition waits with a deadline on the monotonic clock, which setting the
// system's date does not move.
#pragma once

#include <pthread.h>
#include <time.h>

#include <cstdint>

inline void monotonic_cond_init(pthread_cond_t *cond) {
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  pthread_cond_init(cond, &attributes);
  pthread_condattr_destroy(&attributes);
}

// The moment `ms` milliseconds from now, for pthread_cond_timedwait on a
// condition made by monotonic_cond_init.
inline struct timespec monotonic_deadline(int32_t ms) {
  struct timespec until;
  clock_gettime(CLOCK_MONOTONIC, &until);
  until.tv_sec += ms / 1000;
  until.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
  if (until.tv_nsec >= 1000000000L) {
    until.tv_sec += 1;
    until.tv_nsec -= 1000000000L;
  }
  return until;
}
