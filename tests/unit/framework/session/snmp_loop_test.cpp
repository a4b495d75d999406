// The loop, and the thread that runs it, where what they need fails or hangs.
#include "framework/snmp/snmp_loop.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <functional>
#include <new>
#include <string>
#include <thread>

#include "framework/snmp/snmp_shared.h"
#include "framework/snmp/snmp_thread.h"
#include "platform/framework.h"
#include "tests/support/failing_new.h"
#include "tests/unit/framework/fake_master.h"
#include "tests/unit/framework/made_image.h"
#include "tests/unit/framework/session/failing_library.h"
#include "tests/unit/framework/stopped.h"

namespace vex {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// The loop's work in the test's hands: what it does in each pass.
class HandSeat final : public SnmpSeat {
 public:
  HandSeat() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
  ~HandSeat() override {
    close(fd_);
  }
  int Fd() const override {
    return fd_;
  }
  void Ready() override {}
  void WatchReady() override {}
  Clock::time_point NextDue() const override {
    return Clock::now() + milliseconds(1);
  }
  bool Stopping() const override {
    return stopping(passes++);
  }
  bool TakeImages(MibIndex *, bool answering) override {
    if (no_memory) {
      throw std::bad_alloc();
    }
    if (answering && asked) {
      asked();
    }
    return true;
  }
  bool SetsEnabled() const override {
    return true;
  }
  SetPort *Sets() override {
    return &vex::Sets();
  }
  NotificationSource *Notifications() override {
    return &queue;
  }
  size_t NotificationsWaiting() const override {
    return queue.Size();
  }
  std::list<std::shared_ptr<SnmpQuery>> TakeQueries() override {
    return std::exchange(queries, {});
  }
  netsnmp_transport *Connection(int *error) override {
    *error = 0;
    return path.empty() ? nullptr : StreamTransport(ConnectUnix(path));
  }
  void ConnectionFailed(int) override {}
  void SessionOpen() override {
    queue.SetUp(true);
  }
  void SessionWelcome() override {}
  void SessionUp() override {
    up = true;
  }
  void SessionRefused() override {}
  void SessionEnded(bool, bool refused) override {
    ended++;
    ever_refused = ever_refused || refused;
  }

  std::string path;  // of the master's socket
  NotificationQueue queue;
  bool up = false;
  bool no_memory = false;
  int ended = 0;
  bool ever_refused = false;
  std::list<std::shared_ptr<SnmpQuery>> queries;
  std::function<void()> asked;  // for a request of the master
  std::function<bool(int)> stopping;
  mutable int passes = 0;

 private:
  int fd_;
};

AgentxSession::Settings SomeSettings() {
  AgentxSession::Settings settings;
  settings.name = "test";
  settings.master.target = "the master";
  settings.groups = MibGroups();
  return settings;
}

TEST(SnmpLoop, SaysOnceThatItIsShortOfMemoryAndOnceThatItIsNot) {
  HandSeat seat;
  // As on a machine with more processors than the call has room for.
  const FailingLibrary fails("sched_getaffinity", EINVAL);
  SnmpLoop loop(SomeSettings(), &seat);
  EXPECT_EQ(FailingLibrary::Failed(), 1);
  std::string while_short;
  testing::internal::CaptureStderr();
  seat.stopping = [&](int pass) {
    seat.no_memory = pass < 3;
    if (pass == 6) {
      while_short = testing::internal::GetCapturedStderr();
      testing::internal::CaptureStderr();
      AdvanceClock(seconds(2));
    }
    return pass == 10;
  };
  loop.Run({milliseconds(0), milliseconds(0)});
  EXPECT_EQ(while_short, "The SNMP side is short of memory; trying again\n");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "The SNMP side has memory again\n");
  EXPECT_EQ(seat.ended, 1);
  EXPECT_FALSE(seat.ever_refused);
  RestoreLibrary();
}

// Or nobody would ask again, and end, what is not answered.
TEST(SnmpLoop, LooksAfterItsQueries) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
  auto query = std::make_shared<SnmpQuery>();
  query->community = "public";
  query->oid = {1, 3, 6, 1};
  query->socket = Descriptor(ends[0]);
  HandSeat seat;
  seat.queries = {query};
  const FailingLibrary looks("snmp_sess_timeout", 0, 1, FailingLibrary::kAll);
  seat.stopping = [](int pass) {
    AdvanceClock(milliseconds(20));
    return pass == 10;
  };
  SnmpLoop loop(SomeSettings(), &seat);
  loop.Run({milliseconds(0), milliseconds(0)});
  EXPECT_GE(looks.Failed(), 1);
  EXPECT_LE(looks.Failed(), 10);
  close(ends[1]);
  RestoreLibrary();
}

