#include "common/kept_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <time.h>
#include <unistd.h>

#include "common/util.h"
#include "platform/framework.h"

static constexpr mode_t kept_mode = 0600;
// None of them waits for the other end of a pipe, follows a link or reaches a command.
static constexpr int careful = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

// ---- What may be in a kept file's place ---------------------------------------------------------

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

// 1 when nobody but root and this user can make or rename files there, else 0; -1 with errno when
// that cannot be told. An access list's entries show in the group's bits.
static int is_private(int directory) {
  struct stat status = {};
  if (fstat(directory, &status) != 0) {
    return -1;
  }
  return (status.st_uid == 0 || status.st_uid == geteuid()) &&
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
  if (status.st_nlink > 1) {
    const int alone = is_private(directory);
    if (alone == 0) {
      refuse(file, second_name);
    }
    if (alone != 1) {
      return false;
    }
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
  } else if (descriptor < 0 && errno == EISDIR) {
    // Of all that cannot be opened for writing this does not pass by itself.
    refuse(file, not_plain);
    errno = EISDIR;
  }
  return descriptor;
}

// ---- The names beside it ------------------------------------------------------------------------

// The new contents on their way; what a killed agent left of them is never read. Further names are
// for when somebody has put a directory there.
static constexpr int most_temporaries = 10;

struct temporary_name {
  char text[ASIDE_NAME_SIZE];

  explicit temporary_name(const kept_file *file, int number = 0) {
    if (number == 0) {
      snprintf(text, sizeof(text), ".%s.new", file->name);
    } else {
      snprintf(text, sizeof(text), ".%s.new.%d", file->name, number);
    }
  }
};

static void remove_left_over(int directory, const kept_file *file) {
  for (int i = 0; i < most_temporaries; i++) {
    unlinkat(directory, temporary_name(file, i).text, 0);
  }
}

// ---- The directory that has it ------------------------------------------------------------------

// What the file is known to be in; all zero where that cannot be told.
static decltype(kept_file::root) identify(int directory) {
  struct statx status = {};
  if (statx(directory, "", AT_EMPTY_PATH, STATX_INO | STATX_BTIME, &status) != 0) {
    return {};
  }
  decltype(kept_file::root) root = {
      makedev(status.stx_dev_major, status.stx_dev_minor), status.stx_ino, {}};
  if ((status.stx_mask & STATX_BTIME) != 0) {
    root.born = {status.stx_btime.tv_sec, static_cast<long>(status.stx_btime.tv_nsec)};
  }
  return root;
}

static bool is_same(const decltype(kept_file::root) &a, const decltype(kept_file::root) &b) {
  return a.device == b.device && a.inode == b.inode && a.born.tv_sec == b.born.tv_sec &&
         a.born.tv_nsec == b.born.tv_nsec;
}

static void note_directory(kept_file *file, int directory) {
  file->held = true;
  file->root = identify(directory);
}

// ---- Reading ------------------------------------------------------------------------------------

static constexpr int most_tries = 5;
static constexpr timespec between_tries = {0, 20'000'000};

