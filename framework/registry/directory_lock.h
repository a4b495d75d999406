// The lock by which one process alone has a directory: flock(2) on the directory itself, so that no
// file is needed for it and nothing is left of it when its holder dies. For libvexcommon and tools.
#ifndef VEX_FRAMEWORK_REGISTRY_DIRECTORY_LOCK_H
#define VEX_FRAMEWORK_REGISTRY_DIRECTORY_LOCK_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string_view>

namespace vex {

// The process that has the lock of the file open as fd; nothing when there is none, or when it
// cannot be told (no /proc, another PID namespace).
std::optional<pid_t> LockHolder(int fd);

// The same in the text of /proc/locks: the holder of an flock on that file (device as stat(2) has
// it). Nothing when no line has it.
std::optional<pid_t> LockHolderIn(std::string_view locks, dev_t device, ino_t inode);

// The effective user of a process (proc(5), status); nothing when it is gone or cannot be told.
std::optional<uid_t> UserOf(pid_t process);

}  // namespace vex

#endif
