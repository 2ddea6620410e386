// Process-wide state of the library frame that other parts of the library (not its users) need: the
// periodical updater connection pools register on, and the pieces of initialisation that tests reach.
//
// Thread-safety: the accessors are thread-safe; the state they report changes only in
// initializeCorvix/terminateCorvix, which run on one thread at start-up and shut-down.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kx {

class kxThreadPeriodicalUpdater;

namespace detail {

// The updater created by the first initializeCorvix (period 2 s) and destroyed by the last
// terminateCorvix; null outside that window. A pool registers its expiry callback on it when it is
// created and removes it when it is destroyed, both inside the window.
kxThreadPeriodicalUpdater* GetPeriodicalUpdater();

// Outstanding initializeCorvix calls not yet matched by terminateCorvix.
int64_t GetCorvixInitCount();

// The blank-separated component of libcurl's version text that starts with "openssl/" in any case
// ("OpenSSL/3.0.19" on Debian), without that 8-character prefix; "" when there is none.
std::string FindCurlOpenSSLVersionText(std::string_view curlVersionText);

// The OpenSSL version number named in `curlVersionText`. When there is none or it does not parse, logs
// "Cannot get curl openssl version (unknown version)" and throws std::runtime_error("kxCorvix : ssl
// versioning error"): the library refuses to run on a TLS back end it does not know.
unsigned long DetermineCurlOpenSSLVersion(std::string_view curlVersionText);

}  // namespace detail
}  // namespace kx
