#include "framework/registry/claim.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "framework/process/guard.h"
#include "framework/process/log.h"
#include "framework/registry/clearing.h"
#include "framework/registry/directory_lock.h"
#include "framework/registry/objects.h"
#include "framework/registry/registry_dir.h"
#include "framework/registry/registry_path.h"
#include "platform/framework.h"

namespace vex {

namespace {

// A start right after a kill must not be refused: the kernel may still be closing the dead
// process's descriptors, or those of a command that it was about to start.
constexpr int kClaimAttempts = 20;
constexpr timespec kClaimPause = {0, 50'000'000};
constexpr int kMostChanges = 10;  // of the directory while it is being taken

struct Claim {
  std::string relative;  // below the root; empty: none was asked for
  Descriptor directory;  // none while it could not be had
  Descriptor lock;       // its file; none while that could not be had
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
    Descriptor directory(OpenBeneath(root, claim.relative, kReadDirectory));
    if (!directory && errno == ENOENT) {
      continue;
    }
    if (!directory) {
      return -1;
    }
    // The directory first: an agent before the lock file would not have made that. Who has it and
    // is none may be what a dead one leaves behind for a moment.
    const int error = TakeDirectoryLock(directory.get(), holder);
    if (error == EBUSY || (error != 0 && !without_lock)) {
      errno = error == EPERM ? EBUSY : error;
      return -1;
    }
    Descriptor lock;
    const int file_error = TakeLockFile(directory.get(), &lock, holder);
    if (file_error == EBUSY || (IsPassing(file_error) && !without_lock)) {
      errno = file_error;
      return -1;
    }
    // A file system without locks: a second agent would not be noticed, but this one can work.
    // And anybody may open the directory, and so lock it: that must not keep the agent away.
    if (error != 0 && !claim.unlockable) {
      claim.unlockable = true;
      agentlog_fprintf(
          stderr, "%s: Can't lock registry directory %s/%s: %s\n", AgentName(),
          RegistryRootPath().c_str(), claim.relative.c_str(),
          error == EPERM ? "a process that is no agent has locked it" : strerror(error));
    }
    // The holder before may have removed it at its end, just after we had opened it.
    const Descriptor now(OpenBeneath(root, claim.relative, O_PATH | O_DIRECTORY));
    if (now && IdOf(now.get()) == IdOf(directory.get())) {
      claim.directory = std::move(directory);
      claim.lock = std::move(lock);
      return kTakenNow;
    }
  }
  errno = EAGAIN;
  return -1;
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

const char *OwnLockFile(int directory) {
  const Claim &claim = TheClaim();
  const auto id = claim.directory ? IdOf(directory) : std::nullopt;
  return id && id == IdOf(claim.directory.get()) ? kLockFile : nullptr;
}

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
    if (taken == kTakenNow && ClearDirectory(claim.directory.get(), kLockFile) != 0) {
      agentlog_fprintf(stderr, "%s: Can't clear registry directory %s/%s: %s\n", AgentName(),
                       held.path().c_str(), claim.relative.c_str(), strerror(errno));
    }
    same = false;
  }
  if (claim.directory && GiveDirectoryMode(claim.directory.get()) != 0) {
    return failed(errno);
  }
  // Removed, or it could not be made before: the next poll tries again.
  if (claim.directory && !(claim.lock && IsLockFile(claim.directory.get(), claim.lock.get()))) {
    pid_t holder = 0;
    TakeLockFile(claim.directory.get(), &claim.lock, &holder);
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
