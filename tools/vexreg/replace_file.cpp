#include "tools/vexreg/replace_file.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>

#include "framework/process/descriptor.h"
#include "tools/vexreg/commands.h"

namespace vex {
namespace {

// The signals that would leave a file half written behind are taken after it.
class SignalsLater {
 public:
  SignalsLater() {
    sigset_t later;
    sigemptyset(&later);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
      sigaddset(&later, number);
    }
    sigprocmask(SIG_BLOCK, &later, &before_);
  }
  ~SignalsLater() {
    sigprocmask(SIG_SETMASK, &before_, nullptr);
  }
  SignalsLater(const SignalsLater &) = delete;
  SignalsLater &operator=(const SignalsLater &) = delete;

 private:
  sigset_t before_;
};

// All of the bytes, whatever the pieces. False with errno.
bool WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno != EINTR) {
      return false;
    }
    bytes.remove_prefix(written > 0 ? static_cast<size_t>(written) : 0);
  }
  return true;
}

constexpr int kNoPlainFile = -2;

// 0, -1 with errno, or kNoPlainFile.
int ReplaceFile(const std::string &path, std::string_view bytes, mode_t mode) {
  const SignalsLater later;
  const auto slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const std::string name = path.substr(slash == std::string::npos ? 0 : slash + 1);
  const std::string beside = "." + name + "." + std::to_string(getpid());
  const Descriptor directory(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory) {
    return -1;
  }
  if (name.empty()) {
    errno = EISDIR;
    return -1;
  }
  // A rename would put a file in a device's or a link's place, which nobody wants of "write there".
  struct stat there = {};
  if (fstatat(directory.get(), name.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0) {
    if (!S_ISREG(there.st_mode)) {
      return kNoPlainFile;
    }
  } else if (errno != ENOENT) {
    return -1;
  }
  // One that a killed process of this number has left.
  unlinkat(directory.get(), beside.c_str(), 0);
  const Descriptor file(openat(directory.get(), beside.c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
  if (!file) {
    return -1;
  }
  if (fchmod(file.get(), mode) == 0 && WriteAll(file.get(), bytes) && fsync(file.get()) == 0 &&
      renameat(directory.get(), beside.c_str(), directory.get(), name.c_str()) == 0) {
    return fsync(directory.get());
  }
  const int error = errno;
  unlinkat(directory.get(), beside.c_str(), 0);
  errno = error;
  return -1;
}

}  // namespace

bool WriteOutput(const std::string &path, std::string_view bytes, mode_t mode) {
  if (path == kStandardOutput) {
    std::cout.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return FinishOutput(kDone) == kDone;
  }
  const int result = ReplaceFile(path, bytes, mode);
  if (result != 0) {
    Complain(path + ": " +
             (result == kNoPlainFile ? "not a plain file, and left as it is; - is standard output"
                                     : std::string("cannot be written: ") + strerror(errno)));
  }
  return result == 0;
}

}  // namespace vex
