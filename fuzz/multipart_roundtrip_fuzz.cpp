// Cuts the input into parts (a length byte, then name and data), builds one body with each builder
// (MultiPartBuilder, read in pieces; MultiPartStreamBuilder, written in pieces) and parses each body
// with both parsers: every parser must return every part's name and data byte for byte. Names holding
// ';', CR, LF or '"' are left out: the builders write names as given, by design; so are names with
// control bytes, which both parsers refuse, and names that are not UTF-8, which the push parser refuses.
// The boundary has the generated shape but is fixed, so that a finding replays.
#include <kx/http/MultiPartBuilder.h>
#include <kx/http/MultiPartStreamBuilder.h>
#include <kx/system/kxIoDeviceStringWriteOnly.h>
#include <kx/system/kxStringUtils.h>

#include "multipart_fuzz_run.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
  std::vector<fuzz::Part> parts;
  while (!input.empty()) {
    const size_t nameLength = std::min<size_t>(uint8_t(input[0]) % 8, input.size() - 1);
    const size_t dataLength = std::min<size_t>(uint8_t(input[0]) / 8 * 37, input.size() - 1 - nameLength);
    fuzz::Part part{std::string(input.substr(1, nameLength)), "", std::string(input.substr(1 + nameLength, dataLength))};
    input.remove_prefix(1 + nameLength + dataLength);
    if (part.name.empty() || part.name.find_first_of(";\r\n\"") != std::string::npos ||
        kx::kxStringUtils::ContainsAsciiNonPrintableChar(part.name) || !kx::kxStringUtils::IsValidUtf8(part.name)) part.name.assign(1, 'n');
    parts.push_back(part);
  }
  if (parts.empty()) return 0;

  kx::http::MultiPartBuilder builder("==========================={0f1e2d3c-4b5a-4697-8876-a5b4c3d2e1f0}");
  for (const fuzz::Part& part : parts) builder.queueSrcBuffer(part.data.data(), part.data.size(), part.name);
  std::string pulled;
  fuzz::Pieces pieces(data[0], 200);
  for (char buffer[256]; !builder.atEnd() && builder.good();) pulled.append(buffer, builder.read(buffer, pieces.next()));

  kx::kxIoDeviceStringWriteOnly sink;
  kx::http::MultiPartStreamBuilder stream(builder.getBoundary());
  if (!stream.beginDelegation(&sink, kx::kxIoDevice::DW_Write)) fuzz::Fail("begin refused");
  for (const fuzz::Part& part : parts) {
    if (!stream.startNewPart(part.name, "")) fuzz::Fail("part refused");
    for (size_t at = 0, n; at < part.data.size(); at += n)
      if (!stream.writeAll(part.data.data() + at, n = std::min(part.data.size() - at, pieces.next()))) fuzz::Fail("write refused");
  }
  if (!stream.endDelegation()) fuzz::Fail("end refused");
  if (sink.getString() != pulled) fuzz::Fail("builders' bodies differ");

  const std::string type = builder.generateContentTypeHeaderValueWithBoundary("form-data");
  if (fuzz::Parsed p = fuzz::PullParse(type, pulled, fuzz::Pieces(data[0], 300), 4096); !p.accepted || p.parts != parts)
    fuzz::Fail("pull parser lost a part");
  if (fuzz::Parsed p = fuzz::PushParse(type, pulled, fuzz::Pieces(data[0], 300)); !p.accepted || p.parts != parts)
    fuzz::Fail("push parser lost a part");
  return 0;
}
