// The host GUID and its canonical text. It comes from SMBIOS record 226 or 1, else from the file of
// an earlier run, else from the generator (ranmar.h); a manager may set it when it did not come
// from SMBIOS.
#ifndef VEX_STATUS_GUID_H
#define VEX_STATUS_GUID_H

#include <stddef.h>
#include <stdint.h>

#include "common/kept_file.h"

// Where a GUID that was generated or set is kept. The group lists it; only guid.cpp reads and
// writes.
extern kept_file guid_file;

enum guid_sizes {
  GUID_SIZE = 16,
  GUID_TEXT_SIZE = 37,  // with its NUL
};

// Settles the GUID, once a process, and logs where it comes from. text has at least GUID_TEXT_SIZE
// bytes. Where the machine has SMBIOS tables that cannot be read just now, it is not settled yet:
// it is what it would be without them, and every set fails, until keep_guid() could read them.
void obtain_guid(unsigned char guid[GUID_SIZE], char *text, size_t text_size);

// A manager's set (see set_handler_fn). guid is changed, and the file written, when the value is
// accepted outside SET_CHECK; the text keeps what it had until the next start. Returns 0 or -1.
int set_guid(uint8_t phase, unsigned char guid[GUID_SIZE], const void *value, int length);

// To be called by each poll: settles a GUID that is not yet settled, text with it, as soon as the
// SMBIOS tables can be read; makes the file of a GUID that is kept in one again where the
// registry's root was lost.
void keep_guid(unsigned char guid[GUID_SIZE], char *text, size_t text_size);

// Writes the 36 characters and a NUL. The first three groups are little-endian fields, as SMBIOS
// (DSP0134, 7.2.1) stores a UUID.
void format_guid(const unsigned char guid[GUID_SIZE], char *text, size_t text_size);

#endif
