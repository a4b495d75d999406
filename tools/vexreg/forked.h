// Child processes of a command.
#ifndef VEX_TOOLS_VEXREG_FORKED_H
#define VEX_TOOLS_VEXREG_FORKED_H

#include <sys/types.h>

#include <functional>

namespace vex {

// Does the work in a child process, which ends with the status that the work returned. The child's
// number, or -1 with errno.
pid_t Forked(const std::function<int()> &work);

// Waits for a child's end. Its exit status; kFailed, after a complaint, where it has none.
int StatusOf(pid_t child);

}  // namespace vex

#endif
