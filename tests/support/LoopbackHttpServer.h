// LoopbackHttpServer is a real HTTP/1.1 server (cpp-httplib) in the test process, on 127.0.0.1 or [::1] and
// an ephemeral port, plain or TLS, that transfer tests talk to through libcurl. Tests script replies with
// route handlers and then assert on what the server received, request by request.
//
//   kx::test::LoopbackHttpServer server;  // listening when the constructor returns (or a test failure)
//   server.Get("/items/(\\d+)", [](const auto& req, auto& res) {
//     res.set_content("item " + req.matches[1].str(), "text/plain");
//   });
//   ... run the client against server.url("/items/7") ...
//   EXPECT_EQ(server.lastRequest().header("Connection"), "Keep-Alive");
//
// TLS uses TestCertificates::Shared(): the server presents the "localhost" certificate (or the wrong-name
// one) and can require a client certificate issued by the test CA.
//
// Built-in routes (any method unless noted; a route a test registers on the same path wins):
//   /echo                 200 text/plain: "<METHOD> <target>\n", one "<Name>: <value>\n" per request header,
//                         "\n", then the request body as received.
//   /echo/body            200 with the request body as received and the request's Content-Type
//                         (application/octet-stream when it had none).
//   /status/<n>           status n with the body "status <n>\n", or PatternBytes(size) with ?size=<bytes>.
//   /redirect/<n>         302 to /redirect/<n-1>, the query kept; /redirect/0 answers 200
//                         "redirect chain end\n".
//   /redirect-to?url=<u>  302 (or ?status=<code>) to the absolute or relative location u.
//   /bytes/<n>            GET: n bytes of PatternBytes, application/octet-stream, with a Content-Length.
// Unknown paths answer 404 with the body "Not Found\n".
//
// Requests with a body that cpp-httplib would not read (GET, HEAD, OPTIONS with a Content-Length or chunked
// framing, as libcurl sends for an upload with a custom "GET") are read too: the handler sees the body in
// req.body and the body is recorded. (cpp-httplib parses a multipart/form-data body into req.files.)
//
// The process's SIGPIPE disposition is left as it was (cpp-httplib alone would set it to "ignore"), so a
// client under test that writes to a closed socket without MSG_NOSIGNAL still shows up.
//
// Thread-safety: thread-safe. Routes may be added and records read while requests are served; handlers
// run on the server's connection threads (one per connection), possibly several at once.
// Ownership: the destructor stops accepting, shuts down every open connection (idle keep-alive ones
// included, so it never waits for a client) and waits for every connection thread.
#pragma once

#include <httplib.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#if !defined(CPPHTTPLIB_OPENSSL_SUPPORT)
#error "cpp-httplib must be compiled with the flags of its pkg-config file (link PkgConfig::HTTPLIB)"
#endif

namespace kx::test {

// One request as the server received it.
struct RecordedRequest {
  std::string method;  // "GET", "PUT", ...
  std::string path;    // path part of the target, percent-decoded by cpp-httplib
  // Header lines as received (name spelling kept), grouped by name; values of a repeated name keep their
  // order of arrival.
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  // Subject of the verified client certificate (TestCertificates::kClientSubject), or empty.
  std::string clientCertificateSubject;

  // Header access by name, case-insensitively. header() gives the first value or "".
  std::string header(std::string_view name) const;
  bool hasHeader(std::string_view name) const;
  std::vector<std::string> headerValues(std::string_view name) const;
};

struct LoopbackHttpServerOptions {
  enum class Tls {
    kOff,                       // plain HTTP
    kOn,                        // HTTPS, no client certificate asked for
    kRequireClientCertificate,  // HTTPS, the handshake fails without a certificate from the test CA
  };
  Tls tls = Tls::kOff;
  bool wrongNameCertificate = false;  // present the certificate for "wrong-name.invalid"
  bool ipv6 = false;                  // listen on [::1] instead of 127.0.0.1
  // An idle keep-alive connection is closed by the server after this long.
  std::chrono::milliseconds keepAliveTimeout{10000};
  // Requests served on one connection before the server answers "Connection: close"; 0 = no limit.
  size_t keepAliveMaxRequests = 0;
  // Limit for each read and write once a request has begun (a short one ends a TLS handshake that a
  // plain server waits on for a request line that never comes).
  std::chrono::milliseconds ioTimeout{5000};
};

class LoopbackHttpServer {
 public:
  using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

  explicit LoopbackHttpServer(LoopbackHttpServerOptions options = {});
  ~LoopbackHttpServer();
  LoopbackHttpServer(const LoopbackHttpServer&) = delete;
  LoopbackHttpServer& operator=(const LoopbackHttpServer&) = delete;

  uint16_t port() const;
  // "http(s)://127.0.0.1:<port>" (or "[::1]") + path; path should start with "/".
  std::string url(std::string_view path) const;
  // The same URL with another host name, e.g. "localhost" for host-name verification.
  std::string urlWithHost(std::string_view hostName, std::string_view path) const;

  // A GET (and HEAD) route: pattern is a std::regex matched against the whole decoded path; capture
  // groups are in req.matches. The newest registration for a path wins.
  LoopbackHttpServer& Get(const std::string& pattern, Handler handler);
  // A POST route, matched the same way; a multipart/form-data body arrives parsed in req.files.
  LoopbackHttpServer& Post(const std::string& pattern, Handler handler);

  // Requests in arrival order. A request is recorded before its handler runs, so it is visible as soon as
  // the server has read it, even while its handler is still running.
  std::vector<RecordedRequest> requests() const;
  size_t requestCount() const;
  // Waits until at least count requests were recorded; false when the time-out passed first.
  bool waitForRequests(size_t count, std::chrono::milliseconds timeout) const;
  RecordedRequest lastRequest() const;  // a default RecordedRequest when none arrived
  void clearRequests();

  // Connections accepted since the start (requests on one keep-alive connection count once).
  uint64_t acceptedConnections() const;

  // Deterministic printable body bytes: the stream is made of 16-byte blocks, block k being the decimal
  // offset k*16 on 15 digits and a line feed ("000000000000016\n"), so any cut or shift is visible.
  // Returns the bytes at positions [offset, offset + size) of that stream.
  static std::string PatternBytes(size_t size, size_t offset = 0);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kx::test
