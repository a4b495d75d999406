// The command line, the start-up delay, the community and the configuration file.
#include <sys/stat.h>

#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

constexpr char kUsage[] =
    "USAGE vexhostd: \n"
    "  -l arg : Enable logging. Logfile is specified as argument\n"
    "  -p arg : Poll frequency (in seconds)\n"
    "  -i     : Ignore Peer stop message\n"
    "  -s arg : Configure MIB item 'sets':\n"
    "             OK     - enable sets\n"
    "             NOT_OK - disable sets\n"
    "  -t arg : Configure traps:\n"
    "             OK     - enable traps\n"
    "             NOT_OK - disable traps\n";
constexpr char kNoCommunity[] = "Failed to find a community_string, trying to continue...";

// Runs the daemon with a command line that start-up refuses: its whole log.
std::string Refused(MadeUpHost *host, const std::vector<std::string> &arguments) {
  DaemonOptions options;
  options.arguments = arguments;
  options.wait = false;
  host->daemon.Start(options);
  EXPECT_EQ(host->daemon.WaitEnd(), 1);
  EXPECT_EQ(MadeUpHost::Objects(), std::vector<std::string>{});
  return host->daemon.Log();
}

// The period for which the first alarm is set, and none is set before start-up is complete.
unsigned Period(MadeUpHost *host, const std::vector<std::string> &arguments) {
  host->daemon.Start(arguments);
  unsigned seconds = host->daemon.AlarmSeconds();
  EXPECT_EQ(host->daemon.Stop(), 0);
  return seconds;
}

}  // namespace

TEST(Options, AreNeeded) {
  MadeUpHost host;
  DaemonOptions options;
  options.arguments = {};
  options.quick_start = false;
  options.wait = false;
  double begin = Now();
  host.daemon.Start(options);
  EXPECT_EQ(host.daemon.WaitEnd(), 1);
  EXPECT_LT(Now() - begin, 3);
  EXPECT_EQ(host.daemon.Sleeps(), 0U);
  EXPECT_EQ(host.daemon.Log(), "vexhostd: Insufficient parameters  (PEER3001)\n");
  EXPECT_FALSE(Exists("/var/spool/quorix"));
}

TEST(Options, PollRate) {
  MadeUpHost host;
  EXPECT_EQ(Period(&host, {"-p", "75"}), 60U);
  EXPECT_EQ(Period(&host, {"-p", "61"}), 60U);
  EXPECT_EQ(Period(&host, {"-p", "59"}), 59U);
  EXPECT_EQ(Period(&host, {"-p", "7seconds"}), 7U);
  // 0 and no number are taken as 0, and a period is at least a second.
  EXPECT_EQ(Period(&host, {"-p", "0"}), 1U);
  EXPECT_EQ(Period(&host, {"-p", "abc"}), 1U);
  EXPECT_EQ(Period(&host, {"-i"}), 15U);
  EXPECT_EQ(Period(&host, {"-p30", "-i", "-z"}), 30U);
}

TEST(Options, NegativePollRate) {
  MadeUpHost host;
  EXPECT_EQ(Refused(&host, {"-p", "-1"}), "vexhostd: Invalid polling rate  (PEER3002)\n");
  EXPECT_FALSE(Exists(MadeUpHost::kRegistry));
}

TEST(Options, StatesAreInCapitals) {
  MadeUpHost host;
  EXPECT_EQ(Refused(&host, {"-s", "ok"}), "vexhostd: Bad set argument: ok  (PEER3005)\n");
  EXPECT_EQ(Refused(&host, {"-t", "ok"}), "vexhostd: Bad trap argument: ok  (PEER3005)\n");
  EXPECT_EQ(Refused(&host, {"-t", "OK", "-s", ""}), "vexhostd: Bad set argument:   (PEER3005)\n");
  host.daemon.Start({"-s", "OK", "-t", "OK"});
  EXPECT_EQ(host.daemon.Stop(), 0);
  host.daemon.Start({"-s", "NOT_OK", "-t", "NOT_OK"});
}

TEST(Options, TheFirstFailureEndsStartUp) {
  MadeUpHost host;
  EXPECT_EQ(Refused(&host, {"-i", "-p", "-5", "-s", "no"}),
            "vexhostd: Invalid polling rate  (PEER3002)\n");
}

TEST(Options, Unknown) {
  MadeUpHost host;
  const std::string refused = "vexhostd: Unknown command line option: ?  (PEER3022)\n";
  EXPECT_EQ(Refused(&host, {"-x"}), refused + kUsage);
  EXPECT_EQ(Refused(&host, {"-p"}), refused + kUsage);
}

TEST(Options, Help) {
  MadeUpHost host;
  EXPECT_EQ(Refused(&host, {"-h"}), kUsage);
}

