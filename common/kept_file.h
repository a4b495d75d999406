// Small files that the agent keeps in the registry's root for its next life: texts and a GUID that
// managers have set. Siblings that are not root may be allowed to write in that directory, so a
// name there is trusted to be no more than a name. A second name of a file, as cp -al leaves it, is
// no reason to refuse it where nobody but root and this user could have planted it.
#ifndef VEX_COMMON_KEPT_FILE_H
#define VEX_COMMON_KEPT_FILE_H

#include <stddef.h>
#include <sys/types.h>
#include <time.h>

struct kept_file {
  const char *name;             // in the registry's root
  bool refusal_logged;          // false at first; one log line for as long as the file is refused
  bool failure_logged = false;  // the same for as long as it cannot be replaced
  bool held = false;            // it was read or replaced
  // Where that was, or where there was none.
  struct {
    dev_t device;
    ino_t inode;
    timespec born;  // a number may be given again
  } root = {};
};

// Reads at most size bytes of the file, and gives it the mode of a kept file if settle_mode says
// so. A call that fails is tried again for less than a tenth of a second, or until the agent ends;
// it leaves zeros in the place of what it has read. Returns the number of bytes, or -1 with errno:
// ENOENT when there is no file; EBADF, with a log line, when it is refused: a link, another file's
// second name, a pipe, a device, or when somebody else's link leads to it. Agent thread.
ssize_t read_kept_file(kept_file *file, void *data, size_t size, bool settle_mode);

enum kept_result {
  KEPT_REPLACED,    // and on the disk
  KEPT_NOT_OPENED,  // it cannot be opened for writing, and is as it was
  KEPT_FAILED       // refused, or the new file could not be made, written or put in its place
};

enum { ASIDE_NAME_SIZE = 64 };

// Replaces the file's contents, or makes the file, for nobody else to read. Where it cannot be
// opened for want of something that comes back, that is tried again for less than a tenth of a
// second. Whenever the agent or the machine dies, the old contents are there or the new ones,
// whole. With aside, the old file stays beside it, and aside gets the name that it has there, ""
// when it has none; of several, the oldest stay. For a set handler whose manager is told meanwhile
// that its set failed (set_wanted() of platform/framework.h), it fails, and the old contents stay
// or come back. One log line when it begins to fail and one when it succeeds again. Agent thread;
// waits for the disk.
kept_result replace_kept_file(kept_file *file, const void *data, size_t size,
                              char (*aside)[ASIDE_NAME_SIZE] = nullptr);

// To be called by each poll with what was last read or replaced. Where the registry's root is
// another directory by now (it was removed, moved away or mounted over) and has no such file, the
// file is made there; one that is there stays, since a manager may have set it, and a log line says
// if it has another value. Agent thread; waits for the disk when it writes.
void restore_kept_file(kept_file *file, const void *data, size_t size);

#endif
