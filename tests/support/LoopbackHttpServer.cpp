#include "support/LoopbackHttpServer.h"

#include "support/TestCertificates.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <list>
#include <map>
#include <mutex>
#include <regex>
#include <thread>

namespace kx::test {
namespace {

constexpr size_t kMaxRequestHead = 64 * 1024;

bool EqualsIgnoreCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
         });
}

std::string_view TrimBlanks(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

// cpp-httplib stores the peer and local addresses as if they were request headers; they were never sent.
bool IsAddressPseudoHeader(const std::string& name) {
  return name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" || name == "LOCAL_PORT";
}

int ToPollTimeout(std::chrono::milliseconds timeout) {
  return static_cast<int>(std::clamp<int64_t>(timeout.count(), 0, INT_MAX));
}

// poll() on one descriptor, restarted after signals. > 0 ready, 0 time-out, < 0 error.
int WaitFor(int fd, short events, int timeoutMs) {
  pollfd p{fd, events, 0};
  int r;
  do {
    r = ::poll(&p, 1, timeoutMs);
  } while (r < 0 && errno == EINTR);
  return r;
}

void DescribeAddress(const sockaddr_storage& address, std::string& ip, int& port) {
  char text[INET6_ADDRSTRLEN] = {};
  if (address.ss_family == AF_INET) {
    const auto& in = reinterpret_cast<const sockaddr_in&>(address);
    ::inet_ntop(AF_INET, &in.sin_addr, text, sizeof(text));
    port = ntohs(in.sin_port);
  } else if (address.ss_family == AF_INET6) {
    const auto& in6 = reinterpret_cast<const sockaddr_in6&>(address);
    ::inet_ntop(AF_INET6, &in6.sin6_addr, text, sizeof(text));
    port = ntohs(in6.sin6_port);
  }
  ip = text;
}

// cpp-httplib's default pool has a fixed number of threads, and every idle keep-alive connection holds
// one: a pool test keeping more connections open than that would stall. One thread per connection never
// starves, and the threads are joined when the server stops.
class ThreadPerConnectionQueue final : public httplib::TaskQueue {
 public:
  ~ThreadPerConnectionQueue() override { shutdown(); }

  void enqueue(std::function<void()> fn) override {
    reapFinished();
    auto done = std::make_shared<std::atomic<bool>>(false);
    workers_.push_back(Worker{std::thread([fn = std::move(fn), done] {
                                fn();
                                done->store(true, std::memory_order_release);
                              }),
                              done});
  }

  void shutdown() override {
    for (auto& worker : workers_) worker.thread.join();
    workers_.clear();
  }

 private:
  struct Worker {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done;
  };

  void reapFinished() {
    for (auto it = workers_.begin(); it != workers_.end();) {
      if (it->done->load(std::memory_order_acquire)) {
        it->thread.join();
        it = workers_.erase(it);
      } else {
        ++it;
      }
    }
  }

  std::list<Worker> workers_;
};

// What the connection loop knows about the request being served, for the record. The handler runs on the
// connection's own thread, so a thread-local pointer reaches it without any lock.
struct RequestContext {
  uint64_t connectionId = 0;
  size_t index = 0;
  bool tls = false;
  std::string clientSubject;
  bool expectAnswered = false;
};
thread_local RequestContext* tRequestContext = nullptr;

// The byte stream of one connection, plain or TLS, with a read-ahead buffer. Besides serving cpp-httplib
// it reads, at each request boundary, the request head itself: a body that cpp-httplib would leave in the
// stream (it reads bodies of POST, PUT, PATCH and DELETE only) is taken out here and handed to the
// request, so that the next request on the connection starts where it should.
class ConnectionStream final : public httplib::Stream {
 public:
  ConnectionStream(int fd, SSL* ssl, int ioTimeoutMs) : fd_(fd), ssl_(ssl), timeoutMs_(ioTimeoutMs) {}

  bool is_readable() const override {
    return available() > 0 || (ssl_ && SSL_pending(ssl_) > 0) || WaitFor(fd_, POLLIN, timeoutMs_) > 0;
  }
  bool is_writable() const override { return WaitFor(fd_, POLLOUT, timeoutMs_) > 0; }

  ssize_t read(char* ptr, size_t size) override {
    if (available() == 0) return readRaw(ptr, size);
    size_t n = std::min(size, available());
    std::memcpy(ptr, buffer_.data() + pos_, n);
    pos_ += n;
    if (pos_ == buffer_.size()) {
      buffer_.clear();
      pos_ = 0;
    }
    return static_cast<ssize_t>(n);
  }

  ssize_t write(const char* ptr, size_t size) override {
    size_t done = 0;
    while (done < size) {
      if (WaitFor(fd_, POLLOUT, timeoutMs_) <= 0) return -1;
      if (ssl_) {
        ERR_clear_error();
        int n = SSL_write(ssl_, ptr + done, static_cast<int>(std::min<size_t>(size - done, INT_MAX)));
        if (n <= 0) {
          int error = SSL_get_error(ssl_, n);
          if (error == SSL_ERROR_WANT_WRITE || error == SSL_ERROR_WANT_READ) continue;
          ERR_clear_error();
          return -1;
        }
        done += static_cast<size_t>(n);
      } else {
        ssize_t n = ::send(fd_, ptr + done, size - done, MSG_NOSIGNAL);
        if (n < 0) {
          if (errno == EINTR || errno == EAGAIN) continue;
          return -1;
        }
        done += static_cast<size_t>(n);
      }
    }
    return static_cast<ssize_t>(size);
  }

  void get_remote_ip_and_port(std::string& ip, int& port) const override {
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    if (::getpeername(fd_, reinterpret_cast<sockaddr*>(&address), &length) == 0) DescribeAddress(address, ip, port);
  }
  void get_local_ip_and_port(std::string& ip, int& port) const override {
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    if (::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) == 0) DescribeAddress(address, ip, port);
  }
  socket_t socket() const override { return fd_; }

  bool hasBufferedData() const { return available() > 0 || (ssl_ && SSL_pending(ssl_) > 0); }

  // Reads the next request head into the buffer and takes out a body cpp-httplib would not read. Returns
  // false when the connection ended before a request began, or inside such a body.
  bool readRequestHead() {
    capturedBody_.clear();
    hasCapturedBody_ = false;
    expectAnswered_ = false;
    buffer_.erase(0, pos_);
    pos_ = 0;

    size_t headEnd;
    for (;;) {
      size_t at = buffer_.find("\r\n\r\n");
      if (at != std::string::npos) {
        headEnd = at + 4;
        break;
      }
      // An oversized or truncated head is cpp-httplib's to reject; hand over what arrived.
      if (buffer_.size() > kMaxRequestHead) return true;
      if (!readMore()) return !buffer_.empty();
    }

    std::string_view head(buffer_.data(), headEnd);
    std::string_view method = head.substr(0, head.find(' '));
    if (method == "POST" || method == "PUT" || method == "PATCH" || method == "DELETE" || method == "PRI") {
      return true;
    }

    bool chunked = false;
    unsigned long long contentLength = 0;
    size_t expectBegin = std::string::npos, expectEnd = 0;
    for (size_t lineBegin = head.find("\r\n") + 2; lineBegin < headEnd - 2;) {
      size_t lineEnd = head.find("\r\n", lineBegin);
      std::string_view line = head.substr(lineBegin, lineEnd - lineBegin);
      size_t colon = line.find(':');
      if (colon != std::string_view::npos) {
        std::string_view name = line.substr(0, colon);
        std::string value(TrimBlanks(line.substr(colon + 1)));
        if (EqualsIgnoreCase(name, "Content-Length")) {
          contentLength = std::strtoull(value.c_str(), nullptr, 10);
        } else if (EqualsIgnoreCase(name, "Transfer-Encoding")) {
          std::transform(value.begin(), value.end(), value.begin(), [](unsigned char c) { return std::tolower(c); });
          chunked = value.find("chunked") != std::string::npos;
        } else if (EqualsIgnoreCase(name, "Expect") && EqualsIgnoreCase(value, "100-continue")) {
          expectBegin = lineBegin;
          expectEnd = lineEnd + 2;
        }
      }
      lineBegin = lineEnd + 2;
    }
    if (!chunked && contentLength == 0) return true;

    if (expectBegin != std::string::npos) {
      // Answer now: the body is read before cpp-httplib sees the request. The header line goes, or
      // cpp-httplib would send a second interim response.
      static constexpr char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
      if (write(kContinue, sizeof(kContinue) - 1) < 0) return false;
      buffer_.erase(expectBegin, expectEnd - expectBegin);
      headEnd -= expectEnd - expectBegin;
      expectAnswered_ = true;
    }

    size_t bodyEnd = headEnd;
    if (chunked) {
      if (!decodeChunked(headEnd, bodyEnd)) return false;
    } else {
      if (!ensure(headEnd + contentLength)) return false;
      capturedBody_.assign(buffer_, headEnd, contentLength);
      bodyEnd = headEnd + contentLength;
    }
    buffer_.erase(headEnd, bodyEnd - headEnd);
    hasCapturedBody_ = true;
    return true;
  }

  bool hasCapturedBody() const { return hasCapturedBody_; }
  std::string takeCapturedBody() {
    hasCapturedBody_ = false;
    return std::move(capturedBody_);
  }
  bool expectAnswered() const { return expectAnswered_; }

 private:
  size_t available() const { return buffer_.size() - pos_; }

  ssize_t readRaw(char* ptr, size_t size) {
    if (!ssl_) {
      for (;;) {
        if (WaitFor(fd_, POLLIN, timeoutMs_) <= 0) return -1;
        ssize_t n = ::recv(fd_, ptr, size, 0);
        if (n >= 0) return n;
        if (errno != EINTR && errno != EAGAIN) return -1;
      }
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs_);
    for (;;) {
      if (SSL_pending(ssl_) <= 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || WaitFor(fd_, POLLIN, static_cast<int>(left.count())) <= 0) return -1;
      }
      ERR_clear_error();
      int n = SSL_read(ssl_, ptr, static_cast<int>(std::min<size_t>(size, INT_MAX)));
      if (n > 0) return n;
      int error = SSL_get_error(ssl_, n);
      ERR_clear_error();
      if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) continue;
      return error == SSL_ERROR_ZERO_RETURN ? 0 : -1;
    }
  }

  bool readMore() {
    char chunk[16 * 1024];
    ssize_t n = readRaw(chunk, sizeof(chunk));
    if (n <= 0) return false;
    buffer_.append(chunk, static_cast<size_t>(n));
    return true;
  }

  bool ensure(size_t size) {
    while (buffer_.size() < size) {
      if (!readMore()) return false;
    }
    return true;
  }

  bool findLineEnd(size_t from, size_t& lineEnd) {
    for (;;) {
      lineEnd = buffer_.find("\r\n", from);
      if (lineEnd != std::string::npos) return true;
      if (buffer_.size() - from > kMaxRequestHead || !readMore()) return false;
    }
  }

  // Decodes chunked framing that starts at begin; sets end past the last trailer line.
  bool decodeChunked(size_t begin, size_t& end) {
    size_t at = begin;
    for (;;) {
      size_t lineEnd;
      if (!findLineEnd(at, lineEnd)) return false;
      std::string sizeText = buffer_.substr(at, lineEnd - at);
      sizeText = sizeText.substr(0, sizeText.find(';'));
      char* parsedEnd = nullptr;
      unsigned long long size = std::strtoull(sizeText.c_str(), &parsedEnd, 16);
      if (sizeText.empty() || parsedEnd == sizeText.c_str()) return false;
      at = lineEnd + 2;
      if (size == 0) break;
      if (!ensure(at + size + 2) || buffer_.compare(at + size, 2, "\r\n") != 0) return false;
      capturedBody_.append(buffer_, at, size);
      at += size + 2;
    }
    for (;;) {  // trailer lines up to the empty line
      size_t lineEnd;
      if (!findLineEnd(at, lineEnd)) return false;
      bool empty = lineEnd == at;
      at = lineEnd + 2;
      if (empty) break;
    }
    end = at;
    return true;
  }

  int fd_;
  SSL* ssl_;
  int timeoutMs_;
  std::string buffer_;
  size_t pos_ = 0;
  std::string capturedBody_;
  bool hasCapturedBody_ = false;
  bool expectAnswered_ = false;
};