bool Eventually(const std::function<bool()> &condition) {
  for (int i = 0; i < 20000; i++) {
    if (condition()) {
      return true;
    }
    std::this_thread::sleep_for(milliseconds(1));
  }
  return false;
}

class SnmpEndTest : public testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/snmp_loop.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    directory_ = pattern;
    path_ = directory_ + "/master";
    setenv("SNMPCONFPATH", directory_.c_str(), 1);
    setenv("SNMP_PERSISTENT_DIR", directory_.c_str(), 1);
    Configure("agentXSocket " + path_ + "\n");
  }
  void TearDown() override {
    SnmpSetTick(nullptr, 0);
    EXPECT_TRUE(Stopped());
    Side().stand_behind = false;
    RestoreLibrary();
    const std::string command = "rm -rf " + directory_;
    EXPECT_EQ(system(command.c_str()), 0);
  }
  void Configure(const std::string &text) {
    std::ofstream(directory_ + "/vexhostd.conf") << text;
  }
  // Starts as a thread, as where it is not root's; what is logged is in log_.
  int Start() {
    const FailingLibrary not_root("geteuid", 1000, 1, FailingLibrary::kAll);
    return StartAnyhow();
  }
  // Starts as root's, with the user of the SNMP process. Where that is not true, whatever does not
  // work then is one of the reasons to be a thread.
  int StartWithUser() {
    const std::string passwd = directory_ + "/passwd";
    std::ofstream(passwd) << "_vexhostd:x:990:990::/nonexistent:/usr/sbin/nologin\n";
    TheLibrary().passwd = passwd.c_str();
    const FailingLibrary root("geteuid", 0, 1, FailingLibrary::kAll);
    const int result = StartAnyhow();
    TheLibrary().passwd = nullptr;
    return result;
  }
  int StartAnyhow() {
    testing::internal::CaptureStderr();
    const int result = SnmpStart("vexhostd", nullptr);
    log_ = testing::internal::GetCapturedStderr();
    return result;
  }

  std::string directory_;
  std::string path_;
  std::string log_;
};

// More at the end than the socket has room for, to a master that reads slowly.
TEST_F(SnmpEndTest, WhatIsNotifiedLastGoesOutHoweverMuchItIs) {
  constexpr uint32_t kMany = 40;
  FakeMaster master(path_);
  HandSeat seat;
  seat.path = path_;
  seat.stopping = [&](int) {
    if (seat.up) {
      for (uint32_t i = 1; i <= kMany; i++) {
        Notification notification;
        notification.number = i;
        notification.description.assign(40000, 'x');
        seat.queue.Push(std::move(notification));
      }
    }
    return seat.up;
  };
  uint32_t got = 0;
  bool goodbye = false;
  std::thread reader([&] {
    if (!master.AcceptAndRegister(20000)) {
      return;
    }
    std::optional<AgentxPacket> packet;
    while (!goodbye && (packet = master.Receive(20000))) {
      got += packet->type == kAgentxNotify ? 1 : 0;
      goodbye = packet->type == kAgentxClose;
      master.Answer(*packet);
    }
  });
  SnmpLoop loop(SomeSettings(), &seat);
  testing::internal::CaptureStderr();
  loop.Run({seconds(20), seconds(20)});
  testing::internal::GetCapturedStderr();
  reader.join();
  EXPECT_EQ(got, kMany);
  EXPECT_TRUE(goodbye);
  EXPECT_TRUE(seat.queue.AllDone());
}

