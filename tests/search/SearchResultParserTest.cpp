// The search result parser against RapidJSON's DOM of the same bodies (the oracle for what each hit
// holds), cut in every way a transfer may cut them, plus the failure texts.
#include <gtest/gtest.h>

#include <kx/elasticsearch/SearchResultParserLambda.h>

#include "support/LogCapture.h"

#include <rapidjson/document.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace {

using kx::elasticsearch::SearchResultParserLambda;

struct Hit {
  std::string id, source, score, highlight, type;
  bool hasTs = false;
  int64_t ts = 0;
};

struct Outcome {
  std::vector<Hit> hits;
  int64_t total = 0;
  bool exact = false;
  std::string scrollId, deviceError, finishError;
  bool finished = false;
};

// Feeds `body` in pieces of the given size (0: whole; negative: random sizes 1..-size, fixed seed).
Outcome Feed(const std::string& body, int piece) {
  Outcome out;
  SearchResultParserLambda parser([&](const std::string& id, const std::string& source, const std::string& score,
                                      const std::string& highlight, const std::string& type, const int64_t* ts) {
    out.hits.push_back({id, source, score, highlight, type, ts != nullptr, ts != nullptr ? *ts : 0});
  });
  std::mt19937 random(7);
  for (size_t at = 0; at < body.size() && parser.good();) {
    size_t n = piece == 0 ? body.size() : piece > 0 ? size_t(piece) : 1 + random() % size_t(-piece);
    n = std::min(n, body.size() - at);
    const size_t taken = parser.writeBytes(body.data() + at, n);
    if (taken < n) {
      EXPECT_FALSE(parser.good()) << "a short write without an error";
    }
    at += taken;
  }
  EXPECT_EQ(parser.writeBytes("{", parser.good() ? 0 : 1), 0u);
  out.total = parser.getTotalHitCount(&out.exact);
  out.scrollId = parser.getScrollId();
  out.deviceError = parser.getDeviceErrorMsg();
  out.finished = parser.finish(&out.finishError);
  return out;
}

bool SameJson(const std::string& text, const rapidjson::Value& expected) {
  rapidjson::Document parsed;
  parsed.Parse(text.data(), text.size());
  return !parsed.HasParseError() && parsed == expected;
}

struct CorpusCase {
  const char* name;
  const char* body;
  int64_t total;
  bool exact;
  const char* scrollId;
};

const CorpusCase kCorpus[] = {
    {"Es7SearchWithAggregationHitsAndEscapes",
     R"({"took":5,"timed_out":false,"_shards":{"total":1,"successful":1,"skipped":0,"failed":0},)"
     R"("hits":{"total":{"value":2,"relation":"eq"},"max_score":1.0,"hits":[)"
     R"({"_index":"i","_id":"a\u00e9\ud83d\ude00\n","_score":1.5,"_source":{"type":"d\u00f6c","ts":1700000000000,)"
     R"("text":"x \"q\" \\ \u00e9 \ud83d\ude00 \/","nested":{"ts":"deep","type":5,"hits":{"total":7}},)"
     R"("arr":[1,[2,{"x":[]}],-0.5e+3,true,false,null]},"highlight":{"text":["<em>x</em>"]}},)"
     R"( { "_id" : "b" , "_score" : null , "_source" : { } } ]},)"
     R"("aggregations":{"top":{"hits":{"total":{"value":9,"relation":"eq"},"hits":[{"_id":"agg"}]}}}})",
     2, true, ""},
    {"ScrollPageRelationFirstGte",
     "{\"_scroll_id\":\"DXF1ZXJ5\\u0041==\",\"hits\":{\"total\":{\"relation\":\"gte\",\"value\":10000},"
     "\"hits\":[{\"_id\":\"s1\",\"_source\":{\"ts\":-5,\"type\":7}}]}}",
     10000, false, "DXF1ZXJ5A=="},
    {"EmptyLastScrollPage", R"({"_scroll_id":"abc","hits":{"total":{"value":3,"relation":"eq"},"hits":[]}})", 3,
     true, "abc"},
    {"TotalAsNumberWithInnerHits",
     R"({"hits":{"total":3,"hits":[{"_id":"x","_source":{"a":"ts"},)"
     R"("inner_hits":{"c":{"hits":{"total":1,"hits":[{"_id":"inner","_source":{"ts":1}}]}}}}]}})",
     3, true, ""},
    {"NoTotalNoSourceSortValues",
     "\n {\"pit_id\":\"p\",\"hits\":{\"hits\":[{\"_id\":\"1\",\"_score\":2.5,\"fields\":{\"ts\":[1]},"
     "\"sort\":[1,\"x\"]},{\"_id\":\"2\",\"_source\":\"text source\"}]}}\r\n",
     0, false, ""},
};

