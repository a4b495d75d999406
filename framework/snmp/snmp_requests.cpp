#include "framework/snmp/snmp_requests.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>

#include "framework/snmp/frames.h"
#include "framework/snmp/oid_name.h"
#include "platform/framework.h"

namespace vex {
namespace {

// A set that the master never finished.
constexpr std::chrono::seconds kForgetAfter{30};
// What could not be answered for want of memory.
constexpr std::chrono::milliseconds kPayAgainAfter{10};
// Of the answer to a GetBulk, whose repetitions may be far more than fit into a packet.
constexpr size_t kMostBulkVariables = 1000;

// The list's end is kept: net-snmp's own way of adding walks the whole list each time.
class VariableList {
 public:
  explicit VariableList(netsnmp_pdu *pdu) : end_(&pdu->variables) {}
  bool Add(const oid *name, size_t length, int type, const void *value, size_t size) {
    netsnmp_variable_list *added =
        snmp_varlist_add_variable(end_, name, length, static_cast<u_char>(type), value, size);
    if (added == nullptr) {
      return false;
    }
    end_ = &added->next_variable;
    return true;
  }
  bool AddException(const netsnmp_variable_list *asked, int type) {
    return Add(asked->name, asked->name_length, type, nullptr, 0);
  }
  bool AddCell(const oid *name, size_t length, const Cell &cell) {
    if (cell.Served().type == VAR_INTEGER) {
      long value = cell.Integer();
      return Add(name, length, ASN_INTEGER, &value, sizeof(value));
    }
    std::span<const uint8_t> octets = cell.Octets();
    return Add(name, length, ASN_OCTET_STR, octets.data(), octets.size());
  }

