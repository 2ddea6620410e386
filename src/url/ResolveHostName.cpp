#include <kx/IpAddress.h>
#include <kx/system/kxLog.h>

#include "url/ResolveHostNameText.h"

#include <netdb.h>

namespace kx {
namespace url {
namespace detail {
namespace {

// A switch rather than a table: the EAI_* values are negative and differ between C libraries.
const char* GetAddrInfoCodeName(int code) {
  switch (code) {
    case EAI_BADFLAGS:
      return "EAI_BADFLAGS";
    case EAI_NONAME:
      return "EAI_NONAME";
    case EAI_AGAIN:
      return "EAI_AGAIN";
    case EAI_FAIL:
      return "EAI_FAIL";
    case EAI_FAMILY:
      return "EAI_FAMILY";
    case EAI_SOCKTYPE:
      return "EAI_SOCKTYPE";
    case EAI_SERVICE:
      return "EAI_SERVICE";
    case EAI_MEMORY:
      return "EAI_MEMORY";
    default:
      return nullptr;
  }
}

}  // namespace

std::string GetAddrInfoFailureText(int code) {
  std::string text = "getaddrinfo return " + std::to_string(code);
  if (const char* name = GetAddrInfoCodeName(code)) {
    text += " (";
    text += name;
    text += ')';
  }
  return text;
}

}  // namespace detail
}  // namespace url

bool ResolveHostName(const std::string& hostName, unsigned short port,
                     std::vector<IpAddress>& addresses) {
  addresses.clear();
  if (hostName.empty()) return false;

  addrinfo hints{};
  hints.ai_flags = 0;
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  addrinfo* list = nullptr;
  const int result = getaddrinfo(hostName.c_str(), nullptr, &hints, &list);
  if (result != 0) {
    kxLog::log(kLogTypeValueWarning, "url", url::detail::GetAddrInfoFailureText(result));
    return false;
  }

  const uint16_t networkPort = htons(port);
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    if (entry->ai_addr == nullptr) continue;
    if (entry->ai_family == AF_INET && entry->ai_addrlen >= sizeof(sockaddr_in)) {
      sockaddr_in v4 = *reinterpret_cast<const sockaddr_in*>(entry->ai_addr);
      v4.sin_port = networkPort;
      addresses.emplace_back().fromIPv4(&v4);
    } else if (entry->ai_family == AF_INET6 && entry->ai_addrlen >= sizeof(sockaddr_in6)) {
      sockaddr_in6 v6 = *reinterpret_cast<const sockaddr_in6*>(entry->ai_addr);
      v6.sin6_port = networkPort;
      addresses.emplace_back().fromIPv6(&v6);
    }
  }
  freeaddrinfo(list);
  return !addresses.empty();
}

}  // namespace kx
