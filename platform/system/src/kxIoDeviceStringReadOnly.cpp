#include <kx/system/kxIoDeviceStringReadOnly.h>

#include <utility>

namespace kx {

kxIoDeviceStringReadOnly::kxIoDeviceStringReadOnly(std::string text) : text_(std::move(text)) {
  setData(text_.data(), text_.size());
}

kxIoDeviceStringReadOnly::~kxIoDeviceStringReadOnly() = default;

void kxIoDeviceStringReadOnly::setString(std::string text) {
  text_ = std::move(text);
  setData(text_.data(), text_.size());
}

}  // namespace kx
