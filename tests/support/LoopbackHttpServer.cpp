// The server itself: start and stop, the per-connection request loop, routing and the request records.
// The connection stream, TLS and the built-in routes live in the files named in LoopbackConnection.h.
#include "support/LoopbackHttpServer.h"

#include "support/LoopbackConnection.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <regex>
#include <set>
#include <thread>

namespace kx::test {

using namespace loopback;

namespace {

// The verified client certificate's subject of the connection being served, for the record. The handler
// runs on the connection's own thread, so a thread-local pointer reaches it without any lock.
thread_local const std::string* tClientSubject = nullptr;

}  // namespace

std::vector<std::pair<std::string, std::string>> loopback::ReceivedHeaders(const httplib::Request& req) {
  std::vector<std::pair<std::string, std::string>> headers;
  for (const auto& [name, value] : req.headers) {
    // cpp-httplib stores the peer and local addresses as if they were request headers; they were never sent.
    if (name != "REMOTE_ADDR" && name != "REMOTE_PORT" && name != "LOCAL_ADDR" && name != "LOCAL_PORT") {
      headers.emplace_back(name, value);
    }
  }
  return headers;
}

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
    AddBuiltInRoutes([this](const char* method, const char* pattern, Handler handler) {
      addRoute(method, pattern, std::move(handler), true);
    }, [this](std::chrono::milliseconds duration) { return waitForStop(duration); });

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
      for (int fd : open_) ::shutdown(fd, SHUT_RDWR);
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

  LoopbackHttpServerOptions options_;
  std::string startError_;
  uint16_t port_ = 0;

  mutable std::mutex recordMutex_;
  mutable std::condition_variable recordCv_;
  std::vector<RecordedRequest> records_;

  mutable std::mutex connMutex_;
  std::set<int> open_;  // descriptors of the open connections
  uint64_t accepted_ = 0;
  bool closing_ = false;

 private:
  struct Route {
    std::string method;  // empty: any method
    std::regex regex;
    Handler handler;
  };

  bool process_and_close_socket(socket_t sock) override {
    std::string clientSubject;
    {
      std::lock_guard<std::mutex> lock(connMutex_);
      if (closing_) {
        ::shutdown(sock, SHUT_RDWR);
        ::close(sock);
        return false;
      }
      ++accepted_;
      open_.insert(sock);
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
      ssl = SSL_new(ctx_);
      ERR_clear_error();
      ready = ssl && SSL_set_fd(ssl, sock) == 1 && SSL_accept(ssl) == 1;
      if (ready) clientSubject = PeerSubject(ssl);
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
        tClientSubject = &clientSubject;
        result = process_request(stream, last, closedByClient, [&stream](httplib::Request& req) {
          if (stream.hasCapturedBody()) req.body = stream.takeCapturedBody();
        });
        tClientSubject = nullptr;
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

  void dispatch(const httplib::Request& req, httplib::Response& res) {
    RecordedRequest record;
    record.method = req.method;
    record.path = req.path;
    record.headers = ReceivedHeaders(req);
    record.body = req.body;
    if (tClientSubject) record.clientCertificateSubject = *tClientSubject;
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
};
std::string RecordedRequest::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (loopback::EqualsIgnoreCase(key, name)) return value;
  }
  return {};
}

bool RecordedRequest::hasHeader(std::string_view name) const {
  return std::any_of(headers.begin(), headers.end(),
                     [&](const auto& h) { return loopback::EqualsIgnoreCase(h.first, name); });
}

std::vector<std::string> RecordedRequest::headerValues(std::string_view name) const {
  std::vector<std::string> values;
  for (const auto& [key, value] : headers) {
    if (loopback::EqualsIgnoreCase(key, name)) values.push_back(value);
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
  std::lock_guard<std::mutex> lock(impl_->recordMutex_);
  return impl_->records_;
}
size_t LoopbackHttpServer::requestCount() const {
  std::lock_guard<std::mutex> lock(impl_->recordMutex_);
  return impl_->records_.size();
}
RecordedRequest LoopbackHttpServer::lastRequest() const {
  std::lock_guard<std::mutex> lock(impl_->recordMutex_);
  return impl_->records_.empty() ? RecordedRequest() : impl_->records_.back();
}
bool LoopbackHttpServer::waitForRequests(size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(impl_->recordMutex_);
  return impl_->recordCv_.wait_for(lock, timeout, [&] { return impl_->records_.size() >= count; });
}
void LoopbackHttpServer::clearRequests() {
  std::lock_guard<std::mutex> lock(impl_->recordMutex_);
  impl_->records_.clear();
}

uint64_t LoopbackHttpServer::acceptedConnections() const {
  std::lock_guard<std::mutex> lock(impl_->connMutex_);
  return impl_->accepted_;
}
void LoopbackHttpServer::closeConnections() {
  // Under the lock a connection thread cannot close its descriptor, so the number shut down here is
  // still the connection's and not a descriptor the process reused meanwhile.
  std::lock_guard<std::mutex> lock(impl_->connMutex_);
  for (int fd : impl_->open_) ::shutdown(fd, SHUT_RDWR);
}

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
