// The registry's files as a sibling agent sees them, and siblings' files as the readers see them.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>

#include "tests/support/fuse_mount.h"
#include "tests/support/made_up_host.h"

using namespace made_up;

namespace {

std::string PathOf(const std::string &object) {
  return std::string(MadeUpHost::kRegistry) + "/" + object;
}

}  // namespace

TEST(Registry, DumpIsWhatIsPublished) {
  MadeUpHost host;
  host.Proc("stat", "cpu 0 0 0 0\ncpu0 30 0 0 70\ncpu1 20 0 0 80\n");
  host.daemon.Start();
  auto dump = nlohmann::ordered_json::parse(host.Dump({"host/memory", "host/cpu.1"}));
  auto expected = nlohmann::ordered_json::parse(R"({
    "host/memory": {"tlxHoPhysicalMemorySize": 2000, "tlxHoPhysicalMemoryFree": 1000,
                    "tlxHoPagingMemorySize": 1000, "tlxHoPagingMemoryFree": 500},
    "host/cpu.1": {"tlxHoCpuUtilUnitIndex": 1, "tlxHoCpuUtilMin": 20, "tlxHoCpuUtilFiveMin": -1,
                   "tlxHoCpuUtilThirtyMin": -1, "tlxHoCpuUtilHour": -1,
                   "tlxHoCpuUtilHwLocation": ""}})");
  EXPECT_EQ(dump["host/memory"].dump(), expected["host/memory"].dump());
  EXPECT_EQ(dump["host/cpu.1"].dump(), expected["host/cpu.1"].dump());
  EXPECT_EQ(dump.size(), 2U);
  auto all = nlohmann::ordered_json::parse(host.Dump());
  EXPECT_EQ(all.size(), MadeUpHost::Objects().size());
  EXPECT_EQ(host.Vexreg({"dump", "host/cpu.2"}).status, 1);
}

TEST(Registry, TheObjectsFormat) {
  MadeUpHost host;
  host.daemon.Start();
  auto memory = MadeUpHost::Object("host/memory");
  ASSERT_TRUE(memory);
  EXPECT_EQ(memory->data.size(), 16U);
  ASSERT_EQ(memory->variables.size(), 4U);
  EXPECT_EQ(memory->variables[3].name, "tlxHoPagingMemoryFree");
  EXPECT_EQ(memory->variables[3].offset, 12U);
  auto cpu = MadeUpHost::Object("host/cpu.0");
  ASSERT_TRUE(cpu);
  EXPECT_EQ(cpu->data.size(), 976U);
  EXPECT_EQ(cpu->variables.size(), 6U);
}

TEST(Registry, ASiblingsFileTruncatedAnywhereIsAbsent) {
  MadeUpHost host;
  ASSERT_EQ(host.Vexreg({"put", "stdeq/misc", "int:7", "str:32:text", "hex:0102ff"}).status, 0);
  std::string whole = ReadFile(PathOf("stdeq/misc"));
  ASSERT_FALSE(whole.empty());
  ASSERT_TRUE(MadeUpHost::Object("stdeq/misc"));
  auto expected = MadeUpHost::Object("stdeq/misc");
  for (size_t length = 0; length < whole.size(); length++) {
    host.File(PathOf("stdeq/misc"), whole.substr(0, length));
    auto object = MadeUpHost::Object("stdeq/misc");
    // A file that has lost only its older slot's place still holds the newest state whole.
    if (object) {
      EXPECT_EQ(object->data, expected->data) << length;
      EXPECT_GT(length, whole.size() / 2);
    }
  }
  for (size_t length : {size_t{0}, size_t{1}, whole.size() / 4}) {
    host.File(PathOf("stdeq/misc"), whole.substr(0, length));
    EXPECT_EQ(host.Vexreg({"dump", "stdeq/misc"}).status, 1) << length;
  }
}

