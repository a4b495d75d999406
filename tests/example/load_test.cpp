#include "tests/example/load.h"

#include <gtest/gtest.h>

#include <climits>
#include <vector>

#include "tests/support/recording_framework.h"

namespace {

constexpr char kObject[] = "host/load";

std::vector<int32_t> Parsed(const char *text) {
  std::vector<int32_t> averages(LOAD_AVERAGES, -7);
  return parse_loadavg(text, averages.data()) == 0 ? averages : std::vector<int32_t>{};
}

TEST(Load, IsParsed) {
  EXPECT_EQ(Parsed("0.25 1.50 12.07 1/100 42\n"), (std::vector<int32_t>{25, 150, 1207}));
  EXPECT_EQ(Parsed("21474836.47 21474836.48 99999999999999999999.00 1/1 1\n"),
            (std::vector<int32_t>{INT_MAX, INT_MAX, INT_MAX}));
}

TEST(Load, OfAnotherFormIsNone) {
  for (const char *text :
       {"", "\n", "0.25 1.50\n", "0.25 1.50 2 1/1 1\n", "0.2 1.50 2.00 1/1 1\n",
        "-0.25 1.50 2.00 1/1 1\n", "0.25  1.50 2.00 1/1 1\n", "0.25 1.50 2.00"}) {
    EXPECT_EQ(Parsed(text), std::vector<int32_t>{}) << text;
  }
}

TEST(Load, IsPublishedAtEveryCall) {
  rec::PutFile("/proc/loadavg", "0.25 1.50 12.07 1/100 42\n");
  ASSERT_EQ(do_load(), 0);
  EXPECT_EQ(rec::Int(kObject, "tlxHoLoadOneMin"), 25);
  EXPECT_EQ(rec::Int(kObject, "tlxHoLoadFiveMin"), 150);
  EXPECT_EQ(rec::Int(kObject, "tlxHoLoadFifteenMin"), 1207);
  EXPECT_EQ(rec::Int(kObject, "tlxHoLoadState"), 1);
  rec::PutFile("/proc/loadavg", "broken\n");
  ASSERT_EQ(do_load(), 0);
  EXPECT_EQ(rec::Publications(kObject), 2);
  EXPECT_EQ(rec::Int(kObject, "tlxHoLoadOneMin"), 25);
}

TEST(Load, IsUnknownWithoutItsSource) {
  rec::PutNothing("/proc/loadavg");
  ASSERT_EQ(do_load(), 0);
  EXPECT_EQ(rec::Int(kObject, "tlxHoLoadOneMin"), -1);
}

TEST(Load, IsJudgedByTheLimit) {
  rec::PutFile("/proc/loadavg", "1.00 0.00 0.00 1/100 42\n");
  ASSERT_EQ(do_load(), 0);
  EXPECT_EQ(rec::Set(kObject, "tlxHoLoadLimit", 99), 0);
  EXPECT_EQ(rec::Int(kObject, "tlxHoLoadState"), 3);
  EXPECT_EQ(rec::Set(kObject, "tlxHoLoadLimit", 100), 0);
  EXPECT_EQ(rec::Int(kObject, "tlxHoLoadState"), 2);
  EXPECT_EQ(rec::Set(kObject, "tlxHoLoadLimit", -1), -1);
  EXPECT_EQ(rec::Int(kObject, "tlxHoLoadLimit"), 100);
}

TEST(Load, FailsWithoutItsObject) {
  rec::PutNothing("/proc/loadavg");
  rec::Fail("create_obj", kObject);
  EXPECT_EQ(do_load(), -1);
  EXPECT_EQ(do_load(), -1);
}

}  // namespace