// No probe: the delay that an installed agent has, and nothing published before its end.
TEST(Options, StartUpDelay) {
  MadeUpHost host;
  DaemonOptions options;
  options.probe = false;
  options.wait = false;
  double begin = Now();
  host.daemon.Start(options);
  ASSERT_TRUE(Eventually([&] { return !MadeUpHost::Objects().empty(); }, 30));
  double took = Now() - begin;
  EXPECT_GE(took, 4.99);
  EXPECT_LT(took, 10);
}

TEST(Options, StartUpDelayComesBeforeTheOptions) {
  MadeUpHost host;
  DaemonOptions options;
  options.arguments = {"-x"};
  options.quick_start = false;
  options.wait = false;
  double begin = Now();
  host.daemon.Start(options);
  EXPECT_EQ(host.daemon.WaitEnd(30), 1);
  EXPECT_GE(Now() - begin, 4.99);
  EXPECT_EQ(host.daemon.Sleeps(), 1U);
}

TEST(Options, LeftoversOfAnEarlierRunAreRemoved) {
  MadeUpHost host;
  const std::string registry = MadeUpHost::kRegistry;
  host.File(registry + "/host/memory", "old");
  host.File(registry + "/host/cpu.77", "old");
  host.File(registry + "/host/directory/file", "old");
  host.File(registry + "/stdeq/misc", "a sibling's");
  host.Link(registry + "/host/link", registry + "/stdeq");
  host.daemon.Start();
  EXPECT_FALSE(Exists(registry + "/host/cpu.77"));
  EXPECT_FALSE(Exists(registry + "/host/directory"));
  EXPECT_FALSE(Exists(registry + "/host/link"));
  EXPECT_EQ(ReadFile(registry + "/stdeq/misc"), "a sibling's");
  EXPECT_TRUE(MadeUpHost::Object("host/memory"));
}

TEST(Community, IsMissed) {
  MadeUpHost host;
  host.daemon.Start();
  EXPECT_EQ(host.daemon.Count(kNoCommunity), 1U);
  EXPECT_TRUE(MadeUpHost::Object("host/memory"));
}

TEST(Community, OfTheAgentsConfiguration) {
  MadeUpHost host;
  host.File("/etc/snmp/vexhostd.conf", "community made-up\n");
  host.daemon.Start();
  EXPECT_EQ(host.daemon.Count(kNoCommunity), 0U);
}

TEST(Community, OfTheCommonConfiguration) {
  MadeUpHost host;
  host.File("/etc/snmp/snmp.conf", "defCommunity made-up\n");
  host.daemon.Start();
  EXPECT_EQ(host.daemon.Count(kNoCommunity), 0U);
}

TEST(Community, OfTheMaster) {
  MadeUpHost host;
  host.File("/etc/snmp/snmpd.conf", "# rocommunity no\nrocommunity made-up 127.0.0.1\n");
  host.daemon.Start();
  EXPECT_EQ(host.daemon.Count(kNoCommunity), 0U);
}

TEST(Configuration, PollInterval) {
  MadeUpHost host;
  host.File("/etc/snmp/vexhostd.conf", "pollInterval 20\n");
  EXPECT_EQ(Period(&host, {"-i"}), 20U);
  EXPECT_EQ(Period(&host, {"-p", "5"}), 5U);
}

TEST(Configuration, AQuotedPollIntervalIsTheSame) {
  MadeUpHost host;
  for (const char *line : {"pollInterval \"20\"\n", "pollInterval '20'\n"}) {
    host.File("/etc/snmp/vexhostd.conf", line);
    EXPECT_EQ(Period(&host, {"-i"}), 20U) << line;
    EXPECT_EQ(host.daemon.Count("pollInterval"), 0U) << host.daemon.Log();
  }
}

TEST(Configuration, ATokenWithoutValueIsALine) {
  MadeUpHost host;
  host.File("/etc/snmp/vexhostd.conf", "pollInterval\ncommunity x\n");
  EXPECT_EQ(Period(&host, {"-i"}), 15U);
  EXPECT_EQ(host.daemon.Count("pollInterval"), 1U) << host.daemon.Log();
}

// snmp_config(5) knows comments as lines of their own only.
TEST(Configuration, WhatLooksLikeACommentBehindAValueIsALine) {
  constexpr char kSaid[] =
      ": all of its line is the value, with what follows a '#': a comment has a line of its own";
  MadeUpHost host;
  host.File("/etc/snmp/vexhostd.conf",
            "# of a line\npollInterval 20 # comment\ncommunity public\t# for monitoring\n");
  EXPECT_EQ(Period(&host, {"-i"}), 15U);
  EXPECT_EQ(host.daemon.LinesWith(kSaid),
            (std::vector<std::string>{"pollInterval" + std::string(kSaid),
                                      "community" + std::string(kSaid)}))
      << host.daemon.Log();
  host.File("/etc/snmp/vexhostd.conf", "pollInterval 20\ncommunity \"a #1\"\ncommunity a#1\n");
  EXPECT_EQ(Period(&host, {"-i"}), 20U);
  EXPECT_EQ(host.daemon.Count(kSaid), 0U) << host.daemon.Log();
}

