// How the SNMP process comes to be, and what the agent makes of it when it does not, or ends. As
// root.
#include "framework/snmp/snmp_relay.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "framework/process/sanitized.h"
#include "framework/snmp/set_channel.h"
#include "framework/snmp/snmp_shared.h"
#include "framework/snmp/snmp_thread.h"
#include "platform/framework.h"
#include "tests/support/failing_call.h"
#include "tests/unit/framework/fake_master.h"
#include "tests/unit/framework/made_image.h"
#include "tests/unit/framework/process/with_snmp_process.h"
#include "tests/unit/framework/stopped.h"

namespace vex {
namespace {

using std::chrono::milliseconds;

// The agent's side of the SNMP process stands still while told to.
std::atomic<bool> hold{false};
std::atomic<bool> held{false};

// A line of /proc/PID/status, without its key.
std::string StatusOf(pid_t pid, const std::string &key) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(file, line)) {
    if (line.starts_with(key + ":\t")) {
      return line.substr(key.size() + 2);
    }
  }
  return "";
}

class SnmpRelayTest : public WithSnmpProcess {
 protected:
  void TearDown() override {
    hold = false;
    WithSnmpProcess::TearDown();
  }
};

// ---- The start

TEST_F(SnmpRelayTest, AProcessThatIsNotReadyInTimeIsAFailure) {
  at_birth[kSnmpProcess] = [] { kill(getpid(), SIGSTOP); };
  std::string why;
  {
    SnmpSettings settings;
    SnmpRelay relay;
    EXPECT_EQ(
        relay.Begin("vexhostd", kUser, Clock::now() + std::chrono::seconds(3), &settings, &why),
        SnmpRelay::Begun::kFailed);
  }
  EXPECT_EQ(why, "it is not ready after a minute");
  // It was stopped before it could see to its own end.
  ASSERT_GT(births->last_process, 0);
  kill(births->last_process, SIGKILL);
}

// Nothing is started again where there is no agent yet.
TEST_F(SnmpRelayTest, AProcessThatEndsAtOnceIsAFailure) {
  // Somebody holds its channel, so that its end is told first.
  at_birth[kSnmpProcess] = [] {
    if (_Fork() == 0) {
      usleep(300'000);
    }
    _exit(3);
  };
  const std::string log = LoggedByStart(-1);
  EXPECT_EQ(log, "agent: Can't start the SNMP side: it ends at once\n");
  EXPECT_TRUE(SnmpFailed());
}

TEST_F(SnmpRelayTest, NothingStartsWithoutADescriptorToWakeItWith) {
  if (Side().wake_fd >= 0) {
    close(std::exchange(Side().wake_fd, -1));
  }
  ASSERT_TRUE(Sets().Ready());
  const FailingCall failing("eventfd", EMFILE, 1, 1);
  const std::string log = LoggedByStart(-1);
  EXPECT_NE(log.find("Too many open files"), log.npos) << log;
}

TEST_F(SnmpRelayTest, TheEndOfTheStarterIsNotWantOfMemory) {
  at_birth[kSnmpProcess] = [] {
    const pid_t starter = getppid();
    kill(starter, SIGKILL);
    while (getppid() == starter) {
      usleep(1000);
    }
  };
  const std::string log = LoggedByStart(-1);
  EXPECT_EQ(log, "agent: Can't start the SNMP side: its starter has ended\n");
  EXPECT_TRUE(SnmpFailed());
  // Nobody is there to end the process. Its new parent may be slow to reap it.
  ASSERT_GT(births->last_process, 0);
  EXPECT_TRUE(WaitUntil([] {
    const std::string state = StatusOf(births->last_process, "State");
    return state.empty() || state.starts_with('Z');
  }));
}

// As those of a terminal's keys.
TEST_F(SnmpRelayTest, SignalsForTheAgentAreNotForItsProcesses) {
  ASSERT_NO_FATAL_FAILURE(StartWithMaster());
  for (const pid_t pid : {births->starter.load(), births->last_process.load()}) {
    const std::string text = StatusOf(pid, "SigBlk");
    const unsigned long long blocked = strtoull(text.c_str(), nullptr, 16);
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGTSTP, SIGALRM, SIGPIPE, SIGUSR1,
                             SIGUSR2, SIGWINCH, SIGCONT, SIGTTIN, SIGTTOU, SIGABRT, SIGIO}) {
      EXPECT_TRUE(blocked & (1ULL << (signal - 1))) << signal << ' ' << text;
    }
  }
}

// By the starter, which alone reads it, and before it gives the log up.
TEST_F(SnmpRelayTest, WhatItsConfigurationHasWrongIsLogged) {
  std::ofstream(directory_ + "/vexhostd.conf", std::ios::app) << "polInterval 5\n";
  // That there is no master may be said by then.
  const std::string log = LoggedByStart(0);
  EXPECT_TRUE(log.starts_with(directory_ +
                              "/vexhostd.conf: line 2: Warning: Unknown token: polInterval.\n"))
      << log;
  EXPECT_GT(births->last_process, 0);
}

