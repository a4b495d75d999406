// Object identifiers as text.
#ifndef VEX_FRAMEWORK_SNMP_OID_TEXT_H
#define VEX_FRAMEWORK_SNMP_OID_TEXT_H

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace vex {

inline constexpr size_t kMaxOidLength = 128;  // RFC 3416: at most 128 sub-identifiers

// Parses "1.3.6.1", ".1.3.6.1" or "enterprises.4891.1.1.0"; nothing for anything else: other names,
// an empty sub-identifier, one above 2^32-1, fewer than two or more than 128 of them, or a first
// pair that cannot be encoded.
std::optional<std::vector<uint32_t>> ParseOid(std::string_view text);

}  // namespace vex

#endif
