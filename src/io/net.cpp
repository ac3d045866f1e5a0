// The network back-ends: "tcp" streams, "udp" datagrams (unicast and
// multicast) and "vpn" streams carried by an application-side tunnel, with
// the timed wait they share.
#include "io/net.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace travik::io {

namespace {

constexpr int32_t kWaitFailed = 18;
constexpr int32_t kSliceMs = 50;

int64_t elapsed_ms(const travik_time &start) {
  travik_time now, diff;
  travik_time_setcurrent(&now);
  travik_time_sub(&diff, &now, &start);
  return static_cast<int64_t>(diff.tv_sec) * 1000 + diff.tv_usec / 1000;
}

// Waits until `fd` is readable (mode 0), writable (1) or either (2).
// Returns 1 when ready, 0 on timeout, -1 when the filter stops the wait, or
// the negative result of a failed poll. A positive timeout is watched in
// slices of 50 ms between which the filter is polled; timeout 0 blocks.
// poll() stands in for select(): same readiness, but no FD_SETSIZE limit on
// the descriptor, and a closed descriptor (POLLNVAL) fails like EBADF would.
int wait_ready(travik_io *io, int fd, int mode) {
  travik_time start;
  travik_time_setcurrent(&start);
  const int32_t timeout = io->timeout;
  if (timeout < 0) return 0;
  if (fd < 0) return -1;
  int64_t remaining = timeout;
  short events = mode == 0 ? POLLIN : mode == 1 ? POLLOUT : (POLLIN | POLLOUT);
  for (;;) {
    if (timeout > 0 && remaining == 0) return 0;
    if (io->filter && io->filter(io->filter_arg, io) != 0) return -1;
    struct pollfd p = {fd, events, 0};
    int limit = timeout > 0 ? static_cast<int>(remaining < kSliceMs ? remaining : kSliceMs) : -1;
    int result = poll(&p, 1, limit);
    if (result < 0) return result;
    if (result > 0) {
      if (p.revents & POLLNVAL) return -1;
      return 1;
    }
    remaining = timeout - elapsed_ms(start);
    if (remaining < 0) return 0;
  }
}

// Reads until `count` bytes came, the peer closed (the bytes so far) or a
// read failed (-1). A failed wait gives -1 and, when `sticky`, marks the
// handle so that it reads nothing more. Stream reads are sticky; the tunnel's
// 4-byte command replies are not, so a silent tunnel fails its open or close
// without keeping a later reopened handle from reading.
int32_t read_full(travik_io *io, int fd, void *buffer, int32_t count, bool sticky) {
  auto *bytes = static_cast<char *>(buffer);
  int32_t got = 0;
  while (got < count) {
    if (wait_ready(io, fd, 0) != 1) {
      if (sticky) io->error = kWaitFailed;
      return -1;
    }
    ssize_t n = ::read(fd, bytes + got, static_cast<size_t>(count - got));
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (n == 0) return got;
    got += static_cast<int32_t>(n);
  }
  return got;
}

// A write that never raises SIGPIPE on a socket whose peer has gone.
ssize_t write_once(int fd, const void *buffer, size_t count) {
  ssize_t n = ::send(fd, buffer, count, MSG_NOSIGNAL);
  if (n < 0 && errno == ENOTSOCK) n = ::write(fd, buffer, count);
  return n;
}

int32_t write_full(int fd, const void *buffer, int32_t count) {
  auto *bytes = static_cast<const char *>(buffer);
  int32_t done = 0;
  while (done < count) {
    ssize_t n = write_once(fd, bytes + done, static_cast<size_t>(count - done));
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (n == 0) return done;
    done += static_cast<int32_t>(n);
  }
  return done;
}

// Looks the host up and makes a socket of its family; fills `address`.
int resolve(const char *host, int32_t port, int type, sockaddr_in *address) {
  if (!host) host = "";
  hostent *entry = gethostbyname(host);
  if (!entry || !entry->h_addr_list[0]) {
    std::fprintf(stderr, "Host name (%s) lookup failure.\n", host);
    return -1;
  }
  int fd = ::socket(entry->h_addrtype, type, 0);
  if (fd < 0) {
    std::perror("socket");
    return -1;
  }
  std::memset(address, 0, sizeof *address);
  address->sin_family = static_cast<sa_family_t>(entry->h_addrtype);
  address->sin_port = htons(static_cast<uint16_t>(port));
  size_t length = entry->h_length < 4 ? static_cast<size_t>(entry->h_length) : 4;
  std::memcpy(&address->sin_addr, entry->h_addr_list[0], length);
  return fd;
}

// The slot whose value is `value`, emptied; false when not registered.
bool release_slot(int32_t value) {
  int32_t slot = travik_io_socket_find(-1, value);
  if (slot < 0) return false;
  travik_io_sockets[slot][0] = -1;
  travik_io_sockets[slot][1] = -1;
  return true;
}

// ---- "tcp" ----

// The state is the address of a 32-bit descriptor: our own allocation, or
// one that the application registered under the remote port. A registered
// state is recognised at close by that address (the slot's value), not by
// the descriptor it holds, so the application's word is never freed.
int32_t *tcp_state(travik_io *io) { return static_cast<int32_t *>(io->backend_data); }

// The registered slot whose value is the address `state`, or -1.
int32_t registered_tcp_slot(const int32_t *state) {
  for (int32_t i = 0; i < 10; i++) {
    int32_t value = travik_io_sockets[i][1];
    if (value != -1 && reinterpret_cast<uintptr_t>(state) ==
                           static_cast<uintptr_t>(static_cast<uint32_t>(value)))
      return i;
  }
  return -1;
}

// ---- "udp" ----

struct UdpState {
  int32_t fd;
  int32_t multicast;
  ip_mreq membership;
  sockaddr_in destination;
};

UdpState *udp_state(travik_io *io) { return static_cast<UdpState *>(io->backend_data); }

// ---- "vpn" ----

// Sends one command (32-bit host-order length, then the text and its
// terminator, in one write) and reads the 4-byte status. 0 when the tunnel
// accepted it.
int32_t vpn_command(travik_io *io, const std::string &text) {
  int fd = travik_io_vpn_cmd;
  uint32_t length = static_cast<uint32_t>(text.size() + 1);
  std::string message(4 + length, '\0');
  std::memcpy(&message[0], &length, 4);
  std::memcpy(&message[4], text.data(), text.size());
  if (write_full(fd, message.data(), static_cast<int32_t>(message.size())) !=
      static_cast<int32_t>(message.size()))
    return 1;
  int32_t status = -1;
  if (read_full(io, fd, &status, 4, false) != 4) return 1;
  return status != 0 ? 1 : 0;
}

}  // namespace

