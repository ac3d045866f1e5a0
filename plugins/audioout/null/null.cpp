// The "null" audio output: a device that plays nothing but keeps real time.
// It accepts bytes at the device rate and reports its delay and free space
// from the wall clock against a buffer of fixed size (device_clock.h).
//
// Argument (optional text): "rate=<Hz>,channels=<n>,buffer=<bytes>". A rate
// or channel count given there is what the device plays, and the front end
// converts to it; without one the device plays the source format given to
// init. The buffer defaults to 32768 bytes.
#include <travik/audio.h>
#include <travik/plugin.h>

#include <atomic>

#include "device_clock.h"

namespace {

using travik_audioout::DeviceClock;

constexpr int32_t kWriteSize = 4096;
constexpr int32_t kDefaultBuffer = 32768;

struct NullDevice {
  DeviceClock clock;
  int32_t fixed_rate = 0, fixed_channels = 0;  // 0: follow the source
  // Read by getformat, which the front end may call without its lock.
  std::atomic<int32_t> rate{48000}, channels{2};
  std::atomic<bool> initialised{false};
  int32_t buffer = kDefaultBuffer;
};

int32_t null_probe(void *, const travik_audio_driver *) { return 10; }

void *null_open(void *argument) {
  const char *text = static_cast<const char *>(argument);
  auto *device = new NullDevice;
  int32_t rate = travik_audioout::argument_number(text, "rate", 0);
  int32_t channels = travik_audioout::argument_number(text, "channels", 0);
  if (travik_audioout::usable_rate(rate)) device->fixed_rate = device->rate = rate;
  if (travik_audioout::usable_channels(channels)) device->fixed_channels = device->channels = channels;
  device->buffer = travik_audioout::argument_number(text, "buffer", kDefaultBuffer);
  device->clock.configure(device->rate, device->channels, device->buffer);
  return device;
}

int32_t null_init(void *handle, int32_t rate, int32_t channels) {
  auto *device = static_cast<NullDevice *>(handle);
  if (!device->fixed_rate && travik_audioout::usable_rate(rate)) device->rate = rate;
  if (!device->fixed_channels && travik_audioout::usable_channels(channels))
    device->channels = channels;
  device->initialised = true;
  device->clock.configure(device->rate, device->channels, device->buffer);
  return 0;
}

void null_close(void *handle) { delete static_cast<NullDevice *>(handle); }

int32_t null_write(void *handle, const void *data, int32_t bytes) {
  auto *device = static_cast<NullDevice *>(handle);
  return device->clock.write(static_cast<const uint8_t *>(data), bytes,
                             [](const uint8_t *, int32_t) {});
}

int32_t null_getformat(void *handle, int32_t *rate, int32_t *channels) {
  auto *device = static_cast<NullDevice *>(handle);
  // Before init a device that follows the source plays what is wanted.
  if (device->initialised || device->fixed_rate) *rate = device->rate;
  if (device->initialised || device->fixed_channels) *channels = device->channels;
  return 0;
}

int32_t null_reset(void *handle) {
  static_cast<NullDevice *>(handle)->clock.reset();
  return 0;
}

int32_t null_getdelay(void *handle) { return static_cast<NullDevice *>(handle)->clock.delay(); }

int32_t null_getspace(void *handle) { return static_cast<NullDevice *>(handle)->clock.space(); }

travik_audio_driver drivers[] = {
    {"null", nullptr, kWriteSize, null_probe, null_open, null_init, null_close, null_write,
     null_getformat, nullptr, null_reset, null_getdelay, null_getspace},
    {nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
     nullptr, nullptr},
};

}  // namespace

TRAVIK_PLUGIN_EXPORT void travik_audioout_null(void) {
  travik_plugin_register(TRAVIK_PLUGIN_AUDIOOUT, TRAVIK_PLUGIN_VERSION, drivers);
}
