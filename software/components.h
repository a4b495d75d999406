// The maker's utilities that are not installed as packages: their records, and their versions from
// the platform EV that the utilities' installers maintain.
#ifndef VEX_SOFTWARE_COMPONENTS_H
#define VEX_SOFTWARE_COMPONENTS_H

#include "software/swver.h"

// The records as rows start with them, in the order of the rows, ended by one whose index is 0.
const swver_data *component_records();

// The record of that name, or null.
const swver_data *find_component(const char *name);

// Gives the rows of type SWVER_TYPE_COMPONENT the versions that the EV reports. The EV is read once
// in the life of the process. Returns 0, or -1 when it could not be read.
int update_component_versions();

#endif
