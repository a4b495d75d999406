// Tools, controllers and masters that hang: what they hold up, what stays, and how the agent ends.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "tests/support/made_up_host.h"
#include "tests/support/simulated_controller.h"

using namespace made_up;
using vex::ControllerMood;
using vex::SimulatedController;

namespace {

constexpr char kState[] = "/run/packages";
constexpr char kDatabase[] = "/var/lib/dpkg/available";
// How a process of a hanging tool is told apart.
constexpr char kMark[] = "864123";

void PutPackages(MadeUpHost &host, const std::string &list) {
  static time_t time = 1000000;
  host.File(std::string(kState) + "/list", list);
  host.File(kDatabase, "");
  const timespec times[2] = {{++time, 0}, {time, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, kDatabase, times, 0), 0);
}

// dpkg that prints what the file list has and notes each call; while the file hang is there, it
// does what that says instead.
void MakeUpDpkg(MadeUpHost &host, const std::string &list) {
  host.Command("dpkg", std::string("cd ") + kState +
                           "\n"
                           "echo \"dpkg $*\" >>calls\n"
                           "test -e hang && . ./hang\n"
                           "case $1 in\n"
                           "--print-architecture) echo amd64 ;;\n"
                           "*) cat list ;;\n"
                           "esac\n"
                           "exit 0\n");
  host.Command("rpm", "exit 0");
  PutPackages(host, list);
}

std::string Line(const std::string &name, const std::string &version = "1.0") {
  return "ii  " + name + "  " + version + "  all  Some package\n";
}

void Hang(MadeUpHost &host, const std::string &how = std::string("sleep ") + kMark) {
  host.File(std::string(kState) + "/hang", how + "\n");
}

size_t Calls() {
  return Lines(ReadFile(std::string(kState) + "/calls")).size();
}

// Processes of hanging tools.
size_t Hanging() {
  size_t count = 0;
  for (const std::string &name : ListDirectory("/proc")) {
    const std::string line = ReadFile("/proc/" + name + "/cmdline");
    count += line.find(kMark) != std::string::npos ? 1 : 0;
  }
  return count;
}

bool NothingPublished() {
  return !Exists(std::string(MadeUpHost::kRegistry) + "/host");
}

// However a tool hangs from the start on: the groups after it appear, the log names it, nothing of
// it is left, and the next poll does without.
void ExpectOnlyADelay(const std::string &how) {
  MadeUpHost host;
  MakeUpDpkg(host, Line("glut"));
  Hang(host, how);
  host.snmpd.Start();
  DaemonOptions options;
  options.wait = false;
  host.daemon.Start(options);
  ASSERT_TRUE(host.daemon.WaitStarted(60));
  ASSERT_TRUE(host.daemon.WaitServed());
  EXPECT_EQ(host.Column("tlxHoCpuUtilMin").size(), 2U);
  EXPECT_EQ(host.Column("tlxHoSwVerIndex").size(), 4U);
  EXPECT_EQ(host.daemon.Count("Command ran out of time and was killed"), 1U) << host.daemon.Log();
  EXPECT_EQ(host.daemon.Count("seconds): dpkg -la | grep ii | cut -d ' ' -f3"), 1U);
  EXPECT_TRUE(Eventually([] { return Hanging() == 0; }));
  const size_t calls = Calls();
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(Calls(), calls);
  EXPECT_EQ(Children(host.daemon.pid()), std::vector<pid_t>{});
}

}  // namespace

namespace {

// What the commands that were killed had, together: the agent's own limits, whatever the machine.
double KilledSeconds(MadeUpHost &host) {
  double sum = 0;
  for (const std::string &line : host.daemon.LinesWith(" seconds): ")) {
    const size_t at = line.find("killed (");
    sum += at == std::string::npos ? 0 : std::stod(line.substr(at + strlen("killed (")));
  }
  return sum;
}

}  // namespace

TEST(HangingTool, ThatDoesNothing) {
  ExpectOnlyADelay(std::string("sleep ") + kMark);
}

