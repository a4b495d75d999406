// The parsers of /proc/loadavg and /proc/uptime.
#include "detail/load.h"

#include <gtest/gtest.h>

#include <array>

#include "common/sources.h"
#include "tests/support/recording_framework.h"

namespace {

std::array<int32_t, 3> Averages(const char *text) {
  std::array<int32_t, 3> values = {7, 7, 7};
  const bool parsed = parse_loadavg(text, values.data());
  EXPECT_EQ(parsed, values[0] != -1);
  return values;
}

using Three = std::array<int32_t, 3>;
constexpr Three kUnknown = {-1, -1, -1};

TEST(Load, AveragesAreHundredths) {
  EXPECT_EQ(Averages("0.20 0.18 1.12 1/80 11206\n"), (Three{20, 18, 112}));
  EXPECT_EQ(Averages("128.07 0.5 3"), (Three{12807, 50, 300}));
  EXPECT_EQ(Averages("1.239 2.999 0.000 1/1 1"), (Three{123, 299, 0}));
  EXPECT_EQ(Averages("0.20 0.18 1.12\n"), (Three{20, 18, 112}));
}

TEST(Load, WhatIsNoNumberIsNotKnown) {
  for (const char *text : {"", "\n", "a b c", "0.20 0.18", "0.20 0.18 x", "-1.00 0.18 0.12",
                           "nan 0.18 0.12", "0.20x 0.18 0.12", "0x1 1 1"}) {
    EXPECT_EQ(Averages(text), kUnknown) << text;
  }
}

TEST(Load, TooLargeAValueIsClampedToTheLargest) {
  EXPECT_EQ(Averages("21474836.47 21474836.48 99999999999999999999999.9"),
            (Three{INT32_MAX, INT32_MAX, INT32_MAX}));
}

TEST(Uptime, IsWholeSeconds) {
  EXPECT_EQ(parse_uptime("350735.47 234388.90\n"), 350735);
  EXPECT_EQ(parse_uptime("0.99 0.00"), 0);
  EXPECT_EQ(parse_uptime("70\n"), 70);
  EXPECT_EQ(parse_uptime("2147483648.00 1.00"), INT32_MAX);
  EXPECT_EQ(parse_uptime(""), -1);
  EXPECT_EQ(parse_uptime("soon"), -1);
}

TEST(Load, WhatCannotBeReadIsNotKnown) {
  const auto published = [] {
    EXPECT_EQ(do_load(), 0);
    return std::array<int32_t, 2>{rec::Int("host/load", "tlxHoLoadOne"),
                                  rec::Int("host/load", "tlxHoUptime")};
  };
  rec::PutFile(load_averages_path, "1.50 0.18 1.12 1/80 11206\n");
  rec::PutFile(uptime_path, "70.47 23.90\n");
  EXPECT_EQ(published(), (std::array<int32_t, 2>{150, 70}));
  rec::Fail("fopen", load_averages_path);
  EXPECT_EQ(published(), (std::array<int32_t, 2>{-1, 70}));
  rec::StopFailing();
  rec::BreakReads(uptime_path, 1, 0);
  EXPECT_EQ(published(), (std::array<int32_t, 2>{150, -1}));
  EXPECT_EQ(published(), (std::array<int32_t, 2>{150, 70}));
}

}  // namespace
