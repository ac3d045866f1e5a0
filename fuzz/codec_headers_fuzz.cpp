// Feeds the WAVE format and bitmap information header readers arbitrary
// bytes and header sizes over a "mem" input.
#include <travik/codec.h>
#include <travik/io.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 3) return 0;
  const bool bitmap = data[0] & 1;
  // Header sizes from 0 to 65535, or very large ones.
  int32_t header = data[1] | data[2] << 8;
  if (data[0] & 2) header = 0x7FFFFFFF - header;
  std::vector<uint8_t> bytes(data + 3, data + size);
  bytes.push_back(0);
  char url[64];
  std::snprintf(url, sizeof url, "mem://%llx:%u",
                static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(bytes.data())),
                static_cast<unsigned>(size - 3));
  travik_io *io = travik_io_create(url);
  travik_io_open(io, -1);
  travik_codec_info info;
  std::memset(&info, 0, sizeof info);
  if (bitmap)
    travik_read_bmi_header(io, &info, header);
  else
    travik_read_wav_header(io, &info, header);
  if (info.extradata_size > 0) {
    // Every byte the reader claims to hold must be readable.
    volatile uint8_t sum = 0;
    for (int32_t i = 0; i < info.extradata_size; i++) sum = sum + info.extradata[i];
  }
  std::free(info.extradata);
  travik_io_destroy(io);
  return 0;
}
