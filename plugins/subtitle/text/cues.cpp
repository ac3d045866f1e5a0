// SubRip, WebVTT and SSA/ASS text parsing, and the on-screen timeline.
#include "cues.h"

#include <travik/system.h>

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

namespace travik_text {
namespace {

// Microseconds in the time fields that parsing accepts (about 27 years):
// far beyond any movie, and far from overflowing.
constexpr int64_t kMaxTime = INT64_C(1) << 50;
// Cues shown at once at most. A screen holds a few lines; the bound keeps a
// file of thousands of overlapping cues from costing quadratic time and
// memory. Cues starting while that many are up are not shown.
constexpr size_t kMaxOnScreen = 16;

bool valid_utf8(const std::string &s) {
  size_t i = 0;
  while (i < s.size()) {
    const auto lead = static_cast<uint8_t>(s[i]);
    size_t size = 1;
    if (lead >= 0x80) {
      if (lead >= 0xC2 && lead <= 0xDF) {
        size = 2;
      } else if (lead >= 0xE0 && lead <= 0xEF) {
        size = 3;
      } else if (lead >= 0xF0 && lead <= 0xF4) {
        size = 4;
      } else {
        return false;
      }
      if (i + size > s.size()) return false;
      for (size_t k = 1; k < size; ++k) {
        if ((static_cast<uint8_t>(s[i + k]) & 0xC0) != 0x80) return false;
      }
    }
    i += size;
  }
  return true;
}

void append_utf8(std::string &out, uint32_t code) {
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xC0 | (code >> 6));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    out += static_cast<char>(0xE0 | (code >> 12));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (code >> 18));
    out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  }
}

// UTF-16 after its byte-order mark; a lone surrogate becomes U+FFFD and an
// odd last byte is dropped.
std::string from_utf16(const std::string &data, bool big_endian) {
  std::string out;
  auto unit = [&](size_t i) {
    const auto a = static_cast<uint8_t>(data[i]);
    const auto b = static_cast<uint8_t>(data[i + 1]);
    return static_cast<uint32_t>(big_endian ? a << 8 | b : b << 8 | a);
  };
  for (size_t i = 2; i + 1 < data.size(); i += 2) {
    uint32_t code = unit(i);
    if (code >= 0xD800 && code <= 0xDBFF && i + 3 < data.size()) {
      const uint32_t low = unit(i + 2);
      if (low >= 0xDC00 && low <= 0xDFFF) {
        code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
        i += 2;
      }
    }
    if (code >= 0xD800 && code <= 0xDFFF) code = 0xFFFD;
    append_utf8(out, code);
  }
  return out;
}

// Lines without their terminators (LF, CR LF or a lone CR).
std::vector<std::string> split_lines(const std::string &text) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\n' && text[i] != '\r') continue;
    lines.push_back(text.substr(start, i - start));
    if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ++i;
    start = i + 1;
  }
  if (start < text.size()) lines.push_back(text.substr(start));
  return lines;
}

void trim(std::string &s) {
  size_t begin = s.find_first_not_of(" \t");
  size_t end = s.find_last_not_of(" \t");
  s = begin == std::string::npos ? std::string() : s.substr(begin, end - begin + 1);
}

bool blank(const std::string &s) { return s.find_first_not_of(" \t") == std::string::npos; }

// Reads "[[h:]m:]s[.,frac]" at `p`, at least minutes and seconds; stores
// microseconds and returns the position after it, or null.
const char *parse_time(const char *p, int64_t &time) {
  while (*p == ' ' || *p == '\t') ++p;
  int64_t fields[3];
  int count = 0;
  for (;;) {
    if (*p < '0' || *p > '9') return nullptr;
    int64_t value = 0;
    int digits = 0;
    while (*p >= '0' && *p <= '9') {
      if (++digits > 9) return nullptr;
      value = value * 10 + (*p++ - '0');
    }
    fields[count++] = value;
    if (*p != ':' || count == 3) break;
    ++p;
  }
  if (count < 2) return nullptr;
  int64_t seconds = fields[count - 1] + 60 * fields[count - 2] + (count == 3 ? 3600 * fields[0] : 0);
  int64_t micro = 0;
  if (*p == '.' || *p == ',') {
    ++p;
    if (*p < '0' || *p > '9') return nullptr;
    int64_t scale = 100000;
    while (*p >= '0' && *p <= '9') {
      micro += (*p++ - '0') * scale;
      scale /= 10;
    }
  }
  if (seconds > kMaxTime / 1000000) return nullptr;
  time = seconds * 1000000 + micro;
  return p;
}

// Reads "start --> end" (anything may follow, such as WebVTT settings).
bool parse_arrow(const std::string &line, int64_t &start, int64_t &end) {
  const char *p = parse_time(line.c_str(), start);
  if (!p) return false;
  while (*p == ' ' || *p == '\t') ++p;
  if (std::strncmp(p, "-->", 3) != 0) return false;
  p = parse_time(p + 3, end);
  return p && (*p == '\0' || *p == ' ' || *p == '\t');
}

