// What doctor finds, for programs.
#ifndef VEX_TOOLS_VEXREG_FINDING_JSON_H
#define VEX_TOOLS_VEXREG_FINDING_JSON_H

#include <string>

#include "tools/vexreg/findings.h"

namespace vex {

// {"state": "ok", "note" or "fail", "check": CHECK, "message": TEXT} on one line of ASCII. CHECK is
// the item of the manual page that the text begins with ("AgentX socket", "group cpu"), and
// "doctor" for what is said of the examination itself.
std::string FindingJson(const Finding &finding);

}  // namespace vex

#endif
