#include "core/kept_file.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

// Links on the way are the administrator's (or our own), or they are not followed.
static bool way_is_trusted(const char *path) {
  char prefix[PATH_MAX];
  for (const char *slash = strchr(path + 1, '/'); slash != nullptr;
       slash = strchr(slash + 1, '/')) {
    const auto length = static_cast<size_t>(slash - path);
    if (length >= sizeof(prefix)) {
      return false;
    }
    memcpy(prefix, path, length);
    prefix[length] = '\0';
    struct stat status = {};
    if (lstat(prefix, &status) == 0 && S_ISLNK(status.st_mode) && status.st_uid != 0 &&
        status.st_uid != geteuid()) {
      return false;
    }
  }
  return true;
}

static bool is_plain_file(int descriptor) {
  struct stat status = {};
  return fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1;
}

FILE *open_kept_file(const char *path, const char *mode) {
  const bool writing = mode[0] == 'w';
  if (!way_is_trusted(path)) {
    errno = EBADF;
    return nullptr;
  }
  const int flags =
      (writing ? O_WRONLY | O_CREAT : O_RDONLY) | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  const int descriptor = open(path, flags, 0600);
  if (descriptor < 0) {
    // A link, or a pipe that nobody reads.
    errno = errno == ELOOP || errno == ENXIO ? EBADF : errno;
    return nullptr;
  }
  if (!is_plain_file(descriptor)) {
    close(descriptor);
    errno = EBADF;
    return nullptr;
  }
  FILE *file = writing && ftruncate(descriptor, 0) != 0 ? nullptr : fdopen(descriptor, mode);
  if (file == nullptr) {
    close(descriptor);
  }
  return file;
}

void set_kept_file_mode(FILE *file, mode_t mode) {
  fchmod(fileno(file), mode);
}
