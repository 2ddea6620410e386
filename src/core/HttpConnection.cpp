#include <kx/http/HttpConnection.h>

#include <kx/Corvix.h>
#include <kx/http/HttpPolicies.h>
#include <kx/system/kxCancelInterfaceReadOnly.h>
#include <kx/system/kxLog.h>
#include <kx/system/kxRandomUtils.h>
#include <kx/system/kxStringUtils.h>

#include "bodies/RequestBody.h"
#include "bodies/ResponseSink.h"
#include "core/CurlOptions.h"
#include "core/HttpConnectionAccess.h"
#include "core/HttpConnectionState.h"
#include "core/TransferError.h"
#include "policies/ResolvedPolicies.h"

#include <sys/socket.h>

#include <cerrno>
#include <limits>
#include <string>

namespace kx {
namespace http {
namespace {

// Progress callback: the only point where curl lets the caller stop a running transfer. A true answer
// makes curl end with CURLE_ABORTED_BY_CALLBACK at its next tick (at least once a second, also while
// the peer is silent). One probe for every call: the cancel object first, then the call path's own.
int CancelProbe(void* state, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  const auto& s = *static_cast<const HttpConnection::State*>(state);
  if (s.cancel != nullptr && s.cancel->shouldCancel()) return 1;
  if (s.hooks != nullptr && s.hooks->progress != nullptr) return s.hooks->progress(s.hooks->progressArgument) ? 1 : 0;
  return 0;
}

// Defaults until the caller's header callback installs its own: a response body nobody asked for fails
// the transfer (CURLE_WRITE_ERROR) instead of vanishing, and a request has no body.
size_t NullWriter(char*, size_t, size_t, void*) { return 0; }
size_t NullReader(char*, size_t, size_t, void*) { return 0; }

int64_t ElapsedSince(int64_t start) {
  if (start == kTimeNeverSet) return std::numeric_limits<int64_t>::max();
  return GetTimeBaseMs() - start;
}

// An idle keep-alive socket has nothing to read: the peer answered everything we asked. A non-blocking
// peek tells a live one (nothing yet: EAGAIN) from one the server has closed (EOF), reset (an error) or
// written to out of turn (a byte nobody will ever claim). curl's own active-socket query does not look.
bool IdleSocketIsLive(curl_socket_t socket) {
  char byte;
  ssize_t n;
  do {
    n = ::recv(socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  } while (n < 0 && errno == EINTR);
  return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
}

std::string ElapsedText(int64_t start) { return kxStringUtils::humanizeDuration(ElapsedSince(start), 1); }

// Appends "name: value" lines, one per value, in the collection's (name) order, and notes whether a
// Content-Type went in. False when curl could not allocate a list node; the list built so far stays
// owned by `list`.
bool AppendHeaders(curl_slist*& list, const HttpHeaders& headers, bool& sawContentType) {
  return headers.iterateOverHeaders([&](const std::string& name, const std::list<std::string>& values) {
    if (name == "content-type") sawContentType = true;
    std::string line;
    for (const std::string& value : values) {
      line.assign(name).append(": ").append(value);
      curl_slist* grown = curl_slist_append(list, line.c_str());
      if (grown == nullptr) return false;
      list = grown;
    }
    return true;
  });
}

bool AppendLine(curl_slist*& list, const std::string& line) {
  curl_slist* grown = curl_slist_append(list, line.c_str());
  if (grown == nullptr) return false;
  list = grown;
  return true;
}

}  // namespace

HttpConnection::HttpConnection(bool trackSocket) : state_(std::make_unique<State>()), trackSocket_(trackSocket) {}

HttpConnection::~HttpConnection() {
  // The handle first: curl may still point at the header list until it is gone.
  if (state_->curl != nullptr) curl_easy_cleanup(state_->curl);
  curl_slist_free_all(state_->headerList);
  // Last: a share cannot be released while a handle still uses it.
  if (state_->cookieJar != nullptr) curl_share_cleanup(state_->cookieJar);
}

bool HttpConnection::getHttpData(const HttpUrl& url, const std::string& expectedContentType, long expectedStatus,
                                 HeaderCallback headerCallback, const kxCancelInterfaceReadOnly* cancel,
                                 void* userData) {
  State& s = *state_;
  // Use counts describe one server: a connection moved to another host:port starts counting again.
  if (!s.lastUrl.getHost().empty() &&
      (s.lastUrl.getHost() != url.getHost() || s.lastUrl.getPort() != url.getPort())) {
    s.connectionUseCount = 0;
    s.socketUseCount = 0;
    if (kxLog::isVerbose()) {
      kxLog::log(kLogTypeWarning, "http",
                 "Http connection was reused with a different host:port " + s.lastUrl.toDisplayableUrl() + " " +
                     url.toDisplayableUrl());
    }
  }
  // Only the kx::Url part is copied (see getLastUrl). lastUrl holds no credentials, so a URL with some
  // never compares equal and is always encoded afresh.
  if (static_cast<const kx::Url&>(url) != s.lastUrl) {
    static_cast<kx::Url&>(s.lastUrl) = url;
    s.lastUrl.clearCredentials();
    if (!s.lastUrl.getAuthenticators().empty()) s.lastUrl.clearAuthenticators();
    if (s.lastUrl.getPolicies() != nullptr) s.lastUrl.clearPolicies();
    s.urlOnHandle = false;
  }
  s.previousUseTime = s.lastUseTime;

  // Resolved once per attempt: setup and the retry decision read the same values.
  detail::ResolvedPolicies policies = detail::ResolvedPolicies::Of(url.getPolicies());
  for (int attempt = 0;; ++attempt) {
    // Per-call state; a retry describes itself (its use count shows the two attempts), the first
    // attempt's trace having been logged already.
    s.curlResult = CURLE_OK;
    s.httpStatus = 0;
    s.errorText.clear();
    if (attempt == 0) s.extraErrorInfo.clear();
    s.receivedContentType.clear();
    s.debugTrace.clear();
    s.requestId.clear();
    s.errorBuffer[0] = '\0';
    if (!setup(url, cancel, policies)) {
      if (s.errorText.empty()) s.errorText = detail::FormatTransferError(detail::TransferError::kSetupFailed);
      return false;
    }
    bool retryWithAnyFamily = false;
    const bool ok = getHttpDataImpl(url, expectedContentType, expectedStatus, policies.hostNameResolution,
                                    retryWithAnyFamily, headerCallback, cancel, userData);
    s.lastUseTime = GetTimeBaseMs();
    // One retry at most: the failed attempt destroyed the handle, and the fresh one must not keep the
    // address family that just failed.
    if (ok || !retryWithAnyFamily || attempt > 0) return ok;
    policies.hostNameResolution = HNRP_Whatever;
  }
}

bool HttpConnection::getHttpDataImpl(const HttpUrl& url, const std::string& expectedContentType,
                                     long expectedStatus, HostNameResolutionPolicy policy,
                                     bool& retryWithAnyFamily, HeaderCallback headerCallback,
                                     const kxCancelInterfaceReadOnly* cancel, void* userData) {
  using detail::FormatTransferError;
  using detail::TransferError;
  State& s = *state_;
  retryWithAnyFamily = false;
  if (s.curl == nullptr) {
    // Only reachable when called on its own without setupConnection.
    s.errorText = FormatTransferError(TransferError::kSetupFailed);
    return false;
  }
  ++s.connectionUseCount;
  ++s.socketUseCount;

  if (!url.isValid()) {
    s.errorText = FormatTransferError(TransferError::kInvalidUrl);
    clearConnection();
    return false;
  }

  // Failures before the transfer: the handle may hold half-applied options, so it is destroyed.
  auto failBeforeTransfer = [this, &s](std::string text) {
    s.errorText = std::move(text);
    curl_slist_free_all(s.headerList);
    s.headerList = nullptr;
    s.headerListReusable = false;
    clearConnection();
    return false;
  };

  HttpHeaders requestHeaders;
  for (const auto& authenticator : url.getAuthenticators()) {
    std::string error;
    if (!authenticator->getAuthenticationHttpHeaders(url, requestHeaders, error))
      return failBeforeTransfer(FormatTransferError(TransferError::kAuthenticator, {error}));
  }
  if (headerCallback != nullptr && headerCallback(s.curl, userData, requestHeaders) != 0)
    return failBeforeTransfer(FormatTransferError(TransferError::kUserCallback));

  // The id lets a server's logs be matched with this client's trace; it is only worth its cost when
  // someone reads the trace, i.e. with the log verbose.
  const bool verbose = kxLog::isVerbose();
  const char* contentType = s.hooks != nullptr ? s.hooks->contentType : nullptr;
  const HttpHeaders& defaultHeaders = GetDefaultHttpHeaders();
  const bool sameList = s.headerListReusable && !verbose && requestHeaders.empty() &&
                        s.listContentType == (contentType != nullptr ? contentType : "") &&
                        s.listDefaults == defaultHeaders && s.listCommon == s.commonHeaders;
  if (!sameList) {
    curl_slist_free_all(s.headerList);
    s.headerList = nullptr;
    s.headerListOnHandle = false;
    bool sawContentType = false;
    bool listBuilt = AppendHeaders(s.headerList, defaultHeaders, sawContentType) &&
                     AppendHeaders(s.headerList, s.commonHeaders, sawContentType) &&
                     AppendHeaders(s.headerList, requestHeaders, sawContentType);
    // The call's content type goes in only where no layer chose one: two would leave the server to pick.
    if (listBuilt && !sawContentType && contentType != nullptr)
      listBuilt = AppendLine(s.headerList, std::string("Content-Type: ") + contentType);
    listBuilt = listBuilt && AppendLine(s.headerList, "Connection: Keep-Alive");
    if (listBuilt && verbose) {
      s.requestId = kxRandomUtils::Uuid4Text();
      listBuilt = AppendLine(s.headerList, "X-Request-ID: " + s.requestId);
    }
    if (!listBuilt) return failBeforeTransfer(FormatTransferError(TransferError::kSetHeaders));
    s.headerListReusable = !verbose && requestHeaders.empty();
    if (s.headerListReusable) {
      s.listDefaults = defaultHeaders;
      s.listCommon = s.commonHeaders;
      s.listContentType = contentType != nullptr ? contentType : "";
    }
  }
  if (!s.headerListOnHandle) {
    if (curl_easy_setopt(s.curl, CURLOPT_HTTPHEADER, s.headerList) != CURLE_OK)
      return failBeforeTransfer(FormatTransferError(TransferError::kSetHeaders));
    s.headerListOnHandle = true;
  }
  if (!s.urlOnHandle) {
    const bool withCredentials = !url.getUser().empty() || !url.getPassword().empty();
    std::string encodedUrl = url.toEncodedUrl(true);
    const bool urlSet = curl_easy_setopt(s.curl, CURLOPT_URL, encodedUrl.c_str()) == CURLE_OK;
    if (withCredentials) kxStringUtils::SecureClear(encodedUrl);
    if (!urlSet) return failBeforeTransfer(FormatTransferError(TransferError::kSetUrl));
    s.urlOnHandle = !withCredentials;
  }

  s.traceEnabled = verbose;
  const int64_t start = GetTimeBaseMs();
  s.curlResult = curl_easy_perform(s.curl);
  s.traceEnabled = false;

  const bool cancelled = cancel != nullptr && cancel->shouldCancel();
  if (!s.debugTrace.empty() && !cancelled && verbose)
    kxLog::log(kLogTypeDebug, "curl", "Curl debug output \n" + s.debugTrace);

  s.httpStatus = 0;
  curl_easy_getinfo(s.curl, CURLINFO_RESPONSE_CODE, &s.httpStatus);

  if (trackSocket_ && s.socketUseCount != 0) {
    // curl's count of connections this transfer opened tells a reconnect for sure; comparing socket
    // numbers before and after cannot, since a new socket may get the number the closed one had.
    long newConnections = 0;
    curl_easy_getinfo(s.curl, CURLINFO_NUM_CONNECTS, &newConnections);
    if (newConnections > 0) s.socketUseCount = 0;
  }

  if (verbose) {
    // Added after the trace was logged: these lines only reach the error report.
    curl_off_t uploaded = 0, downloaded = 0, uploadSpeed = 0, downloadSpeed = 0;
    curl_easy_getinfo(s.curl, CURLINFO_SIZE_UPLOAD_T, &uploaded);
    curl_easy_getinfo(s.curl, CURLINFO_SIZE_DOWNLOAD_T, &downloaded);
    curl_easy_getinfo(s.curl, CURLINFO_SPEED_UPLOAD_T, &uploadSpeed);
    curl_easy_getinfo(s.curl, CURLINFO_SPEED_DOWNLOAD_T, &downloadSpeed);
    s.debugTrace += "\n# -> " + std::to_string(uploaded) + "B @" + std::to_string(uploadSpeed) + "B/sec";
    s.debugTrace += "\n# <- " + std::to_string(downloaded) + "B @" + std::to_string(downloadSpeed) + "B/sec";
  }

  if (s.curlResult != CURLE_OK) {
    if (cancelled) {
      // Kept: the caller chose to stop, the handle itself is sound.
      s.errorText = FormatTransferError(TransferError::kCanceled, {ElapsedText(start), url.toDisplayableUrl()});
      return false;
    }
    // Under a strict address-family preference these failures may be the family's fault (no address of
    // that family, or a certificate that only matches the other one): worth one try with any family.
    // A literal address has no other family to try.
    if (!url.getIpAddress().isValid() && (policy == HNRP_PreferIpv6 || policy == HNRP_PreferIpv4) &&
        (s.curlResult == CURLE_COULDNT_RESOLVE_HOST || s.curlResult == CURLE_SSL_CERTPROBLEM ||
         s.curlResult == CURLE_PEER_FAILED_VERIFICATION)) {
      retryWithAnyFamily = true;
    }
    s.errorText = FormatTransferError(TransferError::kPerform, {ElapsedText(start), url.toDisplayableUrl()});
    clearConnection();
    return false;
  }

  const char* received = nullptr;
  if (curl_easy_getinfo(s.curl, CURLINFO_CONTENT_TYPE, &received) == CURLE_OK && received != nullptr)
    s.receivedContentType = received;

  if (expectedStatus >= 1 && expectedStatus != s.httpStatus) {
    s.errorText = FormatTransferError(TransferError::kBadStatus, {std::to_string(s.httpStatus),
                                                                  std::to_string(expectedStatus),
                                                                  url.toDisplayableUrl()});
    return false;
  }
  if (!expectedContentType.empty() && expectedContentType != s.receivedContentType) {
    s.errorText = FormatTransferError(TransferError::kBadContentType,
                                      {s.receivedContentType, expectedContentType, url.toDisplayableUrl()});
    return false;
  }
  return true;
}

bool HttpConnection::setupConnection(const HttpUrl& url, const kxCancelInterfaceReadOnly* cancel) {
  return setup(url, cancel, detail::ResolvedPolicies::Of(url.getPolicies()));
}

bool HttpConnection::setup(const HttpUrl& url, const kxCancelInterfaceReadOnly* cancel,
                           const detail::ResolvedPolicies& policies) {
  State& s = *state_;
  s.cancel = cancel;
  const detail::TransferHooks* hooks = s.hooks;
  State::Configuration wanted;
  wanted.parameters = s.parameters;
  wanted.sslValidate = policies.sslValidate;
  wanted.hostNameResolution = policies.hostNameResolution;
  wanted.schemeKind = detail::SchemeKind(url.getScheme());
  wanted.loopback = url.getHost() == "127.0.0.1";
  wanted.verbose = kxLog::isVerbose();
  // Client certificates and proxies hold texts and blobs that may change under the same policy value:
  // those calls always take the full setup.
  const bool keepable = hooks != nullptr && hooks->methodOptionsOnly && wanted.schemeKind != 0 &&
                        policies.clientCertificate != SCCP_EnableClientCrt && policies.proxy == PP_NoProxy;

  int result = 0;
  if (s.curl != nullptr && s.configured && keepable && s.configuration == wanted) {
    // The handle already holds this configuration; only the last call's own options are undone. The
    // same end state as a reset followed by the full setup, at a fraction of its cost.
    result = installCallOptions(cancel, /*afterReset=*/false);
    if (result == 0) return true;
  }

  if (s.curl == nullptr) {
    if (!IsCorvixInitialized()) {
      s.errorText = detail::FormatTransferError(detail::TransferError::kNotInitialized);
      kxLog::log(kLogTypeError, "http", s.errorText);
      return false;
    }
    s.curl = curl_easy_init();
    if (s.curl == nullptr) return false;
    s.creationTime = GetTimeBaseMs();
  } else {
    // Frees the cookie file list that the reset would leak; the jar stays in its share.
    if (s.cookieJar != nullptr) curl_easy_setopt(s.curl, CURLOPT_COOKIEFILE, static_cast<const char*>(nullptr));
    // A reset drops every option of the previous request but keeps curl's connection cache, so the
    // keep-alive socket survives.
    curl_easy_reset(s.curl);
  }
  s.configured = false;
  s.urlOnHandle = false;
  s.headerListOnHandle = false;
  if (s.parameters.enableCookies && s.cookieJar == nullptr) {
    s.cookieJar = curl_share_init();
    if (s.cookieJar != nullptr) curl_share_setopt(s.cookieJar, CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
  } else if (!s.parameters.enableCookies && s.cookieJar != nullptr) {
    // No cookies for this call: the jar is dropped, as switching the engine off drops it.
    curl_easy_setopt(s.curl, CURLOPT_SHARE, static_cast<CURLSH*>(nullptr));
    curl_share_cleanup(s.cookieJar);
    s.cookieJar = nullptr;
  }

  // After a reset every option is at libcurl's default, so only the values that differ from it are set:
  // no POST, NOBODY, CUSTOMREQUEST, UPLOAD, sizes, seek or header functions to clear.
  CURL* curl = s.curl;
  using DebugFn = int (*)(CURL*, curl_infotype, char*, size_t, void*);
  result = installCallOptions(cancel, /*afterReset=*/true);
  result |= curl_easy_setopt(curl, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  // Without it curl raises SIGALRM around name resolution and changes SIGPIPE handling while it runs,
  // which is unsafe when several threads transfer at once.
  result |= curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  if (wanted.verbose) {
    // The trace is only collected with the log verbose (the callback ignores everything otherwise).
    result |= curl_easy_setopt(curl, CURLOPT_DEBUGFUNCTION, static_cast<DebugFn>(&detail::CurlDebugCallback));
    result |= curl_easy_setopt(curl, CURLOPT_DEBUGDATA, static_cast<void*>(&s));
  }
  result |= curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, s.errorBuffer);
  result |= detail::ApplyParameters(s.parameters, curl, url, s.proxyFinder, policies, s.cookieJar);

  if (result != 0) {
    clearConnection();
    return false;
  }
  if (keepable) {
    s.configuration = wanted;
    s.configured = true;
  }
  return true;
}

int HttpConnection::installCallOptions(const kxCancelInterfaceReadOnly* cancel, bool afterReset) {
  State& s = *state_;
  CURL* curl = s.curl;
  const detail::TransferHooks* hooks = s.hooks;
  using WriteFn = size_t (*)(char*, size_t, size_t, void*);
  using XferFn = int (*)(void*, curl_off_t, curl_off_t, curl_off_t, curl_off_t);
  if (afterReset) {
    s.probeInstalled = false;
    s.seekInstalled = false;
    s.headerFunctionInstalled = false;
  }
  int result = 0;
  if (!afterReset) {
    // What the last call's method may have set (its header callback sets nothing else).
    result |= curl_easy_setopt(curl, CURLOPT_POST, 0L);
    result |= curl_easy_setopt(curl, CURLOPT_NOBODY, 0L);
    result |= curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, static_cast<const char*>(nullptr));
    result |= curl_easy_setopt(curl, CURLOPT_UPLOAD, 0L);
    result |= curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(-1));
    result |= curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(-1));
  }
  // Writer and reader: the call's own, else a writer that accepts nothing (a response body nobody asked
  // for fails the transfer with CURLE_WRITE_ERROR instead of vanishing, or going to stdout as curl's
  // default would) and an empty body (curl's default reads stdin).
  if (hooks != nullptr && hooks->sink != nullptr) {
    result |= hooks->sink->install(curl);
  } else {
    result |= curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, static_cast<WriteFn>(&NullWriter));
  }
  if (s.seekInstalled) {
    result |= curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, static_cast<curl_seek_callback>(nullptr));
    s.seekInstalled = false;
  }
  if (hooks != nullptr && hooks->body != nullptr) {
    result |= hooks->body->install(curl);
    s.seekInstalled = hooks->body->installsSeek();
  } else {
    result |= curl_easy_setopt(curl, CURLOPT_READFUNCTION, static_cast<WriteFn>(&NullReader));
  }
  if (hooks != nullptr && hooks->headerFunction != nullptr) {
    result |= curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, hooks->headerFunction);
    result |= curl_easy_setopt(curl, CURLOPT_HEADERDATA, hooks->headerData);
    s.headerFunctionInstalled = true;
  } else if (s.headerFunctionInstalled) {
    result |= curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, static_cast<WriteFn>(nullptr));
    s.headerFunctionInstalled = false;
  }
  // The probe costs a call per progress tick: only worth it when something can stop the transfer. It
  // reads the cancel object and the hooks from the state, so once installed it serves every call.
  const bool probe = cancel != nullptr || (hooks != nullptr && hooks->progress != nullptr);
  if (probe && !s.probeInstalled) {
    result |= curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    result |= curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, static_cast<XferFn>(&CancelProbe));
    result |= curl_easy_setopt(curl, CURLOPT_XFERINFODATA, static_cast<void*>(&s));
  } else if (!probe && s.probeInstalled) {
    result |= curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 1L);
  }
  s.probeInstalled = probe;
  return result;
}

