#include <kx/http/kxIoDeviceHttpChunked.h>

#include <charconv>
#include <exception>
#include <cstdint>
#include <limits>

#include "bodies/BodyBuilderText.h"

namespace kx {
namespace http {

using detail::BodyBuilderText;
using detail::BodyBuilderTextOf;

kxIoDeviceHttpChunked::kxIoDeviceHttpChunked(uint32_t maxChunkSize) : kxIoDeviceDelegable(DW_Write) {
  setMaxChunkSize(maxChunkSize);
}

kxIoDeviceHttpChunked::~kxIoDeviceHttpChunked() = default;

bool kxIoDeviceHttpChunked::setMaxChunkSize(uint32_t maxChunkSize) {
  // With a maximum of 0 the write loop would flush empty chunks forever; a device in error cannot
  // begin a delegation, so refusing here keeps every later call from hanging.
  if (maxChunkSize == 0) {
    setDeviceError(BodyBuilderTextOf(BodyBuilderText::kChunkSizeZero));
    return false;
  }
  if (maxChunkSize > static_cast<uint32_t>(std::numeric_limits<int32_t>::max())) {
    setDeviceError(BodyBuilderTextOf(BodyBuilderText::kChunkSizeTooLarge));
    return false;
  }
  maxChunkSize_ = maxChunkSize;
  try {
    buffer_.reserve(maxChunkSize);
  } catch (const std::exception&) {
    // Without the reserve the buffer still works, it only grows on demand.
  }
  return true;
}

size_t kxIoDeviceHttpChunked::readBytes(char* /*buffer*/, size_t /*size*/) {
  setDeviceError(BodyBuilderTextOf(BodyBuilderText::kReadNotImplemented));
  return 0;
}

void kxIoDeviceHttpChunked::writeChunk(const char* data, size_t length) {
  const size_t total = buffer_.size() + length;
  if (total == 0) return;
  char digits[2 * sizeof(size_t)];
  const auto end = std::to_chars(digits, digits + sizeof digits, total, 16).ptr;
  // Separate writes, so the payload goes out from where it lies instead of being copied into a frame.
  (void)(writeAllToDelegate(digits, static_cast<size_t>(end - digits)) && writeAllToDelegate("\r\n", 2) &&
         (buffer_.empty() || writeAllToDelegate(buffer_.data(), buffer_.size())) &&
         (length == 0 || writeAllToDelegate(data, length)) && writeAllToDelegate("\r\n", 2));
  buffer_.clear();
}

size_t kxIoDeviceHttpChunked::writeBytes(const char* data, size_t size) {
  if (!delegationWriteAllowed() || size == 0) return 0;
  size_t done = 0;
  while (done < size && !hasDeviceError()) {
    const size_t remaining = size - done;
    // Signed: the maximum may have been lowered below what is already buffered.
    const int64_t space = static_cast<int64_t>(maxChunkSize_) - static_cast<int64_t>(buffer_.size());
    // Bytes that exactly fill the chunk stay buffered: the chunk goes out with the next write or at
    // the end.
    if (space >= static_cast<int64_t>(remaining)) break;
    if (space > 0) {
      writeChunk(data + done, static_cast<size_t>(space));
      done += static_cast<size_t>(space);
    } else {
      writeChunk(nullptr, 0);
    }
  }
  if (hasDeviceError()) return 0;
  buffer_.insert(buffer_.end(), data + done, data + size);
  return size;
}

bool kxIoDeviceHttpChunked::beginDelegationImpl() { return true; }

bool kxIoDeviceHttpChunked::endDelegationImpl() {
  if (getDelegate() == nullptr || hasDeviceError()) return false;
  writeChunk(nullptr, 0);
  if (!hasDeviceError()) writeAllToDelegate("0\r\n\r\n", 5);
  return getDelegate()->good();
}

bool kxIoDeviceHttpChunked::clearDelegationImpl() {
  buffer_.clear();
  return true;
}

}  // namespace http
}  // namespace kx
