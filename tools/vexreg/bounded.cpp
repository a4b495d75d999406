#include "tools/vexreg/bounded.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <string>

#include "framework/process/clock.h"
#include "framework/process/descriptor.h"
#include "tools/vexreg/commands.h"

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

// Passes on what there is. False at the end, and with an error, which is *failure then.
bool PassOn(int from, std::ostream &to, int *failure) {
  char text[4096];
  const ssize_t length = read(from, text, sizeof(text));
  if (length > 0) {
    to.write(text, length).flush();
  }
  if (length < 0 && errno != EINTR) {
    *failure = errno;
  }
  return length > 0 || (length < 0 && errno == EINTR);
}

// False when the time was over before the end of both.
bool PassOnAll(Descriptor out, Descriptor err, Clock::time_point end, int *failure) {
  while (out || err) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    pollfd waited[] = {{out ? out.get() : -1, POLLIN, 0}, {err ? err.get() : -1, POLLIN, 0}};
    const int ready = poll(waited, 2, static_cast<int>(std::max<int64_t>(left, 0)));
    if (ready == 0) {
      return false;
    }
    if (waited[0].revents != 0 && !PassOn(out.get(), std::cout, failure)) {
      out = Descriptor();
    }
    if (waited[1].revents != 0 && !PassOn(err.get(), std::cerr, failure)) {
      err = Descriptor();
    }
  }
  return true;
}

}  // namespace

std::optional<int> DoWithin(int seconds, const std::function<int()> &work, bool *finished) {
  *finished = false;
  const auto end = Clock::now() + std::chrono::seconds(seconds);
  int out[2];
  int err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    Complain(std::string("no pipe: ") + strerror(errno));
    return kFailed;
  }
  std::cout << std::flush;
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child < 0) {
    Complain(std::string("no process: ") + strerror(errno));
    return kFailed;
  }
  if (child == 0) {
    DoAsChild(parent, out[1], err[1], work);
  }
  close(out[1]);
  close(err[1]);
  int failure = 0;
  if (!PassOnAll(Descriptor(out[0]), Descriptor(err[0]), end, &failure)) {
    kill(child, SIGKILL);
    return std::nullopt;
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (failure != 0) {
    Complain(std::string("what was found cannot be read: ") + strerror(failure));
    return kFailed;
  }
  if (!WIFEXITED(status)) {
    Complain(std::string("ended by signal: ") + strsignal(WTERMSIG(status)));
    return kFailed;
  }
  *finished = (WEXITSTATUS(status) & kFinished) != 0;
  return WEXITSTATUS(status) & ~kFinished;
}

}  // namespace vex
