// The kxIoDevice contract (sticky errors, direction checks, writeAll, writeBackToDevice) and the
// in-memory devices.
#include <kx/system/kxIoDevice.h>
#include <kx/system/kxIoDeviceByteContainerReadOnly.h>
#include <kx/system/kxIoDeviceByteVectorWriteOnly.h>
#include <kx/system/kxIoDeviceNullWriteOnly.h>
#include <kx/system/kxIoDeviceStringReadOnly.h>
#include <kx/system/kxIoDeviceStringWriteOnly.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace kx {
namespace {

constexpr size_t kNever = std::numeric_limits<size_t>::max();

// Every byte value, in an order where a shifted or repeated piece shows up as a mismatch.
std::string PatternBytes(size_t size) {
  std::string text(size, '\0');
  for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>((i * 7 + 3) % 256);
  return text;
}

// Moves at most `piece` bytes per call; at `failAt` it fails with `error`, or with an empty `error`
// just returns 0 (a source stalling before its end, a sink refusing silently).
class Scripted : public kxIoDevice {
 public:
  Scripted(DataWay way, std::string text, size_t piece) : kxIoDevice(way), text(std::move(text)), piece_(piece) {}
  size_t readBytes(char* buffer, size_t size) override {
    const size_t n = step(size, text.size() - position_);
    std::memcpy(buffer, text.data() + position_, n);
    return position_ += n, n;
  }
  size_t writeBytes(const char* data, size_t size) override {
    const size_t n = step(size, kNever);
    text.append(data, n);
    return position_ += n, n;
  }
  bool atEnd() const override { return way_ == DW_Write || position_ >= text.size(); }
  std::string text, error;
  size_t failAt = kNever;

