#include "framework/snmp/agentx_session.h"

#include <poll.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "framework/snmp/oid_name.h"
#include "platform/framework.h"

// libnetsnmpagent exports its AgentX encoding without a header for it.
extern "C" {
int agentx_parse(netsnmp_session *, netsnmp_pdu *, u_char *, size_t);
int agentx_realloc_build(netsnmp_session *, netsnmp_pdu *, u_char **, size_t *, size_t *);
int agentx_check_packet(u_char *, size_t);
}

#include <net-snmp/library/large_fd_set.h>

namespace vex {

struct AgentxSession::Waiting {
  AgentxSession *session;
  Answer answer;
};

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// net-snmp's number for AgentX version 1 (agentx/protocol.h).
constexpr long kAgentxVersion = 0xc1;
// RFC 2741 6.2.2.
constexpr int kReasonShutdown = 5;

// A master that does not answer is frozen, not gone: its end of the socket says when it goes.
// Another connection would only lengthen its queue.
constexpr seconds kOpenPatience{60};
constexpr seconds kPingPatience{15};
// After a crash the master may still hold the registration of the process before, for a moment. A
// second daemon beside a running one is refused for as long as both run.
constexpr milliseconds kFirstRefusalRetry{100};
constexpr seconds kLastRefusalRetry{10};

// Requests of a manager come over UDP; in AgentX their names grow to four octets a number.
constexpr int kLongestPacket = 1 << 20;
constexpr size_t kHeader = 20;

// The numbers of a packet, one after the other; zeros past its end.
class Numbers {
 public:
  Numbers(const u_char *bytes, size_t length)
      : at_(bytes), left_(length), network_((bytes[2] & kNetworkByteOrder) != 0) {}
  bool More() const {
    return left_ > 0;
  }
  uint32_t Take(size_t octets) {
    uint32_t number = 0;
    for (size_t i = 0; i < octets && i < left_; i++) {
      number |= static_cast<uint32_t>(at_[network_ ? octets - 1 - i : i]) << (8 * i);
    }
    Skip(octets);
    return number;
  }
  void Skip(size_t octets) {
    octets = std::min(octets, left_);
    at_ += octets;
    left_ -= octets;
  }
  void SkipOid() {  // RFC 2741 5.1
    size_t numbers = Take(1);
    Skip(3 + 4 * numbers);
  }
  void SkipOctets() {  // RFC 2741 5.3
    size_t length = Take(4);
    Skip((length + 3) / 4 * 4);
  }

 private:
  const u_char *at_;
  size_t left_;
  bool network_;
};

// How many variables a request has that net-snmp could read: it leaves out, without a word, those
// that it finds no memory for.
size_t CountVariables(int type, const u_char *bytes, size_t length) {
  Numbers numbers(bytes, length);
  numbers.Skip(kHeader);
  if ((bytes[2] & kNonDefaultContext) != 0) {
    numbers.SkipOctets();
  }
  if (type == kAgentxGetBulk) {
    numbers.Skip(4);
  }
  size_t count = 0;
  while (numbers.More()) {
    count++;
    if (type == kAgentxTestSet) {
      const uint32_t variable = numbers.Take(2);
      numbers.Skip(2);
      numbers.SkipOid();
      switch (variable) {
        case ASN_INTEGER:
        case ASN_COUNTER:
        case ASN_GAUGE:
        case ASN_TIMETICKS:
          numbers.Skip(4);
          break;
        case ASN_COUNTER64:
          numbers.Skip(8);
          break;
        case ASN_OBJECT_ID:
          numbers.SkipOid();
          break;
        case ASN_OCTET_STR:
        case ASN_IPADDRESS:
        case ASN_OPAQUE:
          numbers.SkipOctets();
          break;
        default:  // without a value
          break;
      }
    } else {
      numbers.SkipOid();
      numbers.SkipOid();
    }
  }
  return count;
}

bool IsRequest(int type) {
  return type >= kAgentxGet && type <= kAgentxCleanupSet;
}

bool HasVariables(int type) {
  return type >= kAgentxGet && type <= kAgentxTestSet;
}

// The session whose socket is being read: net-snmp asks for a packet's length without saying whose.
AgentxSession *reader;

}  // namespace

// The length of the packet that begins here, 0 when that cannot be told yet, or, for net-snmp to
// end the session, -1: it would make room for whatever length a packet claims.
int AgentxSession::CheckPacket(u_char *bytes, size_t length) {
  const int whole = agentx_check_packet(bytes, length);
  if (whole != 0 && (whole < static_cast<int>(kHeader) || whole > kLongestPacket)) {
    return -1;
  }
  if (whole != 0 && static_cast<size_t>(whole) <= length) {
    reader->TellUnread();
    Numbers numbers(bytes, kHeader);
    numbers.Skip(4);
    const uint32_t session = numbers.Take(4);
    const uint32_t transaction = numbers.Take(4);
    reader->arrived_ = PacketHeader{bytes[1], bytes[2], session, transaction, numbers.Take(4)};
  }
  return whole;
}

