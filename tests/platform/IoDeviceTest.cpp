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
#include <ostream>
#include <string>
#include <vector>

namespace kx {
namespace {

constexpr size_t kNever = std::numeric_limits<size_t>::max();
using SO = kxIoDeviceRandomAccess::SeekOrigin;

// Every byte value, in an order where a shifted or repeated piece shows up as a mismatch.
std::string PatternBytes(size_t size) {
  std::string text(size, '\0');
  for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>((i * 7 + 3) % 256);
  return text;
}

// Delivers at most `piece` bytes per read; at `failAt` it fails with "source broke", or with `stall`
// keeps returning 0 before its end.
class ScriptedSource : public kxIoDevice {
 public:
  ScriptedSource(std::string text, size_t piece) : kxIoDevice(DW_Read), text_(std::move(text)), piece_(piece) {}
  size_t readBytes(char* buffer, size_t size) override {
    if (!readAllowed()) return 0;
    if (position_ >= failAt) {
      if (!stall) setDeviceError("source broke");
      return 0;
    }
    const size_t n = std::min({size, piece_, text_.size() - position_, failAt - position_});
    std::memcpy(buffer, text_.data() + position_, n);
    position_ += n;
    return n;
  }
  bool atEnd() const override { return position_ >= text_.size(); }
  size_t failAt = kNever;
  bool stall = false;

 private:
  std::string text_;
  size_t piece_, position_ = 0;
};

// Accepts at most `piece` bytes per write; at `failAt` it fails with "disk full", or with `silent`
// just returns 0.
class ScriptedSink : public kxIoDevice {
 public:
  explicit ScriptedSink(size_t piece) : kxIoDevice(DW_Write), piece_(piece) {}
  size_t writeBytes(const char* data, size_t size) override {
    if (!writeAllowed()) return 0;
    if (received.size() >= failAt) {
      if (!silent) setDeviceError("disk full");
      return 0;
    }
    const size_t n = std::min({size, piece_, failAt - received.size()});
    received.append(data, n);
    return n;
  }
  bool atEnd() const override { return true; }
  std::string received;
  size_t failAt = kNever;
  bool silent = false;

