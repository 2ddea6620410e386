#include <kx/http/MultiPartIterator.h>

#include <kx/system/kxIoDeviceFileStream.h>
#include <kx/system/kxStringUtils.h>

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

constexpr size_t kMaxBoundary = 256;
// Below this a buffer could not hold a usual part header, and the look-ahead of nextPart would be a
// handful of bytes; smaller buffers are raised to it rather than refused.
constexpr size_t kMinimumBuffer = 4096;
// How much nextPart buffers before reading a boundary line and part header.
constexpr size_t kHeaderLookAhead = 4096;
// Reads of "nothing now" in a row before the input counts as cut. A device such as a multipart builder
// answers 0 once when it moves to its next source; a pull parser cannot wait for one that stays empty.
constexpr int kEmptyReadLimit = 16;

}  // namespace

MultiPartIterator::MultiPartIterator(kxIoDevice& input, std::shared_ptr<std::vector<char>> buffer,
                                     bool acceptUnknownNames, ExpectedParts expectedParts)
    : kxIoDevice(DW_Read),
      input_(input),
      buffer_(std::move(buffer)),
      acceptUnknownNames_(acceptUnknownNames),
      expectedParts_(std::move(expectedParts)) {
  if (!buffer_) {
    setDeviceError(FormatMultiPartError(MultiPartError::kNeedBuffer));
    return;
  }
  if (buffer_->capacity() < kMinimumBuffer) buffer_->reserve(kMinimumBuffer);
}

MultiPartIterator::MultiPartIterator(kxIoDevice& input, std::shared_ptr<std::vector<char>> buffer,
                                     const std::string& boundary, bool acceptUnknownNames,
                                     ExpectedParts expectedParts)
    : MultiPartIterator(input, std::move(buffer), acceptUnknownNames, std::move(expectedParts)) {
  setBoundary(boundary);
}

MultiPartIterator::MultiPartIterator(kxIoDevice& input, const std::list<std::string>& contentTypeValues,
                                     std::shared_ptr<std::vector<char>> buffer, bool acceptUnknownNames,
                                     ExpectedParts expectedParts)
    : MultiPartIterator(input, std::move(buffer), acceptUnknownNames, std::move(expectedParts)) {
  if (contentTypeValues.size() != 1) {
    setDeviceError(FormatMultiPartError(MultiPartError::kContentTypeCount));
    return;
  }
  std::list<std::string> items;
  if (!HttpHeaders::ParseMultiValueHeader(contentTypeValues.front().c_str(), items) || items.empty() ||
      kxStringUtils::TrimView(items.front()).empty()) {
    setDeviceError(FormatMultiPartError(MultiPartError::kContentTypeEmpty));
    return;
  }
  // A comma outside quotes means the value holds two media types.
  if (items.size() > 1) {
    setDeviceError(FormatMultiPartError(MultiPartError::kContentTypeCount));
    return;
  }
  std::string boundary;
  const std::string_view type =
      detail::ForEachParameter(items.front(), [&boundary](std::string_view key, std::string_view value) {
        if (boundary.empty() && kxStringUtils::EqualsIgnoreAsciiCase(key, "boundary")) boundary.assign(value);
      });
  if (!kxStringUtils::EqualsIgnoreAsciiCase(type, "multipart/form-data") &&
      !kxStringUtils::EqualsIgnoreAsciiCase(type, "multipart/mixed")) {
    setDeviceError(FormatMultiPartError(MultiPartError::kNotMultipart));
    return;
  }
  setBoundary(boundary);
}

MultiPartIterator::~MultiPartIterator() = default;

void MultiPartIterator::setBoundary(const std::string& boundary) {
  if (boundary.empty()) {
    setDeviceError(FormatMultiPartError(MultiPartError::kBoundaryMissing));
  } else if (boundary.size() > kMaxBoundary) {
    setDeviceError(FormatMultiPartError(MultiPartError::kBoundaryTooLong));
  } else {
    delimiter_ = "\r\n--" + boundary;
  }
}

bool MultiPartIterator::fail(const std::string& text) {
  setDeviceError(text);
  return false;
}

const char* MultiPartIterator::data() const { return buffer_->data() + begin_; }

size_t MultiPartIterator::writeBytes(const char* /*data*/, size_t /*size*/) { return 0; }

bool MultiPartIterator::atEnd() const {
  return partEnded_ || allPartsEnded_ || hasDeviceError();
}

void MultiPartIterator::clearPart() {
  partHeaders_.clear();
  partName_.clear();
  partFileName_.clear();
  partContentType_.clear();
  partEnded_ = false;
}

void MultiPartIterator::clearExceptError() {
  clearPart();
  allPartsEnded_ = false;
}

