// The process: its beginning and end, its log, its polls, its children and what it leaves behind.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

// A notification socket as systemd has it.
class ServiceManager {
 public:
  explicit ServiceManager(const std::string &path) {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
  }
  ServiceManager(const ServiceManager &) = delete;
  ServiceManager &operator=(const ServiceManager &) = delete;
  ~ServiceManager() {
    close(fd_);
  }
  // Times that the state was told so far.
  size_t Count(const std::string &state) {
    char message[4096];
    for (ssize_t got; (got = recv(fd_, message, sizeof(message), 0)) >= 0;) {
      for (const std::string &line : Lines(std::string(message, static_cast<size_t>(got)))) {
        told_.push_back(line);
      }
    }
    return static_cast<size_t>(std::count(told_.begin(), told_.end(), state));
  }

 private:
  int fd_;
  std::vector<std::string> told_;
};

// What a log file has of the memory group.
std::string Told(const std::string &path) {
  std::string text;
  for (const std::string &line : Lines(ReadFile(path))) {
    if (line.find("do_memory: ") != std::string::npos) {
      text += line + "\n";
    }
  }
  return text;
}

// Whether all objects and their directory are gone. Files that the agent keeps for its next life
// lie in the root.
bool NothingPublished() {
  return !Exists(std::string(MadeUpHost::kRegistry) + "/host");
}

}  // namespace

TEST(Lifecycle, EndsCleanlyOnSigterm) {
  MadeUpHost host;
  host.Start();
  EXPECT_TRUE(Exists(MadeUpHost::kRegistry + std::string("/host/memory")));
  EXPECT_EQ(host.daemon.Stop(SIGTERM), 0);
  EXPECT_TRUE(NothingPublished());
  EXPECT_TRUE(Eventually([&] {
    return host.Get("tlxHoPhysicalMemorySize") ==
           "No Such Object available on this agent at this OID";
  }));
}

TEST(Lifecycle, EndsCleanlyOnSigint) {
  MadeUpHost host;
  host.daemon.Start();
  EXPECT_EQ(host.daemon.Stop(SIGINT), 0);
  EXPECT_TRUE(NothingPublished());
}

TEST(Lifecycle, LeavesTheRegistryToOthers) {
  MadeUpHost host;
  host.File(MadeUpHost::kRegistry + std::string("/stdeq/misc"), "a sibling's");
  host.daemon.Start();
  EXPECT_EQ(host.daemon.Stop(), 0);
  EXPECT_TRUE(NothingPublished());
  EXPECT_EQ(ReadFile(MadeUpHost::kRegistry + std::string("/stdeq/misc")), "a sibling's");
}

TEST(Lifecycle, AnotherSignalsStatusIsItsOwn) {
  MadeUpHost host;
  host.daemon.Start();
  EXPECT_EQ(host.daemon.Stop(SIGKILL), 128 + SIGKILL);
  // The next one clears what was left.
  EXPECT_TRUE(MadeUpHost::Object("host/memory"));
  host.daemon.Start();
  EXPECT_EQ(host.daemon.Stop(), 0);
  EXPECT_TRUE(NothingPublished());
}

TEST(Lifecycle, AFailedStartLeavesNothing) {
  MadeUpHost host;
  host.snmpd.Start();
  DaemonOptions options;
  options.program = TestAgentPath();
  options.arguments = {"fail"};
  options.wait = false;
  host.daemon.Start(options);
  EXPECT_EQ(host.daemon.WaitEnd(), 1);
  EXPECT_EQ(MadeUpHost::Objects(), std::vector<std::string>{});
  EXPECT_NE(access("/var/spool/quorix/kelmo/registry/host", F_OK), 0);
  EXPECT_EQ(host.daemon.Count("cleaning up"), 0U) << "the clean-up is for a start that succeeded";
}

