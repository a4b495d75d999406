#include "framework/machine/distribution.h"

#include <optional>

#include "framework/process/guard.h"
#include "platform/framework.h"

namespace vex {

namespace {

const char *files[2] = {kOsReleaseFiles[0], kOsReleaseFiles[1]};

std::optional<Distribution> &TheDistribution() {
  static auto *distribution = new std::optional<Distribution>;
  return *distribution;
}

const char *Text(std::string Distribution::*member) {
  const std::optional<Distribution> &distribution = TheDistribution();
  return distribution ? ((*distribution).*member).c_str() : "";
}

}  // namespace

Distribution DistributionFrom(const Assignments &os_release) {
  auto value = [&](const char *key) {
    const auto found = os_release.find(key);
    return found == os_release.end() ? std::string() : found->second;
  };
  Distribution d = {value("NAME"), value("VARIANT"), value("VERSION_ID"), value("PRETTY_NAME")};
  if (d.flavor.empty()) {
    d.flavor = value("VERSION_CODENAME");
  }
  return d;
}

void UseOsReleaseFiles(const char *first, const char *second) {
  files[0] = first;
  files[1] = second;
}

}  // namespace vex

int distroid_init(void) {
  const auto load = [] {
    auto &distribution = vex::TheDistribution();
    for (const char *file : vex::files) {
      if (distribution) {
        break;
      }
      if (const auto assignments = vex::ReadAssignments(file, vex::Values::kShell)) {
        distribution = vex::DistributionFrom(*assignments);
      }
    }
    return distribution ? 0 : -1;
  };
  return vex::Guarded(-1, [&] { return vex::Persistently(load); });
}

const char *distroid_name(void) {
  return vex::Text(&vex::Distribution::name);
}

const char *distroid_flavor(void) {
  return vex::Text(&vex::Distribution::flavor);
}

const char *distroid_version(void) {
  return vex::Text(&vex::Distribution::version);
}

const char *distroid_description(void) {
  return vex::Text(&vex::Distribution::description);
}

void distroid_exit(void) {
  vex::TheDistribution().reset();
}
