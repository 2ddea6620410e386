// MultiThreadedDocumentGetter fetches many documents of an Elasticsearch index by identifier, on a fixed
// set of worker threads. Queue (identifier, type) jobs; each worker takes a batch of them, sends one
// search request for the batch, reads the response as it streams in and reports every identifier to
// the callback exactly once: found (with its source), missing, or failed (with the error report).
//
//   void OnDocument(MultiThreadedDocumentGetter&, const std::string& id, const std::string& type,
//                   const std::string& text, DocumentResult result, void* userData, void* threadData);
//
//   kx::elasticsearch::MultiThreadedDocumentGetter getter(index, &OnDocument, &sink, nullptr, nullptr,
//                                                         /*threadCount=*/4, /*batchSize=*/100, filter);
//   for (const auto& [id, type] : wanted) getter.addJob(id, type);
//   uint64_t found = 0;
//   if (!getter.waitUntilAllJobsAreDone(&stopToken, &found)) { ... cancelled ... }
//
// Requests. Each batch is one POST to the index URL with the segment "_search" appended, expecting 200
// (any content type): {"_source": <filter>, "size": <batch length>, "query": {"bool": {"should": [one
// {"bool": {"filter": {"term": {"type": <type>}}, "must": [{"ids": {"values": [<ids>]}}]}} per type]}}}.
// "_source" is left out when the filter is null. A batch takes the smallest pending identifiers, as many
// as (queued - done) / workers, at most the batch size and at least one, so that a short queue is spread
// over all workers.
//
// Results, one callback per queued identifier, on a worker thread, without any lock held (callbacks of
// different workers run concurrently; the per-thread data set up by the thread-start function tells
// them apart). `text` is:
//   DR_Found    the hit's "_source" as raw JSON text; `type` is the queued type;
//   DR_Failed   the connection's error report (HttpConnection::getLastErrorMsg), or "Invalid body" when
//               the request cannot be written as JSON (an identifier that is not UTF-8); `type` is the
//               queued type. A non-200 answer gives "bad html response code, got <status>, expect 200"
//               followed by the start of the error body ("received [...]"), so Elasticsearch's reason is
//               in it; a body the result parser rejects adds "(device in error : <parser error>)";
//   DR_Missing  "missing", with an empty `type`: the response was complete and did not contain the id.
// A response that breaks off (a cut connection, a parser error, a body that ends too early) after some
// hits were read keeps those as found: each hit is reported only once it is complete. The identifiers of
// the batch not reported yet then fail. Hits for identifiers the batch did not ask for are ignored.
//
// Completion. Counters move when a worker comes back for its next batch; waitUntilAllJobsAreDone wakes
// when every queued identifier was reported, and re-checks its cancel interface every 150 ms. A true
// answer cancels the getter: the pending jobs are dropped and the wait returns false at once, without
// waiting for the requests in flight, which complete and are still reported. Cancellation is final: a
// cancelled getter accepts no new jobs.
//
// Thread-safety: thread-safe; any call from any thread, except the destructor. Callbacks must not throw,
// wait for the getter or destroy it; they may call addJob, cancel and setCallback.
// Ownership: the getter owns its workers, each with its own connection, parser and copy of the
// connection parameters (copied by the constructor). The destructor stops the workers one after the
// other, each after its request in flight (if any) has ended. Destroy the getter before the last
// kx::terminateCorvix().
#pragma once

#include <kx/elasticsearch/ESConnectionParameters.h>
#include <kx/system/kxExport.h>
#include <kx/system/kxMutex.h>
#include <kx/system/kxVariant.h>
#include <kx/system/kxWaitCondition.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kx {
class kxCancelInterfaceReadOnly;
namespace elasticsearch {
namespace detail {
class MultiThreadedDocumentGetterWorker;
}

class KX_EXPORT MultiThreadedDocumentGetter {
 public:
  enum DocumentResult : unsigned char {
    DR_Found = 0,
    DR_Failed = 1,
    DR_Missing = 2,
  };

  using DocumentCallback = void (*)(MultiThreadedDocumentGetter& getter, const std::string& id,
                                    const std::string& type, const std::string& text, DocumentResult result,
                                    void* userData, void* threadData);
  // Runs on each worker at its start (to set `threadData` up) and at its end (to release it).
  using ThreadFunction = void (*)(MultiThreadedDocumentGetter& getter, void* userData, void*& threadData);

  // Starts max(1, threadCount) workers. `callback` and the thread functions may be null. A batch
  // size of 0 counts as 1.
  MultiThreadedDocumentGetter(const ESConnectionParameters& parameters, DocumentCallback callback, void* userData,
                              ThreadFunction threadStart, ThreadFunction threadEnd, unsigned threadCount,
                              unsigned batchSize, const kxVariant& sourceFilter);
  ~MultiThreadedDocumentGetter();
  MultiThreadedDocumentGetter(const MultiThreadedDocumentGetter&) = delete;
  MultiThreadedDocumentGetter& operator=(const MultiThreadedDocumentGetter&) = delete;

  // Queues one identifier. False, and nothing counted, when the identifier is already pending (the
  // first type stays) or the getter was cancelled. An identifier already taken by a worker is queued
  // again and fetched again.
  bool addJob(const std::string& id, const std::string& type);

  // Takes effect for the next batch a worker takes.
  void setCallback(DocumentCallback callback, void* userData);

  // Drops every pending job and wakes all waiters. Requests in flight complete and are reported.
  void cancel();

  // Waits until every queued identifier was reported or the getter was cancelled, asking `cancel`
  // (may be null) every 150 ms. `documentCount` (may be null) receives the number of documents found so
  // far. True when all jobs are done; false when the getter was cancelled, by this wait or before.
  bool waitUntilAllJobsAreDone(const kxCancelInterfaceReadOnly* cancel, uint64_t* documentCount);

 private:
  friend class detail::MultiThreadedDocumentGetterWorker;

  std::map<std::string, std::string> pendingJobs_;  // identifier -> type
  std::vector<std::unique_ptr<detail::MultiThreadedDocumentGetterWorker>> workers_;
  kxWaitCondition condition_;
  kxMutex mutex_;
  DocumentCallback callback_;
  void* userData_;
  ThreadFunction threadStart_;
  ThreadFunction threadEnd_;
  uint64_t documentsReported_ = 0;
  uint64_t jobsDone_ = 0;
  uint64_t jobsQueued_ = 0;
  uint32_t batchSize_;
  bool cancelled_ = false;
  kxVariant sourceFilter_;
};

}  // namespace elasticsearch
}  // namespace kx
