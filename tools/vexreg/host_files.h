// Files of this host that a capture takes along, and the secrets in them.
#ifndef VEX_TOOLS_VEXREG_HOST_FILES_H
#define VEX_TOOLS_VEXREG_HOST_FILES_H

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "tools/vexreg/secrets.h"

namespace vex {

inline constexpr size_t kMostFile = size_t{8} << 20;  // bytes of one source

// At most so many bytes of a plain file, and one more where there are more; flags: further ones of
// open(2). Nothing, with errno, when it cannot be read.
std::optional<std::string> ReadPlain(int directory, const std::string &path, size_t most, int flags,
                                     struct stat *status);

// The files that a pattern stands for, in no order.
std::vector<std::string> FilesOf(const std::string &pattern);

// net-snmp's files where the agent's environment says that they are. agent: its process, 0 when it
// does not run.
std::vector<std::string> OtherSnmpFiles(pid_t agent);

// What must not leave this host, of the files that this user may read.
Secrets SecretsOfHost(pid_t agent);

}  // namespace vex

#endif
