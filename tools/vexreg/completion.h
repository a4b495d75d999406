// Completion of the command line, from the description by which it is parsed.
#ifndef VEX_TOOLS_VEXREG_COMPLETION_H
#define VEX_TOOLS_VEXREG_COMPLETION_H

#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace vex {

// The script for bash, zsh or fish; nothing for another shell. Options are completed by the names
// of their values: DIR and FILE, or words with | between them. Names of objects are asked of the
// command itself (Complete()).
std::optional<std::string> CompletionScript(const CLI::App &app, const std::string &shell);

// Prints the script for a shell, or for "names" the objects, groups and variables of the registry,
// one a line: those that need no quoting. The exit status.
int Complete(const CLI::App &app, const std::string &root, const std::string &what);

}  // namespace vex

#endif
