/*
 * travik - the pitch-scaling stage of the speed path.
 *
 * A streaming time-stretcher interface (create, init with the format, set
 * the speed, feed, drain, flush): audio goes in at its own length and comes
 * out stretched or shrunk by the speed. This stage keeps the duration only:
 * it owes (bytes fed) / speed bytes of output and produces that many bytes
 * of silence. Fractions of a byte are carried between calls, so over time
 * the output equals the input divided by the speed to within one byte.
 * A speed of 0 counts as 1.0 when feeding; a negative speed owes a
 * negative amount, so nothing comes out until the stage is cleared.
 */
#ifndef TRAVIK_PITCH_H
#define TRAVIK_PITCH_H

#include <travik/common.h>

TRAVIK_BEGIN_DECLS

typedef struct travik_pitch_scaling {
  float speed;      /* playback speed factor, 1.0 after create */
  int32_t rate;     /* stored only */
  int32_t channels; /* stored only */
  float pending;    /* bytes of output owed */
} travik_pitch_scaling;

/* All operations return 0 unless stated. */
TRAVIK_API travik_pitch_scaling *travik_pitch_scaling_create(void);
TRAVIK_API int travik_pitch_scaling_destroy(travik_pitch_scaling *scaler);
TRAVIK_API int travik_pitch_scaling_init(travik_pitch_scaling *scaler, int32_t rate,
                                         int32_t channels);
TRAVIK_API int travik_pitch_scaling_setspeed(travik_pitch_scaling *scaler, float speed);
/* Owes `bytes` / speed more bytes; the data is not read. */
TRAVIK_API int travik_pitch_scaling_setsource(travik_pitch_scaling *scaler, const void *data,
                                              int32_t bytes);
/* Writes n = min(max, whole bytes owed) bytes of silence to `out` when n is
 * above 0, and stores n in *got (if not NULL); n is 0 or negative when
 * nothing is owed. */
TRAVIK_API int travik_pitch_scaling_get(travik_pitch_scaling *scaler, void *out, int32_t max,
                                        int32_t *got);
/* Both drop what is owed. */
TRAVIK_API int travik_pitch_scaling_flush(travik_pitch_scaling *scaler);
TRAVIK_API int travik_pitch_scaling_clear(travik_pitch_scaling *scaler);

TRAVIK_END_DECLS

#endif /* TRAVIK_PITCH_H */
