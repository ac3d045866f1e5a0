// Filter lists of the output front ends: (function, argument) entries on a
// locked list, run in installation order with the list's lock held.
#pragma once

#include <travik/list.h>

template <typename Function>
struct TravikFilter {
  Function function;
  void *argument;
};

template <typename Function>
void travik_filters_install(travik_list *filters, Function function, void *argument) {
  auto *entry = static_cast<TravikFilter<Function> *>(
      travik_listitem_alloc(sizeof(TravikFilter<Function>)));
  entry->function = function;
  entry->argument = argument;
  travik_list_append_lock(filters, entry);
}

// Removes every entry with this function and argument, not only the first.
template <typename Function>
void travik_filters_remove(travik_list *filters, Function function, void *argument) {
  pthread_mutex_lock(&filters->mutex);
  void *item = filters->first;
  while (item) {
    void *next = travik_listitem_getnext(item);
    auto *entry = static_cast<TravikFilter<Function> *>(item);
    if (entry->function == function && entry->argument == argument) travik_listitem_free(item);
    item = next;
  }
  pthread_mutex_unlock(&filters->mutex);
}

// Calls every filter as function(argument, frame).
template <typename Function, typename Frame>
void travik_filters_run(travik_list *filters, Frame *frame) {
  pthread_mutex_lock(&filters->mutex);
  for (void *item = filters->first; item; item = travik_listitem_getnext(item)) {
    auto *entry = static_cast<TravikFilter<Function> *>(item);
    entry->function(entry->argument, frame);
  }
  pthread_mutex_unlock(&filters->mutex);
}
