// INI configuration documents: load, look up, edit and save.
//
// The format is minimal on purpose: "#" in the first column is a comment,
// "[name]" starts a section, "key = value" adds an entry; no escapes, no
// quoting, no continuation lines. Duplicates are kept and every lookup finds
// the first one.
#include "plugin/config_internal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// Lines are read with this buffer: longer lines are split, and the rest
// is parsed as a line of its own.
constexpr int kLineSize = 2048;

char *copy_string(const char *text) {
  if (!text) return nullptr;
  size_t length = std::strlen(text) + 1;
  char *copy = static_cast<char *>(std::malloc(length));
  std::memcpy(copy, text, length);
  return copy;
}

char *copy_range(const char *begin, size_t length) {
  char *copy = static_cast<char *>(std::malloc(length + 1));
  std::memcpy(copy, begin, length);
  copy[length] = '\0';
  return copy;
}

bool is_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

travik_config_section *find_section(travik_config *config, const char *name) {
  if (!name) return nullptr;
  for (void *item = config->sections.first; item; item = travik_listitem_getnext(item)) {
    auto *section = static_cast<travik_config_section *>(item);
    if (std::strcmp(section->name, name) == 0) return section;
  }
  return nullptr;
}

travik_config_entry *find_entry(travik_config_section *section, const char *key) {
  if (!key) return nullptr;
  for (void *item = section->entries.first; item; item = travik_listitem_getnext(item)) {
    auto *entry = static_cast<travik_config_entry *>(item);
    if (std::strcmp(entry->key, key) == 0) return entry;
  }
  return nullptr;
}

// Takes ownership of `name`.
travik_config_section *append_section(travik_config *config, char *name) {
  auto *section = static_cast<travik_config_section *>(
      travik_listitem_alloc(sizeof(travik_config_section)));
  section->name = name;
  travik_list_init(&section->entries);
  travik_list_append_lock(&config->sections, section);
  return section;
}

// Takes ownership of `key` and `value`.
void append_entry(travik_config_section *section, char *key, char *value) {
  auto *entry =
      static_cast<travik_config_entry *>(travik_listitem_alloc(sizeof(travik_config_entry)));
  entry->key = key;
  entry->value = value;
  travik_list_append_lock(&section->entries, entry);
}

void free_entry(travik_config_entry *entry) {
  std::free(entry->key);
  std::free(entry->value);
  travik_listitem_free(entry);
}

void free_section(travik_config_section *section) {
  while (void *item = section->entries.first) free_entry(static_cast<travik_config_entry *>(item));
  travik_list_destroy(&section->entries);
  std::free(section->name);
  travik_listitem_free(section);
}

void parse_line(travik_config *config, char *line, travik_config_section **current) {
  size_t length = std::strlen(line);
  while (length > 0 && is_space(line[length - 1])) line[--length] = '\0';
  if (line[0] == '#') return;
  if (line[0] == '[') {
    const char *close = std::strchr(line + 1, ']');
    if (!close) return;
    *current = append_section(config, copy_range(line + 1, close - (line + 1)));
    return;
  }
  if (!*current) return;
  char *equals = std::strchr(line, '=');
  if (!equals) return;
  size_t key_length = equals - line;
  while (key_length > 0 && is_space(line[key_length - 1])) --key_length;
  const char *value = equals + 1;
  while (*value && is_space(*value)) ++value;
  append_entry(*current, copy_range(line, key_length), copy_string(value));
}

bool write_all(int fd, const std::string &text, long long *written) {
  ssize_t n = write(fd, text.data(), text.size());
  if (n < 0) return false;
  *written += n;
  return static_cast<size_t>(n) == text.size();
}

}  // namespace

const char *travik_config_section_read(travik_config_section *section, const char *key,
                                       const char *fallback) {
  travik_config_entry *entry = section ? find_entry(section, key) : nullptr;
  return entry && entry->value ? entry->value : fallback;
}

