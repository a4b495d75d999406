// vexreg replay on captures that are made here: its room, and what becomes of one whose programs do
// not do what they should. Takes root, and makes namespaces of its own.
#include <errno.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <optional>

#include "common/sources.h"
#include "hardware/tlxci/paths.h"
#include "tests/support/failing_call.h"
#include "tests/support/process.h"
#include "tests/unit/framework/temp_registry.h"
#include "tests/unit/tools/made_object.h"
#include "tests/unit/tools/replay/own_mounts.h"
#include "tests/unit/tools/said_by.h"
#include "tools/vexreg/child_output.h"
#include "tools/vexreg/commands.h"
#include "tools/vexreg/controller_stand_in.h"
#include "tools/vexreg/forked.h"
#include "tools/vexreg/replay_room.h"

namespace vex {
namespace {

namespace fs = std::filesystem;

// A place below /srv, for a room has a /tmp of its own.
class Place {
 public:
  Place() {
    char name[] = "/srv/replay_test.XXXXXX";
    path_ = mkdtemp(name);
    // The room shows the directory that a program's own lies in.
    fs::create_directories(path_ + "/bin");
  }
  ~Place() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  Place(const Place &) = delete;
  Place &operator=(const Place &) = delete;

  const std::string &path() const {
    return path_;
  }
  std::string File(const std::string &name, const std::string &bytes, mode_t mode = 0644) const {
    const std::string path = path_ + "/" + name;
    std::ofstream(path) << bytes;
    chmod(path.c_str(), mode);
    return path;
  }
  std::string Program(const std::string &script) const {
    return File("bin/agent", "#!/bin/sh\n" + script + "\n", 0755);
  }

