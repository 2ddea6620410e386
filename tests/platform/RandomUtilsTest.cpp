#include <kx/system/kxRandomUtils.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <set>
#include <string>

namespace {

namespace ru = kx::kxRandomUtils;

TEST(kxRandomUtilsTest, Uuid4TextSetsVersionAndVariantBits) {
  uint8_t bytes[16];
  for (int i = 0; i < 16; ++i) bytes[i] = static_cast<uint8_t>(i * 0x11);
  EXPECT_EQ(ru::Uuid4TextFromBytes(bytes), "00112233-4455-4677-8899-aabbccddeeff");
  std::memset(bytes, 0xff, sizeof bytes);
  EXPECT_EQ(ru::Uuid4TextFromBytes(bytes), "ffffffff-ffff-4fff-bfff-ffffffffffff");
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) seen.insert(ru::Uuid4Text());
  EXPECT_EQ(seen.size(), 1000u);
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
    ASSERT_TRUE(std::any_of(buffer.get() + off, buffer.get() + off + 4096, [](uint8_t b) { return b != 0; })) << off;
  }
  EXPECT_TRUE(ru::Rand(nullptr, 0));
  EXPECT_FALSE(ru::Rand(nullptr, 16));
}

}  // namespace