std::string PeerSubject(SSL* ssl) {
  X509* cert = SSL_get1_peer_certificate(ssl);
  if (!cert) return {};
  std::string subject;
  if (SSL_get_verify_result(ssl) == X509_V_OK) {
    if (BIO* bio = BIO_new(BIO_s_mem())) {
      X509_NAME_print_ex(bio, X509_get_subject_name(cert), 0, XN_FLAG_RFC2253);
      char* data = nullptr;
      long size = BIO_get_mem_data(bio, &data);
      if (size > 0) subject.assign(data, static_cast<size_t>(size));
      BIO_free(bio);
    }
  }
  X509_free(cert);
  return subject;
}

X509* CertificateFromPem(const std::string& pem) {
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  X509* cert = bio ? PEM_read_bio_X509(bio, nullptr, nullptr, nullptr) : nullptr;
  BIO_free(bio);
  return cert;
}

EVP_PKEY* KeyFromPem(const std::string& pem) {
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  EVP_PKEY* key = bio ? PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr) : nullptr;
  BIO_free(bio);
  return key;
}

SSL_CTX* MakeTlsContext(const LoopbackHttpServerOptions& options, std::string& error) {
  using Tls = LoopbackHttpServerOptions::Tls;
  const auto& pki = TestCertificates::Shared();
  SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
  if (!ctx) {
    error = "SSL_CTX_new failed";
    return nullptr;
  }
  SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
  // A client that closes without close_notify is a normal end of a keep-alive connection here.
  SSL_CTX_set_options(ctx, SSL_OP_IGNORE_UNEXPECTED_EOF);
  // Needed as soon as client certificates are verified: without it OpenSSL refuses to resume the
  // sessions libcurl offers on its next connection, and that handshake fails.
  static constexpr unsigned char kSessionContext[] = "kx-loopback";
  SSL_CTX_set_session_id_context(ctx, kSessionContext, sizeof(kSessionContext) - 1);

  X509* cert = CertificateFromPem(options.wrongNameCertificate ? pki.wrongNameCertificatePem()
                                                               : pki.serverCertificatePem());
  EVP_PKEY* key = KeyFromPem(options.wrongNameCertificate ? pki.wrongNameKeyPem() : pki.serverKeyPem());
  bool ok = cert && key && SSL_CTX_use_certificate(ctx, cert) == 1 && SSL_CTX_use_PrivateKey(ctx, key) == 1 &&
            SSL_CTX_check_private_key(ctx) == 1;
  X509_free(cert);
  EVP_PKEY_free(key);

  if (ok && (options.tls == Tls::kOptionalClientCertificate || options.tls == Tls::kRequireClientCertificate)) {
    X509* ca = CertificateFromPem(pki.caCertificatePem());
    ok = ca && X509_STORE_add_cert(SSL_CTX_get_cert_store(ctx), ca) == 1 && SSL_CTX_add_client_CA(ctx, ca) == 1;
    X509_free(ca);
    int mode = SSL_VERIFY_PEER;
    if (options.tls == Tls::kRequireClientCertificate) mode |= SSL_VERIFY_FAIL_IF_NO_PEER_CERT;
    SSL_CTX_set_verify(ctx, mode, nullptr);
  }
  if (!ok) {
    char text[256];
    ERR_error_string_n(ERR_get_error(), text, sizeof(text));
    error = std::string("TLS context setup failed: ") + text;
    ERR_clear_error();
    SSL_CTX_free(ctx);
    return nullptr;
  }
  return ctx;
}

