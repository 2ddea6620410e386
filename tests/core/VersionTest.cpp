#include <kx/Version.h>

#include <gtest/gtest.h>

namespace {

using Corvix::Version;

// The composed descriptions: separators, the optional commit, the zero-padded month, unused flags ignored.
TEST(VersionTest, DescriptionsComposeTheirParts) {
  for (bool flag : {false, true}) {
    EXPECT_EQ(Version::GetDescStringMajorMinor(flag), "3.0");
    EXPECT_EQ(Version::GetDescStringMajorMinorRelease(flag), "3.0.0");
    EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevision(false, flag), "3.0.0.1226");
    EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevision(true, flag), "3.0.0.1226 #5a3c9e07d21b84f6");
  }
  EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevisionDate(), "3.0.0.1226 #5a3c9e07d21b84f6 2025-12");
}

}  // namespace
