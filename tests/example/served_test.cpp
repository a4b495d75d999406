// The group of docs/adding-a-group.md in a daemon of its own, as a manager sees it.
#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

// The kit knows the variables of the installed modules by name, not these.
constexpr char kOneMinute[] = ".1.3.6.1.4.1.4891.11.2.9.1.0";
constexpr char kLimit[] = ".1.3.6.1.4.1.4891.11.2.9.4.0";
constexpr char kState[] = ".1.3.6.1.4.1.4891.11.2.9.5.0";

}  // namespace

TEST(Example, AnAddedGroupIsServed) {
  MadeUpHost host;
  host.Proc("loadavg", "0.25 0.50 1.00 1/100 42\n");
  host.snmpd.Start();
  DaemonOptions options;
  options.program = VEX_EXAMPLE_AGENT;
  host.daemon.Start(options);

  EXPECT_EQ(host.Get(kOneMinute), "INTEGER: 25");
  EXPECT_EQ(host.Get(kState), "INTEGER: 1");
  EXPECT_EQ(host.Published("host/load", "tlxHoLoadFifteenMin"), "100");
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 2000");

  EXPECT_EQ(host.Set(kLimit, 'i', "-1"), "wrongValue");
  EXPECT_EQ(host.Set(kLimit, 'i', "100"), "noError");
  EXPECT_EQ(host.Get(kState), "INTEGER: 2");
  host.Proc("loadavg", "1.01 0.50 1.00 1/100 42\n");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get(kOneMinute), "INTEGER: 101");
  EXPECT_EQ(host.Get(kState), "INTEGER: 3");
}
