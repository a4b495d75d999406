#include "framework/snmp/snmp_starter.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <exception>

#include "framework/process/close_others.h"
#include "framework/process/log.h"
#include "framework/process/sanitized.h"
#include "framework/snmp/snmp_config.h"
#include "framework/snmp/snmp_process.h"

namespace vex {
namespace {

constexpr uint8_t kPriorityBehind = 200;  // of registrations; usual are 127
constexpr std::chrono::milliseconds kEndPatience{100};

// Whatever writes there finds a file that is none of the agent's. What a sanitizer has to say is
// for the test that reads it. False with errno.
bool LeaveStandardDescriptors() {
  const Descriptor null(open("/dev/null", O_RDWR | O_CLOEXEC));
  if (!null || dup2(null.get(), STDIN_FILENO) < 0) {
    return false;
  }
  return kSanitized ||
         (dup2(null.get(), STDOUT_FILENO) >= 0 && dup2(null.get(), STDERR_FILENO) >= 0);
}

int DropMessage(const char *, size_t length) {
  return static_cast<int>(length);
}

void Wake(int) {}

class Starter {
 public:
  Starter(Descriptor channel, const SnmpUser &user) : channel_(std::move(channel)), user_(user) {}

  void Run(const std::string &application, bool behind) {
    Configured configured;
    try {
      LoadSnmpConfiguration(application, &configured.settings, &session_);
    } catch (const std::exception &e) {
      channel_.Send(FrameWriter(FrameType::kMisconfigured).PutText(e.what()));
      return;
    }
    if (behind) {
      session_.priority = kPriorityBehind;
    }
    SetLogSink(DropMessage);
    Failure failure = "the agent's standard descriptors stay";
    if (LeaveStandardDescriptors()) {
      CloseOthers(STDERR_FILENO + 1, channel_.Fd());
      failure = ConfineStarter(user_);
    }
    if (failure != nullptr) {
      const int error = errno;
      channel_.Send(FrameWriter(FrameType::kUnable).PutText(failure).Put(int32_t{error}));
      return;
    }
    configured.master = session_.master;
    FrameWriter frame(FrameType::kConfigured);
    Put(&frame, configured);
    channel_.Send(frame);
    Serve();
  }

 private:
  void Serve() {
    struct sigaction action = {};
    action.sa_handler = Wake;
    sigaction(SIGCHLD, &action, nullptr);
    sigset_t waiting;
    sigfillset(&waiting);
    sigdelset(&waiting, SIGCHLD);
    for (;;) {
      Reap(WNOHANG);
      const short wanted = channel_.HasUnsent() ? POLLIN | POLLOUT : POLLIN;
      pollfd entry = {channel_.Fd(), wanted, 0};
      if (ppoll(&entry, 1, nullptr, &waiting) <= 0) {
        continue;
      }
      channel_.Flush();
      std::string_view bytes;
      FrameSocket::Descriptors descriptors;
      const FrameSocket::Got got = channel_.Receive(&bytes, &descriptors);
      if (got == FrameSocket::Got::kEnd) {
        return;
      }
      if (got == FrameSocket::Got::kNone) {
        continue;
      }
      switch (FrameReader(bytes).Take<FrameType>()) {
        case FrameType::kKill:
          End();
          break;
        case FrameType::kSpawn:
          End();
          Spawn(&descriptors);
          break;
        default:
          return;
      }
    }
  }

  void Spawn(FrameSocket::Descriptors *descriptors) {
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
      channel_.Close();
      if (EndWithParent(parent)) {
        RunSnmpProcess(session_, std::move((*descriptors)[0]), std::move((*descriptors)[1]),
                       std::move((*descriptors)[2]), user_);
      }
      _exit(0);
    }
    const int error = pid < 0 ? errno : 0;
    child_ = pid;
    channel_.Send(FrameWriter(FrameType::kSpawned).Put(int32_t{error}));
  }

  void End() {
    if (child_ > 0) {
      kill(child_, SIGKILL);
      Reap(0);
    }
  }

  void Reap(int flags) {
    int status = 0;
    pid_t gone = 0;
    while (child_ > 0 && (gone = waitpid(child_, &status, flags)) < 0 && errno == EINTR) {
    }
    if (child_ > 0 && gone == child_) {
      child_ = -1;
      channel_.Send(FrameWriter(FrameType::kEnded).Put(int32_t{status}));
    }
  }

  FrameSocket channel_;
  const SnmpUser user_;
  AgentxSession::Settings session_;
  pid_t child_ = -1;
};

[[noreturn]] void RunStarter(Descriptor channel, pid_t agent, const std::string &application,
                             bool behind, const SnmpUser &user) {
  prctl(PR_SET_NAME, kSnmpStarter);
  // Meant for the agent, which says by the channel what is to be done.
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_SETMASK, &all, nullptr);
  if (EndWithParent(agent)) {
    CloseOthers(STDERR_FILENO + 1, channel.get(), LogFd());
    try {
      Starter(std::move(channel), user).Run(application, behind);
    } catch (const std::exception &) {
      // Without memory: the agent sees the channel's end.
    }
  }
  _exit(0);
}

// Whether this process has no other threads. False with errno when that cannot be told.
bool CountsAsAlone(bool *alone) {
  DIR *tasks = opendir("/proc/self/task");
  if (tasks == nullptr) {
    *alone = false;
    return errno == ENOENT;  // without a /proc nobody can tell
  }
  int threads = 0;
  errno = 0;
  while (const dirent *entry = readdir(tasks)) {
    threads += entry->d_name[0] != '.' ? 1 : 0;
  }
  const int error = errno;
  closedir(tasks);
  errno = error;
  *alone = threads >= 1 && threads <= 1 + kSanitizersThreads;
  return error == 0;
}

}  // namespace

SnmpStarter::~SnmpStarter() {
  End();
}

bool SnmpStarter::Possible(bool *possible) {
  // A thread that was joined a moment ago may still stand in /proc.
  constexpr int kLooks = 10;
  constexpr timespec kMoment = {0, 10'000'000};
  for (int look = 1;; look++) {
    if (!CountsAsAlone(possible)) {
      return false;
    }
    if (*possible || look == kLooks) {
      return true;
    }
    nanosleep(&kMoment, nullptr);
  }
}

bool SnmpStarter::Start(const std::string &application, bool behind, const SnmpUser &user) {
  Descriptor ours;
  Descriptor its;
  if (!FrameSocket::Pair(&ours, &its)) {
    return false;
  }
  const pid_t agent = getpid();
  const pid_t pid = fork();
  if (pid == 0) {
    ours.Reset();
    RunStarter(std::move(its), agent, application, behind, user);
  }
  if (pid < 0) {
    return false;
  }
  pid_ = pid;
  channel_ = FrameSocket(std::move(ours));
  return true;
}

void SnmpStarter::End() {
  channel_.Close();
  if (pid_ < 0) {
    return;
  }
  const Clock::time_point until = Clock::now() + kEndPatience;
  pid_t gone;
  while ((gone = waitpid(pid_, nullptr, WNOHANG)) == 0 && Clock::now() < until) {
    poll(nullptr, 0, 1);
  }
  if (gone == 0) {
    kill(pid_, SIGKILL);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  pid_ = -1;
}

}  // namespace vex
