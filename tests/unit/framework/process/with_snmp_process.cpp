#include "tests/unit/framework/process/with_snmp_process.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>
#include <set>
#include <thread>

#include "framework/process/sanitized.h"
#include "framework/snmp/snmp_thread.h"
#include "platform/framework.h"
#include "tests/unit/framework/library_leaks.h"
#include "tests/unit/framework/snmp_user_here.h"
#include "tests/unit/framework/stopped.h"

namespace vex {

std::atomic<pid_t> starved{0};
std::atomic<long> refused{0};
std::atomic<int> ending{0};
std::atomic<int64_t> ahead_ms{0};
std::function<void()> at_birth[kGenerations];
Births *births;

}  // namespace vex

namespace {

void *Allocate(size_t size) {
  if (vex::starved.load(std::memory_order_relaxed) != 0 && gettid() == vex::starved) {
    vex::refused++;
    throw std::bad_alloc();
  }
  void *memory = malloc(size != 0 ? size : 1);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

}  // namespace

void *operator new(size_t size) {
  return Allocate(size);
}
void *operator new[](size_t size) {
  return Allocate(size);
}
// A sanitizer has one of its own otherwise.
void *operator new(size_t size, const std::nothrow_t &) noexcept {
  try {
    return Allocate(size);
  } catch (const std::bad_alloc &) {
    return nullptr;
  }
}
void operator delete(void *memory) noexcept {
  free(memory);
}
void operator delete[](void *memory) noexcept {
  free(memory);
}
void operator delete(void *memory, size_t) noexcept {
  free(memory);
}
void operator delete[](void *memory, size_t) noexcept {
  free(memory);
}

extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
int __wrap_agent_ending(void) {
  return vex::ending;
}
// std::chrono::steady_clock::now(): a time point is returned as its number is.
int64_t __real__ZNSt6chrono3_V212steady_clock3nowEv();
int64_t __wrap__ZNSt6chrono3_V212steady_clock3nowEv() {
  return __real__ZNSt6chrono3_V212steady_clock3nowEv() + vex::ahead_ms * 1'000'000;
}
// NOLINTEND(bugprone-reserved-identifier)
}

namespace vex {
namespace {

using std::chrono::milliseconds;

const testing::Environment *const snmp_user = testing::AddGlobalTestEnvironment(
    new SnmpUserHere);  // NOLINT(*-err58-cpp): it is the library's

int generation = kTest;
std::set<ino_t> channels_before;  // that the starter has had from the beginning

constexpr int kMostDescriptors = 256;

ino_t ChannelAt(int fd) {
  int type = 0;
  socklen_t size = sizeof(type);
  struct stat status = {};
  return getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_SEQPACKET &&
                 fstat(fd, &status) == 0
             ? status.st_ino
             : 0;
}

void Born() {
  generation++;
  if (generation == kStarter) {
    births->starter = getpid();
    for (int fd = 0; fd < kMostDescriptors; fd++) {
      channels_before.insert(ChannelAt(fd));
    }
  } else if (generation == kSnmpProcess) {
    births->last_process = getpid();
    births->count++;
  }
  if (generation < kGenerations && at_birth[generation]) {
    at_birth[generation]();
  }
}

class WithBirths : public testing::Environment {
 public:
  void SetUp() override {
    births = new (mmap(nullptr, sizeof(*births), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                       -1, 0)) Births;
    ASSERT_EQ(pthread_atfork(nullptr, nullptr, Born), 0);
  }
};
const testing::Environment *const with_births =
    testing::AddGlobalTestEnvironment(new WithBirths);  // NOLINT(*-err58-cpp): it is the library's

}  // namespace

int ChannelHere() {
  for (int fd = 0; fd < kMostDescriptors; fd++) {
    if (!channels_before.contains(ChannelAt(fd))) {
      return fd;
    }
  }
  return -1;
}

// They came together, in this order: channel, images, control.
int ControlHere() {
  int memory = 0;
  for (int fd = ChannelHere() + 1; fd < kMostDescriptors; fd++) {
    memory += fcntl(fd, F_GET_SEALS) >= 0 ? 1 : 0;
    if (memory == 2) {
      return fd;
    }
  }
  return -1;
}

// The other end has been opened before it.
int StartersChannel() {
  int last = -1;
  for (int fd = 0; fd < kMostDescriptors; fd++) {
    last = ChannelAt(fd) != 0 ? fd : last;
  }
  return last;
}

pid_t RelayThread() {
  pid_t found = 0;
  for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name;
    std::ifstream(task.path() / "comm") >> name;
    found = name == "snmp" ? std::stoi(task.path().filename()) : found;
  }
  return found;
}

