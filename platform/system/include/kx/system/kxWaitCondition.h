// kxWaitCondition lets threads sleep until another thread signals that shared state changed. The state
// is guarded by a kxMutex; a waiter holds that mutex, checks its condition, and calls wait(), which
// releases the mutex while sleeping and takes it back before returning.
//
//   kx::kxMutexLocker locker(mutex_);
//   while (jobs_.empty() && !stop_) condition_.wait(mutex_);
//   ...
//   // producer, with or without the mutex held:
//   condition_.wakeOne();
//
// Unlike a bare std::condition_variable, a wait never ends spuriously: it returns true only after a
// wakeOne() or wakeAll() that found it waiting, and false only when its time is up. wakeOne() wakes the
// longest-waiting thread, and a thread that starts waiting after a wake call cannot take that wake-up
// from the thread it was meant for. Callers should still re-check their condition in a loop, because
// another thread may have consumed the state between the wake-up and the re-locking of the mutex.
//
// Timed waits use the monotonic clock, so a change of the wall clock neither shortens nor stretches them.
//
// Thread-safety: thread-safe. Ownership: does not own the mutexes passed to wait(); the wait condition
// must not be destroyed while a thread waits on it.
#pragma once

#include <kx/system/kxExport.h>
#include <kx/system/kxMutex.h>

#include <cstdint>
#include <mutex>

namespace kx {

class KX_EXPORT kxWaitCondition {
 public:
  kxWaitCondition() = default;
  kxWaitCondition(const kxWaitCondition&) = delete;
  kxWaitCondition& operator=(const kxWaitCondition&) = delete;

  // Precondition: the calling thread holds `mutex`. Releases it, sleeps until woken, re-locks it.
  void wait(kxMutex& mutex);
  // As wait(mutex), but gives up after `timeoutMs` milliseconds. Returns true when woken by wakeOne or
  // wakeAll, false on timeout; the mutex is held again on return in both cases. A timeout of 0 or less
  // returns false at once without releasing the mutex.
  bool wait(kxMutex& mutex, int64_t timeoutMs);

  // Wakes the thread that has been waiting longest; does nothing when none waits (a wake-up is never
  // kept for a thread that starts waiting later).
  void wakeOne();
  // Wakes every thread currently waiting.
  void wakeAll();

 private:
  struct Waiter;
  bool waitImpl(kxMutex& mutex, bool timed, int64_t timeoutMs);
  void unlink(Waiter* waiter);

  // Each sleeping thread has one node, on its own stack, in a FIFO list: a waker marks the node it
  // wakes, so the sleeper can tell a real wake-up from a spurious return of its condition variable.
  std::mutex internal_;
  Waiter* head_ = nullptr;
  Waiter* tail_ = nullptr;
};

}  // namespace kx
