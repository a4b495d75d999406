// The daemon's own queries of snmpd, which may not know its community, or hang: what they cost a
// poll, and what comes beside them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

constexpr char kSilent[] = "does not answer queries";
constexpr char kAgain[] = "answers queries again";
constexpr char kRole[] = "tlxHoGenericData";

// Three peers that are asked through snmpd, in seven queries.
void StartPeers(MadeUpHost *host) {
  for (const char *process : {"vexnic", "fio-snmp-agentx", "vexhealth"}) {
    host->Peer({process, "-p", "15"});
  }
}

double SecondsOfAPoll(MadeUpHost *host) {
  const double begin = Now();
  EXPECT_TRUE(host->daemon.Poll(30));
  return Now() - begin;
}

// snmpd takes requests with a community for the test's manager alone: the daemon has none, as on a
// host with SNMPv3 only.
TEST(Queries, WithoutACommunityNothingIsAsked) {
  MadeUpHost host;
  StartPeers(&host);
  host.File("/opt/snmp/vexhostd.conf", "pollInterval 15\n");
  host.snmpd.Start();
  DaemonOptions options;
  options.environment = {{"SNMPCONFPATH", "/opt/snmp"}};
  double begin = Now();
  host.daemon.Start(options);
  EXPECT_LT(Now() - begin, 10);
  for (int poll = 0; poll < 3; poll++) {
    EXPECT_LT(SecondsOfAPoll(&host), 1.8);
  }
  EXPECT_EQ(host.daemon.Count(kSilent), 0U);
  for (int i = 0; i < 20; i++) {
    EXPECT_EQ(host.Set(kRole, 's', "x"), "noError");
  }
}

TEST(Queries, AnUnknownCommunityCostsThePollsLittle) {
  MadeUpHost host;
  StartPeers(&host);
  host.File("/etc/snmp/vexhostd.conf", "community unknown\n");
  double begin = Now();
  host.Start();
  EXPECT_LT(Now() - begin, 10);  // it was fourteen seconds
  for (int poll = 0; poll < 4; poll++) {
    EXPECT_LT(SecondsOfAPoll(&host), 2);
  }
  EXPECT_EQ(host.daemon.Count(kSilent), 1U) << host.daemon.Log();
  // Sets are decided between the polls, and a short poll holds them up for less than they wait.
  int accepted = 0;
  for (int i = 0; i < 20; i++) {
    if (i % 5 == 0) {
      host.daemon.BeginPoll();
    }
    accepted += host.Set(kRole, 's', "x") == "noError" ? 1 : 0;
  }
  EXPECT_GE(accepted, 16);
}

TEST(Queries, AFrozenSnmpdIsAskedOnceAPollAndFoundAgain) {
  MadeUpHost host;
  SnmpdOptions options;
  options.all_modules = true;
  for (const char *oid : {"18.1.1.0", "18.1.2.0", "18.1.3.0", "172.1.1.0", "172.1.2.0",
                          "172.1.3.0", "6.2.5.17.0"}) {
    options.extra += std::string("override .1.3.6.1.4.1.4891.") + oid + " integer 2\n";
  }
  StartPeers(&host);
  host.snmpd.Start(options);
  host.daemon.Start();
  ASSERT_TRUE(host.daemon.Poll());
  const std::string healthy = host.Get("tlxHoMibHealthStatusArray");
  EXPECT_EQ(host.daemon.Count(kSilent), 0U);

  host.snmpd.Freeze();
  EXPECT_LT(SecondsOfAPoll(&host), 4);  // the full patience, once
  for (int poll = 0; poll < 3; poll++) {
    EXPECT_LT(SecondsOfAPoll(&host), 2);
  }
  EXPECT_EQ(host.daemon.Count(kSilent), 1U);
  host.snmpd.Thaw();
  ASSERT_TRUE(host.daemon.WaitServed());
  EXPECT_TRUE(Eventually([&] {
    return host.daemon.Poll() && host.Get("tlxHoMibHealthStatusArray") == healthy;
  }));
  EXPECT_EQ(host.daemon.Count(kSilent), 1U);
  EXPECT_EQ(host.daemon.Count(kAgain), 1U) << host.daemon.Log();
}

TEST(Queries, TheDaemonEndsBesideAFrozenSnmpd) {
  MadeUpHost host;
  StartPeers(&host);
  host.Start();
  host.snmpd.Freeze();
  host.daemon.BeginPoll();
  Pause(0.3);  // it is waiting for an answer
  const double begin = Now();
  EXPECT_EQ(host.daemon.Stop(), 0);
  EXPECT_LT(Now() - begin, 1.8);
}

}  // namespace
