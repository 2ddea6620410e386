#include <kx/system/kxLog.h>
#include <kx/system/kxMultithreadTemplateHolder.h>
#include <kx/system/kxMutexLocker.h>
#include <kx/system/kxThread.h>
#include <kx/system/kxWaitCondition.h>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr int64_t kLongMs = 10000;

// A thread body that blocks until released, so tests can observe the running state without sleeping.
struct Gate {
  kx::kxMutex mutex;
  kx::kxWaitCondition condition;
  bool entered = false, open = false;

  void pass(bool block = true) {
    kx::kxMutexLocker locker(mutex);
    entered = true;
    condition.wakeAll();
    while (block && !open) condition.wait(mutex);
  }
  bool waitEntered() {
    kx::kxMutexLocker locker(mutex);
    while (!entered) {
      if (!condition.wait(mutex, kLongMs)) return false;
    }
    return true;
  }
  void release() {
    kx::kxMutexLocker locker(mutex);
    open = true;
    condition.wakeAll();
  }
};

TEST(kxThreadTest, RunsTheFunctionAndReportsItsState) {
  Gate gate;
  kx::kxThread thread([&] { gate.pass(); });
  EXPECT_TRUE(thread.join());  // never started: nothing to wait for
  ASSERT_TRUE(thread.start());
  ASSERT_TRUE(gate.waitEntered());
  EXPECT_TRUE(thread.isRunning());
  EXPECT_FALSE(thread.start());   // already running
  EXPECT_FALSE(thread.join(10));  // times out while the body blocks
  gate.release();
  ASSERT_TRUE(thread.join(kLongMs));
  EXPECT_TRUE(thread.isFinished());
  gate.entered = false;
  ASSERT_TRUE(thread.start());  // a joined thread can run again
  ASSERT_TRUE(thread.join(kLongMs));
  EXPECT_TRUE(gate.entered);
}

TEST(kxThreadTest, SelfJoinFailsAndAnEscapingExceptionIsLogged) {
  kx::kxThread* self = nullptr;
  bool selfJoin = true, isCurrent = false;
  kx::kxThread thread([&] {
    selfJoin = self->join();
    isCurrent = self->isCurrentThread();
    throw std::runtime_error("boom");
  });
  self = &thread;
  std::string logged;
  kx::kxLog::setSink([&](const kx::kxLogRecord& r) {
    if (r.category == "kxSystem") logged = r.text;
  });
  ASSERT_TRUE(thread.start());
  ASSERT_TRUE(thread.join(kLongMs));
  kx::kxLog::setSink({});
  EXPECT_FALSE(selfJoin);  // instead of a deadlock
  EXPECT_TRUE(isCurrent);
  EXPECT_FALSE(thread.isCurrentThread());
  EXPECT_NE(logged.find("boom"), std::string::npos) << logged;
}

TEST(kxThreadTest, MayBeDestroyedFromItsOwnRun) {
  struct SelfDeleting : kx::kxThread {
    Gate* gate = nullptr;
    void run() override {
      Gate* g = gate;
      delete this;  // the thread ends afterwards without touching the freed object (ASan checks)
      g->pass(false);
    }
  };
  Gate gate;
  auto* thread = new SelfDeleting;
  thread->gate = &gate;
  ASSERT_TRUE(thread->start());
  EXPECT_TRUE(gate.waitEntered());
}

TEST(kxMutexLockerTest, UnlockAndRelockTrackTheMutex) {
  kx::kxMutex mutex;
  {
    kx::kxMutexLocker locker(mutex);
    EXPECT_FALSE(mutex.tryLock());
    locker.unlock();
    locker.unlock();  // harmless twice
    ASSERT_TRUE(mutex.tryLock());
    mutex.unlock();
    locker.relock();
    EXPECT_TRUE(locker.isLocked());
  }
  EXPECT_TRUE(mutex.tryLock());  // released by the destructor
  mutex.unlock();
  {
    kx::kxMutexLocker locker(mutex);
    locker.unlock();
  }  // must not unlock a second time
  EXPECT_TRUE(mutex.tryLock());
  mutex.unlock();
}

using Holder = kx::kxMultithreadTemplateHolder<std::string>;

TEST(kxMultithreadTemplateHolderTest, EveryChangeAndOnlyAChangeMovesTheVersion) {
  Holder holder("a");
  std::string local = "stale";
  uint64_t seen = 0;
  EXPECT_FALSE(holder.getIfChanged(local, seen));  // version 0 is current
  EXPECT_EQ(holder.set("b"), 1u);
  EXPECT_EQ(holder.update([](std::string& s) { s += "c"; }), 2u);          // void: always a change
  EXPECT_EQ(holder.update([](std::string& s) { return s == "x"; }), 2u);  // false: untouched
  EXPECT_TRUE(holder.getIfChanged(local, seen));
  EXPECT_EQ(local, "bc");
  EXPECT_EQ(seen, 2u);
  EXPECT_FALSE(holder.getIfChanged(local, seen));
}

TEST(kxMultithreadTemplateHolderTest, ConcurrentUpdatesAreNeitherLostNorTorn) {
  Holder holder;
  constexpr int kThreads = 4, kRounds = 2000;
  std::vector<std::unique_ptr<kx::kxThread>> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.push_back(std::make_unique<kx::kxThread>([&holder, t] {
      std::string seen;
      uint64_t version = 0;
      for (int i = 0; i < kRounds; ++i) {
        holder.update([t](std::string& s) { s.push_back(static_cast<char>('a' + t)); });
        holder.getIfChanged(seen, version);
        ASSERT_EQ(seen.size(), version);  // a copy always matches the version it came with
      }
    }));
    ASSERT_TRUE(threads.back()->start());
  }
  for (auto& t : threads) ASSERT_TRUE(t->join());
  EXPECT_EQ(holder.getVersion(), uint64_t{kThreads} * kRounds);
  EXPECT_EQ(holder.get().size(), size_t{kThreads} * kRounds);
}

}  // namespace
