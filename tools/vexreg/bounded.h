// Work that may wait for a file that never answers, done by a process that can be left behind.
#ifndef VEX_TOOLS_VEXREG_BOUNDED_H
#define VEX_TOOLS_VEXREG_BOUNDED_H

#include <functional>
#include <optional>

namespace vex {

// Does the work in a child process, and passes on at once what it prints. The exit status that the
// work returned, kFailed after a complaint when it did not come to its end or not all that it
// printed could be passed on (*finished is false then); nothing when it was not done within that
// many seconds: it is then told to end, and left behind where it cannot be ended. A signal or an
// alarm is not enough, as a call that waits for a dead FUSE or NFS server takes neither.
std::optional<int> DoWithin(int seconds, const std::function<int()> &work, bool *finished);

}  // namespace vex

#endif