size_t QueryNumber(const httplib::Request& req, const char* name, size_t fallback) {
  if (!req.has_param(name)) return fallback;
  return static_cast<size_t>(std::strtoull(req.get_param_value(name).c_str(), nullptr, 10));
}

std::string QueryOf(const httplib::Request& req) {
  size_t at = req.target.find('?');
  return at == std::string::npos ? std::string() : req.target.substr(at);
}

}  // namespace

class LoopbackHttpServer::Impl final : public httplib::Server {
 public:
  explicit Impl(LoopbackHttpServerOptions options) : options_(std::move(options)) {}

  ~Impl() override {
    stopAndJoin();
    if (ctx_) SSL_CTX_free(ctx_);
    if (wakeFd_ >= 0) ::close(wakeFd_);
  }

  bool start() {
    if (options_.tls != LoopbackHttpServerOptions::Tls::kOff) {
      ctx_ = MakeTlsContext(options_, startError_);
      if (!ctx_) return false;
    }
    wakeFd_ = ::eventfd(0, EFD_CLOEXEC);
    if (wakeFd_ < 0) {
      startError_ = std::string("eventfd failed: ") + std::strerror(errno);
      return false;
    }

    set_keep_alive_max_count(options_.keepAliveMaxRequests ? options_.keepAliveMaxRequests : 1000000);
    set_keep_alive_timeout(static_cast<time_t>((options_.keepAliveTimeout.count() + 999) / 1000));
    set_read_timeout(options_.ioTimeout);
    set_write_timeout(options_.ioTimeout);

    // Every request reaches dispatch(), which keeps its own route table: cpp-httplib's tables must not
    // change while the server runs, and tests add routes to a server that is already serving.
    Handler dispatcher = [this](const httplib::Request& req, httplib::Response& res) { dispatch(req, res); };
    static const char kEveryPath[] = "[\\s\\S]*";
    httplib::Server::Get(kEveryPath, dispatcher);
    httplib::Server::Post(kEveryPath, dispatcher);
    httplib::Server::Put(kEveryPath, dispatcher);
    httplib::Server::Patch(kEveryPath, dispatcher);
    httplib::Server::Delete(kEveryPath, dispatcher);
    httplib::Server::Options(kEveryPath, dispatcher);
    if (options_.builtInRoutes) addBuiltInRoutes();

    // cpp-httplib asks for its task queue right after it marks itself running and before its first
    // accept: the one moment stop() is sure to work, hence the readiness signal.
    new_task_queue = [this] {
      auto* queue = new ThreadPerConnectionQueue();
      {
        std::lock_guard<std::mutex> lock(stateMutex_);
        listening_ = true;
      }
      stateCv_.notify_all();
      return queue;
    };

    int port = bind_to_any_port(options_.ipv6 ? "::1" : "127.0.0.1");
    if (port <= 0) {
      startError_ = std::string("cannot bind a port on ") + (options_.ipv6 ? "::1" : "127.0.0.1");
      return false;
    }
    port_ = static_cast<uint16_t>(port);
    listener_ = std::thread([this] {
      // Connection threads are started from here and inherit the mask: a write to a client that went
      // away (SSL_write has no MSG_NOSIGNAL) then fails with EPIPE instead of raising SIGPIPE.
      sigset_t pipe;
      sigemptyset(&pipe);
      sigaddset(&pipe, SIGPIPE);
      pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
      listen_after_bind();
      {
        std::lock_guard<std::mutex> lock(stateMutex_);
        listenEnded_ = true;
      }
      stateCv_.notify_all();
    });
    std::unique_lock<std::mutex> lock(stateMutex_);
    stateCv_.wait(lock, [this] { return listening_ || listenEnded_; });
    if (!listening_) startError_ = "the accept loop ended before it started";
    return listening_;
  }

