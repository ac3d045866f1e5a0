// Drives the text subtitle plugin's parsing over arbitrary bytes in one
// format: character-set decoding, the format's cue parser, the on-screen
// timeline, seeks chosen from the input, and entries made from the result.
// The plugin's parsing source is compiled into each fuzzer.
#pragma once

#include <travik/subtitle.h>

#include <cstdint>
#include <string>
#include <vector>

#include "../plugins/subtitle/text/cues.h"

inline void fuzz_subtitle(travik_text::Format format, const uint8_t *data, size_t size) {
  const std::string bytes(reinterpret_cast<const char *>(data), size);
  std::string text;
  if (!travik_text::to_utf8(bytes, "ISO-8859-1", text)) return;
  travik_text::detect(text);
  std::vector<travik_text::Entry> entries =
      travik_text::make_timeline(travik_text::parse_cues(text, format));
  int64_t previous = INT64_MIN;
  for (const travik_text::Entry &entry : entries) {
    // The timeline is sorted and every entry is a change.
    if (entry.time <= previous) __builtin_trap();
    previous = entry.time;
    std::vector<travik_subtitle_line> lines;
    for (const std::string &line : entry.lines)
      lines.push_back({line.data(), static_cast<int32_t>(line.size())});
    travik_subtitle_entry *made =
        travik_subtitle_entry_create(entry.time, static_cast<int32_t>(lines.size()), lines.data());
    made->release(made);
  }
  for (int64_t at : {INT64_C(0), previous, previous / 2, static_cast<int64_t>(size) * 1000}) {
    if (travik_text::seek_index(entries, at) > entries.size()) __builtin_trap();
  }
}
