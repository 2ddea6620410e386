#include <kx/Corvix.h>
#include <kx/http/HttpHeaders.h>
#include <kx/http/HttpPolicies.h>
#include <kx/http/HttpUrl.h>
#include <kx/system/kxThirdPartyLibRegistry.h>
#include <kx/system/kxThreadPeriodicalUpdater.h>

#include "core/LibraryState.h"
#include "support/LogCapture.h"

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include <stdexcept>
#include <string>

namespace kx {
namespace {

std::string DefaultUserAgent() {
  const auto* values = GetDefaultHttpHeaders().find("user-agent");
  return values == nullptr || values->empty() ? "" : values->front();
}

bool CurlRegistered() { return GetThirdPartyLibVersionInfo().count("libcurl") != 0; }

// The test environment leaves this suite uninitialised (and restores the default headers and policies
// after each test); a test that fails half-way must not leave an initialisation behind.
class CorvixLifecycleTest : public testing::Test {
 protected:
  void TearDown() override {
    while (detail::GetCorvixInitCount() > 0) terminateCorvix();
  }
};

TEST_F(CorvixLifecycleTest, NestedCallsOnlyCountAndLastTerminationResetsForAFreshStart) {
  EXPECT_EQ(detail::GetPeriodicalUpdater(), nullptr);
  EXPECT_TRUE(initializeCorvix("agent/1"));
  EXPECT_TRUE(IsCorvixInitialized());
  kxThreadPeriodicalUpdater* updater = detail::GetPeriodicalUpdater();
  ASSERT_NE(updater, nullptr);
  EXPECT_EQ(updater->getPeriodMs(), 2000);
  EXPECT_EQ(GetThirdPartyLibVersionInfo()["libcurl"], curl_version());
  // libcurl on this system runs on the same OpenSSL major version the tests link.
  EXPECT_EQ(GetCurlOpenSSLVersionNumber() >> 28, OpenSSL_version_num() >> 28);

  EXPECT_FALSE(initializeCorvix("agent/2"));
  EXPECT_EQ(DefaultUserAgent(), "agent/2");  // replaced on nested calls too
  EXPECT_FALSE(initializeCorvix(""));
  EXPECT_EQ(DefaultUserAgent(), "agent/2");  // an empty agent changes nothing
  EXPECT_EQ(detail::GetPeriodicalUpdater(), updater);
  http::HttpPolicies defaults;
  defaults.setSSLValidatePolicy(http::SVP_NoVerify);
  defaults.setHostNameResolutionPolicy(http::HNRP_PreferIpv6);
  const http::HttpUrl proxy("http://proxy:3128/");
  ASSERT_TRUE(defaults.setHttpProxyPolicy(http::PP_StaticProxy, &proxy));
  ASSERT_TRUE(defaults.setClientCertificatePolicyBlobP12("P12", 3, "pw"));
  SetDefaultPolicies(defaults);

  terminateCorvix();
  terminateCorvix();
  EXPECT_TRUE(IsCorvixInitialized());
  EXPECT_EQ(detail::GetPeriodicalUpdater(), updater);
  EXPECT_TRUE(CurlRegistered());
  EXPECT_TRUE(GetDefaultPolicies() == defaults);

  terminateCorvix();
  EXPECT_FALSE(IsCorvixInitialized());
  EXPECT_EQ(detail::GetPeriodicalUpdater(), nullptr);
  EXPECT_FALSE(CurlRegistered());
  EXPECT_TRUE(GetDefaultPolicies() == http::HttpPolicies());
  EXPECT_EQ(GetDefaultPolicies().getHostNameResolutionPolicy(), http::HNRP_GlobalPolicy);  // not part of ==
  terminateCorvix();  // unmatched: ignored
  EXPECT_EQ(detail::GetCorvixInitCount(), 0);

  // It can start again: a new updater thread runs, curl works.
  ASSERT_TRUE(initializeCorvix("agent"));
  ASSERT_NE(detail::GetPeriodicalUpdater(), nullptr);
  EXPECT_TRUE(detail::GetPeriodicalUpdater()->runNowAndWait(10000));
  CURL* curl = curl_easy_init();
  EXPECT_NE(curl, nullptr);
  curl_easy_cleanup(curl);
}

// Only an "OpenSSL/<version>" component counts, in either case, and only at the start of a component.
TEST(CurlOpenSSLVersionTest, FindsTheOpenSSLComponentAndItsVersion) {
  const std::pair<const char*, const char*> cases[] = {{"libcurl/7.29.0 openssl/1.1.1w zlib/1.2.7", "1.1.1w"},
                                                       {"OpenSSL/3.1.4", "3.1.4"},
                                                       {"libcurl/7.88.1 (OpenSSL/3.0.19) libssh2/1.10.0", ""},
                                                       {"libcurl/7.88.1 OpenSSL/", ""},
                                                       {"", ""}};
  for (const auto& [curlVersion, openssl] : cases)
    EXPECT_EQ(detail::FindCurlOpenSSLVersionText(curlVersion), openssl) << curlVersion;
  EXPECT_EQ(detail::DetermineCurlOpenSSLVersion("libcurl/7.88.1 OpenSSL/3.0.19 zlib/1.2.13"), 0x30000130ul);
  for (const char* text : {"libcurl/7.88.1 GnuTLS/3.7.9", "libcurl/7.88.1 OpenSSL/not-a-version"}) {
    SCOPED_TRACE(text);
    test::LogCapture log;
    try {
      detail::DetermineCurlOpenSSLVersion(text);
      ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "kxCorvix : ssl versioning error");
    }
    const auto records = log.records();
    ASSERT_EQ(records.size(), 1u) << log.dump();
    EXPECT_EQ(records[0].category, "kxCorvix");
    EXPECT_EQ(records[0].text, "Cannot get curl openssl version (unknown version)");
  }
}

}  // namespace
}  // namespace kx
