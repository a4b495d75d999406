// The programmable-logic devices of the Servala KX770 R7.
#ifndef VEX_FIRMWARE_PROGRAMMABLE_LOGIC_H
#define VEX_FIRMWARE_PROGRAMMABLE_LOGIC_H

#include "firmware/fwver.h"

// Serves the eleven devices in the order of the collector table, one a call: every pass must call
// it once for each.
int collect_programmable_logic(FILE *stream, const char *name, firmware_record *record, int *more);

#endif
