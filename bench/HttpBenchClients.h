// The two clients compared by the HTTP benchmark and by the instruction-count profile, so that both
// programs time and count exactly the same code.
//
// Corvix: written as a user writes it, a lease from the pool and one HttpHelpers::HttpGet per request.
// Raw libcurl: the best a user can write by hand, one easy handle per thread with every option set once
// and only curl_easy_perform per request. Both send the same request (the same User-Agent,
// Accept-Encoding with every encoding curl supports, "Connection: Keep-Alive") and reuse one keep-alive
// connection.
#pragma once

#include <kx/http/HttpConnection.h>
#include <kx/http/HttpConnectionLocker.h>
#include <kx/http/HttpConnectionPool.h>
#include <kx/http/HttpHelpers.h>
#include <kx/http/HttpUrl.h>

#include <curl/curl.h>

#include <cstdint>
#include <string>

namespace bench {

// Given to initializeCorvix, which sends it with every request; the raw client sends it too.
inline constexpr const char* kUserAgent = "corvix-bench";

// One GET through the pool. `body` null: the body is discarded (only its length is counted).
inline bool CorvixGet(kx::http::HttpConnectionPool& pool, const kx::http::HttpUrl& url, std::string* body,
                      int64_t& received) {
  kx::http::HttpConnectionLocker lease(pool, url);
  kx::http::HttpHelpers::HttpResult result;
  result.body = body;
  const bool ok = kx::http::HttpHelpers::HttpGet(*lease, url, &result, nullptr, nullptr, nullptr);
  received = result.bodyLength;
  return ok;
}

class RawCurlGet {
 public:
  enum class Body {
    kDiscard,         // counts the bytes only
    kText,            // appends to a string, reserved once curl knows the Content-Length
    kTextNoReserve,   // appends to a string that grows as data arrives
  };

  RawCurlGet(const std::string& url, Body mode) : mode_(mode) {
    curl_ = curl_easy_init();
    // The User-Agent as a line of the header list rather than CURLOPT_USERAGENT: libcurl 7.88 formats
    // the option's header anew for every request, which costs about 1,700 instructions more.
    headers_ = curl_slist_append(nullptr, (std::string("User-Agent: ") + kUserAgent).c_str());
    headers_ = curl_slist_append(headers_, "Connection: Keep-Alive");
    curl_easy_setopt(curl_, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl_, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, headers_);
    curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, mode == Body::kDiscard ? &Count : &Append);
    curl_easy_setopt(curl_, CURLOPT_WRITEDATA, this);
  }
  ~RawCurlGet() {
    curl_easy_cleanup(curl_);
    curl_slist_free_all(headers_);
  }
  RawCurlGet(const RawCurlGet&) = delete;
  RawCurlGet& operator=(const RawCurlGet&) = delete;

  // One request; the body (text modes) is appended to `body`, which the caller empties or replaces.
  bool get(std::string* body, int64_t& received) {
    body_ = body;
    received_ = 0;
    reserved_ = mode_ != Body::kText;
    long status = 0;
    const bool ok = curl_easy_perform(curl_) == CURLE_OK &&
                    curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK && status == 200;
    received = received_;
    return ok;
  }

 private:
  static size_t Count(char*, size_t size, size_t count, void* user) {
    static_cast<RawCurlGet*>(user)->received_ += static_cast<int64_t>(size * count);
    return size * count;
  }
  static size_t Append(char* data, size_t size, size_t count, void* user) {
    RawCurlGet& self = *static_cast<RawCurlGet*>(user);
    const size_t n = size * count;
    if (!self.reserved_) {
      self.reserved_ = true;
      curl_off_t length = -1;
      if (curl_easy_getinfo(self.curl_, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length) == CURLE_OK && length > 0)
        self.body_->reserve(self.body_->size() + static_cast<size_t>(length));
    }
    self.body_->append(data, n);
    self.received_ += static_cast<int64_t>(n);
    return n;
  }

  CURL* curl_ = nullptr;
  curl_slist* headers_ = nullptr;
  Body mode_;
  std::string* body_ = nullptr;
  int64_t received_ = 0;
  bool reserved_ = false;
};

}  // namespace bench