static ssize_t read_all(int descriptor, char *data, size_t size) {
  size_t length = 0;
  while (length < size) {
    const ssize_t n = read(descriptor, data + length, size - length);
    if (n < 0) {
      memset(data, 0, length);  // the next try may find a shorter text
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
  remove_left_over(directory.get(), file);
  const descriptor_handle descriptor(open_in(directory.get(), file, O_RDONLY));
  if (!descriptor && errno == ENOENT) {
    file->root = identify(directory.get());
    errno = ENOENT;
  }
  if (!descriptor || !accept_file(file, directory.get(), descriptor.get())) {
    return -1;
  }
  const ssize_t length = read_all(descriptor.get(), data, size);
  if (length >= 0) {
    note_directory(file, directory.get());
    if (settle_mode) {
      fchmod(descriptor.get(), kept_mode);
    }
  }
  return length;
}

// Waits a moment before the next try. False with the same errno when the agent ends.
static bool may_try_again() {
  const int error = errno;
  if (agent_ending() == 0) {
    nanosleep(&between_tries, nullptr);
  }
  errno = error;
  return agent_ending() == 0;
}

ssize_t read_kept_file(kept_file *file, void *data, size_t size, bool settle_mode) {
  for (int tries = 1;; tries++) {
    const ssize_t length = read_once(file, static_cast<char *>(data), size, settle_mode);
    if (length >= 0 || errno == ENOENT || errno == EBADF || tries == most_tries ||
        !may_try_again()) {
      return length;
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

// A new and empty file of the first name that can be had; -1 with errno.
static int make_temporary(int directory, const kept_file *file, temporary_name *name) {
  constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | careful;
  for (int i = 0; i < most_temporaries; i++) {
    *name = temporary_name(file, i);
    int descriptor = openat(directory, name->text, flags, kept_mode);
    // Left over by an agent that was killed, or planted.
    if (descriptor < 0 && errno == EEXIST && unlinkat(directory, name->text, 0) == 0) {
      descriptor = openat(directory, name->text, flags, kept_mode);
    }
    if (descriptor >= 0 || (errno != EEXIST && errno != EISDIR && errno != EPERM)) {
      return descriptor;
    }
  }
  errno = EEXIST;
  return -1;
}

// Whatever the umask is, the mode is that of a kept file.
static int fill_temporary(int descriptor, const void *data, size_t size) {
  const bool filled = fchmod(descriptor, kept_mode) == 0 &&
                      write_all(descriptor, static_cast<const char *>(data), size) == 0 &&
                      synchronise(descriptor) == 0;
  const int error = errno;
  const bool closed = close(descriptor) == 0;
  if (!filled) {
    errno = error;
  }
  return closed && filled ? 0 : -1;
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

// Whether a manager still waits for it, who is otherwise told that its set failed; errno if not.
// Whoever is no set handler's is wanted.
static bool is_wanted(int last) {
  if (set_wanted(last) != 0) {
    return true;
  }
  errno = ECANCELED;
  return false;
}

// Gives the temporary file the file's name and makes that last. Otherwise, or where the disk took
// so long that nobody wants it any more, the old file (or none, if there was none) has its name
// again, as far as the file system lets it.
static int put_in_place(int directory, const char *temporary, const kept_file *file, bool there) {
  // An exchange keeps the old file at hand; not every file system knows it.
  const bool exchanged =
      there && renameat2(directory, temporary, directory, file->name, RENAME_EXCHANGE) == 0;
  if (!exchanged && renameat(directory, temporary, directory, file->name) != 0) {
    return -1;
  }
  const bool lasts = synchronise(directory) == 0;
  const bool stays = lasts && is_wanted(1);
  const int error = errno;
  if (!stays) {
    const bool undone =
        exchanged ? renameat2(directory, temporary, directory, file->name, RENAME_EXCHANGE) == 0
                  : !there && unlinkat(directory, file->name, 0) == 0;
    if (!undone) {
      agentlog_fprintf(stderr,
                       "%s: File %s/%s has a value that was refused, and that will be used from "
                       "the next start on: its directory %s\n",
                       agent, REGISTRY_ROOT, file->name,
                       lasts ? "was synchronised too late" : "cannot be synchronised");
    } else if (lasts) {
      synchronise(directory);  // the refused value is on the disk
    }
  }
  if (exchanged) {
    unlinkat(directory, temporary, 0);
  }
  errno = error;
  return stays ? 0 : -1;
}

// With errno when it failed, EBADF when it is refused.
static kept_result replace_once(kept_file *file, const void *data, size_t size,
                                char (*aside)[ASIDE_NAME_SIZE]) {
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
  temporary_name temporary(file);
  const int made = make_temporary(directory.get(), file, &temporary);
  if (made < 0) {
    // Where none can be made, a missing file cannot be opened for writing either.
    return there || errno == EEXIST ? KEPT_FAILED : KEPT_NOT_OPENED;
  }
  bool replaced = fill_temporary(made, data, size) == 0 && is_wanted(0);
  if (replaced && there && aside != nullptr) {
    replaced = set_aside(directory.get(), file->name, aside) == 0;
  }
  replaced = replaced && put_in_place(directory.get(), temporary.text, file, there) == 0;
  if (!replaced) {
    const int error = errno;
    unlinkat(directory.get(), temporary.text, 0);
    if (aside != nullptr && **aside != '\0') {
      unlinkat(directory.get(), *aside, 0);
      **aside = '\0';
    }
    errno = error;
    return KEPT_FAILED;
  }
  note_directory(file, directory.get());
  return KEPT_REPLACED;
}

static kept_result replace(kept_file *file, const void *data, size_t size,
                           char (*aside)[ASIDE_NAME_SIZE]) {
  for (int tries = 1;; tries++) {
    const kept_result result = replace_once(file, data, size, aside);
    if (result != KEPT_NOT_OPENED || !may_pass(errno) || tries == most_tries || !may_try_again()) {
      return result;
    }
  }
}

kept_result replace_kept_file(kept_file *file, const void *data, size_t size,
                              char (*aside)[ASIDE_NAME_SIZE]) {
  if (aside != nullptr) {
    **aside = '\0';
  }
  const kept_result result = replace(file, data, size, aside);
  if (result == KEPT_FAILED && errno != EBADF && !file->failure_logged) {
    file->failure_logged = true;
    agentlog_fprintf(stderr, "%s: Can't replace %s/%s: %s\n", agent, REGISTRY_ROOT, file->name,
                     strerror(errno));
  } else if (result == KEPT_REPLACED && (file->failure_logged || file->refusal_logged)) {
    file->failure_logged = false;
    file->refusal_logged = false;
    agentlog_fprintf(stderr, "%s: %s/%s can be replaced again\n", agent, REGISTRY_ROOT, file->name);
  }
  return result;
}

// ---- Restoring ----------------------------------------------------------------------------------

// Whether the file has other contents than these, as far as that can be told. A text's file may
// have an end of line that its value has not.
static bool differs(int directory, const kept_file *file, const void *data, size_t size) {
  char there[1024];
  const descriptor_handle descriptor(openat(directory, file->name, O_RDONLY | careful));
  const ssize_t length = descriptor ? read_all(descriptor.get(), there, sizeof(there)) : -1;
  if (length < 0) {
    return false;
  }
  size_t rest = static_cast<size_t>(length);
  while (rest > size && there[rest - 1] == '\n') {
    rest--;
  }
  return rest != size || memcmp(there, data, size) != 0;
}

void restore_kept_file(kept_file *file, const void *data, size_t size) {
  if (!file->held && file->root.inode == 0) {
    return;
  }
  int opened = open_dir(REGISTRY_ROOT);
  if (opened < 0 && errno == ENOENT && create_dir(log_dir, 1) == 0) {
    opened = open_dir(REGISTRY_ROOT);
  }
  const descriptor_handle directory(opened);
  if (!directory) {
    return;  // the next poll looks again
  }
  const auto root = identify(directory.get());
  struct stat status = {};
  if (root.inode == 0 || is_same(root, file->root)) {
    return;
  }
  if (fstatat(directory.get(), file->name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
    file->root = root;
    if (differs(directory.get(), file, data, size)) {
      agentlog_fprintf(stderr,
                       "%s: %s/%s has another value than the one that is served; the next start "
                       "takes it: the registry's root was another one\n",
                       agent, REGISTRY_ROOT, file->name);
    }
    return;
  }
  if (errno != ENOENT || !file->held) {
    return;
  }
  if (replace_kept_file(file, data, size) == KEPT_REPLACED) {
    agentlog_fprintf(stderr, "%s: %s/%s was written again: the registry's root was another one\n",
                     agent, REGISTRY_ROOT, file->name);
  }
}
