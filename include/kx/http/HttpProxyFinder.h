// HttpProxyFinder is the hook for automatic proxy discovery (PP_AutomaticProxy). No discovery is
// performed at present: getProxyUrl answers false, and libcurl's own proxy environment rules apply.
//
// Thread-safety: thread-compatible; each connection owns its finder.
#pragma once

#include <kx/system/kxExport.h>

#include <memory>
#include <string>

namespace kx {
namespace http {

class HttpUrl;

class KX_EXPORT HttpProxyFinder {
 public:
  HttpProxyFinder();
  ~HttpProxyFinder();
  HttpProxyFinder(const HttpProxyFinder&) = delete;
  HttpProxyFinder& operator=(const HttpProxyFinder&) = delete;

  // Empties `proxyUrl`; true with the proxy to use for `url` when one was found.
  bool getProxyUrl(const HttpUrl& url, std::string& proxyUrl);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace http
}  // namespace kx
