#include "support/LoopbackConnection.h"

#include <openssl/err.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace kx::test::loopback {
namespace {

constexpr size_t kMaxRequestHead = 64 * 1024;

std::string_view TrimBlanks(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
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

}  // namespace

bool EqualsIgnoreCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
         });
}

int ToPollTimeout(std::chrono::milliseconds timeout) {
  return static_cast<int>(std::clamp<int64_t>(timeout.count(), 0, INT_MAX));
}

void ThreadPerConnectionQueue::enqueue(std::function<void()> fn) {
  reapFinished();
  auto done = std::make_shared<std::atomic<bool>>(false);
  workers_.push_back(Worker{std::thread([fn = std::move(fn), done] {
                              fn();
                              done->store(true, std::memory_order_release);
                            }),
                            done});
}

void ThreadPerConnectionQueue::shutdown() {
  for (auto& worker : workers_) worker.thread.join();
  workers_.clear();
}

void ThreadPerConnectionQueue::reapFinished() {
  for (auto it = workers_.begin(); it != workers_.end();) {
    if (it->done->load(std::memory_order_acquire)) {
      it->thread.join();
      it = workers_.erase(it);
    } else {
      ++it;
    }
  }
}

bool ConnectionStream::is_readable() const {
  return available() > 0 || (ssl_ && SSL_pending(ssl_) > 0) || WaitFor(fd_, POLLIN, timeoutMs_) > 0;
}

bool ConnectionStream::is_writable() const { return WaitFor(fd_, POLLOUT, timeoutMs_) > 0; }

ssize_t ConnectionStream::read(char* ptr, size_t size) {
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

ssize_t ConnectionStream::write(const char* ptr, size_t size) {
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

bool ConnectionStream::hasBufferedData() const { return available() > 0 || (ssl_ && SSL_pending(ssl_) > 0); }

bool ConnectionStream::readRequestHead() {
  capturedBody_.clear();
  hasCapturedBody_ = false;
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
      }
    }
    lineBegin = lineEnd + 2;
  }
  if (!chunked && contentLength == 0) return true;

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

ssize_t ConnectionStream::readRaw(char* ptr, size_t size) {
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

bool ConnectionStream::readMore() {
  char chunk[16 * 1024];
  ssize_t n = readRaw(chunk, sizeof(chunk));
  if (n <= 0) return false;
  buffer_.append(chunk, static_cast<size_t>(n));
  return true;
}

bool ConnectionStream::ensure(size_t size) {
  while (buffer_.size() < size) {
    if (!readMore()) return false;
  }
  return true;
}

bool ConnectionStream::findLineEnd(size_t from, size_t& lineEnd) {
  for (;;) {
    lineEnd = buffer_.find("\r\n", from);
    if (lineEnd != std::string::npos) return true;
    if (buffer_.size() - from > kMaxRequestHead || !readMore()) return false;
  }
}

bool ConnectionStream::decodeChunked(size_t begin, size_t& end) {
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

}  // namespace kx::test::loopback
