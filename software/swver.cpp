#include "software/swver.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "common/group.h"
#include "common/next_index.h"
#include "common/row_table.h"
#include "common/util.h"
#include "software/components.h"
#include "software/packages.h"

// ---- Variables ----------------------------------------------------------------------------------

static int swver_set(uint8_t phase, registry_object *object, descriptor *desc, const void *value,
                     int length);

static constexpr int date_length = 7;

enum swver_slot { SLOT_TYPE = 2, SLOT_NAME = 3, SLOT_DATE = 5, SLOT_LOCATION = 6 };

static constexpr variable variables[] = {
    READ_ONLY("tlxHoSwVerIndex", swver_data, index),
    READ_ONLY("tlxHoSwVerStatus", swver_data, status),
    SETTABLE("tlxHoSwVerType", swver_data, type, swver_set),
    SETTABLE("tlxHoSwVerName", swver_data, name, swver_set),
    READ_ONLY("tlxHoSwVerDescription", swver_data, description),
    LEADING_OCTETS("tlxHoSwVerDate", swver_data, date, date_length),
    SETTABLE("tlxHoSwVerLocation", swver_data, location, swver_set),
    READ_ONLY("tlxHoSwVerVersion", swver_data, version),
    READ_ONLY("tlxHoSwVerVersionBinary", swver_data, version_binary),
};

constexpr group swver_group = described<swver_data>({
    .name = "swver",
    .title = "software",
    .flag = 1,
    .variables = variables,
    .refresh = do_swver,
    .along = &swverag_group,
    .each_poll = false,
    .absence = nullptr,
});

// Stores a manager's text of at most `longest` characters at the offset, through the data block as
// bytes: the limits are as long as the fields, so the terminator of the longest text empties the
// next field, until a pass stores that one again. No pass does so with a component's description.
// Managers rely on the limits.
static int set_text(bool check_only, unsigned char *data, size_t offset, const char *text,
                    size_t longest) {
  const size_t length = strlen(text);
  if (length > longest) {
    return -1;
  }
  if (!check_only) {
    memcpy(data + offset, text, length + 1);
  }
  return 0;
}

static_assert(offsetof(swver_data, name) + 128 < sizeof(swver_data));
static_assert(offsetof(swver_data, location) + 256 < sizeof(swver_data));

static int set_type(bool check_only, unsigned char *data, const void *value) {
  int32_t type = 0;
  memcpy(&type, value, sizeof(type));
  if (type < 1 || type > 4) {
    return -1;
  }
  if (!check_only) {
    memcpy(data + offsetof(swver_data, type), &type, sizeof(type));
  }
  return 0;
}

// Publishes nothing: the value stands until a pass finds another one.
static int swver_set(uint8_t phase, registry_object *object, descriptor *desc, const void *value,
                     int) {
  const bool check_only = phase == SET_CHECK;
  if (!check_only && set_wanted(1) == 0) {
    return -1;
  }
  switch (desc->slot) {
    case SLOT_NAME:
      return set_text(check_only, object->data, offsetof(swver_data, name),
                      static_cast<const char *>(value), 128);
    case SLOT_LOCATION:
      return set_text(check_only, object->data, offsetof(swver_data, location),
                      static_cast<const char *>(value), 256);
    case SLOT_TYPE:
      return set_type(check_only, object->data, value);
    default:
      return -1;
  }
}

// ---- State --------------------------------------------------------------------------------------

static row_table<swver_row, &swver_row::object, &swver_row::key> table;

// ---- Rows ---------------------------------------------------------------------------------------

int swver_is_empty() {
  return table.rows.head == nullptr;
}

swver_row *swver_find(const char *name) {
  return table.find(name);
}

queue_element *swver_first() {
  return table.rows.head;
}

swver_row *swver_next(queue_element **cursor) {
  return table.next(cursor);
}

static void release(swver_row *row) {
  free(row->key);
  free(row);
}

