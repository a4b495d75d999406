#include "framework/snmp/snmp_ask.h"

#include <poll.h>

#include <memory>

#include "framework/snmp/snmp_query.h"

namespace vex {
namespace {

constexpr std::chrono::seconds kPatience{2};
constexpr int kLookMilliseconds = 50;
constexpr long kProbeMicroseconds = 1000000;

}  // namespace

SnmpReply AskSnmp(const std::string &address, const std::string &community,
                  std::span<const uint32_t> oid, bool next) {
  auto query = std::make_shared<SnmpQuery>();
  query->address = address;
  query->community = community;
  query->oid.assign(oid.begin(), oid.end());
  query->next = next;
  SnmpQueries queries;
  queries.Start(query);
  const auto until = Clock::now() + kPatience;
  while (!queries.Empty() && Clock::now() < until) {
    std::vector<int> sockets;
    queries.Collect(&sockets);
    pollfd wait = {sockets.front(), POLLIN, 0};
    if (poll(&wait, 1, kLookMilliseconds) > 0) {
      queries.Ready(wait.fd);
    }
    queries.Work();
  }
  SnmpReply reply;
  reply.answered = query->has_status;
  reply.refused = query->refused;
  reply.error = query->status;
  reply.name = query->name;
  if (query->has_value) {
    reply.value = query->value;
  }
  return reply;
}

bool SnmpEngineAnswers(const std::string &address) {
  std::string peer = "udp:" + address + ":161";
  std::string nobody = "nobody";
  netsnmp_session session;
  snmp_sess_init(&session);
  session.version = SNMP_VERSION_3;
  session.peername = peer.data();
  session.timeout = kProbeMicroseconds;
  session.retries = 0;
  session.securityName = nobody.data();
  session.securityNameLen = nobody.size();
  session.securityLevel = SNMP_SEC_LEVEL_NOAUTH;
  void *handle = snmp_sess_open(&session);
  if (handle == nullptr) {
    return false;
  }
  // Before the question itself the library asks for the engine's identifier, which needs no user
  // (RFC 3414, section 4). What becomes of the question does not matter.
  const oid anything[] = {1, 3};
  netsnmp_pdu *answer = nullptr;
  netsnmp_pdu *question = snmp_pdu_create(SNMP_MSG_GET);
  if (question != nullptr) {
    snmp_add_null_var(question, anything, OID_LENGTH(anything));
    snmp_sess_synch_response(handle, question, &answer);
    snmp_free_pdu(answer);
  }
  const bool answers = snmp_sess_session(handle)->securityEngineIDLen != 0;
  snmp_sess_close(handle);
  return answers;
}

}  // namespace vex
