// base64 decoding of arbitrary text, and encode/decode round trips.
#include <travik/bytes.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string text(reinterpret_cast<const char *>(data), size);
  // Decoding: the output is sized as the decoder documents.
  std::vector<uint8_t> out(static_cast<size_t>(travik_base64_decode_len(text.c_str())));
  int32_t length = travik_base64_decode(out.data(), text.c_str());
  if (length < 0 || static_cast<size_t>(length) + 1 > out.size()) std::abort();
  if (out[static_cast<size_t>(length)] != 0) std::abort();

  // Encoding the input bytes and decoding them gives them back.
  std::vector<char> encoded(static_cast<size_t>(travik_base64_encode_len(static_cast<int32_t>(size))));
  int32_t written = travik_base64_encode(encoded.data(), data, static_cast<int32_t>(size));
  if (static_cast<size_t>(written) != encoded.size()) std::abort();
  std::vector<uint8_t> back(static_cast<size_t>(travik_base64_decode_len(encoded.data())));
  if (travik_base64_decode(back.data(), encoded.data()) != static_cast<int32_t>(size)) std::abort();
  if (size && std::memcmp(back.data(), data, size) != 0) std::abort();
  return 0;
}
