// Asking mounts for their figures without being held up by those that do not answer.
#ifndef VEX_FRAMEWORK_MOUNT_STATS_H
#define VEX_FRAMEWORK_MOUNT_STATS_H

#include <sys/statvfs.h>

#include <chrono>
#include <cstddef>
#include <memory>

#include "platform/framework.h"

namespace vex {

// A short-lived child process asks the mounts of a batch in order. When a mount holds it up,
// another one goes on with the rest; when the mount's time is up, the child is abandoned and ends
// by itself if the call ever comes back. Children and not threads: a call that a FUSE server has
// taken and does not answer cannot be killed, and a process with such a thread cannot end.
class MountAsker {
 public:
  struct Settings {
    int (*stat)(const char *path, struct statvfs *result) = statvfs;  // called in the child
    std::chrono::milliseconds limit{2000};                            // for one mount
    std::chrono::milliseconds patience{20};  // until another child goes on with the rest
    size_t most_outstanding = 256;
  };

  MountAsker();
  explicit MountAsker(const Settings &settings);
  ~MountAsker();
  MountAsker(const MountAsker &) = delete;
  MountAsker &operator=(const MountAsker &) = delete;

  // As stat_mounts(). Throws std::bad_alloc.
  void Ask(const char *const *paths, size_t count, mount_stats *results);

  // Calls that have not come back.
  size_t Outstanding();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace vex

#endif
