// The network back-ends against live peers on 127.0.0.1 (and, for
// multicast, on the loopback interface of a private network namespace).
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <net/route.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <travik/io.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "util/testutil.h"

namespace {

using travik_test::now_ms;
using travik_test::StderrCapture;
using travik_test::StdoutCapture;

constexpr int kPeerLimitMs = 5000;  // no peer waits longer than this

std::string pattern(size_t length) {
  std::string s(length, '\0');
  for (size_t i = 0; i < length; i++) s[i] = static_cast<char>((i * 7 + i / 256) & 0xFF);
  return s;
}

sockaddr_in loopback(uint16_t port) {
  sockaddr_in a;
  std::memset(&a, 0, sizeof a);
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(port);
  return a;
}

uint16_t local_port(int fd) {
  sockaddr_in a;
  socklen_t length = sizeof a;
  getsockname(fd, reinterpret_cast<sockaddr *>(&a), &length);
  return ntohs(a.sin_port);
}

// A socket of `type` bound to 127.0.0.1 on an ephemeral port.
int bound_socket(int type) {
  int fd = socket(AF_INET, type, 0);
  sockaddr_in a = loopback(0);
  if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// A port on 127.0.0.1 where nothing listens (just released).
uint16_t free_port(int type) {
  int fd = bound_socket(type);
  uint16_t port = local_port(fd);
  close(fd);
  return port;
}

bool wait_readable(int fd, int ms) {
  pollfd p = {fd, POLLIN, 0};
  return poll(&p, 1, ms) == 1;
}

// Reads exactly `count` bytes within the peer time limit.
std::string read_exactly(int fd, size_t count) {
  std::string data;
  long long deadline = now_ms() + kPeerLimitMs;
  while (data.size() < count && now_ms() < deadline) {
    if (!wait_readable(fd, 100)) continue;
    char buffer[4096];
    size_t want = count - data.size() < sizeof buffer ? count - data.size() : sizeof buffer;
    ssize_t n = read(fd, buffer, want);
    if (n <= 0) break;
    data.append(buffer, static_cast<size_t>(n));
  }
  return data;
}

void write_all(int fd, const std::string &data) {
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

// A TCP server on 127.0.0.1 that accepts one connection and hands it to
// `behaviour` on its own thread. stop() wakes a behaviour that waits for it.
class TcpPeer {
 public:
  explicit TcpPeer(std::function<void(TcpPeer &, int)> behaviour, int backlog = 4) {
    listener_ = bound_socket(SOCK_STREAM);
    listen(listener_, backlog);
    port_ = local_port(listener_);
    if (pipe(stop_) != 0) stop_[0] = stop_[1] = -1;
    if (behaviour) thread_ = std::thread([this, behaviour] { run(behaviour); });
  }
  ~TcpPeer() {
    stop();
    if (thread_.joinable()) thread_.join();
    close(listener_);
    close(stop_[0]);
    close(stop_[1]);
  }
  uint16_t port() const { return port_; }
  std::string url() const { return "tcp://127.0.0.1:" + std::to_string(port_) + "/stream"; }
  void stop() {
    if (!stopped_.exchange(true)) {
      char c = 1;
      if (write(stop_[1], &c, 1) != 1) return;
    }
  }
  // Waits (at most the peer limit) until stop() is called.
  void wait_for_stop() { wait_readable(stop_[0], kPeerLimitMs); }
  void join() {
    if (thread_.joinable()) thread_.join();
  }
  std::string received;  // what the behaviour stored; read it after join()

 private:
  void run(const std::function<void(TcpPeer &, int)> &behaviour) {
    pollfd p[2] = {{listener_, POLLIN, 0}, {stop_[0], POLLIN, 0}};
    if (poll(p, 2, kPeerLimitMs) <= 0 || !(p[0].revents & POLLIN)) return;
    int fd = accept(listener_, nullptr, nullptr);
    if (fd < 0) return;
    behaviour(*this, fd);
    close(fd);
  }
  int listener_ = -1;
  int stop_[2] = {-1, -1};
  uint16_t port_ = 0;
  std::atomic<bool> stopped_{false};
  std::thread thread_;
};

travik_io *open_tcp(const TcpPeer &peer, int32_t timeout) {
  travik_io *io = travik_io_create(peer.url().c_str());
  travik_io_settimeout(io, timeout);
  EXPECT_EQ(travik_io_open(io, -1), 0);
  return io;
}

// Empties the socket table and the tunnel descriptors around each test.
class Net : public ::testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }
  static void reset() {
    for (auto &slot : travik_io_sockets) slot[0] = slot[1] = -1;
    travik_io_vpn_cmd = 0;
    travik_io_vpn_data = 0;
  }
};

// ---- tcp ----

TEST_F(Net, TcpStreamsAKnownFile) {
  const std::string file = pattern(200000);
  TcpPeer peer([&file](TcpPeer &, int fd) { write_all(fd, file); });
  travik_io *io = open_tcp(peer, 5000);
  ASSERT_NE(io->backend_data, nullptr);
  EXPECT_GE(travik_io_handle(io), 0);
  std::string got;
  std::vector<char> buffer(30000);
  for (int i = 0; i < 20 && got.size() < file.size(); i++) {
    int32_t n = travik_io_read(io, buffer.data(), 30000);
    ASSERT_GT(n, 0);
    got.append(buffer.data(), static_cast<size_t>(n));
    if (got.size() < file.size()) {
      EXPECT_EQ(n, 30000);  // full counts until the end
    }
  }
  EXPECT_EQ(got, file);
  EXPECT_EQ(io->eof, 1);  // the last read came back short
  EXPECT_EQ(travik_io_read(io, buffer.data(), 100), 0);
  EXPECT_EQ(io->error, 0);
  travik_io_destroy(io);
}

TEST_F(Net, TcpPeerClosingMidStreamGivesWhatArrived) {
  const std::string part = pattern(700);
  TcpPeer peer([&part](TcpPeer &, int fd) { write_all(fd, part); });
  travik_io *io = open_tcp(peer, 5000);
  std::vector<char> buffer(5000);
  EXPECT_EQ(travik_io_read(io, buffer.data(), 5000), 700);
  EXPECT_EQ(io->eof, 1);
  EXPECT_EQ(std::string(buffer.data(), 700), part);
  EXPECT_EQ(io->error, 0);
  travik_io_destroy(io);
}

TEST_F(Net, TcpStallFailsAfterTheTimeoutAndStaysFailed) {
  TcpPeer peer([](TcpPeer &self, int fd) {
    self.wait_for_stop();
    write_all(fd, "late");
  });
  travik_io *io = open_tcp(peer, 300);
  char buffer[16];
  long long start = now_ms();
  EXPECT_EQ(travik_io_read(io, buffer, 16), -1);
  long long elapsed = now_ms() - start;
  EXPECT_EQ(io->error, 18);
  EXPECT_GE(elapsed, 250);
  EXPECT_LT(elapsed, 3000);
  // The data that comes later is never read: the error is sticky.
  peer.stop();
  peer.join();
  EXPECT_TRUE(wait_readable(travik_io_handle(io), 2000));
  EXPECT_EQ(travik_io_read(io, buffer, 4), 0);
  EXPECT_EQ(travik_io_readline(io, buffer, 4), 0);
  EXPECT_EQ(io->error, 18);
  travik_io_destroy(io);
}

struct FilterState {
  std::atomic<int> calls{0};
  std::atomic<bool> stop{false};
  std::atomic<long long> stop_time{0};
  travik_io *seen = nullptr;
};

int32_t stop_filter(void *arg, travik_io *io) {
  auto *state = static_cast<FilterState *>(arg);
  state->calls++;
  state->seen = io;
  return state->stop ? 1 : 0;
}

TEST_F(Net, FilterThatSaysStopEndsTheWaitQuickly) {
  TcpPeer peer([](TcpPeer &self, int) { self.wait_for_stop(); });
  travik_io *io = open_tcp(peer, 20000);
  FilterState state;
  travik_io_setfilter(io, stop_filter, &state);
  std::thread stopper([&state] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    state.stop_time = now_ms();
    state.stop = true;
  });
  char buffer[16];
  EXPECT_EQ(travik_io_read(io, buffer, 16), -1);
  long long ended = now_ms();
  stopper.join();
  EXPECT_EQ(io->error, 18);
  EXPECT_EQ(state.seen, io);
  EXPECT_GE(state.calls.load(), 2);
  // Polled every 50 ms: generous bound for a loaded machine.
  EXPECT_LT(ended - state.stop_time.load(), 1000);
  travik_io_destroy(io);
}

