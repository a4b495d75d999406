#include "tools/vexreg/child_output.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "framework/process/clock.h"
#include "framework/process/descriptor.h"
#include "tools/vexreg/forked.h"

namespace vex {
namespace {

constexpr int kNoProgram = 127;
constexpr int kNotStarted = 126;

std::vector<char *> ArgumentsOf(const std::vector<std::string> &words) {
  std::vector<char *> arguments;
  arguments.reserve(words.size() + 1);
  for (const std::string &word : words) {
    arguments.push_back(const_cast<char *>(word.c_str()));
  }
  arguments.push_back(nullptr);
  return arguments;
}

[[noreturn]] void Become(const std::vector<char *> &arguments, const std::string &search, int out,
                         pid_t parent) {
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  // Nothing may read the person's keys, or print among what is captured.
  if (nothing < 0 || dup2(nothing, STDIN_FILENO) < 0 || dup2(out, STDOUT_FILENO) < 0 ||
      dup2(nothing, STDERR_FILENO) < 0 || setenv("PATH", search.c_str(), 1) != 0 ||
      getppid() != parent) {
    _exit(kNotStarted);
  }
  syscall(SYS_close_range, 3U, ~0U, 0U);
  execvp(arguments.front(), arguments.data());
  _exit(errno == ENOENT || errno == ENOTDIR || errno == EACCES ? kNoProgram : kNotStarted);
}

// Takes what the child prints until it has no more to say, up to the limits.
ChildOutput::End Take(int from, Clock::time_point end, size_t most_bytes, std::string *out) {
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    pollfd waited = {from, POLLIN, 0};
    const int ready = poll(&waited, 1, static_cast<int>(std::max<int64_t>(left, 0)));
    if (ready == 0) {
      return ChildOutput::kTimedOut;
    }
    char text[65536];
    const ssize_t length = ready > 0 ? read(from, text, sizeof(text)) : -1;
    if (length == 0) {
      return ChildOutput::kExited;
    }
    if (length < 0 && errno != EINTR) {
      return ChildOutput::kLost;
    }
    if (length > 0) {
      out->append(text, static_cast<size_t>(length));
    }
    if (out->size() > most_bytes) {
      return ChildOutput::kTooMuch;
    }
  }
}

// Until the child has ended, whose number nobody else has as long as it is not reaped: its status,
// or 128 and the signal's number. False when it has not.
bool WaitForExit(pid_t child, Clock::time_point end, int *status) {
  do {
    siginfo_t ended = {};
    if (waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT | WNOHANG) != 0 &&
        errno != EINTR) {
      return false;
    }
    if (ended.si_pid == child) {
      *status = ended.si_code == CLD_EXITED ? ended.si_status : 128 + ended.si_status;
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  } while (Clock::now() < end);
  return false;
}

}  // namespace

void Execute(const std::vector<std::string> &words) {
  const std::vector<char *> arguments = ArgumentsOf(words);
  execvp(arguments.front(), arguments.data());
  _exit(kNoProgram);
}

ChildOutput RunProgram(const std::vector<std::string> &words, const std::string &search,
                       int seconds, size_t most_bytes) {
  ChildOutput output;
  int pipes[2];
  if (pipe2(pipes, O_CLOEXEC) != 0) {
    return output;
  }
  Descriptor from(pipes[0]);
  Descriptor to(pipes[1]);
  const auto end = Clock::now() + std::chrono::seconds(seconds);
  const std::vector<char *> arguments = ArgumentsOf(words);
  const pid_t parent = getpid();
  const pid_t child = Forked([&]() -> int { Become(arguments, search, to.get(), parent); });
  if (child < 0) {
    return output;
  }
  setpgid(child, child);  // here as well: whichever comes first
  to.Reset();
  output.end = Take(from.get(), end, most_bytes, &output.out);
  if (output.end == ChildOutput::kExited && !WaitForExit(child, end, &output.status)) {
    output.end = ChildOutput::kTimedOut;  // it has closed its output and goes on
  }
  // Also what a program has left behind. One that cannot be killed waits for a dead file system: it
  // is not waited for.
  kill(-child, SIGKILL);
  waitpid(child, nullptr, WNOHANG);
  if (output.end == ChildOutput::kExited && output.out.empty()) {
    if (output.status == kNoProgram) {
      output.end = ChildOutput::kNotRun;
    } else if (output.status == kNotStarted) {
      output.end = ChildOutput::kLost;
    }
  }
  return output;
}

}  // namespace vex
