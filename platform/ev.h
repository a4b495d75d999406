/* Platform environment variables (libqvev).
 *
 * An EV is a short named value that the system ROM keeps. The open build finds NAME as raw bytes in
 * /var/lib/quorix/ev/NAME, else in the UEFI variable NAME-* under /sys/firmware/efi/efivars without
 * its four leading attribute bytes; also when the file is shorter than wanted and the variable is
 * not (efivarfs, Linux Documentation/filesystems/efivarfs.rst).
 */
#ifndef VEX_PLATFORM_EV_H
#define VEX_PLATFORM_EV_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Reads the first bytes of an EV.
 * name    the EV's name: letters, digits, '.', '_' and '-' only.
 * buffer  receives at most *length bytes; owned by the caller.
 * length  on entry the number of bytes wanted, on success the number stored (less when the EV is
 *         shorter; a longer one is one line in the log); untouched on failure.
 * Returns 0, or -1 when there is no such EV, its source is not a regular file or cannot be read. */
int get_ev(const char *name, void *buffer, uint32_t *length);

#ifdef __cplusplus
}
#endif

#endif
