// Where a response body goes, as curl writes it. Each kind installs its own write callback on a curl
// easy handle, so that whoever performs a request hands curl a destination without knowing what it is:
// a caller's device (a file, a multipart parser, a search-result parser), a text, or nowhere.
//
//   detail::DeviceSink sink(parser);
//   // inside the connection's header callback, after the handle was reset:
//   result |= sink.install(curl);   // CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA
//
// A sink that refuses bytes ends the transfer with curl's write error instead of losing part of the
// body. expectSize() passes on the announced Content-Length before the first byte, so that a text can
// grow once instead of doubling its way through a large download.
//
// Thread-safety: not thread-safe; one transfer at a time.
// Ownership: borrows the device or text; it must outlive the transfer.
#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace kx {
class kxIoDevice;
namespace http {
namespace detail {

class ResponseSink {
 public:
  virtual ~ResponseSink() = default;

  // The size the server announced for the body about to arrive (a hint: a compressed body decodes to
  // more). Called at most once per response, before its first byte.
  virtual void expectSize(int64_t /*size*/) {}
  // Takes all `size` bytes, or refuses them (false), which ends the transfer with a write error.
  virtual bool write(const char* data, size_t size) = 0;
  // Installs the write callback. Returns the OR of the curl_easy_setopt results.
  int install(CURL* curl);

 private:
  static size_t WriteCallback(char* data, size_t size, size_t count, void* sink);
};

class DeviceSink final : public ResponseSink {
 public:
  explicit DeviceSink(kxIoDevice& device) : device_(device) {}
  bool write(const char* data, size_t size) override;
  kxIoDevice& device() const { return device_; }

 private:
  kxIoDevice& device_;
};

class TextSink final : public ResponseSink {
 public:
  explicit TextSink(std::string& text) : text_(text) {}
  void expectSize(int64_t size) override;
  bool write(const char* data, size_t size) override;

 private:
  std::string& text_;
};

class DiscardSink final : public ResponseSink {
 public:
  bool write(const char*, size_t) override { return true; }
};

}  // namespace detail
}  // namespace http
}  // namespace kx
