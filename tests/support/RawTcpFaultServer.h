// RawTcpFaultServer is a plain-socket server on 127.0.0.1 and an ephemeral port that misbehaves on purpose,
// for the failure paths a well-behaved HTTP server never shows a client:
//
//   Mode                          What a connection gets                           libcurl's result
//   kRefuse                       nothing listens: the port is bound, never          CURLE_COULDNT_CONNECT (7)
//                                 listened on, so connect() is refused
//   kAcceptAndClose               request read, then an orderly close, no byte       CURLE_GOT_NOTHING (52)
//   kResetAfterPartialResponse    request read, the partial response sent, then a    CURLE_RECV_ERROR (56)
//                                 reset (RST) in the middle of the body
//   kPartialResponse              request read, a head announcing 1000 bytes and     CURLE_PARTIAL_FILE (18)
//                                 the 12 bytes "partial body" sent, then closed
//   kStall                        request read, then silence, connection held        CURLE_OPERATION_TIMEDOUT (28)
//   kStallAfterPartialResponse    request read, the same partial response, then      once the low-speed limit fires
//                                 silence
//   kAnswerAfterBody              request and its body (Content-Length or chunked)   CURLE_OK, status 200
//                                 read, "200 ok" sent, closed; never a "100 Continue"
//
//   kx::test::RawTcpFaultServer server(kx::test::RawTcpFaultServer::Mode::kStall);
//   curl_easy_setopt(curl, CURLOPT_URL, server.url("/").c_str());
//   curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
//   curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, 1L);
//   EXPECT_EQ(curl_easy_perform(curl), CURLE_OPERATION_TIMEDOUT);
//
// libcurl judges the low-speed rule on its average over the last 5 s, so after the partial response's
// burst a limit of 1 byte/s fires only some 6 s later; a limit above the burst's rate (100) fires at once.
//
// "Request read" means: up to the blank line ending the head or the client's close (a TLS client never
// sends a blank line: it waits until the server goes).
//
// Thread-safety: thread-safe. One thread serves the connections one at a time, in their order of arrival.
// Ownership: the destructor wakes that thread, closes all sockets and joins it at once, a stalled
// connection included.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kx::test {

class RawTcpFaultServer {
 public:
  enum class Mode {
    kRefuse,
    kAcceptAndClose,
    kResetAfterPartialResponse,
    kPartialResponse,
    kStall,
    kStallAfterPartialResponse,
    kAnswerAfterBody,
  };

  explicit RawTcpFaultServer(Mode mode);
  ~RawTcpFaultServer();
  RawTcpFaultServer(const RawTcpFaultServer&) = delete;
  RawTcpFaultServer& operator=(const RawTcpFaultServer&) = delete;

  bool isRunning() const;
  const std::string& startError() const;

  uint16_t port() const;
  std::string url(std::string_view path) const;  // "http://127.0.0.1:<port>" + path

  // The request head (up to its blank line) each connection sent, in the order of acceptance, once read.
  std::vector<std::string> requestHeads() const;
  // The request bodies read in kAnswerAfterBody (chunked ones without their framing).
  std::vector<std::string> requestBodies() const;
  // Waits until count connections have had their request read; false on time-out.
  bool waitForRequests(size_t count, std::chrono::milliseconds timeout) const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kx::test
