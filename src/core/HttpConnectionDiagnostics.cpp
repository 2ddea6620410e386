// The connection's error report and the curl trace that feeds it. The report is built only when asked
// for (getLastErrorMsg), from the state the last call left behind; the trace is recorded during the
// transfer, and only with the log verbose, because formatting every header of every request costs more
// than most requests are worth.

#include <kx/system/kxStringUtils.h>
#include <kx/system/kxTime.h>

#include "core/HttpConnectionState.h"

#include <string>
#include <string_view>

namespace kx {
namespace http {
namespace detail {
namespace {

std::string Ago(int64_t since) { return kxStringUtils::humanizeDuration(GetTimeBaseMs() - since, 1); }

void AddSection(std::string& report, const std::string& section) {
  if (!report.empty()) report += '\n';
  report += section;
}

// Notes curl repeats on every request that tell nothing about a failure: TLS record bookkeeping, and the
// cookie engine's complaint that its (deliberately empty) file name cannot be opened.
bool IsNoise(std::string_view text) {
  return text.find("TLS header, Supplemental data") != std::string_view::npos ||
         text.find("WARNING: failed to open cookie file \"\"") != std::string_view::npos;
}

// curl hands over the request header block in one piece ("GET / HTTP/1.1\r\nHost: ...\r\n\r\n"); each
// line gets its own "> " prefix. A block never continues the line before it: when the trace does not
// end in a line feed, one is added first, so a block split over several calls shows each piece on its
// own "> " line rather than glued to foreign text.
void AppendSentHeaders(std::string& trace, std::string_view text) {
  if (!trace.empty() && trace.back() != '\n') trace += '\n';
  while (!text.empty()) {
    const size_t end = text.find('\n');
    const std::string_view line = end == std::string_view::npos ? text : text.substr(0, end + 1);
    trace += "> ";
    trace.append(line.data(), line.size());
    text.remove_prefix(line.size());
  }
}

}  // namespace

int CurlDebugCallback(CURL* /*curl*/, curl_infotype type, char* text, size_t size, void* userData) {
  auto* state = static_cast<HttpConnection::State*>(userData);
  if (state == nullptr || !state->traceEnabled || static_cast<int>(type) > CURLINFO_END) return 0;
  const std::string_view data(text, text != nullptr ? size : 0);
  std::string& trace = state->debugTrace;
  switch (type) {
    case CURLINFO_TEXT:
      if (!IsNoise(data)) {
        trace += "* ";
        trace.append(data.data(), data.size());
      }
      break;
    case CURLINFO_HEADER_IN:
      trace += "< ";
      trace.append(data.data(), data.size());
      break;
    case CURLINFO_HEADER_OUT:
      AppendSentHeaders(trace, data);
      break;
    case CURLINFO_DATA_IN:
    case CURLINFO_DATA_OUT:
    case CURLINFO_SSL_DATA_IN:
    case CURLINFO_SSL_DATA_OUT:
      // Bodies and TLS records never enter the trace: they may be large, binary or secret.
      break;
    case CURLINFO_END:
      trace += "End";
      break;
  }
  return 0;
}

std::string BuildErrorReport(const HttpConnection::State& s) {
  std::string report;
  if (!s.errorText.empty()) AddSection(report, "HttpConnection error : " + s.errorText);
  if (s.httpStatus != 0) AddSection(report, "Http return code " + std::to_string(s.httpStatus));
  if (s.curlResult != CURLE_OK) AddSection(report, "Curl error : " + CurlErrorText(s.curlResult));
  if (!s.requestId.empty()) AddSection(report, "X-Request-ID : " + s.requestId);
  // No blank after the colon: addErrorInfo puts one before every piece.
  if (!s.extraErrorInfo.empty()) AddSection(report, "Extra error info :" + s.extraErrorInfo);
  if (s.errorBuffer[0] != '\0') AddSection(report, std::string("Curl internal error : ") + s.errorBuffer);
  if (!s.debugTrace.empty()) AddSection(report, "Curl diag info : \n" + s.debugTrace);
  if (s.creationTime != kTimeNeverSet) {
    std::string history = "Connection created " + Ago(s.creationTime) + " ago, ";
    history += s.previousUseTime != kTimeNeverSet ? "previous use was " + Ago(s.previousUseTime) + " ago"
                                                  : std::string("first use");
    history += ", connection use count " + std::to_string(s.connectionUseCount) + ", socket use count " +
               std::to_string(s.socketUseCount);
    AddSection(report, history);
  }
  return report;
}

}  // namespace detail
}  // namespace http
}  // namespace kx
