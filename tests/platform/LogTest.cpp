#include <kx/system/kxLog.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

TEST(LogTest, RecordCarriesTypeLevelCategoryTextAndThread) {
  std::vector<kx::kxLogRecord> records;
  kx::kxLog::setSink([&records](const kx::kxLogRecord& r) { records.push_back(r); });
  kx::kxLog::log(5, "http", "boom");
  kx::kxLog::setEnabled(false);
  kx::kxLog::log(5, "url", "dropped");
  kx::kxLog::setEnabled(true);
  kx::kxLog::setSink({});
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].type, 5);
  EXPECT_EQ(records[0].level, kx::kxLogLevel::Error);
  EXPECT_EQ(records[0].category, "http");
  EXPECT_EQ(records[0].text, "boom");
  EXPECT_EQ(records[0].threadId, kx::kxLog::currentThreadId());
  EXPECT_GT(records[0].timeMsSinceEpoch, 1600000000000LL);
  EXPECT_EQ(kx::kxLogLevelOf(4), kx::kxLogLevel::Warning);
  EXPECT_EQ(kx::kxLogLevelOf(6), kx::kxLogLevel::Information);
  EXPECT_EQ(kx::kxLogLevelOf(42), kx::kxLogLevel::Debug);
}

TEST(LogTest, SinkCanBeReplacedWhileOtherThreadsLog) {
  std::atomic<bool> stop{false};
  std::atomic<int> delivered{0};
  std::vector<std::thread> writers;
  kx::kxLog::setSink([](const kx::kxLogRecord&) {});
  for (int i = 0; i < 4; ++i) {
    writers.emplace_back([&stop] {
      while (!stop.load()) kx::kxLog::log(3, "test", "spin");
    });
  }
  for (int i = 0; i < 200; ++i) kx::kxLog::setSink([&delivered](const kx::kxLogRecord&) { ++delivered; });
  // Keep the writers going until records reach the last installed sink, however the threads were scheduled.
  while (delivered.load() < 100) std::this_thread::yield();
  stop = true;
  for (auto& t : writers) t.join();
  kx::kxLog::setSink({});
}

}  // namespace
