#include "tools/vexreg/replay_texts.h"

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>

#include "framework/snmp/snmp_ask.h"
#include "tools/vexreg/values.h"

namespace vex {
namespace {

constexpr char kVersionVariable[] = "tlxHoAgentVersion";
constexpr size_t kMostDifferences = 200;
constexpr size_t kMostOidLetters = 127;

bool IsOid(const std::string &text) {
  return !text.empty() && text.size() <= kMostOidLetters &&
         text.find_first_not_of(".0123456789") == std::string::npos;
}

std::string AgentNow(const Served &served) {
  const auto found = served.find({kVersionVariable, ""});
  return found != served.end() ? found->second : "unknown";
}

}  // namespace

std::string MasterConfiguration(const Capture &capture) {
  std::string text = std::string("rocommunity ") + kReplayCommunity + " " + kLoopbackAddress +
                     "\nmaster agentx\ndontLogTCPWrappersConnects yes\n";
  for (const auto &[oid, value] : capture.asked) {
    if (IsOid(oid)) {
      text += "override " + oid + " integer " + std::to_string(value) + "\n";
    }
  }
  return text;
}

void PrintDifferences(const ReplayResult &result) {
  const std::vector<Difference> &differences = result.differences;
  for (size_t i = 0; i < std::min(differences.size(), kMostDifferences); i++) {
    const Difference &one = differences[i];
    std::cout << SafeText(one.place.variable + (one.place.row.empty() ? "" : " of ") +
                          one.place.row + ": " + one.before + " -> " + one.now)
              << '\n';
  }
  if (differences.size() > kMostDifferences) {
    std::cout << "... and " << differences.size() - kMostDifferences << " more\n";
  }
  for (const std::string &variable : result.since) {
    std::cout << "new since: " << variable << '\n';
  }
}

void PrintSummary(const Capture &capture, const ReplayResult &result) {
  std::cout << SafeText(capture.host + ", captured " + capture.made + " with agent " +
                        (capture.agent.empty() ? "unknown" : capture.agent) + "; now " +
                        AgentNow(result.now))
            << ": " << result.compared << " values compared, " << result.differences.size()
            << " differ\n";
}

// All of them, whatever their number; null for what is not there.
void PrintJson(const Capture &capture, const ReplayResult &result) {
  const auto value = [](const std::string &text) {
    return text == kAbsent ? nlohmann::ordered_json() : nlohmann::ordered_json(Utf8(text));
  };
  auto list = nlohmann::ordered_json::array();
  for (const Difference &one : result.differences) {
    list.push_back({{"variable", one.place.variable},
                    {"row", Utf8(one.place.row)},
                    {"before", value(one.before)},
                    {"now", value(one.now)}});
  }
  const nlohmann::ordered_json json = {{"differences", list},
                                       {"new_since", result.since},
                                       {"summary",
                                        {{"host", Utf8(capture.host)},
                                         {"captured", Utf8(capture.made)},
                                         {"agent_then", Utf8(capture.agent)},
                                         {"agent_now", Utf8(AgentNow(result.now))},
                                         {"compared", result.compared},
                                         {"differ", result.differences.size()}}}};
  std::cout << SafeJson(json.dump(2)) << '\n';
}

}  // namespace vex
