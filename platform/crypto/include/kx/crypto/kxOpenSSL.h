// kxOpenSSL gathers the process-level handling of OpenSSL: its counted initialisation and the parsing
// of OpenSSL version texts into OpenSSL's own version numbers, so that a version reported as text (for
// instance by libcurl: "OpenSSL/3.0.19") can be compared with OPENSSL_VERSION_NUMBER values.
//
//   kx::kxOpenSSL::initializeLibrary(kx::kxOpenSSL::kLoadErrorStrings);
//   unsigned long v = kx::kxOpenSSL::ParseOpenSSLVersionString("3.0.19");   // 0x30000130
//   ...
//   kx::kxOpenSSL::finalizeLibrary();
//
// Version numbers use OpenSSL's layouts:
// - 3.0 and later, 0xMNN00PP0: major in 4 bits, minor in 8, patch in 8 (bits 4..11), the low nibble 0.
//   "3.0.19" -> 0x30000130, "3.2.0-alpha1" -> 0x30200000 (pre-releases are not marked in this layout).
// - before 3.0, 0xMNNFFPPS: major, minor, fix, patch letters (a = 1 ... y = 25, and each leading 'z'
//   of a multi-letter suffix adds 25: "za" = 26) and status S: 0xf for a release, 0 for "-dev", N for
//   "-betaN", "-alphaN" or "-preN" (N from 1 to 14).
//   "1.1.1w" -> 0x1010117f, "1.0.2" -> 0x1000200f, "0.9.8za" -> 0x009081af, "1.1.0-pre3" -> 0x10100003.
// A leading "OpenSSL " or "OpenSSL/" (any case), a "+build" suffix, surrounding blanks and, after a
// blank, trailing words (the release date of OpenSSL_version()) are accepted.
//
// Thread-safety: ParseOpenSSLVersionString is stateless; initializeLibrary/finalizeLibrary are counted
// and thread-safe but, like the libraries they bring up, meant for start-up and shut-down.
#pragma once

#include <kx/system/kxExport.h>

#include <string_view>

namespace kx {
namespace kxOpenSSL {

// Options of initializeLibrary. Any other bit is ignored.
inline constexpr int kLoadErrorStrings = 1;  // also load libcrypto's error texts

// Counted initialisation: the first call runs OpenSSL_init_crypto with the chosen options, nested calls
// only count. True when OpenSSL is ready; false when the first call failed (it is then not counted,
// and a later call tries again).
KX_EXPORT bool initializeLibrary(int options);
// Counts one initialisation off. Nothing is torn down at the last call: OpenSSL releases its state at
// process exit by itself, and an explicit OPENSSL_cleanup would forbid any later initialisation in
// this process.
KX_EXPORT void finalizeLibrary();
KX_EXPORT bool isLibraryInitialized();

// The version number of an OpenSSL version text, in the layouts above; 0 when the text is not an
// OpenSSL version (empty, no digits, a component above its field's range, unknown trailing text).
KX_EXPORT unsigned long ParseOpenSSLVersionString(std::string_view text);

}  // namespace kxOpenSSL
}  // namespace kx