TEST(Registry, OtherThingsThanFilesAreAbsent) {
  MadeUpHost host;
  ASSERT_EQ(host.Vexreg({"put", "stdeq/misc", "int:7"}).status, 0);
  host.Link(PathOf("stdeq/link"), PathOf("stdeq/misc"));
  ASSERT_EQ(mkfifo(PathOf("stdeq/fifo").c_str(), 0644), 0);
  host.Directory(PathOf("stdeq/directory"));
  for (const char *name : {"stdeq/link", "stdeq/fifo", "stdeq/directory", "stdeq/nothing", "stdeq",
                           "../../../etc/passwd", "/etc/passwd", ""}) {
    EXPECT_FALSE(MadeUpHost::Object(name)) << name;
    EXPECT_EQ(host.Vexreg({"dump", name}).status, 1) << name;
  }
  EXPECT_EQ(host.Vexreg({"dump", "../../kelmo/registry/stdeq/misc"}).status, 0);
}

// A reader watches while the agent publishes as fast as it can and is killed in the middle.
TEST(Registry, AReaderNeverSeesAMixture) {
  MadeUpHost host;
  for (int life = 0; life < 20; life++) {
    host.StartTestAgent({"plain"}, false);
    host.SetOrders("pair 1000000000\n");
    host.daemon.BeginPoll();
    ASSERT_TRUE(Eventually(
        [] { return MadeUpHost::Published("host/test", "tlxHoName").starts_with("publication"); }));
    for (int i = 0; i < 200; i++) {
      auto object = MadeUpHost::Object("host/test");
      ASSERT_TRUE(object);
      const char *data = reinterpret_cast<const char *>(object->data.data());
      ASSERT_STREQ(data + object->variables[0].offset, data + object->variables[1].offset);
    }
    EXPECT_EQ(host.daemon.Stop(SIGKILL), 128 + SIGKILL);
    auto object = MadeUpHost::Object("host/test");
    ASSERT_TRUE(object);
    const char *data = reinterpret_cast<const char *>(object->data.data());
    ASSERT_STREQ(data + object->variables[0].offset, data + object->variables[1].offset);
  }
}

// A full disk is told once, costs no served value, and is made good when there is room.
TEST(Registry, AFullDisk) {
  MadeUpHost host;
  host.Directory("/var/spool/quorix");
  ASSERT_EQ(
      RunCommand({"mount", "-t", "tmpfs", "-o", "size=64k", "small", "/var/spool/quorix"}).status,
      0);
  host.StartTestAgent();
  ASSERT_TRUE(host.daemon.WaitLog("Info: connected to the master agent"));
  std::string before = host.daemon.Log();
  host.File("/var/spool/quorix/filler", std::string(4096, 'x'));
  int fd = open("/var/spool/quorix/filler", O_WRONLY | O_APPEND | O_CLOEXEC);
  char block[4096] = {};
  while (write(fd, block, sizeof(block)) > 0) {
  }
  close(fd);
  ASSERT_TRUE(host.Order("rows 0 3\n"));
  ASSERT_TRUE(host.Order("name still served\n"));
  EXPECT_EQ(host.Get("tlxHoName"), "STRING: \"still served\"");
  EXPECT_EQ(host.Get("tlxHoSwVerIndex.2"), "INTEGER: 2");
  auto told = Lines(host.daemon.Log().substr(before.size()));
  EXPECT_EQ(std::count_if(told.begin(), told.end(),
                          [](const auto &line) { return !line.starts_with("done: "); }),
            1)
      << host.daemon.Log();
  host.Remove("/var/spool/quorix/filler");
  ASSERT_TRUE(host.Order("wait 0\n"));
  EXPECT_TRUE(Eventually([] { return MadeUpHost::Object("host/row.2").has_value(); }));
  EXPECT_EQ(MadeUpHost::Published("host/test", "tlxHoName"), "still served");
}

