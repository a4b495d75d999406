// The memory group.
#include <algorithm>

#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

// Size and free of physical memory and of swap.
std::vector<std::string> Memory(MadeUpHost *host) {
  return host->GetTogether({"tlxHoPhysicalMemorySize", "tlxHoPhysicalMemoryFree",
                            "tlxHoPagingMemorySize", "tlxHoPagingMemoryFree"});
}

std::vector<std::string> Integers(const std::vector<std::string> &numbers) {
  std::vector<std::string> values;
  for (const std::string &number : numbers) {
    values.push_back("INTEGER: " + number);
  }
  return values;
}

}  // namespace

TEST(Memory, IsServedInMegabytes) {
  MadeUpHost host;
  host.Start();
  EXPECT_EQ(Memory(&host), Integers({"2000", "1000", "1000", "500"}));
  EXPECT_EQ(MadeUpHost::Published("host/memory", "tlxHoPhysicalMemorySize"), "2000");
  EXPECT_EQ(MadeUpHost::Published("host/memory", "tlxHoPagingMemoryFree"), "500");
}

TEST(Memory, FollowsTheMachine) {
  MadeUpHost host;
  host.Start();
  host.Proc("meminfo",
            "MemTotal: 8388608 kB\nMemFree: 1023 kB\nSwapTotal: 1024 kB\nSwapFree: 2047 kB\n");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(Memory(&host), Integers({"8192", "0", "1", "1"}));
}

TEST(Memory, WithoutSwap) {
  MadeUpHost host;
  host.Proc("meminfo", "MemTotal: 4096 kB\nMemFree: 2048 kB\n");
  host.Start();
  EXPECT_EQ(Memory(&host), Integers({"4", "2", "-1", "-1"}));
  host.Proc("meminfo", "SwapTotal: 3072 kB\n");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(Memory(&host), Integers({"4", "2", "3", "-1"}));
}

TEST(Memory, KeysAreTakenWithoutRegardToCase) {
  MadeUpHost host;
  host.Proc("meminfo", "MEMTOTAL:4096\nmemfree:\t 3072\nX: 1\nSwapCached: 99999 kB\n");
  host.Start();
  EXPECT_EQ(Memory(&host), Integers({"4", "3", "-1", "-1"}));
}

TEST(Memory, TooLargeAValueIsNotTaken) {
  MadeUpHost host;
  host.Start();
  // The largest unsigned 32-bit value stands for overflow; the one below it is a size.
  host.Proc("meminfo",
            "MemTotal: 4294967295 kB\nMemFree: 4294967294 kB\n"
            "SwapTotal: 99999999999999999999999 kB\nSwapFree: 512 kB\n");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(Memory(&host), Integers({"2000", "4194303", "1000", "0"}));
  EXPECT_EQ(host.daemon.LinesWith("do_memory"),
            (std::vector<std::string>{"do_memory: MemTotal too large for unsigned long",
                                      "do_memory: SwapTotal too large for unsigned long"}));
}

TEST(Memory, ComplainsSixTimesAKey) {
  MadeUpHost host;
  host.Start();
  host.Proc("meminfo",
            "MemTotal: 4294967295 kB\nMemFree: 4294967295 kB\n"
            "SwapTotal: 4294967295 kB\nSwapFree: 4294967296 kB\n");
  for (int poll = 1; poll <= 7; poll++) {
    ASSERT_TRUE(host.daemon.Poll());
    for (const char *key : {"MemTotal", "MemFree", "SwapTotal", "SwapFree"}) {
      EXPECT_EQ(
          host.daemon.Count(std::string("do_memory: ") + key + " too large for unsigned long"),
          static_cast<size_t>(std::min(poll, 6)));
    }
  }
  EXPECT_EQ(host.daemon.LinesWith("do_memory").size(), 24U);
  EXPECT_EQ(Memory(&host), Integers({"2000", "1000", "1000", "500"}));
}

TEST(Memory, AnUnreadableFileLeavesTheValues) {
  MadeUpHost host;
  host.ComposeProc();
  host.Start();
  auto before = MadeUpHost::Object("host/memory");
  host.Remove("/proc/meminfo");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(Memory(&host), Integers({"2000", "1000", "1000", "500"}));
  auto after = MadeUpHost::Object("host/memory");
  ASSERT_TRUE(before && after);
  EXPECT_EQ(after->sequence, before->sequence);
  EXPECT_EQ(host.daemon.LinesWith("do_memory"), std::vector<std::string>{});
}

TEST(Memory, NoFileAtStart) {
  MadeUpHost host;
  host.ComposeProc();
  host.Remove("/proc/meminfo");
  host.Start();
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "No Such Instance currently exists at this OID");
  EXPECT_FALSE(MadeUpHost::Object("host/memory"));
  host.Proc("meminfo", "MemTotal: 4096 kB\n");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(Memory(&host), Integers({"4", "-1", "-1", "-1"}));
}
