// Input: one byte for the pull parser's buffer (4 to 64 KiB), one seeding the piece sizes, the
// Content-Type value up to a line feed, then the body. Both parsers read the body in pieces; the push
// parser also reads it whole. A body the pull parser accepts must be accepted by the push parser with
// the same parts and bytes (the pull parser is the stricter one on purpose: no preamble, form-data
// disposition required, part header bounded by its buffer) except for bodies with a "name=" line that
// is not UTF-8 (only the push parser checks names), and for a Content-Type other than exactly "multipart/form-data; boundary="
// or "multipart/mixed; boundary=" then a printable ASCII boundary, which only the pull parser reads (media types compared
// without case, blanks); and the push parser must answer the same whatever the pieces.
#include <kx/system/kxStringUtils.h>

#include <algorithm>
#include <cstdint>

#include "multipart_fuzz_run.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const std::string_view rest(reinterpret_cast<const char*>(data) + 2, size - 2);
  const size_t line = rest.find('\n');
  if (line == std::string_view::npos) return 0;
  const std::string contentType(rest.substr(0, line));
  const std::string_view body = rest.substr(line + 1);
  const size_t bufferSize = 4096 + size_t{data[0]} * 15 * 4096 / 255;
  const fuzz::Parsed pull = fuzz::PullParse(contentType, body, fuzz::Pieces(data[1], data[1] % 64 + 1), bufferSize);
  const fuzz::Parsed push = fuzz::PushParse(contentType, body, fuzz::Pieces(data[1], data[1] % 16 + 1));
  const fuzz::Parsed other = fuzz::PushParse(contentType, body, fuzz::Pieces(0, body.size()));
  if (push.accepted != other.accepted || (push.accepted && push.parts != other.parts))
    fuzz::Fail("push parser answers differently for another cut");
  bool utf8Names = true;
  for (size_t at = 0, end; at < body.size(); at = end + 1) {
    end = std::min(body.find('\n', at), body.size());
    const std::string_view line = body.substr(at, end - at);
    if (line.find("ame=") != std::string_view::npos && !kx::kxStringUtils::IsValidUtf8(line)) utf8Names = false;
  }
  const bool exactType = contentType.rfind("multipart/form-data; boundary=", 0) == 0 ||
                         contentType.rfind("multipart/mixed; boundary=", 0) == 0;
  const bool printableType = !kx::kxStringUtils::ContainsAsciiNonPrintableChar(contentType) &&
                             std::all_of(contentType.begin(), contentType.end(), [](char c) { return c > 0; });
  if (pull.accepted && utf8Names && exactType && printableType && !(push.accepted && push.parts == pull.parts)) fuzz::Fail("pull parser accepted, push parser differs");
  return 0;
}
