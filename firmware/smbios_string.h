// Reading string fields of SMBIOS records with their bounds.
#ifndef VEX_FIRMWARE_SMBIOS_STRING_H
#define VEX_FIRMWARE_SMBIOS_STRING_H

#include "platform/smbios.h"

// The text of the string whose number stands at the offset; "" when the record is too short to have
// that field (byte 1 is its length). Owned by the SMBIOS library.
inline const char *smbios_string(const unsigned char *record, int offset) {
  return record[1] > offset ? SmbGetStringByNumber(record, record[offset]) : "";
}

#endif
