// Runs one multipart body through the pull parser (MultiPartIterator) or the push parser
// (MultiPartSaxParser), cut whole, byte by byte or in random pieces (fixed seed), and collects what a
// caller sees: the parts with their bytes, and the error text ("<cut>" for a body the push parser
// found incomplete without an error).
#pragma once

#include <kx/http/HttpHeaders.h>
#include <kx/http/MultiPartIterator.h>
#include <kx/http/MultiPartSaxParser.h>

#include <algorithm>
#include <cstring>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace kx::test {

struct ParsedPart {
  std::string name, fileName, contentType, data;
  bool operator==(const ParsedPart&) const = default;
};

struct ParseOutcome { std::vector<ParsedPart> parts; std::string error; };

enum class Pieces { kWhole, kBytes, kRandom };

// Hands out a body in pieces; random ones (0 to 700 bytes, 0 being "nothing now") repeat run to run.
class PieceSource final : public kxIoDevice {
 public:
  PieceSource(std::string_view body, Pieces pieces) : kxIoDevice(DW_Read), body_(body), pieces_(pieces) {}
  size_t readBytes(char* buffer, size_t size) override {
    const size_t piece = pieces_ == Pieces::kWhole ? size
                         : pieces_ == Pieces::kBytes ? 1
                                                     : std::uniform_int_distribution<size_t>(0, 700)(random_);
    const size_t n = std::min({size, body_.size() - at_, piece});
    std::memcpy(buffer, body_.data() + at_, n);
    at_ += n;
    return n;
  }
  bool atEnd() const override { return at_ == body_.size(); }

 private:
  std::string_view body_;
  size_t at_ = 0;
  Pieces pieces_;
  std::mt19937 random_{20261123};
};

inline ParseOutcome RunIterator(const std::list<std::string>& contentType, std::string_view body, Pieces pieces,
                                bool acceptUnknown = true, http::MultiPartIterator::ExpectedParts expected = {}) {
  PieceSource input(body, pieces);
  auto buffer = std::make_shared<std::vector<char>>();
  http::MultiPartIterator parts(input, contentType, buffer, acceptUnknown, std::move(expected));
  ParseOutcome out;
  while (parts.nextPart()) {
    ParsedPart part{parts.getPartName(), parts.getPartFileName(), parts.getPartContentType(), {}};
    char chunk[97];  // an odd size, so that reads stop inside delimiters
    for (size_t n; (n = parts.read(chunk, sizeof chunk)) > 0;) part.data.append(chunk, n);
    out.parts.push_back(part);
  }
  if (!parts.atEndOfAllParts()) out.error = parts.getDeviceErrorMsg();
  return out;
}

class SaxCollector : public http::MultiPartSaxParser {
 public:
  using MultiPartSaxParser::MultiPartSaxParser;
  std::vector<ParsedPart> parts;
  bool refuseData = false;

 protected:
  bool onPartBegin() override {
    parts.push_back({getPartName(), getPartFileName(), getPartContentType(), {}});
    return true;
  }
  bool onPartData(const char* data, size_t size) override {
    parts.back().data.append(data, size);
    return !refuseData;
  }
  bool onPartEnd() override { return true; }
};

inline ParseOutcome RunSax(const std::list<std::string>& contentType, std::string_view body, Pieces pieces,
                           http::MultiPartSaxParser::MultiPartType* type = nullptr) {
  http::HttpHeaders headers;
  for (const std::string& value : contentType) headers.addHeaderValue("Content-Type", value);
  std::vector<char> work;
  SaxCollector parser(headers, work);
  PieceSource input(body, pieces);
  std::vector<char> piece(body.size() + 1);
  while (!input.atEnd()) {
    // Each piece in a buffer of its own size, so that a sanitizer sees a read past its end.
    const std::vector<char> exact(piece.begin(), piece.begin() + input.read(piece.data(), piece.size()));
    if (!exact.empty() && parser.write(exact.data(), exact.size()) != exact.size()) break;
  }
  if (type != nullptr) *type = parser.getType();
  if (parser.hasDeviceError()) return {parser.parts, parser.getDeviceErrorMsg()};
  return {parser.parts, parser.isAllDataConsumed() ? "" : "<cut>"};
}

}  // namespace kx::test
