// TestCertificates is the small PKI the TLS tests run against, made fresh by each test binary so that
// no key or certificate is ever checked into the repository and none can expire in the tree:
//
//   - a CA ("kx test CA");
//   - a server certificate for "localhost" with subjectAltName DNS:localhost, IP:127.0.0.1, IP:::1;
//   - a second server certificate, also signed by the CA, that names only "wrong-name.invalid", so a
//     client checking the host name of localhost must refuse it;
//   - a client certificate ("kx test client", extended key usage clientAuth) signed by the CA.
//
// The client material is kept in memory (PEM texts, PKCS#12 bytes); the CA certificate and the servers'
// certificates with their keys are files in a private temporary directory. Keys are EC P-256: they are
// made in microseconds where RSA takes seconds.
//
//   const auto& pki = kx::test::TestCertificates::Shared();
//   curl_easy_setopt(curl, CURLOPT_CAINFO, pki.caCertificatePath().c_str());
//
// Thread-safety: immutable once built; Shared() may be called from any thread.
// Ownership: Shared() builds one instance on first use that lives until the end of the process, then
// removes its directory.
#pragma once

#include <string>

namespace kx::test {

class TestCertificates {
 public:
  // Pass phrase of clientKeyEncryptedPem() and of clientP12().
  static constexpr const char* kPassphrase = "kx-test-pass phrase";

  // The instance of this process, made on first use. Aborts the test binary with a message when OpenSSL
  // cannot build the material, as nothing TLS-related could run without it.
  static const TestCertificates& Shared();

  // Makes a new set of keys and certificates in a new temporary directory (under $TMPDIR or /tmp);
  // throws std::runtime_error when OpenSSL fails.
  TestCertificates();
  ~TestCertificates();
  TestCertificates(const TestCertificates&) = delete;
  TestCertificates& operator=(const TestCertificates&) = delete;

  // In-memory client material. Keys are unencrypted PKCS#8 PEM unless named otherwise.
  const std::string& clientCertificatePem() const { return clientCertPem_; }
  const std::string& clientKeyPem() const { return clientKeyPem_; }
  // The client key encrypted (PKCS#8, AES-256-CBC) with kPassphrase.
  const std::string& clientKeyEncryptedPem() const { return clientKeyEncryptedPem_; }
  // DER PKCS#12 holding the client key, its certificate and the CA certificate, protected by kPassphrase.
  const std::string& clientP12() const { return clientP12_; }

  // Subject of the client certificate as OpenSSL prints it in one line ("CN=kx test client,O=kx test").
  static constexpr const char* kClientSubject = "CN=kx test client,O=kx test";

  // The CA certificate (PEM), for CURLOPT_CAINFO.
  std::string caCertificatePath() const { return dir_ + "/ca.pem"; }
  // A server's certificate followed by its key (PEM): "localhost" or "wrong-name.invalid".
  std::string serverPath() const { return dir_ + "/server.pem"; }
  std::string wrongNamePath() const { return dir_ + "/wrong-name.pem"; }

 private:
  std::string dir_;
  std::string clientCertPem_, clientKeyPem_, clientKeyEncryptedPem_, clientP12_;
};

}  // namespace kx::test
