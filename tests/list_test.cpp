#include <gtest/gtest.h>
#include <travik/list.h>

#include <atomic>
#include <thread>
#include <vector>

#include "util/testutil.h"

namespace {

int *make(int value) {
  int *item = static_cast<int *>(travik_listitem_alloc(sizeof(int)));
  *item = value;
  return item;
}

std::vector<int> contents(travik_list *list) {
  std::vector<int> values;
  for (void *item = list->first; item; item = travik_listitem_getnext(item)) {
    values.push_back(*static_cast<int *>(item));
  }
  return values;
}

std::vector<int> contents_backwards(travik_list *list) {
  std::vector<int> values;
  for (void *item = list->last; item; item = travik_listitem_getprev(item)) {
    values.push_back(*static_cast<int *>(item));
  }
  return values;
}

const char kRemoveWarning[] =
    "(!!!)  *** WARNING [Can't remove item. It's not member of the list.] *** "
    "[list:176 in travik_list_remove ()]\n";

class List : public ::testing::Test {
 protected:
  void SetUp() override {
    travik_list_init(&a);
    travik_list_init(&b);
  }
  void TearDown() override {
    travik_list_destroy(&a);
    travik_list_destroy(&b);
  }
  travik_list a, b;
};

TEST_F(List, InitIsEmpty) {
  EXPECT_EQ(a.first, nullptr);
  EXPECT_EQ(a.last, nullptr);
  EXPECT_EQ(a.count, 0);
  EXPECT_EQ(travik_list_pop(&a), nullptr);
}

TEST_F(List, AllocClearsTheHeader) {
  int *item = make(1);
  EXPECT_EQ(travik_listitem_getnext(item), nullptr);
  EXPECT_EQ(travik_listitem_getprev(item), nullptr);
  EXPECT_EQ(travik_list_hasitem(&a, item), 0);
  travik_listitem_free(item);
}

TEST_F(List, DataIsAlignedLikeMalloc) {
  void *item = travik_listitem_alloc(1);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(item) % alignof(std::max_align_t), 0u);
  travik_listitem_free(item);
}

