// HttpHelpers offers one-call requests on an HttpConnection: GET, HEAD, PUT, POST and DELETE with a
// memory, string or device body, and JSON variants that set the content type and collect the response
// as text. Each checks the HTTP status; on a wrong status the first 4096 bytes of the response body are
// attached to the connection's error report as "received [...]".
//
//   kx::http::HttpConnectionLocker lease(pool, url);
//   std::string json;
//   if (!kx::http::HttpHelpers::HttpGetJson(*lease, url, json, nullptr, nullptr, nullptr, nullptr, nullptr, 0, false))
//     log(lease->getLastErrorMsg());
//
// Status. An expected status of 0 accepts any status: the sink is written and no excerpt is attached.
// Otherwise the response sink only receives the body of the expected status (see
// HttpResult::writeSinkOnlyOnExpectedStatus); the body text (HttpResult::body) always receives it.
//
// Bodies. A memory body, or a device body that is a kxIoDeviceRandomAccess, can be rewound, so a
// redirect or an authentication round trip that must send it again works; a device without random
// access cannot, and such a redirect fails. A random-access device is sent from its current position
// with its remaining size announced; any other device is sent chunked. A JSON call sends
// "Content-Type: application/json", a call with a body "application/octet-stream", unless a
// Content-Type is already among the headers (extra, common or process defaults). HttpDeleteJson with a
// body sends it like a PUT, with the method DELETE. Uploads go without "Expect: 100-continue" (servers
// that never answer it would stall each upload for a second) unless the caller's headers ask for it.
//
// Redirects. A body that can be rewound is sent again on a 307 or 308. A 301, 302 or 303 answer to a
// PUT, a DELETE with a body or a GET with a body is not followed: curl would repeat the method without
// the body. The call then fails with that status (the report adds "redirect <status> not followed: the
// request body would not be sent again"). A POST follows such answers as a GET, as browsers do.
//
// Logging. The JSON helpers, the body-less helpers (HttpGet, HttpHead, HttpDelete) and the device forms
// log a failure at error level in category "http": "Http GET error ", "Http HEAD error ", "Http PUT
// error ", "Http POST error " or "Http DELETE error " followed by getLastErrorMsg(); the device forms
// append "(device in error : " + the source device's error + ")" when it has one. The memory and string
// forms of HttpPut and HttpPost do not log.
//
// A null HttpResult* makes the helper use its own. Failures return false; the reasons are in the
// connection's getLastErrorMsg().
//
// Thread-safety: stateless; each call uses the given connection, which one thread uses at a time.
// Ownership: nothing passed in is retained after the call returns.
#pragma once

#include <kx/system/kxExport.h>

#include <cstdint>
#include <memory>
#include <string>

namespace kx {
class kxIoDevice;
class kxCancelInterfaceReadOnly;
namespace http {

class HttpConnection;
class HttpConnectionParameters;
class HttpHeaders;
class HttpUrl;

class KX_EXPORT HttpHelpers {
 public:
  // What a caller may ask to receive from a call.
  struct KX_EXPORT HttpResult {
    HttpResult();
    ~HttpResult();
    HttpResult(const HttpResult&) = delete;
    HttpResult& operator=(const HttpResult&) = delete;

    // Caller-owned sink for the response body (null: discarded unless `body` is set).
    kxIoDevice* responseSink = nullptr;
    // Caller-owned text the body is appended to.
    std::string* body = nullptr;
    // A sink the result owns and keeps alive; used as the sink when `responseSink` is null.
    std::unique_ptr<kxIoDevice> ownedSink;
    // True: the sink receives the body only when the status is the expected one. False: always.
    bool writeSinkOnlyOnExpectedStatus = true;
    // Caller-owned collection the response headers are parsed into (status lines become value-less names).
    HttpHeaders* headers = nullptr;
    // HTTP status of the call; 0 until a response arrives.
    int32_t httpStatus = 0;
    // Bytes of the response body received.
    int64_t bodyLength = 0;

    // Empties the body text, sets the status to 0 and clears the headers.
    void clearResultAttributes();
  };

  // Optional progress callback of a call context, polled while the transfer runs: return true to abort.
  using ProgressCallback = bool (*)(void* argument);

