#include <kx/http/HttpHelpers.h>

#include <curl/curl.h>

#include <kx/Corvix.h>
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

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>
#include <list>
#include <optional>
#include <string>

namespace kx {
namespace http {
namespace {

using detail::HttpCallContext;

HttpCallContext& ContextOf(void* userData) { return *static_cast<HttpCallContext*>(userData); }

// An expected status of 0 accepts every answer: the body then goes to the sink and is never kept as an
// error excerpt. A status not known yet (0) matches no other expectation.
bool StatusAccepted(const HttpCallContext& c, long status) {
  return c.expectedStatus == 0 || (status > 0 && status == c.expectedStatus);
}

// CURLOPT_WRITEFUNCTION of every helper call.
size_t WriteResponse(char* data, size_t size, size_t count, void* userData) {
  HttpCallContext& c = ContextOf(userData);
  const size_t n = size * count;
  c.receivedLength += static_cast<int64_t>(n);
  if (c.responseBody != nullptr) c.responseBody->append(data, n);

  long status = 0;
  curl_easy_getinfo(static_cast<CURL*>(c.curl), CURLINFO_RESPONSE_CODE, &status);
  const bool accepted = StatusAccepted(c, status);
  // An error page may be huge; the report only ever needs its start.
  if (!accepted && c.errorExcerpt.size() < HttpCallContext::kErrorExcerptMax)
    c.errorExcerpt.append(data, std::min(n, HttpCallContext::kErrorExcerptMax - c.errorExcerpt.size()));

  if (c.responseSink != nullptr && n > 0 && (accepted || c.writeAlways)) {
    // A sink that refuses bytes ends the transfer (CURLE_WRITE_ERROR) instead of losing part of the body.
    if (!c.responseSink->writeAll(data, n)) {
      c.sinkFailed = true;
      return 0;
    }
  }
  return n;
}

// CURLOPT_HEADERFUNCTION, installed when the caller wants the response headers. Status lines have no
// ':' and are kept as value-less names; the blank line closing a header block is skipped.
size_t ReceiveHeaderLine(char* data, size_t size, size_t count, void* userData) {
  HttpCallContext& c = ContextOf(userData);
  const size_t n = size * count;
  if (c.responseHeaders != nullptr) {
    std::string name;
    std::list<std::string> values;
    if (HttpHeaders::SplitHttpHeader(data, n, name, values)) c.responseHeaders->addHeaderValues(name, values);
  }
  return n;
}

// CURLOPT_READFUNCTION: the request body from memory or from the caller's device.
size_t ReadBody(char* buffer, size_t size, size_t count, void* userData) {
  HttpCallContext& c = ContextOf(userData);
  const size_t room = size * count;
  if (c.bodyDevice == nullptr) {
    const size_t n = std::min(room, c.bodySize - c.memoryPosition);
    if (n > 0) std::memcpy(buffer, c.bodyData + c.memoryPosition, n);
    c.memoryPosition += n;
    return n;
  }
  kxIoDevice& device = *c.bodyDevice;
  const size_t n = device.read(buffer, room);
  if (n > 0) return n;
  if (device.hasDeviceError()) return CURL_READFUNC_ABORT;
  if (device.atEnd()) return 0;
  // curl takes 0 for the end of the body: a device with nothing to give before its end would have a
  // truncated body sent as if it were whole.
  c.connection->addErrorInfo("request body device delivered no data before its end");
  return CURL_READFUNC_ABORT;
}

// CURLOPT_SEEKFUNCTION: curl rewinds the body (offset 0 from SEEK_SET) to send it again after a
// redirect or an authentication round trip. Offsets count from where the body started.
int SeekBody(void* userData, curl_off_t offset, int origin) {
  HttpCallContext& c = ContextOf(userData);
  if (origin != SEEK_SET || offset < 0) return CURL_SEEKFUNC_CANTSEEK;
  if (c.seekableDevice != nullptr) {
    if (offset > std::numeric_limits<int64_t>::max() - c.deviceStart) return CURL_SEEKFUNC_FAIL;
    return c.seekableDevice->seek(c.deviceStart + offset) ? CURL_SEEKFUNC_OK : CURL_SEEKFUNC_FAIL;
  }
  if (static_cast<uint64_t>(offset) > c.bodySize) return CURL_SEEKFUNC_FAIL;
  c.memoryPosition = static_cast<size_t>(offset);
  return CURL_SEEKFUNC_OK;
}

// CURLOPT_XFERINFOFUNCTION: replaces the connection's cancel probe for the call, adding the caller's
// progress callback.
int Progress(void* userData, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  HttpCallContext& c = ContextOf(userData);
  if (c.cancel != nullptr && c.cancel->shouldCancel()) return 1;
  if (c.progress != nullptr) return c.progress(c.progressArgument) ? 1 : 0;
  return 0;
}

// A Content-Type anywhere in what will be sent (process defaults, the connection's common headers, the
// request's own) is the caller's choice: adding a second one would leave the server to pick.
bool ContentTypeChosen(const HttpCallContext& c, const HttpHeaders& requestHeaders) {
  static const std::string kName = "content-type";
  return requestHeaders.contains(kName) || c.connection->getCommonHeaders().contains(kName) ||
         GetDefaultHttpHeaders().contains(kName);
}

const char* UploadMethodName(int method) {
  switch (method) {
    case HttpCallContext::kGetWithBody:
      return "GET";
    case HttpCallContext::kDelete:
      return "DELETE";
    default:
      return "PUT";
  }
}

// Installs the method, body reader, response writer and header sink on the freshly reset handle. Called
// by HttpConnection::getHttpData before every attempt; a non-zero result fails the call.
int InstallCall(void* curlHandle, void* userData, HttpHeaders& requestHeaders) {
  CURL* curl = static_cast<CURL*>(curlHandle);
  HttpCallContext& c = ContextOf(userData);
  c.curl = curl;
  using WriteFn = size_t (*)(char*, size_t, size_t, void*);
  using XferFn = int (*)(void*, curl_off_t, curl_off_t, curl_off_t, curl_off_t);

  if (c.hasMemoryBody && c.bodyData == nullptr && c.bodySize > 0) {
    c.connection->addErrorInfo("request body is null with a non-zero size");
    return 2;
  }
  const bool optionalBody = c.method == HttpCallContext::kGetWithBody || c.method == HttpCallContext::kDelete;
  const bool hasBody = c.hasMemoryBody || c.bodyDevice != nullptr;
  // PUT and POST always send a body, an empty one when none was given; GET and DELETE only with one.
  const bool sendsBody = c.method == HttpCallContext::kPut || c.method == HttpCallContext::kPost ||
                         (optionalBody && hasBody);

  if (c.extraHeaders != nullptr) requestHeaders.addHeaders(*c.extraHeaders);

  int result = 0;
  result |= curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, static_cast<WriteFn>(&WriteResponse));
  result |= curl_easy_setopt(curl, CURLOPT_WRITEDATA, userData);
  result |= curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, static_cast<XferFn>(&Progress));
  result |= curl_easy_setopt(curl, CURLOPT_XFERINFODATA, userData);

