// URL splitting and option lookup over arbitrary text.
#include <travik/io.h>
#include <travik/url.h>

#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string text(reinterpret_cast<const char *>(data), size);
  // The text up to the first zero byte is the URL; what follows names an option.
  std::string url_text = text.c_str();
  std::string name = size > url_text.size() + 1 ? text.substr(url_text.size() + 1).c_str() : "a";

  travik_url url;
  travik_url_init(&url, url_text.c_str());
  if (std::strcmp(url.full, url_text.c_str()) != 0) std::abort();
  if (url.path && !url.scheme) std::abort();
  if (url.extension && url.extension[0] == '\0') std::abort();

  const uint32_t sizes[] = {0, 1, 2, 8, 128};
  for (uint32_t value_size : sizes) {
    // A key without "=" leaves the buffer as it was: start it terminated.
    char *value = static_cast<char *>(std::calloc(value_size ? value_size : 1, 1));
    if (travik_url_findtag(&url, name.c_str(), value, value_size) && value_size > 0 &&
        std::strlen(value) >= value_size)
      std::abort();
    travik_url_findtag(&url, "multicast", value, value_size);
    std::free(value);
  }
  travik_url_destroy(&url);

  // Creating a handle only parses and picks a back-end; nothing is opened.
  travik_io *io = travik_io_create(url_text.c_str());
  travik_io_destroy(io);
  return 0;
}
