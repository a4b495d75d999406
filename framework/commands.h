// Shell commands; process_linux_cmd() with a time limit of the caller's.
#ifndef VEX_FRAMEWORK_COMMANDS_H
#define VEX_FRAMEWORK_COMMANDS_H

namespace vex {

int RunCommand(const char *command, char *output, int *length, int limit_ms);

}  // namespace vex

#endif
