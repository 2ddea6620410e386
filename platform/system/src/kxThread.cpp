#include <kx/system/kxThread.h>

#include <kx/system/kxLog.h>

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace kx {

struct kxThread::Shared {
  enum class State { Idle, Running, Finished };
  std::mutex mutex;
  std::condition_variable finished;
  State state = State::Idle;
  std::thread thread;
  std::thread::id threadId;
  std::string name;
};

kxThread::kxThread() : shared_(std::make_shared<Shared>()) {}

kxThread::kxThread(std::function<void()> function)
    : function_(std::move(function)), shared_(std::make_shared<Shared>()) {}

kxThread::~kxThread() {
  if (!join()) {
    // Destroyed from its own thread, which cannot join itself: detach, or std::thread's destructor
    // would terminate the process. The thread keeps `shared_` alive until it ends.
    std::lock_guard<std::mutex> lock(shared_->mutex);
    if (shared_->thread.joinable()) shared_->thread.detach();
  }
}

void kxThread::setThreadName(std::string name) {
  std::lock_guard<std::mutex> lock(shared_->mutex);
  shared_->name = std::move(name);
}

bool kxThread::start() {
  Shared& s = *shared_;
  std::unique_lock<std::mutex> lock(s.mutex);
  if (s.state == Shared::State::Running || s.thread.joinable()) return false;
  s.state = Shared::State::Running;
  try {
    s.thread = std::thread(&kxThread::ThreadMain, this, shared_);
  } catch (const std::system_error& e) {
    s.state = Shared::State::Idle;
    lock.unlock();
    kxLog::log(kLogTypeValueError, "kxSystem", std::string("Cannot start thread: ") + e.what());
    return false;
  }
  s.threadId = s.thread.get_id();
  return true;
}

void kxThread::ThreadMain(kxThread* self, std::shared_ptr<Shared> shared) {
  std::string name;
  {
    std::lock_guard<std::mutex> lock(shared->mutex);
    name = shared->name;
  }
  if (!name.empty()) {
    // The kernel keeps at most 15 bytes plus the terminator and refuses longer names outright.
    name.resize(std::min<size_t>(name.size(), 15));
    pthread_setname_np(pthread_self(), name.c_str());
  }
  try {
    self->run();
  } catch (const std::exception& e) {
    kxLog::log(kLogTypeValueError, "kxSystem", std::string("Unhandled exception in thread: ") + e.what());
  }
  // `self` may be gone by now (destroyed from run()); only the shared state is touched.
  std::lock_guard<std::mutex> lock(shared->mutex);
  shared->state = Shared::State::Finished;
  shared->finished.notify_all();
}

void kxThread::run() {
  if (function_) function_();
}

bool kxThread::join() { return joinImpl(false, 0); }

bool kxThread::join(int64_t timeoutMs) {
  // Beyond ~100 years the deadline would overflow the clock's nanosecond count.
  constexpr int64_t kMaxTimeoutMs = int64_t{100} * 365 * 24 * 3600 * 1000;
  return joinImpl(true, std::clamp<int64_t>(timeoutMs, 0, kMaxTimeoutMs));
}

bool kxThread::joinImpl(bool timed, int64_t timeoutMs) {
  Shared& s = *shared_;
  std::unique_lock<std::mutex> lock(s.mutex);
  if (!s.thread.joinable()) return true;
  if (std::this_thread::get_id() == s.threadId) return false;
  auto done = [&s] { return s.state == Shared::State::Finished; };
  if (timed) {
    if (!s.finished.wait_for(lock, std::chrono::milliseconds(timeoutMs), done)) return false;
  } else {
    s.finished.wait(lock, done);
  }
  // Two threads may join at once: only the one that still finds the thread joinable releases it.
  std::thread finishedThread = std::move(s.thread);
  lock.unlock();
  if (finishedThread.joinable()) finishedThread.join();
  return true;
}

bool kxThread::isRunning() const {
  std::lock_guard<std::mutex> lock(shared_->mutex);
  return shared_->state == Shared::State::Running;
}

bool kxThread::isFinished() const {
  std::lock_guard<std::mutex> lock(shared_->mutex);
  return shared_->state == Shared::State::Finished;
}

bool kxThread::isCurrentThread() const {
  std::lock_guard<std::mutex> lock(shared_->mutex);
  return shared_->thread.joinable() && std::this_thread::get_id() == shared_->threadId;
}

}  // namespace kx
