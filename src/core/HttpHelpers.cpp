#include <kx/http/HttpHelpers.h>

#include <curl/curl.h>

#include <kx/http/HttpConnection.h>
#include <kx/http/HttpConnectionParameters.h>
#include <kx/http/HttpHeaders.h>
#include <kx/http/HttpUrl.h>
#include <kx/system/kxCancelInterfaceReadOnly.h>
#include <kx/system/kxIoDevice.h>
#include <kx/system/kxIoDeviceRandomAccess.h>
#include <kx/system/kxLog.h>
#include <kx/system/kxStringUtils.h>

#include "core/HttpCallContext.h"
#include "core/HttpConnectionAccess.h"
#include "core/TransferHooks.h"
#include "core/TransferError.h"

#include <algorithm>
#include <cstring>
#include <list>
#include <optional>
#include <string>
#include <string_view>

namespace kx {
namespace http {
namespace {

using detail::FormatTransferError;
using detail::HttpCallContext;
using detail::TransferError;

// How each method is put on the wire, with and without a body. One row per method code; the helpers
// differ only in the row they pick and the body they hand over.
struct MethodRow {
  TransferError logText;       // "Http <METHOD> error "
  const char* customRequest;   // the request line's method when curl's own choice would be wrong
  bool bodyRequired;           // PUT and POST send a body, an empty one when none was given
  bool post;                   // POST: curl's POST mode (a 301/302/303 then becomes a GET, as browsers do)
  bool noBody;                 // HEAD: no response body
  // A 301, 302 or 303 answer would be followed with the method kept and the body dropped: refused.
  bool refuseBodylessRedirect;
};

constexpr MethodRow kMethods[] = {
    /* kGet         */ {TransferError::kHelperGet, nullptr, false, false, false, false},
    /* kGetWithBody */ {TransferError::kHelperGet, "GET", false, false, false, true},
    /* kPut         */ {TransferError::kHelperPut, "PUT", true, false, false, true},
    /* kPost        */ {TransferError::kHelperPost, nullptr, true, true, false, false},
    /* kDelete      */ {TransferError::kHelperDelete, "DELETE", false, false, false, true},
    /* kHead        */ {TransferError::kHelperHead, "HEAD", false, false, true, false},
};

const MethodRow* RowOf(int method) {
  if (method < 0 || method >= static_cast<int>(std::size(kMethods))) return nullptr;
  return &kMethods[method];
}

HttpCallContext& ContextOf(void* userData) { return *static_cast<HttpCallContext*>(userData); }

// "HTTP/1.1 301 Moved" -> 301; 0 for anything that is not a status line.
long StatusOfLine(std::string_view line) {
  if (line.size() < 12 || line.compare(0, 5, "HTTP/") != 0) return 0;
  const size_t blank = line.find(' ');
  if (blank == std::string_view::npos || blank + 4 > line.size()) return 0;
  long status = 0;
  for (size_t i = blank + 1; i < blank + 4; ++i) {
    if (line[i] < '0' || line[i] > '9') return 0;
    status = status * 10 + (line[i] - '0');
  }
  return status;
}

// `prefix` is lower-case letters and ':' only, so OR-ing 0x20 folds the letters and keeps ':' as it is.
// Called for every header line of every response: no locale, no call per character.
bool StartsWithNoCase(std::string_view line, std::string_view prefix) {
  if (line.size() < prefix.size()) return false;
  for (size_t i = 0; i < prefix.size(); ++i)
    if ((line[i] | 0x20) != prefix[i]) return false;
  return true;
}

// CURLOPT_HEADERFUNCTION of every helper call: follows the status of the response being received
// (curl's own query is not to be called from a callback), announces its length to the sink, keeps the
// header lines the caller asked for, and stops a redirect that would drop the request body.
size_t ReceiveHeaderLine(char* data, size_t size, size_t count, void* userData) {
  HttpCallContext& c = ContextOf(userData);
  const size_t n = size * count;
  const std::string_view line(data, n);
  if (const long status = StatusOfLine(line); status != 0) {
    c.status = status;
    c.sawLocation = false;
  } else if (StartsWithNoCase(line, "location:")) {
    c.sawLocation = true;
  } else if (StartsWithNoCase(line, "content-length:")) {
    int64_t length = -1;
    std::string value(line.substr(15));
    if (kxStringUtils::FromDecimal(kxStringUtils::Trim(value), length)) c.expectSize(length);
  } else if (line == "\r\n" || line == "\n") {
    // End of a header block. curl would now follow a 301/302/303 of a PUT, a DELETE or a GET with a
    // body with the method kept but without the body; stopping here ends the call with that status.
    const MethodRow* row = RowOf(c.method);
    if (c.followLocation && c.sawLocation && c.body != nullptr && row != nullptr && row->refuseBodylessRedirect &&
        (c.status == 301 || c.status == 302 || c.status == 303)) {
      c.refusedRedirect = c.status;
      return 0;
    }
  }
  if (c.responseHeaders != nullptr) {
    std::string name;
    std::list<std::string> values;
    if (HttpHeaders::SplitHttpHeader(data, n, name, values)) c.responseHeaders->addHeaderValues(name, values);
  }
  return n;
}

bool Progress(void* userData) {
  HttpCallContext& c = ContextOf(userData);
  return c.progress(c.progressArgument);
}

// The header callback of every helper call: the caller's headers and the method. The body, the sinks,
// the header function and the probe were installed by the connection's setup from the call's hooks.
int InstallCall(void* curlHandle, void* userData, HttpHeaders& requestHeaders) {
  CURL* curl = static_cast<CURL*>(curlHandle);
  HttpCallContext& c = ContextOf(userData);
  const MethodRow* row = RowOf(c.method);
  if (row == nullptr) return 2;
  if (c.nullBody) {
    c.connection->addErrorInfo(FormatTransferError(TransferError::kNullBody));
    return 2;
  }
  if (c.extraHeaders != nullptr) requestHeaders.addHeaders(*c.extraHeaders);

  int result = 0;
  if (c.body != nullptr) {
    // Every attempt (the address-family retry included) starts the body from its beginning.
    if (!c.body->restart()) {
      c.connection->addErrorInfo(FormatTransferError(TransferError::kBodyRestart));
      return 2;
    }
    // curl asks a server for "100 Continue" before any upload it does not know to be small, and waits
    // a second for servers that never answer it: an empty Expect removes the header. A caller who
    // asked for one keeps it.
    if (!requestHeaders.contains("expect")) requestHeaders.replaceHeader("Expect", "");
    const curl_off_t length = c.body->size();
    if (row->post) {
      result |= curl_easy_setopt(curl, CURLOPT_POST, 1L);
      result |= curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, length);
    } else {
      result |= curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
      result |= curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, length);
    }
  }
  if (row->noBody) result |= curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
  // A GET without a body is curl's default request; with one, curl's upload mode would send PUT.
  if (row->customRequest != nullptr && (c.body != nullptr || c.method != HttpCallContext::kGetWithBody))
    result |= curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, row->customRequest);
  return result;
}

