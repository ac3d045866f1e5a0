// Run-time choice of the instruction set for the pixel routines.
#include <travik/yuv2rgb.h>

#include "base/relaxed.h"
#include "video/yuv2rgb_impl.h"

#ifdef TRAVIK_VIDEO_NEON
#include <sys/auxv.h>
#endif

namespace travik_video {

namespace {

int32_t detect() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx2")) return TRAVIK_SIMD_AVX2;
  if (__builtin_cpu_supports("sse2")) return TRAVIK_SIMD_SSE2;
#elif defined(TRAVIK_VIDEO_NEON)
  if (getauxval(AT_HWCAP) & HWCAP_ARM_NEON) return TRAVIK_SIMD_NEON;
#endif
  return TRAVIK_SIMD_NONE;
}

// -1 until first asked for.
int32_t g_level = -1;

}  // namespace

int32_t simd_available() {
  static const int32_t available = detect();
  return available;
}

int32_t simd_level() {
  int32_t level = relaxed_load(g_level);
  if (level < 0) {
    level = simd_available();
    relaxed_store(g_level, level);
  }
  return level;
}

}  // namespace travik_video

extern "C" {

int32_t travik_yuv2rgb_setsimd(int32_t level) {
  const int32_t available = travik_video::simd_available();
  if (level < TRAVIK_SIMD_NONE) level = TRAVIK_SIMD_NONE;
  if (level > available) level = available;
  relaxed_store(travik_video::g_level, level);
  return level;
}

int32_t travik_yuv2rgb_getsimd(void) { return travik_video::simd_level(); }

}  // extern "C"
