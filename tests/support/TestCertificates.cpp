#include "support/TestCertificates.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

namespace kx::test {
namespace {

struct OpenSslDeleter {
  void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
  void operator()(X509* p) const { X509_free(p); }
  void operator()(BIO* p) const { BIO_free(p); }
  void operator()(PKCS12* p) const { PKCS12_free(p); }
  void operator()(X509_EXTENSION* p) const { X509_EXTENSION_free(p); }
  void operator()(STACK_OF(X509) * p) const { sk_X509_free(p); }
};
template <class T>
using Ptr = std::unique_ptr<T, OpenSslDeleter>;

// Collects OpenSSL's error queue so a failure says which step broke and why.
[[noreturn]] void Fail(const std::string& step) {
  std::string text = "TestCertificates: " + step + " failed";
  while (unsigned long code = ERR_get_error()) {
    char buffer[256];
    ERR_error_string_n(code, buffer, sizeof(buffer));
    text += "; ";
    text += buffer;
  }
  throw std::runtime_error(text);
}

Ptr<EVP_PKEY> MakeKey() {
  Ptr<EVP_PKEY> key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
  if (!key) Fail("EC P-256 key generation");
  return key;
}

struct CertificateProfile {
  const char* commonName;
  bool isCa;
  const char* extendedKeyUsage;  // nullptr for a CA
  const char* subjectAltName;    // nullptr for none
};

void AddExtension(X509* cert, X509V3_CTX* ctx, int nid, const char* value) {
  Ptr<X509_EXTENSION> ext(X509V3_EXT_conf_nid(nullptr, ctx, nid, value));
  if (!ext || X509_add_ext(cert, ext.get(), -1) != 1) Fail(std::string("extension ") + OBJ_nid2sn(nid));
}

// Issues a certificate for subjectKey. With no issuer the certificate is self-signed (a root CA).
Ptr<X509> MakeCertificate(EVP_PKEY* subjectKey, const CertificateProfile& profile, X509* issuer, EVP_PKEY* issuerKey) {
  Ptr<X509> cert(X509_new());
  if (!cert || X509_set_version(cert.get(), X509_VERSION_3) != 1) Fail("X509_new");

  // Random positive serials: a client caching sessions or CRLs by issuer and serial never sees two test
  // certificates collide, even across test binaries running side by side.
  uint64_t serial = 0;
  if (RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof(serial)) != 1) Fail("RAND_bytes");
  serial = (serial >> 1) | 1;
  if (ASN1_INTEGER_set_uint64(X509_get_serialNumber(cert.get()), serial) != 1) Fail("serial number");

  // Valid from an hour ago, so a clock a little behind the signer's does not make it "not yet valid".
  if (!X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600) ||
      !X509_gmtime_adj(X509_getm_notAfter(cert.get()), 30L * 24 * 3600)) {
    Fail("validity period");
  }
  if (X509_set_pubkey(cert.get(), subjectKey) != 1) Fail("X509_set_pubkey");

  X509_NAME* name = X509_get_subject_name(cert.get());
  if (X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("kx test"), -1,
                                 -1, 0) != 1 ||
      X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                 reinterpret_cast<const unsigned char*>(profile.commonName), -1, -1, 0) != 1) {
    Fail("subject name");
  }
  if (X509_set_issuer_name(cert.get(), issuer ? X509_get_subject_name(issuer) : name) != 1) Fail("issuer name");

  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer ? issuer : cert.get(), cert.get(), nullptr, nullptr, 0);
  AddExtension(cert.get(), &ctx, NID_basic_constraints, profile.isCa ? "critical,CA:TRUE" : "critical,CA:FALSE");
  AddExtension(cert.get(), &ctx, NID_key_usage,
               profile.isCa ? "critical,keyCertSign,cRLSign" : "critical,digitalSignature");
  AddExtension(cert.get(), &ctx, NID_subject_key_identifier, "hash");
  if (issuer) AddExtension(cert.get(), &ctx, NID_authority_key_identifier, "keyid:always");
  if (profile.extendedKeyUsage) AddExtension(cert.get(), &ctx, NID_ext_key_usage, profile.extendedKeyUsage);
  if (profile.subjectAltName) AddExtension(cert.get(), &ctx, NID_subject_alt_name, profile.subjectAltName);

  if (X509_sign(cert.get(), issuerKey ? issuerKey : subjectKey, EVP_sha256()) <= 0) Fail("X509_sign");
  return cert;
}

std::string BioContents(BIO* bio) {
  char* data = nullptr;
  long size = BIO_get_mem_data(bio, &data);
  return size > 0 ? std::string(data, static_cast<size_t>(size)) : std::string();
}

