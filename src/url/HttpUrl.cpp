// HttpUrl: a kx::Url restricted to http/https, owning its authenticators and sharing its policies.

#include <kx/http/HttpUrl.h>

#include <kx/http/HttpPolicies.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace kx {
namespace http {

HttpUrl::HttpUrl() = default;

HttpUrl::HttpUrl(const std::string& encodedUrl) : kx::Url(encodedUrl) {}

HttpUrl::HttpUrl(const HttpUrl& other) : HttpUrl() { *this = other; }

HttpUrl& HttpUrl::operator=(const HttpUrl& other) {
  if (this == &other) {
    return *this;
  }
  clearUrl();
  kx::Url::operator=(other);
  // Policies are immutable and shared; authenticators may hold per-URL state and are deep-copied.
  policies_ = other.policies_;
  addAuthenticatorsFrom(other);
  return *this;
}

HttpUrl::~HttpUrl() {
  authenticators_.clear();
  policies_.reset();
}

bool HttpUrl::resolveDefaultPort() {
  if (port_ != 0) {
    return true;
  }
  if (scheme_ == "https") {
    port_ = 443;
    return true;
  }
  if (scheme_ == "http") {
    port_ = 80;
    return true;
  }
  return false;
}

void HttpUrl::addAuthenticator(std::unique_ptr<HttpAuthenticatorInterface> authenticator) {
  if (authenticator) {
    authenticators_.push_back(std::move(authenticator));
  }
}

void HttpUrl::addAuthenticators(AuthenticatorList authenticators) {
  // The list never holds null, so the transfer code can call every element without a test.
  authenticators.remove_if([](const std::unique_ptr<HttpAuthenticatorInterface>& a) { return !a; });
  authenticators_.splice(authenticators_.end(), authenticators);
}

void HttpUrl::setAuthenticator(std::unique_ptr<HttpAuthenticatorInterface> authenticator) {
  clearAuthenticators();
  addAuthenticator(std::move(authenticator));
}

void HttpUrl::setAuthenticators(AuthenticatorList authenticators) {
  clearAuthenticators();
  addAuthenticators(std::move(authenticators));
}

void HttpUrl::addAuthenticatorsFrom(const HttpUrl& other) {
  // Clone into a separate list first: when `other` is this URL, appending while walking it would
  // visit the new clones too and never end.
  AuthenticatorList clones;
  for (const auto& authenticator : other.authenticators_) {
    if (auto clone = authenticator->cloneAuthenticator()) {
      clones.push_back(std::move(clone));
    }
  }
  authenticators_.splice(authenticators_.end(), clones);
}

void HttpUrl::clearAuthenticators() { authenticators_.clear(); }

void HttpUrl::setPolicies(std::shared_ptr<const HttpPolicies> policies) { policies_ = std::move(policies); }

void HttpUrl::clearPolicies() { policies_.reset(); }

bool HttpUrl::isValid() const { return kx::Url::isValid() && (scheme_ == "http" || scheme_ == "https"); }

void HttpUrl::clearUrl() {
  kx::Url::clearUrl();
  policies_.reset();
  authenticators_.clear();
}

std::string HttpUrl::toDisplayableUrlWithoutMarkers() const { return kx::Url::toDisplayableUrl(); }

std::string HttpUrl::displayWithMarkers(bool withProxyMarkers) const {
  const HttpPolicies* own = policies_.get();
  std::ostringstream markers;
  if (HttpPolicies::ResolveSSLValidatePolicy(own) != SVP_VerifyPeerAndHost) {
    markers << " {NoVerifySSLPeer}";
  }
  if (withProxyMarkers) {
    const ProxyPolicy proxy = HttpPolicies::ResolveProxyPolicy(own);
    if (proxy == PP_AutomaticProxy) {
      markers << " {Proxy:Auto}";
    } else if (proxy == PP_StaticProxy) {
      // The resolution answers PP_StaticProxy only when that level holds a URL.
      if (const HttpUrl* proxyUrl = HttpPolicies::ResolveStaticProxyUrl(own)) {
        markers << " {Proxy:" << proxyUrl->displayWithMarkers(false) << "}";
      }
    }
  }
  if (HttpPolicies::ResolveSSLClientCertificatePolicy(own) == SCCP_EnableClientCrt) {
    markers << " {SSLClientCert}";
  }
  return kx::Url::toDisplayableUrl() + markers.str();
}

std::string HttpUrl::toDisplayableUrl() const { return displayWithMarkers(true); }

bool HttpUrl::equalTo(const kx::Url& other) const {
  const auto* otherHttp = dynamic_cast<const HttpUrl*>(&other);
  if (otherHttp == nullptr || !kx::Url::equalTo(other)) {
    return false;
  }
  if (authenticators_.size() != otherHttp->authenticators_.size()) {
    return false;
  }
  // Order does not matter, multiplicity does: each of other's authenticators may be matched once.
  std::vector<bool> matched(otherHttp->authenticators_.size(), false);
  for (const auto& mine : authenticators_) {
    bool found = false;
    size_t index = 0;
    for (const auto& theirs : otherHttp->authenticators_) {
      if (!matched[index] && mine->equalTo(*theirs)) {
        matched[index] = true;
        found = true;
        break;
      }
      ++index;
    }
    if (!found) {
      return false;
    }
  }
  if (!policies_ || !otherHttp->policies_) {
    return !policies_ && !otherHttp->policies_;
  }
  return *policies_ == *otherHttp->policies_;
}

}  // namespace http
}  // namespace kx
