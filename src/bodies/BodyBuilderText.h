// The texts the body builders (chunked framing, multipart builders) leave in device errors and log
// records, one enum and one table, so that the code branches on the enum and a test pins every text.
#pragma once

#include <string>
#include <string_view>

namespace kx {
namespace http {
namespace detail {

enum class BodyBuilderText {
  kReadNotImplemented,    // reading a write-only builder
  kWriteNotImplemented,   // writing the pull builder
  kChunkSizeZero,         // a maximum chunk size of 0
  kChunkSizeTooLarge,     // a maximum chunk size above the largest signed 32-bit value
  kMissingDisposition,    // a part boundary without a name
  kBuilderMisuse,         // a first boundary where other boundaries already stand
  kSourceFileOpenFailed,  // + the path
  kCreateDeviceFailed,    // + the count of sources opened before, then ")"
  kSourceReadFailed,      // + the source device's error text
};

// The fixed text of `text`.
std::string_view BodyBuilderTextOf(BodyBuilderText text);
// The fixed text with `value` put in its place (at the end, or before the closing parenthesis).
std::string BodyBuilderTextOf(BodyBuilderText text, std::string_view value);

// Log category of the multipart builders.
inline constexpr std::string_view kMultipartLogCategory = "multipart";

}  // namespace detail
}  // namespace http
}  // namespace kx
