// One call of the request helpers: what HttpHelpers::GenericCall sends (method, body, extra headers,
// JSON flag) and where the answer goes (the caller's sink, body text and header collection), with the
// state its curl callbacks keep while the response arrives (the status seen so far, the excerpt of an
// unexpected answer, a refused redirect). Every helper fills the request side and runs GenericCall;
// GenericCall fills the response side from the caller's HttpResult.
//
// Kept out of the public header: it names curl's types and the internal body and sink types, and is only
// meaningful to the helpers (and to tests that drive GenericCall directly, e.g. with a progress callback).
//
// Thread-safety: not thread-safe; lives on the stack of one call.
// Ownership: borrows everything it points to for the duration of the call.
#pragma once

#include <kx/http/HttpHelpers.h>

#include "bodies/RequestBody.h"
#include "bodies/ResponseSink.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace kx {
class kxIoDevice;
class kxCancelInterfaceReadOnly;
namespace http {

class HttpConnection;
class HttpHeaders;

namespace detail {

struct HttpCallContext : ResponseSink {
  // Method codes of the call.
  enum Method : int {
    kGet = 0,
    kGetWithBody = 1,
    kPut = 2,
    kPost = 3,
    kDelete = 4,  // with a body, sent as PUT sends it
    kHead = 5,
  };

  HttpCallContext() = default;
  HttpCallContext(int method, bool json) : method(method), json(json) {}
  HttpCallContext(const HttpCallContext&) = delete;
  HttpCallContext& operator=(const HttpCallContext&) = delete;

  // The response writer: counts, keeps the body text, the excerpt of an unexpected answer, and feeds
  // the caller's sink when the status allows it.
  void expectSize(int64_t size) override;
  bool write(const char* data, size_t size) override;

  // Request side, set by the helper.
  int method = kGet;
  bool json = false;
  RequestBody* body = nullptr;  // null: no body
  bool nullBody = false;        // a null pointer was given with a non-zero size
  const HttpHeaders* extraHeaders = nullptr;
  // Polled with the cancel object; returning true aborts the transfer.
  HttpHelpers::ProgressCallback progress = nullptr;
  void* progressArgument = nullptr;

  // Set by GenericCall.
  HttpConnection* connection = nullptr;
  const kxCancelInterfaceReadOnly* cancel = nullptr;
  bool followLocation = true;
  long expectedStatus = 0;
  std::optional<DeviceSink> responseSink;    // the caller's device
  std::optional<TextSink> responseText;      // the caller's body text
  HttpHeaders* responseHeaders = nullptr;
  // Write the sink whatever the status (HttpResult::writeSinkOnlyOnExpectedStatus false).
  bool writeAlways = false;

  // Progress of the call.
  int64_t receivedLength = 0;
  // Status of the response being received: 0 until its status line arrived.
  long status = 0;
  bool sawLocation = false;
  // A 301/302/303 answer that curl would have followed without the body (see GenericCall).
  long refusedRedirect = 0;
  // The start of a body of an unexpected status, for the error report; at most kErrorExcerptMax bytes.
  std::string errorExcerpt;
  // The response sink refused a write (the transfer then ends with a write error).
  bool sinkFailed = false;

  static constexpr size_t kErrorExcerptMax = 4096;
};

}  // namespace detail
}  // namespace http
}  // namespace kx
