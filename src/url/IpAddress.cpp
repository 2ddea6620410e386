#include <kx/IpAddress.h>

#include "url/Ipv6Text.h"

#include <arpa/inet.h>

#include <cstring>

namespace kx {
namespace {

size_t SockaddrSize(IpAddress::Type type) {
  switch (type) {
    case IpAddress::Invalid:
      return 0;
    case IpAddress::IPv4:
      return sizeof(sockaddr_in);
    case IpAddress::IPv6:
      return sizeof(sockaddr_in6);
  }
  return 0;
}

// The first 12 bytes of an IPv4-mapped IPv6 address: ten zeros, then 0xFF 0xFF.
constexpr unsigned char kMappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};

}  // namespace

namespace url {
namespace detail {

size_t FormatIpv6(const unsigned char* bytes, char* out) {
  static constexpr char kDigits[] = "0123456789abcdef";
  unsigned words[8];
  for (int i = 0; i < 8; ++i) words[i] = (static_cast<unsigned>(bytes[2 * i]) << 8) | bytes[2 * i + 1];
  // The first longest run of zero words; a single zero word is not compressed.
  int bestBase = -1;
  int bestLength = 0;
  for (int i = 0; i < 8;) {
    if (words[i] != 0) {
      ++i;
      continue;
    }
    int end = i;
    while (end < 8 && words[end] == 0) ++end;
    if (end - i > bestLength) {
      bestBase = i;
      bestLength = end - i;
    }
    i = end;
  }
  if (bestLength < 2) bestBase = -1;

  char* p = out;
  for (int i = 0; i < 8; ++i) {
    if (bestBase >= 0 && i >= bestBase && i < bestBase + bestLength) {
      if (i == bestBase) *p++ = ':';
      continue;
    }
    if (i != 0) *p++ = ':';
    // IPv4-compatible (::a.b.c.d) and IPv4-mapped (::ffff:a.b.c.d) addresses end in dotted form.
    if (i == 6 && bestBase == 0 && (bestLength == 6 || (bestLength == 5 && words[5] == 0xffff))) {
      for (int b = 12; b < 16; ++b) {
        const unsigned value = bytes[b];
        if (value >= 100) *p++ = static_cast<char>('0' + value / 100);
        if (value >= 10) *p++ = static_cast<char>('0' + value / 10 % 10);
        *p++ = static_cast<char>('0' + value % 10);
        if (b != 15) *p++ = '.';
      }
      *p = '\0';
      return static_cast<size_t>(p - out);
    }
    bool started = false;
    for (int shift = 12; shift >= 0; shift -= 4) {
      const unsigned digit = (words[i] >> shift) & 0xF;
      if (digit != 0 || started || shift == 0) {
        *p++ = kDigits[digit];
        started = true;
      }
    }
  }
  if (bestBase >= 0 && bestBase + bestLength == 8) *p++ = ':';
  *p = '\0';
  return static_cast<size_t>(p - out);
}

}  // namespace detail
}  // namespace url

IpAddress::IpAddress(const std::string& text, Type type) { fromStringAddress(text, type); }

IpAddress::IpAddress(const IpAddress& other) = default;

IpAddress::IpAddress(IpAddress&& other) noexcept : type_(other.type_), address_(other.address_) {
  other.clear();
}

IpAddress& IpAddress::operator=(const IpAddress& other) = default;

IpAddress& IpAddress::operator=(IpAddress&& other) noexcept {
  if (this == &other) return *this;
  type_ = other.type_;
  address_ = other.address_;
  other.clear();
  return *this;
}

IpAddress::~IpAddress() = default;

void IpAddress::clear() {
  address_ = Storage{};
  type_ = Invalid;
}

void IpAddress::fromIP(const sockaddr* address) {
  clear();
  if (address == nullptr) return;
  // Only the family field is read through the generic structure; the copy takes the full size of the
  // family's own structure, which the caller's object must provide for that family.
  if (address->sa_family == AF_INET) {
    fromIPv4(reinterpret_cast<const sockaddr_in*>(address));
  } else if (address->sa_family == AF_INET6) {
    fromIPv6(reinterpret_cast<const sockaddr_in6*>(address));
  }
}

