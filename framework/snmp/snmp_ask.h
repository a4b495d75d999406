// Questions to an SNMP agent from a process without an SNMP side: a tool's. Each takes at most
// the time it says, whatever the agent does. After ReadSnmpFiles().
#ifndef VEX_FRAMEWORK_SNMP_SNMP_ASK_H
#define VEX_FRAMEWORK_SNMP_SNMP_ASK_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vex {

// Where the machine's own agent answers.
inline constexpr char kLoopbackAddress[] = "127.0.0.1";

struct SnmpReply {
  bool answered = false;
  bool refused = false;          // nobody listens at the address
  int error = 0;                 // error-status of the answer
  std::vector<uint32_t> name;    // of its first variable
  std::optional<int32_t> value;  // an integer of the name that a GET asked for
};

// An SNMPv2c GET, or GETNEXT, at address:161; two seconds at most.
SnmpReply AskSnmp(const std::string &address, const std::string &community,
                  std::span<const uint32_t> oid, bool next);
// A variable that a walk came across: an integer or octets; neither for another type.
struct SnmpValue {
  std::vector<uint32_t> name;
  std::optional<int32_t> integer;
  std::optional<std::string> octets;
};
// All variables below root at address:161, in their order, by GETBULK; five seconds at most for
// each answer. False when one did not come or was an error: what came before it is there.
bool WalkSnmp(const std::string &address, const std::string &community,
              std::span<const uint32_t> root, std::vector<SnmpValue> *values);
// Whether an SNMPv3 engine answers there, which tells that the agent is alive whatever communities
// it takes; a second at most.
bool SnmpEngineAnswers(const std::string &address);

}  // namespace vex

#endif
