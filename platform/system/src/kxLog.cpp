#include <kx/system/kxLog.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>
#include <thread>

#include <sys/syscall.h>
#include <unistd.h>

namespace kx {
namespace {

std::atomic<bool> gVerbose{false};
std::atomic<bool> gEnabled{true};

// The sink is swapped as a shared_ptr so that a record being delivered keeps its sink alive while another
// thread installs a new one; the mutex only guards the pointer, never the call.
std::mutex gSinkMutex;
std::shared_ptr<const kxLog::Sink> gSink;

void DefaultSink(const kxLogRecord& record) {
  const time_t seconds = static_cast<time_t>(record.timeMsSinceEpoch / 1000);
  struct tm parts{};
  gmtime_r(&seconds, &parts);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &parts);
  // One fprintf per record: stdio locks the stream, so lines from different threads never interleave.
  std::fprintf(stderr, "%s.%03dZ %s [%s] (tid %llu) %.*s\n", stamp,
               static_cast<int>(record.timeMsSinceEpoch % 1000), kxLogLevelName(record.level),
               record.category.c_str(), static_cast<unsigned long long>(record.threadId),
               static_cast<int>(record.text.size()), record.text.data());
}

}  // namespace

kxLogLevel kxLogLevelOf(kxLogType type) {
  switch (type) {
    case 1:
    case 5:
      return kxLogLevel::Error;
    case 2:
    case 4:
      return kxLogLevel::Warning;
    case 6:
      return kxLogLevel::Information;
    default:
      return kxLogLevel::Debug;
  }
}

const char* kxLogLevelName(kxLogLevel level) {
  switch (level) {
    case kxLogLevel::Debug:
      return "DEBUG";
    case kxLogLevel::Information:
      return "INFO";
    case kxLogLevel::Warning:
      return "WARNING";
    case kxLogLevel::Error:
      return "ERROR";
  }
  return "UNKNOWN";
}

void kxLog::log(kxLogType type, std::string_view category, std::string_view text) {
  if (!gEnabled.load(std::memory_order_relaxed)) return;
  kxLogRecord record;
  record.type = type;
  record.level = kxLogLevelOf(type);
  record.category.assign(category);
  record.text.assign(text);
  record.timeMsSinceEpoch = std::chrono::duration_cast<std::chrono::milliseconds>(
                                std::chrono::system_clock::now().time_since_epoch())
                                .count();
  record.threadId = currentThreadId();
  std::shared_ptr<const Sink> sink;
  {
    std::lock_guard<std::mutex> lock(gSinkMutex);
    sink = gSink;
  }
  if (sink && *sink) {
    (*sink)(record);
  } else {
    DefaultSink(record);
  }
}

void kxLog::setSink(Sink sink) {
  std::shared_ptr<const Sink> next;
  if (sink) next = std::make_shared<const Sink>(std::move(sink));
  std::lock_guard<std::mutex> lock(gSinkMutex);
  gSink = std::move(next);
}

void kxLog::setVerbose(bool verbose) { gVerbose.store(verbose, std::memory_order_relaxed); }
bool kxLog::isVerbose() { return gVerbose.load(std::memory_order_relaxed); }
void kxLog::setEnabled(bool enabled) { gEnabled.store(enabled, std::memory_order_relaxed); }
bool kxLog::isEnabled() { return gEnabled.load(std::memory_order_relaxed); }

uint64_t kxLog::currentThreadId() {
  // The kernel thread id matches what ps, top and gdb show, unlike std::thread::id's opaque value.
  thread_local const uint64_t id = static_cast<uint64_t>(::syscall(SYS_gettid));
  return id;
}

}  // namespace kx
