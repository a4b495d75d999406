#include "software/components.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "common/sources.h"
#include "platform/ev.h"
#include "platform/framework.h"

// ---- Records ------------------------------------------------------------------------------------

static constexpr swver_data records[] = {
    {1,
     SWVER_STATUS_UNKNOWN,
     SWVER_TYPE_COMPONENT,
     "CONFIG",
     "QV System Configuration Utility",
     {},
     "",
     "0.0",
     "0.0",
     {}},
    {2,
     SWVER_STATUS_UNKNOWN,
     SWVER_TYPE_COMPONENT,
     "SYSTEMROMKIT",
     "QV System ROMKIT Utility",
     {},
     "",
     "0.0",
     "0.0",
     {}},
    {3,
     SWVER_STATUS_UNKNOWN,
     SWVER_TYPE_COMPONENT,
     "DIAGS",
     "QV Diagnostics Utility",
     {},
     "",
     "0.0",
     "0.0",
     {}},
    {4,
     SWVER_STATUS_UNKNOWN,
     SWVER_TYPE_COMPONENT,
     "DISKDR",
     "QV Drive Array Diagnostic Utility",
     {},
     "",
     "0.0",
     "0.0",
     {}},
    {},
};

const swver_data *component_records() {
  return records;
}

const swver_data *find_component(const char *name) {
  for (const swver_data *record = records; record->index != 0; record++) {
    if (strcmp(record->name, name) == 0) {
      return record;
    }
  }
  return nullptr;
}

// ---- State --------------------------------------------------------------------------------------

static bool read_attempted;
static int read_result;
static uint8_t versions[version_ev_size];  // zero beyond what the EV holds

// ---- Reading ------------------------------------------------------------------------------------

// Where the EV has a utility: the major version at the offset, the minor version and a revision
// letter after it. No record has the name OPTIONROMKIT; a row has it when a manager says so.
static constexpr struct {
  const char *name;
  size_t offset;
} entries[] = {
    {"CONFIG", 3}, {"SYSTEMROMKIT", 15}, {"OPTIONROMKIT", 33}, {"DIAGS", 9}, {"DISKDR", 21},
};

// The three bytes of the utility of that name; null when the EV has none. The name is a field that
// a manager may have filled to the brim.
static const uint8_t *find_version(const char (&name)[sizeof(swver_data::name)]) {
  for (const auto &entry : entries) {
    if (strncmp(name, entry.name, sizeof(name)) == 0) {
      return versions + entry.offset;
    }
  }
  return nullptr;
}

// ---- Publishing ---------------------------------------------------------------------------------

static void update_version(swver_row *row) {
  const swver_data *data = swver_values(row);
  const uint8_t *found = find_version(data->name);
  if (found == nullptr) {
    return;
  }
  if (found[0] == 0 && found[1] == 0) {
    return;  // not installed, or unknown
  }
  char version[16];
  snprintf(version, sizeof(version), "%d.%d%c", found[0], found[1], found[2]);
  swver_update(row, version, data->description, data->name, data->type, SWVER_STATUS_FOUND);
}

int update_component_versions() {
  if (!read_attempted) {
    read_attempted = true;
    uint32_t length = version_ev_size;
    read_result = get_ev(version_ev, versions, &length);
    if (read_result == 0 && length < version_ev_size) {
      agentlog_fprintf(stderr, "EV %s: %u of %u bytes, what is missing counts as zero\n",
                       version_ev, static_cast<unsigned>(length), version_ev_size);
    }
  }
  if (read_result != 0) {
    return -1;
  }
  queue_element *cursor = swver_first();
  while (swver_row *row = swver_next(&cursor)) {
    if (swver_values(row)->type == SWVER_TYPE_COMPONENT) {
      update_version(row);
    }
  }
  return 0;
}
