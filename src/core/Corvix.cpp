// The library frame: counted initialisation and termination, and the process-wide state every request
// reads (default headers and policies) or every pool uses (the periodical updater).

#include <kx/Corvix.h>
#include <kx/compress/kxCompress.h>
#include <kx/crypto/kxOpenSSL.h>
#include <kx/http/HttpHeaders.h>
#include <kx/http/HttpPolicies.h>
#include <kx/json/Lumara.h>
#include <kx/system/LibInitCounter.h>
#include <kx/system/kxLog.h>
#include <kx/system/kxStringUtils.h>
#include <kx/system/kxThirdPartyLibRegistry.h>
#include <kx/system/kxThreadPeriodicalUpdater.h>

#include "core/LibraryState.h"
#include "policies/DefaultPolicies.h"

#include <curl/curl.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kx {

namespace {

constexpr const char* kLogCategory = "kxCorvix";
constexpr const char* kCurlLibName = "libcurl";
constexpr std::string_view kOpenSSLPrefix = "openssl/";
// Period of the housekeeping thread, in seconds: pools close idle connections at most this late.
constexpr int kUpdaterPeriodSec = 2;
// Options of kxOpenSSL::initializeLibrary: load libcrypto's error texts, which curl's TLS errors quote.
constexpr int kOpenSSLInitOptions = 1;

// Constant-initialised, so it is usable before any dynamic initialiser of the library runs.
LibInitCounter g_initCounter;

// Read by every request without a lock; documented as "set before requests start".
http::HttpHeaders g_defaultHeaders;

// Written only by initializeCorvix/terminateCorvix; atomic because pools read it from other threads.
std::atomic<kxThreadPeriodicalUpdater*> g_periodicalUpdater{nullptr};
std::atomic<unsigned long> g_curlOpenSSLVersion{0};

}  // namespace

namespace detail {

kxThreadPeriodicalUpdater* GetPeriodicalUpdater() { return g_periodicalUpdater.load(std::memory_order_acquire); }

int64_t GetCorvixInitCount() { return g_initCounter.getInitCount(); }

std::string FindCurlOpenSSLVersionText(std::string_view curlVersionText) {
  for (const std::string& component : kxStringUtils::SplitSkipEmpty(curlVersionText, ' ')) {
    // libcurl spells its back end "OpenSSL/3.0.19"; older builds wrote it in lower case.
    if (kxStringUtils::StartsWithIgnoreAsciiCase(component, kOpenSSLPrefix)) {
      return component.substr(kOpenSSLPrefix.size());
    }
  }
  return {};
}

unsigned long DetermineCurlOpenSSLVersion(std::string_view curlVersionText) {
  const std::string versionText = FindCurlOpenSSLVersionText(curlVersionText);
  const unsigned long version = versionText.empty() ? 0 : kxOpenSSL::ParseOpenSSLVersionString(versionText);
  if (version == 0) {
    kxLog::log(kLogTypeError, kLogCategory, "Cannot get curl openssl version (unknown version)");
    throw std::runtime_error("kxCorvix : ssl versioning error");
  }
  return version;
}

}  // namespace detail

bool initializeCorvix(const std::string& userAgent) {
  // Also on nested calls: a component initialising late may still name the program's user agent.
  if (!userAgent.empty()) {
    g_defaultHeaders.replaceHeader("User-Agent", userAgent);
  }
  if (!g_initCounter.incrementInitCounter()) {
    return false;
  }
  // The sibling libraries first, then curl, which loads OpenSSL through its TLS back end.
  initializeCompress();
  kxOpenSSL::initializeLibrary(kOpenSSLInitOptions);
  json::initializeKxLumara();
  curl_global_sslset(CURLSSLBACKEND_OPENSSL, nullptr, nullptr);
  curl_global_init(CURL_GLOBAL_ALL);
  g_periodicalUpdater.store(new kxThreadPeriodicalUpdater(kUpdaterPeriodSec), std::memory_order_release);

  // Client certificates and TLS options are handed to curl as OpenSSL understands them: a libcurl
  // built on another back end would accept them and fail later in obscure ways, so refuse it now.
  g_curlOpenSSLVersion.store(detail::DetermineCurlOpenSSLVersion(curl_version()));

  return RegisterThirdPartyLibVersionInfo(kCurlLibName, curl_version());
}

void terminateCorvix() {
  if (!g_initCounter.decrementInitCounter()) {
    return;
  }
  // The reverse of initializeCorvix.
  UnRegisterThirdPartyLibVersionInfo(kCurlLibName);
  http::detail::DefaultPolicies() = http::HttpPolicies();
  delete g_periodicalUpdater.exchange(nullptr, std::memory_order_acq_rel);
  curl_global_cleanup();
  json::terminateKxLumara();
  kxOpenSSL::finalizeLibrary();
  terminateCompress();
}

bool IsCorvixInitialized() { return g_initCounter.isInitialized(); }

http::HttpPolicies& GetDefaultPolicies() { return http::detail::DefaultPolicies(); }

void SetDefaultPolicies(const http::HttpPolicies& policies) { http::detail::DefaultPolicies() = policies; }

const http::HttpHeaders& GetDefaultHttpHeaders() { return g_defaultHeaders; }

http::HttpHeaders& EditDefaultHttpHeaders() { return g_defaultHeaders; }

unsigned long GetCurlOpenSSLVersionNumber() { return g_curlOpenSSLVersion.load(); }

}  // namespace kx
