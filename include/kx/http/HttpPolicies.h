// HttpPolicies carries the four transport policies of a request: TLS server validation, TLS client
// certificate, host-name resolution preference and proxy. Value 0 of every policy ("..._GlobalPolicy")
// means "no opinion here": when a transfer is prepared each policy is resolved against the process-wide
// defaults (kx::GetDefaultPolicies), and where those say "global" too a built-in fallback applies
// (verify peer and host, no client certificate, any address family, no proxy).
//
//   auto policies = std::make_shared<kx::http::HttpPolicies>();
//   policies->setSSLValidatePolicy(kx::http::SVP_NoVerify);
//   policies->setClientCertificatePolicyFilePEM("client.crt", "client.key", "pass phrase");
//   url.setPolicies(policies);
//
// The loopback exemption: a request to the host "127.0.0.1" (exactly that text) is never
// certificate-checked, whatever its validation policy, because local sidecars and test servers rarely hold
// a certificate naming that address. The exemption covers that address only: a redirect that would
// connect anywhere else (another address, "::1" included) ends the transfer with
// CURLE_ABORTED_BY_CALLBACK instead of following it unverified. "localhost" is checked like any name.
//
// Secret material (certificate and key bytes, pass phrase) is overwritten with zeros over its whole
// allocation before it is released or replaced.
//
// Thread-safety: thread-compatible. Configure on one thread, then share as an immutable object (HttpUrl
// holds it through std::shared_ptr<const HttpPolicies>). The resolution functions read the process
// defaults without a lock: set the defaults before requests start.
// Ownership: a value type; copying deep-copies the proxy URL and the secret material.
#pragma once

#include <kx/system/kxExport.h>

#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kx {
namespace http {

class HttpUrl;

enum SSLValidatePolicy : unsigned char { SVP_GlobalPolicy = 0, SVP_VerifyPeerAndHost, SVP_NoVerify };
enum SSLClientCertificatePolicy : unsigned char {
  SCCP_GlobalPolicy = 0,
  SCCP_EnableClientCrt,
  SCCP_DisableClientCrt
};
enum HostNameResolutionPolicy : unsigned char {
  HNRP_GlobalPolicy = 0,
  HNRP_Whatever,
  HNRP_PreferIpv6,
  HNRP_PreferIpv4
};
enum ProxyPolicy : unsigned char { PP_GlobalPolicy = 0, PP_NoProxy, PP_AutomaticProxy, PP_StaticProxy };

// Name tables of the four enumerations, filled when the library is loaded from the enumerations'
// declaration text and never modified afterwards: the qualified type name, and for each value the list
// of names that carry it. Used to print policy values by name.
using EnumToStringMap = std::map<unsigned char, std::list<std::string>>;
KX_EXPORT extern const std::string __EnumTypeNameOf_SSLValidatePolicy;
KX_EXPORT extern const EnumToStringMap __EnumToStringMapOf_SSLValidatePolicy;
KX_EXPORT extern const std::string __EnumTypeNameOf_SSLClientCertificatePolicy;
KX_EXPORT extern const EnumToStringMap __EnumToStringMapOf_SSLClientCertificatePolicy;
KX_EXPORT extern const std::string __EnumTypeNameOf_HostNameResolutionPolicy;
KX_EXPORT extern const EnumToStringMap __EnumToStringMapOf_HostNameResolutionPolicy;
KX_EXPORT extern const std::string __EnumTypeNameOf_ProxyPolicy;
KX_EXPORT extern const EnumToStringMap __EnumToStringMapOf_ProxyPolicy;

// Parses an enumeration declaration text such as "A = 0 , B , C" into its name table: pieces split at
// ",", trimmed; "NAME = NUMBER" sets the value, a bare NAME takes the previous value plus one (the first
// bare name gets 0).
KX_EXPORT EnumToStringMap ParseEnumDeclaration(const std::string& declaration);
// The first name registered for `value` in `table`, or the decimal value when it has none.
KX_EXPORT std::string EnumValueName(const EnumToStringMap& table, unsigned char value);

class KX_EXPORT HttpPolicies {
 public:
  HttpPolicies();
  ~HttpPolicies();
  HttpPolicies(const HttpPolicies& other);
  HttpPolicies& operator=(const HttpPolicies& other);

  // Every policy back to global, proxy URL deleted, certificate, key and pass phrase wiped and emptied.
  void clearPolicies();