 private:
  size_t step(size_t size, size_t left) {
    if (!(way_ == DW_Read ? readAllowed() : writeAllowed())) return 0;
    if (position_ >= failAt && !error.empty()) setDeviceError(error);
    return position_ >= failAt ? 0 : std::min({size, piece_, left, failAt - position_});
  }
  DataWay way_ = getDataWay();
  size_t piece_, position_ = 0;
};

// Overrides nothing but atEnd: the base class's own readBytes/writeBytes answer.
struct BareDevice : kxIoDevice {
  explicit BareDevice(DataWay way) : kxIoDevice(way) {}
  bool atEnd() const override { return false; }
};

TEST(IoDeviceTest, ErrorsAreStickyAndMisuseHasTexts) {
  kxIoDeviceStringReadOnly source("abc");
  source.setDeviceError("first cause");
  source.setDeviceError("consequence");
  EXPECT_EQ(source.getDeviceErrorMsg(), "first cause");
  char buffer[8] = {};
  EXPECT_EQ(source.readBytes(buffer, sizeof buffer), 0u);  // the virtual slot honours it too
  source.clearDeviceError();
  EXPECT_EQ(source.read(nullptr, 0), 0u);
  EXPECT_TRUE(source.good());
  ASSERT_EQ(source.read(buffer, sizeof buffer), 3u);
  EXPECT_EQ(source.read(nullptr, 3), 0u);
  EXPECT_EQ(source.getDeviceErrorMsg(), "null buffer with a non-zero size");

  kxIoDeviceByteContainerReadOnly reader("abc", 3);  // the other direction is refused, and stays refused
  EXPECT_EQ(reader.write("x", 1), 0u);
  EXPECT_EQ(reader.getDeviceErrorMsg(), "write called on a read only device");
  EXPECT_EQ(reader.read(buffer, sizeof buffer), 0u);
  kxIoDeviceByteVectorWriteOnly writer;
  EXPECT_EQ(writer.read(buffer, sizeof buffer), 0u);
  EXPECT_EQ(writer.getDeviceErrorMsg(), "read called on a write only device");
  EXPECT_FALSE(writer.writeAll("cd"));

  BareDevice bareReader(kxIoDevice::DW_Read), bareWriter(kxIoDevice::DW_Write);
  EXPECT_EQ(bareReader.read(buffer, 4), 0u);
  EXPECT_EQ(bareReader.getDeviceErrorMsg(), "readBytes not implemented");
  EXPECT_EQ(bareWriter.write("x", 1), 0u);
  EXPECT_EQ(bareWriter.getDeviceErrorMsg(), "writeBytes not implemented");
  EXPECT_EQ(BareDevice(static_cast<kxIoDevice::DataWay>(3)).getDeviceErrorMsg(), "invalid data way");
  Scripted mute(kxIoDevice::DW_Write, "", 3);  // writeAll retries partial writes but not a write of nothing
  mute.failAt = 4;
  EXPECT_FALSE(mute.writeAll(PatternBytes(10)));
  EXPECT_EQ(mute.text, PatternBytes(4));
  EXPECT_EQ(mute.getDeviceErrorMsg(), "writeBytes accepted no data");
}

// writeBackToDevice over pieces of many sizes, where a lost, repeated or shifted byte at a piece border
// shows in the copy, and with either side failing: the count stops at the last byte the sink took.
TEST(IoDeviceTest, WriteBackCopiesEveryByteOnceOrReportsTheFailingSide) {
  struct Case {
    size_t length, sourcePiece;
    int scratch;  // -1: no scratch vector; 0: an empty one (grown by the call)
    size_t sinkPiece, sourceFailAt, sinkFailAt;
    std::string sourceError, sinkError, text;  // text: the source's error afterwards, empty on success
    size_t count;
  };
  const Case cases[] = {
      {0, 5, 3, 5, kNever, kNever, "", "", "", 0},
      {257, 3, 2, 1, kNever, kNever, "", "", "", 257},
      {1000, 64, 7, 1000, kNever, kNever, "", "", "", 1000},
      {40000, 40000, 0, 40000, kNever, kNever, "", "", "", 40000},
      {40000, 40000, -1, 40000, kNever, kNever, "", "", "", 40000},
      {20, 20, 4, 3, kNever, 5, "", "disk full", "writeBackToDevice target device error disk full", 5},
      {20, 20, 4, 3, kNever, 5, "", "", "writeBackToDevice target device error writeBytes accepted no data", 5},
      {20, 20, 4, 3, 6, kNever, "source broke", "", "source broke", 6},
      {20, 20, 4, 3, 6, kNever, "", "", "writeBackToDevice source delivered no data before its end", 6},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.length << " bytes, " << c.text);
    Scripted source(kxIoDevice::DW_Read, PatternBytes(c.length), c.sourcePiece), sink(kxIoDevice::DW_Write, "", c.sinkPiece);
    source.failAt = c.sourceFailAt;
    source.error = c.sourceError;
    sink.failAt = c.sinkFailAt;
    sink.error = c.sinkError;
    std::vector<char> scratch(std::max(c.scratch, 0));
    size_t count = 12345;
    EXPECT_EQ(source.writeBackToDevice(sink, &count, c.scratch < 0 ? nullptr : &scratch), c.text.empty());
    EXPECT_EQ(source.getDeviceErrorMsg(), c.text);
    EXPECT_EQ(count, c.count);
    EXPECT_TRUE(sink.text == PatternBytes(c.count));
    EXPECT_TRUE(c.scratch != 0 || scratch.size() == 16u * 1024u);
  }
}

TEST(IoDeviceTest, WriteBackRefusesBeforeReadingWhenTheTargetCannotTakeIt) {
  kxIoDeviceStringReadOnly source("abc"), notASink("x");
  kxIoDeviceStringWriteOnly broken;
  broken.setDeviceError("old failure");
  size_t count = 99;
  EXPECT_FALSE(source.writeBackToDevice(notASink, &count));
  EXPECT_EQ(source.getDeviceErrorMsg(), "writeBackToDevice target device is not writable");
  EXPECT_EQ(count, 0u);
  source.clearDeviceError();
  EXPECT_FALSE(source.writeBackToDevice(broken));
  EXPECT_EQ(source.getDeviceErrorMsg(), "writeBackToDevice target device error old failure");
  source.clearDeviceError();
  EXPECT_FALSE(source.writeBackToDevice(source));
  EXPECT_EQ(source.getDeviceErrorMsg(), "writeBackToDevice target is the source device");
  EXPECT_EQ(source.getPosition(), 0);
}

