#include "tests/support/failing_calls.h"

#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

namespace vex {

thread_local FailingCall failing_call;

const char *const kFailingCalls[] = {
    "calloc", "chmod",   "fchmod",  "fcntl",    "fdopendir",   "flock",
    "fstat",  "fstatat", "fsync",   "mkdirat",  "mmap",        "open",
    "openat", "opendir", "pipe2",   "poll",     "posix_spawn", "pread",
    "pwrite", "read",    "readdir", "readlink", "readlinkat",  "renameat",
    "stat",   "statx",   "syscall", "unlinkat", "waitpid",     "write"};
const int kFailingCallCount = sizeof(kFailingCalls) / sizeof(kFailingCalls[0]);

namespace {

bool Fails(const char *name) {
  FailingCall &call = failing_call;
  if (call.left == 0 || strcmp(call.name, name) != 0 || --call.left != 0) {
    return false;
  }
  errno = call.error;
  return true;
}

}  // namespace

}  // namespace vex

using vex::Fails;

extern "C" {

void *__real_calloc(size_t count, size_t size);
void *__wrap_calloc(size_t count, size_t size) {
  return Fails("calloc") ? nullptr : __real_calloc(count, size);
}

int __real_chmod(const char *path, mode_t mode);
int __wrap_chmod(const char *path, mode_t mode) {
  return Fails("chmod") ? -1 : __real_chmod(path, mode);
}

int __real_fchmod(int fd, mode_t mode);
int __wrap_fchmod(int fd, mode_t mode) {
  return Fails("fchmod") ? -1 : __real_fchmod(fd, mode);
}

int __real_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void *argument = va_arg(arguments, void *);
  va_end(arguments);
  return Fails("fcntl") ? -1 : __real_fcntl(fd, command, argument);
}

DIR *__real_fdopendir(int fd);
DIR *__wrap_fdopendir(int fd) {
  return Fails("fdopendir") ? nullptr : __real_fdopendir(fd);
}

int __real_flock(int fd, int operation);
int __wrap_flock(int fd, int operation) {
  return Fails("flock") ? -1 : __real_flock(fd, operation);
}

int __real_fstat(int fd, struct stat *result);
int __wrap_fstat(int fd, struct stat *result) {
  return Fails("fstat") ? -1 : __real_fstat(fd, result);
}

int __real_fstatat(int directory, const char *name, struct stat *result, int flags);
int __wrap_fstatat(int directory, const char *name, struct stat *result, int flags) {
  return Fails("fstatat") ? -1 : __real_fstatat(directory, name, result, flags);
}

int __real_fsync(int fd);
int __wrap_fsync(int fd) {
  return Fails("fsync") ? -1 : __real_fsync(fd);
}

int __real_mkdirat(int directory, const char *name, mode_t mode);
int __wrap_mkdirat(int directory, const char *name, mode_t mode) {
  return Fails("mkdirat") ? -1 : __real_mkdirat(directory, name, mode);
}

void *__real_mmap(void *at, size_t size, int protection, int flags, int fd, off_t offset);
void *__wrap_mmap(void *at, size_t size, int protection, int flags, int fd, off_t offset) {
  return Fails("mmap") ? MAP_FAILED : __real_mmap(at, size, protection, flags, fd, offset);
}

int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return Fails("open") ? -1 : __real_open(path, flags, mode);
}

int __real_openat(int directory, const char *name, int flags, ...);
int __wrap_openat(int directory, const char *name, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return Fails("openat") ? -1 : __real_openat(directory, name, flags, mode);
}

DIR *__real_opendir(const char *path);
DIR *__wrap_opendir(const char *path) {
  return Fails("opendir") ? nullptr : __real_opendir(path);
}

int __real_pipe2(int *ends, int flags);
int __wrap_pipe2(int *ends, int flags) {
  return Fails("pipe2") ? -1 : __real_pipe2(ends, flags);
}

