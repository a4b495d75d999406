// Directories of the registry. Nothing outside the root is touched, and no symbolic link below it
// is followed.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "framework/process/guard.h"
#include "framework/process/log.h"
#include "framework/registry/directory_lock.h"
#include "framework/registry/objects.h"
#include "framework/registry/registry_dir.h"
#include "framework/registry/registry_file.h"
#include "platform/framework.h"

namespace vex {

namespace {

constexpr int kMaxDepth = 64;  // each level holds a descriptor
constexpr int kMaxPasses = 10'000;
constexpr int kDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// Removes what is in a directory. What lies deeper than kMaxDepth is moved up to the directory
// itself and removed by the next pass, so that no depth costs more descriptors or stack.
class Clearing {
 public:
  explicit Clearing(int directory) : top_(directory) {}

  // 0, or -1 with errno. Goes on after an entry that cannot be removed.
  int Run() {
    for (int pass = 0; pass < kMaxPasses; pass++) {
      moved_ = false;
      Descriptor again(openat(top_, ".", kDirectory));
      if (!again || RemoveContents(again.Release(), 0) != 0) {
        return -1;
      }
      if (!moved_) {
        return 0;
      }
    }
    errno = ELOOP;
    return -1;
  }

 private:
  // Removes what `name` in the directory `parent` is; what vanishes meanwhile is no error.
  int RemoveEntry(int parent, const char *name, int depth) {
    if (unlinkat(parent, name, 0) == 0 || errno == ENOENT) {
      return 0;
    }
    if (errno != EISDIR && errno != EPERM) {
      return -1;
    }
    if (depth >= kMaxDepth) {
      return MoveUp(parent, name);
    }
    Descriptor directory(openat(parent, name, kDirectory));
    if (!directory) {
      return errno == ENOENT ? 0 : -1;
    }
    if (RemoveContents(directory.Release(), depth + 1) != 0) {
      return -1;
    }
    return unlinkat(parent, name, AT_REMOVEDIR) == 0 || errno == ENOENT ? 0 : -1;
  }

  int MoveUp(int parent, const char *name) {
    // A name that no object has, and that no earlier pass has left.
    for (;;) {
      const std::string to = ".deep." + std::to_string(getpid()) + "." + std::to_string(next_++);
      if (renameat(parent, name, top_, to.c_str()) == 0) {
        moved_ = true;
        return 0;
      }
      if (errno != ENOTEMPTY && errno != EEXIST) {
        return errno == ENOENT ? 0 : -1;
      }
    }
  }

  // Takes over the descriptor.
  int RemoveContents(int directory, int depth) {
    Descriptor owner(directory);
    DIR *dir = fdopendir(directory);
    if (dir == nullptr) {
      return -1;
    }
    owner.Release();
    int error = 0;
    for (;;) {
      errno = 0;
      const dirent *entry = readdir(dir);
      if (entry == nullptr) {
        error = errno != 0 ? errno : error;
        break;
      }
      if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0 &&
          RemoveEntry(directory, entry->d_name, depth) != 0) {
        error = errno;
      }
    }
    closedir(dir);
    errno = error;
    return error == 0 ? 0 : -1;
  }

