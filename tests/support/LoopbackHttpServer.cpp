#include "support/LoopbackHttpServer.h"

#include "support/TestCertificates.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <regex>
#include <set>
#include <thread>

namespace kx::test {
namespace {

using Handler = LoopbackHttpServer::Handler;

bool WaitFor(int fd, short events, int timeoutMs) {
  pollfd p{fd, events, 0};
  return ::poll(&p, 1, timeoutMs) > 0;
}

// The method of the request being served on this thread when readRequestHead() relabelled it, for
// dispatch(), which runs on the same thread.
thread_local std::string tRelabelledMethod;

// cpp-httplib's default pool has a fixed number of threads, and every idle keep-alive connection holds
// one: a pool test keeping more connections open than that would stall. One thread per connection never
// starves. The threads are detached, so that a finished one frees its stack at once; shutdown() waits for
// the last one to be done with the queue.
class ThreadPerConnectionQueue final : public httplib::TaskQueue {
 public:
  ~ThreadPerConnectionQueue() override { shutdown(); }
  void enqueue(std::function<void()> fn) override {
    std::lock_guard<std::mutex> lock(mutex_);
    ++running_;
    std::thread([this, fn = std::move(fn)]() mutable {
      fn();
      fn = nullptr;
      std::lock_guard<std::mutex> lock(mutex_);
      if (--running_ == 0) idle_.notify_all();
    }).detach();
  }
  void shutdown() override {
    std::unique_lock<std::mutex> lock(mutex_);
    idle_.wait(lock, [this] { return running_ == 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable idle_;
  size_t running_ = 0;
};

// The byte stream of one connection, plain or TLS, over a blocking socket whose SO_RCVTIMEO and
// SO_SNDTIMEO bound every call. Besides serving cpp-httplib, it reads each request head ahead.
class ConnectionStream final : public httplib::Stream {
 public:
  ConnectionStream(int fd, SSL* ssl, int timeoutMs) : fd_(fd), ssl_(ssl), timeoutMs_(timeoutMs) {}

  bool is_readable() const override { return hasBufferedData() || WaitFor(fd_, POLLIN, timeoutMs_); }
  bool is_writable() const override { return WaitFor(fd_, POLLOUT, timeoutMs_); }
  ssize_t read(char* ptr, size_t size) override {
    if (pos_ == buffer_.size()) return readRaw(ptr, size);
    size_t n = buffer_.copy(ptr, size, pos_);
    pos_ += n;
    return static_cast<ssize_t>(n);
  }
  ssize_t write(const char* ptr, size_t size) override {
    for (size_t done = 0; done < size;) {
      ssize_t n = ssl_ ? SSL_write(ssl_, ptr + done, static_cast<int>(std::min<size_t>(size - done, INT_MAX)))
                       : ::send(fd_, ptr + done, size - done, MSG_NOSIGNAL);
      if (n <= 0) return ERR_clear_error(), -1;
      done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(size);
  }
  // The records carry no addresses, so cpp-httplib is told none.
  void get_remote_ip_and_port(std::string&, int&) const override {}
  void get_local_ip_and_port(std::string&, int&) const override {}
  socket_t socket() const override { return fd_; }

  bool hasBufferedData() const { return pos_ < buffer_.size() || (ssl_ && SSL_pending(ssl_) > 0); }

  // Reads the next request head into the buffer. cpp-httplib reads the bodies of POST, PUT, PATCH and
  // DELETE only, and would take any other body for the next request: a request of another method that
  // announces a body is relabelled POST here, so that cpp-httplib reads it, and dispatch() gives it its
  // own method back. False when the connection ended before a request began.
  bool readRequestHead() {
    buffer_.erase(0, pos_);
    pos_ = 0;
    tRelabelledMethod.clear();
    size_t end;
    while ((end = buffer_.find("\r\n\r\n")) == std::string::npos) {
      char chunk[16 * 1024];
      ssize_t n = buffer_.size() > 64 * 1024 ? 0 : readRaw(chunk, sizeof(chunk));
      // An oversized or truncated head is cpp-httplib's to reject.
      if (n <= 0) return !buffer_.empty();
      buffer_.append(chunk, static_cast<size_t>(n));
    }
    const std::string head = buffer_.substr(0, end + 2);
    const std::string method = head.substr(0, head.find(' '));
    static const std::set<std::string> kWithBody = {"POST", "PUT", "PATCH", "DELETE", "PRI"};
    if (method.size() < end && !kWithBody.count(method) &&
        (::strcasestr(head.c_str(), "\r\nContent-Length:") || ::strcasestr(head.c_str(), "\r\nTransfer-Encoding:"))) {
      tRelabelledMethod = method;
      buffer_.replace(0, method.size(), "POST");
    }
    return true;
  }

 private:
  ssize_t readRaw(char* ptr, size_t size) {
    ssize_t n =
        ssl_ ? SSL_read(ssl_, ptr, static_cast<int>(std::min<size_t>(size, INT_MAX))) : ::recv(fd_, ptr, size, 0);
    if (n <= 0) ERR_clear_error();
    return n;
  }

  int fd_;
  SSL* ssl_;
  int timeoutMs_;
  std::string buffer_;
  size_t pos_ = 0;
};

// Subject of the peer's certificate, or "". A server that asks for one fails the handshake unless the
// certificate was sent and verified, so any certificate seen here is a verified one.
std::string PeerSubject(const SSL* ssl) {
  X509* cert = ssl ? SSL_get1_peer_certificate(ssl) : nullptr;
  char subject[256] = "";
  if (cert) X509_NAME_oneline(X509_get_subject_name(cert), subject, sizeof(subject));
  X509_free(cert);
  return subject;
}

// The request headers as the client sent them (cpp-httplib's address pseudo-headers left out).
std::vector<std::pair<std::string, std::string>> ReceivedHeaders(const httplib::Request& req) {
  std::vector<std::pair<std::string, std::string>> headers;
  for (const auto& [name, value] : req.headers) {
    if (name != "REMOTE_ADDR" && name != "REMOTE_PORT" && name != "LOCAL_ADDR" && name != "LOCAL_PORT") {
      headers.emplace_back(name, value);
    }
  }
  return headers;
}

size_t QueryNumber(const httplib::Request& req, const char* name, size_t fallback) {
  return req.has_param(name) ? std::stoul(req.get_param_value(name)) : fallback;
}

std::string CertificateFile(const LoopbackHttpServerOptions& options, const char* suffix) {
  if (options.tls == LoopbackHttpServerOptions::Tls::kOff) return "";
  return TestCertificates::Shared().path((options.wrongNameCertificate ? "wrong-name" : "localhost") +
                                         std::string(suffix));
}

}  // namespace

// cpp-httplib's SSLServer gives the TLS context for the options (certificate, client certificate
// checks); the connections themselves are served here, plain or TLS, so that the server can track and
// close them and read every request body.
class LoopbackHttpServer::Impl final : public httplib::SSLServer {
 public:
  explicit Impl(LoopbackHttpServerOptions options)
      : SSLServer(CertificateFile(options, ".crt").c_str(), CertificateFile(options, ".key").c_str(),
                  options.tls == LoopbackHttpServerOptions::Tls::kRequireClientCertificate
                      ? TestCertificates::Shared().caCertificatePath().c_str()
                      : nullptr),
        options_(options) {
    ERR_clear_error();  // what a plain server's empty certificate path left behind
  }

  ~Impl() override {
    closeConnections();
    if (listener_.joinable()) {
      stop();
      listener_.join();
    }
  }

  // A plain server has no TLS context, and needs none.
  bool is_valid() const override { return true; }

  bool start() {
    const bool tls = options_.tls != LoopbackHttpServerOptions::Tls::kOff;
    if (tls && !ssl_context()) {
      startError_ = "TLS context setup failed for the test certificates";
      return false;
    }
    // Needed as soon as client certificates are verified: without it OpenSSL refuses to resume the
    // sessions libcurl offers on its next connection, and that handshake fails.
    if (tls) SSL_CTX_set_session_id_context(ssl_context(), reinterpret_cast<const unsigned char*>("kx"), 2);
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
    addBuiltInRoutes();

    // cpp-httplib asks for its task queue right after it marks itself running and before its first
    // accept: the one moment stop() is sure to work, hence the readiness signal.
    new_task_queue = [this] {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        listening_ = true;
      }
      cv_.notify_all();
      return new ThreadPerConnectionQueue();
    };
    const char* host = options_.ipv6 ? "::1" : "127.0.0.1";
    int port = bind_to_any_port(host);
    if (port <= 0) {
      startError_ = std::string("cannot bind a port on ") + host;
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
    });
    std::unique_lock<std::mutex> lock(mutex_);
    cv_.wait(lock, [this] { return listening_; });
    return true;
  }

  // Shuts down every open connection, and those accepted from now on.
  void closeConnections() {
    // Under the lock a connection thread cannot close its descriptor, so the number shut down here is
    // still the connection's and not a descriptor the process reused meanwhile.
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    for (int fd : open_) ::shutdown(fd, SHUT_RDWR);
  }

  void addRoute(std::string method, const std::string& pattern, Handler handler) {
    auto route = std::make_shared<const Route>(Route{std::move(method), std::regex(pattern), std::move(handler)});
    std::lock_guard<std::mutex> lock(mutex_);
    routes_.push_back(std::move(route));
  }

  const LoopbackHttpServerOptions options_;
  std::string startError_;
  uint16_t port_ = 0;

  // One lock for the records, the open connections, the routes and the server's state.
  mutable std::mutex mutex_;
  mutable std::condition_variable cv_;
  std::vector<RecordedRequest> records_;
  std::set<int> open_;  // descriptors of the open connections
  uint64_t accepted_ = 0;

 private:
  struct Route {
    std::string method;  // empty: any method
    std::regex regex;
    Handler handler;
  };

  bool process_and_close_socket(socket_t sock) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_) {
        ::close(sock);
        return false;
      }
      ++accepted_;
      open_.insert(sock);
    }
    // The time-outs bound every read and write, the blocking TLS handshake of a client that connects and
    // never speaks included. A response leaves in several writes (head, body); with Nagle's algorithm
    // the second one would wait for the client's delayed ACK, 40 ms per request.
    const int timeoutMs = static_cast<int>(options_.ioTimeout.count());
    timeval tv{static_cast<time_t>(timeoutMs / 1000), static_cast<suseconds_t>((timeoutMs % 1000) * 1000)};
    ::setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    ::setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
    int noDelay = 1;
    ::setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof(noDelay));