TEST_F(Net, TimeoutZeroWaitsWithoutLimit) {
  TcpPeer peer([](TcpPeer &, int fd) {
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    write_all(fd, "data");
  });
  travik_io *io = open_tcp(peer, 0);
  FilterState state;
  travik_io_setfilter(io, stop_filter, &state);
  char buffer[4];
  long long start = now_ms();
  EXPECT_EQ(travik_io_read(io, buffer, 4), 4);
  EXPECT_GE(now_ms() - start, 300);
  EXPECT_EQ(std::string(buffer, 4), "data");
  // One blocking wait: the filter was asked once, before it.
  EXPECT_EQ(state.calls.load(), 1);
  EXPECT_EQ(io->error, 0);
  travik_io_destroy(io);
}

TEST_F(Net, NegativeTimeoutFailsEveryWaitAtOnce) {
  TcpPeer peer([](TcpPeer &, int fd) { write_all(fd, "ready"); });
  travik_io *io = open_tcp(peer, 5000);
  ASSERT_TRUE(wait_readable(travik_io_handle(io), 2000));
  travik_io_settimeout(io, -1);
  FilterState state;
  travik_io_setfilter(io, stop_filter, &state);
  char buffer[5];
  EXPECT_EQ(travik_io_read(io, buffer, 5), -1);
  EXPECT_EQ(io->error, 18);
  EXPECT_EQ(state.calls.load(), 0);
  travik_io_destroy(io);
}

TEST_F(Net, TcpWriteSendsEverything) {
  const std::string data = pattern(100000);
  TcpPeer peer([&data](TcpPeer &self, int fd) { self.received = read_exactly(fd, data.size()); });
  travik_io *io = open_tcp(peer, 5000);
  EXPECT_EQ(travik_io_write(io, data.data(), static_cast<int32_t>(data.size())),
            static_cast<int32_t>(data.size()));
  EXPECT_EQ(io->eof, 0);
  peer.join();
  EXPECT_EQ(peer.received, data);
  travik_io_destroy(io);
}

