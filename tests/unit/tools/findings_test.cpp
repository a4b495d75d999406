// What `vexreg doctor` makes of what it saw.
#include "tools/vexreg/findings.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <functional>

#include "common/sources.h"
#include "tests/support/process.h"
#include "tools/vexreg/finding_json.h"
#include "tools/vexreg/host_facts.h"

using namespace vex;

namespace {

using Line = std::vector<std::string>;

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kNow = int64_t{1'700'000'000} * kSecond;

std::string Said(const Finding &finding) {
  return RenderFinding(finding, 0);
}

bool Has(const Finding &finding, const std::string &text) {
  return Said(finding).find(text) != std::string::npos;
}

GroupFacts Published(size_t objects, int64_t age) {
  GroupFacts facts;
  facts.objects = objects;
  facts.newest_ns = kNow - age * kSecond;
  return facts;
}

// As what is known of a process that ends between opening and reading; nothing is thrown.
TEST(HostFacts, WhatCannotBeReadIsEmpty) {
  EXPECT_EQ(ReadText("/proc/self"), "");  // a directory: read(2) fails
  EXPECT_EQ(ReadText("/nonexistent"), "");
  EXPECT_TRUE(ReadText("/proc/self/status").starts_with("Name:"));
}

TEST(Findings, Processes) {
  EXPECT_EQ(Said(JudgeProcess("snmpd", {{5, 'S', 0}}, false)), "ok    snmpd: runs (process 5).\n");
  EXPECT_EQ(Said(JudgeProcess("snmpd", {{5, 'S', 0}, {7, 'R', 0}}, false)),
            "ok    snmpd: runs (processes 5, 7).\n");
  EXPECT_EQ(JudgeProcess("snmpd", {}, false).verdict, Verdict::kFail);
  EXPECT_EQ(JudgeProcess("snmpd", {}, true).verdict, Verdict::kNote);
  for (const char state : {'T', 't'}) {
    const Finding stopped = JudgeProcess("snmpd", {{5, 'S', 0}, {7, state, 0}}, false);
    EXPECT_EQ(stopped.verdict, Verdict::kFail);
    EXPECT_TRUE(Has(stopped, "kill -CONT 7.")) << Said(stopped);
  }
}

TEST(Findings, TheAgentIsOneProcessOfRoot) {
  EXPECT_EQ(JudgeAgent({{5, 'S', 0}}, false).verdict, Verdict::kOk);
  EXPECT_EQ(JudgeAgent({{5, 'S', 33}}, false).verdict, Verdict::kNote);
  EXPECT_EQ(JudgeAgent({{5, 'S', 0}, {6, 'S', 0}}, false).verdict, Verdict::kFail);
  EXPECT_TRUE(Has(JudgeAgent({{5, 'T', 0}, {6, 'S', 0}}, false), "stopped"));
}

TEST(Findings, AGuidThatOtherHostsHaveToo) {
  const std::string shared(reinterpret_cast<const char *>(guid_without_eth0),
                           sizeof(guid_without_eth0));
  const auto finding = JudgeGuid(shared);
  ASSERT_TRUE(finding);
  EXPECT_EQ(finding->verdict, Verdict::kNote);
  EXPECT_TRUE(Has(*finding, "every host without an eth0")) << Said(*finding);
  EXPECT_TRUE(Has(*finding, "tlxHoGUID.0 x")) << Said(*finding);
  EXPECT_FALSE(JudgeGuid("0123456789abcdef"));
  EXPECT_FALSE(JudgeGuid(shared.substr(0, 15)));
  EXPECT_FALSE(JudgeGuid(""));
}

TEST(Findings, StateOfAProcess) {
  const std::string rest = " 12 12 0 -1 4194560 100 0 0 0 3 1 0 0 20 0 2 0 ";  // up to the start
  ProcessFact process;
  EXPECT_TRUE(ParseStat("12 (snmpd) S 1" + rest + "5678 1000 50", &process));
  EXPECT_EQ(process.state, 'S');
  EXPECT_EQ(process.parent, 1);
  EXPECT_EQ(process.start_ticks, 5678U);
  EXPECT_TRUE(ParseStat("12 (a) R 5) b) T 7" + rest + "9", &process));
  EXPECT_EQ(process.state, 'T');
  EXPECT_EQ(process.parent, 7);
  EXPECT_EQ(process.start_ticks, 9U);
  for (const std::string &text :
       {std::string("12 (snmpd)"), std::string("12 (snmpd) S"), std::string("12 (snmpd) S x"),
        std::string(), "12 (snmpd) S 1" + rest, "12 (snmpd) S 1" + rest + "x"}) {
    EXPECT_FALSE(ParseStat(text, &process)) << text;
  }
}

TEST(Findings, ProcessesOfContainersHaveMoreNumbers) {
  EXPECT_EQ(NumbersOfProcess("Name:\tx\nNSpid:\t812\nNSpgid:\t812\n"), 1U);
  EXPECT_EQ(NumbersOfProcess("Name:\tx\nNSpid:\t812\t7\t1\nNSpgid:\t812\t7\t1\n"), 3U);
  EXPECT_EQ(NumbersOfProcess("Name:\tx\n"), 0U);
  EXPECT_EQ(NumbersOfProcess(""), 0U);
}

TEST(Findings, WhatAProcessHasForkedIsNotAnother) {
  const auto pids = [](const std::vector<ProcessFact> &processes) {
    std::vector<pid_t> numbers;
    for (const ProcessFact &process : WithoutChildren(processes)) {
      numbers.push_back(process.pid);
    }
    return numbers;
  };
  EXPECT_EQ(pids({{5, 'S', 0, 1}, {6, 'D', 0, 5}, {9, 'S', 0, 1}}), (std::vector<pid_t>{5, 9}));
  EXPECT_EQ(pids({}), std::vector<pid_t>{});
}

TEST(Findings, Communities) {
  EXPECT_EQ(JudgeCommunity(CommunitySource::kOwn, {"/x"}, 1).verdict, Verdict::kOk);
  EXPECT_EQ(JudgeCommunity(CommunitySource::kNone, {}, 0).verdict, Verdict::kFail);
  const Finding hidden = JudgeCommunity(CommunitySource::kNone, {"/a/snmpd.conf", "/b"}, 0);
  EXPECT_EQ(hidden.verdict, Verdict::kNote);
  EXPECT_TRUE(Has(hidden, "may not read /a/snmpd.conf, /b.")) << Said(hidden);
}

TEST(Findings, UsersInPlaceOfACommunity) {
  const Finding users = JudgeCommunity(CommunitySource::kNone, {}, 2);
  EXPECT_EQ(users.verdict, Verdict::kNote);
  EXPECT_TRUE(Has(users, "SNMPv3 users in alone")) << Said(users);
  // What could not be read may have one.
  EXPECT_TRUE(Has(JudgeCommunity(CommunitySource::kNone, {"/a"}, 2), "may not read /a."));
}

TEST(Findings, WhatConcernsStations) {
  EXPECT_EQ(JudgeReach(true, "/s").verdict, Verdict::kOk);
  EXPECT_EQ(JudgeReach(false, "/s").verdict, Verdict::kNote);
  EXPECT_EQ(JudgeReceivers(0, "/s").verdict, Verdict::kNote);
  EXPECT_NE(JudgeReceivers(0, "/s").text.find(" /s/integrations/"), std::string::npos);
  EXPECT_NE(JudgeReach(false, "/s").text.find(" /s/integrations/"), std::string::npos);
  EXPECT_EQ(JudgeReceivers(1, "/s").text, "notifications: snmpd.conf has 1 receiver.");
  EXPECT_EQ(JudgeReceivers(2, "/s").text, "notifications: snmpd.conf has 2 receivers.");
}

TEST(Findings, DefaultCommunities) {
  const auto judge = [](const char *token, const char *line) {
    const auto finding = JudgeDefaultCommunity({{"rocommunity", "own default"}, {token, line}});
    return finding ? finding->text : "";
  };
  EXPECT_EQ(judge("rocommunity", "public"),
            "default community: snmpd.conf lets \"public\" in from anywhere, which everybody tries "
            "first. Give stations one of their own, or SNMPv3 users.");
  EXPECT_TRUE(judge("rwcommunity", "private 192.0.2.0/24").find("(192.0.2.0/24)") !=
              std::string::npos);
  EXPECT_NE(judge("com2sec6", "user default public"), "");
  // From this machine alone, or by another name.
  for (const char *line : {"public 127.0.0.1", "public localhost", "private ::1", "mine", ""}) {
    EXPECT_EQ(judge("rocommunity", line), "") << line;
  }
  EXPECT_EQ(judge("com2secunix", "user /run/sock public"), "");
}

TEST(Findings, HowFarSnmpReaches) {
  const auto reach = [](const std::string &line, bool listening) {
    return SnmpReachOf("  sl  local_address rem_address   st tx_queue\n" + line + "\n", listening);
  };
  const std::string other = " 00000000:0000 07 00000000:00000000";
  EXPECT_EQ(reach("", false), Reach::kNowhere);
  EXPECT_EQ(reach("  1: 00000000:00A2" + other, false), Reach::kNowhere);
  EXPECT_EQ(reach("  1: 0100007F:00A1" + other, false), Reach::kLoopback);
  EXPECT_EQ(reach("  1: 0101007F:00A1" + other, false), Reach::kLoopback);
  EXPECT_EQ(reach("  1: 00000000:00A1" + other, false), Reach::kBeyond);
  EXPECT_EQ(reach("  1: 0A0200C0:00A1" + other, false), Reach::kBeyond);
  // 127 at the end of an address is none of loopback.
  EXPECT_EQ(reach("  1: 7F0200C0:00A1" + other, false), Reach::kBeyond);
  EXPECT_EQ(reach("  1: 00000000000000000000000001000000:00A1" + other, false), Reach::kLoopback);
  EXPECT_EQ(reach("  1: 0000000000000000FFFF00000100007F:00A1" + other, false), Reach::kLoopback);
  EXPECT_EQ(reach("  1: 00000000000000000000000000000000:00A1" + other, false), Reach::kBeyond);
  // Of TCP, those that listen: a connection from elsewhere says nothing.
  EXPECT_EQ(reach("  1: 00000000:00A1 00000000:0000 0A 00000000:00000000", true), Reach::kBeyond);
  EXPECT_EQ(reach("  1: 0A0200C0:00A1 0B0200C0:D3A1 01 00000000:00000000", true), Reach::kNowhere);
  EXPECT_EQ(reach("rubbish", false), Reach::kNowhere);
  EXPECT_EQ(reach("  1: 0100007F:00A1" + other + "\n  2: 0A0200C0:00A1" + other, false),
            Reach::kBeyond);
}

TEST(Findings, LinesOfACommunity) {
  using Pairs = std::vector<std::pair<std::string, std::string>>;
  const Pairs lines = {{"rocommunity", "public default -V systemonly"},
                       {"com2sec", "reader default \"secret word\""}};
  EXPECT_EQ(CommunityLine(lines, "public"),
            (Line{"rocommunity", "public", "default", "-V", "systemonly"}));
  EXPECT_EQ(CommunityLine(lines, "secret word"),
            (Line{"com2sec", "reader", "default", "secret word"}));
  EXPECT_EQ(CommunityLine(lines, "other"), Line{});
}

TEST(Findings, Sockets) {
  const auto judge = [](int error, bool other = false) {
    return JudgeSocket("/s", "/s", error, other);
  };
  EXPECT_EQ(judge(0).verdict, Verdict::kOk);
  EXPECT_TRUE(Has(judge(ENOENT), "absent: snmpd does not run, or")) << Said(judge(ENOENT));
  EXPECT_TRUE(Has(judge(ENOTDIR), "absent"));
  EXPECT_TRUE(Has(judge(ECONNREFUSED), "nobody listens"));
  EXPECT_TRUE(Has(judge(EACCES), "FAIL  AgentX socket /s: not permitted"));
  EXPECT_EQ(judge(EACCES, true).verdict, Verdict::kNote);
  EXPECT_TRUE(Has(judge(EAGAIN), "queue is full"));
  EXPECT_TRUE(Has(judge(ENAMETOOLONG), "FAIL  AgentX socket /s: File name too long"));
  EXPECT_EQ(JudgeSocket("tcp:localhost:705", "", 0, false).verdict, Verdict::kNote);
}

TEST(Findings, WhatToAddToTheView) {
  ViewFacts facts;
  facts.sessions = 1;
  facts.community_line = {"rocommunity", "public", "127.0.0.1", "-V", "systemonly"};
  EXPECT_TRUE(Has(JudgeSubtree(Subtree::kNothing, facts),
                  "Add to snmpd.conf: view systemonly included .1.3.6.1.4.1.4891; then"))
      << Said(JudgeSubtree(Subtree::kNothing, facts));
  // What everybody tries from anywhere is shown no more.
  for (const Line &line :
       {Line{"rocommunity", "public", "default", "-V", "systemonly"}, Line{"rocommunity", "public"},
        Line{"rwcommunity", "private", "10.0.0.0/8", ".1.3.6.1.2.1"}}) {
    facts.community_line = line;
    const Finding finding = JudgeSubtree(Subtree::kNothing, facts);
    EXPECT_TRUE(Has(finding,
                    "Add to snmpd.conf: rocommunity NAME 127.0.0.1 .1.3.6.1.4.1.4891, and "
                    "to vexhostd.conf: community NAME; then restart both."))
        << Said(finding);
    EXPECT_TRUE(Has(finding, "\"" + line[1] + "\"")) << Said(finding);
    EXPECT_FALSE(Has(finding, "view "));
  }
  facts.community_line = {"rocommunity", "own", "default", "-V", "systemonly"};
  EXPECT_TRUE(Has(JudgeSubtree(Subtree::kNothing, facts), "view systemonly included"));
  facts.community_line = {"rocommunity", "own", "default", ".1.3.6.1.2.1"};
  EXPECT_TRUE(Has(JudgeSubtree(Subtree::kNothing, facts), "shows .1.3.6.1.2.1 alone"));
  for (const Line &line : {Line{}, Line{"rocommunity", "own"}, Line{"com2sec", "a", "b", "c"}}) {
    facts.community_line = line;
    EXPECT_TRUE(Has(JudgeSubtree(Subtree::kNothing, facts), "view VIEW included"));
  }
}

TEST(Findings, Subtrees) {
  ViewFacts facts;
  EXPECT_EQ(JudgeSubtree(Subtree::kVisible, facts).verdict, Verdict::kOk);
  EXPECT_EQ(JudgeSubtree(Subtree::kUnanswered, facts).verdict, Verdict::kFail);
  EXPECT_EQ(JudgeSubtree(Subtree::kError, facts).verdict, Verdict::kFail);
  facts.sessions = 0;
  EXPECT_TRUE(Has(JudgeSubtree(Subtree::kNothing, facts), "no session"));
  facts.agent_pauses = true;
  EXPECT_TRUE(Has(JudgeSubtree(Subtree::kNothing, facts), "nothing there yet: the agent has just"));
  EXPECT_EQ(JudgeSubtree(Subtree::kNothing, facts).verdict, Verdict::kNote);
  facts.agent_pauses = false;
  facts.agent_seen = false;
  EXPECT_EQ(JudgeSubtree(Subtree::kNothing, facts).verdict, Verdict::kNote);
  facts.agent_known = false;
  EXPECT_EQ(JudgeSubtree(Subtree::kNothing, facts).verdict, Verdict::kFail);
}

TEST(Findings, ConnectionsOfAListener) {
  const std::string table =
      "Num       RefCount Protocol Flags    Type St Inode Path\n"
      "0000000000000000: 00000002 00000000 00010000 0001 01 4101 /var/agentx/master\n"
      "0000000000000000: 00000003 00000000 00000000 0001 03 4102 /var/agentx/master\n"
      "0000000000000000: 00000003 00000000 00000000 0001 03 4103\n"
      "0000000000000000: 00000003 00000000 00000000 0001 03 4104 /var/agentx/master2\n"
      "0000000000000000: 00000003 00000000 00000000 0001 03 4105 /with blank\n"
      "rubbish\n\n";
  EXPECT_EQ(CountConnections(table, "/var/agentx/master"), 1);
  EXPECT_EQ(CountConnections(table, "/with blank"), 1);
  EXPECT_EQ(CountConnections(table, "/other"), 0);
  EXPECT_EQ(CountConnections("", "/other"), 0);
}

TEST(Findings, ListenersOfASocket) {
  const std::string table =
      "Num       RefCount Protocol Flags    Type St Inode Path\n"
      "0000000000000000: 00000002 00000000 00010000 0005 01 4101 /run/heard\n"
      "0000000000000000: 00000002 00000000 00000000 0005 01 4102 /run/bound\n"
      "0000000000000000: 00000003 00000000 00000000 0005 03 4103 /run/connected\n"
      "0000000000000000: 00000002 00000000 00010000 0001 01 4104 /run/stream\n"
      "rubbish\n\n";
  EXPECT_TRUE(HasPacketListener(table, "/run/heard"));
  for (const char *path : {"/run/bound", "/run/connected", "/run/stream", "/run", ""}) {
    EXPECT_FALSE(HasPacketListener(table, path)) << path;
  }
}

TEST(Findings, Values) {
  EXPECT_EQ(JudgeValue("v", 5, 5).verdict, Verdict::kOk);
  EXPECT_EQ(JudgeValue("v", 5, 6).verdict, Verdict::kFail);
  EXPECT_TRUE(Has(JudgeValue("v", 5, std::nullopt), "cannot write the registry"));
  EXPECT_TRUE(Has(JudgeValue("v", std::nullopt, 5), "of another run"));
  EXPECT_EQ(JudgeValue("v", std::nullopt, std::nullopt).verdict, Verdict::kFail);
}

TEST(Findings, AgesOfAGroupOfEachPoll) {
  const Group group = {"cpu", true, true, ""};
  const auto verdict = [&](int64_t age, AgentPhase phase = AgentPhase::kRuns) {
    return JudgeGroup(group, Published(2, age), true, kNow, 15, phase).verdict;
  };
  EXPECT_EQ(verdict(0), Verdict::kOk);
  EXPECT_EQ(verdict(20), Verdict::kOk);
  EXPECT_EQ(verdict(21), Verdict::kNote);
  EXPECT_EQ(verdict(155), Verdict::kNote);
  EXPECT_EQ(verdict(156), Verdict::kFail);
  EXPECT_EQ(verdict(20, AgentPhase::kGone), Verdict::kOk);
  EXPECT_EQ(verdict(21, AgentPhase::kGone), Verdict::kFail);
  // What an earlier run has left.
  EXPECT_EQ(verdict(20, AgentPhase::kStarts), Verdict::kOk);
  EXPECT_EQ(verdict(90'000, AgentPhase::kStarts), Verdict::kNote);
  EXPECT_EQ(verdict(-5), Verdict::kOk);
  EXPECT_EQ(verdict(-6), Verdict::kNote);
}

TEST(Findings, AgesOfAGroupThatChangesSeldom) {
  const Group group = {"filesys", false, false, "no mounts"};
  EXPECT_EQ(Said(JudgeGroup(group, Published(1, 90'000), true, kNow, 15, AgentPhase::kRuns)),
            "ok    group filesys: 1 row, last published 25 h ago (only when something changes).\n");
  EXPECT_EQ(Said(JudgeGroup(group, {}, false, kNow, 15, AgentPhase::kRuns)),
            "note  group filesys: not published; no mounts.\n");
}

TEST(Findings, GroupsThatAreMissing) {
  const Group group = {"misc", true, true, ""};
  EXPECT_EQ(JudgeGroup(group, {}, false, kNow, 15, AgentPhase::kRuns).verdict, Verdict::kFail);
  EXPECT_EQ(JudgeGroup(group, {}, false, kNow, 15, AgentPhase::kGone).verdict, Verdict::kNote);
}

TEST(Findings, WhyAnObjectIsMissing) {
  const Group group = {"misc", true, true, ""};
  const Group other = {"fwver", false, false, "this machine has no source for it"};
  const auto judge = [&](const Group &one, const GroupFacts &facts, AgentPhase phase) {
    return Said(JudgeGroup(one, facts, false, kNow, 15, phase));
  };
  GroupFacts facts;
  facts.served = false;
  EXPECT_EQ(
      judge(group, facts, AgentPhase::kRuns),
      "FAIL  group misc: never published, to managers neither, though the agent runs. Look at "
      "its log.\n");
  EXPECT_EQ(judge(other, facts, AgentPhase::kRuns),
            "note  group fwver: not published; this machine has no source for it.\n");
  facts.served = true;
  for (const Group &one : {group, other}) {
    for (const AgentPhase phase : {AgentPhase::kRuns, AgentPhase::kStarts}) {
      EXPECT_EQ(judge(one, facts, phase),
                "FAIL  group " + one.name +
                    ": published to managers, but its file is missing. The agent writes it again "
                    "at its next poll; if it does not, its log says why.\n");
    }
  }
  facts.damaged = true;
  EXPECT_EQ(judge(group, facts, AgentPhase::kRuns),
            "FAIL  group misc: its file is damaged. The agent writes it again at its next poll; if "
            "it does not, its log says why.\n");
  EXPECT_EQ(judge(group, facts, AgentPhase::kGone), "note  group misc: its file is damaged.\n");
  facts.unreadable = true;
  EXPECT_EQ(
      judge(group, facts, AgentPhase::kRuns),
      "note  group misc: its file is not for this user to read. Run vexreg doctor as root.\n");
}

TEST(Findings, WhatStandsInPlaceOfAFile) {
  const Group group = {"cpu", true, true, ""};
  GroupFacts facts;
  const auto judge = [&](AgentPhase phase) {
    return Said(JudgeGroup(group, facts, facts.objects != 0, kNow, 15, phase));
  };
  const std::string next_poll =
      " The agent writes it again at its next poll; if it does not, its log says why.\n";
  const std::string remove =
      " Remove the directory: the agent writes the file at its next poll then.\n";
  facts.damaged = true;
  facts.in_place = {{"cpu", "a directory", true}};
  EXPECT_EQ(judge(AgentPhase::kRuns),
            "FAIL  group cpu: a directory stands in place of cpu." + remove);
  EXPECT_EQ(judge(AgentPhase::kGone), "note  group cpu: a directory stands in place of cpu.\n");
  facts.in_place = {{"cpu", "a pipe", false}};
  EXPECT_EQ(judge(AgentPhase::kRuns),
            "FAIL  group cpu: a pipe stands in place of cpu." + next_poll);
  facts = Published(2, 0);
  facts.in_place = {{"cpu.2", "a socket", false}, {"cpu.3", "a directory", true}};
  facts.damaged_rows = {"cpu.4"};
  EXPECT_EQ(judge(AgentPhase::kRuns),
            "FAIL  group cpu: 2 rows, but a socket stands in place of cpu.2 and something in place "
            "of 1 other, and the file of cpu.4 is damaged." +
                remove);
  facts.in_place.push_back({"cpu.5", "a device", false});
  EXPECT_EQ(judge(AgentPhase::kGone),
            "note  group cpu: 2 rows, but a socket stands in place of cpu.2 and something in place "
            "of 2 others, and the file of cpu.4 is damaged.\n");
}

TEST(Findings, RowsThatAreDamagedOrMissing) {
  const Group group = {"cpu", true, true, ""};
  GroupFacts facts = Published(2, 0);
  const auto judge = [&](AgentPhase phase) {
    return JudgeGroup(group, facts, true, kNow, 15, phase);
  };
  const std::string next_poll =
      " The agent writes it again at its next poll; if it does not, its log says why.";
  facts.damaged_rows = {"cpu.2"};
  EXPECT_EQ(judge(AgentPhase::kRuns).verdict, Verdict::kFail);
  EXPECT_EQ(judge(AgentPhase::kRuns).text,
            "group cpu: 2 rows, but the file of cpu.2 is damaged." + next_poll);
  EXPECT_EQ(judge(AgentPhase::kGone).verdict, Verdict::kNote);
  EXPECT_EQ(judge(AgentPhase::kGone).text, "group cpu: 2 rows, but the file of cpu.2 is damaged.");
  facts.missing_rows = {"cpu.3", "cpu.4"};
  EXPECT_EQ(
      judge(AgentPhase::kRuns).text,
      "group cpu: 2 rows, but the file of cpu.2 is damaged, and the files of cpu.3 and 1 other "
      "are missing, though published to managers." +
          next_poll);
  facts.damaged_rows.clear();
  facts.missing_rows = {"cpu.3", "cpu.4", "cpu.5"};
  EXPECT_EQ(judge(AgentPhase::kRuns).text,
            "group cpu: 2 rows, but the files of cpu.3 and 2 others are missing, though published "
            "to managers." +
                next_poll);
}

TEST(Findings, FilesOfAGroup) {
  for (const char *file : {"cpu", "cpu.0", "cpu.17"}) {
    EXPECT_TRUE(IsOfGroup(file, "cpu")) << file;
  }
  for (const char *file :
       {"cpu.", "cpu.old", "cpu.1.bak", "cpu.1~", "cpus", "cpu0", ".cpu.1.77", ""}) {
    EXPECT_FALSE(IsOfGroup(file, "cpu")) << file;
  }
}

TEST(Findings, GroupsWithoutAnAgent) {
  for (const char *why : {"", "no EV told it at the agent's start"}) {
    const Group group = {"hwinfo", false, false, why};
    EXPECT_EQ(Said(JudgeGroup(group, {}, false, kNow, 15, AgentPhase::kGone)),
              "note  group hwinfo: not published, as no agent runs.\n");
  }
}

TEST(Findings, WhoseTheDirectoryIs) {
  DirectoryFacts facts;
  facts.path = "/r/host";
  const auto judge = [&](AgentPhase phase = AgentPhase::kRuns) {
    return Said(JudgeDirectory(facts, phase));
  };
  facts.agents = {812, 913};
  facts.holder = 913;
  EXPECT_EQ(judge(), "ok    registry /r/host: the agent's (process 913).\n");
  facts.holder = 77;
  EXPECT_EQ(judge(),
            "FAIL  registry /r/host: process 77 has it, and the agent writes elsewhere. End that "
            "process.\n");
  facts.holder.reset();
  EXPECT_EQ(
      judge(AgentPhase::kStarts),
      "note  registry /r/host: not the agent's yet: the agent has just started. Look again in "
      "half a minute.\n");
  const std::string next_poll =
      " The agent makes it good at its next poll; if it does not, its log says why.\n";
  EXPECT_EQ(judge(),
            "FAIL  registry /r/host: not the one that the agent writes to: it was replaced, "
            "or something is mounted over it." +
                next_poll);
  facts.error = ENOENT;
  EXPECT_EQ(judge(),
            "FAIL  registry /r/host: missing, though the agent runs: it was removed or "
            "moved away." +
                next_poll);
  facts.error = ENOTDIR;
  EXPECT_EQ(judge(), "FAIL  registry /r/host: Not a directory." + next_poll);
  facts.error = ENOENT;
  facts.elsewhere = true;
  EXPECT_EQ(judge(),
            "FAIL  registry /r/host: not the agent's, which publishes elsewhere. Check --root.\n");
  facts.elsewhere = false;
  facts.error = EACCES;
  EXPECT_EQ(judge(),
            "note  registry /r/host: not for this user to look into. Run vexreg doctor as "
            "root.\n");
  facts.agents.clear();
  facts.error = ENOENT;
  EXPECT_EQ(judge(AgentPhase::kGone), "note  registry /r/host: not there, as no agent runs.\n");
  facts.error = 0;
  EXPECT_EQ(judge(AgentPhase::kGone), "note  registry /r/host: nobody's, as no agent runs.\n");
  facts.agent_known = false;
  EXPECT_EQ(judge(), "note  registry /r/host: whose it is does not show to this user.\n");
}

TEST(Findings, GroupsOfAnAgentThatStarts) {
  const Group group = {"misc", true, true, ""};
  EXPECT_EQ(Said(JudgeGroup(group, {}, false, kNow, 15, AgentPhase::kStarts)),
            "note  group misc: not published yet: the agent has just started. Look again in half a "
            "minute.\n");
  ProcessFact agent;
  agent.started_ns = kNow;
  const auto phase = [&](int64_t age, bool runs_command) {
    return PhaseOf(agent, kNow + age * kSecond, runs_command);
  };
  EXPECT_EQ(phase(0, false), AgentPhase::kStarts);
  EXPECT_EQ(phase(14, false), AgentPhase::kStarts);
  EXPECT_EQ(phase(15, false), AgentPhase::kRuns);
  // The first reading may wait for a command.
  EXPECT_EQ(phase(134, true), AgentPhase::kStarts);
  EXPECT_EQ(phase(135, true), AgentPhase::kRuns);
  EXPECT_EQ(phase(-2, false), AgentPhase::kRuns);
  agent.started_ns = 0;
  EXPECT_EQ(PhaseOf(agent, 5 * kSecond, true), AgentPhase::kRuns);
  agent.started_ns = kNow;
  agent.state = 'T';
  EXPECT_EQ(phase(3, true), AgentPhase::kRuns);
}

TEST(Findings, Ages) {
  EXPECT_EQ(AgeText(0), "0 s");
  EXPECT_EQ(AgeText(119), "119 s");
  EXPECT_EQ(AgeText(120), "2 min");
  EXPECT_EQ(AgeText(7199), "119 min");
  EXPECT_EQ(AgeText(7200), "2 h");
  EXPECT_EQ(AgeText(48 * 3600), "2 days");
}

TEST(Findings, AreWrappedAndPlain) {
  const Finding finding = {Verdict::kNote, "one two\x1b three four five six"};
  EXPECT_EQ(RenderFinding(finding, 0), "note  one two? three four five six\n");
  EXPECT_EQ(RenderFinding(finding, 0, true), "\x1b[33mnote  \x1b[0mone two? three four five six\n");
  EXPECT_EQ(RenderFinding(finding, 26), "note  one two? three four\n      five six\n");
  // Words are not torn however narrow the terminal is.
  EXPECT_EQ(RenderFinding(finding, 1), "note  one two? three four\n      five six\n");
}

// The lines that docs/troubleshooting.md shows, each with its remedy beside it.
TEST(Findings, AreQuotedAsTheyAre) {
  constexpr int kWidth = 96;
  const std::string path = VEX_SOURCE_DIR "/docs/troubleshooting.md";
  const std::string document = made_up::ReadFile(path);
  ViewFacts view;
  view.sessions = 1;
  view.community_line = {"rocommunity", "public", "default", "-V", "systemonly"};
  ViewFacts own_view = view;
  own_view.community_line = {"rocommunity", "monitor", "127.0.0.1", "-V", "monitoring"};
  ViewFacts no_session = view;
  no_session.sessions = 0;
  const auto socket = [](int error) {
    return JudgeSocket("/var/agentx/master", "/var/agentx/master", error, false);
  };
  const Group memory = {"memory", true, true, ""};
  const auto group = [&](int64_t age) {
    return JudgeGroup(memory, Published(1, age), false, kNow, 15, AgentPhase::kRuns);
  };
  const auto missing = [&](const std::function<void(GroupFacts &)> &how) {
    GroupFacts facts;
    how(facts);
    return JudgeGroup(memory, facts, false, kNow, 15, AgentPhase::kRuns);
  };
  DirectoryFacts removed;
  removed.path = "/var/spool/quorix/kelmo/registry/host";
  removed.agents = {812};
  removed.error = ENOENT;
  DirectoryFacts covered = removed;
  covered.error = 0;
  DirectoryFacts taken = covered;
  taken.holder = 913;
  for (const Finding &finding :
       {JudgeProcess("snmpd", {}, false),
        JudgeAgent({}, false),
        JudgeAgent({{812, 'T', 0}}, false),
        JudgeAgent({{812, 'S', 0}, {913, 'S', 0}}, false),
        JudgeMaster(MasterAnswer::kNobodyListens, CommunitySource::kMaster),
        JudgeMaster(MasterAnswer::kOtherCommunity, CommunitySource::kOwn),
        JudgeMaster(MasterAnswer::kSilent, CommunitySource::kMaster),
        JudgeCommunity(CommunitySource::kNone, {}, 0),
        JudgeCommunity(CommunitySource::kNone, {"/etc/snmp/snmpd.conf"}, 0),
        JudgeCommunity(CommunitySource::kNone, {}, 1),
        JudgeReach(false, "/usr/share/vexhostd"),
        JudgeReceivers(0, "/usr/share/vexhostd"),
        JudgeDefaultCommunity({{"rocommunity", "public default -V systemonly"}}).value(),
        socket(ENOENT),
        socket(ECONNREFUSED),
        socket(EACCES),
        JudgeSubtree(Subtree::kNothing, view),
        JudgeSubtree(Subtree::kNothing, own_view),
        JudgeSubtree(Subtree::kNothing, no_session),
        JudgeSubtree(Subtree::kUnanswered, view),
        JudgeValue("tlxHoPhysicalMemoryFree", 812, std::nullopt),
        group(40),
        group(600),
        JudgeDirectory(removed, AgentPhase::kRuns),
        JudgeDirectory(covered, AgentPhase::kRuns),
        JudgeDirectory(taken, AgentPhase::kRuns),
        missing([](GroupFacts &facts) { facts.served = true; }),
        missing([](GroupFacts &facts) { facts.damaged = true; }),
        missing([](GroupFacts &facts) { facts.served = false; }),
        JudgeSilence(30)}) {
    std::string quoted;
    for (const std::string &line : made_up::Lines(RenderFinding(finding, kWidth))) {
      quoted += "    " + line + "\n";
    }
    EXPECT_NE(document.find("\n" + quoted), std::string::npos) << path << " lacks\n" << quoted;
  }
}

TEST(FindingsForPrograms, NameTheirCheck) {
  EXPECT_EQ(FindingJson({Verdict::kFail, "snmpd: does not run."}),
            R"({"state":"fail","check":"snmpd","message":"snmpd: does not run."})");
  const auto check = [](const std::string &text) {
    const std::string json = FindingJson({Verdict::kNote, text});
    const size_t at = json.find("check\":\"") + 8;
    return json.substr(at, json.find('"', at) - at);
  };
  EXPECT_EQ(check("registry /a: b: missing"), "registry");
  EXPECT_EQ(check("AgentX socket /a: queue"), "AgentX socket");
  EXPECT_EQ(check("snmpd on UDP port 161 of 127.0.0.1: answers"), "snmpd on UDP port 161");
  EXPECT_EQ(check("group cpu: 2 rows"), "group cpu");
  EXPECT_EQ(check("gave up after 30 s: the next check"), "doctor");
  EXPECT_EQ(check("all checks were made"), "doctor");
}

TEST(Findings, WhoseCommunitySnmpdAnswersTo) {
  const std::pair<CommunitySource, const char *> sources[] = {
      {CommunitySource::kOwn, "the community of vexhostd.conf"},
      {CommunitySource::kCommon, "defCommunity of snmp.conf"},
      {CommunitySource::kMaster, "the first read community of snmpd.conf"},
      {CommunitySource::kNone, "no community"}};
  for (const auto &[source, text] : sources) {
    EXPECT_TRUE(
        Has(JudgeMaster(MasterAnswer::kAnswers, source), std::string("answers to ") + text));
  }
  EXPECT_TRUE(Has(JudgeMaster(MasterAnswer::kSilent, CommunitySource::kOwn), "no answer within"));
}

TEST(Findings, SocketsThatAreNotPermitted) {
  EXPECT_TRUE(Has(JudgeSocket("/s", "/s", EPERM, false), "not permitted"));
  EXPECT_EQ(JudgeSocket("/s", "/s", EPERM, true).verdict, Verdict::kNote);
}

// What follows a subtree on a line of snmpd.conf is no view.
TEST(Findings, LinesWithMoreThanASubtree) {
  ViewFacts facts;
  facts.sessions = 1;
  facts.community_line = {"rocommunity", "own", "default", ".1.3.6.1.2.1", "context"};
  EXPECT_TRUE(Has(JudgeSubtree(Subtree::kNothing, facts), "shows .1.3.6.1.2.1 alone"));
  facts.community_line = {"rocommunity", "public", "[::1]", ".1.3.6.1.2.1"};
  EXPECT_TRUE(Has(JudgeSubtree(Subtree::kNothing, facts), "shows .1.3.6.1.2.1 alone"))
      << "nobody else is let in";
}

TEST(FindingsForPrograms, WordsThatBeginLikeACheck) {
  const auto check = [](const std::string &text) {
    const std::string json = FindingJson({Verdict::kNote, text});
    const size_t at = json.find("check\":\"") + 8;
    return json.substr(at, json.find('"', at) - at);
  };
  EXPECT_EQ(check("registry: missing"), "registry");
  EXPECT_EQ(check("registry"), "registry");
  EXPECT_EQ(check("registryfile: missing"), "registryfile");
}

}  // namespace
