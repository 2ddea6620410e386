#include <kx/http/HttpConnection.h>

#include <kx/Corvix.h>
#include <kx/system/kxCancelInterfaceReadOnly.h>
#include <kx/system/kxLog.h>
#include <kx/system/kxRandomUtils.h>
#include <kx/system/kxStringUtils.h>

#include "core/HttpConnectionState.h"

#include <sys/socket.h>

#include <cerrno>
#include <limits>
#include <string>

namespace kx {
namespace http {
namespace {

// Progress callback: the only point where curl lets the caller stop a running transfer. A true answer
// makes curl end with CURLE_ABORTED_BY_CALLBACK at its next tick (at least once a second, also while
// the peer is silent).
int CancelProbe(void* cancel, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  if (cancel == nullptr) return 0;
  return static_cast<const kxCancelInterfaceReadOnly*>(cancel)->shouldCancel() ? 1 : 0;
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

// Appends "name: value" lines, one per value, in the collection's (name) order. False when curl could
// not allocate a list node; the list built so far stays owned by `list`.
bool AppendHeaders(curl_slist*& list, const HttpHeaders& headers) {
  return headers.iterateOverHeaders([&list](const std::string& name, const std::list<std::string>& values) {
    for (const std::string& value : values) {
      const std::string line = name + ": " + value;
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

// curl_easy_reset of libcurl 7.88 forgets, without freeing it, the cookie file list that
// CURLOPT_COOKIEFILE "" (the in-memory cookie engine) appends to, so every reset of a handle with
// cookies on would leak a list node. Setting CURLOPT_COOKIEFILE to null frees that list, but it also
// destroys the cookie jar: the cookies are taken out first and put back by RestoreCookies once the new
// options are set.
void ResetKeepingCookies(CURL* curl, curl_slist*& savedCookies) {
  savedCookies = nullptr;
  if (curl_easy_getinfo(curl, CURLINFO_COOKIELIST, &savedCookies) != CURLE_OK) savedCookies = nullptr;
  curl_easy_setopt(curl, CURLOPT_COOKIEFILE, static_cast<const char*>(nullptr));
  curl_easy_reset(curl);
}

int RestoreCookies(CURL* curl, const curl_slist* cookies) {
  int result = 0;
  for (const curl_slist* cookie = cookies; cookie != nullptr; cookie = cookie->next)
    result |= curl_easy_setopt(curl, CURLOPT_COOKIELIST, cookie->data);
  return result;
}

}  // namespace

HttpConnection::HttpConnection(bool trackSocket) : state_(std::make_unique<State>()), trackSocket_(trackSocket) {}

HttpConnection::~HttpConnection() {
  // The handle first: curl may still point at the header list until it is gone.
  if (state_->curl != nullptr) curl_easy_cleanup(state_->curl);
  curl_slist_free_all(state_->headerList);
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
  // Only the kx::Url part is copied: the last URL is kept for the host:port check and for display, and
  // cloning the authenticators (which may hold credentials) on every request would serve neither.
  if (&s.lastUrl != &url) {
    static_cast<kx::Url&>(s.lastUrl) = url;
    s.lastUrl.clearAuthenticators();
  }
  s.lastUrl.clearCredentials();
  s.lastUrl.clearPolicies();

  s.previousUseTime = s.lastUseTime;
  s.curlResult = CURLE_OK;
  s.httpStatus = 0;
  s.errorText.clear();
  s.extraErrorInfo.clear();
  s.receivedContentType.clear();
  s.debugTrace.clear();
  s.requestId.clear();
  s.errorBuffer[0] = '\0';

  if (!setupConnection(url, cancel)) {
    if (s.errorText.empty()) s.errorText = "Fail to setupconnection";
    return false;
  }

  bool retryWithAnyFamily = false;
  const HostNameResolutionPolicy policy = HttpPolicies::ResolveHostNameResolutionPolicy(url.getPolicies());
  const bool ok = getHttpDataImpl(url, expectedContentType, expectedStatus, policy, retryWithAnyFamily,
                                  headerCallback, cancel, userData);
  s.lastUseTime = GetTimeBaseMs();
  if (ok || !retryWithAnyFamily) return ok;

  // The failed attempt destroyed the handle, and a fresh one must not keep the address family that just
  // failed: set everything up again with any family. One retry only. The report then describes the
  // retry (its use count shows the two attempts); the first attempt's trace was already logged.
  s.curlResult = CURLE_OK;
  s.httpStatus = 0;
  s.errorText.clear();
  s.receivedContentType.clear();
  s.debugTrace.clear();
  s.requestId.clear();
  s.errorBuffer[0] = '\0';
  if (!setupConnection(url, cancel, HNRP_Whatever)) {
    if (s.errorText.empty()) s.errorText = "Fail to setupconnection";
    return false;
  }
  const bool retried = getHttpDataImpl(url, expectedContentType, expectedStatus, HNRP_Whatever,
                                       retryWithAnyFamily, headerCallback, cancel, userData);
  s.lastUseTime = GetTimeBaseMs();
  return retried;
}

bool HttpConnection::getHttpDataImpl(const HttpUrl& url, const std::string& expectedContentType,
                                     long expectedStatus, HostNameResolutionPolicy policy,
                                     bool& retryWithAnyFamily, HeaderCallback headerCallback,
                                     const kxCancelInterfaceReadOnly* cancel, void* userData) {
  State& s = *state_;
  retryWithAnyFamily = false;
  if (s.curl == nullptr) {
    // Only reachable when called on its own without setupConnection.
    s.errorText = "Fail to setupconnection";
    return false;
  }
  curl_socket_t socketBefore = CURL_SOCKET_BAD;
  if (trackSocket_) curl_easy_getinfo(s.curl, CURLINFO_ACTIVESOCKET, &socketBefore);
  ++s.connectionUseCount;
  ++s.socketUseCount;

  if (!url.isValid()) {
    s.errorText = "Invalid http url";
    clearConnection();
    return false;
  }
  const std::string encodedUrl = url.toEncodedUrl(true);

  // Failures before the transfer: the handle may hold half-applied options, so it is destroyed.
  auto failBeforeTransfer = [this, &s](std::string text) {
    s.errorText = std::move(text);
    curl_slist_free_all(s.headerList);
    s.headerList = nullptr;
    clearConnection();
    return false;
  };

  HttpHeaders requestHeaders;
  for (const auto& authenticator : url.getAuthenticators()) {
    std::string error;
    if (!authenticator->getAuthenticationHttpHeaders(url, requestHeaders, error))
      return failBeforeTransfer("Authenticator return an error : " + error);
  }
  if (headerCallback != nullptr && headerCallback(s.curl, userData, requestHeaders) != 0)
    return failBeforeTransfer("User callback return and error");

  curl_slist_free_all(s.headerList);
  s.headerList = nullptr;
  bool listBuilt = AppendHeaders(s.headerList, GetDefaultHttpHeaders()) &&
                   AppendHeaders(s.headerList, s.commonHeaders) && AppendHeaders(s.headerList, requestHeaders) &&
                   AppendLine(s.headerList, "Connection: Keep-Alive");
  // The id lets a server's logs be matched with this client's trace; it is only worth its cost when
  // someone reads the trace, i.e. with the log verbose.
  if (listBuilt && kxLog::isVerbose()) {
    s.requestId = kxRandomUtils::Uuid4Text();
    listBuilt = AppendLine(s.headerList, "X-Request-ID: " + s.requestId);
  }
  if (!listBuilt || curl_easy_setopt(s.curl, CURLOPT_HTTPHEADER, s.headerList) != CURLE_OK)
    return failBeforeTransfer("Error while setting connection parameters");
  if (curl_easy_setopt(s.curl, CURLOPT_URL, encodedUrl.c_str()) != CURLE_OK)
    return failBeforeTransfer("Error while setting url");

  const bool verbose = kxLog::isVerbose();
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
    curl_socket_t socketAfter = CURL_SOCKET_BAD;
    curl_easy_getinfo(s.curl, CURLINFO_ACTIVESOCKET, &socketAfter);
    // A new connection may get the descriptor number the closed one had, so the number alone can miss a
    // reconnect; curl's count of connections opened by this transfer cannot.
    long newConnections = 0;
    curl_easy_getinfo(s.curl, CURLINFO_NUM_CONNECTS, &newConnections);
    if ((socketBefore != CURL_SOCKET_BAD && socketBefore != socketAfter) || newConnections > 0)
      s.socketUseCount = 0;
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
      s.errorText = "Curl easy perform canceled after " + ElapsedText(start) + ", " + url.toDisplayableUrl();
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
    s.errorText = "Curl easy perform error after " + ElapsedText(start) + ", " + url.toDisplayableUrl();
    clearConnection();
    return false;
  }

  const char* contentType = nullptr;
  if (curl_easy_getinfo(s.curl, CURLINFO_CONTENT_TYPE, &contentType) == CURLE_OK && contentType != nullptr)
    s.receivedContentType = contentType;
  else
    s.receivedContentType.clear();

  if (expectedStatus >= 1 && expectedStatus != s.httpStatus) {
    s.errorText = "bad html response code, got " + std::to_string(s.httpStatus) + ", expect " +
                  std::to_string(expectedStatus) + " " + url.toDisplayableUrl();
    return false;
  }
  if (!expectedContentType.empty() && expectedContentType != s.receivedContentType) {
    s.errorText = "bad content type, got " + s.receivedContentType + ", expect " + expectedContentType + " " +
                  url.toDisplayableUrl();
    return false;
  }
  return true;
}

bool HttpConnection::setupConnection(const HttpUrl& url, const kxCancelInterfaceReadOnly* cancel) {
  return setupConnection(url, cancel, HNRP_GlobalPolicy);
}

bool HttpConnection::setupConnection(const HttpUrl& url, const kxCancelInterfaceReadOnly* cancel,
                                     HostNameResolutionPolicy policy) {
  State& s = *state_;
  curl_slist* savedCookies = nullptr;
  if (s.curl == nullptr) {
    if (!IsCorvixInitialized()) {
      s.errorText = "Corvix library not initialized.";
      kxLog::log(kLogTypeError, "http", s.errorText);
      return false;
    }
    s.curl = curl_easy_init();
    if (s.curl == nullptr) return false;
    s.creationTime = GetTimeBaseMs();
  } else {
    // A reset drops every option of the previous request but keeps curl's connection cache, so the
    // keep-alive socket survives.
    ResetKeepingCookies(s.curl, savedCookies);
  }

  CURL* curl = s.curl;
  using WriteFn = size_t (*)(char*, size_t, size_t, void*);
  using XferFn = int (*)(void*, curl_off_t, curl_off_t, curl_off_t, curl_off_t);
  using DebugFn = int (*)(CURL*, curl_infotype, char*, size_t, void*);
  int result = 0;
  result |= curl_easy_setopt(curl, CURLOPT_POST, 0L);
  result |= curl_easy_setopt(curl, CURLOPT_NOBODY, 0L);
  result |= curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, static_cast<const char*>(nullptr));
  result |= curl_easy_setopt(curl, CURLOPT_UPLOAD, 0L);
  result |= curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, -1L);
  result |= curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(-1));
  result |= curl_easy_setopt(curl, CURLOPT_SEEKDATA, static_cast<void*>(nullptr));
  result |= curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, static_cast<curl_seek_callback>(nullptr));
  result |= curl_easy_setopt(curl, CURLOPT_HEADERDATA, static_cast<void*>(nullptr));
  result |= curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, static_cast<WriteFn>(nullptr));
  result |= curl_easy_setopt(curl, CURLOPT_INFILESIZE, -1L);
  result |= curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(-1));
  result |= curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
  result |= curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, static_cast<XferFn>(&CancelProbe));
  result |= curl_easy_setopt(curl, CURLOPT_XFERINFODATA, const_cast<kxCancelInterfaceReadOnly*>(cancel));
  result |= curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, static_cast<WriteFn>(&NullWriter));
  result |= curl_easy_setopt(curl, CURLOPT_WRITEDATA, static_cast<void*>(nullptr));
  result |= curl_easy_setopt(curl, CURLOPT_READFUNCTION, static_cast<WriteFn>(&NullReader));
  result |= curl_easy_setopt(curl, CURLOPT_READDATA, static_cast<void*>(nullptr));
  result |= curl_easy_setopt(curl, CURLOPT_FORBID_REUSE, 0L);
  result |= curl_easy_setopt(curl, CURLOPT_FRESH_CONNECT, 0L);
  result |= curl_easy_setopt(curl, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  // Without it curl raises SIGALRM around name resolution and changes SIGPIPE handling while it runs,
  // which is unsafe when several threads transfer at once.
  result |= curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  result |= curl_easy_setopt(curl, CURLOPT_DEBUGFUNCTION, static_cast<DebugFn>(&detail::CurlDebugCallback));
  result |= curl_easy_setopt(curl, CURLOPT_DEBUGDATA, static_cast<void*>(&s));
  result |= curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, s.errorBuffer);
  result |= curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, "");
  result |= curl_easy_setopt(curl, CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
  result |= s.parameters.applyParameters(curl, url, s.proxyFinder, policy);
  if (s.parameters.enableCookies) result |= RestoreCookies(curl, savedCookies);
  curl_slist_free_all(savedCookies);

  if (result != 0) {
    curl_easy_cleanup(s.curl);
    s.curl = nullptr;
    return false;
  }
  return true;
}

void HttpConnection::clearConnection() {
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

bool HttpConnection::hasCurlHandle() const { return state_->curl != nullptr; }

const HttpUrl& HttpConnection::getLastUrl() const { return state_->lastUrl; }

long HttpConnection::getLastHttpReturnCode() const { return state_->httpStatus; }

std::string HttpConnection::getLastReceivedType() const { return state_->receivedContentType; }

bool HttpConnection::isLastCallTimedOut() const { return state_->curlResult == CURLE_OPERATION_TIMEDOUT; }

bool HttpConnection::isLastCallUnableToVerifyPeer() const {
  return state_->curlResult == CURLE_PEER_FAILED_VERIFICATION;
}

// Inverted on purpose: existing callers test it this way round.
bool HttpConnection::wasAbortedByCallback() const { return state_->curlResult != CURLE_ABORTED_BY_CALLBACK; }

int HttpConnection::getLastCurlCode() const { return static_cast<int>(state_->curlResult); }

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