// Drops "<...>" tags (<i>, </font>, WebVTT's <c.name> and <00:01.000>) and
// "{...}" override blocks such as {\an8}; a "<" or "{" never closed is kept.
std::string strip_tags(const std::string &s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    const char c = s[i];
    const char close = c == '<' ? '>' : c == '{' ? '}' : '\0';
    if (close) {
      size_t end = s.find(close, i + 1);
      const bool tag = c == '{' || (i + 1 < s.size() && (std::isalpha(static_cast<unsigned char>(s[i + 1])) ||
                                                         std::isdigit(static_cast<unsigned char>(s[i + 1])) ||
                                                         s[i + 1] == '/'));
      if (end != std::string::npos && tag) {
        i = end;
        continue;
      }
    }
    out += c;
  }
  return out;
}

// The character references WebVTT text uses for its reserved characters.
std::string decode_entities(const std::string &s) {
  static const struct {
    const char *name;
    const char *text;
  } kEntities[] = {{"&amp;", "&"},  {"&lt;", "<"},  {"&gt;", ">"},   {"&nbsp;", " "},
                   {"&lrm;", ""},   {"&rlm;", ""},  {"&quot;", "\""}, {"&apos;", "'"}};
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    bool replaced = false;
    if (s[i] == '&') {
      for (const auto &entity : kEntities) {
        const size_t length = std::strlen(entity.name);
        if (s.compare(i, length, entity.name) == 0) {
          out += entity.text;
          i += length - 1;
          replaced = true;
          break;
        }
      }
    }
    if (!replaced) out += s[i];
  }
  return out;
}

void add_cue(std::vector<Cue> &cues, int64_t start, int64_t end, std::vector<std::string> lines) {
  lines.erase(std::remove_if(lines.begin(), lines.end(), blank), lines.end());
  if (end <= start || lines.empty()) return;
  cues.push_back({start, end, std::move(lines)});
}

// SubRip and WebVTT: blocks separated by blank lines; in each, the first
// line with a time arrow starts a cue and the lines after it are its text.
// Blocks without a valid arrow (WebVTT's header, NOTE, STYLE) are skipped.
std::vector<Cue> parse_blocks(const std::vector<std::string> &lines, bool vtt) {
  std::vector<Cue> cues;
  size_t i = 0;
  while (i < lines.size()) {
    if (blank(lines[i])) {
      ++i;
      continue;
    }
    size_t end = i;
    while (end < lines.size() && !blank(lines[end])) ++end;
    for (size_t k = i; k < end; ++k) {
      if (lines[k].find("-->") == std::string::npos) continue;
      int64_t start = 0;
      int64_t stop = 0;
      if (parse_arrow(lines[k], start, stop)) {
        std::vector<std::string> text;
        for (size_t t = k + 1; t < end; ++t) {
          std::string line = strip_tags(lines[t]);
          if (vtt) line = decode_entities(line);
          trim(line);
          text.push_back(line);
        }
        add_cue(cues, start, stop, std::move(text));
      }
      break;
    }
    i = end;
  }
  return cues;
}

// SSA/ASS: the "Dialogue:" lines of the [Events] section, fields in the
// order its "Format:" line gives (the standard order without one). Text is
// the last field, commas included; \N and \n break lines, \h is a space.
std::vector<Cue> parse_ass(const std::vector<std::string> &lines) {
  std::vector<Cue> cues;
  bool events = false;
  size_t fields = 10;
  size_t start_field = 1;
  size_t end_field = 2;
  for (const std::string &raw : lines) {
    std::string line = raw;
    trim(line);
    if (!line.empty() && line[0] == '[') {
      events = strcasecmp(line.c_str(), "[Events]") == 0;
      continue;
    }
    if (!events) continue;
    if (strncasecmp(line.c_str(), "Format:", 7) == 0) {
      std::vector<std::string> names;
      size_t p = 7;
      while (p <= line.size()) {
        size_t comma = line.find(',', p);
        if (comma == std::string::npos) comma = line.size();
        std::string name = line.substr(p, comma - p);
        trim(name);
        names.push_back(name);
        p = comma + 1;
      }
      auto find = [&](const char *name) {
        for (size_t k = 0; k < names.size(); ++k) {
          if (strcasecmp(names[k].c_str(), name) == 0) return k;
        }
        return names.size();
      };
      // A Format line that names neither Start, End nor Text as expected
      // leaves the standard order.
      if (find("Text") + 1 == names.size() && find("Start") < names.size() &&
          find("End") < names.size()) {
        fields = names.size();
        start_field = find("Start");
        end_field = find("End");
      }
      continue;
    }
    if (strncasecmp(line.c_str(), "Dialogue:", 9) != 0) continue;
    std::vector<std::string> values;
    size_t p = 9;
    while (values.size() + 1 < fields) {
      size_t comma = line.find(',', p);
      if (comma == std::string::npos) break;
      values.push_back(line.substr(p, comma - p));
      p = comma + 1;
    }
    if (values.size() + 1 < fields) continue;
    values.push_back(line.substr(p));
    int64_t start = 0;
    int64_t stop = 0;
    const char *a = parse_time(values[start_field].c_str(), start);
    const char *b = parse_time(values[end_field].c_str(), stop);
    if (!a || !b) continue;
    std::string text = strip_tags(values.back());
    std::vector<std::string> text_lines(1);
    for (size_t k = 0; k < text.size(); ++k) {
      if (text[k] == '\\' && k + 1 < text.size() &&
          (text[k + 1] == 'N' || text[k + 1] == 'n' || text[k + 1] == 'h')) {
        if (text[k + 1] == 'h') {
          text_lines.back() += ' ';
        } else {
          text_lines.emplace_back();
        }
        ++k;
        continue;
      }
      text_lines.back() += text[k];
    }
    for (std::string &l : text_lines) trim(l);
    add_cue(cues, start, stop, std::move(text_lines));
  }
  return cues;
}

}  // namespace

