#include <kx/system/kxBase64.h>

#include <array>
#include <cstdint>

namespace kx {
namespace {

constexpr char kStandardAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kUrlAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

constexpr uint8_t kInvalid = 0xFF;

constexpr std::array<uint8_t, 256> MakeDecodeTable(const char* alphabet) {
  std::array<uint8_t, 256> table{};
  for (auto& entry : table) entry = kInvalid;
  for (uint8_t i = 0; i < 64; ++i) table[static_cast<unsigned char>(alphabet[i])] = i;
  return table;
}

constexpr auto kStandardDecode = MakeDecodeTable(kStandardAlphabet);
constexpr auto kUrlDecode = MakeDecodeTable(kUrlAlphabet);

}  // namespace

std::string base64Encode(const void* data, size_t size, int charset) {
  const bool url = charset != kBase64Standard;
  const char* alphabet = url ? kUrlAlphabet : kStandardAlphabet;
  const auto* in = static_cast<const unsigned char*>(data);
  std::string out;
  out.reserve((size + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= size; i += 3) {
    const uint32_t v = (uint32_t{in[i]} << 16) | (uint32_t{in[i + 1]} << 8) | in[i + 2];
    out.push_back(alphabet[(v >> 18) & 63]);
    out.push_back(alphabet[(v >> 12) & 63]);
    out.push_back(alphabet[(v >> 6) & 63]);
    out.push_back(alphabet[v & 63]);
  }
  const size_t rest = size - i;
  if (rest == 1) {
    const uint32_t v = uint32_t{in[i]} << 16;
    out.push_back(alphabet[(v >> 18) & 63]);
    out.push_back(alphabet[(v >> 12) & 63]);
    if (!url) out.append("==");
  } else if (rest == 2) {
    const uint32_t v = (uint32_t{in[i]} << 16) | (uint32_t{in[i + 1]} << 8);
    out.push_back(alphabet[(v >> 18) & 63]);
    out.push_back(alphabet[(v >> 12) & 63]);
    out.push_back(alphabet[(v >> 6) & 63]);
    if (!url) out.push_back('=');
  }
  return out;
}

std::string base64Encode(std::string_view data, int charset) {
  return base64Encode(data.data(), data.size(), charset);
}

bool base64Decode(std::string_view text, std::string& out, int charset) {
  const bool url = charset != kBase64Standard;
  const auto& table = url ? kUrlDecode : kStandardDecode;
  out.clear();
  if (!url && !text.empty() && text.back() == '=') {
    // Padding is all or nothing: with it the length is a multiple of four and at most two '=' end it.
    if (text.size() % 4 != 0) return false;
    text.remove_suffix(1);
    if (!text.empty() && text.back() == '=') text.remove_suffix(1);
  }
  if (text.size() % 4 == 1) return false;  // 6 bits cannot make a byte
  out.reserve(text.size() / 4 * 3 + 2);
  uint32_t acc = 0;
  int bits = 0;
  for (const char c : text) {
    const uint8_t v = table[static_cast<unsigned char>(c)];
    if (v == kInvalid) {
      out.clear();
      return false;
    }
    acc = (acc << 6) | v;
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<char>((acc >> bits) & 0xFF));
    }
  }
  // The bits left over must be zero, or two texts would decode to the same bytes.
  if (bits > 0 && (acc & ((1u << bits) - 1)) != 0) {
    out.clear();
    return false;
  }
  return true;
}

}  // namespace kx
