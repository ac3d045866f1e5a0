// Producer/consumer queue of list items with a recycling pool.
#include <travik/queue.h>

#include <cstdlib>

#include "base/relaxed.h"

namespace {

// The pool serves allocations while `allocated` is not greater than a
// positive limit; the comparison is deliberately not-greater-than.
bool served_from_pool(const travik_queue *queue) {
  return queue->limit > 0 && relaxed_load(queue->allocated) <= queue->limit;
}

travik_list *side_list(travik_queue *queue, int side) {
  return side ? &queue->free : &queue->used;
}

}  // namespace

extern "C" {

travik_queue *travik_queue_create(int32_t limit) {
  auto *queue = static_cast<travik_queue *>(std::malloc(sizeof(travik_queue)));
  queue->limit = limit;
  queue->allocated = 0;
  // The owner installs its allocator table after creation.
  queue->allocator = nullptr;
  pthread_mutex_init(&queue->mutex, nullptr);
  travik_list_init(&queue->used);
  travik_list_init(&queue->free);
  return queue;
}

void travik_queue_destroy(travik_queue *queue) {
  travik_list_destroy(&queue->used);
  travik_list_destroy(&queue->free);
  pthread_mutex_destroy(&queue->mutex);
  std::free(queue);
}

void *travik_queue_alloc(travik_queue *queue, int32_t size) {
  travik_queue_allocator *allocator = queue->allocator;
  if (served_from_pool(queue)) {
    // Blocks once when the pool is empty; a cancel gives reuse() a NULL item.
    void *item = travik_list_pop_lock(&queue->free);
    pthread_mutex_lock(&queue->mutex);
    void *result = allocator->reuse(allocator, item, size);
    pthread_mutex_unlock(&queue->mutex);
    return result;
  }
  void *result = nullptr;
  pthread_mutex_lock(&queue->mutex);
  if (!served_from_pool(queue)) {
    result = allocator->create(allocator, size);
    relaxed_store(queue->allocated, queue->allocated + 1);
  }
  pthread_mutex_unlock(&queue->mutex);
  return result;
}

void travik_queue_free(travik_queue *queue, void *item) {
  if (item) travik_list_append_lock(&queue->free, item);
}

void travik_queue_append(travik_queue *queue, void *item) {
  if (item) travik_list_append_lock(&queue->used, item);
}

void travik_queue_prepend(travik_queue *queue, void *item) {
  if (item) travik_list_prepend_lock(&queue->used, item);
}

void *travik_queue_pop(travik_queue *queue) { return travik_list_pop_lock(&queue->used); }

int travik_queue_wait(travik_queue *queue, int side) {
  if (!side) return travik_list_wait_lock(&queue->used);
  travik_list *pool = &queue->free;
  pthread_mutex_lock(&pool->mutex);
  int result = 1;  // an allocation that would not need the pool never waits
  if (served_from_pool(queue)) {
    if (pool->count == 0) pthread_cond_wait(&pool->cond, &pool->mutex);
    result = pool->count != 0 ? 1 : 0;
  }
  pthread_mutex_unlock(&pool->mutex);
  return result;
}

int travik_queue_cancel(travik_queue *queue, int side) {
  return travik_list_cancel_lock(side_list(queue, side));
}

int32_t travik_queue_getcount(travik_queue *queue, int side) {
  return relaxed_load(side_list(queue, side)->count);
}

// Lock order: the free list before the used list. No waiter is woken.
int travik_queue_clear(travik_queue *queue) {
  pthread_mutex_lock(&queue->free.mutex);
  pthread_mutex_lock(&queue->used.mutex);
  travik_list_move(&queue->free, &queue->used);
  pthread_mutex_unlock(&queue->used.mutex);
  return pthread_mutex_unlock(&queue->free.mutex);
}

}  // extern "C"
