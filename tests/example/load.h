// Load averages, and whether the first one is above a manager's limit.
#ifndef VEX_TESTS_EXAMPLE_LOAD_H
#define VEX_TESTS_EXAMPLE_LOAD_H

#include <stdint.h>

// Builds the group at the first call and refreshes it at each. Returns 0, or -1 when its object
// cannot be created or found.
int do_load();

enum load_average { ONE_MINUTE, FIVE_MINUTES, FIFTEEN_MINUTES, LOAD_AVERAGES };

// Takes the averages, in hundredths, from what /proc/loadavg holds. Returns 0, or -1 when the text
// is of another form; the averages are then as they were.
int parse_loadavg(const char *text, int32_t averages[LOAD_AVERAGES]);

#endif
