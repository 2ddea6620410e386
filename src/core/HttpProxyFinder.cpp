#include <kx/http/HttpProxyFinder.h>

namespace kx {
namespace http {

// Room for a discovery cache (PAC script, WPAD answer) without changing the class layout later.
struct HttpProxyFinder::State {};

HttpProxyFinder::HttpProxyFinder() : state_(std::make_unique<State>()) {}

HttpProxyFinder::~HttpProxyFinder() = default;

bool HttpProxyFinder::getProxyUrl(const HttpUrl& /*url*/, std::string& proxyUrl) {
  // No discovery: answering false lets libcurl apply its own proxy environment variables.
  proxyUrl.clear();
  return false;
}

}  // namespace http
}  // namespace kx
