// Directories of the registry: how everything below the root is opened, without following a
// symbolic link there. Internal to the framework and the tools.
#ifndef VEX_FRAMEWORK_REGISTRY_REGISTRY_DIR_H
#define VEX_FRAMEWORK_REGISTRY_REGISTRY_DIR_H

#include <fcntl.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>

#include "framework/process/descriptor.h"

namespace vex {

// For openat(2) of a directory that is to be read.
inline constexpr int kReadDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// Opens `path` below the directory `root` without following any symbolic link and without leaving
// root; "" is root itself. Close-on-exec. A descriptor, or -1 with errno.
int OpenBeneath(int root, const std::string &path, int flags, mode_t mode = 0);
// The same one component at a time, for kernels and sandboxes without openat2(2).
int OpenBeneathByWalk(int root, const std::string &path, int flags, mode_t mode = 0);

// Opens a registry's root directory (O_PATH); links on the way to it are followed when root or this
// user has made them. With create, it and what is missing above it are made. -1 with errno.
int OpenRegistryRoot(const std::string &root, bool create);

// Makes the directories of `path` below root that are missing, mode 0755 whatever the umask is;
// with parents false only the last one. Those that exist and are this user's get what they lack of
// that mode: whoever made them may have died before. 0 (also when all exist) or -1 with errno.
int MakeDirectories(int root, const std::string &path, bool parents = true);

// Gives a directory (O_PATH will do) that is this user's what it lacks of mode 0755: siblings read
// here. 0 (also when it is another's) or -1 with errno.
int GiveDirectoryMode(int directory);

// Whether the directory has no entries but `spared` (null: none); false also when that cannot be
// told. Takes over the descriptor (-1 is none).
bool IsEmptyDirectory(int directory, const char *spared = nullptr);

// Which directory it is, whatever its path.
struct DirectoryId {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const DirectoryId &) const = default;
};
std::optional<DirectoryId> IdOf(int directory);

// A registry's root as all writers of this process have it: opened once, so that ten thousand of
// them need one descriptor, and kept until somebody finds that its path leads elsewhere now. One
// thread a process.
class HeldRoot {
 public:
  explicit HeldRoot(std::string path) : path_(std::move(path)) {}
  const std::string &path() const {
    return path_;
  }
  // Opened, and made with what is missing above it, when it is not held yet. -1 with errno.
  int Get();
  void Hold(Descriptor root) {
    fd_ = std::move(root);
  }
  bool IsOpen() const {
    return static_cast<bool>(fd_);
  }
  // Whether this is the directory that is held; nothing, with errno, when that cannot be told.
  std::optional<bool> IsHeld(int root) const;

 private:
  std::string path_;
  Descriptor fd_;
};
// The root of that path; lives as long as the process.
HeldRoot &RootOf(const std::string &path);

}  // namespace vex

#endif
