// Sockets on 127.0.0.1 for tests that play a server's part.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>

namespace travik_test {

// A socket bound to a free port on 127.0.0.1 (listening when it is a
// stream socket), closed with the object.
class Listener {
 public:
  explicit Listener(int type) {
    fd_ = socket(AF_INET, type, 0);
    int one = 1;
    setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    socklen_t len = sizeof a;
    getsockname(fd_, reinterpret_cast<sockaddr *>(&a), &len);
    port_ = ntohs(a.sin_port);
    if (type == SOCK_STREAM) listen(fd_, 16);
  }
  ~Listener() { close(fd_); }
  Listener(const Listener &) = delete;
  Listener &operator=(const Listener &) = delete;
  int fd() const { return fd_; }
  int port() const { return port_; }

 private:
  int fd_;
  int port_;
};

// Sends all of `data` unless the peer goes away.
inline void send_all(int fd, const char *data, size_t size) {
  while (size > 0) {
    ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
    if (n <= 0) return;
    data += n;
    size -= static_cast<size_t>(n);
  }
}

}  // namespace travik_test
