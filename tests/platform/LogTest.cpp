#include <kx/system/kxLog.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

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
