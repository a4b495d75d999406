#include "framework/process/commands.h"

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
#include <string_view>
#include <vector>

#include "framework/process/guard.h"
#include "framework/process/log.h"
#include "framework/registry/registry_dir.h"
#include "platform/framework.h"

namespace vex {

namespace {

// Of process_linux_cmd(): a poll waits for it.
constexpr int kUsualLimitMs = 30 * 1000;
// What run_command() adds to the number of a signal, as shells do.
constexpr int kSignalStatus = 128;
// How often to look for the shell's end where the kernel has no pidfd.
constexpr int kLookMs = 20;
// What a command that is told to end gets to put its house in order: a package tool that is killed
// outright leaves the lock for which the next one waits.
constexpr int kGraceMs = 100;
// How long a killed shell may take to end. One that waits in the kernel for what never comes (ps(1)
// does, for a process that hangs there itself) may not end at all.
constexpr int kEndMs = 500;

int64_t NowMs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// Starts the shell in a process group of its own, with our pipes, nothing to read, and signals as a
// fresh process has them. -1 with errno when it could not be started.
pid_t Start(const char *command, int output, int errors) {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  errno = posix_spawn_file_actions_init(&actions);
  if (errno != 0) {
    return -1;
  }
  errno = posix_spawnattr_init(&attributes);
  if (errno != 0) {
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
  int failure = posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  if (failure == 0) {
    failure = posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  }
  if (failure == 0) {
    failure = posix_spawn_file_actions_adddup2(&actions, errors, STDERR_FILENO);
  }
  if (failure == 0) {
    failure = posix_spawn(&pid, shell, &actions, &attributes, arguments, environ);
  }
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  errno = failure;
  return failure == 0 ? pid : -1;
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

// Ends the whole group; what ignores the request is killed. The shell is not waited for before the
// last signal, since its number could be another group's afterwards.
void End(pid_t pid) {
  kill(-pid, SIGTERM);
  for (const int64_t deadline = NowMs() + kGraceMs; NowMs() < deadline;) {
    poll(nullptr, 0, kLookMs);
  }
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

// A pipe whose reading end does not block and is not inherited.
struct Pipe {
  Descriptor from;
  Descriptor to;

  bool Open() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
      return false;
    }
    from.Reset(ends[0]);
    to.Reset(ends[1]);
    fcntl(to.get(), F_SETFL, 0);  // only our end does not block
    return true;
  }
};

// One line that a terminal shows and does not act on: a line's end is a blank and a semicolon.
std::string OneLine(std::string_view text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
    text.remove_suffix(1);
  }
  std::string line;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\n') {
      line += "; ";
    } else {
      line += byte < ' ' || byte > '~' ? '?' : c;
    }
  }
  return line;
}

// How far a command is known by its text; the longest that a group runs are 255 characters.
constexpr size_t kShownCommand = 512;
// What is kept of a standard error.
constexpr size_t kShownErrors = 1024;

void Report(const char *command, const CommandResult &result, int failure, int limit_ms,
            std::string_view said) {
  static auto *ends = new CommandNews(false);
  static auto *errors = new CommandNews(true);
  const std::string shown = OneLine(std::string_view(command, strnlen(command, kShownCommand)));
  std::string what;
  if (result.end == CommandResult::kNotRun) {
    what = std::string("could not be started: ") + strerror(failure);
  } else if (result.end == CommandResult::kTimedOut) {
    what = "ran out of time and was killed";
  }
  if (result.end != CommandResult::kAgentEnding && ends->Tell(shown, what)) {
    if (result.end == CommandResult::kTimedOut) {
      agentlog_fprintf(stderr, "%s: Command %s (%.1f seconds): %s\n", AgentName(), what.c_str(),
                       limit_ms / 1000.0, shown.c_str());
    } else {
      agentlog_fprintf(stderr, "%s: Command %s: %s\n", AgentName(), what.c_str(), shown.c_str());
    }
  }
  // Only a command that came to its end has said all that it has to say.
  const std::string text = OneLine(said);
  if ((result.end == CommandResult::kExited || !text.empty()) && errors->Tell(shown, text)) {
    agentlog_fprintf(stderr, "%s: Command says: %s (%s)\n", AgentName(), text.c_str(),
                     shown.c_str());
  }
}