// The values of an agent whose files cannot be written are served all the same.
TEST(Registry, IsInTheWayOfNothing) {
  MadeUpHost host;
  host.File(PathOf("host"), "not a directory");
  host.Start();
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 2000");
  EXPECT_EQ(host.daemon.Count("Can't write registry file"), 1U) << host.daemon.Log();
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.daemon.Count("Can't write registry file"), 1U) << host.daemon.Log();
  host.Remove(PathOf("host"));
  host.Directory(PathOf("host"));
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_TRUE(Eventually([] { return MadeUpHost::Object("host/memory").has_value(); }));
}

// ---- What becomes of the files while their values stay as they are ------------------------------

namespace {

// The agent on a host where nothing changes, something that happens to its files, and one poll.
class Lost : public testing::Test {
 protected:
  Lost() {
    host_.File("/etc/quorix/appliance.conf", "ProductID=7\nProductName=Box\n");
    host_.File("/var/lib/quorix/ev/ZTHRN4", std::string(5, '\x01'));
    host_.File("/etc/mtab", "/dev/x / ext4 rw 0 0\n/dev/y /home ext4 rw 0 0\n");
    host_.Start();
    EXPECT_EQ(host_.Set("tlxHoSystemRole", 's', "mail"), "noError");
    guid_ = ReadFile(PathOf("tlxhoguid.dat"));
    EXPECT_EQ(guid_.size(), 16U);
    EXPECT_TRUE(host_.daemon.Poll());
    names_ = MadeUpHost::Objects();
    EXPECT_GE(names_.size(), 9U);
    states_ = States();
  }
  // Every object's values but for those that the machine itself changes.
  std::map<std::string, std::string> States() const {
    std::map<std::string, std::string> states;
    const auto dump = nlohmann::ordered_json::parse(host_.Dump());
    for (const auto &[name, values] : dump.items()) {
      if (name != "host/misc" && name != "host/agent" && !name.starts_with("host/cpu") &&
          !name.starts_with("host/filesys")) {
        states[name] = values.dump();
      }
    }
    return states;
  }
  void ExpectAllAfterAPoll() {
    ASSERT_TRUE(host_.daemon.Poll());
    EXPECT_TRUE(Eventually([&] { return MadeUpHost::Objects() == names_; }))
        << host_.Dump() << host_.daemon.Log();
    EXPECT_EQ(States(), states_);
    for (const std::string &name : names_) {
      EXPECT_EQ(Mode(PathOf(name)), 0644U) << name;
    }
    EXPECT_EQ(Mode(PathOf("host")), 0755U);
    EXPECT_EQ(Mode(MadeUpHost::kRegistry), 0755U);
    // What is kept is where it is looked for.
    EXPECT_EQ(ReadFile(PathOf("tlxhosystemrole.dat")), "mail");
    EXPECT_EQ(ReadFile(PathOf("tlxhoguid.dat")), guid_);
    EXPECT_EQ(Mode(PathOf("tlxhosystemrole.dat")), 0600U);
    EXPECT_FALSE(Exists(PathOf("tlxhosystemroledetail.dat"))) << "nobody has set it";
    EXPECT_EQ(host_.Set("tlxHoSystemRole", 's', "web"), "noError");
    EXPECT_EQ(ReadFile(PathOf("tlxhosystemrole.dat")), "web");
    ASSERT_TRUE(host_.daemon.Poll());
    EXPECT_EQ(MadeUpHost::Published("host/info", "tlxHoSystemRole"), "web");
  }
  static unsigned Mode(const std::string &path) {
    struct stat st = {};
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777U : 0;
  }
  static void Run(const std::vector<std::string> &command) {
    const Outcome outcome = RunCommand(command);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
  }

  mutable MadeUpHost host_;
  std::string guid_;
  std::vector<std::string> names_;
  std::map<std::string, std::string> states_;
};

}  // namespace