  void stopAndJoin() {
    {
      std::lock_guard<std::mutex> lock(stateMutex_);
      stopping_ = true;
    }
    stateCv_.notify_all();
    {
      std::lock_guard<std::mutex> lock(connMutex_);
      closing_ = true;
      for (const auto& entry : open_) ::shutdown(entry.first, SHUT_RDWR);
    }
    if (wakeFd_ >= 0) {
      uint64_t one = 1;
      [[maybe_unused]] ssize_t ignored = ::write(wakeFd_, &one, sizeof(one));
    }
    if (listener_.joinable()) {
      stop();
      listener_.join();
    }
  }

  // Waits up to duration; true when the server is stopping (the caller should give up).
  bool waitForStop(std::chrono::milliseconds duration) {
    std::unique_lock<std::mutex> lock(stateMutex_);
    return stateCv_.wait_for(lock, duration, [this] { return stopping_; });
  }

  void addRoute(std::string method, const std::string& pattern, Handler handler, bool builtIn = false) {
    auto route = std::make_shared<const Route>(Route{std::move(method), std::regex(pattern), std::move(handler)});
    std::lock_guard<std::mutex> lock(routeMutex_);
    (builtIn ? builtInRoutes_ : userRoutes_).push_back(std::move(route));
  }

  void clearRoutes() {
    std::lock_guard<std::mutex> lock(routeMutex_);
    userRoutes_.clear();
  }

