// HttpConnectionParameters::applyParameters with the request's policies resolved by the caller, so that
// one transfer attempt resolves them once (HttpConnection's setup) and a retry can change the address
// family without resolving again.
#pragma once

#include <curl/curl.h>

#include <string>

namespace kx {
namespace http {

class HttpConnectionParameters;
class HttpProxyFinder;
class HttpUrl;

namespace detail {

struct ResolvedPolicies;

// The scheme rule of every transfer: 0 for a scheme that may not be transferred (shorter than four
// characters or not starting with "http" in any case), 2 when it ends in 's' (either case), else 1.
int SchemeKind(const std::string& scheme);

// Sets on the freshly reset (or new) handle every option the parameters and policies call for that
// differs from libcurl's default; returns the OR of the curl_easy_setopt results. With cookies enabled,
// a non-null `cookieJar` (a share holding cookies) keeps the jar outside the handle, so that it outlives
// curl_easy_reset and curl_easy_cleanup; with a null one the jar lives in the handle.
int ApplyParameters(const HttpConnectionParameters& parameters, CURL* curl, const HttpUrl& url,
                    HttpProxyFinder& finder, const ResolvedPolicies& policies, CURLSH* cookieJar);

}  // namespace detail
}  // namespace http
}  // namespace kx
