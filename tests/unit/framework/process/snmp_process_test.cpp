// The SNMP process with the test as its agent: what it does when the agent ends, hangs or makes no
// sense. As root.
#include "framework/snmp/snmp_process.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "framework/snmp/image_ring.h"
#include "framework/snmp/snmp_wire.h"
#include "framework/snmp/socket_transport.h"
#include "platform/framework.h"
#include "tests/support/failing_call.h"
#include "tests/unit/framework/fake_master.h"
#include "tests/unit/framework/made_image.h"
#include "tests/unit/framework/process/with_snmp_process.h"

namespace vex {
namespace {

constexpr uint64_t kObject = 5;
constexpr char kNumber[] = "tlxHoOsCommonPollFreq";
constexpr char kOther[] = "tlxApApplianceDescription";

OidNumbers NumbersOf(const char *variable) {
  const std::span<const uint32_t> oid = FindMibVariable(variable)->Oid();
  OidNumbers numbers(oid.begin(), oid.end());
  numbers.push_back(0);
  return numbers;
}

class SnmpProcessAlone : public WithSnmpProcess {
 protected:
  void TearDown() override {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    WithSnmpProcess::TearDown();
  }
  // first: what it does before it is one.
  void Start(const std::function<void()> &first = nullptr) {
    Descriptor ours;
    Descriptor its;
    ASSERT_TRUE(FrameSocket::Pair(&ours, &its));
    if (little_room_) {
      const int least = 1;  // which the kernel takes as a few frames
      ASSERT_EQ(setsockopt(its.get(), SOL_SOCKET, SO_SNDBUF, &least, sizeof(least)), 0);
    }
    ring_ = std::make_unique<ImageRingWriter>();
    ASSERT_TRUE(ring_->Open());
    Descriptor images(dup(ring_->ImagesFd()));
    Descriptor control(dup(ring_->ControlFd()));
    pid_ = fork();
    ASSERT_GE(pid_, 0);
    if (pid_ == 0) {
      ours.Reset();
      if (first) {
        first();
      }
      AgentxSession::Settings settings;
      settings.name = "vexhostd";
      settings.groups = MibGroups();
      RunSnmpProcess(settings, std::move(its), std::move(images), std::move(control), kUser);
    }
    channel_ = FrameSocket(std::move(ours));
  }
  // With a session, and an object that may be set.
  void StartWithSession(const std::function<void()> &first = nullptr) {
    ASSERT_NO_FATAL_FAILURE(Start(first));
    ASSERT_TRUE(Hear(FrameType::kReady));
    ASSERT_EQ(ring_->PutImage(*MakeImage(kObject, 0, {kNumber}), true),
              ImageRingWriter::Put::kDone);
    master_ = std::make_unique<FakeMaster>(socket_);
    const Descriptor connection(ConnectUnix(socket_));
    ASSERT_TRUE(connection);
    const int descriptors[] = {connection.get()};
    ASSERT_TRUE(channel_.Send(FrameWriter(FrameType::kConnected), descriptors));
    ASSERT_TRUE(master_->AcceptAndRegister());
    // The last of what it tells by itself.
    for (;;) {
      const auto event = Hear(FrameType::kSession);
      ASSERT_TRUE(event);
      if (FrameReader(*event).Take<SessionEvent>() == SessionEvent::kUp) {
        return;
      }
    }
  }
  // The next frame of this type; nothing at its end, or when none comes.
  std::optional<std::string> Hear(FrameType type) {
    return HearFrom(&channel_, type);
  }
  // The status it ends with; -1 when it does not.
  int Status() {
    int status = 0;
    pid_t gone = 0;
    WaitUntil([&] { return (gone = waitpid(pid_, &status, WNOHANG)) != 0; });
    if (gone != pid_) {
      return -1;
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
  }
  bool Lives() {
    return channel_.Send(FrameWriter(FrameType::kPing)) && Hear(FrameType::kPong);
  }
  AgentxPacket SetPacket() {
    AgentxBinding binding;
    binding.type = AgentxBinding::kInteger;
    binding.name = NumbersOf(kNumber);
    binding.integer = 60;
    return master_->TestSet(9, {binding});
  }
  void Tell(uint64_t set, SetPort::Check check, SetPort::Apply apply) {
    ASSERT_TRUE(channel_.Send(FrameWriter(FrameType::kSetResult)
                                  .Put(set)
                                  .Put(uint32_t{0})
                                  .Put(check)
                                  .Put(int32_t{0})
                                  .Put(apply)
                                  .Put(int32_t{0})));
  }

  bool little_room_ = false;
  pid_t pid_ = -1;
  FrameSocket channel_;
  std::unique_ptr<ImageRingWriter> ring_;
  uint64_t set_ = 0;
};

TEST_F(SnmpProcessAlone, TellsAtItsEndWhatThereWasNoRoomFor) {
  constexpr uint32_t kSets = 16;  // there may be no more at once
  constexpr uint8_t kClose = 2;
  little_room_ = true;
  uint32_t heard = 0;
  // It does not wait for long: again where this process was not given a processor.
  for (int tries = 0; tries < 5 && heard < kSets; tries++) {
    master_.reset();
    ASSERT_NO_FATAL_FAILURE(StartWithSession());
    for (uint32_t transaction = 1; transaction <= kSets; transaction++) {
      AgentxBinding binding;
      binding.type = AgentxBinding::kInteger;
      binding.name = NumbersOf(kNumber);
      binding.integer = 60;
      master_->Send(master_->TestSet(transaction, {binding}));
    }
    ASSERT_TRUE(master_->Ask(master_->Get({NumbersOf(kNumber)})));  // it is through with them
    ASSERT_TRUE(channel_.Send(FrameWriter(FrameType::kStop)));
    const std::optional<AgentxPacket> goodbye = master_->Receive();
    ASSERT_TRUE(goodbye);
    EXPECT_EQ(goodbye->type, kClose);
    for (heard = 0; heard < kSets && Hear(FrameType::kSetPart);) {
      heard++;
    }
    EXPECT_EQ(Status(), 0);
  }
  EXPECT_EQ(heard, kSets);
}

TEST_F(SnmpProcessAlone, EndsWhenTheAgentHasGone) {
  ASSERT_NO_FATAL_FAILURE(StartWithSession());
  EXPECT_TRUE(Lives());
  channel_.Close();
  EXPECT_EQ(Status(), 0);
}

TEST_F(SnmpProcessAlone, EndsWhereItDoesNotUnderstandTheAgent) {
  const auto query = [](uint32_t parts) {
    FrameWriter frame(FrameType::kQuery);
    frame.Put(uint64_t{1}).PutText("public").Put(parts).Put(uint32_t{1});
    return frame;
  };
  const Descriptor socket(ConnectUdp("127.0.0.1", 161));
  ASSERT_TRUE(socket);
  const int with[] = {socket.get()};
  const struct {
    FrameWriter frame;
    std::span<const int> descriptors;
  } cases[] = {{FrameWriter(FrameType::kSpawn), {}},
               {query(1), {}},       // nowhere to ask
               {query(9999), with},  // shorter than it says
               {query(0), with}};    // longer
  for (const auto &[frame, descriptors] : cases) {
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_TRUE(Hear(FrameType::kReady));
    EXPECT_TRUE(Lives());
    EXPECT_TRUE(channel_.Send(frame, descriptors));
    EXPECT_EQ(Status(), 0);
  }
}

TEST_F(SnmpProcessAlone, EndsWhereTheRingMakesNoSense) {
  ASSERT_NO_FATAL_FAILURE(StartWithSession());
  // An image of an object whose layout was never told.
  ASSERT_EQ(ring_->PutImage(*MakeImage(77, 0, {kNumber}), false), ImageRingWriter::Put::kDone);
  ASSERT_TRUE(channel_.Send(FrameWriter(FrameType::kImages)));
  EXPECT_EQ(Status(), 0);
}

// What is about a set that is over, a session that was, or nothing at all is passed over.
TEST_F(SnmpProcessAlone, PassesOverWhatCountsNoMore) {
  ASSERT_NO_FATAL_FAILURE(StartWithSession());
  Tell(4711, SetPort::Check::kAccepted, SetPort::Apply::kApplied);
  const auto notify = [this](uint64_t session, uint64_t number, bool whole) {
    FrameWriter frame(FrameType::kNotify);
    frame.Put(session).Put(number);
    Notification notification;
    notification.number = static_cast<uint32_t>(number);
    Put(&frame, notification);
    if (!whole) {
      frame.Put(uint8_t{0});
    }
    ASSERT_TRUE(channel_.Send(frame));
  };
  notify(99, 1, true);
  notify(1, 2, false);
  notify(1, 3, true);
  std::optional<AgentxPacket> packet = master_->Receive();
  ASSERT_TRUE(packet);
  EXPECT_EQ(packet->Bindings().at(0).object_id.back(), 3U);
  master_->Answer(*packet);
  const auto notified = Hear(FrameType::kNotified);
  ASSERT_TRUE(notified);
  EXPECT_EQ(FrameReader(*notified).Take<uint64_t>(), 3U);
  EXPECT_TRUE(Lives());
}

// A set that the agent decides upon, with words between that are not about it.
TEST_F(SnmpProcessAlone, TakesTheResultOfASetOnlyAsItIs) {
  ASSERT_NO_FATAL_FAILURE(StartWithSession());
  const AgentxPacket request = SetPacket();
  master_->Send(request);
  const auto part = Hear(FrameType::kSetPart);
  ASSERT_TRUE(part);
  const auto id = FrameReader(*part).Take<uint64_t>();
  // Of a part that there is not, cut, and too long.
  for (const uint32_t which : {7U, 0U}) {
    FrameWriter frame(FrameType::kSetResult);
    frame.Put(id).Put(which).Put(SetPort::Check::kRefused).Put(int32_t{0});
    frame.Put(SetPort::Apply::kFailed).Put(int32_t{0});
    if (which == 0) {
      frame.Put(uint8_t{0});
    }
    ASSERT_TRUE(channel_.Send(frame));
  }
  Tell(id, SetPort::Check::kAccepted, SetPort::Apply::kPending);
  std::optional<AgentxPacket> answer = master_->Receive();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Error(), 0);
  constexpr uint8_t kCommitSet = 9;
  constexpr uint8_t kCleanupSet = 11;
  master_->Send(master_->Phase(kCommitSet, 9));
  ASSERT_TRUE(Hear(FrameType::kSetApply));
  Tell(id, SetPort::Check::kAccepted, SetPort::Apply::kApplied);
  answer = master_->Receive();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Error(), 0);
  master_->Send(master_->Phase(kCleanupSet, 9));
  EXPECT_TRUE(Hear(FrameType::kSetRelease));
}

// An agent that does not decide in time: the manager hears of it, and the set is over.
TEST_F(SnmpProcessAlone, GivesUpASetThatTheAgentDoesNotDecide) {
  constexpr int kResourceUnavailable = 13;
  constexpr int kCommitFailed = 14;
  constexpr uint8_t kCommitSet = 9;
  // Its time is over before it looks at it.
  ASSERT_NO_FATAL_FAILURE(StartWithSession());
  master_->Send(SetPacket());
  ASSERT_TRUE(Hear(FrameType::kSetPart));
  std::optional<AgentxPacket> answer = master_->Receive(10000);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Error(), kResourceUnavailable);
  EXPECT_TRUE(Hear(FrameType::kSetRelease));

