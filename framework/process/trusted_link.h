// Links that others than the administrator may have planted.
#ifndef VEX_FRAMEWORK_PROCESS_TRUSTED_LINK_H
#define VEX_FRAMEWORK_PROCESS_TRUSTED_LINK_H

#include <errno.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace vex {

// A link (fstat(2)) that root or this user has made: nobody else's may lead us elsewhere.
inline bool IsTrustedLink(const struct stat &link) {
  return S_ISLNK(link.st_mode) && (link.st_uid == 0 || link.st_uid == geteuid());
}

// Where a link leads that was opened as such (O_PATH and O_NOFOLLOW), if it may be followed. So it
// is followed as it was looked at, not by its name, which may be another link's by now. False with
// errno, ELOOP for one that is not trusted. Throws std::bad_alloc.
inline bool ReadTrustedLink(int link, std::string *target) {
  struct stat st;
  if (fstat(link, &st) != 0) {
    return false;
  }
  if (!IsTrustedLink(st)) {
    errno = ELOOP;
    return false;
  }
  char text[PATH_MAX];
  const ssize_t length = readlinkat(link, "", text, sizeof(text));
  if (length < 0) {
    return false;
  }
  target->assign(text, static_cast<size_t>(length));
  return true;
}

}  // namespace vex

#endif
