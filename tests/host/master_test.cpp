// The daemon behind a master that comes and goes, and the master before an agent that does.
#include <future>

#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

constexpr char kNoObject[] = "No Such Object available on this agent at this OID";

}  // namespace

TEST(Master, MayBeAbsentAtStart) {
  MadeUpHost host;
  host.daemon.Start();
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_TRUE(MadeUpHost::Object("host/memory"));
  host.snmpd.Start();
  double begin = Now();
  ASSERT_TRUE(host.daemon.WaitServed());
  EXPECT_LT(Now() - begin, 1);
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 2000");
}

TEST(Master, IsKilledAndRestartedTwentyTimes) {
  MadeUpHost host;
  host.Start();
  ASSERT_TRUE(host.daemon.Poll());
  const auto files = SettledFiles(host.daemon.pid());
  for (int life = 0; life < 20; life++) {
    host.snmpd.Kill();
    host.snmpd.Start();
    double begin = Now();
    ASSERT_TRUE(host.daemon.WaitServed()) << life;
    EXPECT_LT(Now() - begin, 1) << life;
    EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 2000");
  }
  EXPECT_EQ(SettledFiles(host.daemon.pid()).size(), files.size());
  EXPECT_EQ(host.Walk().size(), host.BulkWalk().size());
}

TEST(Master, IsStoppedAndStartedLater) {
  MadeUpHost host;
  host.Start();
  host.snmpd.Stop();
  for (int i = 0; i < 3; i++) {
    ASSERT_TRUE(host.daemon.Poll());
  }
  host.Proc("meminfo", "MemTotal: 4096 kB\n");
  ASSERT_TRUE(host.daemon.Poll());
  Pause(2);
  host.snmpd.Start();
  double begin = Now();
  ASSERT_TRUE(host.daemon.WaitServed());
  EXPECT_LT(Now() - begin, 1);
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 4");
}

TEST(Master, SocketAppearsLater) {
  // Also its directory is not there yet.
  MadeUpHost host;
  host.Remove("/var/agentx");
  host.daemon.Start();
  Pause(0.3);
  host.Directory("/var/agentx");
  host.snmpd.Start();
  double begin = Now();
  ASSERT_TRUE(host.daemon.WaitServed());
  EXPECT_LT(Now() - begin, 1);
}

TEST(Master, MayFreeze) {
  MadeUpHost host;
  host.Start();
  host.snmpd.Freeze();
  // What the polls ask the master has two seconds in all; nothing else waits for it.
  for (int i = 1; i <= 2; i++) {
    host.Proc("meminfo", "MemTotal: " + std::to_string(i * 1024) + " kB\n");
    ASSERT_TRUE(host.daemon.Poll());
    EXPECT_EQ(MadeUpHost::Published("host/memory", "tlxHoPhysicalMemorySize"), std::to_string(i));
  }
  host.snmpd.Thaw();
  ASSERT_TRUE(host.daemon.WaitServed());
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 2");
}

TEST(Master, IsFrozenWhenTheDaemonEnds) {
  MadeUpHost host;
  host.Start();
  host.snmpd.Freeze();
  double begin = Now();
  EXPECT_EQ(host.daemon.Stop(), 0);
  EXPECT_LT(Now() - begin, 1.8);
  EXPECT_EQ(MadeUpHost::Objects(), std::vector<std::string>{});
}

// Without a thread or a descriptor for its SNMP side the daemon is of no use.
TEST(Master, CannotBeReachedWithoutAnSnmpSide) {
  const std::pair<const char *, const char *> cases[] = {
      {"ulimit -n 4", "vexhostd: Can't start the SNMP side: Too many open files"},
      // The stack of a thread would be larger than the address space.
      {"ulimit -s 200000000000",
       "vexhostd: Can't start the SNMP side: Resource temporarily unavailable"}};
  for (const auto &[limit, line] : cases) {
    MadeUpHost host;
    host.Script("/opt/vexhostd", std::string(limit) + "\nexec " + DaemonPath() + " \"$@\"\n");
    DaemonOptions options;
    options.program = "/opt/vexhostd";
    options.wait = false;
    host.daemon.Start(options);
    EXPECT_EQ(host.daemon.WaitEnd(), 1) << limit << host.daemon.Log();
    EXPECT_EQ(host.daemon.LinesWith("start the SNMP side"), std::vector<std::string>{line})
        << host.daemon.Log();
    EXPECT_EQ(MadeUpHost::Objects(), std::vector<std::string>{});
  }
}