// What a command does until it ends or has to; says is its standard error.
CommandResult Watch(pid_t pid, int limit_ms, Pipe &output, Sink &stored, Pipe &errors, Sink &says) {
  Descriptor ended(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  const int64_t deadline = NowMs() + limit_ms;
  CommandResult result;
  bool output_open = true;
  bool errors_open = true;
  for (;;) {
    int status = 0;
    const pid_t gone = waitpid(pid, &status, WNOHANG);
    if (gone == pid) {
      result.end = WIFEXITED(status) ? CommandResult::kExited : CommandResult::kSignalled;
      result.status = WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status);
      break;
    }
    if (gone < 0 && errno != EINTR) {
      result.end = CommandResult::kSignalled;  // somebody else took the status
      result.status = 0;
      break;
    }
    const int64_t left = deadline - NowMs();
    if (left <= 0 || agent_ending() != 0) {
      result.end = left <= 0 ? CommandResult::kTimedOut : CommandResult::kAgentEnding;
      End(pid);
      break;
    }
    const int wait_ms = static_cast<int>(ended ? left : std::min<int64_t>(left, kLookMs));
    pollfd fds[3] = {{ended.get(), POLLIN, 0},
                     {output_open ? output.from.get() : -1, POLLIN, 0},
                     {errors_open ? errors.from.get() : -1, POLLIN, 0}};
    poll(fds, 3, wait_ms);  // an interruption is one more look
    if (fds[1].revents != 0) {
      output_open = Drain(output.from.get(), stored);
    }
    if (fds[2].revents != 0) {
      errors_open = Drain(errors.from.get(), says);
    }
  }
  // What was written last; not what a process that the shell left behind may still write.
  Drain(output.from.get(), stored);
  Drain(errors.from.get(), says);
  return result;
}

CommandResult Run(const char *command, int limit_ms, Sink &stored) {
  CommandResult result;
  std::erase_if(Unended(), HasEnded);
  Unended().reserve(Unended().size() + 1);  // while nothing is running yet
  if (command == nullptr) {
    return result;
  }
  if (agent_ending() != 0) {
    result.end = CommandResult::kAgentEnding;
    return result;
  }
  char said[kShownErrors];
  Sink says = {said, sizeof(said)};
  Pipe output;
  Pipe errors;
  pid_t pid = -1;
  if (output.Open() && errors.Open()) {
    pid = Start(command, output.to.get(), errors.to.get());
  }
  const int failure = errno;
  output.to.Reset();
  errors.to.Reset();
  if (pid >= 0) {
    result = Watch(pid, limit_ms, output, stored, errors, says);
  }
  // A report for which there is no memory must not cost the result.
  Guarded(0, [&] {
    Report(command, result, failure, limit_ms, std::string_view(said, says.stored));
    return 0;
  });
  return result;
}

}  // namespace

bool CommandNews::Tell(const std::string &command, const std::string &text) {
  constexpr size_t kMost = 256;
  const auto program = [](const std::string &whole) {
    return std::string_view(whole).substr(0, whole.find(' '));
  };
  bool known = false;
  bool heard = false;
  for (auto entry = entries_.begin(); entry != entries_.end();) {
    const bool same = entry->command == command;
    if (same && entry->text != text) {
      entry = entries_.erase(entry);
      continue;
    }
    known = known || same;
    heard = heard || same ||
            (by_program_ && entry->text == text && program(entry->command) == program(command));
    ++entry;
  }
  if (text.empty() || known) {
    return false;
  }
  if (entries_.size() == kMost) {
    entries_.pop_front();
  }
  entries_.push_back({command, text});
  return !heard;
}

CommandResult RunCommand(const char *command, int limit_ms, char *output, size_t size) {
  Sink stored = {output, size > 0 ? size - 1 : 0};
  CommandResult result = Guarded(CommandResult{}, [&] { return Run(command, limit_ms, stored); });
  if (size > 0) {
    output[stored.stored] = '\0';
  }
  result.length = stored.stored;
  return result;
}

}  // namespace vex

int process_linux_cmd(const char *command, char *output, int *length) {
  const bool wanted = output != nullptr && length != nullptr && *length > 0;
  const vex::CommandResult result = vex::RunCommand(command, vex::kUsualLimitMs, output,
                                                    wanted ? static_cast<size_t>(*length) : 0);
  if (length != nullptr) {
    *length = static_cast<int>(result.length);
  }
  return result.end == vex::CommandResult::kExited ? result.status : -1;
}

int run_command(const char *command, int limit_ms, char *output, size_t size, size_t *length) {
  const vex::CommandResult result = vex::RunCommand(command, limit_ms, output, size);
  *length = result.length;
  switch (result.end) {
    case vex::CommandResult::kExited:
      return result.status;
    case vex::CommandResult::kSignalled:
      return vex::kSignalStatus + result.status;
    case vex::CommandResult::kTimedOut:
      return COMMAND_TIMED_OUT;
    case vex::CommandResult::kAgentEnding:
      return COMMAND_AGENT_ENDING;
    default:
      return COMMAND_NOT_RUN;
  }
}
