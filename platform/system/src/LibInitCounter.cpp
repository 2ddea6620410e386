#include <kx/system/LibInitCounter.h>

namespace kx {

bool LibInitCounter::incrementInitCounter() { return count_.fetch_add(1, std::memory_order_acq_rel) == 0; }

bool LibInitCounter::decrementInitCounter() {
  // A compare-exchange loop rather than fetch_sub: an unbalanced terminate must leave 0, not -1, or
  // the next initialise would not be seen as the first.
  int64_t current = count_.load(std::memory_order_acquire);
  while (current > 0) {
    if (count_.compare_exchange_weak(current, current - 1, std::memory_order_acq_rel)) return current == 1;
  }
  return false;
}

}  // namespace kx
