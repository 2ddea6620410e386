// What the two multipart parsers (the pull MultiPartIterator and the push MultiPartSaxParser) read the
// same way: header parameters ("form-data; name=\"a\"", "multipart/mixed; boundary=x"), a part's
// header block and the search for the delimiter that ends a part's data. Sharing them keeps the two
// parsers from drifting apart on what they accept from peers.
#pragma once

#include <kx/http/HttpHeaders.h>

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace kx {
namespace http {
namespace detail {

// Splits a header value at ';' outside double-quoted runs and returns its first item (the media type or
// disposition type), trimmed. Each later item holding '=' is cut at its first '=' and handed to `visit`
// with key and value trimmed, and one pair of double quotes around the value removed: peers write
// "; name=", ";name=" and "; name = x" alike, and quote values (or not) as they please.
std::string_view ForEachParameter(std::string_view value,
                                  const std::function<void(std::string_view key, std::string_view value)>& visit);

// `text` without one pair of surrounding double quotes, when it both starts and ends with one.
std::string_view StripQuotes(std::string_view text);

// Where `delimiter` (CR LF "--" boundary) starts in data[0, size): the offset of the first full match
// (`complete` true), else the offset of a tail of the data that is the beginning of the delimiter and
// may complete with the next bytes (`complete` false), else `size`. Bytes before the offset are
// certainly not part of a delimiter.
size_t FindDelimiter(const char* data, size_t size, std::string_view delimiter, bool& complete);

// The offset of the first CR LF CR LF in data[from, size), or `size`.
size_t FindBlankLine(const char* data, size_t size, size_t from);

// Why a part header block was refused.
enum class PartHeaderFault {
  kNone,
  kMissingColon,  // a line without ':'
  kBadBytes,      // a control byte in a name or value
  kNotFormData,   // Content-Disposition does not start with "form-data;"
  kSplit,         // a value with an unclosed double quote
  kUtf8,          // a name or file name that is not valid UTF-8
};

struct PartHeaderRules {
  bool requireFormData;  // Content-Disposition must be "form-data;..."
  bool checkNameUtf8;    // the name must be UTF-8 as well as the file name
};

// The fields of one part. The parser owns them; ParsePartHeader fills them.
struct PartFields {
  HttpHeaders& headers;
  std::string& name;
  std::string& fileName;
  std::string& contentType;
};

// Parses the header block of a part: the lines between the CR LF after the boundary and the blank line,
// separated by CR LF (an empty block has no line). Each line is cut at its first ':' into a trimmed name
// and value. Content-Disposition gives the name and file name; every other header goes, split at
// commas, into `fields.headers`; Content-Type is also the part's content type, as written. On failure
// `detail` holds the refused line or value.
PartHeaderFault ParsePartHeader(std::string_view block, const PartHeaderRules& rules, PartFields fields,
                                std::string& detail);

}  // namespace detail
}  // namespace http
}  // namespace kx
