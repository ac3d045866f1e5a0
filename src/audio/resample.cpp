// Linear-interpolation resampler for interleaved 16-bit audio, always
// producing stereo. Positions are 16.16 fixed point; nothing per sample uses
// floating point or allocates.
//
// Every interpolating routine exists twice: a plain reference routine that
// follows the arithmetic literally (64-bit products, one bounds test per
// output frame) and an optimised one that computes how many frames it can
// produce without a test, and uses 32-bit modular arithmetic. The stored
// result is 16 bits, which only depend on the low 32 bits of the product
// sum, so both give the same output byte for byte (tests/resample_test.cpp
// compares them).
//
// The integer part of the position has 16 bits. To keep long inputs safe,
// a routine that reaches frame index kRebase moves `source` forward to that
// frame and clears the integer part; the output is unchanged by this.
#include <travik/resample.h>

#include <cstdlib>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

constexpr uint32_t kRebase = 0x8000;
// Limits of the step: at least 1/65536 frame, at most 16384 frames, so that
// the position never overflows its 32 bits between two rebases.
constexpr uint32_t kMinStep = 1;
constexpr uint32_t kMaxStep = 0x40000000;

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
#define TRAVIK_PAIR_ACCESS 1
#else
#define TRAVIK_PAIR_ACCESS 0
#endif
// Four frames at a time with 16-bit SIMD where the machine has it; the
// scalar loops finish the rest and serve everywhere else.
#if defined(__SSE2__) && TRAVIK_PAIR_ACCESS
#define TRAVIK_SSE2 1
#else
#define TRAVIK_SSE2 0
#endif

// Two neighbouring 16-bit values as one 32-bit word (the first in the low
// half on a little-endian machine).
inline uint32_t load_pair(const int16_t *p) {
  uint32_t v;
  memcpy(&v, p, 4);
  return v;
}

inline void store_pair(int16_t *p, uint32_t v) { memcpy(p, &v, 4); }

inline int16_t clip16(int32_t v) {
  return v > 32767 ? 32767 : (v < -32768 ? -32768 : static_cast<int16_t>(v));
}

// (next x f + (0x10000 - f) x cur) >> 16, stored as 16 bits, computed
// modulo 2^32: cur x 0x10000 + (next - cur) x f.
inline int16_t lerp32(int32_t cur, int32_t next, uint32_t f) {
  uint32_t x = (static_cast<uint32_t>(cur) << 16) + static_cast<uint32_t>(next - cur) * f;
  return static_cast<int16_t>(static_cast<uint16_t>(x >> 16));
}

// The same with 64-bit products, as the reference routines compute it.
inline int16_t lerp64(int64_t cur, int64_t next, int64_t f) {
  int64_t g = 0x10000 - f;
  return static_cast<int16_t>((next * f + g * cur) >> 16);
}

inline void rebase(const int16_t *&s, int32_t &avail, uint32_t &p, int32_t ch) {
  uint32_t i = p >> 16;
  s += static_cast<int64_t>(i) * ch;
  avail -= static_cast<int32_t>(i * static_cast<uint32_t>(ch));
  p &= 0xFFFF;
}

int32_t finish(travik_resample *r, const int16_t *s, int32_t avail, uint32_t p, int32_t frames) {
  r->source = s;
  r->available = avail;
  r->position = p;
  if (frames == 0) r->ended = 1;
  return 2 * frames;
}

// ---- reference routines -------------------------------------------------

int32_t ref_interp_stereo(travik_resample *r, int16_t *out, int32_t count) {
  const int16_t *s = r->source;
  int32_t avail = r->available;
  uint32_t p = r->position;
  int32_t want = count / 2, frames = 0;
  while (frames < want) {
    uint32_t i = p >> 16;
    if (2 * static_cast<int64_t>(i) + 4 >= avail) break;
    if (i >= kRebase) {
      rebase(s, avail, p, 2);
      i = 0;
    }
    int64_t f = p & 0xFFFF;
    out[2 * frames] = lerp64(s[2 * i], s[2 * i + 2], f);
    out[2 * frames + 1] = lerp64(s[2 * i + 1], s[2 * i + 3], f);
    frames++;
    p += r->step;
  }
  return finish(r, s, avail, p, frames);
}

