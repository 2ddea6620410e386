// HttpConnection is one reusable HTTP transfer handle around one libcurl easy handle. It keeps the
// handle, and with it the open keep-alive socket, from one call to the next, and keeps the outcome of
// the last call for the accessors below. Most programs lease connections from an HttpConnectionPool and
// call the one-line helpers of HttpHelpers instead of getHttpData directly.
//
//   kx::http::HttpConnection connection;
//   kx::http::HttpUrl url("http://127.0.0.1:8080/health");
//   if (!connection.getHttpData(url, "", 200, &InstallBody, nullptr, &context))
//     log(connection.getLastErrorMsg());
//
// Request and response bodies are installed by the caller from inside the header callback, which runs
// after the handle was reset and configured: it receives the raw CURL* handle, the caller's user data and
// the request's header collection, and may set further curl options. A non-zero return fails the call.
//
// Failures return false; getLastErrorMsg() then gives a multi-line report (library error text, HTTP
// status, curl result and name, request id, extra info, curl's error buffer, curl's trace when the log is
// verbose, connection age and use counts). After a transfer error the handle is destroyed, so the next
// call opens a new socket; after a cancelled transfer or a status/content-type mismatch it is kept.
//
// Thread-safety: not thread-safe; one thread at a time. The cancel object is polled from the transfer.
// Ownership: owns its curl handle and header list; does not own the cancel object, user data or callback.
// Lifetime: destroy every connection before the last kx::terminateCorvix().
#pragma once

#include <kx/system/kxExport.h>

#include <cstdint>
#include <memory>
#include <string>

namespace kx {
class kxCancelInterfaceReadOnly;
namespace http {

class HttpConnectionParameters;
class HttpHeaders;
class HttpUrl;
namespace detail {
struct HttpConnectionAccess;
struct ResolvedPolicies;
}
enum HostNameResolutionPolicy : unsigned char;

class KX_EXPORT HttpConnection {
 public:
  // `curl` is the CURL* easy handle of the transfer.
  using HeaderCallback = int (*)(void* curl, void* userData, HttpHeaders& requestHeaders);

  // `trackSocket`: read curl's active socket before each transfer, so the report can tell a reused
  // socket from a new one (the pool turns it on).
  explicit HttpConnection(bool trackSocket = false);
  ~HttpConnection();
  HttpConnection(const HttpConnection&) = delete;
  HttpConnection& operator=(const HttpConnection&) = delete;

  // Performs one request to `url`. An empty `expectedContentType` and an `expectedStatus` of 0 or below
  // disable the respective check. A name-resolution or certificate failure under an address-family
  // preference is retried once with any family.
  bool getHttpData(const HttpUrl& url, const std::string& expectedContentType, long expectedStatus,
                   HeaderCallback headerCallback, const kxCancelInterfaceReadOnly* cancel, void* userData);

  // One attempt with the given resolution policy; sets `retryWithAnyFamily` when a retry may help.
  bool getHttpDataImpl(const HttpUrl& url, const std::string& expectedContentType, long expectedStatus,
                       HostNameResolutionPolicy policy, bool& retryWithAnyFamily, HeaderCallback headerCallback,
                       const kxCancelInterfaceReadOnly* cancel, void* userData);

  // Creates the curl handle (or resets the existing one, keeping its socket) and sets all options.
  // False with "Corvix library not initialized." as error text when a handle must be created before
  // kx::initializeCorvix; false (handle destroyed) when curl refused an option, e.g. for a scheme other
  // than http and https.
  bool setupConnection(const HttpUrl& url, const kxCancelInterfaceReadOnly* cancel);

  // Destroys the curl handle; the next call creates a fresh one and a fresh socket.
  void clearConnection();

  // False without a handle; otherwise whether curl still holds a socket that is fit for the next request:
  // open, not closed or reset by the peer, and with nothing unread (an idle keep-alive socket that has
  // data or an end of stream waiting was answered or closed by the server). Checked with a non-blocking
  // peek, so a pool never hands out a connection the server has already dropped.
  bool isUnderlyingSockerValid() const;

  // The URL of the last call, without credentials, policies or authenticators: it serves the host:port
  // check of the next call and display, and copying the authenticators (which may hold client secrets
  // or tokens) on every request would keep a second copy of those secrets for neither.
  const HttpUrl& getLastUrl() const;
  long getLastHttpReturnCode() const;
  std::string getLastReceivedType() const;
  bool isLastCallTimedOut() const;            // curl result 28
  bool isLastCallUnableToVerifyPeer() const;  // curl result 60
  // True when the last curl result is NOT CURLE_ABORTED_BY_CALLBACK (42). The inverted sense is kept
  // for compatibility with existing callers.
  bool wasAbortedByCallback() const;
  const std::string& getLastRequestId() const;

  // The multi-line report of the last call.
  std::string getLastErrorMsg() const;
  // Appends " " + info to the extra error info of the current call (ignored when empty).
  void addErrorInfo(const std::string& info);

  const HttpConnectionParameters& getConnectionParameters() const;
  HttpConnectionParameters& editConnectionParameters();
  void setConnectionParameters(const HttpConnectionParameters& parameters);
  const HttpHeaders& getCommonHeaders() const;
  HttpHeaders& editCommonHeaders();

  // Diagnostics used by the pool and tests. Both counts restart when the connection is used for another
  // host:port. The connection use count is the number of calls since then. The socket use count is
  // maintained only with socket tracking on: it is 0 after a transfer that opened a new socket and grows
  // by one with each transfer that reused it, so N transfers on one socket leave N - 1. (Without
  // tracking it simply counts calls like the connection use count.)
  uint64_t getConnectionUseCount() const;
  uint64_t getSocketUseCount() const;

  struct State;

 private:
  friend struct detail::HttpConnectionAccess;
  // setupConnection with the request's policies already resolved (once per attempt).
  bool setup(const HttpUrl& url, const kxCancelInterfaceReadOnly* cancel, const detail::ResolvedPolicies& policies);
  // Installs the call's writer, reader, header function and probe; without a reset before, first undoes
  // the previous call's method options. Returns the OR of the curl_easy_setopt results.
  int installCallOptions(const kxCancelInterfaceReadOnly* cancel, bool afterReset);
  std::unique_ptr<State> state_;
  bool trackSocket_;
};

}  // namespace http
}  // namespace kx
