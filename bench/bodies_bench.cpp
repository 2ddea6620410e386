// Message bodies against the floors of the same work, on the same bytes, in the same run:
// - Chunked/<piece>: the chunked device (64 KiB chunks) writing into a memory sink, against the same
//   pieces written straight into that sink (Direct/<piece>); pieces of 1 B, 64 B, 4 KiB, 64 KiB, 1 MiB.
// - Parse/<body>: the multipart iterator (input read in 4 KiB or 64 KiB pieces, a 64 KiB parse buffer,
//   the part data read into a 64 KiB caller buffer) and the SAX parser (pieces of 64 B to 1 MiB),
//   against memchr for CR and memcpy into the caller buffer over the whole body, and GMime 3.2 (in
//   process: parse from a memory stream, then read every part's content into the caller buffer).
//   Bodies: one 256 MiB binary part, 1,000 parts of 64 KiB, 10,000 small fields, and 16 MiB of CR LF
//   "--" near misses of every length (each one a partial delimiter that fails at its last byte).
// - Build/<body>: the multipart builder's reads into a 64 KiB buffer (queueing included) against memcpy
//   of the same body.
//
//   apt-get install -y --no-install-recommends libgmime-3.0-dev      (./build.sh bench does it)
//   cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DKX_BUILD_BENCH=ON
//   cmake --build build-bench --target bodies_bench
//   ./build-bench/bench/bodies_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
//
// Compare bytes_per_second of rows with the same body. Before anything is timed, every parser's parts
// (names, lengths, FNV-1a of the data) are compared with the generated ones, the builder's output with
// the generated body, and the chunked output, decoded, with the payload; the program stops on a
// difference. Alignment is fixed: the body, the caller's buffer and the iterator's buffer start at
// different offsets within a 4 KiB page (printed at start), because two buffers at the same offset make
// glibc's memcpy stall on 4 KiB aliasing and would slow whichever side happens to get them.
#include <kx/http/HttpHeaders.h>
#include <kx/http/MultiPartBuilder.h>
#include <kx/http/MultiPartIterator.h>
#include <kx/http/MultiPartSaxParser.h>
#include <kx/http/kxIoDeviceHttpChunked.h>
#include <kx/system/kxIoDeviceByteContainerReadOnly.h>
#include <kx/system/kxIoDeviceStringWriteOnly.h>

#include <benchmark/benchmark.h>
#include <gmime/gmime.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

namespace {

constexpr size_t kPage = 4096;
constexpr size_t kCallerBufferSize = 64 * 1024;
const std::string kBoundary = "------------------------d74496d66958873e";

// Memory whose start sits `offset` bytes into a page.
class PlacedBuffer {
 public:
  PlacedBuffer(size_t size, size_t offset)
      : base_(static_cast<char*>(std::aligned_alloc(kPage, (size + offset + 2 * kPage) / kPage * kPage))),
        data_(base_ + offset) {
    if (base_ == nullptr) std::abort();
  }
  ~PlacedBuffer() { std::free(base_); }
  PlacedBuffer(const PlacedBuffer&) = delete;
  PlacedBuffer& operator=(const PlacedBuffer&) = delete;
  char* data() const { return data_; }

 private:
  char* base_;
  char* data_;
};

uint64_t Fnv(uint64_t hash, const char* data, size_t size) {
  for (size_t i = 0; i < size; ++i) hash = (hash ^ static_cast<unsigned char>(data[i])) * 0x100000001b3ULL;
  return hash;
}
constexpr uint64_t kFnvStart = 0xcbf29ce484222325ULL;

void FillRandom(std::string& out, size_t size, uint64_t& state) {
  const size_t start = out.size();
  out.resize(start + size);
  for (size_t i = 0; i < size; i += 8) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    std::memcpy(&out[start + i], &state, std::min<size_t>(8, size - i));
  }
}

struct PartSeen {
  std::string name;
  uint64_t length = 0;
  uint64_t hash = kFnvStart;
  bool operator==(const PartSeen& o) const { return name == o.name && length == o.length && hash == o.hash; }
};

