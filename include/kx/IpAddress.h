// IpAddress holds one IPv4 or IPv6 socket address (address and port) in the operating system's own
// structure, so it can be handed straight to socket and transfer calls. Url uses it to recognise numeric
// hosts and to write IPv6 hosts in canonical form; ResolveHostName produces lists of them.
//
//   kx::IpAddress a("::ffff:10.0.0.1", kx::IpAddress::Invalid);  // Invalid = "either family"
//   kx::IpAddress b("10.0.0.1", kx::IpAddress::IPv4);
//   bool same = (a == b);                                        // true: IPv4-mapped IPv6
//   std::string text = a.getAddressAsString(false);              // "::ffff:10.0.0.1"
//
// Invariant: getType() is IPv4 exactly when a sockaddr_in is held, IPv6 exactly when a sockaddr_in6 is
// held, Invalid exactly when nothing is held (getSockaddr() is null).
//
// Thread-safety: thread-compatible (const calls may overlap; callers synchronise mutation).
// ResolveHostName is thread-safe.
// Ownership: a value type that holds its socket address inline (no allocation); copies are deep. Pointers
// returned by the get...Sockaddr() accessors point into the object and stay valid until it is modified,
// moved from or destroyed.
#pragma once

#include <kx/system/kxExport.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kx {

class KX_EXPORT IpAddress {
 public:
  enum Type : uint32_t {
    Invalid = 0,  // no address; as an argument of fromStringAddress: "either family"
    IPv4 = 1,
    IPv6 = 2,
  };

  IpAddress() = default;
  // Same as fromStringAddress(text, type).
  IpAddress(const std::string& text, Type type);
  IpAddress(const IpAddress& other);
  IpAddress(IpAddress&& other) noexcept;
  IpAddress& operator=(const IpAddress& other);
  IpAddress& operator=(IpAddress&& other) noexcept;
  ~IpAddress();

  // Forgets the socket address (zeroed); the type becomes Invalid.
  void clear();

  // Each clears first, then copies the structure when it is non-null and of the expected family
  // (fromIP accepts AF_INET and AF_INET6). Anything else leaves the address Invalid.
  void fromIP(const sockaddr* address);
  void fromIPv4(const sockaddr_in* address);
  void fromIPv6(const sockaddr_in6* address);

  // Reads a numeric address with inet_pton; the port is 0. With `type` Invalid, IPv4 is tried first and
  // IPv6 only when that fails. Text in brackets ("[::1]"), with a port suffix or holding a NUL byte is
  // refused. On failure the address is Invalid.
  void fromStringAddress(const std::string& text, Type type);

  bool isValid() const { return type_ != Invalid; }
  Type getType() const { return type_; }

  // The held structure when of that family, else null.
  const sockaddr_in* getIPv4Sockaddr() const;
  const sockaddr_in6* getIPv6Sockaddr() const;
  // The held structure (null when Invalid) and its size: 16 for IPv4, 28 for IPv6, 0 for Invalid.
  const sockaddr* getSockaddr() const;
  socklen_t getSockaddrLen() const;

  // Equality of the addresses alone: ports, flow information and scope ids are ignored. Two Invalid
  // addresses are equal. An IPv4 address equals the IPv6 address that maps it (::ffff:a.b.c.d).
  bool compareAddresses(const IpAddress& other) const;
  bool operator==(const IpAddress& other) const { return compareAddresses(other); }
  bool operator!=(const IpAddress& other) const { return !compareAddresses(other); }

  // inet_ntop text (IPv6 in the C library's canonical compressed lower-case form); with `withPort`,
  // ":" and the decimal port follow -- for IPv6 too, without brackets. Invalid gives "".
  std::string getAddressAsString(bool withPort) const;

 private:
  // The structure of type_'s family; all zero while Invalid. Inline because a URL recognises the address
  // of every numeric host it parses, and one allocation each would cost more than the recognition.
  union Storage {
    sockaddr_in v4;
    sockaddr_in6 v6;
  };
  Type type_ = Invalid;
  Storage address_{};
};

// Resolves `hostName` with getaddrinfo (any family, TCP stream sockets) into `addresses` (replaced), in the
// resolver's order, without sorting or removing duplicates; `port` is written into every address. Returns
// false for an empty name (the resolver is not called), when the resolver fails (one warning is logged in
// category "url": "getaddrinfo return <code>" plus the code's name for the common codes) or when no
// IPv4/IPv6 address came back.
KX_EXPORT bool ResolveHostName(const std::string& hostName, unsigned short port,
                               std::vector<IpAddress>& addresses);

}  // namespace kx
