#include "framework/registry/directory_lock.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "framework/registry/clearing.h"

namespace vex {
namespace {

constexpr int kMostChanges = 10;  // of the lock file while it is being taken

// A lock that is held: who waits for one has an arrow in its line.
struct HeldLock {
  pid_t holder = 0;
  unsigned major = 0;
  unsigned minor = 0;
  uint64_t inode = 0;
};

// "1: FLOCK  ADVISORY  WRITE 812 08:01:4711 0 EOF"
std::vector<HeldLock> HeldLocks(std::string_view text) {
  std::vector<HeldLock> locks;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    const std::string line(text.substr(0, end));
    text = end == text.npos ? std::string_view() : text.substr(end + 1);
    HeldLock lock;
    if (sscanf(line.c_str(), "%*s FLOCK ADVISORY %*s %d %x:%x:%" SCNu64, &lock.holder, &lock.major,
               &lock.minor, &lock.inode) == 4 &&
        lock.holder > 0) {
      locks.push_back(lock);
    }
  }
  return locks;
}

std::string ReadLocks() {
  std::string text;
  const Descriptor fd(open("/proc/locks", O_RDONLY | O_CLOEXEC));
  char part[4096];
  for (ssize_t got; fd;) {
    got = read(fd.get(), part, sizeof(part));
    if (got <= 0 && !(got < 0 && errno == EINTR)) {
      break;
    }
    text.append(part, got > 0 ? static_cast<size_t>(got) : 0);
  }
  return text;
}

std::string LinkText(const std::string &path) {
  char text[PATH_MAX];
  const ssize_t length = readlink(path.c_str(), text, sizeof(text));
  return {text, length > 0 ? static_cast<size_t>(length) : 0};
}

// Whether the process has that file open, under that path. No other file is looked at, which might
// hang.
bool HasOpen(pid_t process, const std::string &path, const struct stat &file) {
  const std::string directory = "/proc/" + std::to_string(process) + "/fd";
  DIR *dir = opendir(directory.c_str());
  bool found = false;
  while (dir != nullptr && !found) {
    const dirent *entry = readdir(dir);
    if (entry == nullptr) {
      break;
    }
    const std::string link = directory + "/" + entry->d_name;
    struct stat st;
    found = LinkText(link) == path && stat(link.c_str(), &st) == 0 && st.st_dev == file.st_dev &&
            st.st_ino == file.st_ino;
  }
  if (dir != nullptr) {
    closedir(dir);
  }
  return found;
}

std::optional<pid_t> HolderAmong(const std::vector<HeldLock> &locks, dev_t device, ino_t inode) {
  for (const HeldLock &lock : locks) {
    if (lock.inode == inode && lock.major == major(device) && lock.minor == minor(device)) {
      return lock.holder;
    }
  }
  return std::nullopt;
}

}  // namespace

std::optional<pid_t> LockHolderIn(std::string_view locks, dev_t device, ino_t inode) {
  return HolderAmong(HeldLocks(locks), device, inode);
}

std::optional<pid_t> LockHolder(int fd) {
  struct stat st;
  if (fstat(fd, &st) != 0) {
    return std::nullopt;
  }
  const std::vector<HeldLock> locks = HeldLocks(ReadLocks());
  if (const auto holder = HolderAmong(locks, st.st_dev, st.st_ino)) {
    return holder;
  }
  // Layered file systems have other numbers there than stat(2) gives.
  const std::string path = LinkText("/proc/self/fd/" + std::to_string(fd));
  for (const HeldLock &lock : locks) {
    if (!path.empty() && lock.holder != getpid() && HasOpen(lock.holder, path, st)) {
      return lock.holder;
    }
  }
  return std::nullopt;
}

