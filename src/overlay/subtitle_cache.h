// The subtitle cache (<base dir>/subtitle.cfg), for the subtitle framework's probes.
#pragma once

#include <travik/config.h>

// The cache loaded by travik_subtitle_plugins_init, or null before it and after
// travik_subtitle_plugins_destroy.
travik_config *travik_subtitle_cache(void);
