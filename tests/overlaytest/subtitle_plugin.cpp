// A subtitle plugin for test_subtitle. Its first driver scores SCORE for
// any source except those containing "refuse" (0), records each source it
// probes in the environment variable TRAVIK_TEST_PROBED_<WHO>, and fails to
// open sources containing "fail". With SECOND_ONLY the first driver scores
// 0 and a second driver, which scores 100, would accept every source.
#include <travik/subtitle.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

int32_t probe(const char *source) {
  setenv("TRAVIK_TEST_PROBED_" WHO, source, 1);
#ifdef SECOND_ONLY
  return 0;
#else
  return std::strstr(source, "refuse") ? 0 : SCORE;
#endif
}

int32_t probe_any(const char *) { return 100; }

void *open(travik_subtitle *, const char *source) {
  if (std::strstr(source, "fail")) return nullptr;
  return new std::string(WHO);
}
void close(void *state) { delete static_cast<std::string *>(state); }
int32_t getlangcount(void *) { return 1; }
const char *getlangname(void *state, int32_t) { return static_cast<std::string *>(state)->c_str(); }
int32_t setlang(void *, int32_t) { return 0; }
int32_t parse(void *, void **) { return 1; }
int32_t seek(void *, int64_t) { return 0; }
int32_t getlangindex(void *) { return 0; }

const travik_subtitle_driver drivers[] = {
    {"subtitle test " WHO, "tst", probe, open, close, getlangcount, getlangname, setlang, parse,
     seek, getlangindex},
    {"subtitle test " WHO " (second)", "tst", probe_any, open, close, getlangcount, getlangname,
     setlang, parse, seek, getlangindex},
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
     nullptr},
};

}  // namespace

TRAVIK_PLUGIN_EXPORT void ENTRY(void) {
  travik_plugin_register(TRAVIK_PLUGIN_SUBTITLE, TRAVIK_PLUGIN_VERSION,
                         const_cast<travik_subtitle_driver *>(drivers));
}
