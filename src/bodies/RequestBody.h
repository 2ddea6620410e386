// Request bodies as curl reads them. Each kind installs its own read callback (and a seek callback when
// it can be rewound) on a curl easy handle, so that whoever performs a request (the request helpers,
// a document fetcher, a token or key download) hands curl a body without knowing where its bytes live:
//
//   detail::MemoryRequestBody body(json.data(), json.size());
//   // inside the connection's header callback, after the handle was reset:
//   result |= body.install(curl);   // CURLOPT_READFUNCTION, READDATA, SEEKFUNCTION, SEEKDATA
//
// Kinds: bytes in memory (rewindable), a device read to its end (not rewindable, sent with an unknown
// length, i.e. chunked), and a random-access device sent from its current position (rewindable, its
// remaining size announced). A body that cannot be rewound makes a redirect or an authentication round
// trip that must send it again fail instead of sending it truncated.
//
// A device may answer a read with 0 before its end ("nothing now", e.g. a multipart builder switching to
// its next part); the reader asks again, and gives up with an error only after a long run of empty reads
// so that a device that never delivers cannot hang a transfer.
//
// Thread-safety: not thread-safe; one transfer at a time.
// Ownership: borrows the bytes or the device; both must outlive the transfer.
#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace kx {
class kxIoDevice;
class kxIoDeviceRandomAccess;
namespace http {
namespace detail {

class RequestBody {
 public:
  virtual ~RequestBody() = default;

  // Prepares an attempt: back to the first byte of the body. False when the body cannot start again
  // (a device that was already read from and cannot be rewound).
  virtual bool restart() = 0;
  // Bytes the body will deliver from its start, -1 when unknown (curl then sends it chunked).
  virtual int64_t size() const = 0;
  // Installs the read callback, and the seek callback when the body can be rewound. Returns the OR of
  // the curl_easy_setopt results.
  int install(CURL* curl);
  // Whether install() sets a seek callback (the body can be rewound).
  bool installsSeek() const { return rewindable(); }
  // Why the last read gave up, for the error report; empty when it did not.
  const std::string& failure() const { return failure_; }

 protected:
  // Up to `room` bytes into `buffer`: the count delivered, 0 at the end, CURL_READFUNC_ABORT on failure.
  virtual size_t read(char* buffer, size_t room) = 0;
  virtual bool rewindable() const { return false; }
  // Positions the next read `offset` bytes after the body's start.
  virtual bool seekTo(uint64_t offset);

  std::string failure_;

 private:
  static size_t ReadCallback(char* buffer, size_t size, size_t count, void* body);
  static int SeekCallback(void* body, curl_off_t offset, int origin);
};

class MemoryRequestBody final : public RequestBody {
 public:
  // `data` may be null only with `size` 0.
  MemoryRequestBody(const char* data, size_t size) : data_(data), size_(size) {}
  bool restart() override;
  int64_t size() const override { return static_cast<int64_t>(size_); }

 protected:
  size_t read(char* buffer, size_t room) override;
  bool rewindable() const override { return true; }
  bool seekTo(uint64_t offset) override;

 private:
  const char* data_;
  size_t size_;
  size_t position_ = 0;
};

class DeviceRequestBody : public RequestBody {
 public:
  explicit DeviceRequestBody(kxIoDevice& device) : device_(device) {}
  // True before the first read only: what was read cannot be read again.
  bool restart() override { return !started_; }
  int64_t size() const override { return -1; }

 protected:
  size_t read(char* buffer, size_t room) override;

  kxIoDevice& device_;
  bool started_ = false;
};

class SeekableDeviceRequestBody final : public DeviceRequestBody {
 public:
  // Sent from the device's current position, which the first restart() notes as the body's start.
  explicit SeekableDeviceRequestBody(kxIoDeviceRandomAccess& device);
  bool restart() override;
  int64_t size() const override { return size_; }

 protected:
  bool rewindable() const override { return true; }
  bool seekTo(uint64_t offset) override;

 private:
  kxIoDeviceRandomAccess& seekable_;
  int64_t start_ = -1;
  int64_t size_ = -1;
};

}  // namespace detail
}  // namespace http
}  // namespace kx
