// The warning text ResolveHostName logs when getaddrinfo fails; kept apart so tests can pin every text
// without needing a resolver that fails on demand.
#pragma once

#include <string>

namespace kx {
namespace url {
namespace detail {

// "getaddrinfo return <code>", followed by " (<EAI name>)" for the codes callers most often meet.
std::string GetAddrInfoFailureText(int code);

}  // namespace detail
}  // namespace url
}  // namespace kx
