// Sets of whatever an agent makes writable, through the tests' own agent (test_agent.cpp tells what
// its handlers do with a value).
#include <algorithm>
#include <functional>

#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

constexpr char kNumber[] = "tlxHoOsCommonPollFreq";
constexpr char kRole[] = "tlxHoSystemRole";
constexpr char kDetail[] = "tlxHoSystemRoleDetail";

// The seconds of the quickest; the others may have waited for a busy machine.
double QuickestOfThree(const std::function<void()> &once) {
  double quickest = 60;
  for (int i = 0; i < 3; i++) {
    const double begin = Now();
    once();
    quickest = std::min(quickest, Now() - begin);
  }
  return quickest;
}

}  // namespace

TEST(Sets, AreAppliedByTheHandler) {
  MadeUpHost host;
  host.StartTestAgent();
  EXPECT_EQ(host.Set(kNumber, 'i', "7"), "noError");
  EXPECT_EQ(host.Get(kNumber), "INTEGER: 7");
  EXPECT_EQ(host.Set(kNumber, 'i', "-2147483648"), "noError");
  EXPECT_EQ(host.Get(kNumber), "INTEGER: -2147483648");
  // A manager reads what the handler made of it, at once, also before it is published.
  EXPECT_EQ(host.Set(kRole, 's', "shouting"), "noError");
  EXPECT_EQ(host.Get(kRole), "STRING: \"SHOUTING\"");
  EXPECT_EQ(MadeUpHost::Published("host/test", kRole), "");
  ASSERT_TRUE(host.Order("name published\n"));
  EXPECT_EQ(MadeUpHost::Published("host/test", kRole), "SHOUTING");
  EXPECT_EQ(host.daemon.Count("role check 'shouting' length 8"), 1U);
  EXPECT_EQ(host.daemon.Count("role apply 'shouting' length 8"), 1U);
  EXPECT_EQ(host.daemon.Count("number check 7 length 4 slot 2"), 1U);
  EXPECT_EQ(host.daemon.Count("number apply 7 length 4 slot 2"), 1U);
}

TEST(Sets, WithoutAHandlerAreStored) {
  MadeUpHost host;
  host.StartTestAgent();
  EXPECT_EQ(host.Set(kDetail, 's', "a detail"), "noError");
  EXPECT_EQ(host.Get(kDetail), "STRING: \"a detail\"");
  EXPECT_EQ(host.Set(kDetail, 's', "short"), "noError");
  EXPECT_EQ(host.Get(kDetail), "STRING: \"short\"");
  EXPECT_EQ(host.Set(kDetail, 's', ""), "noError");
  EXPECT_EQ(host.Get(kDetail), "\"\"");
  EXPECT_EQ(host.Set("tlxHoGUID", 'x', "000102030405060708090a0b0c0d0eff"), "noError");
  EXPECT_EQ(host.Get("tlxHoGUID"), "Hex-STRING: 00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E FF");
  ASSERT_TRUE(host.Order("rows 4 1\n"));
  EXPECT_EQ(host.Set("tlxHoSwVerName.4", 's', "renamed"), "noError");
  EXPECT_EQ(host.Get("tlxHoSwVerName.4"), "STRING: \"renamed\"");
}

TEST(Sets, AreRefused) {
  MadeUpHost host;
  host.StartTestAgent();
  EXPECT_EQ(host.Set("tlxHoName", 's', "x"), "notWritable");
  EXPECT_EQ(host.Set(kNumber, 's', "7"), "wrongType");
  EXPECT_EQ(host.Set(kNumber, 'u', "7"), "wrongType");
  EXPECT_EQ(host.Set(kRole, 'i', "7"), "wrongType");
  EXPECT_EQ(host.Set("tlxHoGUID", 'i', "7"), "wrongType");
  // 65 bytes hold 64 and the end.
  EXPECT_EQ(host.Set(kRole, 's', std::string(65, 'a')), "wrongLength");
  EXPECT_EQ(host.Set(kDetail, 's', std::string(513, 'a')), "wrongLength");
  EXPECT_EQ(host.Set("tlxHoGUID", 'x', std::string(34, '0')), "wrongLength");
  EXPECT_EQ(host.Set(kNumber, 'i', "13"), "wrongValue");
  EXPECT_EQ(host.Set(kRole, 's', ""), "wrongValue");
  EXPECT_EQ(host.Set(kNumber, 'i', "14"), "commitFailed");
  EXPECT_EQ(host.Set("tlxHoSwVerName.4", 's', "no row"), "noCreation");
  EXPECT_EQ(host.Get(kNumber), "INTEGER: 5");
  EXPECT_EQ(host.Get(kRole), "\"\"");
  // Type, access and length are decided before a handler is asked.
  EXPECT_EQ(host.daemon.Count("number "), 3U) << host.daemon.Log();
  EXPECT_EQ(host.daemon.Count("role "), 1U) << host.daemon.Log();
  EXPECT_EQ(host.Set(kRole, 's', std::string(64, 'a')), "noError");
  EXPECT_EQ(host.Get(kRole), "STRING: \"" + std::string(64, 'A') + "\"");
  EXPECT_EQ(host.Set(kDetail, 's', std::string(512, 'd')), "noError");
  EXPECT_EQ(host.Get(kDetail), "STRING: \"" + std::string(512, 'd') + "\"");
}

