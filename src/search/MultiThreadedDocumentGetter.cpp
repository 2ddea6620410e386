// The getter is a queue (the pending map, guarded by the one mutex) drained by worker threads. A worker
// holds the mutex only to settle its previous batch and take the next one; the request, the parsing and
// every callback run without it. The one wait condition serves both sides, so every wake-up is a
// wakeAll: a wakeOne could reach a waiting caller when a worker was meant, or the reverse.
#include <kx/elasticsearch/MultiThreadedDocumentGetter.h>

#include <kx/elasticsearch/SearchResultParserInterface.h>
#include <kx/http/HttpConnection.h>
#include <kx/http/HttpHelpers.h>
#include <kx/json/Json2Variant.h>
#include <kx/system/kxCancelInterfaceReadOnly.h>
#include <kx/system/kxLog.h>
#include <kx/system/kxMutexLocker.h>
#include <kx/system/kxThread.h>

#include "bodies/RequestBody.h"
#include "core/HttpCallContext.h"

#include <algorithm>
#include <string>
#include <utility>

namespace kx {
namespace elasticsearch {
namespace {

enum class GetterText {
  kInvalidBody,
  kMissing,
  kParseError,
  kFinishError,
};

const char* TextOf(GetterText text) {
  switch (text) {  // no default on purpose: -Werror=switch catches a missing text
    case GetterText::kInvalidBody:
      return "Invalid body";
    case GetterText::kMissing:
      return "missing";
    case GetterText::kParseError:
      return "Fail to parse es search result";
    case GetterText::kFinishError:
      return "Fail to finalize es search result parser";
  }
  return "";
}

// How often a waiting caller looks at its cancel interface: the bound on how late a cancellation is seen.
constexpr int64_t kCancelPollMs = 150;

// The index URL with "_search" as its last segment. "http://host:9200/" parses to one empty segment,
// which is replaced rather than followed, so that the path does not become "//_search".
http::HttpUrl SearchUrlOf(const http::HttpUrl& index) {
  http::HttpUrl url(index);
  auto& segments = url.editPathSegments();
  if (!segments.empty() && segments.back().empty())
    segments.back() = "_search";
  else
    segments.push_back("_search");
  return url;
}

// The search for one batch: one "should" entry per type, each asking for that type's identifiers.
bool BuildBody(const std::map<std::string, std::string>& batch, const kxVariant& filter, std::string& body) {
  std::map<std::string, kxVariant::kxVariantListImpl> idsByType;
  for (const auto& [id, type] : batch) idsByType[type].emplace_back(id);
  kxVariant::kxVariantListImpl should;
  for (auto& [type, ids] : idsByType) {
    kxVariant entry;
    entry.setPath("bool/filter/term/type", type);
    kxVariant idsClause;
    idsClause.setPath("ids/values", kxVariant(std::move(ids)));
    entry.setPath("bool/must", kxVariant(kxVariant::kxVariantListImpl{std::move(idsClause)}));
    should.push_back(std::move(entry));
  }
  kxVariant request;
  // Elasticsearch refuses "_source": null; without a filter it returns whole sources anyway.
  if (!filter.isNull()) request["_source"] = filter;
  // Without "size" Elasticsearch returns at most 10 hits, whatever the number of identifiers asked for.
  request["size"] = static_cast<int64_t>(batch.size());
  request.setPath("query/bool/should", kxVariant(std::move(should)));
  return json::Json2Variant::Convert(request, body);
}

}  // namespace

namespace detail {

class MultiThreadedDocumentGetterWorkerResultParser final : public SearchResultParserInterface {
 public:
  explicit MultiThreadedDocumentGetterWorkerResultParser(MultiThreadedDocumentGetterWorker& worker)
      : worker_(worker) {}
  void onNewDocument(const std::string& id, const std::string& source, const std::string&, const std::string&,
                     const std::string&, const int64_t*) override;

 private:
  MultiThreadedDocumentGetterWorker& worker_;
};

class MultiThreadedDocumentGetterWorker final : public kxThread {
 public:
  using Getter = MultiThreadedDocumentGetter;

