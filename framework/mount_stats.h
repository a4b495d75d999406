// Asking mounts for their figures without being held up by those that do not answer.
#ifndef VEX_FRAMEWORK_MOUNT_STATS_H
#define VEX_FRAMEWORK_MOUNT_STATS_H

#include <sys/statvfs.h>

#include <chrono>
#include <cstddef>
#include <memory>

#include "platform/framework.h"

namespace vex {

// One thread asks the mounts of a batch in order. When a mount holds it up, another one goes on
// with the rest; when the mount's time is up, the thread is abandoned and ends by itself if the
// call ever comes back. An abandoned thread touches nothing but its own record and the lock.
class MountAsker {
 public:
  struct Settings {
    int (*stat)(const char *path, struct statvfs *result) = statvfs;
    std::chrono::milliseconds limit{2000};   // for one mount
    std::chrono::milliseconds patience{20};  // until another thread goes on with the rest
    size_t most_outstanding = 1024;
  };

  MountAsker();
  explicit MountAsker(const Settings &settings);
  // Only when no call is outstanding; the process's own asker is never destroyed.
  ~MountAsker();
  MountAsker(const MountAsker &) = delete;
  MountAsker &operator=(const MountAsker &) = delete;

  // As stat_mounts(). One caller at a time. Throws std::bad_alloc.
  void Ask(const char *const *paths, size_t count, mount_stats *results);

  // Calls that have not come back.
  size_t Outstanding() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace vex

#endif
