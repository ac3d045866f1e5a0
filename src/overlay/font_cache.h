// The font cache (<base dir>/font.cfg), for the font framework's probes.
#pragma once

#include <travik/config.h>

// The cache loaded by travik_font_plugins_init, or null before it and after
// travik_font_plugins_destroy.
travik_config *travik_font_cache(void);
