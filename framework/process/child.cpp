#include "framework/process/child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "framework/process/close_others.h"
#include "framework/process/descriptor.h"
#include "framework/process/read_fully.h"

namespace vex {

SharedMemory::SharedMemory(size_t size) : size_(size) {
  memory_ = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory_ == MAP_FAILED) {
    memory_ = nullptr;
  }
}

SharedMemory::~SharedMemory() {
  if (memory_ != nullptr) {
    munmap(memory_, size_);
  }
}

int StartChild(const char *name, void (*work)(void *argument), void *argument, Child *child) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    return errno;
  }
  // No handler of the agent may run in the child.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
      _exit(0);
    }
    prctl(PR_SET_NAME, name);
    // One that lives on holds nothing of the agent's open.
    CloseOthers(0, ends[1]);
    work(argument);
    _exit(0);
  }
  const int error = pid < 0 ? errno : 0;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  close(ends[1]);
  if (error != 0) {
    close(ends[0]);
    return error;
  }
  *child = {pid, ends[0]};
  return 0;
}

bool HasEnded(const Child &child) {
  pollfd end = {child.alive, POLLIN, 0};
  return poll(&end, 1, 0) == 1;
}

bool IsAsleep(const Child &child) {
  constexpr char kProc[] = "/proc";
  char path[64];
  snprintf(path, sizeof(path), "%s/%d/stat", kProc, static_cast<int>(child.pid));
  const Descriptor file(open(path, O_RDONLY | O_CLOEXEC));
  char stat[128];
  const ssize_t size = file ? ReadFully(file.get(), stat, sizeof(stat) - 1) : -1;
  if (size < 0) {
    return true;
  }
  stat[size] = '\0';
  // The state is the field after the name, which stands in parentheses and may have some.
  const char *name_end = strrchr(stat, ')');
  // S: in a call that a signal ends. D: in one that no handler ends.
  return name_end == nullptr || strncmp(name_end, ") S", 3) == 0 ||
         strncmp(name_end, ") D", 3) == 0;
}

void ReapChild(const Child &child) {
  close(child.alive);
  while (waitpid(child.pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

}  // namespace vex
