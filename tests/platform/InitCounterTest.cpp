#include <kx/compress/kxCompress.h>
#include <kx/crypto/kxOpenSSL.h>
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
  EXPECT_FALSE(counter.isInitialized());
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
  EXPECT_TRUE(counter.decrementInitCounter());
}

TEST(LibInitCounterTest, ConcurrentUsersSeeExactlyOneFirstAndOneLast) {
  kx::LibInitCounter counter;
  std::atomic<int> firsts{0}, lasts{0};
  std::vector<std::unique_ptr<kx::kxThread>> threads;
  for (int t = 0; t < 8; ++t) {
    threads.push_back(std::make_unique<kx::kxThread>([&] {
      for (int i = 0; i < 1000; ++i) firsts += counter.incrementInitCounter();
    }));
    ASSERT_TRUE(threads.back()->start());
  }
  for (auto& t : threads) ASSERT_TRUE(t->join());
  threads.clear();
  for (int t = 0; t < 8; ++t) {
    threads.push_back(std::make_unique<kx::kxThread>([&] {
      for (int i = 0; i < 1001; ++i) lasts += counter.decrementInitCounter();  // one too many each
    }));
    ASSERT_TRUE(threads.back()->start());
  }
  for (auto& t : threads) ASSERT_TRUE(t->join());
  EXPECT_EQ(firsts, 1);
  EXPECT_EQ(lasts, 1);
  EXPECT_EQ(counter.getInitCount(), 0);
}

TEST(SiblingLibraryInitTest, CompressAndOpenSSLAreCounted) {
  kx::initializeCompress();
  kx::initializeCompress();
  kx::terminateCompress();
  EXPECT_TRUE(kx::IsCompressInitialized());
  kx::terminateCompress();
  EXPECT_FALSE(kx::IsCompressInitialized());
  kx::terminateCompress();  // unmatched: ignored
  EXPECT_FALSE(kx::IsCompressInitialized());

  EXPECT_TRUE(kx::kxOpenSSL::initializeLibrary(kx::kxOpenSSL::kLoadErrorStrings));
  EXPECT_TRUE(kx::kxOpenSSL::initializeLibrary(0));
  kx::kxOpenSSL::finalizeLibrary();
  EXPECT_TRUE(kx::kxOpenSSL::isLibraryInitialized());
  kx::kxOpenSSL::finalizeLibrary();
  EXPECT_FALSE(kx::kxOpenSSL::isLibraryInitialized());
  // OpenSSL is not torn down, so a later initialisation in the same process still works.
  EXPECT_TRUE(kx::kxOpenSSL::initializeLibrary(0));
  kx::kxOpenSSL::finalizeLibrary();
}

TEST(ThirdPartyLibRegistryTest, RegistersUnregistersAndRefusesConflicts) {
  const std::string name = "kxTestLibrary";
  EXPECT_FALSE(kx::RegisterThirdPartyLibVersionInfo("", "1.0"));
  EXPECT_TRUE(kx::RegisterThirdPartyLibVersionInfo(name, "1.2.3"));
  EXPECT_TRUE(kx::RegisterThirdPartyLibVersionInfo(name, "1.2.3"));  // same entry again: harmless
  EXPECT_FALSE(kx::RegisterThirdPartyLibVersionInfo(name, "2.0.0"));
  auto all = kx::GetThirdPartyLibVersionInfo();
  ASSERT_EQ(all.count(name), 1u);
  EXPECT_EQ(all[name], "1.2.3");  // the conflicting version did not overwrite
  all[name] = "changed";           // a copy: the registry is untouched
  EXPECT_EQ(kx::GetThirdPartyLibVersionInfo()[name], "1.2.3");
  EXPECT_TRUE(kx::UnRegisterThirdPartyLibVersionInfo(name));
  EXPECT_FALSE(kx::UnRegisterThirdPartyLibVersionInfo(name));
  EXPECT_EQ(kx::GetThirdPartyLibVersionInfo().count(name), 0u);
}

}  // namespace