 private:
  std::string path_;
};

Capture Host() {
  Capture capture;
  capture.host = "captured";
  capture.made = "2026-01-02T03:04:05Z";
  capture.release = "6.1|2\n3";
  capture.version = "#1";
  capture.machine = "x86_64";
  return capture;
}

// What the work returns in the room of a capture. Says what it finds wrong on standard output.
int InRoom(const Capture &capture, const std::function<int()> &work,
           const RoomSettings &settings = {"/usr/bin/true", "/usr/bin/true", ""}) {
  return DoInRoom(capture, settings, work);
}

// Fails when the file has other text than that, of which it tells.
bool Has(const std::string &path, const std::string &text) {
  const std::string found = made_up::ReadFile(path);
  if (found != text) {
    std::cout << path << " has: " << found << std::endl;
  }
  return found == text;
}

TEST(ReplayRoom, HasTheFilesOfTheCapture) {
  Capture capture = Host();
  capture.members = {{"host/proc/meminfo", 1'700'000'000, "MemTotal: 1 kB\n"},
                     {"host/usr/lib/os-release", 0, "NAME=second\n"},
                     {"host/etc/passwd", 0, "not a source\n"},
                     {"host/etc/snmp/snmpd.conf", 0, "# for people\n"},
                     {"registry/sibling/state", 0, "kept"},
                     {"registry/host/memory", 0, "to be compared"}};
  EXPECT_EQ(InRoom(capture,
                   [] {
                     struct stat status = {};
                     return Has("/proc/meminfo", "MemTotal: 1 kB\n") &&
                                    stat("/proc/meminfo", &status) == 0 &&
                                    status.st_mtime == 1'700'000'000 &&
                                    Has("/etc/os-release", "NAME=second\n") &&
                                    made_up::ReadFile("/etc/passwd") != "not a source\n" &&
                                    !made_up::Exists("/etc/snmp/snmpd.conf") &&
                                    Has(std::string(kRegistryRoot) + "/sibling/state", "kept") &&
                                    !made_up::Exists(std::string(kRegistryRoot) + "/host/memory") &&
                                    Has(kRoomFacts, "kernel 6.1 2 3|#1|x86_64\n") &&
                                    !made_up::Exists(kControllerCard)
                                ? 7
                                : 1;
                   }),
            7);
  // The first of both is read where both are there.
  capture.members.push_back({"host/etc/os-release", 0, "NAME=first\n"});
  EXPECT_EQ(InRoom(capture, [] { return Has("/etc/os-release", "NAME=first\n") ? 7 : 1; }), 7);
}

// The machine's own os-release is not taken for that of a host that has none.
TEST(ReplayRoom, HidesWhatTheHostDoesNotHave) {
  EXPECT_EQ(InRoom(Host(),
                   [] {
                     char name[65] = "";
                     gethostname(name, sizeof(name));
                     return std::string(name) == "captured" &&
                                    !made_up::Exists("/etc/os-release") &&
                                    Has("/usr/lib/os-release", "") && !made_up::Exists("/proc/stat")
                                ? 7
                                : 1;
                   }),
            7);
}

TEST(ReplayRoom, HasCommandsThatSayWhatTheySaid) {
  Capture capture = Host();
  capture.members = {{"commands/0", 0, "it's\n"}, {"commands/1", 0, ""}};
  capture.commands = {{{"dpkg", "-l", "it's 'quoted'"}, "commands/0", 3},
                      {{"dpkg", "--print-architecture"}, "commands/1", 0},
                      {{"dpkg", "-la"}, "commands/9", 0},  // a member that is not there
                      {{"dpkg", "-s"}, "", 0},
                      {{}, "commands/0", 0}};
  const auto run = [](const std::vector<std::string> &words, int status, const std::string &out) {
    const ChildOutput output =
        RunProgram(words, std::string(kRoomCommands) + ":/usr/bin:/bin", 20, 1000);
    const bool same =
        output.end == ChildOutput::kExited && output.status == status && output.out == out;
    if (!same) {
      std::cout << words.back() << ": " << output.status << " " << output.out << std::endl;
    }
    return same;
  };
  EXPECT_EQ(InRoom(capture,
                   [&] {
                     return run({"dpkg", "-l", "it's 'quoted'"}, 3, "it's\n") &&
                                    run({"dpkg", "--print-architecture"}, 0, "") &&
                                    run({"dpkg", "-la"}, 1, "") && run({"dpkg", "-s"}, 1, "") &&
                                    run({"sh", "-c", "rpm -qa 2>&1; exit $?"}, 127,
                                        "not found on the captured host\n")
                                ? 7
                                : 1;
                   }),
            7);
}

// The volumes' tool has its path in the commands, in a directory of the machine.
TEST(ReplayRoom, HasTheVolumesToolBesideTheMachinesPrograms) {
  Capture capture = Host();
  capture.members = {{"commands/0", 0, "volume\n"}};
  capture.commands = {{{}, "", 0}, {{vmfs_volume_tool, "-l", "/vmfs/a"}, "commands/0", 0}};
  const std::string agent = "/usr/sbin/snmpd";
  const std::string bytes = made_up::ReadFile(agent);
  ASSERT_FALSE(bytes.empty());
  EXPECT_EQ(InRoom(capture,
                   [&] {
                     const ChildOutput output =
                         RunProgram({vmfs_volume_tool, "-l", "/vmfs/a"}, "/usr/bin:/bin", 20, 1000);
                     return output.out == "volume\n" && made_up::ReadFile(agent) == bytes &&
                                    !fs::is_symlink(agent) && made_up::Exists("/usr/sbin/chroot")
                                ? 7
                                : 1;
                   },
                   {agent, agent, ""}),
            7);
}

TEST(ReplayRoom, HasARemoteCardThatAnswers) {
  EXPECT_EQ(InRoom(Host(),
                   [] {
                     return Has(kRoomFacts, "kernel 6.1 2 3|#1|x86_64\ncard 4142\n") &&
                                    made_up::Exists(kControllerCard)
                                ? 7
                                : 1;
                   },
                   {"/usr/bin/true", "/usr/bin/true", "AB"}),
            7);
}

TEST(ReplayRoom, HasTheRaidKeysSegmentInAMemoryOfItsOwn) {
  Capture capture = Host();
  capture.members = {{kRaidKeyMember, 0, std::string(raid_segment_size + 9, 'k')}};
  const auto attach = [] {
    const int segment = shmget(ftok(raid_key_path, raid_key_project), raid_segment_size, 0);
    return segment == -1 ? nullptr : static_cast<const char *>(shmat(segment, nullptr, SHM_RDONLY));
  };
  EXPECT_EQ(InRoom(capture,
                   [&] {
                     const char *bytes = attach();
                     return bytes != nullptr && std::string(bytes, raid_segment_size) ==
                                                    std::string(raid_segment_size, 'k')
                                ? 7
                                : 1;
                   }),
            7);
}

// Of the machine's files there need not be all.
TEST(ReplayRoom, GoesOnWithoutWhatTheMachineDoesNotHave) {
  for (const std::string gone : {"/etc", "/usr"}) {
    const auto look = [&] {
      return made_up::Exists("/etc/passwd") == (gone == "/usr") &&
                     made_up::Exists("/usr/lib/os-release") == (gone == "/etc")
                 ? 7
                 : 1;
    };
    EXPECT_EQ(WithOwnMounts([&] {
                return mount("none", gone.c_str(), "tmpfs", 0, nullptr) != 0 ? 98
                                                                             : InRoom(Host(), look);
              }),
              7)
        << gone;
  }
}

// The directory of programs beside the volumes' tool goes away while they are looked through.
TEST(ReplayRoom, SaysWhyItHasNoPrograms) {
  Capture capture = Host();
  capture.commands = {{{vmfs_volume_tool, "-l", "/vmfs/a"}, "", 0}};
  const std::string machines = std::string("/sys/room") + kRoomDirectory + "/programs";
  FailingCall covered("mount", [&] {
    umount2(machines.c_str(), MNT_DETACH);
    fs::remove(machines);
  });
  covered.On("/usr/sbin");
  int status = -1;
  const std::string said = SaidBy([&] { status = InRoom(capture, [] { return 7; }); });
  EXPECT_EQ(status, kFailed);
  EXPECT_TRUE(said.starts_with("vexreg: no room for the captured host: ") &&
              said.find(machines) != std::string::npos)
      << said;
}

// Each call that a room needs: without it there is none, it is said, and nothing is done.
TEST(ReplayRoom, SaysWhyThereIsNone) {
  Capture capture = Host();
  capture.members = {{kRaidKeyMember, 0, "key"}, {"host/proc/meminfo", 0, "x"}};
  struct {
    const char *call;
    int nth;
    const char *said;
  } constexpr kCases[] = {
      {"fork", 1, "no process"},
      {"unshare", 1, "no namespaces"},
      {"fork", 2, "no process"},
      {"mount", 1, "no room for the captured host: /"},
      {"mknod", 1, "no room for the captured host: /sys/room/dev/null"},
      {"symlink", 1, "no room for the captured host: /proc/self"},
      {"open", 1, "no room for the captured host: /proc/meminfo"},
      {"chdir", 1, "no room for the captured host: the room's root"},
      {"syscall", 1, "no room for the captured host: the room's root"},
      {"umount2", 1, "no room for the captured host: the room's root"},
      {"chdir", 2, "no room for the captured host: the room's root"},
      {"socket", 1, "no room for the captured host: the loopback interface"},
      {"ioctl", 1, "no room for the captured host: the loopback interface"},
      {"shmget", 1, "no room for the captured host: shared memory"},
      {"shmat", 1, "no room for the captured host: shared memory"},
      {"sethostname", 1, "no room for the captured host: the host's name"},
  };
  for (const auto &[call, nth, said] : kCases) {
    const FailingCall failing(call, ENOSPC, nth);
    int status = -1;
    const std::string complaint = SaidBy([&] { status = InRoom(capture, [] { return 7; }); });
    EXPECT_EQ(status, kFailed) << call << nth;
    EXPECT_EQ(complaint, std::string("vexreg: ") + said + ": No space left on device\n")
        << call << nth;
  }
  // A name that is too long for its place in the registry.
  const std::string part(48, 'd');
  capture.members = {
      {"registry/" + part + "/" + part + "/" + part + "/" + std::string(100, 'x'), 0, ""}};
  int status = -1;
  EXPECT_TRUE(
      SaidBy([&] {
        status = InRoom(capture, [] { return 7; });
      }).starts_with("vexreg: no room for the captured host: " + std::string(kRegistryRoot)));
  EXPECT_EQ(status, kFailed);
}

TEST(ReplayRoom, HowItEndedIsToldInAnyCase) {
  {
    const FailingCall interrupted("waitpid", EINTR);
    EXPECT_EQ(InRoom(Host(), [] { return 7; }), 7);
  }
  int status = -1;
  {
    const FailingCall lost("waitpid", ECHILD);
    const std::string said = SaidBy([&] { status = InRoom(Host(), [] { return 0; }); });
    EXPECT_NE(said.find("vexreg: how the work ended cannot be told: No child processes\n"),
              std::string::npos)
        << said;
    EXPECT_EQ(status, kFailed);
  }
  EXPECT_EQ(SaidBy([&] {
              status = InRoom(Host(), []() -> int {
                prctl(PR_SET_DUMPABLE, 0);
                __builtin_trap();
              });
            }),
            "vexreg: ended by signal: " + std::string(strsignal(SIGILL)) + "\n");
  EXPECT_EQ(status, kFailed);
}

// ---- The controller's stand-in ------------------------------------------------------------------

int Connected() {
  const int client = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, kControllerSocket);
  return connect(client, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0
             ? client
             : -1;
}

std::string Asked(int client, const std::string &request) {
  char reply[256];
  if (send(client, request.data(), request.size(), MSG_NOSIGNAL) < 0) {
    return "cannot be asked";
  }
  const ssize_t length = recv(client, reply, sizeof(reply), 0);
  return length < 0 ? "no answer" : std::string(reply, static_cast<size_t>(length));
}

TEST(ReplayController, AnswersEveryClientUntilItGoes) {
  ControllerReplies replies;
  replies.version = "HEADER..version";
  const std::string request("\x08\0\0\0\2\0\0\0", 8);
  const std::string unknown("\x08\0\0\0\7\0\0\0", 8);
  EXPECT_EQ(WithOwnMounts([&] {
              if (mount("none", "/run", "tmpfs", 0, nullptr) != 0) {
                return 98;
              }
              // A client that cannot be taken at once is taken later.
              const FailingCall busy("accept4", EMFILE);
              const pid_t child = StandInForController(replies);
              const int one = Connected();
              const int two = Connected();
              if (child <= 0 || one < 0 || two < 0) {
                return 97;
              }
              const std::string expected = request + "version";
              if (Asked(one, request) != expected || Asked(two, request) != expected) {
                return 1;
              }
              // What it does not know it leaves unanswered, and goes on.
              if (send(one, unknown.data(), unknown.size(), 0) < 0 ||
                  send(one, "short", 5, 0) < 0 || Asked(one, request) != expected) {
                return 2;
              }
              close(one);
              if (Asked(two, request) != expected) {
                return 3;
              }
              const int three = Connected();
              if (three < 0 || Asked(three, request) != expected) {
                return 4;
              }
              kill(child, SIGKILL);
              return waitpid(child, nullptr, 0) == child ? 7 : 5;
            }),
            7);
}

TEST(ReplayController, SaysWhyThereIsNone) {
  for (const char *call : {"socket", "bind", "listen", "fork"}) {
    int status = -1;
    EXPECT_EQ(SaidBy([&] {
                status = WithOwnMounts([&] {
                  if (mount("none", "/run", "tmpfs", 0, nullptr) != 0) {
                    return 98;
                  }
                  const FailingCall failing(call, EMFILE);
                  return StandInForController({}) == -1 ? 7 : 1;
                });
              }),
              "vexreg: no stand-in for the controller: Too many open files\n")
        << call;
    EXPECT_EQ(status, 7) << call;
  }
}

// ---- The whole of it ----------------------------------------------------------------------------

class Replayed : public testing::Test {
 protected:
  void Add(const std::string &name, const FileObject &object) {
    const TempRegistry registry;
    ObjectFileWriter writer(name, registry.root());
    writer.SetLayout(object.variables, static_cast<uint32_t>(object.data.size()));
    const std::vector<uint16_t> lengths(object.variables.size());
    ASSERT_EQ(writer.Publish(object.data.data(), lengths.data()), 0);
    const std::vector<uint8_t> bytes = ReadBytes(registry.Path(name));
    capture_.members.push_back({"registry/" + name, 0, {bytes.begin(), bytes.end()}});
  }
  // What the replay says on standard error.
  std::string Said(const ReplayOptions &options, const char *call = nullptr, int nth = 1,
                   const char *path = nullptr) {
    std::vector<Member> members = capture_.members;
    members.push_back({kDescriptionMember, 0, DescriptionJson(capture_)});
    std::string error;
    const auto archive = PackMembers(members, &error);
    EXPECT_TRUE(archive) << error;
    file_ = place_.File("host.tar.zst", archive.value_or(""));
    return SaidBy([&] {
      std::optional<FailingCall> failing;
      if (call != nullptr) {
        failing.emplace(call, EMFILE, nth);
        failing->On(path);
      }
      status_ = Replay(file_, options);
    });
  }
  std::string SaidOf(const std::string &script, int seconds = 20, const char *call = nullptr,
                     int nth = 1, const char *path = nullptr) {
    ReplayOptions options;
    options.agent = place_.Program(script);
    options.seconds = seconds;
    return Said(options, call, nth, path);
  }
  void SetUp() override {
    Add("host/memory", MadeObject({Int("tlxHoPhysicalMemorySize", 2048)}));
  }

  Place place_;
  Capture capture_ = Host();
  std::string file_;
  int status_ = -1;
};

TEST_F(Replayed, IsForRootAlone) {
  EXPECT_EQ(Said({}, "geteuid"), "vexreg: replay makes namespaces and mounts: run it as root\n");
  EXPECT_EQ(status_, kFailed);
}

TEST_F(Replayed, SaysWhatIsMissing) {
  ReplayOptions options;
  options.agent = "/nowhere/agent";
  EXPECT_EQ(Said(options), "vexreg: /nowhere/agent: No such file or directory\n");
  EXPECT_EQ(status_, kFailed);
  const std::string said = Said({}, "access");
  EXPECT_TRUE(said.ends_with("/vexhostd: Too many open files\n")) << said;
  // Where nothing is installed beside the command, it says where it would have to be.
  const std::string alone = place_.path() + "/bin/vexreg";
  fs::copy_file(VEXREG_PATH, alone);
  const made_up::Outcome outcome = made_up::RunCommand({alone, "replay", file_});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(outcome.err.starts_with("vexreg: " + place_.path() + "/bin/") &&
              outcome.err.ends_with("/vexhostd: No such file or directory\n"))
      << outcome.err;
  capture_.members.clear();
  EXPECT_EQ(Said({}), "vexreg: " + file_ +
                          ": the agent published nothing when this was captured: "
                          "nothing to compare\n");
  EXPECT_EQ(status_, kFailed);
}

TEST_F(Replayed, ShowsTheLogOfAnAgentThatEnds) {
  const std::string said = SaidOf("seq 30; exit 3");
  const std::string begin = "vexreg: " + place_.path() + "/bin/agent has ended:\nvexreg:   11\n";
  EXPECT_TRUE(said.starts_with(begin) && said.ends_with("\nvexreg:   30\n")) << said;
  EXPECT_EQ(status_, kFailed);
}

TEST_F(Replayed, ShowsTheLogOfAMasterThatEnds) {
  const std::string said = SaidOf("kill 2; exec sleep 100");
  EXPECT_TRUE(said.starts_with("vexreg: snmpd has ended:\n")) << said;
  EXPECT_EQ(status_, kFailed);
}

TEST_F(Replayed, SaysThatNothingIsServed) {
  EXPECT_EQ(SaidOf("echo up; exec sleep 100", 1),
            "vexreg: the agent served nothing within 1 s:\nvexreg:   up\n");
  EXPECT_EQ(status_, kFailed);
  // Looked at before the master can answer.
  EXPECT_TRUE(SaidOf("exec sleep 100", 0, "nanosleep")
                  .starts_with("vexreg: the agent served nothing within 0 s:\n"));
  EXPECT_EQ(status_, kFailed);
}

// What stands in for something of the host is missed by name where it cannot be started.
TEST_F(Replayed, SaysWhatCannotBeStarted) {
  Add("host/fwver.1",
      MadeObject({Text("tlxHoFwVerDisplayName", 64, "logic"), Text("tlxHoFwVerVersion", 32, "1F"),
                  Text("tlxHoFwVerKeyString", 32, "CPLD-Q47-MAINIO")}));
  capture_.siblings = {"/opt/vexsibling"};
  struct {
    const char *call;
    int nth;
    const char *path;
    const char *said;
  } constexpr kCases[] = {
      {"fork", 3, nullptr, "vexreg: snmpd: no process: Too many open files\n"},
      {"fork", 4, nullptr, "vexreg: /opt/vexsibling: no process: Too many open files\n"},
      {"fork", 5, nullptr, "vexreg: no stand-in for the controller: Too many open files\n"},
      {"fork", 6, nullptr, "/bin/agent: no process: Too many open files\n"},
      {"open", 1, "/dev/null", "vexreg: snmpd has ended:\n"},
      {"open", 1, "/snmpd.log", "vexreg: snmpd has ended:\n"},
      {"dup2", 1, nullptr, "vexreg: snmpd has ended:\n"},
      {"dup2", 2, nullptr, "vexreg: snmpd has ended:\n"},
      {"dup2", 3, nullptr, "vexreg: snmpd has ended:\n"},
  };
  for (const auto &[call, nth, path, said] : kCases) {
    const std::string all = SaidOf("exit 3", 20, call, nth, path);
    EXPECT_NE(all.find(said), std::string::npos) << call << nth << ": " << all;
    EXPECT_NE(all.find(" has ended:\n"), std::string::npos) << all;
    EXPECT_EQ(status_, kFailed);
  }
}

TEST_F(Replayed, SaysThatAConfigurationCannotBeWritten) {
  capture_.asked.assign(12000, {"." + std::string(126, '1'), 1});
  const rlimit small = {size_t{1} << 20, RLIM_INFINITY};
  rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto handler = signal(SIGXFSZ, SIG_IGN);
  const std::string said = [&] {
    // The capture itself is small.
    setrlimit(RLIMIT_FSIZE, &small);
    std::string all = SaidOf("exit 3");
    setrlimit(RLIMIT_FSIZE, &before);
    return all;
  }();
  signal(SIGXFSZ, handler);
  EXPECT_NE(said.find("vexreg: /run/vexreg-replay/snmp/snmpd.conf: File too large\n"),
            std::string::npos)
      << said.substr(0, 1000);
  EXPECT_EQ(status_, kFailed);
}

}  // namespace
}  // namespace vex