extern "C" {

travik_config *travik_config_create(const char *path) {
  auto *config = static_cast<travik_config *>(std::calloc(1, sizeof(travik_config)));
  config->path = copy_string(path);
  travik_list_init(&config->sections);
  travik_config_load(config, nullptr);
  return config;
}

void travik_config_destroy(travik_config *config) {
  if (!config) return;
  travik_config_clear(config);
  travik_list_destroy(&config->sections);
  std::free(config->path);
  std::free(config);
}

int travik_config_load(travik_config *config, const char *path) {
  if (!config) return 0;
  const char *name = path ? path : config->path;
  if (!name) return 0;
  FILE *file = std::fopen(name, "r");
  if (!file) return 0;
  travik_config_section *current = nullptr;
  char line[kLineSize];
  while (std::fgets(line, sizeof line, file)) parse_line(config, line, &current);
  std::fclose(file);
  if (path) {
    char *copy = copy_string(path);
    std::free(config->path);
    config->path = copy;
  }
  return 1;
}

int travik_config_save(travik_config *config, const char *path) {
  if (!config) return 0;
  if (!config->modified) return 1;
  const char *target = path ? path : config->path;
  if (!target) return 0;
  std::string temporary = std::string(target) + ".new";
  // Not truncated: a longer file left by an earlier crash fails the length
  // check below and is removed.
  int fd = open(temporary.c_str(), O_WRONLY | O_CREAT, 0644);
  if (fd < 0) return 0;

  long long written = 0;
  bool ok = true;
  for (void *item = config->sections.first; item && ok; item = travik_listitem_getnext(item)) {
    auto *section = static_cast<travik_config_section *>(item);
    ok = write_all(fd, std::string("[") + section->name + "]\n", &written);
    for (void *e = section->entries.first; e && ok; e = travik_listitem_getnext(e)) {
      auto *entry = static_cast<travik_config_entry *>(e);
      if (!entry->key || !entry->value) continue;
      ok = write_all(fd, std::string(entry->key) + " = " + entry->value + "\n", &written);
    }
  }
  if (!ok) {
    // Reported as success on purpose: the caller cannot act on it, and the
    // configuration stays marked as modified.
    close(fd);
    unlink(temporary.c_str());
    return 1;
  }
  off_t length = lseek(fd, 0, SEEK_END);
  close(fd);
  if (length != static_cast<off_t>(written)) {
    unlink(temporary.c_str());
    sync();
    return 0;
  }
  std::string destination = target;  // `target` may be the stored path, replaced below
  unlink(destination.c_str());
  rename(temporary.c_str(), destination.c_str());
  if (path) {
    char *copy = copy_string(path);
    std::free(config->path);
    config->path = copy;
  }
  config->modified = 0;
  sync();
  return 1;
}

const char *travik_config_read(travik_config *config, const char *section, const char *key,
                               const char *fallback) {
  if (!config) return fallback;
  return travik_config_section_read(find_section(config, section), key, fallback);
}

void travik_config_write(travik_config *config, const char *section, const char *key,
                         const char *value) {
  if (!config || !section || !key) return;
  config->modified = 1;
  travik_config_section *found = find_section(config, section);
  if (!found) found = append_section(config, copy_string(section));
  travik_config_entry *entry = find_entry(found, key);
  if (entry) {
    char *copy = copy_string(value);
    std::free(entry->value);
    entry->value = copy;
  } else {
    append_entry(found, copy_string(key), copy_string(value));
  }
}

void travik_config_removeentry(travik_config *config, const char *section, const char *key) {
  if (!config) return;
  travik_config_section *found = find_section(config, section);
  travik_config_entry *entry = found ? find_entry(found, key) : nullptr;
  if (!entry) return;
  free_entry(entry);
  config->modified = 1;
}

void travik_config_removesection(travik_config *config, const char *section) {
  if (!config) return;
  travik_config_section *found = find_section(config, section);
  if (!found) return;
  free_section(found);
  config->modified = 1;
}

void travik_config_clear(travik_config *config) {
  if (!config) return;
  while (void *item = config->sections.first)
    free_section(static_cast<travik_config_section *>(item));
  config->modified = 1;
}

}  // extern "C"
