#include "support/RawTcpFaultServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

namespace kx::test {

namespace {

// What the partial modes send: a response that announces 1000 bytes and delivers 12.
constexpr char kCannedResponse[] =
    "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 1000\r\n\r\npartial body";

constexpr int kHeadTimeoutMs = 5000;

// Polls fd together with the stop descriptor. 1: fd ready, 0: time-out, -1: stopping or error.
int WaitReadable(int fd, int stopFd, int timeoutMs) {
  pollfd fds[2] = {{fd, POLLIN, 0}, {stopFd, POLLIN, 0}};
  int r;
  do {
    r = ::poll(fds, 2, timeoutMs);
  } while (r < 0 && errno == EINTR);
  if (r < 0 || fds[1].revents != 0) return -1;
  return r == 0 ? 0 : 1;
}

void SendAll(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

// Whether `bytes` hold the whole body the request head announces, by its Content-Length or, for a
// chunked body, up to its empty last chunk (no trailers). When complete, `body` gets the body's data
// (without the chunk framing).
bool BodyComplete(const std::string& head, const std::string& bytes, std::string& body) {
  auto headerValue = [&head](const char* name) -> const char* {
    for (size_t at = head.find("\r\n"); at != std::string::npos; at = head.find("\r\n", at + 2)) {
      const char* line = head.c_str() + at + 2;
      const size_t length = std::strlen(name);
      if (::strncasecmp(line, name, length) == 0 && line[length] == ':') return line + length + 1;
    }
    return nullptr;
  };
  const char* encoding = headerValue("Transfer-Encoding");
  if (encoding == nullptr || std::strstr(encoding, "chunked") == nullptr) {
    const char* length = headerValue("Content-Length");
    const size_t size = length != nullptr ? std::strtoull(length, nullptr, 10) : 0;
    if (bytes.size() < size) return false;
    body = bytes.substr(0, size);
    return true;
  }
  std::string data;
  for (size_t at = 0;;) {
    const size_t lineEnd = bytes.find("\r\n", at);
    if (lineEnd == std::string::npos) return false;
    const size_t size = std::strtoul(bytes.c_str() + at, nullptr, 16);
    if (lineEnd + 2 + size + 2 > bytes.size()) return false;
    if (size == 0) break;
    data.append(bytes, lineEnd + 2, size);
    at = lineEnd + 2 + size + 2;
  }
  body = std::move(data);
  return true;
}

}  // namespace

class RawTcpFaultServer::Impl {
 public:
  explicit Impl(Mode mode) : mode_(mode) {}

  ~Impl() {
    if (stopFd_ >= 0) {
      uint64_t one = 1;
      [[maybe_unused]] ssize_t ignored = ::write(stopFd_, &one, sizeof(one));
    }
    if (acceptor_.joinable()) acceptor_.join();
    for (auto& worker : workers_) worker.join();
    if (listenFd_ >= 0) ::close(listenFd_);
    if (stopFd_ >= 0) ::close(stopFd_);
  }

  bool start() {
    stopFd_ = ::eventfd(0, EFD_CLOEXEC);
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (stopFd_ < 0 || listenFd_ < 0) return fail("socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) return fail("bind");
    if (::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) return fail("getsockname");
    port_ = ntohs(address.sin_port);
    // Refusing: the socket stays bound, so no other process can take the port, but without listen()
    // the kernel answers every SYN with a reset.
    if (mode_ == Mode::kRefuse) return true;
    if (::listen(listenFd_, 64) != 0) return fail("listen");
    acceptor_ = std::thread([this] { acceptLoop(); });
    return true;
  }

  bool fail(const char* step) {
    error_ = std::string(step) + " failed: " + std::strerror(errno);
    port_ = 0;
    return false;
  }

  std::string error_;
  uint16_t port_ = 0;
  mutable std::mutex mutex_;
  mutable std::condition_variable cv_;
  std::vector<std::string> heads_;
  std::vector<std::string> bodies_;
  size_t headsDone_ = 0;

 private:
  void acceptLoop() {
    for (;;) {
      if (WaitReadable(listenFd_, stopFd_, -1) < 0) return;
      int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) continue;
      size_t slot;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        slot = heads_.size();
        heads_.emplace_back();
        bodies_.emplace_back();
      }
      // A test makes a handful of connections: their threads are joined when the server goes.
      workers_.emplace_back([this, fd, slot] { serve(fd, slot); });
    }
  }

