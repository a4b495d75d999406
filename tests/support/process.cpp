#include "tests/support/process.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/personality.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace made_up {

namespace {

constexpr char kPath[] =
    "/run/made-up/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:"
    "/sbin:/bin";

bool urgent;

// Each session is a group of its own to the scheduler, and the groups share the processors; a
// process's nice value counts within its group only (sched(7)).
void PreferSession() {
  int group = open("/proc/self/autogroup", O_WRONLY | O_CLOEXEC);
  if (group >= 0) {
    (void)!write(group, "-20", 3);
    close(group);
  }
}

// Everything that the child needs, made before the fork.
struct Prepared {
  std::string program;
  std::vector<std::string> texts;
  std::vector<char *> argv, envp;
};

void Prepare(const std::vector<std::string> &command, const ProcessOptions &options,
             Prepared *prepared) {
  prepared->program = command.at(0);
  prepared->texts = command;
  if (!options.name.empty()) {
    prepared->texts[0] = options.name;
  }
  size_t arguments = prepared->texts.size();
  // The first of a name counts.
  for (const auto &[key, value] : options.environment) {
    prepared->texts.push_back(key + "=" + value);
  }
  prepared->texts.push_back(std::string("PATH=") + kPath);
  prepared->texts.emplace_back("LC_ALL=C");
  prepared->texts.emplace_back("MIBS=");
  for (size_t i = 0; i < prepared->texts.size(); i++) {
    (i < arguments ? prepared->argv : prepared->envp).push_back(prepared->texts[i].data());
  }
  prepared->argv.push_back(nullptr);
  prepared->envp.push_back(nullptr);
}

[[noreturn]] void Become(const Prepared &prepared, const ProcessOptions &options, int in, int out,
                         int err) {
  dup2(in, 0);
  dup2(out, 1);
  dup2(err, 2);
  syscall(SYS_close_range, 3U, ~0U, 0U);
  sigset_t none;
  sigemptyset(&none);
  for (int number = 1; number < 32; number++) {
    signal(number, SIG_DFL);
  }
  sigprocmask(SIG_SETMASK, &none, nullptr);
  setsid();
  if (urgent) {
    PreferSession();
  }
  if (options.real_proc &&
      (unshare(CLONE_NEWNS) != 0 || mount("proc", "/proc", "proc", 0, nullptr) != 0)) {
    _exit(126);
  }
  if (options.fixed_addresses) {
    personality(ADDR_NO_RANDOMIZE);
  }
  setenv("PATH", kPath, 1);  // where execvpe() looks
  execvpe(prepared.program.c_str(), prepared.argv.data(), prepared.envp.data());
  dprintf(2, "cannot run %s: %s\n", prepared.program.c_str(), strerror(errno));
  _exit(127);
}

int StatusOf(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

void BeUrgent() {
  urgent = true;
  setsid();
  PreferSession();
  setpriority(PRIO_PROCESS, 0, -20);
}

double Now() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

void Pause(double seconds) {
  auto whole = static_cast<time_t>(seconds);
  timespec time{whole, static_cast<long>((seconds - static_cast<double>(whole)) * 1e9)};
  while (nanosleep(&time, &time) != 0) {
  }
}

bool Eventually(const std::function<bool()> &condition, double seconds) {
  double end = Now() + seconds;
  for (double step = 0.001;; step = std::min(step * 1.5, 0.05)) {
    if (condition()) {
      return true;
    }
    if (Now() > end) {
      return condition();
    }
    Pause(step);
  }
}

Outcome RunCommand(const std::vector<std::string> &command, const ProcessOptions &options,
                   double seconds, const std::string &input) {
  Prepared prepared;
  Prepare(command, options, &prepared);
  int in[2], out[2], err[2];
  Outcome outcome;
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    return outcome;
  }
  pid_t pid = fork();
  if (pid == 0) {
    Become(prepared, options, in[0], out[1], err[1]);
  }
  close(in[0]);
  close(out[1]);
  close(err[1]);
  if (pid < 0) {
    close(in[1]);
    close(out[0]);
    close(err[0]);
    return outcome;
  }
  // The inputs of scenarios are smaller than a pipe.
  if (write(in[1], input.data(), input.size()) < 0) {
    outcome.err = "(its input was not taken)\n";
  }
  close(in[1]);
  double end = Now() + seconds;
  pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  std::string *texts[2] = {&outcome.out, &outcome.err};
  while (fds[0].fd >= 0 || fds[1].fd >= 0) {
    double left = end - Now();
    if (left <= 0) {
      kill(-pid, SIGKILL);
      kill(pid, SIGKILL);
      break;
    }
    poll(fds, 2, static_cast<int>(left * 1000) + 1);
    for (int i = 0; i < 2; i++) {
      char buffer[65536];
      if (fds[i].fd < 0 || fds[i].revents == 0) {
        continue;
      }
      ssize_t got = read(fds[i].fd, buffer, sizeof(buffer));
      if (got > 0) {
        texts[i]->append(buffer, static_cast<size_t>(got));
      } else {
        fds[i].fd = -1;
      }
    }
  }
  close(out[0]);
  close(err[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  outcome.status = StatusOf(status);
  return outcome;
}

void Process::Start(const std::vector<std::string> &command, const ProcessOptions &options) {
  Prepared prepared;
  Prepare(command, options, &prepared);
  const char *log = options.log.empty() ? "/dev/null" : options.log.c_str();
  int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
  int out = open(log, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
  status_.reset();
  pid_ = fork();
  if (pid_ == 0) {
    Become(prepared, options, in, out, out);
  }
  close(in);
  close(out);
}

Process::~Process() {
  if (Running()) {
    kill(pid_, SIGKILL);
    Wait();
  }
}

bool Process::Running() {
  return pid_ > 0 && !Wait(0);
}

void Process::Signal(int number) {
  if (pid_ <= 0 || status_) {
    return;
  }
  if (number == SIGSTOP) {
    StopProcess(pid_);
  } else {
    kill(pid_, number);
  }
}

std::optional<int> Process::Wait(double seconds) {
  if (pid_ <= 0 || status_) {
    return status_;
  }
  Eventually(
      [&] {
        int status;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
          status_ = StatusOf(status);
        }
        return status_.has_value();
      },
      seconds);
  return status_;
}

std::vector<std::string> OpenFiles(pid_t pid) {
  std::string directory = "/proc/" + std::to_string(pid) + "/fd";
  std::vector<std::string> names = ListDirectory(directory);
  std::sort(names.begin(), names.end(),
            [](const auto &a, const auto &b) { return std::stoi(a) < std::stoi(b); });
  std::vector<std::string> files;
  for (const std::string &name : names) {
    char target[4096];
    ssize_t length = readlink((directory + "/" + name).c_str(), target, sizeof(target));
    if (length >= 0) {
      files.push_back(name + " -> " + std::string(target, static_cast<size_t>(length)));
    }
  }
  return files;
}

std::vector<std::string> SettledFiles(pid_t pid) {
  std::vector<std::string> files = OpenFiles(pid);
  double since = Now();
  Eventually([&] {
    std::vector<std::string> now = OpenFiles(pid);
    if (now != files) {
      files = std::move(now);
      since = Now();
    }
    return Now() - since >= 0.5;
  });
  return files;
}

// The fields of /proc/PID/stat behind the command's name; [0] is the state.
static std::vector<std::string> StatFields(pid_t pid) {
  std::string text = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  size_t end = text.rfind(") ");
  std::vector<std::string> fields;
  if (end == std::string::npos) {
    return fields;
  }
  std::string rest = text.substr(end + 2);
  for (size_t at = 0; at < rest.size();) {
    size_t next = std::min(rest.find(' ', at), rest.size());
    fields.push_back(rest.substr(at, next - at));
    at = next + 1;
  }
  return fields;
}

static bool IsStarter(pid_t pid) {
  return ReadFile("/proc/" + std::to_string(pid) + "/comm") == "snmp-starter\n";
}

static std::vector<pid_t> AllChildren(pid_t pid) {
  std::vector<pid_t> children;
  for (const std::string &name : ListDirectory("/proc")) {
    if (name.find_first_not_of("0123456789") != std::string::npos) {
      continue;
    }
    auto fields = StatFields(std::stoi(name));
    if (fields.size() > 1 && fields[1] == std::to_string(pid) && fields[0] != "Z") {
      children.push_back(std::stoi(name));
    }
  }
  return children;
}

std::vector<pid_t> Children(pid_t pid) {
  std::vector<pid_t> children = AllChildren(pid);
  std::erase_if(children, IsStarter);
  return children;
}

pid_t StarterOf(pid_t daemon) {
  const std::vector<pid_t> children = AllChildren(daemon);
  const auto starter = std::find_if(children.begin(), children.end(), IsStarter);
  return starter != children.end() ? *starter : -1;
}

pid_t SnmpProcessOf(pid_t daemon) {
  const pid_t starter = StarterOf(daemon);
  const std::vector<pid_t> children = starter > 0 ? AllChildren(starter) : std::vector<pid_t>{};
  return children.size() == 1 ? children[0] : -1;
}

bool ProcessExists(pid_t pid) {
  auto fields = StatFields(pid);
  return !fields.empty() && fields[0] != "Z";
}

void StopProcess(pid_t pid) {
  kill(pid, SIGSTOP);
  Eventually([pid] {
    const auto fields = StatFields(pid);
    return fields.empty() || fields[0] == "T" || fields[0] == "Z";
  });
}

// Of two fields of /proc/PID/stat side by side.
static double SumOfTicks(pid_t pid, size_t first) {
  auto fields = StatFields(pid);
  if (fields.size() < first + 2) {
    return 0;
  }
  return (std::stod(fields[first]) + std::stod(fields[first + 1])) /
         static_cast<double>(sysconf(_SC_CLK_TCK));
}

double CpuSeconds(pid_t pid) {
  return SumOfTicks(pid, 11);
}

double CpuSecondsOfEndedChildren(pid_t pid) {
  return SumOfTicks(pid, 13);
}

std::string ReadFile(const std::string &path) {
  std::string text;
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return text;
  }
  char buffer[65536];
  for (ssize_t got; (got = read(fd, buffer, sizeof(buffer))) > 0;) {
    text.append(buffer, static_cast<size_t>(got));
  }
  close(fd);
  return text;
}

bool Exists(const std::string &path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

std::vector<std::string> Lines(const std::string &text) {
  std::vector<std::string> lines;
  for (size_t at = 0; at < text.size();) {
    size_t end = std::min(text.find('\n', at), text.size());
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

std::vector<std::string> ListDirectory(const std::string &path) {
  std::vector<std::string> names;
  if (DIR *directory = opendir(path.c_str())) {
    while (const dirent *entry = readdir(directory)) {
      if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
        names.emplace_back(entry->d_name);
      }
    }
    closedir(directory);
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace made_up
