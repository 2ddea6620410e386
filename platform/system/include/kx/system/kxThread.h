// kxThread is one operating-system thread with an explicit start and join. It runs either a function
// object given at construction or the virtual run() of a derived class.
//
//   kx::kxThread worker([&] { drainQueue(); });
//   if (!worker.start()) { ... no thread could be created ... }
//   ...
//   worker.join();
//
//   class Worker : public kx::kxThread {
//    public:
//     ~Worker() override { join(); }   // join before the derived part is destroyed
//    protected:
//     void run() override { ... }
//   };
//
// A derived class that overrides run() must join in its own destructor: the base destructor joins too,
// but by then the derived object is gone and a still running run() would use a destroyed object. With
// a function object the base destructor's join is enough.
//
// An exception escaping the function object or run() is caught at the top of the thread and logged
// (log type 1, category "kxSystem") instead of terminating the process; the thread then ends normally.
//
// A thread may be started again once it has been joined. Destroying a kxThread from inside its own
// run() is allowed (the thread is then detached); run() must not touch the object afterwards.
//
// Thread-safety: start, join, isRunning and isFinished may be called from any thread; join must not be
// called by the thread itself (it returns false at once instead of deadlocking).
// Ownership: the function object is owned by the kxThread and destroyed with it.
#pragma once

#include <kx/system/kxExport.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace kx {

class KX_EXPORT kxThread {
 public:
  // A thread that calls run(); meant for derived classes.
  kxThread();
  // A thread that calls `function` (run() is not overridden). An empty function gives a thread that
  // ends at once.
  explicit kxThread(std::function<void()> function);
  // Joins the thread when it is still running.
  virtual ~kxThread();
  kxThread(const kxThread&) = delete;
  kxThread& operator=(const kxThread&) = delete;

  // Names the operating-system thread (visible in debuggers and /proc; cut to 15 bytes). Takes effect
  // at the next start().
  void setThreadName(std::string name);

  // Creates the thread. False when it was already started and not yet joined, or when the system
  // refused to create a thread.
  bool start();

  // Waits until the thread has ended and releases it. True when the thread has ended (or was never
  // started); false when called from the thread itself.
  bool join();
  // As join(), but waits at most `timeoutMs` milliseconds; false when the thread is still running then.
  bool join(int64_t timeoutMs);

  // True from start() until the function or run() has returned.
  bool isRunning() const;
  // True once the function or run() has returned (until the next start()).
  bool isFinished() const;
  // True when called from this kxThread's own thread.
  bool isCurrentThread() const;

 protected:
  // The work of the thread. The default calls the function object given at construction.
  virtual void run();

 private:
  struct Shared;
  static void ThreadMain(kxThread* self, std::shared_ptr<Shared> shared);
  bool joinImpl(bool timed, int64_t timeoutMs);

  std::function<void()> function_;
  // Everything the thread touches after run() returns lives here, shared with the running thread, so
  // a kxThread destroyed from inside its own run() leaves nothing dangling.
  std::shared_ptr<Shared> shared_;
};

}  // namespace kx
