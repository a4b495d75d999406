#include "tests/support/failing_call.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <iterator>
#include <string_view>
#include <utility>

namespace vex {
namespace {

// Atomic, for threads look here at every call.
struct Slot {
  std::atomic<const char *> function{nullptr};
  std::atomic<const char *> path{nullptr};
  std::atomic<int> error{0};
  std::atomic<int> before{0};
  std::atomic<int> left{0};
  std::atomic<int> failed{0};
  std::atomic<pid_t> thread{0};
  std::function<void()> action;  // written before the function, and not while it stands
};
Slot slots[8];
thread_local bool acting;

// Whether the path is the wanted one, or its last components are. A part of a component does not
// count: the name of a directory that a test made may end like anything.
bool IsWanted(std::string_view path, std::string_view wanted) {
  return path == wanted ||
         (path.ends_with(wanted) &&
          (wanted.starts_with('/') || path[path.size() - wanted.size() - 1] == '/'));
}

// Whether this call is to fail; errno is set then, and *zero when it is to return 0.
bool Fails(const char *function, const char *path, bool *zero) {
  for (Slot &slot : slots) {
    const char *failing = slot.function.load();
    if (failing == nullptr || strcmp(failing, function) != 0) {
      continue;
    }
    const char *wanted = slot.path.load();
    const pid_t thread = slot.thread.load();
    if (acting || (thread != 0 && thread != gettid()) ||
        (wanted != nullptr && (path == nullptr || !IsWanted(path, wanted))) ||
        slot.before.fetch_sub(1) > 0 || slot.left.fetch_sub(1) <= 0) {
      continue;
    }
    slot.failed++;
    if (slot.action) {
      const int error = errno;
      acting = true;
      slot.action();
      acting = false;
      errno = error;
      continue;
    }
    *zero = slot.error.load() == 0;
    if (!*zero) {
      errno = slot.error.load();
    }
    return true;
  }
  return false;
}

// What a call returns that does not take place; what `call` returns when it does.
template <typename Result, typename Call>
Result Instead(const char *function, const char *path, Result failure, Call call) {
  bool zero = false;
  if (!Fails(function, path, &zero)) {
    return call();
  }
  return zero ? Result{} : failure;
}

}  // namespace

FailingCall::FailingCall(const char *function, int error, int nth, int count) {
  while (slots[slot_].function.load() != nullptr) {
    if (++slot_ == static_cast<int>(std::size(slots))) {
      abort();
    }
  }
  Slot &slot = slots[slot_];
  slot.error = error;
  slot.before = nth - 1;
  slot.left = count;
  slot.failed = 0;
  slot.thread = 0;
  slot.path = nullptr;
  slot.action = nullptr;
  slot.function = function;
}

FailingCall::FailingCall(const char *function, std::function<void()> before, int nth, int count)
    : FailingCall("", 0, nth, count) {
  slots[slot_].action = std::move(before);
  slots[slot_].function = function;
}

FailingCall::~FailingCall() {
  slots[slot_].function = nullptr;
}

FailingCall &FailingCall::In(pid_t thread) {
  slots[slot_].thread = thread;
  return *this;
}

FailingCall &FailingCall::On(const char *path) {
  slots[slot_].path = path;
  return *this;
}

int FailingCall::Failed() const {
  return slots[slot_].failed;
}

}  // namespace vex

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
#define VEX_FAILING_ON(type, name, parameters, arguments, failure, path)          \
  type __real_##name parameters;                                                  \
  type __wrap_##name parameters {                                                 \
    return vex::Instead<type>(#name, path, failure,                               \
                              [&]() -> type { return __real_##name arguments; }); \
  }
#define VEX_FAILING(type, name, parameters, arguments, failure) \
  VEX_FAILING_ON(type, name, parameters, arguments, failure, nullptr)

extern "C" {

VEX_FAILING(ssize_t, read, (int fd, void *to, size_t size), (fd, to, size), -1)
VEX_FAILING(ssize_t, write, (int fd, const void *from, size_t size), (fd, from, size), -1)
VEX_FAILING(ssize_t, pread, (int fd, void *to, size_t size, off_t at), (fd, to, size, at), -1)
VEX_FAILING(ssize_t, pwrite, (int fd, const void *from, size_t size, off_t at),
            (fd, from, size, at), -1)
VEX_FAILING(int, fstat, (int fd, struct stat *status), (fd, status), -1)
VEX_FAILING_ON(int, stat, (const char *path, struct stat *status), (path, status), -1, path)
VEX_FAILING_ON(int, fstatat, (int directory, const char *name, struct stat *status, int flags),
               (directory, name, status, flags), -1, name)
VEX_FAILING_ON(int, statx,
               (int directory, const char *name, int flags, unsigned mask, struct statx *status),
               (directory, name, flags, mask, status), -1, name)
VEX_FAILING(int, fsync, (int fd), (fd), -1)
VEX_FAILING_ON(int, chmod, (const char *path, mode_t mode), (path, mode), -1, path)
VEX_FAILING(int, fchmod, (int fd, mode_t mode), (fd, mode), -1)
VEX_FAILING_ON(int, mkdirat, (int directory, const char *name, mode_t mode),
               (directory, name, mode), -1, name)
VEX_FAILING_ON(int, unlinkat, (int directory, const char *name, int flags),
               (directory, name, flags), -1, name)
VEX_FAILING_ON(int, renameat, (int from, const char *name, int to, const char *other),
               (from, name, to, other), -1, name)
VEX_FAILING_ON(ssize_t, readlink, (const char *path, char *to, size_t size), (path, to, size), -1,
               path)
VEX_FAILING(int, flock, (int fd, int operation), (fd, operation), -1)
VEX_FAILING(int, ftruncate, (int fd, off_t size), (fd, size), -1)
VEX_FAILING(int, memfd_create, (const char *name, unsigned flags), (name, flags), -1)
VEX_FAILING(void *, mmap, (void *at, size_t size, int protection, int flags, int fd, off_t offset),
            (at, size, protection, flags, fd, offset), MAP_FAILED)
VEX_FAILING(int, madvise, (void *at, size_t size, int advice), (at, size, advice), -1)
VEX_FAILING(void *, calloc, (size_t count, size_t size), (count, size), nullptr)
VEX_FAILING(int, socketpair, (int family, int type, int protocol, int *ends),
            (family, type, protocol, ends), -1)
VEX_FAILING(ssize_t, send, (int fd, const void *from, size_t size, int flags),
            (fd, from, size, flags), -1)
VEX_FAILING(ssize_t, sendmsg, (int fd, const msghdr *message, int flags), (fd, message, flags), -1)
VEX_FAILING(ssize_t, recvmsg, (int fd, msghdr *message, int flags), (fd, message, flags), -1)
VEX_FAILING(int, poll, (pollfd * entries, nfds_t count, int timeout), (entries, count, timeout), -1)
VEX_FAILING(int, ppoll,
            (pollfd * entries, nfds_t count, const timespec *timeout, const sigset_t *signals),
            (entries, count, timeout, signals), -1)
VEX_FAILING(int, nanosleep, (const timespec *time, timespec *left), (time, left), -1)
VEX_FAILING(int, eventfd, (unsigned value, int flags), (value, flags), -1)
VEX_FAILING(pid_t, fork, (), (), -1)
VEX_FAILING(pid_t, waitpid, (pid_t pid, int *status, int options), (pid, status, options), -1)
VEX_FAILING(pid_t, getppid, (), (), -1)
VEX_FAILING(int, dup2, (int from, int to), (from, to), -1)
VEX_FAILING(int, getrlimit, (__rlimit_resource_t what, rlimit *limit), (what, limit), -1)
VEX_FAILING(int, setrlimit, (__rlimit_resource_t what, const rlimit *limit), (what, limit), -1)
VEX_FAILING(char *, mkdtemp, (char *pattern), (pattern), nullptr)
VEX_FAILING_ON(int, rmdir, (const char *path), (path), -1, path)
VEX_FAILING(int, fchdir, (int directory), (directory), -1)
VEX_FAILING_ON(int, chroot, (const char *path), (path), -1, path)
VEX_FAILING(int, setgroups, (size_t count, const gid_t *groups), (count, groups), -1)
VEX_FAILING(int, setresgid, (gid_t real, gid_t effective, gid_t saved), (real, effective, saved),
            -1)
VEX_FAILING(int, setresuid, (uid_t real, uid_t effective, uid_t saved), (real, effective, saved),
            -1)
VEX_FAILING(int, kill, (pid_t pid, int signal), (pid, signal), -1)
VEX_FAILING(int, fstatfs, (int fd, struct statfs *system), (fd, system), -1)
VEX_FAILING(ssize_t, readlinkat, (int directory, const char *name, char *to, size_t size),
            (directory, name, to, size), -1)
VEX_FAILING(int, timer_create, (clockid_t clock, sigevent *event, timer_t *timer),
            (clock, event, timer), -1)
VEX_FAILING(int, socket, (int family, int type, int protocol), (family, type, protocol), -1)
VEX_FAILING(int, connect, (int fd, const sockaddr *address, socklen_t size), (fd, address, size),
            -1)
VEX_FAILING(void *, malloc, (size_t size), (size), nullptr)
VEX_FAILING(char *, strdup, (const char *text), (text), nullptr)
VEX_FAILING_ON(int, access, (const char *path, int mode), (path, mode), -1, path)
VEX_FAILING(int, accept4, (int fd, sockaddr *address, socklen_t *size, int flags),
            (fd, address, size, flags), -1)
VEX_FAILING(int, bind, (int fd, const sockaddr *address, socklen_t size), (fd, address, size), -1)
VEX_FAILING_ON(int, chdir, (const char *path), (path), -1, path)
VEX_FAILING(int, listen, (int fd, int most), (fd, most), -1)
VEX_FAILING_ON(int, mknod, (const char *path, mode_t mode, dev_t device), (path, mode, device), -1,
               path)
VEX_FAILING_ON(int, mount,
               (const char *from, const char *path, const char *type, unsigned long flags,
                const void *data),
               (from, path, type, flags, data), -1, path)
VEX_FAILING(int, futimens, (int fd, const timespec *times), (fd, times), -1)
VEX_FAILING(int, pipe2, (int *ends, int flags), (ends, flags), -1)
VEX_FAILING(int, waitid, (idtype_t type, id_t id, siginfo_t *status, int options),
            (type, id, status, options), -1)
VEX_FAILING(int, setenv, (const char *name, const char *value, int replace), (name, value, replace),
            -1)
VEX_FAILING(int, sethostname, (const char *name, size_t size), (name, size), -1)
VEX_FAILING(void *, shmat, (int segment, const void *at, int flags), (segment, at, flags),
            reinterpret_cast<void *>(-1))
VEX_FAILING(int, shmget, (key_t key, size_t size, int flags), (key, size, flags), -1)
VEX_FAILING_ON(int, symlink, (const char *target, const char *path), (target, path), -1, path)
VEX_FAILING_ON(int, umount2, (const char *path, int flags), (path, flags), -1, path)
VEX_FAILING(int, uname, (utsname * names), (names), -1)
VEX_FAILING(int, unshare, (int flags), (flags), -1)
// Fails to say that it is root.
VEX_FAILING(uid_t, geteuid, (), (), static_cast<uid_t>(-1))
// These return the error.
VEX_FAILING(int, posix_spawn_file_actions_init, (posix_spawn_file_actions_t * actions), (actions),
            ENOMEM)
VEX_FAILING(int, posix_spawnattr_init, (posix_spawnattr_t * attributes), (attributes), ENOMEM)
VEX_FAILING_ON(DIR *, opendir, (const char *path), (path), nullptr, path)
VEX_FAILING(DIR *, fdopendir, (int fd), (fd), nullptr)
VEX_FAILING(dirent *, readdir, (DIR * directory), (directory), nullptr)
VEX_FAILING_ON(FILE *, fopen, (const char *path, const char *mode), (path, mode), nullptr, path)

// Fortified, where the compiler does not see that the size fits.
ssize_t __real___read_chk(int fd, void *to, size_t size, size_t room);
ssize_t __wrap___read_chk(int fd, void *to, size_t size, size_t room) {
  return vex::Instead<ssize_t>("read", nullptr, -1,
                               [&] { return __real___read_chk(fd, to, size, room); });
}

int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...) {
  va_list more;
  va_start(more, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(more, mode_t) : 0;
  va_end(more);
  return vex::Instead("open", path, -1, [&] { return __real_open(path, flags, mode); });
}

int __real_openat(int directory, const char *path, int flags, ...);
int __wrap_openat(int directory, const char *path, int flags, ...) {
  va_list more;
  va_start(more, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(more, mode_t) : 0;
  va_end(more);
  return vex::Instead("openat", path, -1,
                      [&] { return __real_openat(directory, path, flags, mode); });
}

// Fortified, where the compiler does not see the flags.
int __real___openat_2(int directory, const char *path, int flags);
int __wrap___openat_2(int directory, const char *path, int flags) {
  return vex::Instead("openat", path, -1,
                      [&] { return __real___openat_2(directory, path, flags); });
}

// The ABI passes what follows alike, whatever it is and whether it is there.
int __real_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...) {
  va_list more;
  va_start(more, command);
  const long argument = va_arg(more, long);
  va_end(more);
  return vex::Instead("fcntl", nullptr, -1, [&] { return __real_fcntl(fd, command, argument); });
}

int __real_prctl(int option, ...);
int __wrap_prctl(int option, ...) {
  va_list more;
  va_start(more, option);
  unsigned long arguments[4];
  for (unsigned long &argument : arguments) {
    argument = va_arg(more, unsigned long);
  }
  va_end(more);
  return vex::Instead("prctl", nullptr, -1, [&] {
    return __real_prctl(option, arguments[0], arguments[1], arguments[2], arguments[3]);
  });
}

// The path is that of openat2(2).
long __real_syscall(long number, ...);
// Takes six arguments, of which most callers give fewer: the address sanitizer sees that.
__attribute__((no_sanitize("address"))) long __wrap_syscall(long number, ...) {
  va_list more;
  va_start(more, number);
  long arguments[6];
  for (long &argument : arguments) {
    argument = va_arg(more, long);
  }
  va_end(more);
  const char *path =
      number == SYS_openat2 ? reinterpret_cast<const char *>(arguments[1]) : nullptr;  // NOLINT
  return vex::Instead("syscall", path, -1L, [&] {
    return __real_syscall(number, arguments[0], arguments[1], arguments[2], arguments[3],
                          arguments[4], arguments[5]);
  });
}

int __real_ioctl(int fd, unsigned long request, ...);
int __wrap_ioctl(int fd, unsigned long request, ...) {
  va_list more;
  va_start(more, request);
  void *const argument = va_arg(more, void *);
  va_end(more);
  return vex::Instead("ioctl", nullptr, -1, [&] { return __real_ioctl(fd, request, argument); });
}
}
// NOLINTEND(bugprone-reserved-identifier)
