// The search result parser against RapidJSON's SAX reader over the same generated response in the same
// run. The peer reads the whole body from one buffer and keeps each hit's "_id" (the least a caller of a
// SAX reader would do); Corvix is fed in pieces of 1 B, 64 B, 4 KiB, 64 KiB and whole, as a transfer
// would feed it, and hands every hit with its raw source to a callback.
//
//   cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DKX_BUILD_BENCH=ON
//   cmake --build build-bench --target search_bench
//   ./build-bench/bench/search_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
//
// Both are checked for the right number of hits before anything is timed.
#include <kx/elasticsearch/SearchResultParserLambda.h>

#include <benchmark/benchmark.h>
#include <rapidjson/reader.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr int kHits = 20000;

// A search response as Elasticsearch 8 writes it: shards, a total object, hits with index, id, score, a
// source of mixed fields (text with escapes, numbers, nested objects and arrays) and a highlight.
const std::string& Body() {
  static const std::string body = [] {
    std::string b = R"({"took":12,"timed_out":false,"_shards":{"total":5,"successful":5,"skipped":0,"failed":0},)"
                    R"("hits":{"total":{"value":20000,"relation":"eq"},"max_score":1.0,"hits":[)";
    for (int i = 0; i < kHits; ++i) {
      if (i != 0) b += ',';
      const std::string n = std::to_string(i);
      b += R"({"_index":"logs-2024.11","_id":"doc-)" + n + R"(","_score":1.)" + n +
           R"(,"_source":{"type":"event","ts":17000000)" + n +
           R"(,"message":"user \"alice\" logged in from 10.0.)" + n +
           R"( \u00e9 ok","tags":["auth","login","web"],"geo":{"lat":48.85,"lon":2.35},"count":)" + n +
           R"(,"ok":true,"extra":null},"highlight":{"message":["user <em>alice</em>"]}})";
    }
    b += "]}}";
    return b;
  }();
  return body;
}

struct IdHandler : rapidjson::BaseReaderHandler<rapidjson::UTF8<>, IdHandler> {
  std::vector<std::string> ids;
  bool nextIsId = false;
  bool Key(const char* text, rapidjson::SizeType length, bool) {
    nextIsId = length == 3 && text[0] == '_' && text[1] == 'i' && text[2] == 'd';
    return true;
  }
  bool String(const char* text, rapidjson::SizeType length, bool) {
    if (nextIsId) ids.emplace_back(text, length);
    nextIsId = false;
    return true;
  }
  bool Default() {
    nextIsId = false;
    return true;
  }
};

size_t RapidJsonIds(const std::string& body) {
  IdHandler handler;
  handler.ids.reserve(kHits);
  rapidjson::Reader reader;
  rapidjson::StringStream stream(body.c_str());
  if (!reader.Parse(stream, handler)) return 0;
  return handler.ids.size();
}

size_t CorvixHits(const std::string& body, size_t piece) {
  size_t hits = 0;
  size_t sourceBytes = 0;
  kx::elasticsearch::SearchResultParserLambda parser(
      [&](const std::string&, const std::string& source, const std::string&, const std::string&,
          const std::string&, const int64_t*) {
        ++hits;
        sourceBytes += source.size();
      });
  for (size_t at = 0; at < body.size();) {
    const size_t n = std::min(piece, body.size() - at);
    if (parser.writeBytes(body.data() + at, n) != n) return 0;
    at += n;
  }
  benchmark::DoNotOptimize(sourceBytes);
  return parser.finish(nullptr) ? hits : 0;
}

void BM_RapidJsonSaxWhole(benchmark::State& state) {
  const std::string& body = Body();
  for (auto _ : state) benchmark::DoNotOptimize(RapidJsonIds(body));
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(body.size()));
}

void BM_CorvixPieces(benchmark::State& state) {
  const std::string& body = Body();
  const size_t piece = state.range(0) == 0 ? body.size() : size_t(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(CorvixHits(body, piece));
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(body.size()));
}

BENCHMARK(BM_RapidJsonSaxWhole)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CorvixPieces)->Arg(1)->Arg(64)->Arg(4096)->Arg(65536)->Arg(0)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  const std::string& body = Body();
  if (RapidJsonIds(body) != kHits || CorvixHits(body, 4096) != kHits) {
    std::fprintf(stderr, "search_bench: a parser missed hits, nothing timed\n");
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