// What a library says there must not go to a socket that has taken the number. What a sanitizer
// says goes where the agent's does.
TEST_F(SnmpRelayTest, ItsProcessesHaveTheNullDeviceForStandardDescriptors) {
  ASSERT_NO_FATAL_FAILURE(StartWithMaster());
  for (const pid_t pid : {births->starter.load(), births->last_process.load()}) {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
      std::error_code error;
      const auto place = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd);
      const bool stays = kSanitized && fd != STDIN_FILENO;
      EXPECT_EQ(std::filesystem::read_symlink(place, error),
                stays ? std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), error)
                      : "/dev/null")
          << place << error;
    }
  }
}

// A process that would have the agent's own standard descriptors is none.
TEST_F(SnmpRelayTest, WithoutANullDeviceThereIsNoProcess) {
  const std::string path = directory_ + "/socket";
  ASSERT_EQ(mknod(path.c_str(), S_IFSOCK | 0600, 0), 0);
  ASSERT_EQ(mount(path.c_str(), "/dev/null", nullptr, MS_BIND, nullptr), 0) << strerror(errno);
  const std::string log = LoggedByStart(0);
  ASSERT_EQ(umount("/dev/null"), 0);
  EXPECT_TRUE(
      log.starts_with("Info: the SNMP side is no process of its own: the agent's standard "
                      "descriptors stay: No such device or address\n"))
      << log;
  EXPECT_EQ(births->last_process, 0);
}

// What a user has on the way between processes is limited by what each may have open.
TEST_F(SnmpRelayTest, TooManyDescriptorsOnTheirWayAreNoReasonToRunWithMoreRights) {
  constexpr int kLimit = 200;
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
  char control[CMSG_SPACE(sizeof(int) * kLimit)] = {};
  char byte = 0;
  iovec part = {&byte, 1};
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  cmsghdr *header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int) * kLimit);
  for (int i = 0; i < kLimit; i++) {
    memcpy(CMSG_DATA(header) + static_cast<size_t>(i) * sizeof(int), &ends[0], sizeof(int));
  }
  ASSERT_EQ(sendmsg(ends[0], &message, 0), 1);
  ASSERT_EQ(sendmsg(ends[0], &message, 0), 1);

  rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit few = {kLimit, before.rlim_max};
  __user_cap_header_struct capabilities = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct had[_LINUX_CAPABILITY_U32S_3] = {};
  ASSERT_EQ(syscall(SYS_capget, &capabilities, had), 0);
  __user_cap_data_struct less[_LINUX_CAPABILITY_U32S_3];
  memcpy(less, had, sizeof(had));
  less[0].effective &= ~(1U << CAP_SYS_RESOURCE | 1U << CAP_SYS_ADMIN);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  ASSERT_EQ(syscall(SYS_capset, &capabilities, less), 0);
  const std::string log = LoggedByStart(-1);
  EXPECT_EQ(syscall(SYS_capset, &capabilities, had), 0);
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  close(ends[0]);
  close(ends[1]);
  EXPECT_EQ(log, "agent: Can't start the SNMP side: Too many references: cannot splice\n");
}

// The first life of an SNMP side was a process; the next one is a thread, whose master has a name.
TEST_F(SnmpRelayTest, WhatItServedIsServedByAThreadThatComesAfterIt) {
  ASSERT_NO_FATAL_FAILURE(StartWithMaster());
  const auto image = MakeImage(5, 0, {"tlxHoOsCommonPollFreq"});
  image->data[0] = 42;
  SnmpPublish(image);
  const std::span<const uint32_t> oid = FindMibVariable("tlxHoOsCommonPollFreq")->Oid();
  OidNumbers name(oid.begin(), oid.end());
  name.push_back(0);
  std::optional<AgentxPacket> answer = master_->Ask(master_->Get({name}));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Bindings().at(0).integer, 42);
  ASSERT_TRUE(Stopped());
  FakeMaster named(FakeMaster::Tcp{});
  std::ofstream(directory_ + "/vexhostd.conf") << "agentXSocket tcp:127.1:" << named.Port() << '\n';
  const std::string log = LoggedByStart(0);
  EXPECT_NE(log.find("Info: the SNMP side is no process of its own: the address of the master "
                     "agent is to be looked up"),
            log.npos)
      << log;
  ASSERT_TRUE(named.AcceptAndRegister(10000));
  answer = named.Ask(named.Get({name}));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Bindings().at(0).integer, 42);
  SnmpWithdraw(5);
}

// ---- Its rest

TEST_F(SnmpRelayTest, RestsWhileNothingHappens) {
  ASSERT_NO_FATAL_FAILURE(StartWithMaster());
  ASSERT_TRUE(master_->Ask(master_->Get({{1, 3, 6, 1, 4, 1, 4891}})));
  FailingCall waits(
      "ppoll", [] {}, 1, FailingCall::kAll);
  waits.In(RelayThread());
  std::this_thread::sleep_for(milliseconds(150));
  EXPECT_LE(waits.Failed(), 5);
}

