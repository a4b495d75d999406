#include "framework/process/main_loop.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string_view>

#include "framework/process/clock.h"
#include "framework/process/ending.h"
#include "framework/process/guard.h"
#include "framework/process/log.h"
#include "framework/process/systemd.h"
#include "framework/registry/claim.h"
#include "framework/registry/objects.h"
#include "framework/registry/registry_path.h"
#include "framework/snmp/set_channel.h"
#include "framework/snmp/snmp_api.h"
#include "framework/snmp/snmp_thread.h"
#include "platform/framework.h"

namespace vex {

namespace {

// ---- Signals: their handlers set flags, and the loop acts on them between hooks. They are blocked
// except while waiting, while sets are served, which may wait too, and while a hook runs: a command
// that a hook starts inherits the mask.

volatile sig_atomic_t alarm_came;
volatile sig_atomic_t hangup_came;

constexpr int kOurSignals[] = {SIGALRM, SIGTERM, SIGINT, SIGHUP};

sigset_t hook_mask;  // none of ours blocked
sigset_t loop_mask;  // all of ours blocked

// A wait that a hook enters just after it has looked whether the agent is ending would not hear the
// one signal that said so: from then on a timer interrupts again and again.
constexpr long kInsistNs = 100'000'000;
timer_t insisting;
bool can_insist;

void Insist(bool on) {
  if (can_insist) {
    const timespec every = {0, on ? kInsistNs : 0};
    const itimerspec times = {every, every};
    timer_settime(insisting, 0, &times, nullptr);
  }
}

void Note(int signal) {
  switch (signal) {
    case SIGALRM:
      alarm_came = 1;
      break;
    case SIGHUP:
      hangup_came = 1;
      break;
    case SIGTERM:
    case SIGINT:
      if (NoteEnding()) {
        Insist(true);
      }
      break;
    // SIGPIPE, SIGXFSZ: a write says so too; ignored signals would be inherited by commands.
    default:
      break;
  }
}

void PrepareSignals() {
  pthread_sigmask(SIG_SETMASK, nullptr, &loop_mask);
  hook_mask = loop_mask;
  for (const int signal : kOurSignals) {
    sigaddset(&loop_mask, signal);
    sigdelset(&hook_mask, signal);
  }
  pthread_sigmask(SIG_SETMASK, &loop_mask, nullptr);
  struct sigaction action = {};
  action.sa_handler = Note;
  action.sa_flags = SA_RESTART;
  sigfillset(&action.sa_mask);
  sigevent event = {};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = SIGALRM;
  can_insist = timer_create(CLOCK_MONOTONIC, &event, &insisting) == 0;
  for (const int signal : kOurSignals) {
    sigaction(signal, &action, nullptr);
  }
  sigaction(SIGPIPE, &action, nullptr);
  sigaction(SIGXFSZ, &action, nullptr);
  // Whoever started us may ignore it, and then no command's status could be had.
  action.sa_handler = SIG_DFL;
  sigaction(SIGCHLD, &action, nullptr);
}

// ---- Hooks

std::atomic<int64_t> in_hook_since{0};

// While there is one, none of our signals is blocked.
class Interruptible {
 public:
  Interruptible() {
    pthread_sigmask(SIG_SETMASK, &hook_mask, &before_);
  }
  ~Interruptible() {
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  Interruptible(const Interruptible &) = delete;
  Interruptible &operator=(const Interruptible &) = delete;

 private:
  sigset_t before_;
};

// Around a hook, and around what else waits for files: the watchdog sees either hang.
class Hook {
 public:
  Hook() {
    in_hook_since = ClockNs();
    BeginQueries();
  }
  ~Hook() {
    in_hook_since = 0;
  }
  Hook(const Hook &) = delete;
  Hook &operator=(const Hook &) = delete;

