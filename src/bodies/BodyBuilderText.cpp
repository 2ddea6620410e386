#include "bodies/BodyBuilderText.h"

namespace kx {
namespace http {
namespace detail {

std::string_view BodyBuilderTextOf(BodyBuilderText text) {
  // No default on purpose: -Wswitch flags a text left out. "writeBytes is not implemented" differs from
  // the device family's "writeBytes not implemented"; both spellings are what callers match.
  switch (text) {
    case BodyBuilderText::kReadNotImplemented: return "readBytes not implemented";
    case BodyBuilderText::kWriteNotImplemented: return "writeBytes is not implemented";
    case BodyBuilderText::kChunkSizeZero: return "invalid maximum chunk size 0";
    // The text std::vector::reserve gives its length error, which callers of the chunked device know.
    case BodyBuilderText::kChunkSizeTooLarge: return "vector::reserve";
    case BodyBuilderText::kMissingDisposition: return "Missing content disposition with boundary";
    case BodyBuilderText::kBuilderMisuse: return "Misuse of multipart builder";
    case BodyBuilderText::kSourceFileOpenFailed: return "Failed to open multipart source file ";
    case BodyBuilderText::kCreateDeviceFailed: return "failed to create device (idx ";
    case BodyBuilderText::kSourceReadFailed: return "MultiPartBuilder device has error, read failed ";
  }
  return "unknown body builder error";
}

std::string BodyBuilderTextOf(BodyBuilderText text, std::string_view value) {
  std::string out(BodyBuilderTextOf(text));
  out.append(value);
  if (text == BodyBuilderText::kCreateDeviceFailed) out.push_back(')');
  return out;
}

}  // namespace detail
}  // namespace http
}  // namespace kx