int32_t tcp_open(travik_io *io, int32_t) {
  int32_t slot = travik_io_socket_find(io->url.port, -1);
  if (slot >= 0) {
    io->backend_data = reinterpret_cast<void *>(
        static_cast<uintptr_t>(static_cast<uint32_t>(travik_io_sockets[slot][1])));
    return 0;
  }
  sockaddr_in address;
  int fd = resolve(io->url.host, io->url.port, SOCK_STREAM, &address);
  if (fd < 0) return 1;
  int flags = fcntl(fd, F_GETFL, 0);
  fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  bool connected = ::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
  if (!connected && errno == EINPROGRESS) connected = wait_ready(io, fd, 2) == 1;
  if (!connected) {
    std::perror("connect");
    ::close(fd);
    return 1;
  }
  fcntl(fd, F_SETFL, flags);
  auto *state = static_cast<int32_t *>(std::malloc(sizeof(int32_t)));
  *state = fd;
  io->backend_data = state;
  return 0;
}

int32_t tcp_read(travik_io *io, void *buffer, int32_t count) {
  return read_full(io, *tcp_state(io), buffer, count, true);
}

int32_t tcp_write(travik_io *io, const void *buffer, int32_t count) {
  return write_full(*tcp_state(io), buffer, count);
}

int32_t tcp_close(travik_io *io) {
  int32_t *state = tcp_state(io);
  int32_t slot = registered_tcp_slot(state);
  if (slot >= 0) {
    travik_io_sockets[slot][0] = -1;
    travik_io_sockets[slot][1] = -1;
    return 0;
  }
  int fd = *state;
  std::free(state);
  return ::close(fd);
}

int32_t tcp_handle(travik_io *io) { return *tcp_state(io); }