// Runs the call with the caller's result, or with a throwaway one, and logs a failure when asked to.
bool Run(HttpConnection& connection, const HttpUrl& url, HttpHelpers::HttpResult* result,
         const HttpConnectionParameters* params, const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel,
         HttpCallContext& context, unsigned char expectedStatus, bool logFailure,
         const kxIoDevice* source = nullptr) {
  HttpHelpers::HttpResult local;
  const bool ok = HttpHelpers::GenericCall(connection, url, result != nullptr ? *result : local, params, headers,
                                           &context, expectedStatus, cancel);
  if (ok || !logFailure) return ok;
  // "Http <METHOD> error " + the connection's report, and the source device's error when it has one.
  const MethodRow* row = RowOf(context.method);
  std::string text = FormatTransferError(row != nullptr ? row->logText : TransferError::kHelperGet,
                                         {connection.getLastErrorMsg()});
  if (source != nullptr && source->hasDeviceError())
    text += FormatTransferError(TransferError::kDeviceInError, {source->getDeviceErrorMsg()});
  kxLog::log(kLogTypeError, "http", text);
  return false;
}

// A device body: one that can go back to where it started when it is random access with a known
// position, else one that is read once.
struct DeviceBodies {
  explicit DeviceBodies(kxIoDevice& device) {
    auto* seekable = dynamic_cast<kxIoDeviceRandomAccess*>(&device);
    if (seekable != nullptr && seekable->getPosition() >= 0)
      body = &seekableBody.emplace(*seekable);
    else
      body = &plainBody.emplace(device);
  }
  std::optional<detail::SeekableDeviceRequestBody> seekableBody;
  std::optional<detail::DeviceRequestBody> plainBody;
  detail::RequestBody* body = nullptr;
};

