/* A tiny application built against an installed travik. */
#include <stdio.h>
#include <travik/travik.h>

int main(void) {
  travik_list list;
  travik_list_init(&list);
  int *value = travik_listitem_alloc(sizeof(int));
  *value = 42;
  travik_list_append_lock(&list, value);
  int *popped = travik_list_pop_lock(&list);
  int ok = popped == value && *popped == 42 && list.count == 0;
  travik_listitem_free(popped);
  travik_list_destroy(&list);
  travik_time a = {5, 200}, b = {3, 700}, r;
  travik_time_sub(&r, &a, &b);
  ok = ok && r.tv_sec == 1 && r.tv_usec == 999500;
  printf("consumer: %s\n", ok ? "ok" : "FAILED");
  return ok ? 0 : 1;
}
