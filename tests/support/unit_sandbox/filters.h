// The system-call filters that the service manager loads for a unit.
#ifndef VEX_TESTS_SUPPORT_UNIT_SANDBOX_FILTERS_H
#define VEX_TESTS_SUPPORT_UNIT_SANDBOX_FILTERS_H

#include "tests/support/unit_sandbox/unit_file.h"

namespace unit_sandbox {

// Loads them all into this process, in the manager's order. Throws UnitError.
void LoadFilters(const Unit &unit);

}  // namespace unit_sandbox

#endif
