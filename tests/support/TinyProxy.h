// TinyProxy runs Debian's tinyproxy as a child process on a free port of 127.0.0.1, with a configuration of
// its own in a temporary directory, for the tests of the static-proxy policy. The proxy marks every
// request it forwards with "Via: 1.1 kx-test-proxy (tinyproxy/<version>)" and "X-Kx-Test-Proxy: tinyproxy",
// so the origin server's records prove the request went through it. It also tunnels CONNECT to any port.
//
//   kx::test::TinyProxy proxy;
//   if (!proxy.isAvailable()) GTEST_SKIP() << proxy.skipReason();
//   ASSERT_TRUE(proxy.isRunning()) << proxy.startError();
//   curl_easy_setopt(curl, CURLOPT_PROXY, proxy.url().c_str());
//   ...
//   EXPECT_EQ(server.lastRequest().header(kx::test::TinyProxy::kMarkerHeader), kx::test::TinyProxy::kMarkerValue);
//
// Thread-safety: thread-compatible; the proxy itself serves any number of client threads.
// Ownership: the destructor kills the process, reaps it and removes the temporary directory with its
// configuration and log.
#pragma once

#include <cstdint>
#include <string>

namespace kx::test {

class TinyProxy {
 public:
  static constexpr const char* kExecutable = "/usr/bin/tinyproxy";
  static constexpr const char* kViaName = "kx-test-proxy";
  static constexpr const char* kMarkerHeader = "X-Kx-Test-Proxy";
  static constexpr const char* kMarkerValue = "tinyproxy";

  // Starts the proxy and returns once it accepts connections (or start failed: see isRunning()).
  TinyProxy();
  ~TinyProxy();
  TinyProxy(const TinyProxy&) = delete;
  TinyProxy& operator=(const TinyProxy&) = delete;

  // False when tinyproxy is not installed; tests then skip with skipReason().
  bool isAvailable() const { return available_; }
  std::string skipReason() const { return std::string(kExecutable) + " is not installed; proxy tests are skipped"; }

  bool isRunning() const { return pid_ > 0; }
  const std::string& startError() const { return error_; }

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

  // tinyproxy's log (connections, requests), for a failure message.
  std::string log() const;

 private:
  bool startOnce(std::string& error);
  void terminate();

  bool available_ = false;
  std::string dir_;
  std::string error_;
  int pid_ = -1;
  uint16_t port_ = 0;
};

}  // namespace kx::test