  AgentxPacket again = SetPacket();
  again.transaction = 10;
  master_->Send(again);
  const auto part = Hear(FrameType::kSetPart);
  ASSERT_TRUE(part);
  const auto id = FrameReader(*part).Take<uint64_t>();
  Tell(id, SetPort::Check::kAccepted, SetPort::Apply::kPending);
  ASSERT_TRUE(master_->Receive());
  master_->Send(master_->Phase(kCommitSet, 10));
  ASSERT_TRUE(Hear(FrameType::kSetApply));
  answer = master_->Receive(10000);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Error(), kCommitFailed);
  EXPECT_TRUE(Hear(FrameType::kSetRelease));
  EXPECT_TRUE(Lives());
}

// The parts of a set share its time.
TEST_F(SnmpProcessAlone, GivesUpEveryPartOfASet) {
  constexpr int kResourceUnavailable = 13;
  constexpr int kCommitFailed = 14;
  constexpr uint8_t kCommitSet = 9;
  ASSERT_NO_FATAL_FAILURE(StartWithSession());
  ASSERT_EQ(ring_->PutImage(*MakeImage(kObject + 1, 0, {kOther}), true),
            ImageRingWriter::Put::kDone);
  for (const bool decided : {false, true}) {
    const uint32_t transaction = decided ? 12 : 11;
    AgentxPacket first = SetPacket();
    first.transaction = transaction;
    AgentxBinding text;
    text.type = AgentxBinding::kOctets;
    text.name = NumbersOf(kOther);
    text.octets = "a";
    master_->Send(first);
    master_->Send(master_->TestSet(transaction, {text}));
    for (uint32_t number = 0; number < 2; number++) {
      const auto part = Hear(FrameType::kSetPart);
      ASSERT_TRUE(part);
      FrameReader reader(*part);
      const auto id = reader.Take<uint64_t>();
      ASSERT_EQ(reader.Take<uint32_t>(), number);
      if (decided) {
        ASSERT_TRUE(channel_.Send(FrameWriter(FrameType::kSetResult)
                                      .Put(id)
                                      .Put(number)
                                      .Put(SetPort::Check::kAccepted)
                                      .Put(int32_t{0})
                                      .Put(SetPort::Apply::kPending)
                                      .Put(int32_t{0})));
      }
    }
    for (int number = 0; number < 2; number++) {
      const std::optional<AgentxPacket> answer = master_->Receive(10000);
      ASSERT_TRUE(answer);
      EXPECT_EQ(answer->Error(), decided ? 0 : kResourceUnavailable);
    }
    for (int number = 0; number < 2; number++) {
      master_->Send(master_->Phase(kCommitSet, transaction));
      const std::optional<AgentxPacket> answer = master_->Receive(10000);
      ASSERT_TRUE(answer);
      EXPECT_EQ(answer->Error(), kCommitFailed);
    }
    EXPECT_TRUE(Hear(FrameType::kSetRelease));
  }
  EXPECT_TRUE(Lives());
}