bool to_utf8(const std::string &data, const char *local_charset, std::string &text) {
  const auto byte = [&](size_t i) { return i < data.size() ? static_cast<uint8_t>(data[i]) : 0u; };
  if (byte(0) == 0xFF && byte(1) == 0xFE) {
    text = from_utf16(data, false);
  } else if (byte(0) == 0xFE && byte(1) == 0xFF) {
    text = from_utf16(data, true);
  } else if (byte(0) == 0xEF && byte(1) == 0xBB && byte(2) == 0xBF) {
    text = data.substr(3);
  } else if (valid_utf8(data)) {
    text = data;
  } else {
    char *converted = nullptr;
    int32_t length = 0;
    if (data.size() < INT32_MAX && local_charset &&
        travik_utf8_encode(local_charset, data.data(), static_cast<int32_t>(data.size()),
                           &converted, &length)) {
      text.assign(converted, static_cast<size_t>(length));
      std::free(converted);
    } else {
      text = data;
    }
  }
  return text.find('\0') == std::string::npos;
}

Format detect(const std::string &text) {
  size_t p = text.find_first_not_of(" \t\r\n");
  if (p != std::string::npos && text.compare(p, 6, "WEBVTT") == 0) return Format::kWebVtt;
  for (const std::string &line : split_lines(text)) {
    std::string l = line;
    trim(l);
    if (strcasecmp(l.c_str(), "[Script Info]") == 0 || strcasecmp(l.c_str(), "[Events]") == 0)
      return Format::kAss;
    int64_t start = 0;
    int64_t end = 0;
    if (l.find("-->") != std::string::npos && parse_arrow(l, start, end)) return Format::kSubRip;
  }
  return Format::kNone;
}

std::vector<Cue> parse_cues(const std::string &text, Format format) {
  std::vector<std::string> lines = split_lines(text);
  switch (format) {
    case Format::kSubRip:
      return parse_blocks(lines, false);
    case Format::kWebVtt:
      return parse_blocks(lines, true);
    case Format::kAss:
      return parse_ass(lines);
    case Format::kNone:
      break;
  }
  return {};
}

std::vector<Entry> make_timeline(std::vector<Cue> cues) {
  std::stable_sort(cues.begin(), cues.end(),
                   [](const Cue &a, const Cue &b) { return a.start < b.start; });
  std::vector<int64_t> times;
  for (const Cue &cue : cues) {
    times.push_back(cue.start);
    times.push_back(cue.end);
  }
  std::sort(times.begin(), times.end());
  times.erase(std::unique(times.begin(), times.end()), times.end());

  // Sweep the change times, keeping the cues on screen in start order.
  std::vector<Entry> entries;
  std::vector<size_t> active;
  size_t next = 0;
  for (int64_t t : times) {
    active.erase(std::remove_if(active.begin(), active.end(),
                                [&](size_t i) { return cues[i].end <= t; }),
                 active.end());
    for (; next < cues.size() && cues[next].start <= t; ++next) {
      if (active.size() < kMaxOnScreen) active.push_back(next);
    }
    Entry entry{t, {}};
    for (size_t i : active) {
      entry.lines.insert(entry.lines.end(), cues[i].lines.begin(), cues[i].lines.end());
    }
    if (entries.empty() ? entry.lines.empty() : entry.lines == entries.back().lines) continue;
    entries.push_back(std::move(entry));
  }
  return entries;
}

size_t seek_index(const std::vector<Entry> &entries, int64_t time) {
  auto after = std::upper_bound(entries.begin(), entries.end(), time,
                                [](int64_t t, const Entry &e) { return t < e.time; });
  if (after == entries.begin()) return 0;
  auto on_screen = after - 1;
  // In a gap the next cue comes first: the blank entry has nothing to show.
  if (on_screen->lines.empty()) return static_cast<size_t>(after - entries.begin());
  return static_cast<size_t>(on_screen - entries.begin());
}

}  // namespace travik_text