int32_t ref_interp_six(travik_resample *r, int16_t *out, int32_t count) {
  const int16_t *s = r->source;
  int32_t avail = r->available;
  uint32_t p = r->position;
  int32_t want = count / 2, frames = 0;
  while (frames < want) {
    uint32_t i = p >> 16;
    if (6 * static_cast<int64_t>(i) + 12 >= avail) break;
    if (i >= kRebase) {
      rebase(s, avail, p, 6);
      i = 0;
    }
    int64_t f = p & 0xFFFF;
    const int16_t *a = s + 6 * i, *b = a + 6;
    out[2 * frames] = lerp64(a[0] + a[1] + a[2], b[0] + b[1] + b[2], f);
    out[2 * frames + 1] = lerp64(a[3] + a[4] + a[5], b[3] + b[4] + b[5], f);
    frames++;
    p += r->step;
  }
  return finish(r, s, avail, p, frames);
}

// Any other channel count: the first channel, interpolated as mono. The
// index counts whole input frames (value i x channels), as the carry
// arithmetic of setsource does, rather than treating every value as a frame
// of its own; for one channel the two are the same.
int32_t ref_interp_mono(travik_resample *r, int16_t *out, int32_t count) {
  const int16_t *s = r->source;
  int32_t avail = r->available, ch = r->source_channels;
  uint32_t p = r->position;
  int32_t want = count / 2, frames = 0;
  while (frames < want) {
    uint32_t i = p >> 16;
    if ((static_cast<int64_t>(i) + 1) * ch >= avail) break;
    if (i >= kRebase) {
      rebase(s, avail, p, ch);
      i = 0;
    }
    int64_t f = p & 0xFFFF;
    int16_t v = lerp64(s[i * ch], s[(i + 1) * ch], f);
    out[2 * frames] = v;
    out[2 * frames + 1] = v;
    frames++;
    p += r->step;
  }
  return finish(r, s, avail, p, frames);
}

// ---- inner loops: n output frames from position p, no bounds tests --------

#if TRAVIK_SSE2
// Eight 16-bit results of (next x f + (0x10000 - f) x cur) >> 16, exactly as
// lerp32 computes them: cur + high(next x f) - high(cur x f) - borrow, where
// the high halves of the signed x unsigned products come from the signed
// multiply corrected for f >= 0x8000, and the borrow is that of the low
// halves' subtraction.
inline __m128i lerp8(__m128i cur, __m128i next, __m128i f) {
  const __m128i bias = _mm_set1_epi16(static_cast<int16_t>(0x8000));
  __m128i wide = _mm_srai_epi16(f, 15);
  __m128i lo_next = _mm_mullo_epi16(next, f), lo_cur = _mm_mullo_epi16(cur, f);
  __m128i hi_next = _mm_add_epi16(_mm_mulhi_epi16(next, f), _mm_and_si128(next, wide));
  __m128i hi_cur = _mm_add_epi16(_mm_mulhi_epi16(cur, f), _mm_and_si128(cur, wide));
  __m128i borrow = _mm_cmpgt_epi16(_mm_xor_si128(lo_cur, bias), _mm_xor_si128(lo_next, bias));
  return _mm_add_epi16(_mm_sub_epi16(_mm_add_epi16(cur, hi_next), hi_cur), borrow);
}

// Fractions of four positions, each repeated for both outputs of its frame.
inline __m128i fractions(uint32_t p0, uint32_t p1, uint32_t p2, uint32_t p3) {
  __m128i f = _mm_and_si128(_mm_set_epi32(static_cast<int32_t>(p3), static_cast<int32_t>(p2),
                                          static_cast<int32_t>(p1), static_cast<int32_t>(p0)),
                            _mm_set1_epi32(0xFFFF));
  return _mm_or_si128(f, _mm_slli_epi32(f, 16));
}

inline __m128i load64(const int16_t *p) { return _mm_loadl_epi64(reinterpret_cast<const __m128i *>(p)); }
#endif

