// HttpConnectionParameters and the policies it applies, observed through real transfers against the
// loopback servers: redirects, TLS verification (with the 127.0.0.1 exemption), client certificates,
// proxies.
#include <gtest/gtest.h>

#include <kx/http/HttpConnectionParameters.h>
#include <kx/http/HttpPolicies.h>

#include "core/ConnectionTestCall.h"
#include "core/HttpConnectionAccess.h"
#include "support/LoopbackHttpServer.h"
#include "support/TestCertificates.h"

#include <cstdlib>
#include <optional>
#include <string>

namespace {

using Access = kx::http::detail::HttpConnectionAccess;
using kx::http::HttpConnection;
using kx::http::HttpPolicies;
using kx::test::ConnectionTestCall;
using kx::test::LoopbackHttpServer;
using kx::test::WithPolicies;
using Tls = kx::test::LoopbackHttpServerOptions::Tls;

class HttpConnectionParametersTest : public testing::Test {
 protected:
  HttpConnection connection;
  ConnectionTestCall call;
};

// Redirects are followed up to the limit, or not at all; they never change the scheme, except https to
// http when allowed.
TEST_F(HttpConnectionParametersTest, RedirectRules) {
  LoopbackHttpServer plain, secure({.tls = Tls::kOn});
  ASSERT_TRUE(call.run(connection, plain.url("/redirect/3"))) << connection.getLastErrorMsg();
  EXPECT_EQ(call.body, "redirect chain end\n");
  connection.editConnectionParameters().maxRedirects = 2;
  EXPECT_FALSE(call.run(connection, plain.url("/redirect/3")));
  EXPECT_EQ(Access::LastCurlCode(connection), CURLE_TOO_MANY_REDIRECTS);
  connection.editConnectionParameters().followLocation = false;
  EXPECT_TRUE(call.run(connection, plain.url("/redirect/3"), 302)) << connection.getLastErrorMsg();
  connection.editConnectionParameters() = kx::http::HttpConnectionParameters();
  plain.clearRequests();

  // http -> https is refused whatever the settings.
  connection.editConnectionParameters().allowHttpsToHttpRedirect = true;
  EXPECT_FALSE(call.run(connection, plain.url("/redirect-to?url=" + secure.url("/echo"))));
  EXPECT_EQ(Access::LastCurlCode(connection), CURLE_UNSUPPORTED_PROTOCOL);
  EXPECT_EQ(secure.requestCount(), 0u);
  const std::string downgrade = secure.url("/redirect-to?url=" + plain.url("/echo"));
  connection.editConnectionParameters().allowHttpsToHttpRedirect = false;
  EXPECT_FALSE(call.run(connection, downgrade));
  EXPECT_EQ(Access::LastCurlCode(connection), CURLE_UNSUPPORTED_PROTOCOL);
  EXPECT_EQ(plain.requestCount(), 1u);  // only the first refused redirect above
  connection.editConnectionParameters().allowHttpsToHttpRedirect = true;
  EXPECT_TRUE(call.run(connection, downgrade)) << connection.getLastErrorMsg();
  EXPECT_EQ(plain.lastRequest().path, "/echo");
}

struct TlsCase {
  const char* name;
  const char* host;
  bool wrongNameServer;
  bool trustTestCa;
  kx::http::SSLValidatePolicy policy;
  bool succeeds;
};

constexpr TlsCase kTlsCases[] = {
    {"LoopbackAddressIsNeverVerified", "127.0.0.1", false, false, kx::http::SVP_VerifyPeerAndHost, true},
    {"LoopbackAddressIgnoresWrongName", "127.0.0.1", true, false, kx::http::SVP_VerifyPeerAndHost, true},
    {"LocalhostVerifiedAgainstTestCa", "localhost", false, true, kx::http::SVP_GlobalPolicy, true},
    {"LocalhostUntrustedIssuerFails", "localhost", false, false, kx::http::SVP_VerifyPeerAndHost, false},
    {"LocalhostWrongNameFails", "localhost", true, true, kx::http::SVP_VerifyPeerAndHost, false},
    {"LocalhostNoVerifyPolicy", "localhost", true, false, kx::http::SVP_NoVerify, true},
};

class HttpConnectionTlsTest : public testing::TestWithParam<TlsCase> {};

TEST_P(HttpConnectionTlsTest, VerifiesPeerAndHostExceptOnLoopbackAddress) {
  const TlsCase& c = GetParam();
  LoopbackHttpServer server({.tls = Tls::kOn, .wrongNameCertificate = c.wrongNameServer});
  HttpPolicies policies;
  policies.setSSLValidatePolicy(c.policy);
  HttpConnection connection;
  ConnectionTestCall call;
  if (c.trustTestCa) call.caInfo = kx::test::TestCertificates::Shared().caCertificatePath();
  EXPECT_EQ(call.run(connection, WithPolicies(server.urlWithHost(c.host, "/echo"), policies)), c.succeeds)
      << connection.getLastErrorMsg();
  EXPECT_EQ(connection.isLastCallUnableToVerifyPeer(), !c.succeeds) << connection.getLastErrorMsg();
}

INSTANTIATE_TEST_SUITE_P(Tls, HttpConnectionTlsTest, testing::ValuesIn(kTlsCases),
                         [](const auto& info) { return std::string(info.param.name); });

// The exemption belongs to the address, not to the handle: a redirect from https://127.0.0.1 to any other
// address (a test server on [::1], whose certificate nobody here trusts) fails as the curl tool fails it,
// while a redirect to another port of 127.0.0.1 stays exempt.
TEST_F(HttpConnectionParametersTest, LoopbackExemptionEndsAtTheLoopbackAddress) {
  LoopbackHttpServer origin({.tls = Tls::kOn});
  LoopbackHttpServer elsewhere({.tls = Tls::kOn, .ipv6 = true});
  LoopbackHttpServer sameAddress({.tls = Tls::kOn, .wrongNameCertificate = true});
  const std::string elsewhereUrl = "https://%5B%3A%3A1%5D:" + std::to_string(elsewhere.port()) + "/echo";
  EXPECT_FALSE(call.run(connection, origin.url("/redirect-to?url=" + elsewhereUrl)));
  EXPECT_EQ(Access::LastCurlCode(connection), CURLE_ABORTED_BY_CALLBACK) << connection.getLastErrorMsg();
  EXPECT_EQ(elsewhere.requestCount(), 0u);
  EXPECT_TRUE(call.run(connection, origin.url("/redirect-to?url=" + sameAddress.url("/echo"))))
      << connection.getLastErrorMsg();
  EXPECT_EQ(sameAddress.requestCount(), 1u);
}

// A PEM pair (separate key) or a PKCS#12 container (key inside, with its pass phrase).
TEST_F(HttpConnectionParametersTest, PresentsClientCertificateFromMemory) {
  const auto& pki = kx::test::TestCertificates::Shared();
  LoopbackHttpServer server({.tls = Tls::kRequireClientCertificate});
  const std::string url = server.url("/echo");  // 127.0.0.1: the server itself is not verified
  EXPECT_FALSE(call.run(connection, url)) << "the server requires a certificate";
  HttpPolicies pem, p12;
  const std::string &certificate = pki.clientCertificatePem(), &key = pki.clientKeyPem();
  ASSERT_TRUE(
      pem.setClientCertificatePolicyBlobPEM(certificate.data(), certificate.size(), key.data(), key.size(), ""));
  ASSERT_TRUE(p12.setClientCertificatePolicyBlobP12(pki.clientP12().data(), pki.clientP12().size(),
                                                    kx::test::TestCertificates::kPassphrase));
  for (const HttpPolicies* policies : {&pem, &p12}) {
    server.clearRequests();
    EXPECT_TRUE(call.run(connection, WithPolicies(url, *policies))) << connection.getLastErrorMsg();
    EXPECT_EQ(server.lastRequest().clientCertificateSubject, kx::test::TestCertificates::kClientSubject);
  }
}

// Sets (null: removes) an environment variable for the scope and restores what was there.
struct ScopedEnv {
  ScopedEnv(const char* variable, const char* value) : name(variable) {
    if (const char* current = std::getenv(name)) old = current;
    value ? setenv(name, value, 1) : unsetenv(name);
  }
  ~ScopedEnv() { old ? setenv(name, old->c_str(), 1) : unsetenv(name); }
  const char* name;
  std::optional<std::string> old;
};

// The proxy is a second loopback server answering any request in absolute form: a request reaching it
// rather than the origin went through the proxy.
TEST_F(HttpConnectionParametersTest, ProxyPolicies) {
  LoopbackHttpServer server, proxy;
  proxy.Get("http://.*", [](const httplib::Request&, httplib::Response& res) { res.set_content("via\n", "text/plain"); });
  const kx::http::HttpUrl proxyUrl(proxy.url(""));
  HttpPolicies staticProxy, noProxy, automatic;
  ASSERT_TRUE(staticProxy.setHttpProxyPolicy(kx::http::PP_StaticProxy, &proxyUrl));
  ASSERT_TRUE(noProxy.setHttpProxyPolicy(kx::http::PP_NoProxy));
  ASSERT_TRUE(automatic.setHttpProxyPolicy(kx::http::PP_AutomaticProxy));
  ScopedEnv clearNoProxy("no_proxy", nullptr), clearNoProxyUpper("NO_PROXY", nullptr);
  ScopedEnv environmentProxy("http_proxy", proxy.url("").c_str());
  // No proxy overrides the environment; automatic discovery finds nothing and leaves curl to it.
  for (auto [policies, viaProxy] : {std::pair{&staticProxy, true}, {&noProxy, false}, {&automatic, true}}) {
    HttpConnection fresh;
    proxy.clearRequests();
    server.clearRequests();
    EXPECT_TRUE(call.run(fresh, WithPolicies(server.url("/echo"), *policies))) << fresh.getLastErrorMsg();
    EXPECT_EQ(proxy.requestCount(), viaProxy ? 1u : 0u);
    EXPECT_EQ(server.requestCount(), viaProxy ? 0u : 1u);
  }
}

TEST_F(HttpConnectionParametersTest, CookiesAndCompressionFollowTheirSwitches) {
  LoopbackHttpServer server;
  server.Get("/set-cookie", [](const httplib::Request&, httplib::Response& res) {
    res.set_header("Set-Cookie", "kx=1; Path=/");
    res.set_content("set\n", "text/plain");
  });
  for (bool enabled : {true, false}) {
    SCOPED_TRACE(enabled);
    HttpConnection fresh;
    fresh.editConnectionParameters().enableCookies = enabled;
    fresh.editConnectionParameters().acceptEncoding = enabled;
    ASSERT_TRUE(call.run(fresh, server.url("/set-cookie"))) << fresh.getLastErrorMsg();
    // Twice: the jar must survive every reset of the handle, not just the first.
    for (int i = 0; i < 2; ++i) {
      ASSERT_TRUE(call.run(fresh, server.url("/echo"))) << fresh.getLastErrorMsg();
      EXPECT_EQ(server.lastRequest().header("Cookie"), enabled ? "kx=1" : "");
      EXPECT_EQ(server.lastRequest().hasHeader("Accept-Encoding"), enabled);
    }
  }
  // Switching cookies off on a connection drops its jar: switched on again, it starts empty.
  ASSERT_TRUE(call.run(connection, server.url("/set-cookie"))) << connection.getLastErrorMsg();
  for (bool enabled : {false, true}) {
    connection.editConnectionParameters().enableCookies = enabled;
    ASSERT_TRUE(call.run(connection, server.url("/echo"))) << connection.getLastErrorMsg();
    EXPECT_EQ(server.lastRequest().header("Cookie"), "");
  }
}

}  // namespace
