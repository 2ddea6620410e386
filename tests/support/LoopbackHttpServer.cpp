// The server itself: start and stop, the per-connection request loop, routing and the request records.
// The connection stream, TLS and the built-in routes live in the files named in LoopbackConnection.h.
#include "support/LoopbackHttpServer.h"

#include "support/LoopbackConnection.h"

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
#include <map>
#include <mutex>
#include <regex>
#include <thread>

namespace kx::test {

using namespace loopback;

namespace {

// Limit for each read and write once a request has begun.

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

}  // namespace

std::vector<std::pair<std::string, std::string>> loopback::ReceivedHeaders(const httplib::Request& req) {
  std::vector<std::pair<std::string, std::string>> headers;
  for (const auto& [name, value] : req.headers) {
    // cpp-httplib stores the peer and local addresses as if they were request headers; they were never sent.
    if (name != "REMOTE_ADDR" && name != "REMOTE_PORT" && name != "LOCAL_ADDR" && name != "LOCAL_PORT") {
      headers.emplace_back(name, value);
    }
  }
  if (tRequestContext && tRequestContext->expectAnswered) headers.emplace_back("Expect", "100-continue");
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

  void dispatch(const httplib::Request& req, httplib::Response& res) {
    RecordedRequest record;
    record.method = req.method;
    record.target = req.target;
    record.path = req.path;
    record.version = req.version;
    record.headers = ReceivedHeaders(req);
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
LoopbackHttpServer& LoopbackHttpServer::Delete(const std::string& pattern, Handler handler) {
  impl_->addRoute("DELETE", pattern, std::move(handler));
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
