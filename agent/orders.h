// The groups that the agent has, in the orders of start-up and poll.
#ifndef VEX_AGENT_ORDERS_H
#define VEX_AGENT_ORDERS_H

#include "common/group.h"

// Each ends with null. The first failure ends the start, or the poll's refresh. A group that is in
// no order of the start is none of the agent's.
extern const group *const start_order[];
extern const group *const last_order[];  // of the start, once snmpd has been looked at
extern const group *const poll_order[];
// After all others, at the start and at the end of each poll, however those ended. A failure ends
// nothing and is tried again by the next poll. The agent's own group is the last.
extern const group *const detail_order[];

#endif
