// HttpAuthenticatorInterface is the source of authentication headers for a request. An HttpUrl owns an
// ordered list of authenticators; before each transfer the connection asks every one of them, in order,
// to add its headers (a bearer token, a signature, ...). The first failure stops the request.
//
//   class StaticBearer : public kx::http::HttpAuthenticatorInterface { ... };
//   url.addAuthenticator(std::make_unique<StaticBearer>("token"));
//
// Thread-safety: an authenticator is owned by one URL and called only by the thread using that URL; an
// implementation that shares state between its clones must protect that state itself.
// Ownership: HttpUrl owns its authenticators and clones them when it is copied.
#pragma once

#include <kx/system/kxExport.h>

#include <memory>
#include <string>

namespace kx {
namespace http {

class HttpHeaders;
class HttpUrl;

class KX_EXPORT HttpAuthenticatorInterface {
 public:
  virtual ~HttpAuthenticatorInterface();

  // True when `other` is an authenticator of the same kind with the same configuration.
  virtual bool equalTo(const HttpAuthenticatorInterface& other) const = 0;

  // Adds the headers that authenticate a request to `url`. On failure fills `errorMessage` and returns
  // false; the request is then not sent.
  virtual bool getAuthenticationHttpHeaders(const HttpUrl& url, HttpHeaders& headers,
                                            std::string& errorMessage) = 0;

  // An independent copy; may return null, which the copying URL then skips.
  virtual std::unique_ptr<HttpAuthenticatorInterface> cloneAuthenticator() = 0;
};

}  // namespace http
}  // namespace kx
