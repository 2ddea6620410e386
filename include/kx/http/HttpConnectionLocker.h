// HttpConnectionLocker is the scoped lease of an HttpConnection: it takes a connection for one host and
// port from a pool (or creates a private one when there is no pool) and gives it back on destruction.
//
//   kx::http::HttpConnectionLocker lease(pool, url);
//   lease->getHttpData(url, "", 200, nullptr, nullptr, nullptr);
//
// A pooled connection may be used for any URL, but it goes back to the pool under the host and port it
// last talked to. When a connection that had already been used before this lease ends up talking to
// another host or port than the one declared, the destructor logs (verbose log only) "Http connection
// from pool was used with an other host/port '<host>' than the one declared <host>:<port>".
//
// Thread-safety: not thread-safe; a lease belongs to one thread. Ownership: the locker owns the leased
// connection until it is destroyed; a private connection is destroyed with it. The pool must outlive
// the locker.
#pragma once

#include <kx/system/kxExport.h>

#include <memory>
#include <string>

namespace kx {
namespace http {

class HttpConnection;
class HttpConnectionPool;
class HttpUrl;

class KX_EXPORT HttpConnectionLocker {
 public:
  HttpConnectionLocker(HttpConnectionPool& pool, const std::string& host, unsigned short port);
  HttpConnectionLocker(HttpConnectionPool& pool, const HttpUrl& url);
  // A null pool gives a private connection.
  HttpConnectionLocker(HttpConnectionPool* pool, const HttpUrl& url);
  explicit HttpConnectionLocker(std::unique_ptr<HttpConnection> connection);
  ~HttpConnectionLocker();
  HttpConnectionLocker(const HttpConnectionLocker&) = delete;
  HttpConnectionLocker& operator=(const HttpConnectionLocker&) = delete;

  // Leases a connection for host:port (from the pool, or a new private one).
  void setConnection(const std::string& host, unsigned short port);

  HttpConnection& operator*() const { return *connection_; }
  HttpConnection* operator->() const { return connection_; }
  HttpConnection* get() const { return connection_; }

 private:
  void release();

  HttpConnection* connection_ = nullptr;
  HttpConnectionPool* pool_ = nullptr;
  unsigned int generation_ = 0;
  std::string declaredHost_;
  unsigned short declaredPort_ = 0;
  std::string leasedHost_;
  unsigned short leasedPort_ = 0;
};

}  // namespace http
}  // namespace kx
