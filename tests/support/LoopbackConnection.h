// The parts of LoopbackHttpServer below its request dispatch, for its own sources only:
//   - LoopbackConnection.cpp: the byte stream of one connection (plain or TLS) that also takes out the
//     request bodies cpp-httplib would leave unread, and the thread-per-connection task queue;
//   - LoopbackTls.cpp: the server's TLS context and the subject of a verified client certificate;
//   - LoopbackBuiltInRoutes.cpp: the built-in routes documented in LoopbackHttpServer.h.
#pragma once

#include "support/LoopbackHttpServer.h"

#include <openssl/ssl.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace kx::test::loopback {

bool EqualsIgnoreCase(std::string_view a, std::string_view b);
int ToPollTimeout(std::chrono::milliseconds timeout);

// cpp-httplib's default pool has a fixed number of threads, and every idle keep-alive connection holds
// one: a pool test keeping more connections open than that would stall. One thread per connection never
// starves, and the threads are joined when the server stops.
class ThreadPerConnectionQueue final : public httplib::TaskQueue {
 public:
  ~ThreadPerConnectionQueue() override { shutdown(); }
  void enqueue(std::function<void()> fn) override;
  void shutdown() override;

 private:
  struct Worker {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done;
  };
  void reapFinished();

  std::list<Worker> workers_;
};

// The byte stream of one connection, plain or TLS, with a read-ahead buffer. Besides serving cpp-httplib
// it reads, at each request boundary, the request head itself: a body that cpp-httplib would leave in the
// stream (it reads bodies of POST, PUT, PATCH and DELETE only) is taken out here and handed to the
// request, so that the next request on the connection starts where it should.
class ConnectionStream final : public httplib::Stream {
 public:
  ConnectionStream(int fd, SSL* ssl, int ioTimeoutMs) : fd_(fd), ssl_(ssl), timeoutMs_(ioTimeoutMs) {}

  bool is_readable() const override;
  bool is_writable() const override;
  ssize_t read(char* ptr, size_t size) override;
  ssize_t write(const char* ptr, size_t size) override;
  // The records carry no addresses, so cpp-httplib is told none.
  void get_remote_ip_and_port(std::string&, int&) const override {}
  void get_local_ip_and_port(std::string&, int&) const override {}
  socket_t socket() const override { return fd_; }

  bool hasBufferedData() const;
  // Reads the next request head into the buffer and takes out a body cpp-httplib would not read. Returns
  // false when the connection ended before a request began, or inside such a body.
  bool readRequestHead();
  bool hasCapturedBody() const { return hasCapturedBody_; }
  std::string takeCapturedBody() {
    hasCapturedBody_ = false;
    return std::move(capturedBody_);
  }

 private:
  size_t available() const { return buffer_.size() - pos_; }
  ssize_t readRaw(char* ptr, size_t size);
  bool readMore();
  bool ensure(size_t size);
  bool findLineEnd(size_t from, size_t& lineEnd);
  // Decodes chunked framing that starts at begin; sets end past the last trailer line.
  bool decodeChunked(size_t begin, size_t& end);

  int fd_;
  SSL* ssl_;
  int timeoutMs_;
  std::string buffer_;
  size_t pos_ = 0;
  std::string capturedBody_;
  bool hasCapturedBody_ = false;
};

// The server side of TLS for the options (certificate, client certificate checks); nullptr with error
// set when OpenSSL refused the material.
SSL_CTX* MakeTlsContext(const LoopbackHttpServerOptions& options, std::string& error);
// Subject of the peer's certificate in RFC 2253 form when it was sent and verified, else "".
std::string PeerSubject(SSL* ssl);

// The request headers as the client sent them (cpp-httplib's address pseudo-headers left out).
std::vector<std::pair<std::string, std::string>> ReceivedHeaders(const httplib::Request& req);

using AddRoute = std::function<void(const char* method, const char* pattern, LoopbackHttpServer::Handler)>;
// Waits up to the duration; true when the server is stopping.
using WaitForStop = std::function<bool(std::chrono::milliseconds)>;
void AddBuiltInRoutes(const AddRoute& add, const WaitForStop& waitForStop);

}  // namespace kx::test::loopback
