// Hardware-info object: the class of the hardware platform, from a platform EV.
#ifndef VEX_IDENTITY_HWINFO_H
#define VEX_IDENTITY_HWINFO_H

#include <stdint.h>

#include "common/group.h"

extern const group hwinfo_group;

inline constexpr char platform_ev[] = "ZTHRN4";
inline constexpr uint32_t platform_ev_size = 5;  // a shorter one is taken as absent

// Builds the object, once, and publishes it when the EV can be read. Returns 0, or -1 when the
// object cannot be created.
int do_hwinfo();

#endif