inline uint32_t run_stereo(const int16_t *s, int16_t *o, uint32_t p, uint32_t step, int32_t n) {
  int32_t k = 0;
#if TRAVIK_SSE2
  for (; k + 4 <= n; k += 4) {
    uint32_t p1 = p + step, p2 = p1 + step, p3 = p2 + step;
    // Each 64-bit load holds (left, right) of frame i and of frame i + 1.
    __m128i ab = _mm_unpacklo_epi64(load64(s + 2 * (p >> 16)), load64(s + 2 * (p1 >> 16)));
    __m128i cd = _mm_unpacklo_epi64(load64(s + 2 * (p2 >> 16)), load64(s + 2 * (p3 >> 16)));
    __m128i cur = _mm_castps_si128(
        _mm_shuffle_ps(_mm_castsi128_ps(ab), _mm_castsi128_ps(cd), _MM_SHUFFLE(2, 0, 2, 0)));
    __m128i next = _mm_castps_si128(
        _mm_shuffle_ps(_mm_castsi128_ps(ab), _mm_castsi128_ps(cd), _MM_SHUFFLE(3, 1, 3, 1)));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(o + 2 * k), lerp8(cur, next, fractions(p, p1, p2, p3)));
    p = p3 + step;
  }
#endif
  for (; k < n; k++) {
#if TRAVIK_PAIR_ACCESS
    // One 32-bit load per input frame and one store per output frame: the
    // left sample is the low half. (c << 16) is left x 0x10000 and
    // (c & 0xFFFF0000) right x 0x10000, modulo 2^32.
    uint32_t f = p & 0xFFFF;
    const int16_t *a = s + 2 * (p >> 16);
    uint32_t c = load_pair(a), d = load_pair(a + 2);
    int32_t dl = static_cast<int16_t>(d) - static_cast<int16_t>(c);
    int32_t dr = static_cast<int16_t>(d >> 16) - static_cast<int16_t>(c >> 16);
    uint32_t left = (c << 16) + static_cast<uint32_t>(dl) * f;
    uint32_t right = (c & 0xFFFF0000u) + static_cast<uint32_t>(dr) * f;
    store_pair(o + 2 * k, (left >> 16) | (right & 0xFFFF0000u));
#else
    const int16_t *a = s + 2 * (p >> 16);
    uint32_t f = p & 0xFFFF;
    o[2 * k] = lerp32(a[0], a[2], f);
    o[2 * k + 1] = lerp32(a[1], a[3], f);
#endif
    p += step;
  }
  return p;
}

inline uint32_t run_mono(const int16_t *s, int16_t *o, uint32_t p, uint32_t step, int32_t n) {
  int32_t k = 0;
#if TRAVIK_SSE2
  for (; k + 4 <= n; k += 4) {
    uint32_t p1 = p + step, p2 = p1 + step, p3 = p2 + step;
    // Each 32-bit word holds the value at i and at i + 1.
    __m128i pairs = _mm_set_epi32(static_cast<int32_t>(load_pair(s + (p3 >> 16))),
                                  static_cast<int32_t>(load_pair(s + (p2 >> 16))),
                                  static_cast<int32_t>(load_pair(s + (p1 >> 16))),
                                  static_cast<int32_t>(load_pair(s + (p >> 16))));
    __m128i cur = _mm_shufflehi_epi16(_mm_shufflelo_epi16(pairs, _MM_SHUFFLE(2, 2, 0, 0)),
                                      _MM_SHUFFLE(2, 2, 0, 0));
    __m128i next = _mm_shufflehi_epi16(_mm_shufflelo_epi16(pairs, _MM_SHUFFLE(3, 3, 1, 1)),
                                       _MM_SHUFFLE(3, 3, 1, 1));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(o + 2 * k), lerp8(cur, next, fractions(p, p1, p2, p3)));
    p = p3 + step;
  }
#endif
  for (; k < n; k++) {
#if TRAVIK_PAIR_ACCESS
    uint32_t c = load_pair(s + (p >> 16));
    int32_t d = static_cast<int16_t>(c >> 16) - static_cast<int16_t>(c);
    uint32_t v = ((c << 16) + static_cast<uint32_t>(d) * (p & 0xFFFF)) & 0xFFFF0000u;
    store_pair(o + 2 * k, v | (v >> 16));
#else
    const int16_t *a = s + (p >> 16);
    int16_t v = lerp32(a[0], a[1], p & 0xFFFF);
    o[2 * k] = v;
    o[2 * k + 1] = v;
#endif
    p += step;
  }
  return p;
}

// ---- optimised routines -------------------------------------------------