TEST(HangingTool, ThatIgnoresTheRequestToEndAsItsChildrenDo) {
  ExpectOnlyADelay(std::string("trap '' TERM INT HUP; sh -c 'sleep ") + kMark +
                   "; :' & while :; do sleep 1; done");
}

TEST(HangingTool, ThatClosesItsOutput) {
  ExpectOnlyADelay(std::string("exec >/dev/null 2>&1 </dev/null; sleep ") + kMark);
}

TEST(HangingTool, ThatWritesWithoutEnd) {
  ExpectOnlyADelay("while :; do echo 'ii  glut  1.0'; echo 'a complaint' >&2; done");
}

TEST(HangingTool, DelaysAPollOnceAndCostsNoRow) {
  MadeUpHost host;
  MakeUpDpkg(host, Line("glut") + Line("qvdiags"));
  host.Start();
  ASSERT_EQ(host.Get("tlxHoSwVerVersion.5"), "STRING: \"1.0\"");
  Hang(host);
  PutPackages(host, Line("glut", "2.0"));
  const size_t calls = Calls();
  ASSERT_TRUE(host.daemon.Poll(60));
  EXPECT_EQ(Calls(), calls + 1);
  EXPECT_GT(KilledSeconds(host), 0);
  EXPECT_LE(KilledSeconds(host), 10);
  // The groups after it, and a set, have their turn.
  host.Proc("meminfo", "MemTotal: 8192 kB\n");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 8");
  EXPECT_EQ(host.Set("tlxHoSwVerType.4", 'i', "3"), "noError");
  EXPECT_EQ(host.Get("tlxHoSwVerVersion.4"), "STRING: \"1.0\"");
  EXPECT_EQ(host.Get("tlxHoSwVerVersion.5"), "STRING: \"1.0\"");
  EXPECT_EQ(host.daemon.Count("do_swver: a package tool hangs"), 1U);
  // It comes back, and is asked after half a minute.
  host.Remove(std::string(kState) + "/hang");
  ASSERT_TRUE(Eventually(
      [&] {
        EXPECT_TRUE(host.daemon.Poll());
        Pause(1);
        return host.Get("tlxHoSwVerVersion.4") == "STRING: \"2.0\"";
      },
      80));
  EXPECT_EQ(host.Get("tlxHoSwVerVersion.5"), "No Such Instance currently exists at this OID");
  EXPECT_EQ(host.daemon.Count("do_swver: the package scan came to its end"), 1U);
}

// dpkg and rpm share the time that package tools have, and are then left alone together.
TEST(HangingTool, WithAnotherOneCostsNoMoreThanOne) {
  MadeUpHost host;
  MakeUpDpkg(host, Line("glut"));
  Hang(host);
  host.Command("rpm", std::string("exec sleep ") + kMark + "\n");
  host.snmpd.Start();
  DaemonOptions options;
  options.wait = false;
  host.daemon.Start(options);
  ASSERT_TRUE(host.daemon.WaitStarted(60));
  ASSERT_TRUE(host.daemon.WaitServed());
  EXPECT_EQ(host.daemon.Count("killed (4.0 seconds): rpm -qa"), 1U) << host.daemon.Log();
  EXPECT_EQ(host.daemon.Count("seconds): dpkg -la"), 1U) << host.daemon.Log();
  EXPECT_LE(KilledSeconds(host), 10);
  const size_t calls = Calls();
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(Calls(), calls);
  EXPECT_TRUE(Eventually([] { return Hanging() == 0; }));
}

TEST(HangingTool, OfVMwaresIsCutOff) {
  MadeUpHost host;
  host.Directory("/vmfs/volumes");
  host.Command("vdf", std::string("sleep ") + kMark);
  DaemonOptions options;
  options.wait = false;
  host.daemon.Start(options);
  ASSERT_TRUE(host.daemon.WaitStarted(60));
  EXPECT_EQ(host.daemon.Count("seconds): vdf | grep \"/vmfs/volumes\""), 1U) << host.daemon.Log();
  EXPECT_TRUE(MadeUpHost::Object("host/filesys.0"));
  EXPECT_TRUE(Eventually([] { return Hanging() == 0; }));
}

