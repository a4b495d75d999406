// The OS identity group: what the host is, two role texts that a manager may set and that outlive
// the agent, and whether something holds the telnet port.
#ifndef VEX_IDENTITY_INFO_H
#define VEX_IDENTITY_INFO_H

#include "common/group.h"

extern const group info_group;

// Builds the group at the first call; later ones refresh it, which is the telnet probe alone.
// Returns log_data()'s result, or -1 when the object cannot be created or is gone.
int do_info();

#endif
