// Choosing a driver: the cache names the plugin files whose drivers claim a
// match string; each such file is loaded and scored, the best one is kept.
#include <travik/decoder.h>
#include <travik/demuxer.h>
#include <travik/font.h>
#include <travik/plugin.h>
#include <travik/subtitle.h>

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "plugin/config_internal.h"
#include "plugin/plugin_internal.h"

namespace {

template <typename Driver>
int32_t count_records(const void *drivers) {
  const Driver *table = static_cast<const Driver *>(drivers);
  int32_t count = 0;
  while (table[count].description) ++count;
  return count;
}

// "Count" as a decimal integer; text that is not a number gives 0, and
// values beyond 32 bits are clamped.
int32_t parse_count(const char *text) {
  long value = std::strtol(text, nullptr, 10);
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(value);
}

std::string indexed_key(const char *key, int32_t index) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "[%d]", static_cast<int>(index));
  return std::string(key) + buffer;
}

// The highest i for which `section` holds the key "<key>[i]", or -1.
int32_t highest_index(travik_config_section *section, const char *key) {
  int32_t highest = -1;
  size_t length = std::strlen(key);
  for (void *item = section->entries.first; item; item = travik_listitem_getnext(item)) {
    const char *name = static_cast<travik_config_entry *>(item)->key;
    if (std::strncmp(name, key, length) != 0 || name[length] != '[') continue;
    long index = std::strtol(name + length + 1, nullptr, 10);
    if (index < 0 || index > INT32_MAX) continue;
    if (indexed_key(key, static_cast<int32_t>(index)) != name) continue;
    if (index > highest) highest = static_cast<int32_t>(index);
  }
  return highest;
}

// `value` lists `match` as a whole element: the first occurrence of it
// starts the value or follows a ",", and ends the value or is followed by
// "," or a newline. Only the first occurrence counts, so "xavi,avi" does not
// list "avi".
bool lists(const char *value, const std::string &match) {
  const char *found = std::strstr(value, match.c_str());
  if (!found) return false;
  if (found != value && found[-1] != ',') return false;
  char after = found[match.size()];
  return after == '\0' || after == ',' || after == '\n';
}

struct Candidate {
  std::string section;
  int32_t index;
};

}  // namespace

int32_t travik_plugin_table_length(const void *drivers, int32_t kind) {
  if (!drivers) return 0;
  switch (kind) {
    case TRAVIK_PLUGIN_DEMUXER:
      return count_records<travik_demuxer_driver>(drivers);
    case TRAVIK_PLUGIN_DECODER:
      return count_records<travik_decoder_driver>(drivers);
    case TRAVIK_PLUGIN_SUBTITLE:
      return count_records<travik_subtitle_driver>(drivers);
    case TRAVIK_PLUGIN_FONT:
      return count_records<travik_font_driver>(drivers);
    default:
      return -1;
  }
}

extern "C" {

void *travik_plugin_probeconfig_by_section_name(travik_plugin_probe *probe,
                                                travik_plugin **plugin, int32_t *index,
                                                const char *section_name) {
  if (!probe || !probe->config || !probe->kind_name || !probe->score) return nullptr;
  const char *key = probe->key ? probe->key : "";
  std::string match = probe->match ? probe->match : "";
  for (char &c : match) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));

  // One candidate per section: its first driver that lists the match.
  std::vector<Candidate> candidates;
  for (void *item = probe->config->sections.first; item; item = travik_listitem_getnext(item)) {
    auto *section = static_cast<travik_config_section *>(item);
    if (section_name && strcasecmp(section_name, section->name) != 0) continue;
    int32_t count = parse_count(travik_config_section_read(section, "Count", ""));
    if (count <= 0) continue;
    // Keys past the highest one present all read as "", which can list only
    // an empty match; stopping there saves a long walk over a bogus Count.
    int32_t last = match.empty() ? count - 1 : std::min(count - 1, highest_index(section, key));
    for (int32_t i = 0; i <= last; ++i) {
      std::string name = indexed_key(key, i);
      if (lists(travik_config_section_read(section, name.c_str(), ""), match)) {
        candidates.push_back({section->name, i});
        break;
      }
    }
  }

  // Ties keep the earlier candidate.
  travik_plugin *best = nullptr;
  int32_t best_index = 0;
  int32_t best_score = 0;
  for (const Candidate &candidate : candidates) {
    std::string name = std::string(probe->kind_name) + "/" + candidate.section;
    travik_plugin *loaded = travik_plugin_create(name.c_str(), probe->kind, probe->version);
    if (!loaded) continue;
    // A cache can be stale or written by hand: a plugin without a table, or
    // one with fewer drivers than the cache says, is passed over.
    int32_t length = travik_plugin_table_length(loaded->drivers, probe->kind);
    if (!loaded->drivers || (length >= 0 && candidate.index >= length)) {
      travik_plugin_destroy(loaded);
      continue;
    }
    int32_t score = probe->score(loaded->drivers, candidate.index, probe->user);
    if (score > best_score) {
      if (best) travik_plugin_destroy(best);
      best = loaded;
      best_index = candidate.index;
      best_score = score;
    } else {
      travik_plugin_destroy(loaded);
    }
  }
  if (!best) return nullptr;
  if (plugin) *plugin = best;
  if (index) *index = best_index;
  return best->drivers;
}

void *travik_plugin_probeconfig(travik_plugin_probe *probe, travik_plugin **plugin,
                                int32_t *index) {
  return travik_plugin_probeconfig_by_section_name(probe, plugin, index, nullptr);
}

}  // extern "C"
