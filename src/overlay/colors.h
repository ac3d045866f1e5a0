// The colour-name table read by travik_string2rgb.
#pragma once

#include <cstdint>

struct travik_color_name {
  uint32_t value;  // 0xRRGGBB
  const char *name;
};

// The standard X11 colour names in their usual order, ended by a null name.
extern const travik_color_name travik_color_names[];
