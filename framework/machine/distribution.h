// The Linux distribution as os-release(5) names it; see the distroid_ functions.
#ifndef VEX_FRAMEWORK_MACHINE_DISTRIBUTION_H
#define VEX_FRAMEWORK_MACHINE_DISTRIBUTION_H

#include <string>

#include "framework/machine/assignments.h"

namespace vex {

inline constexpr const char *kOsReleaseFiles[] = {"/etc/os-release", "/usr/lib/os-release"};

struct Distribution {
  std::string name;
  std::string flavor;
  std::string version;
  std::string description;
};

Distribution DistributionFrom(const Assignments &os_release);

// Takes the first of these that can be used from now on (tests).
void UseOsReleaseFiles(const char *first, const char *second);

}  // namespace vex

#endif