    const bool tls = options_.tls != LoopbackHttpServerOptions::Tls::kOff;
    SSL* ssl = tls ? SSL_new(ssl_context()) : nullptr;
    const bool ready = !tls || (ssl && SSL_set_fd(ssl, sock) == 1 && SSL_accept(ssl) == 1);
    ConnectionStream stream(sock, ssl, timeoutMs);
    // The idle wait ends with the next request, the client's close, the keep-alive time-out, or the
    // shutdown of the socket by closeConnections().
    for (size_t served = 1; ready && (stream.hasBufferedData() ||
                                      WaitFor(sock, POLLIN, static_cast<int>(options_.keepAliveTimeout.count())));
         ++served) {
      if (!stream.readRequestHead()) break;
      const bool last = served == options_.keepAliveMaxRequests;
      bool closedByClient = false;
      if (!process_request(stream, last, closedByClient, [ssl](httplib::Request& req) { req.ssl = ssl; }) ||
          closedByClient || last) {
        break;
      }
    }
    if (ssl && ready) SSL_shutdown(ssl);
    SSL_free(ssl);
    ERR_clear_error();
    std::lock_guard<std::mutex> lock(mutex_);
    open_.erase(sock);
    ::shutdown(sock, SHUT_RDWR);
    ::close(sock);
    return true;
  }

  void dispatch(const httplib::Request& constRequest, httplib::Response& res) {
    // cpp-httplib's Request is a local of its own, not a const object: giving it back its own method and
    // our route's capture groups is sound, and avoids copying a request with a large body.
    auto& req = const_cast<httplib::Request&>(constRequest);
    if (!tRelabelledMethod.empty()) req.method = tRelabelledMethod;
    RecordedRequest record{req.method, req.path, ReceivedHeaders(req), req.body, PeerSubject(req.ssl)};
    std::shared_ptr<const Route> route;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      records_.push_back(std::move(record));
      // Newest first: a test's route wins over a built-in one on the same path.
      for (auto it = routes_.rbegin(); it != routes_.rend() && !route; ++it) {
        const std::string& method = (*it)->method;
        if ((method.empty() || method == req.method || (req.method == "HEAD" && method == "GET")) &&
            std::regex_match(req.path, req.matches, (*it)->regex)) {
          route = *it;
        }
      }
    }
    cv_.notify_all();
    if (route) {
      route->handler(req, res);
    } else {
      res.status = 404;
      res.set_content("Not Found\n", "text/plain");
    }
  }

  void addBuiltInRoutes() {
    addRoute("", "/echo", [](const httplib::Request& req, httplib::Response& res) {
      std::string out = req.method + " " + req.target + "\n";
      for (const auto& [name, value] : ReceivedHeaders(req)) out += name + ": " + value + "\n";
      res.set_content(out + "\n" + req.body, "text/plain");
    });
    addRoute("", "/echo/body", [](const httplib::Request& req, httplib::Response& res) {
      std::string type = req.get_header_value("Content-Type");
      res.set_content(req.body, type.empty() ? "application/octet-stream" : type);
    });
    addRoute("", "/status/(\\d{3})", [](const httplib::Request& req, httplib::Response& res) {
      res.status = std::stoi(req.matches[1].str());
      res.set_content(
          req.has_param("size") ? PatternBytes(QueryNumber(req, "size", 0)) : "status " + req.matches[1].str() + "\n",
          "text/plain");
    });
    addRoute("", "/redirect/(\\d+)", [](const httplib::Request& req, httplib::Response& res) {
      size_t remaining = std::stoul(req.matches[1].str());
      if (remaining == 0) {
        res.set_content("redirect chain end\n", "text/plain");
        return;
      }
      const size_t query = req.target.find('?');
      res.status = 302;
      res.set_header("Location", "/redirect/" + std::to_string(remaining - 1) +
                                     (query == std::string::npos ? "" : req.target.substr(query)));
    });
    addRoute("", "/redirect-to", [](const httplib::Request& req, httplib::Response& res) {
      res.status = static_cast<int>(QueryNumber(req, "status", 302));
      res.set_header("Location", req.get_param_value("url"));
    });
    addRoute("GET", "/bytes/(\\d+)", [](const httplib::Request& req, httplib::Response& res) {
      res.set_content(PatternBytes(std::stoul(req.matches[1].str())), "application/octet-stream");
    });
  }

  std::thread listener_;
  bool listening_ = false;
  bool stopping_ = false;
  std::vector<std::shared_ptr<const Route>> routes_;
};

