// The fake font driver (fake_font.h) as a font plugin for the ".fnt" and
// ".fake" extensions.
#include "fake_font.h"

TRAVIK_PLUGIN_EXPORT void travik_font_fake(void) {
  travik_plugin_register(TRAVIK_PLUGIN_FONT, TRAVIK_PLUGIN_VERSION,
                         const_cast<travik_font_driver *>(fake_font::driver()));
}
