// The pitch-scaling stage: a duration-keeping silence generator behind a
// time-stretcher's interface. The byte accounting is single precision.
#include <travik/pitch.h>

#include <cstdlib>
#include <cstring>

namespace {

// Whole bytes in `value`, truncated toward zero and kept within 32 bits.
int32_t whole_bytes(float value) {
  if (value != value) return 0;
  if (value >= 2147483520.0f) return INT32_MAX;
  if (value <= -2147483648.0f) return INT32_MIN;
  return static_cast<int32_t>(value);
}

}  // namespace

extern "C" {

travik_pitch_scaling *travik_pitch_scaling_create(void) {
  auto *scaler = static_cast<travik_pitch_scaling *>(calloc(1, sizeof(travik_pitch_scaling)));
  scaler->speed = 1.0f;
  scaler->pending = 0.0f;
  return scaler;
}

int travik_pitch_scaling_destroy(travik_pitch_scaling *scaler) {
  free(scaler);
  return 0;
}

int travik_pitch_scaling_init(travik_pitch_scaling *scaler, int32_t rate, int32_t channels) {
  scaler->rate = rate;
  scaler->channels = channels;
  return 0;
}

int travik_pitch_scaling_setspeed(travik_pitch_scaling *scaler, float speed) {
  scaler->speed = speed;
  return 0;
}

int travik_pitch_scaling_setsource(travik_pitch_scaling *scaler, const void *data, int32_t bytes) {
  (void)data;
  // A speed of 0 would owe without end (a caller draining what is owed
  // would never stop): it counts as 1.0. A negative speed divides like any
  // other and owes a negative amount, which get answers with n <= 0.
  float speed = scaler->speed == 0.0f ? 1.0f : scaler->speed;
  scaler->pending = scaler->pending + static_cast<float>(bytes) / speed;
  return 0;
}

int travik_pitch_scaling_get(travik_pitch_scaling *scaler, void *out, int32_t max, int32_t *got) {
  int32_t owed = whole_bytes(scaler->pending);
  int32_t n = max < owed ? max : owed;
  if (n > 0) {
    memset(out, 0, static_cast<size_t>(n));
    scaler->pending = scaler->pending - static_cast<float>(n);
  }
  if (got) *got = n;
  return 0;
}

int travik_pitch_scaling_flush(travik_pitch_scaling *scaler) {
  scaler->pending = 0.0f;
  return 0;
}

int travik_pitch_scaling_clear(travik_pitch_scaling *scaler) {
  scaler->pending = 0.0f;
  return 0;
}

}  // extern "C"
