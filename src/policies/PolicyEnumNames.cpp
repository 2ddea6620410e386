// Name tables of the policy enumerations. They are built from the very text of each enumeration's
// declaration, so that a value printed in a log reads exactly as it is spelled in code; the tables are
// filled during static initialisation of the library, before any user code can print a policy.

#include <kx/http/HttpPolicies.h>
#include <kx/system/kxStringUtils.h>

#include <climits>
#include <cstdlib>
#include <string_view>

namespace kx {
namespace http {

EnumToStringMap ParseEnumDeclaration(const std::string& declaration) {
  EnumToStringMap table;
  // The value of the last enumerator seen; the first bare name takes -1 + 1 = 0, like in C++.
  long previous = -1;
  for (const std::string& rawPiece : kxStringUtils::Split(declaration, ',')) {
    const std::string_view piece = kxStringUtils::TrimView(rawPiece);
    if (piece.empty()) {
      continue;  // "A , , B": nothing to name, and no value is consumed
    }
    std::string_view name = piece;
    long value = 0;
    const size_t equals = piece.find('=');
    if (equals != std::string_view::npos) {
      name = kxStringUtils::TrimView(piece.substr(0, equals));
      const std::string number(piece.substr(equals + 1));
      value = std::strtol(number.c_str(), nullptr, 10);
    } else {
      // Guard the increment: an explicit LONG_MAX followed by a bare name must not overflow.
      value = previous == LONG_MAX ? LONG_MAX : previous + 1;
    }
    previous = value;
    // The enumerations are stored in one unsigned byte; a value that does not fit names nothing.
    if (name.empty() || value < 0 || value > UCHAR_MAX) {
      continue;
    }
    table[static_cast<unsigned char>(value)].emplace_back(name);
  }
  return table;
}

std::string EnumValueName(const EnumToStringMap& table, unsigned char value) {
  const auto found = table.find(value);
  if (found == table.end() || found->second.empty()) {
    return kxStringUtils::ToDecimal(value);
  }
  return found->second.front();
}

// The declaration texts below must stay identical to the enumerations in HttpPolicies.h.
const std::string __EnumTypeNameOf_SSLValidatePolicy = "kx::http::SSLValidatePolicy";
const EnumToStringMap __EnumToStringMapOf_SSLValidatePolicy =
    ParseEnumDeclaration("SVP_GlobalPolicy = 0 , SVP_VerifyPeerAndHost , SVP_NoVerify");

const std::string __EnumTypeNameOf_SSLClientCertificatePolicy = "kx::http::SSLClientCertificatePolicy";
const EnumToStringMap __EnumToStringMapOf_SSLClientCertificatePolicy =
    ParseEnumDeclaration("SCCP_GlobalPolicy = 0 , SCCP_EnableClientCrt , SCCP_DisableClientCrt");

const std::string __EnumTypeNameOf_HostNameResolutionPolicy = "kx::http::HostNameResolutionPolicy";
const EnumToStringMap __EnumToStringMapOf_HostNameResolutionPolicy =
    ParseEnumDeclaration("HNRP_GlobalPolicy = 0 , HNRP_Whatever , HNRP_PreferIpv6 , HNRP_PreferIpv4");

const std::string __EnumTypeNameOf_ProxyPolicy = "kx::http::ProxyPolicy";
const EnumToStringMap __EnumToStringMapOf_ProxyPolicy =
    ParseEnumDeclaration("PP_GlobalPolicy = 0 , PP_NoProxy , PP_AutomaticProxy , PP_StaticProxy");

}  // namespace http
}  // namespace kx
