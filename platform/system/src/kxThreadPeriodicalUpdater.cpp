#include <kx/system/kxThreadPeriodicalUpdater.h>

#include <kx/system/kxLog.h>

#include <algorithm>
#include <exception>
#include <string>

namespace kx {

namespace {
// Beyond ~100 years a deadline would overflow the clock's nanosecond count.
constexpr int64_t kMaxDelayMs = int64_t{100} * 365 * 24 * 3600 * 1000;
}  // namespace

kxThreadPeriodicalUpdater::kxThreadPeriodicalUpdater(int periodSec)
    : kxThreadPeriodicalUpdater(std::chrono::milliseconds(int64_t{std::max(periodSec, 1)} * 1000)) {}

kxThreadPeriodicalUpdater::kxThreadPeriodicalUpdater(std::chrono::milliseconds period)
    : periodMs_(std::clamp<int64_t>(period.count(), 1, kMaxDelayMs)), thread_([this] { threadLoop(); }) {
  thread_.setThreadName("kxUpdater");
  if (!thread_.start()) kxLog::log(kLogTypeValueError, "kxSystem", "Periodical updater thread could not be started");
}

kxThreadPeriodicalUpdater::~kxThreadPeriodicalUpdater() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  changed_.notify_all();
  thread_.join();
}

bool kxThreadPeriodicalUpdater::isRegistered(Callback fn, void* arg) const {
  return std::any_of(entries_.begin(), entries_.end(),
                     [&](const Entry& e) { return e.fn == fn && e.arg == arg; });
}

bool kxThreadPeriodicalUpdater::addCallback(Callback fn, void* arg) {
  if (fn == nullptr) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  if (isRegistered(fn, arg)) return false;
  entries_.push_back(Entry{fn, arg});
  return true;
}

bool kxThreadPeriodicalUpdater::removeCallback(Callback fn, void* arg) {
  // Asked before taking mutex_, so that no two locks are ever held together.
  const bool onUpdaterThread = thread_.isCurrentThread();
  std::unique_lock<std::mutex> lock(mutex_);
  auto it = std::find_if(entries_.begin(), entries_.end(),
                         [&](const Entry& e) { return e.fn == fn && e.arg == arg; });
  if (it == entries_.end()) return false;
  entries_.erase(it);
  // The pass re-checks registration under mutex_ before each call, so only a call already in progress
  // can still reach fn(arg). Wait it out -- except on the updater thread, where that call is our caller.
  if (!onUpdaterThread) {
    changed_.wait(lock, [&] { return current_.fn != fn || current_.arg != arg; });
  }
  return true;
}

void kxThreadPeriodicalUpdater::triggerNow() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    triggered_ = true;
  }
  wake_.notify_all();
}

bool kxThreadPeriodicalUpdater::runNowAndWait(int64_t timeoutMs) {
  if (thread_.isCurrentThread()) return false;
  std::unique_lock<std::mutex> lock(mutex_);
  // A pass already under way may have taken its list of callbacks before this call: wait for the next
  // one to start, which sees the state as of now.
  const uint64_t target = passesStarted_ + 1;
  triggered_ = true;
  wake_.notify_all();
  const bool done = changed_.wait_for(lock, std::chrono::milliseconds(std::clamp<int64_t>(timeoutMs, 0, kMaxDelayMs)),
                                      [&] { return passesDone_ >= target || stop_; });
  return done && passesDone_ >= target;
}

uint64_t kxThreadPeriodicalUpdater::getPassCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return passesDone_;
}

void kxThreadPeriodicalUpdater::threadLoop() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stop_) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(periodMs_);
    wake_.wait_until(lock, deadline, [this] { return stop_ || triggered_; });
    if (stop_) break;
    triggered_ = false;
    ++passesStarted_;
    // Iterate over a copy: callbacks may add or remove entries while the lock is released.
    const std::vector<Entry> snapshot = entries_;
    for (const Entry& entry : snapshot) {
      if (stop_) break;
      if (!isRegistered(entry.fn, entry.arg)) continue;  // removed earlier in this pass
      current_ = entry;
      lock.unlock();
      try {
        entry.fn(entry.arg);
      } catch (const std::exception& e) {
        kxLog::log(kLogTypeValueError, "kxSystem", std::string("Periodical updater callback threw: ") + e.what());
      }
      lock.lock();
      current_ = Entry{nullptr, nullptr};
      changed_.notify_all();
    }
    ++passesDone_;
    changed_.notify_all();
  }
}

}  // namespace kx
