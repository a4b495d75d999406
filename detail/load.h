// Load averages and uptime.
#ifndef VEX_DETAIL_LOAD_H
#define VEX_DETAIL_LOAD_H

#include <stdint.h>

#include "common/group.h"

extern const group load_group;

// Builds the group at the first call and refreshes it at later ones. Returns 0, or -1 when its
// object cannot be made or is gone.
int do_load();

// The three averages of /proc/loadavg (proc(5): "0.20 0.18 0.12 1/80 11206"), in hundredths. False,
// and all three -1, when the text does not begin with three numbers.
bool parse_loadavg(const char *text, int32_t hundredths[3]);

// The whole seconds of /proc/uptime (proc(5): "350735.47 234388.90"); -1 when the text does not
// begin with a number.
int32_t parse_uptime(const char *text);

#endif
