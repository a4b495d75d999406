// A session with a master in the test's hands, in one thread: what happens, the test does step by
// step.
#ifndef VEX_TESTS_UNIT_FRAMEWORK_SESSION_WITH_SESSION_H
#define VEX_TESTS_UNIT_FRAMEWORK_SESSION_WITH_SESSION_H

#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "framework/snmp/agentx_session.h"
#include "tests/unit/framework/fake_master.h"
#include "tests/unit/framework/session/failing_library.h"

namespace vex {

class WithSession : public testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/snmp_session.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    directory_ = pattern;
    path_ = directory_ + "/master";
    master_ = std::make_unique<FakeMaster>(path_);
    AgentxSession::Settings settings;
    settings.name = "test";
    settings.master.target = "the master";
    settings.master.unix_path = path_;
    settings.groups = MibGroups();
    session_ = std::make_unique<AgentxSession>(
        settings,
        AgentxSession::Events{[this](netsnmp_pdu *pdu) { Requested(pdu); },
                              [this](const AgentxSession::PacketHeader &header) { Unread(header); },
                              [this] { events_ += "open "; }, [this] { events_ += "welcome "; },
                              [this] { events_ += "up "; }, [this] { events_ += "refused "; },
                              [this](bool was_open, bool refused) {
                                events_ += was_open ? "ended" : "ended-unopened";
                                events_ += refused ? "-refused " : " ";
                                Ended();
                              }});
  }
  void TearDown() override {
    session_.reset();
    master_.reset();
    rmdir(directory_.c_str());
    RestoreLibrary();
  }

  virtual void Requested(netsnmp_pdu *pdu) {
    events_ += "request" + std::to_string(pdu->command) + " ";
  }
  virtual void Unread(const AgentxSession::PacketHeader &header) {
    events_ += "unread" + std::to_string(header.type) + " ";
  }
  virtual void Ended() {}

  // What has happened since the last call.
  std::string Events() {
    return std::exchange(events_, "");
  }

  // The session reads all that has come.
  void Read() {
    for (int fd = session_->Socket(); fd >= 0; fd = session_->Socket()) {
      pollfd entry = {fd, POLLIN, 0};
      if (poll(&entry, 1, 0) <= 0) {
        return;
      }
      session_->SocketReady(true, false);
    }
  }

  // A connection, whose Open packet has come.
  void Connect() {
    ASSERT_TRUE(session_->Down());
    ASSERT_TRUE(session_->Adopt(StreamTransport(ConnectUnix(path_))));
    ASSERT_TRUE(master_->Accept(10000));
    std::optional<AgentxPacket> open = master_->Receive(10000);
    ASSERT_TRUE(open);
    ASSERT_EQ(open->type, kAgentxOpen);
    open_ = *open;
    open_.session = master_->Session();
  }
  // A session with nothing registered yet: the Register packets have come.
  void Open() {
    Connect();
    master_->Answer(open_);
    Read();
    session_->Work();
    ReceiveRegistrations();
  }
  void ReceiveRegistrations() {
    registrations_.clear();
    for (size_t i = 0; i < MibGroups().size(); i++) {
      std::optional<AgentxPacket> packet = master_->Receive(10000);
      ASSERT_TRUE(packet);
      ASSERT_EQ(packet->type, kAgentxRegister);
      registrations_.push_back(*packet);
    }
  }
  void BringUp() {
    Open();
    for (const AgentxPacket &registration : registrations_) {
      master_->Answer(registration);
    }
    Read();
    ASSERT_EQ(Events(), "open welcome welcome up ");
  }
  // The session reads a packet.
  void Give(const AgentxPacket &packet) {
    master_->Send(packet);
    Read();
  }
  bool NothingComes() {
    return !master_->Receive(5);
  }

  std::string directory_;
  std::string path_;
  std::string events_;
  std::unique_ptr<FakeMaster> master_;
  std::unique_ptr<AgentxSession> session_;
  AgentxPacket open_;
  std::vector<AgentxPacket> registrations_;
};

}  // namespace vex

#endif
