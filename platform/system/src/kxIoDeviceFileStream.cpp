#include <kx/system/kxIoDeviceFileStream.h>

#include <kx/system/kxStringUtils.h>

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kxIoDeviceErrorText.h"

namespace kx {

using detail::kxIoDeviceErrc;
using detail::kxIoDeviceErrnoText;
using detail::kxIoDeviceErrorText;

namespace {

constexpr int kKnownFlags = kxIoDeviceFileStream::OF_Binary | kxIoDeviceFileStream::OF_Append |
                            kxIoDeviceFileStream::OF_Exclusive;

// Linux transfers at most this much per read/write call anyway; asking for more only risks a ssize_t
// overflow on absurd sizes.
constexpr size_t kMaxIoPerCall = 0x7ffff000;

}  // namespace

kxIoDeviceFileStream::kxIoDeviceFileStream() : kxIoDeviceRandomAccess(DW_Read) {}

kxIoDeviceFileStream::~kxIoDeviceFileStream() {
  if (fd_ >= 0) ::close(fd_);
}

bool kxIoDeviceFileStream::open(const std::string& utf8Path, DataWay way, int flags) {
  if (fd_ >= 0) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kFileAlreadyOpen));
    return false;
  }
  clearDeviceError();
  path_ = utf8Path;
  position_ = 0;
  eof_ = false;
  append_ = false;
  if (way != DW_Read && way != DW_Write) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kInvalidDataWay));
    return false;
  }
  setDataWay(way);
  if ((flags & ~kKnownFlags) != 0) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kFileInvalidFlags));
    return false;
  }
  if (utf8Path.empty()) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kFilePathEmpty));
    return false;
  }
  // A NUL would cut the path the system sees, and the stream would open another file than the one named.
  if (utf8Path.find('\0') != std::string::npos || !kxStringUtils::IsValidUtf8(utf8Path)) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kFilePathInvalid));
    return false;
  }

  int openFlags = O_CLOEXEC;
  if (way == DW_Read) {
    openFlags |= O_RDONLY;
  } else {
    append_ = (flags & OF_Append) != 0;
    openFlags |= O_WRONLY | O_CREAT | (append_ ? O_APPEND : O_TRUNC);
    if ((flags & OF_Exclusive) != 0) openFlags |= O_EXCL;
  }
  int fd = -1;
  do {
    fd = ::open(utf8Path.c_str(), openFlags, 0666);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    const int error = errno;
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kFileOpenFailed, utf8Path + " : " + kxIoDeviceErrnoText(error)));
    return false;
  }
  struct stat info {};
  if (::fstat(fd, &info) == 0 && S_ISDIR(info.st_mode)) {
    ::close(fd);
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kFileOpenFailed, utf8Path + " : " + kxIoDeviceErrnoText(EISDIR)));
    return false;
  }
  fd_ = fd;
  if (append_) {
    const off_t end = ::lseek(fd_, 0, SEEK_END);
    position_ = end < 0 ? 0 : static_cast<int64_t>(end);
  }
  return true;
}

bool kxIoDeviceFileStream::close() {
  if (fd_ < 0) return true;
  // Linux releases the descriptor even when close reports an error, so it is never retried.
  const int result = ::close(fd_);
  const int error = errno;
  fd_ = -1;
  position_ = 0;
  eof_ = false;
  if (result != 0 && error != EINTR) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kFileCloseFailed, kxIoDeviceErrnoText(error)));
    return false;
  }
  return true;
}

bool kxIoDeviceFileStream::fileUsable() {
  if (fd_ < 0) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kFileNotOpen));
    return false;
  }
  return true;
}

size_t kxIoDeviceFileStream::readBytes(char* buffer, size_t size) {
  if (!readAllowed() || !fileUsable() || size == 0) return 0;
  if (buffer == nullptr) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kNullBuffer));
    return 0;
  }
  if (size > kMaxIoPerCall) size = kMaxIoPerCall;
  ssize_t n = 0;
  do {
    n = ::read(fd_, buffer, size);
  } while (n < 0 && errno == EINTR);
  if (n < 0) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kFileReadFailed, kxIoDeviceErrnoText(errno)));
    return 0;
  }
  if (n == 0) eof_ = true;
  position_ += n;
  return static_cast<size_t>(n);
}

size_t kxIoDeviceFileStream::writeBytes(const char* data, size_t size) {
  if (!writeAllowed() || !fileUsable() || size == 0) return 0;
  if (data == nullptr) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kNullBuffer));
    return 0;
  }
  if (size > kMaxIoPerCall) size = kMaxIoPerCall;
  ssize_t n = 0;
  do {
    n = ::write(fd_, data, size);
  } while (n < 0 && errno == EINTR);
  if (n <= 0) {
    // write() returning 0 for a non-empty buffer has no errno; report it as "no space" (what it means
    // for the files this device opens) rather than as an empty reason.
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kFileWriteFailed, kxIoDeviceErrnoText(n < 0 ? errno : ENOSPC)));
    return 0;
  }
  if (append_) {
    const off_t now = ::lseek(fd_, 0, SEEK_CUR);
    position_ = now < 0 ? position_ + n : static_cast<int64_t>(now);
  } else {
    position_ += n;
  }
  return static_cast<size_t>(n);
}

bool kxIoDeviceFileStream::atEnd() const {
  if (fd_ < 0 || eof_) return true;
  const int64_t size = getSize();
  return size >= 0 && position_ >= size;
}

int64_t kxIoDeviceFileStream::getPosition() const { return fd_ < 0 ? -1 : position_; }

int64_t kxIoDeviceFileStream::getSize() const {
  if (fd_ < 0) return -1;
  const off_t end = ::lseek(fd_, 0, SEEK_END);
  if (end < 0) return -1;
  // Put the offset back where reads and writes expect it; getSize must not move the stream.
  if (::lseek(fd_, static_cast<off_t>(position_), SEEK_SET) < 0) return -1;
  return static_cast<int64_t>(end);
}

bool kxIoDeviceFileStream::seek(int64_t position) {
  if (hasDeviceError() || !fileUsable()) return false;
  if (position < 0) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kSeekNegative));
    return false;
  }
  if (getDataWay() == DW_Read) {
    const int64_t size = getSize();
    if (size >= 0 && position > size) {
      setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kSeekBeyondEnd));
      return false;
    }
  }
  if (::lseek(fd_, static_cast<off_t>(position), SEEK_SET) < 0) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kSeekFailed, kxIoDeviceErrnoText(errno)));
    return false;
  }
  position_ = position;
  eof_ = false;
  return true;
}

}  // namespace kx
