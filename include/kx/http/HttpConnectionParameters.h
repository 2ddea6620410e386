// HttpConnectionParameters holds the per-connection transfer settings: time and speed limits, redirects,
// cookies, compression and TCP keep-alive. applyParameters turns them, with the URL's resolved policies,
// into libcurl options; every request applies them again after resetting its handle.
//
//   kx::http::HttpConnectionParameters params;
//   params.connectTimeoutSec = 3;
//   params.lowSpeedLimit = 1024;        // abort below 1 KiB/s ...
//   params.lowSpeedTimeSec = 20;        // ... sustained for 20 s (there is no overall time-out)
//   connection.setConnectionParameters(params);
//
// Fields and defaults:
//   connectTimeoutSec 10   CURLOPT_CONNECTTIMEOUT; negative counts as 0 (curl's default)
//   maxSendSpeed 0         bytes/s; 0 or negative: unlimited
//   maxRecvSpeed 0         bytes/s; 0 or negative: unlimited
//   lowSpeedLimit 1        bytes/s; with lowSpeedTimeSec > 0 a slower transfer ends with a time-out;
//   lowSpeedTimeSec 10     lowSpeedLimit 0 switches the rule off
//   tcpKeepAliveSec -1     TCP keep-alive idle and probe interval; below 1: off
//   maxRedirects 3         negative counts as 0
//   reservedFlag false     not used
//   followLocation true    follow redirects (http never to https; https to http only if allowed)
//   allowHttpsToHttpRedirect false
//   enableCookies true     in-memory cookie engine per handle
//   acceptEncoding true    ask for and decode every compression libcurl supports
//
// Thread-safety: a plain value; thread-compatible.
#pragma once

#include <kx/system/kxExport.h>

#include <cstdint>

namespace kx {
namespace http {

class HttpUrl;
class HttpProxyFinder;

class KX_EXPORT HttpConnectionParameters {
 public:
  HttpConnectionParameters();

  // Sets the options on the curl easy handle `curl` for a request to `url`. Returns the bitwise OR of
  // every curl_easy_setopt result: 0 when all were accepted. Only http and https URLs pass (a different
  // scheme gives a non-zero result after the redirect options).
  int applyParameters(void* curl, const HttpUrl& url, HttpProxyFinder& finder) const;

  bool operator==(const HttpConnectionParameters& other) const;
  bool operator!=(const HttpConnectionParameters& other) const { return !(*this == other); }

  int32_t connectTimeoutSec;
  int32_t maxSendSpeed;
  int32_t maxRecvSpeed;
  int32_t lowSpeedLimit;
  int32_t lowSpeedTimeSec;
  int32_t tcpKeepAliveSec;
  int32_t maxRedirects;
  bool reservedFlag;
  bool followLocation;
  bool allowHttpsToHttpRedirect;
  bool enableCookies;
  bool acceptEncoding;
};

}  // namespace http
}  // namespace kx
