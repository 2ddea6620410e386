#include <kx/http/HttpPolicies.h>

#include <gtest/gtest.h>

#include <string>

namespace kx::http {
namespace {

struct TableCase {
  const char* name;
  const std::string* typeName;
  const EnumToStringMap* table;
  const char* expectedTypeName;
  EnumToStringMap expected;
};

const TableCase kTables[] = {
    {"SSLValidatePolicy", &__EnumTypeNameOf_SSLValidatePolicy, &__EnumToStringMapOf_SSLValidatePolicy,
     "kx::http::SSLValidatePolicy",
     {{0, {"SVP_GlobalPolicy"}}, {1, {"SVP_VerifyPeerAndHost"}}, {2, {"SVP_NoVerify"}}}},
    {"SSLClientCertificatePolicy", &__EnumTypeNameOf_SSLClientCertificatePolicy,
     &__EnumToStringMapOf_SSLClientCertificatePolicy, "kx::http::SSLClientCertificatePolicy",
     {{0, {"SCCP_GlobalPolicy"}}, {1, {"SCCP_EnableClientCrt"}}, {2, {"SCCP_DisableClientCrt"}}}},
    {"HostNameResolutionPolicy", &__EnumTypeNameOf_HostNameResolutionPolicy,
     &__EnumToStringMapOf_HostNameResolutionPolicy, "kx::http::HostNameResolutionPolicy",
     {{0, {"HNRP_GlobalPolicy"}}, {1, {"HNRP_Whatever"}}, {2, {"HNRP_PreferIpv6"}}, {3, {"HNRP_PreferIpv4"}}}},
    {"ProxyPolicy", &__EnumTypeNameOf_ProxyPolicy, &__EnumToStringMapOf_ProxyPolicy, "kx::http::ProxyPolicy",
     {{0, {"PP_GlobalPolicy"}}, {1, {"PP_NoProxy"}}, {2, {"PP_AutomaticProxy"}}, {3, {"PP_StaticProxy"}}}},
};

class PolicyEnumTableTest : public testing::TestWithParam<TableCase> {};

TEST_P(PolicyEnumTableTest, FilledAtLoadWithExactNames) {
  EXPECT_EQ(*GetParam().typeName, GetParam().expectedTypeName);
  EXPECT_EQ(*GetParam().table, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(PolicyEnumNames, PolicyEnumTableTest, testing::ValuesIn(kTables),
                         [](const auto& info) { return std::string(info.param.name); });

struct ParseCase {
  const char* name;
  const char* declaration;
  EnumToStringMap expected;
};

const ParseCase kParseCases[] = {
    {"FirstBareNameIsZero", "A , B , C", {{0, {"A"}}, {1, {"B"}}, {2, {"C"}}}},
    {"ExplicitValueRestartsCount", "A = 5 , B , C = 2 , D", {{5, {"A"}}, {6, {"B"}}, {2, {"C"}}, {3, {"D"}}}},
    {"SharedValueKeepsOrder", "A = 1 , B = 1 , C = 0 , D", {{0, {"C"}}, {1, {"A", "B", "D"}}}},
    {"EveryBlankKindTrimmed", "\tA\n=\v3 ,\fB\r", {{3, {"A"}}, {4, {"B"}}}},
    {"NoBlanksAtAll", "A=7,B", {{7, {"A"}}, {8, {"B"}}}},
    {"EmptyText", "", {}},
    {"EmptyPiecesIgnored", "A , , B", {{0, {"A"}}, {1, {"B"}}}},
    {"ValuesOutsideAByteSkipped", "A = -1 , B , C = 255 , D", {{0, {"B"}}, {255, {"C"}}}},
};

class ParseEnumDeclarationTest : public testing::TestWithParam<ParseCase> {};

TEST_P(ParseEnumDeclarationTest, BuildsTable) {
  EXPECT_EQ(ParseEnumDeclaration(GetParam().declaration), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(PolicyEnumNames, ParseEnumDeclarationTest, testing::ValuesIn(kParseCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(PolicyEnumNamesTest, ValueNameFallsBackToDecimal) {
  EXPECT_EQ(EnumValueName(__EnumToStringMapOf_ProxyPolicy, PP_StaticProxy), "PP_StaticProxy");
  EXPECT_EQ(EnumValueName(__EnumToStringMapOf_SSLValidatePolicy, 2), "SVP_NoVerify");
  EXPECT_EQ(EnumValueName(__EnumToStringMapOf_SSLValidatePolicy, 200), "200");
  EXPECT_EQ(EnumValueName(ParseEnumDeclaration("A = 1 , B = 1"), 1), "A");
}

}  // namespace
}  // namespace kx::http
