#include <kx/http/kxIoDeviceHttpChunked.h>
#include <kx/system/kxIoDeviceStringWriteOnly.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/LogCapture.h"

namespace kx::http {
namespace {

// One write per step (after setting `max` when it is not 0), then what the sink holds; the body ends
// after the last step and the sink must then hold `final`.
struct Step { uint32_t max; std::string write, sinkAfter; };
struct ChunkCase { const char* name; uint32_t max; std::vector<Step> steps; std::string final; };

const ChunkCase kChunkCases[] = {
    {"EndOnly", 4, {}, "0\r\n\r\n"},
    {"TwoChunks", 4, {{0, "abcdef", "4\r\nabcd\r\n"}}, "4\r\nabcd\r\n2\r\nef\r\n0\r\n\r\n"},
    {"ExactFillWaits", 4, {{0, "abcd", ""}, {0, "e", "4\r\nabcd\r\n"}}, "4\r\nabcd\r\n1\r\ne\r\n0\r\n\r\n"},
    {"LastFullChunkOfManyWaits", 2, {{0, "abcdef", "2\r\nab\r\n2\r\ncd\r\n"}}, "2\r\nab\r\n2\r\ncd\r\n2\r\nef\r\n0\r\n\r\n"},
    {"LowerCaseHex", 255, {{0, std::string(255, 'x') + "y", "ff\r\n" + std::string(255, 'x') + "\r\n"}},
     "ff\r\n" + std::string(255, 'x') + "\r\n1\r\ny\r\n0\r\n\r\n"},
    {"MaxLoweredBelowBuffered", 8, {{0, "abcdef", ""}, {4, "g", "6\r\nabcdef\r\n"}}, "6\r\nabcdef\r\n1\r\ng\r\n0\r\n\r\n"},
};

class ChunkedFramingTest : public testing::TestWithParam<ChunkCase> {};

TEST_P(ChunkedFramingTest, FramesWritesAndEnd) {
  const ChunkCase& c = GetParam();
  // Whole writes, then (when the maximum stays put) the same bytes one at a time: same framing.
  for (bool byteByByte : {false, true}) {
    kxIoDeviceStringWriteOnly sink;
    kxIoDeviceHttpChunked chunked(c.max);
    ASSERT_TRUE(chunked.beginDelegation(&sink, kxIoDevice::DW_Write));
    for (const Step& step : c.steps) {
      if (step.max != 0) {
        if (byteByByte) return;
        ASSERT_TRUE(chunked.setMaxChunkSize(step.max));
      }
      if (byteByByte) {
        for (const char& ch : step.write) ASSERT_EQ(chunked.writeBytes(&ch, 1), 1u);
      } else {
        ASSERT_EQ(chunked.writeBytes(step.write.data(), step.write.size()), step.write.size());
        EXPECT_EQ(sink.getString(), step.sinkAfter);
      }
    }
    EXPECT_EQ(chunked.writeBytes("", 0), 0u);
    ASSERT_TRUE(chunked.endDelegation());
    EXPECT_EQ(sink.getString(), c.final);
    EXPECT_TRUE(chunked.good());
  }
}

INSTANTIATE_TEST_SUITE_P(Chunked, ChunkedFramingTest, testing::ValuesIn(kChunkCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ChunkedDeviceTest, RefusesBadMaximumsAndMisuseWithExactTexts) {
  kx::test::LogCapture log;
  kxIoDeviceStringWriteOnly sink;
  kxIoDeviceHttpChunked zero(0);  // would flush empty chunks forever: refused, so nothing can hang
  EXPECT_EQ(zero.getDeviceErrorMsg(), "invalid maximum chunk size 0");
  EXPECT_FALSE(zero.beginDelegation(&sink, kxIoDevice::DW_Write));
  kxIoDeviceHttpChunked huge(4);
  EXPECT_FALSE(huge.setMaxChunkSize(0x80000000u));
  EXPECT_EQ(huge.getMaxChunkSize(), 4u);
  EXPECT_EQ(huge.getDeviceErrorMsg(), "vector::reserve");

  kxIoDeviceHttpChunked idle(4);
  EXPECT_EQ(idle.writeBytes("a", 1), 0u);
  EXPECT_EQ(idle.getDeviceErrorMsg(), "call write on a read delegation mode device");
  EXPECT_TRUE(log.contains("kxIoDeviceDelegable call write on a read delegation mode device"));
  char byte;
  kxIoDeviceHttpChunked reader(4);
  EXPECT_EQ(reader.readBytes(&byte, 1), 0u);
  EXPECT_EQ(reader.getDeviceErrorMsg(), "readBytes not implemented");
  EXPECT_TRUE(sink.getString().empty());
}

TEST(ChunkedDeviceTest, ClearAndDestructorFrameNothingAndDelegateFailureSurfaces) {
  kxIoDeviceStringWriteOnly sink;
  {
    kxIoDeviceHttpChunked chunked(4);
    ASSERT_TRUE(chunked.beginDelegation(&sink, kxIoDevice::DW_Write));
    chunked.writeAll("abc");
    EXPECT_TRUE(chunked.clearDelegation());
    ASSERT_TRUE(chunked.beginDelegation(&sink, kxIoDevice::DW_Write));
    chunked.writeAll("d");
  }
  EXPECT_EQ(sink.getString(), "");
  sink.setMaxSize(3);
  kxIoDeviceHttpChunked chunked(2);
  ASSERT_TRUE(chunked.beginDelegation(&sink, kxIoDevice::DW_Write));
  EXPECT_EQ(chunked.writeBytes("abc", 3), 0u);
  EXPECT_FALSE(chunked.good());
  EXPECT_FALSE(chunked.endDelegation());
}

}  // namespace
}  // namespace kx::http