// A generated body, written exactly as MultiPartBuilder writes it, placed after room for the one
// header line GMime needs to know the boundary.
struct Body {
  const char* label = "";
  std::unique_ptr<PlacedBuffer> memory;
  const char* data = nullptr;  // the body
  size_t size = 0;
  const char* mime = nullptr;  // "Content-Type: ..." CRLF CRLF, then the body
  size_t mimeSize = 0;
  struct Part {
    std::string name, fileName;
    bool binary;
    size_t offset, length;  // the part's data within the body
  };
  std::vector<Part> parts;
  std::vector<PartSeen> expected;
};

const std::string kMimeHead = "Content-Type: multipart/form-data; boundary=" + kBoundary + "\r\n\r\n";

// `parts`: name, file name (empty: a field), data.
using PartList = std::vector<std::tuple<std::string, std::string, std::string>>;

void Assemble(Body& body, const char* label, const PartList& parts, size_t offset) {
  std::string text;
  for (const auto& [name, fileName, data] : parts) {
    text += (text.empty() ? "--" : "\r\n--") + kBoundary + "\r\ncontent-disposition: form-data;name=\"" + name + "\"";
    if (!fileName.empty()) text += ";filename=\"" + fileName + "\"\r\ncontent-type:application/octet-stream";
    text += "\r\n\r\n";
    body.parts.push_back({name, fileName, !fileName.empty(), text.size(), data.size()});
    body.expected.push_back({name, data.size(), Fnv(kFnvStart, data.data(), data.size())});
    text += data;
  }
  text += "\r\n--" + kBoundary + "--\r\n";
  body.label = label;
  body.memory = std::make_unique<PlacedBuffer>(kMimeHead.size() + text.size(), kPage + offset);
  char* at = body.memory->data();
  body.data = at;
  body.size = text.size();
  std::memcpy(at, text.data(), text.size());
  body.mime = at - kMimeHead.size();
  body.mimeSize = kMimeHead.size() + text.size();
  std::memcpy(at - kMimeHead.size(), kMimeHead.data(), kMimeHead.size());
}

std::vector<Body>* gBodies = nullptr;
size_t gCallerOffset = 0;
size_t gIteratorOffset = 0;

void MakeBodies(size_t bodyOffset) {
  gBodies = new std::vector<Body>(4);
  uint64_t seed = 0x9e3779b97f4a7c15ULL;
  {
    std::string data;
    FillRandom(data, 256u << 20, seed);
    Assemble((*gBodies)[0], "OnePart256MiB", {{"file", "big.bin", std::move(data)}}, bodyOffset);
  }
  {
    PartList parts;
    for (int i = 0; i < 1000; ++i) {
      std::string data;
      FillRandom(data, 64 * 1024, seed);
      const std::string n = std::to_string(i);
      parts.emplace_back("file" + n, std::string("f").append(n).append(".bin"), std::move(data));
    }
    Assemble((*gBodies)[1], "Parts1000x64KiB", parts, bodyOffset);
  }
  {
    PartList parts;
    for (int i = 0; i < 10000; ++i)
      parts.emplace_back("field" + std::to_string(i), "", "value of field " + std::to_string(i * 7919));
    Assemble((*gBodies)[2], "Fields10000", parts, bodyOffset);
  }
  {
    // Every prefix of the delimiter, from CR LF "--" alone to all but its last byte, then a byte that
    // breaks it: the scanner starts a match at every one and must give all the bytes back as data.
    std::string data;
    for (size_t i = 0; data.size() < (16u << 20); ++i)
      data.append("\r\n--").append(kBoundary, 0, i % kBoundary.size()).append("x");
    Assemble((*gBodies)[3], "NearMiss16MiB", {{"file", "miss.bin", std::move(data)}}, bodyOffset);
  }
}

// --- Parsers -------------------------------------------------------------------------------------------

