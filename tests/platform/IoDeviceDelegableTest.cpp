// Delegating devices: what they reflect of their delegate, their life cycle and hooks, and the byte
// counter built on them.
#include <kx/system/kxIoDeviceByteCounter.h>
#include <kx/system/kxIoDeviceDelegable.h>
#include <kx/system/kxIoDeviceStringReadOnly.h>
#include <kx/system/kxIoDeviceStringWriteOnly.h>
#include <kx/system/kxLog.h>

#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace kx {
namespace {

// Records its hooks; wraps what is written in "<" and ">" the way an encoder adds framing.
class FramingDevice : public kxIoDeviceDelegable {
 public:
  FramingDevice() : kxIoDeviceDelegable(DW_Write) {}
  std::vector<std::string> calls;
  bool refuseBegin = false;

 protected:
  bool beginDelegationImpl() override {
    calls.push_back(getDelegate() ? "begin(attached)" : "begin(detached)");
    if (refuseBegin) return false;
    return writeAllToDelegate("<", 1);
  }
  bool endDelegationImpl() override {
    calls.push_back("end");
    return writeAllToDelegate(">", 1);
  }
  bool clearDelegationImpl() override {
    calls.push_back("clear");
    return true;
  }
};

TEST(IoDeviceDelegableTest, ReflectsTheDelegatesEnd) {
  kxIoDeviceStringReadOnly source("abcdef");
  kxIoDeviceByteCounter counter;
  EXPECT_TRUE(counter.atEnd());  // nothing to read while not delegating
  ASSERT_TRUE(counter.beginDelegation(&source, kxIoDevice::DW_Read));
  char buffer[4];
  EXPECT_FALSE(counter.atEnd());
  EXPECT_EQ(counter.read(buffer, 4), 4u);
  EXPECT_FALSE(counter.atEnd());
  EXPECT_EQ(counter.read(buffer, 4), 2u);
  EXPECT_EQ(std::string(buffer, 2), "ef");
  EXPECT_TRUE(counter.atEnd());  // no empty read needed
  EXPECT_TRUE(counter.endDelegation());
  EXPECT_EQ(counter.getDelegate(), nullptr);
}

TEST(IoDeviceDelegableTest, ReflectsAndKeepsTheDelegatesError) {
  kxIoDeviceStringWriteOnly sink;
  sink.setMaxSize(4);
  kxIoDeviceByteCounter counter(kxIoDevice::DW_Write);
  ASSERT_TRUE(counter.beginDelegation(&sink, kxIoDevice::DW_Write));
  EXPECT_EQ(counter.write("abc", 3), 3u);
  EXPECT_EQ(counter.write("de", 2), 0u);
  EXPECT_TRUE(counter.hasDeviceError());
  EXPECT_EQ(counter.getDeviceErrorMsg(), "write exceeds the maximum size of the device");
  EXPECT_EQ(counter.write("d", 1), 0u);  // sticky through the delegate, though 1 byte would fit
  EXPECT_EQ(counter.getByteCount(), 3u);

  counter.setDeviceError("own");
  EXPECT_EQ(counter.getDeviceErrorMsg(), "own, write exceeds the maximum size of the device");
  EXPECT_FALSE(counter.endDelegation());
  // The delegate is gone; its text is not.
  EXPECT_EQ(counter.getDelegate(), nullptr);
  EXPECT_EQ(counter.getDeviceErrorMsg(), "own, write exceeds the maximum size of the device");
  EXPECT_EQ(sink.getString(), "abc");
}

struct ModeCase {
  std::string_view name;
  bool delegating;
  kxIoDevice::DataWay delegationWay;
  bool callRead;
  std::string_view text;
};
void PrintTo(const ModeCase& c, std::ostream* os) { *os << c.name; }
const ModeCase kModeCases[] = {
    {"WriteWithoutDelegate", false, kxIoDevice::DW_Write, false, "call write on a read delegation mode device"},
    {"ReadWithoutDelegate", false, kxIoDevice::DW_Read, true, "call read on a write delegation mode device"},
    {"WriteWhileReading", true, kxIoDevice::DW_Read, false, "call write on a read delegation mode device"},
    {"ReadWhileWriting", true, kxIoDevice::DW_Write, true, "call read on a write delegation mode device"},
};

class IoDeviceDelegationModeTest : public testing::TestWithParam<ModeCase> {
 protected:
  void TearDown() override { kxLog::setSink({}); }
};

TEST_P(IoDeviceDelegationModeTest, WrongModeSetsTextAndLogsIt) {
  const ModeCase& c = GetParam();
  std::vector<std::string> logged;
  kxLog::setSink([&logged](const kxLogRecord& r) { logged.push_back(r.text); });
  kxIoDeviceStringReadOnly source("abc");
  kxIoDeviceStringWriteOnly sink;
  kxIoDeviceByteCounter counter;
  if (c.delegating) {
    ASSERT_TRUE(counter.beginDelegation(c.delegationWay == kxIoDevice::DW_Read ? static_cast<kxIoDevice*>(&source)
                                                                               : &sink,
                                        c.delegationWay));
  }
  char buffer[4];
  EXPECT_EQ(c.callRead ? counter.read(buffer, 4) : counter.write("x", 1), 0u);
  EXPECT_EQ(counter.getDeviceErrorMsg(), c.text);
  EXPECT_EQ(logged, std::vector<std::string>{"kxIoDeviceDelegable " + std::string(c.text)});
  EXPECT_EQ(source.getPosition(), 0);
  EXPECT_EQ(sink.getString(), "");
}

INSTANTIATE_TEST_SUITE_P(Modes, IoDeviceDelegationModeTest, testing::ValuesIn(kModeCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(IoDeviceDelegableTest, HooksFrameTheBodyAndClearWritesNothing) {
  kxIoDeviceStringWriteOnly sink;
  FramingDevice framing;
  ASSERT_TRUE(framing.beginDelegation(&sink, kxIoDevice::DW_Write));
  EXPECT_TRUE(framing.writeAll("body"));
  EXPECT_TRUE(framing.endDelegation());
  EXPECT_EQ(sink.getString(), "<body>");

  // A new delegation is a new body; clearing drops it without the closing frame.
  ASSERT_TRUE(framing.beginDelegation(&sink, kxIoDevice::DW_Write));
  EXPECT_TRUE(framing.clearDelegation());
  EXPECT_FALSE(framing.isDelegating());
  EXPECT_EQ(sink.getString(), "<body><");
  EXPECT_EQ(framing.calls, (std::vector<std::string>{"begin(attached)", "end", "begin(attached)", "clear"}));
}

TEST(IoDeviceDelegableTest, RefusedBeginLeavesNoDelegation) {
  kxIoDeviceStringWriteOnly sink;
  FramingDevice framing;
  framing.refuseBegin = true;
  EXPECT_FALSE(framing.beginDelegation(&sink, kxIoDevice::DW_Write));
  EXPECT_FALSE(framing.isDelegating());
  EXPECT_EQ(framing.getDeviceErrorMsg(), "beginDelegation failed");

  kxIoDeviceStringWriteOnly broken;
  broken.setDeviceError("sink gone");
  FramingDevice second;
  EXPECT_FALSE(second.beginDelegation(&broken, kxIoDevice::DW_Write));
  EXPECT_FALSE(second.isDelegating());
  EXPECT_EQ(second.getDeviceErrorMsg(), "sink gone");
}

TEST(IoDeviceDelegableTest, LifeCycleMisuseHasTexts) {
  kxIoDeviceStringReadOnly source("abc");
  struct Step {
    std::function<bool(kxIoDeviceByteCounter&)> call;
    std::string_view text;
  };
  const Step steps[] = {
      {[](kxIoDeviceByteCounter& d) { return d.beginDelegation(nullptr, kxIoDevice::DW_Read); },
       "beginDelegation with a null delegate"},
      {[](kxIoDeviceByteCounter& d) { return d.beginDelegation(&d, kxIoDevice::DW_Read); },
       "beginDelegation onto the device itself"},
      {[&](kxIoDeviceByteCounter& d) { return d.beginDelegation(&source, static_cast<kxIoDevice::DataWay>(0)); },
       "invalid data way"},
      {[&](kxIoDeviceByteCounter& d) {
         return d.beginDelegation(&source, kxIoDevice::DW_Read) && d.beginDelegation(&source, kxIoDevice::DW_Read);
       },
       "beginDelegation while already delegating"},
      {[](kxIoDeviceByteCounter& d) { return d.endDelegation(); }, "endDelegation without an active delegation"},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.text);
    kxIoDeviceByteCounter counter;
    EXPECT_FALSE(step.call(counter));
    EXPECT_EQ(counter.getDeviceErrorMsg(), step.text);
  }
}

TEST(IoDeviceByteCounterTest, CountsWhatPassesAndRestartsPerDelegation) {
  const std::string text(1000, 'q');
  kxIoDeviceStringReadOnly source(text);
  kxIoDeviceStringWriteOnly sink;
  kxIoDeviceByteCounter counter;
  ASSERT_TRUE(counter.beginDelegation(&source, kxIoDevice::DW_Read));
  std::vector<char> scratch(7);
  size_t copied = 0;
  ASSERT_TRUE(counter.writeBackToDevice(sink, &copied, &scratch));
  EXPECT_EQ(copied, 1000u);
  EXPECT_EQ(counter.getByteCount(), 1000u);
  EXPECT_TRUE(counter.endDelegation());
  EXPECT_EQ(counter.getByteCount(), 1000u);  // kept after the end

  // Writing: only what the delegate accepted counts.
  kxIoDeviceStringWriteOnly capped;
  capped.setMaxSize(5);
  ASSERT_TRUE(counter.beginDelegation(&capped, kxIoDevice::DW_Write));
  EXPECT_EQ(counter.getByteCount(), 0u);
  EXPECT_EQ(counter.write("abc", 3), 3u);
  EXPECT_EQ(counter.write("def", 3), 0u);
  EXPECT_EQ(counter.getByteCount(), 3u);
}

}  // namespace
}  // namespace kx
