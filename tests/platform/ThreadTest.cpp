#include <kx/system/kxLog.h>
#include <kx/system/kxMultithreadTemplateHolder.h>
#include <kx/system/kxThread.h>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int64_t kLongMs = 10000;

TEST(kxThreadTest, RunsTheFunctionAgainAfterAJoinAndReportsItsState) {
  std::atomic<int> runs{0};
  std::atomic<bool> open{false};
  kx::kxThread thread([&] {
    ++runs;
    while (!open) std::this_thread::yield();
  });
  EXPECT_TRUE(thread.join());  // never started: nothing to wait for
  ASSERT_TRUE(thread.start());
  while (runs == 0) std::this_thread::yield();
  EXPECT_TRUE(thread.isRunning());
  EXPECT_FALSE(thread.start());   // already running
  EXPECT_FALSE(thread.join(10));  // times out while the body blocks
  open = true;
  ASSERT_TRUE(thread.join(kLongMs));
  EXPECT_TRUE(thread.isFinished());
  ASSERT_TRUE(thread.start() && thread.join());
  EXPECT_EQ(runs, 2);
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
  kx::kxLog::setSink([&](const kx::kxLogRecord& r) { logged += r.category == "kxSystem" ? r.text : ""; });
  ASSERT_TRUE(thread.start() && thread.join(kLongMs));
  kx::kxLog::setSink({});
  EXPECT_FALSE(selfJoin);  // instead of a deadlock
  EXPECT_TRUE(isCurrent);
  EXPECT_FALSE(thread.isCurrentThread());
  EXPECT_NE(logged.find("boom"), std::string::npos) << logged;
}

TEST(kxThreadTest, MayBeDestroyedFromItsOwnRun) {
  struct SelfDeleting : kx::kxThread {
    std::atomic<bool>* done = nullptr;
    void run() override {
      std::atomic<bool>* d = done;
      delete this;  // the thread ends afterwards without touching the freed object (ASan checks)
      *d = true;
    }
  };
  std::atomic<bool> done{false};
  auto* thread = new SelfDeleting;
  thread->done = &done;
  ASSERT_TRUE(thread->start());
  while (!done) std::this_thread::yield();
}

using Holder = kx::kxMultithreadTemplateHolder<std::string>;

TEST(kxMultithreadTemplateHolderTest, ConcurrentUpdatesAreNeitherLostNorTorn) {
  Holder holder;
  constexpr int kThreads = 4, kRounds = 2000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&holder, t] {
      std::string seen;
      uint64_t version = 0;
      for (int i = 0; i < kRounds; ++i) {
        holder.update([t](std::string& s) { s.push_back(static_cast<char>('a' + t)); });
        holder.getIfChanged(seen, version);
        ASSERT_EQ(seen.size(), version);  // a copy always matches the version it came with
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(holder.getVersion(), uint64_t{kThreads} * kRounds);
  EXPECT_EQ(holder.get().size(), size_t{kThreads} * kRounds);
}

}  // namespace
