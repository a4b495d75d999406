#include "framework/snmp/confinement.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <linux/audit.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <charconv>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "framework/process/descriptor.h"
#include "framework/process/sanitized.h"

namespace vex {
namespace {

// ---- Capabilities

constexpr uint64_t Bit(int capability) {
  return uint64_t{1} << capability;
}
// To become another user; and to keep programs from getting any, which would be one more wall.
constexpr uint64_t kStarters = Bit(CAP_SETUID) | Bit(CAP_SETGID) | Bit(CAP_SETPCAP);
// With what it takes to enter the empty root.
constexpr uint64_t kForStarterAlone = kStarters | Bit(CAP_SYS_CHROOT);

int KeepCapabilities(uint64_t kept) {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
  if (syscall(SYS_capget, &header, sets) != 0) {
    return -1;
  }
  for (int i = 0; i < _LINUX_CAPABILITY_U32S_3; i++) {
    const auto half = static_cast<uint32_t>(kept >> (32 * i));
    sets[i].effective &= half;
    sets[i].permitted &= half;
    sets[i].inheritable &= half;
  }
  return static_cast<int>(syscall(SYS_capset, &header, sets));
}

// ---- Limits

int Limit(__rlimit_resource_t what, rlim_t most) {
  rlimit now = {};
  if (getrlimit(what, &now) != 0) {
    return -1;
  }
  const rlim_t value = now.rlim_max < most ? now.rlim_max : most;
  const rlimit limit = {value, value};
  return setrlimit(what, &limit);
}

// The channel, the master's connection, and one for each question that is not answered yet.
constexpr rlim_t kMostDescriptors = 64;
// What the unit allows the whole agent.
constexpr rlim_t kMostMemory = rlim_t{512} << 20;
// What can only be read counts as no data, but takes page tables.
constexpr rlim_t kMostAddresses = 4 * kMostMemory;
constexpr rlim_t kMostStack = rlim_t{8} << 20;

int SetLimits() {
  if (Limit(RLIMIT_NOFILE, kMostDescriptors) != 0 || Limit(RLIMIT_CORE, 0) != 0) {
    return -1;
  }
  // A sanitizer reserves memory without end, and starts a thread.
  if (kSanitized) {
    return 0;
  }
  return Limit(RLIMIT_NPROC, 0) != 0 || Limit(RLIMIT_FSIZE, 0) != 0 ||
                 Limit(RLIMIT_DATA, kMostMemory) != 0 || Limit(RLIMIT_AS, kMostAddresses) != 0 ||
                 Limit(RLIMIT_STACK, kMostStack) != 0
             ? -1
             : 0;
}

// ---- System calls

#if defined(__x86_64__)
constexpr uint32_t kArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr uint32_t kArchitecture = AUDIT_ARCH_AARCH64;
#else
#error "which architecture's system calls are these?"
#endif

// Those of our own code, of net-snmp and of the C library that a session with the master takes. The
// descriptors to work on are handed over; nothing here makes one of a name or an address.
constexpr uint32_t kAllowed[] = {
    SYS_read, SYS_write, SYS_close, SYS_recvfrom, SYS_recvmsg, SYS_ppoll,
#ifdef SYS_poll
    SYS_poll,
#endif
    SYS_brk, SYS_munmap, SYS_mremap, SYS_madvise, SYS_futex, SYS_getrandom,
    // Clocks that the kernel cannot show without a call.
    SYS_clock_gettime, SYS_gettimeofday,
#ifdef SYS_time
    SYS_time,
#endif
    SYS_rt_sigreturn, SYS_rt_sigprocmask, SYS_restart_syscall, SYS_exit, SYS_exit_group};

// What the sanitizers' libraries do besides, of a build for tests.
constexpr uint32_t kAllowedToSanitizers[] = {
    SYS_openat,      SYS_gettid,          SYS_getpid,
    SYS_tgkill,      SYS_sigaltstack,     SYS_prctl,
    SYS_sched_yield, SYS_readlinkat,      SYS_rt_sigaction,
    SYS_newfstatat,  SYS_fstat,           SYS_clone,
    SYS_nanosleep,   SYS_clock_nanosleep, SYS_mprotect,
    SYS_pipe2,       SYS_lseek,           SYS_uname,
    SYS_getrlimit,   SYS_prlimit64,       SYS_sched_getaffinity,
    SYS_wait4,       SYS_set_robust_list, SYS_process_vm_readv,
    SYS_ioctl,
#ifdef SYS_open
    SYS_open,
#endif
#ifdef SYS_readlink
    SYS_readlink,
#endif
};

constexpr uint32_t kNumber = offsetof(seccomp_data, nr);
constexpr uint32_t kArch = offsetof(seccomp_data, arch);
constexpr uint32_t Argument(int i, bool upper) {
  return static_cast<uint32_t>(offsetof(seccomp_data, args)) + static_cast<uint32_t>(i) * 8 +
         (upper ? 4 : 0);  // both processors are little-endian
}

class Filter {
 public:
  Filter() {
    Load(kArch);
    If(kArchitecture, 1, 0);
    Return(SECCOMP_RET_KILL_PROCESS);
    Load(kNumber);
  }
  void Allow(uint32_t call) {
    If(call, 0, 1);
    Return(SECCOMP_RET_ALLOW);
  }
  // With this pointer null.
  void AllowWithoutPointer(uint32_t call, int argument) {
    If(call, 0, 6);
    Load(Argument(argument, false));
    If(0, 0, 3);
    Load(Argument(argument, true));
    If(0, 0, 1);
    Return(SECCOMP_RET_ALLOW);
    Return(kRefused);
  }
  // With none of these bits in two arguments.
  struct Bits {
    int argument;
    uint32_t bits;
  };
  void AllowWithoutBits(uint32_t call, const Bits &one, const Bits &other) {
    If(call, 0, 6);
    Load(Argument(one.argument, false));
    Add(BPF_JMP | BPF_JSET | BPF_K, one.bits, 3, 0);
    Load(Argument(other.argument, false));
    Add(BPF_JMP | BPF_JSET | BPF_K, other.bits, 1, 0);
    Return(SECCOMP_RET_ALLOW);
    Return(kRefused);
  }
  // For good. 0 or -1 with errno.
  int Install() {
    // A call of a library that nobody foresaw costs a failure, and not the process.
    Return(kRefused);
    const sock_fprog program = {static_cast<unsigned short>(code_.size()), code_.data()};
    return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
  }