TEST_F(Net, TcpWriteToAClosedPeerFailsWithoutASignal) {
  TcpPeer peer([](TcpPeer &, int) {});
  travik_io *io = open_tcp(peer, 5000);
  peer.join();  // the peer has closed its end
  ASSERT_TRUE(wait_readable(travik_io_handle(io), 2000));
  std::string data(1 << 16, 'x');
  int32_t result = 0;
  for (int i = 0; i < 50 && result >= 0; i++)
    result = travik_io_write(io, data.data(), static_cast<int32_t>(data.size()));
  EXPECT_EQ(result, -1);
  EXPECT_EQ(io->eof, 1);
  travik_io_destroy(io);
}

TEST_F(Net, TcpHasNoLengthNoSeekNoPosition) {
  TcpPeer peer([](TcpPeer &self, int) { self.wait_for_stop(); });
  travik_io *io = open_tcp(peer, 5000);
  EXPECT_EQ(travik_io_length(io), -1);
  EXPECT_EQ(io->length, -1);
  EXPECT_EQ(travik_io_length(io), -1);
  EXPECT_EQ(travik_io_seek(io, 0, 0), -1);
  EXPECT_EQ(travik_io_pos(io), -1);
  travik_io_destroy(io);
}

TEST_F(Net, TcpSkipReadsAndDiscards) {
  const std::string file = pattern(5000);
  TcpPeer peer([&file](TcpPeer &, int fd) { write_all(fd, file); });
  travik_io *io = open_tcp(peer, 5000);
  EXPECT_EQ(travik_io_read(io, nullptr, 3000), 3000);
  EXPECT_EQ(io->eof, 0);
  char byte = 0;
  EXPECT_EQ(travik_io_read(io, &byte, 1), 1);
  EXPECT_EQ(byte, file[3000]);
  // Skipping past the end stops at the end.
  EXPECT_EQ(travik_io_read(io, nullptr, 5000), 1999);
  EXPECT_EQ(io->eof, 1);
  travik_io_destroy(io);
}

TEST_F(Net, TcpReadline) {
  TcpPeer peer([](TcpPeer &, int fd) { write_all(fd, "HTTP/1.0 200 OK\r\nServer: x\n\r\n"); });
  travik_io *io = open_tcp(peer, 5000);
  char line[65];
  EXPECT_EQ(travik_io_readline(io, line, 64), 15);
  EXPECT_STREQ(line, "HTTP/1.0 200 OK");
  EXPECT_EQ(travik_io_readline(io, line, 64), 9);
  EXPECT_STREQ(line, "Server: x");
  EXPECT_EQ(travik_io_readline(io, line, 64), 0);
  EXPECT_EQ(travik_io_readline(io, line, 64), 0);
  travik_io_destroy(io);
}

TEST_F(Net, TcpReopenAfterClose) {
  TcpPeer peer([](TcpPeer &, int fd) { write_all(fd, "one"); });
  travik_io *io = open_tcp(peer, 5000);
  char buffer[3];
  EXPECT_EQ(travik_io_read(io, buffer, 3), 3);
  travik_io_close(io);
  EXPECT_EQ(io->backend_data, nullptr);
  EXPECT_EQ(travik_io_read(io, buffer, 3), 0);
  TcpPeer second([](TcpPeer &, int fd) { write_all(fd, "two"); });
  travik_url_destroy(&io->url);
  travik_url_init(&io->url, second.url().c_str());
  ASSERT_EQ(travik_io_open(io, -1), 0);
  EXPECT_EQ(travik_io_read(io, buffer, 3), 3);
  EXPECT_EQ(std::string(buffer, 3), "two");
  travik_io_destroy(io);
}

TEST_F(Net, TcpNothingListeningOpensButReadFails) {
  // A refused connection is only noticed by the first read: the connect is
  // in progress and its readiness counts as success.
  std::string url = "tcp://127.0.0.1:" + std::to_string(free_port(SOCK_STREAM)) + "/";
  travik_io *io = travik_io_create(url.c_str());
  travik_io_settimeout(io, 2000);
  StderrCapture capture;
  EXPECT_EQ(travik_io_open(io, -1), 0);
  EXPECT_EQ(capture.text(), "");
  char buffer[8];
  EXPECT_EQ(travik_io_read(io, buffer, 8), -1);
  EXPECT_EQ(io->eof, 1);
  EXPECT_EQ(io->error, 0);  // the wait succeeded; the read itself failed
  travik_io_destroy(io);
}

TEST_F(Net, TcpConnectTimesOut) {
  // A backlog of 0 that is never accepted: the first connection fills the
  // queue, later SYNs are dropped and their connects stay in progress.
  TcpPeer peer(nullptr, 0);
  int filler = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = loopback(peer.port());
  fcntl(filler, F_SETFL, O_NONBLOCK);
  connect(filler, reinterpret_cast<sockaddr *>(&a), sizeof a);
  pollfd p = {filler, POLLOUT, 0};
  poll(&p, 1, 2000);
  travik_io *io = travik_io_create(peer.url().c_str());
  travik_io_settimeout(io, 300);
  StderrCapture capture;
  long long start = now_ms();
  int32_t opened = travik_io_open(io, -1);
  long long elapsed = now_ms() - start;
  std::string text = capture.text();
  close(filler);
  if (opened == 0) {
    travik_io_destroy(io);
    GTEST_SKIP() << "the kernel completed a connection to a full backlog";
  }
  EXPECT_EQ(opened, 1);
  EXPECT_EQ(io->backend_data, nullptr);
  EXPECT_EQ(text, "connect: Operation now in progress\n");
  EXPECT_GE(elapsed, 250);
  EXPECT_LT(elapsed, 3000);
  travik_io_destroy(io);
}

