// The document getter against a loopback search server that reads the identifiers from each request
// and answers with their hits, or with the fault a test names by the first identifier of the batch.
#include <gtest/gtest.h>

#include <kx/elasticsearch/MultiThreadedDocumentGetter.h>
#include <kx/json/Json2Variant.h>
#include <kx/system/kxCancelInterfaceReadOnly.h>

#include "support/LoopbackHttpServer.h"

#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <mutex>

namespace {

using Getter = kx::elasticsearch::MultiThreadedDocumentGetter;
using kx::kxVariant;

// What the callback was last given for one id, and how many times it was called for it.
struct Seen { int result = -1, calls = 0; std::string type, text; void* threadData = nullptr; };
struct Recorder {
  std::mutex mutex;
  std::map<std::string, Seen> seen;
  std::atomic<int> threadsEnded{0};
  // Holds back the workers at their start, and the server on a "hold" batch, until set.
  std::promise<void> go;
  std::shared_future<void> gate = go.get_future().share();
};

void Record(Getter&, const std::string& id, const std::string& type, const std::string& text,
            Getter::DocumentResult result, void* user, void* threadData) {
  auto* r = static_cast<Recorder*>(user);
  std::lock_guard<std::mutex> lock(r->mutex);
  r->seen[id] = {result, r->seen[id].calls + 1, type, text, threadData};
}

class MultiThreadedDocumentGetterTest : public testing::Test {
 protected:
  void SetUp() override {
    server_.Post("/idx/_search", [this](const httplib::Request& req, httplib::Response& res) {
      kxVariant q;
      std::vector<std::pair<std::string, std::string>> ids;  // id, type
      const kxVariant* should = kx::json::Json2Variant::Convert(req.body, q) ? q.getPath("query/bool/should") : nullptr;
      for (size_t i = 0; should != nullptr && i < should->size(); ++i) {
        const kxVariant& entry = *should->getAt(i);
        for (const kxVariant& id : entry.getPath("bool/must")->getAt(0)->getPath("ids/values")->getList())
          ids.emplace_back(id.getString(), entry.getPath("bool/filter/term/type")->getString());
      }
      // Elasticsearch answers 10 hits at most without a "size"; a wrong filter would change every source.
      const bool valid = !ids.empty() && q.getPath("size") && *q.getPath("size") == kxVariant(int64_t(ids.size())) &&
                         q.getPath("_source") && *q.getPath("_source") == filter_;
      const std::string first = valid ? ids.front().first : "";
      if (first.rfind("hold", 0) == 0) recorder_.gate.wait_for(std::chrono::seconds(5));  // bounds a hung test
      res.status = first == "e500" ? 500 : valid ? 200 : 400;
      if (res.status != 200)
        return res.set_content(R"({"error":{"reason":"all shards failed"},"status":500})", "application/json");
      std::string body = R"({"took":1,"hits":{"total":{"value":9,"relation":"eq"},"hits":[)";
      // An index pattern may hold an id in two indices: "a103" comes back twice.
      for (const auto& [id, type] : ids)
        for (int n = id == "a103" ? 2 : id.rfind("missing", 0) != 0; n > 0; --n)
          body += R"({"_id":")" + id + R"(","_score":null,"_source":{"name":")" + id + R"(","type":")" + type + "\"}},";
      if (body.back() == ',') body.pop_back();
      body += "]}}";
      const size_t afterFirstHit = body.find("},{") + 2;
      if (first == "bad") body.insert(afterFirstHit, "}");
      if (first == "short") body.resize(afterFirstHit);  // a complete transfer of an incomplete answer
      if (first != "cut") return res.set_content(body, "application/json; charset=UTF-8");
      res.set_content_provider(body.size(), "application/json", [body, afterFirstHit](size_t, size_t, auto& sink) {
        sink.write(body.data(), afterFirstHit);
        return false;  // the connection closes with the rest of the announced length missing
      });
    });
  }

  kx::test::LoopbackHttpServer server_;
  kx::elasticsearch::ESConnectionParameters index_{kx::http::HttpUrl(server_.url("/idx"))};
  kxVariant filter_{kxVariant::kxVariantListImpl{"name", "type"}};
  Recorder recorder_;
};

