#include <kx/http/HttpConnectionParameters.h>

#include <curl/curl.h>

#include <kx/http/HttpPolicies.h>
#include <kx/http/HttpProxyFinder.h>
#include <kx/http/HttpUrl.h>
#include <kx/system/kxLog.h>
#include <kx/system/kxStringUtils.h>

#include "core/CurlOptions.h"
#include "policies/ResolvedPolicies.h"

#include <algorithm>
#include <cstring>
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

int ApplyClientCertificate(CURL* curl, const detail::ResolvedPolicies& policies) {
  // Nothing to clear otherwise: a reset handle carries no certificate, key or pass phrase.
  if (policies.clientCertificate != SCCP_EnableClientCrt) return 0;
  const std::vector<char>* certificate = policies.certificate;
  const std::vector<char>* key = policies.key;
  const std::string* password = policies.password;
  int result = 0;
  if (!password->empty()) result |= SetText(curl, CURLOPT_KEYPASSWD, password->c_str());
  result |= SetBlob(curl, CURLOPT_SSLCERT_BLOB, certificate);
  if (key->empty()) {
    // No separate key: the certificate bytes are a PKCS#12 container holding the key.
    result |= SetText(curl, CURLOPT_SSLCERTTYPE, "P12");
  } else {
    result |= SetText(curl, CURLOPT_SSLCERTTYPE, "PEM");
    result |= SetBlob(curl, CURLOPT_SSLKEY_BLOB, key);
    result |= SetText(curl, CURLOPT_SSLKEYTYPE, "PEM");
  }
  return result;
}