swver_row *swver_create(const char *name) {
  auto *row = static_cast<swver_row *>(calloc(1, sizeof(swver_row)));
  if (row == nullptr) {
    return nullptr;
  }
  row->key = strdup(name);
  if (row->key == nullptr) {
    release(row);
    return nullptr;
  }
  row->object = create_or_take_row(swver_group, table.free_index());
  // An object whose row cannot be inserted stays in the registry, unpublished.
  if (row->object == nullptr || !table.insert(row)) {
    release(row);
    return nullptr;
  }
  row->object->desc[SLOT_DATE].length = date_length;
  // The index column says what the next index was, which is not always the row's number: the
  // firmware table moves it too.
  swver_values(row)->index = next_index();
  set_next_index(table.free_index());
  row->state = SWVER_CREATED;
  row->changed = 1;
  return row;
}

// Whether a field holds another text than the given one, cut as the field would cut it. A field
// that a manager filled to the brim has no terminator.
static bool differs(const char *field, size_t size, const char *text) {
  const size_t length = strnlen(text, size - 1);
  return strnlen(field, size) != length || memcmp(field, text, length) != 0;
}

// Stores a text, cut to the field; it may be the field's own.
static void store(char *field, size_t size, const char *text) {
  const size_t length = strnlen(text, size - 1);
  memmove(field, text, length);
  memset(field + length, 0, size - length);
}

void swver_update(swver_row *row, const char *version, const char *description, const char *name,
                  int32_t type, int32_t status) {
  swver_data *data = swver_values(row);
  if (differs(data->name, sizeof(data->name), name) ||
      differs(data->version, sizeof(data->version), version) ||
      differs(data->description, sizeof(data->description), description) || data->type != type ||
      data->status != status) {
    row->changed = 1;
  }
  store(data->description, sizeof(data->description), description);
  const swver_data *record = find_component(row->key);
  if (record != nullptr) {
    memcpy(data->name, record->name, sizeof(data->name));
    memcpy(data->date, record->date, sizeof(data->date));
    memcpy(data->location, record->location, sizeof(data->location));
  } else {
    store(data->name, sizeof(data->name), name);
  }
  store(data->version, sizeof(data->version), version);
  store(data->version_binary, sizeof(data->version_binary), version);
  data->status = status;
  data->type = type;
}

int swver_put(const swver_item *item, int32_t type, int32_t status, int32_t state) {
  swver_row *row = table.find(item->name);
  if (row == nullptr) {
    row = swver_create(item->name);
    if (row == nullptr) {
      agentlog_fprintf(stderr, "%s: Can't %s object: %s  (PEER3023)\n", agent, "create",
                       printable(item->name).text);
      return -1;
    }
  }
  row->state = state;
  row->judged = type;
  swver_update(row, item->version, item->description, item->name, type, status);
  return 0;
}

void swver_change_state(int32_t from, int32_t to) {
  queue_element *cursor = table.rows.head;
  while (swver_row *row = table.next(&cursor)) {
    if (row->state == from) {
      row->state = to;
    }
  }
}

// ---- Publishing ---------------------------------------------------------------------------------

// The next index is left as it is until the next creation.
static void remove_unseen() {
  queue_element *cursor = table.rows.head;
  while (swver_row *row = table.next(&cursor)) {
    if (row->state != SWVER_NOT_SEEN) {
      continue;
    }
    table.remove(row);
    // An object that cannot be deleted stays in the registry; its row is gone either way.
    delete_obj(&obj_Q, row->object, 0);
    release(row);
  }
}

static void publish_changed() {
  queue_element *cursor = table.rows.head;
  while (swver_row *row = table.next(&cursor)) {
    if (row->changed != 0) {
      row->changed = log_data(row->object) != 0;  // else the next pass publishes it
    }
  }
}

void swver_finish_pass() {
  remove_unseen();
  publish_changed();
}