TEST_F(MultiThreadedDocumentGetterTest, ReportsEveryIdOnceFoundOrMissing) {
  uint64_t count = 0;
  {
    // Each worker's data is the recorder itself: non-null, and reaching the end function proves it is kept.
    Getter getter(index_, &Record, &recorder_, [](Getter&, void* r, void*& data) { data = r; },
                  [](Getter&, void*, void*& data) { ++static_cast<Recorder*>(data)->threadsEnded; }, 3, 2, filter_);
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(getter.addJob("a" + std::to_string(100 + i), i % 3 ? "doc" : "log"));
    ASSERT_TRUE(getter.addJob("missing1", "doc"));
    EXPECT_FALSE(getter.addJob("missing1", "doc"));  // counted twice, the wait would never end
    EXPECT_TRUE(getter.waitUntilAllJobsAreDone(nullptr, &count));
  }
  EXPECT_EQ(count, 20u);
  EXPECT_EQ(recorder_.threadsEnded, 3);
  ASSERT_EQ(recorder_.seen.size(), 21u);
  for (const auto& [id, s] : recorder_.seen) {
    const bool missing = id == "missing1";
    const std::string type = missing ? "" : (std::stoi(id.substr(1)) - 100) % 3 ? "doc" : "log";
    const std::string text = missing ? "missing" : R"({"name":")" + id + R"(","type":")" + type + "\"}";
    EXPECT_EQ(std::tie(s.result, s.calls, s.type, s.text, s.threadData),
              std::make_tuple(missing ? 2 : 0, 1, type, text, static_cast<void*>(&recorder_)));
  }
}

// `ids` go in one batch, the first naming the server's fault; `fragment` is in every failure text.
struct FailureCase { const char* name; std::vector<std::string> ids; std::vector<int> results; const char* fragment; };

class GetterFailureTest : public MultiThreadedDocumentGetterTest, public testing::WithParamInterface<FailureCase> {};

TEST_P(GetterFailureTest, HitsReadBeforeTheFaultStayFoundTheRestFail) {
  {
    Getter getter(index_, &Record, &recorder_, [](Getter&, void* r, void*&) { static_cast<Recorder*>(r)->gate.wait(); },
                  nullptr, 0, 10, filter_);
    for (const std::string& id : GetParam().ids) getter.addJob(id, "doc");
    recorder_.go.set_value();
    EXPECT_TRUE(getter.waitUntilAllJobsAreDone(nullptr, nullptr));
  }
  for (size_t i = 0; i < GetParam().ids.size(); ++i) {
    const Seen& s = recorder_.seen[GetParam().ids[i]];
    EXPECT_EQ(s.result, GetParam().results[i]) << GetParam().ids[i];
    EXPECT_TRUE(s.result != 1 || s.text.find(GetParam().fragment) != std::string::npos) << s.text;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Search, GetterFailureTest,
    testing::Values(FailureCase{"ServerError", {"e500", "x1"}, {1, 1}, "all shards failed"},
                    FailureCase{"ServerErrorStatus", {"e500"}, {1}, "bad html response code, got 500, expect 200"},
                    FailureCase{"CloseMidBody", {"cut", "x1", "x2"}, {0, 1, 1}, "Curl error"},
                    FailureCase{"BrokenJson", {"bad", "x1"}, {0, 1}, "(device in error : fail to parse json)"},
                    FailureCase{"EndsEarly", {"short", "x1"}, {0, 1}, "Fail to finalize es search result parser"},
                    FailureCase{"NotUtf8", {"x\xff"}, {1}, "Invalid body"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(MultiThreadedDocumentGetterTest, CancelReturnsWithoutWaitingForRequestsInFlight) {
  {
    Getter getter(index_, &Record, &recorder_, nullptr, nullptr, 1, 1, filter_);
    std::unique_ptr<Recorder, void (*)(Recorder*)> open(&recorder_, [](Recorder* r) { r->go.set_value(); });
    for (const char* id : {"hold1", "hold2", "hold3"}) getter.addJob(id, "doc");
    ASSERT_TRUE(server_.waitForRequests(1, std::chrono::seconds(10)));
    struct : kx::kxCancelInterfaceReadOnly { bool shouldCancel() const override { return true; } } stop;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(getter.waitUntilAllJobsAreDone(&stop, nullptr));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));  // the request is still held
    EXPECT_FALSE(getter.addJob("hold4", "doc"));
  }
  ASSERT_EQ(recorder_.seen.size(), 1u);  // the batch in flight completes; the pending ones were dropped
  EXPECT_EQ(recorder_.seen["hold1"].result, 0);
}

}  // namespace
