// The agent itself: its version, when it was started, and how its polls go.
#ifndef VEX_DETAIL_AGENT_STATE_H
#define VEX_DETAIL_AGENT_STATE_H

#include <stdint.h>

#include "common/group.h"

extern const group agent_group;

// Builds the group at the first call, which is at the agent's start, and publishes it at later
// ones. Returns 0, or -1 when its object cannot be made or is gone.
int do_agent();

// Takes note of a poll that has just ended: how many milliseconds it took, and whether it ended
// early. The next do_agent() publishes it.
void note_poll(int64_t milliseconds, bool failed);

#endif
