// Links against the installed libCorvix.so and calls into it, proving headers and exports are usable.
#include <kx/system/kxBase64.h>
#include <kx/system/kxStringUtils.h>

#include <cstdio>

int main() {
  const std::string encoded = kx::base64Encode("corvix", kx::kBase64Standard);
  std::string decoded;
  if (!kx::base64Decode(encoded, decoded, kx::kBase64Standard) || decoded != "corvix") return 1;
  std::printf("consumer ok: %s %s\n", encoded.c_str(), kx::kxStringUtils::ToDecimal(3).c_str());
  return 0;
}
