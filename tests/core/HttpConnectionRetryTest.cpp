// The single retry with any address family. No DNS server is involved: the host name "kx-retry.test"
// resolves only through CURLOPT_RESOLVE set from the header callback, and a resolver-start callback that
// refuses to start stands for a name the system cannot resolve. A CURLOPT_RESOLVE entry holding only an
// IPv4 address is discarded by curl under CURL_IPRESOLVE_V6, so a second attempt that still carried the
// IPv6 preference would hit the refusing resolver and fail: success proves the retry was set up anew
// with any family.
#include <gtest/gtest.h>

#include <kx/http/HttpPolicies.h>

#include "core/ConnectionTestCall.h"
#include "support/LoopbackHttpServer.h"

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>
#include "core/HttpConnectionAccess.h"

namespace {

using Access = kx::http::detail::HttpConnectionAccess;

using kx::http::HttpConnection;
using kx::http::HttpHeaders;
using kx::http::HttpPolicies;
using kx::http::HttpUrl;
using kx::test::ConnectionTestCall;
using kx::test::LoopbackHttpServer;
using Tls = kx::test::LoopbackHttpServerOptions::Tls;

constexpr const char* kHost = "kx-retry.test";

class HttpConnectionRetryTest : public kx::test::CorvixSuite {
 protected:
  ~HttpConnectionRetryTest() override { curl_slist_free_all(resolve); }

  // Attempts listed in `resolvable` get the CURLOPT_RESOLVE entry; every attempt gets the refusing
  // resolver, so only that entry can ever give an address.
  void script(const LoopbackHttpServer& server, std::initializer_list<int> resolvable) {
    curl_slist_free_all(resolve);
    const std::string entry = std::string(kHost) + ":" + std::to_string(server.port()) + ":127.0.0.1";
    resolve = curl_slist_append(nullptr, entry.c_str());
    call.onCall = [this, resolvable = std::vector<int>(resolvable)](CURL* curl, HttpHeaders&, int attempt) {
      curl_resolver_start_callback refuse = [](void*, void*, void* count) {
        ++*static_cast<int*>(count);
        return 1;
      };
      curl_easy_setopt(curl, CURLOPT_RESOLVER_START_FUNCTION, refuse);
      curl_easy_setopt(curl, CURLOPT_RESOLVER_START_DATA, &resolverStarts);
      if (std::find(resolvable.begin(), resolvable.end(), attempt) != resolvable.end())
        curl_easy_setopt(curl, CURLOPT_RESOLVE, resolve);
      return 0;
    };
  }

  static HttpUrl Url(const std::string& text, kx::http::HostNameResolutionPolicy policy,
                     HttpPolicies policies = HttpPolicies()) {
    policies.setHostNameResolutionPolicy(policy);
    HttpUrl url(text);
    url.setPolicies(std::make_shared<const HttpPolicies>(policies));
    return url;
  }

  HttpConnection connection;
  ConnectionTestCall call;
  curl_slist* resolve = nullptr;
  int resolverStarts = 0;
};

TEST_F(HttpConnectionRetryTest, SecondAttemptUsesAnyFamilyAndSucceeds) {
  LoopbackHttpServer server;
  script(server, {2});
  const std::string url = server.urlWithHost(kHost, "/echo");
  ASSERT_TRUE(call.run(connection, Url(url, kx::http::HNRP_PreferIpv6))) << connection.getLastErrorMsg();
  EXPECT_EQ(call.calls, 2);
  EXPECT_EQ(resolverStarts, 1) << "the second attempt must take the IPv4-only entry";
  EXPECT_EQ(server.requestCount(), 1u);
  EXPECT_EQ(server.lastRequest().header("Host"), std::string(kHost) + ":" + std::to_string(server.port()));
  EXPECT_EQ(connection.getLastErrorMsg().rfind("Http return code 200\n", 0), 0u) << connection.getLastErrorMsg();
}

TEST_F(HttpConnectionRetryTest, OnlyOneRetryAndOnlyUnderAPreference) {
  LoopbackHttpServer server;
  script(server, {});
  const std::string url = server.urlWithHost(kHost, "/echo");
  EXPECT_FALSE(call.run(connection, Url(url, kx::http::HNRP_PreferIpv4)));
  EXPECT_EQ(call.calls, 2);
  EXPECT_EQ(Access::LastCurlCode(connection), CURLE_COULDNT_RESOLVE_HOST);
  EXPECT_EQ(connection.getLastErrorMsg().rfind("HttpConnection error : Curl easy perform error after ", 0), 0u);

  call.calls = 0;
  EXPECT_FALSE(call.run(connection, Url(url, kx::http::HNRP_Whatever)));
  EXPECT_EQ(call.calls, 1);
  EXPECT_EQ(server.requestCount(), 0u);
}

TEST_F(HttpConnectionRetryTest, CertificateProblemRetriesNamesButNotAddresses) {
  LoopbackHttpServer server({.tls = Tls::kOn});
  const std::string garbage = "not a certificate";
  HttpPolicies badCertificate;
  ASSERT_TRUE(badCertificate.setClientCertificatePolicyBlobPEM(garbage.data(), garbage.size(), garbage.data(),
                                                               garbage.size(), ""));
  EXPECT_FALSE(call.run(connection, Url(server.url("/echo"), kx::http::HNRP_PreferIpv4, badCertificate)));
  EXPECT_EQ(Access::LastCurlCode(connection), CURLE_SSL_CERTPROBLEM);
  EXPECT_EQ(call.calls, 1) << "127.0.0.1 has no other family to try";

  // curl consults the resolver-start callback even for an address literal, so it is only set up now.
  call.calls = 0;
  script(server, {1, 2});
  HttpUrl named = Url(server.urlWithHost(kHost, "/echo"), kx::http::HNRP_PreferIpv4, badCertificate);
  EXPECT_FALSE(call.run(connection, named));
  EXPECT_EQ(Access::LastCurlCode(connection), CURLE_SSL_CERTPROBLEM) << connection.getLastErrorMsg();
  EXPECT_EQ(call.calls, 2);
}

}  // namespace
