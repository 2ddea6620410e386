#include "support/CorvixTestEnvironment.h"

#include <gtest/gtest.h>

#include <kx/Corvix.h>
#include <kx/http/HttpHeaders.h>
#include <kx/http/HttpPolicies.h>

#include <regex>

namespace kx::test {
namespace {

class Environment final : public testing::Environment {
 public:
  void SetUp() override { ASSERT_TRUE(initializeCorvix(CorvixTestEnvironment::kUserAgent)); }
  void TearDown() override { terminateCorvix(); }
};

class PerTestListener final : public testing::EmptyTestEventListener {
 public:
  void OnTestStart(const testing::TestInfo& info) override {
    savedPolicies_ = GetDefaultPolicies();
    savedHeaders_ = GetDefaultHttpHeaders();
    static const std::regex kUninitialised("(Lifecycle|Lifetime|Uninitialized)Test$");
    if (!std::regex_search(info.test_suite_name(), kUninitialised) || !IsCorvixInitialized()) return;
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
  testing::AddGlobalTestEnvironment(new Environment);  // GoogleTest takes ownership
  testing::UnitTest::GetInstance()->listeners().Append(new PerTestListener);
}

}  // namespace kx::test
