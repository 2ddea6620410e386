// What the library's own layers and its tests may see of a connection or a pool beyond the public
// interface: whether a connection still holds its curl handle, the raw curl result, the private state
// (for the call path that installs bodies and sinks), and the pool's generation and clock. Kept out of
// the installed headers so that users never build against them.
//
// Thread-safety: as the object reached; the pool's accessors take the pool's lock.
#pragma once

#include <kx/http/HttpConnection.h>
#include <kx/http/HttpConnectionPool.h>

#include <cstdint>
#include <string>

namespace kx {
class kxCancelInterfaceReadOnly;
namespace http {
namespace detail {

struct TransferHooks;

struct HttpConnectionAccess {
  // True while the connection holds a curl handle: false before the first call and after a call that
  // destroyed it (transfer error, failed authenticator or header callback); a cancelled call or a
  // status/content-type mismatch keeps it.
  static bool HasCurlHandle(const HttpConnection& connection);
  static int LastCurlCode(const HttpConnection& connection);
  // getHttpData with the call's own body, response sink, header function and probe (TransferHooks)
  // installed by the connection's setup in place of its defaults: the door through which the library's
  // call paths (request helpers, document fetcher, downloads) hand over bodies and sinks.
  static bool GetHttpData(HttpConnection& connection, const HttpUrl& url, const std::string& expectedContentType,
                          long expectedStatus, const TransferHooks& hooks, HttpConnection::HeaderCallback headerCallback,
                          const kxCancelInterfaceReadOnly* cancel, void* userData);

  // Incremented by releaseAllConnections.
  static unsigned int Generation(const HttpConnectionPool& pool);
  // The clock expiry is measured with; GetTimeBaseMs by default. Lets tests age idle connections by an
  // exact number of milliseconds. Null restores the default.
  using TimeSource = int64_t (*)();
  static void SetTimeSource(HttpConnectionPool& pool, TimeSource now);
};

}  // namespace detail
}  // namespace http
}  // namespace kx