TEST_F(Lost, FilesThatAreUnlinked) {
  for (const std::string &name : names_) {
    host_.Remove(PathOf(name));
  }
  ExpectAllAfterAPoll();
  EXPECT_EQ(host_.daemon.Count("Registry files that were missing or damaged are written again"),
            1U);
}

TEST_F(Lost, FilesThatAreCut) {
  for (const std::string &name : names_) {
    ASSERT_EQ(truncate(PathOf(name).c_str(), 20), 0);
  }
  ExpectAllAfterAPoll();
}

TEST_F(Lost, FilesThatAreOverwritten) {
  for (const std::string &name : names_) {
    const std::string whole = ReadFile(PathOf(name));
    const int fd = open(PathOf(name).c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(write(fd, std::string(whole.size(), 'x').data(), whole.size()),
              static_cast<ssize_t>(whole.size()));
    close(fd);
  }
  ExpectAllAfterAPoll();
}

TEST_F(Lost, FilesThatAreReplaced) {
  for (const std::string &name : names_) {
    host_.File(PathOf(name), "another's");
  }
  host_.Remove(PathOf("host/memory"));
  host_.Link(PathOf("host/memory"), "/etc/passwd");
  ExpectAllAfterAPoll();
}

TEST_F(Lost, TheRightsOfFilesAndDirectories) {
  for (const std::string &name : names_) {
    ASSERT_EQ(chmod(PathOf(name).c_str(), 0600), 0);
  }
  ASSERT_EQ(chmod(PathOf("host").c_str(), 0700), 0);
  ASSERT_EQ(chmod(MadeUpHost::kRegistry, 0700), 0);
  ExpectAllAfterAPoll();
}

TEST_F(Lost, TheDirectory) {
  host_.Remove(PathOf("host"));
  ExpectAllAfterAPoll();
}

TEST_F(Lost, TheRoot) {
  host_.Remove("/var/spool/quorix");
  ExpectAllAfterAPoll();
}

TEST_F(Lost, ARootInWhosePlaceAFileStands) {
  host_.Remove(MadeUpHost::kRegistry);
  host_.File(MadeUpHost::kRegistry, "no directory");
  ASSERT_TRUE(host_.daemon.Poll());
  EXPECT_TRUE(host_.daemon.WaitLog(": Not a directory (values are served; trying again)"));
  EXPECT_EQ(host_.daemon.Count("Can't write registry file"), 1U) << host_.daemon.Log();
  host_.Remove(MadeUpHost::kRegistry);
  ExpectAllAfterAPoll();
}

TEST_F(Lost, ARootThatIsMovedAway) {
  ASSERT_EQ(rename("/var/spool/quorix/kelmo", "/var/spool/quorix/old"), 0);
  ExpectAllAfterAPoll();
  EXPECT_EQ(host_.daemon.Count("The registry was moved, removed or covered"), 1U);
  EXPECT_EQ(host_.daemon.Stop(), 0);
  EXPECT_FALSE(Exists(PathOf("host")));
}

// What a manager or an administrator has put into the new root counts.
TEST_F(Lost, ARootThatIsReplacedByOneWithKeptFiles) {
  ASSERT_EQ(rename("/var/spool/quorix/kelmo", "/var/spool/quorix/old"), 0);
  host_.File(PathOf("tlxhosystemrole.dat"), "another", 0600);
  ASSERT_TRUE(host_.daemon.Poll());
  ASSERT_TRUE(host_.daemon.Poll());
  EXPECT_EQ(ReadFile(PathOf("tlxhosystemrole.dat")), "another");
  EXPECT_EQ(
      host_.daemon.Count("/tlxhosystemrole.dat has another value than the one that is served"), 1U);
  EXPECT_EQ(host_.daemon.Count("has another value"), 1U) << host_.daemon.Log();
  EXPECT_EQ(ReadFile(PathOf("tlxhoguid.dat")), guid_);
}

// The way to a role that is empty at the next start.
TEST_F(Lost, AKeptFileThatIsRemovedStaysSo) {
  host_.Remove(PathOf("tlxhosystemrole.dat"));
  ASSERT_TRUE(host_.daemon.Poll());
  EXPECT_FALSE(Exists(PathOf("tlxhosystemrole.dat")));
}

TEST_F(Lost, ARootThatIsMountedOverAndUncoveredAgain) {
  Run({"mount", "-t", "tmpfs", "-o", "mode=700", "cover", MadeUpHost::kRegistry});
  ExpectAllAfterAPoll();
  // What an object that is gone meanwhile has left below does not come back.
  host_.File("/etc/mtab", "/dev/x / ext4 rw 0 0\n");
  ASSERT_TRUE(host_.daemon.Poll());
  ASSERT_TRUE(Eventually([] { return !MadeUpHost::Object("host/filesys.1"); }));
  Run({"umount", "-l", MadeUpHost::kRegistry});
  ASSERT_TRUE(MadeUpHost::Object("host/filesys.1"));
  std::erase(names_, "host/filesys.1");
  std::erase(names_, "host/mount.1");
  states_.erase("host/filesys.1");
  states_.erase("host/mount.1");
  states_.erase("host/info");  // its role is another one now
  ASSERT_TRUE(host_.daemon.Poll());
  EXPECT_TRUE(Eventually([&] { return MadeUpHost::Objects() == names_; })) << host_.Dump();
  EXPECT_EQ(host_.daemon.Count("The registry was moved, removed or covered"), 2U);
}

TEST(Registry, AFileThatCannotBeUnlinkedGoesLater) {
  MadeUpHost host;
  const std::string root = MadeUpHost::kRegistry;
  host.Directory(root);
  ASSERT_EQ(RunCommand({"mount", "--bind", root, root}).status, 0);
  host.StartTestAgent();
  ASSERT_TRUE(host.Order("rows 0 2\n"));
  ASSERT_EQ(RunCommand({"mount", "-o", "remount,ro,bind", root}).status, 0);
  ASSERT_TRUE(host.Order("delete 0\n"));
  EXPECT_TRUE(Exists(PathOf("host/row.0")));
  EXPECT_EQ(host.daemon.Count("Can't write registry file"), 1U) << host.daemon.Log();
  ASSERT_EQ(RunCommand({"mount", "-o", "remount,rw,bind", root}).status, 0);
  ASSERT_TRUE(host.Order("wait 0\n"));
  EXPECT_TRUE(Eventually([] { return !Exists(PathOf("host/row.0")); })) << host.daemon.Log();
  EXPECT_TRUE(host.daemon.WaitLog("Registry files are written again"));
}

// ---- Two agents for one directory ---------------------------------------------------------------

namespace {

Outcome StartAnother() {
  ProcessOptions options;
  options.fixed_addresses = true;  // it may be sanitized
  return RunCommand({DaemonPath(), "-i"}, options, 60);
}

bool IsLocked(const std::string &directory) {
  const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY);
  const bool locked = fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) != 0;
  close(fd);
  return locked;
}

}  // namespace