// Frames that can be produced from position p before the frame index passes
// `last` (p >> 16 <= last holds on entry).
inline int32_t run_length(uint32_t p, uint32_t last, uint32_t step, int32_t want) {
  uint64_t limit = (static_cast<uint64_t>(last) + 1) << 16;
  uint64_t n = (limit - p + step - 1) / step;
  return n < static_cast<uint64_t>(want) ? static_cast<int32_t>(n) : want;
}

int32_t fast_interp_stereo(travik_resample *r, int16_t *out, int32_t count) {
  const int16_t *s = r->source;
  int32_t avail = r->available;
  uint32_t p = r->position;
  const uint32_t step = r->step;
  int32_t want = count / 2, frames = 0;
  while (frames < want) {
    uint32_t i = p >> 16;
    if (2 * static_cast<int64_t>(i) + 4 >= avail) break;
    if (i >= kRebase) rebase(s, avail, p, 2);
    uint32_t last = static_cast<uint32_t>(avail - 5) / 2;
    if (last > kRebase - 1) last = kRebase - 1;
    int32_t n = run_length(p, last, step, want - frames);
    int16_t *o = out + 2 * frames;
    p = run_stereo(s, o, p, step, n);
    frames += n;
  }
  return finish(r, s, avail, p, frames);
}

int32_t fast_interp_six(travik_resample *r, int16_t *out, int32_t count) {
  const int16_t *s = r->source;
  int32_t avail = r->available;
  uint32_t p = r->position;
  const uint32_t step = r->step;
  int32_t want = count / 2, frames = 0;
  while (frames < want) {
    uint32_t i = p >> 16;
    if (6 * static_cast<int64_t>(i) + 12 >= avail) break;
    if (i >= kRebase) rebase(s, avail, p, 6);
    uint32_t last = static_cast<uint32_t>(avail - 13) / 6;
    if (last > kRebase - 1) last = kRebase - 1;
    int32_t n = run_length(p, last, step, want - frames);
    int16_t *o = out + 2 * frames;
    for (int32_t k = 0; k < n; k++) {
      const int16_t *a = s + 6 * (p >> 16);
      uint32_t f = p & 0xFFFF;
      o[2 * k] = lerp32(a[0] + a[1] + a[2], a[6] + a[7] + a[8], f);
      o[2 * k + 1] = lerp32(a[3] + a[4] + a[5], a[9] + a[10] + a[11], f);
      p += step;
    }
    frames += n;
  }
  return finish(r, s, avail, p, frames);
}

int32_t fast_interp_mono(travik_resample *r, int16_t *out, int32_t count) {
  const int16_t *s = r->source;
  int32_t avail = r->available;
  const int32_t ch = r->source_channels;
  uint32_t p = r->position;
  const uint32_t step = r->step;
  int32_t want = count / 2, frames = 0;
  while (frames < want) {
    uint32_t i = p >> 16;
    if ((static_cast<int64_t>(i) + 1) * ch >= avail) break;
    if (i >= kRebase) rebase(s, avail, p, ch);
    uint32_t last = static_cast<uint32_t>((avail - 1) / ch - 1);
    if (last > kRebase - 1) last = kRebase - 1;
    int32_t n = run_length(p, last, step, want - frames);
    int16_t *o = out + 2 * frames;
    if (ch == 1) {
      p = run_mono(s, o, p, step, n);
    } else {
      for (int32_t k = 0; k < n; k++) {
        const int16_t *a = s + (p >> 16) * ch;
        int16_t v = lerp32(a[0], a[ch], p & 0xFFFF);
        o[2 * k] = v;
        o[2 * k + 1] = v;
        p += step;
      }
    }
    frames += n;
  }
  return finish(r, s, avail, p, frames);
}

// ---- copying routines (equal rates) -------------------------------------

int32_t copy_stereo(travik_resample *r, int16_t *out, int32_t count) {
  if (!out || r->available < 1) {
    r->ended = 1;
    return 0;
  }
  int32_t n = count < r->available ? count : r->available;
  if (n <= 0) return 0;
  memcpy(out, r->source, static_cast<size_t>(n) * 2);
  r->source += n;
  r->available -= n;
  return n;
}

