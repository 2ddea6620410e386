#include <kx/system/kxThirdPartyLibRegistry.h>

#include <mutex>

namespace kx {

namespace {

struct Registry {
  std::mutex mutex;
  std::map<std::string, std::string> versions;
};

// Built on first use so that libraries registering from their own static initialisers find it ready.
Registry& TheRegistry() {
  static Registry registry;
  return registry;
}

}  // namespace

bool RegisterThirdPartyLibVersionInfo(const std::string& name, const std::string& version) {
  if (name.empty()) return false;
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  const auto [it, inserted] = r.versions.emplace(name, version);
  return inserted || it->second == version;
}

bool UnRegisterThirdPartyLibVersionInfo(const std::string& name) {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  return r.versions.erase(name) > 0;
}

std::map<std::string, std::string> GetThirdPartyLibVersionInfo() {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  return r.versions;
}

}  // namespace kx
