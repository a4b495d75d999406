#include "framework/snmp/snmp_ask.h"

#include <poll.h>

#include <algorithm>
#include <memory>

#include "framework/snmp/snmp_query.h"

namespace vex {
namespace {

constexpr std::chrono::seconds kPatience{2};
constexpr int kLookMilliseconds = 50;
constexpr long kProbeMicroseconds = 1000000;
constexpr long kWalkMicroseconds = 5000000;
constexpr int kRowsAtOnce = 40;

struct SessionCloser {
  void operator()(void *handle) const {
    snmp_sess_close(handle);
  }
};
struct PduFreer {
  void operator()(netsnmp_pdu *pdu) const {
    snmp_free_pdu(pdu);
  }
};

SnmpValue ValueOf(const netsnmp_variable_list &variable) {
  SnmpValue value;
  value.name.assign(variable.name, variable.name + variable.name_length);
  if (variable.type == ASN_INTEGER && variable.val.integer != nullptr) {
    value.integer = static_cast<int32_t>(*variable.val.integer);
  } else if (variable.type == ASN_OCTET_STR) {
    value.octets = std::string(reinterpret_cast<const char *>(variable.val.string),
                               variable.val.string != nullptr ? variable.val_len : 0);
  }
  return value;
}

// Takes what an answer has of the subtree. False at the subtree's end.
bool TakeAnswer(const netsnmp_pdu &answer, std::span<const uint32_t> root,
                std::vector<SnmpValue> *values) {
  for (const netsnmp_variable_list *variable = answer.variables; variable != nullptr;
       variable = variable->next_variable) {
    const bool below =
        variable->name_length > root.size() && std::equal(root.begin(), root.end(), variable->name);
    if (!below || variable->type == SNMP_ENDOFMIBVIEW) {
      return false;
    }
    SnmpValue value = ValueOf(*variable);
    if (!values->empty() &&
        !std::lexicographical_compare(values->back().name.begin(), values->back().name.end(),
                                      value.name.begin(), value.name.end())) {
      return false;  // an agent that does not go on would be asked for ever
    }
    values->push_back(std::move(value));
  }
  return answer.variables != nullptr;
}

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

bool WalkSnmp(const std::string &address, const std::string &community,
              std::span<const uint32_t> root, std::vector<SnmpValue> *values) {
  std::string peer = "udp:" + address + ":161";
  std::string password = community;
  netsnmp_session session;
  snmp_sess_init(&session);
  session.version = SNMP_VERSION_2c;
  session.peername = peer.data();
  session.timeout = kWalkMicroseconds;
  session.retries = 0;
  session.community = reinterpret_cast<unsigned char *>(password.data());
  session.community_len = password.size();
  const std::unique_ptr<void, SessionCloser> handle(snmp_sess_open(&session));
  if (!handle) {
    return false;
  }
  std::vector<oid> from(root.begin(), root.end());
  for (;;) {
    netsnmp_pdu *question = snmp_pdu_create(SNMP_MSG_GETBULK);
    if (question == nullptr) {
      return false;
    }
    question->non_repeaters = 0;
    question->max_repetitions = kRowsAtOnce;
    snmp_add_null_var(question, from.data(), from.size());
    netsnmp_pdu *received = nullptr;
    const int status = snmp_sess_synch_response(handle.get(), question, &received);
    const std::unique_ptr<netsnmp_pdu, PduFreer> answer(received);
    if (status != STAT_SUCCESS || !answer || answer->errstat != SNMP_ERR_NOERROR) {
      return false;
    }
    if (!TakeAnswer(*answer, root, values)) {
      return true;
    }
    from.assign(values->back().name.begin(), values->back().name.end());
  }
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