// `simd` false is the plain reference routine.
template <bool simd>
int32_t fold_six(travik_resample *r, int16_t *out, int32_t count) {
  if (!out || r->available < 1) {
    r->ended = 1;
    return 0;
  }
  int64_t room = 3 * static_cast<int64_t>(count);
  int32_t t = room < r->available ? static_cast<int32_t>(room) : r->available;
  if (t <= 0) return 0;
  const int16_t *s = r->source;
  int32_t groups = t / 6;
  int32_t k = 0;
#if TRAVIK_SSE2
  // Four frames at a time: the twelve (even, odd) pairs of 32 bits are
  // transposed so that W0, W1, W2 hold pair 0, 1, 2 of each frame; the
  // saturating pack is the clipping.
  for (; simd && k + 4 <= groups; k += 4, s += 24) {
    __m128 r0 = _mm_castsi128_ps(_mm_loadu_si128(reinterpret_cast<const __m128i *>(s)));
    __m128 r1 = _mm_castsi128_ps(_mm_loadu_si128(reinterpret_cast<const __m128i *>(s + 8)));
    __m128 r2 = _mm_castsi128_ps(_mm_loadu_si128(reinterpret_cast<const __m128i *>(s + 16)));
    __m128 u = _mm_shuffle_ps(r1, r2, _MM_SHUFFLE(1, 1, 2, 2));
    __m128i w0 = _mm_castps_si128(_mm_shuffle_ps(r0, u, _MM_SHUFFLE(2, 0, 3, 0)));
    __m128 v = _mm_shuffle_ps(r0, r1, _MM_SHUFFLE(0, 0, 1, 1));
    __m128 w = _mm_shuffle_ps(r1, r2, _MM_SHUFFLE(2, 2, 3, 3));
    __m128i w1 = _mm_castps_si128(_mm_shuffle_ps(v, w, _MM_SHUFFLE(2, 0, 2, 0)));
    __m128 x = _mm_shuffle_ps(r0, r1, _MM_SHUFFLE(1, 1, 2, 2));
    __m128i w2 = _mm_castps_si128(_mm_shuffle_ps(x, r2, _MM_SHUFFLE(3, 0, 2, 0)));
    __m128i left = _mm_add_epi32(_mm_add_epi32(_mm_srai_epi32(_mm_slli_epi32(w0, 16), 16),
                                               _mm_srai_epi32(w0, 16)),
                                 _mm_srai_epi32(_mm_slli_epi32(w1, 16), 16));
    __m128i right = _mm_add_epi32(_mm_add_epi32(_mm_srai_epi32(w1, 16),
                                                _mm_srai_epi32(_mm_slli_epi32(w2, 16), 16)),
                                  _mm_srai_epi32(w2, 16));
    __m128i packed = _mm_packs_epi32(left, right);
    _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 2 * k),
                     _mm_unpacklo_epi16(packed, _mm_unpackhi_epi64(packed, packed)));
  }
#endif
  for (; k < groups; k++, s += 6) {
    out[2 * k] = clip16(s[0] + s[1] + s[2]);
    out[2 * k + 1] = clip16(s[3] + s[4] + s[5]);
  }
  // An incomplete last group is consumed and dropped; the values reported
  // for it are written as silence.
  for (int32_t k = 2 * groups; k < t / 3; k++) out[k] = 0;
  r->source += t;
  r->available -= t;
  return t / 3;
}

int32_t copy_fold_six(travik_resample *r, int16_t *out, int32_t count) {
  return fold_six<true>(r, out, count);
}

int32_t ref_copy_fold_six(travik_resample *r, int16_t *out, int32_t count) {
  return fold_six<false>(r, out, count);
}

int32_t copy_mono(travik_resample *r, int16_t *out, int32_t count) {
  if (!out || r->available < 1) {
    r->ended = 1;
    return 0;
  }
  int32_t half = count / 2;
  int32_t n = half < r->available ? half : r->available;
  if (n <= 0) return 0;
  const int16_t *s = r->source;
  for (int32_t k = 0; k < n; k++) {
    out[2 * k] = s[k];
    out[2 * k + 1] = s[k];
  }
  r->source += n;
  r->available -= n;
  return 2 * n;
}

// A source without a usable rate or channel count: input is dropped.
int32_t convert_nothing(travik_resample *r, int16_t *, int32_t) {
  r->source += r->available;
  r->available = 0;
  r->ended = 1;
  return 0;
}

