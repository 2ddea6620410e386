#include <kx/system/kxMutexLocker.h>
#include <kx/system/kxThread.h>
#include <kx/system/kxTime.h>
#include <kx/system/kxWaitCondition.h>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace {

constexpr int64_t kLongMs = 10000;  // bound for things that should happen at once

TEST(kxWaitConditionTest, TimedWaitTimesOutWithTheMutexHeldAgainAndKeepsNoEarlyWake) {
  kx::kxMutex mutex;
  kx::kxWaitCondition condition;
  condition.wakeOne();  // nobody waits yet: not kept
  condition.wakeAll();
  kx::kxMutexLocker locker(mutex);
  const int64_t start = kx::GetTimeBaseMs();
  EXPECT_FALSE(condition.wait(mutex, 30));
  EXPECT_GE(kx::GetTimeBaseMs() - start, 30);
  EXPECT_FALSE(mutex.tryLock());  // still ours
  EXPECT_FALSE(condition.wait(mutex, -5));
}

// Waiters announce themselves under the mutex, so once `waiting` reaches n every one of them is inside
// wait() (the mutex is released only there).
struct Waiters {
  kx::kxMutex mutex;
  kx::kxWaitCondition condition;
  int waiting = 0;
  std::atomic<int> woken{0}, timedOut{0};
  std::vector<std::unique_ptr<kx::kxThread>> threads;

  void start(int n, int64_t timeoutMs) {
    for (int i = 0; i < n; ++i) {
      threads.push_back(std::make_unique<kx::kxThread>([this, timeoutMs] {
        kx::kxMutexLocker locker(mutex);
        ++waiting;
        (condition.wait(mutex, timeoutMs) ? woken : timedOut)++;
      }));
      ASSERT_TRUE(threads.back()->start());
    }
    for (;;) {
      kx::kxMutexLocker locker(mutex);
      if (waiting == n) break;
      locker.unlock();
      std::this_thread::yield();
    }
  }
  void joinAll() {
    for (auto& t : threads) ASSERT_TRUE(t->join(kLongMs));
  }
};

TEST(kxWaitConditionTest, WakeOneWakesExactlyOneWaiter) {
  Waiters w;
  w.start(3, 400);
  w.condition.wakeOne();
  w.joinAll();
  EXPECT_EQ(w.woken, 1);
  EXPECT_EQ(w.timedOut, 2);
}

TEST(kxWaitConditionTest, WakeAllWakesEveryWaiter) {
  Waiters w;
  w.start(4, 60000);
  w.condition.wakeAll();
  w.joinAll();  // bounded well below the waiters' own time-out
  EXPECT_EQ(w.woken, 4);
}

// A producer/consumer ping-pong: a lost wake-up would stall the loop until the bounded wait fails.
TEST(kxWaitConditionTest, PingPongLosesNoWakeUp) {
  kx::kxMutex mutex;
  kx::kxWaitCondition condition;
  int turn = 0;
  bool stalled = false;
  constexpr int kRounds = 2000;
  auto player = [&](int me) {
    for (int i = 0; i < kRounds; ++i) {
      kx::kxMutexLocker locker(mutex);
      while (turn % 2 != me) {
        if (!condition.wait(mutex, kLongMs)) {
          stalled = true;
          return;
        }
      }
      ++turn;
      condition.wakeAll();
    }
  };
  kx::kxThread other([&] { player(1); });
  ASSERT_TRUE(other.start());
  player(0);
  ASSERT_TRUE(other.join(kLongMs * 2));
  EXPECT_FALSE(stalled);
  EXPECT_EQ(turn, 2 * kRounds);
}

}  // namespace
