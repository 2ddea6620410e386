// ESConnectionParameters names the Elasticsearch index a MultiThreadedDocumentGetter searches: the
// server's scheme, host and port, the index path ("/products" or "/logs-*"), and the transport policies
// and authenticators every request carries. It is an HttpUrl under a name of its own and adds nothing:
// the getter appends the "_search" segment itself.
//
//   kx::elasticsearch::ESConnectionParameters index(kx::http::HttpUrl("https://es.example.com:9200/products"));
//   index.addAuthenticator(std::move(oauth2));
//
// Thread-safety: thread-compatible, as HttpUrl. The getter's constructor copies it once per worker
// (authenticators are called by one thread only), so later changes do not reach a running getter.
// Ownership: a value, as HttpUrl (authenticators owned and cloned on copy, policies shared).
#pragma once

#include <kx/http/HttpUrl.h>
#include <kx/system/kxExport.h>

namespace kx {
namespace elasticsearch {

class KX_EXPORT ESConnectionParameters : public http::HttpUrl {
 public:
  // An empty (invalid) address.
  ESConnectionParameters();
  explicit ESConnectionParameters(const http::HttpUrl& url);
  ESConnectionParameters(const ESConnectionParameters& other);
  ESConnectionParameters& operator=(const ESConnectionParameters& other);
  ~ESConnectionParameters() override;
};

}  // namespace elasticsearch
}  // namespace kx
