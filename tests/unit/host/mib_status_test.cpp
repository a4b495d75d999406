#include "status/mib_status.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "common/util.h"
#include "tests/support/recording_framework.h"

namespace {

using Array = std::string;  // 256 octets

// Builds over what the array held before, as the misc group does.
void BuildStatus(Array *array) {
  build_status_array(reinterpret_cast<unsigned char *>(array->data()));
}

void BuildHealth(Array *array) {
  build_health_array(reinterpret_cast<unsigned char *>(array->data()));
}

Array Zeros() {
  return Array(STATUS_ARRAY_SIZE, '\0');
}

Array Status() {
  Array array = Zeros();
  BuildStatus(&array);
  return array;
}

Array Health() {
  Array array = Zeros();
  BuildHealth(&array);
  return array;
}

std::string CommandLine(int pid) {
  return "/proc/" + std::to_string(pid) + "/cmdline";
}

// Octets 4 * index to 4 * index + 3 as numbers: present, condition, major, minor.
std::vector<int> Row(const Array &array, int index) {
  std::vector<int> octets;
  const size_t first = 4 * static_cast<size_t>(index);
  for (size_t i = 0; i < 4; i++) {
    octets.push_back(static_cast<unsigned char>(array[first + i]));
  }
  return octets;
}

using Octets = std::vector<int>;

// A process of that number with that command line (arguments end in NUL) and group.
void Process(int pid, const std::string &command, int group) {
  rec::PutFile("/proc/" + std::to_string(pid) + "/cmdline", command);
  rec::PutProcessGroup(pid, group);
}

void End(int pid) {
  rec::PutNothing("/proc/" + std::to_string(pid));
}

// An object with variables 0 .. values.size()-1.
void Object(const std::string &name, const std::vector<int> &values) {
  std::vector<rec::SiblingVariable> variables;
  for (const int value : values) {
    variables.push_back(rec::IntVar("v", value));
  }
  rec::PutSibling(name, variables);
}

class MibStatus : public testing::Test {
 protected:
  MibStatus() {
    rec::PutDirectory("/proc");
    rec::PutFile("/proc/self/cmdline", "vexstdeq");  // not a number: never looked at
    rec::PutFile("/proc/meminfo", "");
  }
};

// ---- The tables ---------------------------------------------------------------------------------

// One row: its index, its process, where its revision is (object and the two slots, or OID) and its
// condition.
struct StatusRow {
  int index;
  const char *process;
  const char *revision;
  int major_slot;
  const char *condition;
  int condition_slot;
};

const StatusRow kStatusRows[] = {
    {1, "vexstdeq", "stdeq/misc", 0, "stdeq/misc", 2},
    {2, "vexstdeq", "stdeq/sinfo", 21, "stdeq/sinfo", 23},
    {3, "vexida", "ida/misc", 0, "ida/misc", 2},
    {5, "vexscsi", "scsi/mib", 0, "scsi/mib", 2},
    {6, "vexhealth", "health/health_rev", 0, "health/health", 0},
    {8, "vexida", "stsys/mib", 0, "stsys/mib", 2},
    {9, "vexsm2", "crib/misc", 0, "crib/misc", 2},
    {10, "vexthresh", "threshold/misc", 0, "threshold/misc", 2},
    {11, "vexhost", "host/misc", 0, "host/misc", 2},
    {14, "vexide", "ide/mib", 0, "ide/mib", 2},
    {16, "vexfc", "fca/misc", 0, "fca/misc", 2},
    {21, "vexhost", "host/appliance", 0, "host/appliance", 2},
    {22, "vexrack", "rack/rev", 0, "rack/stat", 0},
    {23, "vexperf", "perf/misc", 0, "perf/misc", 2},
};

struct HealthRow {
  int index;
  const char *process;
  const char *object;
  int condition_slot;
};

const HealthRow kHealthRows[] = {
    {2, "vexhealth", "stdeq/cpucondition", 0},
    {3, "vexstdeq", "health/res_mem", 3},
    {4, "vexhealth", "health/thermal", 3},
    {5, "vexhealth", "health/thermal", 2},
    {6, "vexhealth", "health/ftps", 0},
    {7, "vexhealth", "health/event_log_status", 1},
    {9, "vexida", "ida/misc", 2},
    {10, "vexscsi", "scsi/mib", 2},
    {11, "vexida", "stsys/mib", 2},
    {12, "vexide", "ide/mib", 2},
    {13, "vexfc", "fca/misc", 2},
    {15, "vexsm2", "crib/misc", 2},
};

const char *const kProcesses[] = {"vexstdeq",  "vexida",  "vexscsi",        "vexhealth", "vexsm2",
                                  "vexthresh", "vexhost", "vexide",         "vexfc",     "vexnic",
                                  "vexrack",   "vexperf", "fio-snmp-agentx"};

// All objects of all rows, each slot of each object with a value of its own.
void PutEverything() {
  int next = 10;
  for (const char *name :
       {"stdeq/misc",     "ida/misc",       "scsi/mib",    "health/health_rev",
        "health/health",  "stsys/mib",      "crib/misc",   "threshold/misc",
        "host/misc",      "ide/mib",        "fca/misc",    "host/appliance",
        "rack/rev",       "rack/stat",      "perf/misc",   "stdeq/cpucondition",
        "health/res_mem", "health/thermal", "health/ftps", "health/event_log_status"}) {
    Object(name, {next, next + 1, next + 2, next + 3});
    next += 4;
  }
  std::vector<int> sinfo(24);
  for (int i = 0; i < 24; i++) {
    sinfo[static_cast<size_t>(i)] = 100 + i;
  }
  Object("stdeq/sinfo", sinfo);
  rec::PutSnmpInteger("enterprises.4891.18.1.1.0", 201);
  rec::PutSnmpInteger("enterprises.4891.18.1.2.0", 202);
  rec::PutSnmpInteger("enterprises.4891.18.1.3.0", 203);
  rec::PutSnmpInteger("enterprises.4891.172.1.1.0", 204);
  rec::PutSnmpInteger("enterprises.4891.172.1.2.0", 205);
  rec::PutSnmpInteger("enterprises.4891.172.1.3.0", 206);
  // Cut after 30 characters.
  rec::PutSnmpInteger("1.3.6.1.4.1.4891.6.2.5.17.1.1.", 207);
  rec::PutSnmpInteger("1.3.6.1.4.1.4891.6.2.5.17.1.2.", 208);
  rec::PutSnmpInteger("1.3.6.1.4.1.4891.6.2.5.17.0", 209);
  rec::PutSnmpInteger("1.3.6.1.4.1.4891.18.1.1.0", 210);
  rec::PutSnmpInteger("1.3.6.1.4.1.4891.18.1.2.0", 211);
  rec::PutSnmpInteger("1.3.6.1.4.1.4891.18.1.3.0", 212);
}

// The value that PutEverything() gave a slot: read back as a row's condition.
int ValueOf(const std::string &object, int slot) {
  registry_object *copy = get_obj(object.c_str());
  int32_t value = -1;
  if (copy != nullptr) {
    memcpy(&value, copy->desc[slot].value, sizeof(value));
  }
  free(copy);
  return value;
}

TEST_F(MibStatus, EveryRowOfTheStatusArray) {
  PutEverything();
  int pid = 100;
  for (const char *process : kProcesses) {
    Process(pid, std::string("/opt/q/") + process + "d", pid);
    pid++;
  }
  Array expected = Zeros();
  int worst = 206;
  const auto put = [&](int index, int condition, int major, int minor) {
    expected.replace(
        4 * static_cast<size_t>(index), 4,
        {'\1', static_cast<char>(condition), static_cast<char>(major), static_cast<char>(minor)});
  };
  for (const StatusRow &row : kStatusRows) {
    put(row.index, ValueOf(row.condition, row.condition_slot),
        ValueOf(row.revision, row.major_slot), ValueOf(row.revision, row.major_slot + 1));
  }
  put(18, 203, 201, 202);
  put(26, 206, 204, 205);
  expected.replace(0, 4, {'\1', static_cast<char>(worst), '\x08', '\0'});
  EXPECT_EQ(Status(), expected);
  EXPECT_FALSE(rec::SnmpConnectionOpen());
}

TEST_F(MibStatus, EveryRowOfTheStatusArrayBelongsToItsProcess) {
  PutEverything();
  for (const char *process : kProcesses) {
    Process(50, process, 50);
    const Array array = Status();
    for (int index = 1; index <= 26; index++) {
      bool expected = (index == 18 && strcmp(process, "vexnic") == 0) ||
                      (index == 26 && strcmp(process, "fio-snmp-agentx") == 0);
      for (const StatusRow &row : kStatusRows) {
        expected |= row.index == index && strcmp(process, row.process) == 0;
      }
      EXPECT_EQ(Row(array, index)[0], expected) << process << ' ' << index;
    }
    End(50);
    Status();
  }
}

TEST_F(MibStatus, EveryRowOfTheHealthArray) {
  PutEverything();
  int pid = 100;
  for (const char *process : kProcesses) {
    Process(pid, process, pid);
    pid++;
  }
  Array expected = Zeros();
  for (const HealthRow &row : kHealthRows) {
    expected[static_cast<size_t>(row.index)] =
        static_cast<char>(ValueOf(row.object, row.condition_slot));
  }
  expected[8] = static_cast<char>(209);
  expected[14] = static_cast<char>(212);
  expected[0] = static_cast<char>(209);
  expected[1] = static_cast<char>(212);
  EXPECT_EQ(Health(), expected);
  EXPECT_FALSE(rec::SnmpConnectionOpen());
}

TEST_F(MibStatus, EveryRowOfTheHealthArrayBelongsToItsProcess) {
  // A row's revision is asked for when its process changed, and only then; registry rows ask for
  // the object once more than for the condition alone.
  for (const char *process : kProcesses) {
    PutEverything();
    Health();
    rec::ForgetEvents();
    Process(50, process, 50);
    Health();
    std::map<std::string, int> expected;
    for (const HealthRow &row : kHealthRows) {
      expected[row.object] += strcmp(process, row.process) == 0 ? 2 : 1;
    }
    for (const auto &[object, count] : expected) {
      EXPECT_EQ(rec::Count("get_obj", object), count) << process << ' ' << object;
    }
    EXPECT_EQ(rec::Count("get_one_snmp_integer_from_api", "1.3.6.1.4.1.4891.6.2.5.17.1.1."),
              strcmp(process, "vexhealth") == 0)
        << process;
    EXPECT_EQ(rec::Count("get_one_snmp_integer_from_api", "1.3.6.1.4.1.4891.18.1.1.0"),
              strcmp(process, "vexnic") == 0)
        << process;
    End(50);
    Health();
  }
}

// ---- The status array ---------------------------------------------------------------------------

TEST_F(MibStatus, NothingRuns) {
  Array expected = Zeros();
  expected[0] = 1;
  expected[2] = 8;
  EXPECT_EQ(Status(), expected);
  EXPECT_EQ(rec::Count("get_obj"), 0);
  EXPECT_EQ(rec::Count("init_snmp_connection"), 0);
}

TEST_F(MibStatus, OnlyTheHostAgentItself) {
  Process(7, "/usr/sbin/vexhostd", 7);
  Object("host/misc", {1, 30, 2});
  const Array array = Status();
  for (int index = 0; index < 64; index++) {
    const Octets expected = index == 0    ? Octets{1, 2, 8, 0}
                            : index == 11 ? Octets{1, 2, 1, 30}
                            : index == 21 ? Octets{1, 0, 0, 0}
                                          : Octets{0, 0, 0, 0};
    EXPECT_EQ(Row(array, index), expected) << index;
  }
}

TEST_F(MibStatus, TheSummaryLeavesItsLastOctetAlone) {
  Array array = Zeros();
  array[3] = 77;
  array[17] = 66;  // index 4 has no row
  array[255] = 55;
  BuildStatus(&array);
  EXPECT_EQ(array[3], 77);
  EXPECT_EQ(array[17], 66);
  EXPECT_EQ(array[255], 55);
}

TEST_F(MibStatus, AConditionIsReadWhenThePeerStartsAndNotAgain) {
  Process(10, "vexida", 10);
  Object("ida/misc", {1, 2, 2});
  EXPECT_EQ(Row(Status(), 3), (Octets{1, 2, 1, 2}));
  Object("ida/misc", {5, 6, 3});
  rec::ForgetEvents();
  EXPECT_EQ(Row(Status(), 3), (Octets{1, 2, 1, 2}));
  EXPECT_EQ(rec::Count("get_obj", "ida/misc"), 0);
  // Restarted: another group.
  End(10);
  Process(11, "vexida", 11);
  EXPECT_EQ(Row(Status(), 3), (Octets{1, 3, 5, 6}));
  // Another process in the same group is no restart.
  Object("ida/misc", {7, 8, 4});
  End(11);
  Process(12, "vexida", 11);
  EXPECT_EQ(Row(Status(), 3), (Octets{1, 3, 5, 6}));
}

TEST_F(MibStatus, AStoppedPeerIsAskedOnceMore) {
  Process(10, "vexida", 10);
  Object("ida/misc", {1, 2, 2});
  Status();
  End(10);
  rec::ForgetEvents();
  // Its object still tells.
  EXPECT_EQ(Row(Status(), 3), (Octets{0, 2, 1, 2}));
  EXPECT_EQ(rec::Count("get_obj", "ida/misc"), 2);
  rec::ForgetEvents();
  EXPECT_EQ(Row(Status(), 3), (Octets{0, 0, 0, 0}));
  EXPECT_EQ(rec::Count("get_obj", "ida/misc"), 0);
}

TEST_F(MibStatus, AStoppedPeerWithoutItsObject) {
  Process(10, "vexida", 10);
  Object("ida/misc", {1, 2, 4});
  EXPECT_EQ(Row(Status(), 0), (Octets{1, 4, 8, 0}));
  End(10);
  rec::RemoveSibling("ida/misc");
  EXPECT_EQ(Row(Status(), 3), (Octets{0, 0, 0, 0}));
  EXPECT_EQ(Row(Status(), 0), (Octets{1, 0, 8, 0}));
}

TEST_F(MibStatus, APeerWithoutItsObjectIsAskedAgainAtEachRefresh) {
  Process(10, "vexida", 10);
  EXPECT_EQ(Row(Status(), 3), (Octets{0, 0, 0, 0}));
  EXPECT_EQ(Row(Status(), 3), (Octets{0, 0, 0, 0}));
  Object("ida/misc", {1, 2, 2});
  EXPECT_EQ(Row(Status(), 3), (Octets{1, 2, 1, 2}));
}

TEST_F(MibStatus, AFailedReadKeepsTheValuesOfAPeerThatRuns) {
  Process(10, "vexida", 10);
  Object("ida/misc", {1, 2, 3});
  Status();
  rec::RemoveSibling("ida/misc");
  Process(10, "vexida", 11);
  EXPECT_EQ(Row(Status(), 3), (Octets{0, 3, 1, 2}));
}

TEST_F(MibStatus, TheApplianceRowIsPresentWithoutItsObject) {
  Process(7, "vexhostd", 7);
  EXPECT_EQ(Row(Status(), 11), (Octets{0, 0, 0, 0}));
  EXPECT_EQ(Row(Status(), 21), (Octets{1, 0, 0, 0}));
  Object("host/appliance", {1, 5, 2});
  // Not asked again: nothing changed.
  EXPECT_EQ(Row(Status(), 21), (Octets{1, 0, 0, 0}));
}

TEST_F(MibStatus, ValuesGoOutByTheirLowOctet) {
  Process(10, "vexida", 10);
  Object("ida/misc", {257, -1, 0x1234});
  EXPECT_EQ(Row(Status(), 3), (Octets{1, 0x34, 1, 255}));
  EXPECT_EQ(Row(Status(), 0), (Octets{1, 0x34, 8, 0}));
}

TEST_F(MibStatus, NegativeConditionsAreNotTheWorst) {
  Process(10, "vexida", 10);
  Object("ida/misc", {1, 1, -5});
  const Array array = Status();
  EXPECT_EQ(Row(array, 3), (Octets{1, 251, 1, 1}));
  EXPECT_EQ(Row(array, 0), (Octets{1, 0, 8, 0}));
}

// ---- Scanning -----------------------------------------------------------------------------------

struct Command {
  std::string text;
  bool matches;  // "vexhealth"
};

TEST_F(MibStatus, OnlyTheProgramPathCounts) {
  Object("health/health_rev", {1, 2});
  Object("health/health", {2});
  using namespace std::string_literals;
  for (const Command &command : {
           Command{"/opt/x/vexhealthd\0-f\0"s, true},
           Command{"/bin/sh\0/opt/x/vexhealthd\0"s, false}, Command{"grep\0vexhealth\0"s, false},
           Command{"xvexhealthx"s, true}, Command{"/opt/vexhealth/bin/agent"s, true},
           Command{"vexhealt"s, false}, Command{"VEXHEALTH"s, false}, Command{""s, false},
           Command{"\0vexhealth"s, false}, Command{"first\nvexhealth"s, false},
           Command{std::string(246, 'x') + "vexhealth", true},   // ends at octet 255
           Command{std::string(247, 'x') + "vexhealth", false},  // would end at octet 256
       }) {
    Process(10, command.text, 10);
    EXPECT_EQ(Row(Status(), 6)[0], command.matches) << command.text;
    End(10);
    Status();
  }
}

TEST_F(MibStatus, AProcessWhoseCommandLineCannotBeReadIsPassedOver) {
  Object("ida/misc", {1, 2, 2});
  rec::PutDirectory("/proc/9");
  Process(10, "vexida", 10);
  EXPECT_EQ(Row(Status(), 3), (Octets{1, 2, 1, 2}));
}

// What fails for a moment makes no peer look stopped, and then started anew.
TEST_F(MibStatus, ACommandLineThatCannotBeReadForAMomentIsThatOfBefore) {
  Object("ida/misc", {1, 2, 2});
  Process(10, "vexida", 10);
  Status();
  rec::ForgetEvents();
  for (const char *call : {"open", "read"}) {
    for (const int error : {EMFILE, ENFILE, ENOMEM, EINTR, EIO}) {
      rec::Fail(call, CommandLine(10), 0, error);
      EXPECT_EQ(Row(Status(), 3), (Octets{1, 2, 1, 2})) << call << ": " << strerror(error);
    }
    rec::StopFailing();
  }
  EXPECT_EQ(Row(Status(), 3), (Octets{1, 2, 1, 2}));
  EXPECT_EQ(rec::Count("get_obj", "ida/misc"), 0);
  // One that may not be read is none.
  rec::Fail("open", CommandLine(10), 0, EACCES);
  EXPECT_EQ(Row(Status(), 3)[0], 0);
}

TEST_F(MibStatus, AProcessThatEndsDuringTheScanIsNoMatch) {
  Object("ida/misc", {1, 2, 2});
  Process(10, "vexida", 10);
  rec::Fail("getpgid", "10", 0, ESRCH);
  EXPECT_EQ(Row(Status(), 3), (Octets{0, 0, 0, 0}));
  EXPECT_EQ(rec::Count("get_obj", "ida/misc"), 0);
}

TEST_F(MibStatus, AProcessInGroupZeroDoesNotRun) {
  // Kernel threads, and processes whose group lies outside this PID namespace.
  Object("ida/misc", {1, 2, 2});
  Process(10, "vexida", 0);
  EXPECT_EQ(Row(Status(), 3), (Octets{0, 0, 0, 0}));
}

TEST_F(MibStatus, TwoGroupsOfOneNameLookLikeARestartEachTime) {
  Object("ida/misc", {1, 2, 2});
  Process(10, "vexida", 10);
  Process(11, "vexida", 11);
  Status();
  Object("ida/misc", {1, 2, 3});
  EXPECT_EQ(Row(Status(), 3), (Octets{1, 3, 1, 2}));
  Object("ida/misc", {1, 2, 4});
  EXPECT_EQ(Row(Status(), 3), (Octets{1, 4, 1, 2}));
}

TEST_F(MibStatus, WithoutProcEveryPeerCountsAsChanged) {
  Process(10, "vexida", 10);
  Object("ida/misc", {1, 2, 2});
  Status();
  Object("ida/misc", {1, 3, 3});
  rec::Fail("opendir", "/proc");
  rec::ForgetEvents();
  const Array array = Status();
  EXPECT_EQ(rec::Messages(), std::vector<std::string>{"cannot opendir(/proc)"});
  // With the group that it was last seen in; the others were never seen.
  EXPECT_EQ(Row(array, 3), (Octets{1, 3, 1, 3}));
  EXPECT_EQ(Row(array, 8), (Octets{0, 0, 0, 0}));
  EXPECT_EQ(rec::Count("get_obj"), 28);  // 14 rows, twice each
  EXPECT_EQ(rec::Count("init_snmp_connection", "127.0.0.1"), 4);
}

TEST_F(MibStatus, TheHealthArrayTakesTheReadingOfProcOnce) {
  Object("ida/misc", {1, 2, 2});
  Status();
  Process(10, "vexida", 10);
  rec::ForgetEvents();
  Health();
  EXPECT_EQ(rec::Count("get_obj", "ida/misc"), 1);  // its condition alone: not seen yet
  rec::ForgetEvents();
  Health();
  EXPECT_EQ(rec::Count("get_obj", "ida/misc"), 2);
}

TEST_F(MibStatus, WithoutProcEachArraySaysSo) {
  rec::Fail("opendir", "/proc");
  Status();
  Health();
  EXPECT_EQ(rec::Messages(),
            (std::vector<std::string>{"cannot opendir(/proc)", "cannot opendir(/proc)"}));
}

TEST_F(MibStatus, ManyProcessesOfOneName) {
  Object("ida/misc", {1, 2, 2});
  for (int pid = 1000; pid < 1300; pid++) {
    Process(pid, "vexida", 77);
  }
  EXPECT_EQ(Row(Status(), 3), (Octets{1, 2, 1, 2}));
  Object("ida/misc", {1, 2, 3});
  EXPECT_EQ(Row(Status(), 3), (Octets{1, 2, 1, 2}));
}

TEST_F(MibStatus, WithoutMemoryForAListingItIsAsIfProcWereNotThere) {
  Object("ida/misc", {1, 2, 2});
  Process(1000, "vexida", 77);
  rec::Fail("realloc");
  EXPECT_EQ(Row(Status(), 3), (Octets{0, 2, 1, 2}));
  EXPECT_EQ(rec::Messages(), std::vector<std::string>{"cannot readdir(/proc)\n"});
  rec::StopFailing();
  EXPECT_EQ(Row(Status(), 3), (Octets{1, 2, 1, 2}));
}

// A single allocation that fails hides no process: the listing is made again.
class MibStatusAllocation : public MibStatus, public testing::WithParamInterface<int> {};

TEST_P(MibStatusAllocation, ThatFailsOnceHidesNoProcess) {
  Object("ida/misc", {1, 2, 2});
  Process(1000, "vexida", 77);
  rec::Fail("realloc", "", GetParam());
  EXPECT_EQ(Row(Status(), 3), (Octets{1, 2, 1, 2}));
  EXPECT_TRUE(rec::Messages().empty());
}

INSTANTIATE_TEST_SUITE_P(Each, MibStatusAllocation, testing::Range(1, 5));

TEST_F(MibStatus, AListingThatBreaksOffIsBegunAnew) {
  Object("ida/misc", {1, 2, 2});
  Process(1000, "vexida", 77);
  rec::Fail("readdir", "/proc", 2);
  EXPECT_EQ(Row(Status(), 3), (Octets{1, 2, 1, 2}));
  EXPECT_TRUE(rec::Messages().empty());
  // But not for ever: then it is as if /proc were not there.
  rec::Fail("readdir", "/proc");
  EXPECT_EQ(Row(Status(), 3), (Octets{1, 2, 1, 2}));
  EXPECT_EQ(rec::Messages(), std::vector<std::string>{"cannot readdir(/proc)\n"});
}

TEST_F(MibStatus, AListingIsTriedThreeTimes) {
  rec::Fail("opendir", "/proc", 1);
  rec::Fail("opendir", "/proc", 2);
  Status();
  EXPECT_TRUE(rec::Messages().empty());
  rec::StopFailing();
  for (int nth = 1; nth <= 3; nth++) {
    rec::Fail("opendir", "/proc", nth);
  }
  Status();
  EXPECT_EQ(rec::Messages(), std::vector<std::string>{"cannot opendir(/proc)"});
}

// ---- Processes that hold up who reads their command line ----------------------------------------

// As the kernel has it: a name may look like anything.
void Started(int pid, int ticks) {
  rec::PutFile("/proc/" + std::to_string(pid) + "/stat",
               std::to_string(pid) +
                   " (a) S 1 (b) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 " +
                   std::to_string(ticks) + " 99 98\n");
}

int Children() {
  return rec::Count("run_apart");
}

TEST_F(MibStatus, AProcessThatHoldsItsReaderUpCostsNobodyElse) {
  Object("ida/misc", {1, 2, 2});
  Object("scsi/mib", {1, 2, 2});
  Process(10, "vexida", 10);
  Process(11, "anything", 11);
  Process(12, "vexscsi", 12);
  rec::HoldUp(CommandLine(11));
  Array array = Status();
  EXPECT_EQ(Row(array, 3), (Octets{1, 2, 1, 2}));
  EXPECT_EQ(Row(array, 5), (Octets{1, 2, 1, 2}));
  ASSERT_EQ(rec::Messages().size(), 1U);
  EXPECT_EQ(rec::Messages()[0].rfind("Info: process 11 keeps its command line from being read", 0),
            0U);
  // The second child had what was left: each process is asked once.
  EXPECT_EQ(rec::Names("run_apart"), (std::vector<std::string>{"3", "1"}));
  // From then on it is left alone, for a while.
  rec::ForgetEvents();
  array = Status();
  EXPECT_EQ(Row(array, 5), (Octets{1, 2, 1, 2}));
  EXPECT_EQ(rec::Names("run_apart"), std::vector<std::string>{"2"});
  rec::LetGo(CommandLine(11));
  rec::PassTime(31);
  Status();
  EXPECT_EQ(rec::Names("run_apart"), (std::vector<std::string>{"2", "3"}));
  EXPECT_EQ(rec::Messages(), std::vector<std::string>{
                                 "Info: the command lines of all processes can be read again\n"});
}

TEST_F(MibStatus, APeerThatHoldsItsReaderUpNeitherStopsNorStartsAnew) {
  Object("ida/misc", {1, 2, 2});
  Process(10, "vexida", 10);
  Started(10, 500);
  EXPECT_EQ(Row(Status(), 3), (Octets{1, 2, 1, 2}));
  rec::HoldUp(CommandLine(10));
  rec::ForgetEvents();
  for (int i = 0; i < 40; i++) {
    EXPECT_EQ(Row(Status(), 3), (Octets{1, 2, 1, 2})) << i;
    rec::PassTime(15);
  }
  EXPECT_EQ(rec::Count("get_obj", "ida/misc"), 0);
  EXPECT_EQ(rec::Messages().size(), 1U);
  rec::LetGo(CommandLine(10));
  rec::PassTime(601);
  EXPECT_EQ(Row(Status(), 3), (Octets{1, 2, 1, 2}));
  EXPECT_EQ(rec::Count("get_obj", "ida/misc"), 0);
  EXPECT_EQ(rec::Messages().size(), 2U);
  // It is as any other again.
  End(10);
  EXPECT_EQ(Row(Status(), 3)[0], 0);
}

TEST_F(MibStatus, AProcessThatHoldsItsReaderUpIsAskedLessAndLessOften) {
  Process(10, "anything", 10);
  Process(11, "other", 11);
  rec::HoldUp(CommandLine(10));
  std::vector<int> at;  // the polls at which it held up a child
  for (int second = 0; second < 4000; second += 10) {
    const int before = rec::Count("run_apart held up");
    Status();
    if (rec::Count("run_apart held up") > before) {
      at.push_back(second);
    }
    rec::PassTime(10);
  }
  ASSERT_EQ(at.size(), 11U);
  std::vector<int> pauses;
  for (size_t i = 1; i < at.size(); i++) {
    pauses.push_back((at[i] - at[i - 1] + 5) / 10 * 10);
  }
  EXPECT_EQ(pauses, (std::vector<int>{30, 60, 120, 240, 480, 600, 600, 600, 600, 600}));
  EXPECT_EQ(rec::Messages().size(), 1U);
}

TEST_F(MibStatus, AnotherProcessOfThatNumberIsAskedAtOnce) {
  Object("ida/misc", {1, 2, 2});
  Process(10, "anything", 10);
  Started(10, 500);
  rec::HoldUp(CommandLine(10));
  Status();
  rec::LetGo(CommandLine(10));
  Process(10, "vexida", 10);
  Started(10, 501);
  EXPECT_EQ(Row(Status(), 3), (Octets{1, 2, 1, 2}));
  EXPECT_EQ(rec::Messages().size(), 2U);
}

// One that has no start to tell, as while it ends, may be the same: it is left alone.
TEST_F(MibStatus, AHeldProcessWhoseStartCannotBeReadStaysHeld) {
  Object("ida/misc", {1, 2, 2});
  Process(10, "vexida", 10);
  Started(10, 500);
  Status();
  rec::HoldUp(CommandLine(10));
  Status();
  rec::LetGo(CommandLine(10));
  Process(10, "other", 10);
  for (const char *stat : {"", "10 (vexida", "10 (vexida) S 1 10 10"}) {
    rec::PutFile("/proc/10/stat", stat);
    EXPECT_EQ(Row(Status(), 3), (Octets{1, 2, 1, 2})) << stat;
  }
  // Until it is seen to be another one.
  Started(10, 501);
  EXPECT_EQ(Row(Status(), 3)[0], 0);
}

TEST_F(MibStatus, AHeldPeerThatHasEndedIsSeenToStop) {
  Object("ida/misc", {1, 2, 2});
  Process(10, "vexida", 10);
  Status();
  rec::HoldUp(CommandLine(10));
  Status();
  rec::LetGo(CommandLine(10));
  End(10);
  EXPECT_EQ(Row(Status(), 3)[0], 0);
  EXPECT_EQ(rec::Messages().size(), 2U);
}

TEST_F(MibStatus, AListingWithoutTimeGoesOnWhereItStopped) {
  Object("ida/misc", {1, 2, 2});
  Object("scsi/mib", {1, 2, 2});
  Process(5, "vexscsi", 5);
  Status();
  for (int pid = 10; pid < 310; pid++) {
    Process(pid, "anything", pid);
    rec::HoldUp(CommandLine(pid));
  }
  Process(400, "vexida", 400);
  int listings = 0;
  for (; listings < 20; listings++) {
    const int64_t before = monotonic_nanoseconds();
    const Array array = Status();
    EXPECT_LT(monotonic_nanoseconds() - before, 3'500'000'000);
    EXPECT_EQ(Row(array, 5), (Octets{1, 2, 1, 2}));
    if (Row(array, 3)[0] == 1) {
      break;
    }
  }
  EXPECT_LT(listings, 12);
  EXPECT_EQ(rec::Messages().size(), 1U);
}

// Those that were not asked come first in the next one.
TEST_F(MibStatus, AListingThatIsEndedGoesOnWhereItStopped) {
  for (const int pid : {10, 20, 30, 40}) {
    Process(pid, "anything", pid);
  }
  rec::HoldUp(CommandLine(20));
  rec::Fail("run_apart", "2", 1, EINTR);  // for 30 and 40
  Status();
  rec::HoldUp(CommandLine(40));
  rec::ForgetEvents();
  Status();  // 30, 40, 10
  EXPECT_EQ(rec::Names("run_apart"), (std::vector<std::string>{"3", "1"}));
  EXPECT_EQ(rec::Names("run_apart held up"), std::vector<std::string>{"1"});
}

// Then no process is to blame, and none is left out.
TEST_F(MibStatus, AChildThatHadNoTimeIsFollowedByAnother) {
  Object("ida/misc", {1, 2, 2});
  Process(10, "vexida", 10);
  for (const int error : {EAGAIN, ETIME}) {
    rec::ForgetEvents();
    rec::Fail("run_apart", "*", 1, error);
    EXPECT_EQ(Row(Status(), 3), (Octets{1, 2, 1, 2})) << strerror(error);
    EXPECT_EQ(Children(), 2);
    EXPECT_EQ(rec::Messages(), std::vector<std::string>{});
    rec::StopFailing();
    End(10);
    EXPECT_EQ(Row(Status(), 3)[0], 0);
    Process(10, "vexida", 10);
  }
}

TEST_F(MibStatus, ThatNoChildCanBeStartedIsSaidAlsoBesideAHeldProcess) {
  Process(10, "anything", 10);
  rec::HoldUp(CommandLine(10));
  Status();
  rec::ForgetEvents();
  rec::Fail("run_apart", "*", 0, ENOMEM);
  Process(11, "other", 11);
  Status();
  Status();
  EXPECT_EQ(rec::Messages(),
            std::vector<std::string>{
                "Cannot read the command lines of processes: Cannot allocate memory\n"});
}

TEST_F(MibStatus, WhileNoChildCanBeStartedEveryProcessIsWhatItWas) {
  Object("ida/misc", {1, 2, 2});
  Process(10, "vexida", 10);
  Status();
  rec::Fail("run_apart", "*", 0, ENOMEM);
  rec::ForgetEvents();
  Process(11, "vexscsi", 11);
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(Row(Status(), 3), (Octets{1, 2, 1, 2}));
  }
  EXPECT_EQ(rec::Count("get_obj", "ida/misc"), 0);
  EXPECT_EQ(rec::Messages(),
            std::vector<std::string>{
                "Cannot read the command lines of processes: Cannot allocate memory\n"});
  End(10);
  EXPECT_EQ(Row(Status(), 3)[0], 0);
  rec::StopFailing();
  rec::ForgetEvents();
  Object("scsi/mib", {1, 2, 2});
  EXPECT_EQ(Row(Status(), 5), (Octets{1, 2, 1, 2}));
  EXPECT_EQ(rec::Messages().size(), 1U);
}

// ---- Getters ------------------------------------------------------------------------------------

TEST_F(MibStatus, AnObjectWithTooFewVariables) {
  Process(10, "vexida", 10);
  Process(20, "vexstdeq", 20);
  // Revision: two are needed; condition: three.
  Object("ida/misc", {1});
  EXPECT_EQ(Row(Status(), 3), (Octets{0, 0, 0, 0}));
  Object("ida/misc", {1, 2});
  EXPECT_EQ(Row(Status(), 3), (Octets{0, 0, 1, 2}));
  // sinfo: 23 and 24.
  Object("stdeq/sinfo", std::vector<int>(22, 9));
  EXPECT_EQ(Row(Status(), 2), (Octets{0, 0, 0, 0}));
  Object("stdeq/sinfo", std::vector<int>(23, 9));
  EXPECT_EQ(Row(Status(), 2), (Octets{0, 0, 9, 9}));
  Object("stdeq/sinfo", std::vector<int>(24, 9));
  EXPECT_EQ(Row(Status(), 2), (Octets{1, 9, 9, 9}));
}

TEST_F(MibStatus, AnObjectWithoutData) {
  Process(10, "vexida", 10);
  rec::PutSibling("ida/misc", {});
  EXPECT_EQ(Row(Status(), 3), (Octets{0, 0, 0, 0}));
  rec::PutSiblingData("ida/misc", "only data, no variables");
  EXPECT_EQ(Row(Status(), 3), (Octets{0, 0, 0, 0}));
}

// It says nothing, also of a variable that any object may lack.
TEST_F(MibStatus, AnObjectWithoutVariablesLeavesTheHealthOfAPeerThatRuns) {
  Process(10, "vexhealth", 10);
  Process(20, "vexstdeq", 20);
  const char *const objects[] = {"health/res_mem", "health/thermal", "health/event_log_status"};
  for (const char *object : objects) {
    Object(object, {1, 3, 4, 2});
  }
  const Octets expected = {2, 2, 4, 0, 3};
  const auto conditions = [] {
    const Array array = Health();
    return Octets(array.begin() + 3, array.begin() + 8);
  };
  EXPECT_EQ(conditions(), expected);
  for (const char *object : objects) {
    rec::PutSiblingData(object, "only data, no variables");
  }
  EXPECT_EQ(conditions(), expected);
}

TEST_F(MibStatus, LenientGettersReadAMissingVariableAsZero) {
  Object("health/event_log_status", {7});
  Object("health/thermal", {1, 2});
  Object("health/res_mem", {1, 2, 3});
  Array array = Zeros();
  array[7] = 9;
  BuildHealth(&array);
  EXPECT_EQ(array[7], 0);
  EXPECT_EQ(array[3], 0);
  EXPECT_EQ(array[4], 0);
  EXPECT_EQ(array[5], 0);
}

TEST_F(MibStatus, AVariableShorterThanAnIntegerReadsAsZero) {
  rec::PutSibling("health/ftps", {rec::OctetVar("v", 3, "\x07\x07\x07")});
  rec::PutSibling("stdeq/cpucondition", {rec::OctetVar("v", 5, std::string("\x03\0\0\0\x07", 5))});
  const Array array = Health();
  EXPECT_EQ(array[6], 0);
  EXPECT_EQ(array[2], 3);
}

TEST_F(MibStatus, SnmpRevisionIsStoredAsFarAsItCouldBeRead) {
  Process(10, "vexnic", 10);
  rec::PutSnmpInteger("enterprises.4891.18.1.3.0", 2);
  EXPECT_EQ(Row(Status(), 18), (Octets{0, 2, 0, 0}));
  rec::PutSnmpInteger("enterprises.4891.18.1.2.0", 7);
  EXPECT_EQ(Row(Status(), 18), (Octets{0, 2, 0, 7}));
  rec::PutSnmpInteger("enterprises.4891.18.1.1.0", 6);
  EXPECT_EQ(Row(Status(), 18), (Octets{1, 2, 6, 7}));
}

TEST_F(MibStatus, SnmpPeerWithoutACondition) {
  Process(10, "fio-snmp-agentx", 10);
  rec::PutSnmpInteger("enterprises.4891.172.1.1.0", 6);
  rec::PutSnmpInteger("enterprises.4891.172.1.2.0", 7);
  EXPECT_EQ(Row(Status(), 26), (Octets{0, 0, 6, 7}));
}

TEST_F(MibStatus, WithoutAConnectionNothingIsAsked) {
  Process(10, "vexnic", 10);
  rec::Fail("init_snmp_connection");
  EXPECT_EQ(Row(Status(), 18), (Octets{0, 0, 0, 0}));
  EXPECT_EQ(rec::Count("get_one_snmp_integer_from_api"), 0);
  EXPECT_EQ(rec::Count("cleanup_snmp_connection"), 0);
}

// ---- The health array ---------------------------------------------------------------------------

TEST_F(MibStatus, HealthFollowsAConditionAtOnce) {
  Process(10, "vexida", 10);
  Object("ida/misc", {1, 2, 2});
  EXPECT_EQ(Health()[9], 2);
  Object("ida/misc", {1, 2, 3});
  EXPECT_EQ(Health()[9], 3);
}

TEST_F(MibStatus, HealthReadsConditionsOfPeersThatDoNotRun) {
  Object("ida/misc", {1, 2, 2});
  EXPECT_EQ(Health()[9], 2);
  rec::RemoveSibling("ida/misc");
  // Cleared by the scan, and nothing to read.
  EXPECT_EQ(Health()[9], 0);
}

TEST_F(MibStatus, HealthKeepsTheConditionOfARunningPeerWhoseObjectIsGone) {
  Process(10, "vexida", 10);
  Object("ida/misc", {1, 2, 3});
  Health();
  rec::RemoveSibling("ida/misc");
  EXPECT_EQ(Health()[9], 3);
  EXPECT_EQ(Health()[9], 3);
}

TEST_F(MibStatus, TheTwoWorstConditions) {
  // Octet 0: indexes 2 to 6, 8 and 15; octet 1: all.
  const std::map<int, std::pair<const char *, int>> sources = {
      {2, {"stdeq/cpucondition", 0}}, {3, {"health/res_mem", 3}},
      {4, {"health/thermal", 3}},     {5, {"health/thermal", 2}},
      {6, {"health/ftps", 0}},        {7, {"health/event_log_status", 1}},
      {9, {"ida/misc", 2}},           {10, {"scsi/mib", 2}},
      {11, {"stsys/mib", 2}},         {12, {"ide/mib", 2}},
      {13, {"fca/misc", 2}},          {15, {"crib/misc", 2}}};
  for (const auto &[index, source] : sources) {
    std::vector<int> values(static_cast<size_t>(source.second) + 1, 0);
    values.resize(4);
    values[static_cast<size_t>(source.second)] = 4;
    Object(source.first, values);
    const Array array = Health();
    EXPECT_EQ(array[static_cast<size_t>(index)], 4);
    EXPECT_EQ(array[0], (index >= 2 && index <= 6) || index == 15 ? 4 : 0) << index;
    EXPECT_EQ(array[1], 4) << index;
    rec::RemoveSibling(source.first);
  }
  for (const auto &[oid, index] :
       {std::pair{"1.3.6.1.4.1.4891.6.2.5.17.0", 8}, {"1.3.6.1.4.1.4891.18.1.3.0", 14}}) {
    rec::PutSnmpInteger(oid, 4);
    const Array array = Health();
    EXPECT_EQ(array[static_cast<size_t>(index)], 4);
    EXPECT_EQ(array[0], index == 8 ? 4 : 0);
    EXPECT_EQ(array[1], 4);
    rec::PutSnmpInteger(oid, 0, 1);
  }
}

TEST_F(MibStatus, ThereIsNoPeerBesideTheTable) {
  peer_view peer = {};
  EXPECT_TRUE(get_peer(0, &peer));
  EXPECT_EQ(peer.index, 1);
  EXPECT_TRUE(get_peer(15, &peer));
  EXPECT_EQ(peer.index, 26);
  EXPECT_FALSE(get_peer(16, &peer));
  EXPECT_FALSE(get_peer(-1, &peer));
}

TEST_F(MibStatus, EachPartOfTheHealthIsJudgedByItsGroup) {
  const auto health_of = [](int index) {
    peer_view peer = {};
    for (int place = 0; get_peer(place, &peer); place++) {
      if (peer.index == index) {
        return peer.health;
      }
    }
    return -1;
  };
  const std::vector<std::pair<const char *, int>> sources = {
      {"stdeq/cpucondition", 1}, {"health/res_mem", 6}, {"health/thermal", 6}, {"health/ftps", 6},
      {"ida/misc", 3},           {"scsi/mib", 5},       {"stsys/mib", 8},      {"ide/mib", 14},
      {"fca/misc", 16},          {"crib/misc", 9}};
  for (const auto &[source, group] : sources) {
    Object(source, {3, 3, 3, 3});
    Health();
    for (const int index : {1, 2, 3, 5, 6, 8, 9, 10, 11, 14, 16, 18, 21, 22, 23, 26}) {
      EXPECT_EQ(health_of(index), index == group ? 3 : 0) << source << " " << index;
    }
    rec::RemoveSibling(source);
  }
  // The worst of several parts.
  Object("health/thermal", {0, 0, 2, 4});
  Object("health/ftps", {3});
  Health();
  EXPECT_EQ(health_of(6), 4);
}

// ---- The health trap ----------------------------------------------------------------------------

const std::string kZeroLine = "\n00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00";

std::string ZeroLines() {
  std::string lines;
  for (int i = 0; i < 15; i++) {
    lines += kZeroLine;
  }
  return lines;
}

TEST_F(MibStatus, NoTrapAtTheFirstBuild) {
  Object("ida/misc", {1, 2, 2});
  Array array = Zeros();
  BuildHealth(&array);
  BuildHealth(&array);
  EXPECT_EQ(array[1], 2);
  EXPECT_TRUE(rec::Traps().empty());
}

TEST_F(MibStatus, ATrapWhenTheWorstConditionChanges) {
  Object("ida/misc", {1, 2, 2});
  Object("health/ftps", {2});
  Array array = Zeros();
  BuildHealth(&array);
  Object("health/ftps", {4});
  BuildHealth(&array);
  ASSERT_EQ(rec::Traps().size(), 1U);
  EXPECT_EQ(rec::Traps()[0].number, 11020);
  EXPECT_EQ(rec::Traps()[0].object, "");
  EXPECT_TRUE(rec::Traps()[0].slots.empty());
  EXPECT_EQ(rec::Traps()[0].description,
            "tlxHoMibHealthStatusArray has changed to the value :"
            "04 04 00 00 00 00 04 00 00 02 00 00 00 00 00 00" +
                ZeroLines());
  // Unchanged: none. Another component, the same worst: none.
  BuildHealth(&array);
  Object("ida/misc", {1, 2, 4});
  BuildHealth(&array);
  EXPECT_EQ(rec::Traps().size(), 1U);
  // Back to normal, and then to nothing at all.
  Object("ida/misc", {1, 2, 2});
  Object("health/ftps", {2});
  BuildHealth(&array);
  EXPECT_EQ(rec::Traps().size(), 2U);
  rec::RemoveSibling("ida/misc");
  rec::RemoveSibling("health/ftps");
  BuildHealth(&array);
  ASSERT_EQ(rec::Traps().size(), 3U);
  EXPECT_EQ(rec::Traps()[2].description,
            "tlxHoMibHealthStatusArray has changed to the value :"
            "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00" +
                ZeroLines());
  // From nothing: none.
  Object("ida/misc", {1, 2, 3});
  BuildHealth(&array);
  EXPECT_EQ(rec::Traps().size(), 3U);
}

TEST_F(MibStatus, OctetsAreComparedAsTheyStand) {
  // 258 and 2 have the same low octet.
  Object("ida/misc", {1, 2, 2});
  Array array = Zeros();
  BuildHealth(&array);
  Object("ida/misc", {1, 2, 258});
  BuildHealth(&array);
  EXPECT_TRUE(rec::Traps().empty());
  Object("ida/misc", {1, 2, 200});
  BuildHealth(&array);
  BuildHealth(&array);
  EXPECT_EQ(rec::Traps().size(), 1U);
}

TEST_F(MibStatus, TrapTextOfLargeAndNegativeOctets) {
  unsigned char array[STATUS_ARRAY_SIZE] = {2, 10, 100, 127, 128, 255, 0, 9};
  array[15] = 200;
  array[16] = 3;  // not shown
  char text[HEALTH_TRAP_TEXT_SIZE];
  format_health_trap(array, text);
  EXPECT_EQ(text,
            "tlxHoMibHealthStatusArray has changed to the value :"
            "02 010 0100 0127 0-128 0-1 00 09 00 00 00 00 00 00 00 0-56" +
                ZeroLines());
}

TEST_F(MibStatus, TheLongestTrapTextFits) {
  unsigned char array[STATUS_ARRAY_SIZE];
  memset(array, 0x80, sizeof(array));
  char text[HEALTH_TRAP_TEXT_SIZE];
  format_health_trap(array, text);
  std::string expected = "tlxHoMibHealthStatusArray has changed to the value :0-128";
  for (int i = 1; i < 16; i++) {
    expected += " 0-128";
  }
  EXPECT_EQ(text, expected + ZeroLines());
}

}  // namespace