// Reads at most `piece` bytes per call from the body, as a socket delivers it.
class PieceReader : public kx::kxIoDeviceByteContainerReadOnly {
 public:
  PieceReader(const char* data, size_t size, size_t piece)
      : kxIoDeviceByteContainerReadOnly(data, size), piece_(piece) {}
  size_t readBytes(char* buffer, size_t size) override {
    return kxIoDeviceByteContainerReadOnly::readBytes(buffer, std::min(size, piece_));
  }

 private:
  size_t piece_;
};

std::shared_ptr<std::vector<char>> gIteratorBuffer;

// The caller reads each part's data into `out`; with `seen`, the parts are recorded.
bool RunIterator(const Body& body, size_t piece, char* out, std::vector<PartSeen>* seen) {
  PieceReader input(body.data, body.size, piece);
  kx::http::MultiPartIterator parts(input, gIteratorBuffer, kBoundary, true, {});
  while (parts.nextPart()) {
    PartSeen part{parts.getPartName()};
    for (size_t n; (n = parts.readBytes(out, kCallerBufferSize)) != 0;) {
      part.length += n;
      if (seen != nullptr) part.hash = Fnv(part.hash, out, n);
    }
    benchmark::DoNotOptimize(out);
    if (seen != nullptr) seen->push_back(part);
    if (!parts.atEnd()) return false;
  }
  return parts.atEndOfAllParts();
}

class SaxCounter : public kx::http::MultiPartSaxParser {
 public:
  SaxCounter(const kx::http::HttpHeaders& headers, std::vector<char>& work, std::vector<PartSeen>* seen)
      : MultiPartSaxParser(headers, work), seen_(seen) {}
  uint64_t bytes = 0;

 protected:
  bool onPartBegin() override {
    if (seen_ != nullptr) seen_->push_back({getPartName()});
    return true;
  }
  bool onPartData(const char* data, size_t size) override {
    bytes += size;
    if (seen_ != nullptr) {
      seen_->back().length += size;
      seen_->back().hash = Fnv(seen_->back().hash, data, size);
    }
    return true;
  }
  bool onPartEnd() override { return true; }

 private:
  std::vector<PartSeen>* seen_;
};

const kx::http::HttpHeaders& SaxHeaders() {
  static const kx::http::HttpHeaders headers = [] {
    kx::http::HttpHeaders h;
    h.replaceHeader("Content-Type", "multipart/form-data; boundary=" + kBoundary);
    return h;
  }();
  return headers;
}

bool RunSax(const Body& body, size_t piece, std::vector<char>& work, std::vector<PartSeen>* seen) {
  SaxCounter parser(SaxHeaders(), work, seen);
  for (size_t at = 0; at < body.size;) {
    const size_t n = std::min(piece, body.size - at);
    if (parser.writeBytes(body.data + at, n) != n) return false;
    at += n;
  }
  benchmark::DoNotOptimize(parser.bytes);
  return parser.isAllDataConsumed();
}

// GMime reads the memory stream in place (it does not copy the body first) and keeps each part's
// content as a window on it; reading that window is where the part's bytes reach the caller.
bool RunGMime(const Body& body, char* out, std::vector<PartSeen>* seen) {
  GByteArray* array = g_byte_array_new_take(reinterpret_cast<guint8*>(const_cast<char*>(body.mime)), body.mimeSize);
  GMimeStream* stream = g_mime_stream_mem_new_with_byte_array(array);
  g_mime_stream_mem_set_owner(GMIME_STREAM_MEM(stream), FALSE);
  GMimeParser* parser = g_mime_parser_new_with_stream(stream);
  GMimeObject* object = g_mime_parser_construct_part(parser, nullptr);
  bool ok = object != nullptr && GMIME_IS_MULTIPART(object);
  if (ok) {
    GMimeMultipart* multipart = GMIME_MULTIPART(object);
    const int count = g_mime_multipart_get_count(multipart);
    for (int i = 0; i < count && ok; ++i) {
      GMimeObject* child = g_mime_multipart_get_part(multipart, i);
      if (!GMIME_IS_PART(child)) {
        ok = false;
        break;
      }
      PartSeen part;
      if (seen != nullptr) {
        const char* name = g_mime_object_get_content_disposition_parameter(child, "name");
        part.name = name != nullptr ? name : "";
      }
      GMimeDataWrapper* content = g_mime_part_get_content(GMIME_PART(child));
      GMimeStream* data = content != nullptr ? g_mime_data_wrapper_get_stream(content) : nullptr;
      if (data != nullptr) {
        g_mime_stream_reset(data);
        for (ssize_t n; (n = g_mime_stream_read(data, out, kCallerBufferSize)) > 0;) {
          part.length += size_t(n);
          if (seen != nullptr) part.hash = Fnv(part.hash, out, size_t(n));
        }
      }
      benchmark::DoNotOptimize(out);
      if (seen != nullptr) seen->push_back(part);
    }
  }
  if (object != nullptr) g_object_unref(object);
  g_object_unref(parser);
  g_object_unref(stream);
  g_byte_array_free(array, FALSE);  // the bytes are the body's, not the array's
  return ok;
}

