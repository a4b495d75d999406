// Why there is nothing to show.
#ifndef VEX_TOOLS_VEXREG_ABSENCE_H
#define VEX_TOOLS_VEXREG_ABSENCE_H

#include <string>

namespace vex {

// What was seen of the agent's processes, where its values are old or absent.
struct AgentSight {
  bool looked = false;  // else the rest says nothing
  bool runs = false;
  bool stopped = false;    // by a signal
  bool hidden = false;     // this user does not see other users' processes
  bool elsewhere = false;  // no agent has this root, which was given in place of the usual one
};

// Looks at every process of the host, and whose a registry's root is.
AgentSight SeeAgent(const std::string &root);

// Whether a process has the agent's directory below a root for itself.
bool IsHeld(const std::string &path);

// What is with the agent whose values are old, or, when none are published, absent; and what to do.
// Empty when nobody has looked. Pure.
std::string SightText(const AgentSight &sight, bool published);

// What was seen of a registry without objects, and of the agent that should publish there.
struct AbsenceFacts {
  std::string root;
  int error = 0;              // of listing the root or the agent's directory; 0: both can be listed
  bool agent_runs = false;    // it was seen
  bool agent_hidden = false;  // this user does not see other users' processes
  bool elsewhere = false;     // no agent has this root, which was given in place of the usual one
};

// One line: why nothing is there, and what to do. Pure.
std::string JudgeAbsence(const AbsenceFacts &facts);

// Looks at the host and judges.
std::string WhyNothing(const std::string &root);

}  // namespace vex

#endif