TEST_F(Net, TcpConnectStoppedByTheFilter) {
  TcpPeer peer(nullptr, 0);
  int filler = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = loopback(peer.port());
  fcntl(filler, F_SETFL, O_NONBLOCK);
  connect(filler, reinterpret_cast<sockaddr *>(&a), sizeof a);
  pollfd p = {filler, POLLOUT, 0};
  poll(&p, 1, 2000);
  travik_io *io = travik_io_create(peer.url().c_str());
  travik_io_settimeout(io, 20000);
  FilterState state;
  state.stop = true;
  travik_io_setfilter(io, stop_filter, &state);
  StderrCapture capture;
  long long start = now_ms();
  int32_t opened = travik_io_open(io, -1);
  long long elapsed = now_ms() - start;
  std::string text = capture.text();
  close(filler);
  if (opened == 0) {
    travik_io_destroy(io);
    GTEST_SKIP() << "the kernel completed a connection to a full backlog";
  }
  EXPECT_EQ(opened, 1);
  EXPECT_EQ(state.calls.load(), 1);
  EXPECT_LT(elapsed, 2000);
  EXPECT_EQ(text.rfind("connect: ", 0), 0u);
  travik_io_destroy(io);
}

// A host name with an empty label: the resolver cannot even build a query
// for it, so the lookup fails without any packet leaving the machine.
constexpr const char *kUnresolvable = "no..such.host";

TEST_F(Net, TcpHostLookupFailure) {
  travik_io *io = travik_io_create((std::string("tcp://") + kUnresolvable + ":80/x").c_str());
  StderrCapture capture;
  EXPECT_EQ(travik_io_open(io, -1), 1);
  EXPECT_EQ(capture.text(), "Host name (no..such.host) lookup failure.\n");
  EXPECT_EQ(io->backend_data, nullptr);
  travik_io_destroy(io);
}

// Every address fits 32 bits on a 32-bit target; x86_64 asks for a low one.
#ifdef MAP_32BIT
constexpr int kLowMap = MAP_32BIT;
#else
constexpr int kLowMap = 0;
#endif

TEST_F(Net, TcpRegisteredSocketIsUsedAndNeverClosed) {
  TcpPeer peer([](TcpPeer &, int fd) { write_all(fd, "registered"); });
  // The application's connection, and a 32-bit descriptor word at an
  // address that fits the table's 32-bit value.
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = loopback(peer.port());
  ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
  void *page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | kLowMap,
                    -1, 0);
  ASSERT_NE(page, MAP_FAILED);
  auto *word = static_cast<int32_t *>(page);
  *word = fd;
  int32_t value = static_cast<int32_t>(reinterpret_cast<uintptr_t>(word));
  EXPECT_EQ(travik_io_socket_add(peer.port(), value), -1);

  travik_io *io = open_tcp(peer, 5000);
  EXPECT_EQ(io->backend_data, word);
  EXPECT_EQ(travik_io_handle(io), fd);
  char buffer[10];
  EXPECT_EQ(travik_io_read(io, buffer, 10), 10);
  EXPECT_EQ(std::string(buffer, 10), "registered");
  travik_io_close(io);
  EXPECT_EQ(travik_io_sockets[0][0], -1);
  EXPECT_EQ(travik_io_sockets[0][1], -1);
  EXPECT_NE(fcntl(fd, F_GETFD), -1);  // still open
  EXPECT_EQ(*word, fd);
  travik_io_destroy(io);
  close(fd);
  munmap(page, 4096);
}

// ---- udp ----

int udp_send(int fd, uint16_t port, const std::string &data) {
  sockaddr_in a = loopback(port);
  return static_cast<int>(
      sendto(fd, data.data(), data.size(), 0, reinterpret_cast<sockaddr *>(&a), sizeof a));
}

TEST_F(Net, UdpLocalPortReceivesDatagrams) {
  uint16_t port = free_port(SOCK_DGRAM);
  std::string url = "udp://127.0.0.1:9/?localport=" + std::to_string(port);
  travik_io *io = travik_io_create(url.c_str());
  travik_io_settimeout(io, 2000);
  ASSERT_EQ(travik_io_open(io, -1), 0);
  EXPECT_EQ(local_port(travik_io_handle(io)), port);
  int sender = socket(AF_INET, SOCK_DGRAM, 0);
  ASSERT_EQ(udp_send(sender, port, "first datagram"), 14);
  ASSERT_EQ(udp_send(sender, port, "second"), 6);
  char buffer[64];
  EXPECT_EQ(travik_io_read(io, buffer, 64), 14);
  EXPECT_EQ(std::string(buffer, 14), "first datagram");
  EXPECT_EQ(io->eof, 1);
  // One datagram per read, cut to the count.
  EXPECT_EQ(travik_io_read(io, buffer, 3), 3);
  EXPECT_EQ(std::string(buffer, 3), "sec");
  EXPECT_EQ(io->eof, 0);
  close(sender);
  travik_io_destroy(io);
}

