#include "framework/registry/clearing.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "framework/process/descriptor.h"
#include "framework/registry/registry_dir.h"

namespace vex {

namespace {

constexpr int kMaxDepth = 64;  // each level holds a descriptor
constexpr int kMaxPasses = 10'000;

// Removes what `name` in the directory `parent` is, or opens it when it is a directory. 0 when it
// is gone, whoever removed it, and when it is open; -1 with errno.
int RemoveOrOpen(int parent, const char *name, Descriptor *directory) {
  if (unlinkat(parent, name, 0) == 0 || errno == ENOENT) {
    return 0;
  }
  if (errno != EISDIR) {
    return -1;
  }
  directory->Reset(openat(parent, name, kReadDirectory));
  return *directory || errno == ENOENT ? 0 : -1;
}

// The same for a directory that is empty by now.
int RemoveEmptied(int parent, const char *name) {
  return unlinkat(parent, name, AT_REMOVEDIR) == 0 || errno == ENOENT ? 0 : -1;
}

// Removes what is in a directory. What lies deeper than kMaxDepth is moved up to the directory
// itself and removed by the next pass, so that no depth costs more descriptors or stack.
class Clearing {
 public:
  Clearing(int directory, const char *spared) : top_(directory), spared_(spared) {}

  // 0, or -1 with errno. Goes on after an entry that cannot be removed.
  int Run() {
    for (int pass = 0; pass < kMaxPasses; pass++) {
      moved_ = false;
      Descriptor again(openat(top_, ".", kReadDirectory));
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
    Descriptor directory;
    const int result = RemoveOrOpen(parent, name, &directory);
    if (!directory) {
      return result;
    }
    if (depth >= kMaxDepth) {
      return MoveUp(parent, name);
    }
    return RemoveContents(directory.Release(), depth + 1) == 0 ? RemoveEmptied(parent, name) : -1;
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
      const bool spared = depth == 0 && spared_ != nullptr && strcmp(entry->d_name, spared_) == 0;
      if (!spared && strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0 &&
          RemoveEntry(directory, entry->d_name, depth) != 0) {
        error = errno;
      }
    }
    closedir(dir);
    errno = error;
    return error == 0 ? 0 : -1;
  }

  int top_;
  const char *spared_;
  bool moved_ = false;
  unsigned next_ = 0;
};

}  // namespace

int ClearDirectory(int directory, const char *spared) {
  return Clearing(directory, spared).Run();
}

int RemoveTree(int parent, const char *name) {
  Descriptor directory;
  const int result = RemoveOrOpen(parent, name, &directory);
  if (!directory) {
    return result;
  }
  return ClearDirectory(directory.get()) == 0 ? RemoveEmptied(parent, name) : -1;
}

}  // namespace vex
