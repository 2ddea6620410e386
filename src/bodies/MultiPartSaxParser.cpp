#include <kx/http/MultiPartSaxParser.h>

#include <kx/system/kxLog.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "bodies/MultiPartHeaderFields.h"
#include "bodies/MultiPartParseError.h"

namespace kx {
namespace http {

using detail::FormatMultiPartError;
using detail::MultiPartError;

namespace {

constexpr std::string_view kFormDataPrefix = "multipart/form-data; boundary=";
constexpr std::string_view kMixedPrefix = "multipart/mixed; boundary=";
constexpr size_t kMaxBoundary = 256;
// The Part sets no limit on a part header; without one a peer could make the work buffer grow without
// end. 64 KiB is far above what browsers, curl and mail agents write.
constexpr size_t kMaxPartHeader = 64 * 1024;
// While bytes are pending from an earlier piece, the new piece is joined to them this much at a time,
// so that a large piece is copied only up to where the pending bytes are decided.
constexpr size_t kJoinStep = 4096;

bool IsUsableBoundary(std::string_view token, bool quoted) {
  if (token.empty() || token.size() > kMaxBoundary) return false;
  for (const char c : token) {
    const auto u = static_cast<unsigned char>(c);
    if (u < 0x20 || u >= 0x7F || c == '"') return false;
    if (!quoted && (c == ' ' || c == ';')) return false;
  }
  return true;
}

}  // namespace

MultiPartSaxParser::MultiPartSaxParser(const HttpHeaders& responseHeaders, std::vector<char>& workBuffer)
    : kxIoDevice(DW_Write), responseHeaders_(responseHeaders), work_(workBuffer) {
  work_.clear();
}

MultiPartSaxParser::~MultiPartSaxParser() = default;

size_t MultiPartSaxParser::readBytes(char* /*buffer*/, size_t /*size*/) {
  setDeviceError(FormatMultiPartError(MultiPartError::kReadNotImplemented));
  return 0;
}

bool MultiPartSaxParser::atEnd() const {
  kxLog::log(kLogTypeError, "multipart", FormatMultiPartError(MultiPartError::kAtEndNotImplemented));
  return false;
}

bool MultiPartSaxParser::isAllDataConsumed() const {
  return !hasDeviceError() && (type_ == MPT_Unknown || state_ == State::kAfterLastBoundary);
}

bool MultiPartSaxParser::readContentType() {
  const std::list<std::string>* values = responseHeaders_.find("content-type");
  if (values == nullptr || values->empty()) {
    setDeviceError(FormatMultiPartError(MultiPartError::kMissingContentType));
    return false;
  }
  if (values->size() > 1) {
    setDeviceError(FormatMultiPartError(MultiPartError::kMultipleContentType));
    return false;
  }
  const std::string& value = values->front();
  const std::string_view text(value);
  MultiPartType type = MPT_Unknown;
  std::string_view token;
  if (text.substr(0, kFormDataPrefix.size()) == kFormDataPrefix) {
    type = MPT_FormData;
    token = text.substr(kFormDataPrefix.size());
  } else if (text.substr(0, kMixedPrefix.size()) == kMixedPrefix) {
    type = MPT_Mixed;
    token = text.substr(kMixedPrefix.size());
  } else {
    setDeviceError(FormatMultiPartError(MultiPartError::kContentTypePrefix, {value}));
    return false;
  }
  const std::string_view unquoted = detail::StripQuotes(token);
  if (!IsUsableBoundary(unquoted, unquoted.size() != token.size())) {
    setDeviceError(FormatMultiPartError(MultiPartError::kInvalidBoundary, {value}));
    return false;
  }
  delimiter_ = "\r\n--";
  delimiter_.append(unquoted);
  type_ = type;
  return true;
}

size_t MultiPartSaxParser::writeBytes(const char* data, size_t size) {
  if (!writeAllowed() || size == 0) return 0;
  if (type_ == MPT_Unknown && !readContentType()) return 0;
  size_t offset = 0;
  // Bytes left from the last piece (a possible delimiter start, an unfinished part header) are parsed
  // joined with the start of this one; once they are decided, the rest is parsed where it lies.
  while (!work_.empty() && offset < size) {
    const size_t kept = work_.size();
    const size_t take = std::min(size - offset, kJoinStep);
    work_.insert(work_.end(), data + offset, data + offset + take);
    const size_t used = parse(work_.data(), work_.size());
    if (hasDeviceError()) return 0;
    if (used >= kept) {
      offset += used - kept;
      work_.clear();
    } else {
      work_.erase(work_.begin(), work_.begin() + static_cast<std::ptrdiff_t>(used));
      offset += take;
    }
  }
  if (offset < size) {
    const size_t used = parse(data + offset, size - offset);
    if (hasDeviceError()) return 0;
    work_.assign(data + offset + used, data + size);
  }
  return size;
}

size_t MultiPartSaxParser::parse(const char* data, size_t size) {
  size_t at = 0;
  while (!hasDeviceError()) {
    const State before = state_;
    size_t used = 0;
    switch (state_) {
      case State::kBeforeFirstBoundary:
        used = parseStart(data + at, size - at);
        break;
      case State::kAfterBoundary:
        if (size - at < 2) return at;
        if (data[at] == '\r' && data[at + 1] == '\n') {
          // The CR LF stays: it opens the header block, and is the first half of the blank line when
          // the part has no header.
          state_ = State::kPartHeader;
          headerSearched_ = 0;
        } else if (data[at] == '-' && data[at + 1] == '-') {
          state_ = State::kAfterLastBoundary;
          used = 2;
        } else {
          setDeviceError(FormatMultiPartError(MultiPartError::kAfterBoundary));
        }
        break;
      case State::kPartHeader:
        used = parseHeader(data + at, size - at);
        break;
      case State::kPartData:
        used = parseData(data + at, size - at);
        break;
      case State::kAfterLastBoundary:
        used = parseTail(data + at, size - at);
        break;
      default:
        setDeviceError(FormatMultiPartError(MultiPartError::kUnhandledState));
        break;
    }
    at += used;
    if (used == 0 && state_ == before) break;
  }
  return at;
}

size_t MultiPartSaxParser::parseStart(const char* data, size_t size) {
  const std::string_view boundaryLine = std::string_view(delimiter_).substr(2);  // "--" boundary
  if (atBodyStart_) {
    if (size < 2) return 0;
    if (data[0] == '-' && data[1] == '-') {
      // A body that opens with "--" opens with its boundary line: judge it once the line or as many
      // bytes as the boundary line are here, so the text does not depend on the piece sizes.
      const size_t look = std::min(size, boundaryLine.size());
      const auto* cr = static_cast<const char*>(std::memchr(data, '\r', look));
      if (cr == nullptr && look < boundaryLine.size()) return 0;
      if (cr != nullptr || std::memcmp(data, boundaryLine.data(), boundaryLine.size()) != 0) {
        const size_t found = cr != nullptr ? static_cast<size_t>(cr - data) : look;
        setDeviceError(
            FormatMultiPartError(MultiPartError::kBoundaryMismatch, {std::string_view(data, found), boundaryLine}));
        return 0;
      }
      atBodyStart_ = false;
      state_ = State::kAfterBoundary;
      return boundaryLine.size();
    }
    atBodyStart_ = false;
  }
  // A preamble: skipped up to the first delimiter.
  bool complete = false;
  const size_t at = detail::FindDelimiter(data, size, delimiter_, complete);
  if (!complete) return at;
  state_ = State::kAfterBoundary;
  return at + delimiter_.size();
}

size_t MultiPartSaxParser::parseHeader(const char* data, size_t size) {
  const size_t blank = detail::FindBlankLine(data, size, headerSearched_);
  // The limit holds whatever the pieces: a block still open at the limit can only end beyond it.
  if ((blank == size && size >= kMaxPartHeader) || (blank < size && blank + 4 > kMaxPartHeader)) {
    setDeviceError(FormatMultiPartError(MultiPartError::kSaxHeaderTooBig));
    return 0;
  }
  if (blank == size) {
    headerSearched_ = size >= 3 ? size - 3 : 0;
    return 0;
  }
  partHeaders_.clear();
  partName_.clear();
  partFileName_.clear();
  partContentType_.clear();
  const std::string_view block = blank == 0 ? std::string_view() : std::string_view(data + 2, blank - 2);
  std::string detailText;
  const detail::PartHeaderFault fault =
      detail::ParsePartHeader(block, {/*requireFormData=*/type_ == MPT_FormData, /*checkNameUtf8=*/true},
                              {partHeaders_, partName_, partFileName_, partContentType_}, detailText);
  switch (fault) {
    case detail::PartHeaderFault::kNone:
      break;
    case detail::PartHeaderFault::kMissingColon:
      setDeviceError(FormatMultiPartError(MultiPartError::kHeaderColon, {detailText}));
      return 0;
    case detail::PartHeaderFault::kBadBytes:
      setDeviceError(FormatMultiPartError(MultiPartError::kSaxHeaderBytes));
      return 0;
    case detail::PartHeaderFault::kNotFormData:
      setDeviceError(FormatMultiPartError(MultiPartError::kSaxNotFormData, {detailText}));
      return 0;
    case detail::PartHeaderFault::kSplit:
      setDeviceError(FormatMultiPartError(MultiPartError::kSplitHeader));
      return 0;
    case detail::PartHeaderFault::kUtf8:
      setDeviceError(FormatMultiPartError(MultiPartError::kUtf8, {detailText}));
      return 0;
  }
  state_ = State::kPartData;
  keepGoing(onPartBegin());
  return blank + 4;
}

size_t MultiPartSaxParser::parseData(const char* data, size_t size) {
  bool complete = false;
  const size_t at = detail::FindDelimiter(data, size, delimiter_, complete);
  if (at > 0 && !keepGoing(onPartData(data, at))) return at;
  if (!complete) return at;
  state_ = State::kAfterBoundary;
  keepGoing(onPartEnd());
  return at + delimiter_.size();
}

size_t MultiPartSaxParser::parseTail(const char* data, size_t size) {
  for (size_t i = 0; i < size; ++i, ++tailBytes_) {
    if (tailBytes_ >= 2) {
      setDeviceError(FormatMultiPartError(MultiPartError::kTailTooMany));
      return i;
    }
    if (data[i] != (tailBytes_ == 0 ? '\r' : '\n')) {
      setDeviceError(FormatMultiPartError(MultiPartError::kTailNotCrlf));
      return i;
    }
  }
  return size;
}

bool MultiPartSaxParser::keepGoing(bool handlerResult) {
  if (!handlerResult && !hasDeviceError()) setDeviceError(FormatMultiPartError(MultiPartError::kHandlerStopped));
  return handlerResult;
}

}  // namespace http
}  // namespace kx
