// Feeds arbitrary bytes to the INI loader, then reads, edits and saves what
// it made of them and loads the saved document back.
//
// The loader reads files only. The input goes to one memory-backed file
// made once per process (memfd), loaded through its /proc/self/fd path; the
// saved document goes to a scratch directory in /dev/shm, since saving
// renames a temporary file beside its target.
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include <travik/config.h>

namespace {

struct Scratch {
  std::string input;   // the memfd's path
  std::string output;  // where the document is saved
  int fd = -1;
};

std::string directory;

void remove_scratch() {
  std::error_code error;
  std::filesystem::remove_all(directory, error);
}

const Scratch &scratch() {
  static Scratch files;
  if (files.fd < 0) {
    files.fd = memfd_create("travik-fuzz-config", 0);
    if (files.fd < 0) abort();
    files.input = "/proc/self/fd/" + std::to_string(files.fd);
    char name[] = "/dev/shm/travik-fuzz-config-XXXXXX";
    char fallback[] = "/tmp/travik-fuzz-config-XXXXXX";
    const char *made = mkdtemp(name);
    if (!made) made = mkdtemp(fallback);
    if (!made) abort();
    directory = made;
    atexit(remove_scratch);
    files.output = directory + "/output.cfg";
  }
  return files;
}

}  // namespace

// Saving ends with sync(), which flushes every file system of the machine:
// it takes milliseconds on a busy one and has no effect on what is saved.
// This program's definition takes the place of the C library's for the
// library too, so that the fuzzer runs at the speed of the parser.
extern "C" void sync(void) {}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const Scratch &files = scratch();
  if (ftruncate(files.fd, 0) != 0) abort();
  if (pwrite(files.fd, data, size, 0) != static_cast<ssize_t>(size)) abort();

  travik_config *config = travik_config_create(files.input.c_str());
  // Look up what a cache reader would, and the first line's text as a name.
  std::string first(reinterpret_cast<const char *>(data), size < 64 ? size : 64);
  first = first.substr(0, first.find('\n'));
  travik_config_read(config, first.c_str(), "Count", "");
  travik_config_read(config, "libdemuxer_x.so", first.c_str(), nullptr);
  travik_config_write(config, first.c_str(), "Count", "1");
  travik_config_removeentry(config, first.c_str(), "Extensions[0]");

  // Saving and loading back gives the same document again.
  if (travik_config_save(config, files.output.c_str()) == 1) {
    travik_config *again = travik_config_create(files.output.c_str());
    const char *before = travik_config_read(config, first.c_str(), "Count", nullptr);
    const char *after = travik_config_read(again, first.c_str(), "Count", nullptr);
    // A name with "]" or a key with "=" cannot survive the round trip, and
    // blanks at either end of a name change meaning when read back.
    bool plain = first.find_first_of("]=\r\n\t\v\f #[") == std::string::npos && !first.empty();
    if (plain && before && (!after || std::string(before) != after)) abort();
    travik_config_destroy(again);
  }
  travik_config_removesection(config, first.c_str());
  travik_config_clear(config);
  travik_config_destroy(config);
  unlink(files.output.c_str());
  return 0;
}