  std::vector<RecordedRequest> records() const {
    std::lock_guard<std::mutex> lock(recordMutex_);
    return records_;
  }
  size_t recordCount() const {
    std::lock_guard<std::mutex> lock(recordMutex_);
    return records_.size();
  }
  RecordedRequest lastRecord() const {
    std::lock_guard<std::mutex> lock(recordMutex_);
    return records_.empty() ? RecordedRequest() : records_.back();
  }
  bool waitForRecords(size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(recordMutex_);
    return recordCv_.wait_for(lock, timeout, [&] { return records_.size() >= count; });
  }
  void clearRecords() {
    std::lock_guard<std::mutex> lock(recordMutex_);
    records_.clear();
  }

  uint64_t accepted() const {
    std::lock_guard<std::mutex> lock(connMutex_);
    return accepted_;
  }
  size_t openCount() const {
    std::lock_guard<std::mutex> lock(connMutex_);
    return open_.size();
  }
  size_t closeAll() {
    // Under the lock a connection thread cannot close its descriptor, so the number shut down here is
    // still the connection's and not a descriptor the process reused meanwhile.
    std::lock_guard<std::mutex> lock(connMutex_);
    for (const auto& entry : open_) ::shutdown(entry.first, SHUT_RDWR);
    return open_.size();
  }

  LoopbackHttpServerOptions options_;
  std::string startError_;
  uint16_t port_ = 0;

 private:
  struct Route {
    std::string method;  // empty: any method
    std::regex regex;
    Handler handler;
  };

  bool process_and_close_socket(socket_t sock) override {
    RequestContext context;
    {
      std::lock_guard<std::mutex> lock(connMutex_);
      if (closing_) {
        ::shutdown(sock, SHUT_RDWR);
        ::close(sock);
        return false;
      }
      context.connectionId = ++accepted_;
      open_.emplace(sock, context.connectionId);
    }
    const int ioTimeoutMs = ToPollTimeout(options_.ioTimeout);
    // Bounds the blocking TLS handshake for a client that connects and never speaks.
    timeval tv{static_cast<time_t>(ioTimeoutMs / 1000), static_cast<suseconds_t>((ioTimeoutMs % 1000) * 1000)};
    ::setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    ::setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
    // A response leaves in several writes (head, body); with Nagle's algorithm the second one waits for
    // the client's delayed ACK, 40 ms per request.
    int noDelay = 1;
    ::setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof(noDelay));

