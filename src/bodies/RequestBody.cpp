#include "bodies/RequestBody.h"

#include <kx/system/kxIoDevice.h>
#include <kx/system/kxIoDeviceRandomAccess.h>

#include "core/TransferError.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>

namespace kx {
namespace http {
namespace detail {
namespace {

// Empty reads tolerated in a row before a device is declared stuck. A device switching sources answers
// 0 once per switch; thousands in a row mean it will never deliver, and curl would take a 0 for the end
// of the body and send it truncated.
constexpr int kMaxEmptyReads = 4096;

}  // namespace

int RequestBody::install(CURL* curl) {
  using ReadFn = size_t (*)(char*, size_t, size_t, void*);
  failure_.clear();
  int result = 0;
  result |= curl_easy_setopt(curl, CURLOPT_READFUNCTION, static_cast<ReadFn>(&ReadCallback));
  result |= curl_easy_setopt(curl, CURLOPT_READDATA, static_cast<void*>(this));
  // Without a seek function curl cannot rewind, and a redirect that must resend the body fails.
  if (rewindable()) {
    result |= curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, static_cast<curl_seek_callback>(&SeekCallback));
    result |= curl_easy_setopt(curl, CURLOPT_SEEKDATA, static_cast<void*>(this));
  }
  return result;
}

bool RequestBody::seekTo(uint64_t) { return false; }

size_t RequestBody::ReadCallback(char* buffer, size_t size, size_t count, void* body) {
  return static_cast<RequestBody*>(body)->read(buffer, size * count);
}

// curl rewinds (offset 0 from SEEK_SET) to send the body again after a redirect or an authentication
// round trip.
int RequestBody::SeekCallback(void* body, curl_off_t offset, int origin) {
  if (origin != SEEK_SET || offset < 0) return CURL_SEEKFUNC_CANTSEEK;
  return static_cast<RequestBody*>(body)->seekTo(static_cast<uint64_t>(offset)) ? CURL_SEEKFUNC_OK
                                                                                 : CURL_SEEKFUNC_FAIL;
}

bool MemoryRequestBody::restart() {
  position_ = 0;
  return true;
}

size_t MemoryRequestBody::read(char* buffer, size_t room) {
  const size_t n = std::min(room, size_ - position_);
  if (n > 0) std::memcpy(buffer, data_ + position_, n);
  position_ += n;
  return n;
}

bool MemoryRequestBody::seekTo(uint64_t offset) {
  if (offset > size_) return false;
  position_ = static_cast<size_t>(offset);
  return true;
}

size_t DeviceRequestBody::read(char* buffer, size_t room) {
  started_ = true;
  for (int empty = 0; empty < kMaxEmptyReads; ++empty) {
    const size_t n = device_.read(buffer, room);
    if (n > 0) return n;
    if (device_.hasDeviceError()) return CURL_READFUNC_ABORT;
    if (device_.atEnd()) return 0;
  }
  failure_ = FormatTransferError(TransferError::kBodyStalled);
  return CURL_READFUNC_ABORT;
}

SeekableDeviceRequestBody::SeekableDeviceRequestBody(kxIoDeviceRandomAccess& device)
    : DeviceRequestBody(device), seekable_(device) {}

bool SeekableDeviceRequestBody::restart() {
  // The first attempt notes where the body starts; a later one (the address-family retry) goes back.
  if (start_ < 0) {
    start_ = seekable_.getPosition();
    size_ = seekable_.getRemainingSize();
    return start_ >= 0;
  }
  return seekable_.seek(start_);
}

bool SeekableDeviceRequestBody::seekTo(uint64_t offset) {
  if (start_ < 0 || offset > static_cast<uint64_t>(std::numeric_limits<int64_t>::max() - start_)) return false;
  return seekable_.seek(start_ + static_cast<int64_t>(offset));
}

}  // namespace detail
}  // namespace http
}  // namespace kx
