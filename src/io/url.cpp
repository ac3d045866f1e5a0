// URL splitting, option lookup and the small word tokenisers.
#include <travik/url.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

bool is_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }
bool is_alnum(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; }

// Ports are parsed as the 32-bit target's strtol does: saturated to the
// range of a 32-bit long, no syntax check.
int32_t parse_port(const char *text) {
  long value = std::strtol(text, nullptr, 10);
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(value);
}

// The run of letters and digits after the last "." of the path's last
// component (the query, if any, belongs to the component), or NULL.
char *find_extension(const char *path) {
  const char *name = std::strrchr(path, '/');
  name = name ? name + 1 : path;
  const char *dot = std::strrchr(name, '.');
  if (!dot) return nullptr;
  const char *start = dot + 1;
  const char *end = start;
  while (*end && is_alnum(*end)) end++;
  if (end == start) return nullptr;
  size_t length = static_cast<size_t>(end - start);
  char *extension = static_cast<char *>(std::malloc(length + 1));
  std::memcpy(extension, start, length);
  extension[length] = '\0';
  return extension;
}

}  // namespace

extern "C" {

void travik_url_init(travik_url *url, const char *text) {
  if (!text) text = "";
  url->full = strdup(text);
  url->work = strdup(text);
  url->port = -1;
  url->user = nullptr;
  url->host = nullptr;
  url->path = nullptr;
  url->extension = nullptr;
  url->scheme = url->work;

  char *work = url->work;
  char *colon = std::strchr(work, ':');
  if (!colon || colon[1] != '/') {
    // No scheme: the whole text is a path.
    url->path = work;
    url->scheme = nullptr;
  } else {
    *colon = '\0';
    char *authority = colon + 1;
    if (*authority == '/') authority++;
    if (*authority == '/') authority++;

    char *slash = std::strchr(authority, '/');
    char *at = std::strchr(authority, '@');
    char *host = authority;
    if (at && (!slash || at < slash)) {
      *at = '\0';
      url->user = authority;
      host = at + 1;
    }
    url->host = host;
    char *end = host + std::strcspn(host, "/:");
    if (*end == ':') {
      *end = '\0';
      char *port = end + 1;
      char *port_end = port + std::strcspn(port, "/");
      bool has_path = *port_end == '/';
      *port_end = '\0';
      url->port = parse_port(port);
      if (has_path) url->path = port_end + 1;
    } else if (*end == '/') {
      *end = '\0';
      url->path = end + 1;
    }
  }

  if (!url->path) return;
  if (!url->scheme) url->scheme = "file";
  url->extension = find_extension(url->path);
}

void travik_url_destroy(travik_url *url) {
  std::free(url->full);
  std::free(url->work);
  std::free(url->extension);
  url->full = nullptr;
  url->work = nullptr;
  url->extension = nullptr;
  url->scheme = nullptr;
  url->user = nullptr;
  url->host = nullptr;
  url->path = nullptr;
}

int travik_url_findtag(const travik_url *url, const char *name, char *value, uint32_t size) {
  if (!url->path || !name) return 0;
  const char *p = std::strchr(url->path, '?');
  if (!p) return 0;
  p++;
  for (;;) {
    // The key, cut to its first 127 characters.
    char key[128];
    size_t key_length = 0;
    while (*p && *p != '=' && *p != '&') {
      if (key_length < sizeof key - 1) key[key_length++] = *p;
      p++;
    }
    key[key_length] = '\0';

    bool has_value = *p == '=';
    if (has_value) {
      p++;
      uint32_t length = 0;
      while (*p && *p != '&') {
        if (value && length + 1 < size) value[length++] = *p == '+' ? ' ' : *p;
        p++;
      }
      if (value && size > 0) value[length] = '\0';
    }

    if (std::strcmp(key, name) == 0) return 1;
    if (*p != '&') return 0;
    p++;
  }
}

const char *travik_parse_word(const char *text, char *word, int32_t size) {
  if (!text) {
    if (word && size > 0) word[0] = '\0';
    return nullptr;
  }
  while (*text && is_space(*text)) text++;
  int32_t length = 0;
  while (*text && !is_space(*text)) {
    // size > 0 first: size - 1 must not be formed for the most negative size.
    if (word && size > 0 && length < size - 1) word[length++] = *text;
    text++;
  }
  if (word && size > 0) word[length] = '\0';
  return text;
}

const char *travik_parse_word2(const char *text, char *word, int32_t size,
                               const char *delimiters) {
  if (!text) {
    if (word && size > 0) word[0] = '\0';
    return nullptr;
  }
  if (!delimiters) delimiters = "";
  while (*text && is_space(*text)) text++;
  int32_t length = 0;
  while (*text && !std::strchr(delimiters, *text)) {
    if (word && size > 0 && length < size - 1) word[length++] = *text;
    text++;
  }
  if (word && size > 0) word[length] = '\0';
  return text;
}

char *travik_strdup_token(const char *text, const char *separator, int32_t index,
                          const char **rest) {
  if (rest) *rest = nullptr;
  if (!text || !separator || index < 0) return nullptr;
  size_t separator_length = std::strlen(separator);
  const char *start = text;
  const char *end = std::strstr(start, separator);
  for (int32_t k = 0; k < index; k++) {
    if (!end) return nullptr;
    start = end + separator_length;
    end = std::strstr(start, separator);
  }
  size_t length = end ? static_cast<size_t>(end - start) : std::strlen(start);
  char *field = static_cast<char *>(std::malloc(length + 1));
  if (!field) return nullptr;
  std::memcpy(field, start, length);
  field[length] = '\0';
  if (rest) *rest = end ? end + separator_length : nullptr;
  return field;
}

}  // extern "C"
