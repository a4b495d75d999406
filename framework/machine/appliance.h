// Appliance data from a configuration file; see is_appliance() and get_appliance_data().
#ifndef VEX_FRAMEWORK_MACHINE_APPLIANCE_H
#define VEX_FRAMEWORK_MACHINE_APPLIANCE_H

#include <cstdint>
#include <string>

#include "framework/machine/assignments.h"

namespace vex {

inline constexpr char kApplianceFile[] = "/etc/quorix/appliance.conf";

struct Appliance {
  int32_t product_id = 0;
  Assignments texts;  // all other keys that are known
};

// What the file's assignments say. A ProductID that is no 32-bit decimal number costs that key
// alone: it is 0 then, and *bad_id true. Any thread.
Appliance ApplianceFrom(const Assignments &assignments, bool *bad_id);

// Takes the data from this file from now on (tests).
void UseApplianceFile(const char *path);

}  // namespace vex

#endif