TEST(IoDeviceTest, ByteContainerSeeksWithinBoundsAndReadsToTheExactEnd) {
  using SO = kxIoDeviceRandomAccess::SeekOrigin;
  const std::tuple<int64_t, SO, std::string, std::string_view> cases[] = {  // offset, origin, next bytes, error
      {10, SO::SO_Begin, "", ""}, {11, SO::SO_Begin, "", "seek beyond the end of the device"},
      {-1, SO::SO_Begin, "", "seek to a negative position"}, {-2, SO::SO_Current, std::string("34\0" "6789", 7), ""},
      {-3, SO::SO_End, "789", ""}, {std::numeric_limits<int64_t>::max(), SO::SO_Current, "", "seek position out of range"}};
  // Sized exactly (no terminator) so the sanitizer catches a read past the last byte; the NUL in the
  // middle catches a strlen slipping in.
  auto bytes = std::make_unique<char[]>(10);
  std::memcpy(bytes.get(), "01234\0" "6789", 10);
  for (const auto& [offset, origin, next, error] : cases) {
    SCOPED_TRACE(offset);
    kxIoDeviceByteContainerReadOnly device(bytes.get(), 10);
    ASSERT_TRUE(device.seek(5));
    EXPECT_EQ(device.seekFrom(offset, origin), error.empty());
    EXPECT_EQ(device.getDeviceErrorMsg(), error);
    char buffer[3];
    std::string got;
    while (error.empty() && !device.atEnd()) got.append(buffer, device.read(buffer, sizeof buffer));
    EXPECT_EQ(got, next);
    EXPECT_EQ(device.getPosition(), error.empty() ? 10 : 5);  // a refused seek does not move
  }
  kxIoDeviceByteContainerReadOnly null(nullptr, 4);
  EXPECT_EQ(null.getDeviceErrorMsg(), "null data with a non-zero size");
  null.setData("xy", 2);  // rebinding starts afresh
  EXPECT_EQ(null.getRemainingSize(), 2);
}

TEST(IoDeviceTest, StringSourceOwnsItsTextAndSinksAppendWithinTheirCap) {
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
  ASSERT_EQ(device->read(buffer, sizeof buffer), 4u);

  std::string target = "pre:";
  kxIoDeviceStringWriteOnly sink(target);
  sink.setMaxSize(8);  // counts the 4 bytes already there
  EXPECT_EQ(sink.write("abc", 3), 3u);
  EXPECT_EQ(sink.write("de", 2), 0u);  // 9 > 8: refused whole
  EXPECT_EQ(sink.getDeviceErrorMsg(), "write exceeds the maximum size of the device");
  EXPECT_EQ(sink.takeString(), "pre:abc");
  EXPECT_EQ(target, "");
  std::vector<char> bytes = {'x'};
  kxIoDeviceByteVectorWriteOnly vector(bytes);
  vector.setMaxSize(4);
  EXPECT_EQ(vector.write("\0\1\2", 3), 3u);
  EXPECT_EQ(vector.write("\3", 1), 0u);
  EXPECT_EQ(vector.takeBytes(), (std::vector<char>{'x', '\0', '\1', '\2'}));
  EXPECT_TRUE(bytes.empty());
  kxIoDeviceStringReadOnly big(std::string(5000, 'z'));
  kxIoDeviceNullWriteOnly discard;
  ASSERT_TRUE(big.writeBackToDevice(discard));
  EXPECT_EQ(discard.getByteCount(), 5000u);
}

}  // namespace
}  // namespace kx
