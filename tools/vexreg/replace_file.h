// Files that a command writes: whole or not at all.
#ifndef VEX_TOOLS_VEXREG_REPLACE_FILE_H
#define VEX_TOOLS_VEXREG_REPLACE_FILE_H

#include <sys/types.h>

#include <string>
#include <string_view>

namespace vex {

// Standard output, as a file's name.
inline constexpr char kStandardOutput[] = "-";

// Writes standard output, or a file of that mode beside, synchronises it and renames it, so that a
// reader has the old bytes or the new ones. Signals that would leave half a file behind are taken
// afterwards. What is there and is no plain file stays. False after a complaint; then the file is
// as it was.
bool WriteOutput(const std::string &path, std::string_view bytes, mode_t mode);

}  // namespace vex

#endif
