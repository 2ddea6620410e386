// TestCertificates is the small PKI the TLS tests run against, made fresh by each test binary so that
// no key or certificate is ever checked into the repository and none can expire in the tree:
//
//   - a CA ("kx test CA");
//   - a server certificate for "localhost" with subjectAltName DNS:localhost, IP:127.0.0.1, IP:::1;
//   - a second server certificate, also signed by the CA, that names only "wrong-name.invalid", so a
//     client checking the host name of localhost must refuse it;
//   - a client certificate ("kx test client", extended key usage clientAuth) signed by the CA;
//   - a client certificate signed by an unrelated CA, which a server trusting only the test CA rejects.
//
// Everything is kept in memory (PEM texts, PKCS#12 bytes) and written to a private temporary directory
// for the file-based APIs. Keys are EC P-256: they make in microseconds where RSA takes seconds.
//
//   const auto& pki = kx::test::TestCertificates::Shared();
//   curl_easy_setopt(curl, CURLOPT_CAINFO, pki.caCertificatePath().c_str());
//
// Thread-safety: immutable once built; Shared() may be called from any thread.
// Ownership: the object owns its directory and removes it with all files on destruction. Shared() builds
// one instance on first use that lives until the end of the process.
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

  // Makes a new set of keys and certificates in a new temporary directory (under $TMPDIR or /tmp).
  TestCertificates();
  ~TestCertificates();
  TestCertificates(const TestCertificates&) = delete;
  TestCertificates& operator=(const TestCertificates&) = delete;

  // In-memory material. Keys are unencrypted PKCS#8 PEM unless named otherwise.
  const std::string& caCertificatePem() const { return caCertPem_; }
  const std::string& serverCertificatePem() const { return serverCertPem_; }
  const std::string& serverKeyPem() const { return serverKeyPem_; }
  const std::string& wrongNameCertificatePem() const { return wrongNameCertPem_; }
  const std::string& wrongNameKeyPem() const { return wrongNameKeyPem_; }
  const std::string& clientCertificatePem() const { return clientCertPem_; }
  const std::string& clientKeyPem() const { return clientKeyPem_; }
  // The client key encrypted (PKCS#8, AES-256-CBC) with kPassphrase.
  const std::string& clientKeyEncryptedPem() const { return clientKeyEncryptedPem_; }
  // DER PKCS#12 holding the client key, its certificate and the CA certificate, protected by kPassphrase.
  const std::string& clientP12() const { return clientP12_; }
  // The same container protected by the empty pass phrase.
  const std::string& clientP12EmptyPassphrase() const { return clientP12EmptyPass_; }
  // A client certificate and key issued by a CA the servers do not trust.
  const std::string& untrustedClientCertificatePem() const { return untrustedCertPem_; }
  const std::string& untrustedClientKeyPem() const { return untrustedKeyPem_; }

  // Subject of the client certificate as OpenSSL prints it in one line ("CN=kx test client,O=kx test").
  static constexpr const char* kClientSubject = "CN=kx test client,O=kx test";

  // Files in a private temporary directory with the same contents as the members above (the CA and the
  // client material: what the client side of a TLS test reads from files).
  std::string caCertificatePath() const { return dir_ + "/ca.pem"; }
  std::string clientCertificatePath() const { return dir_ + "/client.pem"; }
  std::string clientKeyPath() const { return dir_ + "/client-key.pem"; }
  std::string clientKeyEncryptedPath() const { return dir_ + "/client-key-encrypted.pem"; }
  std::string clientP12Path() const { return dir_ + "/client.p12"; }

 private:
  std::string dir_;
  std::string caCertPem_, serverCertPem_, serverKeyPem_, wrongNameCertPem_, wrongNameKeyPem_;
  std::string clientCertPem_, clientKeyPem_, clientKeyEncryptedPem_, clientP12_, clientP12EmptyPass_;
  std::string untrustedCertPem_, untrustedKeyPem_;
};

}  // namespace kx::test
