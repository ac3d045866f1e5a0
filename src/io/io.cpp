// I/O handles: the generic operations (end-of-input tracking, skipping,
// length caching, the input-rate measurement), the "file" and "mem"
// back-ends, the back-end table and the socket registration table.
#include <travik/io.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "io/net.h"

extern "C" {
int32_t travik_io_sockets[10][2] = {{-1, -1}, {-1, -1}, {-1, -1}, {-1, -1}, {-1, -1},
                                    {-1, -1}, {-1, -1}, {-1, -1}, {-1, -1}, {-1, -1}};
}

namespace {

// ---- "file": the descriptor itself is the back-end state ----

int file_fd(travik_io *io) { return static_cast<int>(reinterpret_cast<intptr_t>(io->backend_data)); }

int32_t file_open(travik_io *io, int32_t flags) {
  if (!io->url.path) return 1;
  int fd = ::open(io->url.path, flags == -1 ? O_RDONLY : flags, 0644);
  if (fd < 0) return 1;
  struct stat st;
  if (fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
    ::close(fd);
    return 1;
  }
  if (fd == 0) {
    // A null state means "closed": keep descriptor 0 free of that meaning.
    int moved = fcntl(fd, F_DUPFD_CLOEXEC, 1);
    ::close(fd);
    if (moved < 0) return 1;
    fd = moved;
  }
  io->backend_data = reinterpret_cast<void *>(static_cast<intptr_t>(fd));
  return 0;
}

int32_t file_read(travik_io *io, void *buffer, int32_t count) {
  return static_cast<int32_t>(::read(file_fd(io), buffer, static_cast<size_t>(count)));
}

int32_t file_write(travik_io *io, const void *buffer, int32_t count) {
  return static_cast<int32_t>(::write(file_fd(io), buffer, static_cast<size_t>(count)));
}

int32_t file_seek(travik_io *io, int32_t offset, int32_t whence) {
  return static_cast<int32_t>(::lseek(file_fd(io), offset, whence));
}

int32_t file_close(travik_io *io) { return ::close(file_fd(io)); }

int32_t file_handle(travik_io *io) { return file_fd(io); }

int32_t file_pos(travik_io *io) { return static_cast<int32_t>(::lseek(file_fd(io), 0, SEEK_CUR)); }

// ---- "mem": a region named by mem://ADDRESS:SIZE or mem://NULL:SIZE ----

struct MemRegion {
  uint8_t *base;
  int32_t size;
  int32_t position;
  bool owned;
};

MemRegion *mem_state(travik_io *io) { return static_cast<MemRegion *>(io->backend_data); }

int32_t mem_open(travik_io *io, int32_t) {
  auto *mem = static_cast<MemRegion *>(std::calloc(1, sizeof(MemRegion)));
  // Without a port (-1) the region is empty.
  mem->size = io->url.port < 0 ? 0 : io->url.port;
  const char *host = io->url.host ? io->url.host : "";
  if (std::strcmp(host, "NULL") == 0) {
    mem->base = static_cast<uint8_t *>(std::calloc(1, static_cast<size_t>(mem->size) + 1));
    mem->owned = true;
  } else {
    // A caller's region; an unparsable address gives a region that reads
    // and writes nothing.
    mem->base = reinterpret_cast<uint8_t *>(static_cast<uintptr_t>(std::strtoull(host, nullptr, 16)));
  }
  mem->position = 0;
  io->backend_data = mem;
  return 0;
}

int32_t mem_read(travik_io *io, void *buffer, int32_t count) {
  MemRegion *mem = mem_state(io);
  if (!mem->base || mem->position < 0 || mem->position >= mem->size) return 0;
  int32_t n = mem->size - mem->position;
  if (count < n) n = count;
  std::memcpy(buffer, mem->base + mem->position, static_cast<size_t>(n));
  mem->position += n;
  return n;
}

// The bound only stops a write that is longer than position + size: a write
// away from position 0 may run past the end of a caller's region, and the
// caller sizes the region for that. A private region is never overrun: the
// part beyond it is counted but not stored.
int32_t mem_write(travik_io *io, const void *buffer, int32_t count) {
  MemRegion *mem = mem_state(io);
  if (!mem->base || mem->position < 0) return 0;
  int64_t n = count;
  if (static_cast<int64_t>(mem->position) + mem->size < count) n = mem->size - mem->position;
  if (n <= 0) return 0;
  int64_t stored = n;
  if (mem->owned && stored > mem->size - mem->position) stored = mem->size - mem->position;
  if (stored > 0) std::memcpy(mem->base + mem->position, buffer, static_cast<size_t>(stored));
  int64_t position = static_cast<int64_t>(mem->position) + n;
  mem->position = position > INT32_MAX ? INT32_MAX : static_cast<int32_t>(position);
  return static_cast<int32_t>(n);
}

// Whence 1 is relative to the position; every other whence counts from the
// last byte (so 0 behaves like 2). Positions never go past size - 1.
int32_t mem_seek(travik_io *io, int32_t offset, int32_t whence) {
  MemRegion *mem = mem_state(io);
  int64_t position = whence == 1 ? static_cast<int64_t>(mem->position) + offset
                                 : static_cast<int64_t>(mem->size) + offset - 1;
  if (position > mem->size - 1) position = mem->size - 1;
  if (position < INT32_MIN) position = INT32_MIN;
  mem->position = static_cast<int32_t>(position);
  return mem->position;
}

int32_t mem_close(travik_io *io) {
  MemRegion *mem = mem_state(io);
  if (mem->owned) std::free(mem->base);
  std::free(mem);
  return 0;
}

int32_t mem_pos(travik_io *io) { return mem_seek(io, 0, 1); }

namespace net = travik::io;

const travik_io_backend backends[] = {
    {"file", file_open, file_read, file_write, file_seek, file_close, file_handle, file_pos},
    {"mem", mem_open, mem_read, mem_write, mem_seek, mem_close, nullptr, mem_pos},
    {"tcp", net::tcp_open, net::tcp_read, net::tcp_write, nullptr, net::tcp_close,
     net::tcp_handle, nullptr},
    {"udp", net::udp_open, net::udp_read, net::udp_write, nullptr, net::udp_close,
     net::udp_handle, nullptr},
    {"vpn", net::vpn_open, net::tcp_read, net::vpn_write, nullptr, net::vpn_close,
     net::vpn_handle, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
};

bool is_open(const travik_io *io) { return io->backend && io->backend_data; }

// Bits per second over periods of at least one second. The product is
// formed in 64 bits so that rates above about 4 Mbit/s do not wrap, and a
// failed read (a negative result) adds nothing rather than taking a byte
// off the count.
void measure_rate(travik_io *io, int32_t result) {
  travik_time now;
  travik_time_setcurrent(&now);
  if (travik_time_compare(&io->rate_stamp, &travik_time_zero) == 0) {
    io->rate_stamp = now;
  } else {
    travik_time elapsed;
    travik_time_sub(&elapsed, &now, &io->rate_stamp);
    int64_t ms = static_cast<int64_t>(elapsed.tv_sec) * 1000 + elapsed.tv_usec / 1000;
    if (ms >= 1000) {
      io->bitrate = static_cast<uint32_t>(static_cast<uint64_t>(io->rate_bytes) * 8000 /
                                          static_cast<uint64_t>(ms));
      io->rate_bytes = 0;
      io->rate_stamp = now;
    }
  }
  if (result > 0) io->rate_bytes += static_cast<uint32_t>(result);
}

// Skips by reads of at most 1024 bytes until a piece comes back short. A
// piece that failed (negative) ends the skip and counts as nothing, so the
// result is the number of bytes actually skipped.
int32_t skip_by_reading(travik_io *io, int32_t count) {
  char scratch[1024];
  int32_t skipped = 0;
  while (skipped < count) {
    int32_t piece = count - skipped < 1024 ? count - skipped : 1024;
    int32_t got = io->backend->read(io, scratch, piece);
    if (got > 0) skipped += got;
    if (got != piece) break;
  }
  return skipped;
}

}  // namespace

extern "C" {

int32_t travik_io_vpn_cmd = 0;
int32_t travik_io_vpn_data = 0;

travik_io *travik_io_create(const char *url) {
  auto *io = static_cast<travik_io *>(std::calloc(1, sizeof(travik_io)));
  io->timeout = 30000;
  travik_url_init(&io->url, url);
  const char *scheme = io->url.scheme;
  if (scheme && travik_io_vpn_cmd > 0 && std::strcmp(scheme, "tcp") == 0) scheme = "vpn";
  if (scheme) {
    for (const travik_io_backend *b = backends; b->name; b++) {
      if (std::strcmp(b->name, scheme) == 0) {
        io->backend = b;
        break;
      }
    }
  }
  return io;
}

int32_t travik_io_open(travik_io *io, int32_t flags) {
  if (io->backend_data) return 0;
  if (!io->backend || !io->backend->open) return 1;
  int32_t result = io->backend->open(io, flags);
  if (result == 0) io->eof = 0;
  io->length = 0;
  return result;
}

int32_t travik_io_read(travik_io *io, void *buffer, int32_t count) {
  if (io->error || count < 1 || !is_open(io) || !io->backend->read) return 0;
  int32_t result;
  if (buffer) {
    result = io->backend->read(io, buffer, count);
  } else if (io->backend->seek) {
    int64_t before = io->backend->seek(io, 0, 1);
    int64_t after = io->backend->seek(io, count, 1);
    result = static_cast<int32_t>(after - before);
  } else {
    result = skip_by_reading(io, count);
  }
  io->eof = result != count;
  measure_rate(io, result);
  return result;
}

int32_t travik_io_readline(travik_io *io, char *buffer, int32_t size) {
  if (!is_open(io) || !io->backend->read || !buffer || size < 0) return 0;
  int32_t stored = 0;
  while (stored < size) {
    if (travik_io_read(io, buffer + stored, 1) != 1) return stored;
    if (buffer[stored] == '\n') {
      buffer[stored] = '\0';
      if (stored > 0 && buffer[stored - 1] == '\r') {
        buffer[stored - 1] = '\0';
        return stored - 1;
      }
      return stored;
    }
    stored++;
  }
  // Full without a newline. The byte just past the stored ones belongs to
  // the buffer too (size + 1 bytes).
  if (buffer[size] == '\n') buffer[size] = '\0';
  if (size > 0 && buffer[size - 1] == '\r') {
    buffer[size - 1] = '\0';
    return size - 1;
  }
  return size;
}

int32_t travik_io_write(travik_io *io, const void *buffer, int32_t count) {
  if (!is_open(io) || !io->backend->write || count < 0) return 0;
  int32_t result = io->backend->write(io, buffer, count);
  io->eof = result != count;
  return result;
}

int32_t travik_io_seek(travik_io *io, int32_t offset, int32_t whence) {
  if (!is_open(io) || !io->backend->seek) return -1;
  int32_t before = io->backend->seek(io, 0, 1);
  int32_t after = io->backend->seek(io, offset, whence);
  if (after >= 0 && after != before) io->eof = 0;
  return after;
}

int32_t travik_io_length(travik_io *io) {
  if (!is_open(io)) return -1;
  if (io->length) return io->length;
  int32_t position = travik_io_seek(io, 0, 1);
  int32_t length = travik_io_seek(io, 0, 2);
  travik_io_seek(io, position, 0);
  io->length = length;
  return length;
}

int32_t travik_io_pos(travik_io *io) {
  if (!is_open(io) || !io->backend->pos) return -1;
  return io->backend->pos(io);
}

int32_t travik_io_handle(travik_io *io) {
  if (!is_open(io) || !io->backend->handle) return -1;
  return io->backend->handle(io);
}

int32_t travik_io_settimeout(travik_io *io, int32_t milliseconds) {
  io->timeout = milliseconds;
  return milliseconds;
}

travik_io_filter travik_io_setfilter(travik_io *io, travik_io_filter filter, void *arg) {
  travik_io_filter previous = io->filter;
  io->filter = filter;
  io->filter_arg = arg;
  return previous;
}

void travik_io_close(travik_io *io) {
  if (!is_open(io) || !io->backend->close) return;
  io->backend->close(io);
  io->backend_data = nullptr;
}

void travik_io_destroy(travik_io *io) {
  if (!io) return;
  travik_io_close(io);
  travik_url_destroy(&io->url);
  std::free(io);
}

int32_t travik_io_socket_add(int32_t key, int32_t value) {
  for (auto &slot : travik_io_sockets) {
    if (slot[0] == -1 || slot[0] == key) {
      int32_t previous = slot[0];
      slot[0] = key;
      slot[1] = value;
      return previous;
    }
  }
  return -1;
}

int32_t travik_io_socket_find(int32_t key, int32_t value) {
  for (int32_t i = 0; i < 10; i++) {
    if (key != -1 && key != -2 && travik_io_sockets[i][0] == key) return i;
    if (value != -1 && travik_io_sockets[i][1] == value) return i;
  }
  return -1;
}

}  // extern "C"
