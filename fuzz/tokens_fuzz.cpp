// The word tokenisers and field splitter over arbitrary lines.
#include <travik/url.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  // Byte 0: word buffer size (-8..247); byte 1: delimiter/separator length.
  int32_t word_size = static_cast<int32_t>(data[0]) - 8;
  size_t separator_length = data[1] % 4;
  std::string rest(reinterpret_cast<const char *>(data + 2), size - 2);
  std::string separator = rest.substr(0, separator_length).c_str();
  std::string line = rest.size() > separator_length ? rest.substr(separator_length).c_str() : "";

  std::vector<char> word(static_cast<size_t>(word_size > 0 ? word_size : 1));
  const char *end = line.c_str() + line.size();

  // Each call either reaches the end or moves forward.
  const char *p = line.c_str();
  for (size_t i = 0; i <= line.size() + 1; i++) {
    const char *next = travik_parse_word(p, word.data(), word_size);
    if (next < p || next > end) std::abort();
    if (word_size > 0 && std::strlen(word.data()) >= static_cast<size_t>(word_size)) std::abort();
    if (*next == '\0') break;
    p = next;
  }

  p = line.c_str();
  for (size_t i = 0; i <= line.size() + 1; i++) {
    const char *next = travik_parse_word2(p, word.data(), word_size, separator.c_str());
    if (next < p || next > end) std::abort();
    if (*next == '\0') break;
    p = next + 1;
  }

  for (int32_t index = 0; index < 64; index++) {
    const char *after = nullptr;
    char *field = travik_strdup_token(line.c_str(), separator.c_str(), index, &after);
    if (!field) break;
    if (after && (after < line.c_str() || after > end)) std::abort();
    std::free(field);
  }
  return 0;
}
