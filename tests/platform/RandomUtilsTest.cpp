#include <kx/system/kxRandomUtils.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace {

namespace ru = kx::kxRandomUtils;

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
