// The table of installed software: its rows, and which of them a pass publishes. The pass itself is
// in packages.h.
#ifndef VEX_SOFTWARE_SWVER_H
#define VEX_SOFTWARE_SWVER_H

#include <stddef.h>
#include <stdint.h>

#include "common/group.h"
#include "platform/framework.h"

extern const group swver_group;

// The data block of a row; the component records (components.h) have the same layout.
struct [[gnu::packed]] swver_data {
  int32_t index;
  int32_t status;
  int32_t type;
  char name[128];
  char description[256];
  uint8_t date[8];  // seven octets and a pad byte, kept together
  char location[256];
  char version[51];
  char version_binary[51];
  uint8_t pad[2];
};
static_assert(sizeof(swver_data) == 764);
static_assert(offsetof(swver_data, name) == 12);
static_assert(offsetof(swver_data, description) == 140);
static_assert(offsetof(swver_data, date) == 396);
static_assert(offsetof(swver_data, location) == 404);
static_assert(offsetof(swver_data, version) == 660);
static_assert(offsetof(swver_data, version_binary) == 711);

// Status of an item.
enum swver_status { SWVER_STATUS_UNKNOWN = 1, SWVER_STATUS_FOUND = 2 };

// Types that the passes store.
enum swver_type {
  SWVER_TYPE_DRIVER = 2,
  SWVER_TYPE_AGENT = 3,
  SWVER_TYPE_COMPONENT = 4,
  SWVER_TYPE_OTHER = 5
};

// Where a row stands with the package scan.
enum swver_state {
  SWVER_NOT_SEEN = 0,  // removed at the end of the pass
  SWVER_CREATED = 1,
  SWVER_LISTED = 2,    // by the scan before, and not yet by the one under way
  SWVER_SEEN = 3,      // by the last scan
  SWVER_PERMANENT = 4  // no scan removes it
};

struct swver_row {
  registry_object *object;
  char *key;  // the name under which the row was created, its identity; owned
  int32_t state;
  int32_t changed;  // 1: some value differs from what was last published
  int32_t judged;   // the type that a pass gave it, whatever a manager has set since
};

// A piece of software, as a pass found it. The texts belong to the caller.
struct swver_item {
  const char *name;
  const char *version;
  const char *description;
};

inline swver_data *swver_values(const swver_row *row) {
  return reinterpret_cast<swver_data *>(row->object->data);
}

// Non-zero while the table has no row.
int swver_is_empty();

// The row with that key, or null. Constant time.
swver_row *swver_find(const char *name);

// Walks the rows by instance number: start with *cursor = swver_first(); null at the end.
queue_element *swver_first();
swver_row *swver_next(queue_element **cursor);

// Creates a row under the lowest free instance number. Its data block is zero but for the index,
// its state SWVER_CREATED; it is marked changed and not published yet. Moves the misc group's next
// index on. Returns the row (owned by the table), or null.
swver_row *swver_create(const char *name);

// Takes over what a pass found and marks the row changed when name, version, description, type or
// status differ. A row of a component utility has name, date and location from its record. The
// texts may lie in the row's own data block.
void swver_update(swver_row *row, const char *version, const char *description, const char *name,
                  int32_t type, int32_t status);

// Finds or creates the row of that name, gives it the state, and updates it. Returns 0, or -1 (with
// a message) when it could not be created.
int swver_put(const swver_item *item, int32_t type, int32_t status, int32_t state);

// Gives every row of one state another one.
void swver_change_state(int32_t from, int32_t to);

// The end of a pass: removes the rows that were not seen, publishes those marked changed.
void swver_finish_pass();

#endif
