#include <kx/system/kxMutexLocker.h>
#include <kx/system/kxThread.h>
#include <kx/system/kxThreadPeriodicalUpdater.h>
#include <kx/system/kxWaitCondition.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Updater = kx::kxThreadPeriodicalUpdater;
constexpr int64_t kLongMs = 10000;

// A callback target that counts its calls and lets a test wait for a given count.
struct Counter {
  kx::kxMutex mutex;
  kx::kxWaitCondition condition;
  int calls = 0;

  static void Tick(void* self) {
    auto* c = static_cast<Counter*>(self);
    kx::kxMutexLocker locker(c->mutex);
    ++c->calls;
    c->condition.wakeAll();
  }
  bool waitFor(int n) {
    kx::kxMutexLocker locker(mutex);
    while (calls < n) {
      if (!condition.wait(mutex, kLongMs)) return false;
    }
    return true;
  }
  int get() {
    kx::kxMutexLocker locker(mutex);
    return calls;
  }
};

TEST(kxThreadPeriodicalUpdaterTest, CallsEveryCallbackEachPeriod) {
  Counter a, b;  // declared first: they must outlive the updater's thread
  Updater updater(5ms);
  ASSERT_TRUE(updater.addCallback(&Counter::Tick, &a));
  ASSERT_TRUE(updater.addCallback(&Counter::Tick, &b));
  EXPECT_TRUE(a.waitFor(3));
  EXPECT_TRUE(b.waitFor(3));
  EXPECT_TRUE(updater.removeCallback(&Counter::Tick, &a));
  EXPECT_TRUE(updater.removeCallback(&Counter::Tick, &b));
}

TEST(kxThreadPeriodicalUpdaterTest, RegistrationIsByPairAndRunNowDoesNotWaitForThePeriod) {
  Counter a, b;
  Updater updater(3600);
  EXPECT_EQ(updater.getPeriodMs(), 3600000);
  EXPECT_FALSE(updater.addCallback(nullptr, &a));
  EXPECT_TRUE(updater.addCallback(&Counter::Tick, &a));
  EXPECT_FALSE(updater.addCallback(&Counter::Tick, &a));
  EXPECT_TRUE(updater.addCallback(&Counter::Tick, &b));
  ASSERT_TRUE(updater.runNowAndWait(kLongMs));
  EXPECT_TRUE(updater.removeCallback(&Counter::Tick, &a));
  EXPECT_FALSE(updater.removeCallback(&Counter::Tick, &a));
  ASSERT_TRUE(updater.runNowAndWait(kLongMs));
  EXPECT_EQ(a.get(), 1);
  EXPECT_EQ(b.get(), 2);  // removing (Tick, &a) left (Tick, &b) alone
  EXPECT_EQ(updater.getPassCount(), 2u);
  updater.triggerNow();
  EXPECT_TRUE(b.waitFor(3));
}  // and destruction does not wait for the hour-long period

// The callback of one slot records a violation when it runs after its remover declared it gone.
struct Slot {
  std::atomic<bool> removed{false};
  std::atomic<int> lateCalls{0};
  // Checks on entry and on exit, with some work between, so a call still running when its removal
  // returned is caught too, not only a call started afterwards.
  static void Tick(void* self) {
    auto* s = static_cast<Slot*>(self);
    if (s->removed.load()) ++s->lateCalls;
    for (int i = 0; i < 20; ++i) std::this_thread::yield();
    if (s->removed.load()) ++s->lateCalls;
  }
};

