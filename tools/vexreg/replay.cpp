// vexreg replay: the installed agent on a captured host, and where it serves other values than
// then.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <thread>

#include "common/sources.h"
#include "framework/process/clock.h"
#include "framework/process/descriptor.h"
#include "framework/registry/registry_format.h"
#include "framework/snmp/mib_table.h"
#include "framework/snmp/snmp_ask.h"
#include "framework/snmp/snmp_files.h"
#include "tools/replay/replay_facts.h"
#include "tools/vexreg/captured_host.h"
#include "tools/vexreg/child_output.h"
#include "tools/vexreg/commands.h"
#include "tools/vexreg/controller_replies.h"
#include "tools/vexreg/controller_stand_in.h"
#include "tools/vexreg/findings.h"
#include "tools/vexreg/forked.h"
#include "tools/vexreg/replay_room.h"
#include "tools/vexreg/replay_texts.h"
#include "tools/vexreg/served.h"

namespace vex {
namespace {

constexpr char kSearch[] = "/run/vexreg-replay/bin:/usr/sbin:/usr/bin:/sbin:/bin";
constexpr char kMasterConf[] = "/run/vexreg-replay/snmp/snmpd.conf";
constexpr char kAgentConf[] = "/run/vexreg-replay/snmp/vexhostd.conf";
constexpr char kMasterLog[] = "/run/vexreg-replay/snmpd.log";
constexpr char kAgentLog[] = "/run/vexreg-replay/vexhostd.log";
constexpr char kFewModules[] =
    "-Isnmp_mib,system_mib,vacm_vars,vacm_conf,usmUser,usmConf,agentx,override";
constexpr int kPollSeconds = 3;  // a replay is to be over soon
constexpr size_t kMostLogLines = 20;
// Before the first look, and between two.
constexpr std::chrono::milliseconds kLook{500};

struct Settings {
  RoomSettings room;
  bool exact = false;
  bool json = false;
  int seconds = 0;
};

// ---- Programs in the room -----------------------------------------------------------------------

[[noreturn]] void Become(const std::vector<std::string> &words, const std::string &log,
                         const std::vector<std::pair<std::string, std::string>> &environment) {
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

pid_t Start(const std::vector<std::string> &words, const std::string &log,
            const std::vector<std::pair<std::string, std::string>> &environment) {
  const pid_t child = Forked([&]() -> int { Become(words, log, environment); });
  if (child < 0) {
    Complain(words.front() + ": no process: " + strerror(errno));
  }
  return child;
}

bool HasEnded(pid_t child) {
  return child <= 0 || waitpid(child, nullptr, WNOHANG) != 0;
}

// A process with that program path in its command line, which does nothing.
void StandIn(const std::string &program) {
  const pid_t child = Forked([&] {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setpgid(0, 0);
    return execl("/bin/sleep", program.c_str(), "infinity", static_cast<char *>(nullptr));
  });
  if (child < 0) {
    Complain(program + ": no process: " + strerror(errno));
  }
}

// ---- Looking ------------------------------------------------------------------------------------

void Write(const std::string &path, const std::string &text) {
  if (!(std::ofstream(path, std::ios::app) << text << std::flush)) {
    Complain(path + ": " + strerror(errno));
  }
}

pid_t StartMaster(const Capture &capture) {
  Write(kMasterConf, MasterConfiguration(capture));
  return Start({"snmpd", "-f", "-Lo", "-C", "-c", kMasterConf, kFewModules,
                std::string("udp:") + kLoopbackAddress + ":161"},
               kMasterLog, {{"SNMP_PERSISTENT_DIR", kRoomSnmp}});
}

pid_t StartAgent(const Settings &settings) {
  Write(kAgentConf, std::string("community ") + kReplayCommunity + "\npollInterval " +
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
    if (!WalkSnmp(kLoopbackAddress, kReplayCommunity, {group.oid, group.oid_length}, &values)) {
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
    StandInForController(replies);
  }
  const pid_t agent = StartAgent(settings);
  ReplayResult result;
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
      result.now = *walked;
      result.differences = Compare(before, result.now, settings.exact, &result.compared,
                                   capture.variables, &result.since);
    }
  } while ((!seen || !result.differences.empty()) && Clock::now() < end);
  if (!seen) {
    Complain("the agent served nothing within " + std::to_string(settings.seconds) + " s:");
    ShowLog(kAgentLog);
    return kFailed;
  }
  const bool same = result.differences.empty();
  settings.json ? PrintJson(capture, result) : PrintDifferences(result);
  if (!same) {
    Complain("the agent's log:");
    ShowLog(kAgentLog);
  }
  if (!settings.json) {
    PrintSummary(capture, result);
  }
  return FinishOutput(same ? kDone : kFailed);
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
