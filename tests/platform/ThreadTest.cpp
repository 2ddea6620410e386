#include <kx/system/kxLog.h>
#include <kx/system/kxMutexLocker.h>
#include <kx/system/kxThread.h>
#include <kx/system/kxWaitCondition.h>

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>

namespace {

constexpr int64_t kLongMs = 10000;

// A thread body that blocks until released, so tests can observe the running state without sleeping.
struct Gate {
  kx::kxMutex mutex;
  kx::kxWaitCondition condition;
  bool entered = false;
  bool open = false;

  void pass() {
    kx::kxMutexLocker locker(mutex);
    entered = true;
    condition.wakeAll();
    while (!open) condition.wait(mutex);
  }
  void signal() {
    kx::kxMutexLocker locker(mutex);
    entered = true;
    condition.wakeAll();
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
  EXPECT_FALSE(thread.isRunning());
  EXPECT_TRUE(thread.join());  // never started: nothing to wait for
  ASSERT_TRUE(thread.start());
  ASSERT_TRUE(gate.waitEntered());
  EXPECT_TRUE(thread.isRunning());
  EXPECT_FALSE(thread.start());  // already running
  EXPECT_FALSE(thread.join(10));  // times out while the body blocks
  gate.release();
  ASSERT_TRUE(thread.join(kLongMs));
  EXPECT_FALSE(thread.isRunning());
  EXPECT_TRUE(thread.isFinished());
}

TEST(kxThreadTest, DerivedRunIsCalledAndCanBeRestartedAfterJoin) {
  struct Counter : kx::kxThread {
    ~Counter() override { join(); }
    std::atomic<int> runs{0};
    void run() override { ++runs; }
  } counter;
  for (int i = 1; i <= 3; ++i) {
    ASSERT_TRUE(counter.start());
    ASSERT_TRUE(counter.join(kLongMs));
    EXPECT_EQ(counter.runs, i);
  }
}

TEST(kxThreadTest, JoinFromTheThreadItselfFailsInsteadOfDeadlocking) {
  kx::kxThread* self = nullptr;
  bool selfJoin = true;
  bool isCurrent = false;
  kx::kxThread thread([&] {
    selfJoin = self->join();
    isCurrent = self->isCurrentThread();
  });
  self = &thread;
  ASSERT_TRUE(thread.start());
  ASSERT_TRUE(thread.join(kLongMs));
  EXPECT_FALSE(selfJoin);
  EXPECT_TRUE(isCurrent);
  EXPECT_FALSE(thread.isCurrentThread());
}

TEST(kxThreadTest, AnEscapingExceptionIsLoggedNotFatal) {
  std::string logged;
  kx::kxLog::setSink([&](const kx::kxLogRecord& r) {
    if (r.category == "kxSystem") logged = r.text;
  });
  kx::kxThread thread([] { throw std::runtime_error("boom"); });
  ASSERT_TRUE(thread.start());
  ASSERT_TRUE(thread.join(kLongMs));
  kx::kxLog::setSink({});
  EXPECT_TRUE(thread.isFinished());
  EXPECT_NE(logged.find("boom"), std::string::npos) << logged;
}

TEST(kxThreadTest, MayBeDestroyedFromItsOwnRun) {
  struct SelfDeleting : kx::kxThread {
    Gate* gate = nullptr;
    void run() override {
      Gate* g = gate;
      delete this;  // the thread ends afterwards without touching the freed object (ASan checks)
      g->signal();
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
    EXPECT_FALSE(locker.isLocked());
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

}  // namespace