// Requests that follow one another closely share a pass of the loop.
TEST_F(SnmpEndTest, WhatIsAskedAtOnceIsAnsweredAtOnce) {
  constexpr int kMany = 5;
  FakeMaster master(path_);
  HandSeat seat;
  seat.path = path_;
  const FailingLibrary fails("sched_getaffinity", EINVAL);  // as with many processors
  int requests = 0;
  int first_pass = 0;
  int last_pass = 0;
  seat.asked = [&] {
    first_pass = requests == 0 ? seat.passes : first_pass;
    last_pass = seat.passes;
    if (++requests < kMany) {
      master.Send(master.Get({{1, 3, 6, 1}}));
    } else {
      TheLibrary().clock_step_ns = 0;
    }
  };
  std::thread registrar([&] { EXPECT_TRUE(master.AcceptAndRegister(20000)); });
  bool begun = false;
  seat.stopping = [&](int pass) {
    if (seat.up && !begun) {
      begun = true;
      registrar.join();
      // No time is ever over: each look shows less than the one before.
      TheLibrary().clock_step_ns = -std::chrono::nanoseconds(seconds(1)).count();
      master.Send(master.Get({{1, 3, 6, 1}}));
    }
    return requests == kMany || pass == 30000;
  };
  SnmpLoop loop(SomeSettings(), &seat);
  testing::internal::CaptureStderr();
  loop.Run({milliseconds(0), milliseconds(0)});
  testing::internal::GetCapturedStderr();
  if (!begun) {
    registrar.join();
  }
  EXPECT_EQ(requests, kMany);
  EXPECT_EQ(first_pass, last_pass);
}

// ---- The thread ----

TEST_F(SnmpEndTest, IsAThreadWhereItIsNotRoots) {
  EXPECT_EQ(Start(), 0);
  EXPECT_TRUE(log_.starts_with("Info: the SNMP side is no process of its own: it is not root's\n"))
      << log_;
  EXPECT_EQ(Start(), -1);  // it is there already
  EXPECT_FALSE(SnmpFailed());
  EXPECT_TRUE(SnmpRunning());
  SnmpPublish(nullptr);
  EXPECT_EQ(SnmpQueryInteger("127.0.0.1", "public", nullptr, seconds(10)).end, QueryEnd::kNotAsked);
  EXPECT_TRUE(Stopped());
}

TEST_F(SnmpEndTest, StandsBehindAnotherAgent) {
  FakeMaster master(path_);
  SnmpStandBehind();
  ASSERT_EQ(Start(), 0);
  ASSERT_TRUE(master.Accept(10000));
  std::optional<AgentxPacket> packet = master.Receive(10000);
  ASSERT_TRUE(packet);
  master.Answer(*packet);
  packet = master.Receive(10000);
  ASSERT_TRUE(packet);
  ASSERT_EQ(packet->type, kAgentxRegister);
  EXPECT_EQ(static_cast<uint8_t>(packet->payload.at(1)), 200);  // usual are 127
}

TEST_F(SnmpEndTest, WithoutMemoryItIsSaidAndCanBeTriedAgain) {
  // Of what the agent thread allocates, to the thread itself.
  for (int n = 1; n <= 3; n++) {
    const FailingLibrary not_root("geteuid", 1000, 1, FailingLibrary::kAll);
    int result = 0;
    testing::internal::CaptureStderr();
    EXPECT_TRUE(FailAllocation(n, [&] { result = SnmpStart("vexhostd", nullptr); })) << n;
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("Can't start the SNMP side: Cannot allocate memory"), std::string::npos)
        << n << log;
    EXPECT_EQ(result, -1) << n;
    EXPECT_TRUE(SnmpFailed()) << n;
    EXPECT_FALSE(SnmpRunning()) << n;
  }
  EXPECT_EQ(Start(), 0);
  EXPECT_FALSE(SnmpFailed());
}

// What the library connects to, by names that are its own.
TEST_F(SnmpEndTest, AMasterWhoseNameTheLibraryKnows) {
  FakeMaster master(FakeMaster::Tcp{});
  Configure("agentXSocket tcp:127.1:" + std::to_string(master.Port()) + "\n");
  ASSERT_EQ(Start(), 0);
  EXPECT_TRUE(master.AcceptAndRegister(10000));
  EXPECT_TRUE(Eventually([] { return SnmpUp(); }));
}

std::atomic<int> passes;
std::atomic<bool> held;
std::atomic<bool> in_init;

TEST_F(SnmpEndTest, AMasterThatTheLibraryDoesNotFindIsSaid) {
  Configure("agentXSocket tcp:127.1:1\n");
  passes = 0;
  testing::internal::CaptureStderr();
  {
    const FailingLibrary not_root("geteuid", 1000, 1, FailingLibrary::kAll);
    ASSERT_EQ(SnmpStart("vexhostd", nullptr), 0);
  }
  SnmpSetTick([] { passes++; }, 1);
  EXPECT_TRUE(Eventually([] { return passes > 0; }));
  EXPECT_TRUE(Stopped());
  EXPECT_NE(testing::internal::GetCapturedStderr().find("no master agent at tcp:127.1:1 yet"),
            std::string::npos);
}

