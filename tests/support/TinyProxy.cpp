#include "support/TinyProxy.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

extern char** environ;

namespace kx::test {
namespace {

constexpr auto kStartDeadline = std::chrono::seconds(10);
constexpr auto kStopDeadline = std::chrono::seconds(5);
constexpr int kStartAttempts = 5;

std::string MakeTemporaryDirectory() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/kx-tinyproxy-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  return mkdtemp(buffer.data()) ? std::string(buffer.data()) : std::string();
}

sockaddr_in Loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// tinyproxy cannot listen on port 0 and report the port, so ask the kernel for a free one and hand it
// over. Another process may take it in between; the caller then retries with a new port.
uint16_t FreeLoopbackPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return 0;
  sockaddr_in address = Loopback(0);
  socklen_t length = sizeof(address);
  uint16_t port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  ::close(fd);
  return port;
}

bool AcceptsConnections(uint16_t port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_in address = Loopback(port);
  bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  ::close(fd);
  return ok;
}

// Waits up to timeoutMs (-1: no limit) for the child to end and reaps it. The pidfd becomes readable the
// moment the child exits.
bool WaitForExit(int pid, int pidFd, int timeoutMs, int* status) {
  pollfd p{pidFd, POLLIN, 0};
  int r;
  do {
    r = ::poll(&p, 1, timeoutMs);
  } while (r < 0 && errno == EINTR);
  int s = 0;
  if (r <= 0 || ::waitpid(pid, &s, 0) != pid) return false;
  if (status) *status = s;
  return true;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::string DescribeExit(int status) {
  if (WIFEXITED(status)) return "exited with status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
  return "ended";
}

}  // namespace

TinyProxy::TinyProxy() {
  available_ = ::access(kExecutable, X_OK) == 0;
  if (!available_) {
    error_ = skipReason();
    return;
  }
  dir_ = MakeTemporaryDirectory();
  if (dir_.empty()) {
    error_ = std::string("mkdtemp failed: ") + std::strerror(errno);
    return;
  }
  for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
    std::string error;
    if (startOnce(error)) {
      error_.clear();
      return;
    }
    error_ = error;
  }
}

TinyProxy::~TinyProxy() {
  terminate();
  if (!dir_.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }
}

std::string TinyProxy::skipReason() const {
  return std::string(kExecutable) + " is not installed (Debian package tinyproxy); proxy tests are skipped";
}

std::string TinyProxy::url() const { return "http://127.0.0.1:" + std::to_string(port_); }

std::string TinyProxy::log() const {
  return dir_.empty() ? std::string() : ReadFile(dir_ + "/tinyproxy.log") + ReadFile(dir_ + "/tinyproxy.out");
}

bool TinyProxy::startOnce(std::string& error) {
  uint16_t port = FreeLoopbackPort();
  if (port == 0) {
    error = "no free port on 127.0.0.1";
    return false;
  }
  const std::string config = dir_ + "/tinyproxy.conf";
  {
    std::ofstream out(config, std::ios::trunc);
    out << "Port " << port << "\n"
        << "Listen 127.0.0.1\n"
        << "Allow 127.0.0.1\n"
        << "Timeout 30\n"
        << "MaxClients 100\n"
        << "LogFile \"" << dir_ << "/tinyproxy.log\"\n"
        << "LogLevel Info\n"
        << "ViaProxyName \"" << kViaName << "\"\n"
        << "AddHeader \"" << kMarkerHeader << "\" \"" << kMarkerValue << "\"\n";
    if (!out.flush()) {
      error = "cannot write " + config;
      return false;
    }
  }

  // The child must not inherit our descriptors: a listening socket of a test server kept open in
  // tinyproxy would keep accepting connections after the test closed it.
  const std::string output = dir_ + "/tinyproxy.out";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  std::string arg0 = kExecutable, arg1 = "-d", arg2 = "-c";
  char* argv[] = {arg0.data(), arg1.data(), arg2.data(), const_cast<char*>(config.c_str()), nullptr};
  pid_t pid = -1;
  int rc = posix_spawn(&pid, kExecutable, &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    error = std::string("posix_spawn of tinyproxy failed: ") + std::strerror(rc);
    return false;
  }
  int pidFd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  if (pidFd < 0) {
    error = std::string("pidfd_open failed: ") + std::strerror(errno);
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    return false;
  }

  // Readiness is "accepts a TCP connection"; between attempts the wait is on the child itself, so a
  // tinyproxy that fails (port taken, bad config) is noticed at once.
  const auto deadline = std::chrono::steady_clock::now() + kStartDeadline;
  for (;;) {
    int status = 0;
    if (AcceptsConnections(port)) {
      if (!WaitForExit(pid, pidFd, 0, &status)) {
        pid_ = pid;
        pidFd_ = pidFd;
        port_ = port;
        return true;
      }
    } else if (!WaitForExit(pid, pidFd, 5, &status)) {
      if (std::chrono::steady_clock::now() < deadline) continue;
      ::kill(pid, SIGKILL);
      WaitForExit(pid, pidFd, -1, nullptr);
      ::close(pidFd);
      error = "tinyproxy did not accept connections within 10 s; log:\n" + log();
      return false;
    }
    ::close(pidFd);
    error = "tinyproxy " + DescribeExit(status) + "; log:\n" + log();
    return false;
  }
}

void TinyProxy::terminate() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGTERM);
  if (!WaitForExit(pid_, pidFd_, static_cast<int>(std::chrono::milliseconds(kStopDeadline).count()), nullptr)) {
    ::kill(pid_, SIGKILL);
    WaitForExit(pid_, pidFd_, -1, nullptr);
  }
  ::close(pidFd_);
  pid_ = -1;
  pidFd_ = -1;
}

}  // namespace kx::test
