// kxIoDeviceHttpChunked frames whatever is written to it in HTTP/1.1 chunked transfer coding and writes
// the framed bytes to its delegate (a socket, a file, a string). Use it to stream a body of unknown
// length: the producer writes as it goes, endDelegation() sends the last partial chunk and the
// terminating zero-size chunk.
//
//   kx::kxIoDeviceStringWriteOnly sink;
//   kx::http::kxIoDeviceHttpChunked chunked(4);
//   chunked.beginDelegation(&sink, kx::kxIoDevice::DW_Write);
//   chunked.writeAll("abcdef");
//   chunked.endDelegation();   // sink: "4\r\nabcd\r\n2\r\nef\r\n0\r\n\r\n"
//
// Framing. Writes are gathered into chunks of exactly the maximum size; the size line is lower-case
// hexadecimal without leading zeros, and no chunk extension or trailer is ever written. A write that
// exactly fills the chunk sends nothing yet: that chunk goes out with the next write or at the end, so
// a write of k times the maximum sends k - 1 chunks and keeps the last one. Lowering the maximum below
// what is buffered sends the buffered bytes as one chunk at the next write. clearDelegation() and the
// destructor drop buffered bytes without writing anything.
//
// Errors. A maximum of 0 (which could never form a chunk) sets "invalid maximum chunk size 0"; one
// above 2147483647 sets "vector::reserve" and allocates nothing; either way the previous maximum is
// kept and the device stays in error. Writing while not delegating for writing sets "call write on a
// read delegation mode device"; reading sets "readBytes not implemented". A delegate's failure shows
// through hasDeviceError(): writeBytes returns 0 and endDelegation() fails.
//
// Thread-safety: not thread-safe.
// Ownership: the delegate is borrowed (see kxIoDeviceDelegable); payload is copied at most once, into
// a buffer of the maximum chunk size, and a write that spans a whole chunk goes out from the caller's
// memory.
#pragma once

#include <kx/system/kxExport.h>
#include <kx/system/kxIoDeviceDelegable.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kx {
namespace http {

class KX_EXPORT kxIoDeviceHttpChunked : public kx::kxIoDeviceDelegable {
 public:
  explicit kxIoDeviceHttpChunked(uint32_t maxChunkSize);
  ~kxIoDeviceHttpChunked() override;

  size_t readBytes(char* buffer, size_t size) override;
  // Accepts all `size` bytes (returns `size`) or fails (0, device in error). A size of 0 returns 0
  // without an error.
  size_t writeBytes(const char* data, size_t size) override;

  // Payload bytes per chunk, from 1 to 2147483647; buffered bytes are kept. False, with the device in
  // error and the maximum unchanged, for any other value.
  bool setMaxChunkSize(uint32_t maxChunkSize);
  uint32_t getMaxChunkSize() const { return maxChunkSize_; }

  // Writes one chunk made of the buffered bytes followed by `length` bytes of `data`, then empties the
  // buffer. Nothing at all when both are empty: an empty chunk would end the body.
  void writeChunk(const char* data, size_t length);

 protected:
  bool beginDelegationImpl() override;
  // Sends the buffered bytes and the last chunk "0\r\n\r\n"; false when the delegate failed.
  bool endDelegationImpl() override;
  bool clearDelegationImpl() override;

 private:
  uint32_t maxChunkSize_ = 0;
  std::vector<char> buffer_;
};

}  // namespace http
}  // namespace kx