// More waits than the ring takes: a request is not answered from what is old.
TEST_F(SnmpProcessAlone, AnswersNothingWhileTheAgentIsBehind) {
  ASSERT_NO_FATAL_FAILURE(StartWithSession());
  const AgentxPacket get = master_->Get({NumbersOf(kNumber)});
  std::optional<AgentxPacket> answer = master_->Ask(get);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Error(), 0);
  ring_->SetBacklog(true);
  for (int asked = 0; asked < 2; asked++) {
    answer = master_->Ask(master_->Get({NumbersOf(kNumber)}), 10000);
    ASSERT_TRUE(answer);
    EXPECT_NE(answer->Error(), 0);
  }
  EXPECT_TRUE(Hear(FrameType::kRoom));
  const std::optional<std::string> said = Hear(FrameType::kLog);
  ASSERT_TRUE(said);
  EXPECT_TRUE(said->ends_with("The agent is behind with its values: requests get genErr\n"))
      << *said;
  ring_->SetBacklog(false);
  answer = master_->Ask(master_->Get({NumbersOf(kNumber)}));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->Error(), 0);
  ASSERT_EQ(shutdown(channel_.Fd(), SHUT_WR), 0);  // it tells what it has to tell, and ends
  EXPECT_FALSE(Hear(FrameType::kLog)) << "said again at once";
}

