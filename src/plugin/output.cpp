// Choosing an output plugin: by driver name (score 100 ends the search, so
// the first match wins) or by probe score with "auto".
#include "plugin/output.h"

#include <cstring>

namespace {

struct Search {
  const char *name;
  bool automatic;
  int32_t kind;
  int32_t (*score)(void *table);
  travik_plugin *best;
  int32_t best_score;
};

const char *driver_name(void *table) { return *static_cast<const char *const *>(table); }

int32_t consider_candidate(const char *path, void *user) {
  auto *search = static_cast<Search *>(user);
  // A named driver already found: later candidates are not wanted.
  if (!search->automatic && search->best_score == 100) return 1;
  travik_plugin *plugin = travik_plugin_create(path, search->kind, TRAVIK_PLUGIN_VERSION);
  if (!plugin) return 0;
  void *table = plugin->drivers;
  if (!table || !driver_name(table)) {
    travik_plugin_destroy(plugin);
    return 0;
  }
  if (search->automatic) {
    int32_t score = search->score(table);
    if (score > search->best_score) {
      if (search->best) travik_plugin_destroy(search->best);
      search->best = plugin;
      search->best_score = score;
    } else {
      travik_plugin_destroy(plugin);
    }
    return 0;
  }
  if (std::strcmp(driver_name(table), search->name) == 0) {
    search->best = plugin;
    search->best_score = 100;
    return 1;
  }
  travik_plugin_destroy(plugin);
  return 0;
}

}  // namespace

travik_plugin *travik_output_load_driver(const char *kind_name, int32_t kind, const char *name,
                                         int32_t (*score)(void *table)) {
  if (!name) return nullptr;
  Search search{name, std::strcmp(name, "auto") == 0, kind, score, nullptr, 0};
  travik_plugin_parsedir(kind_name, consider_candidate, &search);
  return search.best;
}
