#include <kx/http/HttpConnectionParameters.h>

#include <curl/curl.h>

#include <kx/http/HttpPolicies.h>
#include <kx/http/HttpProxyFinder.h>
#include <kx/http/HttpUrl.h>
#include <kx/system/kxLog.h>
#include <kx/system/kxStringUtils.h>

#include <algorithm>
#include <string>
#include <vector>

namespace kx {
namespace http {
namespace {

// curl_easy_setopt is variadic: every value must reach it with the exact type the option reads (long,
// curl_off_t, a pointer), or curl reads garbage. These wrappers pin the type at each call site.
int SetLong(CURL* curl, CURLoption option, long value) { return curl_easy_setopt(curl, option, value); }

int SetOffset(CURL* curl, CURLoption option, curl_off_t value) { return curl_easy_setopt(curl, option, value); }

int SetText(CURL* curl, CURLoption option, const char* value) { return curl_easy_setopt(curl, option, value); }

// A null vector clears the blob option. CURL_BLOB_COPY: curl keeps its own copy, so the policy object
// may change or die once the options are set.
int SetBlob(CURL* curl, CURLoption option, const std::vector<char>* bytes) {
  if (bytes == nullptr) return curl_easy_setopt(curl, option, static_cast<curl_blob*>(nullptr));
  curl_blob blob;
  blob.data = const_cast<char*>(bytes->data());
  blob.len = bytes->size();
  blob.flags = CURL_BLOB_COPY;
  return curl_easy_setopt(curl, option, &blob);
}

int ApplyClientCertificate(CURL* curl, const HttpPolicies* policies) {
  int result = 0;
  if (HttpPolicies::ResolveSSLClientCertificatePolicy(policies) != SCCP_EnableClientCrt) {
    result |= SetBlob(curl, CURLOPT_SSLCERT_BLOB, nullptr);
    result |= SetBlob(curl, CURLOPT_SSLKEY_BLOB, nullptr);
    result |= SetText(curl, CURLOPT_KEYPASSWD, nullptr);
    return result;
  }
  const std::vector<char>* certificate = nullptr;
  const std::vector<char>* key = nullptr;
  const std::string* password = nullptr;
  HttpPolicies::ResolveSSLClientCertificateAndKey(policies, certificate, key, password);
  result |= SetText(curl, CURLOPT_KEYPASSWD, password->empty() ? nullptr : password->c_str());
  result |= SetBlob(curl, CURLOPT_SSLCERT_BLOB, certificate);
  if (key->empty()) {
    // No separate key: the certificate bytes are a PKCS#12 container holding the key.
    result |= SetText(curl, CURLOPT_SSLCERTTYPE, "P12");
    result |= SetBlob(curl, CURLOPT_SSLKEY_BLOB, nullptr);
  } else {
    result |= SetText(curl, CURLOPT_SSLCERTTYPE, "PEM");
    result |= SetBlob(curl, CURLOPT_SSLKEY_BLOB, key);
    result |= SetText(curl, CURLOPT_SSLKEYTYPE, "PEM");
  }
  return result;
}

int ApplyProxy(CURL* curl, const HttpUrl& url, const HttpPolicies* policies, HttpProxyFinder& finder) {
  switch (HttpPolicies::ResolveProxyPolicy(policies)) {
    case PP_AutomaticProxy: {
      std::string proxy;
      // Null (not "") leaves curl free to apply http_proxy / https_proxy / no_proxy.
      if (!finder.getProxyUrl(url, proxy)) return SetText(curl, CURLOPT_PROXY, nullptr);
      return SetText(curl, CURLOPT_PROXY, proxy.c_str());
    }
    case PP_StaticProxy: {
      const HttpUrl* proxyUrl = HttpPolicies::ResolveStaticProxyUrl(policies);
      if (proxyUrl != nullptr && proxyUrl->isValid()) {
        // With credentials: user and password of the proxy URL are the proxy's own login.
        const std::string proxy = proxyUrl->toEncodedUrl(true);
        return SetText(curl, CURLOPT_PROXY, proxy.c_str());
      }
      // The proxy URL's own markers are left out: its policies are not the request's.
      kxLog::log(kLogTypeWarning, "http",
                 "Static proxy url is invalid " +
                     (proxyUrl != nullptr ? proxyUrl->toDisplayableUrlWithoutMarkers() : std::string("NULL")) +
                     " disable proxy for this call");
      return SetText(curl, CURLOPT_PROXY, "");
    }
    default:
      // "" rather than null: an empty proxy also overrides the proxy environment variables.
      return SetText(curl, CURLOPT_PROXY, "");
  }
}

}  // namespace

HttpConnectionParameters::HttpConnectionParameters()
    : connectTimeoutSec(10),
      maxSendSpeed(0),
      maxRecvSpeed(0),
      lowSpeedLimit(1),
      lowSpeedTimeSec(10),
      tcpKeepAliveSec(-1),
      maxRedirects(3),
      reservedFlag(false),
      followLocation(true),
      allowHttpsToHttpRedirect(false),
      enableCookies(true),
      acceptEncoding(true) {}

bool HttpConnectionParameters::operator==(const HttpConnectionParameters& other) const {
  return connectTimeoutSec == other.connectTimeoutSec && maxSendSpeed == other.maxSendSpeed &&
         maxRecvSpeed == other.maxRecvSpeed && lowSpeedLimit == other.lowSpeedLimit &&
         lowSpeedTimeSec == other.lowSpeedTimeSec && tcpKeepAliveSec == other.tcpKeepAliveSec &&
         maxRedirects == other.maxRedirects && reservedFlag == other.reservedFlag &&
         followLocation == other.followLocation && allowHttpsToHttpRedirect == other.allowHttpsToHttpRedirect &&
         enableCookies == other.enableCookies && acceptEncoding == other.acceptEncoding;
}

int HttpConnectionParameters::applyParameters(void* curl, const HttpUrl& url, HttpProxyFinder& finder) const {
  return applyParameters(curl, url, finder, HNRP_GlobalPolicy);
}

int HttpConnectionParameters::applyParameters(void* curlHandle, const HttpUrl& url, HttpProxyFinder& finder,
                                              HostNameResolutionPolicy resolutionPolicy) const {
  CURL* curl = static_cast<CURL*>(curlHandle);
  int result = 0;
  result |= SetLong(curl, CURLOPT_FOLLOWLOCATION, followLocation ? 1L : 0L);
  result |= SetLong(curl, CURLOPT_MAXREDIRS, std::max<long>(maxRedirects, 0));

  // Only http and https may be transferred; anything else stops here with a non-zero result, which
  // fails the connection's setup before a byte is sent.
  const std::string scheme = kxStringUtils::AsciiToLower(url.getScheme());
  if (scheme.size() < 4 || scheme.compare(0, 4, "http") != 0) return result | CURLE_UNKNOWN_OPTION;

  result |= SetText(curl, CURLOPT_ACCEPT_ENCODING, acceptEncoding ? "" : nullptr);
  result |= SetText(curl, CURLOPT_PROTOCOLS_STR, "HTTP,HTTPS");
  // A plain http request never follows a redirect to https (nor, by default, https to http): a
  // redirect must not silently change the security of the exchange.
  const bool secure = scheme.back() == 's';
  result |= SetText(curl, CURLOPT_REDIR_PROTOCOLS_STR,
                    secure ? (allowHttpsToHttpRedirect ? "HTTP,HTTPS" : "HTTPS") : "HTTP");

  result |= SetLong(curl, CURLOPT_CONNECTTIMEOUT, std::max<long>(connectTimeoutSec, 0));
  result |= SetOffset(curl, CURLOPT_MAX_RECV_SPEED_LARGE, std::max<curl_off_t>(maxRecvSpeed, 0));
  result |= SetOffset(curl, CURLOPT_MAX_SEND_SPEED_LARGE, std::max<curl_off_t>(maxSendSpeed, 0));

  if (enableCookies) {
    result |= SetLong(curl, CURLOPT_COOKIESESSION, 0L);
    result |= SetText(curl, CURLOPT_COOKIEFILE, "");  // engine on, nothing read from disk
    result |= SetText(curl, CURLOPT_COOKIEJAR, nullptr);
  } else {
    result |= SetLong(curl, CURLOPT_COOKIESESSION, 1L);
    result |= SetText(curl, CURLOPT_COOKIEJAR, nullptr);
    result |= SetText(curl, CURLOPT_COOKIEFILE, nullptr);
  }

  // The low-speed rule is the only time limit of a transfer once connected: a fixed overall time-out
  // would kill large but healthy downloads.
  if (lowSpeedLimit >= 1 && lowSpeedTimeSec > 0) {
    result |= SetLong(curl, CURLOPT_LOW_SPEED_LIMIT, lowSpeedLimit);
    result |= SetLong(curl, CURLOPT_LOW_SPEED_TIME, lowSpeedTimeSec);
  } else {
    result |= SetLong(curl, CURLOPT_LOW_SPEED_LIMIT, 0L);
    result |= SetLong(curl, CURLOPT_LOW_SPEED_TIME, 0L);
  }

  if (tcpKeepAliveSec < 1) {
    result |= SetLong(curl, CURLOPT_TCP_KEEPALIVE, 0L);
    result |= SetLong(curl, CURLOPT_TCP_KEEPIDLE, 10L);
    result |= SetLong(curl, CURLOPT_TCP_KEEPINTVL, 10L);
  } else {
    result |= SetLong(curl, CURLOPT_TCP_KEEPALIVE, 1L);
    result |= SetLong(curl, CURLOPT_TCP_KEEPIDLE, tcpKeepAliveSec);
    result |= SetLong(curl, CURLOPT_TCP_KEEPINTVL, tcpKeepAliveSec);
  }

  // curl hands its trace to the connection's debug callback only when verbose.
  result |= SetLong(curl, CURLOPT_VERBOSE, kxLog::isVerbose() ? 1L : 0L);

  const HttpPolicies* policies = url.getPolicies();
  const HostNameResolutionPolicy resolution = resolutionPolicy != HNRP_GlobalPolicy
                                                  ? resolutionPolicy
                                                  : HttpPolicies::ResolveHostNameResolutionPolicy(policies);
  // A preference is strict: curl then uses that family only, and the connection retries once with any
  // family when the name does not resolve or the certificate does not match.
  long ipResolve = CURL_IPRESOLVE_WHATEVER;
  if (resolution == HNRP_PreferIpv6) ipResolve = CURL_IPRESOLVE_V6;
  if (resolution == HNRP_PreferIpv4) ipResolve = CURL_IPRESOLVE_V4;
  result |= SetLong(curl, CURLOPT_IPRESOLVE, ipResolve);

  // The policy is resolved even for 127.0.0.1 so that its once-per-process warning still comes out.
  const SSLValidatePolicy validation = HttpPolicies::ResolveSSLValidatePolicy(policies);
  // 127.0.0.1 is never verified: a local sidecar or test server rarely has a certificate naming that
  // address. "localhost" is checked like any other name.
  const bool verify = url.getHost() != "127.0.0.1" && validation == SVP_VerifyPeerAndHost;
  result |= SetLong(curl, CURLOPT_SSL_VERIFYPEER, verify ? 1L : 0L);
  result |= SetLong(curl, CURLOPT_SSL_VERIFYHOST, verify ? 2L : 0L);

  result |= ApplyClientCertificate(curl, policies);
  result |= ApplyProxy(curl, url, policies, finder);
  return result;
}

}  // namespace http
}  // namespace kx
