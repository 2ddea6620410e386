// Input: one byte for the pull parser's buffer (4 to 64 KiB), one seeding the piece sizes, the
// Content-Type value up to a line feed, then the body. Both parsers read the body in pieces; the push
// parser also reads it whole. A body the pull parser accepts must be accepted by the push parser with
// the same parts and bytes (the pull parser is the stricter one on purpose: no preamble, form-data
// disposition required, part header bounded by its buffer), and the push parser must answer the same
// whatever the pieces.
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
  const fuzz::Parsed whole = fuzz::PushParse(contentType, body, fuzz::Pieces(0, body.size()));
  if (push.accepted != whole.accepted || (push.accepted && push.parts != whole.parts))
    fuzz::Fail("push parser answers differently for another cut");
  if (pull.accepted && !(push.accepted && push.parts == pull.parts)) fuzz::Fail("pull parser accepted, push parser differs");
  return 0;
}
