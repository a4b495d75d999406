// The loop of whoever talks to the master: answers its requests, sends notifications, asks queries.
// It is run by a thread of the agent, or by a process of its own.
#ifndef VEX_FRAMEWORK_SNMP_SNMP_LOOP_H
#define VEX_FRAMEWORK_SNMP_SNMP_LOOP_H

#include <poll.h>

#include <list>
#include <memory>
#include <vector>

#include "framework/process/clock.h"
#include "framework/snmp/agentx_session.h"
#include "framework/snmp/mib_index.h"
#include "framework/snmp/notifications.h"
#include "framework/snmp/snmp_query.h"
#include "framework/snmp/snmp_requests.h"
#include "framework/snmp/spin_policy.h"

namespace vex {

// Where the loop's work comes from and what becomes of it.
class SnmpSeat {
 public:
  virtual ~SnmpSeat() = default;
  // Readable when there is news for the loop; then Ready() is called, which does not wait.
  virtual int Fd() const = 0;
  virtual bool WantsToWrite() const {
    return false;
  }
  virtual void Ready() = 0;
  // Another one, or -1.
  virtual int WatchFd() const {
    return -1;
  }
  virtual void WatchReady() {}
  // In each pass, and when that is to be at the latest.
  virtual void Work() {}
  virtual Clock::time_point NextDue() const {
    return Clock::time_point::max();
  }
  virtual bool Stopping() const = 0;

  // Brings the index up to date with all that is published; answering: a request waits for it.
  // False when it waited in vain. Throws a std::exception for want of memory.
  virtual bool TakeImages(MibIndex *index, bool answering) = 0;
  virtual bool SetsEnabled() const = 0;
  virtual SetPort *Sets() = 0;
  virtual NotificationSource *Notifications() = 0;
  // How many wait there.
  virtual size_t NotificationsWaiting() const = 0;
  virtual std::list<std::shared_ptr<SnmpQuery>> TakeQueries() = 0;

  // A connection to the master, when it is time for one: null with the error in *error, which is 0
  // when there is nothing to try now.
  virtual netsnmp_transport *Connection(int *error) = 0;
  // What could not be made use of.
  virtual void ConnectionFailed(int error) = 0;
  virtual void SessionOpen() = 0;
  virtual void SessionWelcome() = 0;
  virtual void SessionUp() = 0;
  virtual void SessionRefused() = 0;
  // After everything of it has been put back.
  virtual void SessionEnded(bool was_open, bool refused) = 0;
};

class SnmpLoop {
 public:
  // How long the end may take.
  struct Ending {
    std::chrono::milliseconds notifications;
    std::chrono::milliseconds goodbye;  // with the notifications
  };

  // seat: outlives the loop.
  SnmpLoop(AgentxSession::Settings settings, SnmpSeat *seat);
  SnmpLoop(const SnmpLoop &) = delete;
  SnmpLoop &operator=(const SnmpLoop &) = delete;
  // Returns when the seat is stopping; the session is closed then.
  void Run(Ending ending);

 private:
  static constexpr size_t kUsualDescriptors = 16;

  template <typename Function>
  void Try(Function function) noexcept;
  void Say();
  void SendLast(Clock::time_point until);
  void Request(const netsnmp_pdu *pdu);
  void Ended(bool was_open, bool refused);
  void Connect();
  void Spin();
  void Wait();
  void Work();

  SnmpSeat *seat_;
  MibIndex index_;
  SnmpRequests requests_;
  NotificationSender sender_;
  SnmpQueries queries_;
  AgentxSession session_;  // last: it calls the others
  std::vector<pollfd> fds_;
  std::vector<int> query_fds_;
  SpinPolicy spinning_;
  Clock::time_point spin_until_;
  bool short_of_memory_ = false;  // in this pass
  bool said_short_ = false;
  Clock::time_point last_short_;
};

}  // namespace vex

#endif