void HttpConnection::clearConnection() {
  state_->configured = false;
  state_->urlOnHandle = false;
  state_->headerListOnHandle = false;
  if (state_->curl != nullptr) {
    curl_easy_cleanup(state_->curl);
    state_->curl = nullptr;
  }
}

bool HttpConnection::isUnderlyingSockerValid() const {
  if (state_->curl == nullptr) return false;
  curl_socket_t socket = CURL_SOCKET_BAD;
  if (curl_easy_getinfo(state_->curl, CURLINFO_ACTIVESOCKET, &socket) != CURLE_OK) return false;
  return socket != CURL_SOCKET_BAD && IdleSocketIsLive(socket);
}

bool detail::HttpConnectionAccess::HasCurlHandle(const HttpConnection& connection) {
  return connection.state_->curl != nullptr;
}

int detail::HttpConnectionAccess::LastCurlCode(const HttpConnection& connection) {
  return static_cast<int>(connection.state_->curlResult);
}

bool detail::HttpConnectionAccess::GetHttpData(HttpConnection& connection, const HttpUrl& url,
                                               const std::string& expectedContentType, long expectedStatus,
                                               const TransferHooks& hooks, HttpConnection::HeaderCallback headerCallback,
                                               const kxCancelInterfaceReadOnly* cancel, void* userData) {
  HttpConnection::State& s = *connection.state_;
  s.hooks = &hooks;
  const bool ok = connection.getHttpData(url, expectedContentType, expectedStatus, headerCallback, cancel, userData);
  s.hooks = nullptr;
  s.cancel = nullptr;
  return ok;
}

