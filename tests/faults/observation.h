// What can be seen of the agent and of what it keeps, as lines that can be compared.
#ifndef VEX_TESTS_FAULTS_OBSERVATION_H
#define VEX_TESTS_FAULTS_OBSERVATION_H

#include <string>
#include <vector>

#include "tests/support/made_up_host.h"

namespace faults {

using Seen = std::vector<std::string>;  // sorted

// "object host/memory tlxHoPhysicalMemorySize = 5": all that siblings read.
Seen SeeObjects();
// "walk .1.3.6... = INTEGER: 5": all that a manager reads.
Seen SeeWalk(made_up::MadeUpHost &host);
// "kept /var/spool/.../tlxhoguid.dat 600 16 ...": what outlives the agent, and its directories.
Seen SeeKept();
// "fd socket", "thread", "child vexhostd": what a living agent has.
Seen SeeProcess(pid_t agent);
// "left PID NAME": processes of the agent's session after its end.
Seen SeeLeft(pid_t agent);

Seen Together(std::vector<Seen> parts);
// The same without the numbers of software, firmware and file-system rows, which are those of their
// first appearance: each row by its name.
Seen WithoutNumbers(const Seen &seen);
// "- line" for what is missing, "+ line" for what is more.
std::vector<std::string> Difference(const Seen &expected, const Seen &found);

}  // namespace faults

#endif