int ApplyProxy(CURL* curl, const HttpUrl& url, const detail::ResolvedPolicies& policies, HttpProxyFinder& finder) {
  switch (policies.proxy) {
    case PP_AutomaticProxy: {
      std::string proxy;
      // No proxy option at all (curl's default) leaves curl free to apply http_proxy / https_proxy /
      // no_proxy.
      if (!finder.getProxyUrl(url, proxy)) return 0;
      return SetText(curl, CURLOPT_PROXY, proxy.c_str());
    }
    case PP_StaticProxy: {
      const HttpUrl* proxyUrl = policies.staticProxyUrl;
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

// Certificate checks are off for https://127.0.0.1 (a local sidecar or test server rarely holds a
// certificate naming that address), but only for that address: curl keeps the verification options of
// the handle across redirects, so a redirect to any other host would be followed unverified. This
// prerequisite callback runs before every request of the transfer, redirects included, with the address
// actually connected, and refuses all but the loopback address itself.
int LoopbackOnly(void*, char* primaryIp, char*, int, int) {
  return primaryIp != nullptr && std::strcmp(primaryIp, "127.0.0.1") == 0 ? CURL_PREREQFUNC_OK
                                                                          : CURL_PREREQFUNC_ABORT;
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

int detail::SchemeKind(const std::string& scheme) {
  if (scheme.size() < 4 || kxStringUtils::AsciiToLower(scheme.substr(0, 4)) != "http") return 0;
  return scheme.back() == 's' || scheme.back() == 'S' ? 2 : 1;
}

int HttpConnectionParameters::applyParameters(void* curl, const HttpUrl& url, HttpProxyFinder& finder) const {
  return detail::ApplyParameters(*this, static_cast<CURL*>(curl), url, finder,
                                 detail::ResolvedPolicies::Of(url.getPolicies()), nullptr);
}

int detail::ApplyParameters(const HttpConnectionParameters& p, CURL* curl, const HttpUrl& url,
                            HttpProxyFinder& finder, const ResolvedPolicies& policies, CURLSH* cookieJar) {
  // Every option is compared with libcurl's default (what curl_easy_reset leaves) and set only when it
  // differs: about a third of the options a request could set, and each set costs a call.
  int result = 0;
  if (p.followLocation) result |= SetLong(curl, CURLOPT_FOLLOWLOCATION, 1L);
  result |= SetLong(curl, CURLOPT_MAXREDIRS, std::max<long>(p.maxRedirects, 0));

  // Only http and https may be transferred; anything else stops here with a non-zero result, which
  // fails the connection's setup before a byte is sent.
  const int schemeKind = SchemeKind(url.getScheme());
  if (schemeKind == 0) return result | CURLE_UNKNOWN_OPTION;

  if (p.acceptEncoding) result |= SetText(curl, CURLOPT_ACCEPT_ENCODING, "");
  result |= SetText(curl, CURLOPT_PROTOCOLS_STR, "HTTP,HTTPS");
  // A plain http request never follows a redirect to https (nor, by default, https to http): a
  // redirect must not silently change the security of the exchange.
  const bool secure = schemeKind == 2;
  result |= SetText(curl, CURLOPT_REDIR_PROTOCOLS_STR,
                    secure ? (p.allowHttpsToHttpRedirect ? "HTTP,HTTPS" : "HTTPS") : "HTTP");

  result |= SetLong(curl, CURLOPT_CONNECTTIMEOUT, std::max<long>(p.connectTimeoutSec, 0));
  if (p.maxRecvSpeed > 0) result |= SetOffset(curl, CURLOPT_MAX_RECV_SPEED_LARGE, p.maxRecvSpeed);
  if (p.maxSendSpeed > 0) result |= SetOffset(curl, CURLOPT_MAX_SEND_SPEED_LARGE, p.maxSendSpeed);

  // The in-memory cookie engine: "" reads no file. Without cookies nothing is set (curl's default).
  if (p.enableCookies) {
    if (cookieJar != nullptr) result |= curl_easy_setopt(curl, CURLOPT_SHARE, cookieJar);
    result |= SetText(curl, CURLOPT_COOKIEFILE, "");
  }

  // The low-speed rule is the only time limit of a transfer once connected: a fixed overall time-out
  // would kill large but healthy downloads.
  if (p.lowSpeedLimit >= 1 && p.lowSpeedTimeSec > 0) {
    result |= SetLong(curl, CURLOPT_LOW_SPEED_LIMIT, p.lowSpeedLimit);
    result |= SetLong(curl, CURLOPT_LOW_SPEED_TIME, p.lowSpeedTimeSec);
  }
  if (p.tcpKeepAliveSec >= 1) {
    result |= SetLong(curl, CURLOPT_TCP_KEEPALIVE, 1L);
    result |= SetLong(curl, CURLOPT_TCP_KEEPIDLE, p.tcpKeepAliveSec);
    result |= SetLong(curl, CURLOPT_TCP_KEEPINTVL, p.tcpKeepAliveSec);
  }

  // curl hands its trace to the connection's debug callback only when verbose.
  if (kxLog::isVerbose()) result |= SetLong(curl, CURLOPT_VERBOSE, 1L);

  // A preference is strict: curl then uses that family only, and the connection retries once with any
  // family when the name does not resolve or the certificate does not match.
  if (policies.hostNameResolution == HNRP_PreferIpv6) result |= SetLong(curl, CURLOPT_IPRESOLVE, CURL_IPRESOLVE_V6);
  if (policies.hostNameResolution == HNRP_PreferIpv4) result |= SetLong(curl, CURLOPT_IPRESOLVE, CURL_IPRESOLVE_V4);

  const bool loopback = url.getHost() == "127.0.0.1";
  if (loopback || policies.sslValidate != SVP_VerifyPeerAndHost) {
    result |= SetLong(curl, CURLOPT_SSL_VERIFYPEER, 0L);
    result |= SetLong(curl, CURLOPT_SSL_VERIFYHOST, 0L);
    if (loopback && secure && policies.sslValidate == SVP_VerifyPeerAndHost) {
      using PrereqFn = int (*)(void*, char*, char*, int, int);
      result |= curl_easy_setopt(curl, CURLOPT_PREREQFUNCTION, static_cast<PrereqFn>(&LoopbackOnly));
    }
  }

  result |= ApplyClientCertificate(curl, policies);
  result |= ApplyProxy(curl, url, policies, finder);
  return result;
}

}  // namespace http
}  // namespace kx
