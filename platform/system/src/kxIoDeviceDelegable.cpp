#include <kx/system/kxIoDeviceDelegable.h>

#include <kx/system/kxLog.h>

#include <string>

#include "kxIoDeviceErrorText.h"

namespace kx {

using detail::kxIoDeviceErrc;
using detail::kxIoDeviceErrorText;

namespace {

constexpr std::string_view kLogCategory = "kxIoDevice";

}  // namespace

kxIoDeviceDelegable::kxIoDeviceDelegable(DataWay way) : kxIoDevice(way) {}

kxIoDeviceDelegable::~kxIoDeviceDelegable() = default;

bool kxIoDeviceDelegable::delegationReadAllowed() {
  if (hasDeviceError()) return false;
  if (delegate_ == nullptr || getDataWay() != DW_Read) {
    const std::string_view text = kxIoDeviceErrorText(kxIoDeviceErrc::kDelegationRead);
    setDeviceError(text);
    kxLog::log(kLogTypeError, kLogCategory, std::string("kxIoDeviceDelegable ").append(text));
    return false;
  }
  return true;
}

bool kxIoDeviceDelegable::delegationWriteAllowed() {
  if (hasDeviceError()) return false;
  if (delegate_ == nullptr || getDataWay() != DW_Write) {
    const std::string_view text = kxIoDeviceErrorText(kxIoDeviceErrc::kDelegationWrite);
    setDeviceError(text);
    kxLog::log(kLogTypeError, kLogCategory, std::string("kxIoDeviceDelegable ").append(text));
    return false;
  }
  return true;
}

size_t kxIoDeviceDelegable::readBytes(char* buffer, size_t size) {
  if (!delegationReadAllowed()) return 0;
  return delegate_->read(buffer, size);
}

size_t kxIoDeviceDelegable::writeBytes(const char* data, size_t size) {
  if (!delegationWriteAllowed()) return 0;
  return delegate_->write(data, size);
}

bool kxIoDeviceDelegable::atEnd() const { return delegate_ == nullptr || delegate_->atEnd(); }

bool kxIoDeviceDelegable::hasDeviceError() const {
  return kxIoDevice::hasDeviceError() || (delegate_ != nullptr && delegate_->hasDeviceError());
}

std::string kxIoDeviceDelegable::getDeviceErrorMsg() const {
  std::string text = kxIoDevice::getDeviceErrorMsg();
  if (delegate_ != nullptr && delegate_->hasDeviceError()) {
    if (!text.empty()) text.append(", ");
    text.append(delegate_->getDeviceErrorMsg());
  }
  return text;
}

bool kxIoDeviceDelegable::beginDelegation(kxIoDevice* delegate, DataWay way) {
  if (hasDeviceError()) return false;
  if (delegate_ != nullptr) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kDelegationActive));
    return false;
  }
  if (delegate == nullptr) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kDelegationNullDelegate));
    return false;
  }
  if (delegate == this) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kDelegationToItself));
    return false;
  }
  if (way != DW_Read && way != DW_Write) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kInvalidDataWay));
    return false;
  }
  delegate_ = delegate;
  setDataWay(way);
  const bool accepted = beginDelegationImpl();
  if (!accepted && !hasDeviceError()) setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kDelegationBeginFailed));
  if (hasDeviceError()) {
    // Whatever failed (the hook, or a delegate that was already broken), the caller gets a device that
    // is not delegating, so there is no half-started delegation to clean up.
    detachDelegate();
    return false;
  }
  return true;
}

bool kxIoDeviceDelegable::endDelegation() {
  if (delegate_ == nullptr) {
    setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kDelegationInactive));
    return false;
  }
  const bool finished = endDelegationImpl();
  if (!finished && !hasDeviceError()) setDeviceError(kxIoDeviceErrorText(kxIoDeviceErrc::kDelegationEndFailed));
  const bool ok = finished && !hasDeviceError();
  detachDelegate();
  return ok;
}

bool kxIoDeviceDelegable::clearDelegation() {
  const bool cleared = clearDelegationImpl();
  detachDelegate();
  return cleared;
}

bool kxIoDeviceDelegable::beginDelegationImpl() { return true; }
bool kxIoDeviceDelegable::endDelegationImpl() { return true; }
bool kxIoDeviceDelegable::clearDelegationImpl() { return true; }

bool kxIoDeviceDelegable::writeAllToDelegate(const char* data, size_t size) {
  if (!delegationWriteAllowed()) return false;
  return delegate_->writeAll(data, size);
}

void kxIoDeviceDelegable::detachDelegate() {
  if (delegate_ != nullptr && delegate_->hasDeviceError()) {
    // Keep the combined text: once the delegate is gone it is the only record of what went wrong.
    std::string text = getDeviceErrorMsg();
    kxIoDevice::clearDeviceError();
    setDeviceError(text);
  }
  delegate_ = nullptr;
}

}  // namespace kx
