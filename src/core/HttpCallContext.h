// The per-call record that HttpHelpers::GenericCall hands to its curl callbacks (header callback, body
// reader, seek function, response writer, response-header sink, progress function). Each helper fills
// the request side; GenericCall fills the response side from the caller's HttpResult.
//
// Kept out of the public header: it names curl's handle type and is only meaningful to the helpers (and
// to tests that drive GenericCall directly, e.g. with a progress callback).
//
// Thread-safety: not thread-safe; lives on the stack of one call.
// Ownership: borrows everything it points to for the duration of the call.
#pragma once

#include <kx/http/HttpHelpers.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace kx {
class kxIoDevice;
class kxIoDeviceRandomAccess;
class kxCancelInterfaceReadOnly;
namespace http {

class HttpConnection;
class HttpHeaders;

namespace detail {

struct HttpCallContext {
  // Method codes of the call.
  enum Method : int {
    kGet = 0,
    kGetWithBody = 1,
    kPut = 2,
    kPost = 3,
    kDelete = 4,  // with a body, sent as PUT sends it
    kHead = 5,
  };

  // Set by GenericCall.
  void* curl = nullptr;
  HttpConnection* connection = nullptr;

  // Request side, set by the helper.
  const HttpHeaders* extraHeaders = nullptr;
  // The body: a device, or bytes in memory (`bodyData` may be null only with `hasMemoryBody` false).
  kxIoDevice* bodyDevice = nullptr;
  const char* bodyData = nullptr;
  size_t bodySize = 0;
  bool hasMemoryBody = false;
  int method = kGet;
  bool json = false;
  const kxCancelInterfaceReadOnly* cancel = nullptr;
  // Polled with the cancel object; returning true aborts the transfer.
  HttpHelpers::ProgressCallback progress = nullptr;
  void* progressArgument = nullptr;

  // Response side, taken from the HttpResult by GenericCall.
  kxIoDevice* responseSink = nullptr;
  std::string* responseBody = nullptr;
  HttpHeaders* responseHeaders = nullptr;
  // Write the sink whatever the status (HttpResult::writeSinkOnlyOnExpectedStatus false).
  bool writeAlways = false;
  long expectedStatus = 0;

  // Progress of the call.
  int64_t receivedLength = 0;
  // The start of a body of an unexpected status, for the error report; at most kErrorExcerptMax bytes.
  std::string errorExcerpt;
  // Read position in a memory body; the position a random-access device body started at.
  size_t memoryPosition = 0;
  int64_t deviceStart = 0;
  bool deviceStartKnown = false;
  kxIoDeviceRandomAccess* seekableDevice = nullptr;
  // The response sink refused a write (the transfer then ends with a write error).
  bool sinkFailed = false;

  static constexpr size_t kErrorExcerptMax = 4096;
};

}  // namespace detail
}  // namespace http
}  // namespace kx
