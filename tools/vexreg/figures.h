// What mounts say of themselves (statvfs(3)), as a capture has it and a replay gives it.
#ifndef VEX_TOOLS_VEXREG_FIGURES_H
#define VEX_TOOLS_VEXREG_FIGURES_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace vex {

struct MountFigures {
  enum State { kAnswered, kErrno, kSilent };
  State state = kSilent;
  int error = 0;  // of kErrno
  uint64_t frsize = 0, blocks = 0, bfree = 0, files = 0, ffree = 0;
};

// Asks mounts in a child process, and leaves one that does not answer within a second behind. After
// `most_silent` of them the rest counts as silent without being asked.
std::map<std::string, MountFigures> AskMounts(const std::vector<std::string> &directories,
                                              int most_silent);

// A line for each mount:
//   figures FRSIZE BLOCKS BFREE FILES FFREE DIRECTORY
//   error ERRNO DIRECTORY
//   silent DIRECTORY
// with bytes of the directory that a line cannot have as \ooo, like in /etc/mtab. Lines of another
// form are passed over.
std::string FiguresText(const std::map<std::string, MountFigures> &figures);
std::map<std::string, MountFigures> ParseFigures(std::string_view text);

// The directories of a mount table whose mounts the agent asks.
std::vector<std::string> AskedDirectories(const std::string &mount_table);

}  // namespace vex

#endif
