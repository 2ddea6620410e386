#include "support/TestCertificates.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

namespace kx::test {
namespace {

// Run by sh -e in the directory, the pass phrase in KX_PASS. Certificates are valid for 30 days and get
// random serial numbers, so a client caching sessions by issuer and serial never mixes two runs.
constexpr char kScript[] = R"(key="-newkey ec -pkeyopt ec_paramgen_curve:P-256 -noenc -days 30"
openssl req -x509 $key -keyout ca.key -out ca.pem -subj "/O=kx test/CN=kx test CA" \
  -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign
leaf() {
  openssl req -x509 $key -keyout $1.key -out $1.crt -subj "/O=kx test/CN=$2" -CA ca.pem -CAkey ca.key \
    -addext basicConstraints=critical,CA:FALSE -addext keyUsage=critical,digitalSignature \
    -addext extendedKeyUsage=$3 ${4:+-addext subjectAltName=$4}
}
leaf localhost localhost serverAuth DNS:localhost,IP:127.0.0.1,IP:::1
leaf wrong-name wrong-name.invalid serverAuth DNS:wrong-name.invalid
leaf client "kx test client" clientAuth
openssl pkcs8 -topk8 -in client.key -v2 aes-256-cbc -passout env:KX_PASS -out client-encrypted.key
openssl pkcs12 -export -inkey client.key -in client.crt -certfile ca.pem -passout env:KX_PASS -out client.p12
)";

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
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
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/kx-test-certs-XXXXXX";
  if (!mkdtemp(pattern.data())) throw std::runtime_error("TestCertificates: mkdtemp failed for " + pattern);
  dir_ = pattern;
  std::ofstream(path("make.sh")) << kScript;
  const std::string command =
      "cd '" + dir_ + "' && KX_PASS='" + kPassphrase + "' sh -e make.sh >openssl.log 2>&1 </dev/null";
  if (std::system(command.c_str()) != 0) {
    const std::string log = ReadFile(path("openssl.log"));
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
    throw std::runtime_error("TestCertificates: openssl failed:\n" + log);
  }
  clientCertPem_ = ReadFile(path("client.crt"));
  clientKeyPem_ = ReadFile(path("client.key"));
  clientKeyEncryptedPem_ = ReadFile(path("client-encrypted.key"));
  clientP12_ = ReadFile(path("client.p12"));
}

TestCertificates::~TestCertificates() {
  std::error_code ignored;
  std::filesystem::remove_all(dir_, ignored);
}

}  // namespace kx::test
