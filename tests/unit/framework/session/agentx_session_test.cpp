// The AgentX session, one packet at a time.
#include "framework/snmp/agentx_session.h"

#include <gtest/gtest.h>

#include <thread>

#include "framework/snmp/notifications.h"
#include "tests/unit/framework/session/with_session.h"

namespace vex {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int kNotOpen = 257;

class AgentxSessionTest : public WithSession {
 protected:
  void Requested(netsnmp_pdu *pdu) override {
    WithSession::Requested(pdu);
    variables_ = 0;
    for (const netsnmp_variable_list *v = pdu->variables; v != nullptr; v = v->next_variable) {
      variables_++;
    }
  }
  size_t variables_ = 0;
};

void PutWord(std::string *to, uint32_t word) {
  to->append(reinterpret_cast<const char *>(&word), sizeof(word));
}

// A variable binding with the name 1.3.9 and a value as it is on the wire.
std::string RawBinding(uint16_t type, const std::string &value) {
  std::string binding;
  PutWord(&binding, type);
  PutWord(&binding, 3);  // numbers of the name
  for (uint32_t number : {1U, 3U, 9U}) {
    PutWord(&binding, number);
  }
  return binding + value;
}

// net-snmp leaves out what it has no memory for, so what it has read is counted; whatever type a
// manager sends.
TEST_F(AgentxSessionTest, CountsVariablesOfEveryType) {
  BringUp();
  const std::string one_number(4, '\1');
  const std::string octets = std::string("\3\0\0\0", 4) + std::string("abc\0", 4);
  const std::string four_octets = std::string("\4\0\0\0", 4) + "abcd";
  const std::string name = std::string("\2\0\0\0", 4) + std::string("\1\0\0\0\3\0\0\0", 8);
  const struct {
    uint16_t type;
    std::string value;
  } cases[] = {{ASN_INTEGER, one_number},
               {ASN_COUNTER, one_number},
               {ASN_GAUGE, one_number},
               {ASN_TIMETICKS, one_number},
               {ASN_COUNTER64, one_number + one_number},
               {ASN_OBJECT_ID, name},
               {ASN_OCTET_STR, octets},
               {ASN_IPADDRESS, four_octets},
               {ASN_OPAQUE, four_octets},
               {ASN_NULL, ""}};
  for (const auto &c : cases) {
    AgentxPacket packet = master_->TestSet(5, {});
    packet.payload = RawBinding(c.type, c.value) + RawBinding(ASN_INTEGER, one_number);
    Give(packet);
    EXPECT_EQ(Events(), "request8 ") << c.type;
    EXPECT_EQ(variables_, 2U) << c.type;
  }
}

TEST_F(AgentxSessionTest, WhatCannotBeReadIsToldOfThisSessionAlone) {
  Connect();
  AgentxPacket torn = master_->Get({{1, 3, 9}});
  torn.payload.resize(6);
  Give(torn);  // there is no session yet
  EXPECT_EQ(Events(), "");
  master_->Answer(open_);
  Read();
  EXPECT_EQ(Events(), "open ");
  Give(torn);
  EXPECT_EQ(Events(), "unread5 ");
  torn.session++;
  Give(torn);
  EXPECT_EQ(Events(), "");
  EXPECT_FALSE(session_->Broken());
  // What is no request may have been the answer to anything.
  torn.session--;
  torn.type = kAgentxOpen;
  Give(torn);
  EXPECT_EQ(Events(), "ended ");
  EXPECT_TRUE(session_->Down());
}

TEST_F(AgentxSessionTest, NothingIsDueWithoutAConnection) {
  EXPECT_EQ(session_->NextDue(), Clock::time_point::max());
  session_->Work();
  session_->SocketReady(true, true);
  EXPECT_FALSE(session_->Adopt(nullptr));
  EXPECT_FALSE(session_->Send(session_->NewPdu(kAgentxPing)));
  session_->Close(Clock::now() + seconds(1));
  EXPECT_EQ(Events(), "");
  EXPECT_TRUE(session_->Down());
}

TEST_F(AgentxSessionTest, AConnectionForWhichThereIsNoMemoryIsNoneAndTheNextOneIs) {
  {
    const FailingLibrary fails("snmp_sess_add_ex");
    EXPECT_FALSE(session_->Adopt(StreamTransport(ConnectUnix(path_))));
    EXPECT_EQ(FailingLibrary::Failed(), 1);
  }
  EXPECT_EQ(Events(), "");
  EXPECT_TRUE(session_->Down());
  ASSERT_TRUE(master_->Accept(10000));
  EXPECT_TRUE(master_->HungUp(10000));
  master_->Disconnect();
  BringUp();
}

// Whoever waited for the answer would wait for a minute.
TEST_F(AgentxSessionTest, AnOpenThatCannotBeMadeOrSentEndsTheConnection) {
  for (const char *function : {"snmp_pdu_create", "snmp_sess_async_send"}) {
    const FailingLibrary fails(function);
    EXPECT_TRUE(session_->Adopt(StreamTransport(ConnectUnix(path_)))) << function;
    EXPECT_EQ(fails.Failed(), 1) << function;
    EXPECT_EQ(Events(), "ended-unopened ") << function;
    EXPECT_TRUE(session_->Down()) << function;
    ASSERT_TRUE(master_->Accept(10000));
    EXPECT_TRUE(master_->HungUp(10000)) << function;
    master_->Disconnect();
  }
}

TEST_F(AgentxSessionTest, ItsEndIsTheConnections) {
  BringUp();
  session_.reset();
  EXPECT_TRUE(master_->HungUp(10000));
}

TEST_F(AgentxSessionTest, AnOpenWithoutAnAnswerIsGivenUp) {
  Connect();
  AdvanceClock(seconds(59));
  session_->Work();
  EXPECT_EQ(Events(), "");
  AdvanceClock(seconds(2));
  EXPECT_LT(session_->NextDue(), Clock::now());
  session_->Work();
  EXPECT_EQ(Events(), "ended-unopened ");
  EXPECT_TRUE(session_->Down());
}

TEST_F(AgentxSessionTest, APingWithoutAnAnswerIsGivenUp) {
  BringUp();
  AdvanceClock(seconds(16));
  session_->Work();
  std::optional<AgentxPacket> ping = master_->Receive(10000);
  ASSERT_TRUE(ping);
  EXPECT_EQ(ping->type, kAgentxPing);
  AdvanceClock(seconds(14));
  session_->Work();
  EXPECT_TRUE(NothingComes());  // one at a time
  // A request is not the answer.
  Give(master_->Get({{1, 3, 9}}));
  EXPECT_EQ(Events(), "request5 ");
  AdvanceClock(seconds(2));
  testing::internal::CaptureStderr();
  session_->Work();
  EXPECT_NE(testing::internal::GetCapturedStderr().find("lost the master agent at the master"),
            std::string::npos);
  EXPECT_EQ(Events(), "ended ");
}

TEST_F(AgentxSessionTest, APingWithoutMemoryComesAMomentLater) {
  BringUp();
  AdvanceClock(seconds(16));
  {
    const FailingLibrary fails("snmp_pdu_create");
    session_->Work();
    EXPECT_EQ(fails.Failed(), 1);
  }
  EXPECT_TRUE(NothingComes());
  EXPECT_LE(session_->NextDue(), Clock::now() + milliseconds(100));
  AdvanceClock(milliseconds(101));
  session_->Work();
  std::optional<AgentxPacket> ping = master_->Receive(10000);
  ASSERT_TRUE(ping);
  EXPECT_EQ(ping->type, kAgentxPing);
  master_->Answer(*ping);
  Read();
  EXPECT_EQ(Events(), "");
}

TEST_F(AgentxSessionTest, APingThatCannotBeSentEndsTheSession) {
  BringUp();
  master_->Disconnect();
  AdvanceClock(seconds(16));
  session_->Work();
  EXPECT_EQ(Events(), "ended ");
  EXPECT_TRUE(session_->Down());
}

// The master is asked again after a while; when it answers both, the group is registered once.
TEST_F(AgentxSessionTest, ARegistrationAnsweredTwiceCountsOnce) {
  Open();
  const std::vector<AgentxPacket> first = registrations_;
  AdvanceClock(milliseconds(200));
  session_->Work();
  ReceiveRegistrations();
  EXPECT_EQ(Events(), "open ");
  master_->Answer(first[0]);
  master_->Answer(registrations_[0]);
  Read();
  EXPECT_EQ(Events(), "welcome ");
  master_->Answer(first[1]);
  master_->Answer(registrations_[1]);
  Read();
  EXPECT_EQ(Events(), "welcome up ");
}

TEST_F(AgentxSessionTest, ARefusedRegistrationIsSaidOnce) {
  Open();
  testing::internal::CaptureStderr();
  for (int times = 0; times < 2; times++) {
    for (const AgentxPacket &registration : registrations_) {
      master_->Answer(registration, 263);
    }
    Read();
    AdvanceClock(seconds(1));
    session_->Work();
    ReceiveRegistrations();
  }
  const std::string log = testing::internal::GetCapturedStderr();
  const size_t said = log.find("(error 263); trying again");
  EXPECT_NE(said, std::string::npos) << log;
  EXPECT_EQ(log.find("error 263", said + 10), std::string::npos) << log;
}

TEST_F(AgentxSessionTest, SaysEachTimeThatItIsConnectedAndThatItIsNot) {
  for (int times = 0; times < 2; times++) {
    testing::internal::CaptureStderr();
    BringUp();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Info: connected to the master agent at the master\n");
    master_->Disconnect();
    testing::internal::CaptureStderr();
    Read();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Info: lost the master agent at the master\n");
    EXPECT_EQ(Events(), "ended ");
  }
}

TEST_F(AgentxSessionTest, ABrokenSessionIsClearedAway) {
  session_->Break();
  EXPECT_FALSE(session_->Down());
  session_->Work();
  EXPECT_TRUE(session_->Down());
  EXPECT_EQ(Events(), "ended-unopened ");
  BringUp();
  session_->Break();
  EXPECT_FALSE(session_->Send(session_->NewPdu(kAgentxPing)));
  session_->Work();
  EXPECT_EQ(Events(), "ended ");
  EXPECT_TRUE(master_->HungUp(10000));
  BringUp();
}

TEST_F(AgentxSessionTest, TheMasterMayCloseItAndMayNotAskAnything) {
  BringUp();
  // What no master sends to a subagent is passed over.
  for (const uint8_t type : {kAgentxPing, kAgentxNotify}) {
    Give(master_->Phase(type, 5));
    EXPECT_EQ(Events(), "");
    EXPECT_TRUE(NothingComes());
  }
  AgentxPacket close = master_->Phase(kAgentxClose, 5);
  close.payload = std::string("\5\0\0\0", 4);  // reasonShutdown
  Give(close);
  EXPECT_EQ(Events(), "ended ");
}

TEST_F(AgentxSessionTest, ARequestBeforeTheSessionIsNotServed) {
  Connect();
  const AgentxPacket get = master_->Get({{1, 3, 9}});
  Give(get);
  std::optional<AgentxPacket> answer = master_->Receive(10000);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->packet, get.packet);
  EXPECT_EQ(answer->session, get.session);
  EXPECT_EQ(answer->Error(), kNotOpen);
  Give(master_->Phase(kAgentxCleanupSet, 5));
  EXPECT_TRUE(NothingComes());
  {
    const FailingLibrary fails("snmp_pdu_create");
    Give(get);
    EXPECT_EQ(fails.Failed(), 1);
  }
  EXPECT_TRUE(NothingComes());
  EXPECT_EQ(Events(), "");
  master_->Answer(open_);
  Read();
  EXPECT_EQ(Events(), "open ");
}

