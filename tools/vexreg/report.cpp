// vexreg report: this host, or a captured one, as an HTML page.
#include <string.h>
#include <time.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "tools/vexreg/absence.h"
#include "tools/vexreg/captured_host.h"
#include "tools/vexreg/commands.h"
#include "tools/vexreg/findings.h"
#include "tools/vexreg/host_facts.h"
#include "tools/vexreg/host_files.h"
#include "tools/vexreg/own_words.h"
#include "tools/vexreg/page.h"
#include "tools/vexreg/replace_file.h"
#include "tools/vexreg/values.h"

namespace vex {
namespace {

constexpr char kSystemPath[] = "/usr/sbin:/usr/bin:/sbin:/bin";
constexpr mode_t kMode = 0600;  // it has the log and what doctor says
constexpr size_t kMostLog = size_t{64} << 10;
constexpr size_t kLogLines = 50;
constexpr char kNoLog[] = "no log to be read";
constexpr char kSecretsUnknown[] = "left out: what is secret on this host could not be read";

std::vector<std::string> LastLines(const std::string &text) {
  std::vector<std::string> lines;
  for (size_t from = 0; from < text.size();) {
    const size_t end = std::min(text.find('\n', from), text.size());
    lines.push_back(text.substr(from, end - from));
    from = end + 1;
  }
  lines.erase(lines.begin(),
              lines.end() - static_cast<std::ptrdiff_t>(std::min(lines.size(), kLogLines)));
  return lines;
}

std::vector<PageFinding> FindingsOf(const std::string &text) {
  std::vector<PageFinding> findings;
  const auto list = nlohmann::json::parse(text, nullptr, false);
  for (const auto &one : list.is_array() ? list : nlohmann::json::array()) {
    const auto word = [&one](const char *name) {
      const auto found = one.is_object() ? one.find(name) : one.end();
      return one.is_object() && found != one.end() && found->is_string() ? found->get<std::string>()
                                                                         : "";
    };
    findings.push_back({word("state"), word("message")});
  }
  return findings;
}

void TakeFindings(const TakenText &taken, PageFacts *facts) {
  facts->findings = FindingsOf(taken.text.value_or(""));
  facts->no_findings =
      taken.text && facts->findings.empty() ? "doctor's findings cannot be read" : taken.reason;
}

// Of several places the first that has one.
void TakeLog(const std::vector<TakenText> &logs, PageFacts *facts) {
  for (const TakenText &log : logs) {
    if (log.text) {
      facts->log = LastLines(*log.text);
      return;
    }
  }
  facts->no_log = kNoLog;
}

// What the page cannot have is told: *status becomes kFailed.
void TakeThisHost(const std::string &root, PageFacts *facts, int *status) {
  facts->moment = time(nullptr);
  facts->agent = SightText(SeeAgent(root), true);
  const auto agents = FindProcesses(kAgentName);
  const pid_t agent = agents.empty() ? 0 : agents.front().pid;
  // The page is for others, too: what a capture leaves out, it has not, either.
  bool all_secrets = true;
  const Secrets secrets = SecretsOfHost(agent, [&](const std::string &path, int error) {
    all_secrets = false;
    *status = kFailed;
    Complain(path +
             ": cannot be read, so the page has no findings and no log, which may have what "
             "is secret in it: " +
             strerror(error));
  });
  const auto cleaned = [&](TakenText taken) {
    if (!all_secrets) {
      return TakenText{std::nullopt, kSecretsUnknown};
    }
    if (taken.text) {
      taken.text = WithoutSecrets(*taken.text, secrets);
    }
    return taken;
  };
  TakeFindings(cleaned(TakeDoctorsFindings(root, kSystemPath)), facts);
  const std::string file = LogFileOf(agent);
  std::vector<TakenText> logs;
  if (!file.empty()) {
    logs.push_back(cleaned(TakeLogFile(file, kSystemPath, kMostLog)));
  }
  logs.push_back(cleaned(TakeJournal(kSystemPath, kMostLog)));
  TakeLog(logs, facts);
  for (NamedObject &object : facts->objects) {
    CoverPasswords(&object.object);
  }
}

void TakeCapture(const Capture &capture, PageFacts *facts) {
  const auto member = [&](const char *name) {
    const Member *const found = capture.Find(name);
    return found != nullptr ? TakenText{found->bytes, ""}
                            : TakenText{std::nullopt, "not in the capture"};
  };
  facts->source = capture.host;
  facts->moment = capture.Moment().value_or(0);
  TakenText findings = member(kFindingsMember);
  for (const Omission &omission : capture.omissions) {
    if (!findings.text && omission.source == "doctor") {
      findings.reason = omission.reason;
    }
  }
  TakeFindings(findings, facts);
  TakeLog({member(kLogFileMember), member(kJournalMember)}, facts);
  facts->made = facts->moment == 0 ? capture.made : "";
}

}  // namespace

int Report(const std::string &root, const std::string &program, const Capture *capture,
           const std::optional<std::string> &file) {
  PageFacts facts;
  facts.program = program;
  int status = kDone;
  Found found = FindObjects({root, {"host/*"}});
  TellLeftOut(found, root, &status);
  facts.objects = std::move(found.objects);
  if (facts.objects.empty()) {
    status = kFailed;
    Complain(capture == nullptr ? WhyNothing(root)
                                : "nothing was published when this was captured");
  }
  if (capture != nullptr) {
    TakeCapture(*capture, &facts);
  } else {
    TakeThisHost(root, &facts, &status);
  }
  if (facts.made.empty()) {
    facts.made = ZonedTimeText(facts.moment);
  }
  return WriteOutput(file.value_or(kStandardOutput), ReportPage(facts), kMode) ? status : kFailed;
}

}  // namespace vex
