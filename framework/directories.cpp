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
    return contents || rmdir(root.c_str()) == 0 ? 0 : -1;
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
  DIR *dir = path != nullptr ? opendir(path) : nullptr;
  if (dir == nullptr) {
    return 0;
  }
  int empty = 1;
  errno = 0;
  while (const dirent *entry = readdir(dir)) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
      empty = 0;
      break;
    }
  }
  if (errno != 0) {
    empty = 0;
  }
  closedir(dir);
  return empty;
}
