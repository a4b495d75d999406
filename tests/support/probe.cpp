// Preloaded into the daemon by a scenario. Only the wall clock and the clock of ages are moved:
// deadlines on the monotonic clock stay true. System calls are made directly, so that the order in
// which a sanitizer's interceptors are found does not matter.
#include "tests/support/probe.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/channel.h"

namespace {

made_up::ProbePage *page;

__attribute__((constructor)) void Attach() {
  const char *path = getenv(made_up::kProbeVariable);
  if (path != nullptr) {
    int fd = open(path, O_RDWR | O_CLOEXEC);
    if (fd >= 0) {
      void *at = mmap(nullptr, sizeof(*page), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
      if (at != MAP_FAILED) {
        page = static_cast<made_up::ProbePage *>(at);
      }
      close(fd);
    }
  }
  // Commands that the daemon runs are none of our business.
  unsetenv("LD_PRELOAD");
  unsetenv(made_up::kProbeVariable);
}

bool IsWallClock(clockid_t clock) {
  return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
}

void Move(timespec *time, int64_t offset) {
  time->tv_sec += offset / 1000000000;
  time->tv_nsec += offset % 1000000000;
  if (time->tv_nsec >= 1000000000) {
    time->tv_nsec -= 1000000000;
    time->tv_sec++;
  } else if (time->tv_nsec < 0) {
    time->tv_nsec += 1000000000;
    time->tv_sec--;
  }
}

int Read(clockid_t clock, timespec *time) {
  int result = static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  if (result != 0 || page == nullptr) {
    return result;
  }
  if (IsWallClock(clock)) {
    int64_t stands = page->clock_stands_ns;
    if (stands != 0) {
      *time = {stands / 1000000000, stands % 1000000000};
    }
    Move(time, page->clock_offset_ns);
  } else if (clock == CLOCK_BOOTTIME) {
    Move(time, page->age_offset_ns);
  }
  return result;
}

// Whether this call is one that is to fail. A number behind the call's name: it comes to its end so
// many milliseconds later, and without an error it does not fail.
bool Faulty(const char *call, const char *path) {
  const size_t name = strlen(call);
  if (page == nullptr || page->fault_count <= 0 || strncmp(page->fault_call, call, name) != 0 ||
      (page->fault_call[name] != '\0' && page->fault_call[name] != ' ')) {
    return false;
  }
  const size_t length = strlen(path);
  const size_t end = strnlen(page->fault_path, sizeof(page->fault_path));
  if (length < end || memcmp(path + length - end, page->fault_path, end) != 0 ||
      page->fault_count.fetch_sub(1) <= 0) {
    return false;
  }
  const long late_ms = strtol(page->fault_call + name, nullptr, 10);
  timespec late = {late_ms / 1000, late_ms % 1000 * 1000000};
  while (late_ms != 0 && syscall(SYS_nanosleep, &late, &late) != 0 && errno == EINTR) {
  }
  errno = page->fault_error;
  return errno != 0;
}

bool Faulty(const char *call, int descriptor) {
  if (page == nullptr || page->fault_count <= 0) {
    return false;
  }
  char link[64];
  snprintf(link, sizeof(link), "/proc/self/fd/%d", descriptor);
  char path[4096];
  const long length = syscall(SYS_readlink, link, path, sizeof(path) - 1);
  if (length < 0) {
    return false;
  }
  path[length] = '\0';
  return Faulty(call, path);
}

}  // namespace

#define INTERPOSE extern "C" __attribute__((visibility("default")))

INTERPOSE int clock_gettime(clockid_t clock, timespec *result) noexcept {
  return Read(clock, result);
}

INTERPOSE time_t time(time_t *result) noexcept {
  timespec now{};
  Read(CLOCK_REALTIME, &now);
  if (result != nullptr) {
    *result = now.tv_sec;
  }
  return now.tv_sec;
}

INTERPOSE int gettimeofday(timeval *result, void *) noexcept {
  timespec now{};
  Read(CLOCK_REALTIME, &now);
  result->tv_sec = now.tv_sec;
  result->tv_usec = now.tv_nsec / 1000;
  return 0;
}

INTERPOSE int uname(utsname *result) noexcept {
  int outcome = static_cast<int>(syscall(SYS_uname, result));
  if (outcome == 0 && page != nullptr && page->kernel_release[0] != '\0') {
    static_assert(sizeof(result->release) == sizeof(page->kernel_release));
    memcpy(result->release, page->kernel_release, sizeof(result->release));
    memcpy(result->version, page->kernel_version, sizeof(result->version));
    memcpy(result->machine, page->machine, sizeof(result->machine));
  }
  return outcome;
}

INTERPOSE int open(const char *path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return Faulty("open", path) ? -1
                              : static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

INTERPOSE int openat(int directory, const char *path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return Faulty("open", path) ? -1
                              : static_cast<int>(syscall(SYS_openat, directory, path, flags, mode));
}

INTERPOSE ssize_t read(int descriptor, void *buffer, size_t size) {
  return Faulty("read", descriptor) ? -1 : syscall(SYS_read, descriptor, buffer, size);
}

INTERPOSE int fstat(int descriptor, struct stat *result) noexcept {
  return Faulty("fstat", descriptor) ? -1
                                     : static_cast<int>(syscall(SYS_fstat, descriptor, result));
}

INTERPOSE int fsync(int descriptor) {
  return Faulty("fsync", descriptor) ? -1 : static_cast<int>(syscall(SYS_fsync, descriptor));
}

INTERPOSE unsigned alarm(unsigned seconds) noexcept {
  if (seconds > 0 && page != nullptr) {
    page->alarm_seconds = seconds;
    bool held = page->hold_alarms != 0;
    unsigned before = held ? 0 : static_cast<unsigned>(syscall(SYS_alarm, seconds));
    page->alarms++;
    return before;
  }
  return static_cast<unsigned>(syscall(SYS_alarm, seconds));
}

INTERPOSE unsigned sleep(unsigned seconds) {
  uint64_t ns = uint64_t{seconds} * 1000000000;
  if (page != nullptr) {
    bool first = page->sleeps++ == 0;
    page->slept_seconds += seconds;
    if (first && page->quick_start != 0) {
      ns = 0;
    } else {
      ns = ns / 100 * page->sleep_percent;
    }
  }
  timespec length{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
  timespec left{};
  if (syscall(SYS_clock_nanosleep, CLOCK_MONOTONIC, 0, &length, &left) != 0 && errno == EINTR) {
    return static_cast<unsigned>(left.tv_sec) + (left.tv_nsec > 0 ? 1 : 0);
  }
  return 0;
}

INTERPOSE int ioctl(int descriptor, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void *argument = va_arg(arguments, void *);
  va_end(arguments);
  if (request == TLXRMC_TRANSACT && page != nullptr && page->card_answers != 0) {
    const auto *transaction = static_cast<tlxrmc_transaction *>(argument);
    static const unsigned char kVersionRequest[] = {8, 0, 0, 0, 2, 0, 0, 0};
    if (transaction->request_length != sizeof(kVersionRequest) ||
        memcmp(transaction->request, kVersionRequest, sizeof(kVersionRequest)) != 0 ||
        transaction->reply_length != 256) {
      errno = EINVAL;
      return -1;
    }
    memcpy(transaction->reply, page->card_reply, sizeof(page->card_reply));
    return 0;
  }
  return static_cast<int>(syscall(SYS_ioctl, descriptor, request, argument));
}

INTERPOSE void *shmat(int segment, const void *address, int flags) noexcept {
  if (page != nullptr && page->refuse_shmat != 0) {
    errno = EACCES;
    return reinterpret_cast<void *>(-1);
  }
  return reinterpret_cast<void *>(syscall(SYS_shmat, segment, address, flags));
}
