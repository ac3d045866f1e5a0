#include <gtest/gtest.h>
#include <travik/thread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "base/timed_wait.h"
#include "util/testutil.h"

namespace {

// Records every body call; a body blocked in RUN waits on `gate` until a
// RESET call releases it, as a real worker blocked in a list wait would.
struct Recorder {
  std::mutex mutex;
  std::vector<int> codes;
  std::atomic<int> runs{0};
  std::atomic<int> pauses{0};
  std::atomic<int> resets{0};
  std::atomic<bool> block_in_run{false};
  std::atomic<bool> released{false};
  std::atomic<bool> hold_start{false};  // START waits while this is set
  std::atomic<bool> hold_pause{false};  // PAUSE waits while this is set
  std::atomic<bool> in_pause{false};    // a PAUSE call is under way

  void add(int code) {
    std::lock_guard<std::mutex> lock(mutex);
    codes.push_back(code);
  }
  std::vector<int> snapshot() {
    std::lock_guard<std::mutex> lock(mutex);
    return codes;
  }
};

int32_t body(void *arg, int32_t code) {
  auto *r = static_cast<Recorder *>(arg);
  r->add(code);
  switch (code) {
    case TRAVIK_THREAD_START: {
      long long start = travik_test::now_ms();
      while (r->hold_start && travik_test::now_ms() - start < 10000) travik_sleep(1);
      break;
    }
    case TRAVIK_THREAD_RUN:
      r->runs++;
      if (r->block_in_run) {
        long long start = travik_test::now_ms();
        while (!r->released && travik_test::now_ms() - start < 10000) travik_sleep(1);
        r->released = false;
      } else {
        travik_sleep(1);
      }
      break;
    case TRAVIK_THREAD_PAUSE: {
      r->pauses++;
      r->in_pause = true;
      long long start = travik_test::now_ms();
      while (r->hold_pause && travik_test::now_ms() - start < 10000) travik_sleep(1);
      r->in_pause = false;
      break;
    }
    case TRAVIK_THREAD_RESET:
      r->resets++;
      r->released = true;
      break;
  }
  return 0;
}

bool wait_for(const std::function<bool()> &condition, int ms = 10000) {
  long long start = travik_test::now_ms();
  while (!condition()) {
    if (travik_test::now_ms() - start > ms) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

TEST(Thread, CreateThenDestroyAtOnce) {
  Recorder r;
  travik_thread *t = travik_thread_create(body, &r);
  travik_thread_destroy(t);
  std::vector<int> codes = r.snapshot();
  ASSERT_GE(codes.size(), 3u);
  EXPECT_EQ(codes.front(), TRAVIK_THREAD_START);
  EXPECT_EQ(codes.back(), TRAVIK_THREAD_DESTROY);
  // Between them: wake-ups from the destroying thread and at most one pause
  // from the worker. The pause call runs outside the worker's lock, so it
  // may land after the first wake-up.
  int pauses = 0;
  for (size_t i = 1; i < codes.size() - 1; i++) {
    if (codes[i] == TRAVIK_THREAD_PAUSE) {
      pauses++;
    } else {
      EXPECT_EQ(codes[i], TRAVIK_THREAD_RESET) << "at " << i;
    }
  }
  EXPECT_LE(pauses, 1);
  EXPECT_GE(r.resets, 1);
  EXPECT_EQ(r.runs, 0);
}

TEST(Thread, StartsPaused) {
  Recorder r;
  travik_thread *t = travik_thread_create(body, &r);
  ASSERT_TRUE(wait_for([&] { return travik_thread_getstate(t) == TRAVIK_THREAD_STATE_PAUSED; }));
  ASSERT_TRUE(wait_for([&] { return r.pauses == 1; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(r.pauses, 1);  // a paused worker sleeps after one pause call
  EXPECT_EQ(r.runs, 0);
  travik_thread_destroy(t);
}

TEST(Thread, PlayOnAFreshThreadWaitsForTheAcknowledgement) {
  Recorder r;
  r.hold_start = true;  // keeps the worker from adopting its first request
  travik_thread *t = travik_thread_create(body, &r);
  // Taken before the releaser starts, so that its 50 ms all lie within the
  // measured time however late this thread runs again.
  long long start = travik_test::now_ms();
  std::thread releaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    r.hold_start = false;
  });
  EXPECT_EQ(travik_thread_getstate(t), TRAVIK_THREAD_STATE_NEW);
  EXPECT_EQ(travik_thread_play(t), 0);
  // The acknowledgement comes when the loop adopts the request.
  EXPECT_EQ(travik_thread_getstate(t), TRAVIK_THREAD_STATE_PLAYING);
  EXPECT_GE(travik_test::now_ms() - start, 45);
  releaser.join();
  EXPECT_TRUE(wait_for([&] { return r.runs > 3; }));
  travik_thread_destroy(t);
}

TEST(Thread, PlayOnAPausedThreadReturnsAtOnce) {
  Recorder r;
  travik_thread *t = travik_thread_create(body, &r);
  ASSERT_TRUE(wait_for([&] { return travik_thread_getstate(t) == TRAVIK_THREAD_STATE_PAUSED; }));
  EXPECT_EQ(travik_thread_play(t), 0);
  EXPECT_TRUE(wait_for([&] { return travik_thread_getstate(t) == TRAVIK_THREAD_STATE_PLAYING; }));
  EXPECT_TRUE(wait_for([&] { return r.runs > 0; }));
  travik_thread_destroy(t);
}

TEST(Thread, PlayOnAPausedThreadDoesNotWaitForTheWorker) {
  Recorder r;
  r.hold_pause = true;  // the worker stays inside its pause call
  travik_thread *t = travik_thread_create(body, &r);
  ASSERT_TRUE(wait_for([&] { return r.in_pause.load(); }));
  ASSERT_EQ(travik_thread_getstate(t), TRAVIK_THREAD_STATE_PAUSED);
  // The worker cannot adopt the request before its pause call returns, so a
  // play that waited for the acknowledgement would return only after that.
  EXPECT_EQ(travik_thread_play(t), 0);
  EXPECT_TRUE(r.in_pause);
  EXPECT_EQ(travik_thread_getstate(t), TRAVIK_THREAD_STATE_PAUSED);
  EXPECT_EQ(r.runs, 0);
  r.hold_pause = false;
  EXPECT_TRUE(wait_for([&] { return r.runs > 0; }));
  travik_thread_destroy(t);
}

TEST(Thread, PauseOnAPausedThreadPassesThroughPauseAgain) {
  Recorder r;
  travik_thread *t = travik_thread_create(body, &r);
  ASSERT_TRUE(wait_for([&] { return r.pauses == 1 && !r.in_pause; }));
  // The request is posted although the state is already paused: the loop
  // adopts it again and calls the body with the pause code once more.
  EXPECT_EQ(travik_thread_pause(t), 0);
  EXPECT_TRUE(wait_for([&] { return r.pauses == 2; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(r.pauses, 2);
  EXPECT_EQ(r.runs, 0);
  travik_thread_destroy(t);
}

TEST(Thread, PauseStopsRunning) {
  Recorder r;
  travik_thread *t = travik_thread_create(body, &r);
  travik_thread_play(t);
  ASSERT_TRUE(wait_for([&] { return r.runs > 2; }));
  int pauses = r.pauses;
  EXPECT_EQ(travik_thread_pause(t), 0);
  ASSERT_TRUE(wait_for([&] { return travik_thread_getstate(t) == TRAVIK_THREAD_STATE_PAUSED; }));
  ASSERT_TRUE(wait_for([&] { return r.pauses == pauses + 1; }));
  int runs = r.runs;
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(r.runs, runs);
  travik_thread_destroy(t);
}

TEST(Thread, ResetReturnsInStateResetAfterWakingTheBody) {
  Recorder r;
  r.block_in_run = true;
  travik_thread *t = travik_thread_create(body, &r);
  travik_thread_play(t);
  ASSERT_TRUE(wait_for([&] { return r.runs >= 1; }));
  EXPECT_EQ(travik_thread_reset(t), 0);
  EXPECT_EQ(travik_thread_getstate(t), TRAVIK_THREAD_STATE_RESET);
  EXPECT_GE(r.resets, 1);
  // A reset worker sleeps without calling its body.
  int runs = r.runs, pauses = r.pauses;
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(r.runs, runs);
  EXPECT_EQ(r.pauses, pauses);
  // Play from reset waits for the acknowledgement.
  r.block_in_run = false;
  travik_thread_play(t);
  EXPECT_EQ(travik_thread_getstate(t), TRAVIK_THREAD_STATE_PLAYING);
  travik_thread_destroy(t);
}

TEST(Thread, ResetOfAPausedThreadCallsTheBodyAtLeastOnce) {
  Recorder r;
  travik_thread *t = travik_thread_create(body, &r);
  ASSERT_TRUE(wait_for([&] { return travik_thread_getstate(t) == TRAVIK_THREAD_STATE_PAUSED; }));
  travik_thread_reset(t);
  EXPECT_EQ(travik_thread_getstate(t), TRAVIK_THREAD_STATE_RESET);
  EXPECT_GE(r.resets, 1);
  // Reset again while in reset still calls the body.
  int resets = r.resets;
  travik_thread_reset(t);
  EXPECT_GT(r.resets, resets);
  travik_thread_destroy(t);
}

TEST(Thread, DestroyEndsABlockedBody) {
  Recorder r;
  r.block_in_run = true;
  travik_thread *t = travik_thread_create(body, &r);
  travik_thread_play(t);
  ASSERT_TRUE(wait_for([&] { return r.runs >= 1; }));
  long long start = travik_test::now_ms();
  travik_thread_destroy(t);
  EXPECT_LT(travik_test::now_ms() - start, 5000);
  std::vector<int> codes = r.snapshot();
  EXPECT_EQ(codes.back(), TRAVIK_THREAD_DESTROY);
  EXPECT_EQ(std::count(codes.begin(), codes.end(), TRAVIK_THREAD_DESTROY), 1);
  EXPECT_EQ(std::count(codes.begin(), codes.end(), TRAVIK_THREAD_START), 1);
}

// Once the end is requested, nothing can be posted over it. The body posts
// from inside its destroy-time wake-up call, when request 5 is pending.
struct Reposter {
  travik_thread *thread = nullptr;
  std::atomic<int> wakeups{0};
};

int32_t reposting_body(void *arg, int32_t code) {
  auto *r = static_cast<Reposter *>(arg);
  if (code == TRAVIK_THREAD_RESET && r->thread && r->wakeups++ == 0) {
    travik_thread_pause(r->thread);
    travik_thread_play(r->thread);
  }
  return 0;
}

TEST(Thread, NothingOverridesAnEndRequest) {
  Reposter r;
  travik_thread *t = travik_thread_create(reposting_body, &r);
  r.thread = t;
  long long start = travik_test::now_ms();
  travik_thread_destroy(t);  // would never end if the posts replaced request 5
  EXPECT_LT(travik_test::now_ms() - start, 5000);
  EXPECT_GE(r.wakeups, 1);
}

// The same posts once the loop has already adopted the end request (and so
// cleared it): the wake-up waits for the worker to reach state 5 first. A
// play that waited for an acknowledgement, or a reset that waited for state
// 4, would never return.
struct LatePoster {
  travik_thread *thread = nullptr;
  std::atomic<int> wakeups{0};
  std::atomic<bool> saw_ending{false};
};

int32_t late_posting_body(void *arg, int32_t code) {
  auto *r = static_cast<LatePoster *>(arg);
  if (code == TRAVIK_THREAD_RESET && r->thread && r->wakeups++ == 0) {
    long long start = travik_test::now_ms();
    while (travik_thread_getstate(r->thread) != TRAVIK_THREAD_STATE_ENDING &&
           travik_test::now_ms() - start < 10000) {
      travik_sleep(1);
    }
    r->saw_ending = travik_thread_getstate(r->thread) == TRAVIK_THREAD_STATE_ENDING;
    travik_thread_pause(r->thread);
    travik_thread_play(r->thread);
    travik_thread_reset(r->thread);
  }
  return 0;
}

TEST(Thread, PostsAfterTheLoopEndedHaveNoEffect) {
  LatePoster r;
  travik_thread *t = travik_thread_create(late_posting_body, &r);
  r.thread = t;
  ASSERT_TRUE(wait_for([&] { return travik_thread_getstate(t) == TRAVIK_THREAD_STATE_PAUSED; }));
  long long start = travik_test::now_ms();
  travik_thread_destroy(t);
  EXPECT_LT(travik_test::now_ms() - start, 15000);
  EXPECT_TRUE(r.saw_ending);
  EXPECT_GE(r.wakeups, 2);  // the late reset still wakes the body once
}

TEST(Thread, CreateDestroyRaces) {
  for (int i = 0; i < 50; i++) {
    Recorder r;
    travik_thread *t = travik_thread_create(body, &r);
    if (i % 3 == 1) travik_thread_play(t);
    if (i % 3 == 2) travik_thread_pause(t);
    travik_thread_destroy(t);
    std::vector<int> codes = r.snapshot();
    ASSERT_FALSE(codes.empty());
    EXPECT_EQ(codes.front(), TRAVIK_THREAD_START);
    EXPECT_EQ(codes.back(), TRAVIK_THREAD_DESTROY);
  }
}

TEST(Thread, ManyOwnersDriveTheirOwnWorkers) {
  std::vector<std::thread> owners;
  std::atomic<int> ok{0};
  for (int o = 0; o < 4; o++) {
    owners.emplace_back([&] {
      Recorder r;
      travik_thread *t = travik_thread_create(body, &r);
      for (int i = 0; i < 10; i++) {
        travik_thread_play(t);
        travik_thread_pause(t);
        if (i % 4 == 0) travik_thread_reset(t);
      }
      travik_thread_destroy(t);
      if (r.snapshot().back() == TRAVIK_THREAD_DESTROY) ok++;
    });
  }
  for (auto &owner : owners) owner.join();
  EXPECT_EQ(ok, 4);
}

TEST(Sleep, SleepsTheWholeDuration) {
  long long start = travik_test::now_ms();
  EXPECT_EQ(travik_sleep(30), 0);
  EXPECT_GE(travik_test::now_ms() - start, 29);
}

TEST(Sleep, SplitsIntoSecondsAndMicroseconds) {
  long long start = travik_test::now_ms();
  travik_sleep(1500);
  long long elapsed = travik_test::now_ms() - start;
  EXPECT_GE(elapsed, 1499);
  EXPECT_LT(elapsed, 5000);
}

struct Checker {
  std::vector<long long> calls;
  long long start = 0;
  int answer_after = -1;  // return 0 from this call on (0-based); -1 never
};

int32_t check(void *arg) {
  auto *c = static_cast<Checker *>(arg);
  c->calls.push_back(travik_test::now_ms() - c->start);
  return c->answer_after >= 0 && static_cast<int>(c->calls.size()) > c->answer_after ? 0 : 1;
}

TEST(Sleep, CheckSlicesOf100Milliseconds) {
  Checker c;
  c.start = travik_test::now_ms();
  travik_sleep_check(250, check, &c);
  long long total = travik_test::now_ms() - c.start;
  // Slices of 100, 100 and about 50 ms: the check runs before each slice.
  // A loaded machine may oversleep a slice so much that fewer than 11 ms
  // remain after the second one; then the third slice is dropped.
  ASSERT_GE(c.calls.size(), 2u);
  ASSERT_LE(c.calls.size(), 3u);
  for (size_t i = 1; i < c.calls.size(); i++) EXPECT_GE(c.calls[i], 100 * static_cast<long long>(i) - 1);
  EXPECT_GE(total, 240);  // the remainder of 10 ms or less is not slept
  EXPECT_LT(total, 2000);
}

TEST(Sleep, CheckReturnsWhenTheCheckSaysStop) {
  Checker c;
  c.start = travik_test::now_ms();
  c.answer_after = 1;  // the second call stops
  travik_sleep_check(1000, check, &c);
  long long total = travik_test::now_ms() - c.start;
  EXPECT_EQ(c.calls.size(), 2u);
  EXPECT_GE(total, 99);
  EXPECT_LT(total, 900);
}

TEST(Sleep, CheckWithoutCheckFunctionOrDurationReturnsAtOnce) {
  long long start = travik_test::now_ms();
  travik_sleep_check(5000, nullptr, nullptr);
  EXPECT_LT(travik_test::now_ms() - start, 50);
  Checker c;
  travik_sleep_check(0, check, &c);
  EXPECT_TRUE(c.calls.empty());
  travik_sleep_check(-5, check, &c);
  EXPECT_TRUE(c.calls.empty());
}

TEST(Sleep, ShortCheckSleepIsSleptWhole) {
  Checker c;
  c.start = travik_test::now_ms();
  travik_sleep_check(60, check, &c);
  EXPECT_EQ(c.calls.size(), 1u);
  EXPECT_GE(travik_test::now_ms() - c.start, 59);
}

TEST(Sleep, RemainderOfTenMillisecondsIsNotSlept) {
  Checker c;
  c.start = travik_test::now_ms();
  travik_sleep_check(110, check, &c);
  // 100 ms slept; about 10 ms remain, which is not slept.
  EXPECT_EQ(c.calls.size(), 1u);
}

}  // namespace

// ---- condition waits on the monotonic clock ------------------------------

int64_t monotonic_ns(const struct timespec &t) {
  return static_cast<int64_t>(t.tv_sec) * 1000000000LL + t.tv_nsec;
}

int64_t monotonic_now_ns() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return monotonic_ns(now);
}

TEST(TimedWait, DeadlinesCarryIntoWholeSeconds) {
  for (int32_t ms : {0, 1, 999, 1000, 1500, 2999}) {
    SCOPED_TRACE(ms);
    const int64_t before = monotonic_now_ns();
    const struct timespec until = monotonic_deadline(ms);
    const int64_t after = monotonic_now_ns();
    EXPECT_GE(until.tv_nsec, 0);
    EXPECT_LT(until.tv_nsec, 1000000000L);
    EXPECT_GE(monotonic_ns(until), before + ms * 1000000LL);
    EXPECT_LE(monotonic_ns(until), after + ms * 1000000LL);
  }
}

TEST(TimedWait, AWaitWithoutSignalEndsAtTheDeadline) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t cond;
  monotonic_cond_init(&cond);
  const int64_t begin = monotonic_now_ns();
  const struct timespec until = monotonic_deadline(50);
  pthread_mutex_lock(&mutex);
  int result = 0;
  while (result == 0) result = pthread_cond_timedwait(&cond, &mutex, &until);
  pthread_mutex_unlock(&mutex);
  EXPECT_EQ(result, ETIMEDOUT);
  EXPECT_GE(monotonic_now_ns() - begin, 50000000LL);
  pthread_cond_destroy(&cond);
}
