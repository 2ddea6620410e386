#include <kx/system/kxMultithreadTemplateHolder.h>
#include <kx/system/kxThread.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using Holder = kx::kxMultithreadTemplateHolder<std::string>;

TEST(kxMultithreadTemplateHolderTest, EveryChangeAndOnlyAChangeMovesTheVersion) {
  Holder holder("a");
  uint64_t version = 99;
  EXPECT_EQ(holder.get(&version), "a");
  EXPECT_EQ(version, 0u);
  EXPECT_EQ(holder.set("b"), 1u);
  EXPECT_EQ(holder.update([](std::string& s) { s += "c"; }), 2u);  // void: always a change
  EXPECT_EQ(holder.update([](std::string& s) { return s == "x"; }), 2u);  // false: untouched
  EXPECT_EQ(holder.update([](std::string& s) {
    s = "d";
    return true;
  }), 3u);
  EXPECT_EQ(holder.get(), "d");
  EXPECT_EQ(holder.getVersion(), 3u);
}

TEST(kxMultithreadTemplateHolderTest, GetIfChangedCopiesOnlyNewerValues) {
  Holder holder("a");
  std::string local = "stale";
  uint64_t seen = 0;
  EXPECT_FALSE(holder.getIfChanged(local, seen));  // version 0 is current
  EXPECT_EQ(local, "stale");
  holder.set("b");
  EXPECT_TRUE(holder.getIfChanged(local, seen));
  EXPECT_EQ(local, "b");
  EXPECT_EQ(seen, 1u);
  EXPECT_FALSE(holder.getIfChanged(local, seen));
}

TEST(kxMultithreadTemplateHolderTest, ConcurrentUpdatesAreNeitherLostNorTorn) {
  Holder holder;
  constexpr int kThreads = 4, kRounds = 2000;
  std::vector<std::unique_ptr<kx::kxThread>> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.push_back(std::make_unique<kx::kxThread>([&holder, t] {
      std::string seen;
      uint64_t version = 0;
      for (int i = 0; i < kRounds; ++i) {
        holder.update([t](std::string& s) { s.push_back(static_cast<char>('a' + t)); });
        holder.getIfChanged(seen, version);
        ASSERT_EQ(seen.size(), version);  // a copy always matches the version it came with
      }
    }));
    ASSERT_TRUE(threads.back()->start());
  }
  for (auto& t : threads) ASSERT_TRUE(t->join());
  EXPECT_EQ(holder.getVersion(), uint64_t{kThreads} * kRounds);
  EXPECT_EQ(holder.get().size(), size_t{kThreads} * kRounds);
}

}  // namespace