TEST_F(Net, UdpWithoutLocalPortBindsAnyPort) {
  travik_io *io = travik_io_create("udp://127.0.0.1:9/");
  ASSERT_EQ(travik_io_open(io, -1), 0);
  EXPECT_NE(local_port(travik_io_handle(io)), 0);
  EXPECT_NE(local_port(travik_io_handle(io)), 9);
  travik_io_destroy(io);
}

TEST_F(Net, UdpLocalPortKeyWithoutValueBindsAnyPort) {
  travik_io *io = travik_io_create("udp://127.0.0.1:9/?localport");
  ASSERT_EQ(travik_io_open(io, -1), 0);
  EXPECT_NE(local_port(travik_io_handle(io)), 0);
  EXPECT_NE(local_port(travik_io_handle(io)), 9);
  travik_io_destroy(io);
}

TEST_F(Net, UdpLocalPortKeyWithoutValueTakesTheValueParsedBeforeIt) {
  // The option lookup leaves the last value it parsed in the buffer, and a
  // key without "=" matches without replacing it.
  uint16_t port = free_port(SOCK_DGRAM);
  std::string url = "udp://127.0.0.1:9/?x=" + std::to_string(port) + "&localport";
  travik_io *io = travik_io_create(url.c_str());
  ASSERT_EQ(travik_io_open(io, -1), 0);
  EXPECT_EQ(local_port(travik_io_handle(io)), port);
  travik_io_destroy(io);
}

TEST_F(Net, UdpWriteSendsToTheUrlsAddress) {
  int receiver = bound_socket(SOCK_DGRAM);
  std::string url = "udp://127.0.0.1:" + std::to_string(local_port(receiver)) + "/";
  travik_io *io = travik_io_create(url.c_str());
  ASSERT_EQ(travik_io_open(io, -1), 0);
  EXPECT_EQ(travik_io_write(io, "ping", 4), 4);
  ASSERT_TRUE(wait_readable(receiver, 2000));
  char buffer[16];
  EXPECT_EQ(recv(receiver, buffer, sizeof buffer, 0), 4);
  EXPECT_EQ(std::string(buffer, 4), "ping");
  close(receiver);
  travik_io_destroy(io);
}

TEST_F(Net, UdpTimeoutReadsZeroAndSetsError) {
  travik_io *io = travik_io_create("udp://127.0.0.1:9/");
  travik_io_settimeout(io, 200);
  ASSERT_EQ(travik_io_open(io, -1), 0);
  char buffer[16];
  long long start = now_ms();
  EXPECT_EQ(travik_io_read(io, buffer, 16), 0);
  EXPECT_GE(now_ms() - start, 150);
  EXPECT_EQ(io->error, 18);
  travik_io_destroy(io);
}

TEST_F(Net, UdpSkipReadsPiecesOf1024) {
  // Each piece takes one datagram: 3000 bytes skip three of them, the
  // pieces being 1024, 1024 and 952 bytes.
  uint16_t port = free_port(SOCK_DGRAM);
  std::string url = "udp://127.0.0.1:9/?localport=" + std::to_string(port);
  travik_io *io = travik_io_create(url.c_str());
  travik_io_settimeout(io, 2000);
  ASSERT_EQ(travik_io_open(io, -1), 0);
  int sender = socket(AF_INET, SOCK_DGRAM, 0);
  for (char c = 'a'; c <= 'd'; c++) ASSERT_EQ(udp_send(sender, port, std::string(2000, c)), 2000);
  EXPECT_EQ(travik_io_read(io, nullptr, 3000), 3000);
  EXPECT_EQ(io->eof, 0);
  char buffer[8];
  EXPECT_EQ(travik_io_read(io, buffer, 8), 8);
  EXPECT_EQ(buffer[0], 'd');
  close(sender);
  travik_io_destroy(io);
}

TEST_F(Net, UdpSkipStopsAtAShortPiece) {
  uint16_t port = free_port(SOCK_DGRAM);
  std::string url = "udp://127.0.0.1:9/?localport=" + std::to_string(port);
  travik_io *io = travik_io_create(url.c_str());
  travik_io_settimeout(io, 2000);
  ASSERT_EQ(travik_io_open(io, -1), 0);
  int sender = socket(AF_INET, SOCK_DGRAM, 0);
  ASSERT_EQ(udp_send(sender, port, std::string(2000, 'a')), 2000);
  ASSERT_EQ(udp_send(sender, port, std::string(100, 'b')), 100);
  ASSERT_EQ(udp_send(sender, port, std::string(50, 'c')), 50);
  EXPECT_EQ(travik_io_read(io, nullptr, 3000), 1124);
  EXPECT_EQ(io->eof, 1);
  char buffer[64];
  EXPECT_EQ(travik_io_read(io, buffer, 64), 50);
  close(sender);
  travik_io_destroy(io);
}

