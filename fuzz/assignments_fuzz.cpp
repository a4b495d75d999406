// os-release(5) and the appliance's file.
#include <stddef.h>
#include <stdint.h>

#include "framework/appliance.h"
#include "framework/distribution.h"

const char *agent = "fuzz";

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  int bad_line = 0;
  const auto assignments =
      vex::ParseAssignments({reinterpret_cast<const char *>(data), size}, &bad_line);
  if (!assignments) {
    if (bad_line <= 0) {
      __builtin_trap();
    }
    return 0;
  }
  for (const auto &[key, value] : *assignments) {
    if (key.empty() || value.find('\0') != std::string::npos ||
        value.find('\n') != std::string::npos) {
      __builtin_trap();
    }
  }
  vex::ApplianceFrom(*assignments);
  vex::DistributionFrom(*assignments);
  return 0;
}
