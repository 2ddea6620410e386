// LibInitCounter counts balanced initialise/terminate calls of a library, so that nested users can each
// call initialise and terminate while the real work happens once: on the first initialise and on the
// matching last terminate.
//
//   static kx::LibInitCounter counter;
//   bool initializeFoo() {
//     if (!counter.incrementInitCounter()) return false;   // already initialised: nothing more to do
//     ... set up ...
//   }
//   void terminateFoo() {
//     if (!counter.decrementInitCounter()) return;         // not the last user
//     ... tear down ...
//   }
//
// An unbalanced terminate (counter already 0) is ignored: it returns false and the counter stays 0.
// Constant-initialised, so a counter at namespace scope is usable from other static initialisers.
//
// Thread-safety: thread-safe; counts are atomic. It only counts: two threads initialising at once both
// return after the first has *counted*, not after it has finished setting up, so the guarded set-up
// itself must still run at start-up on one thread.
#pragma once

#include <kx/system/kxExport.h>

#include <atomic>
#include <cstdint>

namespace kx {

class KX_EXPORT LibInitCounter {
 public:
  constexpr LibInitCounter() = default;
  LibInitCounter(const LibInitCounter&) = delete;
  LibInitCounter& operator=(const LibInitCounter&) = delete;

  // Adds one user; true only when this is the first (the counter went from 0 to 1).
  bool incrementInitCounter();
  // Removes one user; true only when this was the last (the counter went from 1 to 0). False, with no
  // change, when the counter is already 0.
  bool decrementInitCounter();
  // True while at least one initialisation is outstanding.
  bool isInitialized() const { return count_.load(std::memory_order_acquire) > 0; }
  int64_t getInitCount() const { return count_.load(std::memory_order_acquire); }

 private:
  std::atomic<int64_t> count_{0};
};

}  // namespace kx
