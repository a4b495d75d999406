// The system ROM's version, from SMBIOS.
#ifndef VEX_FIRMWARE_SYSTEM_ROM_H
#define VEX_FIRMWARE_SYSTEM_ROM_H

#include "firmware/fwver.h"

int collect_system_rom(FILE *stream, const char *name, firmware_record *record, int *more);

#endif
