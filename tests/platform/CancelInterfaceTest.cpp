#include <kx/system/kxCancelFlag.h>
#include <kx/system/kxCancelInterfaceProxy.h>
#include <kx/system/kxCancelInterfaceProxyReadOnly.h>

#include <gtest/gtest.h>

#include <atomic>

namespace {

// Every combination of an absent/clear/set flag and an absent/idle/cancelled target: the flag wins
// when set, otherwise the target decides, with neither never; cancel() reaches whatever is present.
TEST(kxCancelInterfaceProxyTest, FlagOrTargetDecideAndCancelReachesBoth) {
  for (int flagState = 0; flagState < 3; ++flagState) {
    for (int targetState = 0; targetState < 3; ++targetState) {
      SCOPED_TRACE(testing::Message() << "flag " << flagState << " target " << targetState);
      std::atomic<bool> flag{flagState == 2};
      kx::kxCancelFlag target;
      if (targetState == 2) target.cancel();
      std::atomic<bool>* flagArg = flagState ? &flag : nullptr;
      kx::kxCancelFlag* targetArg = targetState ? &target : nullptr;
      const bool expected = flagState == 2 || targetState == 2;
      EXPECT_EQ(kx::kxCancelInterfaceProxyReadOnly(flagArg, targetArg).shouldCancel(), expected);
      kx::kxCancelInterfaceProxy proxy(flagArg, targetArg);
      EXPECT_EQ(proxy.shouldCancel(), expected);
      proxy.cancel();
      EXPECT_EQ(proxy.shouldCancel(), flagState || targetState);
      EXPECT_EQ(flag.load(), flagState != 0);  // an absent flag: ours stays untouched
      EXPECT_EQ(target.shouldCancel(), targetState != 0);
      target.reset();
      EXPECT_EQ(kx::kxCancelInterfaceProxyReadOnly(nullptr, &proxy).shouldCancel(), flagState != 0);  // chains
    }
  }
}

}  // namespace
