// Locale-to-charset mapping and UTF-8 conversion through iconv.
#include <travik/system.h>

#include <iconv.h>
#include <strings.h>

#include <cstdlib>
#include <cstring>

namespace {

struct LocaleCharset {
  const char *prefix;
  const char *charset;
};

// Searched in order; "kr-KR" is not a standard locale name but is matched
// all the same.
const LocaleCharset kLocaleCharsets[] = {
    {"ko_KR", "eucKR"}, {"ko-KR", "eucKR"}, {"zh_CN", "gbk"},   {"zh-CN", "gbk"},
    {"zh_TW", "big5"},  {"zh-TW", "big5"},  {"kr-KR", "eucKR"},
};

// Converts the whole input in one iconv call; any failure (unknown charset,
// invalid or truncated input, output exhausted) returns 0 and no buffer.
int convert(const char *from, const char *to, const char *text, int32_t length, char **out,
            int32_t *out_length) {
  if (!text) return 0;
  iconv_t cd = iconv_open(to, from);
  if (cd == reinterpret_cast<iconv_t>(-1)) return 0;
  size_t in_left = length > 0 ? static_cast<size_t>(length) : 0;
  // The converter may fill all of 4 * length + 4 bytes; the two terminator
  // bytes are allocated beyond that so that a full buffer still has room.
  size_t capacity = 4 * in_left + 4;
  char *buffer = static_cast<char *>(std::malloc(capacity + 2));
  char *in = const_cast<char *>(text);
  char *cursor = buffer;
  size_t out_left = capacity;
  if (iconv(cd, &in, &in_left, &cursor, &out_left) == static_cast<size_t>(-1) || in_left != 0) {
    std::free(buffer);
    iconv_close(cd);
    return 0;
  }
  iconv_close(cd);
  // Terminated both as an 8-bit and as a 16-bit string.
  cursor[0] = 0;
  cursor[1] = 0;
  *out = buffer;
  *out_length = static_cast<int32_t>(cursor - buffer);
  return 1;
}

}  // namespace

extern "C" {

const uint8_t UTF8_SKIP_TABLE[64] = {
    2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2,  // 0xC0-0xCF
    2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2,  // 0xD0-0xDF
    3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3,  // 0xE0-0xEF
    4, 4, 4, 4, 4, 4, 4, 4, 5, 5, 5, 5, 6, 6, 1, 1,  // 0xF0-0xFF
};

const char *travik_parse_charset(const char *locale) {
  if (!locale) return "ASCII";
  const char *dot = std::strchr(locale, '.');
  if (dot) return dot + 1;
  for (const LocaleCharset &row : kLocaleCharsets) {
    if (strncasecmp(locale, row.prefix, std::strlen(row.prefix)) == 0) return row.charset;
  }
  return "ASCII";
}

const char *travik_local_charset(void) { return travik_parse_charset(std::getenv("LANG")); }

const char *travik_charset(void) {
  const char *lang = std::getenv("TRAVIK_LANG");
  return lang ? travik_parse_charset(lang) : travik_local_charset();
}

int travik_utf8_encode(const char *from_charset, const char *text, int32_t length, char **out,
                       int32_t *out_length) {
  return convert(from_charset, "UTF-8", text, length, out, out_length);
}

int travik_utf8_decode(const char *to_charset, const char *text, int32_t length, char **out,
                       int32_t *out_length) {
  return convert("UTF-8", to_charset, text, length, out, out_length);
}

}  // extern "C"