std::string RecordedRequest::header(std::string_view name) const {
  std::vector<std::string> values = headerValues(name);
  return values.empty() ? "" : values[0];
}

bool RecordedRequest::hasHeader(std::string_view name) const { return !headerValues(name).empty(); }

std::vector<std::string> RecordedRequest::headerValues(std::string_view name) const {
  std::vector<std::string> values;
  for (const auto& [key, value] : headers) {
    if (key.size() == name.size() && ::strncasecmp(key.data(), name.data(), name.size()) == 0) values.push_back(value);
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
    impl_ = std::make_unique<Impl>(options);
    ::sigaction(SIGPIPE, &previous, nullptr);
  }
  if (!impl_->start()) ADD_FAILURE() << "LoopbackHttpServer did not start: " << impl_->startError_;
}

LoopbackHttpServer::~LoopbackHttpServer() = default;

uint16_t LoopbackHttpServer::port() const { return impl_->port_; }
std::string LoopbackHttpServer::url(std::string_view path) const {
  return urlWithHost(impl_->options_.ipv6 ? "[::1]" : "127.0.0.1", path);
}
std::string LoopbackHttpServer::urlWithHost(std::string_view hostName, std::string_view path) const {
  const bool tls = impl_->options_.tls != LoopbackHttpServerOptions::Tls::kOff;
  return (tls ? "https://" : "http://") + std::string(hostName) + ":" + std::to_string(port()) + std::string(path);
}

