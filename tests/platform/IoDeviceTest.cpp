// The kxIoDevice contract shared by every device: sticky errors, direction checks, the read/write
// gates and writeBackToDevice.
#include <kx/system/kxIoDevice.h>
#include <kx/system/kxIoDeviceByteContainerReadOnly.h>
#include <kx/system/kxIoDeviceByteCounter.h>
#include <kx/system/kxIoDeviceByteVectorWriteOnly.h>
#include <kx/system/kxIoDeviceNullWriteOnly.h>
#include <kx/system/kxIoDeviceStringReadOnly.h>
#include <kx/system/kxIoDeviceStringWriteOnly.h>
#include <kx/system/kxLog.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <ostream>
#include <string>

namespace kx {
namespace {

constexpr size_t kNever = std::numeric_limits<size_t>::max();

// Every byte value, in an order where a shifted or repeated piece shows up as a mismatch.
std::string PatternBytes(size_t size) {
  std::string text(size, '\0');
  for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>((i * 7 + 3) % 256);
  return text;
}

// A source delivering at most `piece` bytes per read. At `failAt` bytes it either fails with "source
// broke" or, when `stall` is set, keeps returning 0 without being at its end.
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
  size_t position() const { return position_; }
  size_t failAt = kNever;
  bool stall = false;

