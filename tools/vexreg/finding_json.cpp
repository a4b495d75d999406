#include "tools/vexreg/finding_json.h"

#include <nlohmann/json.hpp>

#include "tools/vexreg/changes.h"
#include "tools/vexreg/values.h"

namespace vex {
namespace {

constexpr char kItself[] = "doctor";
constexpr char kGaveUp[] = "gave up";
// Checks whose text goes on with a path or an address before the colon.
constexpr std::string_view kWithPlace[] = {"AgentX socket", "registry", "subtree",
                                           "snmpd on UDP port 161"};

std::string CheckOf(const std::string &text) {
  for (const std::string_view check : kWithPlace) {
    const char next = text.size() > check.size() ? text[check.size()] : ':';
    if (text.starts_with(check) && (next == ' ' || next == ':')) {
      return std::string(check);
    }
  }
  const size_t colon = text.find(": ");
  return colon == std::string::npos || text.starts_with(kGaveUp) ? kItself : text.substr(0, colon);
}

}  // namespace

std::string FindingJson(const Finding &finding) {
  constexpr const char *kStates[] = {"ok", "note", "fail"};
  return OneLine({{"state", kStates[static_cast<int>(finding.verdict)]},
                  {"check", Utf8(CheckOf(finding.text))},
                  {"message", Utf8(finding.text)}});
}

}  // namespace vex
