// Private state of kx::http::HttpConnection and the helpers its three source files share: the transfer
// code (HttpConnection.cpp), the report and the curl trace (HttpConnectionDiagnostics.cpp) and the
// CURLcode name table (CurlErrorNames.cpp). Kept out of the public header so that users' builds never
// see libcurl's headers.
#pragma once

#include <curl/curl.h>

#include <kx/http/HttpConnection.h>
#include <kx/http/HttpConnectionParameters.h>
#include <kx/http/HttpHeaders.h>
#include <kx/http/HttpPolicies.h>
#include <kx/http/HttpProxyFinder.h>
#include <kx/http/HttpUrl.h>
#include <kx/system/kxTime.h>

#include "core/TransferHooks.h"

#include <cstdint>
#include <string>

namespace kx {
class kxCancelInterfaceReadOnly;
namespace http {
struct HttpConnection::State {
  HttpProxyFinder proxyFinder;
  HttpConnectionParameters parameters;
  HttpHeaders commonHeaders;
  CURL* curl = nullptr;
  // The header list of the request in flight: curl keeps a pointer to it until the next reset, so it
  // lives here and not on the stack of the call.
  curl_slist* headerList = nullptr;
  char errorBuffer[CURL_ERROR_SIZE] = {};
  HttpUrl lastUrl;
  int64_t lastUseTime = kTimeNeverSet;
  int64_t creationTime = kTimeNeverSet;
  uint64_t connectionUseCount = 0;
  uint64_t socketUseCount = 0;
  std::string errorText;
  std::string extraErrorInfo;
  std::string receivedContentType;
  std::string debugTrace;
  std::string requestId;
  CURLcode curlResult = CURLE_OK;
  long httpStatus = 0;
  // Only true while curl_easy_perform runs with the log verbose: the debug callback records nothing
  // outside that window, so a trace never mixes two calls.
  bool traceEnabled = false;
  // The last-use time as it was when the current call began. The report's "previous use" must show the
  // use before this call, and lastUseTime is overwritten as soon as the call has run.
  int64_t previousUseTime = kTimeNeverSet;
  // The hooks and cancel object of the call in flight (null outside a call).
  const detail::TransferHooks* hooks = nullptr;
  const kxCancelInterfaceReadOnly* cancel = nullptr;
  // The connection's cookie jar, kept in a share outside the handle (created when a call first enables
  // cookies, destroyed when one disables them). curl_easy_reset of libcurl 7.88 forgets the cookie file
  // list of CURLOPT_COOKIEFILE without freeing it, and freeing it first (COOKIEFILE null) throws away a
  // jar that lives in the handle; a jar in a share survives both, and also a new handle after a
  // transfer error.
  CURLSH* cookieJar = nullptr;

  // What the handle is configured for, when that is all it holds besides the options of the last call's
  // hooks and method (see HttpConnection::setup): a call asking for the same skips the reset and the
  // parameters. Cleared whenever something unknown may have touched the handle.
  struct Configuration {
    HttpConnectionParameters parameters;
    SSLValidatePolicy sslValidate = SVP_GlobalPolicy;
    HostNameResolutionPolicy hostNameResolution = HNRP_GlobalPolicy;
    int schemeKind = 0;  // 1 http, 2 https
    bool loopback = false;
    bool verbose = false;
    bool operator==(const Configuration& other) const {
      return parameters == other.parameters && sslValidate == other.sslValidate &&
             hostNameResolution == other.hostNameResolution && schemeKind == other.schemeKind &&
             loopback == other.loopback && verbose == other.verbose;
    }
  };
  Configuration configuration;
  bool configured = false;
  // Per-call options the handle holds now, so that the next call without a reset knows what to undo.
  bool probeInstalled = false;
  bool seekInstalled = false;
  bool headerFunctionInstalled = false;

  // A keep-alive call to the same URL with the same headers as the last one leaves CURLOPT_URL and the
  // header list as they are: encoding the URL and building the list cost more than a tenth of a small
  // request. Both flags drop whenever the handle is reset or replaced.
  // The handle's CURLOPT_URL is the encoding of lastUrl (set only for URLs without credentials, which
  // are never kept in memory longer than the call).
  bool urlOnHandle = false;
  // headerList is what the snapshots below give (no per-call header, no request id) and the handle
  // points at it.
  bool headerListReusable = false;
  bool headerListOnHandle = false;
  HttpHeaders listDefaults;
  HttpHeaders listCommon;
  std::string listContentType;
};

namespace detail {

// libcurl's symbolic name of `code` ("CURLE_OK " for 0, with its trailing blank), or "Unknown Curl error
// code" outside 0..100.
const char* CurlCodeName(int code);

// The name, " (", the decimal code, "), " and curl_easy_strerror's text.
std::string CurlErrorText(int code);

// CURLOPT_DEBUGFUNCTION of every connection; `userData` is the connection's State.
int CurlDebugCallback(CURL* curl, curl_infotype type, char* text, size_t size, void* userData);

// The multi-line report of getLastErrorMsg().
std::string BuildErrorReport(const HttpConnection::State& state);

}  // namespace detail
}  // namespace http
}  // namespace kx
