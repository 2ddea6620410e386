#include <kx/http/MultiPartStreamBuilder.h>

#include <kx/http/MultiPartBuilder.h>

#include "bodies/BodyBuilderText.h"

namespace kx {
namespace http {

using detail::BodyBuilderText;
using detail::BodyBuilderTextOf;

MultiPartStreamBuilder::MultiPartStreamBuilder(const std::string& boundary)
    : kxIoDeviceDelegable(DW_Write),
      boundary_(boundary.empty() ? MultiPartBuilder::GenerateBoundary() : boundary),
      boundaryLine_("--" + boundary_ + "\r\n") {}

MultiPartStreamBuilder::~MultiPartStreamBuilder() = default;

bool MultiPartStreamBuilder::writeHeaderLines(const HttpHeaders& headers) {
  return headers.iterateOverHeaders([this](const std::string& name, const std::list<std::string>& values) {
    if (values.empty()) return writeAllToDelegate(name.data(), name.size()) && writeAllToDelegate(":\r\n", 3);
    for (const auto& value : values) {
      if (!(writeAllToDelegate(name.data(), name.size()) && writeAllToDelegate(":", 1) &&
            writeAllToDelegate(value.data(), value.size()) && writeAllToDelegate("\r\n", 2))) {
        return false;
      }
    }
    return true;
  });
}

bool MultiPartStreamBuilder::startNewPart(const std::string& name, const std::string& filename,
                                          const HttpHeaders* headers) {
  if (!delegationWriteAllowed()) return false;
  partStarted_ = true;
  const bool first = firstPart_;
  firstPart_ = false;
  scratch_.assign("content-disposition: form-data;name=\"").append(name).append("\"");
  // Unlike MultiPartBuilder, an empty file name means the part has none.
  if (!filename.empty()) scratch_.append(";filename=\"").append(filename).append("\"");
  scratch_.append("\r\n");
  (void)((first || writeAllToDelegate("\r\n", 2)) && writeAllToDelegate(boundaryLine_.data(), boundaryLine_.size()) &&
         writeAllToDelegate(scratch_.data(), scratch_.size()) && writeHeaderLines(defaultHeaders_) &&
         (headers == nullptr || writeHeaderLines(*headers)) && writeAllToDelegate("\r\n", 2));
  return !hasDeviceError();
}

size_t MultiPartStreamBuilder::readBytes(char* /*buffer*/, size_t /*size*/) {
  setDeviceError(BodyBuilderTextOf(BodyBuilderText::kReadNotImplemented));
  return 0;
}

size_t MultiPartStreamBuilder::writeBytes(const char* data, size_t size) {
  if (!delegationWriteAllowed()) return 0;
  return getDelegate()->write(data, size);
}

bool MultiPartStreamBuilder::beginDelegationImpl() {
  // Both flags belong to one body: a second body on the same object starts without parts.
  firstPart_ = true;
  partStarted_ = false;
  return true;
}

bool MultiPartStreamBuilder::endDelegationImpl() {
  // A stream without parts stays empty: a lone closing boundary would be a body with no part at all.
  if (partStarted_) {
    (void)((firstPart_ || writeAllToDelegate("\r\n", 2)) &&
           writeAllToDelegate(boundaryLine_.data(), boundaryLine_.size() - 2) && writeAllToDelegate("--\r\n", 4));
  }
  partStarted_ = false;
  return true;
}

bool MultiPartStreamBuilder::clearDelegationImpl() {
  partStarted_ = false;
  scratch_.clear();
  return true;
}

}  // namespace http
}  // namespace kx
