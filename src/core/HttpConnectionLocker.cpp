#include <kx/http/HttpConnectionLocker.h>

#include <kx/http/HttpConnection.h>
#include <kx/http/HttpConnectionPool.h>
#include <kx/http/HttpUrl.h>
#include <kx/system/kxLog.h>
#include <kx/system/kxStringUtils.h>

namespace kx {
namespace http {

HttpConnectionLocker::HttpConnectionLocker(HttpConnectionPool& pool, const std::string& host, unsigned short port)
    : pool_(&pool) {
  setConnection(host, port);
}

HttpConnectionLocker::HttpConnectionLocker(HttpConnectionPool& pool, const HttpUrl& url) : pool_(&pool) {
  setConnection(url.getHost(), url.getPort());
}

HttpConnectionLocker::HttpConnectionLocker(HttpConnectionPool* pool, const HttpUrl& url) : pool_(pool) {
  setConnection(url.getHost(), url.getPort());
}

HttpConnectionLocker::HttpConnectionLocker(std::unique_ptr<HttpConnection> connection)
    : connection_(connection.release()) {
  if (connection_ != nullptr) {
    leasedHost_ = connection_->getLastUrl().getHost();
    leasedPort_ = connection_->getLastUrl().getPort();
  }
}

HttpConnectionLocker::~HttpConnectionLocker() { release(); }

void HttpConnectionLocker::setConnection(const std::string& host, unsigned short port) {
  release();  // a locker holds one lease at a time
  if (pool_ != nullptr) {
    const auto lease = pool_->getHttpConnection(host, port);
    connection_ = lease.first;
    generation_ = lease.second;
  } else {
    connection_ = new HttpConnection(true);
    generation_ = 0;
  }
  declaredHost_ = host;
  declaredPort_ = port;
  leasedHost_ = connection_->getLastUrl().getHost();
  leasedPort_ = connection_->getLastUrl().getPort();
}

void HttpConnectionLocker::release() {
  if (connection_ == nullptr) return;
  if (pool_ != nullptr) {
    const HttpUrl& last = connection_->getLastUrl();
    const bool usedBeforeLease = !leasedHost_.empty();
    const bool movedElsewhere = last.getHost() != declaredHost_ || last.getPort() != declaredPort_ ||
                                last.getHost() != leasedHost_ || last.getPort() != leasedPort_;
    if (usedBeforeLease && movedElsewhere && kxLog::isVerbose()) {
      kxLog::log(kLogTypeWarning, "http",
                 "Http connection from pool was used with an other host/port '" + last.getHost() +
                     "' than the one declared " + declaredHost_ + ":" +
                     kxStringUtils::ToDecimal(declaredPort_));
    }
    pool_->releaseHttpConnection({connection_, generation_});
  } else {
    delete connection_;
  }
  connection_ = nullptr;
}

}  // namespace http
}  // namespace kx
