// Audio path benchmarks: resampler throughput against speexdsp (quality 0)
// and libswresample on the same input in the same run, printed as ratios;
// the cost of travik_audio_play per second of 48 kHz stereo audio with
// volume 50 and a running fade; and allocations made in steady state.
//
// Run: ./bench_audio [seconds of input per case, default 10]
#include <travik/audio.h>
#include <travik/resample.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
#include <speex/speex_resampler.h>
}

// ---- allocation counting (interposes the C allocator) ---------------------

static std::atomic<long> g_allocations{0};
extern "C" void *__libc_malloc(size_t);
extern "C" void *__libc_calloc(size_t, size_t);
extern "C" void *__libc_realloc(void *, size_t);
extern "C" void *malloc(size_t n) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(n);
}
extern "C" void *calloc(size_t n, size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_calloc(n, size);
}
extern "C" void *realloc(void *p, size_t n) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_realloc(p, n);
}

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRuns = 5;
constexpr int kBlockFrames = 1152;  // input frames handed over per call

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// A deterministic, busy test signal: a few integer "tones" plus noise.
std::vector<int16_t> make_input(int32_t rate, int32_t channels, int32_t seconds) {
  size_t frames = static_cast<size_t>(rate) * seconds;
  std::vector<int16_t> v(frames * channels);
  uint32_t noise = 12345;
  for (size_t f = 0; f < frames; f++) {
    for (int32_t c = 0; c < channels; c++) {
      noise = noise * 1103515245u + 12345u;
      int32_t tone = static_cast<int32_t>((f * (37 + c * 11)) % 512) - 256;
      int32_t value = tone * 40 + static_cast<int32_t>((noise >> 16) % 2001) - 1000;
      v[f * channels + c] = static_cast<int16_t>(value);
    }
  }
  return v;
}

struct Case {
  const char *label;
  int32_t from, channels, to;
};

struct Result {
  double seconds = 1e30;
  size_t out_values = 0;
};

Result run_travik(const Case &c, const std::vector<int16_t> &in, bool reference,
                  std::vector<int16_t> *keep, long *allocations) {
  Result best;
  std::vector<int16_t> out(8192);
  for (int run = 0; run < kRuns; run++) {
    travik_resample r;
    travik_resample_init(&r, c.from, c.channels, 16, c.to, 2);
    if (reference) travik_resample_use_reference(&r);
    size_t produced = 0;
    long allocations_before = 0;
    auto start = Clock::now();
    const int32_t block = kBlockFrames * c.channels;
    for (size_t at = 0; at < in.size(); at += block) {
      if (at == 4u * block) allocations_before = g_allocations.load();
      int32_t n = static_cast<int32_t>(std::min<size_t>(block, in.size() - at));
      travik_resample_setsource(&r, in.data() + at, n);
      int32_t got;
      while ((got = travik_resample_convert(&r, out.data(), static_cast<int32_t>(out.size()))) > 0) {
        if (keep && run == 0) keep->insert(keep->end(), out.begin(), out.begin() + got);
        produced += static_cast<size_t>(got);
      }
    }
    double t = seconds_since(start);
    if (allocations && run == 1) *allocations = g_allocations.load() - allocations_before;
    travik_resample_destroy(&r);
    if (t < best.seconds) best.seconds = t;
    best.out_values = produced;
  }
  return best;
}

Result run_speex(const Case &c, const std::vector<int16_t> &in) {
  Result best;
  int32_t out_channels = c.channels;  // speexdsp does not mix channels
  std::vector<int16_t> out(8192 * out_channels);
  for (int run = 0; run < kRuns; run++) {
    int err = 0;
    SpeexResamplerState *st = speex_resampler_init(static_cast<spx_uint32_t>(c.channels),
                                                   static_cast<spx_uint32_t>(c.from),
                                                   static_cast<spx_uint32_t>(c.to), 0, &err);
    speex_resampler_skip_zeros(st);
    size_t produced = 0;
    auto start = Clock::now();
    const size_t block = static_cast<size_t>(kBlockFrames) * c.channels;
    for (size_t at = 0; at < in.size(); at += block) {
      spx_uint32_t left = static_cast<spx_uint32_t>(std::min(block, in.size() - at) / c.channels);
      const int16_t *from = in.data() + at;
      while (left > 0) {
        spx_uint32_t in_len = left, out_len = 8192;
        speex_resampler_process_interleaved_int(st, from, &in_len, out.data(), &out_len);
        from += in_len * c.channels;
        left -= in_len;
        produced += out_len * out_channels;
      }
    }
    double t = seconds_since(start);
    speex_resampler_destroy(st);
    if (t < best.seconds) best.seconds = t;
    best.out_values = produced;
  }
  return best;
}

Result run_swr(const Case &c, const std::vector<int16_t> &in) {
  Result best;
  AVChannelLayout in_layout, out_layout = AV_CHANNEL_LAYOUT_STEREO;
  av_channel_layout_default(&in_layout, c.channels);
  std::vector<int16_t> out(16384 * 2);
  for (int run = 0; run < kRuns; run++) {
    SwrContext *swr = nullptr;
    swr_alloc_set_opts2(&swr, &out_layout, AV_SAMPLE_FMT_S16, c.to, &in_layout, AV_SAMPLE_FMT_S16,
                        c.from, 0, nullptr);
    swr_init(swr);
    size_t produced = 0;
    auto start = Clock::now();
    const size_t block = static_cast<size_t>(kBlockFrames) * c.channels;
    for (size_t at = 0; at < in.size(); at += block) {
      int n = static_cast<int>(std::min(block, in.size() - at) / c.channels);
      const uint8_t *from = reinterpret_cast<const uint8_t *>(in.data() + at);
      uint8_t *to = reinterpret_cast<uint8_t *>(out.data());
      int got = swr_convert(swr, &to, 16384, &from, n);
      if (got > 0) produced += static_cast<size_t>(got) * 2;
    }
    double t = seconds_since(start);
    swr_free(&swr);
    if (t < best.seconds) best.seconds = t;
    best.out_values = produced;
  }
  av_channel_layout_uninit(&in_layout);
  return best;
}

