// Intrusive doubly linked lists with a hidden item header.
#include <travik/list.h>
#include <travik/system.h>

#include <cstddef>
#include <cstdlib>

#include "base/relaxed.h"

namespace {

// The header sits right before the caller's data. It is aligned like
// malloc() memory so that the data behind it is suitably aligned for any
// type (on a 32-bit target the three words take 12 bytes, padded to 16).
struct alignas(alignof(std::max_align_t)) Header {
  travik_list *list;
  Header *next;
  Header *prev;
};

Header *header_of(void *item) { return static_cast<Header *>(item) - 1; }
void *data_of(Header *header) { return header ? header + 1 : nullptr; }

void count_add(travik_list *list, int32_t delta) {
  relaxed_store(list->count, relaxed_load(list->count) + delta);
}

}  // namespace

extern "C" {

void *travik_listitem_alloc(uint32_t size) {
  auto *header = static_cast<Header *>(std::malloc(sizeof(Header) + size));
  header->list = nullptr;
  header->next = nullptr;
  header->prev = nullptr;
  return data_of(header);
}

void *travik_listitem_getnext(void *item) { return data_of(header_of(item)->next); }

void *travik_listitem_getprev(void *item) { return data_of(header_of(item)->prev); }

void travik_listitem_free(void *item) {
  Header *header = header_of(item);
  if (header->list) travik_list_remove(header->list, item);
  std::free(header);
}

void travik_listitem_free_lock(void *item) {
  Header *header = header_of(item);
  travik_list *list = header->list;
  if (list) {
    pthread_mutex_lock(&list->mutex);
    travik_list_remove(list, item);
    pthread_mutex_unlock(&list->mutex);
  }
  std::free(header);
}

int travik_list_init(travik_list *list) {
  list->first = nullptr;
  list->last = nullptr;
  list->count = 0;
  pthread_mutex_init(&list->mutex, nullptr);
  return pthread_cond_init(&list->cond, nullptr);
}

int travik_list_destroy(travik_list *list) {
  travik_list_clear(list);
  pthread_cond_destroy(&list->cond);
  return pthread_mutex_destroy(&list->mutex);
}

void travik_list_clear(travik_list *list) {
  Header *header = list->first ? header_of(list->first) : nullptr;
  while (header) {
    header->list = nullptr;  // so that freeing attempts no removal
    Header *next = header->next;
    std::free(header);
    header = next;
  }
  relaxed_store(list->count, 0);
  list->last = nullptr;
  list->first = nullptr;
}

void travik_list_append(travik_list *list, void *item) {
  Header *header = header_of(item);
  if (header->list) travik_list_remove(header->list, item);
  header->next = nullptr;
  header->list = list;
  header->prev = list->last ? header_of(list->last) : nullptr;
  if (header->prev) header->prev->next = header;
  list->last = item;
  if (!list->first) list->first = item;
  count_add(list, 1);
}

void travik_list_prepend(travik_list *list, void *item) {
  Header *header = header_of(item);
  if (header->list) travik_list_remove(header->list, item);
  header->prev = nullptr;
  header->list = list;
  header->next = list->first ? header_of(list->first) : nullptr;
  if (header->next) header->next->prev = header;
  list->first = item;
  if (!list->last) list->last = item;
  count_add(list, 1);
}

void travik_list_remove(travik_list *list, void *item) {
  Header *header = header_of(item);
  if (header->list != list) {
    travik_warning_detail("travik_list_remove", "list", 176,
                          "Can't remove item. It's not member of the list.");
    return;
  }
  header->list = nullptr;
  if (header->next) header->next->prev = header->prev;
  if (header->prev) header->prev->next = header->next;
  if (list->first == item) list->first = data_of(header->next);
  if (list->last == item) list->last = data_of(header->prev);
  count_add(list, -1);
}

void *travik_list_pop(travik_list *list) {
  if (list->count == 0) return nullptr;
  void *item = list->first;
  travik_list_remove(list, item);
  return item;
}

int travik_list_hasitem(travik_list *list, void *item) {
  return header_of(item)->list == list ? 1 : 0;
}

void travik_list_move(travik_list *destination, travik_list *source) {
  void *item = source->first;
  while (item) {
    void *next = travik_listitem_getnext(item);
    travik_list_append(destination, item);
    item = next;
  }
}

}  // extern "C"

namespace {

// Locked insertion: leave the old list under its own mutex, then join the
// new one under its mutex. The two are never held together, so moving an
// item between lists from two threads cannot deadlock, and moving an item
// within the same list works with a non-recursive mutex.
int insert_lock(travik_list *list, void *item, void (*insert)(travik_list *, void *)) {
  travik_list *old = header_of(item)->list;
  if (old) {
    pthread_mutex_lock(&old->mutex);
    travik_list_remove(old, item);
    pthread_mutex_unlock(&old->mutex);
  }
  pthread_mutex_lock(&list->mutex);
  insert(list, item);
  pthread_cond_signal(&list->cond);
  return pthread_mutex_unlock(&list->mutex);
}

}  // namespace

extern "C" {

int travik_list_append_lock(travik_list *list, void *item) {
  return insert_lock(list, item, travik_list_append);
}

int travik_list_prepend_lock(travik_list *list, void *item) {
  return insert_lock(list, item, travik_list_prepend);
}

// One wait at most, deliberately: a signal or a spurious wake-up without an
// item returns NULL and the caller re-checks its own stop conditions.
void *travik_list_pop_lock(travik_list *list) {
  pthread_mutex_lock(&list->mutex);
  if (list->count == 0) {
    pthread_cond_wait(&list->cond, &list->mutex);
    if (list->count == 0) {
      pthread_mutex_unlock(&list->mutex);
      return nullptr;
    }
  }
  void *item = list->first;
  travik_list_remove(list, item);
  pthread_mutex_unlock(&list->mutex);
  return item;
}

int travik_list_wait_lock(travik_list *list) {
  pthread_mutex_lock(&list->mutex);
  if (list->count == 0) pthread_cond_wait(&list->cond, &list->mutex);
  int result = list->count != 0 ? 1 : 0;
  pthread_mutex_unlock(&list->mutex);
  return result;
}

int travik_list_cancel_lock(travik_list *list) {
  pthread_mutex_lock(&list->mutex);
  pthread_cond_signal(&list->cond);
  return pthread_mutex_unlock(&list->mutex);
}

}  // extern "C"
