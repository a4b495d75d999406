#include "tools/vexreg/host_facts.h"

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>

#include "common/sources.h"
#include "framework/machine/appliance.h"
#include "framework/machine/distribution.h"
#include "framework/process/clock.h"
#include "framework/process/descriptor.h"
#include "framework/process/log.h"
#include "framework/process/printable.h"
#include "framework/snmp/confinement.h"
#include "hardware/tlxci/paths.h"
#include "platform/ev.h"
#include "platform/framework.h"
#include "platform/smbios.h"
#include "tools/vexreg/commands.h"

namespace vex {

std::string ReadText(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  // Not by the buffer's iterators: what reading throws, only a stream's own operator catches.
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

namespace {

constexpr char kUnixSocketTable[] = "/proc/net/unix";

// Messages of the libraries that look at a source, for the finding about it.
std::string &LibraryMessages() {
  static auto *messages = new std::string;
  return *messages;
}

int TakeMessage(const char *text, size_t length) {
  std::string_view message(text, length);
  const std::string prefix = std::string(kAgentName) + ": ";
  if (message.starts_with(prefix)) {
    message.remove_prefix(prefix.size());
  }
  LibraryMessages() += message;
  return static_cast<int>(length);
}

std::string TakeMessages() {
  std::string text;
  text.swap(LibraryMessages());
  return JoinLines(text);
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

// The wall clock's time at which so many ticks had passed since the machine booted.
int64_t TimeOfTicks(uint64_t ticks) {
  const int64_t since_boot = static_cast<int64_t>(ticks) * (kNsPerSecond / sysconf(_SC_CLK_TCK));
  return ClockNs(CLOCK_REALTIME) - ClockNs(CLOCK_BOOTTIME) + since_boot;
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

// A file of proc(5) that a group is read from.
Finding LookAtFigures(const char *what, const char *path, const char *without) {
  const std::string text = std::string(what) + path;
  if (IsReadable(path)) {
    return {Verdict::kOk, text + "."};
  }
  return {Verdict::kFail,
          text + " is absent or not readable. " + without + " Look whether /proc is mounted."};
}

// What is said of a file that the agent reads once; nothing when it has read it as it stands.
Finding OfFileReadOnce(std::string text, const char *path, int64_t started_ns) {
  struct stat status = {};
  // Not mtime: a file that was moved there keeps its own.
  if (started_ns == 0 || stat(path, &status) != 0 ||
      int64_t{status.st_ctim.tv_sec} * kNsPerSecond + status.st_ctim.tv_nsec <= started_ns) {
    return {Verdict::kOk, std::move(text)};
  }
  return {Verdict::kNote, text +
                              " It is newer than the running agent, which reads it when it starts: "
                              "systemctl restart vexhostd."};
}

Finding LookAtDistribution(int64_t started_ns) {
  const bool described = distroid_init() == 0;
  distroid_exit();
  const std::string problem = TakeMessages();
  const char *used = kOsReleaseFiles[problem.empty() && IsReadable(kOsReleaseFiles[0]) ? 0 : 1];
  if (described && problem.empty()) {
    return OfFileReadOnce(std::string("distribution: described by ") + used + ".", used,
                          started_ns);
  }
  if (described) {
    return {Verdict::kNote, "distribution: " + problem + ". It is described by " + used + "."};
  }
  const std::string neither =
      std::string("neither ") + kOsReleaseFiles[0] + " nor " + kOsReleaseFiles[1];
  return {Verdict::kNote, "distribution: " + (problem.empty() ? neither : problem) +
                              ". Its name and version are empty."};
}

Finding LookAtAppliance(int64_t started_ns) {
  const bool is_one = is_appliance() != 0;
  const std::string problem = TakeMessages();
  if (is_one) {
    Finding finding = OfFileReadOnce(std::string("appliance: described by ") + kApplianceFile +
                                         "." + (problem.empty() ? "" : " But: " + problem + "."),
                                     kApplianceFile, started_ns);
    if (!problem.empty()) {
      finding.verdict = Verdict::kNote;
    }
    return finding;
  }
  const std::string text = (problem.empty() ? std::string("no ") + kApplianceFile : problem) +
                           ". The machine is none for an agent that starts so; tlxAp... is absent.";
  Finding finding = OfFileReadOnce("appliance: " + text, kApplianceFile, started_ns);
  finding.verdict = Verdict::kNote;
  return finding;
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

// wanted: bytes that the agent reads; needed: those without which it takes the EV as absent.
Finding LookAtEv(const char *name, uint32_t wanted, uint32_t needed, const std::string &without) {
  std::vector<unsigned char> value(wanted);
  uint32_t length = wanted;
  const std::string where = std::string("EV ") + name + ": ";
  const bool there = get_ev(name, value.data(), &length) == 0;
  const std::string problem = TakeMessages();
  if (there && length >= needed) {
    if (!problem.empty()) {
      return {Verdict::kNote, problem + "."};
    }
    if (length < wanted) {
      return {Verdict::kNote, where + "has " + std::to_string(length) + " of " +
                                  std::to_string(wanted) +
                                  " bytes; what is missing counts as zero."};
    }
    return {Verdict::kOk, where + "read."};
  }
  if (there) {
    return {Verdict::kNote, where + "has " + std::to_string(length) + " bytes of the " +
                                std::to_string(needed) + " that are needed. " + without};
  }
  return {Verdict::kNote,
          (problem.empty() ? where + "none on this machine" : problem) + ". " + without};
}

// The socket is not connected to: a controller may serve one at a time, or give what it still owes
// the agent to whoever comes next.
Finding LookAtController() {
  const std::string name = "management controller: ";
  struct stat status = {};
  const bool is_socket = stat(kControllerSocket, &status) == 0 && S_ISSOCK(status.st_mode);
  if (is_socket && HasPacketListener(ReadText(kUnixSocketTable), kControllerSocket)) {
    return {Verdict::kOk, name + kControllerSocket + "."};
  }
  if (stat(kControllerCard, &status) == 0 && S_ISCHR(status.st_mode)) {
    return {Verdict::kOk, name + "remote card " + kControllerCard + "."};
  }
  const std::string without = "The firmware table has no rows of it.";
  if (is_socket) {
    return {Verdict::kNote, name + "nobody is seen to listen on " + kControllerSocket +
                                ", which a program that has ended may have left. " + without};
  }
  return {Verdict::kNote, name + "none (neither " + kControllerSocket + " nor " + kControllerCard +
                              "). " + without};
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
  rest >> process->state >> process->parent;
  std::string ignored;
  for (int field = 5; field < 22; field++) {
    rest >> ignored;
  }
  return static_cast<bool>(rest >> process->start_ticks);
}

size_t NumbersOfProcess(std::string_view status) {
  constexpr std::string_view kNumbers = "\nNSpid:";
  const size_t at = status.find(kNumbers);
  if (at == std::string_view::npos) {
    return 0;
  }
  const size_t from = at + kNumbers.size();
  std::istringstream line{std::string(status.substr(from, status.find('\n', from) - from))};
  size_t count = 0;
  for (pid_t number = 0; line >> number;) {
    count++;
  }
  return count;
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

namespace {

// The numbers that a directory of proc(5) lists.
std::vector<pid_t> NumbersIn(const std::string &directory) {
  std::vector<pid_t> numbers;
  const std::unique_ptr<DIR, int (*)(DIR *)> entries(opendir(directory.c_str()), closedir);
  while (const dirent *entry = entries != nullptr ? readdir(entries.get()) : nullptr) {
    pid_t number = 0;
    if (ParseNumber(std::string_view(entry->d_name), &number)) {
      numbers.push_back(number);
    }
  }
  return numbers;
}

}  // namespace

namespace {

// Whether a process is of a PID namespace within this one. The namespace itself is for its user
// alone to see, and root; how many numbers the process has, for everybody.
bool IsOfContainer(const std::string &directory, const std::string &own_space) {
  const std::string space = LinkOf(directory + "/ns/pid");
  if (!space.empty()) {
    return space != own_space;
  }
  return NumbersOfProcess(ReadText(directory + "/status")) >
         NumbersOfProcess(ReadText("/proc/self/status"));
}

}  // namespace

static std::vector<ProcessFact> LookForProcesses(const std::string &name) {
  std::vector<ProcessFact> found;
  const std::string own_space = LinkOf("/proc/self/ns/pid");
  for (const pid_t pid : NumbersIn("/proc")) {
    ProcessFact process;
    process.pid = pid;
    const std::string directory = "/proc/" + std::to_string(pid);
    if (ReadText(directory + "/comm") != name + "\n" || IsOfContainer(directory, own_space)) {
      continue;
    }
    struct stat status = {};
    if (!ParseStat(ReadText(directory + "/stat"), &process) || process.state == 'Z' ||
        process.state == 'X' || stat(directory.c_str(), &status) != 0) {
      continue;
    }
    process.owner = status.st_uid;
    process.started_ns = TimeOfTicks(process.start_ticks);
    found.push_back(process);
  }
  return WithoutChildren(found);
}

std::vector<ProcessFact> FindProcesses(const std::string &name) {
  // Twice, before it is said that none runs: a look may fail.
  std::vector<ProcessFact> found = LookForProcesses(name);
  return found.empty() ? LookForProcesses(name) : found;
}

// Who asks mounts and processes for it, and the starter of its SNMP process.
static bool StaysWithTheAgent(const std::string &comm) {
  return comm == "mount-asker\n" || comm == "process-asker\n" ||
         comm == std::string(kSnmpStarter) + "\n";
}

bool RunsCommand(pid_t agent) {
  const std::vector<pid_t> pids = NumbersIn("/proc");
  return std::any_of(pids.begin(), pids.end(), [&](pid_t pid) {
    const std::string directory = "/proc/" + std::to_string(pid);
    ProcessFact process;
    return ParseStat(ReadText(directory + "/stat"), &process) && process.parent == agent &&
           process.state != 'Z' && !StaysWithTheAgent(ReadText(directory + "/comm"));
  });
}

bool HasSnmpThread(pid_t agent) {
  const std::string tasks = "/proc/" + std::to_string(agent) + "/task";
  const std::vector<pid_t> threads = NumbersIn(tasks);
  return std::any_of(threads.begin(), threads.end(), [&](pid_t thread) {
    return ReadText(tasks + "/" + std::to_string(thread) + "/comm") == "snmp\n";
  });
}

int64_t WallClock() {
  return ClockNs(CLOCK_REALTIME);
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
  if (file.bad()) {
    return std::nullopt;  // it was not read to its end
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

namespace {

// A line of /proc/net/unix: Num RefCount Protocol Flags Type St Inode Path.
struct UnixSocket {
  std::string flags;
  std::string type;
  std::string state;
  std::string path;
};

std::vector<UnixSocket> UnixSockets(std::string_view table) {
  std::vector<UnixSocket> sockets;
  std::istringstream lines{std::string(table)};
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string ignored;
    UnixSocket one;
    fields >> ignored >> ignored >> ignored >> one.flags >> one.type >> one.state >> ignored;
    if (std::getline(fields >> std::ws, one.path)) {
      sockets.push_back(std::move(one));
    }
  }
  return sockets;
}

}  // namespace

int CountConnections(std::string_view table, std::string_view path) {
  // A connection to a listener has the listener's path and the state 03.
  const auto sockets = UnixSockets(table);
  return static_cast<int>(std::count_if(sockets.begin(), sockets.end(), [&](const UnixSocket &one) {
    return one.state == "03" && one.path == path;
  }));
}

bool HasPacketListener(std::string_view table, std::string_view path) {
  // SOCK_SEQPACKET, and the kernel's mark of a socket that accepts.
  const auto sockets = UnixSockets(table);
  return std::any_of(sockets.begin(), sockets.end(), [&](const UnixSocket &one) {
    return one.flags == "00010000" && one.type == "0005" && one.path == path;
  });
}

std::optional<int> ConnectionsTo(const std::string &path) {
  const std::string table = ReadText(kUnixSocketTable);
  if (table.empty()) {
    return std::nullopt;
  }
  return CountConnections(table, path);
}

Reach SnmpReachOf(std::string_view table, bool listening) {
  constexpr std::string_view kPort = ":00A1";
  constexpr std::string_view kListens = "0A";  // a state of tcp(7)
  // Addresses are words as this machine has them: 127.0.0.1 is 0100007F.
  constexpr std::string_view kLoopbackNetwork = "7F";
  constexpr std::string_view kLoopback6 = "00000000000000000000000001000000";
  constexpr std::string_view kMapped = "0000000000000000FFFF0000";
  constexpr size_t kAddress4 = 8;
  Reach reach = Reach::kNowhere;
  std::istringstream lines{std::string(table)};
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string number;
    std::string local;
    std::string remote;
    std::string state;
    words >> number >> local >> remote >> state;
    if (!local.ends_with(kPort) || (listening && state != kListens)) {
      continue;
    }
    const std::string_view address = std::string_view(local).substr(0, local.size() - kPort.size());
    const bool four = address.size() == kAddress4 || address.starts_with(kMapped);
    const bool loopback = four ? address.ends_with(kLoopbackNetwork) : address == kLoopback6;
    if (!loopback) {
      return Reach::kBeyond;
    }
    reach = Reach::kLoopback;
  }
  return reach;
}

Reach SnmpReach() {
  Reach reach = Reach::kNowhere;
  for (const auto &[path, listening] :
       {std::pair("/proc/net/udp", false), std::pair("/proc/net/udp6", false),
        std::pair("/proc/net/tcp", true), std::pair("/proc/net/tcp6", true)}) {
    reach = std::max(reach, SnmpReachOf(ReadText(path), listening));
  }
  return reach;
}

void LookAtSources(const std::string &search, int64_t started_ns,
                   const std::function<void(const Finding &)> &say) {
  SetLogName(kAgentName);
  SetLogSink(TakeMessage);
  say(LookAtFigures("processor times: ", processor_times_path,
                    "The processors have no rows, or keep their averages."));
  say(LookAtFigures("memory sizes: ", memory_sizes_path,
                    "The memory group is not published, or keeps its figures."));
  say(LookAtMountTable());
  say(LookAtDistribution(started_ns));
  say(LookAtPackages(search));
  say(LookAtSmbios());
  say(LookAtEv(platform_ev, platform_ev_size, platform_ev_size,
               "The class of the hardware is not published."));
  say(LookAtEv(version_ev, version_ev_size, 1,
               "The maker's utilities keep the versions that they have in the table."));
  say(LookAtController());
  say(LookAtAppliance(started_ns));
}

}  // namespace vex
