// What the library's own call paths (request helpers, document fetcher, downloads) hand a connection for
// one call, installed by the connection's setup in place of its defaults (no body, a writer that refuses
// every byte, no extra probe), so that no option is set twice. Plain getHttpData callers have none and
// install what they need from their header callback instead.
//
// Ownership: borrows everything it points to for the duration of the call.
#pragma once

#include <cstddef>

namespace kx {
namespace http {
namespace detail {

class RequestBody;
class ResponseSink;

struct TransferHooks {
  RequestBody* body = nullptr;
  ResponseSink* sink = nullptr;
  // CURLOPT_HEADERFUNCTION and its data, when the call reads the response's header lines.
  size_t (*headerFunction)(char*, size_t, size_t, void*) = nullptr;
  void* headerData = nullptr;
  // Polled with the cancel object while the transfer runs; true aborts it.
  bool (*progress)(void*) = nullptr;
  void* progressArgument = nullptr;
  // Sent as "Content-Type" unless one of the header layers (process defaults, the connection's common
  // headers, the request's own) already names one.
  const char* contentType = nullptr;
  // The header callback of the call sets no curl option but the method ones (CURLOPT_POST, NOBODY,
  // CUSTOMREQUEST, UPLOAD, POSTFIELDSIZE_LARGE, INFILESIZE_LARGE). The connection may then keep its
  // handle configured from one call to the next and only undo those, instead of resetting it.
  bool methodOptionsOnly = false;
};

}  // namespace detail
}  // namespace http
}  // namespace kx