  if (!ContentTypeChosen(c, requestHeaders)) {
    if (c.json)
      requestHeaders.replaceHeader("Content-Type", "application/json");
    else if (sendsBody)
      requestHeaders.replaceHeader("Content-Type", "application/octet-stream");
  }

  // libcurl asks "Expect: 100-continue" before an upload it does not know to be small, then waits a
  // second for a server that never answers 100. A header without a value makes curl leave it out.
  if (sendsBody && !requestHeaders.contains("Expect")) requestHeaders.replaceHeader("Expect", "");

  curl_off_t length = -1;
  if (sendsBody) {
    // Every attempt (the address-family retry included) starts the body from its beginning.
    c.memoryPosition = 0;
    c.seekableDevice = nullptr;
    bool seekable = false;
    if (c.bodyDevice == nullptr) {
      length = static_cast<curl_off_t>(c.bodySize);
      seekable = true;
    } else if (auto* device = dynamic_cast<kxIoDeviceRandomAccess*>(c.bodyDevice);
               device != nullptr && device->getPosition() >= 0) {
      // The first attempt notes where the body starts; a retry goes back there.
      if (!c.deviceStartKnown) {
        c.deviceStart = device->getPosition();
        c.deviceStartKnown = true;
      } else if (!device->seek(c.deviceStart)) {
        return 2;  // fails the call: the body cannot be sent again from its start
      }
      c.seekableDevice = device;
      length = device->getRemainingSize();  // -1 when unknown: sent chunked
      seekable = true;
    }
    // Without a seek function curl cannot rewind, and a redirect that must resend the body fails.
    if (seekable) {
      result |= curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, static_cast<curl_seek_callback>(&SeekBody));
      result |= curl_easy_setopt(curl, CURLOPT_SEEKDATA, userData);
    }
  }