TEST_F(AgentxSessionTest, ARequestOfAnotherSessionIsNotServed) {
  BringUp();
  AgentxPacket get = master_->Get({{1, 3, 9}});
  get.session++;
  Give(get);
  std::optional<AgentxPacket> answer = master_->Receive(10000);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->session, get.session);
  EXPECT_EQ(answer->Error(), kNotOpen);
  EXPECT_EQ(Events(), "");
}

class UnsentTest : public AgentxSessionTest {
 protected:
  // Notifications of so many octets, until one of them waits to be sent. Returns how many.
  uint32_t Fill() {
    uint32_t count = 0;
    while (!session_->WantsToWrite() && count < 10000) {
      netsnmp_pdu *pdu = session_->NewPdu(kAgentxNotify);
      const oid name[] = {1, 3, 9};
      const std::string text(30000, 'x');
      snmp_pdu_add_variable(pdu, name, OID_LENGTH(name), ASN_OCTET_STR, text.data(), text.size());
      EXPECT_TRUE(session_->Send(pdu));
      count++;
    }
    return count;
  }
};

TEST_F(UnsentTest, WhatWaitsIsSentWhenThereIsRoom) {
  BringUp();
  const uint32_t count = Fill();
  for (uint32_t i = 0; i < count; i++) {
    std::optional<AgentxPacket> packet = master_->Receive(0);
    if (!packet) {
      session_->SocketReady(false, true);
      packet = master_->Receive(10000);
    }
    ASSERT_TRUE(packet) << i;
    ASSERT_EQ(packet->type, kAgentxNotify);
    EXPECT_EQ(packet->Bindings().at(0).octets, std::string(30000, 'x'));
  }
  EXPECT_FALSE(session_->WantsToWrite());
  EXPECT_TRUE(NothingComes());
  session_->SocketReady(false, true);  // nothing is left to send
  EXPECT_EQ(Events(), "");
}