TEST(Lifecycle, ATermDuringAPollWaitsForItsEnd) {
  MadeUpHost host;
  host.daemon.Start();
  host.BlockProc("meminfo");
  host.daemon.BeginPoll();
  ASSERT_TRUE(host.WaitBlocked());
  host.daemon.Signal(SIGTERM);
  EXPECT_FALSE(host.daemon.WaitEnd(0.5));
  host.UnblockProc("MemTotal: 4096 kB\n");
  EXPECT_EQ(host.daemon.WaitEnd(), 0);
  EXPECT_TRUE(NothingPublished());
}

TEST(Lifecycle, ATermDuringTheStartUpDelayEndsIt) {
  MadeUpHost host;
  DaemonOptions options;
  options.probe = false;
  options.wait = false;
  host.daemon.Start(options);
  // Its handler stands when SIGTERM is among the signals that it catches.
  ASSERT_TRUE(Eventually([&] {
    std::string status = ReadFile("/proc/" + std::to_string(host.daemon.pid()) + "/status");
    size_t at = status.find("SigCgt:");
    return at != std::string::npos &&
           (std::stoull(status.substr(at + 7), nullptr, 16) >> (SIGTERM - 1) & 1) != 0;
  }));
  host.daemon.Signal(SIGTERM);
  EXPECT_EQ(host.daemon.WaitEnd(30), 0);
  EXPECT_TRUE(NothingPublished());
}

TEST(Lifecycle, PollsByItself) {
  MadeUpHost host;
  DaemonOptions options;
  options.arguments = {"-p", "1"};
  options.polls_by_itself = true;
  host.daemon.Start(options);
  double begin = Now();
  EXPECT_EQ(host.daemon.Polls(), 0U);
  ASSERT_TRUE(Eventually([&] { return host.daemon.Polls() >= 1; }));
  // The first poll is one interval after start-up.
  EXPECT_GE(Now() - begin, 0.7);
  host.Proc("meminfo", "MemTotal: 4096 kB\n");
  EXPECT_TRUE(Eventually(
      [] { return MadeUpHost::Published("host/memory", "tlxHoPhysicalMemorySize") == "4"; }));
  EXPECT_EQ(host.daemon.AlarmSeconds(), 1U);
}

TEST(Lifecycle, NoPollBeginsDuringAnother) {
  MadeUpHost host;
  host.daemon.Start();
  host.BlockProc("meminfo");
  host.daemon.BeginPoll();
  ASSERT_TRUE(host.WaitBlocked());
  for (int i = 0; i < 5; i++) {
    host.daemon.BeginPoll();
  }
  host.UnblockProc("MemTotal: 4096 kB\n");
  ASSERT_TRUE(Eventually([&] { return host.daemon.Polls() >= 1; }));
  Pause(0.2);
  // At most the one that came due in between.
  EXPECT_LE(host.daemon.Polls(), 2U);
}

TEST(Lifecycle, LogFile) {
  MadeUpHost host;
  const std::string before = "before: do_memory: earlier\n";
  const std::string complaint = "do_memory: MemTotal too large for unsigned long\n";
  host.File("/etc/snmp/vexhostd.conf", "community made-up\n");
  host.File("/var/log/vexhostd.log", before);
  host.daemon.Start({"-p", "15", "-l", "/var/log/vexhostd.log"});
  EXPECT_EQ(host.daemon.AlarmSeconds(), 15U);
  host.Proc("meminfo", "MemTotal: 4294967295 kB\n");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(Told("/var/log/vexhostd.log"), before + complaint);
  // Rotated away: written on until SIGHUP, and anew after it.
  ASSERT_EQ(rename("/var/log/vexhostd.log", "/var/log/vexhostd.log.1"), 0);
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(Told("/var/log/vexhostd.log.1"), before + complaint + complaint);
  host.daemon.Signal(SIGHUP);
  ASSERT_TRUE(Eventually([] { return Exists("/var/log/vexhostd.log"); }));
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(Told("/var/log/vexhostd.log"), complaint);
  EXPECT_EQ(Told("/var/log/vexhostd.log.1"), before + complaint + complaint);
  EXPECT_EQ(host.daemon.Count("do_memory: "), 0U);
}

