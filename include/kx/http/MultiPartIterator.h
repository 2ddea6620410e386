// MultiPartIterator is the pull parser of multipart/form-data and multipart/mixed bodies arriving on an
// input device (a request body, a downloaded response, a file). The caller steps from part to part with
// nextPart(); after each step the part's name, file name, content type and headers are available, and
// its data are read through the iterator itself (it is a readable kxIoDevice), appended to a byte
// vector or written to a file. Pick it when the body is on a device you can read from; for a body that
// is pushed to you piece by piece during a transfer, use MultiPartSaxParser.
//
//   auto buffer = std::make_shared<std::vector<char>>();
//   buffer->reserve(64 * 1024);
//   kx::http::MultiPartIterator parts(input, *headers.find("content-type"), buffer, false,
//                                     {{"meta", {"application/json"}}, {"file", {"*/*"}}});
//   while (parts.nextPart()) {
//     if (parts.getPartName() == "file") parts.writeCurrentPartToFile("/tmp/upload");
//     else parts.writeCurrentPartToBuffer(meta, 1 << 20, true);
//   }
//   if (!parts.atEndOfAllParts()) log(parts.getDeviceErrorMsg());   // the body was refused or cut
//
// Memory. Everything is parsed inside one caller-owned buffer: its capacity (raised to 4 KiB when
// smaller) is its size, whatever size() said, so reserve() is how a caller chooses it. A part header
// (from the boundary to the blank line) must fit in it: a bigger one is refused ("Part header is too
// big, part #N"). Part data stream through it, however large the part. The buffer is shared so that
// iterators used one after another can reuse it; two iterators must not use it at the same time.
//
// What is accepted. The body starts with "--" boundary (no preamble), every later delimiter is CR LF
// "--" boundary, and the closing boundary "--" boundary "--" may be followed by nothing or one CR LF.
// Each part header needs Content-Disposition "form-data;" with a non-empty name (also in
// multipart/mixed bodies); parameters are read as peers write them ("; name=" or ";name=", quoted or
// not, one pair of quotes removed), and a ';' inside quotes belongs to the value. The expected-parts
// table lists the allowed part names, each with its allowed content types (empty list: any; "*/*":
// any). A name absent from it is refused ("unknown name, part #N") unless acceptUnknownNames is set;
// an empty table with the flag clear therefore refuses every part. The Content-Type constructor takes
// the boundary parameter quoted or not.
//
// Errors. Every failure sets the sticky device error with an English text and is terminal: nextPart()
// and reads return false / 0 from then on. Texts about a part end with "part #" and the part counter,
// which counts the parts stepped into: errors found while the first part's boundary and header are
// read say #0, errors in its data #1. A read from the input that delivers nothing before the input's
// end is retried a few times, then the body counts as cut ("Not enough data, part #N"): this parser
// cannot wait for a device that has nothing now.
//
// Thread-safety: not thread-safe.
// Ownership: the input device is borrowed and must outlive the iterator; the buffer is shared.
#pragma once

#include <kx/http/HttpHeaders.h>
#include <kx/system/kxExport.h>
#include <kx/system/kxIoDevice.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kx {
namespace http {

class KX_EXPORT MultiPartIterator : public kxIoDevice {
 public:
  // Part name -> allowed content types of that part (empty, or holding "*/*": any).
  using ExpectedParts = std::map<std::string, std::vector<std::string>>;

  // Takes the boundary from the values of the Content-Type header: exactly one value,
  // "multipart/form-data" or "multipart/mixed" with a non-empty boundary parameter of at most 256 bytes.
  MultiPartIterator(kxIoDevice& input, const std::list<std::string>& contentTypeValues,
                    std::shared_ptr<std::vector<char>> buffer, bool acceptUnknownNames, ExpectedParts expectedParts);
  // Uses `boundary` (non-empty, at most 256 bytes) as it is.
  MultiPartIterator(kxIoDevice& input, std::shared_ptr<std::vector<char>> buffer, const std::string& boundary,
                    bool acceptUnknownNames, ExpectedParts expectedParts);
  ~MultiPartIterator() override;

  // Reads the current part's data; 0 at the end of the part (then atEnd() is true), before the first
  // part, after the last one, or on error.
  size_t readBytes(char* buffer, size_t size) override;
  // Refused: returns 0 (the iterator is read-only).
  size_t writeBytes(const char* data, size_t size) override;
  // True when the current part's data were read to their end, after the closing boundary, or on error.
  bool atEnd() const override;

  // Steps to the next part. False at the end of all parts (atEndOfAllParts() true, no error) or on
  // error. The previous part's data must have been read to their end first.
  bool nextPart();
  bool atEndOfAllParts() const { return allPartsEnded_; }

  const std::string& getPartName() const { return partName_; }
  const std::string& getPartFileName() const { return partFileName_; }
  // The part's Content-Type value as written (parameters included); empty when it has none.
  const std::string& getPartContentType() const { return partContentType_; }
  // The current part's values of a header (other than Content-Disposition), or null.
  const std::list<std::string>* getHeader(const std::string& name) const { return partHeaders_.find(name); }

  // Appends the rest of the current part's data to `out` (which is emptied first when `append` is
  // false). More than `maxSize` bytes fail with "too many data in part #N"; the bytes appended before
  // the failure stay.
  bool writeCurrentPartToBuffer(std::vector<char>& out, size_t maxSize, bool append);
  // Writes the rest of the current part's data to a new or truncated file.
  bool writeCurrentPartToFile(const std::string& path);

  // Compacts the buffer and reads once from the input into its free space. True when bytes were added.
  // False when the buffer is full (no error), or nothing came: then, when `dataRequired`, the body
  // counts as cut and the error is set.
  bool loadDataToBuffer(bool dataRequired);

  // Forgets the current part (headers, names, end flags) and keeps the device error.
  void clearExceptError();

 private:
  MultiPartIterator(kxIoDevice& input, std::shared_ptr<std::vector<char>> buffer, bool acceptUnknownNames,
                    ExpectedParts expectedParts);
  void setBoundary(const std::string& boundary);
  void clearPart();
  bool fail(const std::string& text);
  void fillTo(size_t count);
  size_t unread() const { return end_ - begin_; }
  const char* data() const;
  size_t availableData();
  bool readClosingTail();
  bool readPartHeader();

  kxIoDevice& input_;
  std::shared_ptr<std::vector<char>> buffer_;
  size_t begin_ = 0;    // first unread byte in *buffer_
  size_t end_ = 0;      // end of the bytes read from the input
  size_t dataEnd_ = 0;  // part data known to end no earlier than here
  bool delimiterAtDataEnd_ = false;
  std::string delimiter_;  // CR LF "--" boundary
  uint64_t partCounter_ = 0;
  bool partEnded_ = false;
  bool allPartsEnded_ = false;
  bool acceptUnknownNames_;
  ExpectedParts expectedParts_;
  HttpHeaders partHeaders_;
  std::string partName_;
  std::string partFileName_;
  std::string partContentType_;
};

}  // namespace http
}  // namespace kx
