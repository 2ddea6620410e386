// kxIoDevice is the byte stream every body, sink and parser of the library is built on: a device is
// either readable (a source: files, memory, body builders) or writable (a sink: files, strings,
// parsers fed piece by piece). Pick a concrete kxIoDevice* class to move bytes between memory, files
// and the transfer layer; derive from it to produce or consume a stream yourself.
//
//   kx::kxIoDeviceStringReadOnly source("hello");
//   kx::kxIoDeviceStringWriteOnly sink;
//   size_t copied = 0;
//   if (!source.writeBackToDevice(sink, &copied)) {
//     log(source.getDeviceErrorMsg() + " / " + sink.getDeviceErrorMsg());
//   }
//
// Errors. Devices never throw. A failure sets the device error, a sticky flag with an English text:
// from then on readBytes and writeBytes deliver 0 at once and good() is false, until clearDeviceError().
// The first text set is kept (a later setDeviceError while in error is ignored), so the message names the
// root cause rather than its consequences. A read that returns 0 means "nothing now": atEnd() and
// hasDeviceError() tell the end of the stream from a failure. A write returns the count accepted; 0 for
// a non-empty write means failure.
//
// How subclasses keep the rules. Callers may use readBytes/writeBytes directly (the virtual slots), so
// each concrete device starts them with readAllowed()/writeAllowed(), which refuse a device in error and
// a call against the device's direction (setting the direction error). The non-virtual read()/write()
// are the safe entry points for code that drives devices it does not know: they also refuse a null
// buffer and a zero size before any virtual runs, so even a careless subclass never sees them.
//
// Thread-safety: not thread-safe. A device is used by one thread at a time.
// Ownership: a device owns only its own state; devices given to it (targets, delegates) are borrowed.
// Devices are neither copyable nor movable: other objects keep pointers to them while streaming.
#pragma once

#include <kx/system/kxExport.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kx {

class KX_EXPORT kxIoDevice {
 public:
  // The direction of a device, fixed at construction (delegating devices follow their delegation).
  enum DataWay : unsigned char {
    DW_Read = 1,
    DW_Write = 2,
  };

  // A way other than DW_Read or DW_Write leaves the device in error ("invalid data way").
  explicit kxIoDevice(DataWay way);
  virtual ~kxIoDevice();

  kxIoDevice(const kxIoDevice&) = delete;
  kxIoDevice& operator=(const kxIoDevice&) = delete;

  // The virtual operations below keep this slot order (destructor, readBytes, writeBytes, atEnd,
  // hasDeviceError, getDeviceErrorMsg, writeBackToDevice); subclasses only append to it.

  // Copies at most `size` bytes into `buffer` and returns how many; 0 means nothing now (see
  // atEnd/hasDeviceError). The base version refuses: the direction error on a write device, else
  // "readBytes not implemented".
  virtual size_t readBytes(char* buffer, size_t size);

  // Takes at most `size` bytes from `data` and returns how many were accepted; 0 on error.
  // The base version refuses: the direction error on a read device, else "writeBytes not implemented".
  virtual size_t writeBytes(const char* data, size_t size);

  // True when a readable device has nothing more to deliver.
  virtual bool atEnd() const = 0;

  // The sticky error flag. Overriders (delegating and composite devices) also report the
  // errors of the devices they stand for.
  virtual bool hasDeviceError() const;

  // The error text; empty when there is none.
  virtual std::string getDeviceErrorMsg() const;

  // Copies the rest of this readable device into `target`, through `scratch` when given (its
  // size is the piece size; an empty vector is grown to 16 KiB and kept for the next call) or through a
  // buffer of its own. `count`, when given, receives the bytes written to the target, also on failure.
  // Returns true when this device reached its end and the target took every byte. On failure the error
  // is set on the device that failed; when the target fails, this device (which lost the bytes in
  // flight) also gets "writeBackToDevice target device error " + the target's text.
  virtual bool writeBackToDevice(kxIoDevice& target, size_t* count = nullptr,
                                 std::vector<char>* scratch = nullptr);

  // Gate in front of readBytes: 0 at once when the device is in error or `size` is 0; a null buffer
  // with a non-zero size sets "null buffer with a non-zero size".
  size_t read(char* buffer, size_t size);
  // Gate in front of writeBytes, with the same rules.
  size_t write(const char* data, size_t size);
  // Writes all `size` bytes, calling writeBytes again after partial acceptance. False when the device
  // fails; a device that accepts nothing without saying why gets "writeBytes accepted no data".
  bool writeAll(const char* data, size_t size);
  bool writeAll(std::string_view data) { return writeAll(data.data(), data.size()); }

  DataWay getDataWay() const { return way_; }

  // Sets the sticky error unless one is already set (the first cause wins).
  void setDeviceError(std::string_view text);
  // Clears this device's own error. Errors that an override of hasDeviceError reports for other
  // devices (a delegate's) are theirs to clear.
  void clearDeviceError();
  // !hasDeviceError().
  bool good() const { return !hasDeviceError(); }

 protected:
  // Opening checks for readBytes/writeBytes overrides: false when the device is in error (nothing else
  // happens), or when the device goes the other way (then the direction error is set).
  bool readAllowed();
  bool writeAllowed();

  // Devices whose direction is chosen after construction (files, delegations) switch it here.
  void setDataWay(DataWay way);

 private:
  DataWay way_;
  bool error_ = false;
  std::string errorMsg_;
};

}  // namespace kx
