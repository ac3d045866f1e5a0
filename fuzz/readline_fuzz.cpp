// Line reading over a "mem" handle on arbitrary bytes.
#include <travik/io.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  int32_t line_size = data[0] % 64;  // 0..63
  std::vector<uint8_t> region(data + 1, data + size);
  char url[64];
  std::snprintf(url, sizeof url, "mem://%" PRIxPTR ":%d",
                reinterpret_cast<uintptr_t>(region.data()), static_cast<int>(region.size()));
  travik_io *io = travik_io_create(url);
  if (travik_io_open(io, -1) != 0) std::abort();
  // The buffer needs size + 1 bytes.
  std::vector<char> buffer(static_cast<size_t>(line_size) + 1, '\n');
  // With room for at least one byte every call consumes one or meets the end.
  bool ended = false;
  for (size_t i = 0; i <= region.size() + 1; i++) {
    int32_t length = travik_io_readline(io, buffer.data(), line_size);
    if (length < 0 || length > line_size) std::abort();
    if (io->eof) {
      ended = true;
      break;
    }
  }
  if (line_size > 0 && !ended) std::abort();
  travik_io_destroy(io);
  return 0;
}
