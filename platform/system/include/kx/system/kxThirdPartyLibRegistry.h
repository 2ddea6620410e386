// The process-wide registry of the third-party libraries in use and their version texts, so that a
// program can report exactly what it runs on ("libcurl" -> "libcurl/7.88.1 OpenSSL/3.0.19 ...").
// Libraries register at initialisation and unregister at termination.
//
//   kx::RegisterThirdPartyLibVersionInfo("libcurl", curl_version());
//   for (const auto& [name, version] : kx::GetThirdPartyLibVersionInfo()) log(name + " " + version);
//
// Thread-safety: thread-safe. The registry is empty at start and after every entry is unregistered.
#pragma once

#include <kx/system/kxExport.h>

#include <map>
#include <string>

namespace kx {

// Records `version` under `name`. True when the entry was added, or when exactly the same entry is
// already there (registering twice is harmless). False, leaving the registry unchanged, when `name` is
// empty or already registered with a different version: two versions of one library in a process is a
// conflict the first registrant must resolve, not something to overwrite silently.
KX_EXPORT bool RegisterThirdPartyLibVersionInfo(const std::string& name, const std::string& version);
// Removes the entry of `name`. False when there was none.
KX_EXPORT bool UnRegisterThirdPartyLibVersionInfo(const std::string& name);
// A copy of all entries, by name.
KX_EXPORT std::map<std::string, std::string> GetThirdPartyLibVersionInfo();

}  // namespace kx
