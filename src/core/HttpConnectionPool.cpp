#include <kx/http/HttpConnectionPool.h>

#include <kx/http/HttpConnection.h>
#include <kx/http/HttpUrl.h>
#include <kx/system/kxThreadPeriodicalUpdater.h>
#include <kx/system/kxTime.h>

#include "core/HttpConnectionAccess.h"
#include "core/LibraryState.h"

#include <iterator>
#include <limits>

namespace kx {
namespace http {
namespace {

// An idle entry matches a lease request for exactly the same host bytes and port. An empty host never
// matches: such a connection has not talked to anybody yet.
struct FindConnectionPred {
  const std::string& host;
  unsigned short port;
  template <typename Entry>
  bool operator()(const Entry& entry) const {
    return !host.empty() && entry.port == port && entry.host.size() == host.size() && entry.host == host;
  }
};

constexpr uint64_t kMaxKeepOpenSec = std::numeric_limits<uint64_t>::max() / 1000;

}  // namespace

HttpConnectionPool::HttpConnectionPool()
    : keepOpenDurationMs_(30000),
      maxIdleConnections_(GetIdealThreadCount() > 0 ? GetIdealThreadCount() : 1),
      generation_(0),
      timeSource_(nullptr) {
  // Outside initializeCorvix/terminateCorvix there is no updater; the pool is then trimmed only by its
  // own setters and releases.
  if (kxThreadPeriodicalUpdater* updater = kx::detail::GetPeriodicalUpdater()) updater->addCallback(&UpdatePool, this);
}

HttpConnectionPool::~HttpConnectionPool() {
  // Removing waits for a trim that is running right now, so the updater never touches a dead pool.
  if (kxThreadPeriodicalUpdater* updater = kx::detail::GetPeriodicalUpdater()) updater->removeCallback(&UpdatePool, this);
  releaseAllConnections();
}

int64_t HttpConnectionPool::now() const { return timeSource_ ? timeSource_() : GetTimeBaseMs(); }

std::pair<HttpConnection*, unsigned int> HttpConnectionPool::getHttpConnection(const std::string& host,
                                                                               unsigned short port) {
  while (true) {
    HttpConnection* found = nullptr;
    HttpConnectionParameters parameters;
    unsigned int generation = 0;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      parameters = defaultParameters_;
      generation = generation_;
      for (auto it = idle_.begin(); it != idle_.end(); ++it) {  // most recently released first
        if (FindConnectionPred{host, port}(*it)) {
          found = it->connection;
          idle_.erase(it);
          break;
        }
      }
    }
    if (found == nullptr) {
      auto* connection = new HttpConnection(true);
      connection->setConnectionParameters(parameters);
      return {connection, generation};
    }
    // The server may have closed an idle keep-alive socket; checking it and destroying a dead
    // connection happen outside the lock, the next candidate is then tried.
    if (found->isUnderlyingSockerValid()) {
      found->setConnectionParameters(parameters);
      return {found, generation};
    }
    delete found;
  }
}

void HttpConnectionPool::releaseHttpConnection(std::pair<HttpConnection*, unsigned int> lease) {
  HttpConnection* connection = lease.first;
  if (connection == nullptr) return;
  // A connection without a socket (its last transfer failed, or the server asked to close) has nothing
  // worth keeping; neither has one that never talked to a host.
  if (connection->isUnderlyingSockerValid() && !connection->getLastUrl().getHost().empty()) {
    std::unique_lock<std::mutex> lock(mutex_);
    // The generation is compared under the lock: a lease from before releaseAllConnections must not
    // slip back in while that call is running.
    if (lease.second == generation_) {
      idle_.push_front(
          tConnection{connection, now(), connection->getLastUrl().getHost(), connection->getLastUrl().getPort()});
      trimThenUnlock(lock);
      return;
    }
  }
  delete connection;
}

void HttpConnectionPool::trimLocked(std::list<tConnection>& doomed) {
  const int64_t current = now();
  // Computed without overflow for any pair of times: a clock that went backwards ages nothing.
  const auto idleTooLong = [&](const tConnection& entry) {
    if (current <= entry.releaseTimeMs) return false;
    const uint64_t idleMs = static_cast<uint64_t>(current) - static_cast<uint64_t>(entry.releaseTimeMs);
    return idleMs > keepOpenDurationMs_;
  };
  // The back holds the oldest entry: when it has not expired, nothing has.
  if (!idle_.empty() && idleTooLong(idle_.back())) {
    for (auto it = idle_.begin(); it != idle_.end();) {
      auto next = std::next(it);
      if (idleTooLong(*it)) doomed.splice(doomed.end(), idle_, it);
      it = next;
    }
  }
  while (idle_.size() > maxIdleConnections_) doomed.splice(doomed.end(), idle_, std::prev(idle_.end()));
}

void HttpConnectionPool::Destroy(std::list<tConnection>& entries) {
  for (tConnection& entry : entries) delete entry.connection;
  entries.clear();
}

void HttpConnectionPool::updateConnectionPoolImpl() {
  std::list<tConnection> doomed;
  trimLocked(doomed);
  Destroy(doomed);
}

void HttpConnectionPool::trimThenUnlock(std::unique_lock<std::mutex>& lock) {
  std::list<tConnection> doomed;
  trimLocked(doomed);
  lock.unlock();
  Destroy(doomed);
}

void HttpConnectionPool::UpdatePool(void* pool) {
  auto* self = static_cast<HttpConnectionPool*>(pool);
  std::unique_lock<std::mutex> lock(self->mutex_);
  self->trimThenUnlock(lock);
}

void HttpConnectionPool::releaseAllConnections() {
  std::list<tConnection> doomed;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    doomed.swap(idle_);
    ++generation_;
  }
  Destroy(doomed);
}

HttpConnectionParameters HttpConnectionPool::getDefaultConnectionParameters() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return defaultParameters_;
}

void HttpConnectionPool::setDefaultConnectionParameters(const HttpConnectionParameters& parameters) {
  std::unique_lock<std::mutex> lock(mutex_);
  defaultParameters_ = parameters;
  trimThenUnlock(lock);
}

uint64_t HttpConnectionPool::getKeepOpenDurationMs() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return keepOpenDurationMs_;
}

void HttpConnectionPool::setKeepOpenDurationSec(uint64_t seconds) {
  std::unique_lock<std::mutex> lock(mutex_);
  keepOpenDurationMs_ = seconds > kMaxKeepOpenSec ? std::numeric_limits<uint64_t>::max() : seconds * 1000;
  trimThenUnlock(lock);
}

uint64_t HttpConnectionPool::getMaxConcurrentConnection() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return maxIdleConnections_;
}

void HttpConnectionPool::setMaxPendingConnection(uint64_t count) {
  std::unique_lock<std::mutex> lock(mutex_);
  maxIdleConnections_ = count == 0 ? 1 : count;
  trimThenUnlock(lock);
}

void HttpConnectionPool::ensureAtLeastMaxConcurrentConnection(unsigned int count) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (count > maxIdleConnections_) maxIdleConnections_ = count;
  trimThenUnlock(lock);
}

size_t HttpConnectionPool::getIdleConnectionCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return idle_.size();
}

unsigned int detail::HttpConnectionAccess::Generation(const HttpConnectionPool& pool) {
  std::lock_guard<std::mutex> lock(pool.mutex_);
  return pool.generation_;
}

void detail::HttpConnectionAccess::SetTimeSource(HttpConnectionPool& pool, TimeSource source) {
  std::lock_guard<std::mutex> lock(pool.mutex_);
  pool.timeSource_ = source;
}

}  // namespace http
}  // namespace kx
