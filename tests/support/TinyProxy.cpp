#include "support/TinyProxy.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

extern char** environ;

namespace kx::test {
namespace {

// Binds port (0: any free one) or connects to it on 127.0.0.1; the port bound or connected to, or 0.
uint16_t UseLoopbackPort(uint16_t port, bool connect) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  bool ok = fd >= 0 && (connect ? ::connect(fd, raw, sizeof(address)) == 0
                                : ::bind(fd, raw, sizeof(address)) == 0 && ::getsockname(fd, raw, &length) == 0);
  if (fd >= 0) ::close(fd);
  return ok ? ntohs(address.sin_port) : 0;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

}  // namespace

TinyProxy::TinyProxy() {
  available_ = ::access(kExecutable, X_OK) == 0;
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/kx-tinyproxy-XXXXXX";
  if (!available_) {
    error_ = skipReason();
  } else if (!mkdtemp(pattern.data())) {
    error_ = std::string("mkdtemp failed: ") + std::strerror(errno);
  } else {
    dir_ = pattern;
    // tinyproxy cannot listen on port 0 and report the port: it gets one that was free a moment ago, and
    // another process may take it in between, hence a few attempts.
    for (int attempt = 0; attempt < 5 && !startOnce(error_); ++attempt) {
    }
  }
}

TinyProxy::~TinyProxy() {
  terminate();
  std::error_code ignored;
  if (!dir_.empty()) std::filesystem::remove_all(dir_, ignored);
}

std::string TinyProxy::log() const {
  return dir_.empty() ? std::string() : ReadFile(dir_ + "/tinyproxy.log") + ReadFile(dir_ + "/tinyproxy.out");
}

bool TinyProxy::startOnce(std::string& error) {
  const uint16_t port = UseLoopbackPort(0, false);
  const std::string config = dir_ + "/tinyproxy.conf";
  std::ofstream(config, std::ios::trunc) << "Port " << port
                                         << "\nListen 127.0.0.1\nAllow 127.0.0.1\nTimeout 30\nMaxClients 100\n"
                                         << "LogFile \"" << dir_ << "/tinyproxy.log\"\nLogLevel Info\n"
                                         << "ViaProxyName \"" << kViaName << "\"\n"
                                         << "AddHeader \"" << kMarkerHeader << "\" \"" << kMarkerValue << "\"\n";

  // The child must not inherit our descriptors: a listening socket of a test server kept open in
  // tinyproxy would keep accepting connections after the test closed it.
  const std::string output = dir_ + "/tinyproxy.out";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  std::string arg0 = kExecutable, arg1 = "-d", arg2 = "-c", arg3 = config;
  char* argv[] = {arg0.data(), arg1.data(), arg2.data(), arg3.data(), nullptr};
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, kExecutable, &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    error = std::string("posix_spawn of tinyproxy failed: ") + std::strerror(rc);
    return false;
  }
  pid_ = pid;

  // Ready once it accepts a TCP connection; a tinyproxy that fails (port taken, bad configuration) is
  // noticed by its exit between the attempts.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  int status = 0;
  while (::waitpid(pid, &status, WNOHANG) == 0) {
    if (UseLoopbackPort(port, true) != 0) {
      port_ = port;
      return true;
    }
    if (std::chrono::steady_clock::now() > deadline) {
      terminate();
      error = "tinyproxy did not accept connections within 10 s; log:\n" + log();
      return false;
    }
    ::poll(nullptr, 0, 5);
  }
  pid_ = -1;
  error = "tinyproxy ended (wait status " + std::to_string(status) + "); log:\n" + log();
  return false;
}

// SIGKILL: the proxy keeps nothing worth a clean shutdown, and its temporary directory goes anyway.
void TinyProxy::terminate() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

}  // namespace kx::test
