// Test scaffolding shared by the transfer-layer tests: one request context whose header callback
// installs a response sink, optionally points curl at the test CA and runs a test's own hook, counting
// its calls (one per attempt); a request body source of unknown size; a URL carrying policies; and the
// process's count of open descriptors.
#pragma once

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <kx/Corvix.h>
#include <kx/http/HttpConnection.h>
#include <kx/http/HttpHeaders.h>
#include <kx/http/HttpPolicies.h>
#include <kx/http/HttpUrl.h>
#include <kx/system/kxIoDevice.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

namespace kx::test {

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
           const std::string& expectedType = "") {
    body.clear();
    return connection.getHttpData(url, expectedType, expectedStatus, &ConnectionTestCall::Callback, nullptr, this);
  }
  bool run(kx::http::HttpConnection& connection, const std::string& url, long expectedStatus = 200,
           const std::string& expectedType = "") {
    return run(connection, kx::http::HttpUrl(url), expectedStatus, expectedType);
  }
};

inline kx::http::HttpUrl WithPolicies(const std::string& text, const kx::http::HttpPolicies& policies) {
  kx::http::HttpUrl url(text);
  url.setPolicies(std::make_shared<const kx::http::HttpPolicies>(policies));
  return url;
}

inline size_t OpenDescriptors() {
  size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
  return count;
}

// A readable device without random access (so its body goes out chunked), delivering at most 1000 bytes
// per read. It can fail after `faultAt` bytes, or stall there (nothing delivered, no error, not at its
// end), or answer every other read with "nothing now" (0 before its end) as a builder switching sources does.
class StreamSource : public kx::kxIoDevice {
 public:
  enum class Fault { kNone, kError, kStall, kPauses };
  explicit StreamSource(std::string data, size_t faultAt = std::string::npos, Fault fault = Fault::kNone)
      : kxIoDevice(DW_Read), data_(std::move(data)), faultAt_(faultAt), fault_(fault) {}

  size_t readBytes(char* buffer, size_t size) override {
    if (!readAllowed()) return 0;
    if (fault_ == Fault::kPauses && (paused_ = !paused_)) return 0;
    if (position_ >= faultAt_) {
      if (fault_ == Fault::kError) setDeviceError("source broke");
      return 0;
    }
    const size_t n = std::min({size, size_t{1000}, data_.size() - position_, faultAt_ - position_});
    std::memcpy(buffer, data_.data() + position_, n);
    position_ += n;
    return n;
  }
  bool atEnd() const override { return position_ == data_.size(); }

 private:
  std::string data_;
  size_t position_ = 0;
  size_t faultAt_;
  Fault fault_;
  bool paused_ = false;
};

}  // namespace kx::test
