// Notifications that nobody took before the agent ended, kept in the registry's root for the next
// one: an upgrade or a restart while the master is away loses none.
#ifndef VEX_FRAMEWORK_UNSENT_H
#define VEX_FRAMEWORK_UNSENT_H

#include <span>
#include <string>
#include <vector>

#include "framework/snmp_side.h"

namespace vex {

// The file of an application: its name and ".traps", below the root. Both functions: any thread,
// but one at a time for one application.

// Adds them, oldest first, to what was kept and not taken; the newest 256 stay. On the disk before
// it returns. 0 (also when there are none, and then nothing is written) or -1 with errno; the file
// is then as it was.
int KeepUnsent(const std::string &root, const std::string &application,
               std::span<const Notification> notifications);
// Reads what was kept and removes the file, so that nothing is sent twice. Empty when there is
// none, or it is not this user's plain file, or it is damaged.
std::vector<Notification> TakeUnsent(const std::string &root, const std::string &application);

}  // namespace vex

#endif
