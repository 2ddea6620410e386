#include <kx/system/kxRandomUtils.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

namespace ru = kx::kxRandomUtils;

struct UuidCase {
  const char* name;
  uint8_t fill;      // every byte, unless `sequence`
  bool sequence;     // bytes 0x00, 0x11, ..., 0xff instead
  const char* text;
};
constexpr UuidCase kUuidCases[] = {
    {"AllZero", 0x00, false, "00000000-0000-4000-8000-000000000000"},
    {"AllOnes", 0xff, false, "ffffffff-ffff-4fff-bfff-ffffffffffff"},
    {"Sequence", 0, true, "00112233-4455-4677-8899-aabbccddeeff"},
    {"VariantBitsOnly", 0x7f, false, "7f7f7f7f-7f7f-4f7f-bf7f-7f7f7f7f7f7f"},
};

class Uuid4TextFromBytesTest : public testing::TestWithParam<UuidCase> {};

TEST_P(Uuid4TextFromBytesTest, SetsVersionAndVariantAndFormats) {
  const UuidCase& c = GetParam();
  uint8_t bytes[16];
  for (int i = 0; i < 16; ++i) bytes[i] = c.sequence ? static_cast<uint8_t>(i * 0x11) : c.fill;
  EXPECT_EQ(ru::Uuid4TextFromBytes(bytes), c.text);
}

INSTANTIATE_TEST_SUITE_P(RandomUtils, Uuid4TextFromBytesTest, testing::ValuesIn(kUuidCases),
                         [](const auto& info) { return std::string(info.param.name); });

bool IsUuid4(const std::string& s) {
  if (s.size() != 36) return false;
  for (size_t i = 0; i < s.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash != (s[i] == '-')) return false;
    if (!dash && !std::strchr("0123456789abcdef", s[i])) return false;
  }
  return s[14] == '4' && std::strchr("89ab", s[19]) != nullptr;
}

TEST(kxRandomUtilsTest, Uuid4TextIsWellFormedAndUnique) {
  std::set<std::string> seen;
  for (int i = 0; i < 2000; ++i) {
    const std::string id = ru::Uuid4Text();
    ASSERT_TRUE(IsUuid4(id)) << id;
    seen.insert(id);
  }
  EXPECT_EQ(seen.size(), 2000u);
}

TEST(kxRandomUtilsTest, RandFillsExactlyTheBufferEvenWhenLarge) {
  // Large requests come back from the kernel in several pieces; every byte must still be written.
  constexpr size_t kSize = 1 << 20;
  auto buffer = std::make_unique<uint8_t[]>(kSize + 1);
  std::memset(buffer.get(), 0, kSize + 1);
  buffer[kSize] = 0xA5;
  ASSERT_TRUE(ru::Rand(buffer.get(), kSize));
  EXPECT_EQ(buffer[kSize], 0xA5);  // no write past the end
  // A 4 KiB window of zeros after filling would mean a piece was skipped.
  for (size_t off = 0; off < kSize; off += 4096) {
    EXPECT_TRUE(std::any_of(buffer.get() + off, buffer.get() + off + 4096, [](uint8_t b) { return b != 0; }))
        << "offset " << off;
  }
}

TEST(kxRandomUtilsTest, RandRejectsANullBufferButNotAnEmptyRequest) {
  EXPECT_TRUE(ru::Rand(nullptr, 0));
  EXPECT_FALSE(ru::Rand(nullptr, 16));
  uint8_t a[32] = {}, b[32] = {};
  ASSERT_TRUE(ru::Rand(a, sizeof a));
  ASSERT_TRUE(ru::Rand(b, sizeof b));
  EXPECT_NE(std::memcmp(a, b, sizeof a), 0);
}

}  // namespace
