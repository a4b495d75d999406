// For tests of the SNMP process, as root: what it and its starter do first, memory that a thread
// does not get, and a clock and an agent's end in the test's hands.
#ifndef VEX_TESTS_UNIT_FRAMEWORK_PROCESS_WITH_SNMP_PROCESS_H
#define VEX_TESTS_UNIT_FRAMEWORK_PROCESS_WITH_SNMP_PROCESS_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "framework/snmp/confinement.h"
#include "framework/snmp/frames.h"
#include "tests/unit/framework/fake_master.h"

namespace vex {

inline constexpr SnmpUser kUser = {990, 990};

// The starter is a child of this process, and its children are the SNMP processes.
enum Generation { kTest, kStarter, kSnmpProcess, kGenerations };
extern std::function<void()> at_birth[kGenerations];  // what each does first

// Shared by all of them.
struct Births {
  std::atomic<pid_t> starter{0};
  std::atomic<pid_t> last_process{0};
  std::atomic<int> count{0};      // of SNMP processes, the one that asks included
  std::atomic<int> told[8] = {};  // what a test's processes want it to know
};
extern Births *births;

// In the SNMP process, at its birth: its channel, and the memory of the ring, of which the agent
// reads what it says to have read.
int ChannelHere();
int ControlHere();
// In the starter, at its birth: its channel.
int StartersChannel();

// The next frame of this type, waited for; others are passed over. Nothing at the channel's end,
// and when none comes.
std::optional<std::string> HearFrom(FrameSocket *channel, FrameType type);

// How many frames of one type come before one of another; -1 when that does not come.
int HearFromBefore(FrameSocket *channel, FrameType type, FrameType end);

// The thread that gets no memory, 0 for none, and how often it has asked.
extern std::atomic<pid_t> starved;
extern std::atomic<long> refused;

// What agent_ending() says.
extern std::atomic<int> ending;
// By so much the clock of the product is ahead, in this process.
extern std::atomic<int64_t> ahead_ms;

// The one that is the agent's side of the SNMP process.
pid_t RelayThread();

bool WaitUntil(const std::function<bool()> &condition, int ms = 10000);

// An SNMP process that is none: it says to the agent what the test likes.
class Wicked {
 public:
  Wicked();
  Wicked &Say(const FrameWriter &frame);
  // Waits until the agent has read all of that. False when it does not within ten seconds.
  bool AllIsRead();
  std::optional<std::string> Hear(FrameType type);
  int HearBefore(FrameType type, FrameType end);
  [[noreturn]] static void Stay();

 private:
  FrameSocket channel_;
};

class WithSnmpProcess : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // What the start logs.
  std::string LoggedByStart(int expected);
  void StartWithMaster();

  std::string directory_;
  std::string socket_;
  std::unique_ptr<FakeMaster> master_;
};

}  // namespace vex

#endif
