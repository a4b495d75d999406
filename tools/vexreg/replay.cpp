// vexreg replay: the installed agent on a captured host, and where it serves other values than
// then.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "common/sources.h"
#include "framework/process/clock.h"
#include "framework/process/descriptor.h"
#include "framework/registry/registry_format.h"
#include "framework/snmp/mib_table.h"
#include "framework/snmp/snmp_ask.h"
#include "framework/snmp/snmp_files.h"
#include "hardware/tlxci/paths.h"
#include "tools/replay/replayed_calls.h"
#include "tools/vexreg/captured_host.h"
#include "tools/vexreg/child_output.h"
#include "tools/vexreg/commands.h"
#include "tools/vexreg/controller_replies.h"
#include "tools/vexreg/findings.h"
#include "tools/vexreg/replay_room.h"
#include "tools/vexreg/served.h"
#include "tools/vexreg/values.h"

namespace vex {
namespace {

constexpr char kCommunity[] = "replay";
constexpr char kSearch[] = "/run/vexreg-replay/bin:/usr/sbin:/usr/bin:/sbin:/bin";
constexpr char kMasterConf[] = "/run/vexreg-replay/snmp/snmpd.conf";
constexpr char kAgentConf[] = "/run/vexreg-replay/snmp/vexhostd.conf";
constexpr char kMasterLog[] = "/run/vexreg-replay/snmpd.log";
constexpr char kAgentLog[] = "/run/vexreg-replay/vexhostd.log";
constexpr char kFewModules[] =
    "-Isnmp_mib,system_mib,vacm_vars,vacm_conf,usmUser,usmConf,agentx,override";
constexpr char kVersionVariable[] = "tlxHoAgentVersion";
constexpr int kPollSeconds = 3;  // a replay is to be over soon
constexpr size_t kMostLogLines = 20;
constexpr size_t kMostDifferences = 200;
// Before the first look, and between two.
constexpr std::chrono::milliseconds kLook{500};

constexpr int kLogicCommand = 0x0101;
constexpr int kVersionCommand = 2;
constexpr size_t kHeader = 8;

struct Settings {
  RoomSettings room;
  bool exact = false;
  bool json = false;
  int seconds = 0;
};

// ---- Programs in the room -----------------------------------------------------------------------

pid_t Start(const std::vector<std::string> &words, const std::string &log,
            const std::vector<std::pair<std::string, std::string>> &environment) {
  const pid_t child = fork();
  if (child != 0) {
    return child;
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  setpgid(0, 0);  // one that the room's processes can see: the agent tells programs apart by it
  const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
  const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  // What it says is what a failure is explained by.
  if (nothing < 0 || out < 0 || dup2(nothing, STDIN_FILENO) < 0 || dup2(out, STDOUT_FILENO) < 0 ||
      dup2(out, STDERR_FILENO) < 0) {
    _exit(127);
  }
  clearenv();
  setenv("PATH", kSearch, 1);
  for (const auto &[name, value] : environment) {
    setenv(name.c_str(), value.c_str(), 1);
  }
  Execute(words);
}

bool HasEnded(pid_t child) {
  return child <= 0 || waitpid(child, nullptr, WNOHANG) != 0;
}

// A process with that program path in its command line, which does nothing.
void StandIn(const std::string &program) {
  const pid_t child = fork();
  if (child != 0) {
    return;
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  setpgid(0, 0);
  execl("/bin/sleep", program.c_str(), "infinity", static_cast<char *>(nullptr));
  _exit(127);
}

// ---- The management controller ------------------------------------------------------------------

std::string ReplyTo(const std::string &request, const ControllerReplies &replies) {
  if (request.size() < kHeader) {
    return "";
  }
  const int command = static_cast<uint8_t>(request[4]) | static_cast<uint8_t>(request[5]) << 8;
  std::string reply = command == kVersionCommand ? replies.version
                      : command == kLogicCommand ? replies.logic
                                                 : "";
  if (command == kLogicCommand && reply.empty()) {
    reply.assign(78, '\0');  // a controller without such devices says so by another code
  }
  if (!reply.empty()) {
    reply.replace(0, kHeader, request, 0, kHeader);
  }
  return reply;
}

// Answers at the controller's socket until the room ends.
void BeController(const ControllerReplies &replies) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  static_assert(sizeof(kControllerSocket) <= sizeof(address.sun_path));
  memcpy(address.sun_path, kControllerSocket, sizeof(kControllerSocket));
  mkdir("/run/quorix", 0755);
  const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (listener < 0 ||
      bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
      listen(listener, 16) != 0) {
    Complain(std::string("no stand-in for the controller: ") + strerror(errno));
    return;
  }
  if (fork() != 0) {
    close(listener);
    return;
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  // This command is no process of the host, and by its path it may look like an agent.
  unlink(("/proc/" + std::to_string(getpid())).c_str());
  std::vector<pollfd> watched = {{listener, POLLIN, 0}};
  for (;;) {
    poll(watched.data(), watched.size(), -1);
    for (size_t i = watched.size(); i-- > 1;) {
      char request[4096];
      const ssize_t length =
          watched[i].revents != 0 ? recv(watched[i].fd, request, sizeof(request), 0) : -1;
      if (watched[i].revents != 0 && length <= 0) {
        close(watched[i].fd);
        watched.erase(watched.begin() + static_cast<std::ptrdiff_t>(i));
      } else if (length > 0) {
        const std::string reply =
            ReplyTo(std::string(request, static_cast<size_t>(length)), replies);
        if (!reply.empty()) {
          send(watched[i].fd, reply.data(), reply.size(), MSG_NOSIGNAL);
        }
      }
    }
    if (watched[0].revents != 0) {
      const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      if (client >= 0) {
        watched.push_back({client, POLLIN, 0});
      }
    }
  }
}

// ---- Looking ------------------------------------------------------------------------------------

void Write(const std::string &path, const std::string &text) {
  std::ofstream(path, std::ios::app) << text;
}

bool IsOid(const std::string &text) {
  return !text.empty() && text.size() < 128 &&
         text.find_first_not_of(".0123456789") == std::string::npos;
}

pid_t StartMaster(const Capture &capture) {
  std::string conf = std::string("rocommunity ") + kCommunity + " " + kLoopbackAddress +
                     "\nmaster agentx\ndontLogTCPWrappersConnects yes\n";
  for (const auto &[oid, value] : capture.asked) {
    if (IsOid(oid)) {
      conf += "override " + oid + " integer " + std::to_string(value) + "\n";
    }
  }
  Write(kMasterConf, conf);
  return Start({"snmpd", "-f", "-Lo", "-C", "-c", kMasterConf, kFewModules,
                std::string("udp:") + kLoopbackAddress + ":161"},
               kMasterLog, {{"SNMP_PERSISTENT_DIR", kRoomSnmp}});
}

pid_t StartAgent(const Settings &settings) {
  Write(kAgentConf, std::string("community ") + kCommunity + "\npollInterval " +
                        std::to_string(kPollSeconds) + "\n");
  std::vector<std::pair<std::string, std::string>> environment = {
      {"SNMPCONFPATH", kRoomSnmp},
      {"LD_PRELOAD", settings.room.library},
      {kReplayVariable, kRoomFacts},
      // Of an agent that was built with one.
      {"ASAN_OPTIONS", "verify_asan_link_order=0"}};
  return Start({settings.room.agent, "-i"}, kAgentLog, environment);
}

std::optional<Served> Walk() {
  std::vector<SnmpValue> values;
  for (const MibGroup &group : MibGroups()) {
    if (!WalkSnmp(kLoopbackAddress, kCommunity, {group.oid, group.oid_length}, &values)) {
      return std::nullopt;
    }
  }
  return ServedByWalk(values);
}

void ShowLog(const char *path) {
  std::ifstream file(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) {
    lines.push_back(line);
  }
  for (size_t i = lines.size() - std::min(lines.size(), kMostLogLines); i < lines.size(); i++) {
    Complain("  " + lines[i]);
  }
}

std::string ValueOf(const Served &served, const char *variable) {
  const auto found = served.find({variable, ""});
  return found != served.end() ? found->second : "unknown";
}

void Print(const std::vector<Difference> &differences) {
  for (size_t i = 0; i < differences.size() && i < kMostDifferences; i++) {
    const Difference &one = differences[i];
    std::cout << SafeText(one.place.variable + (one.place.row.empty() ? "" : " of ") +
                          one.place.row + ": " + one.before + " -> " + one.now)
              << '\n';
  }
  if (differences.size() > kMostDifferences) {
    std::cout << "... and " << differences.size() - kMostDifferences << " more\n";
  }
}

// All of them, whatever their number; null for what is not there.
void PrintJson(const Capture &capture, const std::vector<Difference> &differences,
               const std::set<std::string> &since, const std::string &agent, size_t compared) {
  const auto value = [](const std::string &text) {
    return text == kAbsent ? nlohmann::ordered_json() : nlohmann::ordered_json(Utf8(text));
  };
  auto list = nlohmann::ordered_json::array();
  for (const Difference &one : differences) {
    list.push_back({{"variable", one.place.variable},
                    {"row", Utf8(one.place.row)},
                    {"before", value(one.before)},
                    {"now", value(one.now)}});
  }
  const nlohmann::ordered_json json = {{"differences", list},
                                       {"new_since", since},
                                       {"summary",
                                        {{"host", Utf8(capture.host)},
                                         {"captured", Utf8(capture.made)},
                                         {"agent_then", Utf8(capture.agent)},
                                         {"agent_now", Utf8(agent)},
                                         {"compared", compared},
                                         {"differ", differences.size()}}}};
  std::cout << SafeJson(json.dump(2)) << '\n';
}

// The replay itself, in the room.
int RunInRoom(const Capture &capture, const Settings &settings, const Served &before,
              const ControllerReplies &replies) {
  PrepareSnmpLibrary();
  setenv("SNMPCONFPATH", "/nowhere", 1);
  ReadSnmpFiles("vexreg");
  const auto end = Clock::now() + std::chrono::seconds(settings.seconds);
  const pid_t master = StartMaster(capture);
  for (const std::string &sibling : capture.siblings) {
    StandIn(sibling);
  }
  if (!replies.version.empty() || !replies.logic.empty()) {
    BeController(replies);
  }
  const pid_t agent = StartAgent(settings);
  std::vector<Difference> differences;
  std::set<std::string> since;  // variables that the agent did not know then
  Served now;
  size_t compared = 0;
  bool seen = false;
  do {
    std::this_thread::sleep_for(kLook);
    if (HasEnded(master)) {
      Complain("snmpd has ended:");
      ShowLog(kMasterLog);
      return kFailed;
    }
    if (HasEnded(agent)) {
      Complain(settings.room.agent + " has ended:");
      ShowLog(kAgentLog);
      return kFailed;
    }
    if (const auto walked = Walk(); walked && !walked->empty()) {
      seen = true;
      now = *walked;
      differences = Compare(before, now, settings.exact, &compared, capture.variables, &since);
    }
  } while ((!seen || !differences.empty()) && Clock::now() < end);
  if (!seen) {
    Complain("the agent served nothing within " + std::to_string(settings.seconds) + " s:");
    ShowLog(kAgentLog);
    return kFailed;
  }
  if (settings.json) {
    PrintJson(capture, differences, since, ValueOf(now, kVersionVariable), compared);
  } else {
    Print(differences);
    for (const std::string &variable : since) {
      std::cout << "new since: " << variable << '\n';
    }
  }
  if (!differences.empty()) {
    Complain("the agent's log:");
    ShowLog(kAgentLog);
  }
  if (settings.json) {
    return FinishOutput(differences.empty() ? kDone : kFailed);
  }
  std::cout << SafeText(capture.host + ", captured " + capture.made + " with agent " +
                        (capture.agent.empty() ? "unknown" : capture.agent) + "; now " +
                        ValueOf(now, kVersionVariable))
            << ": " << compared << " values compared, " << differences.size() << " differ\n";
  return FinishOutput(differences.empty() ? kDone : kFailed);
}

// The agent's own objects, as they stand in the capture.
std::vector<NamedObject> OwnObjects(const Capture &capture) {
  const std::string own = std::string(kRegistryMembers) + host_objects;
  std::vector<NamedObject> objects;
  for (const Member &member : capture.members) {
    bool torn = false;
    auto object = member.name.starts_with(own)
                      ? ParseObjectFile({member.bytes.begin(), member.bytes.end()}, &torn)
                      : std::nullopt;
    if (object) {
      objects.push_back({member.name.substr(kRegistryMembers.size()), std::move(*object)});
    }
  }
  return objects;
}

// A file of this installation, found from where this program stands: in its own directory, as in a
// build tree, or in the one that it is installed in.
std::string Beside(const std::string &name, const std::string &directory) {
  std::error_code error;
  const std::filesystem::path own =
      std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
  for (const auto &path : {own / name, own / directory / name, own / "../lib" / name}) {
    if (std::filesystem::exists(path, error)) {
      return std::filesystem::canonical(path, error);
    }
  }
  return own / directory / name;
}

}  // namespace

int Replay(const std::string &file, const ReplayOptions &options) {
  if (geteuid() != 0) {
    Complain("replay makes namespaces and mounts: run it as root");
    return kFailed;
  }
  const auto capture = ReadCapture(file);
  if (!capture) {
    return kFailed;
  }
  const std::vector<NamedObject> objects = OwnObjects(*capture);
  const Served before = ServedByObjects(objects);
  if (before.empty()) {
    Complain(file + ": the agent published nothing when this was captured: nothing to compare");
    return kFailed;
  }
  const ControllerReplies replies = RepliesFor(objects);
  Settings settings;
  settings.room = {options.agent.empty() ? Beside(kAgentName, VEXREG_TO_SBIN) : options.agent,
                   Beside("vexreg-replay.so", VEXREG_TO_LIB), replies.card};
  settings.exact = options.exact;
  settings.json = options.json;
  settings.seconds = options.seconds;
  std::error_code error;
  settings.room.agent = std::filesystem::absolute(settings.room.agent, error);
  for (const std::string &program : {settings.room.agent, settings.room.library}) {
    if (access(program.c_str(), R_OK) != 0) {
      Complain(program + ": " + strerror(errno));
      return kFailed;
    }
  }
  return DoInRoom(*capture, settings.room,
                  [&] { return RunInRoom(*capture, settings, before, replies); });
}

}  // namespace vex
