// The snmpd watchdog, with a made-up pidof, ps and restart script.
#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

constexpr char kCalls[] = "/run/restarts";

void Watched(MadeUpHost &host) {
  host.Script("/sbin/pidof", "echo \"pidof $*\" >> /run/asked\necho 77\n");
  host.Command("ps", "echo \"ps $*\" >> /run/asked\necho '   VSZ'; cat /run/size\n");
  host.Script("/etc/rc.d/init.d/snmpd", "echo \"$*\" >> /run/restarts\n");
  host.File("/run/size", "10000\n");
}

}  // namespace

TEST(SnmpdWatchdog, RestartsAnSnmpdThatGrows) {
  MadeUpHost host;
  Watched(host);
  host.Start({"-p", "15", "-z"});
  EXPECT_EQ(ReadFile("/run/asked"), "pidof snmpd\nps -o vsz 77\n");
  // Within the half hour nothing is asked.
  host.File("/run/size", "20001\n");
  host.daemon.AdvanceClock(1700);
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(Lines(ReadFile("/run/asked")).size(), 2U);
  EXPECT_FALSE(Exists(kCalls));

  host.File("/run/size", "20000\n");  // exactly twice
  host.daemon.AdvanceClock(200);
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(Lines(ReadFile("/run/asked")).size(), 4U);
  EXPECT_FALSE(Exists(kCalls));

  host.File("/run/size", "20001\n");
  host.daemon.AdvanceClock(1800);
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(ReadFile(kCalls), "restart\n");
  EXPECT_EQ(
      host.daemon.Count("Restarting snmpd. Current size = 20001K. size captured ealier = 10000K"),
      1U);

  // The next check takes a new baseline.
  for (const char *size : {"50000\n", "100000\n"}) {
    host.File("/run/size", size);
    host.daemon.AdvanceClock(1800);
    ASSERT_TRUE(host.daemon.Poll());
  }
  EXPECT_EQ(ReadFile(kCalls), "restart\n");
  host.File("/run/size", "100001\n");
  host.daemon.AdvanceClock(1800);
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(ReadFile(kCalls), "restart\nrestart\n");
}

TEST(SnmpdWatchdog, RunsNothingUnlessTold) {
  MadeUpHost host;
  Watched(host);
  host.Start();
  host.daemon.AdvanceClock(2000);
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_FALSE(Exists("/run/asked"));
}

// A ps that waits for a process which hangs in the kernel, say.
TEST(SnmpdWatchdog, DoesNotWaitForEver) {
  MadeUpHost host;
  Watched(host);
  host.Command("ps", "exec sleep 864124\n");
  host.snmpd.Start();
  DaemonOptions options;
  options.arguments = {"-z"};
  options.wait = false;
  host.daemon.Start(options);
  ASSERT_TRUE(host.daemon.WaitStarted(80));
  EXPECT_EQ(host.daemon.Count("Command ran out of time and was killed (30.0 seconds): SNMPDPID="),
            1U)
      << host.daemon.Log();
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(Children(host.daemon.pid()), std::vector<pid_t>{});
}

TEST(SnmpdWatchdog, WithoutAnSnmpdOrItsScript) {
  MadeUpHost host;
  Watched(host);
  host.Script("/sbin/pidof", "exit 1\n");
  host.Start({"-z"});
  EXPECT_FALSE(Exists("/run/asked"));  // ps is not asked either
  host.Script("/sbin/pidof", "echo 77\n");
  host.daemon.AdvanceClock(1800);
  ASSERT_TRUE(host.daemon.Poll());
  host.Remove("/etc/rc.d");
  host.File("/run/size", "99999\n");
  host.daemon.AdvanceClock(1800);
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.daemon.Count("Restarting snmpd."), 1U);
}
