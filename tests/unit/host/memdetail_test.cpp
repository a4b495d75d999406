// The parser of /proc/meminfo for the memory details.
#include "detail/memdetail.h"

#include <gtest/gtest.h>

namespace {

TEST(MemoryDetail, ALineIsTheKeysAlone) {
  EXPECT_EQ(megabytes_of_line("MemAvailable:    2097152 kB\n", "MemAvailable"), 2048);
  EXPECT_EQ(megabytes_of_line("Cached:             1023 kB\n", "Cached"), 0);
  EXPECT_EQ(megabytes_of_line("SwapCached:         4096 kB\n", "Cached"), -1);
  EXPECT_EQ(megabytes_of_line("CachedX:            4096 kB\n", "Cached"), -1);
  EXPECT_EQ(megabytes_of_line("Cached 4096 kB\n", "Cached"), -1);
  EXPECT_EQ(megabytes_of_line("", "Cached"), -1);
}

TEST(MemoryDetail, WhatIsNoNumberIsNotKnown) {
  EXPECT_EQ(megabytes_of_line("Cached: kB\n", "Cached"), -1);
  EXPECT_EQ(megabytes_of_line("Cached: -5 kB\n", "Cached"), -1);
  EXPECT_EQ(megabytes_of_line("Cached:", "Cached"), -1);
}

TEST(MemoryDetail, TooLargeAValueIsHeldAtTheLargest) {
  EXPECT_EQ(megabytes_of_line("Cached: 2199023255551 kB\n", "Cached"), INT32_MAX);
  EXPECT_EQ(megabytes_of_line("Cached: 99999999999999999999999 kB\n", "Cached"), INT32_MAX);
}

}  // namespace
