// MultiPartStreamBuilder writes a multipart/form-data body into its delegate as the producer pushes it:
// startNewPart() writes a part's boundary and header block, writeBytes() the part's data, and
// endDelegation() the closing boundary. Use it when the data is produced on the fly and the body goes
// straight into a sink (a socket, a file, a kxIoDeviceHttpChunked); for a body a transfer pulls, use
// MultiPartBuilder.
//
//   kx::http::MultiPartStreamBuilder body("");           // a generated boundary
//   body.beginDelegation(&socket, kx::kxIoDevice::DW_Write);
//   body.startNewPart("report", "report.csv");
//   body.writeAll(csvText);
//   body.endDelegation();
//   // Content-Type: "multipart/form-data; boundary=" + body.getBoundary()
//
// Bytes. A part is "--" boundary CRLF, "content-disposition: form-data;name=\"<name>\"", then
// ";filename=\"<file name>\"" unless the file name is empty, CRLF, one "name:value" CRLF line per value
// of the default part headers and then of the part's own headers (two runs, never merged), CRLF. The
// CRLF that ends a part's data is written by the next startNewPart() or by endDelegation(), which ends
// the body with "--" boundary "--" CRLF. A body in which no part was started stays empty: nothing at all
// is written, not even the closing boundary. Nothing is escaped: names and values must not hold '"', CR
// or LF, and the data must not contain the delimiter.
//
// Errors. Writing or starting a part while not delegating for writing sets "call write on a read
// delegation mode device"; reading sets "readBytes not implemented". The delegate's errors show through
// hasDeviceError(): startNewPart() returns false, writeBytes() 0. writeBytes() returns what the delegate
// accepted, so a short write of the delegate reaches the caller (writeAll() handles it).
//
// Thread-safety: not thread-safe.
// Ownership: the delegate is borrowed (see kxIoDeviceDelegable). A new beginDelegation() starts a new
// body with the same boundary and default part headers.
#pragma once

#include <kx/http/HttpHeaders.h>
#include <kx/system/kxExport.h>
#include <kx/system/kxIoDeviceDelegable.h>

#include <cstddef>
#include <string>

namespace kx {
namespace http {

class KX_EXPORT MultiPartStreamBuilder : public kx::kxIoDeviceDelegable {
 public:
  // An empty `boundary` makes the builder generate one (MultiPartBuilder::GenerateBoundary).
  explicit MultiPartStreamBuilder(const std::string& boundary);
  ~MultiPartStreamBuilder() override;

  const std::string& getBoundary() const { return boundary_; }
  // Header lines written at the start of every part, before the part's own.
  void setDefaultPartHeaders(const HttpHeaders& headers) { defaultHeaders_ = headers; }

  // Ends the previous part (if any) and writes this part's boundary and header block. An empty
  // `filename` writes no file-name parameter. True when the device has no error afterwards.
  bool startNewPart(const std::string& name, const std::string& filename, const HttpHeaders* headers = nullptr);

  size_t readBytes(char* buffer, size_t size) override;
  // Forwards the part's data unchanged; returns what the delegate accepted (0 on error).
  size_t writeBytes(const char* data, size_t size) override;

 protected:
  bool beginDelegationImpl() override;
  bool endDelegationImpl() override;
  bool clearDelegationImpl() override;

 private:
  bool writeHeaderLines(const HttpHeaders& headers);

  std::string scratch_;
  HttpHeaders defaultHeaders_;
  std::string boundary_;
  std::string boundaryLine_;
  bool firstPart_ = true;
  bool partStarted_ = false;
};

}  // namespace http
}  // namespace kx
