// kxIoDeviceDelegable is the base of devices that stand in front of another device, their delegate:
// framing encoders, counters and builders that read from or write to the delegate while adding their
// own behaviour. Used as it is, it forwards every byte unchanged. Subclasses override readBytes and/or
// writeBytes and the three hooks that run when a delegation begins, ends or is dropped.
//
//   kx::kxIoDeviceStringWriteOnly sink;
//   MyEncoder encoder;                                   // derives from kxIoDeviceDelegable
//   encoder.beginDelegation(&sink, kx::kxIoDevice::DW_Write);
//   encoder.writeAll("payload");
//   if (!encoder.endDelegation()) log(encoder.getDeviceErrorMsg());
//
// Life cycle: not delegating -> beginDelegation(delegate, way) -> reads or writes -> endDelegation()
// (the subclass finishes its output, e.g. a trailer) or clearDelegation() (the subclass drops what it
// holds, writing nothing) -> not delegating. The device's direction follows the delegation's.
//
// Errors. hasDeviceError() is true when the device itself or its delegate is in error, and
// getDeviceErrorMsg() gives the own text, then ", " and the delegate's text when both exist. When the
// delegation ends or is cleared, an error the delegate still reports is copied into the device's own
// error, so the cause stays readable after the delegate is gone. Reading or writing against the
// delegation's direction, or without a delegate, sets "call read on a write delegation mode device" /
// "call write on a read delegation mode device" and logs the text prefixed with "kxIoDeviceDelegable "
// (log type 5, category "kxIoDevice").
//
// Thread-safety: not thread-safe.
// Ownership: the delegate is borrowed. It must stay alive until endDelegation(), clearDelegation() or
// the destruction of this device, whichever comes first; the destructor does not touch it.
#pragma once

#include <kx/system/kxExport.h>
#include <kx/system/kxIoDevice.h>

#include <cstddef>
#include <string>

namespace kx {

class KX_EXPORT kxIoDeviceDelegable : public kxIoDevice {
 public:
  // `way` is the direction before any delegation.
  explicit kxIoDeviceDelegable(DataWay way);
  ~kxIoDeviceDelegable() override;

  // Forward to the delegate when delegating in the call's direction; 0 when this device or the
  // delegate is in error.
  size_t readBytes(char* buffer, size_t size) override;
  size_t writeBytes(const char* data, size_t size) override;
  // The delegate's atEnd(); true when not delegating.
  bool atEnd() const override;
  bool hasDeviceError() const override;
  std::string getDeviceErrorMsg() const override;

  // Starts delegating to `delegate` in direction `way`, then runs beginDelegationImpl(). Fails (false)
  // when the device is in error, already delegating, `delegate` is null or this device, `way` is
  // invalid, or the hook refuses; a refused delegation is undone.
  virtual bool beginDelegation(kxIoDevice* delegate, DataWay way);
  // Runs endDelegationImpl() and detaches the delegate. False when not delegating ("endDelegation
  // without an active delegation"), or when the hook fails or any error is left.
  virtual bool endDelegation();
  // Runs clearDelegationImpl() and detaches the delegate, writing nothing to it. Allowed at any time.
  virtual bool clearDelegation();

  bool isDelegating() const { return delegate_ != nullptr; }
  kxIoDevice* getDelegate() const { return delegate_; }

 protected:
  // Hooks, in slot order after clearDelegation. The delegate is attached while each runs. A hook that
  // returns false should set an error text; otherwise a generic one ("beginDelegation failed" /
  // "endDelegation failed") is set for it.
  virtual bool beginDelegationImpl();
  virtual bool endDelegationImpl();
  virtual bool clearDelegationImpl();

  // For subclasses that emit framing: true when delegating in the read (write) direction with a
  // delegate; otherwise sets the delegation-mode error, logs it and returns false. Also false, with
  // nothing set, when the device is already in error.
  bool delegationReadAllowed();
  bool delegationWriteAllowed();

  // Writes all `size` bytes to the delegate (see kxIoDevice::writeAll); false when there is no
  // delegate or it fails. The failure shows through hasDeviceError().
  bool writeAllToDelegate(const char* data, size_t size);

 private:
  void detachDelegate();

  kxIoDevice* delegate_ = nullptr;
};

}  // namespace kx
