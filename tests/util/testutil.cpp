#include "util/testutil.h"

#include <travik/plugin.h>

#include <fcntl.h>
#include <iconv.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace travik_test {

namespace {

int redirect(int fd, std::string &path) {
  char name[] = "/tmp/travik-capture-XXXXXX";
  int file = mkstemp(name);
  path = name;
  fflush(fd == 1 ? stdout : stderr);
  int saved = dup(fd);
  dup2(file, fd);
  close(file);
  return saved;
}

std::string restore(int fd, int &saved, const std::string &path) {
  if (saved < 0) return {};
  fflush(fd == 1 ? stdout : stderr);
  dup2(saved, fd);
  close(saved);
  saved = -1;
  std::string text = read_file(path);
  unlink(path.c_str());
  return text;
}

}  // namespace

StderrCapture::StderrCapture() { saved_ = redirect(2, path_); }
StderrCapture::~StderrCapture() { text(); }
std::string StderrCapture::text() {
  if (saved_ >= 0) text_ = restore(2, saved_, path_);
  return text_;
}

StdoutCapture::StdoutCapture() { saved_ = redirect(1, path_); }
StdoutCapture::~StdoutCapture() { text(); }
std::string StdoutCapture::text() {
  if (saved_ >= 0) text_ = restore(1, saved_, path_);
  return text_;
}

std::string in_child(const std::function<std::string()> &body) {
  int fds[2];
  if (pipe(fds) != 0) return "pipe failed";
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    std::string result = body();
    ssize_t written = write(fds[1], result.data(), result.size());
    _exit(written == static_cast<ssize_t>(result.size()) ? 0 : 1);
  }
  close(fds[1]);
  std::string result;
  char buffer[4096];
  ssize_t n;
  while ((n = read(fds[0], buffer, sizeof buffer)) > 0) result.append(buffer, n);
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  return result;
}

TempDir::TempDir() {
  char name[] = "/tmp/travik-test-XXXXXX";
  path_ = mkdtemp(name);
}

TempDir::~TempDir() {
  std::error_code error;
  std::filesystem::remove_all(path_, error);
}

std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream content;
  content << in.rdbuf();
  return content.str();
}

void write_file(const std::string &path, const std::string &content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

long long now_ms() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

namespace {
std::string g_home;
}  // namespace

void LibraryEnvironment::SetUp() {
  home_ = new TempDir();
  g_home = home_->path();
  setenv("HOME", g_home.c_str(), 1);
  setenv("TRAVIK_PLUGINS_DIR", plugins_dir_.c_str(), 1);
  unsetenv("LANG");
  unsetenv("TRAVIK_LANG");
  travik_init();
}

void LibraryEnvironment::TearDown() {
  travik_destroy();
  delete home_;
  home_ = nullptr;
  g_home.clear();
}

const std::string &LibraryEnvironment::home() { return g_home; }

bool iconv_converts(const char *from, const char *to) {
  iconv_t cd = iconv_open(to, from);
  if (cd == reinterpret_cast<iconv_t>(-1)) return false;
  iconv_close(cd);
  return true;
}

}  // namespace travik_test