 private:
  std::string text_;
  size_t piece_;
  size_t position_ = 0;
};

// A sink accepting at most `piece` bytes per write. At `failAt` bytes it fails with "disk full", or,
// when `silent` is set, just returns 0.
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

TEST(IoDeviceStickyErrorTest, FirstTextWinsAndNothingMovesUntilCleared) {
  kxIoDeviceStringReadOnly source("abc");
  source.setDeviceError("first cause");
  source.setDeviceError("consequence");
  EXPECT_FALSE(source.good());
  EXPECT_EQ(source.getDeviceErrorMsg(), "first cause");

  char buffer[8] = {};
  EXPECT_EQ(source.read(buffer, sizeof buffer), 0u);
  EXPECT_EQ(source.readBytes(buffer, sizeof buffer), 0u);  // the virtual slot honours it too
  EXPECT_EQ(source.getPosition(), 0);

  source.clearDeviceError();
  EXPECT_TRUE(source.good());
  EXPECT_EQ(source.getDeviceErrorMsg(), "");
  ASSERT_EQ(source.read(buffer, sizeof buffer), 3u);
  EXPECT_EQ(std::string(buffer, 3), "abc");
}

TEST(IoDeviceStickyErrorTest, SinkKeepsItsContentOnceFailed) {
  kxIoDeviceStringWriteOnly sink;
  ASSERT_EQ(sink.write("ab", 2), 2u);
  sink.setDeviceError("stop");
  EXPECT_EQ(sink.write("cd", 2), 0u);
  EXPECT_EQ(sink.writeBytes("cd", 2), 0u);
  EXPECT_FALSE(sink.writeAll("cd"));
  EXPECT_EQ(sink.getString(), "ab");
}

// Every device refuses the other direction with its text, and stays refused.
struct DirectionCase {
  std::string_view name;
  std::function<std::unique_ptr<kxIoDevice>()> make;
  std::string_view text;
};
void PrintTo(const DirectionCase& c, std::ostream* os) { *os << c.name; }

class CountingReader : public kxIoDeviceByteCounter {
 public:
  CountingReader() { beginDelegation(&source_, DW_Read); }
  kxIoDeviceStringReadOnly source_{"abc"};
};
class CountingWriter : public kxIoDeviceByteCounter {
 public:
  CountingWriter() { beginDelegation(&sink_, DW_Write); }
  kxIoDeviceStringWriteOnly sink_;
};

const DirectionCase kDirectionCases[] = {
    {"ByteContainer", [] { return std::make_unique<kxIoDeviceByteContainerReadOnly>("abc", 3); },
     "write called on a read only device"},
    {"StringReadOnly", [] { return std::make_unique<kxIoDeviceStringReadOnly>("abc"); },
     "write called on a read only device"},
    {"StringWriteOnly", [] { return std::make_unique<kxIoDeviceStringWriteOnly>(); },
     "read called on a write only device"},
    {"ByteVectorWriteOnly", [] { return std::make_unique<kxIoDeviceByteVectorWriteOnly>(); },
     "read called on a write only device"},
    {"NullWriteOnly", [] { return std::make_unique<kxIoDeviceNullWriteOnly>(); },
     "read called on a write only device"},
    {"BareReader", [] { return std::make_unique<BareDevice>(kxIoDevice::DW_Read); },
     "write called on a read only device"},
    {"BareWriter", [] { return std::make_unique<BareDevice>(kxIoDevice::DW_Write); },
     "read called on a write only device"},
    {"CounterReading", [] { return std::make_unique<CountingReader>(); },
     "call write on a read delegation mode device"},
    {"CounterWriting", [] { return std::make_unique<CountingWriter>(); },
     "call read on a write delegation mode device"},
};

class IoDeviceDirectionTest : public testing::TestWithParam<DirectionCase> {
 protected:
  // The delegating rows log their refusal; keep the test output clean.
  void SetUp() override { kxLog::setSink([](const kxLogRecord&) {}); }
  void TearDown() override { kxLog::setSink({}); }
};

TEST_P(IoDeviceDirectionTest, WrongWaySetsTextAndBlocksTheRightWay) {
  auto device = GetParam().make();
  char buffer[8] = {};
  const bool reader = device->getDataWay() == kxIoDevice::DW_Read;
  if (reader) {
    EXPECT_EQ(device->write("x", 1), 0u);
  } else {
    EXPECT_EQ(device->read(buffer, sizeof buffer), 0u);
  }
  EXPECT_EQ(device->getDeviceErrorMsg(), GetParam().text);
  if (reader) {
    EXPECT_EQ(device->readBytes(buffer, sizeof buffer), 0u);
  } else {
    EXPECT_EQ(device->writeBytes("x", 1), 0u);
  }
  EXPECT_EQ(device->getDeviceErrorMsg(), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Devices, IoDeviceDirectionTest, testing::ValuesIn(kDirectionCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(IoDeviceGateTest, BaseOperationsAndGatesReportMisuse) {
  BareDevice reader(kxIoDevice::DW_Read);
  char buffer[4];
  EXPECT_EQ(reader.read(buffer, sizeof buffer), 0u);
  EXPECT_EQ(reader.getDeviceErrorMsg(), "readBytes not implemented");

  BareDevice writer(kxIoDevice::DW_Write);
  EXPECT_EQ(writer.write("x", 1), 0u);
  EXPECT_EQ(writer.getDeviceErrorMsg(), "writeBytes not implemented");

  BareDevice invalid(static_cast<kxIoDevice::DataWay>(3));
  EXPECT_EQ(invalid.getDeviceErrorMsg(), "invalid data way");

  kxIoDeviceStringReadOnly source("abc");
  EXPECT_EQ(source.read(nullptr, 0), 0u);
  EXPECT_TRUE(source.good());
  EXPECT_EQ(source.read(nullptr, 3), 0u);
  EXPECT_EQ(source.getDeviceErrorMsg(), "null buffer with a non-zero size");
}

TEST(IoDeviceGateTest, WriteAllRetriesPartialWritesAndNamesASilentRefusal) {
  ScriptedSink sink(3);
  const std::string text = PatternBytes(10);
  EXPECT_TRUE(sink.writeAll(text));
  EXPECT_EQ(sink.received, text);

  ScriptedSink mute(3);
  mute.failAt = 4;
  mute.silent = true;
  EXPECT_FALSE(mute.writeAll(text));
  EXPECT_EQ(mute.received, text.substr(0, 4));
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
    {"ScratchOfOne", 300, 300, 1, 300},
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
  EXPECT_TRUE(source.atEnd());
  if (c.scratchSize == 0) {
    EXPECT_EQ(scratch.size(), 16u * 1024u);
  }
}

INSTANTIATE_TEST_SUITE_P(Pieces, IoDeviceWriteBackTest, testing::ValuesIn(kCopyCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(IoDeviceWriteBackFailureTest, FailingSideKeepsItsTextAndCountStopsThere) {
  const std::string text = PatternBytes(20);
  std::vector<char> scratch(4);
  size_t count = 0;
  {
    ScriptedSource source(text, 20);
    ScriptedSink sink(3);
    sink.failAt = 5;
    EXPECT_FALSE(source.writeBackToDevice(sink, &count, &scratch));
    EXPECT_EQ(count, 5u);
    EXPECT_EQ(sink.getDeviceErrorMsg(), "disk full");
    EXPECT_EQ(source.getDeviceErrorMsg(), "writeBackToDevice target device error disk full");
  }
  {
    ScriptedSource source(text, 20);
    ScriptedSink sink(20);
    sink.failAt = 5;
    sink.silent = true;
    EXPECT_FALSE(source.writeBackToDevice(sink, &count, &scratch));
    EXPECT_EQ(count, 5u);
    EXPECT_EQ(sink.getDeviceErrorMsg(), "writeBytes accepted no data");
    EXPECT_EQ(source.getDeviceErrorMsg(), "writeBackToDevice target device error writeBytes accepted no data");
  }
  {
    ScriptedSource source(text, 20);
    source.failAt = 6;
    ScriptedSink sink(20);
    EXPECT_FALSE(source.writeBackToDevice(sink, &count, &scratch));
    EXPECT_EQ(count, 6u);
    EXPECT_EQ(sink.received, text.substr(0, 6));
    EXPECT_EQ(source.getDeviceErrorMsg(), "source broke");
    EXPECT_TRUE(sink.good());
  }
  {
    ScriptedSource source(text, 20);
    source.failAt = 6;
    source.stall = true;
    ScriptedSink sink(20);
    EXPECT_FALSE(source.writeBackToDevice(sink, &count, &scratch));
    EXPECT_EQ(count, 6u);
    EXPECT_EQ(source.getDeviceErrorMsg(), "writeBackToDevice source delivered no data before its end");
  }
}

TEST(IoDeviceWriteBackFailureTest, RefusesBeforeReadingWhenTheTargetCannotTakeIt) {
  size_t count = 99;
  {
    kxIoDeviceStringReadOnly source("abc");
    kxIoDeviceStringReadOnly notASink("x");
    EXPECT_FALSE(source.writeBackToDevice(notASink, &count));
    EXPECT_EQ(source.getDeviceErrorMsg(), "writeBackToDevice target device is not writable");
    EXPECT_EQ(source.getPosition(), 0);
    EXPECT_EQ(count, 0u);
  }
  {
    kxIoDeviceStringReadOnly source("abc");
    kxIoDeviceStringWriteOnly broken;
    broken.setDeviceError("old failure");
    EXPECT_FALSE(source.writeBackToDevice(broken));
    EXPECT_EQ(source.getDeviceErrorMsg(), "writeBackToDevice target device error old failure");
    EXPECT_EQ(source.getPosition(), 0);
  }
  {
    kxIoDeviceStringReadOnly source("abc");
    EXPECT_FALSE(source.writeBackToDevice(source));
    EXPECT_EQ(source.getDeviceErrorMsg(), "writeBackToDevice target is the source device");
  }
  {
    kxIoDeviceStringWriteOnly notASource;
    kxIoDeviceStringWriteOnly sink;
    EXPECT_FALSE(notASource.writeBackToDevice(sink));
    EXPECT_EQ(notASource.getDeviceErrorMsg(), "read called on a write only device");
  }
}

}  // namespace
}  // namespace kx