TEST_F(Net, UdpRegisteredUnderKeyZeroServesUrlsWithoutLocalPort) {
  int fd = bound_socket(SOCK_DGRAM);
  uint16_t port = local_port(fd);
  travik_io_socket_add(0, fd);
  travik_io *io = travik_io_create("udp://127.0.0.1:9/");
  travik_io_settimeout(io, 2000);
  ASSERT_EQ(travik_io_open(io, -1), 0);
  EXPECT_EQ(travik_io_handle(io), fd);
  int sender = socket(AF_INET, SOCK_DGRAM, 0);
  ASSERT_EQ(udp_send(sender, port, "lent"), 4);
  char buffer[8];
  EXPECT_EQ(travik_io_read(io, buffer, 8), 4);
  EXPECT_EQ(std::string(buffer, 4), "lent");
  travik_io_close(io);
  EXPECT_EQ(travik_io_sockets[0][0], -1);
  EXPECT_EQ(travik_io_sockets[0][1], -1);
  EXPECT_NE(fcntl(fd, F_GETFD), -1);  // left open
  close(sender);
  close(fd);
  travik_io_destroy(io);
}

TEST_F(Net, UdpRegisteredUnderItsLocalPort) {
  int fd = bound_socket(SOCK_DGRAM);
  travik_io_socket_add(0, 999);  // not used: the URL names a local port
  travik_io_socket_add(7000, fd);
  travik_io *io = travik_io_create("udp://127.0.0.1:9/?localport=7000");
  ASSERT_EQ(travik_io_open(io, -1), 0);
  EXPECT_EQ(travik_io_handle(io), fd);
  travik_io_destroy(io);
  EXPECT_EQ(travik_io_socket_find(7000, -1), -1);
  EXPECT_EQ(travik_io_socket_find(0, -1), 0);
  EXPECT_NE(fcntl(fd, F_GETFD), -1);
  close(fd);
}

TEST_F(Net, UdpBindFailure) {
  int taken = bound_socket(SOCK_DGRAM);
  std::string url = "udp://127.0.0.1:9/?localport=" + std::to_string(local_port(taken));
  travik_io *io = travik_io_create(url.c_str());
  StderrCapture capture;
  EXPECT_EQ(travik_io_open(io, -1), 1);
  EXPECT_EQ(capture.text(), "UDP CONNECT ERROR: Address already in use\n");
  EXPECT_EQ(io->backend_data, nullptr);
  close(taken);
  travik_io_destroy(io);
}

TEST_F(Net, UdpHostLookupFailure) {
  travik_io *io = travik_io_create((std::string("udp://") + kUnresolvable + ":5000/").c_str());
  StderrCapture capture;
  EXPECT_EQ(travik_io_open(io, -1), 1);
  std::string text = capture.text();
  EXPECT_EQ(text.rfind("Host name (no..such.host) lookup failure.\nUDP CONNECT ERROR: ", 0), 0u)
      << text;
  travik_io_destroy(io);
}

TEST_F(Net, UdpTtlOptionIsAccepted) {
  travik_io *io = travik_io_create("udp://127.0.0.1:9/?ttl=4");
  EXPECT_EQ(travik_io_open(io, -1), 0);
  travik_io_destroy(io);
}

// ---- multicast, inside a private network namespace ----

// Moves the calling (child) process into a new network namespace with its
// loopback interface up and, when asked, the multicast range routed to it.
// Returns "" or "skip: reason".
std::string private_loopback(bool multicast_route) {
  if (unshare(CLONE_NEWNET) != 0)
    return std::string("skip: no private network namespace: ") + std::strerror(errno);
  int s = socket(AF_INET, SOCK_DGRAM, 0);
  ifreq ifr;
  std::memset(&ifr, 0, sizeof ifr);
  std::strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
  if (ioctl(s, SIOCGIFFLAGS, &ifr) != 0) return std::string("skip: SIOCGIFFLAGS: ") + std::strerror(errno);
  ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP);
  if (ioctl(s, SIOCSIFFLAGS, &ifr) != 0) return std::string("skip: SIOCSIFFLAGS: ") + std::strerror(errno);
  if (multicast_route) {
    rtentry route;
    std::memset(&route, 0, sizeof route);
    auto *dst = reinterpret_cast<sockaddr_in *>(&route.rt_dst);
    dst->sin_family = AF_INET;
    dst->sin_addr.s_addr = inet_addr("224.0.0.0");
    auto *mask = reinterpret_cast<sockaddr_in *>(&route.rt_genmask);
    mask->sin_family = AF_INET;
    mask->sin_addr.s_addr = inet_addr("240.0.0.0");
    route.rt_flags = RTF_UP;
    char device[] = "lo";
    route.rt_dev = device;
    if (ioctl(s, SIOCADDRT, &route) != 0) return std::string("skip: SIOCADDRT: ") + std::strerror(errno);
  }
  close(s);
  return "";
}

// Whether the namespace's loopback interface is a member of 239.1.1.1.
bool joined_on_loopback() {
  std::string igmp = travik_test::read_file("/proc/net/igmp");
  size_t lo = igmp.find("\tlo");
  if (lo == std::string::npos) lo = igmp.find(" lo");
  return lo != std::string::npos && igmp.find("010101EF", lo) != std::string::npos;
}

