#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <travik/io.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "util/testutil.h"

namespace {

using travik_test::TempDir;
using travik_test::write_file;

// Bytes 0, 1, ..., 255, 0, 1, ... of the given length.
std::string pattern(size_t length) {
  std::string s(length, '\0');
  for (size_t i = 0; i < length; i++) s[i] = static_cast<char>(i & 0xFF);
  return s;
}

std::string mem_url(const void *address, int size) {
  char text[64];
  std::snprintf(text, sizeof text, "mem://%" PRIxPTR ":%d", reinterpret_cast<uintptr_t>(address),
                size);
  return text;
}

// ---- creation and the generic layer ----

TEST(Io, CreateSetsDefaults) {
  travik_io *io = travik_io_create("/nonexistent/file.ts");
  ASSERT_NE(io, nullptr);
  EXPECT_EQ(io->timeout, 30000);
  EXPECT_EQ(io->eof, 0);
  EXPECT_EQ(io->length, 0);
  EXPECT_EQ(io->backend_data, nullptr);
  EXPECT_EQ(io->error, 0);
  EXPECT_EQ(io->bitrate, 0u);
  ASSERT_NE(io->backend, nullptr);
  EXPECT_STREQ(io->backend->name, "file");
  EXPECT_STREQ(io->url.extension, "ts");
  travik_io_destroy(io);
}

TEST(Io, SchemesSelectTheirBackEnds) {
  const char *names[][2] = {{"file://x", "file"}, {"mem://NULL:4", "mem"}, {"tcp://h:1/", "tcp"},
                            {"udp://h:1/", "udp"}, {"vpn://h:1/", "vpn"}};
  for (auto &pair : names) {
    travik_io *io = travik_io_create(pair[0]);
    ASSERT_NE(io->backend, nullptr) << pair[0];
    EXPECT_STREQ(io->backend->name, pair[1]);
    travik_io_destroy(io);
  }
}

TEST(Io, BackEndTableHasTheDocumentedOperations) {
  travik_io *io = travik_io_create("mem://NULL:4");
  const travik_io_backend *mem = io->backend;
  EXPECT_NE(mem->seek, nullptr);
  EXPECT_NE(mem->pos, nullptr);
  EXPECT_EQ(mem->handle, nullptr);
  travik_io_destroy(io);
  io = travik_io_create("tcp://h:1/");
  EXPECT_EQ(io->backend->seek, nullptr);
  EXPECT_EQ(io->backend->pos, nullptr);
  EXPECT_NE(io->backend->handle, nullptr);
  travik_io_destroy(io);
  io = travik_io_create("vpn://h:1/");
  travik_io *tcp = travik_io_create("tcp://h:1/");
  EXPECT_EQ(io->backend->read, tcp->backend->read);
  EXPECT_NE(io->backend->write, tcp->backend->write);
  travik_io_destroy(tcp);
  travik_io_destroy(io);
}

TEST(Io, SchemeLookupIsCaseSensitive) {
  travik_io *io = travik_io_create("MEM://NULL:4");
  EXPECT_EQ(io->backend, nullptr);
  travik_io_destroy(io);
}

TEST(Io, UnknownSchemeGivesAHandleThatDoesNotOpen) {
  travik_io *io = travik_io_create("gopher://host/x");
  ASSERT_NE(io, nullptr);
  EXPECT_EQ(io->backend, nullptr);
  EXPECT_EQ(travik_io_open(io, -1), 1);
  char buffer[4];
  EXPECT_EQ(travik_io_read(io, buffer, 4), 0);
  EXPECT_EQ(travik_io_seek(io, 0, 0), -1);
  EXPECT_EQ(travik_io_length(io), -1);
  EXPECT_EQ(travik_io_pos(io), -1);
  EXPECT_EQ(travik_io_handle(io), -1);
  travik_io_close(io);
  travik_io_destroy(io);
}

TEST(Io, EmptyTextIsAFileNameThatDoesNotOpen) {
  travik_io *io = travik_io_create("");
  ASSERT_NE(io->backend, nullptr);
  EXPECT_STREQ(io->backend->name, "file");
  EXPECT_EQ(travik_io_open(io, -1), 1);
  travik_io_destroy(io);
}

TEST(Io, ClosedHandleDoesNothing) {
  travik_io *io = travik_io_create("mem://NULL:16");
  char buffer[8] = {};
  EXPECT_EQ(travik_io_read(io, buffer, 8), 0);
  EXPECT_EQ(travik_io_read(io, nullptr, 8), 0);
  EXPECT_EQ(travik_io_readline(io, buffer, 4), 0);
  EXPECT_EQ(travik_io_write(io, buffer, 8), 0);
  EXPECT_EQ(travik_io_seek(io, 0, 0), -1);
  EXPECT_EQ(travik_io_length(io), -1);
  EXPECT_EQ(travik_io_pos(io), -1);
  EXPECT_EQ(io->rate_stamp.tv_sec, 0);
  travik_io_destroy(io);
}

TEST(Io, SettersAndFilter) {
  travik_io *io = travik_io_create("mem://NULL:16");
  EXPECT_EQ(travik_io_settimeout(io, 250), 250);
  EXPECT_EQ(io->timeout, 250);
  auto f1 = [](void *, travik_io *) -> int32_t { return 0; };
  auto f2 = [](void *, travik_io *) -> int32_t { return 1; };
  int arg = 0;
  EXPECT_EQ(travik_io_setfilter(io, f1, &arg), nullptr);
  EXPECT_EQ(io->filter_arg, &arg);
  EXPECT_EQ(travik_io_setfilter(io, f2, nullptr), static_cast<travik_io_filter>(f1));
  EXPECT_EQ(io->filter, static_cast<travik_io_filter>(f2));
  EXPECT_EQ(io->filter_arg, nullptr);
  travik_io_destroy(io);
}

TEST(Io, DestroyClosesAnOpenHandle) {
  TempDir dir;
  write_file(dir.file("a"), "x");
  travik_io *io = travik_io_create(dir.file("a").c_str());
  ASSERT_EQ(travik_io_open(io, -1), 0);
  int fd = travik_io_handle(io);
  travik_io_destroy(io);
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

// ---- "file" ----

TEST(IoFile, PlainNameOpensUnchanged) {
  TempDir dir;
  write_file(dir.file("a.ts"), "hello");
  travik_io *io = travik_io_create(dir.file("a.ts").c_str());
  ASSERT_EQ(travik_io_open(io, -1), 0);
  char buffer[8] = {};
  EXPECT_EQ(travik_io_read(io, buffer, 5), 5);
  EXPECT_STREQ(buffer, "hello");
  EXPECT_EQ(io->eof, 0);
  travik_io_destroy(io);
}

TEST(IoFile, FileUrlOpensTheRelativePath) {
  TempDir dir;
  mkdir(dir.file("sub").c_str(), 0755);
  write_file(dir.file("sub/a.ts"), "relative");
  char saved[4096];
  ASSERT_NE(getcwd(saved, sizeof saved), nullptr);
  ASSERT_EQ(chdir(dir.path().c_str()), 0);
  // "/sub/a.ts" does not exist; "sub/a.ts" below the current directory does.
  travik_io *io = travik_io_create("file:///sub/a.ts");
  EXPECT_STREQ(io->url.path, "sub/a.ts");
  int32_t opened = travik_io_open(io, -1);
  char buffer[16] = {};
  int32_t got = travik_io_read(io, buffer, 8);
  travik_io_destroy(io);
  ASSERT_EQ(chdir(saved), 0);
  EXPECT_EQ(opened, 0);
  EXPECT_EQ(got, 8);
  EXPECT_STREQ(buffer, "relative");
}

TEST(IoFile, DescriptorZeroIsMovedSoTheHandleCountsAsOpen) {
  // With standard input closed, open() hands out descriptor 0, which as the
  // back-end state would read as "closed".
  TempDir dir;
  write_file(dir.file("a"), "abc");
  std::string path = dir.file("a");
  std::string result = travik_test::in_child([&path] {
    close(0);
    travik_io *io = travik_io_create(path.c_str());
    int32_t opened = travik_io_open(io, -1);
    bool open = io->backend_data != nullptr;
    int32_t fd = travik_io_handle(io);
    char buffer[3] = {};
    int32_t got = travik_io_read(io, buffer, 3);
    bool zero_free = fcntl(0, F_GETFD) == -1;
    travik_io_destroy(io);
    return std::to_string(opened) + (open ? " open" : " closed") + (fd > 0 ? " fd>0 " : " fd<=0 ") +
           std::to_string(got) + " " + std::string(buffer, 3) + (zero_free ? " 0-free" : " 0-used");
  });
  EXPECT_EQ(result, "0 open fd>0 3 abc 0-free");
}

TEST(IoFile, MissingFileFails) {
  travik_io *io = travik_io_create("/nonexistent-dir/none.ts");
  EXPECT_EQ(travik_io_open(io, -1), 1);
  EXPECT_EQ(io->backend_data, nullptr);
  travik_io_destroy(io);
}

TEST(IoFile, DirectoryFails) {
  TempDir dir;
  travik_io *io = travik_io_create(dir.path().c_str());
  EXPECT_EQ(travik_io_open(io, -1), 1);
  EXPECT_EQ(io->backend_data, nullptr);
  travik_io_destroy(io);
}

TEST(IoFile, FileUrlWithoutPathFails) {
  travik_io *io = travik_io_create("file://");
  EXPECT_EQ(travik_io_open(io, -1), 1);
  travik_io_destroy(io);
}

TEST(IoFile, OpeningTwiceIsANoOp) {
  TempDir dir;
  write_file(dir.file("a"), "abc");
  travik_io *io = travik_io_create(dir.file("a").c_str());
  ASSERT_EQ(travik_io_open(io, -1), 0);
  int fd = travik_io_handle(io);
  EXPECT_EQ(travik_io_open(io, -1), 0);
  EXPECT_EQ(travik_io_handle(io), fd);
  travik_io_destroy(io);
}

TEST(IoFile, WriteWithFlagsCreatesWithMode0644) {
  TempDir dir;
  std::string path = dir.file("out");
  travik_io *io = travik_io_create(path.c_str());
  ASSERT_EQ(travik_io_open(io, O_WRONLY | O_CREAT | O_TRUNC), 0);
  EXPECT_EQ(travik_io_write(io, "data", 4), 4);
  EXPECT_EQ(io->eof, 0);
  travik_io_destroy(io);
  EXPECT_EQ(travik_test::read_file(path), "data");
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  mode_t mask = umask(0);
  umask(mask);
  EXPECT_EQ(st.st_mode & 0777, 0644u & ~mask);
}

TEST(IoFile, WriteOnAReadOnlyHandleSetsEof) {
  TempDir dir;
  write_file(dir.file("a"), "abc");
  travik_io *io = travik_io_create(dir.file("a").c_str());
  ASSERT_EQ(travik_io_open(io, -1), 0);
  EXPECT_EQ(travik_io_write(io, "xy", 2), -1);
  EXPECT_EQ(io->eof, 1);
  travik_io_destroy(io);
}

TEST(IoFile, ShortReadSetsEofAndASeekElsewhereClearsIt) {
  TempDir dir;
  write_file(dir.file("a"), "0123456789");
  travik_io *io = travik_io_create(dir.file("a").c_str());
  ASSERT_EQ(travik_io_open(io, -1), 0);
  char buffer[32];
  EXPECT_EQ(travik_io_read(io, buffer, 32), 10);
  EXPECT_EQ(io->eof, 1);
  // A seek to the same position keeps the flag.
  EXPECT_EQ(travik_io_seek(io, 10, 0), 10);
  EXPECT_EQ(io->eof, 1);
  EXPECT_EQ(travik_io_seek(io, 4, 0), 4);
  EXPECT_EQ(io->eof, 0);
  EXPECT_EQ(travik_io_read(io, buffer, 2), 2);
  EXPECT_EQ(std::string(buffer, 2), "45");
  EXPECT_EQ(io->eof, 0);
  travik_io_destroy(io);
}

TEST(IoFile, FailedSeekKeepsEof) {
  TempDir dir;
  write_file(dir.file("a"), "0123");
  travik_io *io = travik_io_create(dir.file("a").c_str());
  ASSERT_EQ(travik_io_open(io, -1), 0);
  char buffer[8];
  travik_io_read(io, buffer, 8);
  ASSERT_EQ(io->eof, 1);
  EXPECT_EQ(travik_io_seek(io, -100, 0), -1);
  EXPECT_EQ(io->eof, 1);
  travik_io_destroy(io);
}

TEST(IoFile, SuccessfulOpenClearsEof) {
  TempDir dir;
  write_file(dir.file("a"), "0123");
  travik_io *io = travik_io_create(dir.file("a").c_str());
  ASSERT_EQ(travik_io_open(io, -1), 0);
  char buffer[8];
  travik_io_read(io, buffer, 8);
  ASSERT_EQ(io->eof, 1);
  travik_io_close(io);
  EXPECT_EQ(io->backend_data, nullptr);
  ASSERT_EQ(travik_io_open(io, -1), 0);
  EXPECT_EQ(io->eof, 0);
  EXPECT_EQ(travik_io_read(io, buffer, 4), 4);
  travik_io_destroy(io);
}

TEST(IoFile, SkipSeeksForward) {
  TempDir dir;
  write_file(dir.file("a"), pattern(5000));
  travik_io *io = travik_io_create(dir.file("a").c_str());
  ASSERT_EQ(travik_io_open(io, -1), 0);
  EXPECT_EQ(travik_io_read(io, nullptr, 3000), 3000);
  EXPECT_EQ(io->eof, 0);
  EXPECT_EQ(travik_io_pos(io), 3000);
  unsigned char byte = 0;
  EXPECT_EQ(travik_io_read(io, &byte, 1), 1);
  EXPECT_EQ(byte, 3000 & 0xFF);
  travik_io_destroy(io);
}

TEST(IoFile, LengthIsTheSizeAndKeepsThePosition) {
  TempDir dir;
  write_file(dir.file("a"), pattern(1234));
  travik_io *io = travik_io_create(dir.file("a").c_str());
  ASSERT_EQ(travik_io_open(io, -1), 0);
  char buffer[100];
  ASSERT_EQ(travik_io_read(io, buffer, 100), 100);
  EXPECT_EQ(travik_io_length(io), 1234);
  EXPECT_EQ(io->length, 1234);
  EXPECT_EQ(travik_io_pos(io), 100);
  travik_io_destroy(io);
}

TEST(IoFile, FailedOpenStillClearsTheCachedLength) {
  travik_io *io = travik_io_create("/nonexistent-dir/none.ts");
  io->length = 42;
  EXPECT_EQ(travik_io_open(io, -1), 1);
  EXPECT_EQ(io->length, 0);
  travik_io_destroy(io);
}

TEST(Io, OpenWithoutABackEndKeepsTheCachedLength) {
  travik_io *io = travik_io_create("gopher://host/x");
  io->length = 42;
  EXPECT_EQ(travik_io_open(io, -1), 1);
  EXPECT_EQ(io->length, 42);
  travik_io_destroy(io);
}

TEST(IoFile, SkipPastTheEndCountsTheWholeSeek) {
  // A file can be positioned past its end, so a skip by seeking moves the
  // full count and is not short.
  TempDir dir;
  write_file(dir.file("a"), pattern(100));
  travik_io *io = travik_io_create(dir.file("a").c_str());
  ASSERT_EQ(travik_io_open(io, -1), 0);
  EXPECT_EQ(travik_io_read(io, nullptr, 500), 500);
  EXPECT_EQ(io->eof, 0);
  EXPECT_EQ(travik_io_pos(io), 500);
  char byte;
  EXPECT_EQ(travik_io_read(io, &byte, 1), 0);
  EXPECT_EQ(io->eof, 1);
  travik_io_destroy(io);
}

TEST(IoFile, LengthIsCachedUntilReopened) {
  TempDir dir;
  std::string path = dir.file("a");
  write_file(path, "12345");
  travik_io *io = travik_io_create(path.c_str());
  ASSERT_EQ(travik_io_open(io, -1), 0);
  EXPECT_EQ(travik_io_length(io), 5);
  write_file(path, "1234567890");
  EXPECT_EQ(travik_io_length(io), 5);
  travik_io_close(io);
  ASSERT_EQ(travik_io_open(io, -1), 0);
  EXPECT_EQ(io->length, 0);
  EXPECT_EQ(travik_io_length(io), 10);
  travik_io_destroy(io);
}

TEST(IoFile, NonPositiveCountsReadAndWriteNothing) {
  TempDir dir;
  write_file(dir.file("a"), "abc");
  travik_io *io = travik_io_create(dir.file("a").c_str());
  ASSERT_EQ(travik_io_open(io, O_RDWR), 0);
  char buffer[4];
  EXPECT_EQ(travik_io_read(io, buffer, 0), 0);
  EXPECT_EQ(travik_io_read(io, buffer, -5), 0);
  EXPECT_EQ(travik_io_read(io, nullptr, -5), 0);
  EXPECT_EQ(travik_io_write(io, buffer, -1), 0);
  EXPECT_EQ(travik_io_pos(io), 0);
  EXPECT_EQ(travik_io_read(io, buffer, 3), 3);
  travik_io_destroy(io);
}

TEST(IoFile, ErrorStopsEveryRead) {
  TempDir dir;
  write_file(dir.file("a"), "abc");
  travik_io *io = travik_io_create(dir.file("a").c_str());
  ASSERT_EQ(travik_io_open(io, -1), 0);
  io->error = 18;
  char buffer[4];
  EXPECT_EQ(travik_io_read(io, buffer, 3), 0);
  EXPECT_EQ(travik_io_readline(io, buffer, 3), 0);
  travik_io_destroy(io);
}

TEST(IoFile, ReopenAfterCloseReadsFromTheStart) {
  TempDir dir;
  write_file(dir.file("a"), "abc");
  travik_io *io = travik_io_create(dir.file("a").c_str());
  ASSERT_EQ(travik_io_open(io, -1), 0);
  char buffer[4] = {};
  travik_io_read(io, buffer, 2);
  travik_io_close(io);
  travik_io_close(io);  // a second close does nothing
  ASSERT_EQ(travik_io_open(io, -1), 0);
  EXPECT_EQ(travik_io_read(io, buffer, 3), 3);
  EXPECT_EQ(std::string(buffer, 3), "abc");
  travik_io_destroy(io);
}

// ---- input rate ----

TEST(IoRate, FirstReadStartsTheMeasurement) {
  travik_io *io = travik_io_create("mem://NULL:100");
  ASSERT_EQ(travik_io_open(io, -1), 0);
  char buffer[10];
  EXPECT_EQ(travik_io_read(io, buffer, 10), 10);
  EXPECT_NE(io->rate_stamp.tv_sec, 0);
  EXPECT_EQ(io->rate_bytes, 10u);
  EXPECT_EQ(travik_io_read(io, buffer, 10), 10);
  EXPECT_EQ(io->rate_bytes, 20u);
  EXPECT_EQ(io->bitrate, 0u);
  travik_io_destroy(io);
}

TEST(IoRate, BitrateAfterAtLeastOneSecond) {
  travik_io *io = travik_io_create("mem://NULL:100");
  ASSERT_EQ(travik_io_open(io, -1), 0);
  travik_time now, back = {4, 0};
  travik_time_setcurrent(&now);
  travik_time_sub(&io->rate_stamp, &now, &back);
  io->rate_bytes = 4000;
  char buffer[10];
  EXPECT_EQ(travik_io_read(io, buffer, 10), 10);
  // 4000 bytes over (a little more than) 4 s.
  EXPECT_LE(io->bitrate, 8000u);
  EXPECT_GE(io->bitrate, 7800u);
  EXPECT_EQ(io->rate_bytes, 10u);
  travik_time age;
  travik_time_sub(&age, &now, &io->rate_stamp);
  EXPECT_LE(age.tv_sec, 0);
  travik_io_destroy(io);
}

TEST(IoRate, NoDivisionBeforeOneSecond) {
  travik_io *io = travik_io_create("mem://NULL:100");
  ASSERT_EQ(travik_io_open(io, -1), 0);
  travik_time now, back = {0, 300000};
  travik_time_setcurrent(&now);
  travik_time_sub(&io->rate_stamp, &now, &back);
  travik_time stamp = io->rate_stamp;
  io->rate_bytes = 4000;
  io->bitrate = 77;
  char buffer[10];
  EXPECT_EQ(travik_io_read(io, buffer, 10), 10);
  EXPECT_EQ(io->bitrate, 77u);
  EXPECT_EQ(io->rate_bytes, 4010u);
  EXPECT_EQ(travik_time_compare(&stamp, &io->rate_stamp), 0);
  travik_io_destroy(io);
}

TEST(IoRate, LargeRatesDoNotOverflow) {
  travik_io *io = travik_io_create("mem://NULL:100");
  ASSERT_EQ(travik_io_open(io, -1), 0);
  travik_time now, back = {2, 0};
  travik_time_setcurrent(&now);
  travik_time_sub(&io->rate_stamp, &now, &back);
  io->rate_bytes = 10000000;  // 40 Mbit/s over 2 s
  char buffer[10];
  travik_io_read(io, buffer, 10);
  EXPECT_GE(io->bitrate, 39000000u);
  EXPECT_LE(io->bitrate, 40000000u);
  travik_io_destroy(io);
}

// ---- "mem" ----

TEST(IoMem, PrivateRegionReadsUpToItsSize) {
  travik_io *io = travik_io_create("mem://NULL:4096");
  ASSERT_EQ(travik_io_open(io, -1), 0);
  std::vector<char> buffer(5000, 'x');
  EXPECT_EQ(travik_io_read(io, buffer.data(), 5000), 4096);
  EXPECT_EQ(io->eof, 1);
  EXPECT_EQ(buffer[0], 0);
  EXPECT_EQ(buffer[4095], 0);
  EXPECT_EQ(buffer[4096], 'x');
  EXPECT_EQ(travik_io_read(io, buffer.data(), 10), 0);
  travik_io_destroy(io);
}

TEST(IoMem, CallersRegionIsReadInPlace) {
  std::string data = "memory contents";
  std::string url = mem_url(data.data(), static_cast<int>(data.size()));
  travik_io *io = travik_io_create(url.c_str());
  ASSERT_EQ(travik_io_open(io, -1), 0);
  char buffer[32] = {};
  EXPECT_EQ(travik_io_read(io, buffer, 6), 6);
  EXPECT_EQ(travik_io_read(io, buffer + 6, 100), static_cast<int32_t>(data.size()) - 6);
  EXPECT_EQ(std::string(buffer), data);
  travik_io_destroy(io);
  EXPECT_EQ(data, "memory contents");  // not freed, not changed
}

TEST(IoMem, HexAddressWithPrefix) {
  char data[4] = {'a', 'b', 'c', 'd'};
  char url[64];
  std::snprintf(url, sizeof url, "mem://0x%" PRIxPTR ":4", reinterpret_cast<uintptr_t>(data));
  travik_io *io = travik_io_create(url);
  ASSERT_EQ(travik_io_open(io, -1), 0);
  char buffer[4];
  EXPECT_EQ(travik_io_read(io, buffer, 4), 4);
  EXPECT_EQ(std::string(buffer, 4), "abcd");
  travik_io_destroy(io);
}

TEST(IoMem, SeekFromStartCountsFromTheLastByte) {
  travik_io *io = travik_io_create("mem://NULL:100");
  ASSERT_EQ(travik_io_open(io, -1), 0);
  EXPECT_EQ(travik_io_seek(io, 0, 0), 99);
  EXPECT_EQ(travik_io_seek(io, -9, 2), 90);
  EXPECT_EQ(travik_io_seek(io, -50, 0), 49);
  EXPECT_EQ(travik_io_seek(io, 5, 1), 54);
  EXPECT_EQ(travik_io_seek(io, 500, 1), 99);
  EXPECT_EQ(travik_io_seek(io, 500, 2), 99);
  EXPECT_EQ(travik_io_pos(io), 99);
  travik_io_destroy(io);
}

TEST(IoMem, PositionIsClampedByPos) {
  travik_io *io = travik_io_create("mem://NULL:10");
  ASSERT_EQ(travik_io_open(io, -1), 0);
  char buffer[10];
  ASSERT_EQ(travik_io_read(io, buffer, 10), 10);
  // Asking for the position (a seek of 0 from the current one) clamps it to
  // the last byte, which can then be read again.
  EXPECT_EQ(travik_io_pos(io), 9);
  EXPECT_EQ(travik_io_read(io, buffer, 10), 1);
  travik_io_destroy(io);
}

TEST(IoMem, LengthIsSizeMinusOneAndMovesToTheLastByte) {
  travik_io *io = travik_io_create("mem://NULL:4096");
  ASSERT_EQ(travik_io_open(io, -1), 0);
  char buffer[10];
  travik_io_read(io, buffer, 10);
  EXPECT_EQ(travik_io_length(io), 4095);
  EXPECT_EQ(travik_io_pos(io), 4095);
  travik_io_destroy(io);
}

TEST(IoMem, NegativePositionReadsAndWritesNothing) {
  char data[8] = {};
  std::string url = mem_url(data, 8);
  travik_io *io = travik_io_create(url.c_str());
  ASSERT_EQ(travik_io_open(io, -1), 0);
  EXPECT_EQ(travik_io_seek(io, -10, 1), -10);
  char buffer[4];
  EXPECT_EQ(travik_io_read(io, buffer, 4), 0);
  EXPECT_EQ(travik_io_write(io, "abcd", 4), 0);
  EXPECT_EQ(io->eof, 1);
  travik_io_destroy(io);
}

TEST(IoMem, SkipSeeks) {
  travik_io *io = travik_io_create("mem://NULL:100");
  ASSERT_EQ(travik_io_open(io, -1), 0);
  EXPECT_EQ(travik_io_read(io, nullptr, 30), 30);
  EXPECT_EQ(travik_io_pos(io), 30);
  // Past the end the position stops at the last byte.
  EXPECT_EQ(travik_io_read(io, nullptr, 500), 69);
  EXPECT_EQ(io->eof, 1);
  travik_io_destroy(io);
}

TEST(IoMem, WriteWithinTheRegion) {
  char data[16];
  std::memset(data, '.', sizeof data);
  std::string url = mem_url(data, 8);
  travik_io *io = travik_io_create(url.c_str());
  ASSERT_EQ(travik_io_open(io, -1), 0);
  EXPECT_EQ(travik_io_write(io, "abc", 3), 3);
  EXPECT_EQ(travik_io_pos(io), 3);
  EXPECT_EQ(std::string(data, 16), "abc.............");
  travik_io_destroy(io);
}

TEST(IoMem, WriteBoundOnlyStopsWritesLongerThanPositionPlusSize) {
  char data[32];
  std::memset(data, '.', sizeof data);
  std::string url = mem_url(data, 8);
  travik_io *io = travik_io_create(url.c_str());
  ASSERT_EQ(travik_io_open(io, -1), 0);
  ASSERT_EQ(travik_io_seek(io, 4, 1), 4);
  // 4 + 8 >= 10: all 10 bytes are written, past the region's end.
  EXPECT_EQ(travik_io_write(io, "0123456789", 10), 10);
  EXPECT_EQ(std::string(data, 16), "....0123456789..");
  travik_io_destroy(io);
}

TEST(IoMem, WriteLongerThanPositionPlusSizeIsCut) {
  char data[32];
  std::memset(data, '.', sizeof data);
  std::string url = mem_url(data, 8);
  travik_io *io = travik_io_create(url.c_str());
  ASSERT_EQ(travik_io_open(io, -1), 0);
  EXPECT_EQ(travik_io_write(io, "0123456789", 10), 8);
  EXPECT_EQ(io->eof, 1);
  EXPECT_EQ(std::string(data, 12), "01234567....");
  travik_io_destroy(io);
}

TEST(IoMem, PrivateRegionIsNeverOverrun) {
  travik_io *io = travik_io_create("mem://NULL:8");
  ASSERT_EQ(travik_io_open(io, -1), 0);
  ASSERT_EQ(travik_io_seek(io, 4, 1), 4);
  EXPECT_EQ(travik_io_write(io, "0123456789", 10), 10);
  char buffer[8];
  EXPECT_EQ(travik_io_read(io, buffer, 8), 0);
  ASSERT_EQ(travik_io_seek(io, -7, 2), 0);
  EXPECT_EQ(travik_io_read(io, buffer, 8), 8);
  EXPECT_EQ(std::string(buffer, 8), std::string(4, '\0') + "0123");
  travik_io_destroy(io);
}

TEST(IoMem, BadAddressReadsAndWritesNothing) {
  travik_io *io = travik_io_create("mem://nothex:100");
  ASSERT_EQ(travik_io_open(io, -1), 0);
  char buffer[8];
  EXPECT_EQ(travik_io_read(io, buffer, 8), 0);
  EXPECT_EQ(travik_io_write(io, buffer, 8), 0);
  EXPECT_EQ(travik_io_handle(io), -1);
  travik_io_destroy(io);
}

TEST(IoMem, MissingSizeIsAnEmptyRegion) {
  travik_io *io = travik_io_create("mem://NULL");
  ASSERT_EQ(travik_io_open(io, -1), 0);
  char buffer[8];
  EXPECT_EQ(travik_io_read(io, buffer, 8), 0);
  EXPECT_EQ(travik_io_write(io, buffer, 8), 0);
  EXPECT_EQ(travik_io_seek(io, 0, 0), -1);
  travik_io_destroy(io);
}

// ---- travik_io_readline ----

class Readline : public ::testing::Test {
 protected:
  travik_io *open(const std::string &text) {
    data_ = text;
    std::string url = mem_url(data_.data(), static_cast<int>(data_.size()));
    io_ = travik_io_create(url.c_str());
    EXPECT_EQ(travik_io_open(io_, -1), 0);
    return io_;
  }
  void TearDown() override {
    if (io_) travik_io_destroy(io_);
  }
  std::string data_;
  travik_io *io_ = nullptr;
};

TEST_F(Readline, CrLfLineIsReturnedWithoutThem) {
  travik_io *io = open("abc\r\nnext");
  char buffer[17];
  std::memset(buffer, 'Z', sizeof buffer);
  EXPECT_EQ(travik_io_readline(io, buffer, 16), 3);
  EXPECT_STREQ(buffer, "abc");
  EXPECT_EQ(buffer[4], '\0');
}

TEST_F(Readline, LinesInTurnAndAnUnterminatedLast) {
  travik_io *io = open("one\ntwo\nlast");
  char buffer[17];
  EXPECT_EQ(travik_io_readline(io, buffer, 16), 3);
  EXPECT_STREQ(buffer, "one");
  EXPECT_EQ(travik_io_readline(io, buffer, 16), 3);
  EXPECT_STREQ(buffer, "two");
  std::memset(buffer, 'Z', sizeof buffer);
  // The end of the input: bytes stored, no terminator.
  EXPECT_EQ(travik_io_readline(io, buffer, 16), 4);
  EXPECT_EQ(std::string(buffer, 5), "lastZ");
  EXPECT_EQ(travik_io_readline(io, buffer, 16), 0);
}

TEST_F(Readline, EmptyLines) {
  travik_io *io = open("\n\r\nx\n");
  char buffer[9];
  EXPECT_EQ(travik_io_readline(io, buffer, 8), 0);
  EXPECT_EQ(buffer[0], '\0');
  EXPECT_EQ(travik_io_readline(io, buffer, 8), 0);
  EXPECT_EQ(buffer[0], '\0');
  EXPECT_EQ(travik_io_readline(io, buffer, 8), 1);
  EXPECT_STREQ(buffer, "x");
}

TEST_F(Readline, FullBufferWithoutNewlineIsNotTerminated) {
  travik_io *io = open("abcdefgh\n");
  char buffer[5];
  std::memset(buffer, 'Z', sizeof buffer);
  EXPECT_EQ(travik_io_readline(io, buffer, 4), 4);
  EXPECT_EQ(std::string(buffer, 5), "abcdZ");
  // The rest of the line comes next.
  char rest[17];
  EXPECT_EQ(travik_io_readline(io, rest, 16), 4);
  EXPECT_STREQ(rest, "efgh");
}

TEST_F(Readline, FullBufferEndingInCarriageReturn) {
  travik_io *io = open("abc\rdef");
  char buffer[5];
  std::memset(buffer, 'Z', sizeof buffer);
  EXPECT_EQ(travik_io_readline(io, buffer, 4), 3);
  EXPECT_STREQ(buffer, "abc");
}

TEST_F(Readline, FullBufferTerminatesAStaleNewlineJustPastIt) {
  travik_io *io = open("abcdef");
  char buffer[5];
  buffer[4] = '\n';
  EXPECT_EQ(travik_io_readline(io, buffer, 4), 4);
  EXPECT_EQ(buffer[4], '\0');
  EXPECT_EQ(std::string(buffer, 4), "abcd");
}

TEST_F(Readline, SizeZeroReadsNothing) {
  travik_io *io = open("abc\n");
  char buffer[1] = {'Z'};
  EXPECT_EQ(travik_io_readline(io, buffer, 0), 0);
  EXPECT_EQ(buffer[0], 'Z');
  EXPECT_EQ(travik_io_readline(io, buffer, -3), 0);
  char line[9];
  EXPECT_EQ(travik_io_readline(io, line, 8), 3);
}

TEST_F(Readline, LineExactlyFillingTheBuffer) {
  travik_io *io = open("abcd\nx");
  char buffer[5];
  // Four bytes stored: the newline is left for the next call.
  EXPECT_EQ(travik_io_readline(io, buffer, 4), 4);
  EXPECT_EQ(std::string(buffer, 4), "abcd");
  EXPECT_EQ(travik_io_readline(io, buffer, 4), 0);
  EXPECT_EQ(buffer[0], '\0');
}

// ---- the socket registration table ----

class SocketTable : public ::testing::Test {
 protected:
  void SetUp() override { clear(); }
  void TearDown() override { clear(); }
  static void clear() {
    for (auto &slot : travik_io_sockets) slot[0] = slot[1] = -1;
  }
};

// Every test that fills the table empties it again, so this holds at load
// and after any other test.
TEST(SocketTableLoad, TenFreePairs) {
  EXPECT_EQ(sizeof travik_io_sockets, 80u);
  for (auto &slot : travik_io_sockets) {
    EXPECT_EQ(slot[0], -1);
    EXPECT_EQ(slot[1], -1);
  }
}

TEST_F(SocketTable, AddUsesTheFirstFreeSlot) {
  EXPECT_EQ(travik_io_socket_add(5000, 7), -1);
  EXPECT_EQ(travik_io_sockets[0][0], 5000);
  EXPECT_EQ(travik_io_sockets[0][1], 7);
  EXPECT_EQ(travik_io_socket_add(6000, 8), -1);
  EXPECT_EQ(travik_io_sockets[1][0], 6000);
}

TEST_F(SocketTable, AddReplacesTheSameKey) {
  travik_io_socket_add(5000, 7);
  travik_io_socket_add(6000, 8);
  EXPECT_EQ(travik_io_socket_add(6000, 9), 6000);
  EXPECT_EQ(travik_io_sockets[1][1], 9);
  EXPECT_EQ(travik_io_sockets[2][0], -1);
}

TEST_F(SocketTable, AddToAFullTableStoresNothing) {
  for (int i = 0; i < 10; i++) travik_io_socket_add(100 + i, i);
  EXPECT_EQ(travik_io_socket_add(999, 42), -1);
  EXPECT_EQ(travik_io_socket_find(999, -1), -1);
  EXPECT_EQ(travik_io_socket_find(-1, 42), -1);
}

TEST_F(SocketTable, AddTakesAFreeSlotBeforeALaterSlotWithTheSameKey) {
  travik_io_socket_add(5000, 7);
  travik_io_socket_add(6000, 8);
  travik_io_sockets[0][0] = travik_io_sockets[0][1] = -1;
  // Slot 0 is free and comes first: the key is stored twice.
  EXPECT_EQ(travik_io_socket_add(6000, 9), -1);
  EXPECT_EQ(travik_io_sockets[0][0], 6000);
  EXPECT_EQ(travik_io_sockets[0][1], 9);
  EXPECT_EQ(travik_io_sockets[1][0], 6000);
  EXPECT_EQ(travik_io_sockets[1][1], 8);
}

TEST_F(SocketTable, FindGivesTheFirstSlotMatchingKeyOrValue) {
  travik_io_socket_add(5000, 7);
  travik_io_socket_add(6000, 8);
  EXPECT_EQ(travik_io_socket_find(6000, 7), 0);
  EXPECT_EQ(travik_io_socket_find(5000, 8), 0);
  EXPECT_EQ(travik_io_socket_find(-1, 8), 1);
}

TEST_F(SocketTable, FindByKeyOrByValue) {
  travik_io_socket_add(5000, 7);
  travik_io_socket_add(6000, 8);
  EXPECT_EQ(travik_io_socket_find(6000, -1), 1);
  EXPECT_EQ(travik_io_socket_find(-1, 7), 0);
  EXPECT_EQ(travik_io_socket_find(-2, 8), 1);
  EXPECT_EQ(travik_io_socket_find(1234, 5678), -1);
}

TEST_F(SocketTable, MinusOneAndMinusTwoKeysAreNotTested) {
  // Free slots hold key -1, yet a key of -1 never finds them.
  EXPECT_EQ(travik_io_socket_find(-1, -1), -1);
  travik_io_sockets[3][0] = -2;
  travik_io_sockets[3][1] = 11;
  EXPECT_EQ(travik_io_socket_find(-2, -1), -1);
  EXPECT_EQ(travik_io_socket_find(-2, 11), 3);
}

}  // namespace