 private:
  static constexpr uint32_t kRefused = SECCOMP_RET_ERRNO | EPERM;

  void Add(int operation, uint32_t value, int if_true = 0, int if_false = 0) {
    code_.push_back({static_cast<uint16_t>(operation), static_cast<uint8_t>(if_true),
                     static_cast<uint8_t>(if_false), value});
  }
  void Load(uint32_t offset) {
    Add(BPF_LD | BPF_W | BPF_ABS, offset);
  }
  void If(uint32_t value, int if_true, int if_false) {
    Add(BPF_JMP | BPF_JEQ | BPF_K, value, if_true, if_false);
  }
  void Return(uint32_t what) {
    Add(BPF_RET | BPF_K, what);
  }

  std::vector<sock_filter> code_;
};

int AllowFewCalls() {
  Filter filter;
  // To where the socket is connected, and nowhere else. First, because each answer is one.
  filter.AllowWithoutPointer(SYS_sendto, 4);
  for (const uint32_t call : kAllowed) {
    filter.Allow(call);
  }
  if (kSanitized) {
    for (const uint32_t call : kAllowedToSanitizers) {
      filter.Allow(call);
    }
  }
  // No code, and no memory that the limit of data does not count: what is shared, and a stack that
  // grows by itself. What is shared with the agent is mapped already.
  filter.AllowWithoutBits(SYS_mmap, {2, PROT_EXEC}, {3, MAP_SHARED | MAP_GROWSDOWN});
  return filter.Install();
}

// A directory that nobody can find, with nothing in it, and in which nothing can be made: it is
// removed before it is entered.
int EnterEmptyRoot() {
  for (const char *place : {"/run", "/tmp"}) {
    std::string path = std::string(place) + "/vexhostd.XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
      continue;
    }
    const Descriptor directory(open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    const int error = errno;
    const bool removed = rmdir(path.c_str()) == 0;
    if (directory && removed) {
      return fchdir(directory.get()) == 0 && chroot(".") == 0 ? 0 : -1;
    }
    errno = directory ? errno : error;
    return -1;
  }
  return -1;
}

// ---- The user

// Takes what stands before the next colon; all of it when there is none.
std::string_view TakeField(std::string_view *line) {
  const size_t colon = line->find(':');
  const std::string_view field = line->substr(0, colon);
  line->remove_prefix(colon == line->npos ? line->size() : colon + 1);
  return field;
}

// "name:password:UID:GID:..."; nothing when the line is another user's, or makes no sense.
std::optional<SnmpUser> UserOfLine(std::string_view line) {
  const auto number = [&line](unsigned *value) {
    const std::string_view field = TakeField(&line);
    const auto [stop, error] = std::from_chars(field.data(), field.data() + field.size(), *value);
    return error == std::errc() && stop == field.data() + field.size() && *value != 0 &&
           *value != UINT_MAX;
  };
  SnmpUser user = {};
  if (TakeField(&line) != kSnmpUser) {
    return std::nullopt;
  }
  TakeField(&line);
  return number(&user.uid) && number(&user.gid) ? std::optional(user) : std::nullopt;
}

}  // namespace

bool FindSnmpUser(std::optional<SnmpUser> *user) {
  user->reset();
  FILE *file = fopen("/etc/passwd", "re");
  if (file == nullptr) {
    return errno == ENOENT;
  }
  // Not by fgetpwent_r, which returns to a line that is longer than its buffer again and again.
  char *line = nullptr;
  size_t size = 0;
  ssize_t length;
  errno = 0;
  while (!*user && (length = getline(&line, &size, file)) >= 0) {
    *user = UserOfLine({line, static_cast<size_t>(length)});
  }
  const int error = *user || feof(file) != 0 ? 0 : errno;
  free(line);
  fclose(file);
  errno = error;
  return error == 0;
}

bool EndWithParent(pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  return getppid() == parent;  // it may have ended before
}

Failure ConfineStarter(const SnmpUser &user) {
  if (EnterEmptyRoot() != 0) {
    return "no empty root directory";
  }
  // Root still, but with that user's right to signal his processes: who lacks the capability could
  // end none, and the kernel asks for the right also where a process is to end with its parent.
  if (setresuid(user.uid, 0, 0) != 0) {
    return "no right to end it";
  }
  if (KeepCapabilities(kStarters) != 0) {
    return "capabilities stay";
  }
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
    return "programs may have more rights";
  }
  if (prctl(PR_SET_DUMPABLE, 0) != 0) {
    return "it can be traced";
  }
  return nullptr;
}

Failure ConfineSnmpProcess(const SnmpUser &user) {
  const pid_t parent = getppid();
  if (SetLimits() != 0) {
    return "no limits";
  }
  // Only root's programs may take what is left here, and no program can be started; where dropping
  // is not allowed, it stays.
  for (int capability = 0; prctl(PR_CAPBSET_READ, capability) >= 0; capability++) {
    prctl(PR_CAPBSET_DROP, capability);
  }
  if (setgroups(0, nullptr) != 0 || setresgid(user.gid, user.gid, user.gid) != 0 ||
      setresuid(user.uid, user.uid, user.uid) != 0) {
    return "not another user";
  }
  if (KeepCapabilities(0) != 0) {
    return "capabilities stay";
  }
  // The change of the user has undone it.
  if (!EndWithParent(parent)) {
    _exit(0);
  }
  if (prctl(PR_SET_DUMPABLE, 0) != 0) {
    return "it can be traced";
  }
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || AllowFewCalls() != 0) {
    return "no filter of system calls";
  }
  return nullptr;
}

bool GiveUpStartersCapabilities() {
  // Elsewhere a program of root's would have them again, and some need them.
  return prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) != 1 || KeepCapabilities(~kForStarterAlone) == 0;
}

}  // namespace vex
