#include <kx/system/LibInitCounter.h>
#include <kx/system/kxThirdPartyLibRegistry.h>
#include <kx/system/kxThread.h>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <vector>

namespace {

TEST(LibInitCounterTest, OnlyTheOutermostPairReportsFirstAndLast) {
  kx::LibInitCounter counter;
  EXPECT_TRUE(counter.incrementInitCounter());
  EXPECT_FALSE(counter.incrementInitCounter());
  EXPECT_FALSE(counter.decrementInitCounter());
  EXPECT_TRUE(counter.isInitialized());  // one user left
  EXPECT_TRUE(counter.decrementInitCounter());
  EXPECT_FALSE(counter.isInitialized());
  // An extra terminate is ignored and does not steal the next "first".
  EXPECT_FALSE(counter.decrementInitCounter());
  EXPECT_EQ(counter.getInitCount(), 0);
  EXPECT_TRUE(counter.incrementInitCounter());
}

TEST(LibInitCounterTest, ConcurrentUsersSeeExactlyOneFirstAndOneLast) {
  kx::LibInitCounter counter;
  std::atomic<int> firsts{0}, lasts{0};
  for (bool up : {true, false}) {
    std::vector<std::unique_ptr<kx::kxThread>> threads;
    for (int t = 0; t < 8; ++t) {
      threads.push_back(std::make_unique<kx::kxThread>([&] {
        // Going down, each thread terminates once more than it initialised.
        for (int i = 0; i < 1000 + !up; ++i) (up ? firsts : lasts) += up ? counter.incrementInitCounter()
                                                                          : counter.decrementInitCounter();
      }));
      ASSERT_TRUE(threads.back()->start());
    }
    for (auto& t : threads) ASSERT_TRUE(t->join());
  }
  EXPECT_EQ(firsts, 1);
  EXPECT_EQ(lasts, 1);
  EXPECT_EQ(counter.getInitCount(), 0);
}

TEST(ThirdPartyLibRegistryTest, RegistersUnregistersAndRefusesConflicts) {
  const std::string name = "kxTestLibrary";
  EXPECT_FALSE(kx::RegisterThirdPartyLibVersionInfo("", "1.0"));
  EXPECT_TRUE(kx::RegisterThirdPartyLibVersionInfo(name, "1.2.3"));
  EXPECT_TRUE(kx::RegisterThirdPartyLibVersionInfo(name, "1.2.3"));  // same entry again: harmless
  EXPECT_FALSE(kx::RegisterThirdPartyLibVersionInfo(name, "2.0.0"));
  EXPECT_EQ(kx::GetThirdPartyLibVersionInfo()[name], "1.2.3");  // the conflict did not overwrite
  EXPECT_TRUE(kx::UnRegisterThirdPartyLibVersionInfo(name));
  EXPECT_FALSE(kx::UnRegisterThirdPartyLibVersionInfo(name));
  EXPECT_EQ(kx::GetThirdPartyLibVersionInfo().count(name), 0u);
}

}  // namespace