bool MultiPartIterator::loadDataToBuffer(bool dataRequired) {
  if (hasDeviceError()) return false;
  if (!buffer_) return fail(FormatMultiPartError(MultiPartError::kNoBuffer));
  if (input_.hasDeviceError()) {
    return fail(FormatMultiPartError(MultiPartError::kInputError, {input_.getDeviceErrorMsg()}));
  }
  std::vector<char>& buffer = *buffer_;
  if (begin_ > 0) {
    std::memmove(buffer.data(), buffer.data() + begin_, end_ - begin_);
    end_ -= begin_;
    dataEnd_ -= begin_;
    begin_ = 0;
  }
  buffer.resize(buffer.capacity());
  if (end_ == buffer.size()) return false;
  for (int empty = 0; empty < kEmptyReadLimit; ++empty) {
    const size_t n = input_.read(buffer.data() + end_, buffer.size() - end_);
    if (n > 0) {
      end_ += n;
      return true;
    }
    if (input_.hasDeviceError()) {
      return fail(FormatMultiPartError(MultiPartError::kInputError, {input_.getDeviceErrorMsg()}));
    }
    if (input_.atEnd()) break;
  }
  if (dataRequired) fail(FormatMultiPartError(MultiPartError::kNotEnoughData, partCounter_));
  return false;
}

void MultiPartIterator::fillTo(size_t count) {
  while (unread() < count && loadDataToBuffer(false)) {
  }
}

size_t MultiPartIterator::availableData() {
  while (!hasDeviceError()) {
    if (begin_ < dataEnd_) return dataEnd_ - begin_;
    if (delimiterAtDataEnd_) {
      partEnded_ = true;
      return 0;
    }
    bool complete = false;
    dataEnd_ = begin_ + detail::FindDelimiter(data(), unread(), delimiter_, complete);
    delimiterAtDataEnd_ = complete;
    // Nothing certain yet: the buffer is empty or ends with what may become a delimiter. The buffer is
    // far larger than a delimiter, so after compaction there is always room to read more.
    if (dataEnd_ == begin_ && !complete && !loadDataToBuffer(true)) {
      fail(FormatMultiPartError(MultiPartError::kNotEnoughData, partCounter_));
    }
  }
  return 0;
}

size_t MultiPartIterator::readBytes(char* buffer, size_t size) {
  if (!readAllowed() || partCounter_ == 0 || partEnded_ || allPartsEnded_) return 0;
  const size_t n = std::min(size, availableData());
  std::memcpy(buffer, data(), n);
  begin_ += n;
  return n;
}

bool MultiPartIterator::writeCurrentPartToBuffer(std::vector<char>& out, size_t maxSize, bool append) {
  if (!append) out.clear();
  if (hasDeviceError()) return false;
  if (partCounter_ == 0 || allPartsEnded_) return true;
  size_t total = 0;
  for (size_t n = availableData(); n > 0; n = availableData()) {
    if (n > maxSize - total) return fail(FormatMultiPartError(MultiPartError::kTooManyData, partCounter_));
    out.insert(out.end(), data(), data() + n);
    begin_ += n;
    total += n;
  }
  return !hasDeviceError();
}

bool MultiPartIterator::writeCurrentPartToFile(const std::string& path) {
  if (hasDeviceError()) return false;
  kxIoDeviceFileStream file;
  if (!file.open(path, DW_Write)) {
    return fail(FormatMultiPartError(MultiPartError::kOpenFile, {path, std::to_string(partCounter_)}));
  }
  if (partCounter_ > 0 && !allPartsEnded_) {
    for (size_t n = availableData(); n > 0; n = availableData()) {
      if (!file.writeAll(data(), n)) break;
      begin_ += n;
    }
  }
  file.close();
  if (file.hasDeviceError()) return fail(file.getDeviceErrorMsg());
  return !hasDeviceError();
}

bool MultiPartIterator::nextPart() {
  if (hasDeviceError() || allPartsEnded_) return false;
  // Only after a failed construction whose error the caller cleared.
  if (delimiter_.empty()) return fail(FormatMultiPartError(MultiPartError::kBoundaryMissing));
  if (partCounter_ > 0 && !partEnded_ && availableData() > 0) {
    return fail(FormatMultiPartError(MultiPartError::kPreviousNotConsumed));
  }
  if (hasDeviceError()) return false;
  clearPart();
  fillTo(kHeaderLookAhead);
  if (hasDeviceError()) return false;

  if (partCounter_ > 0) {
    if (unread() < 2) return fail(FormatMultiPartError(MultiPartError::kCrlfShort, partCounter_));
    if (data()[0] != '\r' || data()[1] != '\n') {
      return fail(FormatMultiPartError(MultiPartError::kCrlfExpected, partCounter_));
    }
    begin_ += 2;
  }
  const std::string_view boundaryLine = std::string_view(delimiter_).substr(2);  // "--" boundary
  const size_t compared = std::min(unread(), boundaryLine.size());
  if (std::memcmp(data(), boundaryLine.data(), compared) != 0) {
    return fail(FormatMultiPartError(MultiPartError::kBadBoundary, partCounter_));
  }
  if (compared < boundaryLine.size()) {
    return fail(FormatMultiPartError(MultiPartError::kBadBoundaryShort, partCounter_));
  }
  begin_ += boundaryLine.size();

  if (unread() > 0 && data()[0] == '-') return readClosingTail();
  return readPartHeader();
}