TEST_F(List, AppendAndPrependKeepOrder) {
  travik_list_append(&a, make(2));
  travik_list_append(&a, make(3));
  travik_list_prepend(&a, make(1));
  EXPECT_EQ(contents(&a), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(contents_backwards(&a), (std::vector<int>{3, 2, 1}));
  EXPECT_EQ(a.count, 3);
}

TEST_F(List, PrependOnEmptySetsLast) {
  int *item = make(7);
  travik_list_prepend(&a, item);
  EXPECT_EQ(a.first, item);
  EXPECT_EQ(a.last, item);
  EXPECT_EQ(a.count, 1);
}

TEST_F(List, AppendingAnItemAlreadyOnTheListMovesItToTheEnd) {
  int *one = make(1);
  travik_list_append(&a, one);
  travik_list_append(&a, make(2));
  travik_list_append(&a, make(3));
  travik_list_append(&a, one);
  EXPECT_EQ(contents(&a), (std::vector<int>{2, 3, 1}));
  EXPECT_EQ(contents_backwards(&a), (std::vector<int>{1, 3, 2}));
  EXPECT_EQ(a.count, 3);
}

TEST_F(List, AppendTakesTheItemOffItsOldList) {
  int *one = make(1);
  travik_list_append(&a, one);
  travik_list_append(&a, make(2));
  travik_list_append(&b, one);
  EXPECT_EQ(contents(&a), (std::vector<int>{2}));
  EXPECT_EQ(contents(&b), (std::vector<int>{1}));
  EXPECT_EQ(travik_list_hasitem(&b, one), 1);
  EXPECT_EQ(travik_list_hasitem(&a, one), 0);
}

TEST_F(List, RemoveFirstMiddleLast) {
  int *one = make(1), *two = make(2), *three = make(3);
  travik_list_append(&a, one);
  travik_list_append(&a, two);
  travik_list_append(&a, three);
  travik_list_remove(&a, two);
  EXPECT_EQ(contents(&a), (std::vector<int>{1, 3}));
  EXPECT_EQ(contents_backwards(&a), (std::vector<int>{3, 1}));
  travik_list_remove(&a, one);
  EXPECT_EQ(a.first, three);
  travik_list_remove(&a, three);
  EXPECT_EQ(a.first, nullptr);
  EXPECT_EQ(a.last, nullptr);
  EXPECT_EQ(a.count, 0);
  travik_listitem_free(one);
  travik_listitem_free(two);
  travik_listitem_free(three);
}

TEST_F(List, RemoveLeavesTheItemsOwnLinks) {
  int *one = make(1), *two = make(2), *three = make(3);
  travik_list_append(&a, one);
  travik_list_append(&a, two);
  travik_list_append(&a, three);
  travik_list_remove(&a, two);
  // Only the owning list is cleared; the item still points at its old neighbours.
  EXPECT_EQ(travik_listitem_getnext(two), three);
  EXPECT_EQ(travik_listitem_getprev(two), one);
  EXPECT_EQ(travik_list_hasitem(&a, two), 0);
  travik_listitem_free(two);
}

TEST_F(List, RemovingAnItemOfAnotherListWarnsAndChangesNothing) {
  int *one = make(1);
  travik_list_append(&a, one);
  travik_list_append(&b, make(2));
  travik_test::StderrCapture capture;
  travik_list_remove(&b, one);
  EXPECT_EQ(capture.text(), kRemoveWarning);
  EXPECT_EQ(contents(&a), (std::vector<int>{1}));
  EXPECT_EQ(contents(&b), (std::vector<int>{2}));
  EXPECT_EQ(a.count, 1);
  EXPECT_EQ(b.count, 1);
}

TEST_F(List, RemovingAnItemOnNoListWarns) {
  int *loose = make(1);
  travik_test::StderrCapture capture;
  travik_list_remove(&a, loose);
  EXPECT_EQ(capture.text(), kRemoveWarning);
  EXPECT_EQ(a.count, 0);
  travik_listitem_free(loose);
}

TEST_F(List, PopTakesTheFirst) {
  travik_list_append(&a, make(1));
  travik_list_append(&a, make(2));
  int *first = static_cast<int *>(travik_list_pop(&a));
  EXPECT_EQ(*first, 1);
  EXPECT_EQ(travik_list_hasitem(&a, first), 0);
  EXPECT_EQ(a.count, 1);
  travik_listitem_free(first);
}

TEST_F(List, ItemFreeRemovesFromItsList) {
  int *one = make(1);
  travik_list_append(&a, one);
  travik_list_append(&a, make(2));
  travik_listitem_free(one);
  EXPECT_EQ(contents(&a), (std::vector<int>{2}));
  int *two = static_cast<int *>(a.first);
  travik_listitem_free_lock(two);
  EXPECT_EQ(a.count, 0);
  EXPECT_EQ(a.first, nullptr);
}

TEST_F(List, ClearFreesEverything) {
  for (int i = 0; i < 10; i++) travik_list_append(&a, make(i));
  travik_list_clear(&a);
  EXPECT_EQ(a.first, nullptr);
  EXPECT_EQ(a.last, nullptr);
  EXPECT_EQ(a.count, 0);
  // Destroy afterwards (in TearDown) is safe, and the list stays usable.
  travik_list_append(&a, make(5));
  EXPECT_EQ(contents(&a), (std::vector<int>{5}));
}

TEST_F(List, MoveKeepsOrderAndEmptiesTheSource) {
  travik_list_append(&a, make(1));
  travik_list_append(&b, make(2));
  travik_list_append(&b, make(3));
  travik_list_move(&a, &b);
  EXPECT_EQ(contents(&a), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(b.count, 0);
  EXPECT_EQ(b.first, nullptr);
  EXPECT_EQ(b.last, nullptr);
  EXPECT_EQ(a.count, 3);
}

TEST_F(List, MoveFromEmptyIsANoOp) {
  travik_list_append(&a, make(1));
  travik_list_move(&a, &b);
  EXPECT_EQ(contents(&a), (std::vector<int>{1}));
  EXPECT_EQ(b.count, 0);
}

TEST_F(List, LockedInsertionsMoveBetweenLists) {
  int *one = make(1);
  travik_list_append_lock(&a, one);
  travik_list_append_lock(&a, make(2));
  EXPECT_EQ(travik_list_prepend_lock(&b, one), 0);
  EXPECT_EQ(contents(&a), (std::vector<int>{2}));
  EXPECT_EQ(contents(&b), (std::vector<int>{1}));
  // Within the same list, with a non-recursive mutex.
  int *three = make(3);
  travik_list_append_lock(&b, three);
  travik_list_prepend_lock(&b, three);
  EXPECT_EQ(contents(&b), (std::vector<int>{3, 1}));
}

TEST_F(List, PopLockReturnsWhatIsQueuedWithoutWaiting) {
  travik_list_append_lock(&a, make(4));
  int *item = static_cast<int *>(travik_list_pop_lock(&a));
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(*item, 4);
  travik_listitem_free(item);
}

TEST_F(List, PopLockOnEmptyReturnsNullAfterCancel) {
  std::atomic<bool> done{false};
  void *result = reinterpret_cast<void *>(1);
  std::thread popper([&] {
    result = travik_list_pop_lock(&a);
    done = true;
  });
  // Keep cancelling until the popper has woken: a cancel with no waiter is lost.
  long long start = travik_test::now_ms();
  while (!done && travik_test::now_ms() - start < 10000) {
    travik_list_cancel_lock(&a);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  popper.join();
  EXPECT_TRUE(done);
  EXPECT_EQ(result, nullptr);
}

TEST_F(List, PopLockReturnsAnItemAppendedByAnotherThread) {
  std::atomic<bool> started{false};
  void *result = nullptr;
  std::thread popper([&] {
    started = true;
    // Woken without an item only by a spurious wake-up; retry a bounded number of times.
    for (int tries = 0; tries < 100 && !result; tries++) result = travik_list_pop_lock(&a);
  });
  while (!started) std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  int *item = make(9);
  travik_list_append_lock(&a, item);
  popper.join();
  EXPECT_EQ(result, item);
  EXPECT_EQ(a.count, 0);
  travik_listitem_free(item);
}

TEST_F(List, CancelWithoutWaiterIsLost) {
  travik_list_cancel_lock(&a);
  // A later pop still blocks until an item arrives.
  std::atomic<bool> done{false};
  void *result = nullptr;
  std::thread popper([&] {
    result = travik_list_pop_lock(&a);
    done = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(done);
  int *item = make(1);
  travik_list_append_lock(&a, item);
  popper.join();
  EXPECT_EQ(result, item);
  travik_listitem_free(item);
}

TEST_F(List, WaitLockReportsItems) {
  travik_list_append_lock(&a, make(1));
  EXPECT_EQ(travik_list_wait_lock(&a), 1);
  EXPECT_EQ(a.count, 1);  // nothing removed
  std::atomic<int> result{-1};
  std::thread waiter([&] { result = travik_list_wait_lock(&b); });
  long long start = travik_test::now_ms();
  while (result == -1 && travik_test::now_ms() - start < 10000) {
    travik_list_cancel_lock(&b);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  waiter.join();
  EXPECT_EQ(result, 0);
}

TEST_F(List, OneSignalReleasesOneOfSeveralWaiters) {
  std::atomic<int> woken{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; i++) {
    waiters.emplace_back([&] {
      travik_list_wait_lock(&a);
      woken++;
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  travik_list_cancel_lock(&a);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  // Spurious wake-ups are allowed but rare; one cancel must not wake everybody.
  EXPECT_GE(woken.load(), 1);
  EXPECT_LT(woken.load(), 3);
  long long start = travik_test::now_ms();
  while (woken < 3 && travik_test::now_ms() - start < 10000) {
    travik_list_cancel_lock(&a);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  for (auto &t : waiters) t.join();
  EXPECT_EQ(woken, 3);
}

TEST_F(List, ConcurrentProducersAndConsumers) {
  constexpr int kPerProducer = 2000;
  std::atomic<int> consumed{0};
  std::atomic<long long> sum{0};
  std::atomic<bool> stop{false};
  std::atomic<int> exited{0};
  std::vector<std::thread> threads;
  for (int p = 0; p < 2; p++) {
    threads.emplace_back([&] {
      for (int i = 1; i <= kPerProducer; i++) travik_list_append_lock(&a, make(i));
    });
  }
  for (int c = 0; c < 2; c++) {
    threads.emplace_back([&] {
      while (!stop) {
        int *item = static_cast<int *>(travik_list_pop_lock(&a));
        if (!item) continue;
        sum += *item;
        consumed++;
        travik_listitem_free(item);
      }
      exited++;
    });
  }
  long long start = travik_test::now_ms();
  while (consumed < 2 * kPerProducer && travik_test::now_ms() - start < 30000) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  stop = true;
  // A cancel that comes while nobody waits is lost: keep cancelling until
  // both consumers have seen the stop flag.
  while (exited < 2 && travik_test::now_ms() - start < 40000) {
    travik_list_cancel_lock(&a);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  for (auto &t : threads) t.join();
  EXPECT_EQ(consumed, 2 * kPerProducer);
  EXPECT_EQ(sum, 2LL * kPerProducer * (kPerProducer + 1) / 2);
  EXPECT_EQ(a.count, 0);
}

TEST_F(List, ConcurrentMovesBetweenTwoListsDoNotDeadlock) {
  constexpr int kItems = 50;
  for (int i = 0; i < kItems; i++) travik_list_append_lock(&a, make(i));
  std::vector<void *> items;
  for (void *item = a.first; item; item = travik_listitem_getnext(item)) items.push_back(item);
  // Each thread owns half of the items and moves them back and forth.
  auto mover = [&](size_t begin) {
    for (int round = 0; round < 200; round++) {
      for (size_t i = begin; i < items.size(); i += 2) {
        travik_list_append_lock(round % 2 ? &a : &b, items[i]);
      }
    }
  };
  std::thread t1(mover, 0), t2(mover, 1);
  t1.join();
  t2.join();
  EXPECT_EQ(a.count + b.count, kItems);
  EXPECT_EQ(static_cast<int>(contents(&a).size()), a.count);
  EXPECT_EQ(static_cast<int>(contents(&b).size()), b.count);
}

}  // namespace
