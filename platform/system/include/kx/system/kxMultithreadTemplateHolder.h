// kxMultithreadTemplateHolder<T> is a value shared between threads, guarded by a mutex and stamped
// with a 64-bit version that grows by one at every change. Readers keep a local copy together with
// the version it was taken at, and re-copy only when getVersion() (a lock-free read) has moved on, so
// the common "nothing changed" path takes no lock and copies nothing.
//
//   auto shared = std::make_shared<kx::kxMultithreadTemplateHolder<Bearer>>();
//   uint64_t seen = 0; Bearer local;
//   if (shared->getVersion() != seen) local = shared->get(&seen);
//   ...
//   shared->update([&](Bearer& b) { if (b == fresh) return false; b = fresh; return true; });
//
// The version starts at 0 and is never reused, so a reader's version equals the holder's only when its
// copy is current.
//
// Thread-safety: thread-safe. T needs to be copyable; its copy runs under the holder's mutex, so it
// must not call back into the holder.
#pragma once

#include <kx/system/kxMutex.h>
#include <kx/system/kxMutexLocker.h>

#include <atomic>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace kx {

template <class T>
class kxMultithreadTemplateHolder {
 public:
  kxMultithreadTemplateHolder() = default;
  explicit kxMultithreadTemplateHolder(T value) : value_(std::move(value)) {}
  kxMultithreadTemplateHolder(const kxMultithreadTemplateHolder&) = delete;
  kxMultithreadTemplateHolder& operator=(const kxMultithreadTemplateHolder&) = delete;

  // The current version; lock-free.
  uint64_t getVersion() const { return version_.load(std::memory_order_acquire); }

  // A copy of the value; `version`, when given, receives the version that copy belongs to.
  T get(uint64_t* version = nullptr) const {
    kxMutexLocker locker(mutex_);
    if (version != nullptr) *version = version_.load(std::memory_order_relaxed);
    return value_;
  }

  // Copies the value into `value` only when the holder's version differs from `version`, then updates
  // `version`. True when a copy was made.
  bool getIfChanged(T& value, uint64_t& version) const {
    if (getVersion() == version) return false;
    kxMutexLocker locker(mutex_);
    value = value_;
    version = version_.load(std::memory_order_relaxed);
    return true;
  }

  // Replaces the value and returns the new version.
  uint64_t set(T value) {
    kxMutexLocker locker(mutex_);
    value_ = std::move(value);
    return bumpVersion();
  }

  // Calls `fn(T&)` under the lock and returns the version afterwards. When `fn` returns bool, the
  // version is increased only if it returns true ("changed"); otherwise it is always increased.
  template <class F>
  uint64_t update(F&& fn) {
    kxMutexLocker locker(mutex_);
    if constexpr (std::is_same_v<std::invoke_result_t<F&, T&>, bool>) {
      if (!fn(value_)) return version_.load(std::memory_order_relaxed);
    } else {
      fn(value_);
    }
    return bumpVersion();
  }

 private:
  uint64_t bumpVersion() {
    const uint64_t next = version_.load(std::memory_order_relaxed) + 1;
    version_.store(next, std::memory_order_release);
    return next;
  }

  mutable kxMutex mutex_;
  T value_{};
  std::atomic<uint64_t> version_{0};
};

}  // namespace kx
