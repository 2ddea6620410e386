// Delegating devices: what they reflect of their delegate, their life cycle and hooks, and the byte
// counter built on them.
#include <kx/system/kxIoDeviceByteCounter.h>
#include <kx/system/kxIoDeviceDelegable.h>
#include <kx/system/kxIoDeviceStringReadOnly.h>
#include <kx/system/kxIoDeviceStringWriteOnly.h>
#include <kx/system/kxLog.h>

#include <gtest/gtest.h>

#include <functional>
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
    return !refuseBegin && writeAllToDelegate("<", 1);
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

TEST(IoDeviceDelegableTest, ReflectsTheDelegatesEndAndCountsWhatPasses) {
  kxIoDeviceStringReadOnly source("abcdef");
  kxIoDeviceByteCounter counter;
  EXPECT_TRUE(counter.atEnd());  // nothing to read while not delegating
  ASSERT_TRUE(counter.beginDelegation(&source, kxIoDevice::DW_Read));
  char buffer[4];
  EXPECT_EQ(counter.read(buffer, 4), 4u);
  EXPECT_FALSE(counter.atEnd());
  EXPECT_EQ(counter.read(buffer, 4), 2u);
  EXPECT_EQ(std::string(buffer, 2), "ef");
  EXPECT_TRUE(counter.atEnd());  // no empty read needed
  EXPECT_TRUE(counter.endDelegation());
  EXPECT_EQ(counter.getByteCount(), 6u);  // kept after the end

  kxIoDeviceStringWriteOnly capped;  // writing: only what the delegate accepted counts
  capped.setMaxSize(4);
  ASSERT_TRUE(counter.beginDelegation(&capped, kxIoDevice::DW_Write));
  EXPECT_EQ(counter.getByteCount(), 0u);  // restarts per delegation
  EXPECT_EQ(counter.write("abc", 3), 3u);
  EXPECT_EQ(counter.write("de", 2), 0u);
  EXPECT_EQ(counter.getDeviceErrorMsg(), "write exceeds the maximum size of the device");
  EXPECT_EQ(counter.write("d", 1), 0u);  // sticky through the delegate, though 1 byte would fit
  EXPECT_EQ(counter.getByteCount(), 3u);
  counter.setDeviceError("own");
  EXPECT_EQ(counter.getDeviceErrorMsg(), "own, write exceeds the maximum size of the device");
  EXPECT_FALSE(counter.endDelegation());
  EXPECT_EQ(counter.getDelegate(), nullptr);  // the delegate is gone; its text is not
  EXPECT_EQ(counter.getDeviceErrorMsg(), "own, write exceeds the maximum size of the device");
}

TEST(IoDeviceDelegableTest, WrongModeSetsTextAndLogsIt) {
  struct Case {
    bool delegating;
    kxIoDevice::DataWay way;
    bool callRead;
    std::string text;
  };
  const Case cases[] = {
      {false, kxIoDevice::DW_Write, false, "call write on a read delegation mode device"},
      {false, kxIoDevice::DW_Read, true, "call read on a write delegation mode device"},
      {true, kxIoDevice::DW_Read, false, "call write on a read delegation mode device"},
      {true, kxIoDevice::DW_Write, true, "call read on a write delegation mode device"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    std::vector<std::string> logged;
    kxLog::setSink([&logged](const kxLogRecord& r) { logged.push_back(r.text); });
    kxIoDeviceStringReadOnly source("abc");
    kxIoDeviceStringWriteOnly sink;
    kxIoDeviceByteCounter counter;
    if (c.delegating) {
      ASSERT_TRUE(counter.beginDelegation(c.way == kxIoDevice::DW_Read ? static_cast<kxIoDevice*>(&source) : &sink,
                                          c.way));
    }
    char buffer[4];
    EXPECT_EQ(c.callRead ? counter.read(buffer, 4) : counter.write("x", 1), 0u);
    kxLog::setSink({});
    EXPECT_EQ(counter.getDeviceErrorMsg(), c.text);
    EXPECT_EQ(logged, std::vector<std::string>{"kxIoDeviceDelegable " + c.text});
    EXPECT_EQ(source.getPosition(), 0);
    EXPECT_EQ(sink.getString(), "");
  }
}

TEST(IoDeviceDelegableTest, HooksFrameTheBodyAndClearWritesNothing) {
  kxIoDeviceStringWriteOnly sink;
  FramingDevice framing;
  ASSERT_TRUE(framing.beginDelegation(&sink, kxIoDevice::DW_Write));
  EXPECT_TRUE(framing.writeAll("body"));
  EXPECT_TRUE(framing.endDelegation());
  ASSERT_TRUE(framing.beginDelegation(&sink, kxIoDevice::DW_Write));
  EXPECT_TRUE(framing.clearDelegation());
  EXPECT_FALSE(framing.isDelegating());
  EXPECT_EQ(sink.getString(), "<body><");
  EXPECT_EQ(framing.calls, (std::vector<std::string>{"begin(attached)", "end", "begin(attached)", "clear"}));

  FramingDevice refusing;
  refusing.refuseBegin = true;
  EXPECT_FALSE(refusing.beginDelegation(&sink, kxIoDevice::DW_Write));
  EXPECT_FALSE(refusing.isDelegating());
  EXPECT_EQ(refusing.getDeviceErrorMsg(), "beginDelegation failed");
  kxIoDeviceStringWriteOnly broken;
  broken.setDeviceError("sink gone");
  FramingDevice second;
  EXPECT_FALSE(second.beginDelegation(&broken, kxIoDevice::DW_Write));
  EXPECT_FALSE(second.isDelegating());
  EXPECT_EQ(second.getDeviceErrorMsg(), "sink gone");
}

TEST(IoDeviceDelegableTest, LifeCycleMisuseHasTexts) {
  kxIoDeviceStringReadOnly source("abc");
  using Call = std::function<bool(kxIoDeviceByteCounter&)>;
  const std::pair<Call, std::string_view> steps[] = {
      {[](auto& d) { return d.beginDelegation(nullptr, kxIoDevice::DW_Read); }, "beginDelegation with a null delegate"},
      {[](auto& d) { return d.beginDelegation(&d, kxIoDevice::DW_Read); }, "beginDelegation onto the device itself"},
      {[&](auto& d) { return d.beginDelegation(&source, static_cast<kxIoDevice::DataWay>(0)); }, "invalid data way"},
      {[&](auto& d) {
         return d.beginDelegation(&source, kxIoDevice::DW_Read) && d.beginDelegation(&source, kxIoDevice::DW_Read);
       },
       "beginDelegation while already delegating"},
      {[](auto& d) { return d.endDelegation(); }, "endDelegation without an active delegation"},
  };
  for (const auto& [call, text] : steps) {
    kxIoDeviceByteCounter counter;
    EXPECT_FALSE(call(counter)) << text;
    EXPECT_EQ(counter.getDeviceErrorMsg(), text);
  }
}

}  // namespace
}  // namespace kx
