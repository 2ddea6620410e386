// kxIoDeviceFileStream on real files in a private temporary directory.
#include <kx/system/kxIoDeviceFileStream.h>
#include <kx/system/kxIoDeviceStringWriteOnly.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>
#include <vector>

namespace kx {
namespace {

namespace fs = std::filesystem;

std::string PatternBytes(size_t size) {
  std::string text(size, '\0');
  for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>((i * 13 + 1) % 256);
  return text;
}

class IoDeviceFileStreamTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "kxIoDeviceFileStreamXXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
  }
  std::string path(const char* name) const { return (dir_ / name).string(); }
  static std::string contentOf(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  fs::path dir_;
};

TEST_F(IoDeviceFileStreamTest, WritesSeeksAndReadsBack) {
  const std::string file = path("data.bin");
  std::string expected = PatternBytes(3000);
  {
    kxIoDeviceFileStream out;
    ASSERT_TRUE(out.open(file, kxIoDevice::DW_Write, kxIoDeviceFileStream::OF_Binary)) << out.getDeviceErrorMsg();
    ASSERT_TRUE(out.writeAll(expected));
    EXPECT_EQ(out.getSize(), 3000);
    EXPECT_EQ(out.getPosition(), 3000);
    ASSERT_TRUE(out.seek(10));
    ASSERT_TRUE(out.writeAll("XY"));
    EXPECT_EQ(out.getPosition(), 12);
    EXPECT_EQ(out.getSize(), 3000);  // asking for the size does not move the stream
    ASSERT_TRUE(out.writeAll("Z"));
    EXPECT_TRUE(out.close());
  }
  expected.replace(10, 3, "XYZ");
  EXPECT_TRUE(contentOf(file) == expected);

  kxIoDeviceFileStream in;
  ASSERT_TRUE(in.open(file, kxIoDevice::DW_Read, 1));
  EXPECT_EQ(in.getSize(), 3000);
  EXPECT_FALSE(in.atEnd());
  ASSERT_TRUE(in.seek(2990));
  char buffer[100];
  ASSERT_EQ(in.read(buffer, sizeof buffer), 10u);
  EXPECT_EQ(std::string(buffer, 10), expected.substr(2990));
  EXPECT_TRUE(in.atEnd());  // at the size, before any empty read

  ASSERT_TRUE(in.seekFrom(-5, kxIoDeviceRandomAccess::SO_End));
  EXPECT_FALSE(in.atEnd());
  EXPECT_EQ(in.getRemainingSize(), 5);
  ASSERT_TRUE(in.seekFrom(0, kxIoDeviceRandomAccess::SO_Begin));
  kxIoDeviceStringWriteOnly sink;
  std::vector<char> scratch(7);
  size_t copied = 0;
  ASSERT_TRUE(in.writeBackToDevice(sink, &copied, &scratch));
  EXPECT_EQ(copied, 3000u);
  EXPECT_TRUE(sink.getString() == expected);
}

TEST_F(IoDeviceFileStreamTest, SeekPastTheEndOnlyWhileWriting) {
  const std::string file = path("sparse.bin");
  kxIoDeviceFileStream out;
  ASSERT_TRUE(out.open(file, kxIoDevice::DW_Write));
  ASSERT_TRUE(out.seek(100));
  ASSERT_TRUE(out.writeAll("z"));
  EXPECT_EQ(out.getSize(), 101);
  ASSERT_TRUE(out.close());
  EXPECT_EQ(contentOf(file), std::string(100, '\0') + "z");

  kxIoDeviceFileStream in;
  ASSERT_TRUE(in.open(file, kxIoDevice::DW_Read));
  EXPECT_TRUE(in.seek(101));
  EXPECT_TRUE(in.atEnd());
  EXPECT_FALSE(in.seek(102));
  EXPECT_EQ(in.getDeviceErrorMsg(), "seek beyond the end of the device");

  kxIoDeviceFileStream negative;
  ASSERT_TRUE(negative.open(file, kxIoDevice::DW_Read));
  EXPECT_FALSE(negative.seekFrom(-1, kxIoDeviceRandomAccess::SO_Begin));
  EXPECT_EQ(negative.getDeviceErrorMsg(), "seek to a negative position");
}

TEST_F(IoDeviceFileStreamTest, AppendAndExclusiveKeepExistingContent) {
  const std::string file = path("log.txt");
  kxIoDeviceFileStream stream;
  ASSERT_TRUE(stream.open(file, kxIoDevice::DW_Write, kxIoDeviceFileStream::OF_Exclusive));
  ASSERT_TRUE(stream.writeAll("abc"));
  ASSERT_TRUE(stream.close());
  ASSERT_TRUE(stream.open(file, kxIoDevice::DW_Write, kxIoDeviceFileStream::OF_Append));
  EXPECT_EQ(stream.getPosition(), 3);
  ASSERT_TRUE(stream.seek(0));  // appending ignores the position
  ASSERT_TRUE(stream.writeAll("de"));
  EXPECT_EQ(stream.getPosition(), 5);
  ASSERT_TRUE(stream.close());
  EXPECT_EQ(contentOf(file), "abcde");

  EXPECT_FALSE(stream.open(file, kxIoDevice::DW_Write, kxIoDeviceFileStream::OF_Exclusive));
  EXPECT_EQ(stream.getDeviceErrorMsg(), "Failed to open file " + file + " : File exists");
  EXPECT_EQ(contentOf(file), "abcde");
  // A closed stream starts afresh with the next file.
  ASSERT_TRUE(stream.open(file, kxIoDevice::DW_Read));
  EXPECT_TRUE(stream.good());
  EXPECT_FALSE(stream.open(file, kxIoDevice::DW_Read));
  EXPECT_EQ(stream.getDeviceErrorMsg(), "file is already open");
}

TEST_F(IoDeviceFileStreamTest, OpenFailuresHaveTexts) {
  const std::string missing = path("missing.bin");
  const std::string existing = path("existing.bin");
  std::ofstream(existing) << "x";
  struct Case {
    std::string name, path;
    kxIoDevice::DataWay way;
    int flags;
    std::string text;
  };
  const Case cases[] = {
      {"Missing", missing, kxIoDevice::DW_Read, 1, "Failed to open file " + missing + " : No such file or directory"},
      {"Directory", dir_.string(), kxIoDevice::DW_Read, 1, "Failed to open file " + dir_.string() + " : Is a directory"},
      {"EmptyPath", "", kxIoDevice::DW_Read, 1, "empty file path"},
      {"InvalidUtf8", path("bad\xff"), kxIoDevice::DW_Write, 1, "file path is not valid UTF-8"},
      {"EmbeddedNul", existing + std::string("\0x", 2), kxIoDevice::DW_Read, 1, "file path is not valid UTF-8"},
      {"UnknownFlag", existing, kxIoDevice::DW_Read, 8, "invalid file open flags"},
      {"InvalidWay", existing, static_cast<kxIoDevice::DataWay>(3), 1, "invalid data way"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    kxIoDeviceFileStream stream;
    EXPECT_FALSE(stream.open(c.path, c.way, c.flags));
    EXPECT_FALSE(stream.isOpen());
    EXPECT_EQ(stream.getDeviceErrorMsg(), c.text);
  }
  EXPECT_FALSE(fs::exists(path("bad\xff")));

  kxIoDeviceFileStream closed;
  char buffer[4];
  EXPECT_EQ(closed.read(buffer, 4), 0u);
  EXPECT_EQ(closed.getDeviceErrorMsg(), "file is not open");
  EXPECT_TRUE(closed.atEnd());
  EXPECT_EQ(closed.getSize(), -1);

  kxIoDeviceFileStream reader;
  ASSERT_TRUE(reader.open(existing, kxIoDevice::DW_Read));
  EXPECT_EQ(reader.write("y", 1), 0u);
  EXPECT_EQ(reader.getDeviceErrorMsg(), "write called on a read only device");
}

TEST_F(IoDeviceFileStreamTest, EmptyFileIsAtEndAtOnce) {
  const std::string file = path("empty.bin");
  std::ofstream{file};
  kxIoDeviceFileStream in;
  ASSERT_TRUE(in.open(file, kxIoDevice::DW_Read));
  EXPECT_TRUE(in.atEnd());
  EXPECT_EQ(in.getSize(), 0);
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
  EXPECT_EQ(std::string(buffer, 2), "hi");
  EXPECT_EQ(in.read(buffer, sizeof buffer), 0u);
  EXPECT_TRUE(in.atEnd());
  EXPECT_TRUE(in.good());
  EXPECT_FALSE(in.seek(0));
  EXPECT_EQ(in.getDeviceErrorMsg(), "seek failed : Illegal seek");
}

}  // namespace
}  // namespace kx
