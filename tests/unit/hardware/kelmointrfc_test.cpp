// The library's interface while nothing is loaded. With tables it is tested in the scenarios, where
// the files of sysfs are made up.
#include <gtest/gtest.h>

#include "platform/smbios.h"

namespace {

TEST(Kelmointrfc, WithoutTables) {
  EXPECT_EQ(IsSMBIOSAvailable(), 0);
  const unsigned char own[] = {1, 4, 0, 0, 'x', 0, 0};
  const unsigned char *record = own;
  EXPECT_EQ(SmbGetRecordByType(1, 0, &record), 0);
  EXPECT_EQ(record, own);
  EXPECT_STREQ(SmbGetStringByNumber(own, 1), "");
  EXPECT_STREQ(SmbGetStringByNumber(nullptr, 1), "");
  DeinitSMBIOS();
  DeinitSMBIOS();
  EXPECT_EQ(IsSMBIOSAvailable(), 0);
}

}  // namespace
