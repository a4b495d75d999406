// Files of KEY=VALUE lines: os-release(5) and the appliance's.
#ifndef VEX_FRAMEWORK_ASSIGNMENTS_H
#define VEX_FRAMEWORK_ASSIGNMENTS_H

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace vex {

using Assignments = std::map<std::string, std::string, std::less<>>;

// Parses lines as os-release(5) has them: KEY=VALUE, blank, or a comment (#). A value may stand in
// single quotes (all literal) or double quotes (\ before $ " \ ` stands for the character); the
// last assignment of a key wins. Nothing when any line is something else (*bad_line says which,
// from 1): a file that is broken at one place is not trusted at the others.
std::optional<Assignments> ParseAssignments(std::string_view text, int *bad_line);

// Reads and parses a file of at most 64 KiB. Nothing when it is missing or broken; when broken
// (unreadable, too large, a bad line), one line in the log says so, once a process and path.
std::optional<Assignments> ReadAssignments(const char *path);

}  // namespace vex

#endif