const HttpUrl& HttpConnection::getLastUrl() const { return state_->lastUrl; }

long HttpConnection::getLastHttpReturnCode() const { return state_->httpStatus; }

std::string HttpConnection::getLastReceivedType() const { return state_->receivedContentType; }

bool HttpConnection::isLastCallTimedOut() const { return state_->curlResult == CURLE_OPERATION_TIMEDOUT; }

bool HttpConnection::isLastCallUnableToVerifyPeer() const {
  return state_->curlResult == CURLE_PEER_FAILED_VERIFICATION;
}

// Inverted on purpose: existing callers test it this way round.
bool HttpConnection::wasAbortedByCallback() const { return state_->curlResult != CURLE_ABORTED_BY_CALLBACK; }

const std::string& HttpConnection::getLastRequestId() const { return state_->requestId; }

std::string HttpConnection::getLastErrorMsg() const { return detail::BuildErrorReport(*state_); }

void HttpConnection::addErrorInfo(const std::string& info) {
  if (info.empty()) return;
  state_->extraErrorInfo += ' ';
  state_->extraErrorInfo += info;
}

const HttpConnectionParameters& HttpConnection::getConnectionParameters() const { return state_->parameters; }

HttpConnectionParameters& HttpConnection::editConnectionParameters() { return state_->parameters; }

void HttpConnection::setConnectionParameters(const HttpConnectionParameters& parameters) {
  state_->parameters = parameters;
}

const HttpHeaders& HttpConnection::getCommonHeaders() const { return state_->commonHeaders; }

HttpHeaders& HttpConnection::editCommonHeaders() { return state_->commonHeaders; }

uint64_t HttpConnection::getConnectionUseCount() const { return state_->connectionUseCount; }

uint64_t HttpConnection::getSocketUseCount() const { return state_->socketUseCount; }

}  // namespace http
}  // namespace kx
