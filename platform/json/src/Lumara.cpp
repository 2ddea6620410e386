#include <kx/json/Lumara.h>

#include <atomic>

namespace kx {
namespace json {

namespace {
std::atomic<int> gInitCount{0};
}  // namespace

void initializeKxLumara() { gInitCount.fetch_add(1, std::memory_order_acq_rel); }

void terminateKxLumara() {
  // A termination without a matching initialisation must not drive the count negative, or the next
  // initialisation would be swallowed.
  int count = gInitCount.load(std::memory_order_acquire);
  while (count > 0 && !gInitCount.compare_exchange_weak(count, count - 1, std::memory_order_acq_rel)) {
  }
}

bool isKxLumaraInitialized() { return gInitCount.load(std::memory_order_acquire) > 0; }

}  // namespace json
}  // namespace kx
