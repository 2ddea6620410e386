// HttpConnectionPool keeps idle HttpConnections whose curl handles still hold an open socket, keyed by
// host and port, so that later requests to the same server reuse the socket. Lease connections with
// HttpConnectionLocker, which gives them back when it goes out of scope.
//
//   kx::http::HttpConnectionPool pool;
//   pool.setKeepOpenDurationSec(30);
//   {
//     kx::http::HttpConnectionLocker lease(pool, url);
//     kx::http::HttpHelpers::HttpGet(*lease, url, &result, nullptr, nullptr, nullptr);
//   }  // back in the pool
//
// The most recently released connection for a key is handed out first; a connection whose socket was
// closed meanwhile is discarded at lease time. Idle connections expire after the keep-open duration
// (default 30 s) through the library's periodical updater, and the idle list never holds more than the
// maximum (default: the ideal thread count). releaseAllConnections() closes every idle connection, and
// connections leased before it are closed instead of pooled when they come back.
//
// Thread-safety: thread-safe. One mutex, never held while a connection is used or a transfer runs.
// Ownership: the pool owns its idle connections; a leased connection belongs to its lessee until it is
// released. Every connection must be released before the pool is destroyed.
// Lifetime: create pools after kx::initializeCorvix and destroy them, with every connection they handed
// out, before the last terminateCorvix (idle connections hold curl handles, which must not outlive
// libcurl's global state). A pool created or destroyed outside that window has no updater to register
// with: it is then trimmed only by its own setters and releases.
#pragma once

#include <kx/http/HttpConnectionParameters.h>
#include <kx/system/kxExport.h>

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace kx {
namespace http {

class HttpConnection;
namespace detail {
struct HttpConnectionAccess;
}

class KX_EXPORT HttpConnectionPool {
 public:
  HttpConnectionPool();
  ~HttpConnectionPool();
  HttpConnectionPool(const HttpConnectionPool&) = delete;
  HttpConnectionPool& operator=(const HttpConnectionPool&) = delete;

  // A connection for host:port with the default parameters installed, and the pool generation it was
  // leased under. The caller owns it until releaseHttpConnection.
  std::pair<HttpConnection*, unsigned int> getHttpConnection(const std::string& host, unsigned short port);
  // Pools a connection that still holds a socket and was leased in the current generation; else destroys it.
  void releaseHttpConnection(std::pair<HttpConnection*, unsigned int> connection);
  void releaseAllConnections();

  // Expiry and capacity trimming; the caller holds the pool's mutex.
  void updateConnectionPoolImpl();
  // Periodical updater callback: locks and trims `pool`.
  static void UpdatePool(void* pool);

  HttpConnectionParameters getDefaultConnectionParameters() const;
  void setDefaultConnectionParameters(const HttpConnectionParameters& parameters);
  uint64_t getKeepOpenDurationMs() const;
  // Idle connections older than this are closed (strictly older: one idle for exactly the duration
  // stays). Saturates instead of wrapping for absurdly large values.
  void setKeepOpenDurationSec(uint64_t seconds);
  uint64_t getMaxConcurrentConnection() const;
  void setMaxPendingConnection(uint64_t count);  // 0 counts as 1
  void ensureAtLeastMaxConcurrentConnection(unsigned int count);  // raises, never lowers
  size_t getIdleConnectionCount() const;

 private:
  friend struct detail::HttpConnectionAccess;
  using TimeSource = int64_t (*)();

  struct tConnection {
    HttpConnection* connection;
    int64_t releaseTimeMs;
    std::string host;
    unsigned short port;
  };

  int64_t now() const;
  // Expiry and capacity trimming with the lock held; the connections to close are moved to `doomed`,
  // so that the caller can close their sockets after unlocking.
  void trimLocked(std::list<tConnection>& doomed);
  // trimLocked, then unlocks `lock` (which holds mutex_) and closes what was trimmed.
  void trimThenUnlock(std::unique_lock<std::mutex>& lock);
  static void Destroy(std::list<tConnection>& entries);

  mutable std::mutex mutex_;
  std::list<tConnection> idle_;
  HttpConnectionParameters defaultParameters_;
  uint64_t keepOpenDurationMs_;
  uint64_t maxIdleConnections_;
  unsigned int generation_;
  TimeSource timeSource_;
};

}  // namespace http
}  // namespace kx
