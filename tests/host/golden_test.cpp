// The golden server (support/golden_host.h), and all that a manager and a sibling agent see of it,
// beside what was recorded (golden/). tests/README.md says how it is recorded anew.
#include <limits.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "framework/snmp/mib_table.h"
#include "tests/support/golden_host.h"

using namespace made_up;

namespace {

constexpr char kRecordings[] = VEX_TESTS_SOURCE_DIR "/tests/host/golden/";

// Start-up, polls and sets, up to the moment that was recorded.
void RunGolden(GoldenHost &golden) {
  MadeUpHost &host = golden.host;
  host.traps.Start();
  golden.StartMaster();

  host.daemon.Start(golden.Options());

  // 20, 50, 0 and 100 per cent in the second poll's half minute; 0 in the first's.
  ASSERT_TRUE(host.daemon.Poll());
  host.daemon.AdvanceClock(3600);
  host.Proc("stat", GoldenStat({{1500, 50, 600, 10900},
                                {3000, 0, 1500, 8500},
                                {0, 7000, 0, 13000},
                                {6000, 4000, 7000, 0}}));
  host.Proc("meminfo", GoldenMemory(7900, 4321, 2047, 1999));
  golden.Put("health/ftps", {3, 0});
  golden.Put("ida/misc", {3, 4, 4});
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Set({{"tlxHoSystemRole", 's', "web server"},
                      {"tlxHoGenericData", 's', "golden"},
                      {"tlxHoOsCommonPollFreq", 'i', "20"},
                      {"tlxHoSwVerLocation.5", 's', "shelf 4"},
                      {"tlxHoSwVerType.5", 'i', "1"}}),
            "noError");
  EXPECT_EQ(host.daemon.AlarmSeconds(), 20U);
  EXPECT_EQ(host.Set("tlxHoGUID", 'x', std::string(32, '1')), "wrongValue");
  ASSERT_TRUE(host.daemon.Poll());
  const auto traps = host.traps.WaitFor(2);
  ASSERT_EQ(traps.size(), 2U);
  EXPECT_EQ(traps[0].oid, ".1.3.6.1.4.1.4891.0.11020");
  EXPECT_EQ(traps[1].oid, ".1.3.6.1.4.1.4891.0.11003");
}

// All below enterprises.4891, by the modules' names.
std::string Walked(MadeUpHost &host) {
  const std::string modules = VEX_TESTS_SOURCE_DIR "/mibs:" VEX_TESTS_SOURCE_DIR "/mibs/base";
  ProcessOptions options;
  options.environment = {{"SNMP_PERSISTENT_DIR", "/run/made-up/walk"},
                         {"SNMPCONFPATH", "/run/made-up"}};
  host.Directory("/run/made-up/walk/cert_indexes");
  const Outcome outcome = RunCommand({"snmpwalk", "-v2c", "-cpublic", "-t5", "-r0", "-M", modules,
                                      "-mALL", "-CI", "127.0.0.1", ".1.3.6.1.4.1.4891"},
                                     options);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "");
  return outcome.out;
}

// ---- The recordings -----------------------------------------------------------------------------

bool Recording() {
  const char *word = getenv("VEX_GOLDEN");
  return word != nullptr && strcmp(word, "write") == 0 && DaemonLauncher().empty();
}

// How long a poll takes is the one value that is not made up.
std::string WithoutDuration(const std::string &text) {
  static const std::regex kDuration("(tlxHoAgentPollDuration(?:\\.0 = INTEGER:|\":) )\\d+");
  return std::regex_replace(text, kDuration, "$010");
}

// Compares with the recording, or makes it.
void Compare(MadeUpHost &host, const std::string &name, const std::string &text) {
  const std::string recording = kRecordings + name;
  const std::string seen = "/run/golden/" + name;
  host.File(seen, text);
  if (Recording()) {
    host.File(recording, text);
    return;
  }
  const Outcome outcome =
      RunCommand({"diff", "-u", "--label", "recorded " + name, "--label", "seen", recording, seen});
  EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err
                               << "VEX_GOLDEN=write records it anew (tests/README.md).";
}

