#include "identity/hwinfo.h"

#include <gtest/gtest.h>

#include "tests/support/recording_framework.h"

namespace {

constexpr char kObject[] = "host/hwinfo";
constexpr char kPlatform[] = "tlxHoHWInfoPlatform";

TEST(HardwareInfo, FifthByteDecides) {
  rec::PutEv("ZTHRN4", std::string("\1\2\3\4\0", 5));
  ASSERT_EQ(do_hwinfo(), 0);
  EXPECT_EQ(rec::Int(kObject, kPlatform), 1);
  EXPECT_EQ(rec::Publications(kObject), 1);
  EXPECT_EQ(rec::Live(kObject)->flag, 1);
  EXPECT_EQ(rec::Live(kObject)->data_size, 4);
  EXPECT_EQ(rec::Live(kObject)->var_count, 1);
}

TEST(HardwareInfo, AnythingButZeroIsMarked) {
  rec::PutEv("ZTHRN4", std::string("\0\0\0\0\x80\0\0", 7));
  ASSERT_EQ(do_hwinfo(), 0);
  EXPECT_EQ(rec::Int(kObject, kPlatform), 5);
}

TEST(HardwareInfo, WithoutTheEvNothingIsPublished) {
  ASSERT_EQ(do_hwinfo(), 0);
  EXPECT_NE(rec::Live(kObject), nullptr);
  EXPECT_EQ(rec::Publications(kObject), 0);
  EXPECT_TRUE(rec::Messages().empty());
}

TEST(HardwareInfo, AShortEvIsNone) {
  rec::PutEv("ZTHRN4", "\1\2\3\4");
  ASSERT_EQ(do_hwinfo(), 0);
  EXPECT_EQ(rec::Publications(kObject), 0);
  EXPECT_EQ(rec::Messages(), std::vector<std::string>{
                                 "EV ZTHRN4: 4 bytes of the 5 that are needed, taken as absent\n"});
}

TEST(HardwareInfo, FailsWithoutItsObject) {
  rec::Fail("create_obj", kObject);
  EXPECT_EQ(do_hwinfo(), -1);
  EXPECT_EQ(rec::Count("get_ev"), 0);
}

}  // namespace
