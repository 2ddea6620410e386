#include <kx/Version.h>

#include <gtest/gtest.h>

namespace {

using Corvix::Version;

TEST(VersionTest, NumbersOfThisBuild) {
  EXPECT_EQ(Version::GetMajor(), 3);
  EXPECT_EQ(Version::GetMinor(), 0);
  EXPECT_EQ(Version::GetRelease(), 0);
  EXPECT_EQ(Version::GetRevision(), 1226);
  EXPECT_EQ(Version::GetCommitId(), "5a3c9e07d21b84f6");
  EXPECT_EQ(Version::GetYear(), 2025);
  EXPECT_EQ(Version::GetMonth(), 12);
  EXPECT_FALSE(Version::IsBeta());
  EXPECT_FALSE(Version::IsDebug());
  EXPECT_FALSE(Version::IsDev());
}

TEST(VersionTest, DescriptionsIgnoreTheirUnusedFlags) {
  for (bool flag : {false, true}) {
    SCOPED_TRACE(flag);
    EXPECT_EQ(Version::GetDescStringMajorMinor(flag), "3.0");
    EXPECT_EQ(Version::GetDescStringMajorMinorRelease(flag), "3.0.0");
    EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevision(false, flag), "3.0.0.1226");
    EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevision(true, flag), "3.0.0.1226 #5a3c9e07d21b84f6");
  }
  EXPECT_EQ(Version::GetDescStringMajorMinorReleaseRevisionDate(), "3.0.0.1226 #5a3c9e07d21b84f6 2025-12");
}

}  // namespace
