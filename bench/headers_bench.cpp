// SplitHttpHeader against the header splitter a user would otherwise write (find ':', trim, cut at every
// comma), on the same response-header lines in the same run.
//
//   cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DKX_BUILD_BENCH=ON
//   cmake --build build-bench --target headers_bench
//   ./build-bench/bench/headers_bench --benchmark_repetitions=10 --benchmark_report_aggregates_only=true
//
// The naive splitter tears dates and quoted parameters apart; both are checked against the expected
// answers before anything is timed, so a fast wrong answer is visible as such.
#include <kx/http/HttpHeaders.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <list>
#include <string>
#include <string_view>
#include <vector>

namespace {

struct Line {
  std::string_view text;
  std::vector<std::string_view> values;  // what SplitHttpHeader must give
  bool naiveAgrees;                      // the comma split gives the same values
};

const std::vector<Line> kLines = {
    {"HTTP/1.1 200 OK\r\n", {}, true},
    {"Date: Tue, 15 Nov 2024 08:12:31 GMT\r\n", {"Tue, 15 Nov 2024 08:12:31 GMT"}, false},
    {"Content-Type: text/html; charset=utf-8\r\n", {"text/html; charset=utf-8"}, true},
    {"Content-Length: 48213\r\n", {"48213"}, true},
    {"Set-Cookie: sid=38afes7a8; HttpOnly; Secure; Path=/; Expires=Wed, 21 Oct 2025 07:28:00 GMT\r\n",
     {"sid=38afes7a8; HttpOnly; Secure; Path=/; Expires=Wed", "21 Oct 2025 07:28:00 GMT"}, true},
    {"Cache-Control: no-cache, no-store, max-age=0, must-revalidate\r\n",
     {"no-cache", "no-store", "max-age=0", "must-revalidate"}, true},
    {"Link: <https://api.example.com/items?page=2>; rel=\"next, more\", "
     "<https://api.example.com/items?page=9>; rel=\"last\"\r\n",
     {"<https://api.example.com/items?page=2>; rel=\"next, more\"",
      "<https://api.example.com/items?page=9>; rel=\"last\""},
     false},
    {"Vary: Accept-Encoding, Origin\r\n", {"Accept-Encoding", "Origin"}, true},
    {"Server: nginx/1.25.3\r\n", {"nginx/1.25.3"}, true},
    {"Strict-Transport-Security: max-age=63072000; includeSubDomains; preload\r\n",
     {"max-age=63072000; includeSubDomains; preload"}, true},
    {"ETag: \"33a64df551425fcc55e4d42a148795d9f25f89d4\"\r\n", {"\"33a64df551425fcc55e4d42a148795d9f25f89d4\""}, true},
    {"Last-Modified: Wed, 21 Oct 2015 07:28:00 GMT\r\n", {"Wed, 21 Oct 2015 07:28:00 GMT"}, false},
    {"Access-Control-Allow-Headers: Content-Type, Authorization, X-Request-ID\r\n",
     {"Content-Type", "Authorization", "X-Request-ID"}, true},
    {"WWW-Authenticate: Bearer realm=\"example\", error=\"invalid_token\", "
     "error_description=\"The token expired, renew it\"\r\n",
     {"Bearer realm=\"example\"", "error=\"invalid_token\"", "error_description=\"The token expired, renew it\""},
     false},
    {"Content-Disposition: attachment; filename=\"report, final.pdf\"\r\n",
     {"attachment; filename=\"report, final.pdf\""}, false},
    {"Connection: keep-alive\r\n", {"keep-alive"}, true},
    {"Keep-Alive: timeout=5, max=1000\r\n", {"timeout=5", "max=1000"}, true},
    {"X-Request-ID: 3f2b8c1e-9d4a-4e6b-8f0a-1c2d3e4f5a6b\r\n", {"3f2b8c1e-9d4a-4e6b-8f0a-1c2d3e4f5a6b"}, true},
    {"Accept-Ranges: bytes\r\n", {"bytes"}, true},
    {"Expires: Thu, 01 Dec 1994 16:00:00 GMT\r\n", {"Thu, 01 Dec 1994 16:00:00 GMT"}, false},
};

std::string_view TrimBlanks(std::string_view text) {
  const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  while (!text.empty() && blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && blank(text.back())) text.remove_suffix(1);
  return text;
}

// The baseline: what one writes in a header callback without a header library.
bool NaiveSplit(const char* line, size_t length, std::string& name, std::vector<std::string>& values) {
  const std::string_view text(line, length);
  values.clear();
  const size_t colon = text.find(':');
  if (colon == std::string_view::npos) {
    name.assign(TrimBlanks(text));
    return !name.empty();
  }
  name.assign(TrimBlanks(text.substr(0, colon)));
  for (char& c : name) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  const std::string_view rest = text.substr(colon + 1);
  size_t start = 0;
  while (true) {
    const size_t comma = rest.find(',', start);
    values.emplace_back(TrimBlanks(rest.substr(start, comma == std::string_view::npos ? rest.npos : comma - start)));
    if (comma == std::string_view::npos) break;
    start = comma + 1;
  }
  return !name.empty();
}

void CheckAnswers() {
  std::string name;
  std::list<std::string> values;
  std::vector<std::string> naive;
  for (const Line& line : kLines) {
    const bool ok = kx::http::HttpHeaders::SplitHttpHeader(line.text.data(), line.text.size(), name, values);
    const bool naiveOk = NaiveSplit(line.text.data(), line.text.size(), name, naive);
    const bool kxRight = ok && values == std::list<std::string>(line.values.begin(), line.values.end());
    const bool naiveRight = naiveOk && naive == std::vector<std::string>(line.values.begin(), line.values.end());
    if (!kxRight || naiveRight != line.naiveAgrees) {
      std::fprintf(stderr, "unexpected split of %.*s", static_cast<int>(line.text.size()), line.text.data());
      std::abort();
    }
  }
}

size_t TotalBytes() {
  size_t bytes = 0;
  for (const Line& line : kLines) bytes += line.text.size();
  return bytes;
}

void BM_SplitHeaders_Kx(benchmark::State& state) {
  std::string name;
  std::list<std::string> values;
  for (auto _ : state) {
    for (const Line& line : kLines) {
      benchmark::DoNotOptimize(
          kx::http::HttpHeaders::SplitHttpHeader(line.text.data(), line.text.size(), name, values));
      benchmark::DoNotOptimize(values);
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kLines.size()));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * TotalBytes()));
}

void BM_SplitHeaders_Naive(benchmark::State& state) {
  std::string name;
  std::vector<std::string> values;
  for (auto _ : state) {
    for (const Line& line : kLines) {
      benchmark::DoNotOptimize(NaiveSplit(line.text.data(), line.text.size(), name, values));
      benchmark::DoNotOptimize(values);
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kLines.size()));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * TotalBytes()));
}

BENCHMARK(BM_SplitHeaders_Kx);
BENCHMARK(BM_SplitHeaders_Naive);

}  // namespace

int main(int argc, char** argv) {
  CheckAnswers();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