size_t CountCr(const Body& body) {
  size_t count = 0;
  const char* end = body.data + body.size;
  for (const char* at = body.data; (at = static_cast<const char*>(std::memchr(at, '\r', size_t(end - at))));
       ++at)
    ++count;
  return count;
}

void CopyAll(const char* data, size_t size, char* out) {
  for (size_t at = 0; at < size; at += kCallerBufferSize) {
    std::memcpy(out, data + at, std::min(kCallerBufferSize, size - at));
    benchmark::DoNotOptimize(out);
  }
}

// --- Builder -------------------------------------------------------------------------------------------

void QueueParts(kx::http::MultiPartBuilder& builder, const Body& body) {
  static const kx::http::HttpHeaders binary = [] {
    kx::http::HttpHeaders h;
    h.replaceHeader("content-type", "application/octet-stream");
    return h;
  }();
  for (const Body::Part& part : body.parts) {
    if (part.binary) builder.queueSrcBuffer(body.data + part.offset, part.length, part.name, &part.fileName, &binary);
    else builder.queueSrcBuffer(body.data + part.offset, part.length, part.name);
  }
}

// Reads the whole body into `out`; with `copy`, into consecutive places of it.
size_t RunBuilder(const Body& body, char* out, std::string* copy) {
  kx::http::MultiPartBuilder builder(kBoundary);
  QueueParts(builder, body);
  size_t total = 0;
  do {
    const size_t n = builder.readBytes(out, kCallerBufferSize);
    if (copy != nullptr) copy->append(out, n);
    total += n;
    benchmark::DoNotOptimize(out);
  } while (!builder.atEnd() && builder.good());
  return builder.good() ? total : 0;
}

// --- Chunked -------------------------------------------------------------------------------------------

constexpr size_t kChunkPayload = 16u << 20;
constexpr uint32_t kMaxChunk = 64 * 1024;
std::string* gPayload = nullptr;

bool WritePieces(kx::kxIoDevice& device, size_t piece) {
  const std::string& payload = *gPayload;
  for (size_t at = 0; at < payload.size(); at += piece)
    if (device.writeBytes(payload.data() + at, std::min(piece, payload.size() - at)) == 0) return false;
  return true;
}

bool RunChunked(kx::kxIoDeviceStringWriteOnly& sink, size_t piece) {
  kx::http::kxIoDeviceHttpChunked chunked(kMaxChunk);
  if (!chunked.beginDelegation(&sink, kx::kxIoDevice::DW_Write)) return false;
  return WritePieces(chunked, piece) && chunked.endDelegation();
}

