// kxMutexLocker holds a kxMutex for the lifetime of a scope, so that every return path, early ones
// included, releases it.
//
//   kx::kxMutexLocker locker(mutex_);
//   while (!ready_) condition_.wait(locker.mutex());
//
// unlock() and relock() let a scope drop the lock around a slow call (a transfer, a user callback) and
// take it back; the destructor releases the lock only when the locker still holds it.
//
// Thread-safety: not thread-safe; a locker belongs to the thread that created it.
// Ownership: refers to the mutex, which must outlive the locker.
#pragma once

#include <kx/system/kxExport.h>
#include <kx/system/kxMutex.h>

namespace kx {

class KX_EXPORT kxMutexLocker {
 public:
  // Blocks until the mutex is held.
  explicit kxMutexLocker(kxMutex& mutex) : mutex_(mutex) { mutex_.lock(); }
  ~kxMutexLocker() {
    if (locked_) mutex_.unlock();
  }
  kxMutexLocker(const kxMutexLocker&) = delete;
  kxMutexLocker& operator=(const kxMutexLocker&) = delete;

  // Releases the mutex early; does nothing when it is not held.
  void unlock() {
    if (locked_) {
      locked_ = false;
      mutex_.unlock();
    }
  }
  // Takes the mutex again after unlock(); does nothing when it is already held.
  void relock() {
    if (!locked_) {
      mutex_.lock();
      locked_ = true;
    }
  }
  bool isLocked() const { return locked_; }
  kxMutex& mutex() { return mutex_; }

 private:
  kxMutex& mutex_;
  bool locked_ = true;
};

}  // namespace kx
