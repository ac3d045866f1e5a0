// The audio output front end: staging, conversion, filters, volume, fade
// and the delay arithmetic over an audio-output driver.
#include <travik/audio.h>
#include <travik/system.h>

#include <cstdlib>
#include <cstring>

#include "base/filters.h"
#include "base/relaxed.h"
#include "plugin/output.h"

namespace {

const char kSource[] = "audio";

int32_t probe_score(void *table) {
  auto *driver = static_cast<travik_audio_driver *>(table);
  return driver->probe ? driver->probe(nullptr, driver) : 0;
}

// ---- arithmetic -----------------------------------------------------------

// ((bytes x 1000 / rate) / channels) / 2 in 32 bits: signed divisions, an
// unsigned halving. A device without a rate or channel count gives 0.
int32_t bytes_to_ms(int32_t bytes, int32_t rate, int32_t channels) {
  if (rate <= 0 || channels <= 0) return 0;
  int32_t x = static_cast<int32_t>(static_cast<uint32_t>(bytes) * 1000u);
  x = x / rate;
  x = x / channels;
  return static_cast<int32_t>(static_cast<uint32_t>(x) / 2u);
}

void query_format(travik_audio *audio, int32_t *rate, int32_t *channels) {
  *rate = relaxed_load(audio->rate);
  *channels = relaxed_load(audio->channels);
  audio->driver->getformat(audio->handle, rate, channels);
}

// (Re)creates the resampler for the stored source format at `speed`.
void configure(travik_audio *audio, float speed) {
  if (audio->resampler) {
    travik_resample_destroy(audio->resampler);
    free(audio->resampler);
    audio->resampler = nullptr;
  }
  int32_t rate = audio->rate, channels = audio->channels;
  int32_t device_rate = rate, device_channels = channels;
  audio->driver->getformat(audio->handle, &device_rate, &device_channels);
  if (device_rate > 0 && speed > 0.0f) {
    double scaled = static_cast<double>(device_rate) / static_cast<double>(speed);
    // A tiny speed would overflow the conversion: keep it within 32 bits.
    device_rate = scaled >= 2147483647.0 ? INT32_MAX : static_cast<int32_t>(scaled);
  }
  if (device_rate == rate && device_channels == channels) return;
  audio->resampler = static_cast<travik_resample *>(malloc(sizeof(travik_resample)));
  travik_resample_init(audio->resampler, rate, channels, 16, device_rate, device_channels);
}

// Volume, then fade, then the driver; every write goes through here.
int32_t write_out(travik_audio *audio, uint8_t *data, int32_t bytes) {
  int16_t *s = reinterpret_cast<int16_t *>(data);
  int32_t values = bytes / 2;
  int32_t volume = relaxed_load(audio->volume);
  if (volume <= 0) {
    memset(data, 0, static_cast<size_t>(bytes));
  } else if (volume < 100) {
    // Samples from -4 to 4 are left as they are.
    int32_t factor = volume * 1024 / 100;
    for (int32_t k = 0; k < values; k++) {
      int32_t v = s[k];
      if (v < -4 || v > 4) s[k] = static_cast<int16_t>((v * factor) >> 10);
    }
  }
  if (relaxed_load(audio->fade_mode) != 0) {
    // Stepped once per pair of samples: the fade assumes two channels. The
    // fields are read and written pair by pair, not cached for the buffer:
    // a fade started meanwhile from another thread (without the lock) then
    // takes effect at once instead of being overwritten when the buffer is
    // done. The pair that completes a fade-in leaves the gain at unity, so
    // every further pair would stay as it is: the walk stops there.
    int32_t pairs = bytes / 4;
    for (int32_t k = 0; k < pairs; k++) {
      int32_t held = relaxed_load(audio->fade_gain);
      int64_t next = static_cast<int64_t>(held) + relaxed_load(audio->fade_step);
      bool complete = false;
      if (next < 0) {
        relaxed_store(audio->fade_gain, 0);
      } else if (next > 0x10000) {
        relaxed_store(audio->fade_gain, 0x10000);
        relaxed_store(audio->fade_mode, 0);
        complete = true;
      } else {
        relaxed_store(audio->fade_gain, static_cast<int32_t>(next));
      }
      s[2 * k] = static_cast<int16_t>((static_cast<int64_t>(s[2 * k]) * held) >> 16);
      s[2 * k + 1] = static_cast<int16_t>((static_cast<int64_t>(s[2 * k + 1]) * held) >> 16);
      if (complete) break;
    }
  }
  return audio->driver->write(audio->handle, data, bytes);
}

struct PlayState {
  int64_t timestamp;  // running time of the next buffer's start
  int32_t tag;
  int32_t rate;       // device format
  int32_t channels;
  int32_t total;      // bytes the driver accepted
};

// Filters, the running time, then the write of `bytes` staged bytes.
void hand_on(travik_audio *audio, PlayState &state, int32_t bytes) {
  travik_audioframe record;
  memset(&record, 0, sizeof record);
  record.kind = TRAVIK_FRAME_AUDIO;
  record.timestamp = state.timestamp;
  record.samples = reinterpret_cast<int16_t *>(audio->buffer);
  record.count = bytes / 2;
  record.tag = state.tag;
  travik_filters_run<travik_audio_filter_fn>(&audio->filters, &record);
  // A device that reports no rate or channels leaves the time where it is
  // rather than dividing by zero.
  if (state.rate > 0 && state.channels > 0) {
    uint64_t product = static_cast<uint64_t>(bytes / 2) * 1000000u;
    state.timestamp += static_cast<int64_t>(product) / state.rate / state.channels;
  }
  state.total += write_out(audio, audio->buffer, bytes);
}

}  // namespace

