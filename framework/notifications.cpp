#include "framework/notifications.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "framework/agentx_session.h"
#include "platform/framework.h"

namespace vex {
namespace {

// snmpTrapOID.0, RFC 3418.
constexpr oid kTrapOid[] = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};

std::vector<oid> Name(std::span<const uint32_t> of, uint32_t last) {
  std::vector<oid> name(of.begin(), of.end());
  name.push_back(last);
  return name;
}

// The session's answers tell what was received; sysUpTime is left to the master, whose it is.
netsnmp_pdu *Build(const AgentxSession &session, const Notification &notification) {
  netsnmp_pdu *pdu = session.NewPdu(kAgentxNotify);
  if (pdu == nullptr) {
    return nullptr;
  }
  std::vector<oid> trap = Name(MibNotificationRoot(), notification.number);
  snmp_pdu_add_variable(pdu, kTrapOid, std::size(kTrapOid), ASN_OBJECT_ID, trap.data(),
                        trap.size() * sizeof(oid));
  for (const NotificationVariable &variable : notification.variables) {
    std::vector<oid> name = Name(variable.mib->Oid(), variable.mib->column ? variable.instance : 0);
    if (variable.mib->type == VAR_INTEGER && variable.value.size() == sizeof(int32_t)) {
      int32_t number;
      memcpy(&number, variable.value.data(), sizeof(number));
      long wide = number;
      snmp_pdu_add_variable(pdu, name.data(), name.size(), ASN_INTEGER, &wide, sizeof(wide));
    } else {
      snmp_pdu_add_variable(pdu, name.data(), name.size(), ASN_OCTET_STR, variable.value.data(),
                            variable.value.size());
    }
  }
  std::vector<oid> description = Name(MibTrapDescription().Oid(), 0);
  snmp_pdu_add_variable(pdu, description.data(), description.size(), ASN_OCTET_STR,
                        notification.description.data(), notification.description.size());
  return pdu;
}

}  // namespace

void NotificationQueue::Trim() {
  size_t most = up_ ? kKeptWhileUp : kKeptWhileDown;
  if (waiting_.size() > most) {
    waiting_.erase(waiting_.begin(), waiting_.end() - static_cast<std::ptrdiff_t>(most));
  }
}

void NotificationQueue::Push(Notification notification) {
  std::lock_guard lock(mutex_);
  waiting_.push_back(std::move(notification));
  Trim();
}

void NotificationQueue::PutBack(std::vector<Notification> notifications) {
  std::lock_guard lock(mutex_);
  waiting_.insert(waiting_.begin(), std::make_move_iterator(notifications.begin()),
                  std::make_move_iterator(notifications.end()));
  Trim();
}

std::optional<Notification> NotificationQueue::Pop() {
  std::lock_guard lock(mutex_);
  if (waiting_.empty()) {
    return std::nullopt;
  }
  std::optional<Notification> first = std::move(waiting_.front());
  waiting_.pop_front();
  return first;
}

void NotificationQueue::SetUp(bool up) {
  std::lock_guard lock(mutex_);
  up_ = up;
  Trim();
}

size_t NotificationQueue::Size() const {
  std::lock_guard lock(mutex_);
  return waiting_.size();
}

void NotificationSender::Send(AgentxSession *session) {
  while (session->Open() && unanswered_.size() < kMostUnanswered) {
    std::optional<Notification> notification = queue_->Pop();
    if (!notification) {
      return;
    }
    netsnmp_pdu *pdu = Build(*session, *notification);
    uint64_t number = next_++;
    unanswered_.emplace_back(number, std::move(*notification));
    bool sent = session->Send(pdu, [this, number](const netsnmp_pdu *response) {
      if (response == nullptr) {
        return;  // the session is gone: SessionLost() follows
      }
      auto place = std::find_if(unanswered_.begin(), unanswered_.end(),
                                [number](const auto &entry) { return entry.first == number; });
      if (place != unanswered_.end() && response->errstat != kAgentxNotOpen) {
        unanswered_.erase(place);
      }
      bool refused = response->errstat != SNMP_ERR_NOERROR;
      if (refused && !refused_) {
        agentlog_fprintf(stderr, "The master agent refuses notifications (error %ld)\n",
                         response->errstat);
      }
      refused_ = refused;
    });
    if (!sent) {
      // What a breaking session does not take goes back when its end is seen; what cannot be sent
      // at all (it does not fit into a packet) is dropped.
      if (session->Broken()) {
        return;
      }
      unanswered_.pop_back();
    }
  }
}

void NotificationSender::SessionLost() {
  std::vector<Notification> back;
  for (auto &[number, notification] : unanswered_) {
    back.push_back(std::move(notification));
  }
  unanswered_.clear();
  queue_->PutBack(std::move(back));
}

}  // namespace vex
