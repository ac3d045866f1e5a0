/*
 * travik - wall-clock times as (seconds, microseconds) pairs.
 *
 * A time value has the layout of a POSIX struct timeval. The arithmetic
 * applies a single borrow or carry, so normalised inputs (microseconds in
 * 0..999999) give normalised results; others do not.
 */
#ifndef TRAVIK_TIMEVAL_H
#define TRAVIK_TIMEVAL_H

#include <sys/time.h>
#include <travik/common.h>

TRAVIK_BEGIN_DECLS

typedef struct timeval travik_time;

/* (0, 0): an unset time (a clock not started, a measurement not begun). */
TRAVIK_API extern const travik_time travik_time_zero;

/* Fills `t` with the current time; returns gettimeofday()'s result. */
TRAVIK_API int travik_time_setcurrent(travik_time *t);
/* result = a - b; `result` may be `a`. */
TRAVIK_API void travik_time_sub(travik_time *result, const travik_time *a, const travik_time *b);
/* result = a + b; `result` may be `a`. */
TRAVIK_API void travik_time_add(travik_time *result, const travik_time *a, const travik_time *b);
/* -1, 0 or 1 as a is before, equal to or after b. */
TRAVIK_API int travik_time_compare(const travik_time *a, const travik_time *b);

TRAVIK_END_DECLS

#endif /* TRAVIK_TIMEVAL_H */
