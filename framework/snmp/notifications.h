// Notifications on their way to the master: kept while it is away, sent a few at a time.
#ifndef VEX_FRAMEWORK_SNMP_NOTIFICATIONS_H
#define VEX_FRAMEWORK_SNMP_NOTIFICATIONS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>

#include "framework/process/clock.h"
#include "framework/snmp/snmp_thread.h"

namespace vex {

class AgentxSession;

// Of one notification, wherever it comes from.
inline constexpr uint32_t kMostTrapVariables = 4096;

// Each is allocated once, when it is raised, and from then on moved from list to list, so that want
// of memory delays a notification and never loses one.
struct WaitingNotification {
  Notification notification;
  uint64_t sent = 0;    // number of the sending
  uint64_t number = 0;  // by which the agent and its SNMP process know it
};
using Notifications = std::list<WaitingNotification>;

// Where a sender has them from.
class NotificationSource {
 public:
  virtual ~NotificationSource() = default;
  // The oldest one; empty when there is none. It is under way until PutBack() or Finished().
  virtual Notifications Pop() = 0;
  // Puts back, before all others and in their order, what was popped and sent without an answer.
  virtual void PutBack(Notifications notifications) = 0;
  // The master has answered for these, or they are nobody's any more.
  virtual void Finished(Notifications notifications) = 0;
};

// What waits to be sent, oldest first. Any thread.
class NotificationQueue final : public NotificationSource {
 public:
  // Kept while the master is away; and while it is there, so that a flood cannot fill the memory.
  static constexpr size_t kKeptWhileDown = 256;
  static constexpr size_t kKeptWhileUp = 16384;

  // Beyond the bound the oldest goes: logged when that begins, and counted once nothing waits any
  // more. Throws std::bad_alloc.
  void Push(Notification notification);
  // Puts what is older than all others before them.
  void PushOlder(Notifications notifications);
  void PutBack(Notifications notifications) override;
  Notifications Pop() override;
  void Finished(Notifications notifications) override;
  // So many of what was popped are sent, or nobody's any more.
  void Done(size_t count = 1);
  // Whether none waits and none is under way.
  bool AllDone() const;
  void SetUp(bool up);
  size_t Size() const;

 private:
  void Trim(std::unique_lock<std::mutex> lock);

  mutable std::mutex mutex_;
  Notifications waiting_;
  size_t under_way_ = 0;
  size_t lost_ = 0;  // beyond the bound, since something waits
  bool up_ = false;
};

// The half of who talks to the master: what is with the master and not yet acknowledged.
class NotificationSender {
 public:
  // A thousand in one go fill both directions of the socket and stop both processes for good.
  static constexpr size_t kMostUnanswered = 16;

  explicit NotificationSender(NotificationSource *queue) : queue_(queue) {}
  // Sends what is waiting, as far as the bound allows. Throws nothing.
  void Send(AgentxSession *session);
  // When Send() is to be called at the latest: what there was no memory for is tried again.
  Clock::time_point NextDue() const {
    return next_try_;
  }
  // The session is gone: what it had not answered goes back to the queue.
  void SessionLost();

 private:
  NotificationSource *queue_;
  Notifications unanswered_;  // in the order of sending
  Clock::time_point next_try_ = Clock::time_point::max();
  uint64_t next_ = 1;
  bool refused_ = false;  // the last answer was an error; said once
};

}  // namespace vex

#endif
