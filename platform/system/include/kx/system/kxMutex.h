// kxMutex is the plain, non-recursive mutual-exclusion lock of the platform. It is what kxMutexLocker
// scopes and what kxWaitCondition releases while it waits.
//
//   kx::kxMutex mutex;
//   {
//     kx::kxMutexLocker locker(mutex);
//     ... touch the shared state ...
//   }
//
// A thread that locks a mutex it already holds deadlocks (it is not recursive); unlocking a mutex the
// calling thread does not hold is undefined, as for std::mutex. The lowercase lock/unlock/try_lock names
// make it a standard Lockable, so std::lock_guard and std::scoped_lock work on it too.
//
// Thread-safety: thread-safe (that is its purpose). Not copyable, not movable.
#pragma once

#include <kx/system/kxExport.h>

#include <mutex>

namespace kx {

class KX_EXPORT kxMutex {
 public:
  kxMutex() = default;
  kxMutex(const kxMutex&) = delete;
  kxMutex& operator=(const kxMutex&) = delete;

  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }
  // True when the lock was taken; never blocks.
  bool tryLock() { return mutex_.try_lock(); }
  bool try_lock() { return mutex_.try_lock(); }

  // The underlying standard mutex, for code that needs std::unique_lock or std::condition_variable.
  std::mutex& native() { return mutex_; }

 private:
  std::mutex mutex_;
};

}  // namespace kx
