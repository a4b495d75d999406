// vexreg doctor: looks for what keeps the agent from being seen.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <memory>
#include <thread>

#include "common/sources.h"
#include "framework/process/descriptor.h"
#include "framework/registry/directory_lock.h"
#include "framework/registry/registry_dir.h"
#include "framework/snmp/mib_table.h"
#include "framework/snmp/snmp_ask.h"
#include "framework/snmp/snmp_files.h"
#include "tools/vexreg/absence.h"
#include "tools/vexreg/bounded.h"
#include "tools/vexreg/commands.h"
#include "tools/vexreg/finding_json.h"
#include "tools/vexreg/host_facts.h"
#include "tools/vexreg/values.h"

namespace vex {
namespace {

constexpr int kUsualPollSeconds = 15;

// What is compared: it changes from poll to poll, so an old registry shows.
constexpr char kComparedObject[] = "host/memory";
constexpr char kComparedVariable[] = "tlxHoPhysicalMemoryFree";
constexpr char kPollObject[] = "host/misc";
constexpr char kPollVariable[] = "tlxHoOsCommonPollFreq";
constexpr char kGuidObject[] = "host/misc";
constexpr char kGuidVariable[] = "tlxHoGUID";
constexpr int kMostRows = 500;   // of a group, that snmpd is asked for
constexpr int kComparisons = 5;  // a poll may come in between

// What the agent's groups say of themselves, by scripts/check-groups.
const Group kGroups[] = {
#include "tools/vexreg/groups.inc"
};

// sysUpTime.0 (RFC 3418), which Debian's stock view shows, too.
constexpr uint32_t kSysUpTime[] = {1, 3, 6, 1, 2, 1, 1, 3, 0};

std::optional<int32_t> PublishedInteger(const FileObject &object, std::string_view name) {
  for (const FileVariable &variable : object.variables) {
    if (variable.name == name) {
      return IntegerOf(object, variable);
    }
  }
  return std::nullopt;
}

std::string PublishedOctets(const FileObject &object, std::string_view name) {
  for (const FileVariable &variable : object.variables) {
    if (variable.name == name) {
      return {reinterpret_cast<const char *>(object.data.data()) + variable.offset,
              variable.length};
    }
  }
  return "";
}

// Where this installation has its examples, found from where this program stands.
std::string SharedDirectory() {
  std::error_code error;
  const std::filesystem::path own =
      std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
  return (own / VEXREG_TO_SHARE / "vexhostd").lexically_normal();
}

class Examination {
 public:
  Examination(std::string root, int width, bool colour, bool json)
      : root_(std::move(root)), width_(width), colour_(colour), json_(json) {}

  int Run() {
    LookAtProcesses();
    ReadConfiguration();
    LookAtSocket();
    const bool asked = AskMaster();
    if (asked) {
      LookAtSubtree();
    }
    LookAtStations();
    LookAtDirectory();
    if (Elsewhere()) {
      Say({Verdict::kNote, "group: not looked at; these are not the agent's."});
    } else {
      LookAtGroups();
      LookAtGuid();
    }
    const int64_t started_ns = agent_.empty() ? 0 : agent_.front().started_ns;
    LookAtSources(SearchPath(), started_ns, [this](const Finding &finding) { Say(finding); });
    return FinishOutput(failed_ ? kFailed : kDone);
  }

 private:
  void Say(const Finding &finding) {
    failed_ = failed_ || finding.verdict == Verdict::kFail;
    // At once: whoever waits for this process may give up at the next check.
    std::cout << (json_ ? "  " + FindingJson(finding) + ",\n"
                        : RenderFinding(finding, width_, colour_))
              << std::flush;
  }

  void LookAtProcesses() {
    hidden_ = ProcessesHidden();
    master_ = FindProcesses("snmpd");
    agent_ = FindProcesses(kAgentName);
    Say(JudgeProcess("snmpd", master_, hidden_));
    Say(JudgeAgent(agent_, hidden_));
  }

  bool AgentStopped() const {
    return std::any_of(agent_.begin(), agent_.end(), IsStopped);
  }
  // Whether a root was given that the running agent does not have. One that has just started may
  // have none yet.
  bool Elsewhere() const {
    return !agent_.empty() && root_ != kRegistryRoot && !IsHeld(root_) &&
           (Phase() != AgentPhase::kStarts || IsHeld(kRegistryRoot));
  }
  // Gone, too, when it could not be seen at all.
  AgentPhase Phase() const {
    if (agent_.empty()) {
      return visible_ ? AgentPhase::kRuns : AgentPhase::kGone;
    }
    const ProcessFact &agent = agent_.front();
    return PhaseOf(agent, WallClock(), RunsCommand(agent.pid));
  }

