#include "tools/vexreg/bounded.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <string>

#include "framework/process/clock.h"
#include "framework/process/descriptor.h"
#include "tools/vexreg/commands.h"
#include "tools/vexreg/forked.h"

namespace vex {
namespace {

// Stands beside the exit status of work that was done to its end.
constexpr int kFinished = 0x40;

// Keeps nothing of the parent's open: whoever reads the parent's output waits for its end.
[[noreturn]] void DoAsChild(pid_t parent, int out, int err, const std::function<int()> &work) {
  const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
  dup2(nothing, STDIN_FILENO);
  dup2(out, STDOUT_FILENO);
  dup2(err, STDERR_FILENO);
  syscall(SYS_close_range, 3U, ~0U, 0U);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) {
    _exit(kFailed);
  }
  const int status = Caught([&] {
    const int result = work();
    return result + (std::cout ? kFinished : 0);
  });
  std::cout << std::flush;
  _exit(status);
}

struct Pipe {
  Descriptor from;
  Descriptor to;
  bool Open() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
      return false;
    }
    from.Reset(ends[0]);
    to.Reset(ends[1]);
    return true;
  }
};

// Passes on what there is, and closes what has come to its end. False with an error.
bool PassOn(Descriptor *from, std::ostream &to) {
  char text[4096];
  const ssize_t length = read(from->get(), text, sizeof(text));
  if (length > 0) {
    to.write(text, length).flush();
  } else if (length == 0) {
    from->Reset();
  }
  return length >= 0 || errno == EINTR;
}

// 0 at the end of both, else the error of a call: ETIMEDOUT when the time was over before.
int PassOnAll(Descriptor out, Descriptor err, Clock::time_point end) {
  while (out || err) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    pollfd waited[] = {{out.get(), POLLIN, 0}, {err.get(), POLLIN, 0}};
    const int ready = poll(waited, 2, static_cast<int>(std::max<int64_t>(left, 0)));
    if (ready == 0) {
      return ETIMEDOUT;
    }
    if ((ready < 0 && errno != EINTR) || (waited[0].revents != 0 && !PassOn(&out, std::cout)) ||
        (waited[1].revents != 0 && !PassOn(&err, std::cerr))) {
      return errno;
    }
  }
  return 0;
}

}  // namespace

std::optional<int> DoWithin(int seconds, const std::function<int()> &work, bool *finished) {
  *finished = false;
  const auto end = Clock::now() + std::chrono::seconds(seconds);
  Pipe out;
  Pipe err;
  if (!out.Open() || !err.Open()) {
    Complain(std::string("no pipe: ") + strerror(errno));
    return kFailed;
  }
  std::cout << std::flush;
  const pid_t parent = getpid();
  const pid_t child = Forked([&]() -> int { DoAsChild(parent, out.to.get(), err.to.get(), work); });
  if (child < 0) {
    Complain(std::string("no process: ") + strerror(errno));
    return kFailed;
  }
  out.to.Reset();
  err.to.Reset();
  const int failure = PassOnAll(std::move(out.from), std::move(err.from), end);
  if (failure != 0) {
    kill(child, SIGKILL);  // and is not waited for: it may wait for a dead file system
    if (failure == ETIMEDOUT) {
      return std::nullopt;
    }
    Complain(std::string("what was found cannot be read: ") + strerror(failure));
    return kFailed;
  }
  const int status = StatusOf(child);
  *finished = (status & kFinished) != 0;
  return status & ~kFinished;
}

}  // namespace vex
