#include <gtest/gtest.h>
#include <travik/queue.h>

#include <atomic>
#include <thread>

#include "util/testutil.h"

namespace {

// An allocator that makes int-sized items and records its calls.
struct Counting {
  travik_queue_allocator table;
  std::atomic<int> creates{0};
  std::atomic<int> reuses{0};
  std::atomic<int> null_reuses{0};
  int last_size = 0;
};

void *create(travik_queue_allocator *allocator, int32_t size) {
  auto *c = reinterpret_cast<Counting *>(allocator);
  c->creates++;
  c->last_size = size;
  int *item = static_cast<int *>(travik_listitem_alloc(sizeof(int)));
  *item = c->creates;
  return item;
}

void *reuse(travik_queue_allocator *allocator, void *item, int32_t size) {
  auto *c = reinterpret_cast<Counting *>(allocator);
  c->reuses++;
  c->last_size = size;
  if (!item) c->null_reuses++;
  return item;
}

class Queue : public ::testing::Test {
 protected:
  void install(travik_queue *queue) {
    counting.table.user = nullptr;
    counting.table.create = create;
    counting.table.reuse = reuse;
    queue->allocator = &counting.table;
  }
  Counting counting;
};

TEST_F(Queue, CreateSetsTheLimitAndNoAllocator) {
  travik_queue *q = travik_queue_create(7);
  EXPECT_EQ(q->limit, 7);
  EXPECT_EQ(q->allocated, 0);
  EXPECT_EQ(q->allocator, nullptr);
  EXPECT_EQ(travik_queue_getcount(q, TRAVIK_QUEUE_USED), 0);
  EXPECT_EQ(travik_queue_getcount(q, TRAVIK_QUEUE_FREE), 0);
  travik_queue_destroy(q);
}

TEST_F(Queue, UnlimitedQueueCreatesEveryTime) {
  travik_queue *q = travik_queue_create(0);
  install(q);
  for (int i = 0; i < 5; i++) {
    void *item = travik_queue_alloc(q, 100 + i);
    ASSERT_NE(item, nullptr);
    travik_queue_free(q, item);
  }
  EXPECT_EQ(counting.creates, 5);
  EXPECT_EQ(counting.reuses, 0);
  EXPECT_EQ(q->allocated, 5);
  EXPECT_EQ(counting.last_size, 104);
  travik_queue_destroy(q);
}

TEST_F(Queue, NegativeLimitIsUnlimited) {
  travik_queue *q = travik_queue_create(-3);
  install(q);
  travik_queue_free(q, travik_queue_alloc(q, 1));
  travik_queue_free(q, travik_queue_alloc(q, 1));
  EXPECT_EQ(counting.creates, 2);
  travik_queue_destroy(q);
}

TEST_F(Queue, LimitedQueueServesFromThePool) {
  travik_queue *q = travik_queue_create(2);
  install(q);
  // A fresh limited queue must be stocked by its owner.
  int *stock = static_cast<int *>(travik_listitem_alloc(sizeof(int)));
  *stock = 99;
  travik_queue_free(q, stock);
  void *item = travik_queue_alloc(q, 8);
  EXPECT_EQ(item, stock);
  EXPECT_EQ(counting.reuses, 1);
  EXPECT_EQ(counting.creates, 0);
  EXPECT_EQ(counting.last_size, 8);
  travik_queue_free(q, item);
  travik_queue_destroy(q);
}

TEST_F(Queue, LimitedQueueBlocksUntilAnItemIsFreed) {
  travik_queue *q = travik_queue_create(2);
  install(q);
  std::atomic<bool> done{false};
  void *result = nullptr;
  std::thread allocating([&] {
    result = travik_queue_alloc(q, 4);
    done = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(done);
  int *item = static_cast<int *>(travik_listitem_alloc(sizeof(int)));
  travik_queue_free(q, item);
  allocating.join();
  EXPECT_EQ(result, item);
  EXPECT_EQ(counting.null_reuses, 0);
  travik_listitem_free(item);
  travik_queue_destroy(q);
}

TEST_F(Queue, CancellingTheFreeSideReusesANullItem) {
  travik_queue *q = travik_queue_create(2);
  install(q);
  std::atomic<bool> done{false};
  void *result = reinterpret_cast<void *>(1);
  std::thread allocating([&] {
    result = travik_queue_alloc(q, 4);
    done = true;
  });
  long long start = travik_test::now_ms();
  while (!done && travik_test::now_ms() - start < 10000) {
    travik_queue_cancel(q, TRAVIK_QUEUE_FREE);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  allocating.join();
  EXPECT_EQ(result, nullptr);
  EXPECT_EQ(counting.null_reuses, 1);
  travik_queue_destroy(q);
}

TEST_F(Queue, CreatesOnlyOnceAllocatedExceedsTheLimit) {
  travik_queue *q = travik_queue_create(1);
  install(q);
  q->allocated = 2;  // the owner's count says the pool is exhausted
  void *item = travik_queue_alloc(q, 4);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(counting.creates, 1);
  EXPECT_EQ(q->allocated, 3);
  travik_queue_free(q, item);
  travik_queue_destroy(q);
}

TEST_F(Queue, NullItemsAreIgnored) {
  travik_queue *q = travik_queue_create(0);
  travik_queue_append(q, nullptr);
  travik_queue_prepend(q, nullptr);
  travik_queue_free(q, nullptr);
  EXPECT_EQ(travik_queue_getcount(q, TRAVIK_QUEUE_USED), 0);
  EXPECT_EQ(travik_queue_getcount(q, TRAVIK_QUEUE_FREE), 0);
  travik_queue_destroy(q);
}

TEST_F(Queue, AppendPrependPop) {
  travik_queue *q = travik_queue_create(0);
  install(q);
  int *a = static_cast<int *>(travik_queue_alloc(q, 1));
  int *b = static_cast<int *>(travik_queue_alloc(q, 1));
  int *c = static_cast<int *>(travik_queue_alloc(q, 1));
  travik_queue_append(q, a);
  travik_queue_append(q, b);
  travik_queue_prepend(q, c);
  EXPECT_EQ(travik_queue_getcount(q, TRAVIK_QUEUE_USED), 3);
  EXPECT_EQ(travik_queue_pop(q), c);
  EXPECT_EQ(travik_queue_pop(q), a);
  EXPECT_EQ(travik_queue_pop(q), b);
  travik_queue_free(q, a);
  travik_queue_free(q, b);
  travik_queue_free(q, c);
  EXPECT_EQ(travik_queue_getcount(q, TRAVIK_QUEUE_FREE), 3);
  travik_queue_destroy(q);
}

TEST_F(Queue, ClearMovesEverythingToTheFreeSide) {
  travik_queue *q = travik_queue_create(0);
  install(q);
  void *spare = travik_queue_alloc(q, 1);
  travik_queue_free(q, spare);
  for (int i = 0; i < 4; i++) travik_queue_append(q, travik_queue_alloc(q, 1));
  travik_queue_clear(q);
  EXPECT_EQ(travik_queue_getcount(q, TRAVIK_QUEUE_USED), 0);
  EXPECT_EQ(travik_queue_getcount(q, TRAVIK_QUEUE_FREE), 5);
  // Queued items keep their order behind the pool's own.
  EXPECT_EQ(q->free.first, spare);
  travik_queue_destroy(q);
}

TEST_F(Queue, WaitOnTheUsedSide) {
  travik_queue *q = travik_queue_create(0);
  install(q);
  travik_queue_append(q, travik_queue_alloc(q, 1));
  EXPECT_EQ(travik_queue_wait(q, TRAVIK_QUEUE_USED), 1);
  travik_queue_free(q, travik_queue_pop(q));
  std::atomic<int> result{-1};
  std::thread waiter([&] { result = travik_queue_wait(q, TRAVIK_QUEUE_USED); });
  long long start = travik_test::now_ms();
  while (result == -1 && travik_test::now_ms() - start < 10000) {
    travik_queue_cancel(q, TRAVIK_QUEUE_USED);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  waiter.join();
  EXPECT_EQ(result, 0);
  travik_queue_destroy(q);
}

TEST_F(Queue, WaitOnTheFreeSide) {
  // Unlimited: an allocation never needs the pool, so no wait.
  travik_queue *unlimited = travik_queue_create(0);
  EXPECT_EQ(travik_queue_wait(unlimited, TRAVIK_QUEUE_FREE), 1);
  travik_queue_destroy(unlimited);

  travik_queue *q = travik_queue_create(1);
  install(q);
  travik_queue_free(q, travik_listitem_alloc(sizeof(int)));
  EXPECT_EQ(travik_queue_wait(q, TRAVIK_QUEUE_FREE), 1);
  travik_listitem_free(travik_queue_alloc(q, 1));
  std::atomic<int> result{-1};
  std::thread waiter([&] { result = travik_queue_wait(q, TRAVIK_QUEUE_FREE); });
  long long start = travik_test::now_ms();
  while (result == -1 && travik_test::now_ms() - start < 10000) {
    travik_queue_cancel(q, TRAVIK_QUEUE_FREE);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  waiter.join();
  EXPECT_EQ(result, 0);
  // Once the owner's count exceeds the limit, the free side never waits.
  q->allocated = 2;
  EXPECT_EQ(travik_queue_wait(q, TRAVIK_QUEUE_FREE), 1);
  travik_queue_destroy(q);
}

TEST_F(Queue, ProducerAndConsumerRecycleABoundedPool) {
  travik_queue *q = travik_queue_create(3);
  install(q);
  for (int i = 0; i < 3; i++) travik_queue_free(q, travik_listitem_alloc(sizeof(int)));
  constexpr int kMessages = 3000;
  std::atomic<int> received{0};
  std::thread consumer([&] {
    long long start = travik_test::now_ms();
    while (received < kMessages && travik_test::now_ms() - start < 30000) {
      void *item = travik_queue_pop(q);
      if (!item) continue;
      received++;
      travik_queue_free(q, item);
    }
  });
  int sent = 0;
  long long start = travik_test::now_ms();
  while (sent < kMessages && travik_test::now_ms() - start < 30000) {
    void *item = travik_queue_alloc(q, 4);
    if (!item) continue;
    travik_queue_append(q, item);
    sent++;
  }
  consumer.join();
  EXPECT_EQ(received, kMessages);
  EXPECT_EQ(counting.creates, 0);  // everything came from the three stocked items
  EXPECT_EQ(travik_queue_getcount(q, TRAVIK_QUEUE_FREE) + travik_queue_getcount(q, TRAVIK_QUEUE_USED), 3);
  travik_queue_destroy(q);
}

}  // namespace
