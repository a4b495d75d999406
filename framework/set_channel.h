// Sets on their way from the SNMP thread to the agent thread and back, with a deadline of 0.7
// seconds in all, so that a busy agent never holds up the master and no set is applied late.
#ifndef VEX_FRAMEWORK_SET_CHANNEL_H
#define VEX_FRAMEWORK_SET_CHANNEL_H

#include <cstdint>
#include <vector>

namespace vex {

// One variable of a set request; object and variable exist and passed the type, access and length
// checks.
struct SetItem {
  uint64_t object_id = 0;
  int slot = 0;
  std::vector<uint8_t> value;  // an int32_t in host order, or the octets followed by a NUL
  int length = 0;              // without that NUL
};

// ---- agent thread ----

// Becomes readable when ServeSets() has work; owned by the channel.
int SetChannelFd();
// Runs one phase (enum set_phase) of one variable's set, on the agent thread: calls the variable's
// handler (or checks and stores when it has none), and, after an accepted apply, hands the
// variable's current value to the SNMP side. 0 or -1 (also when the object is gone).
using SetRunner = int (*)(uint8_t phase, SetItem &item);
// Runs what is queued: the checks of a request, then, held until its deadline at the latest, its
// apply. Called from the main loop, never while a hook runs.
void ServeSets(SetRunner run);
// Sets are refused from now on (before the clean-up).
void CloseSets();

}  // namespace vex

#endif
