// The OS identity group: what the host is, two role texts that a manager may set and that outlive
// the agent, and whether something holds the telnet port.
#ifndef VEX_IDENTITY_INFO_H
#define VEX_IDENTITY_INFO_H

// With start_up, builds the group; otherwise refreshes it, which is the telnet probe alone. Returns
// log_data()'s result, or -1 when the object cannot be created or is gone.
int do_info(int start_up);

#endif
