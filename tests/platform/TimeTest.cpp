#include <kx/system/kxTime.h>

#include <gtest/gtest.h>

#include <ctime>

namespace {

TEST(kxTimeTest, ClocksHaveTheirUnitsAndOrigins) {
  // clock_gettime, not time(): glibc's time() reads a coarse clock that can lag a second boundary.
  timespec before{}, after{};
  clock_gettime(CLOCK_REALTIME, &before);
  const int64_t seconds = kx::GetSecondsSinceEpoch(), ms = kx::GetMSecElapsedSinceEpoch();
  clock_gettime(CLOCK_REALTIME, &after);
  EXPECT_TRUE(seconds >= before.tv_sec && seconds <= after.tv_sec);
  EXPECT_GE(ms, before.tv_sec * 1000 + before.tv_nsec / 1000000);  // milliseconds, not microseconds or seconds
  EXPECT_LE(ms, after.tv_sec * 1000 + after.tv_nsec / 1000000);
  EXPECT_GT(kx::GetTimeBaseMs(), kx::kTimeNeverSet);
  EXPECT_GE(kx::GetIdealThreadCount(), 1u);
}

}  // namespace