int32_t udp_open(travik_io *io, int32_t) {
  auto *state = static_cast<UdpState *>(std::calloc(1, sizeof(UdpState)));
  // A "localport" key without "=" leaves the buffer as the lookups found it
  // (the last value they parsed); start it empty so that such a key alone
  // means port 0 rather than whatever the stack held.
  char value[32] = "";
  state->multicast = travik_url_findtag(&io->url, "multicast", value, sizeof value) ? 1 : 0;
  int32_t local_port = 0;
  if (travik_url_findtag(&io->url, "localport", value, sizeof value)) {
    long parsed = std::strtol(value, nullptr, 10);
    local_port = parsed > INT32_MAX ? INT32_MAX : parsed < INT32_MIN ? INT32_MIN : static_cast<int32_t>(parsed);
  }
  int32_t slot = travik_io_socket_find(local_port, -1);
  if (slot >= 0) {
    state->fd = travik_io_sockets[slot][1];
    io->backend_data = state;
    return 0;
  }
  // "ttl" is accepted and has no effect.
  travik_url_findtag(&io->url, "ttl", value, sizeof value);

  int fd = resolve(io->url.host, io->url.port, SOCK_DGRAM, &state->destination);
  bool ok = fd >= 0;
  if (ok) {
    sockaddr_in local;
    std::memset(&local, 0, sizeof local);
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    local.sin_port = state->multicast ? state->destination.sin_port
                                      : htons(static_cast<uint16_t>(local_port));
    ok = ::bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof local) == 0;
  }
  if (ok && state->multicast) {
    state->membership.imr_multiaddr = state->destination.sin_addr;
    state->membership.imr_interface.s_addr = htonl(INADDR_ANY);
    if (setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &state->membership,
                   sizeof state->membership) != 0) {
      std::perror("IP_ADD_MEMBERSHIP");
      ok = false;
    }
  }
  // On failure the state is dropped and the handle stays closed, so a later
  // open tries again from the start.
  if (!ok) {
    std::perror("UDP CONNECT ERROR");
    if (fd >= 0) ::close(fd);
    state->fd = -1;
    std::free(state);
    return 1;
  }
  state->fd = fd;
  io->backend_data = state;
  return 0;
}

int32_t udp_read(travik_io *io, void *buffer, int32_t count) {
  UdpState *state = udp_state(io);
  int32_t result = 0;
  for (;;) {
    if (wait_ready(io, state->fd, 0) != 1) {
      io->error = kWaitFailed;
      return result;
    }
    sockaddr_in sender;
    socklen_t length = sizeof sender;
    ssize_t n = ::recvfrom(state->fd, buffer, static_cast<size_t>(count), 0,
                           reinterpret_cast<sockaddr *>(&sender), &length);
    if (n >= 0) return static_cast<int32_t>(n);
    if (errno == EAGAIN) {
      result = -1;
      continue;
    }
    if (errno == EINTR) continue;
    return -1;
  }
}

int32_t udp_write(travik_io *io, const void *buffer, int32_t count) {
  UdpState *state = udp_state(io);
  for (;;) {
    ssize_t n = ::sendto(state->fd, buffer, static_cast<size_t>(count), MSG_NOSIGNAL,
                         reinterpret_cast<sockaddr *>(&state->destination),
                         sizeof state->destination);
    if (n >= 0) return count;
    if (errno == EINTR) continue;
    // A full send queue: wait (within the handle's timeout) until it drains.
    if (errno == EAGAIN && wait_ready(io, state->fd, 1) == 1) continue;
    return -1;
  }
}

int32_t udp_close(travik_io *io) {
  UdpState *state = udp_state(io);
  if (release_slot(state->fd)) {
    // The application's socket: left open, the group left joined. Only our
    // own state record is freed.
    std::free(state);
    return 0;
  }
  if (state->multicast &&
      setsockopt(state->fd, IPPROTO_IP, IP_DROP_MEMBERSHIP, &state->membership,
                 sizeof state->membership) != 0)
    std::perror("IP_DROP_MEMBERSHIP");
  int fd = state->fd;
  std::free(state);
  return ::close(fd);
}

int32_t udp_handle(travik_io *io) { return udp_state(io)->fd; }

int32_t vpn_open(travik_io *io, int32_t) {
  char port[16];
  std::snprintf(port, sizeof port, "%d", static_cast<int>(io->url.port));
  std::string text = std::string("open:") + (io->url.host ? io->url.host : "") + ":" + port;
  if (vpn_command(io, text) != 0) return 1;
  io->backend_data = &travik_io_vpn_data;
  return 0;
}

int32_t vpn_write(travik_io *io, const void *buffer, int32_t count) {
  std::printf("vpn write: %d\n", static_cast<int>(count));
  std::fflush(stdout);
  return write_full(*tcp_state(io), buffer, count);
}

int32_t vpn_close(travik_io *io) { return vpn_command(io, "close:"); }

int32_t vpn_handle(travik_io *io) { return *tcp_state(io); }

}  // namespace travik::io
