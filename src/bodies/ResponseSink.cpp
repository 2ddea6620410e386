#include "bodies/ResponseSink.h"

#include <kx/system/kxIoDevice.h>

#include <new>

namespace kx {
namespace http {
namespace detail {
namespace {

// A server may announce any length; reserving is only worth it up to what a text body can sensibly
// hold in memory, and a refused reservation is no error (the text then grows as the bytes come).
constexpr int64_t kMaxReserve = int64_t{1} << 30;

}  // namespace

int ResponseSink::install(CURL* curl) {
  using WriteFn = size_t (*)(char*, size_t, size_t, void*);
  int result = curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, static_cast<WriteFn>(&WriteCallback));
  result |= curl_easy_setopt(curl, CURLOPT_WRITEDATA, static_cast<void*>(this));
  return result;
}

size_t ResponseSink::WriteCallback(char* data, size_t size, size_t count, void* sink) {
  const size_t n = size * count;
  return static_cast<ResponseSink*>(sink)->write(data, n) ? n : 0;
}

bool DeviceSink::write(const char* data, size_t size) { return size == 0 || device_.writeAll(data, size); }

void TextSink::expectSize(int64_t size) {
  if (size <= 0 || size > kMaxReserve) return;
  try {
    text_.reserve(text_.size() + static_cast<size_t>(size));
  } catch (const std::bad_alloc&) {
    // Not fatal: the text grows piece by piece instead.
  }
}

bool TextSink::write(const char* data, size_t size) {
  try {
    text_.append(data, size);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

}  // namespace detail
}  // namespace http
}  // namespace kx
