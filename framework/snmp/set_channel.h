// Sets on their way from the SNMP side to the agent thread and back, with a deadline of 0.7
// seconds in all, so that a busy agent never holds up the master and no set is applied late.
#ifndef VEX_FRAMEWORK_SNMP_SET_CHANNEL_H
#define VEX_FRAMEWORK_SNMP_SET_CHANNEL_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "framework/process/clock.h"

namespace vex {

// One variable of a set request; object and variable exist and passed the type, access and length
// checks.
struct SetItem {
  uint64_t object_id = 0;
  int slot = 0;
  std::vector<uint8_t> value;  // an int32_t in host order, or the octets followed by a NUL
  int length = 0;              // without that NUL
};

// Runs one phase (enum set_phase) of one variable's set, on the agent thread: calls the variable's
// handler (or checks and stores when it has none), and, after an accepted apply, hands the
// variable's current value to the SNMP side. 0 or -1 (also when the object is gone).
using SetRunner = int (*)(uint8_t phase, SetItem &item);

// ---- agent thread ----

// Becomes readable when ServeSets() has work; owned by the channel.
int SetChannelFd();
// Runs what is queued by now: the checks of a request, then, held until its deadline at the latest,
// its apply. What is queued meanwhile waits for the next call, so that whoever sets without end
// holds up no poll. Called from the main loop, never while a hook runs, with signals not blocked:
// it ends soon once the agent is to end.
void ServeSets(SetRunner run);
// Sets are refused from now on (before the clean-up).
void CloseSets();
// What set_wanted() of platform/framework.h says.
bool SetWanted(bool last);

// ---- the channel itself ----

// One set request of a manager. It comes in one part for each registered subtree that it touches;
// all parts are checked before the first is applied.
class SetTransaction {
 public:
  virtual ~SetTransaction() = default;
};

// What whoever answers the master does with a set. One thread.
class SetPort {
 public:
  enum class Check {
    kPending,
    kAccepted,
    kRefused,
    kUndecided  // not decided in time, or the channel is closed; nothing is or will be applied
  };
  enum class Apply { kPending, kApplied, kFailed };
  struct CheckResult {
    Check state = Check::kPending;
    int failed_item = 0;  // of a refusal
  };
  struct ApplyResult {
    Apply state = Apply::kPending;
    int failed_item = 0;
  };

  virtual ~SetPort() = default;
  // By so much a result may come later than its deadline.
  virtual Clock::duration Lateness() const {
    return Clock::duration::zero();
  }
  // Throws std::bad_alloc, as the next one does, which then has added nothing.
  virtual std::shared_ptr<SetTransaction> Begin(Clock::time_point deadline) = 0;
  // Queues the checks of one part; returns the part's number. After RequestApply() it is undecided
  // and has failed.
  virtual int AddPart(SetTransaction &transaction, std::vector<SetItem> items) = 0;
  // The state of a part's checks. From the deadline on it is never kPending: what is undecided is
  // cancelled for good.
  virtual CheckResult CheckOf(SetTransaction &transaction, int part) = 0;
  // Asks for the apply of all parts (once).
  virtual void RequestApply(SetTransaction &transaction) = 0;
  // The state of a part's apply. From the deadline on it is never kPending, but for a moment while
  // a handler returns that was told that its set is wanted to the last: what has not begun never
  // will.
  virtual ApplyResult ApplyOf(SetTransaction &transaction, int part) = 0;
  // The manager's request is over: no further phase comes.
  virtual void Release(SetTransaction &transaction) = 0;
};

// What a handler that is wanted to the last has at most to return in after its deadline.
constexpr std::chrono::milliseconds kReturn{100};

class QueuedSet;

class SetChannel final : public SetPort {
 public:
  SetChannel();
  ~SetChannel() override;
  // Whether there is a descriptor to wake the agent thread with; tries to get it. False with errno.
  bool Ready();
  // Wakes the agent thread without a set, for it to look around. Any thread.
  void WakeAgent() const;
  SetChannel(const SetChannel &) = delete;
  SetChannel &operator=(const SetChannel &) = delete;

  // The relay, or the SNMP thread where there is no process.
  // wake: called, on the agent thread, whenever a result is there.
  void SetWake(void (*wake)());
  std::shared_ptr<SetTransaction> Begin(Clock::time_point deadline) override;
  int AddPart(SetTransaction &transaction, std::vector<SetItem> items) override;
  CheckResult CheckOf(SetTransaction &transaction, int part) override;
  void RequestApply(SetTransaction &transaction) override;
  ApplyResult ApplyOf(SetTransaction &transaction, int part) override;
  void Release(SetTransaction &transaction) override;

  // Agent thread.
  int Fd() const {
    return fd_;
  }
  void Serve(SetRunner run);
  void Close();
  // See SetWanted(). In a handler that Serve() runs; true outside one.
  bool Wanted(bool last);

 private:
  void Enqueue(QueuedSet &transaction);
  void RunChecks(std::unique_lock<std::mutex> &lock, QueuedSet &transaction, size_t part,
                 SetRunner run);
  void RunApply(std::unique_lock<std::mutex> &lock, QueuedSet &transaction, SetRunner run);
  void ServeOne(std::unique_lock<std::mutex> &lock, QueuedSet &transaction, SetRunner run);
  void Wake() const;

  int fd_;
  mutable std::mutex mutex_;  // guards everything below and every transaction
  std::condition_variable changed_;
  std::deque<std::shared_ptr<QueuedSet>> queue_;
  void (*wake_)() = nullptr;
  bool closed_ = false;
  QueuedSet *applying_ = nullptr;  // the one whose handler runs now
};

// The one of this process.
SetChannel &Sets();

}  // namespace vex

#endif