  if (c.responseHeaders != nullptr) {
    result |= curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, static_cast<WriteFn>(&ReceiveHeaderLine));
    result |= curl_easy_setopt(curl, CURLOPT_HEADERDATA, userData);
  }

  switch (c.method) {
    case HttpCallContext::kGet:
      break;
    case HttpCallContext::kGetWithBody:
    case HttpCallContext::kPut:
    case HttpCallContext::kDelete:
      if (!sendsBody) {  // a DELETE, or a GET, without a body
        if (c.method == HttpCallContext::kDelete) result |= curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, "DELETE");
        break;
      }
      result |= curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
      result |= curl_easy_setopt(curl, CURLOPT_READFUNCTION, static_cast<WriteFn>(&ReadBody));
      result |= curl_easy_setopt(curl, CURLOPT_READDATA, userData);
      result |= curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, UploadMethodName(c.method));
      result |= curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, length);
      break;
    case HttpCallContext::kPost:
      result |= curl_easy_setopt(curl, CURLOPT_POST, 1L);
      result |= curl_easy_setopt(curl, CURLOPT_READFUNCTION, static_cast<WriteFn>(&ReadBody));
      result |= curl_easy_setopt(curl, CURLOPT_READDATA, userData);
      result |= curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, length);
      break;
    case HttpCallContext::kHead:
      result |= curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
      result |= curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, "HEAD");
      break;
    default:
      return 2;
  }
  return result;
}

HttpCallContext MemoryBody(int method, const char* data, unsigned long size, bool json) {
  HttpCallContext c;
  c.method = method;
  c.json = json;
  c.hasMemoryBody = true;
  c.bodyData = data;
  c.bodySize = size;
  return c;
}

HttpCallContext NoBody(int method, bool json) {
  HttpCallContext c;
  c.method = method;
  c.json = json;
  return c;
}

HttpCallContext DeviceBody(int method, kxIoDevice& device) {
  HttpCallContext c;
  c.method = method;
  c.bodyDevice = &device;
  return c;
}

// Runs the call with the caller's result, or with a throwaway one.
bool Run(HttpConnection& connection, const HttpUrl& url, HttpHelpers::HttpResult* result,
         const HttpConnectionParameters* params, const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel,
         HttpCallContext& context, unsigned char expectedStatus) {
  HttpHelpers::HttpResult local;
  return HttpHelpers::GenericCall(connection, url, result != nullptr ? *result : local, params, headers, &context,
                                  expectedStatus, cancel);
}

// "Http <METHOD> error " + the connection's report, and the source device's error when it has one.
bool Logged(bool ok, const char* method, const HttpConnection& connection, const kxIoDevice* source = nullptr) {
  if (ok) return true;
  std::string text = std::string("Http ") + method + " error " + connection.getLastErrorMsg();
  if (source != nullptr && source->hasDeviceError()) text += "(device in error : " + source->getDeviceErrorMsg() + ")";
  kxLog::log(kLogTypeError, "http", text);
  return false;
}

}  // namespace

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
  c.responseSink = result.responseSink != nullptr ? result.responseSink : result.ownedSink.get();
  c.responseBody = result.body;
  c.responseHeaders = result.headers;
  c.writeAlways = !result.writeSinkOnlyOnExpectedStatus;
  c.receivedLength = 0;
  c.errorExcerpt.clear();
  c.sinkFailed = false;
  c.deviceStartKnown = false;

  std::optional<HttpConnectionParameters> saved;
  if (params != nullptr) {
    saved = connection.getConnectionParameters();
    connection.setConnectionParameters(*params);
  }
  const bool ok = connection.getHttpData(url, "", expectedStatus, &InstallCall, cancel, &c);
  if (saved) connection.setConnectionParameters(*saved);

  result.httpStatus = static_cast<int32_t>(connection.getLastHttpReturnCode());
  if (expectedStatus != 0 && result.httpStatus != expectedStatus)
    connection.addErrorInfo("received [" + c.errorExcerpt + "]");
  if (c.sinkFailed && c.responseSink != nullptr)
    connection.addErrorInfo("(device in error : " + c.responseSink->getDeviceErrorMsg() + ")");
  result.bodyLength = c.receivedLength;
  return ok;
}

bool HttpHelpers::HttpGet(HttpConnection& connection, const HttpUrl& url, HttpResult* result,
                          const HttpConnectionParameters* params, const HttpHeaders* headers,
                          const kxCancelInterfaceReadOnly* cancel) {
  HttpCallContext c = NoBody(HttpCallContext::kGet, false);
  return Logged(Run(connection, url, result, params, headers, cancel, c, 200), "GET", connection);
}

bool HttpHelpers::HttpHead(HttpConnection& connection, const HttpUrl& url, HttpResult* result,
                           const HttpConnectionParameters* params, const HttpHeaders* headers,
                           const kxCancelInterfaceReadOnly* cancel) {
  HttpCallContext c = NoBody(HttpCallContext::kHead, false);
  return Logged(Run(connection, url, result, params, headers, cancel, c, 200), "HEAD", connection);
}

