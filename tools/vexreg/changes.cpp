#include "tools/vexreg/changes.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "tools/vexreg/values.h"

namespace vex {
namespace {

std::string PlainName(const std::string &name) {
  const std::string quoted = OneLine(Utf8(name));
  return quoted.substr(1, quoted.size() - 2);
}

bool SameVariables(const FileObject &a, const FileObject &b) {
  return std::equal(a.variables.begin(), a.variables.end(), b.variables.begin(), b.variables.end(),
                    [](const FileVariable &x, const FileVariable &y) {
                      return x.name == y.name && x.type == y.type;
                    });
}

}  // namespace

std::string OneLine(const nlohmann::ordered_json &json) {
  return json.dump(-1, ' ', true);
}

std::vector<std::string> ChangeLines(const std::string &name, const FileObject *before,
                                     const FileObject *after) {
  const std::string plain = PlainName(name);
  if (after == nullptr) {
    return before != nullptr ? std::vector<std::string>{plain + " removed"}
                             : std::vector<std::string>{};
  }
  if (before != nullptr && !SameVariables(*before, *after)) {
    before = nullptr;
  }
  std::vector<std::string> lines;
  if (after->variables.empty() && (before == nullptr || before->data != after->data)) {
    lines.push_back(plain + " (" + std::to_string(after->data.size()) + " bytes of data)");
  }
  for (size_t slot = 0; slot < after->variables.size(); slot++) {
    const FileVariable &variable = after->variables[slot];
    if (variable.type == 0) {
      continue;
    }
    const std::string value = OneLine(ValueJson(*after, variable));
    std::string line = plain + " " + PlainName(variable.name) + " ";
    if (before != nullptr) {
      const std::string old = OneLine(ValueJson(*before, before->variables[slot]));
      if (old == value) {
        continue;
      }
      line += old + " -> ";
    }
    lines.push_back(line + value);
  }
  return lines;
}

std::vector<nlohmann::ordered_json> ChangeObjects(
    const std::string &name, const FileObject *before, const FileObject *after,
    nlohmann::ordered_json (*value)(const FileObject &, const FileVariable &)) {
  const std::string object = Utf8(name);
  std::vector<nlohmann::ordered_json> changes;
  if (after == nullptr) {
    if (before != nullptr) {
      changes.push_back({{"object", object}, {"removed", true}});
    }
    return changes;
  }
  if (before != nullptr && !SameVariables(*before, *after)) {
    before = nullptr;
  }
  if (after->variables.empty() && (before == nullptr || before->data != after->data)) {
    changes.push_back({{"object", object}, {"bytes", after->data.size()}});
  }
  for (size_t slot = 0; slot < after->variables.size(); slot++) {
    const FileVariable &variable = after->variables[slot];
    if (variable.type == 0) {
      continue;
    }
    const bool same = before != nullptr &&
                      ValueJson(*before, before->variables[slot]) == ValueJson(*after, variable);
    if (!same) {
      changes.push_back(
          {{"object", object},
           {"variable", Utf8(variable.name)},
           {"old", before != nullptr ? value(*before, before->variables[slot]) : nullptr},
           {"new", value(*after, variable)}});
    }
  }
  return changes;
}

}  // namespace vex
