// Asking mounts for their figures without being held up by those that do not answer.
#ifndef VEX_FRAMEWORK_MACHINE_MOUNT_STATS_H
#define VEX_FRAMEWORK_MACHINE_MOUNT_STATS_H

#include <sys/statvfs.h>

#include <chrono>
#include <cstddef>
#include <memory>

#include "platform/framework.h"

namespace vex {

// A short-lived child process asks the mounts of a batch in order. When a mount holds it up,
// another one goes on with the rest; when the mount's time is up, the child is left alone, and puts
// its answer, if the call ever comes back, where the next pass finds it. From then on the mount is
// slow: a child of its own asks it between two passes, and no pass waits for it, until an answer
// comes quickly again.
// Children and not threads: a call that a FUSE server has taken and does not answer cannot be
// killed, and a process with such a thread cannot end.
class MountAsker {
 public:
  struct Settings {
    int (*stat)(const char *path, struct statvfs *result) = statvfs;  // called in the child
    std::chrono::milliseconds limit{2000};     // for one mount, and for all of a pass
    std::chrono::milliseconds patience{20};    // until another child goes on with the rest
    std::chrono::milliseconds slow{1000};      // an answer that takes as long makes a mount slow
    std::chrono::milliseconds quick{500};      // and one that takes less ends that
    std::chrono::milliseconds silence{30000};  // after which a slow mount counts as silent
    size_t most_outstanding = 224;             // children that nobody waits for ...
    size_t most_children = 256;                // ... and all, with one for each pass beyond that
    // Asked while waiting: true when the process has been told to end.
    bool (*ending)() = [] { return agent_ending() != 0; };
  };

  MountAsker();
  explicit MountAsker(const Settings &settings);
  ~MountAsker();
  MountAsker(const MountAsker &) = delete;
  MountAsker &operator=(const MountAsker &) = delete;

  // As stat_mounts(). Throws std::bad_alloc; the next call makes good what was left out.
  void Ask(const char *const *paths, size_t count, mount_stats *results);

  // Children that nobody waits for and that have not ended.
  size_t Outstanding();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace vex

#endif
