// HttpPolicies: the value object, its merging and equality, and the resolution of a request's policies
// against the process defaults. The client-certificate setters live in ClientCertificates.cpp.

#include <kx/http/HttpPolicies.h>
#include <kx/http/HttpUrl.h>
#include <kx/system/kxLog.h>
#include <kx/system/kxStringUtils.h>

#include "policies/DefaultPolicies.h"
#include "policies/ResolvedPolicies.h"

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace kx {
namespace http {

namespace {

constexpr const char* kLogCategory = "http";

// The process-wide defaults every request resolves against. Set before requests start (see
// kx::SetDefaultPolicies); read without a lock.
HttpPolicies g_defaultPolicies;

// Cleared by the first resolution that yields SVP_NoVerify, whichever thread gets there first; never set
// again, so the warning appears once per process. Atomic because transfers resolve on many threads.
std::atomic<bool> g_noVerifyNotYetWarned{true};

// What ResolveSSLClientCertificateAndKey points at when no level supplies material. Constant-initialised
// and never modified, so the pointers handed out stay valid for the whole process.
const std::vector<char> kNoBytes;
const std::string kNoPassword;

// The common pattern: the request's own value when it has one, else the default's, else `fallback`.
template <typename Policy>
Policy ResolveWithFallback(const HttpPolicies* policies, Policy (HttpPolicies::*get)() const, Policy fallback) {
  if (policies != nullptr && (policies->*get)() != 0) {
    return (policies->*get)();
  }
  const Policy byDefault = (g_defaultPolicies.*get)();
  return byDefault != 0 ? byDefault : fallback;
}

// The proxy is decided by one level alone: a request that names any proxy policy is never completed
// with the defaults' proxy URL, so "static proxy" cannot silently pick up a proxy the caller never saw.
const HttpPolicies& ProxyDecidingLevel(const HttpPolicies* policies) {
  if (policies != nullptr && policies->getProxyPolicy() != PP_GlobalPolicy) {
    return *policies;
  }
  return g_defaultPolicies;
}

// A private copy of a proxy URL. Its policies are dropped: only the proxy's address is ever used, and a
// proxy URL sharing the very policy object that holds it would otherwise form a shared_ptr cycle.
std::unique_ptr<HttpUrl> CopyProxyUrl(const HttpUrl& url) {
  auto copy = std::make_unique<HttpUrl>(url);
  copy->clearPolicies();
  return copy;
}

}  // namespace

HttpPolicies& detail::DefaultPolicies() { return g_defaultPolicies; }

HttpPolicies::HttpPolicies()
    : sslValidatePolicy_(SVP_GlobalPolicy),
      hostNameResolutionPolicy_(HNRP_GlobalPolicy),
      proxyPolicy_(PP_GlobalPolicy),
      clientCertificatePolicy_(SCCP_GlobalPolicy) {
  clearPolicies();
}

HttpPolicies::~HttpPolicies() { clearPolicies(); }

HttpPolicies::HttpPolicies(const HttpPolicies& other) : HttpPolicies() { *this = other; }

HttpPolicies& HttpPolicies::operator=(const HttpPolicies& other) {
  if (this == &other) {
    return *this;
  }
  clearPolicies();
  sslValidatePolicy_ = other.sslValidatePolicy_;
  hostNameResolutionPolicy_ = other.hostNameResolutionPolicy_;
  proxyPolicy_ = other.proxyPolicy_;
  if (other.staticProxyUrl_) {
    staticProxyUrl_ = CopyProxyUrl(*other.staticProxyUrl_);
  }
  clientCertificatePolicy_ = other.clientCertificatePolicy_;
  // Our buffers were wiped by clearPolicies: a reallocation below releases only zeroed memory.
  clientCertificate_ = other.clientCertificate_;
  clientKey_ = other.clientKey_;
  clientKeyPassword_ = other.clientKeyPassword_;
  return *this;
}

void HttpPolicies::WipeSecretBytes(std::vector<char>& bytes) {
  // Growing to the capacity never reallocates and makes the bytes past the old end addressable, so the
  // remains of a longer earlier value are zeroed too.
  bytes.resize(bytes.capacity());
  if (!bytes.empty()) {
    kxStringUtils::SecureZero(bytes.data(), bytes.size());
  }
  bytes.clear();
}

void HttpPolicies::wipeClientCertificateMaterial() {
  WipeSecretBytes(clientCertificate_);
  WipeSecretBytes(clientKey_);
  kxStringUtils::SecureClear(clientKeyPassword_);
}

void HttpPolicies::clearPolicies() {
  sslValidatePolicy_ = SVP_GlobalPolicy;
  hostNameResolutionPolicy_ = HNRP_GlobalPolicy;
  proxyPolicy_ = PP_GlobalPolicy;
  staticProxyUrl_.reset();
  clientCertificatePolicy_ = SCCP_GlobalPolicy;
  wipeClientCertificateMaterial();
}

bool HttpPolicies::operator==(const HttpPolicies& other) const {
  // hostNameResolutionPolicy_ is left out on purpose: it only orders address families and never
  // changes which server is reached or how it is authenticated.
  if (sslValidatePolicy_ != other.sslValidatePolicy_ || clientCertificatePolicy_ != other.clientCertificatePolicy_ ||
      clientCertificate_ != other.clientCertificate_ || clientKey_ != other.clientKey_ ||
      clientKeyPassword_ != other.clientKeyPassword_ || proxyPolicy_ != other.proxyPolicy_) {
    return false;
  }
  if (!staticProxyUrl_ || !other.staticProxyUrl_) {
    return !staticProxyUrl_ && !other.staticProxyUrl_;
  }
  return *staticProxyUrl_ == *other.staticProxyUrl_;
}

void HttpPolicies::setSSLValidatePolicy(SSLValidatePolicy policy) { sslValidatePolicy_ = policy; }

void HttpPolicies::setHostNameResolutionPolicy(HostNameResolutionPolicy policy) {
  hostNameResolutionPolicy_ = policy;
}

bool HttpPolicies::setHttpProxyPolicy(ProxyPolicy policy, const HttpUrl* staticProxyUrl) {
  // Copy before dropping the current URL: the argument may be that very URL.
  std::unique_ptr<HttpUrl> copy;
  if (policy == PP_StaticProxy && staticProxyUrl != nullptr && staticProxyUrl->isValid()) {
    copy = CopyProxyUrl(*staticProxyUrl);
  }
  proxyPolicy_ = PP_GlobalPolicy;
  staticProxyUrl_.reset();

  if (policy < PP_StaticProxy) {
    proxyPolicy_ = policy;
    return true;
  }
  if (policy == PP_StaticProxy) {
    if (!copy) {
      kxLog::log(kLogTypeError, kLogCategory, "static proxy url is invalid");
      return false;
    }
    proxyPolicy_ = PP_StaticProxy;
    staticProxyUrl_ = std::move(copy);
    return true;
  }
  // Out-of-range values are accepted and leave the global policy: older callers pass values this
  // version does not know, and refusing them would turn a harmless setting into a failed start-up.
  return true;
}

bool HttpPolicies::setClientCertificatePolicy(SSLClientCertificatePolicy policy) {
  wipeClientCertificateMaterial();
  if (policy == SCCP_EnableClientCrt) {
    // Enabling needs the certificate itself: only the File/Blob setters can supply it.
    clientCertificatePolicy_ = SCCP_GlobalPolicy;
    return false;
  }
  clientCertificatePolicy_ = policy;
  return true;
}

void HttpPolicies::overrideWith(const HttpPolicies& other) {
  if (this == &other) {
    return;  // every setting of `other` is already ours
  }
  if (other.sslValidatePolicy_ != SVP_GlobalPolicy) {
    setSSLValidatePolicy(other.sslValidatePolicy_);
  }
  if (other.hostNameResolutionPolicy_ != HNRP_GlobalPolicy) {
    setHostNameResolutionPolicy(other.hostNameResolutionPolicy_);
  }
  if (other.proxyPolicy_ != PP_GlobalPolicy) {
    setHttpProxyPolicy(other.proxyPolicy_, other.staticProxyUrl_.get());
  }
  if (other.clientCertificatePolicy_ != SCCP_GlobalPolicy) {
    clientCertificatePolicy_ = other.clientCertificatePolicy_;
    WipeSecretBytes(clientCertificate_);
    clientCertificate_ = other.clientCertificate_;
    WipeSecretBytes(clientKey_);
    clientKey_ = other.clientKey_;
    kxStringUtils::SecureClear(clientKeyPassword_);
    clientKeyPassword_ = other.clientKeyPassword_;
  }
}

SSLValidatePolicy HttpPolicies::ResolveSSLValidatePolicy(const HttpPolicies* policies) {
  const SSLValidatePolicy resolved =
      ResolveWithFallback(policies, &HttpPolicies::getSSLValidatePolicy, SVP_VerifyPeerAndHost);
  if (resolved == SVP_NoVerify && g_noVerifyNotYetWarned.exchange(false)) {
    kxLog::log(kLogTypeWarning, kLogCategory, "Disabling verify_ssl_peer is not safe, it should not be used in production");
  }
  return resolved;
}

SSLClientCertificatePolicy HttpPolicies::ResolveSSLClientCertificatePolicy(const HttpPolicies* policies) {
  return ResolveWithFallback(policies, &HttpPolicies::getClientCertificatePolicy, SCCP_DisableClientCrt);
}

void HttpPolicies::ResolveSSLClientCertificateAndKey(const HttpPolicies* policies,
                                                     const std::vector<char>*& certificate,
                                                     const std::vector<char>*& key, const std::string*& password) {
  certificate = &kNoBytes;
  key = &kNoBytes;
  password = &kNoPassword;
  const HttpPolicies& level = (policies != nullptr && policies->clientCertificatePolicy_ != SCCP_GlobalPolicy)
                                  ? *policies
                                  : g_defaultPolicies;
  if (level.clientCertificatePolicy_ == SCCP_EnableClientCrt) {
    certificate = &level.clientCertificate_;
    key = &level.clientKey_;
    password = &level.clientKeyPassword_;
  }
}

HostNameResolutionPolicy HttpPolicies::ResolveHostNameResolutionPolicy(const HttpPolicies* policies) {
  return ResolveWithFallback(policies, &HttpPolicies::getHostNameResolutionPolicy, HNRP_Whatever);
}

ProxyPolicy HttpPolicies::ResolveProxyPolicy(const HttpPolicies* policies) {
  const HttpPolicies& level = ProxyDecidingLevel(policies);
  switch (level.proxyPolicy_) {
    case PP_GlobalPolicy:
      return PP_NoProxy;
    case PP_StaticProxy:
      return level.staticProxyUrl_ ? PP_StaticProxy : PP_NoProxy;
    case PP_NoProxy:
    case PP_AutomaticProxy:
      break;
  }
  return level.proxyPolicy_;  // also an out-of-range value, passed on unchanged
}

const HttpUrl* HttpPolicies::ResolveStaticProxyUrl(const HttpPolicies* policies) {
  const HttpPolicies& level = ProxyDecidingLevel(policies);
  return level.proxyPolicy_ == PP_StaticProxy ? level.staticProxyUrl_.get() : nullptr;
}

detail::ResolvedPolicies detail::ResolvedPolicies::Of(const HttpPolicies* policies) {
  ResolvedPolicies resolved;
  resolved.sslValidate = HttpPolicies::ResolveSSLValidatePolicy(policies);
  resolved.clientCertificate = HttpPolicies::ResolveSSLClientCertificatePolicy(policies);
  HttpPolicies::ResolveSSLClientCertificateAndKey(policies, resolved.certificate, resolved.key, resolved.password);
  resolved.hostNameResolution = HttpPolicies::ResolveHostNameResolutionPolicy(policies);
  resolved.proxy = HttpPolicies::ResolveProxyPolicy(policies);
  resolved.staticProxyUrl = HttpPolicies::ResolveStaticProxyUrl(policies);
  return resolved;
}

}  // namespace http
}  // namespace kx