bool HttpHelpers::HttpGetJson(HttpConnection& connection, const HttpUrl& url, std::string& out, HttpResult* result,
                              const HttpConnectionParameters* params, const HttpHeaders* headers,
                              const kxCancelInterfaceReadOnly* cancel, const char* body, unsigned long size,
                              bool /*unused*/) {
  HttpCallContext c = body != nullptr && size > 0 ? MemoryBody(HttpCallContext::kGetWithBody, body, size, true)
                                                  : NoBody(HttpCallContext::kGet, true);
  HttpResult local;
  HttpResult& r = result != nullptr ? *result : local;
  std::string* const callerBody = r.body;
  r.body = &out;
  const bool ok = GenericCall(connection, url, r, params, headers, &c, 200, cancel);
  r.body = callerBody;
  return Logged(ok, "GET", connection);
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
  HttpCallContext c = MemoryBody(HttpCallContext::kPut, data, size, false);
  return Run(connection, url, result, params, headers, cancel, c, expectedStatus);
}

bool HttpHelpers::HttpPut(HttpConnection& connection, const HttpUrl& url, const std::string& data,
                          unsigned char expectedStatus, HttpResult* result, const HttpConnectionParameters* params,
                          const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel) {
  return HttpPut(data.data(), data.size(), connection, url, expectedStatus, result, params, headers, cancel);
}

bool HttpHelpers::HttpPut(HttpConnection& connection, const HttpUrl& url, kxIoDevice& source,
                          unsigned char expectedStatus, HttpResult* result, const HttpConnectionParameters* params,
                          const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel) {
  HttpCallContext c = DeviceBody(HttpCallContext::kPut, source);
  return Logged(Run(connection, url, result, params, headers, cancel, c, expectedStatus), "PUT", connection,
                &source);
}

bool HttpHelpers::HttpPutJson(const char* data, unsigned long size, HttpConnection& connection, const HttpUrl& url,
                              unsigned char expectedStatus, HttpResult* result, const HttpConnectionParameters* params,
                              const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel) {
  HttpCallContext c = MemoryBody(HttpCallContext::kPut, data, size, true);
  return Logged(Run(connection, url, result, params, headers, cancel, c, expectedStatus), "PUT", connection);
}

bool HttpHelpers::HttpPost(const char* data, unsigned long size, HttpConnection& connection, const HttpUrl& url,
                           unsigned char expectedStatus, HttpResult* result, const HttpConnectionParameters* params,
                           const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel) {
  HttpCallContext c = MemoryBody(HttpCallContext::kPost, data, size, false);
  return Run(connection, url, result, params, headers, cancel, c, expectedStatus);
}

bool HttpHelpers::HttpPost(HttpConnection& connection, const HttpUrl& url, const std::string& data,
                           unsigned char expectedStatus, HttpResult* result, const HttpConnectionParameters* params,
                           const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel) {
  return HttpPost(data.data(), data.size(), connection, url, expectedStatus, result, params, headers, cancel);
}

bool HttpHelpers::HttpPost(HttpConnection& connection, const HttpUrl& url, kxIoDevice& source,
                           unsigned char expectedStatus, HttpResult* result, const HttpConnectionParameters* params,
                           const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel) {
  HttpCallContext c = DeviceBody(HttpCallContext::kPost, source);
  return Logged(Run(connection, url, result, params, headers, cancel, c, expectedStatus), "POST", connection,
                &source);
}

bool HttpHelpers::HttpPostJson(const char* data, unsigned long size, HttpConnection& connection, const HttpUrl& url,
                               unsigned char expectedStatus, HttpResult* result,
                               const HttpConnectionParameters* params, const HttpHeaders* headers,
                               const kxCancelInterfaceReadOnly* cancel) {
  HttpCallContext c = MemoryBody(HttpCallContext::kPost, data, size, true);
  return Logged(Run(connection, url, result, params, headers, cancel, c, expectedStatus), "POST", connection);
}

bool HttpHelpers::HttpDelete(HttpConnection& connection, const HttpUrl& url, unsigned char expectedStatus,
                             HttpResult* result, const HttpConnectionParameters* params, const HttpHeaders* headers,
                             const kxCancelInterfaceReadOnly* cancel) {
  HttpCallContext c = NoBody(HttpCallContext::kDelete, false);
  return Logged(Run(connection, url, result, params, headers, cancel, c, expectedStatus), "DELETE", connection);
}

bool HttpHelpers::HttpDeleteJson(HttpConnection& connection, const HttpUrl& url, const char* data,
                                 unsigned long size, unsigned char expectedStatus, HttpResult* result,
                                 const HttpConnectionParameters* params, const HttpHeaders* headers,
                                 const kxCancelInterfaceReadOnly* cancel) {
  HttpCallContext c = data != nullptr && size > 0 ? MemoryBody(HttpCallContext::kDelete, data, size, true)
                                                  : NoBody(HttpCallContext::kDelete, true);
  return Logged(Run(connection, url, result, params, headers, cancel, c, expectedStatus), "DELETE", connection);
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