LoopbackHttpServer& LoopbackHttpServer::Get(const std::string& pattern, Handler handler) {
  impl_->addRoute("GET", pattern, std::move(handler));
  return *this;
}
LoopbackHttpServer& LoopbackHttpServer::Post(const std::string& pattern, Handler handler) {
  impl_->addRoute("POST", pattern, std::move(handler));
  return *this;
}

std::vector<RecordedRequest> LoopbackHttpServer::requests() const {
  std::lock_guard<std::mutex> lock(impl_->mutex_);
  return impl_->records_;
}
size_t LoopbackHttpServer::requestCount() const { return requests().size(); }

bool LoopbackHttpServer::waitForRequests(size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(impl_->mutex_);
  return impl_->cv_.wait_for(lock, timeout, [&] { return impl_->records_.size() >= count; });
}
RecordedRequest LoopbackHttpServer::lastRequest() const {
  std::vector<RecordedRequest> all = requests();
  return all.empty() ? RecordedRequest() : all.back();
}
void LoopbackHttpServer::clearRequests() {
  std::lock_guard<std::mutex> lock(impl_->mutex_);
  impl_->records_.clear();
}

uint64_t LoopbackHttpServer::acceptedConnections() const {
  std::lock_guard<std::mutex> lock(impl_->mutex_);
  return impl_->accepted_;
}
std::string LoopbackHttpServer::PatternBytes(size_t size, size_t offset) {
  std::string out;
  out.reserve(size + 16);
  for (size_t block = offset / 16 * 16; out.size() < size + offset % 16; block += 16) {
    char text[32];
    std::snprintf(text, sizeof(text), "%015zu\n", block);
    out += text;
  }
  return out.substr(offset % 16, size);
}

}  // namespace kx::test
