#include "hardware/qvev/ev_source.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "framework/process/descriptor.h"
#include "framework/process/read_fully.h"

namespace vex {
namespace {

constexpr size_t kLongestName = 200;
// Before the value of a variable in efivarfs.
constexpr size_t kAttributes = 4;
constexpr size_t kLongestValue = 4096;

bool IsEvName(std::string_view name) {
  constexpr std::string_view kAllowed =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
  return !name.empty() && name.size() <= kLongestName && name != "." && name != ".." &&
         name.find_first_not_of(kAllowed) == std::string_view::npos;
}

// "NAME-8be4df61-93ca-11d2-aa0d-00e098032b8c": the vendor's GUID follows the name.
bool IsVariableOf(std::string_view file, std::string_view name) {
  constexpr std::string_view kForm = "-xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
  if (!file.starts_with(name) || file.size() != name.size() + kForm.size()) {
    return false;
  }
  for (size_t i = 0; i < kForm.size(); i++) {
    const char c = file[name.size() + i];
    const bool hex = std::string_view("0123456789abcdefABCDEF").find(c) != std::string_view::npos;
    if (kForm[i] == '-' ? c != '-' : !hex) {
      return false;
    }
  }
  return true;
}

// A source that cannot be read may be there a moment later; what an EV says is asked once in the
// life of a process.
constexpr int kAttempts = 3;

bool IsAbsence(int error) {
  return error == ENOENT || error == ENOTDIR;
}

// The first by name, so that it is the same one each time; "" when there is none, or with errno
// other than 0 when the directory cannot be read.
std::string FindVariable(const char *directory, std::string_view name) {
  const std::unique_ptr<DIR, int (*)(DIR *)> entries(opendir(directory), closedir);
  std::string found;
  if (entries == nullptr) {
    return found;
  }
  for (;;) {
    errno = 0;
    const dirent *entry = readdir(entries.get());
    if (entry == nullptr) {
      break;
    }
    if (IsVariableOf(entry->d_name, name) && (found.empty() || found > entry->d_name)) {
      found = entry->d_name;
    }
  }
  const int error = errno;
  if (error != 0) {
    found.clear();
  }
  errno = error;
  return found;
}

// What follows the first `skip` bytes of a file, and one byte more when there is one. -1 with the
// problem, or without one when there is no such file; *again says whether another attempt may help.
int64_t TryToRead(const std::string &path, size_t skip, void *buffer, size_t length,
                  std::string *problem, bool *again) {
  // O_NONBLOCK: a pipe in its place must not hold us up.
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status;
  *again = false;
  if (!file || fstat(file.get(), &status) != 0) {
    if (!IsAbsence(errno)) {
      *problem = path + ": " + strerror(errno);
      *again = true;
    }
    return -1;
  }
  if (!S_ISREG(status.st_mode)) {
    *problem = path + " is not a regular file";
    return -1;
  }
  // efivarfs gives a whole variable to one read, and nothing to a second: no seeking.
  char value[kAttributes + kLongestValue + 1];
  const size_t room = sizeof(value) - 1 - skip;
  const size_t most = length < room ? length : room;
  const int64_t got = ReadFully(file.get(), value, skip + most + 1);
  if (got < 0) {
    *problem = path + ": " + strerror(errno);
    *again = true;
    return -1;
  }
  if (static_cast<size_t>(got) <= skip) {
    *problem = path + " has no value";
    return -1;
  }
  const size_t size = static_cast<size_t>(got) - skip;
  if (size > most) {
    *problem = path + " is longer than " + std::to_string(most) + " bytes, the rest is not used";
  }
  const size_t stored = size < most ? size : most;
  memcpy(buffer, value + skip, stored);
  return static_cast<int64_t>(stored);
}

int64_t ReadValue(const std::string &path, size_t skip, void *buffer, size_t length,
                  std::string *problem) {
  for (int attempt = 1;; attempt++) {
    std::string found;
    bool again;
    const int64_t got = TryToRead(path, skip, buffer, length, &found, &again);
    if (!again || attempt == kAttempts) {
      *problem = found;
      return got;
    }
  }
}

int64_t ReadVariable(const char *directory, std::string_view name, void *buffer, size_t length,
                     std::string *problem) {
  std::string variable;
  int error = 0;
  for (int attempt = 0; attempt < kAttempts; attempt++) {
    errno = 0;
    variable = FindVariable(directory, name);
    error = errno;
    if (!variable.empty() || error == 0 || IsAbsence(error)) {
      break;
    }
  }
  if (variable.empty()) {
    if (error != 0 && !IsAbsence(error)) {
      *problem = std::string(directory) + ": " + strerror(error);
    }
    return -1;
  }
  return ReadValue(std::string(directory) + "/" + variable, kAttributes, buffer, length, problem);
}

}  // namespace

int64_t ReadEv(const EvDirectories &directories, const char *name, void *buffer, size_t length,
               std::string *problem) {
  if (!IsEvName(name)) {
    *problem = "not a name";
    return -1;
  }
  const int64_t raw =
      ReadValue(std::string(directories.raw) + "/" + name, 0, buffer, length, problem);
  std::string of_variable;
  if (raw >= 0 && static_cast<size_t>(raw) < length) {
    // A file that was cut off hides no variable that is whole.
    std::vector<char> whole(length);
    if (ReadVariable(directories.uefi, name, whole.data(), length, &of_variable) ==
        static_cast<int64_t>(length)) {
      *problem = std::string(directories.raw) + "/" + name + " has " + std::to_string(raw) +
                 " bytes of the " + std::to_string(length) +
                 " that are needed, the UEFI variable is used";
      if (!of_variable.empty()) {
        *problem += "; " + of_variable;
      }
      memcpy(buffer, whole.data(), length);
      return static_cast<int64_t>(length);
    }
  }
  if (raw >= 0) {
    return raw;
  }
  const int64_t got = ReadVariable(directories.uefi, name, buffer, length, &of_variable);
  if (!problem->empty() && got >= 0) {
    *problem += ", the UEFI variable is used";
  }
  if (!problem->empty() && !of_variable.empty()) {
    *problem += "; ";
  }
  *problem += of_variable;
  return got;
}

}  // namespace vex
