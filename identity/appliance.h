// The appliance group, on machines that are appliances.
#ifndef VEX_IDENTITY_APPLIANCE_H
#define VEX_IDENTITY_APPLIANCE_H

#include "common/group.h"

extern const group appliance_group;

// Builds the group at the first call and refreshes it at later ones; on a machine that is no
// appliance there is nothing to do. Returns 0, or -1 when the object cannot be created or is gone.
int do_appliance();

#endif