std::string multicast_round_trip() {
  std::string status = private_loopback(true);
  if (!status.empty()) return status;
  travik_io *io = travik_io_create("udp://239.1.1.1:5000/?multicast=1");
  travik_io_settimeout(io, 2000);
  std::string errors;
  int32_t opened;
  {
    StderrCapture capture;
    opened = travik_io_open(io, -1);
    errors = capture.text();
  }
  if (opened != 0) {
    travik_io_destroy(io);
    return "skip: the kernel refused the group on loopback: " + errors;
  }
  if (local_port(travik_io_handle(io)) != 5000) return "not bound to port 5000";
  if (!joined_on_loopback()) return "group not joined on lo";

  int sender = socket(AF_INET, SOCK_DGRAM, 0);
  in_addr interface;
  interface.s_addr = htonl(INADDR_LOOPBACK);
  setsockopt(sender, IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface);
  unsigned char loop = 1;
  setsockopt(sender, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop);
  sockaddr_in group;
  std::memset(&group, 0, sizeof group);
  group.sin_family = AF_INET;
  group.sin_port = htons(5000);
  group.sin_addr.s_addr = inet_addr("239.1.1.1");
  if (sendto(sender, "to the group", 12, 0, reinterpret_cast<sockaddr *>(&group), sizeof group) != 12)
    return std::string("sendto: ") + std::strerror(errno);
  char buffer[32];
  int32_t got = travik_io_read(io, buffer, 32);
  close(sender);
  if (got != 12 || std::string(buffer, 12) != "to the group")
    return "read " + std::to_string(got) + " bytes";
  {
    StderrCapture capture;
    travik_io_close(io);
    errors = capture.text();
  }
  travik_io_destroy(io);
  if (!errors.empty()) return "close printed: " + errors;
  if (joined_on_loopback()) return "group still joined after close";
  return "ok";
}

TEST_F(Net, MulticastJoinsReceivesAndLeavesOnLoopback) {
  std::string result = travik_test::in_child(multicast_round_trip);
  if (result.rfind("skip:", 0) == 0) GTEST_SKIP() << result;
  EXPECT_EQ(result, "ok");
}

TEST_F(Net, MulticastJoinFailureIsReported) {
  // Without a route for the group the kernel has no interface to join on.
  std::string result = travik_test::in_child([] {
    std::string status = private_loopback(false);
    if (!status.empty()) return status;
    travik_io *io = travik_io_create("udp://239.1.1.1:5000/?multicast=1");
    StderrCapture capture;
    int32_t opened = travik_io_open(io, -1);
    std::string text = capture.text();
    bool closed = io->backend_data == nullptr;
    travik_io_destroy(io);
    return std::to_string(opened) + (closed ? " closed " : " open ") + text;
  });
  if (result.rfind("skip:", 0) == 0) GTEST_SKIP() << result;
  EXPECT_EQ(result, "1 closed IP_ADD_MEMBERSHIP: No such device\nUDP CONNECT ERROR: No such device\n");
}

// ---- vpn: a tunnel simulated over two socket pairs ----

class Tunnel {
 public:
  Tunnel() {
    socketpair(AF_UNIX, SOCK_STREAM, 0, cmd_);
    socketpair(AF_UNIX, SOCK_STREAM, 0, data_);
    travik_io_vpn_cmd = cmd_[0];
    travik_io_vpn_data = data_[0];
  }
  ~Tunnel() {
    if (thread_.joinable()) thread_.join();
    for (int fd : {cmd_[0], cmd_[1], data_[0], data_[1]})
      if (fd >= 0) close(fd);
  }
  // Answers the next commands with these statuses, recording each command's
  // raw bytes.
  void serve(std::vector<int32_t> replies) {
    thread_ = std::thread([this, replies] {
      for (int32_t status : replies) {
        std::string header = read_exactly(cmd_[1], 4);
        if (header.size() != 4) return;
        uint32_t length;
        std::memcpy(&length, header.data(), 4);
        if (length > 4096) return;
        commands.push_back(header + read_exactly(cmd_[1], length));
        if (write(cmd_[1], &status, 4) != 4) return;
      }
    });
  }
  // Reads one command, answers two bytes of a status and hangs up.
  void serve_short_reply() {
    thread_ = std::thread([this] {
      std::string header = read_exactly(cmd_[1], 4);
      if (header.size() != 4) return;
      uint32_t length;
      std::memcpy(&length, header.data(), 4);
      if (length > 4096) return;
      read_exactly(cmd_[1], length);
      if (write(cmd_[1], "\0\0", 2) != 2) return;
      close(cmd_[1]);
      cmd_[1] = -1;
    });
  }
  void join() {
    if (thread_.joinable()) thread_.join();
  }
  void close_tunnel_end() {
    close(cmd_[1]);
    cmd_[1] = -1;
  }
  int data_peer() const { return data_[1]; }
  int cmd_library() const { return cmd_[0]; }
  int data_library() const { return data_[0]; }
  std::vector<std::string> commands;  // read after join()

 private:
  int cmd_[2] = {-1, -1};
  int data_[2] = {-1, -1};
  std::thread thread_;
};

