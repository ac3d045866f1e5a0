// Feeds arbitrary bytes to the INI loader through a file, then reads, edits
// and saves what it made of them.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include <travik/config.h>

namespace {

std::string directory;

void remove_scratch() {
  std::error_code error;
  std::filesystem::remove_all(directory, error);
}

// A scratch directory for this fuzzing process, removed when it exits.
std::string scratch(const char *suffix) {
  if (directory.empty()) {
    char name[] = "/tmp/travik-fuzz-config-XXXXXX";
    if (!mkdtemp(name)) abort();
    directory = name;
    atexit(remove_scratch);
  }
  return directory + "/" + suffix;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string input = scratch("input.cfg");
  FILE *file = std::fopen(input.c_str(), "wb");
  if (!file) return 0;
  std::fwrite(data, 1, size, file);
  std::fclose(file);

  travik_config *config = travik_config_create(input.c_str());
  // Look up what a cache reader would, and the first line's text as a name.
  std::string first(reinterpret_cast<const char *>(data), size < 64 ? size : 64);
  first = first.substr(0, first.find('\n'));
  travik_config_read(config, first.c_str(), "Count", "");
  travik_config_read(config, "libdemuxer_x.so", first.c_str(), nullptr);
  travik_config_write(config, first.c_str(), "Count", "1");
  travik_config_removeentry(config, first.c_str(), "Extensions[0]");

  // Saving and loading back gives the same document again.
  std::string output = scratch("output.cfg");
  if (travik_config_save(config, output.c_str()) == 1) {
    travik_config *again = travik_config_create(output.c_str());
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
  unlink(output.c_str());
  return 0;
}
