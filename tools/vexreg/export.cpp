// vexreg export: what is published, for a collector of metrics.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>

#include "framework/registry/registry_dir.h"
#include "tools/vexreg/absence.h"
#include "tools/vexreg/commands.h"
#include "tools/vexreg/open_metrics.h"

namespace vex {
namespace {

constexpr char kOwnDirectory[] = "host";

bool WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0 && errno != EINTR) {
      return false;
    }
    text.remove_prefix(written > 0 ? static_cast<size_t>(written) : 0);
  }
  return true;
}

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

// Writes a file beside, synchronises it and renames it, so that a reader has the old text or the
// new one. 0, or -1 with errno; then the file is as it was.
int ReplaceFile(const std::string &path, std::string_view text) {
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
  // One that a killed process of this number has left.
  unlinkat(directory.get(), beside.c_str(), 0);
  constexpr mode_t kMode = 0644;  // collectors run as other users
  const Descriptor file(openat(directory.get(), beside.c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMode));
  if (!file) {
    return -1;
  }
  if (fchmod(file.get(), kMode) == 0 && WriteAll(file.get(), text) && fsync(file.get()) == 0 &&
      renameat(directory.get(), beside.c_str(), directory.get(), name.c_str()) == 0) {
    return fsync(directory.get());
  }
  const int error = errno;
  unlinkat(directory.get(), beside.c_str(), 0);
  errno = error;
  return -1;
}

}  // namespace

int Export(const std::string &root, const std::optional<std::string> &file) {
  int status = kDone;
  std::vector<NamedObject> objects;
  for (NamedFile &one : ReadObjectsOf(kOwnDirectory, root)) {
    if (one.object) {
      objects.push_back({std::move(one.name), std::move(*one.object)});
    } else {
      Complain(one.name + ": damaged, or not for this user to read; left out");
    }
  }
  if (objects.empty()) {
    // Without a sample all the same: what was written before is not true any more.
    status = kFailed;
    Complain(WhyNothing(root));
  }
  const std::string text = OpenMetrics(objects);
  if (!file) {
    std::cout << text;
    return FinishOutput(status);
  }
  if (ReplaceFile(*file, text) != 0) {
    Complain(*file + ": cannot be written: " + strerror(errno));
    return kFailed;
  }
  return status;
}

}  // namespace vex
