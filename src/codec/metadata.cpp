// The metadata store: 14 slots of owned buffers that never shrink.
#include <travik/metadata.h>

#include <cstdlib>
#include <cstring>

namespace {

// Keys are signed. Callers never pass a negative key, but one would index
// before the slot table, so it is refused like a key of 14 or more instead
// of reaching memory outside the store.
bool valid(int32_t key) { return key >= 0 && key < TRAVIK_META_SLOTS; }

// Grows the slot to at least `size` bytes; a buffer is never shrunk.
void *reserve(travik_metadata *meta, int32_t key, int32_t size) {
  if (size > meta->capacities[key]) {
    std::free(meta->slots[key]);
    meta->slots[key] = std::malloc(static_cast<size_t>(size));
    meta->capacities[key] = size;
  }
  return meta->slots[key];
}

}  // namespace

extern "C" {

void travik_metadata_init(travik_metadata *meta) { std::memset(meta, 0, sizeof *meta); }

void travik_metadata_destroy(travik_metadata *meta) {
  for (void *slot : meta->slots) std::free(slot);
}

void travik_metadata_settext(travik_metadata *meta, int32_t key, const char *text) {
  if (!valid(key) || !text) return;
  const int32_t size = static_cast<int32_t>(std::strlen(text)) + 1;
  std::memcpy(reserve(meta, key, size), text, static_cast<size_t>(size));
}

const char *travik_metadata_gettext(travik_metadata *meta, int32_t key) {
  return valid(key) ? static_cast<const char *>(meta->slots[key]) : nullptr;
}

void *travik_metadata_setdata(travik_metadata *meta, int32_t key, const void *data, int32_t size) {
  if (!valid(key)) return nullptr;
  void *slot = reserve(meta, key, size);
  if (size > 0) std::memcpy(slot, data, static_cast<size_t>(size));
  return slot;
}

int travik_metadata_getdata(travik_metadata *meta, int32_t key, void **data, int32_t *size) {
  if (!valid(key)) {
    *data = nullptr;
    *size = 0;
    return 0;
  }
  *data = meta->slots[key];
  *size = meta->capacities[key];
  return 1;
}

}  // extern "C"
