// The failure texts of the two multipart parsers (MultiPartIterator, MultiPartSaxParser), one enum and
// one table, so that the parsers branch on the enum and a golden test pins every text. A text that
// carries values is stored as the pieces around them: piece 0, value 0, piece 1, value 1, ... The part
// number of the iterator's texts is such a value.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

namespace kx {
namespace http {
namespace detail {

enum class MultiPartError {
  // Pull parser (MultiPartIterator).
  kContentTypeCount,       // no value
  kContentTypeEmpty,       // no value
  kNotMultipart,           // no value
  kBoundaryMissing,        // no value
  kBoundaryTooLong,        // no value
  kNeedBuffer,             // no value
  kNoBuffer,               // no value
  kInputError,             // the input device's text
  kNotEnoughData,          // part number
  kPreviousNotConsumed,    // no value
  kCrlfShort,              // part number
  kCrlfExpected,           // part number
  kBadBoundary,            // part number
  kBadBoundaryShort,       // part number
  kTailShort,              // part number
  kTailTooLong,            // part number
  kHeaderStart,            // part number
  kHeaderTooBig,           // part number
  kHeaderEndMissing,       // part number
  kHeaderLine,             // part number
  kHeaderBytes,            // part number
  kNotFormData,            // part number
  kSplitHeader,            // no value (both parsers)
  kUtf8,                   // the refused value (both parsers)
  kNameEmpty,              // part number
  kUnknownName,            // part number
  kContentTypeRefused,     // part number, the part's type, the allowed types
  kTooManyData,            // part number
  kOpenFile,               // path, part number
  // Push parser (MultiPartSaxParser).
  kReadNotImplemented,     // no value
  kAtEndNotImplemented,    // no value (a log text)
  kMissingContentType,     // no value
  kMultipleContentType,    // no value
  kContentTypePrefix,      // the received value
  kInvalidBoundary,        // the received value
  kAfterBoundary,          // no value
  kBoundaryMismatch,       // what was found, the expected delimiter
  kHeaderColon,            // the line
  kSaxHeaderBytes,         // no value
  kSaxNotFormData,         // the disposition value
  kSaxHeaderTooBig,        // no value
  kTailTooMany,            // no value
  kTailNotCrlf,            // no value
  kHandlerStopped,         // no value
  kUnhandledState,         // no value
};

// The text with `values` put between its pieces; missing values count as empty, extra ones are ignored.
std::string FormatMultiPartError(MultiPartError error, std::initializer_list<std::string_view> values = {});
// The text of an error whose only value is a part number.
std::string FormatMultiPartError(MultiPartError error, uint64_t part);

}  // namespace detail
}  // namespace http
}  // namespace kx