bool WaitUntil(const std::function<bool()> &condition, int ms) {
  // Not by the clock, which a test may move.
  bool met = condition();
  for (int i = 0; i < ms && !met; i++) {
    std::this_thread::sleep_for(milliseconds(1));
    met = condition();
  }
  return met;
}

Wicked::Wicked() : channel_(Descriptor(dup(ChannelHere()))) {}

Wicked &Wicked::Say(const FrameWriter &frame) {
  // Whether the agent still listens is the test's to see.
  channel_.Send(frame);
  while (channel_.HasUnsent()) {
    pollfd entry = {channel_.Fd(), POLLOUT, 0};
    if (poll(&entry, 1, 10000) <= 0 || !channel_.Flush()) {
      break;
    }
  }
  return *this;
}

bool Wicked::AllIsRead() {
  for (int i = 0; i < 1000; i++) {
    int unread = 0;
    if (ioctl(channel_.Fd(), SIOCOUTQ, &unread) == 0 && unread == 0) {
      return true;
    }
    usleep(10'000);
  }
  return false;
}

std::optional<std::string> Wicked::Hear(FrameType type) {
  return HearFrom(&channel_, type);
}

int Wicked::HearBefore(FrameType type, FrameType end) {
  return HearFromBefore(&channel_, type, end);
}

namespace {

// The next frame, with its type.
std::optional<std::string> HearAny(FrameSocket *channel) {
  for (;;) {
    std::string_view bytes;
    FrameSocket::Descriptors descriptors;
    const FrameSocket::Got got = channel->Receive(&bytes, &descriptors);
    if (got == FrameSocket::Got::kFrame) {
      return std::string(bytes);
    }
    pollfd entry = {channel->Fd(), POLLIN, 0};
    if (got == FrameSocket::Got::kEnd || poll(&entry, 1, 10000) <= 0) {
      return std::nullopt;
    }
  }
}

}  // namespace

std::optional<std::string> HearFrom(FrameSocket *channel, FrameType type) {
  std::optional<std::string> frame;
  do {
    frame = HearAny(channel);
  } while (frame && FrameReader(*frame).Take<FrameType>() != type);
  return frame ? std::optional(frame->substr(1)) : std::nullopt;
}

int HearFromBefore(FrameSocket *channel, FrameType type, FrameType end) {
  int count = 0;
  while (const std::optional<std::string> frame = HearAny(channel)) {
    const auto heard = FrameReader(*frame).Take<FrameType>();
    if (heard == end) {
      return count;
    }
    count += heard == type ? 1 : 0;
  }
  return -1;
}

void Wicked::Stay() {
  // No longer than its starter, or it would outlive its test, whose output it holds open.
  while (kill(births->starter, 0) == 0 || errno == EPERM) {
    usleep(50'000);
  }
  _exit(0);
}

void WithSnmpProcess::SetUp() {
  char pattern[] = "/tmp/snmp_relay.XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  directory_ = pattern;
  socket_ = directory_ + "/master";
  std::ofstream(directory_ + "/vexhostd.conf") << "agentXSocket " << socket_ << "\n";
  setenv("SNMPCONFPATH", directory_.c_str(), 1);
  setenv("SNMP_PERSISTENT_DIR", directory_.c_str(), 1);
  for (std::function<void()> &first : at_birth) {
    first = nullptr;
  }
  births->last_process = 0;
  births->count = 0;
  for (std::atomic<int> &told : births->told) {
    told = 0;
  }
}

void WithSnmpProcess::TearDown() {
  starved = 0;
  ending = 0;
  SnmpSetTick(nullptr, 0);
  EXPECT_TRUE(Stopped());
  ahead_ms = 0;
  EXPECT_EQ(system(("rm -rf " + directory_).c_str()), 0);
}

std::string WithSnmpProcess::LoggedByStart(int expected) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(SnmpStart("vexhostd", nullptr), expected);
  return testing::internal::GetCapturedStderr();
}

void WithSnmpProcess::StartWithMaster() {
  // A thread that was joined is counted for a moment more, and beside others there is no process.
  ASSERT_TRUE(WaitUntil([] {
    using std::filesystem::directory_iterator;
    const auto threads = directory_iterator("/proc/self/task");
    return std::distance(begin(threads), end(threads)) <= 1 + kSanitizersThreads;
  }));
  master_ = std::make_unique<FakeMaster>(socket_);
  ASSERT_EQ(SnmpStart("vexhostd", nullptr), 0);
  ASSERT_GT(births->last_process, 0);
  ASSERT_TRUE(master_->AcceptAndRegister());
  ASSERT_TRUE(WaitUntil([] { return SnmpUp(); }));
}

}  // namespace vex
