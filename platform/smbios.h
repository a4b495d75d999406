/* Access to the SMBIOS tables (libkelmointrfc) as the Host Agent sees it.
 *
 * The structures are those of the DMTF's DSP0134: byte 0 the type, byte 1 the
 * length of the formatted part, bytes 2-3 the handle. A record may be shorter than a field that its
 * type has in a newer version: check byte 1 before each field that is read.
 *
 * Agent thread only; nothing is thrown. Every record handed out, with its strings, lies whole
 * within the loaded tables: reading byte 1 bytes from it is always safe.
 */
#ifndef VEX_PLATFORM_SMBIOS_H
#define VEX_PLATFORM_SMBIOS_H

#ifdef __cplusplus
extern "C" {
#endif

/* Loads the tables; what cannot be read is tried again for up to 40 ms. Returns non-zero when they
 * are loaded (also when they were already), 0 when they are not, with errno: ENOENT when the machine
 * has none, EBADMSG when they are malformed, else what reading them said. Anything but ENOENT is
 * logged, once for as long as it stays so. */
int InitSMBIOS(void);

/* Non-zero while the tables are loaded. */
int IsSMBIOSAvailable(void);

/* Sets *record to the instance-th record (from 0, in table order) of the type and returns non-zero;
 * 0, with *record untouched, when there is none or nothing is loaded. The record is owned by the
 * library and valid until DeinitSMBIOS(). */
int SmbGetRecordByType(int type, int instance, const unsigned char **record);

/* Returns the text of a record's string by its number (from 1). Never null: "" for number 0, for a
 * number that the record has no string for, and for a record that is not one of the loaded tables.
 * Owned by the library, valid until DeinitSMBIOS(). */
const char *SmbGetStringByNumber(const unsigned char *record, int number);

/* Releases the tables and with them every record and string; harmless when nothing is loaded. */
void DeinitSMBIOS(void);

#ifdef __cplusplus
}
#endif

#endif