  int top_;
  bool moved_ = false;
  unsigned next_ = 0;
};

// Removes what `name` in the directory `parent` is, with all that is in it.
int RemoveTree(int parent, const char *name) {
  if (unlinkat(parent, name, 0) == 0 || errno == ENOENT) {
    return 0;
  }
  if (errno != EISDIR && errno != EPERM) {
    return -1;
  }
  Descriptor directory(openat(parent, name, kDirectory));
  if (!directory) {
    return errno == ENOENT ? 0 : -1;
  }
  if (Clearing(directory.get()).Run() != 0) {
    return -1;
  }
  return unlinkat(parent, name, AT_REMOVEDIR) == 0 || errno == ENOENT ? 0 : -1;
}

// Opens the directory `path`, at or below the root; -1 with errno.
int OpenDirectory(std::string_view path) {
  const std::string &root = RegistryRootPath();
  const std::optional<std::string> relative = ResolveDirectoryName(path, root);
  if (!relative) {
    errno = EXDEV;
    return -1;
  }
  const Descriptor root_fd(OpenRegistryRoot(root, false));
  return root_fd ? OpenBeneath(root_fd.get(), *relative, kDirectory) : -1;
}

// Removes the root itself, which must be empty.
int RemoveRoot(const std::string &root) {
  const auto [parent, leaf] = SplitPath(root);
  const Descriptor at(OpenRegistryRoot(parent.empty() ? "/" : parent, false));
  return at ? unlinkat(at.get(), leaf.c_str(), AT_REMOVEDIR) : -1;
}

int RemoveEmpty(std::string_view path) {
  const std::string &root = RegistryRootPath();
  const std::optional<std::string> relative = ResolveDirectoryName(path, root);
  if (!relative) {
    errno = EXDEV;
    return -1;
  }
  if (relative->empty()) {
    return RemoveRoot(root);
  }
  const Descriptor root_fd(OpenRegistryRoot(root, false));
  const auto [parent, leaf] = SplitPath(*relative);
  const Descriptor at(root_fd ? OpenBeneath(root_fd.get(), parent, O_PATH | O_DIRECTORY) : -1);
  return at ? unlinkat(at.get(), leaf.c_str(), AT_REMOVEDIR) : -1;
}

int RemoveAll(std::string_view path) {
  constexpr std::string_view kContents = "/*";
  const bool contents = path.ends_with(kContents);
  if (contents) {
    path.remove_suffix(kContents.size());
  }
  const std::string &root = RegistryRootPath();
  const std::optional<std::string> relative = ResolveDirectoryName(path, root);
  if (!relative) {
    errno = EXDEV;
    return -1;
  }
  Descriptor root_fd(OpenRegistryRoot(root, false));
  if (!root_fd) {
    return errno == ENOENT ? 0 : -1;
  }
  if (contents || relative->empty()) {
    Descriptor directory(OpenBeneath(root_fd.get(), *relative, kDirectory));
    if (!directory) {
      return errno == ENOENT ? 0 : -1;
    }
    if (Clearing(directory.get()).Run() != 0) {
      return -1;
    }
    return contents || RemoveRoot(root) == 0 ? 0 : -1;
  }
  const auto [parent, leaf] = SplitPath(*relative);
  Descriptor at(OpenBeneath(root_fd.get(), parent, O_PATH | O_DIRECTORY));
  if (!at) {
    return errno == ENOENT ? 0 : -1;
  }
  return RemoveTree(at.get(), leaf.c_str());
}

// ---- The directory that this process has for itself

// A start right after a kill must not be refused: the kernel may still be closing the dead
// process's descriptors, or those of a command that it was about to start.
constexpr int kClaimAttempts = 20;
constexpr timespec kClaimPause = {0, 50'000'000};
constexpr int kMostChanges = 10;  // of the directory while it is being taken

struct Claim {
  std::string relative;  // below the root; empty: none was asked for
  Descriptor directory;  // locked; none while it could not be had
  bool refused = false;
  bool unlockable = false;  // was told
};

Claim &TheClaim() {
  static auto *claim = new Claim;
  return *claim;
}

// Whether the path below the root still leads to the directory that is held.
// Nothing, with errno, when it could not be looked at: that says nothing of where it leads.
std::optional<bool> ClaimStands(int root) {
  const Claim &claim = TheClaim();
  const Descriptor now(OpenBeneath(root, claim.relative, O_PATH | O_DIRECTORY));
  if (!now) {
    return errno == ENOENT || errno == ENOTDIR || errno == ELOOP ? std::optional(false)
                                                                 : std::nullopt;
  }
  if (!claim.directory) {
    return false;
  }
  const auto id = IdOf(now.get());
  const auto held = id ? IdOf(claim.directory.get()) : std::nullopt;
  return held ? std::optional(id == held) : std::nullopt;
}

enum TakenClaim { kStood = 0, kTakenNow = 1 };

// Makes and locks the directory below this root. Whether it was held already or is from now on; -1
// with errno; EBUSY: another process has it, *holder, 0 when it cannot be told which. With
// without_lock, a file system that has no locks will do.
int TakeClaim(int root, pid_t *holder, bool without_lock) {
  Claim &claim = TheClaim();
  for (int attempt = 0; attempt < kMostChanges; attempt++) {
    if (MakeDirectories(root, claim.relative) != 0) {
      return -1;
    }
    const std::optional<bool> stands = ClaimStands(root);
    if (!stands) {
      return -1;
    }
    if (*stands) {
      return kStood;  // by another way to it
    }
    Descriptor directory(OpenBeneath(root, claim.relative, kDirectory));
    if (!directory && errno == ENOENT) {
      continue;
    }
    if (!directory) {
      return -1;
    }
    if (flock(directory.get(), LOCK_EX | LOCK_NB) != 0) {
      int error = errno;
      if (error == EWOULDBLOCK) {
        *holder = LockHolder(directory.get()).value_or(0);
        const std::optional<uid_t> user = *holder > 0 ? UserOf(*holder) : std::nullopt;
        if (!user || *user == 0 || *user == geteuid()) {
          errno = EBUSY;
          return -1;
        }
        // Anybody may open the directory, and so lock it: that must not keep the agent away.
        error = EPERM;
      } else if (!without_lock) {
        return -1;
      }
      // A file system without locks: a second agent would not be noticed, but this one can work.
      if (!claim.unlockable) {
        claim.unlockable = true;
        agentlog_fprintf(stderr, "%s: Can't lock registry directory %s/%s: %s\n", AgentName(),
                         RegistryRootPath().c_str(), claim.relative.c_str(),
                         error == EPERM ? "another user's process has locked it" : strerror(error));
      }
    }
    // The holder before may have removed it at its end, just after we had opened it.
    const Descriptor now(OpenBeneath(root, claim.relative, O_PATH | O_DIRECTORY));
    if (now && IdOf(now.get()) == IdOf(directory.get())) {
      claim.directory = std::move(directory);
      return kTakenNow;
    }
  }
  errno = EAGAIN;
  return -1;
}

// What may be otherwise in a moment.
bool IsPassing(int error) {
  switch (error) {
    case EBUSY:
    case EMFILE:
    case ENFILE:
    case ENOMEM:
    case EINTR:
    case EIO:
    case EAGAIN:
    case ENOLCK:
      return true;
    default:
      return false;
  }
}

// Whether flock(2) says so of a file system that has none: asked a few times all the same.
bool LacksLocks(int error) {
  return error == EOPNOTSUPP || error == ENOSYS || error == EINVAL;
}

// Says who has the directory, once; the process ends.
void Refuse(pid_t holder) {
  Claim &claim = TheClaim();
  const std::string path = RegistryRootPath() + "/" + claim.relative;
  if (claim.refused) {
    return;
  }
  claim.refused = true;
  if (holder > 0) {
    agentlog_fprintf(stderr, "%s: Process %d already runs with the registry directory %s\n",
                     AgentName(), static_cast<int>(holder), path.c_str());
  } else {
    agentlog_fprintf(stderr, "%s: Another process already runs with the registry directory %s\n",
                     AgentName(), path.c_str());
  }
}

// 0 when the directory is this process's, 1 when that could not be had for another reason than
// another process, -1 with EBUSY.
int TakeFirstClaim(const char *path) {
  Claim &claim = TheClaim();
  const std::string &root = RegistryRootPath();
  auto relative = ResolveObjectName(path != nullptr ? std::string_view(path) : "", root);
  if (!relative) {
    errno = EXDEV;
    return -1;
  }
  claim.relative = std::move(*relative);
  pid_t holder = 0;
  for (int attempt = 1;; attempt++) {
    const bool last = attempt == kClaimAttempts || agent_ending() != 0;
    const int root_fd = RootOf(root).Get();
    if (root_fd >= 0 && TakeClaim(root_fd, &holder, last) >= 0) {
      return 0;
    }
    if (last || !(IsPassing(errno) || LacksLocks(errno))) {
      break;
    }
    nanosleep(&kClaimPause, nullptr);
  }
  if (errno != EBUSY) {
    return 1;  // KeepRoot() tries again; meanwhile the values are served
  }
  Refuse(holder);
  errno = EBUSY;
  return -1;
}

}  // namespace

