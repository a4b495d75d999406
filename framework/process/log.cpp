#include "framework/process/log.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <string>

#include "framework/process/clock.h"
#include "framework/process/descriptor.h"
#include "framework/process/guard.h"
#include "framework/process/trusted_link.h"
#include "platform/framework.h"

namespace vex {

namespace {

constexpr size_t kUsualMessage = 1024;

// The number stays the same when the file is opened again, so that a writer on another thread
// always has an open one.
std::atomic<int> log_fd{STDERR_FILENO};
char *log_path;
const char *log_name = "agent";

int WriteToLog(const char *text, size_t length);
LogSink log_sink = WriteToLog;

// The log's directory may be one where others write. O_NONBLOCK: a pipe that nobody reads must not
// hold us up; what it does not take is lost. Throws std::bad_alloc.
int OpenForAppending(int from, const std::string &path, int links) {
  constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  const size_t name = path.rfind('/') + 1;  // 0 without one
  const Descriptor directory(openat(from, name == 0 ? "." : path.substr(0, name).c_str(),
                                    O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!directory) {
    return -1;
  }
  const char *leaf = path.c_str() + name;
  const int fd = openat(directory.get(), leaf, kFlags | O_NOFOLLOW, 0600);
  if (fd >= 0 || errno != ELOOP || links == 0) {
    return fd;
  }
  const Descriptor link(openat(directory.get(), leaf, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  std::string target;
  struct statfs system;
  if (!link || !ReadTrustedLink(link.get(), &target) || fstatfs(link.get(), &system) != 0) {
    return -1;
  }
  // Links of the kernel's own lead where no name does, whatever they say: /dev/stderr ends at one.
  // Nobody plants others beside them.
  return system.f_type == PROC_SUPER_MAGIC ? openat(directory.get(), leaf, kFlags, 0600)
                                           : OpenForAppending(directory.get(), target, links - 1);
}

int OpenForAppending(const char *path) {
  constexpr int kMostLinks = 40;  // as the kernel's
  return Guarded(-1, [path] { return OpenForAppending(AT_FDCWD, path, kMostLinks); });
}

// Whether a pipe or socket takes something within the limit; other files always do. Where that
// cannot be asked (a process without a single descriptor left may not), writing shows it.
bool TakesMore(int fd, int limit_ms) {
  const Clock::time_point until = Clock::now() + std::chrono::milliseconds(limit_ms);
  pollfd asked = {fd, POLLOUT, 0};
  int ready;
  while ((ready = poll(&asked, 1, limit_ms)) < 0 && errno == EINTR) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
    limit_ms = std::max(static_cast<int>(left.count()), 0);
  }
  return ready != 0;
}

// Who reads standard error may hang, and must not hold up the agent: the first message that is not
// taken waits a moment, those after it not at all, and how many were lost is said once it is.
constexpr int kPatienceMs = 100;
constexpr size_t kChunk = 4096;  // what a pipe that takes anything takes at once
std::mutex writing;
unsigned lost;

int WriteBytes(int fd, const char *text, size_t length) {
  size_t done = 0;
  while (done < length) {
    if (!TakesMore(fd, done == 0 && lost != 0 ? 0 : kPatienceMs)) {
      return -1;
    }
    const ssize_t n = write(fd, text + done, std::min(kChunk, length - done));
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return -1;
    }
    done += static_cast<size_t>(n);
  }
  return static_cast<int>(length);
}

int WriteMessage(int fd, const char *text, size_t length) {
  const std::lock_guard lock(writing);
  if (lost != 0) {
    char line[128];
    const int size = snprintf(line, sizeof(line), "%s: %u messages were lost: nobody took them\n",
                              AgentName(), lost);
    if (WriteBytes(fd, line, static_cast<size_t>(size)) >= 0) {
      lost = 0;
    }
  }
  const int result = WriteBytes(fd, text, length);
  lost += result < 0;
  return result;
}

int WriteToLog(const char *text, size_t length) {
  return WriteMessage(log_fd.load(), text, length);
}

}  // namespace

const char *AgentName() {
  return log_name;
}

void SetLogName(const char *name) {
  log_name = name;
}

void SetLogSink(LogSink sink) {
  log_sink = sink;
}

int LogFd() {
  return log_fd.load();
}

int OpenLog(const char *path) {
  const int fd = OpenForAppending(path);
  if (fd < 0) {
    return -1;
  }
  char *copy = strdup(path);
  if (copy == nullptr) {
    close(fd);
    errno = ENOMEM;
    return -1;
  }
  const int old = log_fd.exchange(fd);
  if (old != STDERR_FILENO) {
    close(old);
  }
  free(log_path);
  log_path = copy;
  return 0;
}

void ReopenLog() {
  if (log_path == nullptr) {
    return;
  }
  const int fd = OpenForAppending(log_path);
  if (fd < 0) {
    agentlog_fprintf(stderr, "%s: Can't open log file %s again: %s\n", AgentName(), log_path,
                     strerror(errno));
    return;
  }
  if (dup3(fd, log_fd.load(), O_CLOEXEC) < 0) {
    // Into the old file.
    agentlog_fprintf(stderr, "%s: Can't use log file %s: %s\n", AgentName(), log_path,
                     strerror(errno));
  }
  close(fd);
}

}  // namespace vex

int agentlog_fprintf(FILE *stream, const char *format, ...) {
  const int saved = errno;  // a format may use it, and the caller may still want it
  char usual[vex::kUsualMessage];
  char *text = usual;
  va_list arguments;
  va_start(arguments, format);
  int length = vsnprintf(usual, sizeof(usual), format, arguments);
  va_end(arguments);
  if (length >= static_cast<int>(sizeof(usual))) {
    text = static_cast<char *>(malloc(static_cast<size_t>(length) + 1));
    if (text == nullptr) {
      // Its beginning, as a line of its own.
      text = usual;
      length = static_cast<int>(sizeof(usual)) - 1;
      text[length - 1] = '\n';
    } else {
      va_start(arguments, format);
      length = vsnprintf(text, static_cast<size_t>(length) + 1, format, arguments);
      va_end(arguments);
    }
  }
  int result = -1;
  if (length >= 0) {
    if (stream == stderr) {
      result = vex::log_sink(text, static_cast<size_t>(length));
    } else if (stream != nullptr && fflush(stream) == 0) {
      result = vex::WriteMessage(fileno(stream), text, static_cast<size_t>(length));
    }
  }
  if (text != usual) {
    free(text);
  }
  errno = saved;
  return result;
}
