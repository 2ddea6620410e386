// Library frame: initialise Corvix once per process before the first transfer, terminate it at the end.
//
//   int main() {
//     kx::initializeCorvix("my-service/1.2");
//     ... requests from any number of threads ...
//     kx::terminateCorvix();
//   }
//
// Initialisation is counted: nested calls only count (and return false), and only the last matching
// terminateCorvix tears down. The first call brings up the sibling libraries, libcurl's global state
// with its OpenSSL back end and the periodical updater thread that trims connection pools. It throws
// std::runtime_error("kxCorvix : ssl versioning error") when libcurl's TLS back end is not a known
// OpenSSL -- the only exception the library raises.
//
// Thread-safety: initializeCorvix/terminateCorvix must be called from one thread at start-up and
// shut-down (libcurl's global initialisation requires it). The default headers and policies are read by
// every request without a lock: set them before requests start.
// Lifetime: connection pools and connections must be destroyed before the last terminateCorvix.
#pragma once

#include <kx/system/kxExport.h>

#include <string>

namespace kx {

namespace http {
class HttpHeaders;
class HttpPolicies;
}  // namespace http

// Replaces the default "User-Agent" header when `userAgent` is not empty (on every call, nested ones
// too). Returns false for a nested call; else whether libcurl's version text could be registered.
KX_EXPORT bool initializeCorvix(const std::string& userAgent);
KX_EXPORT void terminateCorvix();
KX_EXPORT bool IsCorvixInitialized();

// Process-wide default policies every request resolves against. Reset by the last terminateCorvix.
KX_EXPORT http::HttpPolicies& GetDefaultPolicies();
KX_EXPORT void SetDefaultPolicies(const http::HttpPolicies& policies);

// Process-wide default request headers, sent first on every request.
KX_EXPORT const http::HttpHeaders& GetDefaultHttpHeaders();
KX_EXPORT http::HttpHeaders& EditDefaultHttpHeaders();

// The OpenSSL version number libcurl reported at initialisation (0 before).
KX_EXPORT unsigned long GetCurlOpenSSLVersionNumber();

}  // namespace kx
