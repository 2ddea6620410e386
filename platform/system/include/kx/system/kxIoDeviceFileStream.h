// kxIoDeviceFileStream reads or writes a file named by a UTF-8 path: file parts of multipart bodies,
// bodies uploaded from disk, responses saved to disk. It is random access, so a transfer can rewind an
// upload and announce its length.
//
//   kx::kxIoDeviceFileStream file;
//   if (!file.open("/var/spool/report.pdf", kx::kxIoDevice::DW_Read, kx::kxIoDeviceFileStream::OF_Binary)) {
//     log(file.getDeviceErrorMsg());                     // "Failed to open file /var/... : No such ..."
//   }
//   int64_t size = file.getSize();
//
// Opening. DW_Read opens an existing file (directories are refused). DW_Write creates the file (mode
// 0666 less the umask) and truncates it, unless OF_Append keeps the content and makes every write go to
// the end, or OF_Exclusive makes the open fail when the file exists. OF_Binary is accepted for callers
// written for platforms with text-mode files; on Linux it changes nothing. OF_Append and OF_Exclusive
// are ignored for reading; other bits fail with "invalid file open flags". The path is passed to the
// system as its bytes; an empty path, one holding a NUL byte or invalid UTF-8 is refused. open() on a
// closed stream clears the error a previous file left; on an open one it fails ("file is already open").
//
// Reading and positions. atEnd() is true as soon as the position reaches the size (for files whose
// size is known), so a reader does not need an empty read to find the end; for pipes and other
// unseekable files it becomes true when a read returns 0. getSize() seeks to the end and back; it is
// -1 for unseekable files. Reading mode refuses seeks past the size ("seek beyond the end of the
// device"); writing mode allows them (the gap reads back as zeros). Failed system calls set "file read
// error : ", "file write error : ", "seek failed : " or "file close error : " followed by the system's
// text; a failed open sets "Failed to open file " + path + " : " + the system's text.
//
// Thread-safety: not thread-safe.
// Ownership: the stream owns its file descriptor (opened close-on-exec) and closes it in close() or the
// destructor.
#pragma once

#include <kx/system/kxExport.h>
#include <kx/system/kxIoDeviceRandomAccess.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace kx {

class KX_EXPORT kxIoDeviceFileStream : public kxIoDeviceRandomAccess {
 public:
  enum OpenFlags : int {
    OF_None = 0,
    OF_Binary = 1,
    OF_Append = 2,
    OF_Exclusive = 4,
  };

  // A closed stream (reading direction until open() says otherwise).
  kxIoDeviceFileStream();
  ~kxIoDeviceFileStream() override;

  // Opens `utf8Path` for `way`; false with the error set on failure.
  bool open(const std::string& utf8Path, DataWay way, int flags = OF_Binary);
  // Closes the file; true when it was not open or closed cleanly. A failing close (a write-back error
  // reported late by the file system) sets "file close error : " + the system's text. Keeps the error
  // state otherwise, so the outcome of a stream can be read after closing it.
  bool close();
  bool isOpen() const { return fd_ >= 0; }
  // The path given to the last open().
  const std::string& getPath() const { return path_; }

  size_t readBytes(char* buffer, size_t size) override;
  size_t writeBytes(const char* data, size_t size) override;
  bool atEnd() const override;
  int64_t getPosition() const override;
  int64_t getSize() const override;
  bool seek(int64_t position) override;

 private:
  bool fileUsable();

  int fd_ = -1;
  std::string path_;
  int64_t position_ = 0;
  bool eof_ = false;
  bool append_ = false;
};

}  // namespace kx
