#include "tools/vexreg/host_facts.h"

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <stdarg.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>

#include "core/hwinfo.h"
#include "framework/appliance.h"
#include "framework/distribution.h"
#include "framework/registry_dir.h"
#include "hardware/tlxci/paths.h"
#include "monitors/filesys.h"
#include "platform/ev.h"
#include "platform/smbios.h"
#include "software/components.h"
#include "software/packages.h"
#include "tools/vexreg/commands.h"

namespace vex {
namespace {

// Messages of the libraries that look at a source, for the finding about it.
std::string &LibraryMessages() {
  static auto *messages = new std::string;
  return *messages;
}

std::string TakeMessages() {
  std::string text;
  text.swap(LibraryMessages());
  while (!text.empty() && text.back() == '\n') {
    text.pop_back();
  }
  return text;
}

std::string ReadText(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// What a symbolic link holds; "" when it cannot be read.
std::string LinkOf(const std::string &path) {
  char text[256];
  const ssize_t length = readlink(path.c_str(), text, sizeof(text));
  return {text, length > 0 ? static_cast<size_t>(length) : 0};
}

template <typename Number>
bool ParseNumber(std::string_view text, Number *number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *number);
  return error == std::errc() && end == text.data() + text.size();
}

bool IsOnPath(const std::string &search, const std::string &command) {
  std::istringstream directories(search);
  for (std::string directory; std::getline(directories, directory, ':');) {
    directory.append("/").append(command);
    if (access(directory.c_str(), X_OK) == 0) {
      return true;
    }
  }
  return false;
}

bool IsReadable(const char *path) {
  return access(path, R_OK) == 0;
}

Finding LookAtMountTable() {
  if (IsReadable(mount_table_path)) {
    return {Verdict::kOk, std::string("mount table: ") + mount_table_path + "."};
  }
  return {Verdict::kFail,
          std::string("mount table: ") + mount_table_path +
              " is absent or not readable, and without it the agent does not start. "
              "Make it: ln -s ../proc/self/mounts " +
              mount_table_path + "."};
}

Finding LookAtDistribution() {
  if (IsReadable(kOsReleaseFiles[0]) || IsReadable(kOsReleaseFiles[1])) {
    return {Verdict::kOk, "distribution: described by os-release."};
  }
  return {Verdict::kNote, std::string("distribution: neither ") + kOsReleaseFiles[0] + " nor " +
                              kOsReleaseFiles[1] + ". Its name and version are empty."};
}

Finding LookAtAppliance() {
  if (IsReadable(kApplianceFile)) {
    return {Verdict::kOk, std::string("appliance: described by ") + kApplianceFile + "."};
  }
  return {Verdict::kNote, std::string("appliance: no ") + kApplianceFile +
                              ". The machine is none; tlxAp... is absent."};
}

Finding LookAtSmbios() {
  if (InitSMBIOS() != 0) {
    DeinitSMBIOS();
    return {Verdict::kOk, "SMBIOS tables: read."};
  }
  const std::string problem = TakeMessages();
  const char *without = "The firmware table has no system ROM, the GUID is a generated or set one.";
  if (problem.empty()) {
    return {Verdict::kNote, std::string("SMBIOS tables: none on this machine. ") + without};
  }
  if (geteuid() != 0) {
    return {Verdict::kNote, "SMBIOS tables: not for this user to read (" + problem + ")."};
  }
  return {Verdict::kNote, problem + ". " + without};
}

Finding LookAtEv(const char *name, const std::string &without) {
  unsigned char byte = 0;
  uint32_t length = 1;
  const std::string where = std::string("EV ") + name + ": ";
  if (get_ev(name, &byte, &length) == 0) {
    return {Verdict::kOk, where + "read."};
  }
  const std::string problem = TakeMessages();
  return {Verdict::kNote,
          (problem.empty() ? where + "none on this machine" : problem) + ". " + without};
}

Finding LookAtController() {
  struct stat status = {};
  if (stat(kControllerSocket, &status) == 0 && S_ISSOCK(status.st_mode)) {
    return {Verdict::kOk, std::string("management controller: ") + kControllerSocket + "."};
  }
  if (stat(kControllerCard, &status) == 0 && S_ISCHR(status.st_mode)) {
    return {Verdict::kOk,
            std::string("management controller: remote card ") + kControllerCard + "."};
  }
  return {Verdict::kNote, std::string("management controller: none (neither ") + kControllerSocket +
                              " nor " + kControllerCard +
                              "). The firmware table has no rows of it."};
}

Finding LookAtPackages(const std::string &search) {
  if (!IsOnPath(search, "dpkg")) {
    return {Verdict::kNote, "package list: no dpkg command. The software table has no packages."};
  }
  if (!IsReadable(package_database_path)) {
    return {Verdict::kNote, std::string("package list: ") + package_database_path +
                                " is absent. Packages are read when the agent starts, and not "
                                "again."};
  }
  return {Verdict::kOk, "package list: dpkg and " + std::string(package_database_path) + "."};
}

}  // namespace

bool ParseStat(std::string_view stat, ProcessFact *process) {
  // The name, in parentheses, may hold anything.
  const size_t name_end = stat.rfind(')');
  if (name_end == std::string_view::npos) {
    return false;
  }
  std::istringstream rest{std::string(stat.substr(name_end + 1))};
  return static_cast<bool>(rest >> process->state >> process->parent);
}

std::vector<ProcessFact> WithoutChildren(const std::vector<ProcessFact> &processes) {
  std::vector<ProcessFact> left;
  std::copy_if(
      processes.begin(), processes.end(), std::back_inserter(left), [&](const ProcessFact &one) {
        return std::none_of(processes.begin(), processes.end(),
                            [&](const ProcessFact &other) { return one.parent == other.pid; });
      });
  return left;
}

std::vector<ProcessFact> FindProcesses(const std::string &name) {
  std::vector<ProcessFact> found;
  const std::string own_space = LinkOf("/proc/self/ns/pid");
  const std::unique_ptr<DIR, int (*)(DIR *)> proc(opendir("/proc"), closedir);
  while (const dirent *entry = proc != nullptr ? readdir(proc.get()) : nullptr) {
    ProcessFact process;
    if (!ParseNumber(std::string_view(entry->d_name), &process.pid)) {
      continue;
    }
    const std::string directory = std::string("/proc/") + entry->d_name;
    // A container's are not this host's.
    const std::string space = LinkOf(directory + "/ns/pid");
    if (ReadText(directory + "/comm") != name + "\n" || (!space.empty() && space != own_space)) {
      continue;
    }
    struct stat status = {};
    if (!ParseStat(ReadText(directory + "/stat"), &process) || process.state == 'Z' ||
        process.state == 'X' || stat(directory.c_str(), &status) != 0) {
      continue;
    }
    process.owner = status.st_uid;
    found.push_back(process);
  }
  return WithoutChildren(found);
}

bool ProcessesHidden() {
  // The first process is root's.
  return geteuid() != 0 && access("/proc/1/comm", R_OK) != 0;
}

std::optional<std::optional<std::string>> VariableOf(pid_t pid, const std::string &name) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/environ", std::ios::binary);
  if (!file) {
    return std::nullopt;
  }
  for (std::string text; std::getline(file, text, '\0');) {
    if (text.starts_with(name + "=")) {
      return text.substr(name.size() + 1);
    }
  }
  return std::optional<std::string>();
}

