// The demuxer cache (<base dir>/demuxer.cfg), for the demuxer framework's probes.
#pragma once

#include <travik/config.h>

// The cache loaded by travik_demuxer_plugins_init, or null before it and after
// travik_demuxer_plugins_destroy.
travik_config *travik_demuxer_cache(void);
