#include <kx/system/LibInitCounter.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

// Threads initialise 1000 times each, then terminate once more than that: exactly one call sees the
// first initialisation, one the last, and the surplus terminates leave the count at zero, not below.
TEST(LibInitCounterTest, ConcurrentUsersSeeExactlyOneFirstAndOneLast) {
  kx::LibInitCounter counter;
  std::atomic<int> firsts{0}, lasts{0};
  for (bool up : {true, false}) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&] {
        for (int i = 0; i < 1000 + !up; ++i) up ? firsts += counter.incrementInitCounter() : lasts += counter.decrementInitCounter();
      });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(counter.isInitialized(), up);
  }
  EXPECT_EQ(firsts, 1);
  EXPECT_EQ(lasts, 1);
  EXPECT_EQ(counter.getInitCount(), 0);
  EXPECT_TRUE(counter.incrementInitCounter());  // the surplus did not steal the next "first"
}

}  // namespace