// A strict decoder of what RunChunked wrote: every chunk but the last full, lower-case hex.
bool DecodesToPayload(const std::string& framed) {
  std::string decoded;
  size_t at = 0;
  while (true) {
    const size_t eol = framed.find("\r\n", at);
    if (eol == std::string::npos) return false;
    const std::string sizeText = framed.substr(at, eol - at);
    if (sizeText.empty() || sizeText.find_first_not_of("0123456789abcdef") != std::string::npos ||
        (sizeText.size() > 1 && sizeText[0] == '0'))
      return false;
    const size_t size = std::stoul(sizeText, nullptr, 16);
    at = eol + 2;
    if (size == 0) return framed.compare(at, std::string::npos, "\r\n") == 0 && decoded == *gPayload;
    if (size > kMaxChunk || framed.compare(at + size, 2, "\r\n") != 0) return false;
    decoded.append(framed, at, size);
    at += size + 2;
  }
}

// --- Benchmarks ----------------------------------------------------------------------------------------

void BM_Chunked(benchmark::State& state) {
  const size_t piece = size_t(state.range(0));
  kx::kxIoDeviceStringWriteOnly sink;
  sink.editString().reserve(kChunkPayload + kChunkPayload / 1000 + 64);
  for (auto _ : state) {
    sink.editString().clear();
    if (!RunChunked(sink, piece)) state.SkipWithError("chunked write failed");
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kChunkPayload));
}

void BM_Direct(benchmark::State& state) {
  const size_t piece = size_t(state.range(0));
  kx::kxIoDeviceStringWriteOnly sink;
  sink.editString().reserve(kChunkPayload + kChunkPayload / 1000 + 64);
  for (auto _ : state) {
    sink.editString().clear();
    if (!WritePieces(sink, piece)) state.SkipWithError("sink write failed");
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kChunkPayload));
}

// Parse benchmarks take the body's index as their first argument.
void SetBodyBytes(benchmark::State& state, const Body& body) {
  state.SetLabel(body.label);
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(body.size));
}

void BM_Iterator(benchmark::State& state) {
  const Body& body = (*gBodies)[size_t(state.range(0))];
  PlacedBuffer out(kCallerBufferSize, gCallerOffset);
  for (auto _ : state)
    if (!RunIterator(body, size_t(state.range(1)), out.data(), nullptr)) state.SkipWithError("iterator failed");
  SetBodyBytes(state, body);
}

void BM_Sax(benchmark::State& state) {
  const Body& body = (*gBodies)[size_t(state.range(0))];
  std::vector<char> work;
  for (auto _ : state)
    if (!RunSax(body, size_t(state.range(1)), work, nullptr)) state.SkipWithError("SAX parser failed");
  SetBodyBytes(state, body);
}

void BM_GMime(benchmark::State& state) {
  const Body& body = (*gBodies)[size_t(state.range(0))];
  PlacedBuffer out(kCallerBufferSize, gCallerOffset);
  for (auto _ : state)
    if (!RunGMime(body, out.data(), nullptr)) state.SkipWithError("GMime failed");
  SetBodyBytes(state, body);
}

void BM_Memchr(benchmark::State& state) {
  const Body& body = (*gBodies)[size_t(state.range(0))];
  for (auto _ : state) benchmark::DoNotOptimize(CountCr(body));
  SetBodyBytes(state, body);
}

void BM_Memcpy(benchmark::State& state) {
  const Body& body = (*gBodies)[size_t(state.range(0))];
  PlacedBuffer out(kCallerBufferSize, gCallerOffset);
  for (auto _ : state) CopyAll(body.data, body.size, out.data());
  SetBodyBytes(state, body);
}

void BM_Builder(benchmark::State& state) {
  const Body& body = (*gBodies)[size_t(state.range(0))];
  PlacedBuffer out(kCallerBufferSize, gCallerOffset);
  for (auto _ : state)
    if (RunBuilder(body, out.data(), nullptr) != body.size) state.SkipWithError("builder failed");
  SetBodyBytes(state, body);
}

// Queueing alone, without reading: the share of BM_Builder that grows with the number of parts.
void BM_BuilderQueue(benchmark::State& state) {
  const Body& body = (*gBodies)[size_t(state.range(0))];
  for (auto _ : state) {
    kx::http::MultiPartBuilder builder(kBoundary);
    QueueParts(builder, body);
    benchmark::DoNotOptimize(builder.atEnd());
  }
  SetBodyBytes(state, body);
  state.counters["parts"] = double(body.parts.size());
}

