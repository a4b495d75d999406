// Notifications, through the tests' own agent.
#include <filesystem>

#include "framework/snmp/mib_table.h"
#include "platform/framework.h"
#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

std::string DescriptionOid() {
  std::string oid;
  for (uint32_t id : vex::MibTrapDescription().Oid()) {
    oid += "." + std::to_string(id);
  }
  return oid + ".0";
}

const std::string kKept = REGISTRY_ROOT "/vexhostd.traps";

// What "trap I" of the test agent looks like when it arrives.
std::vector<std::string> Variables(int number, const std::string &name) {
  return {MadeUpHost::Oid("tlxHoName") + " = STRING: \"" + name + "\"",
          MadeUpHost::Oid("tlxHoOsCommonPollFreq") + " = INTEGER: 5",
          DescriptionOid() + " = STRING: \"trap " + std::to_string(number) + "\""};
}

}  // namespace

TEST(Traps, CarryTheirVariablesAndTheDescription) {
  MadeUpHost host;
  host.traps.Start();
  host.StartTestAgent();
  ASSERT_TRUE(host.Order("trap 1\nname later\ntrap 1\n"));
  auto traps = host.traps.WaitFor(2);
  ASSERT_EQ(traps.size(), 2U);
  EXPECT_EQ(traps[0].oid, ".1.3.6.1.4.1.4891.0.11003");
  // Values are those of the moment in which it was raised.
  EXPECT_EQ(traps[0].variables, Variables(1, "first"));
  EXPECT_EQ(traps[1].variables, Variables(2, "later"));
}

TEST(Traps, MayBeDisabled) {
  MadeUpHost host;
  host.traps.Start();
  host.StartTestAgent({"no-traps"});
  ASSERT_TRUE(host.Order("trap 3\n"));
  EXPECT_EQ(host.daemon.Count("traps refused: 3"), 1U);
  EXPECT_EQ(host.traps.WaitFor(1, 0.5).size(), 0U);
}

TEST(Traps, RaisedWhileTheMasterIsDownArriveOnce) {
  MadeUpHost host;
  host.traps.Start();
  host.StartTestAgent();
  host.snmpd.Kill();
  ASSERT_TRUE(host.Order("trap 3\n"));
  host.snmpd.Start();
  auto traps = host.traps.WaitFor(3);
  ASSERT_EQ(traps.size(), 3U);
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(traps[static_cast<size_t>(i)].variables, Variables(i + 1, "first"));
  }
  ASSERT_TRUE(host.Order("trap 1\n"));
  EXPECT_EQ(host.traps.WaitFor(5, 1).size(), 4U);
}

TEST(Traps, RaisedWhileTheMasterIsDownOutliveTheAgent) {
  MadeUpHost host;
  host.traps.Start();
  host.StartTestAgent();
  host.snmpd.Kill();
  ASSERT_TRUE(host.Order("trap 3\n"));
  host.daemon.Stop();
  host.StartTestAgent({"plain"}, false);
  host.snmpd.Start();
  auto traps = host.traps.WaitFor(3);
  ASSERT_EQ(traps.size(), 3U);
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(traps[static_cast<size_t>(i)].variables, Variables(i + 1, "first"));
  }
  // Once.
  host.daemon.Stop();
  host.StartTestAgent();
  ASSERT_TRUE(host.Order("trap 1\n"));
  EXPECT_EQ(host.traps.WaitFor(5, 1).size(), 4U);
}

TEST(Traps, OutliveAnAgentThatIsKilledBeforeItCouldSendThem) {
  MadeUpHost host;
  host.traps.Start();
  host.StartTestAgent();
  host.snmpd.Kill();
  ASSERT_TRUE(host.Order("trap 2\n"));
  host.daemon.Stop();
  host.StartTestAgent({"plain"}, false);
  EXPECT_EQ(host.daemon.Stop(SIGKILL), 128 + SIGKILL);
  host.StartTestAgent({"plain"}, false);
  host.snmpd.Start();
  const auto traps = host.traps.WaitFor(2);
  ASSERT_EQ(traps.size(), 2U);
  for (int i = 0; i < 2; i++) {
    EXPECT_EQ(traps[static_cast<size_t>(i)].variables, Variables(i + 1, "first"));
  }
  host.SetOrders("");
  // Once the master has them the file goes, and another killed agent sends none again.
  EXPECT_TRUE(Eventually([&] {
    host.daemon.Poll();
    return !std::filesystem::exists(kKept);
  }));
  EXPECT_EQ(host.daemon.Stop(SIGKILL), 128 + SIGKILL);
  host.StartTestAgent();
  ASSERT_TRUE(host.Order("trap 1\n"));
  EXPECT_EQ(host.traps.WaitFor(4, 1).size(), 3U);
}

