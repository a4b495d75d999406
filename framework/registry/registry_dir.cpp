#include "framework/registry/registry_dir.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>

#include "framework/process/trusted_link.h"
#include "framework/registry/registry_path.h"

namespace vex {

int OpenBeneathByWalk(int root, const std::string &path, int flags, mode_t mode) {
  const std::string &target = path.empty() ? "." : path;
  Descriptor at;
  size_t begin = 0;
  for (;;) {
    const size_t slash = target.find('/', begin);
    const std::string component = target.substr(begin, slash - begin);
    if (component == "..") {
      errno = EXDEV;
      return -1;
    }
    const int from = at ? at.get() : root;
    if (slash == std::string::npos) {
      return openat(from, component.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, mode);
    }
    at.Reset(openat(from, component.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!at) {
      return -1;
    }
    begin = slash + 1;
  }
}

int OpenBeneath(int root, const std::string &path, int flags, mode_t mode) {
  static std::atomic<bool> kernel_has_openat2{true};
  const std::string &target = path.empty() ? "." : path;
  if (kernel_has_openat2.load(std::memory_order_relaxed)) {
    open_how how = {};
    how.flags = static_cast<uint64_t>(flags | O_CLOEXEC | O_NOFOLLOW);
    how.mode = (flags & O_CREAT) != 0 ? mode : 0;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
    const long fd = syscall(SYS_openat2, root, target.c_str(), &how, sizeof(how));
    if (fd >= 0) {
      return static_cast<int>(fd);
    }
    if (errno == ENOSYS) {
      kernel_has_openat2.store(false, std::memory_order_relaxed);
    } else if (errno != EPERM) {  // EPERM may be a sandbox that does not know the call
      return -1;
    }
  }
  return OpenBeneathByWalk(root, path, flags, mode);
}

int GiveDirectoryMode(int directory) {
  constexpr mode_t kMode = 0755;
  struct stat st;
  if (fstat(directory, &st) != 0) {
    return -1;
  }
  if (st.st_uid != geteuid() || (st.st_mode & kMode) == kMode) {
    return 0;
  }
  // fchmod(2) takes no O_PATH descriptor, and the directory may be one that its owner cannot open.
  char link[32];
  snprintf(link, sizeof(link), "/proc/self/fd/%d", directory);
  return chmod(link, (st.st_mode & 07777) | kMode);
}

int MakeDirectories(int root, const std::string &path, bool parents) {
  size_t slash = parents ? path.find('/') : std::string::npos;
  for (;;) {
    const auto [parent, leaf] = SplitPath(path.substr(0, slash));
    Descriptor at(OpenBeneath(root, parent, O_PATH | O_DIRECTORY));
    if (!at || (mkdirat(at.get(), leaf.c_str(), 0755) != 0 && errno != EEXIST)) {
      return -1;
    }
    // Whatever the umask, and whoever died between the two steps: siblings read here.
    const Descriptor made(
        openat(at.get(), leaf.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!made || GiveDirectoryMode(made.get()) != 0) {
      return -1;
    }
    if (slash == std::string::npos) {
      return 0;
    }
    slash = path.find('/', slash + 1);
  }
}

bool IsEmptyDirectory(int directory) {
  Descriptor fd(directory);
  DIR *dir = fd ? fdopendir(fd.get()) : nullptr;
  if (dir == nullptr) {
    return false;
  }
  fd.Release();
  bool empty = true;
  errno = 0;
  while (const dirent *entry = readdir(dir)) {
    empty = empty && (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0);
  }
  empty = empty && errno == 0;
  closedir(dir);
  return empty;
}

namespace {

int OpenWay(const std::string &path, int from, bool create, int links);

// One step on the way to the root: a directory, or a link to one that the administrator or this
// user has made. Who may write to a directory above the registry must not lead us elsewhere: a link
// is followed as it was looked at, not by its name, which may be another link's by now.
int OpenStep(int parent, const std::string &name, bool create, bool last, int links) {
  constexpr int kFlags = O_PATH | O_CLOEXEC;
  int fd = openat(parent, name.c_str(), kFlags | O_NOFOLLOW);
  bool made = false;
  if (fd < 0 && errno == ENOENT && create) {
    made = mkdirat(parent, name.c_str(), 0755) == 0;
    if (!made && errno != EEXIST) {
      return -1;
    }
    fd = openat(parent, name.c_str(), kFlags | O_NOFOLLOW);
  }
  Descriptor step(fd);
  struct stat st;
  if (!step || fstat(step.get(), &st) != 0) {
    return -1;
  }
  if (S_ISLNK(st.st_mode)) {
    std::string target;
    if (links == 0) {
      errno = ELOOP;
      return -1;
    }
    return ReadTrustedLink(step.get(), &target) ? OpenWay(target, parent, false, links - 1) : -1;
  }
  if (!S_ISDIR(st.st_mode)) {
    errno = ENOTDIR;
    return -1;
  }
  // Who made it may have died before it had its mode: it is then empty. What has something in it is
  // as the administrator wants it, unless it is the registry itself.
  if (create && (st.st_mode & 0755) != 0755 &&
      (made || last ||
       IsEmptyDirectory(
           openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC))) &&
      GiveDirectoryMode(step.get()) != 0) {
    return -1;
  }
  return step.Release();
}

// Opens the directory (O_PATH); a relative path begins at the directory `from`. -1 with errno.
int OpenWay(const std::string &path, int from, bool create, int links) {
  Descriptor at(openat(from, path.starts_with('/') ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  for (size_t begin = 0; at && begin < path.size();) {
    const size_t end = std::min(path.find('/', begin), path.size());
    if (end > begin) {
      const bool last = path.find_first_not_of('/', end) == std::string::npos;
      at.Reset(OpenStep(at.get(), path.substr(begin, end - begin), create, last, links));
    }
    begin = end + 1;
  }
  return at.Release();
}

}  // namespace

int OpenRegistryRoot(const std::string &root, bool create) {
  constexpr int kMostLinks = 40;  // as the kernel's
  return OpenWay(root, AT_FDCWD, create, kMostLinks);
}

std::optional<DirectoryId> IdOf(int directory) {
  struct stat st;
  if (fstat(directory, &st) != 0) {
    return std::nullopt;
  }
  return DirectoryId{st.st_dev, st.st_ino};
}

int HeldRoot::Get() {
  if (!fd_) {
    fd_.Reset(OpenRegistryRoot(path_, true));
  }
  return fd_.get();
}

std::optional<bool> HeldRoot::IsHeld(int root) const {
  if (!fd_) {
    return false;
  }
  const auto held = IdOf(fd_.get());
  const auto asked = held ? IdOf(root) : std::nullopt;
  return asked ? std::optional(held == asked) : std::nullopt;
}

HeldRoot &RootOf(const std::string &path) {
  // Never destroyed: exit handlers may still write. Not of the thread's own storage, whose
  // destructors are registered with an allocation that ends the process when it fails.
  static auto *roots = new std::map<std::string, HeldRoot>;
  return roots->try_emplace(path, path).first->second;
}

}  // namespace vex