TEST(Master, SurvivesAStoppedAgentWithFiftyRequestsWaiting) {
  MadeUpHost host;
  host.Start();
  host.daemon.Signal(SIGSTOP);
  std::vector<std::unique_ptr<Process>> readers;
  for (int i = 0; i < 50; i++) {
    readers.push_back(std::make_unique<Process>());
    readers.back()->Start({"snmpget", "-v2c", "-cpublic", "-On", "-t1", "-r0", "127.0.0.1",
                           MadeUpHost::Oid("tlxHoPhysicalMemorySize")});
  }
  Pause(2);
  host.daemon.Signal(SIGCONT);
  for (auto &reader : readers) {
    ASSERT_TRUE(reader->Wait());
  }
  ASSERT_TRUE(host.daemon.WaitServed(20));
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 2000");
  ASSERT_TRUE(host.daemon.Poll());
}

TEST(Master, LosesTheDaemonAndGetsTheNext) {
  MadeUpHost host;
  host.Start();
  EXPECT_EQ(host.daemon.Stop(SIGKILL), 128 + SIGKILL);
  EXPECT_TRUE(Eventually([&] { return host.Get("tlxHoPhysicalMemorySize") == kNoObject; }));
  host.daemon.Start();
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 2000");
}

TEST(Master, BothSubtreesAreServedOnEveryMachine) {
  MadeUpHost host;
  host.Start();
  EXPECT_EQ(
      host.GetTogether({".1.3.6.1.4.1.4891.21.1.1.0", "tlxApApplianceDescription",
                        "tlxHoPhysicalMemorySize.1", "tlxHoCpuUtilMin.77", "tlxHoHWInfoPlatform"}),
      std::vector<std::string>(5, "No Such Instance currently exists at this OID"));
}

TEST(Master, IsFrozenAtStart) {
  MadeUpHost host;
  host.snmpd.Start();
  host.snmpd.Freeze();
  DaemonOptions options;
  options.program = TestAgentPath();
  options.arguments = {"plain"};
  options.wait = false;
  double begin = Now();
  host.daemon.Start(options);
  ASSERT_TRUE(host.daemon.WaitStarted());
  EXPECT_LT(Now() - begin, 3);
  ASSERT_TRUE(host.Order("name published\n"));
  EXPECT_EQ(MadeUpHost::Published("host/test", "tlxHoName"), "published");
  host.snmpd.Thaw();
  ASSERT_TRUE(host.daemon.WaitServed());
  EXPECT_EQ(host.Get("tlxHoName"), "STRING: \"published\"");
}

// Nothing is said twice of a master that stays away, and each change once.
TEST(Master, IsLoggedWhenItChanges) {
  MadeUpHost host;
  host.StartTestAgent({"plain"}, false);
  Pause(2);
  EXPECT_EQ(host.daemon.Count("master agent"), 1U) << host.daemon.Log();
  host.snmpd.Start();
  ASSERT_TRUE(host.daemon.WaitServed());
  EXPECT_TRUE(Eventually([&] { return host.daemon.Count("master agent") == 2; }))
      << host.daemon.Log();
  host.snmpd.Kill();
  ASSERT_TRUE(Eventually([&] { return host.daemon.Count("master agent") == 3; }));
  Pause(2);
  EXPECT_EQ(host.daemon.Count("master agent"), 3U) << host.daemon.Log();
}

TEST(Master, CannotBeConnectedToForAnotherReasonThanThatNobodyListens) {
  MadeUpHost host;
  host.File("/etc/snmp/vexhostd.conf", "agentXSocket /" + std::string(150, 'a') + "\n");
  host.StartTestAgent({"plain"}, false);
  EXPECT_TRUE(host.daemon.WaitLog("Can't connect to the master agent at /aaa"));
  Pause(1);
  EXPECT_EQ(host.daemon.Count("File name too long (trying again)"), 1U) << host.daemon.Log();
}

TEST(Master, RestartsDuringAPollThatHangs) {
  MadeUpHost host;
  host.Start();
  host.BlockProc("meminfo");
  host.daemon.BeginPoll();
  ASSERT_TRUE(host.WaitBlocked());
  host.snmpd.Kill();
  host.snmpd.Start();
  double begin = Now();
  ASSERT_TRUE(host.daemon.WaitServed());
  EXPECT_LT(Now() - begin, 1);
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 2000");
  EXPECT_EQ(host.daemon.Polls(), 0U);
}
