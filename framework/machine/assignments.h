// Files of KEY=VALUE lines: os-release(5) and the appliance's.
#ifndef VEX_FRAMEWORK_MACHINE_ASSIGNMENTS_H
#define VEX_FRAMEWORK_MACHINE_ASSIGNMENTS_H

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace vex {

using Assignments = std::map<std::string, std::string, std::less<>>;

// How a value is written.
enum class Values {
  // As os-release(5) has it: it may stand in single quotes (all literal) or double quotes (\ before
  // $ " \ ` stands for the character), and a quote anywhere else breaks the line.
  kShell,
  // As it stands, an apostrophe or an inch sign like any other character. Quotes around all of it
  // are taken off.
  kPlain,
};

// Parses lines of KEY=VALUE, blank lines, and comments (#). Blanks at the ends of a line are no
// part of it; the last assignment of a key wins. Nothing when any line is something else (*bad_line
// says which, from 1): a file that is broken at one place is not trusted at the others. Any thread.
std::optional<Assignments> ParseAssignments(std::string_view text, Values values, int *bad_line);

// Reads and parses a file of at most 64 KiB. Nothing when it is missing or broken; when broken
// (unreadable, too large, a bad line), one line in the log says so, once a process and path.
// A read that fails is tried again at once, twice. Agent thread.
std::optional<Assignments> ReadAssignments(const char *path, Values values);

}  // namespace vex

#endif