TEST(SecondStart, TouchesNothingAndSaysWhoRuns) {
  MadeUpHost host;
  host.Start();
  // Which files there are, and when one came or went; their contents are the running agent's to
  // change.
  const auto files = [] {
    std::map<std::string, std::pair<ino_t, int64_t>> found;
    for (const std::string &name : ListDirectory(PathOf("host"))) {
      struct stat status = {};
      EXPECT_EQ(stat(PathOf("host/" + name).c_str(), &status), 0) << name;
      found[name] = {status.st_ino, 0};
    }
    struct stat status = {};
    EXPECT_EQ(stat(PathOf("host").c_str(), &status), 0);
    found["."] = {status.st_ino,
                  status.st_mtim.tv_sec * int64_t{1000000000} + status.st_mtim.tv_nsec};
    return found;
  };
  const auto there = files();
  const std::string before = host.Dump();
  const std::string log = host.daemon.Log();
  const Outcome second = StartAnother();
  EXPECT_EQ(second.status, 1);
  EXPECT_EQ(second.out + second.err, "vexhostd: Process " + std::to_string(host.daemon.pid()) +
                                         " already runs with the registry directory " +
                                         PathOf("host") + "\n");
  EXPECT_EQ(host.Dump(), before);
  EXPECT_EQ(files(), there);
  EXPECT_EQ(host.daemon.Log(), log);
  EXPECT_EQ(host.Get("tlxHoPhysicalMemorySize"), "INTEGER: 2000");
  ASSERT_TRUE(host.daemon.Poll());
  EXPECT_EQ(host.daemon.Log(), log);
}