  // Where the agent looks for its files, not where this user's shell does.
  void TakeAgentsEnvironment() const {
    if (agent_.empty()) {
      return;
    }
    for (const char *name : {"SNMPCONFPATH", "HOME"}) {
      const auto known = VariableOf(agent_.front().pid, name);
      if (known && *known) {
        setenv(name, (*known)->c_str(), 1);
      } else if (known) {
        unsetenv(name);
      }
    }
  }

  std::string SearchPath() const {
    const auto known = agent_.empty() ? std::nullopt : VariableOf(agent_.front().pid, "PATH");
    if (known && *known) {
      return **known;
    }
    const char *own = getenv("PATH");
    return own != nullptr ? own : "";
  }

  void ReadConfiguration() {
    TakeAgentsEnvironment();
    PrepareSnmpLibrary();
    RegisterAgentxSocket(kAgentName);
    RegisterMasterSettings();
    files_ = ReadSnmpFiles(kAgentName);
    unreadable_ = UnreadableSnmpFiles(kAgentName);
    Say(JudgeCommunity(files_.source, unreadable_, files_.users));
  }

  void LookAtSocket() {
    const std::string target = AgentxTarget();
    socket_ = UnixPathOf(target);
    // Before the attempt, which may be counted, too.
    sessions_ = socket_.empty() ? std::nullopt : ConnectionsTo(socket_);
    const int error = socket_.empty() ? 0 : TryUnixSocket(socket_);
    const bool other = !agent_.empty() && agent_.front().owner != geteuid();
    Say(JudgeSocket(target, socket_, error, other));
  }

  // Whether snmpd can be asked more.
  bool AskMaster() {
    if (files_.source == CommunitySource::kNone) {
      return false;
    }
    const SnmpReply reply = AskSnmp(kLoopbackAddress, files_.community, kSysUpTime, false);
    MasterAnswer answer = MasterAnswer::kAnswers;
    if (!reply.answered) {
      answer = reply.refused                         ? MasterAnswer::kNobodyListens
               : SnmpEngineAnswers(kLoopbackAddress) ? MasterAnswer::kOtherCommunity
                                                     : MasterAnswer::kSilent;
    }
    Say(JudgeMaster(answer, files_.source));
    return answer == MasterAnswer::kAnswers;
  }

  void LookAtSubtree() {
    if (AgentStopped()) {
      Say({Verdict::kNote,
           "subtree: not asked; snmpd would wait for the stopped agent, and everybody for snmpd."});
      return;
    }
    const MibGroup &group = MibGroups().front();
    const std::span<const uint32_t> root = {group.oid, group.oid_length};
    const SnmpReply reply = AskSnmp(kLoopbackAddress, files_.community, root, true);
    Subtree subtree = Subtree::kNothing;
    if (!reply.answered) {
      subtree = Subtree::kUnanswered;
    } else if (reply.error != 0) {
      subtree = Subtree::kError;
    } else if (reply.name.size() > root.size() &&
               std::equal(root.begin(), root.end(), reply.name.begin())) {
      subtree = Subtree::kVisible;
      visible_ = true;
    }
    ViewFacts facts;
    facts.agent_seen = !agent_.empty();
    facts.agent_known = !hidden_;
    facts.agent_pauses = Phase() == AgentPhase::kStarts && !HasSnmpThread(agent_.front().pid);
    facts.sessions = sessions_;
    facts.community_line = CommunityLine(files_.master_lines, files_.community);
    Say(JudgeSubtree(subtree, facts));
    if (visible_ && !Elsewhere()) {
      CompareValue();
    }
  }

  // What concerns stations and not the agent.
  void LookAtStations() {
    const Reach reach = SnmpReach();
    if (reach != Reach::kNowhere) {
      Say(JudgeReach(reach == Reach::kBeyond, SharedDirectory()));
    }
    // Of a file that this user may not read, it was said.
    if (!unreadable_.empty()) {
      return;
    }
    Say(JudgeReceivers(files_.receivers, SharedDirectory()));
    if (const auto finding = JudgeDefaultCommunity(files_.master_lines)) {
      Say(*finding);
    }
  }