int AgentxSession::Parse(netsnmp_session *session, netsnmp_pdu *pdu, u_char *bytes, size_t length) {
  const int result = agentx_parse(session, pdu, bytes, length);
  if (result != SNMP_ERR_NOERROR) {
    return result;
  }
  if (HasVariables(pdu->command)) {
    size_t read = 0;
    for (const netsnmp_variable_list *v = pdu->variables; v != nullptr; v = v->next_variable) {
      read++;
    }
    if (read != CountVariables(pdu->command, bytes, length)) {
      return SNMPERR_MALLOC;
    }
  }
  static_cast<AgentxSession *>(session->callback_magic)->arrived_.reset();
  return SNMP_ERR_NOERROR;
}

// A packet that came whole and never reached Packet() or Response(). A request is answered all the
// same. After a response that was lost so, what it was to is not known: another session is begun.
void AgentxSession::TellUnread() {
  if (!arrived_) {
    return;
  }
  const PacketHeader header = *arrived_;
  arrived_.reset();
  if (!IsRequest(header.type)) {
    broken_ = true;
  } else if (Open() && header.session == static_cast<uint32_t>(session_id_)) {
    events_.unread(header);
  }
}

AgentxSession::AgentxSession(Settings settings, Events events)
    : settings_(std::move(settings)),
      events_(std::move(events)),
      registered_(settings_.groups.size(), false) {}

AgentxSession::~AgentxSession() {
  if (handle_ != nullptr) {
    snmp_sess_close(handle_);
  }
}

int AgentxSession::Socket() const {
  return handle_ == nullptr ? -1 : snmp_sess_transport(handle_)->sock;
}

bool AgentxSession::WantsToWrite() const {
  return handle_ != nullptr && HasUnsent(snmp_sess_transport(handle_));
}

Clock::time_point AgentxSession::NextDue() const {
  switch (stage_) {
    case Stage::kDown:
      return Clock::time_point::max();
    case Stage::kOpening:
      return give_up_;
    case Stage::kRegistering:
    case Stage::kUp:
      break;
  }
  Clock::time_point due = ping_unanswered_ ? give_up_ : next_ping_;
  return unregistered_ > 0 ? std::min(due, next_registration_) : due;
}

void AgentxSession::Work() {
  Clock::time_point now = Clock::now();
  if (broken_) {
    Drop();
  }
  if (stage_ == Stage::kDown) {
    return;
  }
  if ((stage_ == Stage::kOpening || ping_unanswered_) && now >= give_up_) {
    Drop();
    return;
  }
  if (stage_ == Stage::kOpening) {
    return;
  }
  if (unregistered_ > 0 && now >= next_registration_) {
    next_registration_ = now + registration_retry_;
    registration_retry_ = std::min<Clock::duration>(registration_retry_ * 2, kLastRefusalRetry);
    for (size_t group = 0; group < settings_.groups.size(); group++) {
      if (!registered_[group]) {
        Register(group);
      }
    }
  }
  if (!ping_unanswered_ && now >= next_ping_) {
    Ping();
  }
  if (broken_) {
    Drop();
  }
}

bool AgentxSession::Adopt(netsnmp_transport *transport) {
  if (transport == nullptr) {
    return false;
  }
  netsnmp_session template_session;
  snmp_sess_init(&template_session);
  template_session.version = kAgentxVersion;
  template_session.flags |= SNMP_FLAGS_STREAM_SOCKET;
  // Nothing is ever sent twice: the stream loses nothing, and a second Open is a second session.
  template_session.retries = 0;
  template_session.timeout = LONG_MAX / 4;
  template_session.callback = Packet;
  template_session.callback_magic = this;
  // The transport is gone when this fails.
  handle_ = snmp_sess_add_ex(&template_session, transport, nullptr, Parse, nullptr, nullptr,
                             agentx_realloc_build, CheckPacket, nullptr);
  if (handle_ == nullptr) {
    return false;
  }
  session_ = snmp_sess_session(handle_);
  session_id_ = 0;
  stage_ = Stage::kOpening;
  give_up_ = Clock::now() + kOpenPatience;

  netsnmp_pdu *pdu = NewPdu(kAgentxOpen);
  if (pdu != nullptr) {
    pdu->time = settings_.timeout_seconds;
    const MibGroup &first = settings_.groups.front();
    const OidName id({first.oid, first.oid_length});
    if (snmp_pdu_add_variable(pdu, id.Numbers(), id.Length(), ASN_OCTET_STR, settings_.name.data(),
                              settings_.name.size()) == nullptr) {
      snmp_free_pdu(pdu);
      pdu = nullptr;
    }
  }
  if (!Send(pdu, [this](const netsnmp_pdu *response) { Opened(response); })) {
    broken_ = true;
  }
  if (broken_) {
    Drop();
  }
  return true;
}

