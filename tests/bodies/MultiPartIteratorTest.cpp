// What only the pull parser does: the expected-parts table, the drain rule between parts, copying a
// part into a vector or a file, and its buffer and input failures.
#include <gtest/gtest.h>

#include <kx/system/kxIoDeviceStringReadOnly.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "bodies/MultiPartRun.h"

namespace {

using kx::http::MultiPartIterator;

const std::string kTwoParts =
    "--b\r\nContent-Disposition: form-data; name=f\r\nContent-Type: text/plain\r\n\r\n0123456789\r\n"
    "--b\r\nContent-Disposition: form-data; name=g\r\n\r\nlast\r\n--b--\r\n";

struct ExpectedCase {
  std::string name;
  bool acceptUnknown;
  MultiPartIterator::ExpectedParts expected;
  std::string error;
};

const std::vector<ExpectedCase> kExpectedCases = {
    {"Listed", false, {{"f", {}}, {"g", {}}}, ""},
    {"Unknown", false, {{"f", {}}}, "unknown name, part #1"},
    {"UnknownAccepted", true, {{"f", {}}}, ""},
    {"EmptyTableRefusesAll", false, {}, "unknown name, part #0"},
    {"TypeListed", true, {{"f", {"image/png", "text/plain"}}}, ""},
    {"AnyType", true, {{"f", {"*/*"}}}, ""},
    {"TypeRefused", true, {{"f", {"image/png", "image/gif"}}},
     "invalid content-type, part #0 got 'text/plain' expected 'image/png', 'image/gif'"},
};

TEST(MultiPartIteratorExpectedTest, AcceptsOnlyListedPartsAndTypes) {
  for (const ExpectedCase& row : kExpectedCases) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(kx::test::RunIterator({"multipart/form-data; boundary=b"}, kTwoParts, kx::test::Pieces::kWhole,
                                    row.acceptUnknown, row.expected)
                  .error,
              row.error);
  }
}

class MultiPartIteratorTest : public testing::Test {
 protected:
  struct Opened {
    kx::kxIoDeviceStringReadOnly input{kTwoParts};
    MultiPartIterator parts{input, std::make_shared<std::vector<char>>(), "b", true, {}};
  };
  // A new iterator over kTwoParts, in its first part.
  MultiPartIterator& First() {
    MultiPartIterator& parts = opened.emplace_back().parts;
    EXPECT_TRUE(parts.nextPart());
    return parts;
  }
  std::list<Opened> opened;
  char data[10];
};

TEST_F(MultiPartIteratorTest, NextPartNeedsThePreviousDataReadToTheirEnd) {
  MultiPartIterator& partly = First();
  ASSERT_EQ(partly.read(data, 9), 9u);
  EXPECT_FALSE(partly.nextPart());
  EXPECT_EQ(partly.getDeviceErrorMsg(), "Previous part data was not fully consumed");
  // Every byte read, but the end not yet seen by a read: the step finds it.
  MultiPartIterator& exact = First();
  ASSERT_EQ(exact.read(data, 10), 10u);
  EXPECT_TRUE(exact.nextPart());
  EXPECT_EQ(exact.getPartName(), "g");
}

TEST_F(MultiPartIteratorTest, CopiesPartsIntoVectorsAndFiles) {
  std::vector<char> out{'k'};
  MultiPartIterator& parts = First();
  ASSERT_TRUE(parts.writeCurrentPartToBuffer(out, 10, true));
  EXPECT_EQ(std::string(out.begin(), out.end()), "k0123456789");
  ASSERT_TRUE(parts.nextPart());
  const std::string path = testing::TempDir() + "kx-multipart-part";
  EXPECT_TRUE(parts.writeCurrentPartToFile(path));
  std::ostringstream written;
  written << std::ifstream(path).rdbuf();
  std::remove(path.c_str());
  EXPECT_EQ(written.str(), "last");
  EXPECT_FALSE(parts.nextPart());
  EXPECT_TRUE(parts.atEndOfAllParts());

  MultiPartIterator& small = First();
  EXPECT_FALSE(small.writeCurrentPartToBuffer(out, 9, false));
  EXPECT_EQ(small.getDeviceErrorMsg(), "too many data in part #1");
  MultiPartIterator& toFile = First();
  EXPECT_FALSE(toFile.writeCurrentPartToFile("/nonexistent-dir/f"));
  EXPECT_EQ(toFile.getDeviceErrorMsg(), "Fail to open '/nonexistent-dir/f', part 1");
}

TEST_F(MultiPartIteratorTest, BufferAndInputFailures) {
  kx::kxIoDeviceStringReadOnly input(kTwoParts);
  MultiPartIterator noBuffer(input, nullptr, "b", true, {});
  EXPECT_EQ(noBuffer.getDeviceErrorMsg(), "Need a temporary buffer");
  noBuffer.clearDeviceError();
  EXPECT_FALSE(noBuffer.nextPart());
  EXPECT_EQ(noBuffer.getDeviceErrorMsg(), "No buffer provided");

  MultiPartIterator& parts = First();
  ASSERT_EQ(parts.read(data, 10), 10u);
  opened.back().input.setDeviceError("disk gone");
  EXPECT_FALSE(parts.nextPart());
  EXPECT_EQ(parts.getDeviceErrorMsg(), "Input device is in error disk gone");
}

}  // namespace