TEST(ToolsComplaint, StandsInTheLogOnceWithTheCommand) {
  MadeUpHost host;
  MakeUpDpkg(host, Line("glut") + Line("qvdiags"));
  host.File(std::string(kState) + "/hang", "echo \"dpkg: warning: a broken entry\" >&2\n");
  host.Start();
  PutPackages(host, Line("glut") + Line("qvdiags"));
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.daemon.Count("Command says: dpkg: warning: a broken entry (dpkg -la | grep ii"),
            1U)
      << host.daemon.Log();
  host.File(std::string(kState) + "/hang", "echo \"dpkg: another\" >&2\n");
  PutPackages(host, Line("glut") + Line("qvdiags"));
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.daemon.Count("Command says: dpkg: another (dpkg -la | grep ii"), 1U);
}

TEST(PollEndedEarly, IsSaidWhenItBeginsAndWhenItEnds) {
  MadeUpHost host;
  host.Start();
  const std::string mounts = ReadFile("/etc/mtab");
  host.Remove("/etc/mtab");
  for (int i = 0; i < 3; i++) {
    ASSERT_TRUE(host.daemon.Poll());
  }
  EXPECT_EQ(host.daemon.Count("The poll ended early: the file systems group failed"), 1U)
      << host.daemon.Log();
  host.File("/etc/mtab", mounts);
  ASSERT_TRUE(host.daemon.Poll());
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.daemon.Count("Polls are whole again"), 1U);
}

TEST(StartEndedEarly, NamesTheGroup) {
  MadeUpHost host;
  host.Remove("/etc/mtab");
  DaemonOptions options;
  options.wait = false;
  host.daemon.Start(options);
  EXPECT_EQ(host.daemon.WaitEnd(30), 1);
  EXPECT_EQ(host.daemon.Count("Start-up failed: the file systems group could not be built"), 1U);
}

TEST(Ending, SkipsTheGroupsAfterTheSignal) {
  MadeUpHost host;
  MakeUpDpkg(host, Line("glut"));
  host.Start();
  PutPackages(host, Line("glut", "2.0"));
  const size_t calls = Calls();
  host.BlockProc("meminfo");
  host.daemon.BeginPoll();
  ASSERT_TRUE(host.WaitBlocked());
  host.daemon.Signal(SIGTERM);
  host.UnblockProc("MemTotal: 4096 kB\n");
  EXPECT_EQ(host.daemon.WaitEnd(), 0);
  EXPECT_EQ(Calls(), calls);
  EXPECT_TRUE(NothingPublished());
}

TEST(Ending, LeavesNothingOfACommand) {
  MadeUpHost host;
  MakeUpDpkg(host, Line("glut"));
  host.Start();
  Hang(host, std::string("trap '' TERM; sleep ") + kMark + " & wait");
  PutPackages(host, Line("glut", "2.0"));
  host.daemon.BeginPoll();
  ASSERT_TRUE(Eventually([] { return Hanging() > 0; }));
  host.daemon.Signal(SIGTERM);
  EXPECT_EQ(host.daemon.WaitEnd(), 0);
  EXPECT_TRUE(NothingPublished());
  EXPECT_TRUE(Eventually([] { return Hanging() == 0; }));
}

// Of the service's unit, in seconds.
static double UnitsTimeoutStop() {
  constexpr char kKey[] = "TimeoutStopSec=";
  for (const std::string &line :
       Lines(ReadFile(VEX_TESTS_SOURCE_DIR "/packaging/vexhostd.service.in"))) {
    if (line.starts_with(kKey)) {
      return std::stod(line.substr(strlen(kKey)));
    }
  }
  return 0;
}

