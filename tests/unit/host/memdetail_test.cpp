// The parser of /proc/meminfo for the memory details.
#include "detail/memdetail.h"

#include <gtest/gtest.h>

#include <utility>

#include "common/sources.h"
#include "tests/support/recording_framework.h"

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

TEST(MemoryDetail, TooLargeAValueIsClampedToTheLargest) {
  EXPECT_EQ(megabytes_of_line("Cached: 2199023255551 kB\n", "Cached"), INT32_MAX);
  EXPECT_EQ(megabytes_of_line("Cached: 99999999999999999999999 kB\n", "Cached"), INT32_MAX);
}

TEST(MemoryDetail, WhatCannotBeReadIsNotKnown) {
  using Both = std::pair<int32_t, int32_t>;
  const auto published = [] {
    EXPECT_EQ(do_memdetail(), 0);
    return Both(rec::Int("host/memdetail", "tlxHoMemoryAvailable"),
                rec::Int("host/memdetail", "tlxHoMemoryCached"));
  };
  rec::PutFile(memory_sizes_path, "MemAvailable: 2048 kB\nCached: 1024 kB\nSwapCached: 9999 kB\n");
  EXPECT_EQ(published(), Both(2, 1));
  rec::Fail("fopen", memory_sizes_path);
  EXPECT_EQ(published(), Both(-1, -1));
  rec::StopFailing();
  rec::BreakReads(memory_sizes_path, 1, 25);
  EXPECT_EQ(published(), Both(-1, -1));
  rec::PutFile(memory_sizes_path, "Cached: 1024 kB\n");
  EXPECT_EQ(published(), Both(-1, 1));
}

TEST(MemoryDetail, IsMadeByAPollWhenTheStartCouldNot) {
  rec::PutFile(memory_sizes_path, "Cached: 1024 kB\n");
  rec::Fail("create_obj", "host/memdetail");
  EXPECT_EQ(do_memdetail(), -1);
  rec::StopFailing();
  EXPECT_EQ(do_memdetail(), 0);
  EXPECT_EQ(rec::Int("host/memdetail", "tlxHoMemoryCached"), 1);
}

}  // namespace
