// MultiPartBuilder is a readable device that produces a multipart/form-data request body on demand,
// for any transfer that pulls its body from a device (HttpHelpers::HttpPost, HttpPut). Queue the parts
// (memory buffers, files, other devices, or a generator of any number of parts), set the request's
// Content-Type from generateContentTypeHeaderValueWithBoundary(), then let the transfer read to the end.
// For a producer that pushes its data instead, use MultiPartStreamBuilder.
//
//   kx::http::MultiPartBuilder body("");                 // a generated boundary
//   body.queueSrcBuffer(json.data(), json.size(), "meta");
//   std::string fileName = "scan.pdf";
//   body.queueSrcFileUtf8("/tmp/scan.pdf", "file", &fileName);
//   kx::http::HttpHeaders headers;
//   headers.replaceHeader("Content-Type", body.generateContentTypeHeaderValueWithBoundary("form-data"));
//   kx::http::HttpHelpers::HttpPost(connection, url, body, 200, &result, nullptr, &headers, nullptr);
//
// Bytes. Each part is "--" boundary CRLF, "content-disposition: form-data;name=\"<name>\"", then
// ";filename=\"<file name>\"" when a file name is given (an empty one too), CRLF, one "name:value" CRLF
// line per header value, CRLF, then the part's data. The CRLF that ends a part's data starts the next
// boundary text; the body ends with "--" boundary "--" CRLF. Names, file names and header values are
// written as given: nothing is escaped or encoded, so they must not hold '"', CR or LF.
//
// Reading. Sources are opened only when the reader reaches them, one at a time, and each read returns
// bytes of one source only. A read may return 0 before the end ("nothing now", e.g. a device that has
// nothing yet): only atEnd() tells the end. The first read queues the closing boundary, so nothing may
// be queued after reading began, and a builder with nothing queued is atEnd() before its first read yet
// still has a body ("--" boundary "--" CRLF): readers must call readBytes at least once (the transfer
// layer does). The builder cannot rewind: a redirect or authentication round trip that must send the
// body again fails.
//
// Errors. A file that cannot be opened is logged ("Failed to open multipart source file " + path) and
// stops the body with "failed to create device (idx N)", N counting the sources opened before it; a
// source device that fails is logged ("MultiPartBuilder device has error, read failed " + its text) and
// stops the body with its text. Bytes already delivered stay delivered; every later read returns 0.
// Writing sets "writeBytes is not implemented". Log records use category "multipart".
//
// Thread-safety: not thread-safe; a generator runs on the reading thread.
// Ownership: queued buffers, devices and generated devices are borrowed and must stay alive, unchanged,
// until the body has been read; the builder never deletes them. Files are opened and closed by the
// builder.
#pragma once

#include <kx/http/HttpHeaders.h>
#include <kx/system/kxExport.h>
#include <kx/system/kxIoDevice.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>

namespace kx {
namespace http {

class KX_EXPORT MultiPartBuilder : public kx::kxIoDevice {
 public:
  // Fills `device` (borrowed), `name`, `fileName` and `headers` for one more part and returns true, or
  // returns false when there are no more parts. Called with a null device, empty strings and an empty
  // collection each time.
  using DeviceGenerator =
      std::function<bool(kxIoDevice*& device, std::string& name, std::string& fileName, HttpHeaders& headers)>;

  // One queued source: a boundary text, a buffer, a file, a device or a generated device.
  class KX_EXPORT MultiPartSource {
   public:
    MultiPartSource(const char* data, size_t size, bool isBoundary);
    explicit MultiPartSource(std::string utf8Path);
    explicit MultiPartSource(kxIoDevice& device);
    MultiPartSource(DeviceGenerator generator, kxIoDevice* firstDevice);

    bool isBoundary() const { return isBoundary_; }
    bool isMultipartSource() const { return static_cast<bool>(generator_); }
    const DeviceGenerator& getDeviceGeneratorCallback() const { return generator_; }
    // The device reading this source's bytes, or null (logged) when it cannot be made. Marks the source
    // as opened either way.
    std::unique_ptr<kxIoDevice> createDevice();

   private:
    bool deviceCreated_ = false;
    bool isBoundary_ = false;
    const char* data_ = nullptr;
    size_t size_ = 0;
    std::string utf8Path_;
    kxIoDevice* device_ = nullptr;
    DeviceGenerator generator_;
  };

  // An empty `boundary` makes the builder generate one (GenerateBoundary); any other is used as given,
  // unchecked and never quoted.
  explicit MultiPartBuilder(const std::string& boundary);
  ~MultiPartBuilder() override;

  // 27 '=' then a braced random version-4 UUID in lower-case hexadecimal: 65 characters, e.g.
  // "===========================" "{3f2b8c1e-9a4d-4e7f-b2c6-0d5e8a7f1b34}".
  static std::string GenerateBoundary();
  const std::string& getBoundary() const { return boundary_; }
  // "multipart/" + subtype + "; boundary=" + the boundary.
  std::string generateContentTypeHeaderValueWithBoundary(const std::string& subtype) const;

  // Queue one part; a null `filename` writes no file-name parameter, null `headers` no header line.
  void queueSrcBuffer(const char* data, size_t size, const std::string& name, const std::string* filename = nullptr,
                      const HttpHeaders* headers = nullptr);
  void queueSrcFileUtf8(const std::string& utf8Path, const std::string& name, const std::string* filename = nullptr,
                        const HttpHeaders* headers = nullptr);
  void queueSrcDevice(kxIoDevice& device, const std::string& name, const std::string* filename = nullptr,
                      const HttpHeaders* headers = nullptr);
  // Calls `generator` once now; when it yields a part, that part is queued, and each time the reader
  // finishes a generated part the generator is called again and its next part is sent right after it.
  // Generated parts always carry a file-name parameter, empty when the generator gave none.
  void queueDeviceGenerator(DeviceGenerator generator);

  // Appends a part boundary text (or, with `last`, the closing one). A part boundary without a name is
  // not queued ("Missing content disposition with boundary", logged).
  void queueBoundary(bool last, const std::string* name = nullptr, const std::string* filename = nullptr,
                     const HttpHeaders* headers = nullptr);
  // Inserts a boundary text at position `index` of the source list (SIZE_MAX or any index past the end
  // appends). `first` leaves out the CRLF that ends a previous part; asking for it when boundary texts
  // already exist is refused ("Misuse of multipart builder", logged).
  void insertBoundary(size_t index, bool first, bool last, const std::string* name = nullptr,
                      const std::string* filename = nullptr, const HttpHeaders* headers = nullptr);

  size_t readBytes(char* buffer, size_t size) override;
  size_t writeBytes(const char* data, size_t size) override;
  // True when every queued source has been read (also before the first read of an empty builder).
  bool atEnd() const override;
  bool hasDeviceError() const override;
  std::string getDeviceErrorMsg() const override;

 private:
  size_t failSource();
  void generateNext(const DeviceGenerator& generator);

  std::unique_ptr<kxIoDevice> currentDevice_;
  std::string boundary_;
  uint64_t sourcesOpened_ = 0;
  // Texts of the queued boundary sources, in queue order. A list, so the characters the sources point
  // to never move, however short a caller's boundary is.
  std::list<std::string> boundaryTexts_;
  std::list<MultiPartSource> sources_;
};

}  // namespace http
}  // namespace kx