  void serve(int fd, size_t slot) {
    const std::string canned = kCannedResponse;
    std::string rest;
    bool stopping = !readHead(fd, slot, rest);
    if (!stopping) {
      switch (mode_) {
        case Mode::kRefuse:  // never accepted
        case Mode::kAcceptAndClose:
          break;
        case Mode::kResetAfterPartialResponse: {
          SendAll(fd, canned);
          linger reset{1, 0};
          ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
          break;
        }
        case Mode::kPartialResponse:
          SendAll(fd, canned);
          break;
        case Mode::kStallAfterPartialResponse:
          SendAll(fd, canned);
          holdUntilClosed(fd);
          break;
        case Mode::kStall:
          holdUntilClosed(fd);
          break;
        case Mode::kAnswerAfterBody:
          if (readBody(fd, slot, rest))
            SendAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 3\r\nConnection: close\r\n\r\nok\n");
          break;
      }
    }
    ::close(fd);
  }

  // Reads up to the end of the request head and records the head; what came after it is left in
  // `rest`. False when the server is stopping.
  bool readHead(int fd, size_t slot, std::string& rest) {
    std::string head;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kHeadTimeoutMs);
    bool stopping = false;
    while (head.find("\r\n\r\n") == std::string::npos) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) break;
      int ready = WaitReadable(fd, stopFd_, static_cast<int>(left.count()));
      if (ready < 0) stopping = true;
      if (ready <= 0) break;
      char buffer[4096];
      ssize_t n = ::recv(fd, buffer, sizeof(buffer), 0);
      if (n <= 0) break;
      head.append(buffer, static_cast<size_t>(n));
    }
    if (size_t end = head.find("\r\n\r\n"); end != std::string::npos) {
      rest = head.substr(end + 4);
      head.resize(end + 4);
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      heads_[slot] = std::move(head);
      ++headsDone_;
    }
    cv_.notify_all();
    return !stopping;
  }

  // Reads the rest of the body the recorded head announces, `bytes` holding its start; true once the
  // whole body is in.
  bool readBody(int fd, size_t slot, std::string& bytes) {
    std::string head;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      head = heads_[slot];
    }
    std::string body;
    while (!BodyComplete(head, bytes, body)) {
      if (WaitReadable(fd, stopFd_, kHeadTimeoutMs) <= 0) return false;
      char buffer[65536];
      ssize_t n = ::recv(fd, buffer, sizeof(buffer), 0);
      if (n <= 0) return false;
      bytes.append(buffer, static_cast<size_t>(n));
    }
    std::lock_guard<std::mutex> lock(mutex_);
    bodies_[slot] = std::move(body);
    return true;
  }

  // Keeps the connection open and silent, draining whatever the client sends, until it closes or the
  // server stops.
  void holdUntilClosed(int fd) {
    for (;;) {
      if (WaitReadable(fd, stopFd_, -1) <= 0) return;
      char buffer[4096];
      ssize_t n = ::recv(fd, buffer, sizeof(buffer), 0);
      if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN)) return;
    }
  }

  const Mode mode_;

  int listenFd_ = -1;
  int stopFd_ = -1;
  std::thread acceptor_;
  std::vector<std::thread> workers_;  // touched by the acceptor thread, then by the destructor after joining it
};

RawTcpFaultServer::RawTcpFaultServer(Mode mode) : impl_(std::make_unique<Impl>(mode)) { impl_->start(); }
RawTcpFaultServer::~RawTcpFaultServer() = default;

bool RawTcpFaultServer::isRunning() const { return impl_->port_ != 0; }
const std::string& RawTcpFaultServer::startError() const { return impl_->error_; }
uint16_t RawTcpFaultServer::port() const { return impl_->port_; }
std::string RawTcpFaultServer::url(std::string_view path) const {
  return "http://127.0.0.1:" + std::to_string(impl_->port_) + std::string(path);
}
std::vector<std::string> RawTcpFaultServer::requestHeads() const {
  std::lock_guard<std::mutex> lock(impl_->mutex_);
  return impl_->heads_;
}
std::vector<std::string> RawTcpFaultServer::requestBodies() const {
  std::lock_guard<std::mutex> lock(impl_->mutex_);
  return impl_->bodies_;
}
bool RawTcpFaultServer::waitForRequests(size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(impl_->mutex_);
  return impl_->cv_.wait_for(lock, timeout, [&] { return impl_->headsDone_ >= count; });
}

}  // namespace kx::test
