#include <kx/http/MultiPartBuilder.h>

#include <kx/system/kxIoDeviceByteContainerReadOnly.h>
#include <kx/system/kxIoDeviceByteCounter.h>
#include <kx/system/kxIoDeviceFileStream.h>
#include <kx/system/kxLog.h>
#include <kx/system/kxRandomUtils.h>

#include <cstdint>
#include <iterator>
#include <utility>

#include "bodies/BodyBuilderText.h"

namespace kx {
namespace http {

using detail::BodyBuilderText;
using detail::BodyBuilderTextOf;
using detail::kMultipartLogCategory;

MultiPartBuilder::MultiPartSource::MultiPartSource(const char* data, size_t size, bool isBoundary)
    : isBoundary_(isBoundary), data_(data), size_(size) {}

MultiPartBuilder::MultiPartSource::MultiPartSource(std::string utf8Path) : utf8Path_(std::move(utf8Path)) {}

MultiPartBuilder::MultiPartSource::MultiPartSource(kxIoDevice& device) : device_(&device) {}

MultiPartBuilder::MultiPartSource::MultiPartSource(DeviceGenerator generator, kxIoDevice* firstDevice)
    : device_(firstDevice), generator_(std::move(generator)) {}

std::unique_ptr<kxIoDevice> MultiPartBuilder::MultiPartSource::createDevice() {
  deviceCreated_ = true;
  if (!utf8Path_.empty()) {
    auto file = std::make_unique<kxIoDeviceFileStream>();
    if (!file->open(utf8Path_, DW_Read, kxIoDeviceFileStream::OF_Binary)) {
      kxLog::log(kLogTypeError, kMultipartLogCategory,
                 BodyBuilderTextOf(BodyBuilderText::kSourceFileOpenFailed, utf8Path_));
      return nullptr;
    }
    return file;
  }
  if (device_ != nullptr || generator_) {
    // A counter in front of the caller's device: the builder owns and destroys the counter, never the
    // caller's device.
    auto counter = std::make_unique<kxIoDeviceByteCounter>();
    if (!counter->beginDelegation(device_, DW_Read)) return nullptr;
    return counter;
  }
  return std::make_unique<kxIoDeviceByteContainerReadOnly>(data_, size_);
}

MultiPartBuilder::MultiPartBuilder(const std::string& boundary)
    : kxIoDevice(DW_Read), boundary_(boundary.empty() ? GenerateBoundary() : boundary) {}

MultiPartBuilder::~MultiPartBuilder() = default;

std::string MultiPartBuilder::GenerateBoundary() {
  // Rand only fails without any system entropy; the zeroed bytes still give a well-formed boundary.
  uint8_t bytes[16] = {};
  kxRandomUtils::Rand(bytes, sizeof bytes);
  // The run of '=' and the braces never occur in base64 or hexadecimal payloads, which keeps accidental
  // matches inside part data unlikely.
  return std::string(27, '=') + "{" + kxRandomUtils::Uuid4TextFromBytes(bytes) + "}";
}

std::string MultiPartBuilder::generateContentTypeHeaderValueWithBoundary(const std::string& subtype) const {
  return "multipart/" + subtype + "; boundary=" + boundary_;
}

void MultiPartBuilder::queueSrcBuffer(const char* data, size_t size, const std::string& name,
                                      const std::string* filename, const HttpHeaders* headers) {
  queueBoundary(false, &name, filename, headers);
  sources_.emplace_back(data, size, false);
}

void MultiPartBuilder::queueSrcFileUtf8(const std::string& utf8Path, const std::string& name,
                                        const std::string* filename, const HttpHeaders* headers) {
  queueBoundary(false, &name, filename, headers);
  sources_.emplace_back(utf8Path);
}

void MultiPartBuilder::queueSrcDevice(kxIoDevice& device, const std::string& name, const std::string* filename,
                                      const HttpHeaders* headers) {
  queueBoundary(false, &name, filename, headers);
  sources_.emplace_back(device);
}

void MultiPartBuilder::queueDeviceGenerator(DeviceGenerator generator) {
  kxIoDevice* device = nullptr;
  std::string name;
  std::string fileName;
  HttpHeaders headers;
  if (!generator || !generator(device, name, fileName, headers)) return;
  queueBoundary(false, &name, &fileName, &headers);
  sources_.emplace_back(std::move(generator), device);
}

void MultiPartBuilder::queueBoundary(bool last, const std::string* name, const std::string* filename,
                                     const HttpHeaders* headers) {
  insertBoundary(SIZE_MAX, boundaryTexts_.empty(), last, name, filename, headers);
}

void MultiPartBuilder::insertBoundary(size_t index, bool first, bool last, const std::string* name,
                                      const std::string* filename, const HttpHeaders* headers) {
  if (name == nullptr && !last) {
    kxLog::log(kLogTypeValueWarning, kMultipartLogCategory, BodyBuilderTextOf(BodyBuilderText::kMissingDisposition));
    return;
  }
  // Only the very first text may leave out the CRLF that ends a previous part's data; a "first" text
  // anywhere else would glue a boundary onto the data before it.
  if (first && !boundaryTexts_.empty()) {
    kxLog::log(kLogTypeError, kMultipartLogCategory, BodyBuilderTextOf(BodyBuilderText::kBuilderMisuse));
    return;
  }
  // Appending is the common case and must not walk the lists (queueing n parts would cost n^2): every
  // boundary source has its text in boundaryTexts_, in the same order, so at the end all of them are
  // before it. Inserting inside (a generated part after the current source) walks the short prefix.
  auto at = sources_.end();
  auto textAt = boundaryTexts_.end();
  if (index < sources_.size()) {
    at = std::next(sources_.begin(), static_cast<std::ptrdiff_t>(index));
    textAt = boundaryTexts_.begin();
    for (auto it = sources_.begin(); it != at; ++it) {
      if (it->isBoundary()) ++textAt;
    }
  }

  const std::string_view crlf = first ? "" : "\r\n";
  std::string text;
  if (last) {
    text.reserve(crlf.size() + boundary_.size() + 6);
    text.append(crlf).append("--").append(boundary_).append("--\r\n");
  } else {
    static constexpr std::string_view kDisposition = "\r\ncontent-disposition: form-data";
    size_t length = crlf.size() + 2 + boundary_.size() + kDisposition.size() + 4;
    if (name != nullptr) length += 8 + name->size();
    if (filename != nullptr) length += 12 + filename->size();
    if (headers != nullptr) {
      headers->iterateOverHeaders([&](const std::string& header, const std::list<std::string>& values) {
        length += values.empty() ? header.size() + 3 : 0;
        for (const auto& value : values) length += header.size() + value.size() + 3;
        return true;
      });
    }
    text.reserve(length);
    text.append(crlf).append("--").append(boundary_).append(kDisposition);
    if (name != nullptr) text.append(";name=\"").append(*name).append("\"");
    if (filename != nullptr) text.append(";filename=\"").append(*filename).append("\"");
    text.append("\r\n");
    if (headers != nullptr) {
      headers->iterateOverHeaders([&](const std::string& header, const std::list<std::string>& values) {
        if (values.empty()) text.append(header).append(":\r\n");
        for (const auto& value : values) text.append(header).append(":").append(value).append("\r\n");
        return true;
      });
    }
    text.append("\r\n");
  }
  auto stored = boundaryTexts_.insert(textAt, std::move(text));
  sources_.emplace(at, stored->data(), stored->size(), true);
}

void MultiPartBuilder::generateNext(const DeviceGenerator& generator) {
  kxIoDevice* device = nullptr;
  std::string name;
  std::string fileName;
  HttpHeaders headers;
  if (!generator(device, name, fileName, headers)) return;
  // Right after the finished source, so generated parts follow one another before any later part.
  insertBoundary(1, false, false, &name, &fileName, &headers);
  sources_.emplace(std::next(sources_.begin(), 2), generator, device);
}

size_t MultiPartBuilder::failSource() {
  const std::string text = currentDevice_->getDeviceErrorMsg();
  kxLog::log(kLogTypeError, kMultipartLogCategory, BodyBuilderTextOf(BodyBuilderText::kSourceReadFailed, text));
  // The failure becomes the builder's own, so it is reported (and logged) once, after the source's
  // device is gone.
  currentDevice_.reset();
  setDeviceError(text);
  return 0;
}

size_t MultiPartBuilder::readBytes(char* buffer, size_t size) {
  if (sourcesOpened_ == 0 && !hasDeviceError()) queueBoundary(true);
  if (sources_.empty()) return 0;
  for (;;) {
    if (kxIoDevice::hasDeviceError()) return 0;
    if (currentDevice_) {
      if (currentDevice_->hasDeviceError()) return failSource();
      if (!currentDevice_->atEnd()) {
        const size_t n = currentDevice_->read(buffer, size);
        if (n == 0 && currentDevice_->hasDeviceError()) return failSource();
        return n;
      }
      currentDevice_.reset();
    }
    if (sourcesOpened_ > 0) {
      const MultiPartSource& finished = sources_.front();
      if (finished.isMultipartSource()) generateNext(finished.getDeviceGeneratorCallback());
      if (finished.isBoundary()) boundaryTexts_.pop_front();
      sources_.pop_front();
    }
    if (sources_.empty()) return 0;
    currentDevice_ = sources_.front().createDevice();
    if (!currentDevice_) {
      setDeviceError(BodyBuilderTextOf(BodyBuilderText::kCreateDeviceFailed, std::to_string(sourcesOpened_)));
      return 0;
    }
    ++sourcesOpened_;
  }
}

size_t MultiPartBuilder::writeBytes(const char* /*data*/, size_t /*size*/) {
  setDeviceError(BodyBuilderTextOf(BodyBuilderText::kWriteNotImplemented));
  return 0;
}

bool MultiPartBuilder::atEnd() const { return sources_.empty(); }

bool MultiPartBuilder::hasDeviceError() const {
  return kxIoDevice::hasDeviceError() || (currentDevice_ && currentDevice_->hasDeviceError());
}

std::string MultiPartBuilder::getDeviceErrorMsg() const {
  std::string text = kxIoDevice::getDeviceErrorMsg();
  if (currentDevice_ && currentDevice_->hasDeviceError()) {
    if (!text.empty()) text.append(", ");
    text.append(currentDevice_->getDeviceErrorMsg());
  }
  return text;
}

}  // namespace http
}  // namespace kx