    SSL* ssl = nullptr;
    bool ready = true;
    if (ctx_) {
      context.tls = true;
      ssl = SSL_new(ctx_);
      ERR_clear_error();
      ready = ssl && SSL_set_fd(ssl, sock) == 1 && SSL_accept(ssl) == 1;
      if (ready) context.clientSubject = PeerSubject(ssl);
      ERR_clear_error();
    }

    bool result = false;
    if (ready) {
      ConnectionStream stream(sock, ssl, ioTimeoutMs);
      for (size_t served = 0;; ++served) {
        if (!waitForRequest(stream, sock) || !stream.readRequestHead()) break;
        bool last = (options_.keepAliveMaxRequests != 0 && served + 1 >= options_.keepAliveMaxRequests) ||
                    isStopping();
        bool closedByClient = false;
        context.index = served;
        context.expectAnswered = stream.expectAnswered();
        tRequestContext = &context;
        result = process_request(stream, last, closedByClient, [&stream](httplib::Request& req) {
          if (stream.hasCapturedBody()) req.body = stream.takeCapturedBody();
        });
        tRequestContext = nullptr;
        if (!result || closedByClient || last) break;
      }
    }
    if (ssl) {
      if (ready) SSL_shutdown(ssl);
      SSL_free(ssl);
      ERR_clear_error();
    }
    std::lock_guard<std::mutex> lock(connMutex_);
    open_.erase(sock);
    ::shutdown(sock, SHUT_RDWR);
    ::close(sock);
    return result;
  }

  // Idle keep-alive wait: ends with the next request, the client's close, the keep-alive time-out or the
  // server's stop, whichever comes first.
  bool waitForRequest(ConnectionStream& stream, int sock) {
    if (stream.hasBufferedData()) return true;
    pollfd fds[2] = {{sock, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
    int r;
    do {
      r = ::poll(fds, 2, ToPollTimeout(options_.keepAliveTimeout));
    } while (r < 0 && errno == EINTR);
    return r > 0 && fds[1].revents == 0;
  }

  bool isStopping() {
    std::lock_guard<std::mutex> lock(stateMutex_);
    return stopping_;
  }

  static std::vector<std::pair<std::string, std::string>> HeadersOf(const httplib::Request& req) {
    std::vector<std::pair<std::string, std::string>> headers;
    for (const auto& [name, value] : req.headers) {
      if (!IsAddressPseudoHeader(name)) headers.emplace_back(name, value);
    }
    if (tRequestContext && tRequestContext->expectAnswered) headers.emplace_back("Expect", "100-continue");
    return headers;
  }

  void dispatch(const httplib::Request& req, httplib::Response& res) {
    RecordedRequest record;
    record.method = req.method;
    record.target = req.target;
    record.path = req.path;
    record.version = req.version;
    record.headers = HeadersOf(req);
    record.body = req.body;
    record.remoteAddress = req.remote_addr;
    record.remotePort = req.remote_port;
    if (tRequestContext) {
      record.connectionId = tRequestContext->connectionId;
      record.indexOnConnection = tRequestContext->index;
      record.tls = tRequestContext->tls;
      record.clientCertificateSubject = tRequestContext->clientSubject;
    }
    {
      std::lock_guard<std::mutex> lock(recordMutex_);
      records_.push_back(std::move(record));
    }
    recordCv_.notify_all();

    std::shared_ptr<const Route> route = findRoute(req.method, req.path);
    if (!route) {
      res.status = 404;
      res.set_content("Not Found\n", "text/plain");
      return;
    }
    // cpp-httplib's Request is a local of its own, not a const object: giving it our route's capture
    // groups is sound, and avoids copying a request with a large body.
    auto& mutableRequest = const_cast<httplib::Request&>(req);
    std::regex_match(mutableRequest.path, mutableRequest.matches, route->regex);
    route->handler(req, res);
  }

  std::shared_ptr<const Route> findRoute(const std::string& method, const std::string& path) const {
    auto accepts = [&](const Route& route) {
      return (route.method.empty() || route.method == method || (method == "HEAD" && route.method == "GET")) &&
             std::regex_match(path, route.regex);
    };
    std::lock_guard<std::mutex> lock(routeMutex_);
    for (auto it = userRoutes_.rbegin(); it != userRoutes_.rend(); ++it) {
      if (accepts(**it)) return *it;
    }
    for (const auto& route : builtInRoutes_) {
      if (accepts(*route)) return route;
    }
    return nullptr;
  }

  void addBuiltInRoutes() {
    addRoute("", "/echo",
             [](const httplib::Request& req, httplib::Response& res) {
               std::string out = req.method + " " + req.target + "\n";
               for (const auto& [name, value] : HeadersOf(req)) out += name + ": " + value + "\n";
               out += "\n";
               out += req.body;
               res.set_content(out, "text/plain");
             },
             true);
    addRoute("", "/echo/body",
             [](const httplib::Request& req, httplib::Response& res) {
               std::string type = req.get_header_value("Content-Type");
               res.set_content(req.body, type.empty() ? "application/octet-stream" : type);
             },
             true);
    addRoute("", "/status/(\\d{3})",
             [](const httplib::Request& req, httplib::Response& res) {
               int status = std::stoi(req.matches[1].str());
               if (status < 200) {
                 res.status = 400;
                 res.set_content("interim statuses cannot be final\n", "text/plain");
                 return;
               }
               res.status = status;
               if (status == 204 || status == 304) return;
               if (req.has_param("size")) {
                 res.set_content(PatternBytes(QueryNumber(req, "size", 0)), "text/plain");
               } else {
                 res.set_content("status " + std::to_string(status) + "\n", "text/plain");
               }
             },
             true);
    addRoute("", "/redirect/(\\d+)",
             [](const httplib::Request& req, httplib::Response& res) {
               size_t remaining = std::stoul(req.matches[1].str());
               if (remaining == 0) {
                 res.set_content("redirect chain end\n", "text/plain");
                 return;
               }
               res.status = static_cast<int>(QueryNumber(req, "status", 302));
               res.set_header("Location", "/redirect/" + std::to_string(remaining - 1) + QueryOf(req));
             },
             true);
    addRoute("", "/redirect-to",
             [](const httplib::Request& req, httplib::Response& res) {
               if (!req.has_param("url")) {
                 res.status = 400;
                 res.set_content("missing url parameter\n", "text/plain");
                 return;
               }
               res.status = static_cast<int>(QueryNumber(req, "status", 302));
               res.set_header("Location", req.get_param_value("url"));
             },
             true);
    addRoute("GET", "/bytes/(\\d+)",
             [](const httplib::Request& req, httplib::Response& res) {
               res.set_content(PatternBytes(std::stoul(req.matches[1].str())), "application/octet-stream");
             },
             true);
    addRoute("", "/response-headers",
             [](const httplib::Request& req, httplib::Response& res) {
               for (const auto& [name, value] : req.params) res.set_header(name, value);
               res.set_content("ok\n", "text/plain");
             },
             true);
    addRoute("GET", "/slow",
             [this](const httplib::Request& req, httplib::Response& res) {
               size_t total = QueryNumber(req, "bytes", 1000000);
               size_t chunk = std::max<size_t>(1, QueryNumber(req, "chunk", 1));
               auto interval = std::chrono::milliseconds(QueryNumber(req, "intervalMs", 100));
               // application/octet-stream: cpp-httplib never compresses it, so the pace is the wire's.
               res.set_content_provider(total, "application/octet-stream",
                                        [this, chunk, interval](size_t offset, size_t length, httplib::DataSink& sink) {
                                          if (offset > 0 && waitForStop(interval)) return false;
                                          std::string data = PatternBytes(std::min(chunk, length), offset);
                                          return sink.write(data.data(), data.size());
                                        });
             },
             true);
  }

  SSL_CTX* ctx_ = nullptr;
  int wakeFd_ = -1;  // eventfd, readable once the server stops; idle connections wait on it
  std::thread listener_;

  mutable std::mutex stateMutex_;
  std::condition_variable stateCv_;
  bool listening_ = false;
  bool listenEnded_ = false;
  bool stopping_ = false;

  mutable std::mutex routeMutex_;
  std::vector<std::shared_ptr<const Route>> userRoutes_;
  std::vector<std::shared_ptr<const Route>> builtInRoutes_;

  mutable std::mutex recordMutex_;
  mutable std::condition_variable recordCv_;
  std::vector<RecordedRequest> records_;

  mutable std::mutex connMutex_;
  std::map<int, uint64_t> open_;  // descriptor -> connection id
  uint64_t accepted_ = 0;
  bool closing_ = false;
};

std::string RecordedRequest::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (EqualsIgnoreCase(key, name)) return value;
  }
  return {};
}