class SearchResultCorpusTest : public testing::TestWithParam<CorpusCase> {};

TEST_P(SearchResultCorpusTest, MatchesTheDomHoweverTheBodyIsCut) {
  const CorpusCase& c = GetParam();
  const std::string body = c.body;
  const Outcome whole = Feed(body, 0);
  ASSERT_TRUE(whole.finished) << whole.finishError;
  EXPECT_EQ(whole.total, c.total);
  EXPECT_EQ(whole.exact, c.exact);
  EXPECT_EQ(whole.scrollId, c.scrollId);

  rapidjson::Document dom;
  dom.Parse(body.data(), body.size());
  ASSERT_FALSE(dom.HasParseError());
  const rapidjson::Value& hits = dom["hits"]["hits"];
  ASSERT_EQ(whole.hits.size(), hits.Size());
  for (rapidjson::SizeType k = 0; k < hits.Size(); ++k) {
    SCOPED_TRACE(k);
    const rapidjson::Value& expected = hits[k];
    const Hit& got = whole.hits[k];
    EXPECT_EQ(got.id, expected["_id"].GetString());
    const auto member = [&](const char* name, const std::string& text) {
      if (expected.HasMember(name)) {
        EXPECT_TRUE(SameJson(text, expected[name])) << name << ": " << text;
      } else {
        EXPECT_EQ(text, "") << name;
      }
    };
    member("_source", got.source);
    member("highlight", got.highlight);
    member("_score", got.score);
    const rapidjson::Value* source = expected.HasMember("_source") && expected["_source"].IsObject()
                                         ? &expected["_source"] : nullptr;
    const bool hasTs = source != nullptr && source->HasMember("ts");
    EXPECT_EQ(got.hasTs, hasTs);
    if (hasTs) {
      EXPECT_EQ(got.ts, (*source)["ts"].GetInt64());
    }
    if (source != nullptr && source->HasMember("type") && (*source)["type"].IsString()) {
      EXPECT_EQ(got.type, (*source)["type"].GetString());
    }
  }

  for (int piece : {1, 2, 3, 7, -64, -4096}) {
    SCOPED_TRACE(piece);
    const Outcome cut = Feed(body, piece);
    EXPECT_TRUE(cut.finished) << cut.finishError;
    EXPECT_EQ(cut.total, whole.total);
    EXPECT_EQ(cut.exact, whole.exact);
    EXPECT_EQ(cut.scrollId, whole.scrollId);
    ASSERT_EQ(cut.hits.size(), whole.hits.size());
    for (size_t k = 0; k < cut.hits.size(); ++k) {
      const Hit& a = cut.hits[k];
      const Hit& b = whole.hits[k];
      EXPECT_TRUE(a.id == b.id && a.source == b.source && a.score == b.score && a.highlight == b.highlight &&
                  a.type == b.type && a.hasTs == b.hasTs && a.ts == b.ts)
          << k;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Bodies, SearchResultCorpusTest, testing::ValuesIn(kCorpus),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(SearchResultParserTest, RawTextsAndUnescapedTextsByteForByte) {
  const Outcome out = Feed(kCorpus[0].body, 1);
  ASSERT_EQ(out.hits.size(), 2u);
  EXPECT_EQ(out.hits[0].id, "a\xC3\xA9\xF0\x9F\x98\x80\n");
  EXPECT_EQ(out.hits[0].type, "d\xC3\xB6""c");
  EXPECT_EQ(out.hits[0].score, "1.5");
  EXPECT_EQ(out.hits[0].highlight, R"({"text":["<em>x</em>"]})");
  const std::string sourceStart = R"({"type":"d\u00f6c","ts":1700000000000,"text":"x \"q\" \\ \u00e9 \ud83d\ude00)";
  EXPECT_EQ(out.hits[0].source.substr(0, sourceStart.size()), sourceStart);
  EXPECT_EQ(out.hits[1].score, "null");
  EXPECT_EQ(out.hits[1].source, "{ }");
  EXPECT_EQ(out.hits[1].highlight, "");
  EXPECT_FALSE(out.hits[1].hasTs);
  const Outcome numberType = Feed(kCorpus[1].body, 0);
  EXPECT_EQ(numberType.hits.at(0).type, "7");
}

struct FailureCase {
  const char* name;
  const char* body;
  const char* error;
  size_t hitsBefore;
};

const FailureCase kFailures[] = {
    {"TotalNotANumber", R"({"hits":{"total":"abc"}})", "Fail to parse hits/total abc", 0},
    {"TotalEmptyString", R"({"hits":{"total":""}})", "Fail to parse hits/total", 0},
    {"TotalTrailingBytes", R"({"hits":{"total":12.5}})", "Fail to parse hits/total, not all bytes were consumed 12.5",
     0},
    {"TotalOutOfRange", R"({"hits":{"total":{"value":99999999999999999999}}})",
     "Fail to parse hits/total 99999999999999999999", 0},
    {"TotalTwice", R"({"hits":{"total":1,"hits":[{"_id":"a"}],"total":{"value":2}}})", "unexpected hit count", 1},
    {"TotalAsArray", R"({"hits":{"total":[1]}})", "unexpected read raw data", 0},
    {"HitsNotAnObject", R"({"hits":[]})", "unexpected hit tag count", 0},
    {"HitListNotAnArray", R"({"hits":{"hits":{}}})", "unexpected hit tag count", 0},
    {"HitNotAnObject", R"({"hits":{"hits":[{"_id":"a"},1]}})", "unexpected hit tag count", 1},
    {"IdAsObject", R"({"hits":{"hits":[{"_id":{"a":1}}]}})", "unexpected read raw data", 0},
    {"ScoreAsArray", R"({"hits":{"hits":[{"_score":[1]}]}})", "unexpected read raw data", 0},
    {"TsNotANumber", R"({"hits":{"hits":[{"_source":{"ts":"x"}}]}})", "Fail to parse 'ts' x", 0},
    {"TsTrailingBytes", R"({"hits":{"hits":[{"_source":{"ts":12e3}}]}})",
     "Fail to parse 'ts', not all bytes were consumed 12e3", 0},
    {"TsTwiceInOneSource", R"({"hits":{"hits":[{"_source":{"ts":1,"ts":2}}]}})", "Encounter two 'ts' entries", 0},
    {"TsInTwoSources", R"({"hits":{"hits":[{"_source":{"ts":1},"_source":{"ts":2}}]}})",
     "'ts' value was already parsed", 0},
    {"TsAsObject", R"({"hits":{"hits":[{"_source":{"ts":{}}}]}})", "unexpected read raw data", 0},
    {"LoneHighSurrogate", R"({"hits":{"hits":[{"_id":"\ud800x"}]}})", "fail to parse json", 0},
    {"LoneLowSurrogate", R"({"_scroll_id":"\udc00"})", "fail to parse json", 0},
    {"HighSurrogateThenOtherEscape", R"({"hits":{"hits":[{"_source":{"type":"\ud83d\n"}}]}})",
     "fail to parse json", 0},
    {"UnknownEscape", R"({"hits":{"hits":[{"_id":"a"},{"_id":"\q"}]}})", "fail to parse json", 1},
    {"BadHexDigit", R"({"_scroll_id":"\u12g4"})", "fail to parse json", 0},
    {"ErrorObject", R"({"error":{"type":"x","reason":"no such index"},"status":404})",
     R"(Receive an error msg {"type":"x","reason":"no such index"})", 0},
    {"ErrorString", R"({"error":"boom","status":500})", R"(Receive an error msg "boom")", 0},
    {"NotJson", "<html>", "fail to parse json", 0},
    {"RootScalar", "42", "fail to parse json", 0},
    {"SecondRootValue", R"({"a":1}{})", "fail to parse json", 0},
    {"MissingColon", R"({"a" 1})", "fail to parse json", 0},
    {"TrailingComma", R"({"a":[1,]})", "fail to parse json", 0},
    {"MismatchedCloser", R"({"a":[1}})", "fail to parse json", 0},
    {"KeyWhereValueBelongs", R"({"a":1,2})", "fail to parse json", 0},
};

class SearchResultFailureTest : public testing::TestWithParam<FailureCase> {};

TEST_P(SearchResultFailureTest, StopsWithItsTextAtAnyCut) {
  const FailureCase& c = GetParam();
  kx::test::LogCapture log;
  for (int piece : {0, 1, -5}) {
    SCOPED_TRACE(piece);
    const Outcome out = Feed(c.body, piece);
    EXPECT_EQ(out.deviceError, c.error);
    EXPECT_EQ(out.hits.size(), c.hitsBefore);
    EXPECT_FALSE(out.finished);
    EXPECT_NE(out.finishError.find(std::string(", error => ") + c.error), std::string::npos) << out.finishError;
  }
  const bool escapeFailure = std::string(c.name).find("Surrogate") != std::string::npos ||
                             std::string(c.name).find("Escape") != std::string::npos ||
                             std::string(c.name).find("Hex") != std::string::npos;
  EXPECT_EQ(log.contains("json to utf8 conversion error"), escapeFailure);
}

INSTANTIATE_TEST_SUITE_P(Bodies, SearchResultFailureTest, testing::ValuesIn(kFailures),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(SearchResultParserTest, TruncatedBodiesNeverFinishNorReportHalfAHit) {
  const std::string body = kCorpus[0].body;
  const Outcome whole = Feed(body, 0);
  for (size_t cut = 0; cut < body.size(); ++cut) {
    const Outcome out = Feed(body.substr(0, cut), -16);
    ASSERT_FALSE(out.finished) << cut;
    ASSERT_LE(out.hits.size(), whole.hits.size());
    for (size_t k = 0; k < out.hits.size(); ++k) ASSERT_EQ(out.hits[k].source, whole.hits[k].source) << cut;
  }
  const std::string firstHit = R"("highlight":{"text":["<em>x</em>"]}})";
  const size_t afterFirstHit = body.find(firstHit) + firstHit.size();
  EXPECT_EQ(Feed(body.substr(0, afterFirstHit), 1).hits.size(), 1u);
  EXPECT_EQ(Feed(body.substr(0, afterFirstHit - 1), 1).hits.size(), 0u);
  EXPECT_EQ(Feed("", 0).finishError, "Finish error : { => 0, [ => 0, hittag => 0, nextis => 1, error => ");
  EXPECT_EQ(Feed(R"({"hits":{"hits":[{"_id":"a")", 0).finishError,
            "Finish error : { => 3, [ => 1, hittag => 3, nextis => 6, error => ");
}

TEST(SearchResultParserTest, DeepNestingInSkippedValuesUsesNoStack) {
  const size_t depth = 1000000;
  const std::string body = R"({"x":)" + std::string(depth, '[') + std::string(depth, ']') +
                           R"(,"hits":{"total":1,"hits":[{"_id":"a","_source":{"n":)" + std::string(depth, '[') +
                           std::string(depth, ']') + "}}]}}";
  const Outcome out = Feed(body, -65536);
  ASSERT_TRUE(out.finished) << out.finishError;
  EXPECT_EQ(out.total, 1);
  ASSERT_EQ(out.hits.size(), 1u);
  EXPECT_EQ(out.hits[0].source.size(), 2 * depth + 6);
}

TEST(SearchResultParserTest, ResetReadsTheNextScrollPageAndReadIsRefused) {
  std::vector<std::string> ids;
  SearchResultParserLambda parser([&](const std::string& id, const std::string&, const std::string&,
                                      const std::string&, const std::string&, const int64_t*) { ids.push_back(id); });
  bool exact = true;
  EXPECT_EQ(parser.getTotalHitCount(&exact), 0);
  EXPECT_FALSE(exact);
  EXPECT_TRUE(parser.atEnd());
  EXPECT_FALSE(parser.writeAll(R"({"error":"x"})"));  // the scan stops at the end of the error value
  EXPECT_EQ(parser.getErrorMessage(), "\"x\"");
  parser.reset();
  EXPECT_TRUE(parser.good());
  EXPECT_EQ(parser.getErrorMessage(), "");
  ASSERT_TRUE(parser.writeAll(R"({"_scroll_id":"p2","hits":{"total":5,"hits":[{"_id":"b"},{"_id":"c"}]}})"));
  EXPECT_TRUE(parser.finish(nullptr));
  EXPECT_EQ(ids, (std::vector<std::string>{"b", "c"}));
  EXPECT_EQ(parser.getScrollId(), "p2");
  char byte;
  EXPECT_EQ(parser.readBytes(&byte, 1), 0u);
  EXPECT_EQ(parser.getDeviceErrorMsg(), "read not implemented");
}

}  // namespace
