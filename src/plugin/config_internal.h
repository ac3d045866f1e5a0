// The configuration record, for the plugin manager's cache code, which walks
// sections in file order and checks whether a cache needs saving.
#pragma once

#include <travik/config.h>
#include <travik/list.h>

struct travik_config {
  char *path;            // owned, may be null
  travik_list sections;  // of travik_config_section, in file order
  int32_t modified;      // 1 after a change, 0 after a load or a successful save
};

struct travik_config_section {
  char *name;            // owned, never null
  travik_list entries;   // of travik_config_entry, in file order
};

struct travik_config_entry {
  char *key;    // owned
  char *value;  // owned, may be null
};

// The value of the first entry named `key` in `section` itself (not the
// first section of its name), or `fallback`.
const char *travik_config_section_read(travik_config_section *section, const char *key,
                                       const char *fallback);
