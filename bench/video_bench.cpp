// YUV 4:2:0 to RGB conversion and nearest-neighbour scaling of 1920 x 1080
// pictures, against libyuv and libswscale, with this machine's memory-copy
// bandwidth for scale. After the runs the ratios measured in this same run
// are printed (above 1: travik is faster).
#include <benchmark/benchmark.h>
#include <libyuv.h>
#include <travik/scale.h>
#include <travik/yuv2rgb.h>

extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kW = 1920, kH = 1080, kDW = 1280, kDH = 720;

struct Picture {
  int w, h;
  std::vector<uint8_t> y, u, v;
  Picture(int width, int height) : w(width), h(height), y(width * height), u(width * height / 4),
                                   v(width * height / 4) {
    std::mt19937 rng(1);
    // A smooth picture with noise, so that neither table nor cache effects
    // of a constant picture show.
    for (int r = 0; r < h; r++)
      for (int x = 0; x < w; x++) y[r * w + x] = static_cast<uint8_t>((x + r) / 12 + (rng() & 15));
    for (size_t i = 0; i < u.size(); i++) {
      u[i] = static_cast<uint8_t>(rng());
      v[i] = static_cast<uint8_t>(rng());
    }
  }
  uint8_t *planes[3] = {nullptr, nullptr, nullptr};
  int32_t pitches[3] = {0, 0, 0};
  void bind() {
    planes[0] = y.data(), planes[1] = u.data(), planes[2] = v.data();
    pitches[0] = w, pitches[1] = pitches[2] = w / 2;
  }
};

Picture &source() {
  static Picture p(kW, kH);
  p.bind();
  return p;
}

void pixels(benchmark::State &state, int64_t count) {
  state.SetItemsProcessed(state.iterations() * count);
  state.counters["Mpix/s"] = benchmark::Counter(static_cast<double>(state.iterations() * count) / 1e6,
                                                benchmark::Counter::kIsRate);
}

// ----- conversion

