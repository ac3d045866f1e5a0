// Choosing an audio- or video-output plugin by driver name or probe score.
#pragma once

#include <travik/plugin.h>

// Walks the plugin files of `kind_name` (kind `kind`). With the name "auto",
// keeps the plugin whose driver scores strictly highest above 0 by `score`
// (the first of equals wins); with any other name, the first plugin whose
// driver is called `name`. Every other candidate is unloaded at once.
// Output driver records begin with their name. Returns the plugin or null.
travik_plugin *travik_output_load_driver(const char *kind_name, int32_t kind, const char *name,
                                         int32_t (*score)(void *table));
