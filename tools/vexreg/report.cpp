// vexreg report: this host, or a captured one, as an HTML page.
#include <errno.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>

#include "tools/vexreg/absence.h"
#include "tools/vexreg/captured_host.h"
#include "tools/vexreg/child_output.h"
#include "tools/vexreg/commands.h"
#include "tools/vexreg/findings.h"
#include "tools/vexreg/page.h"
#include "tools/vexreg/replace_file.h"

namespace vex {
namespace {

constexpr char kUsualPath[] = "/usr/sbin:/usr/bin:/sbin:/bin";
constexpr mode_t kMode = 0600;  // it has the log and what doctor says
constexpr int kDoctorSeconds = 20;
constexpr int kLogSeconds = 10;
constexpr size_t kMostBytes = size_t{8} << 20;
constexpr size_t kLogLines = 50;

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

std::string LocalNow() {
  const time_t now = time(nullptr);
  tm parts = {};
  localtime_r(&now, &parts);
  char text[64];
  strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S %Z", &parts);
  return text;
}

}  // namespace

int Report(const std::string &root, const std::string &program, const Capture *capture,
           const std::optional<std::string> &file) {
  PageFacts facts;
  facts.program = program;
  facts.objects = FindObjects({root, {"host/*"}}).objects;
  int status = kDone;
  if (facts.objects.empty()) {
    status = kFailed;
    Complain(capture == nullptr ? WhyNothing(root)
                                : "nothing was published when this was captured");
  }
  if (capture != nullptr) {
    facts.made = capture->made;
    facts.source = capture->host;
    const Member *const findings = capture->Find(kFindingsMember);
    facts.findings = FindingsOf(findings != nullptr ? findings->bytes : "");
    for (const char *name : {"log/file", "log/journal"}) {
      const Member *const log = capture->Find(name);
      if (log != nullptr && facts.log.empty()) {
        facts.log = LastLines(log->bytes);
      }
    }
  } else {
    facts.made = LocalNow();
    facts.findings = FindingsOf(RunProgram({"/proc/self/exe", "--root", root, "doctor", "--json",
                                            "--limit", std::to_string(kDoctorSeconds)},
                                           kUsualPath, kDoctorSeconds + 5, kMostBytes)
                                    .out);
    const ChildOutput log =
        RunProgram({"journalctl", "--unit", kAgentName, "--lines", std::to_string(kLogLines),
                    "--no-pager", "--output", "short-iso"},
                   kUsualPath, kLogSeconds, kMostBytes);
    if (log.end == ChildOutput::kExited && log.status == 0) {
      facts.log = LastLines(log.out);
    }
  }
  const std::string page = ReportPage(facts);
  if (!file) {
    std::cout << page;
    return FinishOutput(status);
  }
  if (ReplaceFile(*file, page, kMode) != 0) {
    Complain(*file + ": cannot be written: " + strerror(errno));
    return kFailed;
  }
  return status;
}

}  // namespace vex
