#include "common/kept_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "common/util.h"
#include "platform/framework.h"

static constexpr mode_t kept_mode = 0600;
// None of them waits for the other end of a pipe, follows a link or reaches a command.
static constexpr int careful = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

// ---- What may be in a kept file's place -----------------------------------------------------

static constexpr char foreign_way[] = "a link of another user is on the way to it";
static constexpr char not_plain[] = "it is no plain file";
static constexpr char second_name[] =
    "it is a second name of another file, and others may write in its directory";

static ssize_t refuse(kept_file *file, const char *why) {
  if (!file->refusal_logged) {
    file->refusal_logged = true;
    agentlog_fprintf(stderr, "%s: File %s/%s not used: %s\n", agent, REGISTRY_ROOT, file->name,
                     why);
  }
  errno = EBADF;
  return -1;
}

// Whether nobody but root and this user can make or rename files there. An access list's entries
// show in the group's bits.
static bool is_private(int directory) {
  struct stat status = {};
  return fstat(directory, &status) == 0 && (status.st_uid == 0 || status.st_uid == geteuid()) &&
         (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Whether the opened file is one that may be used; if not, errno is EBADF when it is refused.
static bool accept_file(kept_file *file, int directory, int descriptor) {
  struct stat status = {};
  if (fstat(descriptor, &status) != 0) {
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    refuse(file, not_plain);
    return false;
  }
  if (status.st_nlink > 1 && !is_private(directory)) {
    refuse(file, second_name);
    return false;
  }
  file->refusal_logged = false;
  return true;
}

// The registry's root; -1 with errno, EBADF when the file in it is refused.
static int open_root(kept_file *file) {
  const int directory = open_dir(REGISTRY_ROOT);
  if (directory < 0 && errno == ELOOP) {
    refuse(file, foreign_way);
  }
  return directory;
}

// Opens what has the file's name in the directory; -1 with errno, EBADF when it is refused.
static int open_in(int directory, kept_file *file, int access) {
  const int descriptor = openat(directory, file->name, access | careful);
  if (descriptor < 0 && (errno == ELOOP || errno == ENXIO)) {
    refuse(file, not_plain);  // a link; a pipe that nobody reads, or a socket
  }
  return descriptor;
}

// ---- The names beside it ----------------------------------------------------------------------

// The new contents on their way; what a killed agent left of them is never read.
struct temporary_name {
  char text[ASIDE_NAME_SIZE];

  explicit temporary_name(const kept_file *file) {
    snprintf(text, sizeof(text), ".%s.new", file->name);
  }
};

// ---- Reading ------------------------------------------------------------------------------------

static constexpr int most_tries = 5;
static constexpr timespec between_tries = {0, 20'000'000};

static ssize_t read_all(int descriptor, char *data, size_t size) {
  size_t length = 0;
  while (length < size) {
    const ssize_t n = read(descriptor, data + length, size - length);
    if (n < 0) {
      return -1;
    }
    if (n == 0) {
      break;
    }
    length += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(length);
}

static ssize_t read_once(kept_file *file, char *data, size_t size, bool settle_mode) {
  const descriptor_handle directory(open_root(file));
  if (!directory) {
    return -1;
  }
  unlinkat(directory.get(), temporary_name(file).text, 0);
  const descriptor_handle descriptor(open_in(directory.get(), file, O_RDONLY));
  if (!descriptor || !accept_file(file, directory.get(), descriptor.get())) {
    return -1;
  }
  const ssize_t length = read_all(descriptor.get(), data, size);
  if (length >= 0 && settle_mode) {
    fchmod(descriptor.get(), kept_mode);
  }
  return length;
}

ssize_t read_kept_file(kept_file *file, void *data, size_t size, bool settle_mode) {
  for (int tries = 1;; tries++) {
    const ssize_t length = read_once(file, static_cast<char *>(data), size, settle_mode);
    if (length >= 0 || errno == ENOENT || errno == EBADF || tries == most_tries) {
      return length;
    }
    const int error = errno;
    if (agent_ending() == 0) {
      nanosleep(&between_tries, nullptr);
    }
    if (agent_ending() != 0) {
      errno = error;
      return -1;
    }
  }
}

// ---- Replacing ----------------------------------------------------------------------------------

static constexpr int most_aside = 5;

// Waits until it is on the disk. Not every file system can be asked to: those do what they do.
static int synchronise(int descriptor) {
  int result = 0;
  do {
    result = fsync(descriptor);
  } while (result != 0 && errno == EINTR && agent_ending() == 0);
  return result == 0 || errno == EINVAL ? 0 : -1;
}

static int write_all(int descriptor, const char *data, size_t size) {
  while (size != 0) {
    const ssize_t n = write(descriptor, data, size);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return -1;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return 0;
}

// A new and empty file of that name; -1 with errno.
static int make_temporary(int directory, const char *name) {
  constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | careful;
  const int descriptor = openat(directory, name, flags, kept_mode);
  if (descriptor >= 0 || errno != EEXIST) {
    return descriptor;
  }
  // Left over by an agent that was killed, or planted.
  if (unlinkat(directory, name, 0) != 0) {
    errno = EEXIST;
    return -1;
  }
  return openat(directory, name, flags, kept_mode);
}

// Whatever the umask is, the mode is that of a kept file.
static int fill_temporary(int descriptor, const void *data, size_t size) {
  const bool filled = fchmod(descriptor, kept_mode) == 0 &&
                      write_all(descriptor, static_cast<const char *>(data), size) == 0 &&
                      synchronise(descriptor) == 0;
  return close(descriptor) == 0 && filled ? 0 : -1;
}

// Gives the file a second name, the first one beside it that is free, or else the last of those
// names, so that the oldest files stay. Under its own name it stays until it is replaced.
static int set_aside(int directory, const char *name, char (*aside)[ASIDE_NAME_SIZE]) {
  for (int i = 1; i <= most_aside; i++) {
    snprintf(*aside, sizeof(*aside), "%s.replaced.%d", name, i);
    if (linkat(directory, name, directory, *aside, 0) == 0) {
      return 0;
    }
    if (errno != EEXIST) {
      break;
    }
  }
  if (errno == EEXIST && unlinkat(directory, *aside, 0) == 0 &&
      linkat(directory, name, directory, *aside, 0) == 0) {
    return 0;
  }
  **aside = '\0';
  return -1;
}

// Gives the temporary file the file's name and makes that last. Otherwise the old file (or none, if
// there was none) has its name again, as far as the file system lets it.
static int put_in_place(int directory, const char *temporary, const kept_file *file, bool there) {
  // An exchange keeps the old file at hand; not every file system knows it.
  const bool exchanged =
      there && renameat2(directory, temporary, directory, file->name, RENAME_EXCHANGE) == 0;
  if (!exchanged && renameat(directory, temporary, directory, file->name) != 0) {
    return -1;
  }
  const bool lasts = synchronise(directory) == 0;
  if (!lasts) {
    const bool undone =
        exchanged ? renameat2(directory, temporary, directory, file->name, RENAME_EXCHANGE) == 0
                  : !there && unlinkat(directory, file->name, 0) == 0;
    if (!undone) {
      agentlog_fprintf(stderr,
                       "%s: File %s/%s has a value that was refused, and that will be used from "
                       "the next start on: its directory cannot be synchronised\n",
                       agent, REGISTRY_ROOT, file->name);
    }
  }
  if (exchanged) {
    unlinkat(directory, temporary, 0);
  }
  return lasts ? 0 : -1;
}

kept_result replace_kept_file(kept_file *file, const void *data, size_t size,
                              char (*aside)[ASIDE_NAME_SIZE]) {
  if (aside != nullptr) {
    **aside = '\0';
  }
  const descriptor_handle directory(open_root(file));
  if (!directory) {
    return errno == EBADF ? KEPT_FAILED : KEPT_NOT_OPENED;
  }
  const descriptor_handle old(open_in(directory.get(), file, O_WRONLY));
  const bool there = static_cast<bool>(old);
  if (!there && errno != ENOENT) {
    return errno == EBADF ? KEPT_FAILED : KEPT_NOT_OPENED;
  }
  if (there && !accept_file(file, directory.get(), old.get())) {
    return KEPT_FAILED;
  }
  const temporary_name temporary(file);
  const int made = make_temporary(directory.get(), temporary.text);
  if (made < 0) {
    // Where none can be made, a missing file cannot be opened for writing either.
    return there || errno == EEXIST ? KEPT_FAILED : KEPT_NOT_OPENED;
  }
  bool replaced = fill_temporary(made, data, size) == 0;
  if (replaced && there && aside != nullptr) {
    replaced = set_aside(directory.get(), file->name, aside) == 0;
  }
  replaced = replaced && put_in_place(directory.get(), temporary.text, file, there) == 0;
  if (!replaced) {
    unlinkat(directory.get(), temporary.text, 0);
    if (aside != nullptr && **aside != '\0') {
      unlinkat(directory.get(), *aside, 0);
      **aside = '\0';
    }
    return KEPT_FAILED;
  }
  return KEPT_REPLACED;
}
