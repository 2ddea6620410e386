#include <kx/IpAddress.h>

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

IpAddress::IpAddress(const std::string& text, Type type) { fromStringAddress(text, type); }

IpAddress::IpAddress(const IpAddress& other) { *this = other; }

IpAddress::IpAddress(IpAddress&& other) noexcept
    : type_(other.type_), address_(std::move(other.address_)) {
  other.type_ = Invalid;
}

IpAddress& IpAddress::operator=(const IpAddress& other) {
  if (this == &other) return *this;
  clear();
  const size_t size = SockaddrSize(other.type_);
  if (size != 0 && other.address_) {
    address_ = std::make_unique<unsigned char[]>(size);
    std::memcpy(address_.get(), other.address_.get(), size);
    type_ = other.type_;
  }
  return *this;
}

IpAddress& IpAddress::operator=(IpAddress&& other) noexcept {
  if (this == &other) return *this;
  address_ = std::move(other.address_);
  type_ = other.type_;
  other.type_ = Invalid;
  return *this;
}

IpAddress::~IpAddress() { clear(); }

void IpAddress::clear() {
  address_.reset();
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
  address_ = std::make_unique<unsigned char[]>(sizeof(sockaddr_in));
  std::memcpy(address_.get(), address, sizeof(sockaddr_in));
  type_ = IPv4;
}

void IpAddress::fromIPv6(const sockaddr_in6* address) {
  clear();
  if (address == nullptr || address->sin6_family != AF_INET6) return;
  address_ = std::make_unique<unsigned char[]>(sizeof(sockaddr_in6));
  std::memcpy(address_.get(), address, sizeof(sockaddr_in6));
  type_ = IPv6;
}

void IpAddress::fromStringAddress(const std::string& text, Type type) {
  clear();
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
  return type_ == IPv4 ? reinterpret_cast<const sockaddr_in*>(address_.get()) : nullptr;
}

const sockaddr_in6* IpAddress::getIPv6Sockaddr() const {
  return type_ == IPv6 ? reinterpret_cast<const sockaddr_in6*>(address_.get()) : nullptr;
}

const sockaddr* IpAddress::getSockaddr() const {
  return type_ == Invalid ? nullptr : reinterpret_cast<const sockaddr*>(address_.get());
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
    if (inet_ntop(AF_INET6, &v6->sin6_addr, buffer, sizeof buffer) == nullptr) return {};
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
