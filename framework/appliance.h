// Appliance data from a configuration file; see is_appliance() and get_appliance_data().
#ifndef VEX_FRAMEWORK_APPLIANCE_H
#define VEX_FRAMEWORK_APPLIANCE_H

#include <cstdint>
#include <optional>
#include <string>

#include "framework/assignments.h"

namespace vex {

inline constexpr char kApplianceFile[] = "/etc/quorix/appliance.conf";

struct Appliance {
  int32_t product_id = 0;
  Assignments texts;  // all other keys that are known
};

// What the file's assignments say; nothing when ProductID is no 32-bit number.
std::optional<Appliance> ApplianceFrom(const Assignments &assignments);

// Takes the data from this file from now on (tests).
void UseApplianceFile(const char *path);

}  // namespace vex

#endif
