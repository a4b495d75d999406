// Files that a command writes: whole or not at all.
#ifndef VEX_TOOLS_VEXREG_REPLACE_FILE_H
#define VEX_TOOLS_VEXREG_REPLACE_FILE_H

#include <sys/types.h>

#include <string>
#include <string_view>

namespace vex {

// Writes a file of that mode beside, synchronises it and renames it, so that a reader has the old
// bytes or the new ones. Signals that would leave half a file behind are taken afterwards. 0, or -1
// with errno; then the file is as it was.
int ReplaceFile(const std::string &path, std::string_view bytes, mode_t mode);

// All of the bytes, whatever the pieces. False with errno.
bool WriteAll(int fd, std::string_view bytes);

}  // namespace vex

#endif
