// unit_sandbox UNITFILE [NAME=VALUE...] COMMAND...: becomes the command, confined as the service
// manager confines a unit's processes: capabilities, system-call filters, limits, file mode mask.
// The variables are set for the command alone. Exit status 2 when the unit holds anything that is
// not understood here, 3 when something cannot be applied; nothing is ever applied in part.
#include <sched.h>
#include <sys/capability.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tests/support/unit_sandbox/filters.h"
#include "tests/support/unit_sandbox/unit_file.h"

using unit_sandbox::Unit;
using unit_sandbox::UnitError;

namespace {

void Check(int result, const std::string &what) {
  if (result != 0) {
    throw UnitError(what + ": " + strerror(errno));
  }
}

// What the manager takes away of the bounding set it takes out of the inheritable one, too; the
// rest follows with execve(), which gives root what both allow.
void DropCapabilities(uint64_t kept) {
  cap_t own = cap_get_proc();
  for (cap_value_t one = 0; one < cap_max_bits(); one++) {
    if ((kept >> one & 1) != 0) {
      continue;
    }
    Check(cap_drop_bound(one), "bounding set");
    Check(cap_set_flag(own, CAP_INHERITABLE, 1, &one, CAP_CLEAR), "inheritable set");
  }
  Check(cap_set_proc(own), "capabilities");
  cap_free(own);
}

void RaiseAmbient(uint64_t set) {
  cap_t own = cap_get_proc();
  for (cap_value_t one = 0; one < cap_max_bits(); one++) {
    if ((set >> one & 1) != 0) {
      Check(cap_set_flag(own, CAP_INHERITABLE, 1, &one, CAP_SET), "inheritable set");
    }
  }
  Check(cap_set_proc(own), "capabilities");
  cap_free(own);
  for (cap_value_t one = 0; one < cap_max_bits(); one++) {
    if ((set >> one & 1) != 0) {
      Check(cap_set_ambient(one, CAP_SET), "ambient set");
    }
  }
}

// In the manager's order.
void Apply(const Unit &unit) {
  // Services that do not say otherwise get this mask.
  umask(unit.umask.value_or(0022));
  for (const auto &[resource, limit] : unit.limits) {
    Check(setrlimit(static_cast<__rlimit_resource_t>(resource), &limit), "limit");
  }
  if (unit.protect_hostname) {
    Check(unshare(CLONE_NEWUTS), "host name");
  }
  if (unit.restrict_realtime && !unit.limits.contains(RLIMIT_RTPRIO)) {
    const rlimit none = {0, 0};
    Check(setrlimit(RLIMIT_RTPRIO, &none), "limit of priorities");
  }
  DropCapabilities(unit.bounding_set);
  RaiseAmbient(unit.ambient_set);
  if (unit.no_new_privileges) {
    Check(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), "new privileges");
  }
  unit_sandbox::LoadFilters(unit);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: unit_sandbox UNITFILE [NAME=VALUE...] COMMAND...\n");
    return 2;
  }
  Unit unit;
  try {
    unit = unit_sandbox::ReadUnit(argv[1]);
  } catch (const UnitError &error) {
    fprintf(stderr, "unit_sandbox: %s\n", error.what());
    return 2;
  }
  char **command = argv + 2;
  for (; *command != nullptr && strchr(*command, '=') != nullptr; command++) {
    putenv(*command);
  }
  if (*command == nullptr) {
    fprintf(stderr, "unit_sandbox: no command\n");
    return 2;
  }
  try {
    Apply(unit);
  } catch (const UnitError &error) {
    fprintf(stderr, "unit_sandbox: %s\n", error.what());
    return 3;
  }
  execvp(*command, command);
  fprintf(stderr, "unit_sandbox: %s: %s\n", *command, strerror(errno));
  return 3;
}
