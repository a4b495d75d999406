// The power-management microcontroller's firmware, from vendor-specific SMBIOS records.
#ifndef VEX_FIRMWARE_POWERPIC_H
#define VEX_FIRMWARE_POWERPIC_H

#include "firmware/fwver.h"

int collect_powerpic(FILE *stream, const char *name, firmware_record *record, int *more);

#endif