TEST_F(Net, VpnCommandChannelSwitchesTcpUrls) {
  travik_io_vpn_cmd = 0;
  travik_io *plain = travik_io_create("tcp://h:80/x");
  EXPECT_STREQ(plain->backend->name, "tcp");
  travik_io_destroy(plain);
  travik_io_vpn_cmd = 7;
  travik_io *tunnelled = travik_io_create("tcp://h:80/x");
  EXPECT_STREQ(tunnelled->backend->name, "vpn");
  EXPECT_STREQ(tunnelled->url.scheme, "tcp");
  travik_io_destroy(tunnelled);
  travik_io *udp = travik_io_create("udp://h:80/x");
  EXPECT_STREQ(udp->backend->name, "udp");
  travik_io_destroy(udp);
}

TEST_F(Net, VpnOpenReadWriteClose) {
  Tunnel tunnel;
  tunnel.serve({0, 0});
  travik_io *io = travik_io_create("tcp://h:80/x");
  ASSERT_STREQ(io->backend->name, "vpn");
  travik_io_settimeout(io, 5000);
  ASSERT_EQ(travik_io_open(io, -1), 0);
  EXPECT_EQ(io->backend_data, &travik_io_vpn_data);
  EXPECT_EQ(travik_io_handle(io), tunnel.data_library());

  write_all(tunnel.data_peer(), "through the tunnel");
  char buffer[18];
  EXPECT_EQ(travik_io_read(io, buffer, 18), 18);
  EXPECT_EQ(std::string(buffer, 18), "through the tunnel");

  StdoutCapture out;
  EXPECT_EQ(travik_io_write(io, "hello", 5), 5);
  EXPECT_EQ(out.text(), "vpn write: 5\n");
  EXPECT_EQ(read_exactly(tunnel.data_peer(), 5), "hello");

  travik_io_close(io);
  tunnel.join();
  ASSERT_EQ(tunnel.commands.size(), 2u);
  EXPECT_EQ(tunnel.commands[0], std::string("\x0a\x00\x00\x00open:h:80\x00", 14));
  EXPECT_EQ(tunnel.commands[1], std::string("\x07\x00\x00\x00" "close:\x00", 11));
  // Neither channel is closed.
  EXPECT_NE(fcntl(tunnel.cmd_library(), F_GETFD), -1);
  EXPECT_NE(fcntl(tunnel.data_library(), F_GETFD), -1);
  travik_io_destroy(io);
}

TEST_F(Net, VpnRefusedOpenFails) {
  Tunnel tunnel;
  tunnel.serve({3});
  travik_io *io = travik_io_create("tcp://127.0.0.1:8554/live");
  travik_io_settimeout(io, 5000);
  EXPECT_EQ(travik_io_open(io, -1), 1);
  EXPECT_EQ(io->backend_data, nullptr);
  tunnel.join();
  ASSERT_EQ(tunnel.commands.size(), 1u);
  EXPECT_EQ(tunnel.commands[0], std::string("\x14\x00\x00\x00open:127.0.0.1:8554\x00", 24));
  EXPECT_EQ(io->error, 0);
  travik_io_destroy(io);
}

TEST_F(Net, VpnRefusedCloseIsReportedByTheBackEnd) {
  Tunnel tunnel;
  tunnel.serve({0, 9});
  travik_io *io = travik_io_create("tcp://h:80/x");
  travik_io_settimeout(io, 5000);
  ASSERT_EQ(travik_io_open(io, -1), 0);
  EXPECT_EQ(io->backend->close(io), 1);
  io->backend_data = nullptr;
  tunnel.join();
  EXPECT_EQ(tunnel.commands.size(), 2u);
  travik_io_destroy(io);
}

TEST_F(Net, VpnSilentTunnelTimesOut) {
  Tunnel tunnel;  // never answers
  travik_io *io = travik_io_create("tcp://h:80/x");
  travik_io_settimeout(io, 200);
  long long start = now_ms();
  EXPECT_EQ(travik_io_open(io, -1), 1);
  EXPECT_LT(now_ms() - start, 3000);
  EXPECT_EQ(io->backend_data, nullptr);
  travik_io_destroy(io);
}

TEST_F(Net, VpnBrokenTunnelFailsWithoutASignal) {
  Tunnel tunnel;
  tunnel.close_tunnel_end();
  travik_io *io = travik_io_create("tcp://h:80/x");
  travik_io_settimeout(io, 2000);
  EXPECT_EQ(travik_io_open(io, -1), 1);
  travik_io_destroy(io);
}

TEST_F(Net, VpnShortReplyFails) {
  Tunnel tunnel;
  tunnel.serve_short_reply();
  travik_io *io = travik_io_create("tcp://h:80/x");
  travik_io_settimeout(io, 5000);
  EXPECT_EQ(travik_io_open(io, -1), 1);
  EXPECT_EQ(io->backend_data, nullptr);
  tunnel.join();
  travik_io_destroy(io);
}

TEST_F(Net, VpnReadTimesOutLikeTcp) {
  Tunnel tunnel;
  tunnel.serve({0});
  travik_io *io = travik_io_create("tcp://h:80/x");
  travik_io_settimeout(io, 5000);
  ASSERT_EQ(travik_io_open(io, -1), 0);
  tunnel.join();
  travik_io_settimeout(io, 200);
  char buffer[4];
  EXPECT_EQ(travik_io_read(io, buffer, 4), -1);
  EXPECT_EQ(io->error, 18);
  io->backend_data = nullptr;  // the tunnel has no reply for a close
  travik_io_destroy(io);
}

}  // namespace