bool RecordedRequest::hasHeader(std::string_view name) const {
  return std::any_of(headers.begin(), headers.end(), [&](const auto& h) { return EqualsIgnoreCase(h.first, name); });
}

std::vector<std::string> RecordedRequest::headerValues(std::string_view name) const {
  std::vector<std::string> values;
  for (const auto& [key, value] : headers) {
    if (EqualsIgnoreCase(key, name)) values.push_back(value);
  }
  return values;
}

LoopbackHttpServer::LoopbackHttpServer(LoopbackHttpServerOptions options) {
  // cpp-httplib's Server constructor sets SIGPIPE to "ignore" for the whole process, which would hide a
  // client under test that writes to a closed socket without MSG_NOSIGNAL. Put the disposition back; the
  // server's own threads block the signal instead. The lock keeps two servers built at once from
  // restoring each other's "ignore".
  static std::mutex signalMutex;
  {
    std::lock_guard<std::mutex> lock(signalMutex);
    struct sigaction previous {};
    ::sigaction(SIGPIPE, nullptr, &previous);
    impl_ = std::make_unique<Impl>(std::move(options));
    ::sigaction(SIGPIPE, &previous, nullptr);
  }
  impl_->start();
}

LoopbackHttpServer::~LoopbackHttpServer() = default;

