// vexhostd-standin, which answers managers while a package replaces the agent.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "platform/framework.h"
#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

constexpr char kSize[] = "tlxHoPhysicalMemorySize";
constexpr char kNoObject[] = "No Such Object available on this agent at this OID";
constexpr char kUsage[] = "usage: vexhostd-standin [SECONDS]\n";

// With these words, by a shell that does that before.
Outcome StandIn(const std::vector<std::string> &words, const std::string &before = "") {
  std::vector<std::string> command = {"sh", "-c", before + "exec \"$0\" \"$@\"", StandInPath()};
  command.insert(command.end(), words.begin(), words.end());
  ProcessOptions options;
  options.fixed_addresses = true;
  return RunCommand(command, options);
}

// The same behind a master that may be slow on a busy machine: it is given two seconds only.
Outcome StandInBehind(const std::vector<std::string> &words, const std::string &before = "") {
  Outcome outcome;
  for (int tries = 0; tries < 5; tries++) {
    outcome = StandIn(words, before);
    if (outcome.status != 1 || !outcome.err.empty()) {
      break;
    }
  }
  return outcome;
}

// The processes of the program, that of its SNMP side among them.
std::vector<pid_t> StandIns() {
  std::vector<pid_t> found;
  for (const std::string &name : ListDirectory("/proc")) {
    std::error_code error;
    const std::string program = std::filesystem::read_symlink("/proc/" + name + "/exe", error);
    if (name.find_first_not_of("0123456789") == std::string::npos &&
        program.ends_with("/vexhostd-standin")) {
      found.push_back(std::stoi(name));
    }
  }
  return found;
}

bool AllEnd() {
  return Eventually([] { return StandIns().empty(); });
}

// The number of the process that stays; fails the test when the output is something else.
pid_t Standing(const std::vector<std::string> &words, const std::string &before = "") {
  const Outcome outcome = StandInBehind(words, before);
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.err, "");
  const pid_t pid = atoi(outcome.out.c_str());
  EXPECT_EQ(outcome.out, std::to_string(pid) + "\n");
  return pid;
}

// An object of one variable.
void Publish(const std::string &object, const std::string &variable, uint8_t type,
             const std::string &bytes) {
  vex::FileVariable made;
  made.name = variable;
  made.type = type;
  made.access = ACCESS_READ_ONLY;
  made.size = static_cast<uint32_t>(bytes.size());
  const auto length = static_cast<uint16_t>(bytes.size());
  vex::ObjectFileWriter writer(object);
  writer.SetLayout({made}, made.size);
  ASSERT_EQ(writer.Publish(reinterpret_cast<const uint8_t *>(bytes.data()), &length), 0);
}

void PublishSize(const std::string &object, int32_t megabytes) {
  Publish(object, kSize, VAR_INTEGER,
          std::string(reinterpret_cast<const char *>(&megabytes), sizeof(megabytes)));
}

char StateOf(pid_t pid) {
  const std::string text = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  const size_t end = text.rfind(") ");
  return end == std::string::npos ? '-' : text.at(end + 2);
}

}  // namespace

TEST(StandIn, AnswersBetweenTwoAgentsWithWhatWasServed) {
  MadeUpHost host;
  host.Start();
  EXPECT_EQ(host.Set("tlxHoSystemRole", 's', "database"), "noError");
  ASSERT_TRUE(host.daemon.Poll());
  const std::vector<std::string> before = host.Walk();
  // None of these is served: a sibling's object, one that nobody knows, one whose variable has
  // another type, and one that is not whole.
  PublishSize("sibling/memory", 7);
  Publish("host/another", "tlxHoNothing", VAR_INTEGER, "1234");
  Publish("host/also", kSize, VAR_DISPLAY_STRING, "text");
  const std::string memory = ReadFile(std::string(MadeUpHost::kRegistry) + "/host/memory");
  host.File(std::string(MadeUpHost::kRegistry) + "/host/damaged",
            memory.substr(0, memory.size() / 2));

  const pid_t pid = Standing({"300"});
  ASSERT_GT(pid, 1);
  // Where there is an agent, that one answers.
  host.Proc("meminfo", "MemTotal: 4096 kB\n");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get(kSize), "INTEGER: 4");
  EXPECT_EQ(host.daemon.Stop(), 0);

  EXPECT_EQ(host.Walk(), before);
  EXPECT_EQ(host.Set("tlxHoSystemRole", 's', "mail"), "notWritable");

  host.daemon.Start();
  EXPECT_TRUE(Eventually([&] { return host.Get(kSize) == "INTEGER: 4"; }));
  EXPECT_EQ(kill(pid, SIGTERM), 0);
  EXPECT_TRUE(AllEnd());
  EXPECT_EQ(host.Get(kSize), "INTEGER: 4");
}