TEST_F(UnsentTest, WhatCannotBeSentAnyMoreEndsTheSession) {
  BringUp();
  Fill();
  master_->Disconnect();
  session_->SocketReady(true, true);
  EXPECT_EQ(Events(), "ended ");
}

// It is known as lost only with the session's end, and goes to the next one's master.
TEST_F(AgentxSessionTest, ANotificationThatABreakingSessionDoesNotTakeIsKept) {
  BringUp();
  NotificationQueue queue;
  Notification notification;
  notification.number = 7;
  queue.Push(notification);
  NotificationSender sender(&queue);
  master_->Disconnect();
  sender.Send(session_.get());
  EXPECT_TRUE(session_->Broken());
  EXPECT_EQ(sender.NextDue(), Clock::time_point::max()) << "nothing to try with this session";
  EXPECT_FALSE(queue.AllDone());
  sender.SessionLost();
  const Notifications kept = queue.Pop();
  ASSERT_EQ(kept.size(), 1U);
  EXPECT_EQ(kept.front().notification.number, 7U);
}

TEST_F(UnsentTest, TheGoodbyeGoesOutBehindIt) {
  BringUp();
  const uint32_t count = Fill();
  bool goodbye = false;
  std::thread master([&] {
    for (uint32_t i = 0; i <= count; i++) {
      if (std::optional<AgentxPacket> packet = master_->Receive(10000)) {
        goodbye = packet->type == kAgentxClose;
        if (goodbye) {
          master_->Answer(*packet);
        }
      }
    }
  });
  session_->Close(Clock::now() + seconds(20));
  master.join();
  EXPECT_TRUE(goodbye);
  EXPECT_FALSE(session_->WantsToWrite());
}

TEST_F(AgentxSessionTest, AGoodbyeWithoutMemoryOrToAMasterThatLeavesDoesNotWait) {
  BringUp();
  {
    const FailingLibrary fails("snmp_pdu_create");
    session_->Close(Clock::now() + seconds(1000));
    EXPECT_EQ(fails.Failed(), 1);
  }
  AgentxPacket close = master_->Phase(kAgentxClose, 5);
  close.payload = std::string("\5\0\0\0", 4);
  master_->Send(close);
  session_->Close(Clock::now() + seconds(1000));
  EXPECT_EQ(Events(), "ended ");
  EXPECT_TRUE(session_->Down());
}

}  // namespace
}  // namespace vex