TEST(Traps, OutliveAnAgentThatIsKilledWhileTheMasterIsAway) {
  MadeUpHost host;
  host.traps.Start();
  host.StartTestAgent();
  host.snmpd.Kill();
  ASSERT_TRUE(host.Order("trap 3\n"));
  ASSERT_TRUE(Eventually([] { return std::filesystem::exists(kKept); }));
  EXPECT_EQ(host.daemon.Stop(SIGKILL), 128 + SIGKILL);
  host.SetOrders("");
  host.StartTestAgent({"plain"}, false);
  // More that wait do not replace them.
  ASSERT_TRUE(host.Order("trap 2\n"));
  host.SetOrders("");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.daemon.Stop(SIGKILL), 128 + SIGKILL);
  host.StartTestAgent({"plain"}, false);
  host.snmpd.Start();
  const auto traps = host.traps.WaitFor(5);
  ASSERT_EQ(traps.size(), 5U);
  for (int i = 0; i < 5; i++) {
    EXPECT_EQ(traps[static_cast<size_t>(i)].variables, Variables(i < 3 ? i + 1 : i - 2, "first"));
  }
  EXPECT_TRUE(Eventually([&] {
    host.daemon.Poll();
    return !std::filesystem::exists(kKept);
  }));
}

TEST(Traps, AreNotKeptWhereTheMasterTakesThem) {
  MadeUpHost host;
  host.traps.Start();
  host.StartTestAgent();
  ASSERT_TRUE(host.Order("trap 3\n"));
  EXPECT_EQ(host.traps.WaitFor(3).size(), 3U);
  host.SetOrders("");
  EXPECT_TRUE(Eventually([&] {
    host.daemon.Poll();
    return !std::filesystem::exists(kKept);
  }));
}

TEST(Traps, ThatCannotBeReadAtTheStartAreReadByALaterPoll) {
  MadeUpHost host;
  host.traps.Start();
  host.StartTestAgent();
  host.snmpd.Kill();
  ASSERT_TRUE(host.Order("trap 2\n"));
  host.daemon.Stop();
  host.SetOrders("");
  DaemonOptions options;
  options.program = TestAgentPath();
  options.arguments = {"plain"};
  options.fault = {"open", "vexhostd.traps", EMFILE, 1000};
  host.daemon.Start(options);
  ASSERT_TRUE(host.daemon.Poll());
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.daemon.Count("test_agent: Can't read the traps kept at " + kKept +
                              ": Too many open files (trying again)"),
            1U);
  // Without a chance to be read they stay, and what could not join them is counted.
  ASSERT_TRUE(host.Order("trap 3\n"));
  host.daemon.Stop();
  EXPECT_EQ(host.daemon.Count("3 traps that are not sent are lost"), 1U) << host.daemon.Log();
  host.SetOrders("");
  host.daemon.Start(options);
  host.snmpd.Start();
  host.daemon.SetFault({});
  ASSERT_TRUE(host.daemon.Poll());
  const auto traps = host.traps.WaitFor(2);
  ASSERT_EQ(traps.size(), 2U);
  for (int i = 0; i < 2; i++) {
    EXPECT_EQ(traps[static_cast<size_t>(i)].variables, Variables(i + 1, "first"));
  }
}

TEST(Traps, RaisedBeforeTheFirstMaster) {
  MadeUpHost host;
  host.traps.Start();
  host.StartTestAgent({"plain"}, false);
  ASSERT_TRUE(host.Order("trap 2\n"));
  host.snmpd.Start();
  EXPECT_EQ(host.traps.WaitFor(2).size(), 2U);
}

TEST(Traps, TheNewest256AreKept) {
  MadeUpHost host;
  host.traps.Start();
  host.StartTestAgent();
  host.snmpd.Kill();
  ASSERT_TRUE(host.Order("trap 300\n"));
  host.snmpd.Start();
  auto traps = host.traps.WaitFor(256);
  ASSERT_EQ(traps.size(), 256U);
  EXPECT_EQ(traps.front().variables, Variables(45, "first"));
  EXPECT_EQ(traps.back().variables, Variables(300, "first"));
  EXPECT_EQ(host.traps.WaitFor(257, 0.5).size(), 256U);
}

// More than the two processes' sockets hold: neither waits for the other, and none is lost.
TEST(Traps, AThousandInOneGo) {
  MadeUpHost host;
  host.traps.Start();
  host.StartTestAgent();
  ASSERT_TRUE(host.Order("trap 1000\n"));
  auto traps = host.traps.WaitFor(1000);
  ASSERT_EQ(traps.size(), 1000U);
  for (size_t i = 0; i < traps.size(); i++) {
    ASSERT_EQ(traps[i].variables, Variables(static_cast<int>(i) + 1, "first"));
  }
  EXPECT_EQ(host.Get("tlxHoName"), "STRING: \"first\"");
  EXPECT_EQ(host.Set("tlxHoSystemRoleDetail", 's', "set"), "noError");
}

TEST(Traps, TheMasterFreezesInBetween) {
  MadeUpHost host;
  host.traps.Start();
  host.StartTestAgent();
  host.snmpd.Freeze();
  ASSERT_TRUE(host.Order("trap 100\n"));
  host.snmpd.Thaw();
  auto traps = host.traps.WaitFor(100);
  ASSERT_EQ(traps.size(), 100U);
  EXPECT_EQ(traps.back().variables, Variables(100, "first"));
}

TEST(Traps, DoNotWaitForTheEndOfAPoll) {
  MadeUpHost host;
  host.traps.Start();
  host.StartTestAgent();
  host.SetOrders("trap 1\nwait 3\n");
  host.daemon.BeginPoll();
  EXPECT_EQ(host.traps.WaitFor(1).size(), 1U);
  EXPECT_EQ(host.daemon.Polls(), 0U);
}