extern "C" {

travik_plugin *travik_audio_load_driver(const char *name) {
  return travik_output_load_driver("audioout", TRAVIK_PLUGIN_AUDIOOUT, name, probe_score);
}

travik_audio *travik_audio_create(const char *name, void *argument) {
  if (!name) return nullptr;
  travik_plugin *plugin = nullptr;
  travik_audio_driver *driver;
  if (strcmp(name, "driver") == 0) {
    driver = static_cast<travik_audio_driver *>(argument);
  } else {
    plugin = travik_audio_load_driver(name);
    if (!plugin) return nullptr;
    driver = static_cast<travik_audio_driver *>(plugin->drivers);
  }
  if (!driver || !driver->open) {
    if (plugin) travik_plugin_destroy(plugin);
    return nullptr;
  }
  void *handle = driver->open(argument);
  if (!handle) {
    if (plugin) travik_plugin_destroy(plugin);
    return nullptr;
  }
  // One write must hold at least one stereo frame of resampled output;
  // smaller sizes would never fill (and 0 or less would never advance).
  if (driver->bufsize < 4) {
    travik_warning_detail(__func__, kSource, __LINE__, "audio driver %s: write size %d refused",
                          driver->name ? driver->name : "(unnamed)", driver->bufsize);
    driver->close(handle);
    if (plugin) travik_plugin_destroy(plugin);
    return nullptr;
  }
  auto *audio = static_cast<travik_audio *>(calloc(1, sizeof(travik_audio)));
  audio->plugin = plugin;
  audio->driver = driver;
  audio->handle = handle;
  audio->buffer = static_cast<uint8_t *>(malloc(static_cast<size_t>(driver->bufsize)));
  audio->volume = 100;
  audio->fill = 0;
  audio->fade_mode = 0;
  audio->resampler = nullptr;
  audio->rate = -1;
  audio->channels = -1;
  travik_list_init(&audio->filters);
  pthread_mutex_init(&audio->lock, nullptr);
  return audio;
}

void travik_audio_destroy(travik_audio *audio) {
  if (!audio) return;
  if (audio->resampler) {
    travik_resample_destroy(audio->resampler);
    free(audio->resampler);
  }
  audio->driver->close(audio->handle);
  if (audio->plugin) travik_plugin_destroy(audio->plugin);
  pthread_mutex_destroy(&audio->lock);
  travik_list_destroy(&audio->filters);
  free(audio->buffer);
  free(audio);
}

int travik_audio_init(travik_audio *audio, int32_t rate, int32_t channels) {
  if (!audio) return 1;
  pthread_mutex_lock(&audio->lock);
  relaxed_store(audio->rate, rate);
  relaxed_store(audio->channels, channels);
  audio->driver->init(audio->handle, rate, channels);
  configure(audio, 1.0f);
  pthread_mutex_unlock(&audio->lock);
  return 0;
}

int travik_audio_setspeed(travik_audio *audio, float speed) {
  if (!audio) return 1;
  pthread_mutex_lock(&audio->lock);
  if (audio->rate > 0 && audio->channels > 0) configure(audio, speed);
  pthread_mutex_unlock(&audio->lock);
  return 0;
}

int32_t travik_audio_play(travik_audio *audio, travik_audioframe *frame) {
  if (!audio || !frame) return 0;
  pthread_mutex_lock(&audio->lock);
  PlayState state{frame->timestamp, frame->tag, 0, 0, 0};
  query_format(audio, &state.rate, &state.channels);
  const int32_t bufsize = audio->driver->bufsize;
  const int32_t count = frame->samples && frame->count > 0 ? frame->count : 0;
  if (audio->resampler) {
    travik_resample_setsource(audio->resampler, frame->samples, count);
    for (;;) {
      int32_t values = (bufsize - audio->fill) / 2;
      int32_t got = travik_resample_convert(
          audio->resampler, reinterpret_cast<int16_t *>(audio->buffer + audio->fill), values);
      if (got <= 0) break;
      audio->fill += 2 * got;
      // Full, or too full for one more stereo frame (a write size that is
      // not a multiple of 4 bytes).
      if (bufsize - audio->fill < 4) {
        hand_on(audio, state, audio->fill);
        audio->fill = 0;
      }
    }
  } else {
    const uint8_t *from = reinterpret_cast<const uint8_t *>(frame->samples);
    int64_t left = 2 * static_cast<int64_t>(count);
    while (left > 0) {
      int32_t room = bufsize - audio->fill;
      int32_t piece = left < room ? static_cast<int32_t>(left) : room;
      memcpy(audio->buffer + audio->fill, from, static_cast<size_t>(piece));
      audio->fill += piece;
      from += piece;
      left -= piece;
      if (audio->fill == bufsize) {
        hand_on(audio, state, bufsize);
        audio->fill = 0;
      }
    }
  }
  pthread_mutex_unlock(&audio->lock);
  return state.total / 2;
}

int travik_audio_flush(travik_audio *audio) {
  if (!audio) return 1;
  pthread_mutex_lock(&audio->lock);
  int32_t fill = audio->fill;
  if (fill > 0) {
    int32_t rest = audio->driver->bufsize - fill;
    write_out(audio, audio->buffer, fill);
    memset(audio->buffer, 0, static_cast<size_t>(rest));
    write_out(audio, audio->buffer, rest);
    audio->fill = 0;
  }
  int32_t mode = relaxed_load(audio->fade_mode);
  if (mode == TRAVIK_AUDIO_FADE_OUT) relaxed_store(audio->fade_gain, 0);
  if (mode == TRAVIK_AUDIO_FADE_IN) relaxed_store(audio->fade_gain, 0x10000);
  pthread_mutex_unlock(&audio->lock);
  return 0;
}

int travik_audio_reset(travik_audio *audio) {
  if (!audio) return 1;
  pthread_mutex_lock(&audio->lock);
  audio->fill = 0;
  audio->driver->reset(audio->handle);
  pthread_mutex_unlock(&audio->lock);
  return 0;
}

int32_t travik_audio_getdelay(travik_audio *audio) {
  if (!audio) return -1;
  pthread_mutex_lock(&audio->lock);
  int32_t rate, channels;
  query_format(audio, &rate, &channels);
  int32_t bytes = audio->driver->getdelay(audio->handle);
  pthread_mutex_unlock(&audio->lock);
  return bytes_to_ms(bytes, rate, channels);
}

int32_t travik_audio_getinterval(travik_audio *audio) {
  if (!audio) return -1;
  pthread_mutex_lock(&audio->lock);
  int32_t rate, channels;
  query_format(audio, &rate, &channels);
  pthread_mutex_unlock(&audio->lock);
  return bytes_to_ms(audio->driver->bufsize, rate, channels);
}

int32_t travik_audio_getspace(travik_audio *audio) {
  if (!audio) return -1;
  pthread_mutex_lock(&audio->lock);
  int32_t space = audio->driver->getspace(audio->handle);
  pthread_mutex_unlock(&audio->lock);
  return space;
}

int travik_audio_isempty(travik_audio *audio) {
  if (!audio || !audio->driver) return 1;
  int32_t delay = audio->driver->getdelay(audio->handle);
  int32_t space = audio->driver->getspace(audio->handle);
  return delay == space ? 1 : 0;
}

int travik_audio_capabilities(travik_audio *audio, int32_t *rate, int32_t *channels) {
  if (!audio || !audio->driver) return 1;
  audio->driver->getformat(audio->handle, rate, channels);
  return 0;
}

int travik_audio_control(travik_audio *audio, int32_t command, void *value) {
  if (!audio || !audio->driver->control) return 0;
  pthread_mutex_lock(&audio->lock);
  audio->driver->control(audio->handle, command, value);
  pthread_mutex_unlock(&audio->lock);
  return 0;
}

int travik_audio_setvolume(travik_audio *audio, int32_t volume) {
  if (!audio) return 1;
  if (volume < 0) volume = 0;
  if (volume > 100) volume = 100;
  relaxed_store(audio->volume, volume);
  return 0;
}

int travik_audio_fade(travik_audio *audio, int32_t mode, int32_t milliseconds) {
  if (!audio || !audio->driver) return 0;
  if (milliseconds > 1000) milliseconds = 1000;
  int32_t rate, channels;
  query_format(audio, &rate, &channels);
  if (mode == TRAVIK_AUDIO_FADE_OUT || mode == TRAVIK_AUDIO_FADE_IN) {
    if (milliseconds == 0 || rate <= 0) {
      // Nothing to spread the fade over (0 ms would divide by zero), or a
      // device that does not know its rate yet (the query is pre-filled
      // with the source rate, -1 before init): straight to the end state.
      // A negative duration is not special: it goes through the arithmetic
      // below and gives a step of the opposite sign.
      if (mode == TRAVIK_AUDIO_FADE_OUT) {
        relaxed_store(audio->fade_step, -0x10000);
        relaxed_store(audio->fade_gain, 0);
      } else {
        relaxed_store(audio->fade_step, 0x10000);
        relaxed_store(audio->fade_gain, 0x10000);
        mode = TRAVIK_AUDIO_FADE_NONE;
      }
    } else {
      float pairs = static_cast<float>(static_cast<double>(static_cast<int64_t>(milliseconds) * rate) /
                                       1000.0);
      float ratio = 65536.0f / pairs;
      double rounded = static_cast<double>(ratio) + 0.5;
      // |pairs| >= 0.001 keeps this within 32 bits; the bounds are a guard.
      int32_t increment = rounded >= 2147483647.0    ? INT32_MAX
                          : rounded <= -2147483647.0 ? -INT32_MAX
                                                     : static_cast<int32_t>(rounded);
      if (mode == TRAVIK_AUDIO_FADE_OUT) {
        relaxed_store(audio->fade_step, -increment);
        relaxed_store(audio->fade_gain, 0x10000);
      } else {
        relaxed_store(audio->fade_step, increment);
        relaxed_store(audio->fade_gain, 0);
      }
    }
  }
  relaxed_store(audio->fade_mode, mode);
  return 0;
}

int travik_audio_install_filter(travik_audio *audio, travik_audio_filter_fn function,
                                void *argument) {
  if (!audio) return 1;
  travik_filters_install(&audio->filters, function, argument);
  return 0;
}

int travik_audio_remove_filter(travik_audio *audio, travik_audio_filter_fn function,
                               void *argument) {
  if (!audio) return 1;
  travik_filters_remove(&audio->filters, function, argument);
  return 0;
}

}  // extern "C"