TEST(Lifecycle, LogFileAlone) {
  // -l is taken out before the arguments are counted.
  MadeUpHost host;
  DaemonOptions options;
  options.arguments = {"-l", "/var/log/vexhostd.log"};
  options.wait = false;
  host.daemon.Start(options);
  EXPECT_EQ(host.daemon.WaitEnd(), 1);
  EXPECT_EQ(ReadFile("/var/log/vexhostd.log"), "vexhostd: Insufficient parameters  (PEER3001)\n");
}

TEST(Lifecycle, TellsTheServiceManager) {
  MadeUpHost host;
  ServiceManager manager("/run/notify");
  DaemonOptions options;
  options.environment = {{"NOTIFY_SOCKET", "/run/notify"}, {"WATCHDOG_USEC", "400000"}};
  options.wait = false;
  host.daemon.Start(options);
  ASSERT_TRUE(Eventually([&] { return manager.Count("READY=1") > 0; }));
  EXPECT_TRUE(MadeUpHost::Object("host/memory")) << "ready comes after the groups are built";
  EXPECT_TRUE(Eventually([&] { return manager.Count("WATCHDOG=1") >= 3; }));
  EXPECT_EQ(manager.Count("STOPPING=1"), 0U);
  EXPECT_EQ(host.daemon.Stop(), 0);
  EXPECT_EQ(manager.Count("STOPPING=1"), 1U);
  EXPECT_EQ(manager.Count("READY=1"), 1U);
}

TEST(Lifecycle, HoldsNoMoreFilesWithTime) {
  MadeUpHost host;
  host.Start();
  ASSERT_TRUE(host.daemon.Poll());
  const auto before = SettledFiles(host.daemon.pid());
  for (int i = 0; i < 20; i++) {
    ASSERT_TRUE(host.daemon.Poll());
  }
  EXPECT_EQ(SettledFiles(host.daemon.pid()), before);
  EXPECT_EQ(Children(host.daemon.pid()), std::vector<pid_t>{});
}

TEST(Lifecycle, WritesNothingForTheLibrary) {
  MadeUpHost host;
  host.Start();
  ASSERT_TRUE(host.daemon.Poll());
  host.snmpd.Kill();
  host.snmpd.Start();
  ASSERT_TRUE(host.daemon.WaitServed());
  EXPECT_EQ(host.daemon.Stop(), 0);
  EXPECT_EQ(ListDirectory("/var/lib/snmp"), std::vector<std::string>{});
  EXPECT_EQ(ListDirectory("/etc/snmp"), std::vector<std::string>{"snmpd.conf"});
  EXPECT_FALSE(Exists("/root/.snmp"));
}

// What a command started by a hook inherits: standard descriptors, no blocked or ignored signal.
TEST(Children, InheritNothing) {
  MadeUpHost host;
  host.StartTestAgent();
  host.Command("inherited",
               "ls -l /proc/self/fd | sed -n 's/.* \\([0-9]*\\) -> /descriptor \\1 is /p'\n"
               "grep -E '^Sig(Blk|Ign)' /proc/self/status");
  // ls itself opens the directory it lists.
  ASSERT_TRUE(host.Order("popen inherited\ncommand inherited\n"));
  std::string log = host.daemon.Log();
  for (int number = 3; number < 64; number++) {
    std::string target;
    for (const std::string &line : host.daemon.LogLines()) {
      if (line.find("descriptor " + std::to_string(number) + " is ") != std::string::npos &&
          line.find("/proc/") == std::string::npos) {
        target = line;
      }
    }
    EXPECT_EQ(target, "");
  }
  for (int number = 0; number < 3; number++) {
    EXPECT_EQ(host.daemon.Count("descriptor " + std::to_string(number) + " is "), 2U) << log;
  }
  auto ignored = host.daemon.LinesWith("SigIgn:\t");
  EXPECT_EQ(host.daemon.Count("SigBlk:\t0000000000000000"), 2U) << log;
  EXPECT_EQ(ignored.size(), 2U) << log;
  // But for the two signals that the C library keeps to itself: it ignores them in who it spawns.
  constexpr uint64_t kLibrarysOwn = uint64_t{3} << 31;
  for (const std::string &line : ignored) {
    EXPECT_EQ(std::stoull(line.substr(line.find('\t')), nullptr, 16) & ~kLibrarysOwn, 0U) << line;
  }
}

