#include "tools/vexreg/forked.h"

#include <errno.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tools/vexreg/commands.h"

namespace vex {
namespace {

// What both do after a fork. A function of its own, for scripts/coverage counts each time that one
// is entered. What the work throws must not go on in the parent's code.
pid_t GoOn(pid_t child, const std::function<int()> &work) noexcept {
  if (child == 0) {
    _exit(work());
  }
  return child;
}

}  // namespace

pid_t Forked(const std::function<int()> &work) {
  return GoOn(fork(), work);
}

int StatusOf(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) {
      Complain(std::string("how the work ended cannot be told: ") + strerror(errno));
      return kFailed;
    }
  }
  if (!WIFEXITED(status)) {
    Complain(std::string("ended by signal: ") + strsignal(WTERMSIG(status)));
    return kFailed;
  }
  return WEXITSTATUS(status);
}

}  // namespace vex
