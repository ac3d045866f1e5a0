// Helpers shared by the test programs.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>

namespace travik_test {

// Captures everything written to file descriptor 2 while it lives.
class StderrCapture {
 public:
  StderrCapture();
  ~StderrCapture();
  // Stops capturing (if still capturing) and returns what was written.
  std::string text();

 private:
  int saved_ = -1;
  std::string path_;
  std::string text_;
};

// Same for file descriptor 1.
class StdoutCapture {
 public:
  StdoutCapture();
  ~StdoutCapture();
  std::string text();

 private:
  int saved_ = -1;
  std::string path_;
  std::string text_;
};

// Runs `body` in a forked child and returns what it returned. Used for
// process-wide state that is computed once (directories, environment).
std::string in_child(const std::function<std::string()> &body);

// A fresh directory under /tmp, removed with its contents on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string &path() const { return path_; }
  std::string file(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Starts the library once for a whole test program: HOME in a fresh
// temporary directory (so the plugin caches start empty), the plugins of
// `plugins_dir`, no language settings. Register it with
// ::testing::AddGlobalTestEnvironment.
class LibraryEnvironment : public ::testing::Environment {
 public:
  explicit LibraryEnvironment(std::string plugins_dir) : plugins_dir_(std::move(plugins_dir)) {}
  void SetUp() override;
  void TearDown() override;
  // The temporary HOME, while the environment is set up.
  static const std::string &home();

 private:
  std::string plugins_dir_;
  TempDir *home_ = nullptr;
};

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &content);

// Milliseconds on a monotonic clock.
long long now_ms();

// Whether this system's iconv converts between the two character sets.
// Cross sysroots may ship no conversion modules beyond UTF-8.
bool iconv_converts(const char *from, const char *to);

}  // namespace travik_test

// Skips the current test when iconv cannot convert between the two sets.
#define TRAVIK_SKIP_WITHOUT_ICONV(from, to)                                    \
  do {                                                                         \
    if (!travik_test::iconv_converts(from, to))                                \
      GTEST_SKIP() << "iconv cannot convert " << (from) << " to " << (to);     \
  } while (0)