TEST(SecondStart, WorksAtOnceAfterAKill) {
  MadeUpHost host;
  for (int life = 0; life < 3; life++) {
    host.daemon.Start();
    EXPECT_TRUE(MadeUpHost::Object("host/memory"));
    EXPECT_EQ(host.daemon.Stop(SIGKILL), 128 + SIGKILL);
  }
  host.daemon.Start();
  EXPECT_EQ(host.daemon.Count("already runs"), 0U);
}

// Anybody may open the directory for reading, and so lock it.
TEST(SecondStart, AnotherUsersLockKeepsNoAgentAway) {
  const std::string directory = std::string(MadeUpHost::kRegistry) + "/host";
  const auto wait = [] {
    char byte = 0;
    return read(STDIN_FILENO, &byte, 1) == 0 ? 0 : 1;
  };
  const auto fork_and_exit = [&] { return fork() == 0 ? wait() : 0; };
  const auto become_root = [] {
    // It waits for its input, with the rights of its owner.
    execl("/usr/local/bin/waits", "waits", nullptr);
    return 1;
  };
  const std::vector<std::pair<std::string, std::function<int()>>> lockers = {
      {"waits", wait}, {"becomes root", become_root}, {"leaves it to a child", fork_and_exit}};
  MadeUpHost host;
  ASSERT_EQ(RunCommand({"cp", "/bin/cat", "/usr/local/bin/waits"}).status, 0);
  ASSERT_EQ(chmod("/usr/local/bin/waits", 04755), 0);
  host.Start();
  for (const auto &[name, locker] : lockers) {
    SCOPED_TRACE(name);
    EXPECT_EQ(host.daemon.Stop(SIGKILL), 128 + SIGKILL);
    int hold[2];  // what the locker reads: it ends when this is closed
    ASSERT_EQ(pipe2(hold, O_CLOEXEC), 0);
    const pid_t process = fork();
    ASSERT_GE(process, 0);
    if (process == 0) {
      dup2(hold[0], STDIN_FILENO);
      close(hold[1]);
      const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY);
      const bool locked =
          fd >= 0 && setgid(65534) == 0 && setuid(65534) == 0 && flock(fd, LOCK_EX) == 0;
      _exit(locked ? locker() : 1);
    }
    close(hold[0]);
    EXPECT_TRUE(Eventually([&] { return IsLocked(directory); }));
    if (name == "leaves it to a child") {
      int status = -1;
      waitpid(process, &status, 0);
      EXPECT_EQ(status, 0);
      EXPECT_TRUE(IsLocked(directory));
    }
    if (name == "becomes root") {
      EXPECT_TRUE(Eventually([&] {
        return ReadFile("/proc/" + std::to_string(process) + "/status").find("Uid:\t65534\t0\t") !=
               std::string::npos;
      }));
    }
    host.daemon.Start();
    EXPECT_TRUE(MadeUpHost::Object("host/memory"));
    EXPECT_EQ(host.daemon.Count("a process that is no agent has locked it"), 1U)
        << host.daemon.Log();
    // And two agents are still kept apart.
    const Outcome second = StartAnother();
    EXPECT_EQ(second.status, 1);
    EXPECT_NE((second.out + second.err)
                  .find("Process " + std::to_string(host.daemon.pid()) + " already runs"),
              std::string::npos)
        << second.out << second.err;
    close(hold[1]);
    waitpid(process, nullptr, 0);
  }
}