TEST(kxThreadPeriodicalUpdaterTest, NeverCallsACallbackAfterItsRemovalReturned) {
  Updater updater(1ms);
  constexpr int kThreads = 4;
  constexpr int kRounds = 400;
  std::vector<std::unique_ptr<kx::kxThread>> threads;
  std::atomic<int> lateCalls{0};
  for (int t = 0; t < kThreads; ++t) {
    threads.push_back(std::make_unique<kx::kxThread>([&] {
      for (int i = 0; i < kRounds; ++i) {
        auto slot = std::make_unique<Slot>();
        EXPECT_TRUE(updater.addCallback(&Slot::Tick, slot.get()));
        if (i % 8 == 0) updater.triggerNow();
        EXPECT_TRUE(updater.removeCallback(&Slot::Tick, slot.get()));
        slot->removed = true;
        // A late call would now read `removed` as true, or (after the reset) touch freed memory, which
        // AddressSanitizer reports.
        if (i % 2 == 0) updater.triggerNow();
        lateCalls += slot->lateCalls;
        slot.reset();
      }
    }));
    ASSERT_TRUE(threads.back()->start());
  }
  for (auto& t : threads) ASSERT_TRUE(t->join(kLongMs * 6));
  EXPECT_EQ(lateCalls, 0);
}

TEST(kxThreadPeriodicalUpdaterTest, RemovalWaitsForTheRunningCall) {
  struct Blocking {
    kx::kxMutex mutex;
    kx::kxWaitCondition condition;
    bool entered = false, open = false, finished = false;
    static void Tick(void* self) {
      auto* b = static_cast<Blocking*>(self);
      kx::kxMutexLocker locker(b->mutex);
      b->entered = true;
      b->condition.wakeAll();
      while (!b->open) b->condition.wait(b->mutex);
      b->finished = true;
    }
  } blocking;
  Updater updater(3600);
  ASSERT_TRUE(updater.addCallback(&Blocking::Tick, &blocking));
  updater.triggerNow();
  {
    kx::kxMutexLocker locker(blocking.mutex);
    while (!blocking.entered) ASSERT_TRUE(blocking.condition.wait(blocking.mutex, kLongMs));
  }
  std::atomic<bool> removed{false};
  bool finishedWhenRemoved = false;
  kx::kxThread remover([&] {
    updater.removeCallback(&Blocking::Tick, &blocking);
    removed = true;
    kx::kxMutexLocker locker(blocking.mutex);
    finishedWhenRemoved = blocking.finished;
  });
  ASSERT_TRUE(remover.start());
  EXPECT_FALSE(remover.join(50));  // still blocked behind the running call
  EXPECT_FALSE(removed);
  {
    kx::kxMutexLocker locker(blocking.mutex);
    blocking.open = true;
    blocking.condition.wakeAll();
  }
  ASSERT_TRUE(remover.join(kLongMs));
  EXPECT_TRUE(finishedWhenRemoved);
}

struct SelfRemoving {
  Updater* updater = nullptr;
  Counter *other = nullptr, *added = nullptr;
  std::atomic<int> calls{0};
  bool removedSelf = false, removedOther = false;
  static void Tick(void* self) {
    auto* s = static_cast<SelfRemoving*>(self);
    ++s->calls;
    s->removedSelf = s->updater->removeCallback(&SelfRemoving::Tick, s);
    s->removedOther = s->updater->removeCallback(&Counter::Tick, s->other);
    s->updater->addCallback(&Counter::Tick, s->added);  // adding from a callback is fine too
  }
};

TEST(kxThreadPeriodicalUpdaterTest, CallbackMayRemoveItselfAndOthersWithoutDeadlock) {
  Counter other, added;
  Updater updater(3600);
  SelfRemoving s{&updater, &other, &added};
  ASSERT_TRUE(updater.addCallback(&SelfRemoving::Tick, &s));
  ASSERT_TRUE(updater.addCallback(&Counter::Tick, &other));  // after s in the same pass
  ASSERT_TRUE(updater.runNowAndWait(kLongMs));
  ASSERT_TRUE(updater.runNowAndWait(kLongMs));
  EXPECT_EQ(s.calls, 1);
  EXPECT_TRUE(s.removedSelf);
  EXPECT_TRUE(s.removedOther);
  EXPECT_EQ(other.get(), 0);  // removed earlier in the pass it was due in
  EXPECT_EQ(added.get(), 1);  // from the pass after the one that added it
  EXPECT_TRUE(updater.removeCallback(&Counter::Tick, &added));
}

}  // namespace
