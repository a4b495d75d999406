// Answers the master's requests: reads from the index, sets through the channel to the agent
// thread. SNMP side only; nothing waits.
#ifndef VEX_FRAMEWORK_SNMP_SNMP_REQUESTS_H
#define VEX_FRAMEWORK_SNMP_SNMP_REQUESTS_H

#include <array>
#include <chrono>
#include <map>
#include <memory>
#include <vector>

#include "framework/process/clock.h"
#include "framework/snmp/agentx_session.h"
#include "framework/snmp/mib_index.h"
#include "framework/snmp/set_channel.h"

namespace vex {

// The first phase of a set of one variable, decided by the MIB's table and the published images
// alone. value: octets, or a net-snmp long for an integer. Returns the SNMP error (RFC 3416 4.2.5)
// and, when it is noError, fills item.
int CheckSet(const MibIndex &index, OidView name, int asn_type, const void *value, size_t length,
             SetItem *item);

class SnmpRequests {
 public:
  // Of a set, from its first phase to the end of its apply: shorter than the second after which the
  // master asks again.
  static constexpr std::chrono::milliseconds kSetPatience{700};

  SnmpRequests(const MibIndex *index, SetPort *channel) : index_(index), channel_(channel) {}

  // Whatever fails, the request is answered. current: the index holds all that was published;
  // otherwise nothing is told of it. Throws nothing, as everything here.
  void Handle(AgentxSession *session, const netsnmp_pdu *request, bool sets_enabled, bool current);
  // Answers a request that could not be read.
  void HandleUnread(AgentxSession *session, const AgentxSession::PacketHeader &request);
  // Answers the phases of sets that have been decided, or whose time is over.
  void Work(AgentxSession *session);
  // When Work() is to be called at the latest, if nothing is decided before.
  Clock::time_point NextDue() const;
  // The session is gone, and with it every set.
  void SessionLost();

 private:
  // One TestSet or CommitSet PDU: what is needed to answer it, and to answer it again.
  struct Phase {
    long packet_id;
    int flags;
    bool answered = false;
    int error = 0;
    int error_index = 0;
    int part = -1;  // in the channel; -1: refused before it got there
  };
  struct Set {
    std::shared_ptr<SetTransaction> transaction;
    Clock::time_point deadline;
    std::vector<Phase> tests;
    std::vector<Phase> commits;
    bool failed = false;
    bool undone = false;
  };

  void Get(AgentxSession *session, const netsnmp_pdu *request);
  void GetNext(AgentxSession *session, const netsnmp_pdu *request);
  void GetBulk(AgentxSession *session, const netsnmp_pdu *request);
  void TestSet(AgentxSession *session, const netsnmp_pdu *request, bool enabled);
  void CommitSet(AgentxSession *session, const netsnmp_pdu *request);
  void UndoSet(AgentxSession *session, const netsnmp_pdu *request);
  void CleanupSet(const netsnmp_pdu *request);
  // An answer without variables.
  struct ShortAnswer {
    long transaction_id;
    long packet_id;
    int flags;
    int error;
    int error_index;
  };

  void TryHandle(AgentxSession *session, const netsnmp_pdu *request, bool sets_enabled);
  void Refuse(AgentxSession *session, int command, long transaction_id, long packet_id, int flags);
  void Fail(AgentxSession *session, long transaction_id, Set &set);
  void Answer(AgentxSession *session, long transaction_id, Phase &phase, int error,
              int error_index);
  void Reply(AgentxSession *session, const netsnmp_pdu *request, netsnmp_pdu *with, bool complete);
  void Reply(AgentxSession *session, const ShortAnswer &answer);
  static bool SendShort(AgentxSession *session, const ShortAnswer &answer);
  void Progress(AgentxSession *session, long transaction_id, Set &set);
  void MakeRoom(AgentxSession *session);
  static bool IsAwaited(const Set &set);
  using SetPlace = std::map<long, Set>::iterator;
  SetPlace Forget(SetPlace place);

  const MibIndex *index_;
  SetPort *channel_;
  std::map<long, Set> sets_;  // by the master's transaction id
  // Answers that there was no memory for yet.
  std::array<ShortAnswer, 32> owed_{};
  size_t owed_count_ = 0;
};

}  // namespace vex

#endif
