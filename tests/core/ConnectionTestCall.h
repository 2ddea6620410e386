// Test scaffolding shared by the HttpConnection tests: a library-initialising fixture and one request
// context whose header callback installs a response sink, optionally points curl at the test CA and
// runs a test's own hook, counting its calls (one per attempt).
#pragma once

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <kx/Corvix.h>
#include <kx/http/HttpConnection.h>
#include <kx/http/HttpHeaders.h>
#include <kx/http/HttpUrl.h>

#include <functional>
#include <string>

namespace kx::test {

// Initialises the library once per suite; counted, so it nests with any other initialisation.
class CorvixSuite : public testing::Test {
 protected:
  static void SetUpTestSuite() { kx::initializeCorvix("kx-connection-tests"); }
  static void TearDownTestSuite() { kx::terminateCorvix(); }
};

struct ConnectionTestCall {
  std::string body;    // response body as received
  std::string caInfo;  // CURLOPT_CAINFO when not empty
  int calls = 0;       // header callback calls: one per attempt
  // Extra work per attempt (1-based); its result is the callback's result.
  std::function<int(CURL*, kx::http::HttpHeaders&, int attempt)> onCall;

  static size_t Write(char* data, size_t size, size_t count, void* self) {
    static_cast<ConnectionTestCall*>(self)->body.append(data, size * count);
    return size * count;
  }

  static int Callback(void* curlHandle, void* userData, kx::http::HttpHeaders& headers) {
    auto* self = static_cast<ConnectionTestCall*>(userData);
    CURL* curl = static_cast<CURL*>(curlHandle);
    ++self->calls;
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &ConnectionTestCall::Write);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, self);
    if (!self->caInfo.empty()) curl_easy_setopt(curl, CURLOPT_CAINFO, self->caInfo.c_str());
    return self->onCall ? self->onCall(curl, headers, self->calls) : 0;
  }

  bool run(kx::http::HttpConnection& connection, const kx::http::HttpUrl& url, long expectedStatus = 200,
           const std::string& expectedType = "", const kx::kxCancelInterfaceReadOnly* cancel = nullptr) {
    body.clear();
    return connection.getHttpData(url, expectedType, expectedStatus, &ConnectionTestCall::Callback, cancel, this);
  }
  bool run(kx::http::HttpConnection& connection, const std::string& url, long expectedStatus = 200,
           const std::string& expectedType = "") {
    return run(connection, kx::http::HttpUrl(url), expectedStatus, expectedType);
  }
};

}  // namespace kx::test