// ---- travik_audio_play cost -----------------------------------------------

int32_t sink_init(void *, int32_t, int32_t) { return 0; }
void sink_close(void *) {}
int32_t sink_write(void *, const void *, int32_t bytes) { return bytes; }
int32_t sink_getformat(void *, int32_t *rate, int32_t *channels) {
  *rate = 48000;
  *channels = 2;
  return 0;
}
int32_t sink_reset(void *) { return 0; }
int32_t sink_getdelay(void *) { return 0; }
int32_t sink_getspace(void *) { return 4096; }
void *sink_open(void *table) { return table; }

travik_audio_driver sink_table = {"sink", nullptr, 4096, nullptr, sink_open, sink_init, sink_close,
                                  sink_write, sink_getformat, nullptr, sink_reset, sink_getdelay,
                                  sink_getspace};

void bench_play(int32_t seconds) {
  std::vector<int16_t> in = make_input(48000, 2, seconds);
  double best = 1e30;
  long allocations = -1;
  for (int run = 0; run < kRuns; run++) {
    travik_audio *audio = travik_audio_create("driver", &sink_table);
    travik_audio_init(audio, 48000, 2);
    travik_audio_setvolume(audio, 50);
    // A fade-out keeps its fade running (lasting silence) until changed.
    travik_audio_fade(audio, TRAVIK_AUDIO_FADE_OUT, 1000);
    travik_audioframe frame;
    travik_audioframe_init(&frame, nullptr);
    // The front end scales the staged copy, not the frame: one input serves.
    const int32_t block = kBlockFrames * 2;
    long before = 0;
    auto start = Clock::now();
    for (size_t at = 0; at < in.size(); at += block) {
      if (at == 4u * block) before = g_allocations.load();
      frame.samples = const_cast<int16_t *>(in.data() + at);
      frame.count = static_cast<int32_t>(std::min<size_t>(block, in.size() - at));
      frame.timestamp = static_cast<int64_t>(at / 2) * 1000000 / 48000;
      travik_audio_play(audio, &frame);
    }
    double t = seconds_since(start);
    if (run == 1) allocations = g_allocations.load() - before;
    travik_audio_destroy(audio);
    if (t < best) best = t;
  }
  printf("\ntravik_audio_play, 48000 Hz stereo, volume 50, running fade, %d s of audio:\n", seconds);
  printf("  %.1f us per second of audio (%.4f %% of real time); allocations in steady state: %ld\n",
         best / seconds * 1e6, best / seconds * 100.0, allocations);
}

}  // namespace

int main(int argc, char **argv) {
  int32_t seconds = argc > 1 ? atoi(argv[1]) : 10;
  if (seconds < 1) seconds = 1;
  const Case cases[] = {
      {"44100 -> 48000 stereo", 44100, 2, 48000},
      {"48000 -> 44100 stereo", 48000, 2, 44100},
      {"22050 mono -> 44100", 22050, 1, 44100},
      {"48000 6ch -> 44100 stereo", 48000, 6, 44100},
      {"48000 6ch -> 48000 stereo", 48000, 6, 48000},
  };
  printf("Resampler throughput, %d s of input per case, best of %d runs, %d-frame input blocks\n",
         seconds, kRuns, kBlockFrames);
  printf("(speexdsp quality 0 keeps the channel count; libswresample mixes to stereo)\n\n");
  printf("%-28s %12s %12s %12s %9s %9s  %s\n", "case", "travik Mf/s", "speex Mf/s", "swr Mf/s",
         "x speex", "x swr", "checks");
  double worst_speex = 1e30, worst_swr = 1e30;
  for (const Case &c : cases) {
    std::vector<int16_t> in = make_input(c.from, c.channels, seconds);
    double frames = static_cast<double>(in.size()) / c.channels;
    std::vector<int16_t> fast_out, ref_out;
    long allocations = -1;
    Result t = run_travik(c, in, false, &fast_out, &allocations);
    run_travik(c, in, true, &ref_out, nullptr);
    bool exact = fast_out == ref_out;
    Result s = run_speex(c, in);
    Result w = run_swr(c, in);
    double ts = frames / t.seconds / 1e6, ss = frames / s.seconds / 1e6, ws = frames / w.seconds / 1e6;
    double rs = s.seconds / t.seconds, rw = w.seconds / t.seconds;
    if (rs < worst_speex) worst_speex = rs;
    if (rw < worst_swr) worst_swr = rw;
    printf("%-28s %12.1f %12.1f %12.1f %8.2fx %8.2fx  %s, %ld allocations in steady state\n",
           c.label, ts, ss, ws, rs, rw,
           exact ? "bit-exact to reference" : "MISMATCH",
           allocations);
    if (!exact) return 1;
  }
  printf("\nlowest ratio: %.2fx speexdsp, %.2fx libswresample (target: 3x)\n", worst_speex,
         worst_swr);
  bench_play(seconds * 6);
  return 0;
}
