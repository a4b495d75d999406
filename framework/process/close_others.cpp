#include "framework/process/close_others.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

namespace vex {

void CloseOthers(int from, int kept, int other) {
  int next = from;
  for (const int one : {std::min(kept, other), std::max(kept, other)}) {
    if (one >= next) {
      if (one > next) {
        syscall(SYS_close_range, next, one - 1, 0);
      }
      next = one + 1;
    }
  }
  if (syscall(SYS_close_range, next, ~0U, 0) == 0) {
    return;
  }
  // A kernel before 5.9.
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  const auto most = static_cast<int>(std::min<rlim_t>(limit.rlim_cur, 1 << 20));
  for (int fd = from; fd < most; fd++) {
    if (fd != kept && fd != other) {
      close(fd);
    }
  }
}

}  // namespace vex
