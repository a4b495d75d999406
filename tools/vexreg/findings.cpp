#include "tools/vexreg/findings.h"

#include <errno.h>
#include <string.h>

#include <algorithm>

#include "common/sources.h"
#include "framework/process/clock.h"
#include "framework/process/printable.h"
#include "tools/vexreg/tables.h"

namespace vex {
namespace {

constexpr char kSubtree[] = ".1.3.6.1.4.1.4891";
// A poll may wait for commands and controllers that long; the next one then comes an interval after
// its end.
constexpr int64_t kLongestPollSeconds = 120;
constexpr int64_t kLateSeconds = 5;
// The pause of five seconds at the start, and a reading that waits for nothing.
constexpr int64_t kStartSeconds = 15;
constexpr char kJustStarted[] = "the agent has just started. Look again in half a minute.";
constexpr int kIndent = 6;
constexpr int kNarrowest = 20;

Finding Ok(std::string text) {
  return {Verdict::kOk, std::move(text)};
}
Finding Note(std::string text) {
  return {Verdict::kNote, std::move(text)};
}
Finding Fail(std::string text) {
  return {Verdict::kFail, std::move(text)};
}

std::string Pids(const std::vector<ProcessFact> &processes) {
  std::string text;
  for (const ProcessFact &process : processes) {
    text += (text.empty() ? "" : ", ") + std::to_string(process.pid);
  }
  return (processes.size() == 1 ? "process " : "processes ") + text;
}

std::string SourceText(CommunitySource source) {
  switch (source) {
    case CommunitySource::kOwn:
      return "the community of vexhostd.conf";
    case CommunitySource::kCommon:
      return "defCommunity of snmp.conf";
    case CommunitySource::kMaster:
      return "the first read community of snmpd.conf";
    case CommunitySource::kNone:
      break;
  }
  return "no community";
}

std::string Joined(const std::vector<std::string> &words, const char *between) {
  std::string text;
  for (const std::string &word : words) {
    text += (text.empty() ? "" : between) + word;
  }
  return text;
}

// "the file of cpu.1 is", "the files of cpu.1 and 3 others are".
std::string FilesOf(const std::vector<std::string> &objects) {
  if (objects.size() == 1) {
    return "the file of " + objects.front() + " is";
  }
  const size_t others = objects.size() - 1;
  return "the files of " + objects.front() + " and " + std::to_string(others) +
         (others == 1 ? " other are" : " others are");
}

// "a directory stands in place of cpu.1 and other things in place of 3 others".
std::string InPlaceText(const std::vector<InPlace> &things) {
  const std::string text = things.front().what + " stands in place of " + things.front().object;
  const size_t others = things.size() - 1;
  return others == 0   ? text
         : others == 1 ? text + " and something in place of 1 other"
                       : text + " and something in place of " + std::to_string(others) + " others";
}

// The view or subtree of an access line: what follows SOURCE (snmpd.conf(5): rocommunity COMMUNITY
// [SOURCE [OID | -V VIEW [CONTEXT]]]).
struct AccessPart {
  std::string view;
  std::string oid;
};
AccessPart ShownBy(const std::vector<std::string> &line) {
  AccessPart shown;
  if (line.size() > 4 && line[3] == "-V") {
    shown.view = line[4];
  } else if (line.size() > 3 && line[0].starts_with("r")) {
    shown.oid = line[3];
  }
  return shown;
}

// Whether other machines are let in by what everybody tries first.
bool IsForAnybody(const std::string &community, const std::string &source) {
  const bool own = source.empty() || source.starts_with("127.") || source == "localhost" ||
                   source == "::1" || source == "[::1]";
  return !own && (community == "public" || community == "private");
}

std::string ViewAdvice(const std::vector<std::string> &line) {
  const std::string restart = "; then restart snmpd.";
  if (line.size() > 1 && line[0].starts_with("r") &&
      IsForAnybody(line[1], line.size() > 2 ? line[2] : "default")) {
    return std::string("Show it to the agent alone, and not to all who try \"") + line[1] +
           "\". Add to snmpd.conf: rocommunity NAME 127.0.0.1 " + kSubtree +
           ", and to vexhostd.conf: community NAME; then restart both.";
  }
  const AccessPart shown = ShownBy(line);
  if (!shown.view.empty()) {
    return "Add to snmpd.conf: view " + shown.view + " included " + kSubtree + restart;
  }
  if (!shown.oid.empty()) {
    return "The community's line in snmpd.conf shows " + shown.oid + " alone. Give it a view (" +
           line[0] + " COMMUNITY SOURCE -V VIEW) with: view VIEW included " + kSubtree + restart;
  }
  return std::string("Add to snmpd.conf: view VIEW included ") + kSubtree +
         ", VIEW being the one of the community's access (Debian's: systemonly)" + restart;
}

}  // namespace

bool IsStopped(const ProcessFact &process) {
  return process.state == 'T' || process.state == 't';
}

AgentPhase PhaseOf(const ProcessFact &agent, int64_t now_ns, bool runs_command) {
  const int64_t age_ns = now_ns - agent.started_ns;
  const int64_t most = kStartSeconds + (runs_command ? kLongestPollSeconds : 0);
  const bool starts = agent.started_ns != 0 && age_ns >= 0 && age_ns < most * kNsPerSecond;
  return starts && !IsStopped(agent) ? AgentPhase::kStarts : AgentPhase::kRuns;
}

Finding JudgeProcess(const std::string &name, const std::vector<ProcessFact> &found, bool hidden) {
  if (found.empty() && hidden) {
    return Note(name + ": not seen, since this user does not see other users' processes. Run " +
                "vexreg doctor as root.");
  }
  if (found.empty()) {
    return Fail(name + ": does not run. Start it: systemctl start " + name + ".");
  }
  std::vector<ProcessFact> stopped;
  std::copy_if(found.begin(), found.end(), std::back_inserter(stopped), IsStopped);
  if (!stopped.empty()) {
    std::string pids;
    for (const ProcessFact &process : stopped) {
      pids += " " + std::to_string(process.pid);
    }
    return Fail(name + ": stopped by a signal or a debugger (" + Pids(stopped) +
                "). Let it go on: kill -CONT" + pids + ".");
  }
  return Ok(name + ": runs (" + Pids(found) + ").");
}

Finding JudgeAgent(const std::vector<ProcessFact> &found, bool hidden) {
  Finding finding = JudgeProcess(kAgentName, found, hidden);
  if (finding.verdict != Verdict::kOk) {
    return finding;
  }
  if (found.size() > 1) {
    return Fail("vexhostd: runs more than once (" + Pids(found) +
                "); snmpd takes one only, and only one has the registry. End all but one.");
  }
  if (found.front().owner != 0) {
    return Note("vexhostd: runs (" + Pids(found) + "), but not as root: it lacks what only root " +
                "may read; vexhostd(8) lists it.");
  }
  return finding;
}

Finding JudgeCommunity(CommunitySource source, const std::vector<std::string> &unreadable,
                       size_t users) {
  if (source != CommunitySource::kNone) {
    return Ok("community: " + SourceText(source) + ".");
  }
  if (!unreadable.empty()) {
    return Note("community: not known, since this user may not read " + Joined(unreadable, ", ") +
                ". Run vexreg doctor as root; snmpd is not asked now.");
  }
  if (users > 0) {
    return Note(
        "community: none; snmpd.conf lets SNMPv3 users in alone. Stations are answered, but the "
        "agent asks snmpd by community: siblings that can only be asked so stay unknown, and "
        "doctor cannot ask either. To let both ask, add to snmpd.conf: rocommunity NAME 127.0.0.1 "
        ".1.3.6.1.4.1.4891.");
  }
  return Fail(
      "community: none; not in vexhostd.conf, snmp.conf or snmpd.conf. The agent serves its "
      "variables but cannot ask snmpd how its siblings are. Write to /etc/snmp/vexhostd.conf: "
      "community NAME.");
}

Finding JudgeReach(bool beyond_loopback, const std::string &share) {
  if (beyond_loopback) {
    return Ok("stations: snmpd can be asked from other machines.");
  }
  return Note(
      "stations: snmpd listens on loopback alone, so that no management station reaches it. What "
      "lets one in is in " +
      share + "/integrations/snmpd/station.conf.");
}

Finding JudgeReceivers(size_t receivers, const std::string &share) {
  if (receivers > 0) {
    return Ok("notifications: snmpd.conf has " + std::to_string(receivers) +
              (receivers == 1 ? " receiver." : " receivers."));
  }
  return Note(
      "notifications: snmpd.conf has no receiver, so that they go nowhere. What sends them to a "
      "station is in " +
      share + "/integrations/snmpd/traps.conf.");
}

std::optional<Finding> JudgeDefaultCommunity(
    const std::vector<std::pair<std::string, std::string>> &master_lines) {
  for (const auto &[token, line] : master_lines) {
    const std::string community = CommunityOfLine(token, line);
    const std::string source = SourceOfLine(token, line);
    if (IsForAnybody(community, source)) {
      std::string text = "default community: ";
      text.append("snmpd.conf lets \"").append(community).append("\" in from ");
      text += source == "default" ? "anywhere" : "other machines (" + source + ")";
      return Note(
          text + ", which everybody tries first. Give stations one of their own, or SNMPv3 users.");
    }
  }
  return std::nullopt;
}

Finding JudgeMaster(MasterAnswer answer, CommunitySource source) {
  const std::string where = "snmpd on UDP port 161 of 127.0.0.1: ";
  switch (answer) {
    case MasterAnswer::kAnswers:
      return Ok(where + "answers to " + SourceText(source) + ".");
    case MasterAnswer::kNobodyListens:
      return Fail(where +
                  "nobody listens. Start snmpd; its agentAddress must include "
                  "udp:127.0.0.1:161.");
    case MasterAnswer::kOtherCommunity:
      return Fail(where + "is alive, but does not answer to " + SourceText(source) +
                  ". Let the agent use one that snmpd.conf allows from 127.0.0.1 (a rocommunity "
                  "line there, the community line in vexhostd.conf), then restart both.");
    case MasterAnswer::kSilent:
      break;
  }
  return Fail(where +
              "no answer within two seconds. snmpd hangs, or a packet filter drops the "
              "question. Look at its log, then: systemctl restart snmpd.");
}

Finding JudgeSocket(const std::string &target, const std::string &path, int error,
                    bool other_agent) {
  if (path.empty()) {
    return Note("AgentX socket: " + target +
                " is no Unix socket and is not tried here; whether it works shows below.");
  }
  const std::string where = "AgentX socket " + path + ": ";
  switch (error) {
    case 0:
      return Ok(where + "somebody listens.");
    case ENOENT:
    case ENOTDIR:
      return Fail(
          where +
          "absent: snmpd does not run, or snmpd.conf lacks the line: master agentx (and the "
          "agentXSocket that vexhostd.conf has, if any). Restart snmpd.");
    case ECONNREFUSED:
      return Fail(where +
                  "there, but nobody listens: left by an snmpd that has ended, or snmpd.conf "
                  "lacks the line: master agentx. Restart snmpd.");
    case EACCES:
    case EPERM:
      if (other_agent) {
        return Note(where + "this user may not open it, and need not: the agent runs as another.");
      }
      return Fail(where +
                  "not permitted. Run the agent as root, or let its user in: agentXPerms in "
                  "snmpd.conf and the mode of the directory.");
    case EAGAIN:
      return Fail(where + "its queue is full: snmpd accepts nobody. Restart snmpd.");
    default:
      return Fail(where + strerror(error) + ". See agentXSocket in vexhostd.conf and snmpd.conf.");
  }
}

Finding JudgeSubtree(Subtree subtree, const ViewFacts &facts) {
  const std::string where = std::string("subtree ") + kSubtree + ": ";
  switch (subtree) {
    case Subtree::kVisible:
      return Ok(where + "visible.");
    case Subtree::kUnanswered:
      return Fail(where + "no answer within two seconds, though snmpd answers otherwise. The " +
                  "agent does not answer it: look at the agent's log, then restart the agent.");
    case Subtree::kError:
      return Fail(where + "snmpd answers with an error: the agent does not answer it in time. " +
                  "Look at the agent's log, then restart the agent.");
    case Subtree::kNothing:
      break;
  }
  if (facts.agent_known && !facts.agent_seen) {
    return Note(where + "nothing there, as no agent runs.");
  }
  if (facts.agent_pauses) {
    return Note(where + "nothing there yet: " + kJustStarted);
  }
  if (facts.sessions == 0) {
    return Fail(where + "nothing there: the agent has no session with snmpd. Its log says why; " +
                "agentXSocket must be the same in vexhostd.conf and snmpd.conf.");
  }
  return Fail(where + "nothing visible with this community. " + ViewAdvice(facts.community_line));
}

std::vector<std::string> CommunityLine(
    const std::vector<std::pair<std::string, std::string>> &master_lines,
    const std::string &community) {
  for (const auto &[token, line] : master_lines) {
    if (CommunityOfLine(token, line) == community) {
      std::vector<std::string> words = WordsOf(line);
      words.insert(words.begin(), token);
      return words;
    }
  }
  return {};
}

Finding JudgeValue(const std::string &name, std::optional<int32_t> served,
                   std::optional<int32_t> published) {
  const auto text = [](std::optional<int32_t> value) {
    return value ? std::to_string(*value) : std::string("nothing");
  };
  if (served && published && *served == *published) {
    return Ok("value: " + name + " is " + text(served) + " through snmpd and in the registry.");
  }
  const std::string both = "value: " + name + " is " + text(served) + " through snmpd, " +
                           text(published) + " in the registry. ";
  if (!served) {
    return Fail(both + "The registry is of another run, or the agent lost its session: look at " +
                "its log, then restart it.");
  }
  return Fail(both + "The agent cannot write the registry (a full or read-only disk; its log " +
              "tells), or writes another one than this.");
}

std::optional<Finding> JudgeGuid(std::string_view octets) {
  if (octets.size() != sizeof(guid_without_eth0) ||
      memcmp(octets.data(), guid_without_eth0, sizeof(guid_without_eth0)) != 0) {
    return std::nullopt;
  }
  return Note(
      "GUID: the one that every host without an eth0 generates, and so no name for this host "
      "alone. "
      "Set another one: snmpset ... tlxHoGUID.0 x, with 32 hexadecimal digits of its own.");
}

std::string AgeText(int64_t seconds) {
  if (seconds < 120) {
    return std::to_string(seconds) + " s";
  }
  if (seconds < 120 * 60) {
    return std::to_string(seconds / 60) + " min";
  }
  if (seconds < int64_t{48} * 3600) {
    return std::to_string(seconds / 3600) + " h";
  }
  return std::to_string(seconds / (int64_t{24} * 3600)) + " days";
}

Finding JudgeDirectory(const DirectoryFacts &facts, AgentPhase phase) {
  const std::string where = "registry " + facts.path + ": ";
  const std::string next_poll =
      " The agent makes it good at its next poll; if it does not, its log says why.";
  if (facts.error == EACCES) {
    return Note(where + "not for this user to look into. Run vexreg doctor as root.");
  }
  if (facts.error != 0 && facts.error != ENOENT) {
    return Fail(where + strerror(facts.error) + "." + next_poll);
  }
  if (facts.agents.empty()) {
    return !facts.agent_known ? Note(where + "whose it is does not show to this user.")
           : facts.error != 0 ? Note(where + "not there, as no agent runs.")
                              : Note(where + "nobody's, as no agent runs.");
  }
  if (facts.holder) {
    const std::string holder = "process " + std::to_string(*facts.holder);
    return std::find(facts.agents.begin(), facts.agents.end(), *facts.holder) != facts.agents.end()
               ? Ok(where + "the agent's (" + holder + ").")
               : Fail(where + holder +
                      " has it, and the agent writes elsewhere. End that process.");
  }
  if (facts.elsewhere) {
    return Fail(where + "not the agent's, which publishes elsewhere. Check --root.");
  }
  if (phase == AgentPhase::kStarts) {
    return Note(where + "not the agent's yet: " + kJustStarted);
  }
  if (facts.error != 0) {
    return Fail(where + "missing, though the agent runs: it was removed or moved away." +
                next_poll);
  }
  return Fail(where +
              "not the one that the agent writes to: it was replaced, or something is mounted "
              "over it." +
              next_poll);
}

bool IsOfGroup(std::string_view file, std::string_view group) {
  if (!file.starts_with(group)) {
    return false;
  }
  file.remove_prefix(group.size());
  return file.empty() || (file.size() > 1 && file[0] == '.' &&
                          file.find_first_not_of("0123456789", 1) == file.npos);
}

Finding JudgeGroup(const Group &group, const GroupFacts &facts, bool rows, int64_t now_ns,
                   int poll_seconds, AgentPhase phase) {
  const std::string name = "group " + group.name + ": ";
  const bool agent_runs = phase != AgentPhase::kGone;
  // Files take the place of anything else.
  const bool directory = std::any_of(facts.in_place.begin(), facts.in_place.end(),
                                     [](const InPlace &thing) { return thing.directory; });
  const std::string next_poll =
      !agent_runs ? ""
      : directory
          ? " Remove the directory: the agent writes the file at its next poll then."
          : " The agent writes it again at its next poll; if it does not, its log says why.";
  if (facts.objects == 0 && !facts.in_place.empty()) {
    return {agent_runs ? Verdict::kFail : Verdict::kNote,
            name + InPlaceText(facts.in_place) + "." + next_poll};
  }
  if (facts.objects == 0 && facts.unreadable) {
    return Note(name + "its file is not for this user to read. Run vexreg doctor as root.");
  }
  if (facts.objects == 0 && facts.damaged) {
    return {agent_runs ? Verdict::kFail : Verdict::kNote,
            name + "its file is damaged." + next_poll};
  }
  if (facts.objects == 0 && facts.served.value_or(false)) {
    return Fail(name + "published to managers, but its file is missing." + next_poll);
  }
  if (facts.objects == 0 && group.needed && phase == AgentPhase::kStarts) {
    return Note(name + "not published yet: " + kJustStarted);
  }
  if (facts.objects == 0 && phase == AgentPhase::kGone) {
    return Note(name + "not published, as no agent runs.");
  }
  if (facts.objects == 0) {
    const std::string why = group.absent.empty() ? "." : "; " + std::string(group.absent) + ".";
    const std::string also =
        facts.served ? "never published, to managers neither" : "not published";
    return group.needed ? Fail(name + also + ", though the agent runs. Look at its log.")
                        : Note(name + "not published" + why);
  }
  std::string what = name;
  if (rows) {
    what += std::to_string(facts.objects) + (facts.objects == 1 ? " row" : " rows") + ", ";
  }
  if (!facts.damaged_rows.empty() || !facts.missing_rows.empty() || !facts.in_place.empty()) {
    std::vector<std::string> faults;
    if (!facts.in_place.empty()) {
      faults.push_back(InPlaceText(facts.in_place));
    }
    if (!facts.damaged_rows.empty()) {
      faults.push_back(FilesOf(facts.damaged_rows) + " damaged");
    }
    if (!facts.missing_rows.empty()) {
      faults.push_back(FilesOf(facts.missing_rows) + " missing, though published to managers");
    }
    return {agent_runs ? Verdict::kFail : Verdict::kNote,
            what + "but " + Joined(faults, ", and ") + "." + next_poll};
  }
  const int64_t age = (now_ns - facts.newest_ns) / kNsPerSecond;
  if (age < -kLateSeconds) {
    return Note(what + "last published " + AgeText(-age) +
                " in the future: the clock has been set back.");
  }
  what += "last published " + AgeText(std::max<int64_t>(age, 0)) + " ago";
  if (!group.each_poll) {
    return Ok(what + " (only when something changes).");
  }
  what += " (each " + std::to_string(poll_seconds) + " s)";
  const int64_t late = age - poll_seconds - kLateSeconds;
  if (late <= 0) {
    return Ok(what + ".");
  }
  if (phase == AgentPhase::kStarts) {
    return Note(what + ": " + kJustStarted);
  }
  if (agent_runs && late <= poll_seconds + kLongestPollSeconds) {
    return Note(what +
                ": late. A poll that waits for a command or a mount may be under way; look "
                "again in two minutes.");
  }
  return Fail(what + (agent_runs ? ": no poll comes to its end. Look at the agent's log for what "
                                   "hangs, then restart it."
                                 : ": left by an agent that has ended."));
}

Finding JudgeSilence(int seconds) {
  return Fail("gave up after " + std::to_string(seconds) +
              " s: the next check waits for a file that does not answer, mostly one on a mount "
              "whose server is dead. Look for it among the mounts, in PATH and in the registry's "
              "path; vexreg(1) lists the checks in their order.");
}

std::string RenderFinding(const Finding &finding, int width, bool colour) {
  constexpr const char *kMarks[] = {"ok    ", "note  ", "FAIL  "};
  constexpr const char *kColours[] = {"\x1b[32m", "\x1b[33m", "\x1b[1;31m"};
  const auto verdict = static_cast<size_t>(finding.verdict);
  const std::string mark =
      colour ? kColours[verdict] + std::string(kMarks[verdict]) + "\x1b[0m" : kMarks[verdict];
  // Paths and names come from files; nothing of them may steer a terminal.
  const std::string plain = Printable(finding.text);
  std::string text;
  const std::vector<std::string> lines =
      width > 0 ? WrapText(plain, std::max(width - kIndent, kNarrowest))
                : std::vector<std::string>{plain};
  for (const std::string &line : lines) {
    text += (text.empty() ? mark : std::string(kIndent, ' ')) + line + "\n";
  }
  return text;
}

}  // namespace vex
