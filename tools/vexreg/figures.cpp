#include "tools/vexreg/figures.h"

#include <errno.h>
#include <fcntl.h>
#include <mntent.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>

#include "common/sources.h"
#include "framework/process/clock.h"
#include "framework/process/descriptor.h"
#include "framework/process/read_fully.h"

namespace vex {
namespace {

constexpr std::chrono::milliseconds kPatience{1000};  // with one mount

[[noreturn]] void AskAsChild(const std::vector<std::string> &directories, size_t from, int out) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (size_t i = from; i < directories.size(); i++) {
    MountFigures figures;
    struct statvfs answer = {};
    if (statvfs(directories[i].c_str(), &answer) == 0) {
      figures = {MountFigures::kAnswered, 0,
                 answer.f_frsize,         answer.f_blocks,
                 answer.f_bfree,          answer.f_files,
                 answer.f_ffree};
    } else {
      figures.state = MountFigures::kErrno;
      figures.error = errno;
    }
    if (write(out, &figures, sizeof(figures)) != sizeof(figures)) {
      break;
    }
  }
  _exit(0);
}

bool Answers(int from, MountFigures *figures) {
  const auto end = Clock::now() + kPatience;
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    pollfd waited = {from, POLLIN, 0};
    const int ready = poll(&waited, 1, static_cast<int>(std::max<int64_t>(left, 0)));
    if (ready < 0 && errno == EINTR) {
      continue;
    }
    return ready > 0 && ReadFully(from, figures, sizeof(*figures)) == sizeof(*figures);
  }
}

// How many were answered, from the first on.
size_t AskInOneChild(const std::vector<std::string> &directories, size_t from,
                     std::map<std::string, MountFigures> *figures) {
  int pipes[2];
  if (pipe2(pipes, O_CLOEXEC) != 0) {
    return 0;
  }
  const Descriptor in(pipes[0]);
  Descriptor out(pipes[1]);
  const pid_t child = fork();
  if (child == 0) {
    AskAsChild(directories, from, out.get());
  }
  out.Reset();
  size_t answered = 0;
  MountFigures one;
  while (child > 0 && from + answered < directories.size() && Answers(in.get(), &one)) {
    figures->emplace(directories[from + answered], one);
    answered++;
  }
  if (child > 0) {
    kill(child, SIGKILL);
    // One that waits for a dead server cannot be killed.
    waitpid(child, nullptr, from + answered == directories.size() ? 0 : WNOHANG);
  }
  return answered;
}

}  // namespace

std::map<std::string, MountFigures> AskMounts(const std::vector<std::string> &directories,
                                              int most_silent) {
  std::map<std::string, MountFigures> figures;
  int silent = 0;
  for (size_t at = 0; at < directories.size(); at++) {
    at += silent < most_silent ? AskInOneChild(directories, at, &figures) : 0;
    if (at < directories.size()) {
      figures.emplace(directories[at], MountFigures{});
      silent++;
    }
  }
  return figures;
}

std::vector<std::string> AskedDirectories(const std::string &mount_table) {
  std::vector<std::string> directories;
  const std::unique_ptr<FILE, int (*)(FILE *)> table(
      fmemopen(const_cast<char *>(mount_table.data()), mount_table.size(), "r"), fclose);
  mntent entry = {};
  char line[mount_line_size];
  while (table && getmntent_r(table.get(), &entry, line, sizeof(line)) != nullptr) {
    const std::string_view type = entry.mnt_type;
    if (entry.mnt_dir[0] == '/' &&
        std::find(std::begin(ignored_mount_types), std::end(ignored_mount_types), type) ==
            std::end(ignored_mount_types)) {
      directories.emplace_back(entry.mnt_dir);
    }
  }
  std::sort(directories.begin(), directories.end());
  directories.erase(std::unique(directories.begin(), directories.end()), directories.end());
  return directories;
}

}  // namespace vex
