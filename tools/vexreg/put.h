// Making an object from the arguments of `vexreg put`.
#ifndef VEX_TOOLS_VEXREG_PUT_H
#define VEX_TOOLS_VEXREG_PUT_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "framework/registry/registry_file.h"

namespace vex {

// Makes an object with a variable for each of the texts "int:N", "str:SIZE:TEXT" and "hex:HEX", in
// slot order, named var0, var1, ..., packed without gaps, all read-only. With `data` the data block
// is exactly these bytes, which must hold all variables; the texts then give the variables' types
// and sizes only. Nothing when a text is wrong, with the reason in *error.
std::optional<FileObject> MakeObject(const std::vector<std::string> &texts,
                                     const std::optional<std::vector<uint8_t>> &data,
                                     std::string *error);

}  // namespace vex

#endif