 private:
  netsnmp_variable_list **end_;
};

// A search range of a request, and how far the search has come in it.
struct Cursor {
  explicit Cursor(const netsnmp_variable_list *range)
      : asked(range),
        name(range->name, range->name + range->name_length),
        inclusive(range->type == ASN_PRIV_INCL_RANGE) {}
  const netsnmp_variable_list *asked;
  std::vector<oid> name;
  bool inclusive;
  bool ended = false;
};

// Adds the range's next variable, or says that there is none. false: not added.
bool AddNext(const MibIndex &index, Cursor *cursor, VariableList *list) {
  Cell cell;
  if (!cursor->ended && index.Next(cursor->name, cursor->inclusive, &cell)) {
    // RFC 2741 7.2.3.2: an answer at or past the end of the search range is none. A range without
    // end, or with the null identifier as its end, is unbounded.
    const OidName named(cell.mib->Oid(), cell.instance);
    size_t end_length = cursor->asked->val_len / sizeof(oid);
    const oid *end = cursor->asked->val.objid;
    bool bounded = end_length > 0 && !(end_length == 2 && end[0] == 0 && end[1] == 0);
    if (!bounded || snmp_oid_compare(named.Numbers(), named.Length(), end, end_length) < 0) {
      cursor->name.assign(named.Numbers(), named.Numbers() + named.Length());
      cursor->inclusive = false;
      return list->AddCell(named.Numbers(), named.Length(), cell);
    }
  }
  cursor->ended = true;
  return list->Add(cursor->name.data(), cursor->name.size(), SNMP_ENDOFMIBVIEW, nullptr, 0);
}

struct FreePdu {
  void operator()(netsnmp_pdu *pdu) const {
    snmp_free_pdu(pdu);
  }
};

// Throws std::bad_alloc.
netsnmp_pdu *NewAnswer(const AgentxSession &session) {
  netsnmp_pdu *pdu = session.NewPdu(kAgentxResponse);
  if (pdu == nullptr) {
    throw std::bad_alloc();
  }
  return pdu;
}

}  // namespace

int CheckSet(const MibIndex &index, OidView name, int asn_type, const void *value, size_t length,
             SetItem *item) {
  const MibVariable *mib = index.Variable(name);
  if (mib == nullptr || mib->access != MibAccess::kReadWrite) {
    return SNMP_ERR_NOTWRITABLE;
  }
  Cell cell;
  bool published = index.Get(name, &cell) == Lookup::kFound;
  // An object may hold a variable back that the MIB lets it open.
  if (published && !cell.Served().writable) {
    return SNMP_ERR_NOTWRITABLE;
  }
  int type = published ? cell.Served().type : mib->type;
  int wanted = type == VAR_INTEGER ? ASN_INTEGER : ASN_OCTET_STR;
  if (asn_type != wanted) {
    return SNMP_ERR_WRONGTYPE;
  }
  if (type != VAR_INTEGER) {
    size_t most = mib->max_length;
    if (published) {
      // The MIB may let a text fill its field to the last octet; its handler then sees to the
      // terminator.
      most = std::min(most, static_cast<size_t>(cell.Served().size));
    }
    if (length > most) {
      return SNMP_ERR_WRONGLENGTH;
    }
    // A text with a zero inside would be cut short without a word.
    if (type == VAR_DISPLAY_STRING && length > 0 && memchr(value, 0, length) != nullptr) {
      return SNMP_ERR_WRONGVALUE;
    }
  }
  if (!published) {
    return SNMP_ERR_NOCREATION;
  }

  item->object_id = cell.image->object_id;
  item->slot = cell.Served().slot;
  if (type == VAR_INTEGER) {
    long wide;
    memcpy(&wide, value, sizeof(wide));
    auto number = static_cast<int32_t>(wide);
    item->value.resize(sizeof(number));
    memcpy(item->value.data(), &number, sizeof(number));
    item->length = sizeof(number);
  } else {
    item->value.resize(length + 1);
    if (length > 0) {
      memcpy(item->value.data(), value, length);
    }
    item->value[length] = 0;
    item->length = static_cast<int>(length);
  }
  return SNMP_ERR_NOERROR;
}

void SnmpRequests::Handle(AgentxSession *session, const netsnmp_pdu *request, bool sets_enabled,
                          bool current) {
  const bool looks_up = request->command == kAgentxGet || request->command == kAgentxGetNext ||
                        request->command == kAgentxGetBulk || request->command == kAgentxTestSet;
  if (current || !looks_up) {
    try {
      TryHandle(session, request, sets_enabled);
      return;
    } catch (const std::exception &) {
      // Out of memory, and not answered yet: answers are the last thing that is done.
    }
  }
  Refuse(session, request->command, request->transid, request->reqid,
         static_cast<int>(request->flags));
}

void SnmpRequests::HandleUnread(AgentxSession *session,
                                const AgentxSession::PacketHeader &request) {
  Refuse(session, request.type, static_cast<int32_t>(request.transaction),
         static_cast<int32_t>(request.packet), request.flags);
}

// Answers a request that cannot be served for want of memory, with the error that the protocol has
// for its kind (RFC 2741 7.2.4).
void SnmpRequests::Refuse(AgentxSession *session, int command, long transaction_id, long packet_id,
                          int flags) {
  const auto place = sets_.find(transaction_id);
  Set *set = place != sets_.end() ? &place->second : nullptr;
  int error = SNMP_ERR_GENERR;
  switch (command) {
    case kAgentxTestSet:
      error = SNMP_ERR_RESOURCEUNAVAILABLE;
      if (set != nullptr) {
        std::erase_if(set->tests, [packet_id](const Phase &phase) {
          return phase.packet_id == packet_id && !phase.answered;
        });
      }
      break;
    case kAgentxCommitSet:
      error = SNMP_ERR_COMMITFAILED;
      break;
    case kAgentxUndoSet:
      error = SNMP_ERR_UNDOFAILED;
      break;
    case kAgentxCleanupSet:
      return;  // has no answer
    default:
      break;
  }
  Reply(session, {transaction_id, packet_id, flags, error, 1});
  if (set != nullptr) {
    Fail(session, transaction_id, *set);
  }
}

void SnmpRequests::TryHandle(AgentxSession *session, const netsnmp_pdu *request,
                             bool sets_enabled) {
  const auto flags = static_cast<int>(request->flags);
  // RFC 2741 7.2.2: the registrations are in the default context.
  if ((request->flags & kNonDefaultContext) != 0 && request->command != kAgentxCleanupSet) {
    Reply(session, {request->transid, request->reqid, flags, kAgentxUnsupportedContext, 0});
    return;
  }
  switch (request->command) {
    case kAgentxGet:
      Get(session, request);
      break;
    case kAgentxGetNext:
      GetNext(session, request);
      break;
    case kAgentxGetBulk:
      GetBulk(session, request);
      break;
    case kAgentxTestSet:
      TestSet(session, request, sets_enabled);
      break;
    case kAgentxCommitSet:
      CommitSet(session, request);
      break;
    case kAgentxUndoSet:
      UndoSet(session, request);
      break;
    case kAgentxCleanupSet:
      CleanupSet(request);
      break;
    default:
      Reply(session, {request->transid, request->reqid, flags, kAgentxProcessingError, 0});
  }
}

// Sends the variables of an answer, or, when some are missing or it does not fit into a packet,
// that there is none.
void SnmpRequests::Reply(AgentxSession *session, const netsnmp_pdu *request, netsnmp_pdu *with,
                         bool complete) {
  ShortAnswer instead = {request->transid, request->reqid, static_cast<int>(request->flags),
                         SNMP_ERR_GENERR, 0};
  if (!complete) {
    snmp_free_pdu(with);
  } else {
    with->transid = request->transid;
    with->reqid = request->reqid;
    // RFC 2741 6.1: the byte order of the answer is that of the request.
    with->flags |= static_cast<u_long>(request->flags & kNetworkByteOrder);
    with->errstat = SNMP_ERR_NOERROR;
    with->errindex = 0;
    with->time = 0;
    if (session->Send(with) || session->Broken()) {
      return;
    }
    if (session->TooLong()) {
      instead.error = SNMP_ERR_TOOBIG;
    }
  }
  Reply(session, instead);
}

bool SnmpRequests::SendShort(AgentxSession *session, const ShortAnswer &answer) {
  netsnmp_pdu *pdu = session->NewPdu(kAgentxResponse);
  if (pdu == nullptr) {
    return false;
  }
  pdu->transid = answer.transaction_id;
  pdu->reqid = answer.packet_id;
  pdu->flags |= static_cast<u_long>(answer.flags & kNetworkByteOrder);
  pdu->errstat = answer.error;
  pdu->errindex = answer.error_index;
  pdu->time = 0;
  return session->Send(pdu) || session->Broken();
}

// An answer must come, late rather than never.
void SnmpRequests::Reply(AgentxSession *session, const ShortAnswer &answer) {
  if (SendShort(session, answer)) {
    return;
  }
  if (owed_count_ == owed_.size()) {
    session->Break();
    return;
  }
  owed_[owed_count_++] = answer;
}

void SnmpRequests::Get(AgentxSession *session, const netsnmp_pdu *request) {
  netsnmp_pdu *pdu = NewAnswer(*session);
  VariableList list(pdu);
  bool complete = true;
  for (const netsnmp_variable_list *asked = request->variables; asked != nullptr;
       asked = asked->next_variable) {
    Cell cell;
    switch (index_->Get({asked->name, asked->name_length}, &cell)) {
      case Lookup::kFound:
        complete = list.AddCell(asked->name, asked->name_length, cell) && complete;
        break;
      case Lookup::kNoSuchInstance:
        complete = list.AddException(asked, SNMP_NOSUCHINSTANCE) && complete;
        break;
      case Lookup::kNoSuchObject:
        complete = list.AddException(asked, SNMP_NOSUCHOBJECT) && complete;
        break;
    }
  }
  Reply(session, request, pdu, complete);
}

void SnmpRequests::GetNext(AgentxSession *session, const netsnmp_pdu *request) {
  std::unique_ptr<netsnmp_pdu, FreePdu> pdu(NewAnswer(*session));
  VariableList list(pdu.get());
  bool complete = true;
  for (const netsnmp_variable_list *asked = request->variables; asked != nullptr;
       asked = asked->next_variable) {
    Cursor cursor(asked);
    complete = AddNext(*index_, &cursor, &list) && complete;
  }
  Reply(session, request, pdu.release(), complete);
}

// RFC 2741 7.2.3.3. net-snmp's master asks row by row instead; another one may not.
void SnmpRequests::GetBulk(AgentxSession *session, const netsnmp_pdu *request) {
  std::unique_ptr<netsnmp_pdu, FreePdu> pdu(NewAnswer(*session));
  VariableList list(pdu.get());
  bool complete = true;
  std::vector<Cursor> repeated;
  long once = request->non_repeaters;
  for (const netsnmp_variable_list *asked = request->variables; asked != nullptr;
       asked = asked->next_variable) {
    Cursor cursor(asked);
    if (once-- > 0) {
      complete = AddNext(*index_, &cursor, &list) && complete;
    } else {
      repeated.push_back(std::move(cursor));
    }
  }
  size_t added = 0;
  bool more = !repeated.empty();
  for (long repetition = 0; more && repetition < request->max_repetitions; repetition++) {
    more = false;
    for (Cursor &cursor : repeated) {
      complete = AddNext(*index_, &cursor, &list) && complete;
      more = more || !cursor.ended;
    }
    added += repeated.size();
    more = more && added + repeated.size() <= kMostBulkVariables;
  }
  Reply(session, request, pdu.release(), complete);
}

// ---- Sets ----

void SnmpRequests::Answer(AgentxSession *session, long transaction_id, Phase &phase, int error,
                          int error_index) {
  phase.answered = true;
  phase.error = error;
  phase.error_index = error_index;
  Reply(session, {transaction_id, phase.packet_id, phase.flags, error, error_index});
}

// The request has failed by one part, whose error is the one to be told; the others have nothing
// against it, and none of it will be applied.
void SnmpRequests::Fail(AgentxSession *session, long transaction_id, Set &set) {
  set.failed = true;
  if (set.transaction) {
    channel_->Release(*set.transaction);
  }
  for (Phase &test : set.tests) {
    if (!test.answered) {
      Answer(session, transaction_id, test, SNMP_ERR_NOERROR, 0);
    }
  }
}

void SnmpRequests::TestSet(AgentxSession *session, const netsnmp_pdu *request, bool enabled) {
  if (request->variables == nullptr) {
    // No part of a set: there is nothing to apply later.
    Reply(session, {request->transid, request->reqid, static_cast<int>(request->flags),
                    kAgentxProcessingError, 0});
    return;
  }
  Phase phase{request->reqid, static_cast<int>(request->flags)};
  auto place = sets_.find(request->transid);
  if (place != sets_.end()) {
    for (Phase &test : place->second.tests) {
      if (test.packet_id == phase.packet_id) {  // asked again
        if (test.answered) {
          Answer(session, request->transid, test, test.error, test.error_index);
        }
        return;
      }
    }
    // Whatever a master wants: what is applied has been tested before, all of it.
    if (place->second.tests.size() >= kMostParts || !place->second.commits.empty()) {
      Answer(session, request->transid, phase, SNMP_ERR_RESOURCEUNAVAILABLE, 1);
      return;
    }
  }

  std::vector<SetItem> items;
  int error = SNMP_ERR_NOERROR;
  int number = 0;
  for (const netsnmp_variable_list *asked = request->variables;
       asked != nullptr && error == SNMP_ERR_NOERROR; asked = asked->next_variable) {
    number++;
    items.emplace_back();
    error = !enabled ? SNMP_ERR_NOTWRITABLE
                     : CheckSet(*index_, {asked->name, asked->name_length}, asked->type,
                                asked->val.string, asked->val_len, &items.back());
  }
  if (place == sets_.end() && sets_.size() >= kMostSets) {
    MakeRoom(session);
    if (sets_.size() >= kMostSets) {
      Answer(session, request->transid, phase,
             error == SNMP_ERR_NOERROR ? SNMP_ERR_RESOURCEUNAVAILABLE : error, number);
      return;
    }
  }

  Set &set = sets_[request->transid];
  if (!set.transaction) {
    set.deadline = Clock::now() + kSetPatience;
    set.transaction = channel_->Begin(set.deadline);
  }
  // What its later phases need is there before anything is begun.
  set.commits.reserve(set.tests.size() + 1);
  set.tests.push_back(phase);
  if (error == SNMP_ERR_NOERROR && !set.failed) {
    set.tests.back().part = channel_->AddPart(*set.transaction, std::move(items));
    Progress(session, request->transid, set);
    return;
  }
  Answer(session, request->transid, set.tests.back(), error,
         error == SNMP_ERR_NOERROR ? 0 : number);
  Fail(session, request->transid, set);
}

// Sets that were undone, or are past their deadline and answered for, are over; they are remembered
// only for phases that come twice.
void SnmpRequests::MakeRoom(AgentxSession *session) {
  Clock::time_point now = Clock::now();
  for (auto place = sets_.begin(); place != sets_.end();) {
    Set &set = place->second;
    Progress(session, place->first, set);
    const bool over = set.undone || (now >= set.deadline && !IsAwaited(set));
    place = over ? Forget(place) : std::next(place);
  }
}

// Whether the master waits for an answer to one of its phases.
bool SnmpRequests::IsAwaited(const Set &set) {
  const auto waits = [](const Phase &phase) { return !phase.answered; };
  return std::any_of(set.tests.begin(), set.tests.end(), waits) ||
         std::any_of(set.commits.begin(), set.commits.end(), waits);
}

// Nothing of it runs any more, and nobody keeps it for the answer.
SnmpRequests::SetPlace SnmpRequests::Forget(SetPlace place) {
  if (place->second.transaction) {
    channel_->Release(*place->second.transaction);
  }
  return sets_.erase(place);
}

void SnmpRequests::CommitSet(AgentxSession *session, const netsnmp_pdu *request) {
  Phase phase{request->reqid, static_cast<int>(request->flags)};
  auto place = sets_.find(request->transid);
  if (place == sets_.end()) {
    Answer(session, request->transid, phase, SNMP_ERR_COMMITFAILED, 1);
    return;
  }
  Set &set = place->second;
  for (Phase &commit : set.commits) {
    if (commit.packet_id == phase.packet_id) {
      if (commit.answered) {
        Answer(session, request->transid, commit, commit.error, commit.error_index);
      }
      return;
    }
  }
  // The master commits the parts in the order in which it had them tested.
  size_t number = set.commits.size();
  if (number >= kMostParts) {
    Answer(session, request->transid, phase, SNMP_ERR_COMMITFAILED, 1);
    return;
  }
  set.commits.push_back(phase);
  if (number >= set.tests.size() || set.tests[number].part < 0 || set.failed) {
    Answer(session, request->transid, set.commits.back(), SNMP_ERR_COMMITFAILED, 1);
    return;
  }
  set.commits.back().part = set.tests[number].part;
  channel_->RequestApply(*set.transaction);
  Progress(session, request->transid, set);
}

// A handler cannot take back what it has done. Where the apply itself failed, the manager is to
// hear of that.
void SnmpRequests::UndoSet(AgentxSession *session, const netsnmp_pdu *request) {
  int error = SNMP_ERR_NOERROR;
  auto place = sets_.find(request->transid);
  if (place != sets_.end()) {
    Set &set = place->second;
    bool applied = false;
    bool failed = false;
    for (const Phase &commit : set.commits) {
      applied = applied || (commit.answered && commit.error == SNMP_ERR_NOERROR);
      failed = failed || (commit.answered && commit.error != SNMP_ERR_NOERROR);
    }
    if (applied && !failed) {
      error = SNMP_ERR_UNDOFAILED;
    }
    set.undone = true;
    if (set.transaction) {
      channel_->Release(*set.transaction);
    }
  }
  Reply(session, {request->transid, request->reqid, static_cast<int>(request->flags), error,
                  error == SNMP_ERR_NOERROR ? 0 : 1});
}

// Without an answer: RFC 2741 7.2.4.4.
void SnmpRequests::CleanupSet(const netsnmp_pdu *request) {
  auto place = sets_.find(request->transid);
  if (place != sets_.end()) {
    Forget(place);
  }
}

void SnmpRequests::Progress(AgentxSession *session, long transaction_id, Set &set) {
  for (Phase &test : set.tests) {
    if (test.answered) {
      continue;
    }
    SetPort::CheckResult result = channel_->CheckOf(*set.transaction, test.part);
    switch (result.state) {
      case SetPort::Check::kPending:
        break;
      case SetPort::Check::kAccepted:
        Answer(session, transaction_id, test, SNMP_ERR_NOERROR, 0);
        break;
      case SetPort::Check::kRefused:
        set.failed = true;
        Answer(session, transaction_id, test, SNMP_ERR_WRONGVALUE, result.failed_item + 1);
        break;
      case SetPort::Check::kUndecided:
        set.failed = true;
        Answer(session, transaction_id, test, SNMP_ERR_RESOURCEUNAVAILABLE, 1);
        break;
    }
  }
  for (Phase &commit : set.commits) {
    if (commit.answered) {
      continue;
    }
    SetPort::ApplyResult result = channel_->ApplyOf(*set.transaction, commit.part);
    switch (result.state) {
      case SetPort::Apply::kPending:
        break;
      case SetPort::Apply::kApplied:
        Answer(session, transaction_id, commit, SNMP_ERR_NOERROR, 0);
        break;
      case SetPort::Apply::kFailed:
        Answer(session, transaction_id, commit, SNMP_ERR_COMMITFAILED, result.failed_item + 1);
        break;
    }
  }
}

void SnmpRequests::Work(AgentxSession *session) {
  size_t paid = 0;
  while (paid < owed_count_ && SendShort(session, owed_[paid])) {
    paid++;
  }
  std::copy(owed_.begin() + static_cast<std::ptrdiff_t>(paid),
            owed_.begin() + static_cast<std::ptrdiff_t>(owed_count_), owed_.begin());
  owed_count_ -= paid;
  Clock::time_point now = Clock::now();
  for (auto place = sets_.begin(); place != sets_.end();) {
    Progress(session, place->first, place->second);
    place = now >= place->second.deadline + kForgetAfter ? Forget(place) : std::next(place);
  }
}

Clock::time_point SnmpRequests::NextDue() const {
  Clock::time_point due =
      owed_count_ > 0 ? Clock::now() + kPayAgainAfter : Clock::time_point::max();
  for (const auto &[id, set] : sets_) {
    due = std::min(due, set.deadline + (IsAwaited(set) ? channel_->Lateness() : kForgetAfter));
  }
  return due;
}

void SnmpRequests::SessionLost() {
  for (auto place = sets_.begin(); place != sets_.end();) {
    place = Forget(place);
  }
  owed_count_ = 0;
}

}  // namespace vex