 private:
  size_t piece_;
};

// Overrides nothing but atEnd: the base class's own readBytes/writeBytes answer.
class BareDevice : public kxIoDevice {
 public:
  explicit BareDevice(DataWay way) : kxIoDevice(way) {}
  bool atEnd() const override { return false; }
};

TEST(IoDeviceTest, FirstErrorTextWinsAndNothingMovesUntilCleared) {
  kxIoDeviceStringReadOnly source("abc");
  source.setDeviceError("first cause");
  source.setDeviceError("consequence");
  EXPECT_EQ(source.getDeviceErrorMsg(), "first cause");
  char buffer[8] = {};
  EXPECT_EQ(source.read(buffer, sizeof buffer), 0u);
  EXPECT_EQ(source.readBytes(buffer, sizeof buffer), 0u);  // the virtual slot honours it too
  source.clearDeviceError();
  ASSERT_EQ(source.read(buffer, sizeof buffer), 3u);
  EXPECT_EQ(std::string(buffer, 3), "abc");

  kxIoDeviceStringWriteOnly sink;
  ASSERT_EQ(sink.write("ab", 2), 2u);
  sink.setDeviceError("stop");
  EXPECT_EQ(sink.writeBytes("cd", 2), 0u);
  EXPECT_FALSE(sink.writeAll("cd"));
  EXPECT_EQ(sink.getString(), "ab");
}

// A device refuses the other direction with its text, and stays refused. (Delegating devices have their
// own texts: IoDeviceDelegableTest.)
TEST(IoDeviceTest, WrongWaySetsTextAndBlocksTheRightWay) {
  char buffer[8] = {};
  kxIoDeviceByteContainerReadOnly reader("abc", 3);
  EXPECT_EQ(reader.write("x", 1), 0u);
  EXPECT_EQ(reader.getDeviceErrorMsg(), "write called on a read only device");
  EXPECT_EQ(reader.read(buffer, sizeof buffer), 0u);
  kxIoDeviceByteVectorWriteOnly writer;
  EXPECT_EQ(writer.read(buffer, sizeof buffer), 0u);
  EXPECT_EQ(writer.getDeviceErrorMsg(), "read called on a write only device");
  EXPECT_EQ(writer.writeBytes("x", 1), 0u);
  EXPECT_EQ(writer.getDeviceErrorMsg(), "read called on a write only device");
}

TEST(IoDeviceTest, MisuseAndSilentRefusalHaveTexts) {
  BareDevice reader(kxIoDevice::DW_Read);
  char buffer[4];
  EXPECT_EQ(reader.read(buffer, sizeof buffer), 0u);
  EXPECT_EQ(reader.getDeviceErrorMsg(), "readBytes not implemented");
  BareDevice writer(kxIoDevice::DW_Write);
  EXPECT_EQ(writer.write("x", 1), 0u);
  EXPECT_EQ(writer.getDeviceErrorMsg(), "writeBytes not implemented");
  EXPECT_EQ(BareDevice(static_cast<kxIoDevice::DataWay>(3)).getDeviceErrorMsg(), "invalid data way");

  kxIoDeviceStringReadOnly source("abc");
  EXPECT_EQ(source.read(nullptr, 0), 0u);
  EXPECT_TRUE(source.good());
  EXPECT_EQ(source.read(nullptr, 3), 0u);
  EXPECT_EQ(source.getDeviceErrorMsg(), "null buffer with a non-zero size");

  ScriptedSink mute(3);  // writeAll retries partial writes but not a write of nothing
  mute.failAt = 4;
  mute.silent = true;
  EXPECT_FALSE(mute.writeAll(PatternBytes(10)));
  EXPECT_EQ(mute.received, PatternBytes(4));
  EXPECT_EQ(mute.getDeviceErrorMsg(), "writeBytes accepted no data");
}

// writeBackToDevice over sources, scratch buffers and sinks of many piece sizes; a lost, repeated or
// shifted byte at a piece border shows in the copy.
struct CopyCase {
  std::string_view name;
  size_t length, sourcePiece;
  int scratchSize;  // -1: no scratch vector; 0: an empty one (grown by the call)
  size_t sinkPiece;
};
void PrintTo(const CopyCase& c, std::ostream* os) { *os << c.name; }
const CopyCase kCopyCases[] = {
    {"Empty", 0, 5, 3, 5},
    {"ScratchOfTwoOddLength", 301, 300, 2, 300},
    {"ScratchSmallerThanSourcePiece", 1000, 64, 7, 1000},
    {"SinkSmallerThanScratch", 1000, 1000, 64, 5},
    {"EverythingTiny", 257, 3, 2, 1},
    {"EmptyScratchGrows", 40000, 40000, 0, 40000},
    {"OwnBufferAcrossItsSize", 40000, 40000, -1, 40000},
};

class IoDeviceWriteBackTest : public testing::TestWithParam<CopyCase> {};

TEST_P(IoDeviceWriteBackTest, CopiesEveryByteOnce) {
  const CopyCase& c = GetParam();
  const std::string text = PatternBytes(c.length);
  ScriptedSource source(text, c.sourcePiece);
  ScriptedSink sink(c.sinkPiece);
  std::vector<char> scratch(c.scratchSize > 0 ? static_cast<size_t>(c.scratchSize) : 0);
  size_t count = 12345;
  ASSERT_TRUE(source.writeBackToDevice(sink, &count, c.scratchSize < 0 ? nullptr : &scratch))
      << source.getDeviceErrorMsg();
  EXPECT_EQ(count, c.length);
  EXPECT_TRUE(sink.received == text);
  if (c.scratchSize == 0) {
    EXPECT_EQ(scratch.size(), 16u * 1024u);
  }
}

INSTANTIATE_TEST_SUITE_P(Pieces, IoDeviceWriteBackTest, testing::ValuesIn(kCopyCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(IoDeviceWriteBackTest, FailingSideKeepsItsTextAndCountStopsThere) {
  struct Case {
    size_t sinkFailAt, sourceFailAt;
    bool silentSink, stallingSource;
    size_t count;
    std::string sourceText;
  };
  const Case cases[] = {
      {5, kNever, false, false, 5, "writeBackToDevice target device error disk full"},
      {5, kNever, true, false, 5, "writeBackToDevice target device error writeBytes accepted no data"},
      {kNever, 6, false, false, 6, "source broke"},
      {kNever, 6, false, true, 6, "writeBackToDevice source delivered no data before its end"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.sourceText);
    ScriptedSource source(PatternBytes(20), 20);
    source.failAt = c.sourceFailAt;
    source.stall = c.stallingSource;
    ScriptedSink sink(3);
    sink.failAt = c.sinkFailAt;
    sink.silent = c.silentSink;
    std::vector<char> scratch(4);
    size_t count = 0;
    EXPECT_FALSE(source.writeBackToDevice(sink, &count, &scratch));
    EXPECT_EQ(count, c.count);
    EXPECT_EQ(sink.received, PatternBytes(c.count));
    EXPECT_EQ(source.getDeviceErrorMsg(), c.sourceText);
  }
}

TEST(IoDeviceWriteBackTest, RefusesBeforeReadingWhenTheTargetCannotTakeIt) {
  kxIoDeviceStringReadOnly source("abc");
  kxIoDeviceStringReadOnly notASink("x");
  size_t count = 99;
  EXPECT_FALSE(source.writeBackToDevice(notASink, &count));
  EXPECT_EQ(source.getDeviceErrorMsg(), "writeBackToDevice target device is not writable");
  EXPECT_EQ(count, 0u);
  source.clearDeviceError();
  kxIoDeviceStringWriteOnly broken;
  broken.setDeviceError("old failure");
  EXPECT_FALSE(source.writeBackToDevice(broken));
  EXPECT_EQ(source.getDeviceErrorMsg(), "writeBackToDevice target device error old failure");
  EXPECT_EQ(source.getPosition(), 0);
  source.clearDeviceError();
  EXPECT_FALSE(source.writeBackToDevice(source));
  EXPECT_EQ(source.getDeviceErrorMsg(), "writeBackToDevice target is the source device");
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
const SeekCase kSeekCases[] = {
    {"ToLastByte", 9, SO::SO_Begin, "9", ""},
    {"ToEnd", 10, SO::SO_Begin, "", ""},
    {"OnePastEnd", 11, SO::SO_Begin, "", "seek beyond the end of the device"},
    {"Negative", -1, SO::SO_Begin, "", "seek to a negative position"},
    {"BackFromCurrent", -2, SO::SO_Current, "3456789", ""},
    {"PastEndFromCurrent", 6, SO::SO_Current, "", "seek beyond the end of the device"},
    {"OverflowFromCurrent", std::numeric_limits<int64_t>::max(), SO::SO_Current, "", "seek position out of range"},
    {"BackFromEnd", -3, SO::SO_End, "789", ""},
    {"BeforeStartFromEnd", -11, SO::SO_End, "", "seek to a negative position"},
};

class IoDeviceByteContainerSeekTest : public testing::TestWithParam<SeekCase> {};

TEST_P(IoDeviceByteContainerSeekTest, MovesWithinBoundsOnly) {
  const SeekCase& c = GetParam();
  kxIoDeviceByteContainerReadOnly device("0123456789", 10);
  ASSERT_TRUE(device.seek(5));
  EXPECT_EQ(device.seekFrom(c.offset, c.origin), c.error.empty());
  EXPECT_EQ(device.getDeviceErrorMsg(), c.error);
  if (!c.error.empty()) {
    EXPECT_EQ(device.getPosition(), 5);  // a refused seek does not move
    return;
  }
  char buffer[16];
  EXPECT_EQ(std::string_view(buffer, device.read(buffer, sizeof buffer)), c.next);
  EXPECT_TRUE(device.atEnd());
}

INSTANTIATE_TEST_SUITE_P(Positions, IoDeviceByteContainerSeekTest, testing::ValuesIn(kSeekCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(IoDeviceMemoryTest, ByteContainerReadsInPiecesUpToTheExactEnd) {
  // Sized exactly (no terminator) so the sanitizer catches a read past the last byte; the NUL in the
  // middle catches a strlen slipping in.
  const std::string text("01234\0" "6789", 10);
  auto bytes = std::make_unique<char[]>(text.size());
  std::memcpy(bytes.get(), text.data(), text.size());
  kxIoDeviceByteContainerReadOnly device(bytes.get(), text.size());
  std::string got;
  char buffer[3];
  while (!device.atEnd()) got.append(buffer, device.read(buffer, sizeof buffer));
  EXPECT_EQ(got, text);
  EXPECT_EQ(device.read(buffer, sizeof buffer), 0u);
  EXPECT_TRUE(device.good());

  kxIoDeviceByteContainerReadOnly null(nullptr, 4);
  EXPECT_EQ(null.getDeviceErrorMsg(), "null data with a non-zero size");
  null.setData("xy", 2);  // rebinding starts afresh
  ASSERT_EQ(null.read(buffer, 3), 2u);
  EXPECT_EQ(std::string(buffer, 2), "xy");
}

TEST(IoDeviceMemoryTest, StringSourceOwnsItsText) {
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
  EXPECT_EQ(std::string(buffer, 4), "next");
}

TEST(IoDeviceMemoryTest, SinksAppendWithinTheirCap) {
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
  EXPECT_EQ(vector.getDeviceErrorMsg(), "write exceeds the maximum size of the device");
  EXPECT_EQ(vector.takeBytes(), (std::vector<char>{'x', '\0', '\1', '\2'}));
  EXPECT_TRUE(bytes.empty());

  kxIoDeviceStringReadOnly source(std::string(5000, 'z'));
  kxIoDeviceNullWriteOnly discard;
  ASSERT_TRUE(source.writeBackToDevice(discard));
  EXPECT_EQ(discard.getByteCount(), 5000u);
}

}  // namespace
}  // namespace kx
