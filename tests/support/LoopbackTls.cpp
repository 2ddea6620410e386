#include "support/LoopbackConnection.h"
#include "support/TestCertificates.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/x509.h>

namespace kx::test::loopback {

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

  const std::string server = options.wrongNameCertificate ? pki.wrongNamePath() : pki.serverPath();
  bool ok = SSL_CTX_use_certificate_file(ctx, server.c_str(), SSL_FILETYPE_PEM) == 1 &&
            SSL_CTX_use_PrivateKey_file(ctx, server.c_str(), SSL_FILETYPE_PEM) == 1;
  if (ok && options.tls == Tls::kRequireClientCertificate) {
    const std::string ca = pki.caCertificatePath();
    STACK_OF(X509_NAME)* caNames = SSL_load_client_CA_file(ca.c_str());
    ok = caNames && SSL_CTX_load_verify_locations(ctx, ca.c_str(), nullptr) == 1;
    if (caNames) SSL_CTX_set_client_CA_list(ctx, caNames);  // the context takes ownership
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