TEST_F(SnmpEndTest, ALibraryThatDoesNotBeginIsSaid) {
  TheLibrary().init_agent = [](const char *) { return -1; };
  EXPECT_EQ(Start(), -1);
  EXPECT_NE(log_.find("agent: Can't start the SNMP side: "), log_.npos) << log_;
  EXPECT_EQ(log_.find("has ended"), log_.npos) << log_;
  EXPECT_TRUE(SnmpFailed());
}

// An answer for which nobody waits any more is told once, and silence is none.
TEST_F(SnmpEndTest, AnAnswerThatCameTooLateIsToldOnce) {
  const int agent = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(agent, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
  socklen_t length = sizeof(address);
  ASSERT_EQ(getsockname(agent, reinterpret_cast<sockaddr *>(&address), &length), 0);
  TheLibrary().snmp_port = ntohs(address.sin_port);
  ASSERT_EQ(Start(), 0);
  EXPECT_FALSE(SnmpAnsweredLate());
  EXPECT_EQ(SnmpQueryInteger("127.0.0.1", "public", "1.3.6.1.2.1.1.7.0", milliseconds(1)).end,
            QueryEnd::kSilent);
  EXPECT_FALSE(SnmpAnsweredLate());
  char bytes[500];
  length = sizeof(address);
  const ssize_t got =
      recvfrom(agent, bytes, sizeof(bytes), 0, reinterpret_cast<sockaddr *>(&address), &length);
  ASSERT_GT(got, 0);
  // The question becomes its own answer, without a value.
  constexpr char kGetTag = '\xa0';
  constexpr char kResponseTag = '\xa2';
  std::replace(bytes, bytes + got, kGetTag, kResponseTag);
  ASSERT_EQ(sendto(agent, bytes, static_cast<size_t>(got), 0,
                   reinterpret_cast<sockaddr *>(&address), length),
            got);
  EXPECT_TRUE(Eventually([] { return SnmpAnsweredLate(); }));
  EXPECT_FALSE(SnmpAnsweredLate());
  close(agent);
}

// Stands in the library until the test lets it go.
int HeldInit(const char *) {
  in_init = true;
  while (held) {
    std::this_thread::sleep_for(milliseconds(1));
  }
  return -1;
}

TEST_F(SnmpEndTest, TheAgentsEndCutsItsStartShort) {
  held = true;
  TheLibrary().init_agent = HeldInit;
  TheLibrary().ending = true;
  EXPECT_EQ(Start(), -1);
  EXPECT_FALSE(SnmpFailed());
  held = false;
  EXPECT_TRUE(Stopped());
}

// A file system that hangs, say.
TEST_F(SnmpEndTest, AStartOfMoreThanAMinuteHasFailed) {
  held = true;
  TheLibrary().init_agent = HeldInit;
  in_init = false;
  TheLibrary().at_look = [] {  // once it is waited for
    EXPECT_TRUE(Eventually([] { return in_init.load(); }));
    AdvanceClock(seconds(61));
  };
  EXPECT_EQ(Start(), -1);
  EXPECT_NE(log_.find("reading its configuration takes more than a minute"), std::string::npos)
      << log_;
  EXPECT_TRUE(SnmpFailed());
  RestoreLibrary();
  testing::internal::CaptureStderr();
  held = false;
  EXPECT_TRUE(Stopped());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");  // why it failed is said once
}

// A thread that hangs in a library is left behind, with nobody waiting for it.
TEST_F(SnmpEndTest, AThreadThatHangsIsLeftBehind) {
  ASSERT_EQ(Start(), 0);
  held = true;
  passes = 0;
  SnmpSetTick(
      [] {
        passes++;
        while (held) {
          std::this_thread::sleep_for(milliseconds(1));
        }
      },
      1);
  ASSERT_TRUE(Eventually([] { return passes > 0; }));
  Notification last;
  last.number = 9;
  SnmpNotify(std::move(last));
  const auto query = std::make_shared<SnmpQuery>();
  {
    std::lock_guard lock(Side().queries_mutex);
    Side().queries.push_back(query);
  }
  // Of the time that it waits, most is over soon.
  AdvanceClock(-milliseconds(1250));
  TheLibrary().clock_step_ns = std::chrono::nanoseconds(milliseconds(500)).count();
  EXPECT_FALSE(SnmpStop());
  RestoreLibrary();
  EXPECT_TRUE(query->Ended());
  EXPECT_FALSE(query->sent);
  EXPECT_FALSE(SnmpUnsent());
  // Should it go on after all, what it has left is whole.
  SnmpSetTick(nullptr, 0);
  held = false;
  std::optional<std::vector<Notification>> unsent;
  EXPECT_TRUE(Eventually([&unsent] { return (unsent = SnmpUnsent()).has_value(); }));
  ASSERT_EQ(unsent->size(), 1U);
  EXPECT_EQ(unsent->front().number, 9U);
  // As a thread that has failed leaves it.
  Side().unsent_whole = false;
  EXPECT_FALSE(SnmpUnsent());
  Side().unsent_whole = true;
}

TEST_F(SnmpEndTest, WhatIsNotifiedBeforeTheStartIsKept) {
  Notification first;
  first.number = 1;
  Notification second;
  second.number = 2;
  SnmpNotify(std::move(second));
  SnmpNotifyOlder({first});
  FakeMaster master(path_);
  ASSERT_EQ(Start(), 0);
  ASSERT_TRUE(master.AcceptAndRegister(10000));
  for (uint32_t number = 1; number <= 2; number++) {
    std::optional<AgentxPacket> packet = master.Receive(10000);
    ASSERT_TRUE(packet);
    ASSERT_EQ(packet->type, kAgentxNotify);
    EXPECT_EQ(packet->Bindings().at(0).object_id.back(), number);
    master.Answer(*packet);
  }
}

// ---- A thread where a process was wanted ----

TEST_F(SnmpEndTest, BesideOtherThreadsItIsAThread) {
  held = true;
  std::thread other([] { HeldInit(""); });
  EXPECT_EQ(StartWithUser(), 0);
  EXPECT_TRUE(
      log_.starts_with("Info: the SNMP side is no process of its own: the agent has threads\n"))
      << log_;
  held = false;
  other.join();
}

// The process looks up no names; the thread then serves what was published before.
TEST_F(SnmpEndTest, WhereTheMastersNameIsTheLibrarysItIsAThread) {
  FakeMaster master(FakeMaster::Tcp{});
  Configure("agentXSocket tcp:127.1:" + std::to_string(master.Port()) + "\n");
  const std::shared_ptr<Image> image = MakeImage(1, 0, {"tlxHoOsCommonPollFreq"});
  const int32_t number = 15;
  memcpy(image->data.data(), &number, sizeof(number));
  SnmpPublish(image);
  ASSERT_EQ(StartWithUser(), 0);
  EXPECT_NE(log_.find("Info: the SNMP side is no process of its own: "), std::string::npos) << log_;
  ASSERT_TRUE(master.AcceptAndRegister(10000));
  std::span<const uint32_t> oid = FindMibVariable("tlxHoOsCommonPollFreq")->Oid();
  OidNumbers name(oid.begin(), oid.end());
  name.push_back(0);
  std::optional<AgentxPacket> answer = master.Ask(master.Get({name}));
  ASSERT_TRUE(answer);
  ASSERT_EQ(answer->Bindings().size(), 1U);
  EXPECT_EQ(answer->Bindings()[0].integer, 15);
  SnmpWithdraw(1);
}

// Whoever reads the configuration hangs; the agent ends, or has waited for a minute.
TEST_F(SnmpEndTest, AHangingStartEndsWithTheAgentOrAfterAMinute) {
  held = true;
  TheLibrary().init_agent = HeldInit;
  TheLibrary().ending = true;
  EXPECT_EQ(StartWithUser(), -1);
  EXPECT_FALSE(SnmpFailed());
  EXPECT_EQ(log_.find("Can't"), std::string::npos) << log_;
  TheLibrary().ending = false;
  held = false;
  EXPECT_TRUE(Stopped());
  held = true;
  TheLibrary().at_look = [] { AdvanceClock(seconds(61)); };
  EXPECT_EQ(StartWithUser(), -1);
  EXPECT_TRUE(SnmpFailed());
  EXPECT_NE(log_.find("reading its configuration takes more than a minute"), std::string::npos)
      << log_;
  RestoreLibrary();
  held = false;
  EXPECT_TRUE(Stopped());
}

}  // namespace
}  // namespace vex
