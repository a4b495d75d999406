// Files of this host that a capture takes along, and the secrets in them.
#ifndef VEX_TOOLS_VEXREG_HOST_FILES_H
#define VEX_TOOLS_VEXREG_HOST_FILES_H

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/vexreg/secrets.h"

namespace vex {

inline constexpr size_t kMostFile = size_t{8} << 20;  // bytes of one source

// The bytes of a plain file; flags: further ones of open(2). Nothing, with errno, when it cannot be
// read or has more bytes than `most`.
std::optional<std::string> ReadPlain(int directory, const std::string &path, size_t most, int flags,
                                     struct stat *status);

// Is told of a file or directory that could not be looked at, with the error.
using Unseen = std::function<void(const std::string &path, int error)>;
// Whether an error says that there is no such file.
bool IsAbsence(int error);

// The files that a pattern with an absolute path may stand for, in no order; one without * ? [ is
// not looked for.
std::vector<std::string> FilesOf(const std::string &pattern, const Unseen &unseen);

// net-snmp's files where the agent's environment says that they are. agent: its process, 0 when it
// does not run.
std::vector<std::string> OtherSnmpFiles(pid_t agent, const Unseen &unseen);

// What must not leave this host, of the files that this user may read. A file that could not be
// read may have more of it.
Secrets SecretsOfHost(pid_t agent, const Unseen &unseen);

}  // namespace vex

#endif