void IpAddress::fromIPv4(const sockaddr_in* address) {
  clear();
  if (address == nullptr || address->sin_family != AF_INET) return;
  std::memcpy(&address_.v4, address, sizeof(sockaddr_in));
  type_ = IPv4;
}

void IpAddress::fromIPv6(const sockaddr_in6* address) {
  clear();
  if (address == nullptr || address->sin6_family != AF_INET6) return;
  std::memcpy(&address_.v6, address, sizeof(sockaddr_in6));
  type_ = IPv6;
}

void IpAddress::fromStringAddress(const std::string& text, Type type) {
  clear();
  // inet_pton reads a C string: "127.0.0.1\0anything" would give the address of the text before the NUL.
  if (text.find('\0') != std::string::npos) return;
  if (type == IPv4 || type == Invalid) {
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    if (inet_pton(AF_INET, text.c_str(), &v4.sin_addr) == 1) {
      fromIPv4(&v4);
      return;
    }
    if (type == IPv4) return;
  }
  sockaddr_in6 v6{};
  v6.sin6_family = AF_INET6;
  if (inet_pton(AF_INET6, text.c_str(), &v6.sin6_addr) == 1) fromIPv6(&v6);
}

const sockaddr_in* IpAddress::getIPv4Sockaddr() const {
  return type_ == IPv4 ? &address_.v4 : nullptr;
}

const sockaddr_in6* IpAddress::getIPv6Sockaddr() const {
  return type_ == IPv6 ? &address_.v6 : nullptr;
}

const sockaddr* IpAddress::getSockaddr() const {
  return type_ == Invalid ? nullptr : reinterpret_cast<const sockaddr*>(&address_);
}

socklen_t IpAddress::getSockaddrLen() const { return static_cast<socklen_t>(SockaddrSize(type_)); }

bool IpAddress::compareAddresses(const IpAddress& other) const {
  const sockaddr_in* v4 = getIPv4Sockaddr();
  const sockaddr_in6* v6 = getIPv6Sockaddr();
  const sockaddr_in* otherV4 = other.getIPv4Sockaddr();
  const sockaddr_in6* otherV6 = other.getIPv6Sockaddr();
  if (type_ == Invalid && other.type_ == Invalid) return true;
  if (v4 != nullptr && otherV4 != nullptr) {
    return std::memcmp(&v4->sin_addr, &otherV4->sin_addr, 4) == 0;
  }
  if (v6 != nullptr && otherV6 != nullptr) {
    return std::memcmp(v6->sin6_addr.s6_addr, otherV6->sin6_addr.s6_addr, 16) == 0;
  }
  if (v4 == nullptr) {  // one IPv6 and one IPv4, or one Invalid
    v4 = otherV4;
  } else {
    v6 = otherV6;
  }
  if (v4 == nullptr || v6 == nullptr) return false;
  return std::memcmp(v6->sin6_addr.s6_addr, kMappedPrefix, sizeof kMappedPrefix) == 0 &&
         std::memcmp(v6->sin6_addr.s6_addr + 12, &v4->sin_addr, 4) == 0;
}

std::string IpAddress::getAddressAsString(bool withPort) const {
  char buffer[INET6_ADDRSTRLEN] = {};
  uint16_t port = 0;
  if (const sockaddr_in* v4 = getIPv4Sockaddr()) {
    if (inet_ntop(AF_INET, &v4->sin_addr, buffer, sizeof buffer) == nullptr) return {};
    port = ntohs(v4->sin_port);
  } else if (const sockaddr_in6* v6 = getIPv6Sockaddr()) {
    url::detail::FormatIpv6(v6->sin6_addr.s6_addr, buffer);
    port = ntohs(v6->sin6_port);
  } else {
    return {};
  }
  std::string text(buffer);
  if (withPort) {
    text += ':';
    text += std::to_string(port);
  }
  return text;
}

}  // namespace kx
