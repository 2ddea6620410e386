// Base64 in the two alphabets the library speaks: the standard one with '=' padding (HTTP Basic
// credentials, PEM-like payloads) and the URL-safe one without padding (JSON Web Tokens, JWK members).
//
//   std::string b64 = kx::base64Encode("user:pass", kx::kBase64Standard);   // "dXNlcjpwYXNz"
//   std::string raw;
//   bool ok = kx::base64Decode(b64, raw, kx::kBase64Standard);
//
// Thread-safety: stateless.
#pragma once

#include <kx/system/kxExport.h>

#include <string>
#include <string_view>

namespace kx {

// Character-set argument.
constexpr int kBase64Standard = 0;  // "A-Za-z0-9+/", padded with '='
constexpr int kBase64Url = 1;       // "A-Za-z0-9-_", no padding

KX_EXPORT std::string base64Encode(std::string_view data, int charset = kBase64Standard);
KX_EXPORT std::string base64Encode(const void* data, size_t size, int charset);

// Decodes `text` into `out` (replaced). Rejects characters outside the alphabet, blanks included, and
// impossible lengths (a remainder of one character). The standard set accepts the text with its
// required padding or without any; the URL set refuses '='. On failure `out` is emptied and false
// returned.
KX_EXPORT bool base64Decode(std::string_view text, std::string& out, int charset = kBase64Standard);

}  // namespace kx
