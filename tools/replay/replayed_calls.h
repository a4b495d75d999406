// The facts that a replayed host's kernel would tell, in a file for the library that answers for
// it.
#ifndef VEX_TOOLS_REPLAY_REPLAYED_CALLS_H
#define VEX_TOOLS_REPLAY_REPLAYED_CALLS_H

namespace vex {

// Names the file: lines of FiguresText(), and before them
//   kernel RELEASE|VERSION|MACHINE
//   card HEX                        the version reply of a remote management card
inline constexpr char kReplayVariable[] = "VEXREG_REPLAY";
inline constexpr char kKernelLine[] = "kernel ";
inline constexpr char kCardLine[] = "card ";

}  // namespace vex

#endif
