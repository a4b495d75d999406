// libtlxci against a simulated controller. Each test has a /run and a /dev of its own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <thread>

#include "platform/channel.h"
#include "tests/support/failing_call.h"
#include "tests/support/simulated_controller.h"

namespace {

constexpr char kVersionRequest[] = {8, 0, 0, 0, 2, 0, 0, 0};

void WriteText(const char *path, const std::string &text) {
  std::ofstream(path) << text;
}

// A private /run and /dev/tlxrmc0's directory; without root in a user namespace.
void EnterOwnMounts() {
  const uid_t uid = getuid();
  const gid_t gid = getgid();
  if (unshare(CLONE_NEWNS) != 0) {
    ASSERT_EQ(unshare(CLONE_NEWUSER | CLONE_NEWNS), 0) << strerror(errno);
    WriteText("/proc/self/setgroups", "deny");
    WriteText("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    WriteText("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
  }
  ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << strerror(errno);
  ASSERT_EQ(mount("run", "/run", "tmpfs", 0, nullptr), 0) << strerror(errno);
  ASSERT_EQ(mount("dev", "/dev", "tmpfs", 0, nullptr), 0) << strerror(errno);
}

std::set<std::string> OpenDescriptors() {
  std::set<std::string> open;
  for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    open.insert(entry.path().filename());
  }
  return open;
}

bool Eventually(const std::function<bool()> &condition) {
  for (int i = 0; i < 1000; i++) {
    if (condition()) {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return condition();
}

double Since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class Tlxci : public testing::Test {
 protected:
  void SetUp() override {
    EnterOwnMounts();
  }
  int Initialize() {
    return initializeRemoteVantix(&channel_, &device_);
  }
  int Send() {
    int status = -1;
    EXPECT_EQ(TlxCiSend(channel_, kVersionRequest, sizeof(kVersionRequest), &status, nullptr),
              status);
    return status;
  }
  // The status; the reply is in reply_, its length in received_.
  int Receive(uint32_t timeout, uint32_t size = 256) {
    int status = -1;
    memset(reply_, 0, sizeof(reply_));
    received_ = TlxCiRecv(channel_, reply_, size, &status, &timeout);
    return status;
  }

  tlxci_channel *channel_ = nullptr;
  int device_ = -1;
  unsigned char reply_[512] = {};
  uint32_t received_ = 0;
};

}  // namespace

TEST_F(Tlxci, NothingIsThere) {
  channel_ = reinterpret_cast<tlxci_channel *>(this);
  device_ = 7;
  EXPECT_EQ(Initialize(), TLXCI_NONE);
  EXPECT_EQ(channel_, nullptr);
  EXPECT_EQ(device_, -1);
  EXPECT_EQ(Send(), TLXCI_NO_CHANNEL);
  EXPECT_EQ(Receive(0), TLXCI_NO_CHANNEL);
  EXPECT_EQ(received_, 0U);
}

TEST_F(Tlxci, SendsAndReceivesWholePackets) {
  vex::ControllerMood mood;
  mood.major = 3;
  mood.minor = 7;
  vex::SimulatedController controller(mood);
  ASSERT_EQ(Initialize(), TLXCI_INTEGRATED);
  EXPECT_EQ(device_, -1);
  ASSERT_EQ(Send(), TLXCI_OK);
  ASSERT_EQ(Receive(5000), TLXCI_OK);
  EXPECT_EQ(received_, 80U);
  EXPECT_EQ(reply_[17], 3);
  EXPECT_EQ(reply_[16], 7);
  EXPECT_EQ(controller.Requests(),
            std::vector<std::string>{std::string(kVersionRequest, sizeof(kVersionRequest))});
}

TEST_F(Tlxci, DropsWhatDoesNotFitTheBuffer) {
  vex::SimulatedController controller;
  ASSERT_EQ(Initialize(), TLXCI_INTEGRATED);
  ASSERT_EQ(Send(), TLXCI_OK);
  ASSERT_EQ(Receive(5000, 17), TLXCI_OK);
  EXPECT_EQ(received_, 17U);
  EXPECT_EQ(reply_[16], 5);
  EXPECT_EQ(reply_[17], 0);
  EXPECT_EQ(Receive(20), TLXCI_TIMED_OUT);
}

TEST_F(Tlxci, TakesAnEmptyReplyForOne) {
  vex::ControllerMood mood;
  mood.reply_length = 0;
  vex::SimulatedController controller(mood);
  ASSERT_EQ(Initialize(), TLXCI_INTEGRATED);
  ASSERT_EQ(Send(), TLXCI_OK);
  EXPECT_EQ(Receive(5000), TLXCI_OK);
  EXPECT_EQ(received_, 0U);
}

TEST_F(Tlxci, WaitsAsLongAsTold) {
  vex::ControllerMood mood;
  mood.silent = true;
  vex::SimulatedController controller(mood);
  ASSERT_EQ(Initialize(), TLXCI_INTEGRATED);
  ASSERT_EQ(Send(), TLXCI_OK);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Receive(300), TLXCI_TIMED_OUT);
  EXPECT_GE(Since(start), 0.299);
  EXPECT_EQ(received_, 0U);
}

TEST_F(Tlxci, TellsABrokenConnection) {
  vex::ControllerMood mood;
  mood.resets = 1;
  vex::SimulatedController controller(mood);
  ASSERT_EQ(Initialize(), TLXCI_INTEGRATED);
  ASSERT_EQ(Send(), TLXCI_OK);
  EXPECT_EQ(Receive(5000), TLXCI_REOPEN);
  EXPECT_EQ(Send(), TLXCI_REOPEN);
  EXPECT_EQ(Receive(5000), TLXCI_REOPEN);
  ASSERT_EQ(reinitializeRemoteVantix(&channel_, &device_), TLXCI_INTEGRATED);
  EXPECT_EQ(Send(), TLXCI_OK);
  EXPECT_EQ(Receive(5000), TLXCI_OK);
}

TEST_F(Tlxci, ReinitializesToNothing) {
  auto controller = std::make_unique<vex::SimulatedController>();
  ASSERT_EQ(Initialize(), TLXCI_INTEGRATED);
  controller.reset();
  EXPECT_EQ(reinitializeRemoteVantix(&channel_, &device_), TLXCI_NONE);
  EXPECT_EQ(channel_, nullptr);
  EXPECT_EQ(Send(), TLXCI_NO_CHANNEL);
}

TEST_F(Tlxci, KeepsOneDescriptorThatNobodyInherits) {
  const auto inherited = OpenDescriptors();
  vex::SimulatedController controller;
  ASSERT_EQ(Initialize(), TLXCI_INTEGRATED);
  ASSERT_TRUE(Eventually([&] { return controller.Open() == 1; }));
  const auto before = OpenDescriptors();
  for (int i = 0; i < 50; i++) {
    ASSERT_EQ(Initialize(), TLXCI_INTEGRATED);
    ASSERT_TRUE(Eventually([&] { return controller.Accepted() == i + 2; }));
  }
  ASSERT_TRUE(Eventually([&] { return controller.Open() == 1; }));
  EXPECT_EQ(OpenDescriptors(), before);
  for (const std::string &name : before) {
    const int flags = fcntl(std::stoi(name), F_GETFD);
    EXPECT_TRUE(inherited.count(name) != 0 || flags == -1 || (flags & FD_CLOEXEC) != 0) << name;
  }
}

TEST_F(Tlxci, FindsTheCardWithoutAController) {
  ASSERT_EQ(close(open("/dev/tlxrmc0", O_CREAT | O_WRONLY | O_CLOEXEC, 0600)), 0);
  ASSERT_EQ(Initialize(), TLXCI_REMOTE_CARD);
  EXPECT_EQ(channel_, nullptr);
  ASSERT_GE(device_, 0);
  EXPECT_TRUE((fcntl(device_, F_GETFD) & FD_CLOEXEC) != 0);
  EXPECT_EQ(Send(), TLXCI_NO_CHANNEL);
  const auto before = OpenDescriptors();
  ASSERT_EQ(Initialize(), TLXCI_REMOTE_CARD);
  EXPECT_EQ(OpenDescriptors(), before);

  vex::SimulatedController controller;
  EXPECT_EQ(Initialize(), TLXCI_INTEGRATED);
  EXPECT_EQ(device_, -1);
}

TEST_F(Tlxci, PassesByASocketThatNobodyServes) {
  std::filesystem::create_directories("/run/quorix");
  const int bound = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, vex::kControllerSocket);
  ASSERT_EQ(bind(bound, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
  EXPECT_EQ(Initialize(), TLXCI_NONE);
  close(bound);
  EXPECT_EQ(Initialize(), TLXCI_NONE);
}

// A channel of before is not that of whoever opens the next descriptor.
TEST_F(Tlxci, AChannelOfBeforeIsNone) {
  auto controller = std::make_unique<vex::SimulatedController>();
  ASSERT_EQ(Initialize(), TLXCI_INTEGRATED);
  tlxci_channel *before = channel_;
  controller.reset();
  ASSERT_EQ(Initialize(), TLXCI_NONE);
  channel_ = before;
  EXPECT_EQ(Send(), TLXCI_NO_CHANNEL);
  EXPECT_EQ(Receive(0), TLXCI_NO_CHANNEL);
  EXPECT_EQ(received_, 0U);
}

TEST_F(Tlxci, ASocketThatCannotBeMadeIsAskedForAgain) {
  vex::SimulatedController controller;
  {
    vex::FailingCall failing("socket", EMFILE, 1, 2);
    failing.In(gettid());
    EXPECT_EQ(Initialize(), TLXCI_INTEGRATED);
    EXPECT_EQ(failing.Failed(), 2);
  }
  ASSERT_TRUE(Eventually([&] { return controller.Open() == 1; }));
  const auto before = OpenDescriptors();
  vex::FailingCall failing("socket", EMFILE, 1, vex::FailingCall::kAll);
  failing.In(gettid());
  EXPECT_EQ(Initialize(), TLXCI_NONE);
  EXPECT_EQ(failing.Failed(), 3);
  EXPECT_EQ(channel_, nullptr);
  // Our end is closed, and then the controller's.
  EXPECT_TRUE(Eventually([&] { return OpenDescriptors().size() == before.size() - 2; }));
}

// As of one that is just starting anew; where there is none, nothing is waited for.
TEST_F(Tlxci, AConnectionThatIsRefusedIsTriedAgain) {
  {
    vex::SimulatedController controller;
    vex::FailingCall failing("connect", ECONNREFUSED, 1, 2);
    failing.In(gettid());
    EXPECT_EQ(Initialize(), TLXCI_INTEGRATED);
    EXPECT_EQ(failing.Failed(), 2);
  }
  for (const auto &[error, asked] : {std::pair(ECONNREFUSED, 3), std::pair(ENOENT, 1)}) {
    vex::SimulatedController controller;
    vex::FailingCall failing("connect", error, 1, vex::FailingCall::kAll);
    failing.In(gettid());
    EXPECT_EQ(Initialize(), TLXCI_NONE);
    EXPECT_EQ(failing.Failed(), asked);
  }
}

TEST_F(Tlxci, SaysWhetherToOpenTheConnectionAgain) {
  const struct {
    int error;
    int status;
  } table[] = {{EPIPE, TLXCI_REOPEN},     {ECONNRESET, TLXCI_REOPEN},
               {ENOTCONN, TLXCI_REOPEN},  {ECONNREFUSED, TLXCI_REOPEN},
               {EAGAIN, TLXCI_TIMED_OUT}, {EMSGSIZE, EMSGSIZE},
               {ENOBUFS, ENOBUFS}};
  vex::SimulatedController controller;
  ASSERT_EQ(Initialize(), TLXCI_INTEGRATED);
  for (const auto &row : table) {
    vex::FailingCall failing("send", row.error);
    failing.In(gettid());  // the controller is a thread of this process
    EXPECT_EQ(Send(), row.status) << row.error;
  }
  EXPECT_EQ(Send(), TLXCI_OK);
  // A signal ends the wait: whether it is one to give up for is the caller's to know.
  vex::FailingCall failing("poll", EINTR, 1, 2);
  failing.In(gettid());
  EXPECT_EQ(Send(), EINTR);
  EXPECT_EQ(Receive(5000), EINTR);
  EXPECT_EQ(Receive(5000), TLXCI_OK);
  EXPECT_EQ(received_, 80U);
}