  // Compares validation policy, client-certificate policy, certificate, key, pass phrase, proxy policy
  // and proxy URL. The resolution policy is deliberately left out: objects differing only there are equal.
  bool operator==(const HttpPolicies& other) const;
  bool operator!=(const HttpPolicies& other) const { return !(*this == other); }

  // Plain setters: the value is stored unchecked.
  void setSSLValidatePolicy(SSLValidatePolicy policy);
  void setHostNameResolutionPolicy(HostNameResolutionPolicy policy);

  // Drops the current proxy setting first. PP_StaticProxy needs a valid URL (false and the log line
  // "static proxy url is invalid" otherwise, leaving PP_GlobalPolicy); values above PP_StaticProxy are
  // accepted and leave PP_GlobalPolicy. The URL is copied; a URL that is this object's own proxy is fine.
  bool setHttpProxyPolicy(ProxyPolicy policy, const HttpUrl* staticProxyUrl = nullptr);

  // Wipes the client certificate material. SCCP_EnableClientCrt is refused (false): only the File/Blob
  // setters below, which supply the data, can enable a client certificate.
  bool setClientCertificatePolicy(SSLClientCertificatePolicy policy);

  // Enable TLS client authentication. Each first wipes the current material and sets the global policy,
  // so a failing call leaves no certificate. PEM: certificate and key separately; P12: one PKCS#12
  // container (the key stays empty). The bytes are not parsed here; errors surface in the transfer.
  bool setClientCertificatePolicyBlobPEM(const char* certificate, size_t certificateSize, const char* key,
                                         size_t keySize, const std::string& password);
  bool setClientCertificatePolicyBlobP12(const char* container, size_t size, const std::string& password);
  bool setClientCertificatePolicyFilePEM(const std::string& certificatePath, const std::string& keyPath,
                                         const std::string& password);
  bool setClientCertificatePolicyFileP12(const std::string& containerPath, const std::string& password);

  // Merges every non-global setting of `other` into this object; global values in `other` change nothing.
  void overrideWith(const HttpPolicies& other);

  SSLValidatePolicy getSSLValidatePolicy() const { return sslValidatePolicy_; }
  HostNameResolutionPolicy getHostNameResolutionPolicy() const { return hostNameResolutionPolicy_; }
  ProxyPolicy getProxyPolicy() const { return proxyPolicy_; }
  const HttpUrl* getStaticProxyUrl() const { return staticProxyUrl_.get(); }
  SSLClientCertificatePolicy getClientCertificatePolicy() const { return clientCertificatePolicy_; }
  const std::vector<char>& getClientCertificate() const { return clientCertificate_; }
  const std::vector<char>& getClientKey() const { return clientKey_; }
  const std::string& getClientKeyPassword() const { return clientKeyPassword_; }

  // Effective values for a request whose own policies are `policies` (null: none), resolved against the
  // process defaults and the built-in fallbacks. Never return a global value.
  static SSLValidatePolicy ResolveSSLValidatePolicy(const HttpPolicies* policies);
  static SSLClientCertificatePolicy ResolveSSLClientCertificatePolicy(const HttpPolicies* policies);
  // Points the outputs at the deciding level's material, or at permanently empty objects. The pointers
  // stay valid only while that policy object lives unchanged.
  static void ResolveSSLClientCertificateAndKey(const HttpPolicies* policies, const std::vector<char>*& certificate,
                                                const std::vector<char>*& key, const std::string*& password);
  static HostNameResolutionPolicy ResolveHostNameResolutionPolicy(const HttpPolicies* policies);
  static ProxyPolicy ResolveProxyPolicy(const HttpPolicies* policies);
  static const HttpUrl* ResolveStaticProxyUrl(const HttpPolicies* policies);

 private:
  // Zeroes the whole allocation of `bytes`, then empties it; the allocation is kept.
  static void WipeSecretBytes(std::vector<char>& bytes);
  // Wipes and empties certificate, key and pass phrase (the policy value is left as it is).
  void wipeClientCertificateMaterial();

  SSLValidatePolicy sslValidatePolicy_;
  HostNameResolutionPolicy hostNameResolutionPolicy_;
  ProxyPolicy proxyPolicy_;
  std::unique_ptr<HttpUrl> staticProxyUrl_;
  SSLClientCertificatePolicy clientCertificatePolicy_;
  std::vector<char> clientCertificate_;
  std::vector<char> clientKey_;
  std::string clientKeyPassword_;
};

}  // namespace http
}  // namespace kx
