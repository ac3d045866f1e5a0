/*
 * travik - intrusive doubly linked lists that double as blocking queues.
 *
 * Items are allocated with travik_listitem_alloc(): a small hidden header
 * (owning list, next, previous) sits in front of the caller's data, and the
 * caller only ever holds the data pointer. An item is on at most one list;
 * appending or prepending takes it off its old list first.
 *
 * The plain operations expect the caller to hold the list's mutex or to be
 * its only user. The *_lock operations take the list's own mutex; insertions
 * signal the list's condition variable once, and the pop and wait operations
 * wait at most once, so a NULL/0 result means "woken without an item" and
 * the caller re-checks its own stop conditions.
 */
#ifndef TRAVIK_LIST_H
#define TRAVIK_LIST_H

#include <pthread.h>
#include <travik/common.h>

TRAVIK_BEGIN_DECLS

/* A list, embedded in its owner and set up with travik_list_init(). */
typedef struct travik_list {
  void *first;           /* data pointer of the first item, or NULL */
  void *last;            /* data pointer of the last item, or NULL */
  int32_t count;         /* number of items */
  pthread_mutex_t mutex; /* taken by the *_lock operations */
  pthread_cond_t cond;   /* signalled by locked insertions and cancel */
} travik_list;

/* Allocates an item with `size` bytes of (uninitialised) data. */
TRAVIK_API void *travik_listitem_alloc(uint32_t size);
/* The item after / before `item` (a real item, never NULL), or NULL. */
TRAVIK_API void *travik_listitem_getnext(void *item);
TRAVIK_API void *travik_listitem_getprev(void *item);
/* Takes the item off its list (without locking) and frees it. */
TRAVIK_API void travik_listitem_free(void *item);
/* Takes the item off its list under that list's mutex and frees it. */
TRAVIK_API void travik_listitem_free_lock(void *item);

TRAVIK_API int travik_list_init(travik_list *list);
/* Frees every item still on the list, then its condition and mutex. */
TRAVIK_API int travik_list_destroy(travik_list *list);
/* Frees every item; the list is left empty. Takes no lock. */
TRAVIK_API void travik_list_clear(travik_list *list);
TRAVIK_API void travik_list_append(travik_list *list, void *item);
TRAVIK_API void travik_list_prepend(travik_list *list, void *item);
/* Unlinks the item; an item that is not on `list` is refused with a warning. */
TRAVIK_API void travik_list_remove(travik_list *list, void *item);
TRAVIK_API void *travik_list_pop(travik_list *list);
TRAVIK_API int travik_list_hasitem(travik_list *list, void *item);
/* Appends every item of `source`, in order, to `destination`. */
TRAVIK_API void travik_list_move(travik_list *destination, travik_list *source);

TRAVIK_API int travik_list_append_lock(travik_list *list, void *item);
TRAVIK_API int travik_list_prepend_lock(travik_list *list, void *item);
/* Pops the first item, waiting once when the list is empty; NULL if none. */
TRAVIK_API void *travik_list_pop_lock(travik_list *list);
/* Waits once for the list to become non-empty; 1 when it holds items. */
TRAVIK_API int travik_list_wait_lock(travik_list *list);
/* Wakes one thread blocked in travik_list_pop_lock/travik_list_wait_lock. */
TRAVIK_API int travik_list_cancel_lock(travik_list *list);

TRAVIK_END_DECLS

#endif /* TRAVIK_LIST_H */
