#include "bodies/MultiPartHeaderFields.h"

#include <kx/system/kxStringUtils.h>

#include <cstring>
#include <list>

namespace kx {
namespace http {
namespace detail {

using kxStringUtils::TrimView;

std::string_view StripQuotes(std::string_view text) {
  if (text.size() >= 2 && text.front() == '"' && text.back() == '"') return text.substr(1, text.size() - 2);
  return text;
}

std::string_view ForEachParameter(std::string_view value,
                                  const std::function<void(std::string_view key, std::string_view value)>& visit) {
  std::string_view first;
  bool firstDone = false;
  bool inQuotes = false;
  size_t start = 0;
  for (size_t i = 0; i <= value.size(); ++i) {
    if (i < value.size()) {
      const char c = value[i];
      // A file name such as "a;b.txt" is quoted by every browser; its ';' does not end the parameter.
      if (inQuotes && c == '\\') {
        ++i;
        continue;
      }
      if (c == '"') inQuotes = !inQuotes;
      if (inQuotes || c != ';') continue;
    }
    const std::string_view item = value.substr(start, i - start);
    start = i + 1;
    if (!firstDone) {
      first = TrimView(item);
      firstDone = true;
      continue;
    }
    const size_t equal = item.find('=');
    if (equal == std::string_view::npos) continue;
    visit(TrimView(item.substr(0, equal)), StripQuotes(TrimView(item.substr(equal + 1))));
  }
  return first;
}

size_t FindDelimiter(const char* data, size_t size, std::string_view delimiter, bool& complete) {
  complete = false;
  size_t at = 0;
  while (at < size) {
    // The first byte is found with memchr, which scans far faster than a byte loop; only its hits are
    // compared in full. A failed match restarts one byte later, so CR LF CR LF "--" B is found.
    const void* hit = std::memchr(data + at, delimiter[0], size - at);
    if (hit == nullptr) return size;
    at = static_cast<size_t>(static_cast<const char*>(hit) - data);
    const size_t left = size - at;
    if (left < delimiter.size()) {
      if (std::memcmp(data + at, delimiter.data(), left) == 0) return at;
    } else if (std::memcmp(data + at, delimiter.data(), delimiter.size()) == 0) {
      complete = true;
      return at;
    }
    ++at;
  }
  return size;
}

size_t FindBlankLine(const char* data, size_t size, size_t from) {
  const std::string_view text(data, size);
  const size_t at = text.find("\r\n\r\n", from);
  return at == std::string_view::npos ? size : at;
}

PartHeaderFault ParsePartHeader(std::string_view block, const PartHeaderRules& rules, PartFields fields,
                                std::string& detail) {
  while (!block.empty()) {
    const size_t end = block.find("\r\n");
    const std::string_view line = block.substr(0, end);
    block = end == std::string_view::npos ? std::string_view() : block.substr(end + 2);

    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) {
      detail.assign(line);
      return PartHeaderFault::kMissingColon;
    }
    const std::string_view name = TrimView(line.substr(0, colon));
    const std::string_view value = TrimView(line.substr(colon + 1));
    // Bytes >= 0x80 pass: UTF-8 file names are common, and the check reads bytes as unsigned.
    if (kxStringUtils::ContainsAsciiNonPrintableChar(name) || kxStringUtils::ContainsAsciiNonPrintableChar(value)) {
      return PartHeaderFault::kBadBytes;
    }

    if (kxStringUtils::EqualsIgnoreAsciiCase(name, "content-disposition")) {
      if (rules.requireFormData && value.substr(0, 10) != "form-data;") {
        detail.assign(value);
        return PartHeaderFault::kNotFormData;
      }
      PartHeaderFault fault = PartHeaderFault::kNone;
      ForEachParameter(value, [&](std::string_view key, std::string_view parameter) {
        const bool isName = kxStringUtils::EqualsIgnoreAsciiCase(key, "name");
        const bool isFileName = kxStringUtils::EqualsIgnoreAsciiCase(key, "filename");
        if (!isName && !isFileName) return;
        if (fault == PartHeaderFault::kNone && (isFileName || rules.checkNameUtf8) &&
            !kxStringUtils::IsValidUtf8(parameter)) {
          fault = PartHeaderFault::kUtf8;
          detail.assign(parameter);
        }
        (isName ? fields.name : fields.fileName).assign(parameter);
      });
      if (fault != PartHeaderFault::kNone) return fault;
      continue;
    }

    std::list<std::string> values;
    if (!HttpHeaders::ParseMultiValueHeader(std::string(value).c_str(), values)) return PartHeaderFault::kSplit;
    const std::string key(name);
    fields.headers.addHeaderValues(key, values);
    if (kxStringUtils::EqualsIgnoreAsciiCase(name, "content-type")) fields.contentType.assign(value);
  }
  return PartHeaderFault::kNone;
}

}  // namespace detail
}  // namespace http
}  // namespace kx
