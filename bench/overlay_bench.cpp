// The subtitle overlay's two costs with DejaVu Sans at 48 pixels: rendering
// a two-line entry (40 characters a line) into a 1920-wide 4:2:0 image, done
// once per entry, and blitting that image onto a 1920 x 1080 4:2:0 frame,
// done on every displayed frame. Each is reported in microseconds a call
// and as a share of a 40 ms frame interval.
#include <benchmark/benchmark.h>
#include <travik/draw.h>
#include <travik/font.h>
#include <travik/frame.h>
#include <travik/plugin.h>

#include <cstring>
#include <ctime>
#include <vector>

namespace {

constexpr int kW = 1920, kH = 1080;
constexpr const char *kFontFile = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";
const char *const kLines[2] = {"The quick brown fox jumps over a lazy do",
                               "Pack my box with five dozen liquor jugs!"};

// The freetype plugin, loaded by path and its driver handed in.
travik_font *font() {
  static travik_font *font = [] {
    travik_plugin *plugin =
        travik_plugin_create(TRAVIK_BENCH_FONT_PLUGIN, TRAVIK_PLUGIN_FONT, TRAVIK_PLUGIN_VERSION);
    if (!plugin) return static_cast<travik_font *>(nullptr);
    return travik_font_create(kFontFile, 48, static_cast<const travik_font_driver *>(plugin->drivers));
  }();
  return font;
}

// The overlay's rendering of an entry: an image of the frame's width, one
// text line box after the other, each centred.
travik_draw *render_entry(travik_font *f) {
  const int h = travik_font_getheight(f);
  travik_draw *image = travik_draw_create(kW, 2 * h + h / 4, nullptr, nullptr, TRAVIK_PIXEL_YUV420P);
  travik_draw_setcolor(image, 0xFFFFFFFFu);
  travik_draw_setfont(image, f);
  int y = 0;
  for (const char *line : kLines) {
    const auto length = static_cast<int32_t>(std::strlen(line));
    travik_font_extents e;
    travik_font_getstringextents(f, line, length, &e);
    travik_draw_rect box = {static_cast<int16_t>((kW - e.width) / 2), static_cast<int16_t>(y), e.width,
                            e.height};
    travik_draw_drawtext(image, &box, line, length, TRAVIK_DRAW_HCENTER | TRAVIK_DRAW_VCENTER);
    y += e.height;
  }
  return image;
}

// This thread's processor time in microseconds: on a shared machine it
// says more than the wall clock.
double cpu_us() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_nsec) / 1e3;
}

// Mean microseconds a call since `start`, and that as a share of 40 ms.
void per_frame_share(benchmark::State &state, double start) {
  const double us = (cpu_us() - start) / static_cast<double>(state.iterations());
  state.counters["us_per_call"] = us;
  state.counters["pct_of_40ms"] = us / 400.0;
}

void BM_RenderTwoLineEntry(benchmark::State &state) {
  travik_font *f = font();
  if (!f) {
    state.SkipWithError("no freetype plugin or font file");
    return;
  }
  travik_draw_destroy(render_entry(f));  // glyphs rasterised once, as in play
  const double start = cpu_us();
  for (auto _ : state) {
    travik_draw *image = render_entry(f);
    benchmark::DoNotOptimize(image->mask);
    travik_draw_destroy(image);
  }
  per_frame_share(state, start);
}
BENCHMARK(BM_RenderTwoLineEntry)->Unit(benchmark::kMicrosecond);

// A grey 1920x1080 4:2:0 picture for the blits to draw onto.
struct Frame1080p {
  std::vector<uint8_t> y = std::vector<uint8_t>(kW * kH, 90);
  std::vector<uint8_t> u = std::vector<uint8_t>(kW * kH / 4, 128);
  std::vector<uint8_t> v = std::vector<uint8_t>(kW * kH / 4, 128);
  uint8_t *planes[3] = {y.data(), u.data(), v.data()};
  int32_t pitches[3] = {kW, kW / 2, kW / 2};
};

void BM_BlitEntryOnto1080pFrame(benchmark::State &state) {
  travik_font *f = font();
  if (!f) {
    state.SkipWithError("no freetype plugin or font file");
    return;
  }
  travik_draw *image = render_entry(f);
  Frame1080p frame;
  const double start = cpu_us();
  for (auto _ : state) {
    // As the overlay does on every frame: a drawing over the frame, one blit.
    travik_draw *target =
        travik_draw_create(kW, kH, frame.planes, frame.pitches, TRAVIK_PIXEL_YUV420P);
    travik_draw_blit(target, (kW - image->width) / 2, kH - image->height, image->width,
                     image->height, image, 0, 0);
    travik_draw_destroy(target);
    benchmark::ClobberMemory();
  }
  travik_draw_destroy(image);
  per_frame_share(state, start);
}
BENCHMARK(BM_BlitEntryOnto1080pFrame)->Unit(benchmark::kMicrosecond);

// The blit alone, onto a drawing kept over the frame.
void BM_BlitOnly(benchmark::State &state) {
  travik_font *f = font();
  if (!f) {
    state.SkipWithError("no freetype plugin or font file");
    return;
  }
  travik_draw *image = render_entry(f);
  Frame1080p frame;
  travik_draw *target =
      travik_draw_create(kW, kH, frame.planes, frame.pitches, TRAVIK_PIXEL_YUV420P);
  const double start = cpu_us();
  for (auto _ : state) {
    travik_draw_blit(target, (kW - image->width) / 2, kH - image->height, image->width,
                     image->height, image, 0, 0);
    benchmark::ClobberMemory();
  }
  travik_draw_destroy(target);
  travik_draw_destroy(image);
  per_frame_share(state, start);
}
BENCHMARK(BM_BlitOnly)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
