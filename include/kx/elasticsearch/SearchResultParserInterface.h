// SearchResultParserInterface reads the body of an Elasticsearch search (or scroll) response while it
// arrives: write the pieces into it as they come, in any sizes down to one byte, and it calls
// onNewDocument for every hit of "hits"/"hits" as soon as the hit's closing brace has been read. It never
// holds the whole response, only the hit being read.
//
//   kx::elasticsearch::SearchResultParserLambda parser(
//       [&](const std::string& id, const std::string& source, const std::string& score,
//           const std::string& highlight, const std::string& type, const int64_t* ts) { ... });
//   ... hand the parser to a transfer as its response sink, or parser.writeAll(piece) per piece ...
//   std::string error;
//   if (!parser.finish(&error)) log(error);
//   bool exact = false;
//   int64_t total = parser.getTotalHitCount(&exact);
//
// What is taken, by path from the root of the response (everything else is skipped, also the same keys
// elsewhere, such as the hits of a top_hits aggregation or a hit's inner_hits):
//   "_scroll_id"                       the scroll identifier, unescaped to UTF-8
//   "error"                            the raw JSON text of an error response; it stops the scan
//   "hits"/"total"                     a bare number (exact) or {"value": n, "relation": "eq"|"gte"}
//   "hits"/"hits"[i]/"_id"             the hit's identifier, unescaped
//   "hits"/"hits"[i]/"_score"          the scalar as written ("1.5", "null")
//   "hits"/"hits"[i]/"_source"         the raw JSON text, byte for byte
//   "hits"/"hits"[i]/"highlight"       the raw JSON text ("" when absent)
//   "hits"/"hits"[i]/"_source"/"type"  unescaped
//   "hits"/"hits"[i]/"_source"/"ts"    a signed 64-bit integer (null pointer when absent)
// Scalars where a string is expected are kept as written; an object or array where a scalar is expected
// is an error, and so is anything but objects along "hits"/"hits"[i].
//
// Errors. The first failure stops the scan and sets the device error (later writes accept nothing):
// "fail to parse json" for bytes that are not JSON or a bad escape in a kept string (the escape case also
// logs "json to utf8 conversion error"), "Receive an error msg " + the error text for an error response,
// "unexpected hit count" for a second total, "unexpected hit tag count" for a malformed hit list,
// "unexpected read raw data" for a container where a scalar belongs, "Fail to parse hits/total <text>",
// "Fail to parse hits/total, not all bytes were consumed <text>", "Fail to parse 'ts' <text>",
// "Fail to parse 'ts', not all bytes were consumed <text>", "Encounter two 'ts' entries" (one source)
// and "'ts' value was already parsed" (a hit with two sources). Strings that are skipped or kept raw are
// not checked: their escapes pass as they are.
//
// finish() tells a complete response from a truncated one: it fails with "Finish error : { => <open
// objects>, [ => <open arrays>, hittag => <open levels of the hit path>, nextis => <what the scanner
// waits for, 0 once the root closed>, error => <device error>".
//
// Memory: a few fixed reserves plus the largest single hit, whatever the size of the response.
// Thread-safety: none; one writer at a time. onNewDocument runs on the writer's thread, inside
// writeBytes. Ownership: the parser owns its texts; references handed to onNewDocument are valid during
// the call only.
#pragma once

#include <kx/system/kxExport.h>
#include <kx/system/kxIoDevice.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kx {
namespace elasticsearch {

class KX_EXPORT SearchResultParserInterface : public kxIoDevice {
 public:
  SearchResultParserInterface();
  ~SearchResultParserInterface() override;

  // Always fails: "read not implemented".
  size_t readBytes(char* buffer, size_t size) override;
  // Scans the next piece; returns `size`, or the bytes taken before a failure stopped the scan (0 once
  // the device is in error).
  size_t writeBytes(const char* data, size_t size) override;
  // Always true: the parser has nothing to read.
  bool atEnd() const override;

  // One hit: its "_id", "_source" (raw JSON), "_score" (as written), "highlight" (raw JSON or ""),
  // the source's "type" and "ts" (null when the source has none).
  virtual void onNewDocument(const std::string& id, const std::string& source, const std::string& score,
                             const std::string& highlight, const std::string& type,
                             const int64_t* timestamp) = 0;

  // Call after the last byte: true when the response closed cleanly and no error occurred. Otherwise
  // false, with the report described above in `error` when it is not null.
  bool finish(std::string* error);
  // Back to the state of a new parser (error, total, scroll identifier and current hit cleared), for the
  // next page of a scroll.
  void reset();
  // Empties the fields of the current hit; runs after each onNewDocument.
  void clearCurrentDocumentStates();

  // The total hit count, 0 while unknown; `exact` (when not null) receives whether it is exact (false
  // while unknown).
  int64_t getTotalHitCount(bool* exact) const;
  const std::string& getScrollId() const { return scrollId_; }
  // The raw error text of an error response.
  const std::string& getErrorMessage() const { return errorText_; }

 private:
  size_t scanString(const char* data, size_t size, size_t i);
  size_t scanScalar(const char* data, size_t size, size_t i);
  bool beginValue(char kind, size_t i);
  bool openContainer(bool isArray, unsigned char context);
  bool closeContainer(bool isArray, const char* data, size_t i);
  bool endToken(const char* data, size_t end);
  bool finishKept();
  bool appendCodeUnit(uint32_t unit);
  bool failEscape();
  bool stop(std::string_view text);  // sets the device error and ends the scan
  void flushSpans(const char* data, size_t end);

  // The scanner. Contexts, expectations, tokens and roles are small enumerations of the source file.
  uint32_t objectDepth_ = 0;
  uint32_t arrayDepth_ = 0;
  uint32_t skipDepth_ = 0;          // containers open inside a skipped value
  uint32_t captureDepth_ = 0;       // nesting at which the raw value being captured began
  uint32_t escapeUnit_ = 0;         // \uXXXX being read
  uint32_t highSurrogate_ = 0;      // the first half of a surrogate pair, waiting for the second
  unsigned char context_ = 0;       // the recognised container the scanner is in
  unsigned char savedContext_ = 0;  // the context a skipped value was entered from
  unsigned char expect_ = 1;        // what may come next (reported as "nextis")
  unsigned char token_ = 0;         // string or scalar in progress
  unsigned char escape_ = 0;        // inside a string: after '\' (1) or hex digits read (2..5)
  unsigned char key_ = 0;           // the recognised key whose value comes next
  unsigned char keepRole_ = 0;      // what the kept string or scalar in progress is
  unsigned char captureRole_ = 0;   // what the raw value being captured is
  bool tokenIsKey_ = false;
  bool tsInThisSource_ = false;
  bool stopped_ = false;
  std::string* keep_ = nullptr;     // where the kept token's text goes (null: skipped)
  std::string* capture_ = nullptr;  // where the raw value's bytes go
  size_t keepFrom_ = 0;             // first byte of the current piece not yet kept
  size_t captureFrom_ = 0;          // first byte of the current piece not yet captured
  std::vector<bool> containerIsArray_;  // one bit per open container

  std::string value_;  // a kept scalar before its conversion
  std::string keyText_;
  std::string document_;
  std::string highlight_;
  std::string id_;
  std::string type_;
  std::string score_;
  std::string relation_;
  std::string scrollId_;
  std::string errorText_;
  int64_t total_ = -1;
  int64_t timestamp_ = 0;
  bool totalExact_ = false;
  bool hasTimestamp_ = false;
};

}  // namespace elasticsearch
}  // namespace kx
