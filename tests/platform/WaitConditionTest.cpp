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
// wait() (the mutex is released only there). wakeOne must leave the others to their own time-out;
// wakeAll releases untimed waiters.
TEST(kxWaitConditionTest, WakeOneWakesExactlyOneWaiterAndWakeAllEveryOne) {
  for (const bool all : {false, true}) {
    kx::kxMutex mutex;
    kx::kxWaitCondition condition;
    int waiting = 0, woken = 0, n = all ? 4 : 3;
    std::vector<std::unique_ptr<kx::kxThread>> threads;
    for (int i = 0; i < n; ++i) {
      threads.push_back(std::make_unique<kx::kxThread>([&] {
        kx::kxMutexLocker locker(mutex);
        ++waiting;
        woken += all ? (condition.wait(mutex), true) : condition.wait(mutex, 400);
      }));
      ASSERT_TRUE(threads.back()->start());
    }
    for (kx::kxMutexLocker locker(mutex); waiting < n; locker.relock()) {
      locker.unlock();
      std::this_thread::yield();
    }
    all ? condition.wakeAll() : condition.wakeOne();
    for (auto& t : threads) ASSERT_TRUE(t->join(kLongMs));  // bounded well below the waiters' own time-out
    EXPECT_EQ(woken, all ? n : 1);
  }
}

// A producer/consumer ping-pong: a lost wake-up would stall the loop until the bounded wait fails.
TEST(kxWaitConditionTest, PingPongLosesNoWakeUp) {
  kx::kxMutex mutex;
  kx::kxWaitCondition condition;
  int turn = 0;
  std::atomic<bool> stalled{false};  // also read outside the lock, by the loop condition
  constexpr int kRounds = 2000;
  auto player = [&](int me) {
    for (int i = 0; i < kRounds && !stalled; ++i) {
      kx::kxMutexLocker locker(mutex);
      while (turn % 2 != me && !stalled) stalled = !condition.wait(mutex, kLongMs);
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
