// A demuxer plugin that reports what its probe saw: the position it found
// the input at and the first four bytes it read, in the environment
// variable TRAVIK_TEST_PROBE_<who> of the (single, test) process.
#include <travik/demuxer.h>
#include <travik/io.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

int32_t probe(travik_io *input, int32_t) {
  char seen[64];
  if (!input->backend) {
    // A scheme no back-end serves: the driver would do its own input.
    std::snprintf(seen, sizeof seen, "unopened %s", input->url.scheme);
    setenv("TRAVIK_TEST_PROBE_" WHO, seen, 1);
    return 30;
  }
  char bytes[5] = {0};
  const int32_t position = travik_io_pos(input);
  const int32_t got = travik_io_read(input, bytes, 4);
  std::snprintf(seen, sizeof seen, "%d %d %s", position, got, bytes);
  setenv("TRAVIK_TEST_PROBE_" WHO, seen, 1);
  if (std::strcmp(bytes, "ZERO") == 0) return 0;
#ifdef PLUGIN_FIRST
  return 10;
#else
  return 20;
#endif
}

void *open(travik_demuxer *demuxer, int32_t) {
  // Where the framework leaves the input for the chosen driver.
  setenv("TRAVIK_TEST_OPEN_POSITION", std::to_string(travik_io_pos(demuxer->input)).c_str(), 1);
  // A driver may hand back no state at all and report failure later.
  if (std::getenv("TRAVIK_TEST_OPEN_NULL")) return nullptr;
  return demuxer;
}
void close(void *) {}
int32_t parseheader(void *) { return 0; }
int32_t parse(void *, travik_packet **) { return TRAVIK_DEMUXER_END; }
int32_t seek(void *, int64_t, int32_t) { return 0; }

const travik_demuxer_driver drivers[] = {
    {"probe test " WHO, "tst,noio", probe, open, close, parseheader, parse, seek, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
};

}  // namespace

TRAVIK_PLUGIN_EXPORT void ENTRY(void) {
  travik_plugin_register(TRAVIK_PLUGIN_DEMUXER, TRAVIK_PLUGIN_VERSION,
                         const_cast<travik_demuxer_driver *>(drivers));
}