int TryUnixSocket(const std::string &path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    return ENAMETOOLONG;
  }
  memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd ||
      connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
    return errno;
  }
  return 0;
}

int CountConnections(std::string_view table, std::string_view path) {
  // Num RefCount Protocol Flags Type St Inode Path; a connection to a listener has the listener's
  // path and the state 03.
  int count = 0;
  std::istringstream lines{std::string(table)};
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string field;
    std::string state;
    std::string name;
    for (int i = 0; i < 6; i++) {
      state.clear();
      fields >> state;
    }
    fields >> field;
    std::getline(fields >> std::ws, name);
    count += state == "03" && name == path;
  }
  return count;
}

std::optional<int> ConnectionsTo(const std::string &path) {
  const std::string table = ReadText("/proc/net/unix");
  if (table.empty()) {
    return std::nullopt;
  }
  return CountConnections(table, path);
}

void LookAtSources(const std::string &search, const std::function<void(const Finding &)> &say) {
  say(LookAtMountTable());
  say(LookAtDistribution());
  say(LookAtPackages(search));
  say(LookAtSmbios());
  say(LookAtEv(platform_ev, "The class of the hardware is not published."));
  say(LookAtEv(version_ev, "The maker's utilities keep the versions that they have in the table."));
  say(LookAtController());
  say(LookAtAppliance());
}

}  // namespace vex

// The log of what is linked here from the agent.
int agentlog_fprintf(FILE *, const char *format, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  vex::LibraryMessages() += text;
  return length;
}
