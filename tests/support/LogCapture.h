// LogCapture collects every record of the process log (kx::kxLog) for as long as it lives, so tests can
// assert on the exact texts the library logs:
//
//   kx::test::LogCapture log;
//   ... call the code under test ...
//   EXPECT_TRUE(log.contains("Invalid input blob"));
//   EXPECT_EQ(log.texts("http"), std::vector<std::string>{"Http GET error ..."});
//
// It installs its sink and switches the log on (kxLog::setEnabled(true)); the constructor taking a flag
// also sets the verbose flag. The destructor restores the default sink and the flags it found. Only one
// capture should be alive at a time: the log has one sink.
//
// Thread-safety: thread-safe. Records may arrive from any thread, also while a test reads them.
// Ownership: records are copies; what a reader gets stays valid after the capture is gone.
#pragma once

#include <kx/system/kxLog.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kx::test {

class LogCapture {
 public:
  LogCapture();
  explicit LogCapture(bool verbose);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // All records in arrival order.
  std::vector<kxLogRecord> records() const;
  // Texts of the records of one category, in arrival order.
  std::vector<std::string> texts(std::string_view category) const;
  // Whether some record's text is exactly text / contains fragment; how many texts equal text.
  bool contains(std::string_view text) const;
  bool containsFragment(std::string_view fragment) const;
  size_t count(std::string_view text) const;
  // Every record as "<type> [<category>] <text>", one per line: handy as a failure message.
  std::string dump() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
  bool previousEnabled_;
  bool previousVerbose_;
};

}  // namespace kx::test
