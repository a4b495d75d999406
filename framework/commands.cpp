#include "framework/commands.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "framework/guard.h"
#include "framework/registry_dir.h"
#include "platform/framework.h"

namespace vex {

namespace {

constexpr int kLimitMs = 120 * 1000;
// How often to look for the shell's end where the kernel has no pidfd.
constexpr int kLookMs = 20;
// How long a killed shell may take to end. One that waits in the kernel for what never comes (ps(1)
// does, for a process that hangs there itself) may not end at all.
constexpr int kEndMs = 1000;

int64_t NowMs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// Starts the shell in a process group of its own, with our output pipe, nothing to read, and
// signals as a fresh process has them. -1 when it could not be started.
pid_t Start(const char *command, int output) {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  if (posix_spawn_file_actions_init(&actions) != 0) {
    return -1;
  }
  if (posix_spawnattr_init(&attributes) != 0) {
    posix_spawn_file_actions_destroy(&actions);
    return -1;
  }
  sigset_t all;
  sigset_t none;
  sigfillset(&all);
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
  pid_t pid = -1;
  char shell[] = "/bin/sh";
  char name[] = "sh";
  char option[] = "-c";
  char *const arguments[] = {name, option, const_cast<char *>(command), nullptr};
  const bool started =
      posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0) == 0 &&
      posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO) == 0 &&
      posix_spawn(&pid, shell, &actions, &attributes, arguments, environ) == 0;
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return started ? pid : -1;
}

// Shells that were killed and have not ended; agent thread only.
std::vector<pid_t> &Unended() {
  static auto *pids = new std::vector<pid_t>;
  return *pids;
}

bool HasEnded(pid_t pid) {
  const pid_t gone = waitpid(pid, nullptr, WNOHANG);
  return gone == pid || (gone < 0 && errno == ECHILD);
}

void Kill(pid_t pid) {
  kill(-pid, SIGKILL);
  for (const int64_t deadline = NowMs() + kEndMs; !HasEnded(pid); poll(nullptr, 0, kLookMs)) {
    if (NowMs() >= deadline) {
      Unended().push_back(pid);
      return;
    }
  }
}

// Where output goes; what does not fit is dropped.
struct Sink {
  char *buffer;
  size_t capacity;  // without the NUL
  size_t stored = 0;

  void Add(const char *bytes, size_t count) {
    const size_t take = std::min(count, capacity - stored);
    if (take != 0) {
      memcpy(buffer + stored, bytes, take);
      stored += take;
    }
  }
};

// Reads what is there, without waiting. False at the end of the output.
bool Drain(int fd, Sink &sink) {
  char bytes[4096];
  // Bounded: a process left behind may write as fast as we read.
  for (int i = 0; i < 64; i++) {
    const ssize_t n = read(fd, bytes, sizeof(bytes));
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return n < 0 && errno == EAGAIN;
    }
    sink.Add(bytes, static_cast<size_t>(n));
  }
  return true;
}

}  // namespace

int RunCommand(const char *command, char *output, int *length, int limit_ms) {
  Sink sink = {output, 0};
  if (output != nullptr && length != nullptr && *length > 0) {
    sink.capacity = static_cast<size_t>(*length) - 1;
    output[0] = '\0';
  }
  if (length != nullptr) {
    *length = 0;
  }
  std::erase_if(Unended(), HasEnded);
  int ends[2];
  if (command == nullptr || pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
    return -1;
  }
  Descriptor from(ends[0]);
  Descriptor to(ends[1]);
  // Only our end does not block.
  fcntl(to.get(), F_SETFL, 0);
  const pid_t pid = Start(command, to.get());
  to.Reset();
  if (pid < 0) {
    return -1;
  }
  Descriptor ended(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));

  const int64_t deadline = NowMs() + limit_ms;
  bool open = true;
  bool killed = false;
  int status = 0;
  for (;;) {
    const pid_t gone = waitpid(pid, &status, WNOHANG);
    if (gone == pid || (gone < 0 && errno != EINTR)) {
      if (gone < 0) {
        killed = true;  // somebody else took the status
      }
      break;
    }
    const int64_t left = deadline - NowMs();
    if (left <= 0) {
      Kill(pid);
      killed = true;
      break;
    }
    int wait_ms = static_cast<int>(std::min<int64_t>(left, limit_ms));
    pollfd fds[2] = {{ended.get(), POLLIN, 0}, {open ? from.get() : -1, POLLIN, 0}};
    if (!ended) {
      wait_ms = std::min(wait_ms, kLookMs);
    }
    poll(fds, 2, wait_ms);  // an interruption is one more look
    if (open && fds[1].revents != 0) {
      open = Drain(from.get(), sink);
    }
  }
  if (open) {
    // What the shell wrote last; not what a process that it left behind may still write.
    Drain(from.get(), sink);
  }
  if (sink.buffer != nullptr && length != nullptr) {
    if (sink.capacity != 0) {
      output[sink.stored] = '\0';
    }
    *length = static_cast<int>(sink.stored);
  }
  return !killed && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace vex

int process_linux_cmd(const char *command, char *output, int *length) {
  return vex::Guarded(-1, [&] { return vex::RunCommand(command, output, length, vex::kLimitMs); });
}
