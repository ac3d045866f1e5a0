// Subtitle sources: the choice of a driver by content and the forwarding of
// its operations.
#include <travik/subtitle.h>

#include <cstdlib>
#include <cstring>

#include "overlay/subtitle_cache.h"

namespace {

// Every candidate is driver 0 of its plugin (see travik_subtitle_create).
int32_t score_driver(void *drivers, int32_t index, void *user) {
  auto *table = static_cast<const travik_subtitle_driver *>(drivers);
  return table[index].probe(static_cast<const char *>(user));
}

void release_entry(travik_subtitle_entry *entry) { std::free(entry); }

}  // namespace

extern "C" {

travik_subtitle_entry *travik_subtitle_entry_create(int64_t time, int32_t count,
                                                    const travik_subtitle_line *lines) {
  if (count < 0) count = 0;
  size_t size = sizeof(travik_subtitle_entry) + static_cast<size_t>(count) * sizeof(travik_subtitle_line);
  for (int32_t i = 0; i < count; ++i) size += static_cast<size_t>(lines[i].length) + 1;
  auto *entry = static_cast<travik_subtitle_entry *>(std::malloc(size));
  auto *copy = reinterpret_cast<travik_subtitle_line *>(entry + 1);
  char *text = reinterpret_cast<char *>(copy + count);
  entry->time = time;
  entry->count = count;
  entry->lines = count ? copy : nullptr;
  entry->release = release_entry;
  for (int32_t i = 0; i < count; ++i) {
    const auto length = static_cast<size_t>(lines[i].length);
    std::memcpy(text, lines[i].text, length);
    text[length] = '\0';
    copy[i].text = text;
    copy[i].length = lines[i].length;
    text += length + 1;
  }
  return entry;
}

travik_subtitle *travik_subtitle_create(const char *source, const travik_subtitle_driver *driver) {
  auto *subtitle = static_cast<travik_subtitle *>(std::calloc(1, sizeof(travik_subtitle)));
  if (!driver) {
    // An empty key and match string make every plugin with a driver a
    // candidate with its first driver: subtitle drivers are chosen by what
    // they find at or beside the source, not by the movie's extension.
    travik_plugin_probe probe;
    probe.kind_name = "subtitle";
    probe.kind = TRAVIK_PLUGIN_SUBTITLE;
    probe.version = TRAVIK_PLUGIN_VERSION;
    probe.config = travik_subtitle_cache();
    probe.key = "";
    probe.match = "";
    probe.score = score_driver;
    probe.user = const_cast<char *>(source);
    int32_t index = 0;
    auto *drivers = static_cast<const travik_subtitle_driver *>(
        travik_plugin_probeconfig(&probe, &subtitle->plugin, &index));
    if (!drivers) {
      if (subtitle->plugin) travik_plugin_destroy(subtitle->plugin);
      std::free(subtitle);
      return nullptr;
    }
    driver = &drivers[index];
  }
  subtitle->driver = driver;
  subtitle->state = driver->open(subtitle, source);
  if (!subtitle->state) {
    if (subtitle->plugin) travik_plugin_destroy(subtitle->plugin);
    std::free(subtitle);
    return nullptr;
  }
  return subtitle;
}

void travik_subtitle_destroy(travik_subtitle *subtitle) {
  if (subtitle->driver) subtitle->driver->close(subtitle->state);
  if (subtitle->plugin) travik_plugin_destroy(subtitle->plugin);
  std::free(subtitle);
}

int32_t travik_subtitle_getlangcount(travik_subtitle *subtitle) {
  return subtitle->driver->getlangcount(subtitle->state);
}

const char *travik_subtitle_getlangname(travik_subtitle *subtitle, int32_t index) {
  return subtitle->driver->getlangname(subtitle->state, index);
}

int32_t travik_subtitle_setlang(travik_subtitle *subtitle, int32_t index) {
  return subtitle->driver->setlang(subtitle->state, index);
}

int32_t travik_subtitle_getlangindex(travik_subtitle *subtitle) {
  return subtitle->driver->getlangindex(subtitle->state);
}

int32_t travik_subtitle_parse(travik_subtitle *subtitle, void **item) {
  return subtitle->driver->parse(subtitle->state, item);
}

int32_t travik_subtitle_seek(travik_subtitle *subtitle, int32_t position) {
  // Milliseconds to microseconds as an unsigned 32 x 32-bit product.
  uint64_t microseconds = static_cast<uint64_t>(static_cast<uint32_t>(position)) * 1000u;
  return subtitle->driver->seek(subtitle->state, static_cast<int64_t>(microseconds));
}

}  // extern "C"
