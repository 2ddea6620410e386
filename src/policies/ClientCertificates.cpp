// The setters of HttpPolicies that switch TLS client authentication on, from memory or from files, in
// PEM form (certificate and key apart) or as one PKCS#12 container. They are the only way to reach
// SCCP_EnableClientCrt. The bytes are stored as given: a bad certificate shows up when a transfer
// hands it to TLS, where the error names what is wrong with it.

#include <kx/http/HttpPolicies.h>
#include <kx/system/kxIoDeviceFileStream.h>
#include <kx/system/kxLog.h>
#include <kx/system/kxStringUtils.h>

#include <exception>
#include <string>
#include <vector>

namespace kx {
namespace http {

namespace {

constexpr const char* kLogCategory = "http";

// The log texts. The key file's open failure carries one blank more than the others; programs that
// scan logs rely on both spellings, so they stay as they are.
constexpr const char* kInvalidBlob = "Invalid input blob";
constexpr const char* kFailToOpen = "fail to open :";
constexpr const char* kFailToOpenKey = "fail to open : ";
constexpr const char* kEmptyFile = "empty file : ";

enum class FileReadResult { kOk, kUnusable, kEmpty };

// Reads the whole file into `bytes`. kUnusable covers every way the file cannot be read (missing,
// unreadable, a directory, unseekable, shrinking while read, too large to hold): the caller reports all
// of them with the open-failure text, so that each failure has exactly one message.
FileReadResult ReadWholeFile(const std::string& path, std::vector<char>& bytes) {
  kxIoDeviceFileStream file;
  if (!file.open(path, kxIoDevice::DW_Read, kxIoDeviceFileStream::OF_Binary)) {
    return FileReadResult::kUnusable;
  }
  if (!file.seekFrom(0, kxIoDeviceRandomAccess::SO_End)) {
    return FileReadResult::kUnusable;
  }
  const int64_t size = file.getPosition();
  if (size < 0 || !file.seek(0)) {
    return FileReadResult::kUnusable;
  }
  if (size == 0) {
    return FileReadResult::kEmpty;
  }
  try {
    bytes.resize(static_cast<size_t>(size));
  } catch (const std::exception&) {  // bad_alloc or length_error: a file no certificate could be
    return FileReadResult::kUnusable;
  }
  size_t done = 0;
  while (done < bytes.size()) {
    const size_t got = file.read(bytes.data() + done, bytes.size() - done);
    if (got == 0) {
      return FileReadResult::kUnusable;
    }
    done += got;
  }
  return FileReadResult::kOk;
}

// Reads `path` and logs the failure with `openFailureText`; true when `bytes` holds the contents.
bool ReadCertificateFile(const std::string& path, const char* openFailureText, std::vector<char>& bytes) {
  switch (ReadWholeFile(path, bytes)) {
    case FileReadResult::kOk:
      return true;
    case FileReadResult::kUnusable:
      kxLog::log(kLogTypeError, kLogCategory, openFailureText + path);
      return false;
    case FileReadResult::kEmpty:
      kxLog::log(kLogTypeError, kLogCategory, kEmptyFile + path);
      return false;
  }
  return false;
}

}  // namespace

bool HttpPolicies::setClientCertificatePolicyBlobPEM(const char* certificate, size_t certificateSize,
                                                     const char* key, size_t keySize,
                                                     const std::string& password) {
  const bool valid = certificate != nullptr && certificateSize != 0 && key != nullptr && keySize != 0;
  // Copy before wiping: the arguments may point into this object's own certificate, key or pass phrase.
  std::vector<char> certificateCopy;
  std::vector<char> keyCopy;
  std::string passwordCopy;
  if (valid) {
    certificateCopy.assign(certificate, certificate + certificateSize);
    keyCopy.assign(key, key + keySize);
    passwordCopy = password;
  }
  wipeClientCertificateMaterial();
  clientCertificatePolicy_ = SCCP_GlobalPolicy;
  if (!valid) {
    kxLog::log(kLogTypeError, kLogCategory, kInvalidBlob);
    return false;
  }
  clientCertificate_ = certificateCopy;
  clientKey_ = keyCopy;
  clientKeyPassword_ = passwordCopy;
  WipeSecretBytes(certificateCopy);
  WipeSecretBytes(keyCopy);
  kxStringUtils::SecureClear(passwordCopy);
  clientCertificatePolicy_ = SCCP_EnableClientCrt;
  return true;
}

bool HttpPolicies::setClientCertificatePolicyBlobP12(const char* container, size_t size,
                                                     const std::string& password) {
  const bool valid = container != nullptr && size != 0;
  std::vector<char> containerCopy;
  std::string passwordCopy;
  if (valid) {
    containerCopy.assign(container, container + size);
    passwordCopy = password;
  }
  wipeClientCertificateMaterial();
  clientCertificatePolicy_ = SCCP_GlobalPolicy;
  if (!valid) {
    kxLog::log(kLogTypeError, kLogCategory, kInvalidBlob);
    return false;
  }
  clientCertificate_ = containerCopy;
  clientKeyPassword_ = passwordCopy;
  WipeSecretBytes(containerCopy);
  kxStringUtils::SecureClear(passwordCopy);
  clientCertificatePolicy_ = SCCP_EnableClientCrt;
  return true;
}

bool HttpPolicies::setClientCertificatePolicyFilePEM(const std::string& certificatePath,
                                                     const std::string& keyPath, const std::string& password) {
  // The pass phrase and the paths may be strings of this object (the pass phrase surely could be):
  // keep copies before the material is wiped.
  std::string passwordCopy = password;
  const std::string certificatePathCopy = certificatePath;
  const std::string keyPathCopy = keyPath;
  wipeClientCertificateMaterial();
  clientCertificatePolicy_ = SCCP_GlobalPolicy;

  std::vector<char> certificate;
  std::vector<char> key;
  const bool ok = ReadCertificateFile(certificatePathCopy, kFailToOpen, certificate) &&
            ReadCertificateFile(keyPathCopy, kFailToOpenKey, key) &&
            setClientCertificatePolicyBlobPEM(certificate.data(), certificate.size(), key.data(), key.size(),
                                              passwordCopy);
  WipeSecretBytes(certificate);
  WipeSecretBytes(key);
  kxStringUtils::SecureClear(passwordCopy);
  return ok;
}

bool HttpPolicies::setClientCertificatePolicyFileP12(const std::string& containerPath, const std::string& password) {
  std::string passwordCopy = password;
  const std::string containerPathCopy = containerPath;
  wipeClientCertificateMaterial();
  clientCertificatePolicy_ = SCCP_GlobalPolicy;

  std::vector<char> container;
  const bool ok = ReadCertificateFile(containerPathCopy, kFailToOpen, container) &&
            setClientCertificatePolicyBlobP12(container.data(), container.size(), passwordCopy);
  WipeSecretBytes(container);
  kxStringUtils::SecureClear(passwordCopy);
  return ok;
}

}  // namespace http
}  // namespace kx