std::string CertificatePem(X509* cert) {
  Ptr<BIO> bio(BIO_new(BIO_s_mem()));
  if (!bio || PEM_write_bio_X509(bio.get(), cert) != 1) Fail("PEM_write_bio_X509");
  return BioContents(bio.get());
}

std::string KeyPem(EVP_PKEY* key, const char* passphrase) {
  Ptr<BIO> bio(BIO_new(BIO_s_mem()));
  if (!bio) Fail("BIO_new");
  int ok = passphrase ? PEM_write_bio_PKCS8PrivateKey(bio.get(), key, EVP_aes_256_cbc(), passphrase,
                                                      static_cast<int>(std::char_traits<char>::length(passphrase)),
                                                      nullptr, nullptr)
                      : PEM_write_bio_PKCS8PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr);
  if (ok != 1) Fail("PEM_write_bio_PKCS8PrivateKey");
  return BioContents(bio.get());
}

std::string P12Der(EVP_PKEY* key, X509* cert, X509* ca, const char* passphrase) {
  Ptr<STACK_OF(X509)> chain(sk_X509_new_null());
  if (!chain || sk_X509_push(chain.get(), ca) <= 0) Fail("certificate chain");
  // nid 0 and iteration 0 take OpenSSL 3's defaults: AES-256-CBC with PBKDF2 and a SHA-256 MAC.
  Ptr<PKCS12> p12(PKCS12_create(passphrase, "kx test client", key, cert, chain.get(), 0, 0, 0, 0, 0));
  if (!p12) Fail("PKCS12_create");
  int size = i2d_PKCS12(p12.get(), nullptr);
  if (size <= 0) Fail("i2d_PKCS12");
  std::string der(static_cast<size_t>(size), '\0');
  auto* out = reinterpret_cast<unsigned char*>(der.data());
  if (i2d_PKCS12(p12.get(), &out) != size) Fail("i2d_PKCS12");
  return der;
}

std::string MakeTemporaryDirectory() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/kx-test-certs-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (!mkdtemp(buffer.data())) throw std::runtime_error("TestCertificates: mkdtemp failed for " + pattern);
  return buffer.data();
}

}  // namespace

const TestCertificates& TestCertificates::Shared() {
  // A static owner, not a leaked pointer: its destructor removes the directory when the binary ends.
  static const std::unique_ptr<const TestCertificates> instance = [] {
    try {
      return std::make_unique<const TestCertificates>();
    } catch (const std::exception& e) {
      std::fprintf(stderr, "%s\n", e.what());
      std::abort();
    }
  }();
  return *instance;
}

TestCertificates::TestCertificates() {
  auto caKey = MakeKey();
  auto caCert = MakeCertificate(caKey.get(), {"kx test CA", true, nullptr, nullptr}, nullptr, nullptr);

  auto serverKey = MakeKey();
  auto serverCert = MakeCertificate(serverKey.get(),
                                    {"localhost", false, "serverAuth", "DNS:localhost,IP:127.0.0.1,IP:::1"},
                                    caCert.get(), caKey.get());

  auto wrongKey = MakeKey();
  auto wrongCert = MakeCertificate(wrongKey.get(),
                                   {"wrong-name.invalid", false, "serverAuth", "DNS:wrong-name.invalid"},
                                   caCert.get(), caKey.get());

  auto clientKey = MakeKey();
  auto clientCert =
      MakeCertificate(clientKey.get(), {"kx test client", false, "clientAuth", nullptr}, caCert.get(), caKey.get());

  clientCertPem_ = CertificatePem(clientCert.get());
  clientKeyPem_ = KeyPem(clientKey.get(), nullptr);
  clientKeyEncryptedPem_ = KeyPem(clientKey.get(), kPassphrase);
  clientP12_ = P12Der(clientKey.get(), clientCert.get(), caCert.get(), kPassphrase);

  dir_ = MakeTemporaryDirectory();
  const std::pair<std::string, std::string> files[] = {
      {caCertificatePath(), CertificatePem(caCert.get())},
      {serverPath(), CertificatePem(serverCert.get()) + KeyPem(serverKey.get(), nullptr)},
      {wrongNamePath(), CertificatePem(wrongCert.get()) + KeyPem(wrongKey.get(), nullptr)},
  };
  for (const auto& [path, contents] : files) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!(out << contents).flush()) {
      std::error_code ignored;
      std::filesystem::remove_all(dir_, ignored);
      throw std::runtime_error("TestCertificates: cannot write " + path);
    }
  }
}

TestCertificates::~TestCertificates() {
  std::error_code ignored;
  std::filesystem::remove_all(dir_, ignored);
}

}  // namespace kx::test
