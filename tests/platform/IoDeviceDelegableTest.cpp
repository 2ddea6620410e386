// Delegating devices: their misuse texts, their life cycle and hooks, and the byte
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

// Wraps what is written in "<" and ">" the way an encoder adds framing; records its hooks.
class FramingDevice : public kxIoDeviceDelegable {
 public:
  FramingDevice() : kxIoDeviceDelegable(DW_Write) {}
  std::string calls;
  bool refuseBegin = false;

 protected:
  bool beginDelegationImpl() override { return calls += 'b', !refuseBegin && writeAllToDelegate("<", 1); }
  bool endDelegationImpl() override { return calls += 'e', writeAllToDelegate(">", 1); }
  bool clearDelegationImpl() override { return calls += 'c', true; }
};

TEST(IoDeviceDelegableTest, MisuseHasTextsAndWrongDirectionIsLogged) {
  kxIoDeviceStringReadOnly source("abc");
  kxIoDeviceStringWriteOnly sink;
  char buffer[4];
  using Call = std::function<bool(kxIoDeviceByteCounter&)>;
  const std::pair<Call, std::string_view> steps[] = {
      {[](auto& d) { return d.beginDelegation(nullptr, kxIoDevice::DW_Read); }, "beginDelegation with a null delegate"},
      {[](auto& d) { return d.beginDelegation(&d, kxIoDevice::DW_Read); }, "beginDelegation onto the device itself"},
      {[&](auto& d) { return d.beginDelegation(&source, static_cast<kxIoDevice::DataWay>(0)); }, "invalid data way"},
      {[&](auto& d) { return d.beginDelegation(&source, kxIoDevice::DW_Read) && d.beginDelegation(&source, kxIoDevice::DW_Read); },
       "beginDelegation while already delegating"},
      {[](auto& d) { return d.endDelegation(); }, "endDelegation without an active delegation"},
      {[](auto& d) { return d.write("x", 1) != 0; }, "call write on a read delegation mode device"},
      {[&](auto& d) { return d.beginDelegation(&sink, kxIoDevice::DW_Write) && d.read(buffer, 4) != 0; },
       "call read on a write delegation mode device"},
  };
  for (const auto& [call, text] : steps) {
    std::vector<std::string> logged;
    kxLog::setSink([&logged](const kxLogRecord& r) { logged.push_back(r.text); });
    kxIoDeviceByteCounter counter;
    EXPECT_FALSE(call(counter)) << text;
    kxLog::setSink({});
    EXPECT_EQ(counter.getDeviceErrorMsg(), text);
    if (text.rfind("call ", 0) == 0) {
      EXPECT_EQ(logged, std::vector<std::string>{"kxIoDeviceDelegable " + std::string(text)});
    }
  }
  EXPECT_EQ(source.getPosition(), 0);
  EXPECT_EQ(sink.getString(), "");
}

TEST(IoDeviceDelegableTest, HooksFrameTheBodyAndFailedBeginsDetach) {
  kxIoDeviceStringWriteOnly sink;
  FramingDevice framing;
  ASSERT_TRUE(framing.beginDelegation(&sink, kxIoDevice::DW_Write));
  EXPECT_TRUE(framing.writeAll("body"));
  EXPECT_TRUE(framing.endDelegation());
  ASSERT_TRUE(framing.beginDelegation(&sink, kxIoDevice::DW_Write));
  EXPECT_TRUE(framing.clearDelegation());  // clearing writes no closing frame
  EXPECT_FALSE(framing.isDelegating());
  EXPECT_EQ(sink.getString(), "<body><");
  EXPECT_EQ(framing.calls, "bebc");

  FramingDevice refusing, second;
  refusing.refuseBegin = true;
  EXPECT_FALSE(refusing.beginDelegation(&sink, kxIoDevice::DW_Write));
  EXPECT_FALSE(refusing.isDelegating());
  EXPECT_EQ(refusing.getDeviceErrorMsg(), "beginDelegation failed");
  kxIoDeviceStringWriteOnly broken;
  broken.setDeviceError("sink gone");
  EXPECT_FALSE(second.beginDelegation(&broken, kxIoDevice::DW_Write));
  EXPECT_FALSE(second.isDelegating());
  EXPECT_EQ(second.getDeviceErrorMsg(), "sink gone");
}

}  // namespace
}  // namespace kx
