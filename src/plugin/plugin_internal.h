// Helpers shared by the plugin manager and the per-kind cache code.
#pragma once

#include <travik/config.h>
#include <travik/plugin.h>

#include <cstdio>

// Number of driver records before the terminating one in a registered table
// of a kind with a cache (demuxer, decoder, subtitle, font); -1 for other
// kinds, whose record layout the manager does not know.
int32_t travik_plugin_table_length(const void *drivers, int32_t kind);

// Writes "Description[i]" for every driver of `drivers` (an array of
// `Driver`, ended by a null description) into `section`, calls
// `more(driver, i)` for the kind's own keys, and returns the driver count.
template <typename Driver, typename More>
int32_t travik_plugin_describe_table(void *drivers, const char *section, travik_config *config,
                                     More more) {
  if (!drivers) return 0;
  const Driver *table = static_cast<const Driver *>(drivers);
  int32_t count = 0;
  for (; table[count].description; ++count) {
    char key[48];
    std::snprintf(key, sizeof key, "Description[%d]", static_cast<int>(count));
    travik_config_write(config, section, key, table[count].description);
    more(table[count], count);
  }
  return count;
}

// The describe callback of the kinds whose drivers list file extensions
// (demuxer, subtitle, font): "Description[i]" and "Extensions[i]".
template <typename Driver>
int32_t travik_plugin_describe_extensions(void *drivers, const char *section,
                                          travik_config *config) {
  return travik_plugin_describe_table<Driver>(
      drivers, section, config, [&](const Driver &driver, int32_t i) {
        char key[48];
        std::snprintf(key, sizeof key, "Extensions[%d]", static_cast<int>(i));
        travik_config_write(config, section, key, driver.extensions);
      });
}
