/*
 * travik - sample-rate and channel conversion of 16-bit audio.
 *
 * Interleaved signed 16-bit input of any rate and channel count becomes
 * interleaved stereo at the target rate: linear interpolation between
 * neighbouring sample frames with a 16.16 fixed-point position, channel
 * reduction by summing, no filtering and no floating point per sample.
 *
 * Routines, chosen at init:
 *   rates differ, 2 channels:  interpolate stereo
 *   rates differ, 6 channels:  interpolate, folding channels 1-3 into the
 *                              left and 4-6 into the right output (sums
 *                              wrap to 16 bits, unclipped)
 *   rates differ, otherwise:   interpolate the first channel, duplicated
 *   rates equal,  2 channels:  copy
 *   rates equal,  6 channels:  fold 6 to 2, clipped to 16 bits
 *   rates equal,  otherwise:   every value becomes a left and a right sample
 * The output is always two channels, whatever target channel count is asked.
 *
 * Use: init; then setsource and convert until convert returns 0 (the input
 * is used up), then setsource again. Interpolating modes keep the input not
 * yet passed in an owned carry buffer, so the last frames of one input are
 * interpolated against the first frames of the next. The record belongs to
 * the caller; destroy frees only the carry buffer.
 */
#ifndef TRAVIK_RESAMPLE_H
#define TRAVIK_RESAMPLE_H

#include <travik/common.h>

TRAVIK_BEGIN_DECLS

typedef struct travik_resample travik_resample;

/* A conversion routine: writes at most `count` values, returns how many. */
typedef int32_t (*travik_resample_fn)(travik_resample *resampler, int16_t *out, int32_t count);

struct travik_resample {
  const int16_t *source;    /* next unconsumed input (caller's data or carry) */
  int32_t available;        /* input values at source */
  int32_t ended;            /* 1: input used up, convert yields nothing */
  uint32_t step;            /* 16.16 input frames advanced per output frame */
  uint32_t position;        /* 16.16 read position in frames from source */
  int32_t source_rate;
  int32_t source_channels;
  int32_t bits;             /* stored only (16) */
  int16_t *carry;           /* owned: unconsumed input followed by new input */
  int32_t carry_size;       /* capacity of carry, in values */
  travik_resample_fn convert;
  int32_t target_rate;
  int32_t target_channels;  /* always 2 */
};

/* A target rate of 0 or less means 44100. step = source / target in 16.16,
 * rounded, kept within 1/65536 and 16384 frames. A source rate of 0 or less,
 * or a channel count of 0 or less with differing rates, gives a converter
 * that consumes its input and produces nothing. Returns 0. */
TRAVIK_API int travik_resample_init(travik_resample *resampler, int32_t source_rate,
                                    int32_t source_channels, int32_t bits,
                                    int32_t target_rate, int32_t target_channels);
/* Hands over the next `count` input values; the caller keeps `data` alive
 * until convert has returned 0 (equal rates read it in place). */
TRAVIK_API void travik_resample_setsource(travik_resample *resampler, const int16_t *data,
                                          int32_t count);
/* Writes at most `count` values (count / 2 stereo frames) into `out` and
 * returns how many; 0 once the input is used up, until the next setsource. */
TRAVIK_API int32_t travik_resample_convert(travik_resample *resampler, int16_t *out,
                                           int32_t count);
/* Back to the state after init (the carry buffer is freed). */
TRAVIK_API void travik_resample_reset(travik_resample *resampler);
/* Frees the carry buffer; the record itself is the caller's. */
TRAVIK_API void travik_resample_destroy(travik_resample *resampler);

/* Switches an initialised resampler to the plain reference routines that
 * the optimised ones are verified against. Same output, byte for byte. */
TRAVIK_API void travik_resample_use_reference(travik_resample *resampler);

TRAVIK_END_DECLS

#endif /* TRAVIK_RESAMPLE_H */