  MultiThreadedDocumentGetterWorker(Getter& getter, const http::HttpUrl& index)
      : getter_(getter), searchUrl_(SearchUrlOf(index)), parser_(*this) {
    setThreadName("kxDocGetter");
  }
  ~MultiThreadedDocumentGetterWorker() override { join(); }

  // Set and read under the getter's mutex.
  bool stop = false;

  void onHit(const std::string& id, const std::string& source) {
    // Each identifier is reported once. A search over an index pattern returns an id once per index
    // that holds it, and a hit the batch never asked for belongs to no job: reporting either would
    // break the one-callback-per-job count that callers and the wait rely on.
    auto it = batch_.find(id);
    if (it == batch_.end() || it->second.reported) return;
    it->second.reported = true;
    ++found_;
    report(id, it->second.type, source, Getter::DR_Found);
  }

 protected:
  void run() override {
    kxMutexLocker lock(getter_.mutex_);
    const Getter::ThreadFunction start = getter_.threadStart_;
    void* userData = getter_.userData_;
    lock.unlock();
    if (start != nullptr) start(getter_, userData, threadData_);
    http::HttpConnection connection;
    lock.relock();
    for (;;) {
      // The previous batch is settled only now, once all its callbacks have returned, so a caller woken
      // by the count never sees a callback still running for one of its jobs.
      if (!batch_.empty()) {
        getter_.jobsDone_ += batch_.size();
        getter_.documentsReported_ += found_;
        batch_.clear();
        if (getter_.jobsDone_ == getter_.jobsQueued_) getter_.condition_.wakeAll();
      }
      while (getter_.pendingJobs_.empty() && !stop) getter_.condition_.wait(getter_.mutex_);
      if (stop) break;
      takeBatch();
      lock.unlock();
      fetch(connection);
      lock.relock();
    }
    const Getter::ThreadFunction end = getter_.threadEnd_;
    userData = getter_.userData_;
    lock.unlock();
    if (end != nullptr) end(getter_, userData, threadData_);
  }

 private:
  struct Job {
    std::string type;
    bool reported = false;
  };

  // Called with the getter's mutex held.
  void takeBatch() {
    const uint64_t outstanding = getter_.jobsQueued_ - getter_.jobsDone_;
    const uint64_t share = outstanding / getter_.workers_.size();
    const uint64_t length = std::max<uint64_t>(1, std::min<uint64_t>(share, getter_.batchSize_));
    auto& pending = getter_.pendingJobs_;
    for (uint64_t i = 0; i < length && !pending.empty(); ++i) {
      auto node = pending.extract(pending.begin());
      batch_.emplace(std::move(node.key()), Job{std::move(node.mapped())});
    }
    found_ = 0;
    filter_ = getter_.sourceFilter_;
    callback_ = getter_.callback_;
    userData_ = getter_.userData_;
  }

  void fetch(http::HttpConnection& connection) {
    std::map<std::string, std::string> request;
    for (const auto& [id, job] : batch_) request.emplace(id, job.type);
    std::string body;
    if (!BuildBody(request, filter_, body)) return failRemaining(TextOf(GetterText::kInvalidBody));

    parser_.reset();
    http::detail::MemoryRequestBody requestBody(body.data(), body.size());
    http::detail::HttpCallContext call(http::detail::HttpCallContext::kPost, /*json=*/true);
    call.body = &requestBody;
    http::HttpHelpers::HttpResult result;
    // Only a 200's body reaches the parser: an error body would stop its scan and turn the status into
    // a write error; it goes to the report's "received [...]" excerpt instead.
    result.responseSink = &parser_;
    const bool ok =
        http::HttpHelpers::GenericCall(connection, searchUrl_, result, nullptr, nullptr, &call, 200, nullptr);
    if (parser_.hasDeviceError())
      kxLog::log(kLogTypeError, "esresultparser",
                 std::string(TextOf(GetterText::kParseError)) + " " + parser_.getDeviceErrorMsg());
    if (!ok) return failRemaining(connection.getLastErrorMsg());
    std::string finishError;
    if (!parser_.finish(&finishError)) {
      const std::string text = std::string(TextOf(GetterText::kFinishError)) + " " + finishError;
      kxLog::log(kLogTypeError, "esresultparser", text);
      connection.addErrorInfo(text);
      return failRemaining(connection.getLastErrorMsg());
    }
    for (auto& [id, job] : batch_) {
      if (job.reported) continue;
      job.reported = true;
      report(id, std::string(), TextOf(GetterText::kMissing), Getter::DR_Missing);
    }
  }