// Other files come and go beside the master's socket.
TEST_F(SnmpRelayTest, IsNotKeptAwakeByWhatItWatches) {
  FailingCall waits(
      "ppoll", [] {}, 1, FailingCall::kAll);
  ASSERT_EQ(SnmpStart("vexhostd", nullptr), 0);
  waits.In(RelayThread());
  ASSERT_TRUE(WaitUntil([&waits] { return waits.Failed() >= 5; }));  // it looks for the master
  std::ofstream(directory_ + "/another") << "file";
  const int before = waits.Failed();
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_LE(waits.Failed() - before, 50);
}

// ---- Its end

TEST_F(SnmpRelayTest, AFloodOutlivesTheProcess) {
  ASSERT_NO_FATAL_FAILURE(StartWithMaster());
  constexpr uint32_t kFlood = 1000;
  for (uint32_t i = 1; i <= kFlood; i++) {
    Notification notification;
    notification.number = i;
    SnmpNotify(std::move(notification));
  }
  ASSERT_TRUE(master_->Receive());
  testing::internal::CaptureStderr();
  ASSERT_EQ(kill(births->last_process, SIGKILL), 0);
  ASSERT_TRUE(master_->HasBeenReset(10000));
  master_->Disconnect();
  ASSERT_TRUE(master_->AcceptAndRegister());
  uint32_t got = 0;
  while (std::optional<AgentxPacket> packet = master_->Receive(got == kFlood ? 10 : 3000)) {
    got++;
    EXPECT_EQ(packet->Bindings().at(0).object_id.back(), got);
    master_->Answer(*packet);
    if (got == kFlood || HasNonfatalFailure()) {
      break;
    }
  }
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("agent: The SNMP process has ended (signal 9); starting another\n"), log.npos)
      << log;
  EXPECT_EQ(log.find("lost"), log.npos) << log;
  EXPECT_EQ(got, kFlood);
}

// What it has said before its end counts, also where the agent finds the end by what it has to say
// itself.
TEST_F(SnmpRelayTest, WhatTheMasterHasTakenIsNotSentAgain) {
  ASSERT_NO_FATAL_FAILURE(StartWithMaster());
  const pid_t process = births->last_process;
  // Stopped, it takes a few of them.
  ASSERT_EQ(kill(process, SIGSTOP), 0);
  constexpr uint32_t kMany = 16;
  for (uint32_t i = 1; i <= kMany; i++) {
    Notification notification;
    notification.number = i;
    notification.description = std::string(30000, 'x');
    SnmpNotify(std::move(notification));
  }
  // Behind them, and so they are under way.
  SnmpSetTick(
      [] {
        held = true;
        while (hold) {
          std::this_thread::sleep_for(milliseconds(1));
        }
      },
      10);
  std::this_thread::sleep_for(milliseconds(100));
  hold = true;
  held = false;
  for (int i = 0; i < 3000 && !held; i++) {
    std::this_thread::sleep_for(milliseconds(1));
  }
  ASSERT_TRUE(held);
  ASSERT_EQ(kill(process, SIGCONT), 0);
  std::optional<AgentxPacket> first = master_->Receive();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->Bindings().at(0).object_id.back(), 1U);
  master_->Answer(*first);
  // The process tells of the one before it answers the other.
  while (master_->Receive(300)) {
  }
  ASSERT_TRUE(master_->Ask(master_->Get({{1, 3, 6, 1, 4, 1, 4891}})));
  ASSERT_EQ(kill(process, SIGKILL), 0);
  ASSERT_TRUE(master_->HungUp(10000));
  hold = false;
  master_->Disconnect();
  ASSERT_TRUE(master_->AcceptAndRegister());
  for (uint32_t i = 2; i <= kMany; i++) {
    std::optional<AgentxPacket> packet = master_->Receive();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->Bindings().at(0).object_id.back(), i);
    master_->Answer(*packet);
  }
}

// ---- Want of memory

TEST_F(SnmpRelayTest, WantOfMemoryIsWaitedForAtRest) {
  ASSERT_NO_FATAL_FAILURE(StartWithMaster());
  starved = RelayThread();
  ASSERT_GT(starved, 0);
  refused = 0;
  ASSERT_EQ(kill(births->last_process, SIGKILL), 0);
  for (int i = 0; i < 3000 && refused == 0; i++) {
    std::this_thread::sleep_for(milliseconds(1));
  }
  ASSERT_GT(refused, 0);
  refused = 0;
  std::this_thread::sleep_for(milliseconds(200));
  const long tries = refused;
  printf("%ld allocations refused in 200 ms\n", tries);
  EXPECT_LE(tries, 200);
  starved = 0;
  ASSERT_TRUE(master_->HungUp(10000));
  master_->Disconnect();
  EXPECT_TRUE(master_->AcceptAndRegister());
}

}  // namespace
}  // namespace vex
