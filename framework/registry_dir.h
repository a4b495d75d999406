// Directories of the registry: how everything below the root is opened, without following a
// symbolic link there. Internal to the framework and the tools.
#ifndef VEX_FRAMEWORK_REGISTRY_DIR_H
#define VEX_FRAMEWORK_REGISTRY_DIR_H

#include <sys/types.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace vex {

// A file descriptor that closes itself.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    Reset();
  }
  Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor &operator=(Descriptor &&other) noexcept {
    if (this != &other) {
      Reset(std::exchange(other.fd_, -1));
    }
    return *this;
  }
  int get() const {
    return fd_;
  }
  explicit operator bool() const {
    return fd_ >= 0;
  }
  int Release() {
    return std::exchange(fd_, -1);
  }
  void Reset(int fd = -1) {
    if (fd_ >= 0) {
      close(fd_);
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// As ResolveObjectName(), and the root itself is "".
std::optional<std::string> ResolveDirectoryName(std::string_view name, std::string_view root);

// Opens `path` below the directory `root` without following any symbolic link and without leaving
// root; "" is root itself. Close-on-exec. A descriptor, or -1 with errno.
int OpenBeneath(int root, const std::string &path, int flags, mode_t mode = 0);
// The same one component at a time, for kernels and sandboxes without openat2(2).
int OpenBeneathByWalk(int root, const std::string &path, int flags, mode_t mode = 0);

// Opens a registry's root directory (O_PATH); links on the way to it are followed when root or this
// user has made them. With create, it and what is missing above it are made. -1 with errno.
int OpenRegistryRoot(const std::string &root, bool create);

// Makes the directories of `path` below root that are missing, mode 0755 whatever the umask is;
// with parents false only the last one. 0 (also when all exist) or -1 with errno.
int MakeDirectories(int root, const std::string &path, bool parents = true);

// "host/cpu.0" is "host" and "cpu.0"; the parent of "x" is "".
std::pair<std::string, std::string> SplitPath(const std::string &path);

}  // namespace vex

#endif