// Nobody writes to it, and the SNMP library would wait for that.
TEST(Configuration, APipeIsRefusedAtOnce) {
  MadeUpHost host;
  host.Directory("/etc/snmp");
  ASSERT_EQ(mkfifo("/etc/snmp/vexhostd.conf", 0600), 0);
  DaemonOptions options;
  options.wait = false;
  host.daemon.Start(options);
  EXPECT_EQ(host.daemon.WaitEnd(20), 1);
  EXPECT_EQ(host.daemon.Count("/etc/snmp/vexhostd.conf: It is a pipe"), 1U) << host.daemon.Log();
}

TEST(Configuration, ADirectoryInTheFilesPlaceIsALine) {
  MadeUpHost host;
  host.Directory("/etc/snmp/vexhostd.conf");
  EXPECT_EQ(Period(&host, {"-i"}), 15U);
  EXPECT_EQ(host.daemon.Count("/etc/snmp/vexhostd.conf: It is a directory, and not read"), 1U)
      << host.daemon.Log();
}

TEST(Configuration, PollIntervalIsClampedToAMinute) {
  MadeUpHost host;
  for (const char *seconds : {"61", "600", "99999999999999999999"}) {
    host.File("/etc/snmp/vexhostd.conf", std::string("pollInterval ") + seconds + "\n");
    EXPECT_EQ(Period(&host, {"-i"}), 60U) << seconds;
  }
}

TEST(Configuration, UnknownTokensAreALineEach) {
  MadeUpHost host;
  host.File("/etc/snmp/vexhostd.conf",
            "pollinterval 20\npolInterval 30\ncommunity x\nagentXSocket /var/agentx/master\n"
            "agentXPingInterval 10\nagentXTimeout 2\nagentXRetries 3\nagentXPerms 0660 0550\n"
            "rocommunity y\n");
  host.File("/etc/snmp/snmp.conf", "defVersion 2c\nnobodysToken 1\n");
  host.File("/etc/snmp/snmpd.conf",
            "rocommunity z\nview all included .1\nnobodysToken 1\nincludeDir "
            "/etc/snmp/snmpd.conf.d\n");
  // snmpd's, whatever its name.
  host.File("/etc/snmp/snmpd.conf.d/vexhostd.conf", "master agentx\n");
  EXPECT_EQ(Period(&host, {"-i"}), 20U);
  const std::string log = host.daemon.Log();
  EXPECT_EQ(host.daemon.LinesWith("Unknown token"),
            (std::vector<std::string>{
                "/etc/snmp/vexhostd.conf: line 2: Warning: Unknown token: polInterval.",
                "/etc/snmp/vexhostd.conf: line 9: Warning: Unknown token: rocommunity."}))
      << log;
  EXPECT_EQ(host.daemon.Count("config file(s)"), 0U) << log;
}

// The daemon asks snmpd with it.
TEST(Configuration, AQuotedCommunityIsTheSame) {
  for (const char *line : {"community pub\n", "community \"pub\"\n", "community 'pub'\n"}) {
    MadeUpHost host;
    host.File("/etc/snmp/vexhostd.conf", line);
    SnmpdOptions options;
    options.all_modules = true;
    options.extra =
        "rocommunity pub 127.0.0.1\n"
        "override .1.3.6.1.4.1.4891.18.1.1.0 integer 1\n"
        "override .1.3.6.1.4.1.4891.18.1.2.0 integer 2\n"
        "override .1.3.6.1.4.1.4891.18.1.3.0 integer 3\n";
    host.Peer({"vexnic", "-p", "15"});
    host.snmpd.Start(options);
    host.daemon.Start();
    EXPECT_EQ(host.daemon.Count("does not answer queries"), 0U) << line;
    EXPECT_EQ(host.Get("tlxHoMibHealthStatusArray").substr(0, 17), "Hex-STRING: 00 03") << line;
  }
}

TEST(Configuration, IsFoundWhereTheEnvironmentSays) {
  MadeUpHost host;
  host.File("/opt/snmp/vexhostd.conf", "pollInterval 22\ncommunity made-up\n");
  DaemonOptions options;
  options.arguments = {"-i"};
  options.environment = {{"SNMPCONFPATH", "/opt/snmp"}};
  host.daemon.Start(options);
  EXPECT_EQ(host.daemon.AlarmSeconds(), 22U);
  EXPECT_EQ(host.daemon.Count(kNoCommunity), 0U);
}

TEST(Configuration, AgentXSocket) {
  MadeUpHost host;
  SnmpdOptions master;
  master.extra = "agentXSocket unix:/run/other/master\n";
  host.Directory("/run/other");
  host.File("/etc/snmp/vexhostd.conf", "agentXSocket unix:/run/other/master\n");
  host.snmpd.Start(master);
  host.daemon.Start();
  EXPECT_TRUE(host.daemon.WaitServed());
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 2000");
}