void AgentxSession::Opened(const netsnmp_pdu *response) {
  if (response == nullptr) {
    return;
  }
  if (response->errstat != SNMP_ERR_NOERROR) {
    if (!said_refused_) {
      said_refused_ = true;
      agentlog_fprintf(stderr, "The master agent at %s refuses the session (error %ld)\n",
                       settings_.master.target.c_str(), response->errstat);
    }
    events_.refused();
    refused_ = true;
    broken_ = true;
    return;
  }
  said_refused_ = false;
  session_id_ = response->sessid;
  stage_ = Stage::kRegistering;
  next_ping_ = Clock::now() + seconds(settings_.ping_seconds);
  ping_unanswered_ = false;
  unregistered_ = settings_.groups.size();
  registered_.assign(settings_.groups.size(), false);
  next_registration_ = Clock::now();
  registration_retry_ = kFirstRefusalRetry;
  events_.open();
}

void AgentxSession::Register(size_t group) {
  netsnmp_pdu *pdu = NewPdu(kAgentxRegister);
  if (pdu == nullptr) {
    return;
  }
  const OidName root({settings_.groups[group].oid, settings_.groups[group].oid_length});
  pdu->priority = settings_.priority;
  pdu->time = 0;
  if (snmp_add_null_var(pdu, root.Numbers(), root.Length()) == nullptr) {
    snmp_free_pdu(pdu);
    return;
  }
  if (!Send(pdu, [this, group](const netsnmp_pdu *response) { Registered(group, response); })) {
    broken_ = true;
  }
}

void AgentxSession::Registered(size_t group, const netsnmp_pdu *response) {
  if (response == nullptr || registered_[group]) {
    return;
  }
  if (response->errstat != SNMP_ERR_NOERROR) {
    if (!said_duplicate_) {
      said_duplicate_ = true;
      agentlog_fprintf(stderr, "The master agent refuses the %s group (error %ld); trying again\n",
                       settings_.groups[group].name, response->errstat);
    }
    return;
  }
  events_.welcome();
  registered_[group] = true;
  unregistered_--;
  if (unregistered_ > 0) {
    return;
  }
  stage_ = Stage::kUp;
  said_duplicate_ = false;
  events_.up();
  agentlog_fprintf(stderr, "Info: connected to the master agent at %s\n",
                   settings_.master.target.c_str());
}

void AgentxSession::Ping() {
  netsnmp_pdu *pdu = NewPdu(kAgentxPing);
  if (pdu == nullptr) {
    next_ping_ = Clock::now() + kFirstRefusalRetry;
    return;
  }
  ping_unanswered_ = true;
  give_up_ = Clock::now() + kPingPatience;
  bool sent = Send(pdu, [this](const netsnmp_pdu *response) {
    ping_unanswered_ = false;
    next_ping_ = Clock::now() + seconds(settings_.ping_seconds);
    if (response != nullptr && response->errstat != SNMP_ERR_NOERROR) {
      broken_ = true;
    }
  });
  if (!sent) {
    broken_ = true;
  }
}

netsnmp_pdu *AgentxSession::NewPdu(int type) const {
  netsnmp_pdu *pdu = snmp_pdu_create(type);
  if (pdu != nullptr) {
    pdu->version = kAgentxVersion;
    pdu->sessid = session_id_;
  }
  return pdu;
}

bool AgentxSession::Send(netsnmp_pdu *pdu, Answer answer) noexcept {
  too_long_ = false;
  if (pdu == nullptr) {
    return false;
  }
  if (handle_ == nullptr || broken_) {
    snmp_free_pdu(pdu);
    return false;
  }
  Waiting *waiting = nullptr;
  if (answer) {
    waiting = new (std::nothrow) Waiting{this, std::move(answer)};
    if (waiting == nullptr) {
      snmp_free_pdu(pdu);
      return false;
    }
  }
  if (snmp_sess_async_send(handle_, pdu, waiting != nullptr ? Response : nullptr, waiting) == 0) {
    broken_ = session_->s_snmp_errno == SNMPERR_BAD_SENDTO;
    too_long_ = session_->s_snmp_errno == SNMPERR_TOO_LONG;
    snmp_free_pdu(pdu);
    delete waiting;
    return false;
  }
  return true;
}

