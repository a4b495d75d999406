#include "framework/snmp/notifications.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <span>
#include <utility>

#include "framework/snmp/agentx_session.h"
#include "framework/snmp/oid_name.h"
#include "platform/framework.h"

namespace vex {
namespace {

// snmpTrapOID.0, RFC 3418.
constexpr oid kTrapOid[] = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};

constexpr std::chrono::milliseconds kTryAgainAfter{50};

bool Add(netsnmp_pdu *pdu, const OidName &name, int type, const void *value, size_t size) {
  return snmp_pdu_add_variable(pdu, name.Numbers(), name.Length(), static_cast<u_char>(type), value,
                               size) != nullptr;
}

bool AddAll(netsnmp_pdu *pdu, const Notification &notification) {
  const OidName trap(MibNotificationRoot(), notification.number);
  if (snmp_pdu_add_variable(pdu, kTrapOid, std::size(kTrapOid), ASN_OBJECT_ID, trap.Numbers(),
                            trap.Length() * sizeof(oid)) == nullptr) {
    return false;
  }
  for (const NotificationVariable &variable : notification.variables) {
    const OidName name(variable.mib->Oid(), variable.mib->column ? variable.instance : 0);
    bool added;
    if (variable.mib->type == VAR_INTEGER && variable.value.size() == sizeof(int32_t)) {
      int32_t number;
      memcpy(&number, variable.value.data(), sizeof(number));
      const long wide = number;
      added = Add(pdu, name, ASN_INTEGER, &wide, sizeof(wide));
    } else {
      added = Add(pdu, name, ASN_OCTET_STR, variable.value.data(), variable.value.size());
    }
    if (!added) {
      return false;
    }
  }
  return Add(pdu, OidName(MibTrapDescription().Oid(), 0), ASN_OCTET_STR,
             notification.description.data(), notification.description.size());
}

// The session's answers tell what was received; sysUpTime is left to the master, whose it is. Null
// without memory.
netsnmp_pdu *Build(const AgentxSession &session, const Notification &notification) {
  netsnmp_pdu *pdu = session.NewPdu(kAgentxNotify);
  if (pdu != nullptr && !AddAll(pdu, notification)) {
    snmp_free_pdu(pdu);
    pdu = nullptr;
  }
  return pdu;
}

}  // namespace

void NotificationQueue::Trim(std::unique_lock<std::mutex> lock) {
  const size_t most = up_ ? kKeptWhileUp : kKeptWhileDown;
  const bool said = lost_ != 0;
  for (; waiting_.size() > most; lost_++) {
    waiting_.pop_front();
  }
  const bool begins = !said && lost_ != 0;
  lock.unlock();
  if (begins) {
    agentlog_fprintf(stderr,
                     "More than %zu notifications wait for the master agent; the oldest are lost\n",
                     most);
  }
}

void NotificationQueue::Push(Notification notification) {
  Notifications added;
  added.push_back({std::move(notification)});
  std::unique_lock lock(mutex_);
  waiting_.splice(waiting_.end(), added);
  Trim(std::move(lock));
}

void NotificationQueue::PushOlder(Notifications notifications) {
  std::unique_lock lock(mutex_);
  waiting_.splice(waiting_.begin(), notifications);
  Trim(std::move(lock));
}

void NotificationQueue::PutBack(Notifications notifications) {
  std::unique_lock lock(mutex_);
  under_way_ -= std::min(under_way_, notifications.size());
  waiting_.splice(waiting_.begin(), notifications);
  Trim(std::move(lock));
}

Notifications NotificationQueue::Pop() {
  std::unique_lock lock(mutex_);
  Notifications first;
  if (!waiting_.empty()) {
    first.splice(first.end(), waiting_, waiting_.begin());
    under_way_++;
  }
  const size_t lost = waiting_.empty() ? std::exchange(lost_, 0) : 0;
  lock.unlock();
  if (lost != 0) {
    agentlog_fprintf(stderr, "%zu notifications were lost\n", lost);
  }
  return first;
}

void NotificationQueue::Done(size_t count) {
  std::lock_guard lock(mutex_);
  under_way_ -= std::min(under_way_, count);
}

void NotificationQueue::Finished(Notifications notifications) {
  Done(notifications.size());
}

bool NotificationQueue::AllDone() const {
  std::lock_guard lock(mutex_);
  return waiting_.empty() && under_way_ == 0;
}

void NotificationQueue::SetUp(bool up) {
  std::unique_lock lock(mutex_);
  up_ = up;
  Trim(std::move(lock));
}

size_t NotificationQueue::Size() const {
  std::lock_guard lock(mutex_);
  return waiting_.size();
}

void NotificationSender::Send(AgentxSession *session) {
  next_try_ = Clock::time_point::max();
  while (session->Open() && unanswered_.size() < kMostUnanswered) {
    Notifications taken = queue_->Pop();
    if (taken.empty()) {
      return;
    }
    netsnmp_pdu *pdu = Build(*session, taken.front().notification);
    const uint64_t number = next_++;
    taken.front().sent = number;
    unanswered_.splice(unanswered_.end(), taken);
    const bool sent = session->Send(pdu, [this, number](const netsnmp_pdu *response) {
      if (response == nullptr) {
        return;  // the session is gone: SessionLost() follows
      }
      auto place = std::find_if(unanswered_.begin(), unanswered_.end(),
                                [number](const auto &entry) { return entry.sent == number; });
      if (place != unanswered_.end() && response->errstat != kAgentxNotOpen) {
        Notifications answered;
        answered.splice(answered.end(), unanswered_, place);
        queue_->Finished(std::move(answered));
      }
      bool refused = response->errstat != SNMP_ERR_NOERROR;
      if (refused && !refused_) {
        agentlog_fprintf(stderr, "The master agent refuses notifications (error %ld)\n",
                         response->errstat);
      }
      refused_ = refused;
    });
    if (sent) {
      continue;
    }
    // What a breaking session does not take goes back when its end is seen; what does not fit into
    // a packet is dropped; what there was no memory for waits.
    if (session->Broken()) {
      return;
    }
    Notifications unsent;
    unsent.splice(unsent.end(), unanswered_, std::prev(unanswered_.end()));
    if (!session->TooLong()) {
      queue_->PutBack(std::move(unsent));
      next_try_ = Clock::now() + kTryAgainAfter;
      return;
    }
    queue_->Finished(std::move(unsent));
  }
}

void NotificationSender::SessionLost() {
  if (!unanswered_.empty()) {
    queue_->PutBack(std::move(unanswered_));
    unanswered_.clear();
  }
}

}  // namespace vex
