#include <kx/crypto/kxOpenSSL.h>

#include <kx/system/LibInitCounter.h>
#include <kx/system/kxStringUtils.h>

#include <openssl/crypto.h>

#include <cstdint>

namespace kx {
namespace kxOpenSSL {

namespace {

LibInitCounter gOpenSSLInitCounter;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsLower(char c) { return c >= 'a' && c <= 'z'; }
bool IsAlpha(char c) { return IsLower(c) || (c >= 'A' && c <= 'Z'); }

// A small cursor over the text; every reader returns false without moving when its token is absent.
class Cursor {
 public:
  explicit Cursor(std::string_view text) : text_(text) {}

  bool atEnd() const { return pos_ == text_.size(); }
  char peek() const { return atEnd() ? '\0' : text_[pos_]; }
  bool eat(char c) {
    if (peek() != c) return false;
    ++pos_;
    return true;
  }
  // 1 to 3 decimal digits: every field of a version fits in 8 bits, so a longer run is not a version.
  bool number(unsigned& value) {
    size_t n = 0;
    value = 0;
    while (n < 4 && pos_ + n < text_.size() && IsDigit(text_[pos_ + n])) {
      value = value * 10 + static_cast<unsigned>(text_[pos_ + n] - '0');
      ++n;
    }
    if (n == 0 || n > 3) return false;
    pos_ += n;
    return true;
  }
  std::string_view take(bool (*accept)(char)) {
    const size_t start = pos_;
    while (!atEnd() && accept(text_[pos_])) ++pos_;
    return text_.substr(start, pos_ - start);
  }

 private:
  std::string_view text_;
  size_t pos_ = 0;
};

// The patch letters of a pre-3.0 version: "a" = 1 ... "y" = 25; after "y" the releases went on with
// "za", "zb", ..., so every leading 'z' of a longer run counts 25. 0 for no letters, -1 when too large.
int LetterValue(std::string_view letters) {
  int value = 0;
  for (size_t i = 0; i < letters.size(); ++i) {
    const bool last = i + 1 == letters.size();
    if (!last && letters[i] != 'z') return -1;  // only 'z' may precede the final letter
    value += last ? letters[i] - 'a' + 1 : 25;
    if (value > 0xff) return -1;
  }
  return value;
}

// The status nibble of a pre-3.0 pre-release word ("dev", "beta2", "pre9", "alpha1"); -1 if unknown.
int PreReleaseStatus(std::string_view word, std::string_view digits) {
  if (word == "dev") return digits.empty() ? 0 : -1;
  if (word != "alpha" && word != "beta" && word != "pre") return -1;
  if (digits.empty() || digits.size() > 2) return -1;
  const int n = digits.size() == 1 ? digits[0] - '0' : (digits[0] - '0') * 10 + (digits[1] - '0');
  return n >= 1 && n <= 14 ? n : -1;
}

bool IsBuildChar(char c) { return IsAlpha(c) || IsDigit(c) || c == '.' || c == '-'; }
bool IsPreReleaseTail(char c) { return IsAlpha(c) || IsDigit(c) || c == '.'; }

}  // namespace

bool initializeLibrary(int options) {
  if (!gOpenSSLInitCounter.incrementInitCounter()) return true;
  uint64_t flags = 0;
  if ((options & kLoadErrorStrings) != 0) flags |= OPENSSL_INIT_LOAD_CRYPTO_STRINGS;
  if (OPENSSL_init_crypto(flags, nullptr) != 1) {
    gOpenSSLInitCounter.decrementInitCounter();
    return false;
  }
  return true;
}

void finalizeLibrary() { gOpenSSLInitCounter.decrementInitCounter(); }

bool isLibraryInitialized() { return gOpenSSLInitCounter.isInitialized(); }

unsigned long ParseOpenSSLVersionString(std::string_view text) {
  text = kxStringUtils::TrimView(text);
  if (text.size() > 8 && kxStringUtils::StartsWithIgnoreAsciiCase(text, "openssl") &&
      (text[7] == ' ' || text[7] == '/')) {
    text = kxStringUtils::TrimView(text.substr(8));
  }
  Cursor in(text);
  unsigned major = 0, minor = 0, fix = 0;
  if (!in.number(major) || !in.eat('.') || !in.number(minor) || !in.eat('.') || !in.number(fix)) return 0;
  if (major > 0xf || minor > 0xff || fix > 0xff) return 0;
  const bool modern = major >= 3;

  const int letters = LetterValue(in.take(IsLower));
  if (letters < 0 || (modern && letters != 0)) return 0;

  int status = 0xf;
  if (in.eat('-')) {
    const std::string_view word = in.take(IsAlpha);
    if (word.empty()) return 0;
    if (modern) {
      // 3.x pre-releases ("-alpha1", "-beta.2") do not show in the number; only their shape is checked.
      in.take(IsPreReleaseTail);
    } else {
      in.eat('.');
      status = PreReleaseStatus(word, in.take(IsDigit));
      if (status < 0) return 0;
    }
  }
  if (in.eat('+') && in.take(IsBuildChar).empty()) return 0;
  // Anything further must be separated by a blank: the release date of OpenSSL_version()'s text.
  if (!in.atEnd() && !kxStringUtils::IsAsciiSpace(in.peek())) return 0;

  if (modern) return (static_cast<unsigned long>(major) << 28) | (minor << 20) | (fix << 4);
  return (static_cast<unsigned long>(major) << 28) | (minor << 20) | (fix << 12) |
         (static_cast<unsigned long>(letters) << 4) | static_cast<unsigned long>(status);
}

}  // namespace kxOpenSSL
}  // namespace kx