int __real_poll(struct pollfd *fds, unsigned long count, int timeout);
int __wrap_poll(struct pollfd *fds, unsigned long count, int timeout) {
  return Fails("poll") ? -1 : __real_poll(fds, count, timeout);
}

int __real_posix_spawn(pid_t *pid, const char *path, const posix_spawn_file_actions_t *actions,
                       const posix_spawnattr_t *attributes, char *const argv[], char *const envp[]);
int __wrap_posix_spawn(pid_t *pid, const char *path, const posix_spawn_file_actions_t *actions,
                       const posix_spawnattr_t *attributes, char *const argv[],
                       char *const envp[]) {
  return Fails("posix_spawn") ? errno
                              : __real_posix_spawn(pid, path, actions, attributes, argv, envp);
}

ssize_t __real_pread(int fd, void *bytes, size_t size, off_t offset);
ssize_t __wrap_pread(int fd, void *bytes, size_t size, off_t offset) {
  return Fails("pread") ? -1 : __real_pread(fd, bytes, size, offset);
}

ssize_t __real_pwrite(int fd, const void *bytes, size_t size, off_t offset);
ssize_t __wrap_pwrite(int fd, const void *bytes, size_t size, off_t offset) {
  return Fails("pwrite") ? -1 : __real_pwrite(fd, bytes, size, offset);
}

ssize_t __real_read(int fd, void *bytes, size_t size);
ssize_t __wrap_read(int fd, void *bytes, size_t size) {
  return Fails("read") ? -1 : __real_read(fd, bytes, size);
}

dirent *__real_readdir(DIR *directory);
dirent *__wrap_readdir(DIR *directory) {
  return Fails("readdir") ? nullptr : __real_readdir(directory);
}

ssize_t __real_readlink(const char *path, char *text, size_t size);
ssize_t __wrap_readlink(const char *path, char *text, size_t size) {
  return Fails("readlink") ? -1 : __real_readlink(path, text, size);
}

ssize_t __real_readlinkat(int directory, const char *name, char *text, size_t size);
ssize_t __wrap_readlinkat(int directory, const char *name, char *text, size_t size) {
  return Fails("readlinkat") ? -1 : __real_readlinkat(directory, name, text, size);
}

int __real_renameat(int from_directory, const char *from, int to_directory, const char *to);
int __wrap_renameat(int from_directory, const char *from, int to_directory, const char *to) {
  return Fails("renameat") ? -1 : __real_renameat(from_directory, from, to_directory, to);
}

int __real_stat(const char *path, struct stat *result);
int __wrap_stat(const char *path, struct stat *result) {
  return Fails("stat") ? -1 : __real_stat(path, result);
}

int __real_statx(int directory, const char *name, int flags, unsigned mask, struct statx *result);
int __wrap_statx(int directory, const char *name, int flags, unsigned mask, struct statx *result) {
  return Fails("statx") ? -1 : __real_statx(directory, name, flags, mask, result);
}

long __real_syscall(long number, ...);
long __wrap_syscall(long number, ...) {
  va_list arguments;
  va_start(arguments, number);
  long a[6];
  for (long &argument : a) {
    argument = va_arg(arguments, long);
  }
  va_end(arguments);
  return Fails("syscall") ? -1 : __real_syscall(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}

int __real_unlinkat(int directory, const char *name, int flags);
int __wrap_unlinkat(int directory, const char *name, int flags) {
  return Fails("unlinkat") ? -1 : __real_unlinkat(directory, name, flags);
}

pid_t __real_waitpid(pid_t pid, int *status, int options);
pid_t __wrap_waitpid(pid_t pid, int *status, int options) {
  return Fails("waitpid") ? -1 : __real_waitpid(pid, status, options);
}

ssize_t __real_write(int fd, const void *bytes, size_t size);
ssize_t __wrap_write(int fd, const void *bytes, size_t size) {
  return Fails("write") ? -1 : __real_write(fd, bytes, size);
}

}  // extern "C"