// Runs `method` with the bytes in memory as its body (none when `data` is null with size 0 and the
// method takes an optional body).
bool RunMemory(int method, bool json, bool logFailure, const char* data, unsigned long size,
               HttpConnection& connection, const HttpUrl& url, unsigned char expectedStatus,
               HttpHelpers::HttpResult* result, const HttpConnectionParameters* params, const HttpHeaders* headers,
               const kxCancelInterfaceReadOnly* cancel) {
  HttpCallContext c(method, json);
  const MethodRow* row = RowOf(method);
  std::optional<detail::MemoryRequestBody> body;
  // A null pointer with a size is refused inside the call, so that it is reported like every other
  // refusal of the header callback.
  c.nullBody = data == nullptr && size > 0;
  if (!c.nullBody && (size > 0 || (row != nullptr && row->bodyRequired))) c.body = &body.emplace(data, size);
  return Run(connection, url, result, params, headers, cancel, c, expectedStatus, logFailure);
}

bool RunDevice(int method, kxIoDevice& source, HttpConnection& connection, const HttpUrl& url,
               unsigned char expectedStatus, HttpHelpers::HttpResult* result, const HttpConnectionParameters* params,
               const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel) {
  HttpCallContext c(method, false);
  DeviceBodies bodies(source);
  c.body = bodies.body;
  const bool ok = Run(connection, url, result, params, headers, cancel, c, expectedStatus, true, &source);
  if (!ok && !bodies.body->failure().empty()) connection.addErrorInfo(bodies.body->failure());
  return ok;
}

}  // namespace

void detail::HttpCallContext::expectSize(int64_t size) {
  // Only the body text is grown ahead: a device sink decides its own buffering.
  if (responseText && (expectedStatus == 0 || status == expectedStatus)) responseText->expectSize(size);
}

bool detail::HttpCallContext::write(const char* data, size_t n) {
  receivedLength += static_cast<int64_t>(n);
  if (responseText && !responseText->write(data, n)) return false;
  // An expected status of 0 accepts every answer: the body then goes to the sink and is never kept as
  // an excerpt. A status not known yet matches no other expectation.
  const bool accepted = expectedStatus == 0 || (status > 0 && status == expectedStatus);
  // An error page may be huge; the report only ever needs its start.
  if (!accepted && errorExcerpt.size() < kErrorExcerptMax)
    errorExcerpt.append(data, std::min(n, kErrorExcerptMax - errorExcerpt.size()));
  if (responseSink && n > 0 && (accepted || writeAlways) && !responseSink->write(data, n)) {
    // A sink that refuses bytes ends the transfer (CURLE_WRITE_ERROR) instead of losing part of the body.
    sinkFailed = true;
    return false;
  }
  return true;
}

HttpHelpers::HttpResult::HttpResult() = default;
HttpHelpers::HttpResult::~HttpResult() = default;

void HttpHelpers::HttpResult::clearResultAttributes() {
  if (body != nullptr) body->clear();
  httpStatus = 0;
  if (headers != nullptr) headers->clear();
}

