// HttpConnectionParameters and the policies it applies, observed through real transfers against the
// loopback servers: redirects, TLS verification (with the 127.0.0.1 exemption), client certificates,
// proxies, cookies and compression.
#include <gtest/gtest.h>

#include <kx/http/HttpConnectionParameters.h>
#include <kx/http/HttpPolicies.h>

#include "core/ConnectionTestCall.h"
#include "support/LoopbackHttpServer.h"
#include "support/TestCertificates.h"
#include "support/TinyProxy.h"

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include "core/HttpConnectionAccess.h"

namespace {

using Access = kx::http::detail::HttpConnectionAccess;

using kx::http::HttpConnection;
using kx::http::HttpConnectionParameters;
using kx::http::HttpPolicies;
using kx::http::HttpUrl;
using kx::test::ConnectionTestCall;
using kx::test::LoopbackHttpServer;
using Tls = kx::test::LoopbackHttpServerOptions::Tls;

HttpUrl WithPolicies(const std::string& text, const HttpPolicies& policies) {
  HttpUrl url(text);
  url.setPolicies(std::make_shared<const HttpPolicies>(policies));
  return url;
}

class HttpConnectionParametersTest : public testing::Test {};

TEST_F(HttpConnectionParametersTest, FollowsHttpRedirectsUpToTheLimit) {
  LoopbackHttpServer server;
  HttpConnection connection;
  ConnectionTestCall call;
  ASSERT_TRUE(call.run(connection, server.url("/redirect/3"))) << connection.getLastErrorMsg();
  EXPECT_EQ(call.body, "redirect chain end\n");

  connection.editConnectionParameters().maxRedirects = 2;
  EXPECT_FALSE(call.run(connection, server.url("/redirect/3")));
  EXPECT_EQ(Access::LastCurlCode(connection), CURLE_TOO_MANY_REDIRECTS);

  connection.editConnectionParameters().followLocation = false;
  EXPECT_TRUE(call.run(connection, server.url("/redirect/3"), 302)) << connection.getLastErrorMsg();
}

TEST_F(HttpConnectionParametersTest, RedirectsNeverChangeSchemeUnlessHttpsToHttpIsAllowed) {
  LoopbackHttpServer plain;
  LoopbackHttpServer secure({.tls = Tls::kOn});
  HttpConnection connection;
  ConnectionTestCall call;
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
  HttpConnection connection;
  ConnectionTestCall call;
  EXPECT_FALSE(call.run(connection, origin.url("/redirect-to?url=" + elsewhereUrl)));
  EXPECT_EQ(Access::LastCurlCode(connection), CURLE_ABORTED_BY_CALLBACK) << connection.getLastErrorMsg();
  EXPECT_EQ(elsewhere.requestCount(), 0u);
  EXPECT_TRUE(call.run(connection, origin.url("/redirect-to?url=" + sameAddress.url("/echo"))))
      << connection.getLastErrorMsg();
  EXPECT_EQ(sameAddress.requestCount(), 1u);
}

TEST_F(HttpConnectionParametersTest, PresentsClientCertificateFromMemory) {
  const auto& pki = kx::test::TestCertificates::Shared();
  const std::string pass = kx::test::TestCertificates::kPassphrase;
  LoopbackHttpServer server({.tls = Tls::kRequireClientCertificate});
  const std::string url = server.url("/echo");  // 127.0.0.1: the server itself is not verified
  HttpConnection connection;
  ConnectionTestCall call;
  EXPECT_FALSE(call.run(connection, url)) << "the server requires a certificate";

  HttpPolicies pem, encryptedPem, p12;
  const std::string& certificate = pki.clientCertificatePem();
  ASSERT_TRUE(pem.setClientCertificatePolicyBlobPEM(certificate.data(), certificate.size(), pki.clientKeyPem().data(),
                                                    pki.clientKeyPem().size(), ""));
  ASSERT_TRUE(encryptedPem.setClientCertificatePolicyBlobPEM(certificate.data(), certificate.size(),
                                                             pki.clientKeyEncryptedPem().data(),
                                                             pki.clientKeyEncryptedPem().size(), pass));
  ASSERT_TRUE(p12.setClientCertificatePolicyBlobP12(pki.clientP12().data(), pki.clientP12().size(), pass));
  for (const HttpPolicies* policies : {&pem, &encryptedPem, &p12}) {
    server.clearRequests();
    EXPECT_TRUE(call.run(connection, WithPolicies(url, *policies))) << connection.getLastErrorMsg();
    EXPECT_EQ(server.lastRequest().clientCertificateSubject, kx::test::TestCertificates::kClientSubject);
  }
}

// Sets an environment variable for the scope and restores what was there.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    value ? setenv(name, value, 1) : unsetenv(name);
  }
  ~ScopedEnv() { old_ ? setenv(name_, old_->c_str(), 1) : unsetenv(name_); }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

