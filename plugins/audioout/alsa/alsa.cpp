// The "alsa" audio output: a PCM device through libasound.
//
// Argument: the PCM name (text), default "default". Writes block until the
// device has taken every frame; an underrun or suspend is recovered with
// snd_pcm_recover and the write goes on. getdelay and getspace come from the
// PCM's delay and avail in bytes. A device that holds nothing to play (no
// delay, or an error such as an underrun) answers -1 to both, which is how
// the front end recognises an empty device. Reset drops what the PCM holds
// and prepares it again.
#include <alsa/asoundlib.h>
#include <travik/audio.h>
#include <travik/plugin.h>

#include <atomic>

namespace {

constexpr int32_t kWriteSize = 4096;
constexpr unsigned kLatencyUs = 200000;
constexpr int32_t kDrained = -1;

struct AlsaDevice {
  snd_pcm_t *pcm = nullptr;
  // Read by getformat, which the front end may call without its lock.
  std::atomic<int32_t> rate{0}, channels{0};
  std::atomic<bool> configured{false};
};

// libasound reports failures on standard error by itself; a probe that
// fails on a machine without a sound card is an answer, not an error.
void say_nothing(const char *, int, const char *, int, const char *, ...) {}

int32_t alsa_probe(void *, const travik_audio_driver *) {
  // Silenced for the probe only: the handler lives in this plugin, which
  // may be unloaded while libasound stays loaded, so it is never left set.
  snd_lib_error_set_handler(say_nothing);
  snd_pcm_t *pcm = nullptr;
  int result = snd_pcm_open(&pcm, "default", SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK);
  if (result >= 0) snd_pcm_close(pcm);
  snd_lib_error_set_handler(nullptr);
  return result < 0 ? 0 : 50;
}

void *alsa_open(void *argument) {
  const char *name = argument ? static_cast<const char *>(argument) : "default";
  snd_pcm_t *pcm = nullptr;
  if (snd_pcm_open(&pcm, name, SND_PCM_STREAM_PLAYBACK, 0) < 0) return nullptr;
  auto *device = new AlsaDevice;
  device->pcm = pcm;
  return device;
}

int32_t alsa_init(void *handle, int32_t rate, int32_t channels) {
  auto *device = static_cast<AlsaDevice *>(handle);
  device->configured = false;
  if (rate <= 0 || channels <= 0) return 1;
  snd_pcm_drop(device->pcm);
  // Resampling and channel mapping in the plug layer when the hardware
  // cannot play this format itself.
  if (snd_pcm_set_params(device->pcm, SND_PCM_FORMAT_S16, SND_PCM_ACCESS_RW_INTERLEAVED,
                         static_cast<unsigned>(channels), static_cast<unsigned>(rate), 1,
                         kLatencyUs) < 0)
    return 1;
  snd_pcm_hw_params_t *params;
  snd_pcm_hw_params_alloca(&params);
  unsigned played_rate = static_cast<unsigned>(rate), played_channels = static_cast<unsigned>(channels);
  if (snd_pcm_hw_params_current(device->pcm, params) == 0) {
    int direction = 0;
    snd_pcm_hw_params_get_rate(params, &played_rate, &direction);
    snd_pcm_hw_params_get_channels(params, &played_channels);
  }
  device->rate = static_cast<int32_t>(played_rate);
  device->channels = static_cast<int32_t>(played_channels);
  device->configured = true;
  return 0;
}

void alsa_close(void *handle) {
  auto *device = static_cast<AlsaDevice *>(handle);
  snd_pcm_drop(device->pcm);
  snd_pcm_close(device->pcm);
  delete device;
}

int32_t frame_bytes(AlsaDevice *device) { return 2 * device->channels; }

int32_t alsa_write(void *handle, const void *data, int32_t bytes) {
  auto *device = static_cast<AlsaDevice *>(handle);
  if (!device->configured || bytes <= 0) return 0;
  const int32_t frame = frame_bytes(device);
  const uint8_t *at = static_cast<const uint8_t *>(data);
  snd_pcm_uframes_t left = static_cast<snd_pcm_uframes_t>(bytes / frame);
  int32_t done = 0;
  for (int failures = 0; left > 0 && failures < 8;) {
    snd_pcm_sframes_t n = snd_pcm_writei(device->pcm, at, left);
    if (n == -EAGAIN) continue;
    if (n < 0) {
      failures++;
      if (snd_pcm_recover(device->pcm, static_cast<int>(n), 1) < 0) break;
      continue;
    }
    at += n * frame;
    done += static_cast<int32_t>(n) * frame;
    left -= static_cast<snd_pcm_uframes_t>(n);
  }
  return done;
}

int32_t alsa_getformat(void *handle, int32_t *rate, int32_t *channels) {
  auto *device = static_cast<AlsaDevice *>(handle);
  if (device->configured) {
    *rate = device->rate;
    *channels = device->channels;
  }
  return 0;
}

int32_t alsa_reset(void *handle) {
  auto *device = static_cast<AlsaDevice *>(handle);
  snd_pcm_drop(device->pcm);
  snd_pcm_prepare(device->pcm);
  return 0;
}

// Delay and free space in bytes, or -1 for both when nothing is left to play.
// Equal answers mean an empty device to the front end, so a device that
// holds something reports a space that is not 0 one byte short: an odd
// number, never equal to a delay of whole frames.
void query(AlsaDevice *device, int32_t *delay, int32_t *space) {
  *delay = *space = kDrained;
  if (!device->configured) return;
  snd_pcm_sframes_t avail = 0, held = 0;
  if (snd_pcm_avail_delay(device->pcm, &avail, &held) < 0 || held <= 0) return;
  const int32_t frame = frame_bytes(device);
  *delay = static_cast<int32_t>(held) * frame;
  *space = avail > 0 ? static_cast<int32_t>(avail) * frame - 1 : 0;
}

int32_t alsa_getdelay(void *handle) {
  int32_t delay, space;
  query(static_cast<AlsaDevice *>(handle), &delay, &space);
  return delay;
}

int32_t alsa_getspace(void *handle) {
  int32_t delay, space;
  query(static_cast<AlsaDevice *>(handle), &delay, &space);
  return space;
}

travik_audio_driver drivers[] = {
    {"alsa", nullptr, kWriteSize, alsa_probe, alsa_open, alsa_init, alsa_close, alsa_write,
     alsa_getformat, nullptr, alsa_reset, alsa_getdelay, alsa_getspace},
    {nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
     nullptr, nullptr},
};

}  // namespace

TRAVIK_PLUGIN_EXPORT void travik_audioout_alsa(void) {
  travik_plugin_register(TRAVIK_PLUGIN_AUDIOOUT, TRAVIK_PLUGIN_VERSION, drivers);
}
