#include <kx/system/kxRandomUtils.h>

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>

namespace kx {
namespace kxRandomUtils {

namespace {

// Only for kernels without getrandom(2) (before 3.17) or where a seccomp filter blocks it.
bool ReadUrandom(unsigned char* out, size_t size) {
  const int fd = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  while (size > 0) {
    const ssize_t got = ::read(fd, out, size);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      ::close(fd);
      return false;
    }
    out += got;
    size -= static_cast<size_t>(got);
  }
  ::close(fd);
  return true;
}

}  // namespace

bool Rand(void* buffer, size_t size) {
  if (size == 0) return true;
  if (buffer == nullptr) return false;
  auto* out = static_cast<unsigned char*>(buffer);
  // getrandom returns short counts for large requests and when a signal interrupts it; loop on both.
  while (size > 0) {
    const ssize_t got = ::getrandom(out, size, 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      if (errno == ENOSYS || errno == EPERM) return ReadUrandom(out, size);
      return false;
    }
    out += got;
    size -= static_cast<size_t>(got);
  }
  return true;
}

std::string Uuid4TextFromBytes(const uint8_t (&bytes)[16]) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text;
  text.reserve(36);
  for (size_t i = 0; i < 16; ++i) {
    uint8_t b = bytes[i];
    if (i == 6) b = static_cast<uint8_t>((b & 0x0F) | 0x40);
    if (i == 8) b = static_cast<uint8_t>((b & 0x3F) | 0x80);
    if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
    text.push_back(kHex[b >> 4]);
    text.push_back(kHex[b & 0x0F]);
  }
  return text;
}

std::string Uuid4Text() {
  uint8_t bytes[16];
  if (!Rand(bytes, sizeof bytes)) return {};
  return Uuid4TextFromBytes(bytes);
}

}  // namespace kxRandomUtils
}  // namespace kx
