// What may differ all the same when a call of vexreg fails, each with its reason.
#include <regex>

#include "tests/faults/tools_bench.h"

namespace tool_faults {

namespace {

struct Exception {
  const char *subject;     // all of them: ""
  const char *call;        // all of them: ""
  const char *difference;  // a pattern for the whole line
  const char *reason;
};

constexpr Exception kExceptions[] = {
    {"capture", "statfs", "another content: figures",
     "the error that a file system answers with is what the figures are to say of it"},
    {"capture-json", "statfs", "another content: figures", "the same"},
    {"doctor", "", "no word of: ok +(subtree|value).*",
     "what snmpd has not answered is not asked further, which a finding says"},
    {"doctor-json", "", "no word of: ok +(subtree|value).*", "the same"},
    {"report-capture", "", "[-+] .*#-#-# #:#:# .*",
     "the C library takes a zone's file that it cannot read for UTC, and tells nobody"},
    {"", "write", "not said: .*",
     "what standard error does not take cannot be told, and the result is as it should be"},
};

}  // namespace

std::string Rule(const Subject &subject, const faults::Call &call, const std::string &difference) {
  for (const Exception &one : kExceptions) {
    if ((*one.subject == '\0' || std::string(subject.name) == one.subject) &&
        (*one.call == '\0' || std::string(call.name) == one.call) &&
        std::regex_match(difference, std::regex(one.difference))) {
      return one.reason;
    }
  }
  return "";
}

}  // namespace tool_faults