bool LoopbackHttpServer::isRunning() const { return impl_->startError_.empty() && impl_->port_ != 0; }
const std::string& LoopbackHttpServer::startError() const { return impl_->startError_; }
uint16_t LoopbackHttpServer::port() const { return impl_->port_; }
std::string LoopbackHttpServer::host() const { return impl_->options_.ipv6 ? "[::1]" : "127.0.0.1"; }
std::string LoopbackHttpServer::scheme() const {
  return impl_->options_.tls == LoopbackHttpServerOptions::Tls::kOff ? "http" : "https";
}
std::string LoopbackHttpServer::baseUrl() const { return urlWithHost(host(), ""); }
std::string LoopbackHttpServer::url(std::string_view path) const { return urlWithHost(host(), path); }
std::string LoopbackHttpServer::urlWithHost(std::string_view hostName, std::string_view path) const {
  return scheme() + "://" + std::string(hostName) + ":" + std::to_string(port()) + std::string(path);
}

LoopbackHttpServer& LoopbackHttpServer::Get(const std::string& pattern, Handler handler) {
  impl_->addRoute("GET", pattern, std::move(handler));
  return *this;
}
LoopbackHttpServer& LoopbackHttpServer::Head(const std::string& pattern, Handler handler) {
  impl_->addRoute("HEAD", pattern, std::move(handler));
  return *this;
}
LoopbackHttpServer& LoopbackHttpServer::Post(const std::string& pattern, Handler handler) {
  impl_->addRoute("POST", pattern, std::move(handler));
  return *this;
}
LoopbackHttpServer& LoopbackHttpServer::Put(const std::string& pattern, Handler handler) {
  impl_->addRoute("PUT", pattern, std::move(handler));
  return *this;
}
LoopbackHttpServer& LoopbackHttpServer::Patch(const std::string& pattern, Handler handler) {
  impl_->addRoute("PATCH", pattern, std::move(handler));
  return *this;
}
LoopbackHttpServer& LoopbackHttpServer::Delete(const std::string& pattern, Handler handler) {
  impl_->addRoute("DELETE", pattern, std::move(handler));
  return *this;
}
LoopbackHttpServer& LoopbackHttpServer::Options(const std::string& pattern, Handler handler) {
  impl_->addRoute("OPTIONS", pattern, std::move(handler));
  return *this;
}
LoopbackHttpServer& LoopbackHttpServer::Any(const std::string& pattern, Handler handler) {
  impl_->addRoute("", pattern, std::move(handler));
  return *this;
}
void LoopbackHttpServer::clearRoutes() { impl_->clearRoutes(); }

std::vector<RecordedRequest> LoopbackHttpServer::requests() const { return impl_->records(); }
size_t LoopbackHttpServer::requestCount() const { return impl_->recordCount(); }
RecordedRequest LoopbackHttpServer::lastRequest() const { return impl_->lastRecord(); }
bool LoopbackHttpServer::waitForRequests(size_t count, std::chrono::milliseconds timeout) const {
  return impl_->waitForRecords(count, timeout);
}
void LoopbackHttpServer::clearRequests() { impl_->clearRecords(); }

uint64_t LoopbackHttpServer::acceptedConnections() const { return impl_->accepted(); }
size_t LoopbackHttpServer::openConnections() const { return impl_->openCount(); }
size_t LoopbackHttpServer::closeConnections() { return impl_->closeAll(); }

std::string LoopbackHttpServer::PatternBytes(size_t size, size_t offset) {
  std::string out;
  out.reserve(size);
  size_t position = offset;
  while (out.size() < size) {
    char block[32];
    std::snprintf(block, sizeof(block), "%015zu\n", position / 16 * 16);
    size_t within = position % 16;
    size_t take = std::min(16 - within, size - out.size());
    out.append(block + within, take);
    position += take;
  }
  return out;
}

}  // namespace kx::test
