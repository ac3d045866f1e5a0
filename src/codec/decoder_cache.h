// The decoder cache (<base dir>/decoder.cfg), for the decoder framework's probes.
#pragma once

#include <travik/config.h>

// The cache loaded by travik_decoder_plugins_init, or null before it and after
// travik_decoder_plugins_destroy.
travik_config *travik_decoder_cache(void);
