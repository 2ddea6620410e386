#include <kx/system/kxCancelFlag.h>
#include <kx/system/kxCancelInterfaceProxy.h>
#include <kx/system/kxCancelInterfaceProxyReadOnly.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>

namespace {

enum class Flag { None, Clear, Set };
enum class Target { None, Idle, Cancelled };

struct ProxyCase {
  const char* name;
  Flag flag;
  Target target;
  bool shouldCancel;
};
// The flag wins when set; otherwise the target decides; with neither, never.
constexpr ProxyCase kProxyCases[] = {
    {"Nothing", Flag::None, Target::None, false},
    {"ClearFlagOnly", Flag::Clear, Target::None, false},
    {"SetFlagOnly", Flag::Set, Target::None, true},
    {"IdleTargetOnly", Flag::None, Target::Idle, false},
    {"CancelledTargetOnly", Flag::None, Target::Cancelled, true},
    {"ClearFlagIdleTarget", Flag::Clear, Target::Idle, false},
    {"ClearFlagCancelledTarget", Flag::Clear, Target::Cancelled, true},
    {"SetFlagIdleTarget", Flag::Set, Target::Idle, true},
    {"SetFlagCancelledTarget", Flag::Set, Target::Cancelled, true},
};

class CancelProxyTest : public testing::TestWithParam<ProxyCase> {
 protected:
  void SetUp() override {
    flag_.store(GetParam().flag == Flag::Set);
    if (GetParam().target == Target::Cancelled) target_.cancel();
  }
  std::atomic<bool>* flag() { return GetParam().flag == Flag::None ? nullptr : &flag_; }
  kx::kxCancelFlag* target() { return GetParam().target == Target::None ? nullptr : &target_; }

  std::atomic<bool> flag_{false};
  kx::kxCancelFlag target_;
};

TEST_P(CancelProxyTest, ReadOnlyProxyAnswers) {
  const kx::kxCancelInterfaceProxyReadOnly proxy(flag(), target());
  EXPECT_EQ(proxy.shouldCancel(), GetParam().shouldCancel);
}

TEST_P(CancelProxyTest, ProxyAnswersTheSame) {
  const kx::kxCancelInterfaceProxy proxy(flag(), target());
  EXPECT_EQ(proxy.shouldCancel(), GetParam().shouldCancel);
}

TEST_P(CancelProxyTest, CancelSetsTheFlagAndCancelsTheTarget) {
  kx::kxCancelInterfaceProxy proxy(flag(), target());
  proxy.cancel();
  const bool hasAny = GetParam().flag != Flag::None || GetParam().target != Target::None;
  EXPECT_EQ(proxy.shouldCancel(), hasAny);
  EXPECT_EQ(flag_.load(), GetParam().flag != Flag::None);  // an absent flag: ours stays untouched
  EXPECT_EQ(target_.shouldCancel(), GetParam().target != Target::None);
}

INSTANTIATE_TEST_SUITE_P(Cancel, CancelProxyTest, testing::ValuesIn(kProxyCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(kxCancelFlagTest, ProxiesChainThroughTheReadOnlyInterface) {
  kx::kxCancelFlag root;
  kx::kxCancelInterfaceProxy middle(nullptr, &root);
  std::atomic<bool> local{false};
  const kx::kxCancelInterfaceProxyReadOnly leaf(&local, &middle);
  EXPECT_FALSE(leaf.shouldCancel());
  middle.cancel();  // reaches the root through the proxy
  EXPECT_TRUE(root.shouldCancel());
  EXPECT_TRUE(leaf.shouldCancel());
  EXPECT_FALSE(local.load());  // the read-only proxy never writes its flag
  root.reset();
  EXPECT_FALSE(leaf.shouldCancel());
  local = true;
  EXPECT_TRUE(leaf.shouldCancel());
}

}  // namespace
