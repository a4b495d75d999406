// What a person may have meant by a command line.
#ifndef VEX_TOOLS_VEXREG_USAGE_H
#define VEX_TOOLS_VEXREG_USAGE_H

#include <string>
#include <vector>

namespace CLI {
class App;
class ParseError;
}  // namespace CLI

namespace vex {

// The words behind the program's name with the command moved to the front, so that its options may
// stand before it as well; "help COMMAND" becomes "COMMAND --help". Words without a command stay.
std::vector<std::string> CommandFirst(const CLI::App &app, std::vector<std::string> words);

// What is wrong with such words, in one line that says what to do.
std::string UsageComplaint(const CLI::App &app, const std::vector<std::string> &words,
                           const CLI::ParseError &error);

}  // namespace vex

#endif
