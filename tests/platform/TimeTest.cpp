#include <kx/system/kxTime.h>

#include <gtest/gtest.h>

#include <ctime>
#include <thread>

namespace {

TEST(kxTimeTest, ClocksHaveTheirUnitsAndOrigins) {
  // clock_gettime, not time(): glibc's time() reads a coarse clock that can lag a second boundary.
  auto realtimeMs = [] {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
  };
  const int64_t beforeMs = realtimeMs();
  const int64_t seconds = kx::GetSecondsSinceEpoch();
  const int64_t ms = kx::GetMSecElapsedSinceEpoch();
  const int64_t afterMs = realtimeMs();
  EXPECT_GE(seconds, beforeMs / 1000);
  EXPECT_LE(seconds, afterMs / 1000);
  // Milliseconds, not microseconds or seconds.
  EXPECT_GE(ms, beforeMs);
  EXPECT_LE(ms, afterMs);
}

TEST(kxTimeTest, TimeBaseIsMonotonicAndNeverSetComesFirst) {
  int64_t last = kx::GetTimeBaseMs();
  EXPECT_GT(last, kx::kTimeNeverSet);
  EXPECT_GT(last, 0);
  for (int i = 0; i < 10000; ++i) {
    const int64_t now = kx::GetTimeBaseMs();
    ASSERT_GE(now, last);
    last = now;
  }
}

TEST(kxTimeTest, IdealThreadCountIsBetweenOneAndTheMachine) {
  const unsigned int n = kx::GetIdealThreadCount();
  EXPECT_GE(n, 1u);
  if (std::thread::hardware_concurrency() > 0) {
    EXPECT_LE(n, std::thread::hardware_concurrency());
  }
}

}  // namespace