 private:
  Interruptible interruptible_;
};

int RunSetAsHook(uint8_t phase, SetItem &item) {
  const Hook hook;
  return RunSet(phase, item);
}

// ---- Start and end

// A registry file must never become standard output.
void OpenStandardDescriptors() {
  int fd;
  do {
    fd = open("/dev/null", O_RDWR);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd > STDERR_FILENO) {
    close(fd);
  }
}

const char *BaseName(const char *path) {
  const char *slash = strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

// What a failed start leaves behind: nothing of ours stays.
void RemoveDirectory() {
  if (ClaimRefused()) {
    return;  // it is another process's
  }
  const size_t length = strnlen(log_dir, sizeof(log_dir));
  if (length == 0 || length == sizeof(log_dir) || log_dir[0] != '/') {
    return;
  }
  const auto relative = ResolveDirectoryName(log_dir, RegistryRootPath());
  if (relative && !relative->empty()) {
    remove_empty_dir(log_dir);
  }
}

// Ends the SNMP side. Where its thread is left behind, the process ends here, by _exit(2): that
// thread still uses what an ordinary end destroys.
void Leave(int status) {
  if (!EndSnmp()) {
    _exit(status);
  }
}

// Until the process is told to end, or there is nobody left who would answer a manager.
void Loop() {
  while (agent_ending() == 0 && !SnmpFailed() && !ClaimRefused()) {
    pollfd sets = {SetChannelFd(), POLLIN, 0};
    if (hangup_came == 0 && alarm_came == 0) {
      ppoll(&sets, 1, nullptr, &hook_mask);
    }
    if (hangup_came != 0) {
      hangup_came = 0;
      const Hook hook;
      ReopenLog();
    }
    if ((sets.revents & POLLIN) != 0) {
      // A set is held for its apply. Nor does ppoll() take signals where there always is a set.
      const Interruptible interruptible;
      ServeSets(RunSetAsHook);
    }
    if (agent_ending() == 0 && alarm_came != 0) {
      alarm_came = 0;
      const Hook hook;
      get_data();
      RetryFiles();
      RetryUnsent();
    }
  }
}

int Run(int argc, char **argv) {
  OpenStandardDescriptors();
  PrepareSignals();
  static char *name = strdup(argc > 0 ? BaseName(argv[0]) : "agent");
  agent = name;
  SetLogName(name);
  CommandLine line = TakeOwnOptions(argc, argv);
  if (line.bad) {
    agentlog_fprintf(stderr, "%s: Option -l needs a file name\n", AgentName());
    return 1;
  }
  if (line.log_file != nullptr && OpenLog(line.log_file) != 0) {
    agentlog_fprintf(stderr, "%s: Can't open log file %s: %s\n", AgentName(), line.log_file,
                     strerror(errno));
    return 1;
  }
  SystemdPrepare();
  if (poll_time < 1) {
    poll_time = kDefaultPollTime;
  }

  int result;
  {
    const Hook hook;
    result = init_agent(static_cast<int>(line.rest.size()) - 1, line.rest.data());
  }
  if (result != 0) {
    Insist(false);
    alarm(0);
    CloseSets();
    {
      const Hook hook;
      delete_obj(&obj_Q, nullptr, 0);
      RemoveDirectory();
    }
    // A start that was told to end has not failed.
    const int status = agent_ending() != 0 ? 0 : 1;
    Leave(status);
    return status;
  }
  if (agent_ending() == 0) {
    alarm(static_cast<unsigned>(poll_time));
    const Hook hook;
    RetryFiles();
  }
  if (agent_ending() == 0 && !SnmpFailed() && !ClaimRefused()) {
    SystemdReady();
    Loop();
  }

  SystemdStopping();
  Insist(false);
  alarm(0);
  CloseSets();
  {
    const Hook hook;
    cleanup_agent();
    delete_obj(&obj_Q, nullptr, 0);
    RetryFiles();
  }
  // Without its SNMP side, or beside another agent, this one is of no use; it has said so.
  const int status = SnmpFailed() || ClaimRefused() ? 1 : 0;
  Leave(status);
  return status;
}

bool poll_time_set;

}  // namespace

CommandLine TakeOwnOptions(int argc, char **argv) {
  CommandLine line;
  int i = 0;
  for (; i < argc; i++) {
    const std::string_view argument = argv[i];
    if (i == 0 || !argument.starts_with("-l")) {
      line.rest.push_back(argv[i]);
      if (i > 0 && argument == "--") {
        i++;
        break;
      }
    } else if (argument.size() > 2) {
      line.log_file = argv[i] + 2;
    } else if (i + 1 < argc) {
      line.log_file = argv[++i];
    } else {
      line.bad = true;
    }
  }
  line.rest.insert(line.rest.end(), argv + i, argv + argc);
  line.rest.push_back(nullptr);
  return line;
}

int64_t InHookSince() {
  return in_hook_since;
}

void ConfigurePollTime(int seconds) {
  if (!poll_time_set && seconds >= 1) {
    poll_time = seconds;
  }
}

}  // namespace vex

void set_poll_time(int seconds) {
  vex::poll_time_set = true;
  poll_time = seconds < 1 ? 1 : seconds;
}

int agent_main(int argc, char **argv) {
  return vex::Guarded(1, [&] { return vex::Run(argc, argv); });
}
