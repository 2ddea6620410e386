#include <kx/system/kxWaitCondition.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>

namespace kx {

struct kxWaitCondition::Waiter {
  std::condition_variable condition;
  bool woken = false;
  Waiter* prev = nullptr;
  Waiter* next = nullptr;
};

void kxWaitCondition::unlink(Waiter* waiter) {
  (waiter->prev != nullptr ? waiter->prev->next : head_) = waiter->next;
  (waiter->next != nullptr ? waiter->next->prev : tail_) = waiter->prev;
  waiter->prev = waiter->next = nullptr;
}

void kxWaitCondition::wait(kxMutex& mutex) { waitImpl(mutex, false, 0); }

bool kxWaitCondition::wait(kxMutex& mutex, int64_t timeoutMs) {
  if (timeoutMs <= 0) return false;
  return waitImpl(mutex, true, timeoutMs);
}

bool kxWaitCondition::waitImpl(kxMutex& mutex, bool timed, int64_t timeoutMs) {
  // Beyond ~100 years the deadline would overflow the clock's nanosecond count; nobody waits that long.
  constexpr int64_t kMaxTimeoutMs = int64_t{100} * 365 * 24 * 3600 * 1000;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(std::min(timeoutMs, kMaxTimeoutMs));

  Waiter self;
  std::unique_lock<std::mutex> lock(internal_);
  // Enqueue before releasing the caller's mutex: a waker that changes the state under that mutex and
  // then wakes must find this thread already in the list, or the wake-up would be lost.
  self.prev = tail_;
  (tail_ != nullptr ? tail_->next : head_) = &self;
  tail_ = &self;
  mutex.unlock();

  if (timed) {
    self.condition.wait_until(lock, deadline, [&] { return self.woken; });
  } else {
    self.condition.wait(lock, [&] { return self.woken; });
  }
  // A waker unlinks the node it wakes; a node still linked here timed out.
  const bool woken = self.woken;
  if (!woken) unlink(&self);
  lock.unlock();
  mutex.lock();
  return woken;
}

void kxWaitCondition::wakeOne() {
  std::lock_guard<std::mutex> lock(internal_);
  if (Waiter* waiter = head_) {
    unlink(waiter);
    waiter->woken = true;
    // Notified under internal_: the waiter cannot leave (and destroy its node) before we release it.
    waiter->condition.notify_one();
  }
}

void kxWaitCondition::wakeAll() {
  std::lock_guard<std::mutex> lock(internal_);
  while (Waiter* waiter = head_) {
    unlink(waiter);
    waiter->woken = true;
    waiter->condition.notify_one();
  }
}

}  // namespace kx
