// os-release(5) and the appliance's file.
#include <stddef.h>
#include <stdint.h>

#include <optional>
#include <string_view>

#include "framework/machine/appliance.h"
#include "framework/machine/distribution.h"

const char *agent = "fuzz";

namespace {

std::optional<vex::Assignments> Parse(std::string_view text, vex::Values values) {
  int bad_line = 0;
  auto assignments = vex::ParseAssignments(text, values, &bad_line);
  if (!assignments) {
    if (bad_line <= 0) {
      __builtin_trap();
    }
    return assignments;
  }
  for (const auto &[key, value] : *assignments) {
    if (key.empty() || value.find('\0') != std::string::npos ||
        value.find('\n') != std::string::npos) {
      __builtin_trap();
    }
  }
  return assignments;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string_view text(reinterpret_cast<const char *>(data), size);
  const auto shell = Parse(text, vex::Values::kShell);
  const auto plain = Parse(text, vex::Values::kPlain);
  if (shell && !plain) {
    __builtin_trap();  // what a shell's rules let pass, the plain ones do
  }
  if (shell) {
    vex::DistributionFrom(*shell);
  }
  if (plain) {
    bool bad_id;
    vex::ApplianceFrom(*plain, &bad_id);
  }
  return 0;
}
