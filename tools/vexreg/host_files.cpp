#include "tools/vexreg/host_files.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <fnmatch.h>

#include <algorithm>
#include <memory>

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
  // Files of /proc have no size, and may be long all the same.
  const size_t piece = std::max<size_t>(status->st_size + 1, 1 << 20);
  std::string bytes;
  for (size_t got = 0; got <= most;) {
    bytes.resize(std::min(most + 1, got + piece));
    const ssize_t more = ReadFully(file.get(), bytes.data() + got, bytes.size() - got);
    if (more < 0) {
      return std::nullopt;
    }
    got += static_cast<size_t>(more);
    if (got < bytes.size()) {
      bytes.resize(got);
      return bytes;
    }
  }
  errno = EFBIG;
  return std::nullopt;
}

bool IsAbsence(int error) {
  return error == ENOENT || error == ENOTDIR || error == ESRCH;
}

namespace {

// The entries of a directory that fit one part of a pattern.
std::vector<std::string> Matching(const std::string &directory, const std::string &part,
                                  const Unseen &unseen) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR *)> entries(opendir(directory.c_str()), closedir);
  int error = entries ? 0 : errno;
  while (entries) {
    errno = 0;
    const dirent *entry = readdir(entries.get());
    if (entry == nullptr) {
      error = errno;
      break;
    }
    if (fnmatch(part.c_str(), entry->d_name, FNM_PERIOD) == 0) {
      names.emplace_back(entry->d_name);
    }
  }
  if (error != 0 && !IsAbsence(error)) {
    unseen(directory, error);
  }
  return names;
}

}  // namespace

// glob(3) takes what it cannot list for empty.
std::vector<std::string> FilesOf(const std::string &pattern, const Unseen &unseen) {
  std::vector<std::string> files = {""};
  for (size_t from = 1; from <= pattern.size();) {
    const size_t end = std::min(pattern.find('/', from), pattern.size());
    const std::string part = pattern.substr(from, end - from);
    from = end + 1;
    std::vector<std::string> longer;
    for (const std::string &file : files) {
      const std::string directory = file + "/";
      const bool is_pattern = part.find_first_of("*?[") != std::string::npos;
      for (const std::string &name :
           is_pattern ? Matching(directory, part, unseen) : std::vector<std::string>{part}) {
        longer.push_back(directory + name);
      }
    }
    files = std::move(longer);
  }
  return files;
}

std::vector<std::string> OtherSnmpFiles(pid_t agent, const Unseen &unseen) {
  std::vector<std::string> files;
  const auto path = agent != 0 ? VariableOf(agent, "SNMPCONFPATH") : std::nullopt;
  if (agent != 0 && !path) {
    unseen("/proc/" + std::to_string(agent) + "/environ", EIO);
  }
  const std::string directories = path && *path ? **path : "";
  for (size_t from = 0; from < directories.size();) {
    const size_t end = std::min(directories.find(':', from), directories.size());
    const std::string directory = directories.substr(from, end - from);
    from = end + 1;
    if (directory.starts_with('/')) {
      for (std::string &file : FilesOf(directory + "/*.conf", unseen)) {
        files.push_back(std::move(file));
      }
    }
  }
  return files;
}

Secrets SecretsOfHost(pid_t agent, const Unseen &unseen) {
  Secrets secrets;
  const auto take = [&](const std::string &file, Treatment treatment) {
    struct stat status = {};
    const auto read = ReadPlain(AT_FDCWD, file, kMostFile, 0, &status);
    if (!read && !IsAbsence(errno) && errno != EACCES) {
      unseen(file, errno);
    }
    const std::string text = read.value_or("");
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
      for (const std::string &file : FilesOf(source.pattern, unseen)) {
        take(file, source.treatment);
      }
    }
  }
  for (const std::string &file : OtherSnmpFiles(agent, unseen)) {
    take(file, Treatment::kSnmp);
  }
  return secrets;
}

}  // namespace vex
