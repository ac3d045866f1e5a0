// Time values: (seconds, microseconds) arithmetic with one borrow or carry.
#include <travik/timeval.h>

#include <cstdint>

extern "C" {

const travik_time travik_time_zero = {0, 0};

int travik_time_setcurrent(travik_time *t) { return gettimeofday(t, nullptr); }

void travik_time_sub(travik_time *result, const travik_time *a, const travik_time *b) {
  auto usec = a->tv_usec - b->tv_usec;
  auto sec = a->tv_sec - b->tv_sec;
  if (usec < 0) {
    usec += 1000000;
    sec -= 1;
  }
  result->tv_sec = sec;
  result->tv_usec = usec;
}

void travik_time_add(travik_time *result, const travik_time *a, const travik_time *b) {
  auto usec = a->tv_usec + b->tv_usec;
  auto sec = a->tv_sec + b->tv_sec;
  if (usec >= 1000000) {
    usec -= 1000000;
    sec += 1;
  }
  result->tv_sec = sec;
  result->tv_usec = usec;
}

// Compared by the sign of the 32-bit difference, as the clock words are.
int travik_time_compare(const travik_time *a, const travik_time *b) {
  int32_t diff = static_cast<int32_t>(static_cast<uint32_t>(a->tv_sec) - static_cast<uint32_t>(b->tv_sec));
  if (diff == 0) {
    diff = static_cast<int32_t>(static_cast<uint32_t>(a->tv_usec) - static_cast<uint32_t>(b->tv_usec));
  }
  return diff < 0 ? -1 : diff > 0 ? 1 : 0;
}

}  // extern "C"
