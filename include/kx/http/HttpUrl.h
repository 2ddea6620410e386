// HttpUrl is the target of every HTTP request: a kx::Url limited to the "http" and "https" schemes that
// also carries the request's transport policies and an ordered list of authenticators.
//
//   kx::http::HttpUrl url("https://search.example.com:9200/index/_search");
//   url.setPolicies(sharedPolicies);                 // shared, immutable
//   url.addAuthenticator(std::move(oauth2));         // owned
//   if (!url.resolveDefaultPort()) { ... }           // 443 for https, 80 for http
//
// The display form (toDisplayableUrl) is the URL's display form followed by markers of the resolved
// policies: " {NoVerifySSLPeer}", " {Proxy:Auto}", " {Proxy:<proxy display form>}", " {SSLClientCert}".
// Inside a proxy marker the proxy appears with its password masked and without proxy markers.
//
// Thread-safety: thread-compatible. Policies are immutable and may be shared across threads;
// authenticators are called only by the thread using this URL.
// Ownership: owns its authenticators (deep-copied on copy) and shares its policies (shallow on copy).
#pragma once

#include <kx/Url.h>
#include <kx/http/HttpAuthenticatorInterface.h>
#include <kx/system/kxExport.h>

#include <list>
#include <memory>
#include <string>

namespace kx {
namespace http {

// Policies are only pointed at here (include kx/http/HttpPolicies.h to build or read them): the
// policies keep a copy of their static proxy's HttpUrl, so the two headers must not include each other.
class HttpPolicies;

class KX_EXPORT HttpUrl : public kx::Url {
 public:
  using AuthenticatorList = std::list<std::unique_ptr<HttpAuthenticatorInterface>>;

  HttpUrl();
  // Parses like kx::Url(encodedUrl): no normalisation, a failure is only logged.
  HttpUrl(const std::string& encodedUrl);  // NOLINT(google-explicit-constructor)
  HttpUrl(const HttpUrl& other);
  HttpUrl& operator=(const HttpUrl& other);
  ~HttpUrl() override;

  // Port 0 becomes 443 for "https" and 80 for "http"; another scheme gives false and keeps port 0.
  bool resolveDefaultPort();

  // Authenticators. Null pointers are never stored.
  void addAuthenticator(std::unique_ptr<HttpAuthenticatorInterface> authenticator);
  void addAuthenticators(AuthenticatorList authenticators);
  void setAuthenticator(std::unique_ptr<HttpAuthenticatorInterface> authenticator);
  void setAuthenticators(AuthenticatorList authenticators);
  // Appends clones of `other`'s authenticators, in order; null clones are skipped. `other` may be *this.
  void addAuthenticatorsFrom(const HttpUrl& other);
  void clearAuthenticators();
  const AuthenticatorList& getAuthenticators() const { return authenticators_; }

  // Policies: null means "no request-level policies", the process defaults apply.
  const HttpPolicies* getPolicies() const { return policies_.get(); }
  std::shared_ptr<const HttpPolicies>& editPolicies() { return policies_; }
  void setPolicies(std::shared_ptr<const HttpPolicies> policies);
  void clearPolicies();

  // Scheme and host non-empty, and the scheme exactly "http" or "https" (case-sensitive).
  bool isValid() const override;
  // Empties the URL, releases the policies and destroys the authenticators.
  void clearUrl() override;
  std::string toDisplayableUrl() const override;
  // Same URL, pairwise-equal authenticators in any order, and equal policies (both null, or equal).
  bool equalTo(const kx::Url& other) const override;

  // The kx::Url display form alone, without any policy marker.
  std::string toDisplayableUrlWithoutMarkers() const;

 private:
  // The display form with the markers of the resolved policies; a static proxy is shown inside its
  // marker without proxy markers of its own, since it resolves against the same defaults and would
  // otherwise name itself without end.
  std::string displayWithMarkers(bool withProxyMarkers) const;

  AuthenticatorList authenticators_;
  std::shared_ptr<const HttpPolicies> policies_;
};

}  // namespace http
}  // namespace kx
