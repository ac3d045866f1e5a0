// Subtitle driver for text subtitle files: SubRip (.srt), WebVTT (.vtt) and
// SSA/ASS (.ssa, .ass; dialogue text only), told apart by content. The
// source is a subtitle file's own path or "file" URL, or a movie's, beside
// which every <movie>.<ext> and <movie>.<lang>.<ext> is one language.
#include <travik/subtitle.h>
#include <travik/system.h>
#include <travik/url.h>

#include <dirent.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cues.h"

namespace {

using travik_text::Entry;

// Larger files are not subtitles (and would only be read into memory).
constexpr long kMaxFileSize = 16L << 20;
constexpr const char *kExtensions[] = {"srt", "vtt", "ssa", "ass"};

struct Language {
  std::string name;
  std::vector<Entry> entries;
};

struct TextSubtitle {
  std::vector<Language> languages;
  size_t language = 0;
  size_t next = 0;       // index of the entry the next parse gives
  int64_t shown = 0;     // time of the last entry given, kept across setlang
};

bool subtitle_extension(const std::string &extension) {
  for (const char *known : kExtensions) {
    if (strcasecmp(extension.c_str(), known) == 0) return true;
  }
  return false;
}

std::string lower(std::string s) {
  for (char &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// The local paths a plain file name or "file" URL may mean: the URL's path
// as the library's file back-end opens it (for "file:///a/b" that is
// "a/b", relative), then, for the URL forms, the same path made absolute,
// which is what such a URL is usually meant to say. None for other schemes.
std::vector<std::string> local_paths(const char *source) {
  std::vector<std::string> paths;
  if (!source || !*source) return paths;
  travik_url url;
  travik_url_init(&url, source);
  if (url.scheme && url.path && *url.path && strcasecmp(url.scheme, "file") == 0) {
    paths.emplace_back(url.path);
    if (url.host && url.path[0] != '/') paths.push_back(std::string("/") + url.path);
  }
  travik_url_destroy(&url);
  return paths;
}

bool read_file(const std::string &path, std::string &data) {
  FILE *file = std::fopen(path.c_str(), "rb");
  if (!file) return false;
  struct stat info;
  bool ok = fstat(fileno(file), &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0 &&
            info.st_size <= kMaxFileSize;
  if (ok) {
    data.resize(static_cast<size_t>(info.st_size));
    ok = std::fread(&data[0], 1, data.size(), file) == data.size();
  }
  std::fclose(file);
  return ok;
}

// The timeline of one subtitle file; empty when it holds no usable cue.
std::vector<Entry> load(const std::string &path) {
  std::string data;
  std::string text;
  if (!read_file(path, data) || !travik_text::to_utf8(data, travik_charset(), text)) return {};
  return travik_text::make_timeline(travik_text::parse_cues(text, travik_text::detect(text)));
}

// The languages at `path`: the file itself when it has a subtitle
// extension, else the subtitle files beside the movie, sorted by name.
std::vector<Language> find_languages(const std::string &path) {
  std::vector<Language> languages;
  const size_t slash = path.rfind('/');
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  const size_t dot = name.rfind('.');
  const std::string extension = dot == std::string::npos ? std::string() : name.substr(dot + 1);
  if (subtitle_extension(extension)) {
    std::vector<Entry> entries = load(path);
    if (!entries.empty()) languages.push_back({lower(extension), std::move(entries)});
    return languages;
  }
  const std::string dir = slash == std::string::npos ? std::string(".") : path.substr(0, slash + 1);
  const std::string base = dot == std::string::npos ? name : name.substr(0, dot);
  DIR *directory = opendir(dir.c_str());
  if (!directory) return languages;
  std::vector<std::pair<std::string, std::string>> found;  // file name, language name
  while (dirent *item = readdir(directory)) {
    const std::string file = item->d_name;
    if (file.size() <= base.size() + 1 || file.compare(0, base.size(), base) != 0 ||
        file[base.size()] != '.')
      continue;
    const std::string rest = file.substr(base.size() + 1);  // "<ext>" or "<lang>.<ext>"
    const size_t last = rest.rfind('.');
    const std::string ext = last == std::string::npos ? rest : rest.substr(last + 1);
    if (!subtitle_extension(ext)) continue;
    if (last == std::string::npos) {
      found.emplace_back(file, lower(ext));
    } else if (last > 0 && rest.find('.') == last) {
      found.emplace_back(file, rest.substr(0, last));
    }
  }
  closedir(directory);
  std::sort(found.begin(), found.end());
  for (const auto &file : found) {
    std::vector<Entry> entries = load(dir + (slash == std::string::npos ? "/" : "") + file.first);
    if (!entries.empty()) languages.push_back({file.second, std::move(entries)});
  }
  return languages;
}

// The entry's release function lives in the library, so that entries the
// player still holds survive this plugin's unloading.
travik_subtitle_entry *make_entry(const Entry &from) {
  std::vector<travik_subtitle_line> lines;
  for (const std::string &line : from.lines)
    lines.push_back({line.data(), static_cast<int32_t>(line.size())});
  return travik_subtitle_entry_create(from.time, static_cast<int32_t>(lines.size()), lines.data());
}

// The languages of the first of the source's paths that has any.
std::vector<Language> find_languages(const char *source) {
  for (const std::string &path : local_paths(source)) {
    std::vector<Language> languages = find_languages(path);
    if (!languages.empty()) return languages;
  }
  return {};
}

int32_t text_probe(const char *source) { return find_languages(source).empty() ? 0 : 50; }

void *text_open(travik_subtitle *, const char *source) {
  std::vector<Language> languages = find_languages(source);
  if (languages.empty()) return nullptr;
  auto *state = new TextSubtitle;
  state->languages = std::move(languages);
  return state;
}

void text_close(void *state) { delete static_cast<TextSubtitle *>(state); }

int32_t text_getlangcount(void *state) {
  return static_cast<int32_t>(static_cast<TextSubtitle *>(state)->languages.size());
}

const char *text_getlangname(void *state, int32_t index) {
  auto *s = static_cast<TextSubtitle *>(state);
  if (index < 0 || static_cast<size_t>(index) >= s->languages.size()) return nullptr;
  return s->languages[static_cast<size_t>(index)].name.c_str();
}

// A new language continues at the time reached in the old one.
int32_t text_setlang(void *state, int32_t index) {
  auto *s = static_cast<TextSubtitle *>(state);
  if (index < 0 || static_cast<size_t>(index) >= s->languages.size()) return 1;
  s->language = static_cast<size_t>(index);
  s->next = travik_text::seek_index(s->languages[s->language].entries, s->shown);
  return 0;
}

int32_t text_getlangindex(void *state) {
  return static_cast<int32_t>(static_cast<TextSubtitle *>(state)->language);
}

// Gives the next entry; 1 (and *item untouched) after the last one.
int32_t text_parse(void *state, void **item) {
  auto *s = static_cast<TextSubtitle *>(state);
  const std::vector<Entry> &entries = s->languages[s->language].entries;
  if (s->next >= entries.size()) return 1;
  const Entry &entry = entries[s->next++];
  s->shown = entry.time;
  *item = make_entry(entry);
  return 0;
}

int32_t text_seek(void *state, int64_t position) {
  auto *s = static_cast<TextSubtitle *>(state);
  s->next = travik_text::seek_index(s->languages[s->language].entries, position);
  s->shown = position;
  return 0;
}

const travik_subtitle_driver drivers[] = {
    {"Text subtitles (SubRip, WebVTT, SSA/ASS)", "srt,vtt,ssa,ass", text_probe, text_open,
     text_close, text_getlangcount, text_getlangname, text_setlang, text_parse, text_seek,
     text_getlangindex},
    {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
     nullptr},
};

}  // namespace

TRAVIK_PLUGIN_EXPORT void travik_subtitle_text(void) {
  travik_plugin_register(TRAVIK_PLUGIN_SUBTITLE, TRAVIK_PLUGIN_VERSION,
                         const_cast<travik_subtitle_driver *>(drivers));
}
