#include "tests/support/unit_sandbox/unit_file.h"

#include <sched.h>
#include <seccomp.h>
#include <sys/capability.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <utility>

namespace unit_sandbox {

namespace {

using Words = std::vector<std::string>;

// Keys that say when the manager starts the service, how it watches and ends it and where its
// output goes, or that prepare directories for it. They take nothing away from a running process.
const std::set<std::string> kTakeNothingAway = {
    "Type", "NotifyAccess", "ExecStart", "ExecStartPre", "ExecStartPost", "ExecReload", "ExecStop",
    "ExecStopPost", "Restart", "RestartSec", "WatchdogSec", "TimeoutSec", "TimeoutStartSec",
    "TimeoutStopSec", "TimeoutAbortSec", "KillMode", "KillSignal", "SendSIGKILL",
    "SuccessExitStatus", "RestartPreventExitStatus", "StandardInput", "StandardOutput",
    "StandardError", "SyslogIdentifier", "StateDirectory", "StateDirectoryMode", "RuntimeDirectory",
    "RuntimeDirectoryMode", "OOMScoreAdjust", "OOMPolicy",
    // A new session keyring: the process has the old one's keys from nowhere.
    "KeyringMode"};

std::string Trimmed(const std::string &text) {
  const size_t from = text.find_first_not_of(" \t\r");
  const size_t to = text.find_last_not_of(" \t\r");
  return from == std::string::npos ? "" : text.substr(from, to - from + 1);
}

Words Split(const std::string &text) {
  std::istringstream stream(text);
  Words words;
  for (std::string word; stream >> word;) {
    words.push_back(word);
  }
  return words;
}

bool Boolean(const std::string &value) {
  std::string lower = value;
  std::transform(lower.begin(), lower.end(), lower.begin(), tolower);
  for (const char *word : {"1", "yes", "y", "true", "t", "on"}) {
    if (lower == word) {
      return true;
    }
  }
  for (const char *word : {"0", "no", "n", "false", "f", "off"}) {
    if (lower == word) {
      return false;
    }
  }
  throw UnitError("not a boolean: " + value);
}

// A list of names with "~" in front when they are what is refused.
bool Inverted(std::string *value) {
  const bool inverted = value->starts_with("~");
  value->erase(0, inverted ? 1 : 0);
  return inverted;
}

uint64_t Capabilities(const std::string &value) {
  uint64_t set = 0;
  for (const std::string &word : Split(value)) {
    cap_value_t number;
    if (cap_from_name(word.c_str(), &number) != 0) {
      throw UnitError("unknown capability " + word);
    }
    set |= uint64_t{1} << number;
  }
  return set;
}

// An empty list, or the first one, sets; those after it add or, with "~", take away.
void MergeCapabilities(std::string value, uint64_t initial, uint64_t *set) {
  const bool inverted = Inverted(&value);
  const uint64_t sum = Capabilities(value);
  if (sum == 0 || *set == initial) {
    *set = inverted ? ~sum : sum;
  } else if (inverted) {
    *set &= ~sum;
  } else {
    *set |= sum;
  }
}

std::map<std::string, Words> groups;  // asked for so far

// Asks for these groups, and for those that they are made of.
void AskForGroups(const Words &names) {
  std::string command = "systemd-analyze --no-pager syscall-filter";
  for (const std::string &name : names) {
    if (name.find_first_not_of("@abcdefghijklmnopqrstuvwxyz0123456789-") != std::string::npos) {
      throw UnitError("not a group of system calls: " + name);
    }
    command += " " + name;
  }
  FILE *list = popen((command + " 2>/dev/null").c_str(), "re");
  std::string group;
  Words nested;
  char text[256];
  while (list != nullptr && fgets(text, sizeof(text), list) != nullptr) {
    const std::string line = Trimmed(std::string(text, strcspn(text, "\n")));
    if (text[0] == '@') {
      group = line;
    } else if (!line.empty() && line[0] != '#') {
      groups[group].push_back(line);
      if (line[0] == '@') {
        nested.push_back(line);
      }
    }
  }
  if (list == nullptr || pclose(list) != 0) {
    throw UnitError("systemd-analyze knows no such group of system calls: " + names.at(0));
  }
  std::erase_if(nested, [](const std::string &name) { return groups.contains(name); });
  if (!nested.empty()) {
    std::sort(nested.begin(), nested.end());
    nested.erase(std::unique(nested.begin(), nested.end()), nested.end());
    AskForGroups(nested);
  }
}

int Errno(const std::string &name) {
  // The names of <errno.h>: libseccomp has none, and strerrorname_np() only the other way round.
  for (int number = 1; number < 4096; number++) {
    const char *known = strerrorname_np(number);
    if (known != nullptr && name == known) {
      return number;
    }
  }
  char *end = nullptr;
  const long number = strtol(name.c_str(), &end, 10);
  if (name.empty() || *end != '\0' || number < 1 || number > 4095) {
    throw UnitError("unknown error " + name);
  }
  return static_cast<int>(number);
}

void AddSystemCalls(const std::string &name, int error, bool add,
                    std::map<std::string, int> *calls) {
  if (name[0] == '@') {
    for (const std::string &member : SystemCallGroup(name)) {
      AddSystemCalls(member, error, add, calls);
    }
  } else if (add) {
    (*calls)[name] = error;
  } else {
    calls->erase(name);
  }
}

void MergeSystemCalls(std::string value, Unit *unit) {
  auto &filter = unit->system_calls;
  if (value.empty()) {
    filter = {};
    return;
  }
  const bool inverted = Inverted(&value);
  if (!filter.given) {
    filter.given = true;
    filter.allows = !inverted;
    if (filter.allows) {
      // What every program needs, to begin with execve().
      AddSystemCalls("@default", -1, true, &filter.content);
    }
  }
  for (const std::string &word : Split(value)) {
    const size_t colon = word.find(':');
    const std::string name = word.substr(0, colon);
    if (name[0] != '@' && seccomp_syscall_resolve_name(name.c_str()) == __NR_SCMP_ERROR) {
      throw UnitError("unknown system call " + name);
    }
    int error = -1;
    if (colon != std::string::npos && filter.allows) {
      throw UnitError("errors in a list of what is allowed are not understood here");
    }
    if (colon != std::string::npos) {
      error = word.substr(colon + 1) == "kill" ? 0 : Errno(word.substr(colon + 1));
    }
    AddSystemCalls(name, error, inverted != filter.allows, &filter.content);
  }
}

std::set<uint32_t> Architectures(const std::string &value) {
  std::set<uint32_t> set;
  for (const std::string &word : Split(value)) {
    std::string name = word;
    std::replace(name.begin(), name.end(), '-', '_');
    const uint32_t number =
        name == "native" ? seccomp_arch_native() : seccomp_arch_resolve_name(name.c_str());
    if (number == 0) {
      throw UnitError("unknown architecture " + word);
    }
    set.insert(number);
  }
  return set;
}

const std::map<std::string, int> kFamilies = {{"AF_UNIX", AF_UNIX},
                                              {"AF_LOCAL", AF_LOCAL},
                                              {"AF_INET", AF_INET},
                                              {"AF_INET6", AF_INET6},
                                              {"AF_NETLINK", AF_NETLINK},
                                              {"AF_PACKET", AF_PACKET},
                                              {"AF_BLUETOOTH", AF_BLUETOOTH},
                                              {"AF_ALG", AF_ALG},
                                              {"AF_VSOCK", AF_VSOCK},
                                              {"AF_CAN", AF_CAN},
                                              {"AF_KEY", AF_KEY},
                                              {"AF_X25", AF_X25},
                                              {"AF_APPLETALK", AF_APPLETALK},
                                              {"AF_TIPC", AF_TIPC},
                                              {"AF_XDP", AF_XDP}};

void MergeAddressFamilies(std::string value, Unit *unit) {
  auto &filter = unit->address_families;
  if (value.empty()) {
    filter = {};
    return;
  }
  if (value == "none") {
    filter = {.given = true, .allows = true, .content = {}};
    return;
  }
  const bool inverted = Inverted(&value);
  if (!filter.given) {
    filter.given = true;
    filter.allows = !inverted;
  }
  for (const std::string &word : Split(value)) {
    const auto family = kFamilies.find(word);
    if (family == kFamilies.end()) {
      throw UnitError("unknown address family " + word);
    }
    if (inverted != filter.allows) {
      filter.content.insert(family->second);
    } else {
      filter.content.erase(family->second);
    }
  }
}

constexpr std::array<std::pair<const char *, unsigned long>, 8> kNamespaces = {
    {{"cgroup", CLONE_NEWCGROUP},
     {"ipc", CLONE_NEWIPC},
     {"net", CLONE_NEWNET},
     {"mnt", CLONE_NEWNS},
     {"pid", CLONE_NEWPID},
     {"user", CLONE_NEWUSER},
     {"uts", CLONE_NEWUTS},
     {"time", CLONE_NEWTIME}}};

// One line only: to merge several is a rule of its own that no unit here needs.
unsigned long RefusedNamespaces(std::string value) {
  const bool inverted = Inverted(&value);
  unsigned long named = 0;
  for (const std::string &word : Split(value)) {
    unsigned long found = 0;
    for (const auto &[name, flag] : kNamespaces) {
      found |= word == name ? flag : 0;
    }
    if (found == 0) {
      return Boolean(value) ? AllNamespaces() : 0;
    }
    named |= found;
  }
  return inverted ? named : AllNamespaces() & ~named;
}

const std::map<std::string, int> kLimits = {
    {"LimitAS", RLIMIT_AS},           {"LimitCORE", RLIMIT_CORE},
    {"LimitCPU", RLIMIT_CPU},         {"LimitDATA", RLIMIT_DATA},
    {"LimitFSIZE", RLIMIT_FSIZE},     {"LimitLOCKS", RLIMIT_LOCKS},
    {"LimitMEMLOCK", RLIMIT_MEMLOCK}, {"LimitNICE", RLIMIT_NICE},
    {"LimitNOFILE", RLIMIT_NOFILE},   {"LimitNPROC", RLIMIT_NPROC},
    {"LimitRTPRIO", RLIMIT_RTPRIO},   {"LimitSTACK", RLIMIT_STACK}};

rlim_t LimitValue(const std::string &text) {
  if (text == "infinity") {
    return RLIM_INFINITY;
  }
  char *end = nullptr;
  rlim_t value = strtoull(text.c_str(), &end, 10);
  const std::string suffix = end;
  const std::string known = "KMGT";
  const size_t power = suffix.size() == 1 ? known.find(suffix) : std::string::npos;
  if (text.empty() || end == text.c_str() || (!suffix.empty() && power == std::string::npos)) {
    throw UnitError("not a limit: " + text);
  }
  return suffix.empty() ? value : value << (10 * (power + 1));
}

rlimit Limit(const std::string &value) {
  const size_t colon = value.find(':');
  const rlim_t soft = LimitValue(value.substr(0, colon));
  return {soft, colon == std::string::npos ? soft : LimitValue(value.substr(colon + 1))};
}

// What is kept for the service as a whole, outside its processes, and cannot be kept here: taken
// when it can be told from the value that a scenario never meets it.
bool NeverMet(const std::string &key, const std::string &value) {
  // An agent of a scenario has few processes and a few megabytes.
  if (key == "TasksMax") {
    return value == "infinity" || LimitValue(value) >= 64;
  }
  if (key == "MemoryMax" || key == "MemoryHigh") {
    return LimitValue(value) >= rlim_t{64} << 20;
  }
  // All traffic of a scenario is that of its own loopback interface.
  if (key == "IPAddressDeny") {
    return value == "any";
  }
  if (key == "IPAddressAllow") {
    return value == "localhost";
  }
  // Refuses block devices, which the agent has no use for; the card's is a character device.
  if (key == "DevicePolicy") {
    return value == "auto" || value == "closed";
  }
  if (key == "DeviceAllow") {
    return value == "char-* rw" || value == "char-* rwm";
  }
  return false;
}

void Assign(const std::string &key, const std::string &value, Unit *unit) {
  const std::map<std::string, bool *> booleans = {
      {"NoNewPrivileges", &unit->no_new_privileges},
      {"RestrictRealtime", &unit->restrict_realtime},
      {"RestrictSUIDSGID", &unit->restrict_suid_sgid},
      {"LockPersonality", &unit->lock_personality},
      {"MemoryDenyWriteExecute", &unit->memory_deny_write_execute},
      {"ProtectHostname", &unit->protect_hostname},
      {"ProtectClock", &unit->protect_clock}};
  if (const auto boolean = booleans.find(key); boolean != booleans.end()) {
    *boolean->second = Boolean(value);
  } else if (const auto limit = kLimits.find(key); limit != kLimits.end()) {
    unit->limits[limit->second] = Limit(value);
  } else if (key == "CapabilityBoundingSet") {
    MergeCapabilities(value, ~uint64_t{0}, &unit->bounding_set);
  } else if (key == "AmbientCapabilities") {
    MergeCapabilities(value, 0, &unit->ambient_set);
  } else if (key == "SystemCallFilter") {
    MergeSystemCalls(value, unit);
  } else if (key == "SystemCallErrorNumber") {
    unit->system_call_errno = value.empty() || value == "kill" ? 0 : Errno(value);
  } else if (key == "SystemCallArchitectures") {
    unit->architectures = Architectures(value);
  } else if (key == "RestrictAddressFamilies") {
    MergeAddressFamilies(value, unit);
  } else if (key == "RestrictNamespaces") {
    unit->refused_namespaces = RefusedNamespaces(value);
  } else if (key == "UMask") {
    unit->umask = static_cast<mode_t>(std::stoul(value, nullptr, 8));
  } else if (!kTakeNothingAway.contains(key) && !NeverMet(key, value)) {
    throw UnitError("what it does to the service is not known here");
  }
}

}  // namespace

unsigned long AllNamespaces() {
  unsigned long all = 0;
  for (const auto &[name, flag] : kNamespaces) {
    all |= flag;
  }
  return all;
}

const Words &SystemCallGroup(const std::string &name) {
  if (!groups.contains(name)) {
    AskForGroups({name});
  }
  return groups.at(name);
}

Unit ReadUnit(const std::string &path) {
  std::ifstream file(path);
  if (!file) {
    throw UnitError(path + " cannot be read");
  }
  Unit unit;
  std::string section, assignment;
  std::set<std::string> seen;
  for (std::string line; std::getline(file, line);) {
    const std::string text = Trimmed(line);
    if (text.starts_with("#") || text.starts_with(";")) {
      continue;  // also within an assignment that goes on
    }
    assignment += text;
    if (assignment.ends_with("\\")) {
      assignment.back() = ' ';
      continue;
    }
    const std::string whole = std::exchange(assignment, "");
    if (whole.starts_with("[")) {
      section = whole;
    } else if (section == "[Service]" && !whole.empty()) {
      const size_t equals = whole.find('=');
      const std::string key = Trimmed(whole.substr(0, equals));
      try {
        if (equals == std::string::npos) {
          throw UnitError("no assignment");
        }
        if (!seen.insert(key).second && key == "RestrictNamespaces") {
          throw UnitError("several of them are not understood here");
        }
        Assign(key, Trimmed(whole.substr(equals + 1)), &unit);
      } catch (const std::exception &error) {
        throw UnitError(path + ": " + key + ": " + error.what());
      }
    }
  }
  if (unit.protect_clock) {
    unit.bounding_set &= ~(uint64_t{1} << CAP_SYS_TIME | uint64_t{1} << CAP_WAKE_ALARM);
  }
  return unit;
}

}  // namespace unit_sandbox