bool HttpHelpers::GenericCall(HttpConnection& connection, const HttpUrl& url, HttpResult& result,
                              const HttpConnectionParameters* params, const HttpHeaders* headers, void* context,
                              unsigned char expectedStatus, const kxCancelInterfaceReadOnly* cancel) {
  if (context == nullptr) return false;
  HttpCallContext& c = ContextOf(context);
  result.clearResultAttributes();
  c.connection = &connection;
  c.extraHeaders = headers;
  c.cancel = cancel;
  c.expectedStatus = expectedStatus;
  kxIoDevice* sink = result.responseSink != nullptr ? result.responseSink : result.ownedSink.get();
  c.responseSink.reset();
  if (sink != nullptr) c.responseSink.emplace(*sink);
  c.responseText.reset();
  if (result.body != nullptr) c.responseText.emplace(*result.body);
  c.responseHeaders = result.headers;
  c.writeAlways = !result.writeSinkOnlyOnExpectedStatus;
  c.receivedLength = 0;
  c.status = 0;
  c.refusedRedirect = 0;
  c.errorExcerpt.clear();
  c.sinkFailed = false;

  detail::TransferHooks hooks;
  hooks.body = c.body;
  hooks.sink = &c;
  hooks.headerFunction = &ReceiveHeaderLine;
  hooks.headerData = &c;
  hooks.methodOptionsOnly = true;  // InstallCall sets the method and nothing else
  if (c.progress != nullptr) {
    hooks.progress = &Progress;
    hooks.progressArgument = &c;
  }
  if (c.json)
    hooks.contentType = "application/json";
  else if (c.body != nullptr)
    hooks.contentType = "application/octet-stream";

  std::optional<HttpConnectionParameters> saved;
  if (params != nullptr) {
    saved = connection.getConnectionParameters();
    connection.setConnectionParameters(*params);
  }
  c.followLocation = connection.getConnectionParameters().followLocation;
  const bool ok =
      detail::HttpConnectionAccess::GetHttpData(connection, url, "", expectedStatus, hooks, &InstallCall, cancel, &c);
  if (saved) connection.setConnectionParameters(*saved);

  result.httpStatus = static_cast<int32_t>(connection.getLastHttpReturnCode());
  if (expectedStatus != 0 && result.httpStatus != expectedStatus)
    connection.addErrorInfo(FormatTransferError(TransferError::kReceivedBody, {c.errorExcerpt}));
  if (c.refusedRedirect != 0)
    connection.addErrorInfo(FormatTransferError(TransferError::kRedirectWithoutBody, {std::to_string(c.refusedRedirect)}));
  if (c.sinkFailed && c.responseSink)
    connection.addErrorInfo(FormatTransferError(TransferError::kDeviceInError, {c.responseSink->device().getDeviceErrorMsg()}));
  result.bodyLength = c.receivedLength;
  return ok;
}

bool HttpHelpers::HttpGet(HttpConnection& connection, const HttpUrl& url, HttpResult* result,
                          const HttpConnectionParameters* params, const HttpHeaders* headers,
                          const kxCancelInterfaceReadOnly* cancel) {
  return RunMemory(HttpCallContext::kGet, false, true, nullptr, 0, connection, url, 200, result, params, headers,
                   cancel);
}

bool HttpHelpers::HttpHead(HttpConnection& connection, const HttpUrl& url, HttpResult* result,
                           const HttpConnectionParameters* params, const HttpHeaders* headers,
                           const kxCancelInterfaceReadOnly* cancel) {
  return RunMemory(HttpCallContext::kHead, false, true, nullptr, 0, connection, url, 200, result, params, headers,
                   cancel);
}

bool HttpHelpers::HttpGetJson(HttpConnection& connection, const HttpUrl& url, std::string& out, HttpResult* result,
                              const HttpConnectionParameters* params, const HttpHeaders* headers,
                              const kxCancelInterfaceReadOnly* cancel, const char* body, unsigned long size,
                              bool /*unused*/) {
  HttpResult local;
  HttpResult& r = result != nullptr ? *result : local;
  std::string* const callerBody = r.body;
  r.body = &out;
  const bool ok = RunMemory(HttpCallContext::kGetWithBody, true, true, body, body != nullptr ? size : 0, connection,
                            url, 200, &r, params, headers, cancel);
  r.body = callerBody;
  return ok;
}

bool HttpHelpers::HttpGetJson(HttpConnection& connection, const HttpUrl& url, std::string& out, HttpResult* result,
                              const HttpConnectionParameters* params, const HttpHeaders* headers,
                              const kxCancelInterfaceReadOnly* cancel, const std::string* body, bool unused) {
  return HttpGetJson(connection, url, out, result, params, headers, cancel, body != nullptr ? body->data() : nullptr,
                     body != nullptr ? body->size() : 0, unused);
}

bool HttpHelpers::HttpPut(const char* data, unsigned long size, HttpConnection& connection, const HttpUrl& url,
                          unsigned char expectedStatus, HttpResult* result, const HttpConnectionParameters* params,
                          const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel) {
  return RunMemory(HttpCallContext::kPut, false, false, data, size, connection, url, expectedStatus, result, params,
                   headers, cancel);
}

