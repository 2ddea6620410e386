// kxIoDeviceFileStream on real files in a private temporary directory.
#include <kx/system/kxIoDeviceFileStream.h>
#include <kx/system/kxIoDeviceStringWriteOnly.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace kx {
namespace {

namespace fs = std::filesystem;

class IoDeviceFileStreamTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(mkdtemp(dir_.data()), nullptr); }
  void TearDown() override { fs::remove_all(dir_); }
  std::string path(const char* name) const { return dir_ + "/" + name; }
  std::string dir_ = (fs::temp_directory_path() / "kxIoDeviceFileStreamXXXXXX").string();
};

TEST_F(IoDeviceFileStreamTest, WritesSeeksAndReadsBack) {
  const std::string file = path("data.bin");
  std::string expected(3000, '\0');
  for (size_t i = 0; i < expected.size(); ++i) expected[i] = static_cast<char>((i * 13 + 1) % 256);
  kxIoDeviceFileStream out;
  ASSERT_TRUE(out.open(file, kxIoDevice::DW_Write, kxIoDeviceFileStream::OF_Binary)) << out.getDeviceErrorMsg();
  ASSERT_TRUE(out.writeAll(expected) && out.seek(10) && out.writeAll("XY"));
  EXPECT_EQ(out.getSize(), 3000);  // asking for the size does not move the stream
  ASSERT_TRUE(out.writeAll("Z"));
  EXPECT_EQ(out.getPosition(), 13);
  ASSERT_TRUE(out.seek(3100) && out.writeAll("z"));  // past the end while writing: a hole of zeros
  EXPECT_TRUE(out.close());
  expected.replace(10, 3, "XYZ");
  expected += std::string(100, '\0') + "z";

  kxIoDeviceFileStream in;
  ASSERT_TRUE(in.open(file, kxIoDevice::DW_Read, 1));
  ASSERT_TRUE(in.seek(3091));
  char buffer[100];
  ASSERT_EQ(in.read(buffer, sizeof buffer), 10u);
  EXPECT_EQ(std::string(buffer, 10), expected.substr(3091));
  EXPECT_TRUE(in.atEnd());  // at the size, before any empty read
  EXPECT_FALSE(in.seek(3102));
  EXPECT_EQ(in.getDeviceErrorMsg(), "seek beyond the end of the device");
  in.clearDeviceError();
  EXPECT_FALSE(in.seek(-1));
  EXPECT_EQ(in.getDeviceErrorMsg(), "seek to a negative position");
  in.clearDeviceError();
  ASSERT_TRUE(in.seekFrom(-5, kxIoDeviceRandomAccess::SO_End));
  EXPECT_EQ(in.getRemainingSize(), 5);
  ASSERT_TRUE(in.seek(0));
  kxIoDeviceStringWriteOnly sink;
  std::vector<char> scratch(7);
  size_t copied = 0;
  ASSERT_TRUE(in.writeBackToDevice(sink, &copied, &scratch));
  EXPECT_EQ(copied, 3101u);
  EXPECT_TRUE(sink.getString() == expected);
}

TEST_F(IoDeviceFileStreamTest, AppendAndExclusiveKeepExistingContent) {
  const std::string file = path("log.txt");
  kxIoDeviceFileStream stream, reader;
  ASSERT_TRUE(stream.open(file, kxIoDevice::DW_Write, kxIoDeviceFileStream::OF_Exclusive) && stream.writeAll("abc"));
  ASSERT_TRUE(stream.close());
  ASSERT_TRUE(stream.open(file, kxIoDevice::DW_Write, kxIoDeviceFileStream::OF_Append));
  EXPECT_EQ(stream.getPosition(), 3);
  ASSERT_TRUE(stream.seek(0) && stream.writeAll("de"));  // appending ignores the position
  EXPECT_EQ(stream.getPosition(), 5);
  ASSERT_TRUE(stream.close());
  EXPECT_FALSE(stream.open(file, kxIoDevice::DW_Write, kxIoDeviceFileStream::OF_Exclusive));
  EXPECT_EQ(stream.getDeviceErrorMsg(), "Failed to open file " + file + " : File exists");
  ASSERT_TRUE(stream.open(file, kxIoDevice::DW_Read));  // a failed open leaves the stream reusable
  EXPECT_FALSE(stream.open(file, kxIoDevice::DW_Read));
  EXPECT_EQ(stream.getDeviceErrorMsg(), "file is already open");
  ASSERT_TRUE(reader.open(file, kxIoDevice::DW_Read));
  char buffer[8];
  EXPECT_EQ(std::string(buffer, reader.read(buffer, sizeof buffer)), "abcde");
  EXPECT_EQ(reader.write("y", 1), 0u);
  EXPECT_EQ(reader.getDeviceErrorMsg(), "write called on a read only device");
}

TEST_F(IoDeviceFileStreamTest, OpenFailuresHaveTexts) {
  const std::string missing = path("missing.bin"), existing = path("existing.bin"), dir = dir_;
  std::ofstream(existing) << "x";
  const std::tuple<std::string, kxIoDevice::DataWay, int, std::string> cases[] = {
      {missing, kxIoDevice::DW_Read, 1, "Failed to open file " + missing + " : No such file or directory"},
      {dir, kxIoDevice::DW_Read, 1, "Failed to open file " + dir + " : Is a directory"},
      {"", kxIoDevice::DW_Read, 1, "empty file path"},
      {path("bad\xff"), kxIoDevice::DW_Write, 1, "file path is not valid UTF-8"},
      {existing + std::string("\0x", 2), kxIoDevice::DW_Read, 1, "file path is not valid UTF-8"},
      {existing, kxIoDevice::DW_Read, 8, "invalid file open flags"},
      {existing, static_cast<kxIoDevice::DataWay>(3), 1, "invalid data way"},
  };
  for (const auto& [file, way, flags, text] : cases) {
    kxIoDeviceFileStream stream;
    EXPECT_FALSE(stream.open(file, way, flags)) << text;
    EXPECT_FALSE(stream.isOpen());
    EXPECT_EQ(stream.getDeviceErrorMsg(), text);
  }
  EXPECT_FALSE(fs::exists(path("bad\xff")));
  kxIoDeviceFileStream closed;
  char buffer[4];
  EXPECT_EQ(closed.read(buffer, 4), 0u);
  EXPECT_EQ(closed.getDeviceErrorMsg(), "file is not open");
  EXPECT_EQ(closed.getSize(), -1);
}

TEST_F(IoDeviceFileStreamTest, UnseekableFileEndsAtItsFirstEmptyRead) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  ASSERT_EQ(::write(fds[1], "hi", 2), 2);
  kxIoDeviceFileStream in;
  const bool opened = in.open("/proc/self/fd/" + std::to_string(fds[0]), kxIoDevice::DW_Read);
  ::close(fds[1]);
  ::close(fds[0]);
  ASSERT_TRUE(opened) << in.getDeviceErrorMsg();
  EXPECT_EQ(in.getSize(), -1);
  EXPECT_FALSE(in.atEnd());
  char buffer[8];
  ASSERT_EQ(in.read(buffer, sizeof buffer), 2u);
  EXPECT_EQ(in.read(buffer, sizeof buffer), 0u);
  EXPECT_TRUE(in.atEnd() && in.good());
  EXPECT_FALSE(in.seek(0));
  EXPECT_EQ(in.getDeviceErrorMsg(), "seek failed : Illegal seek");
}

}  // namespace
}  // namespace kx
