// The service manager's notification socket (sd_notify(3)); all of it nothing without one.
#ifndef VEX_FRAMEWORK_PROCESS_SYSTEMD_H
#define VEX_FRAMEWORK_PROCESS_SYSTEMD_H

#include <cstdint>

namespace vex {

// Reads the environment, and takes the variables out of it for the commands that we start.
void SystemdPrepare();
// Start-up is complete. From now on the relay thread (without an SNMP process, the SNMP thread)
// keeps the watchdog fed at half its interval, unless the agent thread has been in one hook for
// more than an hour.
void SystemdReady();
void SystemdStopping();

// Whether the watchdog may be fed: in_hook_since as InHookSince(), both nanoseconds.
bool AgentThreadAlive(int64_t in_hook_since, int64_t now);

}  // namespace vex

#endif
