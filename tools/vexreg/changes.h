// What changed between two looks at an object, as lines of text.
#ifndef VEX_TOOLS_VEXREG_CHANGES_H
#define VEX_TOOLS_VEXREG_CHANGES_H

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "framework/registry/registry_file.h"

namespace vex {

// The lines for one object; either state may be null, when there was or is none: "NAME removed";
// "NAME VARIABLE VALUE" for each variable of a new object; "NAME VARIABLE OLD -> NEW" for each that
// changed. Values are as in JSON. An object without variables says how many bytes it has.
std::vector<std::string> ChangeLines(const std::string &name, const FileObject *before,
                                     const FileObject *after);

// The same for programs: {"object": NAME, "removed": true}; {"object": NAME, "variable": VARIABLE,
// "old": OLD, "new": NEW} with null where there was none; {"object": NAME, "bytes": SIZE} of an
// object without variables.
std::vector<nlohmann::ordered_json> ChangeObjects(
    const std::string &name, const FileObject *before, const FileObject *after,
    nlohmann::ordered_json (*value)(const FileObject &, const FileVariable &));

// JSON on one line of ASCII, so that whatever an object holds can go to a terminal.
std::string OneLine(const nlohmann::ordered_json &json);

}  // namespace vex

#endif
