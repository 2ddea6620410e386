#include <kx/http/MultiPartStreamBuilder.h>
#include <kx/system/kxIoDeviceStringWriteOnly.h>

#include <gtest/gtest.h>

#include <algorithm>

namespace kx::http {
namespace {

// A delegate that takes at most three bytes per write, as a socket may.
struct ShortWriteSink : kxIoDeviceStringWriteOnly {
  size_t writeBytes(const char* data, size_t size) override {
    return kxIoDeviceStringWriteOnly::writeBytes(data, std::min<size_t>(size, 3));
  }
};

TEST(MultiPartStreamBuilderTest, HeaderRunsEmptySecondBodyShortWritesAndRefusedRead) {
  kxIoDeviceStringWriteOnly sink;
  ShortWriteSink shortSink;
  MultiPartStreamBuilder builder("B");
  HttpHeaders defaults, own;
  defaults.addHeaderValue("Z", "1");
  own.addHeaderValue("A", "2");
  builder.setDefaultPartHeaders(defaults);
  for (int body = 0; body < 2; ++body) {
    ASSERT_TRUE(builder.beginDelegation(&sink, kxIoDevice::DW_Write));
    ASSERT_TRUE(body == 1 || (builder.startNewPart("a", "f", &own) && builder.writeAll("DATA") && builder.startNewPart("b", "")));
    ASSERT_TRUE(builder.endDelegation());
  }
  EXPECT_EQ(sink.getString(), "--B\r\ncontent-disposition: form-data;name=\"a\";filename=\"f\"\r\nz:1\r\na:2\r\n\r\nDATA\r\n"
                              "--B\r\ncontent-disposition: form-data;name=\"b\"\r\nz:1\r\n\r\n\r\n--B--\r\n");
  ASSERT_TRUE(builder.beginDelegation(&shortSink, kxIoDevice::DW_Write) && builder.startNewPart("a", ""));
  EXPECT_EQ(builder.writeBytes("abcdef", 6), 3u);
  ASSERT_TRUE(builder.endDelegation());
  EXPECT_EQ(shortSink.getString(), "--B\r\ncontent-disposition: form-data;name=\"a\"\r\nz:1\r\n\r\nabc\r\n--B--\r\n");
  EXPECT_EQ(builder.readBytes(nullptr, 1), 0u);  // refused before the buffer is touched
  EXPECT_EQ(builder.getDeviceErrorMsg(), "readBytes not implemented");
}

}  // namespace
}  // namespace kx::http
