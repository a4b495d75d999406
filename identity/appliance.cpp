#include "identity/appliance.h"

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "common/group.h"
#include "common/util.h"
#include "platform/framework.h"

// ---- Data block ---------------------------------------------------------------------------------

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

// ---- Variables ----------------------------------------------------------------------------------

// Every write is refused: the poll period is set through the host group.
static int refuse_set(uint8_t, registry_object *, descriptor *, const void *, int) {
  return -1;
}

static constexpr variable variables[] = {
    READ_ONLY("tlxApMibRevMajor", appliance_block, mib_rev_major),
    READ_ONLY("tlxApMibRevMinor", appliance_block, mib_rev_minor),
    READ_ONLY("tlxApMibCondition", appliance_block, mib_condition),
    SETTABLE("tlxApOsCommonPollFreq", appliance_block, poll_frequency, refuse_set),
    READ_ONLY("tlxApApplianceId", appliance_block, id),
    // Without a handler: the framework stores what a manager writes.
    SETTABLE("tlxApApplianceDescription", appliance_block, description, nullptr),
};

constexpr group appliance_group = described<appliance_block>({
    .name = "appliance",
    .title = "appliance",
    .flag = 0,
    .variables = variables,
    .refresh = do_appliance,
    .each_poll = false,
    .absence = "the machine was no appliance at the agent's start",
});

// ---- State --------------------------------------------------------------------------------------

static constexpr int mib_number = 21;
static constexpr int32_t condition_ok = 1;

static bool called;

// ---- Publishing ---------------------------------------------------------------------------------

static registry_object *create() {
  registry_object *object = create_object(appliance_group);
  if (object == nullptr) {
    return nullptr;
  }
  auto *block = reinterpret_cast<appliance_block *>(object->data);
  block->mib_rev_major = get_mib_major_revision(mib_number);
  block->mib_rev_minor = get_mib_minor_revision(mib_number);
  block->mib_condition = condition_ok;
  block->poll_frequency = 0;
  block->id = 0;
  memset(block->description, 0, sizeof(block->description));
  return object;
}

// ---- Entry point --------------------------------------------------------------------------------

int do_appliance() {
  if (is_appliance() == 0) {
    return 0;
  }
  const bool first = first_call(&called);
  registry_object *object = first ? create() : find_object(appliance_group);
  if (object == nullptr) {
    report_no_object("do_appliance", first);
    return -1;
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