  void failRemaining(const std::string& text) {
    for (auto& [id, job] : batch_) {
      if (job.reported) continue;
      job.reported = true;
      report(id, job.type, text, Getter::DR_Failed);
    }
  }

  void report(const std::string& id, const std::string& type, const std::string& text, Getter::DocumentResult r) {
    if (callback_ != nullptr) callback_(getter_, id, type, text, r, userData_, threadData_);
  }

  Getter& getter_;
  const http::HttpUrl searchUrl_;
  MultiThreadedDocumentGetterWorkerResultParser parser_;
  // The batch in progress and what the worker copied with it; touched by this thread only, between
  // takeBatch and the settling at the top of the next pass.
  std::map<std::string, Job> batch_;
  uint64_t found_ = 0;
  kxVariant filter_;
  Getter::DocumentCallback callback_ = nullptr;
  void* userData_ = nullptr;
  void* threadData_ = nullptr;
};

void MultiThreadedDocumentGetterWorkerResultParser::onNewDocument(const std::string& id, const std::string& source,
                                                                  const std::string&, const std::string&,
                                                                  const std::string&, const int64_t*) {
  worker_.onHit(id, source);
}

}  // namespace detail

MultiThreadedDocumentGetter::MultiThreadedDocumentGetter(const ESConnectionParameters& parameters,
                                                         DocumentCallback callback, void* userData,
                                                         ThreadFunction threadStart, ThreadFunction threadEnd,
                                                         unsigned threadCount, unsigned batchSize,
                                                         const kxVariant& sourceFilter)
    : callback_(callback),
      userData_(userData),
      threadStart_(threadStart),
      threadEnd_(threadEnd),
      batchSize_(batchSize),
      sourceFilter_(sourceFilter) {
  // All workers exist before the first starts: each divides the outstanding work by their number.
  for (unsigned i = 0; i < std::max(1u, threadCount); ++i)
    workers_.push_back(std::make_unique<detail::MultiThreadedDocumentGetterWorker>(*this, parameters));
  for (auto& worker : workers_) worker->start();
}

MultiThreadedDocumentGetter::~MultiThreadedDocumentGetter() {
  for (auto& worker : workers_) {
    {
      kxMutexLocker lock(mutex_);
      worker->stop = true;
      condition_.wakeAll();
    }
    worker->join();
    worker.reset();
  }
}

bool MultiThreadedDocumentGetter::addJob(const std::string& id, const std::string& type) {
  kxMutexLocker lock(mutex_);
  // Only an inserted identifier is counted: a duplicate would raise the queued count without ever
  // being done, and every wait would hang.
  if (cancelled_ || !pendingJobs_.emplace(id, type).second) return false;
  ++jobsQueued_;
  condition_.wakeAll();
  return true;
}

void MultiThreadedDocumentGetter::setCallback(DocumentCallback callback, void* userData) {
  kxMutexLocker lock(mutex_);
  callback_ = callback;
  userData_ = userData;
}

void MultiThreadedDocumentGetter::cancel() {
  kxMutexLocker lock(mutex_);
  cancelled_ = true;
  jobsQueued_ -= pendingJobs_.size();
  pendingJobs_.clear();
  condition_.wakeAll();
}

bool MultiThreadedDocumentGetter::waitUntilAllJobsAreDone(const kxCancelInterfaceReadOnly* cancel,
                                                          uint64_t* documentCount) {
  kxMutexLocker lock(mutex_);
  while (!cancelled_ && jobsDone_ != jobsQueued_) {
    condition_.wait(mutex_, kCancelPollMs);
    if (cancel != nullptr && !cancelled_) {
      // Neither the caller's token nor cancel() runs under our mutex: the token may block or call back.
      lock.unlock();
      if (cancel->shouldCancel()) this->cancel();
      lock.relock();
    }
  }
  if (documentCount != nullptr) *documentCount = documentsReported_;
  return !cancelled_;
}

}  // namespace elasticsearch
}  // namespace kx