TEST_F(HttpConnectionParametersTest, ProxyPolicies) {
  kx::test::TinyProxy proxy;
  if (!proxy.isAvailable()) GTEST_SKIP() << proxy.skipReason();
  ASSERT_TRUE(proxy.isRunning()) << proxy.startError();
  LoopbackHttpServer server;
  const HttpUrl proxyUrl(proxy.url());
  HttpPolicies staticProxy, noProxy, automatic;
  ASSERT_TRUE(staticProxy.setHttpProxyPolicy(kx::http::PP_StaticProxy, &proxyUrl));
  ASSERT_TRUE(noProxy.setHttpProxyPolicy(kx::http::PP_NoProxy));
  ASSERT_TRUE(automatic.setHttpProxyPolicy(kx::http::PP_AutomaticProxy));
  ScopedEnv clearNoProxy("no_proxy", nullptr), clearNoProxyUpper("NO_PROXY", nullptr);
  ScopedEnv environmentProxy("http_proxy", proxy.url().c_str());

  struct Row {
    const HttpPolicies* policies;
    bool viaProxy;
  };
  // No proxy overrides the environment; automatic discovery finds nothing and leaves curl to it.
  for (const Row& row : {Row{&staticProxy, true}, Row{&noProxy, false}, Row{&automatic, true}}) {
    HttpConnection connection;
    ConnectionTestCall call;
    EXPECT_TRUE(call.run(connection, WithPolicies(server.url("/echo"), *row.policies)))
        << connection.getLastErrorMsg() << proxy.log();
    EXPECT_EQ(server.lastRequest().hasHeader(kx::test::TinyProxy::kMarkerHeader), row.viaProxy);
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
    HttpConnection connection;
    connection.editConnectionParameters().enableCookies = enabled;
    connection.editConnectionParameters().acceptEncoding = enabled;
    ConnectionTestCall call;
    ASSERT_TRUE(call.run(connection, server.url("/set-cookie"))) << connection.getLastErrorMsg();
    // Twice: the jar must survive every reset of the handle, not just the first.
    for (int i = 0; i < 2; ++i) {
      ASSERT_TRUE(call.run(connection, server.url("/echo"))) << connection.getLastErrorMsg();
      EXPECT_EQ(server.lastRequest().header("Cookie"), enabled ? "kx=1" : "");
      EXPECT_EQ(server.lastRequest().hasHeader("Accept-Encoding"), enabled);
    }
  }
  // Switching cookies off on a connection drops its jar: switched on again, it starts empty.
  HttpConnection connection;
  ConnectionTestCall call;
  ASSERT_TRUE(call.run(connection, server.url("/set-cookie"))) << connection.getLastErrorMsg();
  for (bool enabled : {false, true}) {
    connection.editConnectionParameters().enableCookies = enabled;
    ASSERT_TRUE(call.run(connection, server.url("/echo"))) << connection.getLastErrorMsg();
    EXPECT_EQ(server.lastRequest().header("Cookie"), "");
  }
}

}  // namespace
