// Programs that a command runs for what they print.
#ifndef VEX_TOOLS_VEXREG_CHILD_OUTPUT_H
#define VEX_TOOLS_VEXREG_CHILD_OUTPUT_H

#include <cstddef>
#include <string>
#include <vector>

namespace vex {

struct ChildOutput {
  enum End { kExited, kNotRun, kTimedOut, kTooMuch, kLost };
  End end = kLost;  // could not be started or read; kNotRun: there is no such program
  int status = 0;   // of an exit, or 128 and the signal's number
  std::string out;
};

// Runs a program, found by `search` (as PATH, which it gets as well), without a shell, in a process
// group of its own that is killed after so many seconds or bytes, and with this process. Its
// standard error is dropped.
ChildOutput RunProgram(const std::vector<std::string> &words, const std::string &search,
                       int seconds, size_t most_bytes);

// Becomes that program, found by PATH; ends with status 127 where it cannot. In a child.
[[noreturn]] void Execute(const std::vector<std::string> &words);

}  // namespace vex

#endif
