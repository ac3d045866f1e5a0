// Row gathering for the optimised scalers (byte shuffles on x86).
#include <cstring>

#include "video/scale_impl.h"
#include "video/yuv2rgb_impl.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define TRAVIK_GATHER_X86 1
#endif

namespace travik_video {

namespace {

#ifdef TRAVIK_GATHER_X86
bool have_ssse3() {
  static const bool present = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("ssse3") != 0;
  }();
  return present;
}

__attribute__((target("ssse3"))) void gather_blocks(const GatherPlan *plan, uint8_t *out,
                                                    const uint8_t *row) {
  const int32_t count = static_cast<int32_t>(plan->columns.size());
  const int32_t *columns = plan->columns.data();
  for (size_t b = 0; b < plan->blocks.size(); b++) {
    const GatherBlock &block = plan->blocks[b];
    uint8_t *o = out + 16 * b;
    if (block.base >= 0) {
      const uint8_t *s = row + block.base;
      const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i *>(block.low));
      const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i *>(block.high));
      const __m128i a = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(s)), low);
      const __m128i c =
          _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(s + 16)), high);
      _mm_storeu_si128(reinterpret_cast<__m128i *>(o), _mm_or_si128(a, c));
    } else {
      const int32_t first = static_cast<int32_t>(16 * b);
      const int32_t last = first + 16 < count ? first + 16 : count;
      for (int32_t i = first; i < last; i++) out[i] = row[columns[i]];
    }
  }
}
#endif

}  // namespace

void plan_gather(GatherPlan *plan, const int32_t *columns, int32_t count, int32_t limit) {
  plan->columns.assign(columns, columns + count);
  plan->blocks.clear();
#ifdef TRAVIK_GATHER_X86
  plan->vector = have_ssse3() && simd_level() > 0;
#endif
  if (!plan->vector) return;
  for (int32_t first = 0; first < count; first += 16) {
    GatherBlock block;
    block.base = -1;
    if (first + 16 <= count) {
      const int32_t base = columns[first];
      bool fits = base + 32 <= limit;
      for (int i = 0; i < 16 && fits; i++) {
        const int32_t d = columns[first + i] - base;
        fits = d >= 0 && d < 32;
      }
      if (fits) {
        block.base = base;
        for (int i = 0; i < 16; i++) {
          const int32_t d = columns[first + i] - base;
          block.low[i] = static_cast<uint8_t>(d < 16 ? d : 0x80);
          block.high[i] = static_cast<uint8_t>(d >= 16 ? d - 16 : 0x80);
        }
      }
    }
    plan->blocks.push_back(block);
  }
}

void gather_row(const GatherPlan *plan, uint8_t *out, const uint8_t *row) {
#ifdef TRAVIK_GATHER_X86
  if (plan->vector) {
    gather_blocks(plan, out, row);
    return;
  }
#endif
  const int32_t count = static_cast<int32_t>(plan->columns.size());
  const int32_t *columns = plan->columns.data();
  for (int32_t i = 0; i < count; i++) out[i] = row[columns[i]];
}

}  // namespace travik_video
