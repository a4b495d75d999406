// Firmware versions from the text files that kernel drivers publish under /proc.
#ifndef VEX_FIRMWARE_PROC_DRIVERS_H
#define VEX_FIRMWARE_PROC_DRIVERS_H

#include "firmware/fwver.h"

// Array controllers, one file each.
int collect_ida(FILE *stream, const char *name, firmware_record *record, int *more);
int collect_cciss(FILE *stream, const char *name, firmware_record *record, int *more);
// Fibre-channel adapters, one file each.
int collect_fibre_channel(FILE *stream, const char *name, firmware_record *record, int *more);
// The kernel's list of SCSI devices, one device a call.
int collect_scsi_device(FILE *stream, const char *name, firmware_record *record, int *more);
// IDE drives, from their identify data.
int collect_ide_drive(FILE *stream, const char *name, firmware_record *record, int *more);
// Network adapters, one file each.
int collect_network_adapter(FILE *stream, const char *name, firmware_record *record, int *more);

// One step of the line scanner: a scanf(3) format, and where its one conversion goes. A null
// destination means that the format only skips input; its conversions are suppressed ("%*").
struct scan_step {
  const char *format;
  char *destination;
};

// Applies the steps in order until the stream ends or a step with a destination converts nothing.
// Returns the number of steps processed.
int scan_lines(FILE *stream, const scan_step *steps, int count);

#endif
