// The text form of IPv6 addresses without inet_ntop, whose sprintf per group was most of the cost of
// recognising an IPv6 host.
#pragma once

#include <cstddef>

namespace kx {
namespace url {
namespace detail {

// Writes exactly what inet_ntop(AF_INET6, bytes, ...) of glibc writes (RFC 5952 form: lower-case hex
// without leading zeros, the first longest run of two or more zero groups as "::", "::a.b.c.d" and
// "::ffff:a.b.c.d" for IPv4-compatible and IPv4-mapped addresses), NUL-terminated, into `out`, which
// must hold 46 bytes (INET6_ADDRSTRLEN). Returns the length without the NUL.
size_t FormatIpv6(const unsigned char* bytes, char* out);

}  // namespace detail
}  // namespace url
}  // namespace kx