TEST(Sets, MayBeDisabled) {
  MadeUpHost host;
  host.StartTestAgent({"no-sets"});
  EXPECT_EQ(host.Set(kNumber, 'i', "7"), "notWritable");
  EXPECT_EQ(host.Set(kDetail, 's', "x"), "notWritable");
  EXPECT_EQ(host.Get(kNumber), "INTEGER: 5");
  EXPECT_EQ(host.daemon.Count("number "), 0U);
}

TEST(Sets, OfSeveralVariablesAreAllOrNothing) {
  MadeUpHost host;
  host.StartTestAgent();
  EXPECT_EQ(host.Set({{kNumber, 'i', "9"}, {kDetail, 's', "d"}, {kRole, 's', ""}}), "wrongValue");
  EXPECT_EQ(host.Set({{kDetail, 's', "d"}, {kNumber, 'i', "9"}, {"tlxHoName", 's', "x"}}),
            "notWritable");
  EXPECT_EQ(host.Get(kNumber), "INTEGER: 5");
  EXPECT_EQ(host.Get(kDetail), "\"\"");
  EXPECT_EQ(host.daemon.Count("number apply"), 0U);
  EXPECT_EQ(host.Set({{kNumber, 'i', "9"}, {kDetail, 's', "d"}, {kRole, 's', "r"}}), "noError");
  EXPECT_EQ(host.GetTogether({kNumber, kDetail, kRole}),
            (std::vector<std::string>{"INTEGER: 9", "STRING: \"d\"", "STRING: \"R\""}));
  // Every check before the first apply.
  auto lines = host.daemon.LogLines();
  auto at = [&](const char *text) {
    return std::find_if(lines.begin(), lines.end(),
                        [&](const auto &line) { return line.starts_with(text); });
  };
  EXPECT_LT(at("role check 'r'"), at("number apply 9"));
  EXPECT_LT(at("number apply 9"), at("role apply 'r'"));
  EXPECT_EQ(host.daemon.Count("apply"), 2U);
}

TEST(Sets, ARunningPollRefusesThemInTime) {
  MadeUpHost host;
  host.StartTestAgent();
  host.SetOrders("name waiting\nwait 6\n");
  host.daemon.BeginPoll();
  ASSERT_TRUE(Eventually([&] { return host.Get("tlxHoName") == "STRING: \"waiting\""; }));
  EXPECT_LT(QuickestOfThree([&] {
              const double begin = Now();
              EXPECT_EQ(host.Set(kNumber, 'i', "9"), "resourceUnavailable");
              EXPECT_GT(Now() - begin, 0.4) << "it may still become free";
            }),
            0.95);
  EXPECT_EQ(host.Set(kDetail, 's', "x"), "resourceUnavailable");
  EXPECT_EQ(host.daemon.Polls(), 0U);
  ASSERT_TRUE(Eventually([&] { return host.daemon.Polls() == 1; }));
  Pause(0.3);
  EXPECT_EQ(host.Get(kNumber), "INTEGER: 5");
  EXPECT_EQ(host.Get(kDetail), "\"\"");
  EXPECT_EQ(host.daemon.Count("number "), 0U) << "never applied later";
  EXPECT_EQ(host.Set(kNumber, 'i', "9"), "noError");
  EXPECT_EQ(host.Get(kNumber), "INTEGER: 9");
}

TEST(Sets, WaitForAPollThatEndsInTime) {
  MadeUpHost host;
  host.StartTestAgent();
  host.SetOrders("name waiting\nwait 0.3\n");
  host.daemon.BeginPoll();
  ASSERT_TRUE(Eventually([&] {
    auto object = MadeUpHost::Object("host/test");
    return object && MadeUpHost::Published("host/test", "tlxHoName") == "waiting";
  }));
  EXPECT_EQ(host.Set(kNumber, 'i', "9"), "noError");
  EXPECT_EQ(host.Get(kNumber), "INTEGER: 9");
}

