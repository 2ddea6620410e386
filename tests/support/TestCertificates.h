// TestCertificates is the small PKI the TLS tests run against, made fresh by each test binary so that
// no key or certificate is ever checked into the repository and none can expire in the tree:
//
//   - a CA ("kx test CA");
//   - a server certificate for "localhost" with subjectAltName DNS:localhost, IP:127.0.0.1, IP:::1;
//   - a second server certificate, also signed by the CA, that names only "wrong-name.invalid", so a
//     client checking the host name of localhost must refuse it;
//   - a client certificate ("kx test client", extended key usage clientAuth) signed by the CA.
//
// The openssl command-line tool (Debian package openssl) makes them in a private temporary directory;
// the client material is also kept in memory (PEM texts, PKCS#12 bytes). Keys are EC P-256.
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
  // Subject of the client certificate as the loopback server records it (X509_NAME_oneline's form).
  static constexpr const char* kClientSubject = "/O=kx test/CN=kx test client";

  // The instance of this process, made on first use. Aborts the test binary with openssl's output when
  // the material cannot be made, as nothing TLS-related could run without it.
  static const TestCertificates& Shared();

  // Makes a new set of keys and certificates in a new temporary directory (under $TMPDIR or /tmp);
  // throws std::runtime_error when that fails.
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

  // The CA certificate (PEM), for CURLOPT_CAINFO.
  std::string caCertificatePath() const { return path("ca.pem"); }
  // A file of the directory: "<name>.crt" and "<name>.key" (PEM) for the servers "localhost" and
  // "wrong-name" and for the client.
  std::string path(const std::string& file) const { return dir_ + "/" + file; }

 private:
  std::string dir_;
  std::string clientCertPem_, clientKeyPem_, clientKeyEncryptedPem_, clientP12_;
};

}  // namespace kx::test
