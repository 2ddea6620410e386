#include <kx/http/MultiPartStreamBuilder.h>
#include <kx/http/kxIoDeviceHttpChunked.h>
#include <kx/system/kxIoDeviceStringWriteOnly.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "support/LogCapture.h"

namespace kx::http {
namespace {

// A delegate that takes at most three bytes per write, as a socket may.
struct ShortWriteSink : kxIoDeviceStringWriteOnly {
  size_t writeBytes(const char* data, size_t size) override {
    return kxIoDeviceStringWriteOnly::writeBytes(data, std::min<size_t>(size, 3));
  }
};

TEST(MultiPartStreamBuilderTest, PartsWithDefaultThenOwnHeaderRunsAndEmptyBodies) {
  kxIoDeviceStringWriteOnly sink;
  MultiPartStreamBuilder builder("B");
  HttpHeaders defaults, own;
  defaults.addHeaderValue("Z", "1");
  own.addHeaderValue("A", "2");
  builder.setDefaultPartHeaders(defaults);
  for (int body = 0; body < 2; ++body) {  // the second body starts no part: it stays empty
    ASSERT_TRUE(builder.beginDelegation(&sink, kxIoDevice::DW_Write));
    ASSERT_TRUE(body == 1 || (builder.startNewPart("a", "f", &own) && builder.writeAll("DATA") && builder.startNewPart("b", "")));
    ASSERT_TRUE(builder.endDelegation());
  }
  EXPECT_EQ(sink.getString(),
            "--B\r\ncontent-disposition: form-data;name=\"a\";filename=\"f\"\r\nz:1\r\na:2\r\n\r\nDATA\r\n"
            "--B\r\ncontent-disposition: form-data;name=\"b\"\r\nz:1\r\n\r\n\r\n--B--\r\n");
}

TEST(MultiPartStreamBuilderTest, ShortWritesPassThroughAndChunkedDelegateFramesTheBody) {
  ShortWriteSink shortSink;
  MultiPartStreamBuilder builder("B");
  ASSERT_TRUE(builder.beginDelegation(&shortSink, kxIoDevice::DW_Write));
  ASSERT_TRUE(builder.startNewPart("a", ""));
  EXPECT_EQ(builder.writeBytes("abcdef", 6), 3u);
  ASSERT_TRUE(builder.endDelegation());
  EXPECT_EQ(shortSink.getString(), "--B\r\ncontent-disposition: form-data;name=\"a\"\r\n\r\nabc\r\n--B--\r\n");

  kxIoDeviceStringWriteOnly sink;
  kxIoDeviceHttpChunked chunked(1000);
  ASSERT_TRUE(chunked.beginDelegation(&sink, kxIoDevice::DW_Write));
  ASSERT_TRUE(builder.beginDelegation(&chunked, kxIoDevice::DW_Write));
  ASSERT_TRUE(builder.startNewPart("a", "") && builder.writeAll("abc"));
  ASSERT_TRUE(builder.endDelegation() && chunked.endDelegation());
  EXPECT_EQ(sink.getString(), "3c\r\n" + shortSink.getString() + "\r\n0\r\n\r\n");
}

TEST(MultiPartStreamBuilderTest, RefusesPartsWithoutDelegationAndReads) {
  kx::test::LogCapture log;  // keeps the refusal's log record off the test output
  MultiPartStreamBuilder builder("B");
  EXPECT_FALSE(builder.startNewPart("a", ""));
  EXPECT_EQ(builder.getDeviceErrorMsg(), "call write on a read delegation mode device");
  char byte;
  MultiPartStreamBuilder reader("B");
  EXPECT_EQ(reader.readBytes(&byte, 1), 0u);
  EXPECT_EQ(reader.getDeviceErrorMsg(), "readBytes not implemented");
}

}  // namespace
}  // namespace kx::http