TEST(Sets, AHandlerThatStallsIsNotWaitedFor) {
  MadeUpHost host;
  host.StartTestAgent();
  double begin = Now();
  EXPECT_EQ(host.Set(kNumber, 'i', "21"), "resourceUnavailable");
  EXPECT_LT(Now() - begin, 1.5);
  // The check ends after its time: no apply follows.
  EXPECT_TRUE(Eventually([&] { return host.Set(kDetail, 's', "x") == "noError"; }));
  EXPECT_EQ(host.daemon.Count("number apply"), 0U);
  EXPECT_EQ(host.Get(kNumber), "INTEGER: 5");
  begin = Now();
  EXPECT_EQ(host.Set(kNumber, 'i', "22"), "commitFailed");
  EXPECT_LT(Now() - begin, 1.5);
  EXPECT_TRUE(Eventually([&] { return host.Set(kDetail, 's', "y") == "noError"; }));
  EXPECT_EQ(host.daemon.Count("number apply 22"), 1U) << "a repeated phase is recognised";
}

TEST(Sets, FromManyManagersAtOnce) {
  MadeUpHost host;
  host.StartTestAgent();
  std::vector<std::unique_ptr<Process>> managers;
  for (int i = 100; i < 120; i++) {
    managers.push_back(std::make_unique<Process>());
    managers.back()->Start({"snmpset", "-v2c", "-cprivate", "-On", "-t10", "-r0", "127.0.0.1",
                            MadeUpHost::Oid(kNumber), "i", std::to_string(i)});
  }
  for (auto &manager : managers) {
    EXPECT_EQ(manager->Wait(30), 0);
  }
  EXPECT_EQ(host.daemon.Count("number check"), 20U);
  EXPECT_EQ(host.daemon.Count("number apply"), 20U);
  std::string last = host.daemon.LogLines().back();
  EXPECT_EQ(host.Get(kNumber), "INTEGER: " + last.substr(13, 3)) << last;
}

// The daemon itself, with a poll that hangs in a file it reads.
TEST(Sets, DuringAPollOfTheDaemonThatHangs) {
  MadeUpHost host;
  host.Start();
  EXPECT_EQ(host.Set(kRole, 's', "before"), "noError");
  EXPECT_EQ(host.Get(kRole), "STRING: \"before\"");
  host.BlockProc("meminfo");
  host.daemon.BeginPoll();
  ASSERT_TRUE(host.WaitBlocked());
  EXPECT_LT(
      QuickestOfThree([&] { EXPECT_EQ(host.Set(kRole, 's', "during"), "resourceUnavailable"); }),
      0.95);
  // What needs no handler's word is decided at once; 1.4, if they waited for their deadlines.
  EXPECT_LT(QuickestOfThree([&] {
              EXPECT_EQ(host.Set(kRole, 'i', "5"), "wrongType");
              EXPECT_EQ(host.Set("tlxHoName", 's', "x"), "notWritable");
            }),
            1.2);
  host.UnblockProc("MemTotal: 4096 kB\n");
  ASSERT_TRUE(Eventually([&] { return host.daemon.Polls() == 1; }));
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get(kRole), "STRING: \"before\"");
  EXPECT_EQ(host.Set(kRole, 's', "after"), "noError");
  EXPECT_EQ(host.Get(kRole), "STRING: \"after\"");
}

TEST(Sets, AreDisabledByTheDaemonsOption) {
  MadeUpHost host;
  host.Start({"-s", "NOT_OK"});
  EXPECT_EQ(host.Set(kRole, 's', "x"), "notWritable");
  EXPECT_EQ(host.Get(kRole), "\"\"");
  EXPECT_EQ(host.daemon.Stop(), 0);
  host.daemon.Start({"-s", "OK"});
  EXPECT_EQ(host.Set(kRole, 's', "x"), "noError");
}

TEST(Sets, TheAgentDiesInTheMiddleOfOne) {
  MadeUpHost host;
  host.StartTestAgent();
  Process manager;
  manager.Start({"snmpset", "-v2c", "-cprivate", "-t5", "-r0", "127.0.0.1",
                 MadeUpHost::Oid(kNumber), "i", "22"});
  ASSERT_TRUE(host.daemon.WaitLog("number apply 22"));
  EXPECT_EQ(host.daemon.Stop(SIGKILL), 128 + SIGKILL);
  EXPECT_NE(manager.Wait(), 0);
  // The master goes on, and serves the next one.
  host.StartTestAgent();
  EXPECT_EQ(host.Get(kNumber), "INTEGER: 5");
  EXPECT_EQ(host.Set(kNumber, 'i', "6"), "noError");
}
