#include <kx/system/kxTime.h>

#include <gtest/gtest.h>

#include <ctime>

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
  EXPECT_GE(ms, beforeMs);  // milliseconds, not microseconds or seconds
  EXPECT_LE(ms, afterMs);
  EXPECT_GT(kx::GetTimeBaseMs(), kx::kTimeNeverSet);
  EXPECT_GE(kx::GetIdealThreadCount(), 1u);
}

}  // namespace
