// travik-play --plugins: every plugin file installed for each kind and the
// drivers it offers.
#pragma once

#include <stdio.h>

namespace play {

// Prints the list to `out`; the library must be started (travik_init).
void list_plugins(FILE *out);

}  // namespace play
