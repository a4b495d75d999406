// What is in an object's data block, as text and JSON. Object files come from other processes: a
// variable that does not lie within its data block has no value.
#ifndef VEX_TOOLS_VEXREG_VALUES_H
#define VEX_TOOLS_VEXREG_VALUES_H

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "framework/registry/registry_file.h"

namespace vex {

// The bytes as UTF-8: what is UTF-8 already as it stands, any other byte as the character U+00XX.
std::string Utf8(std::string_view bytes);

// A variable's integer; nothing when it is not an integer of 4 bytes within the data block.
std::optional<int32_t> IntegerOf(const FileObject &object, const FileVariable &variable);

// A variable's bytes: a display string up to its first NUL or the field's end, the current octets
// of an octet string, the whole field of anything else. Nothing when the field is not within the
// data block. The bytes belong to the object.
std::optional<std::string_view> BytesOf(const FileObject &object, const FileVariable &variable);

// Two lower-case hexadecimal digits a byte.
std::string Hex(std::string_view bytes);

// "2024-03-05 14:07:09" of seconds since 1970, in local time.
std::string TimeText(int64_t seconds);

// The same with the zone's name behind it: "2024-03-05 14:07:09 CET".
std::string ZonedTimeText(int64_t seconds);
// The same for programs (ISO 8601): "2024-03-05T14:07:09+01:00".
std::string IsoTime(int64_t seconds);

// A variable's value: number, text, or hexadecimal text; null when it has none.
nlohmann::ordered_json ValueJson(const FileObject &object, const FileVariable &variable);

// The variables in slot order, name and value; undefined slots are left out. A name that the object
// uses again gets "#" and the slot added.
nlohmann::ordered_json ObjectJson(
    const FileObject &object,
    nlohmann::ordered_json (*value)(const FileObject &, const FileVariable &) = ValueJson);

}  // namespace vex

#endif