void PieceArgs(benchmark::internal::Benchmark* b) {
  for (int64_t piece : {1, 64, 4096, 65536, 1 << 20}) b->Arg(piece);
}
void BodyArgs(benchmark::internal::Benchmark* b) {
  b->ArgName("body");
  for (int64_t body = 0; body < 4; ++body) b->Arg(body);
}

// 0.2 s per row keeps the whole program near two minutes at five repetitions on a shared machine.
constexpr double kMinTime = 0.2;
BENCHMARK(BM_Chunked)->Apply(PieceArgs)->ArgName("piece")->MinTime(kMinTime)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Direct)->Apply(PieceArgs)->ArgName("piece")->MinTime(kMinTime)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Memcpy)->Apply(BodyArgs)->MinTime(kMinTime)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Memchr)->Apply(BodyArgs)->MinTime(kMinTime)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Iterator)
    ->ArgsProduct({{0, 1, 2, 3}, {4096, 65536}})
    ->ArgNames({"body", "piece"})
    ->MinTime(kMinTime)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Sax)
    ->ArgsProduct({{0, 1, 2, 3}, {64, 4096, 65536, 1 << 20}})
    ->ArgNames({"body", "piece"})
    ->MinTime(kMinTime)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GMime)->Apply(BodyArgs)->MinTime(kMinTime)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Builder)->Apply(BodyArgs)->MinTime(kMinTime)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BuilderQueue)->Arg(1)->Arg(2)->ArgName("body")->MinTime(kMinTime)->Unit(benchmark::kMillisecond);

bool Check() {
  bool ok = true;
  const auto fail = [&ok](const char* what, const Body& body) {
    std::fprintf(stderr, "bodies_bench: %s differs on %s\n", what, body.label);
    ok = false;
  };
  PlacedBuffer out(kCallerBufferSize, gCallerOffset);
  std::vector<char> work;
  for (const Body& body : *gBodies) {
    std::vector<PartSeen> seen;
    if (!RunIterator(body, 4096, out.data(), &seen) || seen != body.expected) fail("iterator", body);
    for (size_t piece : {size_t(64), size_t(4096), size_t(1) << 20}) {
      seen.clear();
      if (!RunSax(body, piece, work, &seen) || seen != body.expected) fail("SAX parser", body);
    }
    seen.clear();
    if (!RunGMime(body, out.data(), &seen) || seen != body.expected) fail("GMime", body);
    std::string built;
    if (RunBuilder(body, out.data(), &built) != body.size || built != std::string(body.data, body.size))
      fail("builder output", body);
  }
  for (size_t piece : {size_t(1), size_t(4096), size_t(1) << 20}) {
    kx::kxIoDeviceStringWriteOnly sink;
    if (!RunChunked(sink, piece) || !DecodesToPayload(sink.getString())) {
      std::fprintf(stderr, "bodies_bench: chunked framing wrong at %zu-byte pieces\n", piece);
      ok = false;
    }
  }
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  g_mime_init();
  gIteratorBuffer = std::make_shared<std::vector<char>>();
  gIteratorBuffer->reserve(64 * 1024);
  // Three different places in a page: the iterator's buffer (where malloc put it), the body 1 KiB
  // further, the caller's buffer 2 KiB further.
  gIteratorOffset = reinterpret_cast<uintptr_t>(gIteratorBuffer->data()) % kPage;
  const size_t bodyOffset = (gIteratorOffset + 1024) % kPage;
  gCallerOffset = (gIteratorOffset + 2048) % kPage;
  std::printf("page offsets: iterator buffer %zu, body %zu, caller buffer %zu\n", gIteratorOffset, bodyOffset,
              gCallerOffset);
  MakeBodies(bodyOffset);
  gPayload = new std::string;
  uint64_t seed = 42;
  FillRandom(*gPayload, kChunkPayload, seed);
  if (!Check()) return 1;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