  void CompareValue() {
    const MibVariable *variable = FindMibVariable(kComparedVariable);
    std::vector<uint32_t> name(variable->Oid().begin(), variable->Oid().end());
    name.push_back(0);
    std::optional<int32_t> served;
    std::optional<int32_t> published;
    for (int i = 0; i < kComparisons; i++) {
      const auto before = ReadObjectFile(kComparedObject, root_);
      const SnmpReply reply = AskSnmp(kLoopbackAddress, files_.community, name, false);
      if (!reply.answered) {
        Say(JudgeSubtree(Subtree::kUnanswered, {}));
        return;
      }
      served = reply.value;
      published = before ? PublishedInteger(*before, kComparedVariable) : std::nullopt;
      if (served == published) {
        break;
      }
      // Served a moment before the file is written.
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    Say(JudgeValue(kComparedVariable, served, published));
  }

  void LookAtDirectory() {
    DirectoryFacts facts;
    const std::string name = host_directory;
    facts.path = root_ + "/" + name;
    const Descriptor root(OpenRegistryRoot(root_, false));
    const Descriptor directory(
        root ? OpenBeneath(root.get(), name, O_RDONLY | O_DIRECTORY | O_NONBLOCK) : -1);
    facts.error = directory ? 0 : errno;
    facts.holder = directory ? DirectoryHolder(directory.get()) : std::nullopt;
    for (const ProcessFact &agent : agent_) {
      facts.agents.push_back(agent.pid);
    }
    facts.agent_known = !hidden_;
    facts.elsewhere = Elsewhere();
    Say(JudgeDirectory(facts, Phase()));
  }

  // Why a group has no object.
  void LookForFile(const Group &group, GroupFacts *facts) {
    const Descriptor root(OpenRegistryRoot(root_, false));
    if (const auto thing = WhatStandsFor(group.name)) {
      facts->in_place.push_back(*thing);
    }
    std::vector<std::string> names = facts->damaged_rows;
    names.insert(names.end(), {group.name, group.name + ".0"});
    for (const std::string &name : names) {
      const Descriptor file(
          OpenBeneath(root.get(), host_objects + name, O_RDONLY | O_NONBLOCK | O_NOCTTY));
      facts->damaged = facts->damaged || (file && !WhatStandsFor(name));
      facts->unreadable = facts->unreadable || (!file && errno == EACCES);
    }
    const MibVariable *variable = FindMibVariable(group.variable);
    if (!visible_ || variable == nullptr) {
      return;
    }
    const SnmpReply reply = AskSnmp(kLoopbackAddress, files_.community, variable->Oid(), true);
    if (reply.answered && reply.error == 0) {
      facts->served =
          reply.name.size() > variable->Oid().size() &&
          std::equal(variable->Oid().begin(), variable->Oid().end(), reply.name.begin());
    }
  }

  // The names in the agent's directory.
  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    const Descriptor root(OpenRegistryRoot(root_, false));
    Descriptor directory(
        OpenBeneath(root.get(), host_directory, O_RDONLY | O_DIRECTORY | O_NONBLOCK));
    const std::unique_ptr<DIR, int (*)(DIR *)> entries(
        directory ? fdopendir(directory.get()) : nullptr, closedir);
    if (entries != nullptr) {
      directory.Release();
    }
    while (const dirent *entry = entries != nullptr ? readdir(entries.get()) : nullptr) {
      names.emplace_back(entry->d_name);
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  // Whether there is something of an object's name that this user may read; flags: O_PATH, also
  // what he may not.
  bool HasFile(const std::string &object, int flags = O_RDONLY | O_NONBLOCK | O_NOCTTY) const {
    const Descriptor root(OpenRegistryRoot(root_, false));
    return static_cast<bool>(Descriptor(OpenBeneath(root.get(), host_objects + object, flags)));
  }

  // What there is of an object's name in the agent's directory, when it is no file.
  std::optional<InPlace> WhatStandsFor(const std::string &object) const {
    const Descriptor root(OpenRegistryRoot(root_, false));
    const Descriptor there(OpenBeneath(root.get(), host_objects + object, O_PATH));
    struct stat status;
    if (!there || fstat(there.get(), &status) != 0 || S_ISREG(status.st_mode)) {
      return std::nullopt;
    }
    const char *what = S_ISDIR(status.st_mode)    ? "a directory"
                       : S_ISLNK(status.st_mode)  ? "a symbolic link"
                       : S_ISFIFO(status.st_mode) ? "a pipe"
                       : S_ISSOCK(status.st_mode) ? "a socket"
                                                  : "a device";
    return InPlace{object, what, S_ISDIR(status.st_mode)};
  }

  // Adds the rows that snmpd has and the registry has not.
  void LookForRows(const Group &group, GroupFacts *facts) {
    const MibVariable *variable = FindMibVariable(group.variable);
    if (!visible_ || variable == nullptr) {
      return;
    }
    const std::vector<uint32_t> column(variable->Oid().begin(), variable->Oid().end());
    std::vector<uint32_t> at = column;
    for (int row = 0; row < kMostRows; row++) {
      const SnmpReply reply = AskSnmp(kLoopbackAddress, files_.community, at, true);
      if (!reply.answered || reply.error != 0 || reply.name.size() != column.size() + 1 ||
          !std::equal(column.begin(), column.end(), reply.name.begin()) || reply.name == at) {
        return;
      }
      at = reply.name;
      const std::string name = group.name + "." + std::to_string(at.back());
      if (HasFile(name, O_PATH)) {
        continue;
      }
      // It may have come or gone just now.
      const SnmpReply still = AskSnmp(kLoopbackAddress, files_.community, at, false);
      if (still.answered && still.error == 0 && still.value && !HasFile(name, O_PATH)) {
        facts->missing_rows.push_back(name);
      }
    }
  }

  // The group's objects, and what should be one and is not. Whether it has rows.
  bool Gather(const Group &group, const std::vector<std::string> &files, GroupFacts *facts) {
    bool rows = false;
    for (const std::string &file : files) {
      if (!IsOfGroup(file, group.name)) {
        continue;
      }
      if (const auto object = ReadObjectFile(host_objects + file, root_)) {
        facts->objects++;
        facts->newest_ns = std::max(facts->newest_ns, object->published_ns);
        rows = rows || file != group.name;
      } else if (const auto thing = file != group.name ? WhatStandsFor(file) : std::nullopt) {
        facts->in_place.push_back(*thing);
      } else if (file != group.name && HasFile(file)) {
        facts->damaged_rows.push_back(file);
      }
    }
    if (rows) {
      LookForRows(group, facts);
    }
    return rows;
  }

  void LookAtGroups() {
    const std::vector<std::string> files = Files();
    int poll_seconds = files_.poll_interval > 0 ? files_.poll_interval : kUsualPollSeconds;
    if (const auto object = ReadObjectFile(kPollObject, root_)) {
      poll_seconds = std::max(PublishedInteger(*object, kPollVariable).value_or(poll_seconds), 1);
    }
    const int64_t now_ns = WallClock();
    const AgentPhase phase = Phase();
    for (const Group &group : kGroups) {
      GroupFacts facts;
      const bool rows = Gather(group, files, &facts);
      if (facts.objects == 0) {
        LookForFile(group, &facts);
      }
      Say(JudgeGroup(group, facts, rows, now_ns, poll_seconds, phase));
    }
  }

  void LookAtGuid() {
    errno = 0;
    const auto object = ReadObjectFile(kGuidObject, root_);
    if (!object && errno != 0 && errno != ENOENT && errno != EACCES) {
      Say({Verdict::kNote,
           std::string("GUID: ") + kGuidObject + " cannot be read: " + strerror(errno) + "."});
    }
    const auto finding = object ? JudgeGuid(PublishedOctets(*object, kGuidVariable)) : std::nullopt;
    if (finding) {
      Say(*finding);
    }
  }

  std::string root_;
  int width_;
  bool colour_;
  bool json_;
  bool failed_ = false;
  bool hidden_ = false;
  bool visible_ = false;  // the agent's subtree, which a stopped agent is not asked for
  std::vector<ProcessFact> master_;
  std::vector<ProcessFact> agent_;
  SnmpFiles files_;
  std::vector<std::string> unreadable_;
  std::string socket_;
  std::optional<int> sessions_;
};

}  // namespace

int Doctor(const std::string &root, const View &view, int most_seconds) {
  // Of this process's output: the examination's goes to a pipe.
  const int columns = view.width.value_or(TerminalWidth());
  const bool colour = ChooseStyle(false, view.colour).colour;
  if (view.json) {
    std::cout << "[\n" << std::flush;
  }
  bool finished = false;
  const auto status = DoWithin(
      most_seconds, [&] { return Examination(root, columns, colour, view.json).Run(); }, &finished);
  const Finding last = !status    ? JudgeSilence(most_seconds)
                       : finished ? Finding{Verdict::kOk, "all checks were made"}
                                  : Finding{Verdict::kFail, "not all checks were made"};
  if (view.json) {
    // The last one comes from this process in any case: it knows that no other follows.
    std::cout << "  " << FindingJson(last) << "\n]\n";
  } else if (!finished) {
    std::cout << RenderFinding(last, columns, colour);
  }
  return FinishOutput(status.value_or(kFailed));
}

}  // namespace vex
