// Random bytes from the operating system's cryptographically secure generator (getrandom(2)), and the
// random UUID texts built from them. Use these for anything an attacker must not guess: multipart
// boundaries, request ids, nonces. Never seeded, never predictable across processes or forks.
//
//   unsigned char nonce[16];
//   if (!kx::kxRandomUtils::Rand(nonce, sizeof nonce)) { ... no entropy source ... }
//   std::string id = kx::kxRandomUtils::Uuid4Text();   // "3f2b8c1e-9a4d-4e7f-b2c6-0d5e8a7f1b34"
//
// Thread-safety: every function may be called from any thread.
#pragma once

#include <kx/system/kxExport.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace kx {
namespace kxRandomUtils {

// Fills `size` bytes at `buffer`. True on success; false only when the system gives no random bytes
// (or `buffer` is null while `size` is not 0), in which case the buffer may hold anything.
// Blocks only at early boot, until the kernel's generator is seeded.
KX_EXPORT bool Rand(void* buffer, size_t size);

// A random version-4 UUID in the 36-character lower-case hyphenated form (8-4-4-4-12). Empty when Rand
// fails.
KX_EXPORT std::string Uuid4Text();

// The same text for 16 given bytes: byte 6 becomes (b & 0x0F) | 0x40 (version 4), byte 8 becomes
// (b & 0x3F) | 0x80 (RFC 4122 variant), then the bytes are written as hex with '-' before bytes 4, 6, 8
// and 10. Exposed so callers with their own bytes (and tests) get the exact same format.
KX_EXPORT std::string Uuid4TextFromBytes(const uint8_t (&bytes)[16]);

}  // namespace kxRandomUtils
}  // namespace kx