bool ClaimRefused() {
  return TheClaim().refused;
}

void ForgetClaim() {
  TheClaim() = {};
}

RootState KeepRoot(std::string *problem) {
  const auto failed = [&](int error) {
    *problem = strerror(error);
    return RootState::kFailed;
  };
  HeldRoot &held = RootOf(RegistryRootPath());
  Claim &claim = TheClaim();
  Descriptor now(OpenRegistryRoot(held.path(), false));
  if (!now && errno == ENOENT) {
    now.Reset(OpenRegistryRoot(held.path(), true));
  }
  if (!now || GiveDirectoryMode(now.get()) != 0) {
    return failed(errno);
  }
  const std::optional<bool> is_held = held.IsHeld(now.get());
  const std::optional<bool> stands =
      claim.relative.empty() ? std::optional(true) : ClaimStands(now.get());
  if (!is_held || !stands) {
    return failed(errno);
  }
  bool same = *is_held;
  if (!(same && *stands)) {
    pid_t holder = 0;
    const bool had = static_cast<bool>(claim.directory);
    const int taken = claim.relative.empty() ? kStood : TakeClaim(now.get(), &holder, true);
    if (taken < 0) {
      if (errno != EBUSY) {
        return failed(errno);
      }
      if (!had) {
        Refuse(holder);  // it could not be had at the start, and is another's
      }
      *problem = holder > 0 ? "process " + std::to_string(holder) + " has the directory"
                            : "another process has the directory";
      return RootState::kFailed;
    }
    // As at the start: what is there is no object of this process.
    if (taken == kTakenNow && Clearing(claim.directory.get()).Run() != 0) {
      agentlog_fprintf(stderr, "%s: Can't clear registry directory %s/%s: %s\n", AgentName(),
                       held.path().c_str(), claim.relative.c_str(), strerror(errno));
    }
    same = false;
  }
  if (claim.directory && GiveDirectoryMode(claim.directory.get()) != 0) {
    return failed(errno);
  }
  if (same) {
    return RootState::kSame;
  }
  held.Hold(std::move(now));
  return RootState::kRenewed;
}

}  // namespace vex

