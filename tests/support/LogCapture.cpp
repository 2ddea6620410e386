#include "support/LogCapture.h"

#include <algorithm>
#include <mutex>

namespace kx::test {

// Shared with the sink: the log may still be delivering a record on another thread while the capture is
// destroyed, and that call must find the state alive.
struct LogCapture::State {
  std::mutex mutex;
  std::vector<kxLogRecord> records;
};

LogCapture::LogCapture()
    : state_(std::make_shared<State>()), previousEnabled_(kxLog::isEnabled()), previousVerbose_(kxLog::isVerbose()) {
  kxLog::setSink([state = state_](const kxLogRecord& record) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->records.push_back(record);
  });
  kxLog::setEnabled(true);
}

LogCapture::LogCapture(bool verbose) : LogCapture() { kxLog::setVerbose(verbose); }

LogCapture::~LogCapture() {
  kxLog::setSink({});
  kxLog::setEnabled(previousEnabled_);
  kxLog::setVerbose(previousVerbose_);
}

std::vector<kxLogRecord> LogCapture::records() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->records;
}

std::vector<std::string> LogCapture::texts(std::string_view category) const {
  std::vector<std::string> out;
  for (const auto& record : records()) {
    if (record.category == category) out.push_back(record.text);
  }
  return out;
}

bool LogCapture::contains(std::string_view text) const { return count(text) > 0; }

bool LogCapture::containsFragment(std::string_view fragment) const {
  const auto all = records();
  return std::any_of(all.begin(), all.end(), [&](const auto& r) { return r.text.find(fragment) != std::string::npos; });
}

size_t LogCapture::count(std::string_view text) const {
  const auto all = records();
  return static_cast<size_t>(std::count_if(all.begin(), all.end(), [&](const auto& r) { return r.text == text; }));
}

std::string LogCapture::dump() const {
  std::string out;
  for (const auto& record : records()) {
    out += std::to_string(record.type) + " [" + record.category + "] " + record.text + "\n";
  }
  return out;
}

}  // namespace kx::test
