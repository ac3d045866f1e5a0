// The "wav" audio output: writes what it plays into a WAV file, paced in
// real time like the "null" device (device_clock.h) so that playback timing
// is the same as on a sound card.
//
// Argument: the file's path (text), required. The file takes the source
// format of the first init; later inputs are converted to it by the front
// end. The header's sizes are brought up to date after every write, so the
// file is valid even if the process stops early; close rewrites the header.
#include <fcntl.h>
#include <travik/audio.h>
#include <travik/plugin.h>
#include <unistd.h>

#include <atomic>

#include "device_clock.h"

namespace {

using travik_audioout::DeviceClock;

constexpr int32_t kWriteSize = 4096;
constexpr int32_t kBuffer = 32768;
constexpr int32_t kHeaderSize = 44;

struct WavDevice {
  DeviceClock clock;
  int fd = -1;
  std::atomic<int32_t> rate{48000}, channels{2};
  std::atomic<bool> initialised{false};
  uint32_t data_bytes = 0;  // audio bytes in the file
};

void put16(uint8_t *at, uint32_t v) {
  at[0] = static_cast<uint8_t>(v);
  at[1] = static_cast<uint8_t>(v >> 8);
}

void put32(uint8_t *at, uint32_t v) {
  put16(at, v & 0xFFFF);
  put16(at + 2, v >> 16);
}

bool write_all(int fd, const uint8_t *data, size_t bytes, off_t offset) {
  while (bytes > 0) {
    ssize_t n = pwrite(fd, data, bytes, offset);
    if (n <= 0) return false;
    data += n;
    bytes -= static_cast<size_t>(n);
    offset += n;
  }
  return true;
}

// The canonical 44-byte header of 16-bit PCM.
void write_header(WavDevice *device) {
  uint8_t h[kHeaderSize];
  uint32_t channels = static_cast<uint32_t>(device->channels.load());
  uint32_t rate = static_cast<uint32_t>(device->rate.load());
  memcpy(h, "RIFF", 4);
  put32(h + 4, 36 + device->data_bytes);
  memcpy(h + 8, "WAVEfmt ", 8);
  put32(h + 16, 16);
  put16(h + 20, 1);  // PCM
  put16(h + 22, channels);
  put32(h + 24, rate);
  put32(h + 28, rate * channels * 2);
  put16(h + 32, channels * 2);
  put16(h + 34, 16);
  memcpy(h + 36, "data", 4);
  put32(h + 40, device->data_bytes);
  write_all(device->fd, h, sizeof h, 0);
}

void update_sizes(WavDevice *device) {
  uint8_t size[4];
  put32(size, 36 + device->data_bytes);
  write_all(device->fd, size, 4, 4);
  put32(size, device->data_bytes);
  write_all(device->fd, size, 4, 40);
}

int32_t wav_probe(void *, const travik_audio_driver *) { return 1; }

void *wav_open(void *argument) {
  const char *path = static_cast<const char *>(argument);
  if (!path || !*path) return nullptr;
  int fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return nullptr;
  auto *device = new WavDevice;
  device->fd = fd;
  device->clock.configure(device->rate, device->channels, kBuffer);
  write_header(device);
  return device;
}

int32_t wav_init(void *handle, int32_t rate, int32_t channels) {
  auto *device = static_cast<WavDevice *>(handle);
  if (!device->initialised) {
    if (travik_audioout::usable_rate(rate)) device->rate = rate;
    if (travik_audioout::usable_channels(channels)) device->channels = channels;
    device->initialised = true;
    write_header(device);
  }
  device->clock.configure(device->rate, device->channels, kBuffer);
  return 0;
}

void wav_close(void *handle) {
  auto *device = static_cast<WavDevice *>(handle);
  write_header(device);
  ::close(device->fd);
  delete device;
}

int32_t wav_write(void *handle, const void *data, int32_t bytes) {
  auto *device = static_cast<WavDevice *>(handle);
  return device->clock.write(static_cast<const uint8_t *>(data), bytes,
                             [device](const uint8_t *piece, int32_t length) {
                               // The file keeps at most 4 GiB of audio.
                               if (device->data_bytes > 0xFFFFFFFFu - 36 - length) return;
                               if (!write_all(device->fd, piece, static_cast<size_t>(length),
                                              kHeaderSize + static_cast<off_t>(device->data_bytes)))
                                 return;
                               device->data_bytes += static_cast<uint32_t>(length);
                               update_sizes(device);
                             });
}

int32_t wav_getformat(void *handle, int32_t *rate, int32_t *channels) {
  auto *device = static_cast<WavDevice *>(handle);
  if (device->initialised) {
    *rate = device->rate;
    *channels = device->channels;
  }
  return 0;
}

int32_t wav_reset(void *handle) {
  static_cast<WavDevice *>(handle)->clock.reset();
  return 0;
}

int32_t wav_getdelay(void *handle) { return static_cast<WavDevice *>(handle)->clock.delay(); }

int32_t wav_getspace(void *handle) { return static_cast<WavDevice *>(handle)->clock.space(); }

travik_audio_driver drivers[] = {
    {"wav", nullptr, kWriteSize, wav_probe, wav_open, wav_init, wav_close, wav_write,
     wav_getformat, nullptr, wav_reset, wav_getdelay, wav_getspace},
    {nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
     nullptr, nullptr},
};

}  // namespace

TRAVIK_PLUGIN_EXPORT void travik_audioout_wav(void) {
  travik_plugin_register(TRAVIK_PLUGIN_AUDIOOUT, TRAVIK_PLUGIN_VERSION, drivers);
}
