// What a replay writes: the configuration of the master that it starts, and what it has found.
#ifndef VEX_TOOLS_VEXREG_REPLAY_TEXTS_H
#define VEX_TOOLS_VEXREG_REPLAY_TEXTS_H

#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "tools/vexreg/captured_host.h"
#include "tools/vexreg/served.h"

namespace vex {

inline constexpr char kReplayCommunity[] = "replay";

// snmpd's configuration, which answers what other agents of the captured host answered. A capture
// comes from outside: of what it says nothing but OIDs and numbers gets into the text. Pure.
std::string MasterConfiguration(const Capture &capture);

struct ReplayResult {
  std::vector<Difference> differences;
  std::set<std::string> since;  // variables that the capturing agent did not know
  Served now;
  size_t compared = 0;
};

// All of it as JSON, on standard output.
void PrintJson(const Capture &capture, const ReplayResult &result);
// The same for people: a line for each difference, up to a limit, and a line that sums up.
void PrintDifferences(const ReplayResult &result);
void PrintSummary(const Capture &capture, const ReplayResult &result);

}  // namespace vex

#endif
