// Runs a multipart body through the pull parser (MultiPartIterator) and the push parser
// (MultiPartSaxParser) in pieces whose sizes follow a seed, and collects the parts each one returns.
#pragma once

#include <kx/http/HttpHeaders.h>
#include <kx/http/MultiPartIterator.h>
#include <kx/http/MultiPartSaxParser.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

struct Part {
  std::string name, fileName, data;
  bool operator==(const Part&) const = default;
};
struct Parsed { std::vector<Part> parts; bool accepted = false; };

// Piece sizes from 1 to `largest`, in an order the seed picks (never 0: the pull parser counts a
// few empty reads as a cut body).
class Pieces {
 public:
  Pieces(unsigned seed, size_t largest) : state_(seed * 2654435761u + 1), largest_(std::max<size_t>(largest, 1)) {}
  size_t next() { return (state_ = state_ * 1103515245u + 12345u) / 65536 % largest_ + 1; }
 private:
  unsigned state_;
  size_t largest_;
};

class PieceDevice final : public kx::kxIoDevice {
 public:
  PieceDevice(std::string_view body, Pieces pieces) : kxIoDevice(DW_Read), body_(body), pieces_(pieces) {}
  size_t readBytes(char* buffer, size_t size) override {
    const size_t n = std::min({size, body_.size() - at_, pieces_.next()});
    std::memcpy(buffer, body_.data() + at_, n);
    at_ += n;
    return n;
  }
  bool atEnd() const override { return at_ == body_.size(); }
 private:
  std::string_view body_;
  size_t at_ = 0;
  Pieces pieces_;
};

inline Parsed PullParse(const std::string& contentType, std::string_view body, Pieces pieces, size_t bufferSize) {
  PieceDevice input(body, pieces);
  auto buffer = std::make_shared<std::vector<char>>();
  buffer->reserve(bufferSize);
  kx::http::MultiPartIterator iterator(input, {contentType}, buffer, true, {});
  Parsed out;
  while (iterator.nextPart()) {
    Part part{iterator.getPartName(), iterator.getPartFileName(), {}};
    char chunk[61];
    for (size_t n; (n = iterator.read(chunk, sizeof chunk)) > 0;) part.data.append(chunk, n);
    out.parts.push_back(part);
  }
  out.accepted = iterator.atEndOfAllParts();
  return out;
}

class Collector final : public kx::http::MultiPartSaxParser {
 public:
  using MultiPartSaxParser::MultiPartSaxParser;
  std::vector<Part> parts;
 protected:
  bool onPartBegin() override { parts.push_back({getPartName(), getPartFileName(), {}}); return true; }
  bool onPartData(const char* data, size_t size) override { parts.back().data.append(data, size); return true; }
  bool onPartEnd() override { return true; }
};

inline Parsed PushParse(const std::string& contentType, std::string_view body, Pieces pieces) {
  kx::http::HttpHeaders headers;
  headers.addHeaderValue("Content-Type", contentType);
  std::vector<char> work;
  Collector parser(headers, work);
  for (size_t at = 0; at < body.size();) {
    // Each piece in a buffer of its own size, so that AddressSanitizer sees a read past its end.
    const size_t n = std::min(body.size() - at, pieces.next());
    const std::vector<char> piece(body.data() + at, body.data() + at + n);
    if (parser.write(piece.data(), n) != n) break;
    at += n;
  }
  return {parser.parts, !parser.hasDeviceError() && parser.isAllDataConsumed()};
}

[[noreturn]] inline void Fail(const char* what) {
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

}  // namespace fuzz
