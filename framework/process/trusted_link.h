// Links that others than the administrator may have planted.
#ifndef VEX_FRAMEWORK_PROCESS_TRUSTED_LINK_H
#define VEX_FRAMEWORK_PROCESS_TRUSTED_LINK_H

#include <sys/stat.h>
#include <unistd.h>

namespace vex {

// A link (lstat(2)) that root or this user has made: nobody else's may lead us elsewhere.
inline bool IsTrustedLink(const struct stat &link) {
  return S_ISLNK(link.st_mode) && (link.st_uid == 0 || link.st_uid == geteuid());
}

}  // namespace vex

#endif
