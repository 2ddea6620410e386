#include <kx/http/kxIoDeviceHttpChunked.h>
#include <kx/system/kxIoDeviceStringWriteOnly.h>

#include <gtest/gtest.h>

#include "support/LogCapture.h"

namespace kx::http {
namespace {

// Each step sets the maximum (unless 0), writes, and leaves `sinkAfter` in the sink; then the body ends.
struct Step { uint32_t max; std::string write, sinkAfter; };
struct ChunkCase { const char* name; uint32_t max; std::vector<Step> steps; std::string final; };
const ChunkCase kChunkCases[] = {
    {"EndOnly", 4, {}, "0\r\n\r\n"},
    {"ExactFillWaits", 4, {{0, "ab", ""}, {0, "cd", ""}, {0, "e", "4\r\nabcd\r\n"}}, "4\r\nabcd\r\n1\r\ne\r\n0\r\n\r\n"},
    {"LastOfManyFullChunksWaits", 2, {{0, "abcdef", "2\r\nab\r\n2\r\ncd\r\n"}}, "2\r\nab\r\n2\r\ncd\r\n2\r\nef\r\n0\r\n\r\n"},
    {"LowerCaseHex", 26, {{0, "abcdefghijklmnopqrstuvwxyz!", "1a\r\nabcdefghijklmnopqrstuvwxyz\r\n"}},
     "1a\r\nabcdefghijklmnopqrstuvwxyz\r\n1\r\n!\r\n0\r\n\r\n"},
    {"MaxLoweredBelowBuffered", 8, {{0, "abcdef", ""}, {4, "g", "6\r\nabcdef\r\n"}}, "6\r\nabcdef\r\n1\r\ng\r\n0\r\n\r\n"},
};

class ChunkedFramingTest : public testing::TestWithParam<ChunkCase> {};

TEST_P(ChunkedFramingTest, FramesWritesAndEnd) {
  kxIoDeviceStringWriteOnly sink;
  kxIoDeviceHttpChunked chunked(GetParam().max);
  ASSERT_TRUE(chunked.beginDelegation(&sink, kxIoDevice::DW_Write));
  for (const Step& step : GetParam().steps) {
    ASSERT_TRUE(step.max == 0 || chunked.setMaxChunkSize(step.max));
    ASSERT_EQ(chunked.writeBytes(step.write.data(), step.write.size()), step.write.size());
    EXPECT_EQ(sink.getString(), step.sinkAfter);
  }
  EXPECT_EQ(chunked.writeBytes("", 0), 0u);
  ASSERT_TRUE(chunked.endDelegation()) << chunked.getDeviceErrorMsg();
  EXPECT_EQ(sink.getString(), GetParam().final);
}

INSTANTIATE_TEST_SUITE_P(Chunked, ChunkedFramingTest, testing::ValuesIn(kChunkCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ChunkedDeviceTest, RefusalsFailuresAndClearWriteNothing) {
  kx::test::LogCapture log;  // keeps the refused write's log record off the test output
  kxIoDeviceStringWriteOnly sink;
  kxIoDeviceHttpChunked zero(0), huge(4), idle(4), chunked(2);
  EXPECT_EQ(zero.getDeviceErrorMsg(), "invalid maximum chunk size 0");  // a 0 maximum would loop forever
  EXPECT_FALSE(zero.beginDelegation(&sink, kxIoDevice::DW_Write));
  EXPECT_TRUE(!huge.setMaxChunkSize(0x80000000u) && huge.getMaxChunkSize() == 4u);
  EXPECT_EQ(huge.getDeviceErrorMsg(), "vector::reserve");
  EXPECT_EQ(idle.writeBytes("a", 1), 0u);
  EXPECT_EQ(idle.getDeviceErrorMsg(), "call write on a read delegation mode device");
  // Cleared with bytes buffered: nothing reaches the sink.
  ASSERT_TRUE(chunked.beginDelegation(&sink, kxIoDevice::DW_Write) && chunked.writeAll("a") && chunked.clearDelegation());
  EXPECT_EQ(sink.getString(), "");
  sink.setMaxSize(3);  // the first chunk does not fit: the delegate's failure stops the device
  ASSERT_TRUE(chunked.beginDelegation(&sink, kxIoDevice::DW_Write));
  EXPECT_EQ(chunked.writeBytes("abc", 3), 0u);
  EXPECT_FALSE(chunked.endDelegation());
}

}  // namespace
}  // namespace kx::http
