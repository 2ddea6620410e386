#include "support/LoopbackConnection.h"
#include "support/TestCertificates.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace kx::test::loopback {
namespace {

X509* CertificateFromPem(const std::string& pem) {
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  X509* cert = bio ? PEM_read_bio_X509(bio, nullptr, nullptr, nullptr) : nullptr;
  BIO_free(bio);
  return cert;
}

EVP_PKEY* KeyFromPem(const std::string& pem) {
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  EVP_PKEY* key = bio ? PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr) : nullptr;
  BIO_free(bio);
  return key;
}

}  // namespace

std::string PeerSubject(SSL* ssl) {
  X509* cert = SSL_get1_peer_certificate(ssl);
  if (!cert) return {};
  std::string subject;
  if (SSL_get_verify_result(ssl) == X509_V_OK) {
    if (BIO* bio = BIO_new(BIO_s_mem())) {
      X509_NAME_print_ex(bio, X509_get_subject_name(cert), 0, XN_FLAG_RFC2253);
      char* data = nullptr;
      long size = BIO_get_mem_data(bio, &data);
      if (size > 0) subject.assign(data, static_cast<size_t>(size));
      BIO_free(bio);
    }
  }
  X509_free(cert);
  return subject;
}

SSL_CTX* MakeTlsContext(const LoopbackHttpServerOptions& options, std::string& error) {
  using Tls = LoopbackHttpServerOptions::Tls;
  const auto& pki = TestCertificates::Shared();
  SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
  if (!ctx) {
    error = "SSL_CTX_new failed";
    return nullptr;
  }
  SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
  // A client that closes without close_notify is a normal end of a keep-alive connection here.
  SSL_CTX_set_options(ctx, SSL_OP_IGNORE_UNEXPECTED_EOF);
  // Needed as soon as client certificates are verified: without it OpenSSL refuses to resume the
  // sessions libcurl offers on its next connection, and that handshake fails.
  static constexpr unsigned char kSessionContext[] = "kx-loopback";
  SSL_CTX_set_session_id_context(ctx, kSessionContext, sizeof(kSessionContext) - 1);

  X509* cert = CertificateFromPem(options.wrongNameCertificate ? pki.wrongNameCertificatePem()
                                                               : pki.serverCertificatePem());
  EVP_PKEY* key = KeyFromPem(options.wrongNameCertificate ? pki.wrongNameKeyPem() : pki.serverKeyPem());
  bool ok = cert && key && SSL_CTX_use_certificate(ctx, cert) == 1 && SSL_CTX_use_PrivateKey(ctx, key) == 1 &&
            SSL_CTX_check_private_key(ctx) == 1;
  X509_free(cert);
  EVP_PKEY_free(key);

  if (ok && (options.tls == Tls::kRequireClientCertificate)) {
    X509* ca = CertificateFromPem(pki.caCertificatePem());
    ok = ca && X509_STORE_add_cert(SSL_CTX_get_cert_store(ctx), ca) == 1 && SSL_CTX_add_client_CA(ctx, ca) == 1;
    X509_free(ca);
    SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  }
  if (!ok) {
    char text[256];
    ERR_error_string_n(ERR_get_error(), text, sizeof(text));
    error = std::string("TLS context setup failed: ") + text;
    ERR_clear_error();
    SSL_CTX_free(ctx);
    return nullptr;
  }
  return ctx;
}

}  // namespace kx::test::loopback
