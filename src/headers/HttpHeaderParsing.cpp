// The static parsers of HttpHeaders: raw header lines, comma-separated values and key=value items.
// Their inputs are bytes from servers, so every step works on explicit lengths and ASCII-only
// classification: the C isspace/tolower depend on the process locale and are undefined for bytes
// >= 0x80 when char is signed.
#include <kx/http/HttpHeaders.h>

#include <cstring>
#include <string_view>

namespace kx {
namespace http {

namespace {

// Headers whose values are dates or single URIs/hosts: their commas ("Tue, 15 Nov 1994 ...") are part
// of the value, so splitting them would tear one value into meaningless pieces.
constexpr std::string_view kSingleValueHeaders[] = {
    "date",         "host",          "content-location",  "expires",
    "last-modified", "retry-after",  "accept-datetime",   "if-modified-since",
    "if-unmodified-since"};

bool IsSingleValueHeader(std::string_view name) {
  for (const std::string_view candidate : kSingleValueHeaders) {
    if (candidate == name) return true;
  }
  return false;
}

// Same rule as kxStringUtils::TrimView (exactly the six C-locale blanks), kept inline here: header
// lines are split on every response, and the out-of-line call per byte was a fifth of the split time.
constexpr bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

std::string_view TrimBlanks(std::string_view text) {
  size_t begin = 0;
  size_t end = text.size();
  while (begin < end && IsBlank(text[begin])) ++begin;
  while (end > begin && IsBlank(text[end - 1])) --end;
  return text.substr(begin, end - begin);
}

// Bytes that change the splitter's state outside a quoted run; every other byte is skipped in bulk.
constexpr bool IsSpecialOutsideQuotes(char c) { return c == ',' || c == '"' || c == '\\'; }

// Appends trimmed items to a value list. SplitHttpHeader recycles the nodes (and string buffers) of the
// list it was given, so a header callback that reuses one list for every line stops allocating once
// the list has grown to fit.
class ValueAppender {
 public:
  enum class Start { kAppend, kRecycle };

  // kAppend keeps what `values` holds; kRecycle empties it and keeps its nodes for reuse.
  ValueAppender(std::list<std::string>& values, Start start) : values_(values) {
    if (start == Start::kRecycle) spare_.swap(values_);
  }

  void append(std::string_view item) {
    item = TrimBlanks(item);
    if (spare_.empty()) {
      values_.emplace_back(item);
      return;
    }
    values_.splice(values_.end(), spare_, spare_.begin());
    values_.back().assign(item);
  }

  void fail() { values_.clear(); }

 private:
  std::list<std::string>& values_;
  std::list<std::string> spare_;
};

bool ParseMultiValueRange(std::string_view text, ValueAppender& values) {
  bool inQuotes = false;
  bool escaped = false;
  size_t itemStart = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (!inQuotes) {
      while (i < text.size() && !IsSpecialOutsideQuotes(text[i])) ++i;
      if (i == text.size()) break;
    }
    const char c = text[i];
    if (inQuotes) {
      if (c == '\\') {
        escaped = !escaped;  // "\\" is one literal backslash, so the pair leaves the flag clear
      } else if (c == '"') {
        if (escaped) {
          escaped = false;
        } else {
          inQuotes = false;
        }
      } else {
        escaped = false;
      }
    } else if (c == '\\') {
      // Nothing outside quotes clears this again, so a backslash before the first quote keeps every
      // later quote of the text from opening a run. Kept on purpose: values already stored by callers
      // were split this way, and a changed rule would split the same header differently.
      escaped = true;
    } else if (c == '"') {
      if (!escaped) inQuotes = true;
    } else if (c == ',') {
      values.append(text.substr(itemStart, i - itemStart));
      itemStart = i + 1;
    }
  }
  if (inQuotes) {
    values.fail();
    return false;
  }
  values.append(text.substr(itemStart));
  return true;
}

}  // namespace

bool HttpHeaders::ParseMultiValueHeader(const char* text, std::list<std::string>& values) {
  if (text == nullptr) {
    values.clear();
    return false;
  }
  ValueAppender appender(values, ValueAppender::Start::kAppend);
  return ParseMultiValueRange(std::string_view(text, std::strlen(text)), appender);
}

bool HttpHeaders::SplitHttpHeader(const char* line, size_t length, std::string& name,
                                  std::list<std::string>& values) {
  name.clear();
  ValueAppender appender(values, ValueAppender::Start::kRecycle);
  if (line == nullptr) return false;
  // The line ends at its first NUL, as the C string of ParseMultiValueHeader does: a NUL is never part of
  // a name or value, so nothing downstream can see "Host: a\0b" as one host and C code as another.
  const void* nul = std::memchr(line, '\0', length);
  if (nul != nullptr) length = static_cast<size_t>(static_cast<const char*>(nul) - line);
  const std::string_view text(line, length);

  const size_t colon = text.find(':');
  if (colon == std::string_view::npos) {
    // A status line ("HTTP/1.1 200 OK") or the blank line that ends the header block.
    name.assign(TrimBlanks(text));
    return !name.empty();
  }

  name.assign(TrimBlanks(text.substr(0, colon)));
  for (char& c : name) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');  // ASCII only, as AsciiToLower
  }

  if (colon + 1 == text.size()) return !name.empty();

  // Blank after the ':' still counts as a value: "Name:\r\n" gives one empty value, "Name:" none.
  const std::string_view value = TrimBlanks(text.substr(colon + 1));
  if (IsSingleValueHeader(name)) {
    appender.append(value);
    return !name.empty();
  }
  if (!ParseMultiValueRange(value, appender)) return false;
  return !name.empty();
}

bool HttpHeaders::ExtractHeaderKeyPairValues(const std::list<std::string>& items,
                                             std::map<std::string, std::string>& pairs) {
  for (const std::string& item : items) {
    if (item.empty()) return false;
    const size_t equal = item.find('=');
    if (equal == std::string::npos) return false;
    const std::string_view view(item);
    // try_emplace never overwrites: the first value of a repeated key wins, and a repeat is an error
    // rather than a silent choice between two parameters.
    const bool inserted = pairs
                              .try_emplace(std::string(TrimBlanks(view.substr(0, equal))),
                                           TrimBlanks(view.substr(equal + 1)))
                              .second;
    if (!inserted) return false;
  }
  return true;
}

}  // namespace http
}  // namespace kx
