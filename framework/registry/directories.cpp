// The directory calls of platform/framework.h. Nothing outside the root is touched, and no symbolic
// link below it is followed.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <string_view>

#include "framework/process/guard.h"
#include "framework/registry/claim.h"
#include "framework/registry/clearing.h"
#include "framework/registry/objects.h"
#include "framework/registry/registry_dir.h"
#include "framework/registry/registry_path.h"
#include "platform/framework.h"

namespace vex {

namespace {

// The path below the root, "" for the root itself; nothing, with EXDEV, when it leads elsewhere.
std::optional<std::string> Relative(std::string_view path) {
  std::optional<std::string> relative = ResolveDirectoryName(path, RegistryRootPath());
  if (!relative) {
    errno = EXDEV;
  }
  return relative;
}

// Opens the directory `path`, at or below the root; -1 with errno.
int OpenDirectory(std::string_view path) {
  const std::string &root = RegistryRootPath();
  const std::optional<std::string> relative = Relative(path);
  if (!relative) {
    return -1;
  }
  const Descriptor root_fd(OpenRegistryRoot(root, false));
  return root_fd ? OpenBeneath(root_fd.get(), *relative, kReadDirectory) : -1;
}

// Removes the root itself, which must be empty.
int RemoveRoot(const std::string &root) {
  const auto [parent, leaf] = SplitPath(root);
  const Descriptor at(OpenRegistryRoot(parent + "/", false));
  return at ? unlinkat(at.get(), leaf.c_str(), AT_REMOVEDIR) : -1;
}

int RemoveEmpty(std::string_view path) {
  const std::string &root = RegistryRootPath();
  const std::optional<std::string> relative = Relative(path);
  if (!relative) {
    return -1;
  }
  if (relative->empty()) {
    return RemoveRoot(root);
  }
  const Descriptor root_fd(OpenRegistryRoot(root, false));
  const Descriptor directory(root_fd ? OpenBeneath(root_fd.get(), *relative, kReadDirectory) : -1);
  const char *lock = directory ? OwnLockFile(directory.get()) : nullptr;
  if (lock != nullptr && IsEmptyDirectory(openat(directory.get(), ".", kReadDirectory), lock)) {
    unlinkat(directory.get(), lock, 0);
  }
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
  const std::optional<std::string> relative = Relative(path);
  if (!relative) {
    return -1;
  }
  Descriptor root_fd(OpenRegistryRoot(root, false));
  if (!root_fd) {
    return errno == ENOENT ? 0 : -1;
  }
  if (contents || relative->empty()) {
    Descriptor directory(OpenBeneath(root_fd.get(), *relative, kReadDirectory));
    if (!directory) {
      return errno == ENOENT ? 0 : -1;
    }
    if (ClearDirectory(directory.get(), OwnLockFile(directory.get())) != 0) {
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

}  // namespace

}  // namespace vex

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
    const int directory = vex::OpenDirectory(path != nullptr ? path : "");
    return static_cast<int>(vex::IsEmptyDirectory(directory, vex::OwnLockFile(directory)));
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