  // The engine of every helper: clears `result`, installs `params` on the connection for this call only,
  // runs getHttpData (no content-type check) with the call's body, response writer and header sink
  // installed on the handle and a header callback that adds the caller's headers and sets the method,
  // and stores the status and received length in `result`.
  // `context` is the helper's call context (internal; null is refused with false and nothing else).
  static bool GenericCall(HttpConnection& connection, const HttpUrl& url, HttpResult& result,
                          const HttpConnectionParameters* params, const HttpHeaders* headers, void* context,
                          unsigned char expectedStatus, const kxCancelInterfaceReadOnly* cancel);

  static bool HttpGet(HttpConnection& connection, const HttpUrl& url, HttpResult* result,
                      const HttpConnectionParameters* params, const HttpHeaders* headers,
                      const kxCancelInterfaceReadOnly* cancel);
  static bool HttpHead(HttpConnection& connection, const HttpUrl& url, HttpResult* result,
                       const HttpConnectionParameters* params, const HttpHeaders* headers,
                       const kxCancelInterfaceReadOnly* cancel);
  // `body`/`size`: optional JSON body sent with the GET. The last flag is not used.
  static bool HttpGetJson(HttpConnection& connection, const HttpUrl& url, std::string& out, HttpResult* result,
                          const HttpConnectionParameters* params, const HttpHeaders* headers,
                          const kxCancelInterfaceReadOnly* cancel, const char* body, unsigned long size,
                          bool unused);
  static bool HttpGetJson(HttpConnection& connection, const HttpUrl& url, std::string& out, HttpResult* result,
                          const HttpConnectionParameters* params, const HttpHeaders* headers,
                          const kxCancelInterfaceReadOnly* cancel, const std::string* body, bool unused);

  static bool HttpPut(const char* data, unsigned long size, HttpConnection& connection, const HttpUrl& url,
                      unsigned char expectedStatus, HttpResult* result, const HttpConnectionParameters* params,
                      const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel);
  static bool HttpPut(HttpConnection& connection, const HttpUrl& url, const std::string& data,
                      unsigned char expectedStatus, HttpResult* result, const HttpConnectionParameters* params,
                      const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel);
  static bool HttpPut(HttpConnection& connection, const HttpUrl& url, kxIoDevice& source,
                      unsigned char expectedStatus, HttpResult* result, const HttpConnectionParameters* params,
                      const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel);
  static bool HttpPutJson(const char* data, unsigned long size, HttpConnection& connection, const HttpUrl& url,
                          unsigned char expectedStatus, HttpResult* result, const HttpConnectionParameters* params,
                          const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel);

  static bool HttpPost(const char* data, unsigned long size, HttpConnection& connection, const HttpUrl& url,
                       unsigned char expectedStatus, HttpResult* result, const HttpConnectionParameters* params,
                       const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel);
  static bool HttpPost(HttpConnection& connection, const HttpUrl& url, const std::string& data,
                       unsigned char expectedStatus, HttpResult* result, const HttpConnectionParameters* params,
                       const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel);
  static bool HttpPost(HttpConnection& connection, const HttpUrl& url, kxIoDevice& source,
                       unsigned char expectedStatus, HttpResult* result, const HttpConnectionParameters* params,
                       const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel);
  static bool HttpPostJson(const char* data, unsigned long size, HttpConnection& connection, const HttpUrl& url,
                           unsigned char expectedStatus, HttpResult* result, const HttpConnectionParameters* params,
                           const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel);

  static bool HttpDelete(HttpConnection& connection, const HttpUrl& url, unsigned char expectedStatus,
                         HttpResult* result, const HttpConnectionParameters* params, const HttpHeaders* headers,
                         const kxCancelInterfaceReadOnly* cancel);
  static bool HttpDeleteJson(HttpConnection& connection, const HttpUrl& url, const char* data, unsigned long size,
                             unsigned char expectedStatus, HttpResult* result, const HttpConnectionParameters* params,
                             const HttpHeaders* headers, const kxCancelInterfaceReadOnly* cancel);

  // "Content-Length" of a received header collection; -1 when absent or not a whole decimal number.
  static int64_t GetContentLength(const HttpHeaders& headers);
};

}  // namespace http
}  // namespace kx
