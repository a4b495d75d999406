#include "framework/machine/appliance.h"

#include <stdint.h>

#include <charconv>
#include <string_view>

#include "framework/process/guard.h"
#include "framework/process/log.h"
#include "platform/framework.h"

namespace vex {

namespace {

constexpr std::string_view kProductId = "ProductID";
constexpr std::string_view kTexts[] = {"ProductName", "OsName", "OsVersion", "VcdbName",
                                       "VcdbVersion"};

const char *file = kApplianceFile;

std::optional<Appliance> Load() {
  const std::optional<Assignments> assignments = ReadAssignments(file, Values::kPlain);
  if (!assignments) {
    return std::nullopt;
  }
  bool bad_id;
  Appliance appliance = ApplianceFrom(*assignments, &bad_id);
  if (bad_id) {
    agentlog_fprintf(stderr, "%s: %s: %s is not a number of 32 bits, taken as 0\n", AgentName(),
                     file, kProductId.data());
  }
  return appliance;
}

// Loaded at the first question: what the machine is does not change while the process lives, and
// callers keep the pointers.
std::optional<std::optional<Appliance>> &Loaded() {
  static auto *loaded = new std::optional<std::optional<Appliance>>;
  return *loaded;
}

const std::optional<Appliance> &TheAppliance() {
  if (!Loaded()) {
    Loaded() = Persistently(Load);
  }
  return *Loaded();
}

}  // namespace

Appliance ApplianceFrom(const Assignments &assignments, bool *bad_id) {
  Appliance appliance;
  *bad_id = false;
  if (const auto id = assignments.find(kProductId); id != assignments.end()) {
    const std::string &text = id->second;
    int32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    *bad_id = error != std::errc() || end != text.data() + text.size();
    appliance.product_id = *bad_id ? 0 : number;
  }
  for (const std::string_view key : kTexts) {
    if (const auto text = assignments.find(key); text != assignments.end()) {
      appliance.texts.insert(*text);
    }
  }
  return appliance;
}

void UseApplianceFile(const char *path) {
  file = path;
  Loaded().reset();
}

}  // namespace vex

int is_appliance(void) {
  return vex::Guarded(0, [] { return vex::TheAppliance().has_value() ? 1 : 0; });
}

const void *get_appliance_data(const char *key) {
  return vex::Guarded(static_cast<const void *>(nullptr), [&]() -> const void * {
    const auto &appliance = vex::TheAppliance();
    if (key == nullptr || !appliance) {
      return nullptr;
    }
    if (key == vex::kProductId) {
      return &appliance->product_id;
    }
    const auto text = appliance->texts.find(std::string_view(key));
    return text == appliance->texts.end() ? nullptr : text->second.c_str();
  });
}
