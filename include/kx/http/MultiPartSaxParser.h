// MultiPartSaxParser is the push (event) parser of multipart/form-data and multipart/mixed bodies: a
// write-only device into which a body is written in pieces of any size, typically as a transfer
// delivers a response. Derive from it and implement the three part events; hand the object to the
// request helpers as the response sink. Pick it when nobody can block on an input device; for a body
// you can read from, MultiPartIterator is simpler.
//
//   class Collector : public kx::http::MultiPartSaxParser {
//     using MultiPartSaxParser::MultiPartSaxParser;
//     bool onPartBegin() override { files.emplace_back(getPartName(), std::string()); return true; }
//     bool onPartData(const char* data, size_t size) override { files.back().second.append(data, size); return true; }
//     bool onPartEnd() override { return true; }
//    public:
//     std::vector<std::pair<std::string, std::string>> files;
//   };
//   kx::http::HttpHeaders responseHeaders;
//   std::vector<char> work;
//   Collector parts(responseHeaders, work);
//   result.headers = &responseHeaders;
//   result.responseSink = &parts;
//   bool ok = HttpHelpers::HttpGet(connection, url, &result, nullptr, nullptr, nullptr) && parts.isAllDataConsumed();
//
// Content-Type. It is read from the response headers at the first write, because a transfer fills them
// while it runs: exactly one value, starting with "multipart/form-data; boundary=" or
// "multipart/mixed; boundary=" (one blank after ';', nothing else), followed by the boundary, quoted or
// not (Python's email package always quotes it). The boundary is at most 256 bytes of printable ASCII;
// unquoted, it holds no blank, ';' or '"'. A response that followed a redirect has gathered the
// Content-Type of every response in the chain, and is refused as holding several.
//
// What is accepted. Bytes before the first boundary line (a preamble) are skipped, unless the body
// starts with "--": then that first line must be the boundary. Part headers end at a blank line and may
// be at most 64 KiB from the boundary's CR LF to the blank line ("Part header is too big"); their
// parameters are read as peers write them ("; name=" or ";name=", quoted or not). form-data bodies need
// Content-Disposition "form-data;" on every part; multipart/mixed parts may carry any disposition or
// none. After the closing boundary only nothing or one CR LF may come.
//
// Events. onPartBegin() runs once a part header is parsed (getPartName(), getPartFileName() and
// getPartHeader() then describe the part), onPartData() for each run of data as the pieces allow (the
// split differs with the piece sizes, the bytes in sum do not), onPartEnd() at the delimiter. Any of
// them returning false stops the parse: the device error is set (the subclass's own text when it set
// one, else "Multipart part handler stopped the parse") and later writes return 0.
//
// Errors. writeBytes returns the size written, or 0 once the device is in error; the texts carry no
// part numbers. atEnd() is not supported (it logs and returns false): isAllDataConsumed() tells a
// complete body from a cut one. A parser reads one body: a new body needs a new parser.
//
// Thread-safety: not thread-safe.
// Ownership: borrows the response headers and the work buffer (bytes kept between pieces); both must
// outlive the parser.
#pragma once

#include <kx/http/HttpHeaders.h>
#include <kx/system/kxExport.h>
#include <kx/system/kxIoDevice.h>

#include <cstddef>
#include <list>
#include <string>
#include <vector>

namespace kx {
namespace http {

class KX_EXPORT MultiPartSaxParser : public kxIoDevice {
 public:
  enum MultiPartType : unsigned char {
    MPT_Unknown = 0,  // nothing written yet
    MPT_FormData = 1,
    MPT_Mixed = 2,
  };

  MultiPartSaxParser(const HttpHeaders& responseHeaders, std::vector<char>& workBuffer);
  ~MultiPartSaxParser() override;

  // Refused: sets "read not implemented" and returns 0.
  size_t readBytes(char* buffer, size_t size) override;
  // Parses the next piece of the body; returns `size`, or 0 after an error.
  size_t writeBytes(const char* data, size_t size) override;
  // Not supported: logs "Not implemented : MultiPartSaxParser::atEnd" (type 5, "multipart") and
  // returns false.
  bool atEnd() const override;

  MultiPartType getType() const { return type_; }
  const std::string& getPartName() const { return partName_; }
  const std::string& getPartFileName() const { return partFileName_; }
  // The part's Content-Type value as written (parameters included); empty when it has none.
  const std::string& getPartContentType() const { return partContentType_; }
  // The current part's values of a header (other than Content-Disposition), or null.
  const std::list<std::string>* getPartHeader(const std::string& name) const { return partHeaders_.find(name); }
  // True when nothing was written yet, or the closing boundary was seen: a body that stops anywhere
  // else was cut.
  bool isAllDataConsumed() const;

 protected:
  // A part header was parsed; false stops the parse.
  virtual bool onPartBegin() = 0;
  // `size` (> 0) bytes of the current part's data; false stops the parse.
  virtual bool onPartData(const char* data, size_t size) = 0;
  // The current part's data are complete; false stops the parse.
  virtual bool onPartEnd() = 0;

 private:
  enum class State : unsigned char { kBeforeFirstBoundary, kPartHeader, kPartData, kAfterLastBoundary, kAfterBoundary };

  bool readContentType();
  size_t parse(const char* data, size_t size);
  size_t parseStart(const char* data, size_t size);
  size_t parseHeader(const char* data, size_t size);
  size_t parseData(const char* data, size_t size);
  size_t parseTail(const char* data, size_t size);
  bool keepGoing(bool handlerResult);

  const HttpHeaders& responseHeaders_;
  std::vector<char>& work_;
  MultiPartType type_ = MPT_Unknown;
  State state_ = State::kBeforeFirstBoundary;
  bool atBodyStart_ = true;
  size_t headerSearched_ = 0;  // bytes of the pending header already searched for its blank line
  size_t tailBytes_ = 0;       // bytes seen after the closing boundary
  std::string delimiter_;      // CR LF "--" boundary
  HttpHeaders partHeaders_;
  std::string partName_;
  std::string partFileName_;
  std::string partContentType_;
};

}  // namespace http
}  // namespace kx