bool MultiPartIterator::readClosingTail() {
  if (unread() < 2 || data()[1] != '-') {
    // "--" boundary "-" and the end: the closing boundary was cut; any other byte starts no header.
    if (unread() < 2) return fail(FormatMultiPartError(MultiPartError::kTailShort, partCounter_));
    return fail(FormatMultiPartError(MultiPartError::kHeaderStart, partCounter_));
  }
  begin_ += 2;
  // Three bytes are enough to tell nothing, CR LF, a cut CR LF and anything longer apart.
  fillTo(3);
  if (hasDeviceError()) return false;
  const std::string_view tail(data(), unread());
  if (tail == "\r") return fail(FormatMultiPartError(MultiPartError::kTailShort, partCounter_));
  if (!tail.empty() && tail != "\r\n") return fail(FormatMultiPartError(MultiPartError::kTailTooLong, partCounter_));
  begin_ = end_;
  allPartsEnded_ = true;
  return false;
}

bool MultiPartIterator::readPartHeader() {
  if (unread() >= 1 && (data()[0] != '\r' || (unread() >= 2 && data()[1] != '\n'))) {
    return fail(FormatMultiPartError(MultiPartError::kHeaderStart, partCounter_));
  }
  // The block runs from the CR LF ending the boundary line to the blank line; with no header at all the
  // blank line is that very CR LF and the next one.
  size_t searched = 0;
  size_t blank = detail::FindBlankLine(data(), unread(), searched);
  while (blank == unread()) {
    searched = unread() >= 3 ? unread() - 3 : 0;
    if (!loadDataToBuffer(false)) {
      if (hasDeviceError()) return false;
      if (unread() == buffer_->size()) return fail(FormatMultiPartError(MultiPartError::kHeaderTooBig, partCounter_));
      return fail(FormatMultiPartError(MultiPartError::kHeaderEndMissing, partCounter_));
    }
    blank = detail::FindBlankLine(data(), unread(), searched);
  }
  const std::string_view block = blank == 0 ? std::string_view() : std::string_view(data() + 2, blank - 2);

  std::string detailText;
  const detail::PartHeaderFault fault =
      detail::ParsePartHeader(block, {/*requireFormData=*/true, /*checkNameUtf8=*/false},
                              {partHeaders_, partName_, partFileName_, partContentType_}, detailText);
  switch (fault) {
    case detail::PartHeaderFault::kNone:
      break;
    case detail::PartHeaderFault::kMissingColon:
      return fail(FormatMultiPartError(MultiPartError::kHeaderLine, partCounter_));
    case detail::PartHeaderFault::kBadBytes:
      return fail(FormatMultiPartError(MultiPartError::kHeaderBytes, partCounter_));
    case detail::PartHeaderFault::kNotFormData:
      return fail(FormatMultiPartError(MultiPartError::kNotFormData, partCounter_));
    case detail::PartHeaderFault::kSplit:
      return fail(FormatMultiPartError(MultiPartError::kSplitHeader));
    case detail::PartHeaderFault::kUtf8:
      return fail(FormatMultiPartError(MultiPartError::kUtf8, {detailText}));
  }

  if (partName_.empty()) return fail(FormatMultiPartError(MultiPartError::kNameEmpty, partCounter_));
  const auto expected = expectedParts_.find(partName_);
  if (expected == expectedParts_.end()) {
    if (!acceptUnknownNames_) return fail(FormatMultiPartError(MultiPartError::kUnknownName, partCounter_));
  } else {
    const std::vector<std::string>& types = expected->second;
    if (!types.empty() && std::find(types.begin(), types.end(), partContentType_) == types.end() &&
        std::find(types.begin(), types.end(), "*/*") == types.end()) {
      return fail(FormatMultiPartError(MultiPartError::kContentTypeRefused,
                                       {std::to_string(partCounter_), partContentType_,
                                        kxStringUtils::Join(types, ", ", "'")}));
    }
  }

  begin_ += blank + 4;
  dataEnd_ = begin_;
  delimiterAtDataEnd_ = false;
  ++partCounter_;
  return true;
}

}  // namespace http
}  // namespace kx
