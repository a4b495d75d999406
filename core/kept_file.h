// Small files that the agent keeps in the registry's root for its next life: texts and a GUID that
// managers have set. Siblings that are not root may be allowed to write in that directory, so a
// name there is trusted to be no more than a name.
#ifndef VEX_CORE_KEPT_FILE_H
#define VEX_CORE_KEPT_FILE_H

#include <stdio.h>
#include <sys/types.h>

// Opens a kept file for reading ("r"), or empties it or makes it for nobody else and opens it for
// writing ("w"). Null with errno when it cannot be opened, and EBADF when something else is in its
// place: a link, another file's second name, a pipe, a device, or when somebody else's link leads
// to it. Never waits for the other end of a pipe.
FILE *open_kept_file(const char *path, const char *mode);

// Gives the file its mode; whatever is under that name by now is left alone.
void set_kept_file_mode(FILE *file, mode_t mode);

#endif
