// The locks by which one process alone has a directory, by flock(2), so that nothing holds when the
// holder dies. A file in it, that only its owner can open, decides: whoever may read the directory
// can lock it, too. The directory itself is locked for agents before that file, and where none can
// be made. For libvexcommon and tools.
#ifndef VEX_FRAMEWORK_REGISTRY_DIRECTORY_LOCK_H
#define VEX_FRAMEWORK_REGISTRY_DIRECTORY_LOCK_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "framework/process/descriptor.h"

namespace vex {

// Of mode 0600; no object has such a name.
inline constexpr char kLockFile[] = ".lock";

// Takes the lock of the directory's file, which it makes when it is missing, and again when others
// could open it. 0 with the file, which is to be kept open; else the error: EBUSY when another
// process has it, *holder, 0 when it cannot be told which.
int TakeLockFile(int directory, Descriptor *file, pid_t *holder);

// Whether the lock file of the directory is the one that is open as fd.
bool IsLockFile(int directory, int fd);

// Takes the lock of the directory itself. 0, or the error: EBUSY when another agent has it,
// *holder; EPERM when somebody has it who is none.
int TakeDirectoryLock(int directory, pid_t *holder);

// The process that has the directory for itself, by either lock; nothing when there is none, or
// when it cannot be told.
std::optional<pid_t> DirectoryHolder(int directory);

// The process that has the lock of the file open as fd; nothing when there is none, or when it
// cannot be told (no /proc, another PID namespace).
std::optional<pid_t> LockHolder(int fd);

// The same in the text of /proc/locks: the holder of an flock on that file (device as stat(2) has
// it). Nothing when no line has it. For tests.
std::optional<pid_t> LockHolderIn(std::string_view locks, dev_t device, ino_t inode);

// Whether it is another process, alive, of root or this user, that runs the program that this one
// runs, from the same path: an older version of it, too. False when that cannot be told.
bool RunsThisProgram(pid_t process);

// The effective user in the text of a process's status (proc(5)); nothing when it has none.
std::optional<uid_t> EffectiveUserIn(std::string_view status);

// The path of a program by the text of a process's link to it, whose file may have been replaced
// since it was started.
std::string ProgramIn(std::string link);

}  // namespace vex

#endif
