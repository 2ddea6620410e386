#include "support/CorvixTestEnvironment.h"

#include <kx/Corvix.h>
#include <kx/http/HttpHeaders.h>
#include <kx/http/HttpPolicies.h>

#include <string_view>

namespace kx::test {
namespace {

bool WantsUninitialisedLibrary(std::string_view suite) {
  auto endsWith = [&](std::string_view suffix) {
    return suite.size() >= suffix.size() && suite.substr(suite.size() - suffix.size()) == suffix;
  };
  return endsWith("LifecycleTest") || endsWith("LifetimeTest") || endsWith("UninitializedTest");
}

class PerTestListener final : public testing::EmptyTestEventListener {
 public:
  void OnTestStart(const testing::TestInfo& info) override {
    savedPolicies_ = GetDefaultPolicies();
    savedHeaders_ = GetDefaultHttpHeaders();
    if (!WantsUninitialisedLibrary(info.test_suite_name()) || !IsCorvixInitialized()) return;
    terminateCorvix();
    released_ = true;
  }
  void OnTestEnd(const testing::TestInfo&) override {
    if (released_) {
      released_ = false;
      // The lifecycle test left the count at zero; this is again the first initialisation.
      EXPECT_TRUE(initializeCorvix(CorvixTestEnvironment::kUserAgent));
    }
    SetDefaultPolicies(savedPolicies_);
    EditDefaultHttpHeaders() = savedHeaders_;
  }

 private:
  bool released_ = false;
  http::HttpPolicies savedPolicies_;
  http::HttpHeaders savedHeaders_;
};

}  // namespace

void CorvixTestEnvironment::Register() {
  testing::AddGlobalTestEnvironment(new CorvixTestEnvironment);  // GoogleTest takes ownership
  testing::UnitTest::GetInstance()->listeners().Append(new PerTestListener);
}

void CorvixTestEnvironment::SetUp() { ASSERT_TRUE(initializeCorvix(kUserAgent)); }

void CorvixTestEnvironment::TearDown() { terminateCorvix(); }

}  // namespace kx::test
