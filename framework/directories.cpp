// Directories of the registry. Nothing outside the root is touched, and no symbolic link below it
// is followed.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string_view>

#include "framework/guard.h"
#include "framework/objects.h"
#include "framework/registry_dir.h"
#include "platform/framework.h"

namespace vex {

namespace {

constexpr int kMaxDepth = 64;  // each level holds a descriptor
constexpr int kDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

int RemoveContents(int directory, int depth);

// Removes what `name` in the directory `parent` is; what vanishes meanwhile is no error.
int RemoveEntry(int parent, const char *name, int depth) {
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
  if (RemoveContents(directory.Release(), depth + 1) != 0) {
    return -1;
  }
  return unlinkat(parent, name, AT_REMOVEDIR) == 0 || errno == ENOENT ? 0 : -1;
}

// Takes over the descriptor. Goes on after an entry that cannot be removed.
int RemoveContents(int directory, int depth) {
  Descriptor owner(directory);
  if (depth > kMaxDepth) {
    errno = ELOOP;
    return -1;
  }
  DIR *dir = fdopendir(directory);
  if (dir == nullptr) {
    return -1;
  }
  owner.Release();
  int error = 0;
  while (const dirent *entry = readdir(dir)) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0 &&
        RemoveEntry(directory, entry->d_name, depth) != 0) {
      error = errno;
    }
  }
  closedir(dir);
  errno = error;
  return error == 0 ? 0 : -1;
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

// Takes over the descriptor.
bool IsEmpty(int directory) {
  Descriptor owner(directory);
  DIR *dir = owner ? fdopendir(owner.get()) : nullptr;
  if (dir == nullptr) {
    return false;
  }
  owner.Release();
  bool empty = true;
  errno = 0;
  while (const dirent *entry = readdir(dir)) {
    empty = empty && (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0);
  }
  empty = empty && errno == 0;
  closedir(dir);
  return empty;
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
    if (RemoveContents(directory.Release(), 0) != 0) {
      return -1;
    }
    return contents || RemoveRoot(root) == 0 ? 0 : -1;
  }
  const auto [parent, leaf] = SplitPath(*relative);
  Descriptor at(OpenBeneath(root_fd.get(), parent, O_PATH | O_DIRECTORY));
  if (!at) {
    return errno == ENOENT ? 0 : -1;
  }
  return RemoveEntry(at.get(), leaf.c_str(), 0);
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
    return static_cast<int>(vex::IsEmpty(vex::OpenDirectory(path != nullptr ? path : "")));
  });
}

int remove_empty_dir(const char *path) {
  return vex::Guarded(-1, [&] { return vex::RemoveEmpty(path != nullptr ? path : ""); });
}

int open_dir(const char *path) {
  return vex::Guarded(-1, [&] { return vex::OpenDirectory(path != nullptr ? path : ""); });
}
