// In-memory devices: the byte container and string sources, the string, vector and null sinks.
#include <kx/system/kxIoDeviceByteContainerReadOnly.h>
#include <kx/system/kxIoDeviceByteVectorWriteOnly.h>
#include <kx/system/kxIoDeviceNullWriteOnly.h>
#include <kx/system/kxIoDeviceStringReadOnly.h>
#include <kx/system/kxIoDeviceStringWriteOnly.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace kx {
namespace {

using SO = kxIoDeviceRandomAccess::SeekOrigin;

TEST(IoDeviceByteContainerTest, ReadsInPiecesUpToTheExactEnd) {
  // Sized exactly (no terminator) so the sanitizer catches a read past the last byte; the NUL in the
  // middle catches a strlen slipping in.
  const std::string text("01234\0" "6789", 10);
  auto bytes = std::make_unique<char[]>(text.size());
  std::memcpy(bytes.get(), text.data(), text.size());
  kxIoDeviceByteContainerReadOnly device(bytes.get(), text.size());
  EXPECT_EQ(device.getSize(), 10);
  std::string got;
  char buffer[3];
  while (!device.atEnd()) {
    const size_t n = device.read(buffer, sizeof buffer);
    ASSERT_GT(n, 0u);
    got.append(buffer, n);
  }
  EXPECT_EQ(got, text);
  EXPECT_EQ(device.getPosition(), 10);
  EXPECT_EQ(device.getRemainingSize(), 0);
  EXPECT_EQ(device.read(buffer, sizeof buffer), 0u);
  EXPECT_TRUE(device.good());
}

// Each row starts on "0123456789" at position 5, seeks, and reads what follows.
struct SeekCase {
  std::string_view name;
  int64_t offset;
  SO origin;
  std::string_view next;   // bytes read after a successful seek
  std::string_view error;  // empty: the seek succeeds
};
void PrintTo(const SeekCase& c, std::ostream* os) { *os << c.name; }
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
const SeekCase kSeekCases[] = {
    {"ToStart", 0, SO::SO_Begin, "0123456789", ""},
    {"ToLastByte", 9, SO::SO_Begin, "9", ""},
    {"ToEnd", 10, SO::SO_Begin, "", ""},
    {"OnePastEnd", 11, SO::SO_Begin, "", "seek beyond the end of the device"},
    {"Negative", -1, SO::SO_Begin, "", "seek to a negative position"},
    {"BackFromCurrent", -2, SO::SO_Current, "3456789", ""},
    {"ForwardFromCurrent", 5, SO::SO_Current, "", ""},
    {"PastEndFromCurrent", 6, SO::SO_Current, "", "seek beyond the end of the device"},
    {"OverflowFromCurrent", kMax, SO::SO_Current, "", "seek position out of range"},
    {"BackFromEnd", -3, SO::SO_End, "789", ""},
    {"PastEndFromEnd", 1, SO::SO_End, "", "seek beyond the end of the device"},
    {"BeforeStartFromEnd", -11, SO::SO_End, "", "seek to a negative position"},
};

class IoDeviceByteContainerSeekTest : public testing::TestWithParam<SeekCase> {};

TEST_P(IoDeviceByteContainerSeekTest, MovesWithinBoundsOnly) {
  const SeekCase& c = GetParam();
  kxIoDeviceByteContainerReadOnly device("0123456789", 10);
  ASSERT_TRUE(device.seek(5));
  const bool ok = device.seekFrom(c.offset, c.origin);
  EXPECT_EQ(ok, c.error.empty());
  EXPECT_EQ(device.getDeviceErrorMsg(), c.error);
  if (!ok) {
    EXPECT_EQ(device.getPosition(), 5);  // a refused seek does not move
    return;
  }
  char buffer[16];
  const size_t n = device.read(buffer, sizeof buffer);
  EXPECT_EQ(std::string_view(buffer, n), c.next);
  EXPECT_TRUE(device.atEnd());
}

INSTANTIATE_TEST_SUITE_P(Positions, IoDeviceByteContainerSeekTest, testing::ValuesIn(kSeekCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(IoDeviceByteContainerTest, NullDataAndRebinding) {
  kxIoDeviceByteContainerReadOnly empty(nullptr, 0);
  EXPECT_TRUE(empty.good());
  EXPECT_TRUE(empty.atEnd());

  kxIoDeviceByteContainerReadOnly device(nullptr, 4);
  EXPECT_EQ(device.getDeviceErrorMsg(), "null data with a non-zero size");
  EXPECT_EQ(device.getSize(), 0);
  char buffer[4];
  EXPECT_EQ(device.read(buffer, 4), 0u);

  device.setData("xy", 2);  // rebinding starts afresh
  EXPECT_TRUE(device.good());
  ASSERT_EQ(device.read(buffer, 4), 2u);
  EXPECT_EQ(std::string(buffer, 2), "xy");
}

TEST(IoDeviceStringReadOnlyTest, OwnsItsTextAndRestartsOnReplacement) {
  std::unique_ptr<kxIoDeviceStringReadOnly> device;
  {
    std::string text(100, 'a');  // beyond any short-string buffer
    device = std::make_unique<kxIoDeviceStringReadOnly>(text);
    text.assign(100, 'b');
  }
  char buffer[200];
  ASSERT_EQ(device->read(buffer, sizeof buffer), 100u);
  EXPECT_EQ(std::string(buffer, 100), std::string(100, 'a'));
  device->setDeviceError("done");
  device->setString("next");
  EXPECT_TRUE(device->good());
  ASSERT_EQ(device->read(buffer, sizeof buffer), 4u);
  EXPECT_EQ(std::string(buffer, 4), "next");
}

TEST(IoDeviceStringWriteOnlyTest, AppendsToALentStringWithinTheCap) {
  std::string target = "pre:";
  kxIoDeviceStringWriteOnly sink(target);
  sink.setMaxSize(8);  // counts the 4 bytes already there
  EXPECT_EQ(sink.write("abc", 3), 3u);
  EXPECT_EQ(sink.write("de", 2), 0u);  // 9 > 8: refused whole
  EXPECT_EQ(sink.getDeviceErrorMsg(), "write exceeds the maximum size of the device");
  EXPECT_EQ(target, "pre:abc");
  EXPECT_EQ(sink.takeString(), "pre:abc");
  EXPECT_EQ(target, "");
  EXPECT_TRUE(sink.atEnd());

  kxIoDeviceStringWriteOnly owned;
  EXPECT_TRUE(owned.writeAll(std::string("a\0b", 3)));
  EXPECT_EQ(owned.getString(), std::string("a\0b", 3));
}

TEST(IoDeviceByteVectorWriteOnlyTest, AppendsBytesWithinTheCap) {
  std::vector<char> bytes = {'x'};
  kxIoDeviceByteVectorWriteOnly sink(bytes);
  sink.setMaxSize(4);
  EXPECT_EQ(sink.write("\0\1\2", 3), 3u);
  EXPECT_EQ(sink.write("\3", 1), 0u);
  EXPECT_EQ(sink.getDeviceErrorMsg(), "write exceeds the maximum size of the device");
  EXPECT_EQ(bytes, (std::vector<char>{'x', '\0', '\1', '\2'}));
  EXPECT_EQ(sink.takeBytes().size(), 4u);
  EXPECT_TRUE(bytes.empty());
}

TEST(IoDeviceNullWriteOnlyTest, SwallowsAndCounts) {
  kxIoDeviceStringReadOnly source(std::string(5000, 'z'));
  kxIoDeviceNullWriteOnly discard;
  ASSERT_TRUE(source.writeBackToDevice(discard));
  EXPECT_EQ(discard.getByteCount(), 5000u);
  char buffer[1];
  EXPECT_EQ(discard.read(buffer, 1), 0u);
  EXPECT_EQ(discard.getDeviceErrorMsg(), "read called on a write only device");
  EXPECT_EQ(discard.write("a", 1), 0u);
  EXPECT_EQ(discard.getByteCount(), 5000u);
}

}  // namespace
}  // namespace kx