void travik_convert(benchmark::State &state, int32_t format, int32_t level) {
  Picture &p = source();
  const int bpp = format == TRAVIK_PIXEL_RGB565 ? 2 : 4;
  std::vector<uint8_t> out(static_cast<size_t>(kW) * kH * bpp);
  const int32_t saved = travik_yuv2rgb_getsimd();
  travik_yuv2rgb_setsimd(level);
  travik_yuv2rgb *c = travik_yuv2rgb_create(format);
  travik_yuv2rgb_setsimd(saved);
  for (auto _ : state) {
    travik_yuv2rgb_convert(c, kW, kH, out.data(), kW * bpp, p.planes[0], p.planes[1],
                           p.planes[2], kW, kW / 2);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  travik_yuv2rgb_destroy(c);
  pixels(state, static_cast<int64_t>(kW) * kH);
}

void BM_ToARGB_travik(benchmark::State &s) { travik_convert(s, TRAVIK_PIXEL_RGB32, TRAVIK_SIMD_AVX2); }
void BM_ToARGB_travik_ssse3(benchmark::State &s) { travik_convert(s, TRAVIK_PIXEL_RGB32, TRAVIK_SIMD_SSE2); }
void BM_ToARGB_travik_reference(benchmark::State &s) { travik_convert(s, TRAVIK_PIXEL_RGB32, TRAVIK_SIMD_NONE); }
void BM_ToRGB565_travik(benchmark::State &s) { travik_convert(s, TRAVIK_PIXEL_RGB565, TRAVIK_SIMD_AVX2); }
void BM_ToRGB565_travik_ssse3(benchmark::State &s) { travik_convert(s, TRAVIK_PIXEL_RGB565, TRAVIK_SIMD_SSE2); }
void BM_ToRGB565_travik_reference(benchmark::State &s) { travik_convert(s, TRAVIK_PIXEL_RGB565, TRAVIK_SIMD_NONE); }

void BM_ToARGB_libyuv(benchmark::State &state) {
  Picture &p = source();
  std::vector<uint8_t> out(static_cast<size_t>(kW) * kH * 4);
  for (auto _ : state) {
    libyuv::I420ToARGB(p.planes[0], kW, p.planes[1], kW / 2, p.planes[2], kW / 2, out.data(),
                       kW * 4, kW, kH);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  pixels(state, static_cast<int64_t>(kW) * kH);
}

void BM_ToRGB565_libyuv(benchmark::State &state) {
  Picture &p = source();
  std::vector<uint8_t> out(static_cast<size_t>(kW) * kH * 2);
  for (auto _ : state) {
    libyuv::I420ToRGB565(p.planes[0], kW, p.planes[1], kW / 2, p.planes[2], kW / 2, out.data(),
                         kW * 2, kW, kH);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  pixels(state, static_cast<int64_t>(kW) * kH);
}

void swscale(benchmark::State &state, int dw, int dh, AVPixelFormat to, int bpp) {
  Picture &p = source();
  SwsContext *ctx = sws_getContext(kW, kH, AV_PIX_FMT_YUV420P, dw, dh, to, SWS_POINT, nullptr,
                                   nullptr, nullptr);
  std::vector<uint8_t> out(static_cast<size_t>(dw) * dh * (bpp == 1 ? 2 : bpp) + 64);
  const uint8_t *src[4] = {p.planes[0], p.planes[1], p.planes[2], nullptr};
  const int src_stride[4] = {kW, kW / 2, kW / 2, 0};
  uint8_t *dst[4];
  int dst_stride[4];
  if (to == AV_PIX_FMT_YUV420P) {
    dst[0] = out.data(), dst[1] = out.data() + dw * dh, dst[2] = dst[1] + dw * dh / 4;
    dst[3] = nullptr;
    dst_stride[0] = dw, dst_stride[1] = dst_stride[2] = dw / 2, dst_stride[3] = 0;
  } else {
    dst[0] = out.data(), dst[1] = dst[2] = dst[3] = nullptr;
    dst_stride[0] = dw * bpp, dst_stride[1] = dst_stride[2] = dst_stride[3] = 0;
  }
  for (auto _ : state) {
    sws_scale(ctx, src, src_stride, 0, kH, dst, dst_stride);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  sws_freeContext(ctx);
  pixels(state, static_cast<int64_t>(dw) * dh);
}

void BM_ToARGB_swscale(benchmark::State &s) { swscale(s, kW, kH, AV_PIX_FMT_BGRA, 4); }
void BM_ToRGB565_swscale(benchmark::State &s) { swscale(s, kW, kH, AV_PIX_FMT_RGB565LE, 2); }

// ----- scaling 1920 x 1080 -> 1280 x 720

struct Scaled {
  std::vector<uint8_t> y = std::vector<uint8_t>(kDW * kDH), u = std::vector<uint8_t>(kDW * kDH / 4),
                       v = std::vector<uint8_t>(kDW * kDH / 4);
};

void scale_travik(benchmark::State &state, int32_t level) {
  Picture &p = source();
  Scaled d;
  uint8_t *planes[3] = {d.y.data(), d.u.data(), d.v.data()};
  const int32_t pitches[3] = {kDW, kDW / 2, kDW / 2};
  const int32_t saved = travik_yuv2rgb_getsimd();
  travik_yuv2rgb_setsimd(level);
  for (auto _ : state) {
    travik_scale_yuv_frame(kW, kH, kDW, kDH, planes, pitches, p.planes, p.pitches);
    benchmark::DoNotOptimize(d.y.data());
    benchmark::ClobberMemory();
  }
  travik_yuv2rgb_setsimd(saved);
  pixels(state, static_cast<int64_t>(kDW) * kDH);
}

void BM_Scale_travik(benchmark::State &s) { scale_travik(s, TRAVIK_SIMD_AVX2); }
void BM_Scale_travik_reference(benchmark::State &s) { scale_travik(s, TRAVIK_SIMD_NONE); }

void BM_Scale_libyuv(benchmark::State &state) {
  Picture &p = source();
  Scaled d;
  for (auto _ : state) {
    libyuv::I420Scale(p.planes[0], kW, p.planes[1], kW / 2, p.planes[2], kW / 2, kW, kH,
                      d.y.data(), kDW, d.u.data(), kDW / 2, d.v.data(), kDW / 2, kDW, kDH,
                      libyuv::kFilterNone);
    benchmark::DoNotOptimize(d.y.data());
    benchmark::ClobberMemory();
  }
  pixels(state, static_cast<int64_t>(kDW) * kDH);
}

void BM_Scale_swscale(benchmark::State &s) { swscale(s, kDW, kDH, AV_PIX_FMT_YUV420P, 1); }

// ----- 1280 x 720 converted with scaling to an 800 x 480 display

constexpr int kSW = 1280, kSH = 720, kOW = 800, kOH = 480;

Picture &small_source() {
  static Picture p(kSW, kSH);
  p.bind();
  return p;
}

void travik_scaled(benchmark::State &state, int32_t format, int32_t level) {
  Picture &p = small_source();
  const int bpp = format == TRAVIK_PIXEL_RGB565 ? 2 : 4;
  std::vector<uint8_t> out(static_cast<size_t>(kOW) * kOH * bpp);
  const int32_t saved = travik_yuv2rgb_getsimd();
  travik_yuv2rgb_setsimd(level);
  travik_yuv2rgb *c = travik_yuv2rgb_create(format);
  travik_yuv2rgb_setscale(c, kSW, kSH, kOW, kOH);
  travik_yuv2rgb_setsimd(saved);
  for (auto _ : state) {
    travik_yuv2rgb_convert(c, kOW, kOH, out.data(), kOW * bpp, p.planes[0], p.planes[1],
                           p.planes[2], kSW, kSW / 2);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  travik_yuv2rgb_destroy(c);
  pixels(state, static_cast<int64_t>(kOW) * kOH);
}

void BM_ScaledRGB565_travik(benchmark::State &s) { travik_scaled(s, TRAVIK_PIXEL_RGB565, TRAVIK_SIMD_AVX2); }
void BM_ScaledRGB565_travik_ssse3(benchmark::State &s) { travik_scaled(s, TRAVIK_PIXEL_RGB565, TRAVIK_SIMD_SSE2); }
void BM_ScaledRGB565_travik_reference(benchmark::State &s) { travik_scaled(s, TRAVIK_PIXEL_RGB565, TRAVIK_SIMD_NONE); }
void BM_ScaledARGB_travik(benchmark::State &s) { travik_scaled(s, TRAVIK_PIXEL_RGB32, TRAVIK_SIMD_AVX2); }
void BM_ScaledARGB_travik_ssse3(benchmark::State &s) { travik_scaled(s, TRAVIK_PIXEL_RGB32, TRAVIK_SIMD_SSE2); }
void BM_ScaledARGB_travik_reference(benchmark::State &s) { travik_scaled(s, TRAVIK_PIXEL_RGB32, TRAVIK_SIMD_NONE); }

// libyuv in two steps: nearest-neighbour I420Scale into a picture of the
// display size, then the conversion.
void libyuv_scaled(benchmark::State &state, bool rgb565) {
  Picture &p = small_source();
  std::vector<uint8_t> y(kOW * kOH), u(kOW * kOH / 4), v(kOW * kOH / 4);
  std::vector<uint8_t> out(static_cast<size_t>(kOW) * kOH * (rgb565 ? 2 : 4));
  for (auto _ : state) {
    libyuv::I420Scale(p.planes[0], kSW, p.planes[1], kSW / 2, p.planes[2], kSW / 2, kSW, kSH,
                      y.data(), kOW, u.data(), kOW / 2, v.data(), kOW / 2, kOW, kOH,
                      libyuv::kFilterNone);
    if (rgb565)
      libyuv::I420ToRGB565(y.data(), kOW, u.data(), kOW / 2, v.data(), kOW / 2, out.data(),
                           kOW * 2, kOW, kOH);
    else
      libyuv::I420ToARGB(y.data(), kOW, u.data(), kOW / 2, v.data(), kOW / 2, out.data(),
                         kOW * 4, kOW, kOH);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  pixels(state, static_cast<int64_t>(kOW) * kOH);
}

void BM_ScaledRGB565_libyuv(benchmark::State &s) { libyuv_scaled(s, true); }
void BM_ScaledARGB_libyuv(benchmark::State &s) { libyuv_scaled(s, false); }

void swscale_scaled(benchmark::State &state, AVPixelFormat to, int bpp) {
  Picture &p = small_source();
  SwsContext *ctx = sws_getContext(kSW, kSH, AV_PIX_FMT_YUV420P, kOW, kOH, to, SWS_POINT,
                                   nullptr, nullptr, nullptr);
  std::vector<uint8_t> out(static_cast<size_t>(kOW) * kOH * bpp + 64);
  const uint8_t *src[4] = {p.planes[0], p.planes[1], p.planes[2], nullptr};
  const int src_stride[4] = {kSW, kSW / 2, kSW / 2, 0};
  uint8_t *dst[4] = {out.data(), nullptr, nullptr, nullptr};
  int dst_stride[4] = {kOW * bpp, 0, 0, 0};
  for (auto _ : state) {
    sws_scale(ctx, src, src_stride, 0, kSH, dst, dst_stride);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  sws_freeContext(ctx);
  pixels(state, static_cast<int64_t>(kOW) * kOH);
}

void BM_ScaledRGB565_swscale(benchmark::State &s) { swscale_scaled(s, AV_PIX_FMT_RGB565LE, 2); }
void BM_ScaledARGB_swscale(benchmark::State &s) { swscale_scaled(s, AV_PIX_FMT_BGRA, 4); }

// ----- 1280 x 720 turned a quarter clockwise for a portrait panel

void travik_turned(benchmark::State &state, int32_t format, int32_t level) {
  Picture &p = small_source();
  const int bpp = format == TRAVIK_PIXEL_RGB565 ? 2 : 4;
  std::vector<uint8_t> out(static_cast<size_t>(kSW) * kSH * bpp);
  const int32_t saved = travik_yuv2rgb_getsimd();
  travik_yuv2rgb_setsimd(level);
  travik_yuv2rgb *c = travik_yuv2rgb_create(format);
  travik_yuv2rgb_setrotation(c, 3);
  travik_yuv2rgb_setsimd(saved);
  for (auto _ : state) {
    // Destination rows are source-height pixels wide.
    travik_yuv2rgb_convert(c, kSW, kSH, out.data(), kSH * bpp, p.planes[0], p.planes[1],
                           p.planes[2], kSW, kSW / 2);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  travik_yuv2rgb_destroy(c);
  pixels(state, static_cast<int64_t>(kSW) * kSH);
}

void BM_TurnedRGB565_travik(benchmark::State &s) { travik_turned(s, TRAVIK_PIXEL_RGB565, TRAVIK_SIMD_AVX2); }
void BM_TurnedRGB565_travik_ssse3(benchmark::State &s) { travik_turned(s, TRAVIK_PIXEL_RGB565, TRAVIK_SIMD_SSE2); }
void BM_TurnedRGB565_travik_reference(benchmark::State &s) { travik_turned(s, TRAVIK_PIXEL_RGB565, TRAVIK_SIMD_NONE); }
void BM_TurnedARGB_travik(benchmark::State &s) { travik_turned(s, TRAVIK_PIXEL_RGB32, TRAVIK_SIMD_AVX2); }
void BM_TurnedARGB_travik_ssse3(benchmark::State &s) { travik_turned(s, TRAVIK_PIXEL_RGB32, TRAVIK_SIMD_SSE2); }
void BM_TurnedARGB_travik_reference(benchmark::State &s) { travik_turned(s, TRAVIK_PIXEL_RGB32, TRAVIK_SIMD_NONE); }

// libyuv in two steps: I420Rotate by 90 degrees into a 720 x 1280 picture,
// then the conversion.
void libyuv_turned(benchmark::State &state, bool rgb565) {
  Picture &p = small_source();
  std::vector<uint8_t> y(kSW * kSH), u(kSW * kSH / 4), v(kSW * kSH / 4);
  std::vector<uint8_t> out(static_cast<size_t>(kSW) * kSH * (rgb565 ? 2 : 4));
  for (auto _ : state) {
    libyuv::I420Rotate(p.planes[0], kSW, p.planes[1], kSW / 2, p.planes[2], kSW / 2, y.data(),
                       kSH, u.data(), kSH / 2, v.data(), kSH / 2, kSW, kSH, libyuv::kRotate90);
    if (rgb565)
      libyuv::I420ToRGB565(y.data(), kSH, u.data(), kSH / 2, v.data(), kSH / 2, out.data(),
                           kSH * 2, kSH, kSW);
    else
      libyuv::I420ToARGB(y.data(), kSH, u.data(), kSH / 2, v.data(), kSH / 2, out.data(),
                         kSH * 4, kSH, kSW);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  pixels(state, static_cast<int64_t>(kSW) * kSH);
}

void BM_TurnedRGB565_libyuv(benchmark::State &s) { libyuv_turned(s, true); }
void BM_TurnedARGB_libyuv(benchmark::State &s) { libyuv_turned(s, false); }

// ----- memory-copy bandwidth: one 1920 x 1080 32-bit picture

void BM_Memcpy_32bit_picture(benchmark::State &state) {
  const size_t bytes = static_cast<size_t>(kW) * kH * 4;
  std::vector<uint8_t> a(bytes, 1), b(bytes, 2);
  for (auto _ : state) {
    std::memcpy(b.data(), a.data(), bytes);
    benchmark::DoNotOptimize(b.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes));
  pixels(state, static_cast<int64_t>(kW) * kH);
}

BENCHMARK(BM_Memcpy_32bit_picture)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ToARGB_travik)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ToARGB_travik_ssse3)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ToARGB_travik_reference)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ToARGB_libyuv)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ToARGB_swscale)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ToRGB565_travik)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ToRGB565_travik_ssse3)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ToRGB565_travik_reference)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ToRGB565_libyuv)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ToRGB565_swscale)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Scale_travik)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Scale_travik_reference)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Scale_libyuv)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Scale_swscale)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ScaledRGB565_travik)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ScaledRGB565_travik_ssse3)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ScaledRGB565_travik_reference)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ScaledRGB565_libyuv)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ScaledRGB565_swscale)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ScaledARGB_travik)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ScaledARGB_travik_ssse3)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ScaledARGB_travik_reference)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ScaledARGB_libyuv)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ScaledARGB_swscale)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TurnedRGB565_travik)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TurnedRGB565_travik_ssse3)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TurnedRGB565_travik_reference)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TurnedRGB565_libyuv)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TurnedARGB_travik)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TurnedARGB_travik_ssse3)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TurnedARGB_travik_reference)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TurnedARGB_libyuv)->Unit(benchmark::kMicrosecond);

