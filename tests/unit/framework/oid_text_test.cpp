#include "framework/snmp/oid_text.h"

#include <gtest/gtest.h>

#include <string>

namespace vex {
namespace {

using Numbers = std::vector<uint32_t>;

TEST(OidText, NumericWithAndWithoutLeadingDot) {
  EXPECT_EQ(ParseOid("1.3.6.1.4.1.4891.18.1.1.0"), (Numbers{1, 3, 6, 1, 4, 1, 4891, 18, 1, 1, 0}));
  EXPECT_EQ(ParseOid(".1.3.6"), (Numbers{1, 3, 6}));
  EXPECT_EQ(ParseOid("2.999"), (Numbers{2, 999}));
}

TEST(OidText, EnterprisesPrefix) {
  EXPECT_EQ(ParseOid("enterprises.4891.172.1.3.0"),
            (Numbers{1, 3, 6, 1, 4, 1, 4891, 172, 1, 3, 0}));
  EXPECT_EQ(ParseOid("enterprises"), (Numbers{1, 3, 6, 1, 4, 1}));
}

TEST(OidText, RefusesWhatIsNotAnOid) {
  for (const char *text : {"",
                           ".",
                           "1",
                           "1.",
                           "1..3",
                           "..1.3",
                           "1.3.",
                           "1.x",
                           "-1.3",
                           "1.-3",
                           "1.+3",
                           "1. 3",
                           " 1.3",
                           "1.3 ",
                           "3.1",
                           "1.40",
                           "0.40",
                           "iso.3",
                           "enterprisesx.1",
                           "enterprises.",
                           "enterprises..1",
                           "mib-2.1",
                           "1.3.4294967296",
                           "1.3.99999999999999999999",
                           "0x1.3"}) {
    EXPECT_EQ(ParseOid(text), std::nullopt) << text;
  }
  EXPECT_EQ(ParseOid(std::string_view("1.3\0.4", 6)), std::nullopt);
}

TEST(OidText, LargestNumberAndLength) {
  EXPECT_EQ(ParseOid("1.3.4294967295"), (Numbers{1, 3, 4294967295U}));
  std::string text = "1.3";
  for (size_t i = 2; i < kMaxOidLength; i++) {
    text += ".7";
  }
  ASSERT_TRUE(ParseOid(text));
  EXPECT_EQ(ParseOid(text)->size(), kMaxOidLength);
  EXPECT_EQ(ParseOid(text + ".7"), std::nullopt);
}

}  // namespace
}  // namespace vex
