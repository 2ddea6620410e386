#include "bodies/MultiPartParseError.h"

#include <array>

namespace kx {
namespace http {
namespace detail {
namespace {

// The pieces around a text's values: pieces[0] value0 pieces[1] value1 ... pieces[values].
struct Pieces {
  int values;
  std::array<std::string_view, 4> pieces;
};

Pieces PiecesOf(MultiPartError error) {
  // No default on purpose: -Wswitch flags an error without its text. Two texts differ only by the case
  // of their first letter ("Not enough data" while data are needed, "not enough data" for a cut tail
  // after the closing boundary); callers match them as they are.
  switch (error) {
    case MultiPartError::kContentTypeCount:
      return {0, {"missing or multiple Content-Type"}};
    case MultiPartError::kContentTypeEmpty:
      return {0, {"Content-Type header is empty"}};
    case MultiPartError::kNotMultipart:
      return {0, {"Content-Type should be multipart/form-data or multipart/mixed"}};
    case MultiPartError::kBoundaryMissing:
      return {0, {"Content-Type boundary is missing or empty"}};
    case MultiPartError::kBoundaryTooLong:
      return {0, {"boundary is too long (limited to 256B)"}};
    case MultiPartError::kNeedBuffer:
      return {0, {"Need a temporary buffer"}};
    case MultiPartError::kNoBuffer:
      return {0, {"No buffer provided"}};
    case MultiPartError::kInputError:
      return {1, {"Input device is in error "}};
    case MultiPartError::kNotEnoughData:
      return {1, {"Not enough data, part #"}};
    case MultiPartError::kPreviousNotConsumed:
      return {0, {"Previous part data was not fully consumed"}};
    case MultiPartError::kCrlfShort:
      return {1, {"not enough data for CRLF before boundary, part #"}};
    case MultiPartError::kCrlfExpected:
      return {1, {"expected CRLF before boundary, part #"}};
    case MultiPartError::kBadBoundary:
      return {1, {"bad boundary, part #"}};
    case MultiPartError::kBadBoundaryShort:
      return {1, {"bad boundary not enough data, part #"}};
    case MultiPartError::kTailShort:
      return {1, {"not enough data, part #"}};
    case MultiPartError::kTailTooLong:
      return {1, {"too many data, part #"}};
    case MultiPartError::kHeaderStart:
      return {1, {"Invalid part header (should start with CRLF), part #"}};
    case MultiPartError::kHeaderTooBig:
      return {1, {"Part header is too big, part #"}};
    case MultiPartError::kHeaderEndMissing:
      return {1, {"Fail to locate end of part header, part #"}};
    case MultiPartError::kHeaderLine:
      return {1, {"Invalid part header, part #"}};
    case MultiPartError::kHeaderBytes:
      return {1, {"Invalid bytes in header, part #"}};
    case MultiPartError::kNotFormData:
      return {1, {"Content-Disposition should be form-data, part #"}};
    case MultiPartError::kSplitHeader:
      return {0, {"Failed to split multivalue part header"}};
    case MultiPartError::kUtf8:
      return {1, {"Fail to parse ", " string"}};
    case MultiPartError::kNameEmpty:
      return {1, {"name is empty, part #"}};
    case MultiPartError::kUnknownName:
      return {1, {"unknown name, part #"}};
    case MultiPartError::kContentTypeRefused:
      return {3, {"invalid content-type, part #", " got '", "' expected "}};
    case MultiPartError::kTooManyData:
      return {1, {"too many data in part #"}};
    case MultiPartError::kOpenFile:
      return {2, {"Fail to open '", "', part "}};
    case MultiPartError::kReadNotImplemented:
      return {0, {"read not implemented"}};
    case MultiPartError::kAtEndNotImplemented:
      return {0, {"Not implemented : MultiPartSaxParser::atEnd"}};
    case MultiPartError::kMissingContentType:
      return {0, {"Missing content-type header in http response"}};
    case MultiPartError::kMultipleContentType:
      return {0, {"Multiple content-type header in http response"}};
    case MultiPartError::kContentTypePrefix:
      return {1,
              {"Content-Type should start with 'multipart/form-data; boundary=' or 'multipart/mixed; boundary=', "
               "received "}};
    case MultiPartError::kInvalidBoundary:
      return {1, {"Invalid boundary in Content-Type "}};
    case MultiPartError::kAfterBoundary:
      return {0, {"Unexpected data after boundary"}};
    case MultiPartError::kBoundaryMismatch:
      return {2, {"Invalid boundary, got ", ", expected "}};
    case MultiPartError::kHeaderColon:
      return {1, {"Unexpected part header, missing ':' "}};
    case MultiPartError::kSaxHeaderBytes:
      return {0, {"Invalid bytes in header"}};
    case MultiPartError::kSaxNotFormData:
      return {1, {"Content-Disposition should be form-data "}};
    case MultiPartError::kSaxHeaderTooBig:
      return {0, {"Part header is too big"}};
    case MultiPartError::kTailTooMany:
      return {0, {"Got unexpected data after last boundary (too many bytes)"}};
    case MultiPartError::kTailNotCrlf:
      return {0, {"Got unexpected data after last boundary (expect no data or CRLF)"}};
    case MultiPartError::kHandlerStopped:
      return {0, {"Multipart part handler stopped the parse"}};
    case MultiPartError::kUnhandledState:
      return {0, {"Unhandled enum"}};
  }
  return {0, {"unknown multipart error"}};
}

}  // namespace

std::string FormatMultiPartError(MultiPartError error, std::initializer_list<std::string_view> values) {
  const Pieces entry = PiecesOf(error);
  std::string text(entry.pieces[0]);
  auto value = values.begin();
  for (int i = 0; i < entry.values; ++i) {
    if (value != values.end()) text += *value++;
    text += entry.pieces[static_cast<size_t>(i) + 1];
  }
  return text;
}

std::string FormatMultiPartError(MultiPartError error, uint64_t part) {
  return FormatMultiPartError(error, {std::to_string(part)});
}

}  // namespace detail
}  // namespace http
}  // namespace kx