TEST(Children, CommandOutput) {
  MadeUpHost host;
  host.StartTestAgent({"plain"}, false);
  ASSERT_TRUE(
      host.Order("command echo out; echo error >&2; exit 3\n"
                 "command cat /etc/hostname /nowhere 2>/dev/null; kill -9 $$\n"
                 "command sleep 1000 & echo left behind\n"
                 "command yes | head -c 100000; exit 0\n"));
  EXPECT_EQ(host.daemon.Count("command: 3, 4 bytes: out"), 1U) << host.daemon.Log();
  EXPECT_EQ(host.daemon.Count("command: -1, "), 1U);
  EXPECT_EQ(host.daemon.Count("command: 0, 12 bytes: left behind"), 1U);
  EXPECT_EQ(host.daemon.Count("command: 0, 4095 bytes: y"), 1U);
}

TEST(Lifecycle, ThePeriodFollows) {
  MadeUpHost host;
  host.StartTestAgent({"plain"}, false);
  EXPECT_EQ(host.daemon.AlarmSeconds(), 15U);
  ASSERT_TRUE(host.Order("period 7\n"));
  EXPECT_EQ(host.daemon.AlarmSeconds(), 7U);
  ASSERT_TRUE(host.Order("period 0\n"));
  EXPECT_EQ(host.daemon.AlarmSeconds(), 1U);
  ASSERT_TRUE(host.Order("period -3\n"));
  EXPECT_EQ(host.daemon.AlarmSeconds(), 1U);
}

TEST(Lifecycle, ASighupWithoutALogFile) {
  MadeUpHost host;
  host.StartTestAgent({"plain"}, false);
  host.daemon.Signal(SIGHUP);
  ASSERT_TRUE(host.Order("name after\n"));
  EXPECT_EQ(MadeUpHost::Published("host/test", "tlxHoName"), "after");
  EXPECT_EQ(host.daemon.Count("done: name"), 1U);
}

TEST(Lifecycle, ASigpipeIsNoEnd) {
  MadeUpHost host;
  host.Start();
  host.daemon.Signal(SIGPIPE);
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 2000");
}

// Files of the agent are small, but for the memory that it shares with its SNMP process.
TEST(Lifecycle, ALimitOnTheSizeOfFilesIsNoEnd) {
  setenv("VEXHOSTD_LAUNCHER", "prlimit --fsize=100000 env", 1);
  MadeUpHost host;
  host.Start();
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 2000");
  EXPECT_EQ(host.Set("tlxHoSystemRole", 's', "role"), "noError");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.daemon.Count("Info: the SNMP side is no process of its own: File too large"), 1U)
      << host.daemon.Log();
}

TEST(Lifecycle, ALogFileThatCannotBeOpened) {
  MadeUpHost host;
  DaemonOptions options;
  options.arguments = {"-p", "15", "-l", "/nowhere/vexhostd.log"};
  options.wait = false;
  host.daemon.Start(options);
  EXPECT_EQ(host.daemon.WaitEnd(), 1);
  EXPECT_EQ(host.daemon.LogLines().size(), 1U) << host.daemon.Log();
  EXPECT_EQ(host.daemon.Count("/nowhere/vexhostd.log"), 1U);
  EXPECT_FALSE(Exists(MadeUpHost::kRegistry));
}
