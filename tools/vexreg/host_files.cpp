#include "tools/vexreg/host_files.h"

#include <errno.h>
#include <fcntl.h>
#include <glob.h>

#include <algorithm>

#include "framework/process/descriptor.h"
#include "framework/process/read_fully.h"
#include "tools/vexreg/captured_host.h"
#include "tools/vexreg/host_facts.h"

namespace vex {

std::optional<std::string> ReadPlain(int directory, const std::string &path, size_t most, int flags,
                                     struct stat *status) {
  const Descriptor file(
      openat(directory, path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | flags));
  if (!file || fstat(file.get(), status) != 0) {
    return std::nullopt;
  }
  if (!S_ISREG(status->st_mode)) {
    errno = EINVAL;
    return std::nullopt;
  }
  // Files of /proc have no size; those of a program's log may be long and are not read so.
  std::string bytes(std::min(most + 1, std::max<size_t>(status->st_size + 1, 1 << 20)), '\0');
  const ssize_t size = ReadFully(file.get(), bytes.data(), bytes.size());
  if (size < 0) {
    return std::nullopt;
  }
  bytes.resize(static_cast<size_t>(size));
  return bytes;
}

std::vector<std::string> FilesOf(const std::string &pattern) {
  std::vector<std::string> files;
  glob_t found = {};
  if (glob(pattern.c_str(), GLOB_NOSORT, nullptr, &found) == 0) {
    files.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
  }
  globfree(&found);
  return files;
}

std::vector<std::string> OtherSnmpFiles(pid_t agent) {
  std::vector<std::string> files;
  const auto path = agent != 0 ? VariableOf(agent, "SNMPCONFPATH") : std::nullopt;
  const std::string directories = path && *path ? **path : "";
  for (size_t from = 0; from < directories.size();) {
    const size_t end = std::min(directories.find(':', from), directories.size());
    const std::string directory = directories.substr(from, end - from);
    from = end + 1;
    if (!directory.empty()) {
      for (std::string &file : FilesOf(directory + "/*.conf")) {
        files.push_back(std::move(file));
      }
    }
  }
  return files;
}

Secrets SecretsOfHost(pid_t agent) {
  Secrets secrets;
  const auto take = [&](const std::string &file, Treatment treatment) {
    struct stat status = {};
    const std::string text = ReadPlain(AT_FDCWD, file, kMostFile, 0, &status).value_or("");
    if (treatment == Treatment::kSnmp) {
      WithoutSnmpSecrets(text, &secrets);
    } else if (treatment == Treatment::kAssignments) {
      WithoutAssignedSecrets(text, &secrets);
    } else {
      WithoutMountSecrets(text, &secrets);
    }
  };
  for (const Source &source : Sources()) {
    if (source.treatment == Treatment::kSnmp || source.treatment == Treatment::kAssignments ||
        source.treatment == Treatment::kMountTable) {
      for (const std::string &file : FilesOf(source.pattern)) {
        take(file, source.treatment);
      }
    }
  }
  for (const std::string &file : OtherSnmpFiles(agent)) {
    take(file, Treatment::kSnmp);
  }
  return secrets;
}

}  // namespace vex
