// kxThreadPeriodicalUpdater owns one background thread that calls every registered callback, one after
// the other, once per period. Long-lived objects use it for housekeeping that must happen even when
// nobody calls them, such as a connection pool closing sockets that stayed idle too long.
//
//   static void Trim(void* self) { static_cast<Pool*>(self)->trim(); }
//   Pool::Pool() { updater->addCallback(&Trim, this); }
//   Pool::~Pool() { updater->removeCallback(&Trim, this); }   // Trim(this) never runs after this line
//
// The constructor's int argument is the period in seconds (the library creates its updater with 2).
// The period is counted from the end of one pass to the start of the next, so a slow callback delays
// the following pass instead of causing a burst of catch-up passes.
//
// Guarantees:
// - After removeCallback(fn, arg) returns, fn(arg) is never called again. When fn(arg) is running on the
//   updater thread at that moment, removeCallback waits for it to return -- unless removeCallback is
//   called from the updater thread itself (from inside a callback), where it returns at once.
// - The destructor wakes the thread, lets a callback already running finish, and joins: it does not
//   wait for the rest of the period.
// - Callbacks are called without any lock of the updater held, so they may add or remove callbacks.
//
// A callback must not block on something the caller of removeCallback holds (e.g. a pool's mutex taken
// around removeCallback while the callback takes the same mutex): removeCallback would wait forever.
// The destructor must not run on the updater thread (from a callback).
//
// Thread-safety: thread-safe. Ownership: `arg` is not owned; it must stay valid until the callback has
// been removed.
#pragma once

#include <kx/system/kxExport.h>
#include <kx/system/kxThread.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

namespace kx {

class KX_EXPORT kxThreadPeriodicalUpdater {
 public:
  using Callback = void (*)(void*);

  // Starts the thread. `periodSec` is the period in seconds; values below 1 are taken as 1.
  explicit kxThreadPeriodicalUpdater(int periodSec);
  // Starts the thread with a period in milliseconds (values below 1 ms are taken as 1 ms); meant for
  // tests and for finer housekeeping.
  explicit kxThreadPeriodicalUpdater(std::chrono::milliseconds period);
  ~kxThreadPeriodicalUpdater();
  kxThreadPeriodicalUpdater(const kxThreadPeriodicalUpdater&) = delete;
  kxThreadPeriodicalUpdater& operator=(const kxThreadPeriodicalUpdater&) = delete;

  // Registers fn(arg) for every later pass. False when fn is null or the same (fn, arg) pair is already
  // registered (a pair is registered at most once).
  bool addCallback(Callback fn, void* arg);
  // Unregisters fn(arg); see the guarantees above. False when the pair was not registered.
  bool removeCallback(Callback fn, void* arg);

  // Asks the thread to start a pass now instead of at the end of the period; returns at once.
  void triggerNow();
  // Starts a pass now and waits until a whole pass has run after the call, at most `timeoutMs`
  // milliseconds. False on timeout, and at once when called from the updater thread.
  bool runNowAndWait(int64_t timeoutMs);

  int64_t getPeriodMs() const { return periodMs_; }
  // The number of passes completed since construction.
  uint64_t getPassCount() const;

 private:
  struct Entry {
    Callback fn;
    void* arg;
  };
  void threadLoop();
  bool isRegistered(Callback fn, void* arg) const;

  const int64_t periodMs_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;     // the updater thread sleeps on it
  std::condition_variable changed_;  // a pass or a callback finished
  std::vector<Entry> entries_;
  Entry current_{nullptr, nullptr};  // the callback running now, if fn is set
  uint64_t passesStarted_ = 0;
  uint64_t passesDone_ = 0;
  bool triggered_ = false;
  bool stop_ = false;
  kxThread thread_;
};

}  // namespace kx