// A silent controller, a silent snmpd and a tool that hangs, all at once: a stop at any of them is
// far shorter than the unit's TimeoutStopSec.
TEST(Ending, WhileEverythingHangs) {
  const double limit = UnitsTimeoutStop() / 2;
  ASSERT_GT(limit, 0);
  MadeUpHost host;
  MakeUpDpkg(host, Line("glut"));
  host.Peer({"vexnic"});
  host.Peer({"vexhealth"});
  ControllerMood silent;
  silent.silent = true;
  for (int phase = 0; phase < 3; phase++) {
    SimulatedController controller;
    host.Remove(std::string(kState) + "/hang");
    host.Start();
    Hang(host, std::string("trap '' TERM; sleep ") + kMark);
    PutPackages(host, Line("glut", "2.0"));
    controller.SetMood(silent);
    const int asked = controller.Count(2);
    host.snmpd.Freeze();
    host.daemon.BeginPoll();
    if (phase == 1) {
      ASSERT_TRUE(Eventually([] { return Hanging() > 0; }, 60));
    } else if (phase == 2) {
      ASSERT_TRUE(Eventually([&] { return controller.Count(2) > asked; }, 60));
    }
    const double from = Now();
    host.daemon.Signal(SIGTERM);
    EXPECT_EQ(host.daemon.WaitEnd(60), 0) << phase;
    EXPECT_LT(Now() - from, limit) << phase;
    EXPECT_TRUE(NothingPublished());
    EXPECT_TRUE(Eventually([] { return Hanging() == 0; }));
    host.snmpd.Thaw();
    host.snmpd.Stop();
  }
}

// ---- Within a second ----------------------------------------------------------------------------

namespace {

void ExpectTheEndWithinASecond(MadeUpHost &host) {
  const double from = Now();
  host.daemon.Signal(SIGTERM);
  EXPECT_EQ(host.daemon.WaitEnd(30), 0);
  EXPECT_LT(Now() - from, 1);
  EXPECT_TRUE(NothingPublished());
}

}  // namespace

TEST(EndTiming, DuringTheStartUpPause) {
  MadeUpHost host;
  BeUrgent();
  DaemonOptions options;
  options.quick_start = false;
  options.wait = false;
  host.daemon.Start(options);
  ASSERT_TRUE(Eventually([&] { return host.daemon.Sleeps() == 1; }));
  ExpectTheEndWithinASecond(host);
}

TEST(EndTiming, DuringAStart) {
  MadeUpHost host;
  BeUrgent();
  MakeUpDpkg(host, Line("glut"));
  Hang(host);
  DaemonOptions options;
  options.wait = false;
  host.daemon.Start(options);
  ASSERT_TRUE(Eventually([] { return Hanging() > 0; }));
  ExpectTheEndWithinASecond(host);
}

TEST(EndTiming, DuringACommand) {
  MadeUpHost host;
  BeUrgent();
  MakeUpDpkg(host, Line("glut"));
  host.daemon.Start();
  Hang(host, std::string("trap '' TERM; sleep ") + kMark);
  PutPackages(host, Line("glut", "2.0"));
  host.daemon.BeginPoll();
  ASSERT_TRUE(Eventually([] { return Hanging() > 0; }));
  ExpectTheEndWithinASecond(host);
}

TEST(EndTiming, DuringAControllersSilence) {
  MadeUpHost host;
  BeUrgent();
  SimulatedController controller;
  host.daemon.Start();
  ControllerMood mood;
  mood.silent = true;
  controller.SetMood(mood);
  const int asked = controller.Count(2);
  host.daemon.BeginPoll();
  ASSERT_TRUE(Eventually([&] { return controller.Count(2) > asked; }));
  ExpectTheEndWithinASecond(host);
}

TEST(EndTiming, DuringThePauseBeforeTheControllerIsOpenedAgain) {
  MadeUpHost host;
  BeUrgent();
  SimulatedController controller;
  host.daemon.Start();
  const unsigned sleeps = host.daemon.Sleeps();
  ControllerMood mood;
  mood.resets = 1000;
  controller.SetMood(mood);
  host.daemon.BeginPoll();
  ASSERT_TRUE(Eventually([&] { return host.daemon.Sleeps() == sleeps + 1; }));
  ExpectTheEndWithinASecond(host);
}
