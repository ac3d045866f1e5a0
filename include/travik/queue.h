/*
 * travik - a producer/consumer queue of list items with a recycling pool.
 *
 * Items from travik_queue_alloc() travel through `used` to the consumer,
 * which hands them back with travik_queue_free() to `free`, from which
 * later allocations are served. The owner installs an allocator table in
 * the `allocator` field after creation.
 *
 * With a positive limit, allocations are served from `free` while
 * `allocated` is not greater than `limit`: a fresh queue must first be
 * stocked through travik_queue_free(), and new items are created only once
 * `allocated` exceeds `limit`. A limit of 0 or less creates on every call.
 */
#ifndef TRAVIK_QUEUE_H
#define TRAVIK_QUEUE_H

#include <pthread.h>
#include <travik/list.h>

TRAVIK_BEGIN_DECLS

typedef struct travik_queue_allocator travik_queue_allocator;
struct travik_queue_allocator {
  void *user; /* for the owner; the queue does not use it */
  /* Returns a new list item (travik_listitem_alloc) for `size`. */
  void *(*create)(travik_queue_allocator *allocator, int32_t size);
  /* Prepares a recycled item (possibly NULL) for `size`; returns what to hand out. */
  void *(*reuse)(travik_queue_allocator *allocator, void *item, int32_t size);
};

typedef struct travik_queue {
  travik_list used;
  travik_list free;
  int32_t limit;
  int32_t allocated;
  travik_queue_allocator *allocator;
  pthread_mutex_t mutex; /* guards `allocated` and the allocator calls */
} travik_queue;

enum { TRAVIK_QUEUE_USED = 0, TRAVIK_QUEUE_FREE = 1 };

TRAVIK_API travik_queue *travik_queue_create(int32_t limit);
TRAVIK_API void travik_queue_destroy(travik_queue *queue);
TRAVIK_API void *travik_queue_alloc(travik_queue *queue, int32_t size);
TRAVIK_API void travik_queue_free(travik_queue *queue, void *item);
TRAVIK_API void travik_queue_append(travik_queue *queue, void *item);
TRAVIK_API void travik_queue_prepend(travik_queue *queue, void *item);
TRAVIK_API void *travik_queue_pop(travik_queue *queue);
/* Waits once on `side` (TRAVIK_QUEUE_USED or non-zero for the free side). */
TRAVIK_API int travik_queue_wait(travik_queue *queue, int side);
TRAVIK_API int travik_queue_cancel(travik_queue *queue, int side);
TRAVIK_API int32_t travik_queue_getcount(travik_queue *queue, int side);
/* Moves every queued item back to the free pool. */
TRAVIK_API int travik_queue_clear(travik_queue *queue);

TRAVIK_END_DECLS

#endif /* TRAVIK_QUEUE_H */
