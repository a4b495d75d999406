// Text from outside as a line of a log or a terminal may have it. For the framework and the tools.
#ifndef VEX_FRAMEWORK_PROCESS_PRINTABLE_H
#define VEX_FRAMEWORK_PROCESS_PRINTABLE_H

#include <string>
#include <string_view>

namespace vex {

// The text with a '?' for each byte that ends a line or moves a terminal, the C1 controls in UTF-8
// among them. Other bytes stay, whatever their encoding.
std::string Printable(std::string_view text);

// Several lines as one: "; " stands for the end of a line, and there is none at the text's end.
std::string JoinLines(std::string_view text);

// Both, and with a '?' for each byte that is not ASCII: for output of unknown encoding.
std::string PrintableLine(std::string_view text);

}  // namespace vex

#endif