// Everything that can be read has its place in the recordings: they cannot shrink unnoticed.
void CheckNothingIsMissing() {
  const std::string walk = ReadFile(std::string(kRecordings) + "walk.txt");
  const std::string dump = ReadFile(std::string(kRecordings) + "dump.json");
  std::map<std::string, int> instances;
  for (const std::string &line : Lines(walk)) {
    const size_t from = line.find("::") + 2;
    instances[line.substr(from, line.find_first_of(". =", from) - from)]++;
  }
  const std::map<std::string, int> rows = {
      {"tlxHoCpuUtil", 4}, {"tlxHoFileSys", 9},  {"tlxHoSwVer", 10},  {"tlxHoFwVer", 29},
      {"tlxHoMount", 9},   {"tlxHoSibling", 16}, {"tlxHoSwKind", 10}, {"tlxHoFwKind", 29}};
  for (const vex::MibVariable &variable : vex::MibVariables()) {
    if (variable.access == vex::MibAccess::kNotify) {
      continue;  // cannot be read
    }
    const std::string name = variable.name;
    int expected = 1;
    for (const auto &[table, count] : rows) {
      if (variable.column && name.starts_with(table)) {
        expected = count;
      }
    }
    EXPECT_EQ(instances[name], expected) << name << " in walk.txt";
    int dumped = 0;
    for (size_t at = 0; (at = dump.find("\"" + name + "\":", at)) != std::string::npos; at++) {
      dumped++;
    }
    EXPECT_EQ(dumped, expected) << name << " in dump.json";
  }
}

}  // namespace

TEST(Golden, AWholeServer) {
  GoldenHost golden;
  RunGolden(golden);
  if (!DaemonLauncher().empty()) {
    // Confined, or the comparison says nothing. The capabilities: DAC_OVERRIDE, NET_BIND_SERVICE;
    // the starter of the SNMP process has SETUID, SETGID, SYS_CHROOT of the unit besides.
    const std::string status =
        ReadFile("/proc/" + std::to_string(golden.host.daemon.pid()) + "/status");
    for (const char *line : {"Seccomp:\t2", "NoNewPrivs:\t1", "CapEff:\t0000000000000402",
                             "CapPrm:\t0000000000000402", "CapBnd:\t00000000000404c2"}) {
      EXPECT_NE(status.find("\n" + std::string(line) + "\n"), std::string::npos)
          << line << " is not in:\n"
          << status;
    }
  }
  Compare(golden.host, "walk.txt", WithoutDuration(Walked(golden.host)));
  Compare(golden.host, "dump.json", WithoutDuration(golden.host.Dump()));
  CheckNothingIsMissing();
  EXPECT_EQ(golden.host.Walk(), golden.host.BulkWalk());
  // Nothing went wrong on the way but what must.
  for (const std::string &line : golden.host.daemon.LogLines()) {
    EXPECT_TRUE(line.starts_with("Info: ") ||
                line.ends_with("Can't update OS filesys object: /mnt/unplugged  (PEER3023)"))
        << line;
  }
  EXPECT_EQ(golden.host.daemon.Count("/mnt/unplugged"), 4U);
  EXPECT_EQ(golden.host.daemon.Count("Entering into UpdatePictFw "), 1U);
}

// What vexreg takes is all that the agent reads (checks.groups). Of those files each that is there
// was made for this server: one of the machine's would stand in the recordings, and elsewhere
// differ.
TEST(Golden, HasNoSourceOfTheMachineItRunsOn) {
  // It is told its zone (TZ), and reads the second file where the first is missing.
  const std::set<std::string> unread = {"/etc/localtime", "/usr/lib/os-release"};
  const time_t began = time(nullptr);
  GoldenHost golden;
  const Outcome captured = golden.host.Vexreg({"capture", "/run/golden.tar.zst", "--json"});
  ASSERT_EQ(captured.status, 0) << captured.err;
  const std::string machines = std::string(MadeUpHost::kDirectory) + "/real-proc/";
  size_t looked = 0;
  const auto json = nlohmann::json::parse(captured.out);
  for (const auto &member : json["members"]) {
    const std::string name = member["name"];
    if (!name.starts_with("host/") || unread.count(name.substr(4)) != 0) {
      continue;
    }
    const std::string path = name.substr(4, name.rfind("/.directory") - 4);
    char real[PATH_MAX] = "";
    struct stat status = {};
    ASSERT_NE(realpath(path.c_str(), real), nullptr) << path;
    ASSERT_EQ(stat(real, &status), 0) << path;
    EXPECT_FALSE(std::string(real).starts_with(machines) || status.st_ctime < began)
        << path << " is this machine's. Give the golden server one of its own "
        << "(tests/support/golden_host.cpp)";
    looked++;
  }
  EXPECT_GT(looked, 15U) << captured.out;
}