int claim_dir(const char *path) {
  const int result = vex::Guarded(-1, [&] { return vex::TakeFirstClaim(path); });
  if (result != 0 && errno == ENOMEM) {
    agentlog_fprintf(stderr, "%s: Can't take the registry directory: %s\n", vex::AgentName(),
                     strerror(errno));
  }
  return result;
}

int create_dir(const char *path, int parents) {
  return vex::Guarded(-1, [&] {
    const std::string &root = vex::RegistryRootPath();
    const auto relative =
        vex::ResolveDirectoryName(path != nullptr ? std::string_view(path) : "", root);
    if (!relative) {
      errno = EXDEV;
      return -1;
    }
    vex::Descriptor root_fd(vex::OpenRegistryRoot(root, parents != 0 || relative->empty()));
    if (!root_fd) {
      return -1;
    }
    return relative->empty() ? 0 : vex::MakeDirectories(root_fd.get(), *relative, parents != 0);
  });
}

int remove_all_dir(const char *path) {
  return vex::Guarded(-1, [&] {
    return vex::RemoveAll(path != nullptr ? std::string_view(path) : std::string_view());
  });
}

int is_empty_dir(const char *path) {
  return vex::Guarded(0, [&] {
    return static_cast<int>(vex::IsEmptyDirectory(vex::OpenDirectory(path != nullptr ? path : "")));
  });
}

int remove_empty_dir(const char *path) {
  return vex::Guarded(-1, [&] {
    if (vex::ClaimRefused()) {
      errno = EBUSY;  // it is another process's
      return -1;
    }
    return vex::RemoveEmpty(path != nullptr ? path : "");
  });
}

int open_dir(const char *path) {
  return vex::Guarded(-1, [&] { return vex::OpenDirectory(path != nullptr ? path : ""); });
}
