// The four policies of one request, resolved against the process defaults in one pass. A transfer
// attempt resolves once and hands this value to everything that applies or reports a policy, so that
// no policy is resolved twice (and the once-per-process no-verify warning is not re-triggered by a
// second reader).
//
// Ownership: the certificate, key, password and proxy pointers point into the request's policies or
// into the process defaults; the value is valid while those objects live and are left unchanged, i.e.
// for the duration of one transfer.
#pragma once

#include <kx/http/HttpPolicies.h>

#include <string>
#include <vector>

namespace kx {
namespace http {
namespace detail {

struct ResolvedPolicies {
  SSLValidatePolicy sslValidate = SVP_VerifyPeerAndHost;
  SSLClientCertificatePolicy clientCertificate = SCCP_DisableClientCrt;
  const std::vector<char>* certificate = nullptr;
  const std::vector<char>* key = nullptr;
  const std::string* password = nullptr;
  HostNameResolutionPolicy hostNameResolution = HNRP_Whatever;
  ProxyPolicy proxy = PP_NoProxy;
  const HttpUrl* staticProxyUrl = nullptr;

  // `policies` may be null: the defaults alone decide.
  static ResolvedPolicies Of(const HttpPolicies* policies);
};

}  // namespace detail
}  // namespace http
}  // namespace kx