// A response, or the end of the session before it came.
int AgentxSession::Response(int operation, netsnmp_session *, int, netsnmp_pdu *pdu, void *magic) {
  auto *waiting = static_cast<Waiting *>(magic);
  if (operation == NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE) {
    // The master has closed the session and kept the connection.
    if (pdu->errstat == kAgentxNotOpen) {
      waiting->session->broken_ = true;
    }
    waiting->answer(pdu);
    delete waiting;
  } else if (operation == NETSNMP_CALLBACK_OP_TIMED_OUT) {
    waiting->answer(nullptr);
    delete waiting;
  }
  return 1;
}

// What is not a response: requests of the master, and the end of the connection.
int AgentxSession::Packet(int operation, netsnmp_session *, int, netsnmp_pdu *pdu, void *magic) {
  auto *self = static_cast<AgentxSession *>(magic);
  if (operation == NETSNMP_CALLBACK_OP_DISCONNECT) {
    self->broken_ = true;
    return 1;
  }
  if (operation != NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE) {
    return 1;
  }
  // The master is alive.
  if (!self->ping_unanswered_) {
    self->next_ping_ = Clock::now() + seconds(self->settings_.ping_seconds);
  }
  switch (pdu->command) {
    case kAgentxGet:
    case kAgentxGetNext:
    case kAgentxGetBulk:
    case kAgentxTestSet:
    case kAgentxCommitSet:
    case kAgentxUndoSet:
    case kAgentxCleanupSet:
      self->Request(pdu);
      break;
    case kAgentxClose:
      self->broken_ = true;
      break;
    default:
      break;
  }
  return 1;
}

// RFC 2741 7.2.2: a request of another session, mostly one of before, is not served.
void AgentxSession::Request(netsnmp_pdu *pdu) {
  if (Open() && pdu->sessid == session_id_) {
    events_.request(pdu);
    return;
  }
  if (pdu->command == kAgentxCleanupSet) {
    return;  // has no response
  }
  if (netsnmp_pdu *answer = NewPdu(kAgentxResponse)) {
    answer->sessid = pdu->sessid;
    answer->transid = pdu->transid;
    answer->reqid = pdu->reqid;
    answer->errstat = kAgentxNotOpen;
    Send(answer);
  }
}

void AgentxSession::SocketReady(bool readable, bool writable) {
  if (handle_ == nullptr) {
    return;
  }
  netsnmp_transport *transport = snmp_sess_transport(handle_);
  if (writable && Flush(transport) != 0) {
    broken_ = true;
  }
  if (readable && !broken_ && transport->sock >= 0) {
    netsnmp_large_fd_set set;
    netsnmp_large_fd_set_init(&set, transport->sock + 1);
    NETSNMP_LARGE_FD_ZERO(&set);
    NETSNMP_LARGE_FD_SET(transport->sock, &set);
    arrived_.reset();
    reader = this;
    snmp_sess_read2(handle_, &set);
    reader = nullptr;
    netsnmp_large_fd_set_cleanup(&set);
    TellUnread();
  }
  if (broken_) {
    Drop();
  }
}

void AgentxSession::Drop() {
  bool was_up = stage_ == Stage::kUp;
  bool was_open = Open();
  bool refused = std::exchange(refused_, false);
  stage_ = Stage::kDown;
  void *handle = handle_;
  handle_ = nullptr;
  session_ = nullptr;
  if (handle != nullptr) {
    snmp_sess_close(handle);  // calls Response() for all that is outstanding
  }
  broken_ = false;
  ping_unanswered_ = false;
  if (was_up) {
    agentlog_fprintf(stderr, "Info: lost the master agent at %s\n",
                     settings_.master.target.c_str());
  }
  events_.ended(was_open, refused);
}

void AgentxSession::Close(Clock::time_point until) {
  if (handle_ == nullptr || session_id_ == 0) {
    return;
  }
  netsnmp_pdu *pdu = NewPdu(kAgentxClose);
  if (pdu == nullptr) {
    return;
  }
  pdu->errstat = kReasonShutdown;
  close_answered_ = false;
  bool waiting = Send(pdu, [this](const netsnmp_pdu *) { close_answered_ = true; });
  // What the end of the connection leaves without an answer is told as answered, too.
  while (waiting && !close_answered_ && Clock::now() < until) {
    short wanted = WantsToWrite() ? POLLIN | POLLOUT : POLLIN;
    pollfd entry = {Socket(), wanted, 0};
    if (poll(&entry, 1, 20) > 0) {
      SocketReady((entry.revents & ~POLLOUT) != 0, (entry.revents & POLLOUT) != 0);
    }
  }
}

}  // namespace vex
