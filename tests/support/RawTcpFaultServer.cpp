#include "support/RawTcpFaultServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
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

// Waits until fd is readable; false when the stop descriptor fired first (or poll failed).
bool WaitReadable(int fd, int stopFd) {
  pollfd fds[2] = {{fd, POLLIN, 0}, {stopFd, POLLIN, 0}};
  int r;
  do {
    r = ::poll(fds, 2, -1);
  } while (r < 0 && errno == EINTR);
  return r > 0 && fds[1].revents == 0;
}

// Appends what fd has to bytes, once it is readable. False once the peer closed, on an error, or when
// the server stops.
bool Receive(int fd, int stopFd, std::string& bytes) {
  char buffer[65536];
  ssize_t n = WaitReadable(fd, stopFd) ? ::recv(fd, buffer, sizeof(buffer), 0) : -1;
  if (n > 0) bytes.append(buffer, static_cast<size_t>(n));
  return n > 0;
}

void SendAll(int fd, std::string_view bytes) {
  for (ssize_t n = 0; !bytes.empty() && n >= 0; bytes.remove_prefix(static_cast<size_t>(n))) {
    n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }
}

// Whether `bytes` hold the whole body the request head announces, by its Content-Length or, for a
// chunked body, up to its empty last chunk (no trailers). When complete, `body` gets the body's data
// (without the chunk framing).
bool BodyComplete(const std::string& head, const std::string& bytes, std::string& body) {
  if (!::strcasestr(head.c_str(), "\r\nTransfer-Encoding: chunked\r\n")) {
    const char* length = ::strcasestr(head.c_str(), "\r\nContent-Length:");
    const size_t size = length != nullptr ? std::strtoull(length + 17, nullptr, 10) : 0;
    if (bytes.size() < size) return false;
    body = bytes.substr(0, size);
    return true;
  }
  body.clear();
  for (size_t at = 0;;) {
    const size_t lineEnd = bytes.find("\r\n", at);
    const size_t size = std::strtoul(bytes.c_str() + at, nullptr, 16);
    if (lineEnd == std::string::npos || lineEnd + 2 + size + 2 > bytes.size()) return false;
    if (size == 0) return true;
    body.append(bytes, lineEnd + 2, size);
    at = lineEnd + 2 + size + 2;
  }
}

}  // namespace

class RawTcpFaultServer::Impl {
 public:
  explicit Impl(Mode mode) : mode_(mode) {}

  ~Impl() {
    if (stopFd_ >= 0) ::eventfd_write(stopFd_, 1);
    if (acceptor_.joinable()) acceptor_.join();
    if (listenFd_ >= 0) ::close(listenFd_);
    if (stopFd_ >= 0) ::close(stopFd_);
  }

  bool start() {
    stopFd_ = ::eventfd(0, EFD_CLOEXEC);
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (stopFd_ < 0 || listenFd_ < 0 ||
        ::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        // Refusing: the socket stays bound, so no other process can take the port, but without listen()
        // the kernel answers every SYN with a reset.
        (mode_ != Mode::kRefuse && ::listen(listenFd_, 64) != 0)) {
      error_ = std::string("socket set-up failed: ") + std::strerror(errno);
      return false;
    }
    port_ = ntohs(address.sin_port);
    if (mode_ != Mode::kRefuse) acceptor_ = std::thread([this] { acceptLoop(); });
    return true;
  }

  std::string error_;
  uint16_t port_ = 0;
  mutable std::mutex mutex_;
  mutable std::condition_variable cv_;
  std::vector<std::string> heads_;
  std::vector<std::string> bodies_;

 private:
  // Connections are served one at a time, in their order of arrival: a test makes one or two.
  void acceptLoop() {
    while (WaitReadable(listenFd_, stopFd_)) {
      const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd >= 0) serve(fd);
    }
  }

  void serve(int fd) {
    std::string bytes, body;
    size_t end;
    while ((end = bytes.find("\r\n\r\n")) == std::string::npos && Receive(fd, stopFd_, bytes)) {
    }
    const std::string head = bytes.substr(0, end == std::string::npos ? end : end + 4);
    bytes.erase(0, head.size());
    {
      std::lock_guard<std::mutex> lock(mutex_);
      heads_.push_back(head);
      bodies_.emplace_back();
    }
    cv_.notify_all();
    switch (mode_) {
      case Mode::kRefuse:  // never accepted
      case Mode::kAcceptAndClose:
        break;
      case Mode::kResetAfterPartialResponse: {
        SendAll(fd, kCannedResponse);
        linger reset{1, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
        break;
      }
      case Mode::kPartialResponse:
        SendAll(fd, kCannedResponse);
        break;
      case Mode::kStallAfterPartialResponse:
        SendAll(fd, kCannedResponse);
        [[fallthrough]];
      case Mode::kStall:  // silent, draining whatever the client sends, until it closes or the server stops
        while (Receive(fd, stopFd_, bytes)) bytes.clear();
        break;
      case Mode::kAnswerAfterBody:
        while (!BodyComplete(head, bytes, body) && Receive(fd, stopFd_, bytes)) {
        }
        if (BodyComplete(head, bytes, body)) {
          {
            std::lock_guard<std::mutex> lock(mutex_);
            bodies_.back() = body;
          }
          SendAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 3\r\nConnection: close\r\n\r\nok\n");
        }
        break;
    }
    ::close(fd);
  }

  const Mode mode_;
  int listenFd_ = -1;
  int stopFd_ = -1;
  std::thread acceptor_;
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
  return impl_->cv_.wait_for(lock, timeout, [&] { return impl_->heads_.size() >= count; });
}

}  // namespace kx::test
