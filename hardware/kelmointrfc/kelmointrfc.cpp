// libkelmointrfc: the SMBIOS tables as the kernel shows them in sysfs.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "framework/process/descriptor.h"
#include "hardware/kelmointrfc/paths.h"
#include "hardware/kelmointrfc/smbios_tables.h"
#include "platform/framework.h"
#include "platform/smbios.h"

// The log, when the process has the framework; the library works without it.
#pragma weak agentlog_fprintf

#define EXPORT __attribute__((visibility("default")))

namespace {

constexpr int kTries = 5;
constexpr timespec kBetweenTries = {0, 10'000'000};

std::optional<vex::SmbiosTables> tables;
// What was last logged: a machine without usable tables is asked at every poll.
std::string reported;

void Report(const std::string &problem) {
  if (!problem.empty() && problem != reported && agentlog_fprintf != nullptr) {
    agentlog_fprintf(stderr, "SMBIOS: %s, taken as absent\n", problem.c_str());
  }
  reported = problem;
}

// The whole of a regular file of at most kMaxSmbiosTable + 1 bytes (one more than is accepted);
// nothing, with errno, when it cannot be read.
std::optional<std::vector<uint8_t>> ReadFile(const char *path) {
  const vex::Descriptor fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd) {
    return std::nullopt;
  }
  std::vector<uint8_t> bytes;
  struct stat status = {};
  int error = fstat(fd.get(), &status) != 0 ? errno : S_ISREG(status.st_mode) ? 0 : EINVAL;
  while (error == 0 && bytes.size() <= vex::kMaxSmbiosTable) {
    const size_t old = bytes.size();
    bytes.resize(std::min(old + (size_t{64} << 10), vex::kMaxSmbiosTable + 1));
    const ssize_t n = read(fd.get(), bytes.data() + old, bytes.size() - old);
    error = n < 0 ? errno : 0;
    bytes.resize(old + static_cast<size_t>(n > 0 ? n : 0));
    if (n <= 0) {
      break;
    }
  }
  if (error != 0) {
    errno = error;
    return std::nullopt;
  }
  return bytes;
}

// What is wrong, with errno set last: making the text may change it.
std::string Failure(int error, std::string what) {
  errno = error;
  return what;
}

// Loads the tables or says what is wrong, "" when there are none; errno says which.
std::string Load() {
  const auto entry = ReadFile(vex::kSmbiosEntryPoint);
  if (!entry) {
    const int error = errno;
    return Failure(
        error, error == ENOENT ? "" : std::string(vex::kSmbiosEntryPoint) + ": " + strerror(error));
  }
  const auto table = ReadFile(vex::kSmbiosTable);
  if (!table) {
    const int error = errno;
    return Failure(error, std::string(vex::kSmbiosTable) + ": " + strerror(error));
  }
  const char *problem = "";
  tables = vex::SmbiosTables::Parse(*entry, *table, &problem);
  return tables ? "" : Failure(EBADMSG, std::string(vex::kSmbiosDirectory) + ": " + problem);
}

// Load(), or what went wrong instead, an allocation for one.
std::string TryToLoad() {
  try {
    return Load();
  } catch (const std::exception &failure) {
    tables.reset();
    return Failure(ENOMEM, std::string(vex::kSmbiosDirectory) + ": " + failure.what());
  }
}

}  // namespace

extern "C" {

EXPORT int InitSMBIOS(void) {
  if (tables) {
    return 1;
  }
  int error = ENOMEM;
  try {
    std::string problem = TryToLoad();
    error = errno;
    // What is asked once a process, such as the machine's GUID, must not be missed because a call
    // failed for a moment. A problem that was reported before is there to stay.
    for (int tries = 1; tries < kTries && !problem.empty() && problem != reported; tries++) {
      nanosleep(&kBetweenTries, nullptr);
      problem = TryToLoad();
      error = errno;
    }
    Report(problem);
  } catch (...) {
    tables.reset();
  }
  errno = error;
  return tables.has_value();
}

EXPORT int IsSMBIOSAvailable(void) {
  return tables.has_value();
}

EXPORT int SmbGetRecordByType(int type, int instance, const unsigned char **record) {
  const uint8_t *found = tables ? tables->Record(type, instance) : nullptr;
  if (found == nullptr) {
    return 0;
  }
  *record = found;
  return 1;
}

EXPORT const char *SmbGetStringByNumber(const unsigned char *record, int number) {
  return tables ? tables->String(record, number) : "";
}

EXPORT void DeinitSMBIOS(void) {
  tables.reset();
}

}  // extern "C"