// A script that reads its number does not wait for it, and neither its directory nor its session
// does.
TEST(StandIn, LeavesItsCaller) {
  MadeUpHost host;
  host.snmpd.Start();
  PublishSize("host/memory", 7);
  const pid_t pid = Standing({}, "cd /tmp; ");
  ASSERT_GT(pid, 1);
  const std::vector<pid_t> all = StandIns();
  EXPECT_NE(std::find(all.begin(), all.end(), pid), all.end());
  EXPECT_EQ(getsid(pid), pid);
  const std::string process = "/proc/" + std::to_string(pid);
  EXPECT_EQ(std::filesystem::read_symlink(process + "/cwd"), "/");
  for (const std::string descriptor : {"0", "1", "2"}) {
    EXPECT_EQ(std::filesystem::read_symlink(process + "/fd/" + descriptor), "/dev/null");
  }
  EXPECT_EQ(kill(pid, SIGINT), 0);
  EXPECT_TRUE(AllEnd());
  EXPECT_EQ(host.Get(kSize), kNoObject);
}

TEST(StandIn, EndsByItself) {
  MadeUpHost host;
  host.snmpd.Start();
  PublishSize("host/memory", 7);
  const double begin = Now();
  Standing({"1"});
  EXPECT_TRUE(AllEnd());
  EXPECT_GE(Now() - begin, 1);
  EXPECT_EQ(host.Get(kSize), kNoObject);
}

TEST(StandIn, StaysWhenItWasStopped) {
  MadeUpHost host;
  host.snmpd.Start();
  PublishSize("host/memory", 7);
  const pid_t pid = Standing({"300"});
  ASSERT_GT(pid, 1);
  EXPECT_EQ(kill(pid, SIGHUP), 0);  // as at the end of its caller's terminal
  for (int round = 0; round < 3; round++) {
    EXPECT_EQ(kill(pid, SIGSTOP), 0);
    EXPECT_TRUE(Eventually([&] { return StateOf(pid) == 'T'; })) << round;
    EXPECT_EQ(kill(pid, SIGCONT), 0);
    EXPECT_TRUE(Eventually([&] { return StateOf(pid) == 'S'; })) << round;
    EXPECT_EQ(host.Get(kSize), "INTEGER: 7");
  }
  EXPECT_EQ(kill(pid, SIGTERM), 0);
  EXPECT_TRUE(AllEnd());
}

// The caller may have closed its descriptors: what is opened then must not be taken for them.
TEST(StandIn, NeedsNoStandardDescriptors) {
  MadeUpHost host;
  host.snmpd.Start();
  PublishSize("host/memory", 7);
  const Outcome outcome = StandInBehind({"5"}, "exec <&- >&-; ");
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(host.Get(kSize), "INTEGER: 7");
}

TEST(StandIn, TakesFewSeconds) {
  MadeUpHost host;
  const std::vector<std::string> cases[] = {{"0"}, {"-1"}, {"601"},   {"x"},
                                            {""},  {"9 "}, {"1", "2"}};
  for (const std::vector<std::string> &words : cases) {
    const Outcome outcome = StandIn(words);
    EXPECT_EQ(outcome.status, 2) << words[0];
    EXPECT_EQ(outcome.err, kUsage) << words[0];
    EXPECT_EQ(outcome.out, "") << words[0];
  }
}

// Each ends soon, and leaves nobody who would answer after all.
TEST(StandIn, EndsWhereItCannotStand) {
  MadeUpHost host;
  const auto fails = [](const Outcome &outcome, const std::string &said) {
    EXPECT_EQ(outcome.status, 1) << said;
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, said);
    EXPECT_TRUE(AllEnd()) << said;
  };
  fails(StandIn({}), "");  // there is no object
  host.snmpd.Start();
  Publish("host/another", "tlxHoNothing", VAR_INTEGER, "1234");
  PublishSize("sibling/memory", 7);
  fails(StandIn({}), "");  // none of the agent's that is served
  host.snmpd.Stop();
  PublishSize("host/memory", 7);
  fails(StandIn({}), "");  // there is no master
  host.snmpd.Start();
  // Nobody would learn its number.
  fails(StandInBehind({}, "exec >/dev/full; "), "vexhostd-standin: No space left on device\n");
  const std::string without_reader =
      "mkfifo -m 600 /tmp/pipe 2>/dev/null; exec 3<>/tmp/pipe >/tmp/pipe 3<&-; ";
  fails(StandInBehind({}, without_reader), "vexhostd-standin: Broken pipe\n");
  EXPECT_EQ(host.Get(kSize), kNoObject);
  // No process comes into a namespace whose first one has ended.
  fails(RunCommand({"env", "ASAN_OPTIONS=detect_leaks=0", "unshare", "--pid", "sh", "-c",
                    "/bin/true; exec \"$0\"", StandInPath()}),
        "vexhostd-standin: Cannot allocate memory\n");
  // Its caller would wait for descriptors that it cannot leave.
  host.Remove("/dev/null");
  fails(StandIn({"3"}), "vexhostd-standin: /dev/null: No such file or directory\n");
}

TEST(StandIn, EndsWithoutDescriptorsOrAThread) {
  MadeUpHost host;
  host.snmpd.Start();
  PublishSize("host/memory", 7);
  const Outcome few = StandIn({}, "ulimit -n 4; ");
  EXPECT_EQ(few.status, 1);
  EXPECT_EQ(few.err, "vexhostd-standin: Too many open files\n");
  // The stack of a thread would be larger than the address space.
  EXPECT_EQ(StandIn({}, "ulimit -s 200000000000; ").status, 1);
  EXPECT_TRUE(AllEnd());
  EXPECT_EQ(host.Get(kSize), kNoObject);
}
