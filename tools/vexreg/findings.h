// What `vexreg doctor` makes of what it saw. Pure: facts in, one line for people out.
#ifndef VEX_TOOLS_VEXREG_FINDINGS_H
#define VEX_TOOLS_VEXREG_FINDINGS_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "framework/registry/registry_file.h"
#include "framework/snmp/snmp_files.h"

namespace vex {

// The agent's process, and what it is called in SNMP's configuration and as a service.
inline constexpr char kAgentName[] = "vexhostd";

enum class Verdict { kOk, kNote, kFail };

// A check's outcome: what was seen and, when it is not well, what to do next.
struct Finding {
  Verdict verdict = Verdict::kOk;
  std::string text;
};

struct ProcessFact {
  pid_t pid = 0;
  char state = 'S';  // as in proc(5)
  uid_t owner = 0;
  pid_t parent = 0;
  uint64_t start_ticks = 0;  // since boot, as in proc(5)
  int64_t started_ns = 0;    // by the wall clock; 0 when it is not known
};
bool IsStopped(const ProcessFact &process);

// Whether the agent has just started: it then pauses, and reads the host for the first time, so
// that what is missing need not be wrong. runs_command: it waits for one.
enum class AgentPhase { kGone, kStarts, kRuns };
AgentPhase PhaseOf(const ProcessFact &agent, int64_t now_ns, bool runs_command);

// A program that should run. `hidden`: this user does not see other users' processes.
Finding JudgeProcess(const std::string &name, const std::vector<ProcessFact> &found, bool hidden);
// The agent is one process, and root's.
Finding JudgeAgent(const std::vector<ProcessFact> &found, bool hidden);

// What snmpd said to a first question.
enum class MasterAnswer { kAnswers, kNobodyListens, kSilent, kOtherCommunity };
// `unreadable` are the configuration files that this user may not read, `users` the SNMPv3 users
// that snmpd.conf lets in.
Finding JudgeCommunity(CommunitySource source, const std::vector<std::string> &unreadable,
                       size_t users);
Finding JudgeMaster(MasterAnswer answer, CommunitySource source);

// `error` is connect(2)'s, 0 when somebody accepted; other_agent says that one runs as somebody
// else.
Finding JudgeSocket(const std::string &target, const std::string &path, int error,
                    bool other_agent);

// What keeps stations from this host, or lets too many in.
// `share` is the directory of this installation's examples.
Finding JudgeReach(bool beyond_loopback, const std::string &share);
Finding JudgeReceivers(size_t receivers, const std::string &share);
// Of the lines of snmpd.conf that give communities: one that everybody tries first, from other
// machines. Nothing to say when there is none.
std::optional<Finding> JudgeDefaultCommunity(
    const std::vector<std::pair<std::string, std::string>> &master_lines);

// What is visible of the subtree.
enum class Subtree { kVisible, kNothing, kUnanswered, kError };
struct ViewFacts {
  bool agent_seen = true;     // a process of it
  bool agent_known = true;    // whether that could be seen
  bool agent_pauses = false;  // it has just started and asks for no session yet
  // Connections that the master has on its AgentX socket; nothing when that is not known.
  std::optional<int> sessions;
  // The line of snmpd.conf for the community, token first; empty when it is not known.
  std::vector<std::string> community_line;
};
Finding JudgeSubtree(Subtree subtree, const ViewFacts &facts);

// The words of the line that gives the community, token first; empty when there is none.
std::vector<std::string> CommunityLine(
    const std::vector<std::pair<std::string, std::string>> &master_lines,
    const std::string &community);

// octets: of the host GUID as published. Nothing to say of a GUID that may be this host's alone.
std::optional<Finding> JudgeGuid(std::string_view octets);

// An integer as snmpd serves it and as the registry has it.
Finding JudgeValue(const std::string &name, std::optional<int32_t> served,
                   std::optional<int32_t> published);

// The directory of the agent's objects.
struct DirectoryFacts {
  std::string path;
  int error = 0;                // of opening it; 0: it is there
  std::optional<pid_t> holder;  // the process that has it for itself alone
  std::vector<pid_t> agents;    // that were seen
  bool agent_known = true;      // whether they could be seen
  bool elsewhere = false;       // a root was given that no agent has
};
Finding JudgeDirectory(const DirectoryFacts &facts, AgentPhase phase);

// A group of the registry: an object, or rows with numbers.
struct Group {
  std::string name;                // "cpu"
  bool each_poll = false;          // published at each poll; else when something changed
  bool needed = false;             // always there while the agent runs
  std::string_view absent;         // what its absence means
  std::string_view variable = {};  // one that snmpd has when the group is published
};
// What stands where an object's file should: "a directory".
struct InPlace {
  std::string object;  // "cpu.1"
  std::string what;
  bool directory = false;
};
struct GroupFacts {
  size_t objects = 0;                     // whole ones
  int64_t newest_ns = 0;                  // the last publication
  std::vector<std::string> damaged_rows;  // "cpu.1": there is a file, but no object in it
  std::vector<std::string> missing_rows;  // managers have them, but there is no file
  std::vector<InPlace> in_place;          // of files
  // Of a group without an object:
  bool unreadable = false;     // there is a file, but not for this user
  bool damaged = false;        // there is a file, but no object in it
  std::optional<bool> served;  // whether snmpd has values of it; nothing when it was not asked
};
// Whether a file of that name in the agent's directory is one of the group: "cpu", "cpu.1".
bool IsOfGroup(std::string_view file, std::string_view group);
Finding JudgeGroup(const Group &group, const GroupFacts &facts, bool rows, int64_t now_ns,
                   int poll_seconds, AgentPhase phase);

// The checks were not over after so many seconds.
Finding JudgeSilence(int seconds);

// "3 s", "5 min", "2 h", "4 days".
std::string AgeText(int64_t seconds);

// The lines of a finding: its verdict, with colour where that is wanted, and the text wrapped to
// the width (0: not at all).
std::string RenderFinding(const Finding &finding, int width, bool colour = false);

}  // namespace vex

#endif