// Whatever it has to say when the agent takes nothing any more, it ends: the next one does it.
TEST_F(SnmpProcessAlone, EndsWhereTheAgentTakesNothing) {
  constexpr uint8_t kCommitSet = 9;
  constexpr uint8_t kCleanupSet = 11;
  const auto refuse = [this] { ASSERT_EQ(shutdown(channel_.Fd(), SHUT_RD), 0); };
  const auto notify = [this] {
    FrameWriter frame(FrameType::kNotify);
    frame.Put(uint64_t{1}).Put(uint64_t{3});
    Put(&frame, Notification());
    ASSERT_TRUE(channel_.Send(frame));
  };
  const auto check_set = [this] {
    master_->Send(SetPacket());
    const auto part = Hear(FrameType::kSetPart);
    ASSERT_TRUE(part);
    set_ = FrameReader(*part).Take<uint64_t>();
    Tell(set_, SetPort::Check::kAccepted, SetPort::Apply::kPending);
    ASSERT_TRUE(master_->Receive());
  };
  const std::function<void()> cases[] = {
      [&] {
        refuse();
        ASSERT_TRUE(channel_.Send(FrameWriter(FrameType::kPing)));
      },
      [&] {
        notify();
        const std::optional<AgentxPacket> packet = master_->Receive();
        ASSERT_TRUE(packet);
        refuse();
        master_->Answer(*packet);
      },
      [&] {
        check_set();
        refuse();
        master_->Send(master_->Phase(kCommitSet, 9));
      },
      [&] {
        check_set();
        master_->Send(master_->Phase(kCommitSet, 9));
        ASSERT_TRUE(Hear(FrameType::kSetApply));
        Tell(set_, SetPort::Check::kAccepted, SetPort::Apply::kApplied);
        ASSERT_TRUE(master_->Receive());
        refuse();
        master_->Send(master_->Phase(kCleanupSet, 9));
      },
      [&] {
        // What it cannot log is lost, and what it cannot ask for is refused; its end is the next
        // one.
        notify();
        const std::optional<AgentxPacket> packet = master_->Receive();
        ASSERT_TRUE(packet);
        refuse();
        master_->Send(SetPacket());
        const std::optional<AgentxPacket> answer = master_->Receive();
        ASSERT_TRUE(answer);
        EXPECT_NE(answer->Error(), 0);
        constexpr int kNotOpen = 257;
        master_->Answer(*packet, kNotOpen);
      }};
  for (const std::function<void()> &one : cases) {
    ASSERT_NO_FATAL_FAILURE(StartWithSession());
    ASSERT_NO_FATAL_FAILURE(one());
    EXPECT_EQ(Status(), 0);
    master_.reset();
  }
  // What waits to be taken is not for ever.
  ASSERT_NO_FATAL_FAILURE(Start([] {
    new FailingCall("send", EAGAIN);
    while (births->told[0] == 0) {
      usleep(1000);
    }
  }));
  refuse();
  births->told[0] = 1;
  EXPECT_EQ(Status(), 0);
}

TEST_F(SnmpProcessAlone, WithoutMemoryAtItsStartIsNone) {
  ASSERT_NO_FATAL_FAILURE(Start([] { starved = getpid(); }));
  EXPECT_EQ(Status(), 1);
  EXPECT_FALSE(Hear(FrameType::kReady));
}

}  // namespace
}  // namespace vex
