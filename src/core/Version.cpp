// The fixed version values of this build. The release tooling rewrites the constants below; everything
// else derives from them, so the numbers and the description texts can never disagree.

#include <kx/Version.h>

#include <string>

namespace Corvix {

namespace {
constexpr int kMajor = 3;
constexpr int kMinor = 0;
constexpr int kRelease = 0;
constexpr int kRevision = 1226;
constexpr const char* kCommitId = "5a3c9e07d21b84f6";
constexpr int kYear = 2025;
constexpr int kMonth = 12;

std::string TwoDigits(int value) { return (value < 10 ? "0" : "") + std::to_string(value); }
}  // namespace

int Version::GetMajor() { return kMajor; }
int Version::GetMinor() { return kMinor; }
int Version::GetRelease() { return kRelease; }
int Version::GetRevision() { return kRevision; }
std::string Version::GetCommitId() { return kCommitId; }
int Version::GetYear() { return kYear; }
int Version::GetMonth() { return kMonth; }

// The flags marked unused are kept for source compatibility with callers of earlier releases.
std::string Version::GetDescStringMajorMinor(bool /*unused*/) {
  return std::to_string(kMajor) + "." + std::to_string(kMinor);
}

std::string Version::GetDescStringMajorMinorRelease(bool /*unused*/) {
  return GetDescStringMajorMinor() + "." + std::to_string(kRelease);
}

std::string Version::GetDescStringMajorMinorReleaseRevision(bool withCommit, bool /*unused*/) {
  std::string text = GetDescStringMajorMinorRelease() + "." + std::to_string(kRevision);
  if (withCommit) {
    text += " #";
    text += kCommitId;
  }
  return text;
}

std::string Version::GetDescStringMajorMinorReleaseRevisionDate() {
  return GetDescStringMajorMinorReleaseRevision(true) + " " + std::to_string(kYear) + "-" + TwoDigits(kMonth);
}

bool Version::IsBeta() { return false; }
bool Version::IsDebug() { return false; }
bool Version::IsDev() { return false; }

}  // namespace Corvix
