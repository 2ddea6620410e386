// kxIoDeviceStringReadOnly reads a string that the device owns: the convenient source for a body built
// in memory (a JSON text, a form) that must outlive the code that built it. Random access, like
// kxIoDeviceByteContainerReadOnly, whose reading rules it shares.
//
//   kx::kxIoDeviceStringReadOnly body(BuildReport());   // the device keeps the text alive
//   kx::http::HttpHelpers::HttpPost(connection, url, body, 201, &result, nullptr, nullptr, nullptr);
//
// Thread-safety: not thread-safe.
// Ownership: the device owns its copy of the text; getString() stays valid until setString() or
// destruction.
#pragma once

#include <kx/system/kxExport.h>
#include <kx/system/kxIoDeviceByteContainerReadOnly.h>

#include <string>

namespace kx {

class KX_EXPORT kxIoDeviceStringReadOnly : public kxIoDeviceByteContainerReadOnly {
 public:
  explicit kxIoDeviceStringReadOnly(std::string text = std::string());
  ~kxIoDeviceStringReadOnly() override;

  // Replaces the text; the device restarts at position 0 with no error.
  void setString(std::string text);
  const std::string& getString() const { return text_; }

 private:
  std::string text_;
};

}  // namespace kx
