#include "framework/snmp/snmp_query.h"

#include <net-snmp/library/large_fd_set.h>

#include <algorithm>
#include <climits>
#include <exception>

namespace vex {
namespace {

// Two tries within the two seconds that the caller waits.
constexpr long kTryMicroseconds = 900000;
constexpr int kRetries = 1;
constexpr std::chrono::milliseconds kWorkInterval{50};

// What goes into 32 bits and does not fit is clamped to the largest value.
int32_t Clamp(const netsnmp_variable_list &variable) {
  long value = *variable.val.integer;
  if (variable.type != ASN_INTEGER) {
    value &= 0xffffffffL;
  }
  return static_cast<int32_t>(std::clamp<long>(value, INT32_MIN, INT32_MAX));
}

}  // namespace

bool SnmpQuery::Wait(Clock::time_point until) {
  std::unique_lock lock(mutex_);
  return changed_.wait_until(lock, until, [this] { return done_; });
}

bool SnmpQuery::AnsweredLate() {
  std::lock_guard lock(mutex_);
  return done_ && has_status;
}

bool SnmpQuery::Ended() {
  std::lock_guard lock(mutex_);
  return done_;
}

void SnmpQuery::Done() {
  std::lock_guard lock(mutex_);
  done_ = true;
  changed_.notify_all();
}

SnmpQueries::~SnmpQueries() {
  for (Running &running : running_) {
    running.finished = true;
    snmp_sess_close(running.handle);
    running.query->Done();
  }
}

void SnmpQueries::Start(const std::shared_ptr<SnmpQuery> &query) {
  try {
    running_.push_back({query});
  } catch (const std::exception &) {
    query->Done();
    return;
  }
  Running &running = running_.back();
  try {
    query->sent = Send(&running);
  } catch (const std::exception &) {
    query->sent = false;
  }
  running.finished = running.finished || !query->sent;
  next_work_ = Clock::now() + kWorkInterval;
  Sweep();
}

bool SnmpQueries::Send(Running *running) {
  SnmpQuery &query = *running->query;
  const std::vector<oid> name(query.oid.begin(), query.oid.end());
  std::string community = query.community;
  netsnmp_session session;
  snmp_sess_init(&session);
  session.version = SNMP_VERSION_2c;
  session.timeout = kTryMicroseconds;
  session.retries = kRetries;
  session.community = reinterpret_cast<u_char *>(community.data());
  session.community_len = community.size();

  netsnmp_transport *transport = DatagramTransport(
      query.socket ? query.socket.Release() : ConnectUdp(query.address, kSnmpPort));
  if (transport != nullptr) {
    running->handle = snmp_sess_add(&session, transport, nullptr, nullptr);
  }
  if (running->handle == nullptr) {
    return false;
  }
  netsnmp_pdu *pdu = snmp_pdu_create(query.next ? SNMP_MSG_GETNEXT : SNMP_MSG_GET);
  if (pdu == nullptr) {
    return false;
  }
  if (snmp_add_null_var(pdu, name.data(), name.size()) == nullptr ||
      snmp_sess_async_send(running->handle, pdu, Answered, running) == 0) {
    snmp_free_pdu(pdu);
    return false;
  }
  return true;
}

int SnmpQueries::Answered(int operation, netsnmp_session *, int, netsnmp_pdu *pdu, void *magic) {
  auto *running = static_cast<Running *>(magic);
  if (running->finished || operation == NETSNMP_CALLBACK_OP_RESEND) {
    return 1;
  }
  if (operation == NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE && pdu->command == SNMP_MSG_RESPONSE) {
    SnmpQuery &query = *running->query;
    query.has_status = true;
    query.status = static_cast<int>(pdu->errstat);
    const netsnmp_variable_list *variable = pdu->variables;
    if (pdu->errstat == SNMP_ERR_NOERROR && variable != nullptr) {
      try {
        query.name.assign(variable->name, variable->name + variable->name_length);
      } catch (const std::exception &) {
        query.name.clear();  // nothing may be thrown through the library
      }
    }
    if (pdu->errstat == SNMP_ERR_NOERROR && variable != nullptr &&
        variable->name_length == query.oid.size() &&
        std::equal(query.oid.begin(), query.oid.end(), variable->name,
                   [](uint32_t a, oid b) { return a == b; })) {
      switch (variable->type) {
        case ASN_INTEGER:
        case ASN_COUNTER:
        case ASN_GAUGE:
        case ASN_TIMETICKS:
          query.value = Clamp(*variable);
          query.has_value = true;
          break;
        default:
          break;
      }
    }
  }
  running->finished = true;
  return 1;
}

void SnmpQueries::Collect(std::vector<int> *fds) const {
  for (const Running &running : running_) {
    fds->push_back(snmp_sess_transport(running.handle)->sock);
  }
}

void SnmpQueries::Ready(int fd) {
  for (Running &running : running_) {
    if (snmp_sess_transport(running.handle)->sock != fd) {
      continue;
    }
    netsnmp_large_fd_set set;
    netsnmp_large_fd_set_init(&set, fd + 1);
    NETSNMP_LARGE_FD_ZERO(&set);
    NETSNMP_LARGE_FD_SET(fd, &set);
    netsnmp_session *session = snmp_sess_session(running.handle);
    // A socket error (nobody listens on the port) ends the query at once.
    if (snmp_sess_read2(running.handle, &set) != 0 &&
        session->s_snmp_errno == SNMPERR_BAD_RECVFROM) {
      running.query->refused = true;
      running.finished = true;
    }
    netsnmp_large_fd_set_cleanup(&set);
    break;
  }
  Sweep();
}

void SnmpQueries::Work() {
  if (running_.empty() || Clock::now() < next_work_) {
    return;
  }
  next_work_ = Clock::now() + kWorkInterval;
  for (Running &running : running_) {
    snmp_sess_timeout(running.handle);
  }
  Sweep();
}

Clock::time_point SnmpQueries::NextDue() const {
  return running_.empty() ? Clock::time_point::max() : next_work_;
}

void SnmpQueries::Sweep() {
  for (auto place = running_.begin(); place != running_.end();) {
    if (!place->finished) {
      ++place;
      continue;
    }
    if (place->handle != nullptr) {
      snmp_sess_close(place->handle);
    }
    place->query->Done();
    place = running_.erase(place);
  }
}

}  // namespace vex