namespace {

// The effective user of a process; nothing when it is gone or cannot be told.
std::optional<uid_t> UserOf(pid_t process) {
  // Not the owner of its directory there, which is root's for a process that cannot be traced.
  const Descriptor fd(
      open(("/proc/" + std::to_string(process) + "/status").c_str(), O_RDONLY | O_CLOEXEC));
  char text[4096];
  const ssize_t got = fd ? read(fd.get(), text, sizeof(text)) : -1;
  return EffectiveUserIn({text, got > 0 ? static_cast<size_t>(got) : 0});
}

std::string ProgramOf(const std::string &process) {
  return ProgramIn(LinkText("/proc/" + process + "/exe"));
}

// Whether no other user than root and this one can have it open, and so lock it.
bool IsPrivate(const struct stat &file) {
  return S_ISREG(file.st_mode) && (file.st_uid == 0 || file.st_uid == geteuid()) &&
         (file.st_mode & 077) == 0;
}

// Who has the lock file, which need not be ours to open.
std::optional<pid_t> FileHolder(int directory) {
  const Descriptor file(openat(directory, kLockFile, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat st;
  return file && fstat(file.get(), &st) == 0 && IsPrivate(st) ? LockHolder(file.get())
                                                              : std::nullopt;
}

}  // namespace

std::optional<uid_t> EffectiveUserIn(std::string_view status) {
  const size_t line = status.find("\nUid:");
  unsigned real = 0;
  unsigned effective = 0;
  if (line == status.npos ||
      sscanf(std::string(status.substr(line)).c_str(), "\nUid: %u %u", &real, &effective) != 2) {
    return std::nullopt;
  }
  return effective;
}

std::string ProgramIn(std::string link) {
  constexpr std::string_view kReplaced = " (deleted)";
  if (link.ends_with(kReplaced)) {
    link.resize(link.size() - kReplaced.size());
  }
  return link;
}

bool RunsThisProgram(pid_t process) {
  // A process that is dead and has left the lock to its child may have had this one's number.
  if (process <= 0 || process == getpid()) {
    return false;
  }
  const std::optional<uid_t> user = UserOf(process);
  const std::string program = ProgramOf(std::to_string(process));
  return user && (*user == 0 || *user == geteuid()) && !program.empty() &&
         program == ProgramOf("self");
}

bool IsLockFile(int directory, int fd) {
  struct stat now;
  struct stat held;
  return fstatat(directory, kLockFile, &now, AT_SYMLINK_NOFOLLOW) == 0 && fstat(fd, &held) == 0 &&
         now.st_dev == held.st_dev && now.st_ino == held.st_ino && IsPrivate(now);
}

int TakeLockFile(int directory, Descriptor *file, pid_t *holder) {
  for (int attempt = 0; attempt < kMostChanges; attempt++) {
    Descriptor taken(openat(directory, kLockFile,
                            O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                            0600));
    struct stat st;
    const int error = taken && fstat(taken.get(), &st) == 0 ? 0 : errno;
    if (error == EACCES) {
      const std::optional<pid_t> other = FileHolder(directory);
      *holder = other.value_or(0);
      return other ? EBUSY : error;
    }
    if (error != 0 && error != ELOOP && error != EISDIR && error != ENXIO) {
      return error;
    }
    if (error != 0 || !IsPrivate(st)) {
      if (RemoveTree(directory, kLockFile) != 0) {
        return errno;
      }
      continue;
    }
    if (flock(taken.get(), LOCK_EX | LOCK_NB) != 0) {
      if (errno != EWOULDBLOCK) {
        return errno;
      }
      *holder = LockHolder(taken.get()).value_or(0);
      return EBUSY;
    }
    // The holder before may have removed it at its end, just after we had opened it.
    if (IsLockFile(directory, taken.get())) {
      *file = std::move(taken);
      return 0;
    }
  }
  return EAGAIN;
}

int TakeDirectoryLock(int directory, pid_t *holder) {
  if (flock(directory, LOCK_EX | LOCK_NB) == 0) {
    return 0;
  }
  if (errno != EWOULDBLOCK) {
    return errno;
  }
  *holder = LockHolder(directory).value_or(0);
  return RunsThisProgram(*holder) ? EBUSY : EPERM;
}

std::optional<pid_t> DirectoryHolder(int directory) {
  const std::optional<pid_t> holder = FileHolder(directory);
  return holder ? holder : LockHolder(directory);
}

}  // namespace vex
