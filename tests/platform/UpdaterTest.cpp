#include <kx/system/kxThread.h>
#include <kx/system/kxThreadPeriodicalUpdater.h>
#include <kx/system/kxTime.h>

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

struct Counter {
  std::atomic<int> calls{0};
  static void Tick(void* self) { ++static_cast<Counter*>(self)->calls; }
  bool reaches(int n) const {  // bounded, for things that should happen at once
    for (const int64_t end = kx::GetTimeBaseMs() + kLongMs; calls < n; std::this_thread::yield()) {
      if (kx::GetTimeBaseMs() > end) return false;
    }
    return true;
  }
};

TEST(kxThreadPeriodicalUpdaterTest, CallsEveryCallbackEachPeriod) {
  Counter a, b;  // declared first: they must outlive the updater's thread
  Updater updater(5ms);
  ASSERT_TRUE(updater.addCallback(&Counter::Tick, &a) && updater.addCallback(&Counter::Tick, &b));
  EXPECT_TRUE(a.reaches(3) && b.reaches(3));
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
  EXPECT_EQ(a.calls, 1);
  EXPECT_EQ(b.calls, 2);  // removing (Tick, &a) left (Tick, &b) alone
  EXPECT_EQ(updater.getPassCount(), 2u);
  updater.triggerNow();
  EXPECT_TRUE(b.reaches(3));
}  // and destruction does not wait for the hour-long period

// The callback of one slot records a violation when it runs after its remover declared it gone. It
// checks on entry and on exit, with some work between, so a call still running when its removal
// returned is caught too, not only a call started afterwards.
struct Slot {
  std::atomic<bool> removed{false};
  std::atomic<int> lateCalls{0};
  static void Tick(void* self) {
    auto* s = static_cast<Slot*>(self);
    const bool early = s->removed;
    for (int i = 0; i < 20; ++i) std::this_thread::yield();
    s->lateCalls += early + s->removed;
  }
};

TEST(kxThreadPeriodicalUpdaterTest, NeverCallsACallbackAfterItsRemovalReturned) {
  Updater updater(1ms);
  std::atomic<int> lateCalls{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 400; ++i) {
        auto slot = std::make_unique<Slot>();
        EXPECT_TRUE(updater.addCallback(&Slot::Tick, slot.get()));
        if (i % 8 == 0) updater.triggerNow();
        EXPECT_TRUE(updater.removeCallback(&Slot::Tick, slot.get()));
        slot->removed = true;
        // A late call would now read `removed` as true, or (after the reset) touch freed memory, which
        // AddressSanitizer reports.
        if (i % 2 == 0) updater.triggerNow();
        lateCalls += slot->lateCalls;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(lateCalls, 0);
}

TEST(kxThreadPeriodicalUpdaterTest, RemovalWaitsForTheRunningCall) {
  struct Blocking {
    std::atomic<bool> entered{false}, open{false}, finished{false};
    static void Tick(void* self) {
      auto* b = static_cast<Blocking*>(self);
      b->entered = true;
      while (!b->open) std::this_thread::yield();
      b->finished = true;
    }
  } blocking;
  Updater updater(3600);
  ASSERT_TRUE(updater.addCallback(&Blocking::Tick, &blocking));
  updater.triggerNow();
  while (!blocking.entered) std::this_thread::yield();
  bool finishedWhenRemoved = false;
  kx::kxThread remover([&] {
    updater.removeCallback(&Blocking::Tick, &blocking);
    finishedWhenRemoved = blocking.finished;
  });
  ASSERT_TRUE(remover.start());
  EXPECT_FALSE(remover.join(50));  // still blocked behind the running call
  blocking.open = true;
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
  ASSERT_TRUE(updater.runNowAndWait(kLongMs) && updater.runNowAndWait(kLongMs));
  EXPECT_EQ(s.calls, 1);
  EXPECT_TRUE(s.removedSelf && s.removedOther);
  EXPECT_EQ(other.calls, 0);  // removed earlier in the pass it was due in
  EXPECT_EQ(added.calls, 1);  // from the pass after the one that added it
}

}  // namespace
