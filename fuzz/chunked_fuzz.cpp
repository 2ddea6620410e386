// Drives the chunked encoder with the input as a script: each step's first byte picks the operation
// (set the maximum chunk size from the next two bytes, write the next n bytes, clear the body, or end
// it), the rest are its operands. A strict reference decoder then reads the framed output back: every
// ended body must decode to exactly the bytes written into it, with no chunk above the maximum in force,
// and a cleared body must not have been ended on the wire.
#include <kx/http/kxIoDeviceHttpChunked.h>
#include <kx/system/kxIoDeviceStringWriteOnly.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <algorithm>
#include <string>
#include <string_view>

namespace {

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

// Decodes `framed` strictly (lower-case hex without leading zeros, CRLF after size and data); returns
// whether it held the last chunk, and the payload; no chunk may exceed `largest`.
bool Decode(std::string_view framed, std::string& payload, uint32_t largest) {
  while (!framed.empty()) {
    size_t size = 0, at = 0;
    for (; at < framed.size() && std::string_view("0123456789abcdef").find(framed[at]) != std::string_view::npos; ++at)
      size = size * 16 + std::string_view("0123456789abcdef").find(framed[at]);
    if (at == 0 || (framed[0] == '0' && at > 1) || framed.substr(at, 2) != "\r\n") Fail("bad size line");
    if (size == 0) {
      if (framed.substr(at) != "\r\n\r\n") Fail("bytes around the last chunk");
      return true;
    }
    if (size > largest) Fail("chunk above the maximum");
    if (framed.size() < at + 2 + size + 2 || framed.substr(at + 2 + size, 2) != "\r\n") Fail("bad chunk data");
    payload.append(framed.substr(at + 2, size));
    framed.remove_prefix(at + 2 + size + 2);
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  auto sink = std::make_unique<kx::kxIoDeviceStringWriteOnly>();
  kx::http::kxIoDeviceHttpChunked chunked(4);
  uint32_t largest = 4;  // the largest maximum in force during this body
  std::string written;
  if (!chunked.beginDelegation(sink.get(), kx::kxIoDevice::DW_Write)) Fail("begin refused");
  for (size_t at = 0; at < input.size();) {
    const uint8_t op = uint8_t(input[at++]);
    if (op % 4 == 0 && at + 2 <= input.size()) {
      const uint32_t max = uint32_t(uint8_t(input[at])) << 8 | uint8_t(input[at + 1]);
      at += 2;
      if (max == 0) continue;  // refused by design, and sticky: covered by the unit tests
      if (!chunked.setMaxChunkSize(max)) Fail("maximum refused");
      largest = std::max(largest, max);
    } else if (op % 4 == 1) {
      const std::string_view bytes = input.substr(at, op / 4);
      at += bytes.size();
      if (chunked.writeBytes(bytes.data(), bytes.size()) != bytes.size()) Fail("write refused");
      written.append(bytes);
    } else if (op % 4 == 2 || op % 4 == 3) {
      std::string payload;
      if (op % 4 == 3 && !chunked.endDelegation()) Fail("end refused");
      if (op % 4 == 2) chunked.clearDelegation();
      const bool ended = Decode(sink->getString(), payload, largest);
      if (ended != (op % 4 == 3)) Fail("last chunk missing or sent by a clear");
      if (ended ? payload != written : written.compare(0, payload.size(), payload) != 0) Fail("payload differs");
      sink = std::make_unique<kx::kxIoDeviceStringWriteOnly>();
      written.clear();
      largest = chunked.getMaxChunkSize();
      if (!chunked.beginDelegation(sink.get(), kx::kxIoDevice::DW_Write)) Fail("begin refused");
    }
  }
  return 0;
}
