// What the SNMP process gives up before it reads anything of anybody's.
#ifndef VEX_FRAMEWORK_SNMP_CONFINEMENT_H
#define VEX_FRAMEWORK_SNMP_CONFINEMENT_H

#include <sys/types.h>

#include <optional>

namespace vex {

// Who the SNMP process is. The package makes the user.
inline constexpr char kSnmpUser[] = "_vexhostd";

// How the starter's process is named.
inline constexpr char kSnmpStarter[] = "snmp-starter";

struct SnmpUser {
  uid_t uid;
  gid_t gid;
};
// As /etc/passwd has it; nothing when it has none, or one with root's numbers. Other sources of
// users may ask the network, and are not asked. False with errno when the file cannot be read.
bool FindSnmpUser(std::optional<SnmpUser> *user);

// Why a step failed, for the log: what, and errno is why. Null when it did not.
using Failure = const char *;

// In the starter, root: an empty root directory that has no name any more, and of all capabilities
// those alone that ConfineSnmpProcess() needs. It may end the user's processes.
Failure ConfineStarter(const SnmpUser &user);
// In the SNMP process, root till then: another user, no capabilities, limits, no debugger, and a
// list of allowed system calls; for good. Ends with the process that started it.
Failure ConfineSnmpProcess(const SnmpUser &user);
// In the agent, once the starter runs and before there is a thread: where programs that are started
// cannot get capabilities back, gives up those that the starter alone needed. False with errno
// where they stay.
bool GiveUpStartersCapabilities();

// SIGKILL for this process when the one that started it, `parent`, ends. False when it has.
bool EndWithParent(pid_t parent);

}  // namespace vex

#endif
