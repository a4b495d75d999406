#include "monitors/memory.h"

#include <gtest/gtest.h>

#include <climits>

#include "tests/support/recording_framework.h"

namespace {

constexpr char kObject[] = "host/memory";
constexpr char kSize[] = "tlxHoPhysicalMemorySize";
constexpr char kFree[] = "tlxHoPhysicalMemoryFree";
constexpr char kSwap[] = "tlxHoPagingMemorySize";
constexpr char kSwapFree[] = "tlxHoPagingMemoryFree";

void Meminfo(const std::string &text) {
  rec::PutFile("/proc/meminfo", text);
}

TEST(Memory, PublishesMegabytes) {
  Meminfo(
      "MemTotal:       16314968 kB\n"
      "MemFree:         1202172 kB\n"
      "MemAvailable:    9000000 kB\n"
      "SwapCached:           12 kB\n"
      "SwapTotal:       2097148 kB\n"
      "SwapFree:        1048576 kB\n");
  ASSERT_EQ(do_memory(), 0);
  EXPECT_EQ(rec::Int(kObject, kSize), 15932);
  EXPECT_EQ(rec::Int(kObject, kFree), 1173);
  EXPECT_EQ(rec::Int(kObject, kSwap), 2047);
  EXPECT_EQ(rec::Int(kObject, kSwapFree), 1024);
  EXPECT_EQ(rec::Live(kObject)->flag, 0);
  EXPECT_EQ(rec::Live(kObject)->data_size, 16);
  EXPECT_EQ(rec::Live(kObject)->var_count, 4);
}

TEST(Memory, PublishesAtEveryCall) {
  Meminfo("MemTotal: 2048 kB\n");
  do_memory();
  do_memory();
  EXPECT_EQ(rec::Publications(kObject), 2);
  EXPECT_EQ(rec::Count("create_obj"), 1);
  EXPECT_EQ(rec::Count("find_obj", kObject), 1);
}

TEST(Memory, LessThanOneMegabyteIsNone) {
  Meminfo("MemTotal: 1023 kB\nMemFree: 1024 kB\n");
  do_memory();
  EXPECT_EQ(rec::Int(kObject, kSize), 0);
  EXPECT_EQ(rec::Int(kObject, kFree), 1);
}

TEST(Memory, WithoutSwapLinesPagingStaysUnknown) {
  Meminfo("MemTotal: 2048 kB\nMemFree: 1024 kB\n");
  do_memory();
  EXPECT_EQ(rec::Int(kObject, kSwap), -1);
  EXPECT_EQ(rec::Int(kObject, kSwapFree), -1);
}

TEST(Memory, AMissingLineKeepsTheValue) {
  Meminfo("MemTotal: 2048 kB\nMemFree: 1024 kB\n");
  do_memory();
  Meminfo("MemTotal: 4096 kB\n");
  do_memory();
  EXPECT_EQ(rec::Int(kObject, kSize), 4);
  EXPECT_EQ(rec::Int(kObject, kFree), 1);
}

TEST(Memory, LargestValueIsTooLarge) {
  Meminfo("MemTotal: 4294967295 kB\nMemFree: 4294967294 kB\n");
  ASSERT_EQ(do_memory(), 0);
  EXPECT_EQ(rec::Int(kObject, kSize), -1);
  EXPECT_EQ(rec::Int(kObject, kFree), 4194303);
  EXPECT_EQ(rec::Messages(),
            std::vector<std::string>{"do_memory: MemTotal too large for unsigned long\n"});
}

TEST(Memory, EachKeyIsReportedSixTimes) {
  const std::string huge = "99999999999999999999 kB\n";
  Meminfo("MemTotal: " + huge);
  for (int i = 0; i < 7; i++) {
    do_memory();
  }
  EXPECT_EQ(rec::Messages().size(), 6u);
  Meminfo("MemFree: " + huge + "SwapTotal: " + huge + "SwapFree: " + huge);
  rec::ForgetEvents();
  for (int i = 0; i < 7; i++) {
    do_memory();
  }
  EXPECT_EQ(rec::Count("agentlog_fprintf", "do_memory: MemTotal *"), 0);
  EXPECT_EQ(rec::Count("agentlog_fprintf", "do_memory: MemFree too large for unsigned long\n"), 6);
  EXPECT_EQ(rec::Count("agentlog_fprintf", "do_memory: SwapTotal too large for unsigned long\n"),
            6);
  EXPECT_EQ(rec::Count("agentlog_fprintf", "do_memory: SwapFree too large for unsigned long\n"), 6);
  EXPECT_EQ(rec::Messages().size(), 18u);
}

TEST(Memory, UnreadableFileIsNoFailure) {
  rec::PutNothing("/proc/meminfo");
  EXPECT_EQ(do_memory(), 0);
  EXPECT_EQ(rec::Publications(kObject), 0);
  Meminfo("MemTotal: 2048 kB\n");
  EXPECT_EQ(do_memory(), 0);
  EXPECT_EQ(rec::Int(kObject, kSize), 2);
  rec::PutNothing("/proc/meminfo");
  EXPECT_EQ(do_memory(), 0);
  EXPECT_EQ(rec::Publications(kObject), 1);
}

TEST(Memory, HalfAReadingIsNone) {
  Meminfo("MemTotal: 2048 kB\nMemFree: 1024 kB\n");
  do_memory();
  Meminfo("MemTotal: 4096 kB\nMemFree: 3072 kB\n");
  rec::BreakReads("/proc/meminfo", 1, 20);
  EXPECT_EQ(do_memory(), 0);
  EXPECT_EQ(rec::Int(kObject, kSize), 2);
  EXPECT_EQ(rec::Int(kObject, kFree), 1);
  EXPECT_EQ(rec::Publications(kObject), 1);
  EXPECT_EQ(do_memory(), 0);
  EXPECT_EQ(rec::Int(kObject, kSize), 4);
  EXPECT_EQ(rec::Int(kObject, kFree), 3);
}

TEST(Memory, FailsWithoutItsObject) {
  rec::Fail("create_obj", kObject);
  EXPECT_EQ(do_memory(), -1);
}

TEST(Memory, FailsWhenTheObjectIsNotFound) {
  Meminfo("MemTotal: 2048 kB\n");
  ASSERT_EQ(do_memory(), 0);
  rec::Fail("find_obj", kObject, 1);
  EXPECT_EQ(do_memory(), -1);
  EXPECT_EQ(do_memory(), 0);
}

TEST(MemoryParser, MatchesTheBeginningWithoutCase) {
  unsigned long kilobytes = 0;
  EXPECT_EQ(parse_meminfo_line("memtotal:\t 77 kB\n", &kilobytes), MEM_TOTAL);
  EXPECT_EQ(kilobytes, 77u);
  EXPECT_EQ(parse_meminfo_line("MEMFREE:5", &kilobytes), MEM_FREE);
  EXPECT_EQ(kilobytes, 5u);
  EXPECT_EQ(parse_meminfo_line("SwapTotal:        0 kB\n", &kilobytes), SWAP_TOTAL);
  EXPECT_EQ(kilobytes, 0u);
  EXPECT_EQ(parse_meminfo_line("SwapFree", &kilobytes), SWAP_FREE);
  EXPECT_EQ(kilobytes, 0u);
  EXPECT_EQ(parse_meminfo_line("MemTotal: 18446744073709551616 kB\n", &kilobytes), MEM_TOTAL);
  EXPECT_EQ(kilobytes, ULONG_MAX);
  EXPECT_EQ(parse_meminfo_line(" MemTotal: 5 kB\n", &kilobytes), -1);
  EXPECT_EQ(parse_meminfo_line("", &kilobytes), -1);
}

}  // namespace