bool HttpHelpers::HttpPut(HttpConnection& connection, const HttpUrl& url, const std::string& data,
                          unsigned char expectedStatus, HttpResult* result, const HttpConnectionParameters* params,
                          const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel) {
  return HttpPut(data.data(), data.size(), connection, url, expectedStatus, result, params, headers, cancel);
}

bool HttpHelpers::HttpPut(HttpConnection& connection, const HttpUrl& url, kxIoDevice& source,
                          unsigned char expectedStatus, HttpResult* result, const HttpConnectionParameters* params,
                          const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel) {
  return RunDevice(HttpCallContext::kPut, source, connection, url, expectedStatus, result, params, headers, cancel);
}

bool HttpHelpers::HttpPutJson(const char* data, unsigned long size, HttpConnection& connection, const HttpUrl& url,
                              unsigned char expectedStatus, HttpResult* result, const HttpConnectionParameters* params,
                              const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel) {
  return RunMemory(HttpCallContext::kPut, true, true, data, size, connection, url, expectedStatus, result, params,
                   headers, cancel);
}

bool HttpHelpers::HttpPost(const char* data, unsigned long size, HttpConnection& connection, const HttpUrl& url,
                           unsigned char expectedStatus, HttpResult* result, const HttpConnectionParameters* params,
                           const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel) {
  return RunMemory(HttpCallContext::kPost, false, false, data, size, connection, url, expectedStatus, result, params,
                   headers, cancel);
}

bool HttpHelpers::HttpPost(HttpConnection& connection, const HttpUrl& url, const std::string& data,
                           unsigned char expectedStatus, HttpResult* result, const HttpConnectionParameters* params,
                           const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel) {
  return HttpPost(data.data(), data.size(), connection, url, expectedStatus, result, params, headers, cancel);
}

bool HttpHelpers::HttpPost(HttpConnection& connection, const HttpUrl& url, kxIoDevice& source,
                           unsigned char expectedStatus, HttpResult* result, const HttpConnectionParameters* params,
                           const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel) {
  return RunDevice(HttpCallContext::kPost, source, connection, url, expectedStatus, result, params, headers, cancel);
}

bool HttpHelpers::HttpPostJson(const char* data, unsigned long size, HttpConnection& connection, const HttpUrl& url,
                               unsigned char expectedStatus, HttpResult* result,
                               const HttpConnectionParameters* params, const HttpHeaders* headers,
                               const kxCancelInterfaceReadOnly* cancel) {
  return RunMemory(HttpCallContext::kPost, true, true, data, size, connection, url, expectedStatus, result, params,
                   headers, cancel);
}

bool HttpHelpers::HttpDelete(HttpConnection& connection, const HttpUrl& url, unsigned char expectedStatus,
                             HttpResult* result, const HttpConnectionParameters* params, const HttpHeaders* headers,
                             const kxCancelInterfaceReadOnly* cancel) {
  return RunMemory(HttpCallContext::kDelete, false, true, nullptr, 0, connection, url, expectedStatus, result, params,
                   headers, cancel);
}

bool HttpHelpers::HttpDeleteJson(HttpConnection& connection, const HttpUrl& url, const char* data,
                                 unsigned long size, unsigned char expectedStatus, HttpResult* result,
                                 const HttpConnectionParameters* params, const HttpHeaders* headers,
                                 const kxCancelInterfaceReadOnly* cancel) {
  return RunMemory(HttpCallContext::kDelete, true, true, data, data != nullptr ? size : 0, connection, url,
                   expectedStatus, result, params, headers, cancel);
}

int64_t HttpHelpers::GetContentLength(const HttpHeaders& headers) {
  const std::list<std::string>* values = headers.find("content-length");
  if (values == nullptr || values->empty()) return -1;
  // Repeated values are acceptable only when they all agree.
  const std::string& first = values->front();
  if (first.empty() || first.find_first_not_of("0123456789") != std::string::npos) return -1;
  for (const std::string& value : *values)
    if (value != first) return -1;
  int64_t length = -1;
  return kxStringUtils::FromDecimal(first, length) ? length : -1;
}

}  // namespace http
}  // namespace kx
