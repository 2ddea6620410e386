// Corvix::Version reports the fixed version values of this build of the library.
//
//   std::cout << Corvix::Version::GetDescStringMajorMinorReleaseRevisionDate();  // "3.0.0.1226 #... 2025-12"
//
// Thread-safety: immutable constants.
#pragma once

#include <kx/system/kxExport.h>

#include <string>

namespace Corvix {

class KX_EXPORT Version {
 public:
  static int GetMajor();
  static int GetMinor();
  static int GetRelease();
  static int GetRevision();
  static std::string GetCommitId();
  static int GetYear();
  static int GetMonth();
  static std::string GetDescStringMajorMinor(bool unused = false);
  static std::string GetDescStringMajorMinorRelease(bool unused = false);
  static std::string GetDescStringMajorMinorReleaseRevision(bool withCommit, bool unused = false);
  static std::string GetDescStringMajorMinorReleaseRevisionDate();
  static bool IsBeta();
  static bool IsDebug();
  static bool IsDev();
};

}  // namespace Corvix