// A mount asker that hangs outlives the agent, and holds nothing of it.
TEST(SecondStart, WorksWhileAChildOfTheDeadOneHangs) {
  MadeUpHost host;
  FuseMount mount("/srv/hung", 100, 50);
  host.File("/etc/mtab", "/dev/x / ext4 rw 0 0\nserver:/x /srv/hung ext4 rw 0 0\n");
  host.daemon.Start();
  mount.HangAll();
  ASSERT_TRUE(host.daemon.Poll());
  const std::vector<pid_t> children = Children(host.daemon.pid());
  ASSERT_EQ(children.size(), 1U);
  for (const std::string &open : OpenFiles(children[0])) {
    EXPECT_EQ(open.find("registry"), std::string::npos) << open;
  }
  EXPECT_EQ(host.daemon.Stop(SIGKILL), 128 + SIGKILL);
  host.daemon.Start();
  EXPECT_EQ(host.daemon.Count("already runs"), 0U);
  mount.Recover();
}

TEST(SecondStart, SiblingsAreNotConcerned) {
  MadeUpHost host;
  host.daemon.Start();
  EXPECT_EQ(host.Vexreg({"put", "stdeq/misc", "int:7"}).status, 0);
  EXPECT_EQ(host.Vexreg({"rm", "stdeq/misc"}).status, 0);
  ProcessOptions options;
  options.fixed_addresses = true;
  EXPECT_EQ(RunCommand({DaemonPath(), "-h"}, options).status, 1);
  EXPECT_TRUE(MadeUpHost::Object("host/memory"));
}

// ---- The start ----------------------------------------------------------------------------------

TEST(Registry, ADirectoryLeftWithoutItsModeGetsItAtTheNextStart) {
  MadeUpHost host;
  host.Directory(PathOf("host"));
  for (const std::string &path : {PathOf("host"), std::string(MadeUpHost::kRegistry)}) {
    ASSERT_EQ(chmod(path.c_str(), 0700), 0);
  }
  host.daemon.Start();
  for (const std::string &path : {PathOf("host"), std::string(MadeUpHost::kRegistry)}) {
    struct stat st = {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777U, 0755U) << path;
  }
}

TEST(Registry, AnyDepthOfDirectoriesIsClearedAtTheStart) {
  MadeUpHost host;
  std::string path = PathOf("host");
  for (int level = 0; level < 90; level++) {
    path += "/level";
  }
  host.Directory(path);
  host.daemon.Start();
  EXPECT_FALSE(Exists(PathOf("host/level")));
  EXPECT_EQ(host.daemon.Count("Can't clear"), 0U);
}

TEST(Registry, ADirectoryThatCannotBeClearedIsTold) {
  MadeUpHost host;
  host.Directory(PathOf("host/mounted"));
  ASSERT_EQ(RunCommand({"mount", "-t", "tmpfs", "kept", PathOf("host/mounted")}).status, 0);
  host.daemon.Start();
  EXPECT_EQ(host.daemon.Count("Can't clear registry directory " + PathOf("host") +
                              ": Device or resource busy"),
            1U)
      << host.daemon.Log();
  EXPECT_TRUE(MadeUpHost::Object("host/memory"));
}

// A writable variable without a handler: what a manager sets, a sibling reads.
TEST(Registry, ASetWithoutAHandlerReachesTheFile) {
  MadeUpHost host;
  host.StartTestAgent();
  ASSERT_EQ(host.Set("tlxHoGenericData", 's', "hello"), "noError");
  EXPECT_EQ(host.Get("tlxHoGenericData"), "STRING: \"hello\"");
  EXPECT_EQ(MadeUpHost::Published("host/test", "tlxHoGenericData"), "hello");
}
