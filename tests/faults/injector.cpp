#include "tests/faults/injector.h"

#include <fcntl.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sstream>

using namespace made_up;

namespace faults {

namespace {

const std::string kPageFile = std::string(MadeUpHost::kDirectory) + "/faults";
// The golden server's /proc is made of links; the kernel's own is elsewhere then.
std::string RealProc() {
  static const std::string moved = std::string(MadeUpHost::kDirectory) + "/real-proc/";
  return Exists(moved) ? moved : "/proc/";
}

std::string ExecutableOf(pid_t task) {
  char target[4096];
  const ssize_t length =
      readlink((RealProc() + std::to_string(task) + "/exe").c_str(), target, sizeof(target));
  return length > 0 ? std::string(target, static_cast<size_t>(length)) : "";
}

std::string CommandLineOf(pid_t task) {
  return ReadFile(RealProc() + std::to_string(task) + "/cmdline");
}

bool IsProduct(const std::string &file) {
  const std::string name = file.substr(file.rfind('/') + 1);
  for (const char *ours :
       {"vexhostd", "vexreg", "libvexcommon", "libkelmointrfc", "libqvev", "libtlxci"}) {
    if (name.starts_with(ours)) {
      return true;
    }
  }
  return false;
}

}  // namespace

const std::vector<Call> &Calls() {
#define CALL(name, error)            \
  Call {                             \
#name, SYS_##name, error, #error \
  }
  static const std::vector<Call> calls = {
      // Files
      CALL(openat, EMFILE),
      CALL(openat, EIO),
      CALL(openat2, EIO),
      CALL(read, EIO),
      CALL(pread64, EIO),
      CALL(readv, EIO),
      CALL(write, ENOSPC),
      CALL(pwrite64, ENOSPC),
      CALL(writev, ENOSPC),
      CALL(newfstatat, EIO),
      CALL(fstat, EIO),
      CALL(statx, EIO),
      CALL(lseek, EINVAL),
      CALL(getdents64, EIO),
      CALL(access, EIO),
      CALL(faccessat, EIO),
      CALL(faccessat2, EIO),
      CALL(readlink, EIO),
      CALL(readlinkat, EIO),
      CALL(statfs, EIO),
      CALL(fstatfs, EIO),
      CALL(ftruncate, EIO),
      CALL(fsync, EIO),
      CALL(fdatasync, EIO),
      CALL(rename, EIO),
      CALL(renameat, EIO),
      CALL(renameat2, EIO),
      CALL(linkat, EIO),
      CALL(unlink, EIO),
      CALL(unlinkat, EIO),
      CALL(rmdir, EIO),
      CALL(mkdir, ENOSPC),
      CALL(mkdirat, ENOSPC),
      CALL(fchmod, EPERM),
      CALL(fchmodat, EPERM),
      CALL(fchown, EPERM),
      CALL(flock, ENOLCK),
      CALL(fcntl, EINVAL),
      CALL(ioctl, EIO),
      CALL(utimensat, EIO),
      CALL(inotify_init1, EMFILE),
      CALL(inotify_add_watch, ENOSPC),
      // Processes, threads and memory
      CALL(clone, EAGAIN),
      CALL(clone3, EAGAIN),
      CALL(vfork, EAGAIN),
      CALL(execve, ENOMEM),
      CALL(wait4, EINTR),
      CALL(waitid, EINTR),
      CALL(pipe2, EMFILE),
      CALL(dup, EMFILE),
      CALL(dup2, EMFILE),
      CALL(dup3, EMFILE),
      CALL(kill, EPERM),
      CALL(setpgid, EPERM),
      CALL(pidfd_open, EMFILE),
      CALL(mmap, ENOMEM),
      CALL(mprotect, ENOMEM),
      CALL(mremap, ENOMEM),
      CALL(memfd_create, EMFILE),
      CALL(shmget, ENOSPC),
      CALL(shmat, ENOMEM),
      CALL(getrandom, EINTR),
      // Sockets and waiting
      CALL(socket, EMFILE),
      CALL(socketpair, EMFILE),
      CALL(connect, ECONNREFUSED),
      CALL(bind, EADDRINUSE),
      CALL(setsockopt, ENOBUFS),
      CALL(getsockopt, ENOBUFS),
      CALL(getsockname, ENOBUFS),
      CALL(sendto, ENOBUFS),
      CALL(sendmsg, ENOBUFS),
      CALL(recvfrom, ECONNRESET),
      CALL(recvmsg, ECONNRESET),
      CALL(poll, ENOMEM),
      CALL(ppoll, ENOMEM),
      CALL(pselect6, ENOMEM),
      CALL(eventfd2, EMFILE),
      CALL(epoll_create1, EMFILE),
      CALL(epoll_ctl, ENOMEM),
      CALL(epoll_wait, EINTR),
      CALL(timerfd_create, EMFILE),
      CALL(timerfd_settime, EINVAL),
      CALL(clock_nanosleep, EINTR),
      // Giving up rights
      CALL(fchdir, EIO),
      CALL(chroot, EPERM),
      CALL(capget, EINVAL),
      CALL(capset, EPERM),
      CALL(setgroups, EPERM),
      CALL(setresgid, EAGAIN),
      CALL(setresuid, EAGAIN),
      CALL(prctl, EINVAL),
      CALL(prlimit64, EPERM),
  };
#undef CALL
  return calls;
}

const Call &Allocation() {
  static const Call allocation = {"malloc", -1, ENOMEM, "ENOMEM"};
  return allocation;
}

Injector::Injector() {
  std::filesystem::create_directories(MadeUpHost::kDirectory);
  const int fd = open(kPageFile.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0 || ftruncate(fd, sizeof(Page)) != 0) {
    abort();
  }
  page_ =
      static_cast<Page *>(mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
  close(fd);
}

Injector::~Injector() {
  Detach();
  munmap(page_, sizeof(Page));
}

void Injector::Prepare(DaemonOptions *options, bool armed) {
  options->launcher = {VEX_FAULT_LAUNCHER, kPageFile};
  options->preload = VEX_FAULT_PRELOAD;
  Reset(nullptr);
  page_->arm_in_main = armed ? 1 : 0;
}

std::vector<std::string> Injector::PrepareCommand(const std::vector<std::string> &command,
                                                  bool until_end, const Call *only) {
  Reset(only);
  command_ = command;
  page_->arm_in_main = 1;
  page_->whole_family = 1;
  page_->disarm_after_main = until_end ? 0 : 1;
  std::vector<std::string> words = {VEX_FAULT_LAUNCHER, kPageFile,
                                    std::string("LD_PRELOAD=") + VEX_FAULT_PRELOAD};
  words.insert(words.end(), command.begin(), command.end());
  return words;
}

void Injector::Reset(const Call *only) {
  page_->go = 0;
  page_->armed = 0;
  page_->agent = 0;
  page_->whole_family = 0;
  page_->disarm_after_main = 0;
  page_->listener = 0;
  size_t used = 0;
  if (Calls().size() >= std::size(page_->calls)) {
    abort();
  }
  for (const Call &call : Calls()) {
    const auto announced = static_cast<uint32_t>(call.number) + 1;
    bool known = only != nullptr && only->number != call.number;
    for (size_t i = 0; i < used; i++) {
      known = known || page_->calls[i] == announced;
    }
    if (!known) {
      page_->calls[used++] = announced;
    }
  }
  page_->calls[used] = 0;
  const std::lock_guard lock(mutex_);
  counts_.clear();
  count_ = 0;
  page_->allocations = 0;
}

bool Injector::Attach(pid_t agent, const std::string &program) {
  agent_ = agent;
  if (!Eventually([&] { return page_->listener != 0; }) || page_->listener < 0) {
    return false;
  }
  const int process = static_cast<int>(syscall(SYS_pidfd_open, agent, 0));
  listener_ = static_cast<int>(syscall(SYS_pidfd_getfd, process, page_->listener - 1, 0));
  close(process);
  if (listener_ < 0) {
    return false;
  }
  executable_ = std::filesystem::canonical(program);
  stop_ = false;
  server_ = std::thread([this] { Serve(); });
  page_->go = 1;
  return true;
}

void Injector::Detach() {
  if (server_.joinable()) {
    stop_ = true;
    server_.join();
  }
  if (listener_ >= 0) {
    close(listener_);
  }
  listener_ = -1;
}

void Injector::Choose(const Call &call, unsigned n, bool for_good) {
  const std::lock_guard lock(mutex_);
  chosen_ = call;
  n_ = n;
  for_good_ = for_good;
  fired_ = false;
  place_.clear();
  count_ = 0;
  page_->allocations = 0;
  page_->failed_allocations = 0;
  page_->fail_allocation = call.number < 0 ? n : 0;
  memset(page_->place, 0, sizeof(page_->place));
}

void Injector::Spoil(Sabotage sabotage) {
  page_->sabotage = sabotage;
}

void Injector::Arm() {
  {
    const std::lock_guard lock(mutex_);
    counts_.clear();
    count_ = 0;
    page_->allocations = 0;
  }
  page_->armed = 1;
}

void Injector::Disarm() {
  page_->armed = 0;
}

bool Injector::Fired() const {
  const std::lock_guard lock(mutex_);
  return fired_ || page_->failed_allocations > 0;
}

std::string Injector::Place() const {
  const std::lock_guard lock(mutex_);
  return page_->failed_allocations > 0 ? std::string(page_->place) : place_;
}

std::map<int, unsigned> Injector::Counts() const {
  const std::lock_guard lock(mutex_);
  std::map<int, unsigned> counts = counts_;
  counts[-1] = static_cast<unsigned>(page_->allocations);
  return counts;
}

// One of its threads, or a child that is still the same program.
bool Injector::IsAgents(pid_t task) const {
  if (task == agent_) {
    return true;
  }
  // What a command starts of itself with other words is another command.
  return ExecutableOf(task) == executable_ &&
         (command_.empty() || CommandLineOf(task) == CommandLineOf(agent_));
}

void Injector::Serve() {
  seccomp_notif_sizes sizes{};
  syscall(SYS_seccomp, SECCOMP_GET_NOTIF_SIZES, 0, &sizes);
  std::vector<char> request_space(std::max<size_t>(sizes.seccomp_notif, sizeof(seccomp_notif)));
  std::vector<char> answer_space(
      std::max<size_t>(sizes.seccomp_notif_resp, sizeof(seccomp_notif_resp)));
  auto *request = reinterpret_cast<seccomp_notif *>(request_space.data());
  auto *answer = reinterpret_cast<seccomp_notif_resp *>(answer_space.data());
  while (!stop_) {
    pollfd wait = {listener_, POLLIN, 0};
    if (poll(&wait, 1, 20) <= 0 || (wait.revents & POLLIN) == 0) {
      if ((wait.revents & (POLLHUP | POLLERR)) != 0) {
        return;  // nobody is left
      }
      continue;
    }
    memset(request, 0, request_space.size());
    if (ioctl(listener_, SECCOMP_IOCTL_NOTIF_RECV, request) != 0) {
      continue;  // who called was killed meanwhile
    }
    memset(answer, 0, answer_space.size());
    answer->id = request->id;
    answer->flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
    if (page_->armed != 0) {
      const auto task = static_cast<pid_t>(request->pid);
      if (IsAgents(task)) {
        const std::lock_guard lock(mutex_);
        counts_[request->data.nr]++;
        if (chosen_.number == request->data.nr && n_ > 0 && !(fired_ && !for_good_) &&
            ++count_ >= n_) {
          if (!fired_) {
            place_ = PlaceOf(task);
          }
          fired_ = true;
          answer->flags = 0;
          answer->error = -chosen_.error;
        }
      }
    }
    ioctl(listener_, SECCOMP_IOCTL_NOTIF_SEND, answer);
  }
}

// What looks like a return address on the stack of a waiting thread: frames that are over may be
// among them, but none is missing.
std::string Injector::PlaceOf(pid_t task) const {
  const std::string directory = RealProc() + std::to_string(task);
  std::istringstream call(ReadFile(directory + "/syscall"));
  std::vector<std::string> words;
  for (std::string word; call >> word;) {
    words.push_back(word);
  }
  if (words.size() < 9) {
    return "";
  }
  const uint64_t stack = std::stoull(words[7], nullptr, 16);
  struct Mapping {
    uint64_t from, to, offset;
    std::string file;
  };
  std::vector<Mapping> mappings;
  for (const std::string &line : Lines(ReadFile(directory + "/maps"))) {
    std::istringstream fields(line);
    std::string range, rights, offset, device, inode, file;
    fields >> range >> rights >> offset >> device >> inode >> file;
    if (rights.find('x') != std::string::npos && IsProduct(file)) {
      const size_t dash = range.find('-');
      mappings.push_back({std::stoull(range.substr(0, dash), nullptr, 16),
                          std::stoull(range.substr(dash + 1), nullptr, 16),
                          std::stoull(offset, nullptr, 16), file});
    }
  }
  const int memory = open((directory + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
  uint64_t words_of_stack[2048];
  const ssize_t got =
      pread(memory, words_of_stack, sizeof(words_of_stack), static_cast<off_t>(stack));
  close(memory);
  std::ostringstream place;
  for (ssize_t i = 0; i < got / 8; i++) {
    for (const Mapping &mapping : mappings) {
      const uint64_t at = words_of_stack[i];
      if (at >= mapping.from && at < mapping.to) {
        place << mapping.file << "+0x" << std::hex << at - mapping.from + mapping.offset - 1
              << "\n";
      }
    }
  }
  return place.str();
}

std::vector<std::string> Named(const std::string &place, size_t most) {
  std::vector<std::string> names;
  for (const std::string &line : Lines(place)) {
    const size_t plus = line.rfind("+0x");
    if (plus == std::string::npos || !IsProduct(line.substr(0, plus))) {
      continue;
    }
    const Outcome outcome = RunCommand(
        {"addr2line", "-f", "-C", "-s", "-e", line.substr(0, plus), line.substr(plus + 1)});
    const std::vector<std::string> lines = Lines(outcome.out);
    if (lines.size() < 2 || lines[1].starts_with("??")) {
      continue;
    }
    const std::string name = lines[0].substr(0, lines[0].find('(')) + " (" +
                             lines[1].substr(0, lines[1].find(' ')) + ")";
    if (names.empty() || names.back() != name) {
      names.push_back(name);
    }
    if (names.size() == most) {
      break;
    }
  }
  return names;
}

}  // namespace faults
