// nginx on 127.0.0.1 and a free port, with its own temporary prefix and configuration, serving static
// files of fixed sizes. Shared by the HTTP benchmark and the instruction-count profile so that both
// talk to the same server set up the same way.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace bench {

inline int FreeLoopbackPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return ntohs(address.sin_port);
}

inline bool CanConnect(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return ok;
}

// The bytes of a served file of `size` bytes: a pseudo-random sequence, so that a byte lost, doubled or
// moved in transit shows up when bodies are compared (a run of one letter would hide a shift).
inline std::string FileContent(size_t size) {
  std::string text(size, '\0');
  uint32_t state = 0x12345678u ^ static_cast<uint32_t>(size);
  for (char& c : text) {
    state = state * 1664525u + 1013904223u;
    c = static_cast<char>(state >> 24);
  }
  return text;
}

// nginx in the foreground with its own prefix, so it needs no root and touches nothing of the system's.
class LoopbackNginx {
 public:
  // `files`: path (without the leading slash) and size of each static file to serve.
  explicit LoopbackNginx(const std::vector<std::pair<std::string, size_t>>& files) {
    dir_ = std::filesystem::temp_directory_path() / ("kx-bench-nginx-" + std::to_string(getpid()));
    std::filesystem::create_directories(dir_ / "www");
    std::filesystem::create_directories(dir_ / "logs");
    for (const auto& [name, size] : files) {
      const std::string content = FileContent(size);
      std::ofstream(dir_ / "www" / name, std::ios::binary).write(content.data(), static_cast<std::streamsize>(size));
    }
    port_ = FreeLoopbackPort();
    std::ofstream(dir_ / "nginx.conf")
        << "daemon off; master_process off; worker_processes 1; pid " << (dir_ / "nginx.pid").string() << ";\n"
        << "error_log " << (dir_ / "logs" / "error.log").string() << ";\n"
        << "events { worker_connections 256; }\n"
        << "http { access_log off; keepalive_requests 1000000; keepalive_timeout 60s; sendfile on;\n"
        << "  client_body_temp_path " << dir_.string() << "; proxy_temp_path " << dir_.string() << ";\n"
        << "  fastcgi_temp_path " << dir_.string() << "; uwsgi_temp_path " << dir_.string() << ";\n"
        << "  scgi_temp_path " << dir_.string() << ";\n"
        << "  server { listen 127.0.0.1:" << port_ << "; root " << (dir_ / "www").string() << "; } }\n";
    pid_ = fork();
    if (pid_ == 0) {
      execl("/usr/sbin/nginx", "nginx", "-p", dir_.c_str(), "-c", (dir_ / "nginx.conf").c_str(),
            static_cast<char*>(nullptr));
      _exit(127);
    }
    for (int i = 0; i < 500 && !CanConnect(port_); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ready_ = CanConnect(port_);
  }
  ~LoopbackNginx() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  LoopbackNginx(const LoopbackNginx&) = delete;
  LoopbackNginx& operator=(const LoopbackNginx&) = delete;

  bool ready() const { return ready_; }
  int port() const { return port_; }
  std::string url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }

 private:
  std::filesystem::path dir_;
  int port_ = 0;
  pid_t pid_ = -1;
  bool ready_ = false;
};

}  // namespace bench
