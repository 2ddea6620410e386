// kxLog is the process-wide log of the library and its sibling libraries. A record is a log type (a
// small integer), a category ("http", "curl", "url", ...) and a text; the log stamps it with the wall
// clock time and the calling thread's id and hands it to the installed sink.
//
//   kx::kxLog::setSink([](const kx::kxLogRecord& r) { myLogger.write(r.category, r.text); });
//   kx::kxLog::log(5, "http", "something failed");
//
// Log types and the level each maps to (kxLogLevelOf):
//   1 error, 2 warning, 3 debug, 4 warning, 5 error, 6 information; any other value is debug.
//
// The verbose flag switches on the costly diagnostics of the transfer layer (curl traces, request ids,
// connection reuse warnings). The enabled flag (default on) lets a program silence the log entirely.
//
// Thread-safety: thread-safe. The sink may be replaced while other threads log; a sink is called by the
// logging thread, possibly by several threads at once, and must be thread-safe itself.
#pragma once

#include <kx/system/kxExport.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace kx {

using kxLogType = int;

// The log types written by the library and its sibling libraries, named by what they mean. Two scales
// meet here: the value layer (URL parsing, host-name resolution) and the system library write 1 for an
// error and 2 for a warning; the transfer, policy, body, token and key layers write 5 and 4. Code names
// the meaning, never the number, so one meaning cannot drift to two values.
inline constexpr kxLogType kLogTypeValueError = 1;
inline constexpr kxLogType kLogTypeValueWarning = 2;
inline constexpr kxLogType kLogTypeDebug = 3;
inline constexpr kxLogType kLogTypeWarning = 4;
inline constexpr kxLogType kLogTypeError = 5;
inline constexpr kxLogType kLogTypeInformation = 6;

enum class kxLogLevel { Debug, Information, Warning, Error };

struct kxLogRecord {
  kxLogType type = 0;
  kxLogLevel level = kxLogLevel::Debug;
  std::string category;
  std::string text;
  int64_t timeMsSinceEpoch = 0;
  uint64_t threadId = 0;
};

KX_EXPORT kxLogLevel kxLogLevelOf(kxLogType type);
KX_EXPORT const char* kxLogLevelName(kxLogLevel level);

class KX_EXPORT kxLog {
 public:
  using Sink = std::function<void(const kxLogRecord&)>;

  // Builds a record and hands it to the sink. Does nothing while the log is disabled.
  static void log(kxLogType type, std::string_view category, std::string_view text);

  // Installs a sink; an empty function restores the default, which writes one line per record to stderr:
  // "<ISO time> <level> [<category>] (tid <id>) <text>".
  static void setSink(Sink sink);

  static void setVerbose(bool verbose);
  static bool isVerbose();

  static void setEnabled(bool enabled);
  static bool isEnabled();

  // The id the log stamps on records of the calling thread.
  static uint64_t currentThreadId();
};

}  // namespace kx
