// What changed between two looks at an object, as lines of text.
#ifndef VEX_TOOLS_VEXREG_CHANGES_H
#define VEX_TOOLS_VEXREG_CHANGES_H

#include <string>
#include <vector>

#include "framework/registry/registry_file.h"

namespace vex {

// The lines for one object; either state may be null, when there was or is none: "NAME removed";
// "NAME VARIABLE VALUE" for each variable of a new object; "NAME VARIABLE OLD -> NEW" for each that
// changed. Values are as in JSON. An object without variables says how many bytes it has.
std::vector<std::string> ChangeLines(const std::string &name, const FileObject *before,
                                     const FileObject *after);

}  // namespace vex

#endif
