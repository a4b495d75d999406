// The facts that a replayed host's kernel would tell, in a file for the library that answers for
// it.
#ifndef VEX_TOOLS_REPLAY_REPLAY_FACTS_H
#define VEX_TOOLS_REPLAY_REPLAY_FACTS_H

#include <map>
#include <string>

#include "tools/vexreg/figures.h"

namespace vex {

// Names the file: lines of FiguresText(), and before them
//   kernel RELEASE|VERSION|MACHINE
//   card HEX                        the version reply of a remote management card
inline constexpr char kReplayVariable[] = "VEXREG_REPLAY";
inline constexpr char kKernelLine[] = "kernel ";
inline constexpr char kCardLine[] = "card ";

struct ReplayFacts {
  std::map<std::string, MountFigures> mounts;
  std::string release, version, machine;  // of the kernel; empty: not captured
  std::string card;                       // the reply; empty: there is no card
};

// What the file has; nothing for a null path or a file that cannot be read.
ReplayFacts ReadReplayFacts(const char *path);

}  // namespace vex

#endif
