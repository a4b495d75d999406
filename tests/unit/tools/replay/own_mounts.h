// Work on a machine whose files are others for a while. Takes root.
#ifndef VEX_TESTS_UNIT_TOOLS_REPLAY_OWN_MOUNTS_H
#define VEX_TESTS_UNIT_TOOLS_REPLAY_OWN_MOUNTS_H

#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>

#include <functional>
#include <iostream>

#include "tools/vexreg/forked.h"

namespace vex {

// A process with mounts of its own does the work; what that returns.
inline int WithOwnMounts(const std::function<int()> &work) {
  return StatusOf(Forked([&] {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr)) {
      return 99;
    }
    const int status = work();
    std::cout << std::flush;
    return status;
  }));
}

}  // namespace vex

#endif
