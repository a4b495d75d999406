// What the starter and the SNMP process give up, step by step, and what becomes of the start when a
// step fails. As root.
#include "framework/snmp/confinement.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "framework/process/sanitized.h"
#include "framework/snmp/snmp_relay.h"
#include "framework/snmp/snmp_shared.h"
#include "framework/snmp/snmp_starter.h"
#include "framework/snmp/snmp_thread.h"
#include "platform/framework.h"
#include "tests/support/failing_call.h"
#include "tests/unit/framework/process/with_snmp_process.h"
#include "tests/unit/framework/stopped.h"

namespace vex {
namespace {

using std::chrono::seconds;

class Confinement : public WithSnmpProcess {
 protected:
  // What a failing step leaves there is nobody's.
  void SetUp() override {
    WithSnmpProcess::SetUp();
    ASSERT_EQ(mount("none", "/run", "tmpfs", 0, nullptr), 0) << strerror(errno);
  }
  void TearDown() override {
    WithSnmpProcess::TearDown();
    EXPECT_EQ(umount2("/run", MNT_DETACH), 0);
  }
  // The start of one process, and why there is none.
  SnmpRelay::Begun Begin(std::string *why) {
    SnmpSettings settings;
    SnmpRelay relay;
    return relay.Begin("vexhostd", kUser, Clock::now() + seconds(60), &settings, why);
  }
};

// A step that fails for good lets the agent do without a process, and one that fails in passing is
// no reason to go on with more rights.
TEST_F(Confinement, EachStepThatFailsIsToldOf) {
  struct Step {
    Generation where;
    const char *function;
    int nth;
    const char *failure;
  };
  std::vector<Step> steps = {
      {kStarter, "dup2", 1, "the agent's standard descriptors stay"},
      {kStarter, "mkdtemp", 1, "no empty root directory"},
      {kStarter, "rmdir", 1, "no empty root directory"},
      {kStarter, "fchdir", 1, "no empty root directory"},
      {kStarter, "chroot", 1, "no empty root directory"},
      {kStarter, "setresuid", 1, "no right to end it"},
      {kStarter, "prctl", 3, "programs may have more rights"},
      {kStarter, "prctl", 4, "it can be traced"},
      {kSnmpProcess, "mmap", 1, "no shared memory"},
      {kSnmpProcess, "getrlimit", 1, "no limits"},
      {kSnmpProcess, "setrlimit", 2, "no limits"},
      {kSnmpProcess, "setgroups", 1, "not another user"},
      {kSnmpProcess, "setresgid", 1, "not another user"},
      {kSnmpProcess, "setresuid", 1, "not another user"},
      {kSnmpProcess, "syscall", 1, "capabilities stay"},
  };
  if (!kSanitized) {
    steps.push_back({kStarter, "dup2", 2, "the agent's standard descriptors stay"});
    steps.push_back({kStarter, "dup2", 3, "the agent's standard descriptors stay"});
    for (int nth = 3; nth <= 7; nth++) {
      steps.push_back({kSnmpProcess, "setrlimit", nth, "no limits"});
    }
  }
  for (const Step &step : steps) {
    // Of each side once.
    const int error = step.nth == 1 && strcmp(step.function, "setresuid") == 0 ? EIO : EPERM;
    at_birth[kStarter] = at_birth[kSnmpProcess] = nullptr;
    at_birth[step.where] = [&] {
      new FailingCall(step.function, error, step.nth, FailingCall::kAll);
    };
    std::string why;
    EXPECT_EQ(Begin(&why), error == EPERM ? SnmpRelay::Begun::kUnable : SnmpRelay::Begun::kFailed)
        << step.function << step.nth;
    EXPECT_EQ(why, std::string(step.failure) + ": " + strerror(error)) << step.function << step.nth;
  }
}

// Its last steps, by the number of the call when the first look at the bounding set has failed.
TEST_F(Confinement, NoProcessServesThatIsNotWhollyConfined) {
  const char *const failures[] = {"it can be traced", "no filter of system calls",
                                  "no filter of system calls"};
  int nth = 4;
  for (const char *failure : failures) {
    at_birth[kSnmpProcess] = [nth] {
      new FailingCall("prctl", EPERM, 3, 1);
      new FailingCall("prctl", EACCES, nth, 1);
    };
    std::string why;
    EXPECT_EQ(Begin(&why), SnmpRelay::Begun::kUnable) << nth;
    EXPECT_EQ(why, std::string(failure) + ": Permission denied") << nth;
    nth++;
  }
}

// An empty root directory may be made in either place; in neither, there is none.
TEST_F(Confinement, TheEmptyRootHasTwoPlaces) {
  std::string why;
  at_birth[kStarter] = [] { new FailingCall("mkdtemp", EROFS); };
  EXPECT_EQ(Begin(&why), SnmpRelay::Begun::kRuns) << why;
  // The configuration takes some as well.
  bool failed = false;
  for (int nth = 1; nth < 20 && !failed; nth++) {
    at_birth[kStarter] = [nth] { new FailingCall("open", ENFILE, nth); };
    why.clear();
    Begin(&why);
    failed = why == "no empty root directory: Too many open files in system";
  }
  EXPECT_TRUE(failed) << why;
}

TEST_F(Confinement, CapabilitiesThatCannotBeReadStay) {
  std::string why;
  // Closing the descriptors of the agent takes some as well.
  for (int nth = 1; nth < 10; nth++) {
    at_birth[kStarter] = [nth] { new FailingCall("syscall", EPERM, nth, 1); };
    if (Begin(&why) == SnmpRelay::Begun::kUnable) {
      break;
    }
  }
  EXPECT_EQ(why, "capabilities stay: Operation not permitted");
}

// A limit of the SNMP process, soft and hard, as /proc shows it.
std::pair<std::string, std::string> LimitOf(const std::string &name) {
  std::ifstream limits("/proc/" + std::to_string(births->last_process) + "/limits");
  std::string line;
  while (std::getline(limits, line) && !line.starts_with(name + "  ")) {
  }
  std::istringstream words(line.substr(std::min(line.size(), name.size())));
  std::pair<std::string, std::string> limit;
  words >> limit.first >> limit.second;
  return limit;
}

TEST_F(Confinement, TheProcessHasItsLimits) {
  ASSERT_NO_FATAL_FAILURE(StartWithMaster());
  std::vector<std::pair<const char *, const char *>> limits = {{"Max open files", "64"},
                                                               {"Max core file size", "0"}};
  if (!kSanitized) {
    limits.insert(limits.end(), {{"Max processes", "0"},
                                 {"Max file size", "0"},
                                 {"Max data size", "536870912"},
                                 {"Max address space", "2147483648"},
                                 {"Max stack size", "8388608"}});
  }
  for (const auto &[name, limit] : limits) {
    EXPECT_EQ(LimitOf(name), (std::pair<std::string, std::string>(limit, limit))) << name;
  }
}

// A limit that is lower already is kept.
TEST_F(Confinement, LowerLimitsStay) {
  at_birth[kSnmpProcess] = [] {
    const rlimit few = {32, 32};
    setrlimit(RLIMIT_NOFILE, &few);
  };
  ASSERT_NO_FATAL_FAILURE(StartWithMaster());
  EXPECT_EQ(LimitOf("Max open files"), (std::pair<std::string, std::string>("32", "32")));
}

// Of calls with arguments that tell what is meant, both halves of each number count.
TEST_F(Confinement, OnlyHarmlessCallsAreLeft) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
  const auto text = reinterpret_cast<long>("x");
  const struct {
    const char *what;
    long number;
    long arguments[6];
    bool allowed;
  } calls[] = {
      {"send", SYS_sendto, {ends[0], text, 1, 0, 0, 0}, true},
      {"send to an address", SYS_sendto, {ends[0], text, 1, 0, 4096, 16}, false},
      {"send to one whose lower half is zero",
       SYS_sendto,
       {ends[0], text, 1, 0, 1L << 32, 16},
       false},
      {"memory", SYS_mmap, {0, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0}, true},
      {"memory for code",
       SYS_mmap,
       {0, 4096, PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0},
       false},
      {"shared memory", SYS_mmap, {0, 4096, PROT_READ, MAP_SHARED | MAP_ANONYMOUS, -1, 0}, false},
      {"a socket", SYS_socket, {AF_UNIX, SOCK_DGRAM, 0, 0, 0, 0}, false},
      {"a signal", SYS_kill, {getpid(), 0, 0, 0, 0, 0}, false},
  };
  for (const auto &call : calls) {
    const pid_t child = fork();
    if (child == 0) {
      if (ConfineSnmpProcess(kUser) != nullptr) {
        _exit(1);
      }
      const long *a = call.arguments;
      const long result = syscall(call.number, a[0], a[1], a[2], a[3], a[4], a[5]);
      _exit(result != -1 ? 2 : errno == EPERM ? 3 : 4);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << call.what << status;
    EXPECT_EQ(WEXITSTATUS(status), call.allowed ? 2 : 3) << call.what;
  }
  close(ends[0]);
  close(ends[1]);
}

// Whoever has lost the one that started him is nobody's any more.
TEST_F(Confinement, NothingIsStartedForAParentThatIsGone) {
  std::string why;
  at_birth[kStarter] = [] { new FailingCall("getppid", EPERM); };
  EXPECT_EQ(Begin(&why), SnmpRelay::Begun::kFailed);
  EXPECT_EQ(why, "its starter has ended");
  at_birth[kStarter] = nullptr;
  for (const int nth : {1, 3}) {
    at_birth[kSnmpProcess] = [nth] { new FailingCall("getppid", EPERM, nth); };
    EXPECT_EQ(Begin(&why), SnmpRelay::Begun::kFailed);
    EXPECT_EQ(why, "it ends at once");
  }
}

// ---- The user

class SnmpUserFile : public testing::Test {
 protected:
  // What is found when this is the file of users.
  static std::optional<SnmpUser> In(const std::string &text) {
    char path[] = "/tmp/users.XXXXXX";
    const int fd = mkstemp(path);
    EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
    EXPECT_EQ(mount(path, "/etc/passwd", nullptr, MS_BIND, nullptr), 0) << strerror(errno);
    std::optional<SnmpUser> user;
    EXPECT_TRUE(FindSnmpUser(&user)) << text;
    EXPECT_EQ(umount("/etc/passwd"), 0);
    unlink(path);
    return user;
  }
};

TEST_F(SnmpUserFile, HasNumbersThatAreNotRoots) {
  for (const char *line :
       {"", "_vexhostd", "_vexhostd:x", "_vexhostd:x:5", "_vexhostd:x:0:5::/:/",
        "_vexhostd:x:5:0::/:/", "_vexhostd:x:4294967295:5::/:/", "_vexhostd:x:5:4294967295::/:/",
        "_vexhostd:x:4294967296:5::/:/", "_vexhostd:x:5x:5::/:/", "_vexhostd:x:5:x5::/:/",
        "_vexhostd:x:-1:5::/:/", "_vexhostd:x::5::/:/", "_vexhostdx:x:5:5::/:/"}) {
    EXPECT_FALSE(In(std::string(line) + "\n")) << line;
  }
  const std::optional<SnmpUser> user = In("root:x:0:0\n_vexhostd:x:0:7\n_vexhostd:x:5:7");
  ASSERT_TRUE(user);
  EXPECT_EQ(user->uid, 5U);
  EXPECT_EQ(user->gid, 7U);
}

// Whether there is one cannot be told then, which is not the same as none.
TEST_F(SnmpUserFile, ThatCannotBeReadIsAFailure) {
  std::optional<SnmpUser> user = kUser;
  {
    const FailingCall failing("fopen", EMFILE);
    EXPECT_FALSE(FindSnmpUser(&user));
    EXPECT_EQ(errno, EMFILE);
    EXPECT_FALSE(user);
  }
  {
    const FailingCall failing("fopen", ENOENT);
    EXPECT_TRUE(FindSnmpUser(&user));
    EXPECT_FALSE(user);
  }
  // Nothing is at its beginning.
  ASSERT_EQ(mount("/proc/self/mem", "/etc/passwd", nullptr, MS_BIND, nullptr), 0)
      << strerror(errno);
  const bool found = FindSnmpUser(&user);
  const int error = errno;
  ASSERT_EQ(umount("/etc/passwd"), 0);
  EXPECT_FALSE(found);
  EXPECT_EQ(error, EIO);
}

// ---- The starter

class StarterTest : public WithSnmpProcess {
 protected:
  void TearDown() override {
    starter_.End();
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
    WithSnmpProcess::TearDown();
  }
  // The next frame of the starter's; nothing at its end.
  std::optional<FrameType> Hear() {
    std::string_view bytes;
    FrameSocket::Got got = FrameSocket::Got::kNone;
    EXPECT_TRUE(WaitUntil([&] {
      got = starter_.Channel()->Receive(&bytes, nullptr);
      return got != FrameSocket::Got::kNone;
    }));
    FrameReader reader(got == FrameSocket::Got::kFrame ? bytes : std::string_view("\xff"));
    const auto type = reader.Take<FrameType>();
    number_ = reader.Take<int32_t>();
    return got == FrameSocket::Got::kFrame ? std::optional(type) : std::nullopt;
  }
  void Start(bool behind = false) {
    ASSERT_TRUE(starter_.Start("vexhostd", behind, kUser)) << strerror(errno);
  }
  // A process that stays, whatever it is told.
  void Spawn() {
    at_birth_descriptors_ = Descriptor(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const int fd = at_birth_descriptors_.get();
    const int descriptors[] = {fd, fd, fd};
    ASSERT_TRUE(starter_.Channel()->Send(FrameWriter(FrameType::kSpawn), descriptors));
  }

  SnmpStarter starter_;
  Descriptor at_birth_descriptors_;
  int32_t number_ = 0;
};

TEST_F(StarterTest, EndsAProcessWhenToldAndTellsOfIt) {
  at_birth[kSnmpProcess] = Wicked::Stay;
  Start();
  EXPECT_EQ(Hear(), FrameType::kConfigured);
  // There is none yet.
  ASSERT_TRUE(starter_.Channel()->Send(FrameWriter(FrameType::kKill)));
  Spawn();
  EXPECT_EQ(Hear(), FrameType::kSpawned);
  EXPECT_EQ(number_, 0);
  ASSERT_TRUE(starter_.Channel()->Send(FrameWriter(FrameType::kKill)));
  EXPECT_EQ(Hear(), FrameType::kEnded);
  EXPECT_TRUE(WIFSIGNALED(number_) && WTERMSIG(number_) == SIGKILL) << number_;
}

// What is only put aside can be taken up again.
TEST_F(StarterTest, HasNoRightsButThoseThatItNeeds) {
  Start();
  EXPECT_EQ(Hear(), FrameType::kConfigured);
  constexpr unsigned long kNeeded = 1UL << CAP_SETUID | 1UL << CAP_SETGID | 1UL << CAP_SETPCAP;
  std::ifstream status("/proc/" + std::to_string(births->starter) + "/status");
  int sets = 0;
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("CapEff:") || line.starts_with("CapPrm:")) {
      sets++;
      EXPECT_EQ(std::stoul(line.substr(strlen("CapEff:")), nullptr, 16) & ~kNeeded, 0U) << line;
    }
  }
  EXPECT_EQ(sets, 2);
}

// Signals that come while it waits for the end of one cost nothing.
TEST_F(StarterTest, WaitsForTheEndThoughSignalsCome) {
  at_birth[kSnmpProcess] = Wicked::Stay;
  at_birth[kStarter] = [] { new FailingCall("waitpid", EINTR, 1, 3); };
  Start();
  EXPECT_EQ(Hear(), FrameType::kConfigured);
  Spawn();
  EXPECT_EQ(Hear(), FrameType::kSpawned);
  Spawn();
  EXPECT_EQ(Hear(), FrameType::kEnded);
  EXPECT_EQ(Hear(), FrameType::kSpawned);
}

TEST_F(StarterTest, ThatIsToldNonsenseEnds) {
  Start();
  EXPECT_EQ(Hear(), FrameType::kConfigured);
  ASSERT_TRUE(starter_.Channel()->Send(FrameWriter(FrameType::kPong)));
  EXPECT_EQ(Hear(), std::nullopt);
}

// What the agent does not take at once is sent later.
TEST_F(StarterTest, IsHeardByAnAgentThatWasBusy) {
  at_birth[kStarter] = [] { new FailingCall("send", EAGAIN); };
  Start();
  EXPECT_EQ(Hear(), FrameType::kConfigured);
  ASSERT_TRUE(starter_.Channel()->Send(FrameWriter(FrameType::kKill)));
}

TEST_F(StarterTest, NeedsNoEnvironment) {
  at_birth[kStarter] = [] { clearenv(); };
  Start();
  EXPECT_EQ(Hear(), FrameType::kConfigured);
}

TEST_F(StarterTest, ThatCannotStartAProcessSaysWhy) {
  at_birth[kStarter] = [] { new FailingCall("fork", EAGAIN); };
  Start();
  EXPECT_EQ(Hear(), FrameType::kConfigured);
  Spawn();
  EXPECT_EQ(Hear(), FrameType::kSpawned);
  EXPECT_EQ(number_, EAGAIN);
}

TEST_F(StarterTest, WithoutMemoryIsNone) {
  at_birth[kStarter] = [] { starved = getpid(); };
  Start();
  EXPECT_EQ(Hear(), std::nullopt);
}

TEST_F(StarterTest, CannotBeStartedWithoutAChannelOrAProcess) {
  {
    const FailingCall failing("socketpair", EMFILE);
    EXPECT_FALSE(starter_.Start("vexhostd", false, kUser));
    EXPECT_EQ(errno, EMFILE);
  }
  const FailingCall failing("fork", EAGAIN);
  EXPECT_FALSE(starter_.Start("vexhostd", false, kUser));
  EXPECT_EQ(errno, EAGAIN);
}

// Whoever cannot be waited for is so at the next look.
TEST_F(StarterTest, LooksAgainAfterACallThatFailed) {
  at_birth[kSnmpProcess] = Wicked::Stay;
  at_birth[kStarter] = [] { new FailingCall("waitpid", ECHILD); };
  Start();
  EXPECT_EQ(Hear(), FrameType::kConfigured);
  Spawn();
  EXPECT_EQ(Hear(), FrameType::kSpawned);
  ASSERT_TRUE(WaitUntil([] { return births->last_process > 0; }));
  kill(births->last_process, SIGKILL);
  ASSERT_TRUE(starter_.Channel()->Send(FrameWriter(FrameType::kKill)));
  EXPECT_EQ(Hear(), FrameType::kEnded);
}

// An agent that stands behind another one registers so.
TEST_F(StarterTest, RegistersBehindWhereToldTo) {
  ASSERT_NO_FATAL_FAILURE(StartWithMaster());
  EXPECT_EQ(master_->Priority(), 127);
  ASSERT_TRUE(Stopped());
  SnmpStandBehind();
  master_.reset();
  StartWithMaster();
  Side().stand_behind = false;
  EXPECT_EQ(master_->Priority(), 200);
  EXPECT_TRUE(Stopped());
}

// One that hangs does not keep the agent.
TEST_F(StarterTest, ThatHangsIsKilled) {
  at_birth[kStarter] = [] { kill(getpid(), SIGSTOP); };
  Start();
  starter_.End();
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

}  // namespace
}  // namespace vex
