#include "identity/appliance.h"

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "common/util.h"
#include "common/variables.h"
#include "platform/framework.h"

// ---- Data block -----------------------------------------------------------------------------

struct [[gnu::packed]] appliance_block {
  int32_t mib_rev_major;
  int32_t mib_rev_minor;
  int32_t mib_condition;
  int32_t poll_frequency;
  int32_t id;
  char description[81];
};
static_assert(sizeof(appliance_block) == 101);
static_assert(offsetof(appliance_block, description) == 20);

// ---- Variables ------------------------------------------------------------------------------

// Every write is refused: the poll period is set through the host group.
static int refuse_set(uint8_t, registry_object *, descriptor *, const void *, int) {
  return -1;
}

static constexpr variable variables[] = {
    {"tlxApMibRevMajor", 4, VAR_INTEGER, ACCESS_READ_ONLY, offsetof(appliance_block, mib_rev_major),
     nullptr},
    {"tlxApMibRevMinor", 4, VAR_INTEGER, ACCESS_READ_ONLY, offsetof(appliance_block, mib_rev_minor),
     nullptr},
    {"tlxApMibCondition", 4, VAR_INTEGER, ACCESS_READ_ONLY,
     offsetof(appliance_block, mib_condition), nullptr},
    {"tlxApOsCommonPollFreq", 4, VAR_INTEGER, ACCESS_WRITABLE,
     offsetof(appliance_block, poll_frequency), refuse_set},
    {"tlxApApplianceId", 4, VAR_INTEGER, ACCESS_READ_ONLY, offsetof(appliance_block, id), nullptr},
    // Without a handler: the framework stores what a manager writes.
    {"tlxApApplianceDescription", 81, VAR_DISPLAY_STRING, ACCESS_WRITABLE,
     offsetof(appliance_block, description), nullptr},
};
static constexpr int variable_count = sizeof(variables) / sizeof(variables[0]);
static_assert(variable_count == 6);

// ---- State ----------------------------------------------------------------------------------

static constexpr int mib_number = 21;
static constexpr int32_t condition_ok = 1;

static bool first_time = true;

// ---- Publishing -----------------------------------------------------------------------------

static registry_object *create_appliance() {
  char name[sizeof(log_dir) + sizeof("/appliance")];
  snprintf(name, sizeof(name), "%s/%s", log_dir, "appliance");
  registry_object *object =
      create_obj(&obj_Q, get_id(), name, 0, sizeof(appliance_block), variable_count);
  if (object == nullptr) {
    return nullptr;
  }
  define_variables(object, variables);
  auto *block = reinterpret_cast<appliance_block *>(object->data);
  block->mib_rev_major = get_mib_major_revision(mib_number);
  block->mib_rev_minor = get_mib_minor_revision(mib_number);
  block->mib_condition = condition_ok;
  block->poll_frequency = 0;
  block->id = 0;
  memset(block->description, 0, sizeof(block->description));
  return object;
}

// ---- Entry point ----------------------------------------------------------------------------

int do_appliance() {
  if (is_appliance() == 0) {
    return 0;
  }
  registry_object *object;
  if (first_time) {
    first_time = false;
    object = create_appliance();
    if (object == nullptr) {
      agentlog_fprintf(stderr, "do_appliance: do_init returns NULL, return NOT_OK\n");
      return -1;
    }
  } else {
    object = find_obj(&obj_Q, 0, "host/appliance");
    if (object == nullptr) {
      agentlog_fprintf(stderr, "do_appliance: find_obj returns NULL, return NOT_OK\n");
      return -1;
    }
  }
  auto *block = reinterpret_cast<appliance_block *>(object->data);
  // An appliance always has this one.
  block->id = *static_cast<const int32_t *>(get_appliance_data("ProductID"));
  if (const auto *name = static_cast<const char *>(get_appliance_data("ProductName"))) {
    copy_field(block->description, name);
  }
  publish_once(object);
  return 0;
}