bool interpolating(const travik_resample *r) {
  return r->convert != copy_stereo && r->convert != copy_fold_six &&
         r->convert != ref_copy_fold_six && r->convert != copy_mono &&
         r->convert != convert_nothing;
}

}  // namespace

extern "C" {

int travik_resample_init(travik_resample *r, int32_t source_rate, int32_t source_channels,
                         int32_t bits, int32_t target_rate, int32_t target_channels) {
  (void)target_channels;  // the output is stereo, whatever is asked
  r->source = nullptr;
  r->available = 0;
  r->carry = nullptr;
  r->carry_size = 0;
  r->ended = 1;
  r->position = 0;
  r->source_rate = source_rate;
  r->source_channels = source_channels;
  r->bits = bits;
  r->target_rate = target_rate <= 0 ? 44100 : target_rate;
  r->target_channels = 2;
  double step = static_cast<double>(source_rate) / static_cast<double>(r->target_rate) * 65536.0 + 0.5;
  if (!(step >= kMinStep)) step = kMinStep;
  if (step > kMaxStep) step = kMaxStep;
  r->step = static_cast<uint32_t>(step);
  if (source_rate <= 0) {
    r->convert = convert_nothing;
  } else if (source_rate == r->target_rate) {
    r->convert = source_channels == 2 ? copy_stereo
                 : source_channels == 6 ? copy_fold_six
                                        : copy_mono;
  } else if (source_channels <= 0) {
    r->convert = convert_nothing;
  } else {
    r->convert = source_channels == 2 ? fast_interp_stereo
                 : source_channels == 6 ? fast_interp_six
                                        : fast_interp_mono;
  }
  return 0;
}

void travik_resample_use_reference(travik_resample *r) {
  if (r->convert == fast_interp_stereo) r->convert = ref_interp_stereo;
  else if (r->convert == fast_interp_six) r->convert = ref_interp_six;
  else if (r->convert == fast_interp_mono) r->convert = ref_interp_mono;
  else if (r->convert == copy_fold_six) r->convert = ref_copy_fold_six;
}

void travik_resample_setsource(travik_resample *r, const int16_t *data, int32_t count) {
  if (count < 0 || !data) count = 0;
  if (!interpolating(r)) {
    r->source = data;
    r->available = count;
    r->ended = 0;
    r->position &= 0xFFFF;
    return;
  }
  const int32_t ch = r->source_channels;
  const uint32_t i = r->position >> 16;
  int64_t leftover = static_cast<int64_t>(r->available) - static_cast<int64_t>(i) * ch;
  uint32_t skip = 0;
  if (leftover < 0) {
    // The position ran past the end of the old input: it goes on into the
    // new one, and nothing of the old input is kept.
    skip = static_cast<uint32_t>(-leftover / ch);
    leftover = 0;
  }
  int32_t kept = r->carry ? static_cast<int32_t>(leftover) : 0;
  int32_t needed = kept + count;
  const int16_t *from = r->source ? r->source + static_cast<int64_t>(i) * ch : nullptr;
  if (r->carry_size < needed) {
    int16_t *grown = static_cast<int16_t *>(malloc(static_cast<size_t>(needed) * 2));
    if (kept > 0) memcpy(grown, from, static_cast<size_t>(kept) * 2);
    free(r->carry);
    r->carry = grown;
    r->carry_size = needed;
  } else if (kept > 0) {
    memmove(r->carry, from, static_cast<size_t>(kept) * 2);
  }
  if (count > 0) memcpy(r->carry + kept, data, static_cast<size_t>(count) * 2);
  r->source = r->carry;
  r->available = needed;
  r->ended = 0;
  r->position = (skip << 16) | (r->position & 0xFFFF);
}

int32_t travik_resample_convert(travik_resample *r, int16_t *out, int32_t count) {
  if (r->ended) return 0;
  if (!out) {
    r->ended = 1;
    return 0;
  }
  if (count < 0) count = 0;
  return r->convert(r, out, count);
}

void travik_resample_reset(travik_resample *r) {
  r->ended = 1;
  r->position = 0;
  r->available = 0;
  r->carry_size = 0;
  free(r->carry);
  r->carry = nullptr;
  r->source = nullptr;
}

void travik_resample_destroy(travik_resample *r) {
  free(r->carry);
  r->carry = nullptr;
  r->carry_size = 0;
}

}  // extern "C"
