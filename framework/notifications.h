// Notifications on their way to the master: kept while it is away, sent a few at a time.
#ifndef VEX_FRAMEWORK_NOTIFICATIONS_H
#define VEX_FRAMEWORK_NOTIFICATIONS_H

#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "framework/snmp_side.h"

namespace vex {

class AgentxSession;

// What waits to be sent, oldest first. Any thread.
class NotificationQueue {
 public:
  // Kept while the master is away; and while it is there, so that a flood cannot fill the memory.
  static constexpr size_t kKeptWhileDown = 256;
  static constexpr size_t kKeptWhileUp = 16384;

  // Beyond the bound the oldest goes.
  void Push(Notification notification);
  // Puts back, before all others and in their order, what was sent without an answer.
  void PutBack(std::vector<Notification> notifications);
  std::optional<Notification> Pop();
  void SetUp(bool up);
  size_t Size() const;

 private:
  void Trim();

  mutable std::mutex mutex_;
  std::deque<Notification> waiting_;
  bool up_ = false;
};

// The SNMP thread's half: what is with the master and not yet acknowledged.
class NotificationSender {
 public:
  // A thousand in one go fill both directions of the socket and stop both processes for good.
  static constexpr size_t kMostUnanswered = 16;

  explicit NotificationSender(NotificationQueue *queue) : queue_(queue) {}
  // Sends what is waiting, as far as the bound allows.
  void Send(AgentxSession *session);
  // The session is gone: what it had not answered goes back to the queue.
  void SessionLost();
  size_t Unanswered() const {
    return unanswered_.size();
  }

 private:
  NotificationQueue *queue_;
  std::deque<std::pair<uint64_t, Notification>> unanswered_;  // in the order of sending
  uint64_t next_ = 1;
  bool refused_ = false;  // the last answer was an error; said once
};

}  // namespace vex

#endif
