#include <kx/system/kxLog.h>

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

namespace {

class LogTest : public testing::Test {
 protected:
  void SetUp() override {
    kx::kxLog::setSink([this](const kx::kxLogRecord& r) {
      std::lock_guard<std::mutex> lock(mutex_);
      records_.push_back(r);
    });
  }
  void TearDown() override {
    kx::kxLog::setSink({});
    kx::kxLog::setEnabled(true);
  }
  std::mutex mutex_;
  std::vector<kx::kxLogRecord> records_;
};

TEST_F(LogTest, RecordCarriesTypeLevelCategoryTextAndThread) {
  kx::kxLog::log(5, "http", "boom");
  ASSERT_EQ(records_.size(), 1u);
  EXPECT_EQ(records_[0].type, 5);
  EXPECT_EQ(records_[0].level, kx::kxLogLevel::Error);
  EXPECT_EQ(records_[0].category, "http");
  EXPECT_EQ(records_[0].text, "boom");
  EXPECT_EQ(records_[0].threadId, kx::kxLog::currentThreadId());
  EXPECT_GT(records_[0].timeMsSinceEpoch, 1600000000000LL);
  EXPECT_EQ(kx::kxLogLevelOf(4), kx::kxLogLevel::Warning);
  EXPECT_EQ(kx::kxLogLevelOf(6), kx::kxLogLevel::Information);
  EXPECT_EQ(kx::kxLogLevelOf(42), kx::kxLogLevel::Debug);
  kx::kxLog::setEnabled(false);
  kx::kxLog::log(5, "url", "dropped");
  EXPECT_EQ(records_.size(), 1u);
}

TEST_F(LogTest, SinkCanBeReplacedWhileOtherThreadsLog) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> writers;
  for (int i = 0; i < 4; ++i) {
    writers.emplace_back([&stop] {
      while (!stop.load()) kx::kxLog::log(3, "test", "spin");
    });
  }
  std::atomic<int> delivered{0};
  for (int i = 0; i < 200; ++i) {
    kx::kxLog::setSink([this, &delivered](const kx::kxLogRecord& r) {
      ++delivered;
      std::lock_guard<std::mutex> lock(mutex_);
      if (records_.size() < 1000) records_.push_back(r);
    });
  }
  // Keep the writers going until records reach the last installed sink, however the threads were scheduled.
  while (delivered.load() < 100) std::this_thread::yield();
  stop = true;
  for (auto& t : writers) t.join();
  std::lock_guard<std::mutex> lock(mutex_);
  EXPECT_FALSE(records_.empty());
}

}  // namespace