// Keeps each run's time per iteration so that the ratios can be printed.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &run : runs)
      if (run.run_type == Run::RT_Iteration && run.iterations > 0)
        times[run.benchmark_name()] = run.GetAdjustedCPUTime();
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> times;
};

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  auto &t = reporter.times;
  auto ratio = [&](const char *what, const std::string &ours, const std::string &theirs) {
    if (t.count(ours) && t.count(theirs))
      std::printf("%-76s %6.2fx\n", what, t[theirs] / t[ours]);
  };
  std::printf("\nthroughput ratios from CPU time (travik / other, same run; above 1 = travik faster)\n");
  ratio("1920x1080 to ARGB:   travik / libyuv", "BM_ToARGB_travik", "BM_ToARGB_libyuv");
  ratio("1920x1080 to ARGB:   travik / libswscale", "BM_ToARGB_travik", "BM_ToARGB_swscale");
  ratio("1920x1080 to RGB565: travik / libyuv", "BM_ToRGB565_travik", "BM_ToRGB565_libyuv");
  ratio("1920x1080 to RGB565: travik / libswscale", "BM_ToRGB565_travik", "BM_ToRGB565_swscale");
  ratio("1080p to 720p nearest: travik / libyuv", "BM_Scale_travik", "BM_Scale_libyuv");
  ratio("1080p to 720p nearest: travik / libswscale", "BM_Scale_travik", "BM_Scale_swscale");
  ratio("1280x720 4:2:0 scaled to 800x480 RGB565: optimised / reference", "BM_ScaledRGB565_travik",
        "BM_ScaledRGB565_travik_reference");
  ratio("1280x720 4:2:0 scaled to 800x480 RGB565: SSSE3 / reference",
        "BM_ScaledRGB565_travik_ssse3", "BM_ScaledRGB565_travik_reference");
  ratio("1280x720 4:2:0 scaled to 800x480 RGB565: travik / libyuv (I420Scale + I420ToRGB565)",
        "BM_ScaledRGB565_travik", "BM_ScaledRGB565_libyuv");
  ratio("1280x720 4:2:0 scaled to 800x480 RGB565: travik / libswscale", "BM_ScaledRGB565_travik",
        "BM_ScaledRGB565_swscale");
  ratio("1280x720 4:2:0 scaled to 800x480 32-bit: optimised / reference", "BM_ScaledARGB_travik",
        "BM_ScaledARGB_travik_reference");
  ratio("1280x720 4:2:0 scaled to 800x480 32-bit: SSSE3 / reference",
        "BM_ScaledARGB_travik_ssse3", "BM_ScaledARGB_travik_reference");
  ratio("1280x720 4:2:0 scaled to 800x480 32-bit: travik / libyuv (I420Scale + I420ToARGB)",
        "BM_ScaledARGB_travik", "BM_ScaledARGB_libyuv");
  ratio("1280x720 4:2:0 scaled to 800x480 32-bit: travik / libswscale", "BM_ScaledARGB_travik",
        "BM_ScaledARGB_swscale");
  ratio("1280x720 4:2:0 quarter turn to RGB565: optimised / reference", "BM_TurnedRGB565_travik",
        "BM_TurnedRGB565_travik_reference");
  ratio("1280x720 4:2:0 quarter turn to RGB565: SSSE3 / reference", "BM_TurnedRGB565_travik_ssse3",
        "BM_TurnedRGB565_travik_reference");
  ratio("1280x720 4:2:0 quarter turn to RGB565: travik / libyuv (I420Rotate + I420ToRGB565)",
        "BM_TurnedRGB565_travik", "BM_TurnedRGB565_libyuv");
  ratio("1280x720 4:2:0 quarter turn to 32-bit: optimised / reference", "BM_TurnedARGB_travik",
        "BM_TurnedARGB_travik_reference");
  ratio("1280x720 4:2:0 quarter turn to 32-bit: SSSE3 / reference", "BM_TurnedARGB_travik_ssse3",
        "BM_TurnedARGB_travik_reference");
  ratio("1280x720 4:2:0 quarter turn to 32-bit: travik / libyuv (I420Rotate + I420ToARGB)",
        "BM_TurnedARGB_travik", "BM_TurnedARGB_libyuv");
  const std::string copy = "BM_Memcpy_32bit_picture";
  if (t.count(copy)) {
    const double us = t[copy];
    std::printf("memory copy: %.0f MB/s (%.0f Mpix/s of 32-bit pixels)\n",
                kW * kH * 4.0 / us, kW * kH / us);
    for (const char *name : {"BM_ToARGB_travik", "BM_ToRGB565_travik", "BM_Scale_travik"})
      if (t.count(name)) {
        const double mpix = (std::string(name) == "BM_Scale_travik" ? kDW * kDH : kW * kH) / t[name];
        std::printf("%-22s %8.0f Mpix/s (%.2f of the copy's Mpix/s)\n", name + 3, mpix,
                    mpix / (kW * kH / us));
      }
  }
  benchmark::Shutdown();
  return 0;
}
