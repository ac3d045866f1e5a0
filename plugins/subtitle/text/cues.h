// Subtitle text in memory: character-set decoding, the SubRip, WebVTT and
// SSA/ASS parsers, and the timeline of what is on screen when.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace travik_text {

enum class Format { kNone, kSubRip, kWebVtt, kAss };

// One timed piece of text, markup removed; times in microseconds.
struct Cue {
  int64_t start;
  int64_t end;
  std::vector<std::string> lines;
};

// What the screen shows from `time` on until the next entry; no lines
// means nothing is shown.
struct Entry {
  int64_t time;
  std::vector<std::string> lines;
};

// Turns a file's bytes into UTF-8: a UTF-8 byte-order mark is dropped,
// UTF-16 with a byte-order mark is decoded, valid UTF-8 is kept, and any
// other text is converted from `local_charset` (kept as it is when that
// fails). Returns false for data that is not text (holds NUL bytes).
bool to_utf8(const std::string &data, const char *local_charset, std::string &text);

// The format of UTF-8 text, told by its content.
Format detect(const std::string &text);

// The well-formed cues of `text` in `format`, in file order; malformed
// ones are skipped.
std::vector<Cue> parse_cues(const std::string &text, Format format);

// The entries that show `cues`, sorted by time: one at each time the text
// on screen changes, overlapping cues shown together (earlier-starting
// first, at most 16 at once) and an entry without lines where a gap begins.
std::vector<Entry> make_timeline(std::vector<Cue> cues);

// The index of the entry that the next parse should give after a seek to
// `time`: the one on screen then, or else the next one.
size_t seek_index(const std::vector<Entry> &entries, int64_t time);

}  // namespace travik_text
